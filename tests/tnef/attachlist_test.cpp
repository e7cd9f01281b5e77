#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string>
#include <vector>

#include "support/test_home.h"
#include "support/tnef_builder.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/os_file.h"
#include "tnef/tnef_attachments.h"
#include "tnef_defs.h"

using tnefbuild::PropList;
using tnefbuild::Stream;
using namespace std::string_literals;

namespace {

constexpr uint32_t PR_ATTACH_METHOD = 0x37050003;
constexpr uint32_t PR_ATTACH_MIME_TAG = 0x370E001E;
constexpr uint32_t PR_ATTACH_LONG_FILENAME_W = 0x3707001F;
constexpr tnefbuild::Guid kIStorage = {0x0B, 0, 0, 0, 0, 0, 0, 0, 0xC0, 0, 0, 0, 0, 0, 0, 0x46};
constexpr tnefbuild::Guid kIMessage = {0x07, 0x03, 0x02, 0, 0, 0, 0, 0,
                                       0xC0, 0,    0,    0, 0, 0, 0, 0x46};

std::string renddata(uint16_t type) {
    return tnefbuild::bytesOf(
        {static_cast<uint8_t>(type), 0, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0, 0, 0, 0, 0});
}

Stream start() {
    Stream s;
    s.header().tnefVersion();
    return s;
}

// A file attachment: rendering record, data, then its property list.
Stream& fileAttachment(Stream& s, const std::string& data, const PropList& props) {
    return s.record(2, attAttachRenddata, renddata(1))
        .record(2, attAttachData, data)
        .record(2, attAttachment, props.bytes());
}

struct Listed {
    TnefAttachList list;
    std::vector<std::string> bytes;  // each attachment's bytes, copied out
};

Listed listBytes(const TestHome& home, const std::string& tnef) {
    home.write("in.tnef", tnef);
    OsFd in(os_open(home.file("in.tnef").c_str(), O_RDONLY, 0));
    Listed l;
    tnef_ListAttachments(in.get(), &l.list);
    for (const TnefAttachInfo& a : l.list.attachments) {
        const std::string out = home.file("out-" + std::to_string(a.index));
        OsFd o(os_open(out.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644));
        EXPECT_EQ(tnef_CopyAttachment(in.get(), &a, o.get()), a.dataLength);
        l.bytes.push_back(readFileBytes(out));
    }
    return l;
}

}  // namespace

TEST(AttachList, DataComesFromEachSourceAndCopiesByteForByte) {
    TestHome home;
    Stream s = start();
    fileAttachment(s, "plain bytes", PropList().string8(PR_ATTACH_LONG_FILENAME, "long name.txt"));
    s.record(2, attAttachRenddata, renddata(1))
        .record(2, attAttachment,
                PropList()
                    .string8(PR_ATTACH_FILENAME, "BIN.DAT")
                    .binary(PR_ATTACH_DATA_BIN, "from bin")
                    .bytes());
    s.record(2, attAttachRenddata, renddata(2))
        .record(2, attAttachTitle, "Picture\0"s)
        .record(2, attAttachment,
                PropList()
                    .long32(PR_ATTACH_METHOD, 6)
                    .object(PR_ATTACH_DATA_OBJ, kIStorage, "\xD0\xCF\x11\xE0storage")
                    .bytes());
    const Listed l = listBytes(home, s.bytes());

    ASSERT_EQ(l.list.attachments.size(), 3u);
    const auto& a = l.list.attachments;
    EXPECT_EQ(a[0].source, TNEF_DATA_ATTACH_DATA);
    EXPECT_EQ(tnef_AttachBestName(a[0]), "long name.txt");
    EXPECT_EQ(l.bytes[0], "plain bytes");
    EXPECT_EQ(a[1].source, TNEF_DATA_BIN);
    EXPECT_EQ(tnef_AttachBestName(a[1]), "BIN.DAT");
    EXPECT_EQ(l.bytes[1], "from bin");
    // An OLE object is its storage: the interface identifier in front of it is not data.
    EXPECT_EQ(a[2].kind, TNEF_ATTACH_OLE);
    EXPECT_EQ(a[2].method, 6u);
    EXPECT_EQ(tnef_AttachBestName(a[2]), "Picture");
    EXPECT_EQ(l.bytes[2], "\xD0\xCF\x11\xE0storage");
    EXPECT_EQ(l.list.flags, 0u);
}

TEST(AttachList, EmbeddedMessageIsListedWithItsOwnAttachmentsAfterIt) {
    TestHome home;
    Stream inner = start();
    inner.record(1, attSubject, "Inner\0"s);
    fileAttachment(inner, "inner bytes", PropList().string8(PR_ATTACH_LONG_FILENAME, "inner.txt"));
    Stream s = start();
    s.record(2, attAttachRenddata, renddata(1))
        .record(2, attAttachData, "MAPI 1.0 embedded message\0"s)
        .record(2, attAttachment,
                PropList()
                    .string8(PR_DISPLAY_NAME, "Forwarded")
                    .object(PR_ATTACH_DATA_OBJ, kIMessage, inner.bytes())
                    .bytes());
    fileAttachment(s, "outer bytes", PropList().string8(PR_ATTACH_LONG_FILENAME, "outer.txt"));
    const Listed l = listBytes(home, s.bytes());

    ASSERT_EQ(l.list.attachments.size(), 3u);
    const auto& a = l.list.attachments;
    EXPECT_EQ(a[0].kind, TNEF_ATTACH_MESSAGE);
    EXPECT_EQ(tnef_AttachBestName(a[0]), "Forwarded");
    EXPECT_EQ(l.bytes[0], inner.bytes()) << "the embedded stream, from its signature on";
    EXPECT_EQ(a[1].index, 2u);
    EXPECT_EQ(a[1].parent, 1u);
    EXPECT_EQ(a[1].depth, 1u);
    EXPECT_EQ(l.bytes[1], "inner bytes");
    EXPECT_EQ(a[2].parent, 0u);
    EXPECT_EQ(l.bytes[2], "outer bytes");
}

TEST(AttachList, NestingStopsAtTheDepthLimit) {
    TestHome home;
    std::string stream = start().bytes();
    for (uint32_t level = 0; level < TNEF_ATTACH_DEPTH_LIMIT + 3; ++level) {
        Stream s = start();
        s.record(2, attAttachRenddata, renddata(1))
            .record(2, attAttachment,
                    PropList().object(PR_ATTACH_DATA_OBJ, kIMessage, stream).bytes());
        stream = s.bytes();
    }
    const Listed l = listBytes(home, stream);
    ASSERT_EQ(l.list.attachments.size(), TNEF_ATTACH_DEPTH_LIMIT + 1);
    EXPECT_EQ(l.list.attachments.back().depth, TNEF_ATTACH_DEPTH_LIMIT);
    EXPECT_NE(l.list.attachments.back().flags & TNEF_ATTACH_TOO_DEEP, 0u);
}

TEST(AttachList, NamesBecomeUtf8FromTheCodePageOrUtf16) {
    TestHome home;
    Stream s = start();
    s.oemCodepage(1252);
    s.record(2, attAttachRenddata, renddata(1))
        .record(2, attAttachTitle,
                "d\xF6"
                "c.pdf\0"s);
    s.record(2, attAttachRenddata, renddata(1))
        .record(2, attAttachment,
                PropList()
                    .unicode(PR_ATTACH_LONG_FILENAME_W,
                             tnefbuild::utf16le("a") + "\x3D\xD8\x00\xDE"s + "\x00\xD8"s)
                    .string8(PR_ATTACH_MIME_TAG, "text/plain")
                    .string8(PR_ATTACH_FILENAME, std::string(TNEF_ATTACH_NAME_LIMIT + 10, 'n'))
                    .bytes());
    const Listed l = listBytes(home, s.bytes());
    ASSERT_EQ(l.list.attachments.size(), 2u);
    EXPECT_EQ(l.list.codePage, 1252u);
    EXPECT_EQ(l.list.attachments[0].title,
              "d\xC3\xB6"
              "c.pdf");
    const TnefAttachInfo& b = l.list.attachments[1];
    EXPECT_EQ(b.longFileName, "a\xF0\x9F\x98\x80\xEF\xBF\xBD")
        << "a pair, then an unpaired surrogate";
    EXPECT_EQ(b.mimeTag, "text/plain");
    EXPECT_EQ(b.fileName.size(), TNEF_ATTACH_NAME_LIMIT);
    EXPECT_NE(b.flags & TNEF_ATTACH_NAME_CUT, 0u);
}

TEST(AttachList, AttachmentsWithoutRenderingRecordsAreToldApartByRepeats) {
    TestHome home;
    // Some writers leave the type half of the identifier 0.
    const std::string s =
        start()
            .record(2, attAttachData & 0xFFFF, "one")
            .record(2, attAttachData, "two")
            .record(2, attAttachment, PropList().string8(PR_ATTACH_FILENAME, "two.txt").bytes())
            .bytes();
    const Listed l = listBytes(home, s);
    ASSERT_EQ(l.list.attachments.size(), 2u);
    EXPECT_EQ(l.bytes[0], "one");
    EXPECT_EQ(l.bytes[1], "two");
    EXPECT_EQ(tnef_AttachBestName(l.list.attachments[1]), "two.txt");
    EXPECT_EQ(tnef_AttachBestName(l.list.attachments[0]), "");
}

TEST(AttachList, RefusesWhatIsNotATnefFile) {
    TestHome home;
    home.write("plain.txt", "not a TNEF file");
    OsFd plain(os_open(home.file("plain.txt").c_str(), O_RDONLY, 0));
    TnefAttachList list;
    list.flags = 7;
    try {
        tnef_ListAttachments(plain.get(), &list);
        ADD_FAILURE() << "no escape";
    } catch (const Escape& e) {
        EXPECT_EQ(e.group, ER_GROUP_TNEF);
        EXPECT_EQ(e.reason, ER_TNEF_BAD_SIGNATURE);
    }
    EXPECT_EQ(list.flags, 0u);

    int pipeFds[2];
    ASSERT_EQ(::pipe(pipeFds), 0);
    OsFd readEnd(pipeFds[0]), writeEnd(pipeFds[1]);
    try {
        tnef_ListAttachments(readEnd.get(), &list);
        ADD_FAILURE() << "no escape";
    } catch (const Escape& e) {
        EXPECT_EQ(e.group, ER_GROUP_IO);
        EXPECT_EQ(e.reason, ESPIPE);
    }
}

// Each way of copying gives the same bytes: the kernel refuses an output opened for
// appending (the mapped copy takes over) and cannot map a pipe (the buffer takes over).
TEST(AttachList, CopyReachesAppendingFilesAndPipes) {
    TestHome home;
    Stream s = start();
    fileAttachment(s, std::string(300000, 'z'), PropList());
    fileAttachment(s, std::string(50000, 'p'), PropList());
    home.write("in.tnef", s.bytes());
    OsFd in(os_open(home.file("in.tnef").c_str(), O_RDONLY, 0));
    TnefAttachList list;
    tnef_ListAttachments(in.get(), &list);
    ASSERT_EQ(list.attachments.size(), 2u);
    home.write("out", "head:");
    OsFd out(os_open(home.file("out").c_str(), O_WRONLY | O_APPEND, 0));
    tnef_CopyAttachment(in.get(), &list.attachments[0], out.get());
    EXPECT_EQ(home.read("out"), "head:" + std::string(300000, 'z'));

    int pipeFds[2];
    ASSERT_EQ(::pipe(pipeFds), 0);
    OsFd readEnd(pipeFds[0]), writeEnd(pipeFds[1]);
    tnef_CopyAttachment(in.get(), &list.attachments[1], writeEnd.get());  // fits the pipe
    writeEnd.close();
    std::string piped(60000, '\0');
    piped.resize(static_cast<size_t>(os_read(readEnd.get(), piped.data(), 60000)));
    EXPECT_EQ(piped, std::string(50000, 'p'));

    TnefAttachInfo beyond = list.attachments[1];
    beyond.dataLength = s.bytes().size() - beyond.dataOffset + 10;  // as if the file had shrunk
    try {
        tnef_CopyAttachment(in.get(), &beyond, out.get());
        ADD_FAILURE() << "no escape";
    } catch (const Escape& e) {
        EXPECT_EQ(e.group, ER_GROUP_IO);
        EXPECT_EQ(e.reason, EIO);
    }
    // A pipe whose reader is gone refuses every write: the copy says so and stops.
    readEnd.close();
    int closedPipe[2];
    ASSERT_EQ(::pipe(closedPipe), 0);
    OsFd deaf(closedPipe[1]);
    ::close(closedPipe[0]);
    ::signal(SIGPIPE, SIG_IGN);
    try {
        tnef_CopyAttachment(in.get(), &list.attachments[1], deaf.get());
        ADD_FAILURE() << "no escape";
    } catch (const Escape& e) {
        EXPECT_EQ(e.reason, EPIPE);
    }
}

// Bytes that begin on a page boundary go through the kernel's in-place copy.
TEST(AttachList, CopyOfPageAlignedBytes) {
    TestHome home;
    Stream s = start();
    s.record(1, 0x00010099, std::string(4030, 'f'));  // puts the data at offset 4096
    fileAttachment(s, std::string(20000, 'k'), PropList());
    const Listed l = listBytes(home, s.bytes());
    ASSERT_EQ(l.list.attachments.size(), 1u);
    EXPECT_EQ(l.list.attachments[0].dataOffset, 4096u);
    EXPECT_EQ(l.bytes[0], std::string(20000, 'k'));
}
