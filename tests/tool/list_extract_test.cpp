// list and extract on TNEF files laid out byte by byte: names, types and nesting as
// listed, and extraction that stays inside its folder and never replaces a file by
// accident.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "support/test_home.h"
#include "support/tnef_builder.h"
#include "tool_run.h"

using tnefbuild::PropList;
using tnefbuild::Stream;
using namespace std::string_literals;
namespace fs = std::filesystem;

namespace {

constexpr uint32_t attSubject = 0x00018004;
constexpr uint32_t attAttachRenddata = 0x00069002;
constexpr uint32_t attAttachData = 0x0006800F;
constexpr uint32_t attAttachment = 0x00069005;
constexpr uint32_t PR_DISPLAY_NAME = 0x3001001E;
constexpr uint32_t PR_ATTACH_DATA_OBJ = 0x3701000D;
constexpr uint32_t PR_ATTACH_LONG_FILENAME = 0x3707001E;
constexpr uint32_t PR_ATTACH_MIME_TAG = 0x370E001E;
constexpr tnefbuild::Guid kIMessage = {0x07, 0x03, 0x02, 0, 0, 0, 0, 0,
                                       0xC0, 0,    0,    0, 0, 0, 0, 0x46};

std::string renddata() {
    return tnefbuild::bytesOf({1, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0, 0, 0, 0, 0});
}

Stream start() {
    Stream s;
    s.header().tnefVersion();
    return s;
}

Stream& attach(Stream& s, const std::string& data, const std::string& name,
               const std::string& mime = "") {
    PropList props;
    if (!name.empty()) props.string8(PR_ATTACH_LONG_FILENAME, name);
    if (!mime.empty()) props.string8(PR_ATTACH_MIME_TAG, mime);
    return s.record(2, attAttachRenddata, renddata())
        .record(2, attAttachData, data)
        .record(2, attAttachment, props.bytes());
}

std::string tnefWith(const std::vector<std::pair<std::string, std::string>>& nameAndData) {
    Stream s = start();
    for (const auto& [name, data] : nameAndData) attach(s, data, name);
    return s.bytes();
}

// A message holding a file and an embedded message that holds one more file.
std::string nestedTnef() {
    Stream inner = start();
    inner.record(1, attSubject, "Inner\0"s);
    attach(inner, "inner data", "inner.txt");
    Stream s = start();
    s.record(1, attSubject, "Outer\0"s);
    attach(s, "PNG bytes", "picture.png");
    attach(s, "no name", "");
    s.record(2, attAttachRenddata, renddata())
        .record(2, attAttachment,
                PropList()
                    .string8(PR_DISPLAY_NAME, "Fwd: news")
                    .object(PR_ATTACH_DATA_OBJ, kIMessage, inner.bytes())
                    .bytes());
    attach(s, "x,y", "data.csv", "application/x-custom");
    return s.bytes();
}

std::set<std::string> filesIn(const std::string& dir) {
    std::set<std::string> names;
    for (const auto& e : fs::directory_iterator(dir)) names.insert(e.path().filename().string());
    return names;
}

}  // namespace

TEST(ToolList, ShowsKindsSizesTypesNamesAndNesting) {
    TestHome home;
    home.write("nested.tnef", nestedTnef());
    const std::string file = home.file("nested.tnef");

    const ToolRun text = runTool({"list", file}, home.path());
    ASSERT_EQ(text.status, 0) << text.err;
    EXPECT_EQ(text.err, "");
    EXPECT_EQ(lineCount(text.out), 5u) << text.out;
    EXPECT_NE(text.out.find("image/png"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("attachment-2.dat"), std::string::npos);
    EXPECT_NE(text.out.find("    inner.txt"), std::string::npos) << "nested names are indented";

    const jsoncheck::Value j = jsonOf(runTool({"--json", "list", file}, home.path()));
    const jsoncheck::Value& f = j["files"][0];
    EXPECT_EQ(f["file"].text, file);
    EXPECT_EQ(f["subject"].text, "Outer");
    EXPECT_FALSE(f["truncated"].boolean);
    const jsoncheck::Value& a = f["attachments"];
    ASSERT_EQ(a.size(), 5u);
    EXPECT_EQ(a[0]["name"].text, "picture.png");
    EXPECT_EQ(a[0]["type"].text, "image/png") << "guessed from the extension";
    EXPECT_EQ(a[0]["size"].number, 9);
    EXPECT_EQ(a[0]["source"].text, "attAttachData");
    EXPECT_EQ(a[1]["name"].text, "attachment-2.dat");
    EXPECT_EQ(a[1]["type"].text, "application/octet-stream");
    EXPECT_EQ(a[2]["kind"].text, "message");
    EXPECT_EQ(a[2]["name"].text, "Fwd: news");
    EXPECT_EQ(a[3]["name"].text, "inner.txt");
    EXPECT_EQ(a[3]["parent"].number, 3);
    EXPECT_EQ(a[3]["depth"].number, 1);
    EXPECT_EQ(a[4]["type"].text, "application/x-custom") << "the attachment's own MIME tag wins";
    EXPECT_EQ(a[4]["names"]["long_file_name"].text, "data.csv");
}

TEST(ToolExtract, WritesEachAttachmentAndTheAttachmentsOfEmbeddedMessages) {
    TestHome home;
    home.write("nested.tnef", nestedTnef());
    const std::string out = home.file("out/deeper");  // made when missing
    const ToolRun r = runTool({"extract", home.file("nested.tnef"), "-C", out}, home.path());
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(filesIn(out),
              (std::set<std::string>{"picture.png", "attachment-2.dat", "inner.txt", "data.csv"}));
    EXPECT_EQ(readFileBytes(out + "/inner.txt"), "inner data");
    EXPECT_EQ(lineCount(r.out), 4u);

    const std::string withMessages = home.file("all");
    ASSERT_EQ(runTool({"extract", "--embedded", "-C", withMessages, home.file("nested.tnef")},
                      home.path())
                  .status,
              0);
    ASSERT_TRUE(fs::exists(withMessages + "/Fwd: news.tnef"));
    const ToolRun again = runTool({"list", withMessages + "/Fwd: news.tnef"}, home.path());
    EXPECT_EQ(again.status, 0) << again.err;
    EXPECT_NE(again.out.find("inner.txt"), std::string::npos)
        << "the embedded message is a TNEF file of its own";
}

TEST(ToolExtract, HostileNamesStayInsideTheFolder) {
    TestHome home;
    home.write("evil.tnef", tnefWith({{"../../escaped.txt", "1"},
                                      {"/etc/passwd", "2"},
                                      {"C:\\Windows\\win.ini", "3"},
                                      {"a\x01"
                                       "b\x7f.txt",
                                       "4"},
                                      {"..", "5"},
                                      {" .hidden", "6"},
                                      {"sub/", "7"},
                                      {std::string(300, 'x') + ".txt", "8"}}));
    const std::string out = home.file("box/out");
    const ToolRun r = runTool({"extract", home.file("evil.tnef"), "-C", out}, home.path());
    ASSERT_EQ(r.status, 0) << r.err;
    const std::set<std::string> names = filesIn(out);
    EXPECT_EQ(names, (std::set<std::string>{"escaped.txt", "passwd", "win.ini", "ab.txt",
                                            "attachment-5.dat", "hidden", "attachment-7.dat",
                                            std::string(251, 'x') + ".txt"}));
    EXPECT_FALSE(fs::exists(home.file("escaped.txt")));
    EXPECT_FALSE(fs::exists(home.file("box/escaped.txt")));
    EXPECT_EQ(filesIn(home.file("box")), std::set<std::string>{"out"});
}

TEST(ToolExtract, TakenNamesGetNumbersUnlessOverwriteIsAsked) {
    TestHome home;
    home.write("two.tnef",
               tnefWith({{"report.txt", "new one"}, {"report.txt", "new two"}, {"notes", "n"}}));
    const std::string out = home.file("out");
    home.write("out/report.txt", "old");
    home.write("out/notes (2)", "old notes");
    ASSERT_EQ(::symlink(home.file("target").c_str(), home.file("out/notes").c_str()), 0);

    ASSERT_EQ(runTool({"extract", home.file("two.tnef"), "-C", out}, home.path()).status, 0);
    EXPECT_EQ(readFileBytes(out + "/report.txt"), "old");
    EXPECT_EQ(readFileBytes(out + "/report (2).txt"), "new one");
    EXPECT_EQ(readFileBytes(out + "/report (3).txt"), "new two");
    EXPECT_EQ(readFileBytes(out + "/notes (3)"), "n");
    EXPECT_FALSE(fs::exists(home.file("target"))) << "a link is never written through";

    // --overwrite replaces what was there before, never what this run wrote, never a link.
    const ToolRun r =
        runTool({"extract", "--overwrite", home.file("two.tnef"), "-C", out}, home.path());
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(readFileBytes(out + "/report.txt"), "new one");
    EXPECT_EQ(readFileBytes(out + "/report (2).txt"), "new two");
    EXPECT_EQ(readFileBytes(out + "/notes (2)"), "n");
    EXPECT_FALSE(fs::exists(home.file("target")));
}

TEST(ToolExtract, BatchOfFilesIntoOneFolder) {
    TestHome home;
    home.write("a.tnef", tnefWith({{"same.txt", "from a"}}));
    home.write("b.tnef", tnefWith({{"same.txt", "from b"}}));
    home.write("bad.dat", "garbage");
    const std::string out = home.file("out");
    const ToolRun r = runTool({"--json", "extract", "-C", out, home.file("a.tnef"),
                               home.file("bad.dat"), home.file("b.tnef")},
                              home.path());
    EXPECT_EQ(r.status, 2) << "one file failed";
    EXPECT_EQ(lineCount(r.err), 1u) << r.err;
    EXPECT_EQ(readFileBytes(out + "/same.txt"), "from a");
    EXPECT_EQ(readFileBytes(out + "/same (2).txt"), "from b");
    const jsoncheck::Value j = jsonOf(r);
    ASSERT_EQ(j["files"].size(), 3u);
    EXPECT_EQ(j["files"][0]["extracted"][0]["path"].text, out + "/same.txt");
    EXPECT_EQ(j["files"][1]["error"].text, "not a TNEF stream (escape 102/1531)");
    EXPECT_EQ(j["files"][2]["extracted"][0]["name"].text, "same.txt");
}

TEST(ToolExtract, TruncatedFileGivesWhatItHoldsAndStatus2) {
    TestHome home;
    const std::string full =
        tnefWith({{"whole.txt", "complete"}, {"cut.txt", std::string(1000, 'c')}});
    home.write("cut.tnef", full.substr(0, full.size() - 900));
    const std::string out = home.file("out");
    const ToolRun list = runTool({"list", home.file("cut.tnef")}, home.path());
    EXPECT_EQ(list.status, 0);
    EXPECT_NE(list.err.find("warning: the stream ends inside a record"), std::string::npos)
        << list.err;
    EXPECT_NE(list.out.find("[cut short]"), std::string::npos) << list.out;

    const ToolRun r = runTool({"extract", home.file("cut.tnef"), "-C", out}, home.path());
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("attachment 2 is cut short"), std::string::npos) << r.err;
    EXPECT_EQ(readFileBytes(out + "/whole.txt"), "complete");
    const std::string part = readFileBytes(out + "/attachment-2.dat");
    EXPECT_EQ(part, std::string(part.size(), 'c'));
    EXPECT_GT(part.size(), 0u);
    const jsoncheck::Value j =
        jsonOf(runTool({"--json", "extract", home.file("cut.tnef"), "-C", out}, home.path()));
    ASSERT_EQ(j["files"][0]["errors"].size(), 1u);
    EXPECT_NE(j["files"][0]["errors"][0].text.find("cut short"), std::string::npos);
    EXPECT_EQ(j["files"][0]["extracted"].size(), 2u);
}

TEST(ToolExtract, UnwritableFolderIsOneError) {
    TestHome home;
    home.write("one.tnef", tnefWith({{"a.txt", "a"}}));
    home.write("file", "a file, not a folder");
    const ToolRun r =
        runTool({"extract", home.file("one.tnef"), "-C", home.file("file/sub")}, home.path());
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "tnefx: " + home.file("file/sub") + ": Not a directory\n");
}
