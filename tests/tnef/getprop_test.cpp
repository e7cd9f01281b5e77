#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <string>

#include "support/test_home.h"
#include "support/tnef_builder.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/os_file.h"
#include "tnef/tnef.h"
#include "tnef_defs.h"
#include "tnef_prop/tnef_proplog.h"

using tnefbuild::PropList;
using tnefbuild::RecipTable;
using tnefbuild::Stream;
using Text = std::optional<std::string>;

namespace {

const std::string GS = "\x1d", RS = "\x1e", FS = "\x1c", Z = "\x1b@";  // Z: encoded zero byte

std::string e(const std::string& id, const std::string& value) {
    return id + GS + value;
}
std::string zeros(int n) {
    std::string s;
    while (n-- > 0) s += Z;
    return s;
}

struct Result {
    int found = 0;
    Text props, recips, attach;
    int64_t offsetAfter = -1;
};

Text take(char* text) {
    Text t = text ? Text(text) : std::nullopt;
    std::free(text);
    return t;
}

Result getProp(int fd, const char* request, bool wantTables = true) {
    os_lseek64(fd, 3, 0);  // the position on entry does not matter
    char *props = nullptr, *recips = nullptr, *attach = nullptr;
    Result r;
    r.found = tnef_GetProp(fd, request, &props, wantTables ? &recips : nullptr,
                           wantTables ? &attach : nullptr, "x.tnef");
    r.props = take(props), r.recips = take(recips), r.attach = take(attach);
    r.offsetAfter = os_lseek64(fd, 0, 1);
    return r;
}

Result getProp(const TestHome& home, const std::string& tnef, const char* request,
               bool wantTables = true) {
    home.write("tmp/in.tnef", tnef);
    OsFd fd(os_open("~/tmp/in.tnef", O_RDONLY, 0));
    return getProp(fd.get(), request, wantTables);
}

Stream start() {
    Stream s;
    s.header().tnefVersion();
    return s;
}

std::string propLog(const TestHome& home) {
    return home.read("tmp/tnef.log." + std::to_string(::getpid()));
}

}  // namespace

TEST(GetProp, RequestsSelectMessagePropertiesAndTheFileIsRewound) {
    TestHome home;
    home.write("sys/tnef.dbg", "");
    const std::string tnef = start()
                                 .record(1, attSubject, std::string("Hi\0", 3))
                                 .record(1, attMAPIProps,
                                         PropList()
                                             .string8(0x0037001E, "Hi")
                                             .long32(0x00170003, 2)
                                             .namedId(PSETID_Common, 0x8205)
                                             .long32(0x80010003, 5)
                                             .bytes())
                                 .bytes();
    const std::string named = e("GUID",
                                "\x1b"
                                "H \x1b"
                                "F" +
                                    zeros(5) + "\xc0" + zeros(6) + "F") +
                              RS + e("#3/8205", "5");
    const std::string all = e("37001e", "Hi") + RS + e("170003", "2") + RS + named;
    for (const char* request : {"GET-ALL", "0", "#3"}) {
        const Result r = getProp(home, tnef, request);
        EXPECT_EQ(r.found, 1) << request;
        EXPECT_EQ(r.props, all) << request;
        EXPECT_EQ(r.recips, std::nullopt) << "no attRecipTable";
        EXPECT_EQ(r.attach, std::nullopt) << "no attachment";
    }
    EXPECT_EQ(getProp(home, tnef, "37001e").props, "\x33\x37\x30\x30\x31\x65\x1d\x48\x69");
    EXPECT_EQ(getProp(home, tnef, "#3/8205").props, named);
    const Result absent = getProp(home, tnef, "0e1d001e");
    EXPECT_EQ(absent.found, 0);
    EXPECT_EQ(absent.props, std::nullopt);

    // A second attMAPIProps finds the flag set and cannot replace the first text.
    const std::string twice = start()
                                  .record(1, attMAPIProps, PropList().long32(0x00180003, 3).bytes())
                                  .record(1, attMAPIProps, PropList().long32(0x00170003, 2).bytes())
                                  .bytes();
    EXPECT_EQ(getProp(home, twice, "GET-ALL").props, e("180003", "3"));

    // An attribute id as the request counts as found; the list after it renders nothing.
    const Result attribute = getProp(home, tnef, "69003");
    EXPECT_EQ(attribute.found, 1);
    EXPECT_EQ(attribute.props, "");
    EXPECT_EQ(tnefPropLog, nullptr) << "the log is closed on return";
    const std::string log = propLog(home);
    EXPECT_NE(log.find("\nTNEF file scan of x.tnef for all props: "), std::string::npos);
    EXPECT_NE(log.find("\nTNEF file scan of x.tnef for 0x69003: "), std::string::npos);
    EXPECT_NE(log.find("* Attrib: 0x00069003, Size = 60      offset = 36\n"), std::string::npos);
}

TEST(GetProp, AttachmentRowsJoinAttributesAndListsInRecordOrder) {
    TestHome home;
    home.write("sys/tnef.dbg", "");
    const std::string date = tnefbuild::bytesOf({0xD9, 0x07, 3, 0, 7, 0, 14, 0, 5, 0, 9, 0, 6, 0});
    const std::string tnef =
        start()
            .record(1, attMAPIProps, PropList().string8(0x0037001E, "S").bytes())
            .record(2, attAttachRenddata, "RRRRRRRRRRRRRR")
            .record(2, attAttachTitle, std::string("a.txt\0\0", 7))
            .record(2, attAttachCreateDate, date)
            .record(2, attAttachModifyDate, date + std::string(26, '\0'))  // 40 bytes: no date
            .record(2, attAttachMetaFile, std::string("M\0", 2))
            .record(2, attAttachData, "D\x01")
            .record(2, attAttachment, PropList().string8(0x3707001E, "a.txt").bytes())
            .record(2, attAttachRenddata, "0123456789")
            .record(2, attAttachment, PropList().long32(0x0E200003, 0x100).bytes())
            .record(2, attAttachRenddata, std::string(20, 'r'))
            .bytes();
    // 2009-03-07T14:05:09Z is 0x01C99F2DB96C5880 in 100 ns since 1601.
    const std::string row1 = e("RENDDATA", "RRRRRRRRRRRRRR") + RS + e("3704001e", "a.txt") + RS +
                             e("30070040", "\x80Xl\xb9-\x9f\xc9\x1b\x41") + RS +
                             e("37090102", "M" + Z) + RS + e("37010102", "D\x1b\x41");
    const std::string row2 = e("RENDDATA", "0123456789" + zeros(4));
    const std::string row3 = e("RENDDATA", zeros(14));
    EXPECT_EQ(
        getProp(home, tnef, "GET-ALL").attach,
        row1 + RS + e("3707001e", "a.txt") + FS + row2 + RS + e("e200003", "100") + FS + row3);

    // A match inside an attachment does not count, but the row carries only that property.
    const Result one = getProp(home, tnef, "3707001e");
    EXPECT_EQ(one.found, 0);
    EXPECT_EQ(one.props, std::nullopt);
    EXPECT_EQ(one.attach, row1 + RS + e("3707001e", "a.txt") + FS + row2 + FS + row3);

    // Not wanted: the attachment attributes are not even read.
    std::filesystem::remove(home.file("tmp/tnef.log." + std::to_string(::getpid())));
    EXPECT_EQ(getProp(home, tnef, "GET-ALL", false).props, e("37001e", "S"));
    EXPECT_EQ(propLog(home).find("Processing attAttach"), std::string::npos);
    EXPECT_EQ(propLog(home).find("Processing date"), std::string::npos);

    const std::string bare =
        start()
            .record(2, attAttachment, PropList().string8(0x3707001E, "a").bytes())
            .record(2, attAttachment, PropList().string8(0x3707001E, "b").bytes())
            .bytes();
    EXPECT_EQ(getProp(home, bare, "GET-ALL").attach,
              RS + e("3707001e", "a") + FS + e("3707001e", "b"));
}

TEST(GetProp, RecipientRowsRenderEveryPropertyJoinedByRowSeparators) {
    TestHome home;
    const std::string table = RecipTable()
                                  .row(PropList().string8(0x3001001E, "A").long32(0x0C150003, 1))
                                  .row(PropList())
                                  .row(PropList().string8(0x3001001E, "C"))
                                  .bytes();
    const std::string tnef = start().record(1, attRecipTable, table).bytes();
    const std::string rows =
        e("3001001e", "A") + RS + e("c150003", "1") + FS + FS + e("3001001e", "C");
    EXPECT_EQ(getProp(home, tnef, "GET-ALL").recips, rows);
    const Result other = getProp(home, tnef, "37001e");
    EXPECT_EQ(other.recips, rows) << "rows ignore the request";
    EXPECT_EQ(other.found, 0);

    const auto recipsOf = [&](const std::string& data) {
        return getProp(home, start().record(1, attRecipTable, data).bytes(), "GET-ALL").recips;
    };
    EXPECT_EQ(recipsOf(RecipTable().bytes()), "");
    // A row count far beyond the file ends with the file.
    EXPECT_EQ(recipsOf(RecipTable().row(PropList().string8(0x3001001E, "A")).rowCount(~0u).bytes()),
              e("3001001e", "A") + FS);
}

TEST(GetProp, CutOrTinyFilesReturnTheEntriesCompletedBeforeTheCut) {
    TestHome home;
    Stream cut = start();
    cut.record(1, attMAPIProps, PropList().long32(0x00170003, 2).bytes())
        .record(2, attAttachRenddata, std::string(14, 'R'))
        .record(2, attAttachData, std::string(100, 'd'))
        .truncateRecord(9 + 50);
    const Result r = getProp(home, cut.bytes(), "GET-ALL");
    EXPECT_EQ(r.found, 1);
    EXPECT_EQ(r.props, e("170003", "2"));
    EXPECT_EQ(r.attach, e("RENDDATA", std::string(14, 'R'))) << "no entry for the cut data";
    EXPECT_EQ(r.offsetAfter, 0);

    // A lying length allocates nothing the file does not hold.
    Stream lying = start();
    lying.record(2, attAttachData, "abc").lengthField(0xFFFFFFF0);
    EXPECT_EQ(getProp(home, lying.bytes(), "GET-ALL").attach, std::nullopt);

    EXPECT_EQ(getProp(home, "\x78\x9f\x3e", "GET-ALL").found, 0) << "shorter than the header";
}

namespace {

// A read that raises an escape when it starts at one offset of one descriptor.
int g_failFd = -1;
off_t g_failAt = -1;
int g_failGroup = 0, g_failReason = 0;
ssize_t failingRead(int fd, void* buffer, size_t count) {
    if (fd == g_failFd && ::lseek(fd, 0, SEEK_CUR) == g_failAt)
        throw Escape(g_failGroup, g_failReason, "test", __LINE__);
    return ::read(fd, buffer, count);
}

}  // namespace

TEST(GetProp, EscapesBelowAreAcceptedOrPassedOnWithNothingLeftToFree) {
    TestHome home;
    // The injected failure hits one read at one offset, which read-ahead would never make.
    os_SetIoBufferSize(0);
    home.write("sys/tnef.dbg", "");
    PropList first;
    first.long32(0x00170003, 2);
    const std::string list = PropList(first).string8(0x0037001E, "S").long32(0x00180003, 3).bytes();
    const Stream head = start();
    home.write("tmp/in.tnef",
               Stream(head)
                   .record(1, attMAPIProps, list)
                   .record(2, attAttachment, PropList().string8(0x3707001E, "a").bytes())
                   .bytes());
    OsFd fd(os_open("~/tmp/in.tnef", O_RDONLY, 0));
    OsSysCalls calls = os_GetSysCalls();
    calls.read = failingRead;
    os_SetSysCalls(&calls);
    g_failFd = fd.get();

    // Bad data at the second property's value count abandons that list only.
    g_failAt = static_cast<off_t>(head.size() + 9 + first.size() + 4);
    g_failGroup = ER_GROUP_TNEF, g_failReason = ER_TNEF_TOO_LONG;
    const Result accepted = getProp(fd.get(), "GET-ALL");
    EXPECT_EQ(accepted.found, 1);
    EXPECT_EQ(accepted.props, e("170003", "2"));
    EXPECT_EQ(accepted.attach, RS + e("3707001e", "a"));
    EXPECT_NE(propLog(home).find("** tnef_GetAsBlob Error detected: 102/1546\n"),
              std::string::npos);

    // Exhaustion, here in the attachment after the message text was made, reaches the caller
    // with the call undone.
    g_failAt = static_cast<off_t>(head.size() + 9 + list.size() + 2 + 9 + 8);
    g_failGroup = ER_GROUP_IO, g_failReason = ENOMEM;
    char *props = nullptr, *attach = nullptr;
    EXPECT_THROW(tnef_GetProp(fd.get(), "GET-ALL", &props, nullptr, &attach, "x"), Escape);
    os_SetSysCalls(nullptr);
    EXPECT_EQ(props, nullptr);
    EXPECT_EQ(attach, nullptr);
    EXPECT_EQ(tnefPropLog, nullptr);
    EXPECT_EQ(hitTnefEof, 0);
    EXPECT_EQ(os_lseek64(fd.get(), 0, 1), 0);
    EXPECT_NE(propLog(home).find("** Error detected: 100/12\n"), std::string::npos);
}

TEST(GetProp, EveryCorpusFileRendersWithoutEscape) {
    const std::string corpus = corpusDir();
    if (corpus.empty()) GTEST_SKIP() << "no TNEF corpus beside this checkout";
    TestHome home;
    std::map<std::string, Result> results;
    for (const auto& entry : std::filesystem::directory_iterator(corpus + "/files")) {
        OsFd fd(os_open(entry.path().c_str(), O_RDONLY, 0));
        Result& r = results[entry.path().filename().string()];
        EXPECT_NO_THROW(r = getProp(fd.get(), "GET-ALL")) << entry.path();
        EXPECT_EQ(r.offsetAfter, 0) << entry.path();
    }
    ASSERT_GE(results.size(), 30u);
    const auto has = [](const Text& text, const std::string& part) {
        return text.value_or("").find(part) != std::string::npos;
    };
    const Result& one = results.at("tnef__tests__cmdline__test.tnef");
    EXPECT_EQ(one.found, 1);
    EXPECT_TRUE(has(one.attach, e("3707001e", "AUTHORS")));

    const Result& quick = results.at("poi__test-data__hmef__quick-winmail.dat");
    for (const char* name : {"quick.doc", "quick.html", "quick.pdf", "quick.txt", "quick.xml"})
        EXPECT_TRUE(has(quick.attach, e("3707001e", name) + RS)) << name;
    EXPECT_EQ(std::count(quick.attach->begin(), quick.attach->end(), '\x1c'), 4) << "five rows";

    EXPECT_TRUE(
        has(results.at("poi__test-data__hmef__bug52400-winmail-with-attachments.dat").attach,
            e("3704001e", "Duke_Wave.png") + RS));
    // Its recipient row names the address type in UTF-16LE.
    EXPECT_TRUE(has(results.at("poi__test-data__hmef__bug52400-winmail-simple.dat").recips,
                    e("3002001f", "S" + Z + "M" + Z + "T" + Z + "P" + Z) + RS));
}
