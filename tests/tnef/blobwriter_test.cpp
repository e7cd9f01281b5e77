// Whole streams written from property, attachment and recipient blobs. Expected streams are
// laid out with the stream builder, never with the writer under test.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <initializer_list>
#include <string>

#include "support/test_home.h"
#include "support/tnef_builder.h"
#include "tnef/platform/cust_flags.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/mapi_blob.h"
#include "tnef/platform/os_file.h"
#include "tnef/tnef.h"
#include "tnef_defs.h"
#include "tnef_prop/tnef_proplog.h"

using namespace std::string_literals;
using tnefbuild::bytesOf;
using tnefbuild::PropList;
using tnefbuild::RecipTable;
using tnefbuild::sameBytes;
using tnefbuild::Stream;

namespace {

const std::string RS = "\x1e";
const std::string GS = "\x1d";
const std::string FS = "\x1c";

std::string enc(const std::string& bytes) {
    dstring out;
    mapi_BlobEncodeToDstring(bytes.data(), bytes.size(), &out);
    return out.text;
}

std::string join(std::initializer_list<std::string> parts, const std::string& sep) {
    std::string out;
    for (const std::string& p : parts) out += (&p == parts.begin() ? "" : sep) + p;
    return out;
}

// What every blob-written stream begins with: header, attTnefVersion, code page 1252.
Stream head() {
    return Stream().header().tnefVersion().oemCodepage(1252);
}

std::string written(const TestHome& home, const char* props, const char* attach, const char* recips,
                    int savedFd = -1) {
    OsFd fd(os_open("~/tmp/out.tnef", O_RDWR | O_CREAT | O_TRUNC, 0600));
    EXPECT_EQ(tnef_WriteBrenvoProps2ObjectFile(fd.get(), savedFd, props, attach, recips), 1);
    return readFileBytes(home.file("tmp/out.tnef"));
}

}  // namespace

TEST(BlobWriter, RecipientTablePrecedesMessagePropertiesAndEmptyBlobsWriteNothing) {
    TestHome home;
    EXPECT_TRUE(sameBytes(written(home, nullptr, nullptr, nullptr), head().bytes())) << "all null";
    EXPECT_TRUE(sameBytes(written(home, "", "", ""), head().bytes())) << "all empty";

    // Three rows, the middle one empty; a row separator at the very end adds none.
    const std::string recips =
        join({"3001001e" + GS + "Ann" + RS + "c150003" + GS + "1", "", "3001001e" + GS + "Bob"},
             FS) +
        FS;
    const std::string props = "37001e" + GS + "Hi";
    const std::string expected =
        head()
            .record(1, attRecipTable,
                    RecipTable()
                        .row(PropList().string8(0x3001001E, "Ann").long32(0x0C150003, 1))
                        .row(PropList())
                        .row(PropList().string8(0x3001001E, "Bob"))
                        .bytes())
            .record(1, attMAPIProps, PropList().string8(PR_SUBJECT, "Hi").bytes())
            .bytes();
    EXPECT_TRUE(sameBytes(written(home, props.c_str(), nullptr, recips.c_str()), expected));

    cust_Set("MAPIXML_GEN_EMPTY_RECIP_TABLE", "true");
    EXPECT_TRUE(sameBytes(written(home, "37001e", nullptr, ""),
                          head()
                              .record(1, attRecipTable, RecipTable().bytes())
                              .record(1, attMAPIProps, PropList().bytes())
                              .bytes()))
        << "an empty recipient table when asked for; a property blob without a value "
           "separator still gets its (empty) attMAPIProps";
}

TEST(BlobWriter, AttachmentAttributeEntriesBecomeAttributesBeforeAttAttachment) {
    TestHome home;
    const std::string rend10 =
        bytesOf({0x01, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0x1C, 0x1D, 0x1E, 0x00});
    const std::string march7 =
        bytesOf({0x80, 0x58, 0x6c, 0xb9, 0x2d, 0x9f, 0xc9, 0x01});  // 2009-03-07T14:05:09Z
    auto e = [](const std::string& id, const std::string& value) { return id + GS + value; };
    // A leading entry separator, as tnef_GetProp writes when no attAttachRenddata opened the
    // first row, is passed over.
    const std::string attach =
        RS +
        join({join({e("RENDDATA", enc(rend10)), e("3704001e", "title"), e("3001001e", "name")}, RS),
              // Starts with a property, so a later RENDDATA is a property too (tag 0).
              join({e("3001001e", "x"), e("RENDDATA", "abcd")}, RS),
              // Attribute entries only.
              join({e("37010102", enc("bin\0"s)), e("3701000d", "obj"), e("37090102", "meta"),
                    e("30070040", enc(march7)), e("30080040", ""),
                    e("RENDDATA", std::string(20, 'r')), e("3704001e", "abcd")},
                   RS)},
             FS);
    // Date records: year, month, day, hour, minute, second, day of week (Sunday 0).
    const std::string created = bytesOf({0xD9, 0x07, 3, 0, 7, 0, 14, 0, 5, 0, 9, 0, 6, 0});
    const std::string modified =
        bytesOf({0x41, 0x06, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0, 1, 0});  // FILETIME 0
    const std::string expected =
        head()
            .record(2, attAttachRenddata, rend10 + std::string(4, '\0'))
            .record(2, attAttachTitle, "title\0\0\0"s)  // padded to 8, summed over 5
            .record(2, attAttachment, PropList().string8(0x3001001E, "name").bytes())
            .record(2, attAttachment,
                    PropList().string8(0x3001001E, "x").long32(0, 0x64636261).bytes())
            .record(2, attAttachData, "bin\0"s)
            .record(2, attAttachData, "obj")
            .record(2, attAttachMetaFile, "meta")
            .record(2, attAttachCreateDate, created)
            .record(2, attAttachModifyDate, modified)
            .record(2, attAttachRenddata, std::string(14, 'r'))  // the first 14 bytes
            .record(2, attAttachTitle, "abcd")  // a multiple of 4 already: no NUL added
            .record(2, attAttachment, PropList().bytes())
            .bytes();
    EXPECT_TRUE(sameBytes(written(home, nullptr, attach.c_str(), nullptr), expected));
}

TEST(BlobWriter, AttachmentSourceFollowsTheFlags) {
    TestHome home;
    // Of a saved stream only the attachment records and the subject are copied, byte for
    // byte, wrong checksum included.
    const std::string copied =
        Stream()
            .record(2, attAttachRenddata, std::string(14, '\x02'))
            .checksum(0xBEEF)
            .record(2, attAttachment, PropList().string8(0x3704001E, "a.txt").bytes())
            .record(1, attSubject, "S\0"s)
            .bytes();
    home.write("tmp/saved.tnef",
               Stream().header()
                       .tnefVersion()
                       .oemCodepage(437)
                       .record(1, attMAPIProps, PropList().long32(PR_IMPORTANCE, 2).bytes())
                       .bytes() +
                   copied +
                   Stream().record(1, attRecipTable, RecipTable().row(PropList()).bytes()).bytes());
    OsFd saved(os_open("~/tmp/saved.tnef", O_RDONLY, 0));
    const std::string row = "3001001e" + GS + "n";
    const std::string fromBlob =
        head().record(2, attAttachment, PropList().string8(0x3001001E, "n").bytes()).bytes();

    EXPECT_TRUE(sameBytes(written(home, nullptr, row.c_str(), nullptr, saved.get()), fromBlob));
    EXPECT_TRUE(sameBytes(written(home, nullptr, "", nullptr, saved.get()), head().bytes()))
        << "an empty blob writes nothing and copies nothing";
    EXPECT_TRUE(
        sameBytes(written(home, nullptr, nullptr, nullptr, saved.get()), head().bytes() + copied));
    EXPECT_TRUE(sameBytes(written(home, nullptr, nullptr, nullptr, -1), head().bytes()));
    cust_Set("MAPIXML_WRITE_ATTACHTABLE", "false");
    EXPECT_TRUE(sameBytes(written(home, nullptr, row.c_str(), nullptr, saved.get()),
                          head().bytes() + copied));
    cust_Set("MAPIXML_PRESERVE_ATTACHMENT_ATTRIBS", "no");
    EXPECT_TRUE(
        sameBytes(written(home, nullptr, row.c_str(), nullptr, saved.get()), head().bytes()));
}

TEST(BlobWriter, SavedRecordsCutShortAreNotCopied) {
    TestHome home;
    const std::string good = Stream().record(2, attAttachTitle, "t\0"s).bytes();
    const std::string tails[] = {
        Stream().record(2, attAttachData, "0123456789").truncateRecord(15).bytes(),  // data
        Stream().record(2, attAttachData, "0123").truncateRecord(13).bytes(),        // checksum
        Stream().record(2, attAttachData, "x").truncateRecord(6).bytes(),            // head
        // Claims 4 GiB while the file holds 10 bytes: no buffer may be sized from the claim.
        Stream().record(2, attAttachData, "0123456789").lengthField(0xFFFFFFF0).bytes(),
    };
    for (const std::string& tail : tails) {
        home.write("tmp/saved.tnef", Stream().header().bytes() + good + tail);
        OsFd saved(os_open("~/tmp/saved.tnef", O_RDONLY, 0));
        EXPECT_TRUE(sameBytes(written(home, nullptr, nullptr, nullptr, saved.get()),
                              head().bytes() + good));
    }
}

TEST(BlobWriter, LongRecordsGetTheChecksumOfTheirWholeData) {
    TestHome home;
    std::string big;  // well over the 1024-byte read-back chunk
    for (int i = 0; i < 3001; ++i) big.push_back(static_cast<char>((i * 7 + 3) & 0xFF));
    const std::string props = "10000102" + GS + enc(big);
    const std::string attach = "37010102" + GS + enc(big) + RS + "e000102" + GS + enc(big);
    EXPECT_TRUE(sameBytes(written(home, props.c_str(), attach.c_str(), nullptr),
                          head()
                              .record(1, attMAPIProps, PropList().binary(0x10000102, big).bytes())
                              .record(2, attAttachData, big)
                              .record(2, attAttachment, PropList().binary(0x0E000102, big).bytes())
                              .bytes()));
}

namespace {

int64_t g_writeBudget = 0;
ssize_t budgetedWrite(int fd, const void* buf, size_t n) {
    if (g_writeBudget <= 0) {
        errno = ENOSPC;
        return -1;
    }
    const ssize_t done = ::write(
        fd, buf, n < static_cast<size_t>(g_writeBudget) ? n : static_cast<size_t>(g_writeBudget));
    if (done > 0) g_writeBudget -= done;
    return done;
}

ssize_t failingRead(int, void*, size_t) {
    errno = EIO;
    return -1;
}

}  // namespace

TEST(BlobWriter, IoFailuresEndTheCallCleanly) {
    TestHome home;
    home.write("sys/tnef.dbg", "");
    const std::string props = "37001e" + GS + "Hi";
    const std::string attach =
        "RENDDATA" + GS + "r" + RS + "3001001e" + GS + "name" + FS + "3001001e" + GS + "2";

    // A full disk anywhere: the escape reaches the caller, the prop log is closed behind it,
    // and (in the sanitizer build) nothing leaks.
    OsSysCalls calls = os_GetSysCalls();
    calls.write = budgetedWrite;
    os_SetSysCalls(&calls);
    for (int64_t budget : {0, 30, 60, 120}) {
        g_writeBudget = budget;
        OsFd fd(os_open("~/tmp/out.tnef", O_RDWR | O_CREAT | O_TRUNC, 0600));
        try {
            tnef_WriteBrenvoProps2ObjectFile(fd.get(), -1, props.c_str(), attach.c_str(), nullptr);
            ADD_FAILURE() << "no escape with " << budget << " bytes of room";
        } catch (const Escape& e) {
            EXPECT_EQ(e.reason, ENOSPC);
        }
        EXPECT_EQ(tnefPropLog, nullptr);
    }

    // A read-back that fails ends the checksum at 0; the call still returns.
    os_SetSysCalls(nullptr);
    calls = os_GetSysCalls();
    calls.read = failingRead;
    os_SetSysCalls(&calls);
    const std::string out = written(home, props.c_str(), nullptr, nullptr);
    os_SetSysCalls(nullptr);
    EXPECT_TRUE(
        sameBytes(out, head()
                           .record(1, attMAPIProps, PropList().string8(PR_SUBJECT, "Hi").bytes())
                           .checksum(0)
                           .bytes()));

    const std::string log = home.read("tmp/tnef.log." + std::to_string(::getpid()));
    EXPECT_NE(
        log.find("  tnef_AddPropSequence propid=[37001e]\n  tnef_AddPropSequence values=[Hi]\n"),
        std::string::npos);
    EXPECT_NE(log.find("  tnef_AddAttachTableFromBlob propid=[RENDDATA]\n"), std::string::npos);
}
