#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>

#include "support/test_home.h"
#include "support/tnef_builder.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/os_file.h"
#include "tnef/tnef.h"
#include "tnef_defs.h"
#include "tnef_scan/tnef_scan.h"

using tnefbuild::PropList;
using tnefbuild::Stream;

namespace {

struct Scanned {
    int found = -1;
    std::string rows;  // "hasData:longFileName:fileName;" per record, "-" for null
    size_t count = 0;
    int64_t offsetAfter = -1;
};

// Describes the list and frees it.
void takeRows(TnefAttachScan*& list, Scanned& s) {
    for (TnefAttachScan* r = list; r != nullptr; r = r->next, ++s.count)
        s.rows += std::to_string(r->hasData) + ":" + (r->longFileName ? r->longFileName : "-") +
                  ":" + (r->fileName ? r->fileName : "-") + ";";
    tnef_FreeScanList(&list);
}

Scanned scanFd(int fd, uint32_t wanted) {
    os_lseek64(fd, 5, 0);  // the position on entry does not matter
    TnefAttachScan* list = nullptr;
    Scanned s;
    s.found = tnef_ScanTnef(fd, wanted, &list);
    takeRows(list, s);
    s.offsetAfter = os_lseek64(fd, 0, 1);
    return s;
}

Scanned scan(const TestHome& home, const std::string& tnef, uint32_t wanted) {
    home.write("tmp/in.tnef", tnef);
    OsFd fd(os_open("~/tmp/in.tnef", O_RDONLY, 0));
    return scanFd(fd.get(), wanted);
}

Stream start() {
    Stream s;
    s.header().tnefVersion();
    return s;
}

// The log stays open for the life of the process: a test that reads it opens it afresh.
void forgetScanLog() {
    if (TraceF != nullptr) std::fclose(TraceF);
    TraceF = nullptr;
}

std::string scanLogName(const TestHome& home) {
    return home.file("tmp/tnefout.log." + std::to_string(::getpid()));
}

const tnefbuild::Guid kIid = PSETID_Common;

}  // namespace

TEST(Scan, LogLinesMarkOnlyTheFirstMatchAndNameLinesRunOn) {
    TestHome home;
    forgetScanLog();
    const std::string tnef = start()
                                 .record(2, attAttachTitle, std::string("t\0", 2))
                                 .record(2, attAttachment,
                                         PropList()
                                             .long32(0x0E210003, 1)
                                             .string8(PR_ATTACH_LONG_FILENAME, "a.txt")
                                             .binary(PR_ATTACH_DATA_BIN, "12345")
                                             .object(PR_ATTACH_DATA_OBJ, kIid, "xy")
                                             .bytes())
                                 .record(2, attAttachment,
                                         PropList()
                                             .binary(PR_ATTACH_DATA_BIN, "abcd")
                                             .long32(0x0001000A, 0)  // PT_ERROR ends the list
                                             .string8(PR_ATTACH_FILENAME, "no")
                                             .bytes())
                                 .record(2, attAttachData, "D")
                                 .bytes();
    const Scanned quiet = scan(home, tnef, PR_ATTACH_DATA_BIN);
    EXPECT_EQ(TraceF, nullptr);
    EXPECT_FALSE(std::filesystem::exists(scanLogName(home)));

    home.write("tmp/tnefout.log", "");
    const Scanned logged = scan(home, tnef, PR_ATTACH_DATA_BIN);
    EXPECT_EQ(logged.found, 1);
    EXPECT_EQ(logged.offsetAfter, 0);
    EXPECT_EQ(logged.rows, "1:a.txt:-;1:t:-;") << "the second takes the title";
    EXPECT_EQ(quiet.rows, logged.rows);
    EXPECT_EQ(quiet.found, 1);

    const std::string log = readFileBytes(scanLogName(home));
    const std::string head = "\nTNEF file scan for 0x37010102: ";
    ASSERT_EQ(log.substr(0, head.size()), head);
    EXPECT_EQ(log.substr(log.find('\n', head.size()) + 1),  // after the time
              "  Attrib: 0x00089006, Size = 4       offset = 7\n"
              "  Attrib: 0x00018010, Size = 2       offset = 22\n"
              "  Attrib: 0x00069005, Size = 84      offset = 35\n"
              "  No. Props  -- 4\n"
              "    Property: 0x0e210003  Size = 4\n"
              "    Property: 0x3707001e*   Property: 0x37010102  Size = 8\n"
              "    Property: 0x3701000d  Size = 4\n"
              "  Attrib: 0x00069005, Size = 44      offset = 130\n"
              "  No. Props  -- 3\n"
              "    Property: 0x37010102  Size = 4\n"
              "    Property: 0x0001000a  Attrib: 0x0006800f, Size = 1       offset = 185\n");

    // The flag starts at 0 again; an attribute id can be wanted as well as a tag.
    EXPECT_EQ(scan(home, tnef, 0x12345678).found, 0);
    EXPECT_EQ(scan(home, tnef, attAttachData).found, 1);
    EXPECT_NE(readFileBytes(scanLogName(home)).find("* Attrib: 0x0006800f"), std::string::npos);
    const Scanned bare = scan(home, Stream().header().bytes(), attAttachData);
    EXPECT_EQ(bare.found, 0);
    EXPECT_EQ(bare.count, 0u);
}

namespace {

// Attachment properties of every type the scan steps over, then a file name that a wrong
// step anywhere loses.
std::string everyType() {
    PropList p;
    p.namedId(PSETID_Common, 0x8503).i2(0x8001000B, 1);
    p.namedString(PS_PUBLIC_STRINGS, tnefbuild::utf16le("Keywords")).mvString8(0x8002101E, {"k"});
    p.i2(0x00010002, 7).long32(0x00020003, 1).r4(0x00030004, 1.5f).r8(0x00040005, 2.5);
    p.i8(0x00050006, 1).r8(0x00060007, 3.0).i8(0x00070014, 9).i8(0x00080040, 10);
    p.clsid(0x00090048, kIid).mvI2(0x000A1002, {1, 2, 3}).mvLong(0x000B1003, {4});
    p.mvLong(0x000C1004, {5, 6}).mvI8(0x000D1005, {1}).mvI8(0x000E1006, {2, 3});
    p.mvI8(0x000F1007, {4}).mvI8(0x00101014, {5}).mvI8(0x00111040, {6});
    p.mvClsid(0x00121048, {kIid, kIid}).unicode(0x0013001F, tnefbuild::utf16le("uni"));
    p.mvUnicode(0x0014101F, {tnefbuild::utf16le("a"), tnefbuild::utf16le("bcd")});
    p.mvBinary(0x00151102, {"", "12345"}).object(0x0016000D, kIid, "obj");
    p.lengthPrefixed(0x0017000D, {"short"});  // an object shorter than its identifier
    return p.string8(PR_ATTACH_FILENAME, "A.BIN").bytes();
}

Stream namedAttachment() {
    return start()
        .record(2, attAttachTransportFilename, std::string("tr.bin\0junk", 11))
        .record(2, attAttachTitle, std::string("title\0", 6))
        .record(2, attAttachment, everyType());
}

}  // namespace

TEST(Scan, RecordsKeepNamesUpToTheLimitAndFallBackToTheTransportName) {
    TestHome home;
    const std::string tnef =
        namedAttachment()
            .record(2, attAttachment,
                    PropList()
                        .string8(PR_ATTACH_LONG_FILENAME, std::string(TNEF_SCAN_NAME_LIMIT, 'L'))
                        .object(PR_ATTACH_DATA_OBJ, kIid, "m")
                        .bytes())
            .record(2, attAttachTransportFilename, std::string(TNEF_SCAN_NAME_LIMIT + 1, 'X'))
            .record(2, attAttachment, PropList().bytes())
            .bytes();
    const Scanned s = scan(home, tnef, PR_ATTACH_DATA_OBJ);
    EXPECT_EQ(s.found, 1);
    EXPECT_EQ(s.offsetAfter, 0);
    // 1025 bytes are too many, for the long file name and the second transport name alike.
    EXPECT_EQ(s.rows, "0:-:A.BIN;1:tr.bin:-;0:tr.bin:-;");

    // A caller's list gets the new records at its end.
    home.write("tmp/in.tnef", namedAttachment().bytes());
    OsFd fd(os_open("~/tmp/in.tnef", O_RDONLY, 0));
    TnefAttachScan* list = nullptr;
    tnef_ScanTnef(fd.get(), 0, &list);
    tnef_ScanTnef(fd.get(), 0, &list);
    Scanned twice;
    takeRows(list, twice);
    EXPECT_EQ(twice.rows, "0:-:A.BIN;0:-:A.BIN;");
}

// Cuts and lying lengths are the reader's hostile table (every entry, the scan among them).
TEST(Scan, ListOfRecordsHasACeiling) {
    TestHome home;
    // A kept title is copied into every record without names: the list has a ceiling.
    Stream many = start();
    many.record(2, attAttachTitle, "T");
    for (uint32_t i = 0; i < TNEF_SCAN_RECORD_LIMIT; ++i)
        many.record(2, attAttachment, PropList().bytes());
    many.record(2, attAttachment, PropList().long32(0x7FFF0003, 1).bytes());
    const Scanned s = scan(home, many.bytes(), 0x7FFF0003);
    EXPECT_EQ(s.found, 1) << "attachments past it are still scanned";
    EXPECT_EQ(s.count, TNEF_SCAN_RECORD_LIMIT);
}

namespace {

// A read that fails with an errno when it starts at one offset of one descriptor.
int g_failFd = -1;
off_t g_failAt = -1;
int g_failErrno = 0;
ssize_t failingRead(int fd, void* buffer, size_t count) {
    if (fd == g_failFd && ::lseek(fd, 0, SEEK_CUR) == g_failAt) {
        errno = g_failErrno;
        return -1;
    }
    return ::read(fd, buffer, count);
}

}  // namespace

TEST(Scan, ReadErrorsAreLoggedThenAcceptedOrPassedOnBySeverity) {
    TestHome home;
    // The injected failure hits one read at one offset, which read-ahead would never make.
    os_SetIoBufferSize(0);
    forgetScanLog();
    home.write("tmp/tnefout.log", "");
    const Stream head =
        start().record(2, attAttachment, PropList().string8(PR_ATTACH_FILENAME, "a").bytes());
    home.write("tmp/in.tnef", Stream(head).record(2, attAttachData, "D").bytes());
    OsFd fd(os_open("~/tmp/in.tnef", O_RDONLY, 0));
    OsSysCalls calls = os_GetSysCalls();
    calls.read = failingRead;
    os_SetSysCalls(&calls);
    g_failFd = fd.get();
    g_failAt = static_cast<off_t>(head.size() + 1);  // the attAttachData identifier

    // A failing device is an ordinary error: the scan ends with what it found.
    g_failErrno = EIO;
    const Scanned accepted = scanFd(fd.get(), PR_ATTACH_FILENAME);
    EXPECT_EQ(accepted.found, 1);
    EXPECT_EQ(accepted.rows, "0:-:a;");
    EXPECT_EQ(accepted.offsetAfter, 0);

    // Exhaustion is not accepted: it reaches the caller, who keeps the records listed.
    g_failErrno = ENOMEM;
    TnefAttachScan* list = nullptr;
    try {
        tnef_ScanTnef(fd.get(), 0, &list);
        ADD_FAILURE() << "no escape";
    } catch (const Escape& e) {
        EXPECT_EQ(e.group, ER_GROUP_IO);
        EXPECT_EQ(e.reason, ENOMEM);
    }
    os_SetSysCalls(nullptr);
    Scanned passed;
    takeRows(list, passed);
    EXPECT_EQ(passed.rows, "0:-:a;");
    EXPECT_EQ(os_lseek64(fd.get(), 0, 1), 0);

    const std::string log = readFileBytes(scanLogName(home));
    EXPECT_NE(log.find("0x3704001e** Error detected: 100/5\n"), std::string::npos);
    EXPECT_NE(log.find("0x3704001e** Error detected: 100/12\n"), std::string::npos);
}

TEST(Scan, EveryCorpusFileScansAndListsTheAttachmentsBothExtractorsSaw) {
    const std::string corpus = corpusDir();
    if (corpus.empty()) GTEST_SKIP() << "no TNEF corpus beside this checkout";
    // Where only one extractor wrote a file, it made it from records other than
    // attAttachment (an attAttachData alone, a calendar from the message properties).
    std::map<std::string, std::set<std::string>> extractedBy;
    for (const auto& row : tsvRows(corpus + "/oracle.tsv"))
        if (row.size() > 3 && !row[3].empty() && row[3] != "-" && row[3] != "name") extractedBy[row[0]].insert(row[1]);
    TestHome home;
    std::map<std::string, Scanned> results;
    for (const auto& entry : std::filesystem::directory_iterator(corpus + "/files")) {
        OsFd fd(os_open(entry.path().c_str(), O_RDONLY, 0));
        Scanned& s = results[entry.path().filename().string()];
        EXPECT_NO_THROW(s = scanFd(fd.get(), PR_ATTACH_DATA_OBJ)) << entry.path();
        EXPECT_EQ(s.offsetAfter, 0) << entry.path();
    }
    int agreed = 0;
    for (const auto& [file, tools] : extractedBy) {
        if (tools.size() < 2) continue;
        ++agreed;
        EXPECT_NE(results.at(file).count, 0u) << file;
    }
    EXPECT_GE(agreed, 10);
    EXPECT_EQ(results.at("poi__test-data__hmef__quick-winmail.dat").rows,
              "0:quick.doc:-;0:quick.html:-;0:quick.pdf:-;0:quick.txt:-;0:quick.xml:-;");
    EXPECT_EQ(results.at("mimekit__UnitTests__TestData__tnef__winmail.tnef").found, 1);
}
