// decode and show on the sample file: the report of a decode matches what the store holds,
// and show reads the same message back, its property texts included.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/test_home.h"
#include "tool_run.h"

namespace fs = std::filesystem;

namespace {

std::string samplePath() {
    return std::string(TNEF_SOURCE_DIR) + "/samples/winmail.dat";
}

jsoncheck::Value decodeSample(const TestHome& home, std::vector<std::string> extra = {}) {
    std::vector<std::string> args{"--home", home.path(), "--json", "decode", samplePath()};
    args.insert(args.end(), extra.begin(), extra.end());
    const ToolRun r = runTool(args, home.path());
    EXPECT_EQ(r.status, 0) << r.err;
    return jsonOf(r);
}

}  // namespace

TEST(ToolDecode, ReportsHeaderValuesAndWhereEachAttachmentIsStored) {
    TestHome home;
    const jsoncheck::Value d = decodeSample(home);
    EXPECT_EQ(d["message"].text.size(), 16u);
    EXPECT_EQ(d["subject"].text, "Quarterly report");
    EXPECT_EQ(d["class"].text, "IPM.Microsoft Mail.Note");
    EXPECT_EQ(d["priority"].text, "high");
    EXPECT_EQ(d["importance"].text, "high");
    EXPECT_EQ(d["sensitivity"].text, "none");
    EXPECT_EQ(d["receipt"].text, "read");
    EXPECT_EQ(d["receipt_code"].number, 7);
    EXPECT_FALSE(d["reply_requested"].boolean);
    const jsoncheck::Value& a = d["attachments"];
    ASSERT_EQ(a.size(), 2u);
    EXPECT_EQ(a[0]["part"].number, 3);
    EXPECT_EQ(a[0]["name"].text, "quarterly report.txt");
    EXPECT_EQ(a[1]["name"].text, "sales chart.png");
    for (const jsoncheck::Value& p : a.items) {
        EXPECT_EQ(
            p["path"].text.rfind(home.path() + "/store/messages/" + d["message"].text + "/", 0),
            0u);
        EXPECT_EQ(static_cast<double>(fs::file_size(p["path"].text)), p["size"].number);
    }
    EXPECT_EQ(readFileBytes(a[1]["path"].text).substr(1, 3), "PNG");

    const ToolRun text = runTool({"--home", home.path(), "decode", samplePath()}, home.path());
    EXPECT_EQ(text.status, 0);
    EXPECT_NE(text.out.find("subject      Quarterly report\n"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("attachments  2\n"), std::string::npos);
    EXPECT_NE(text.out.find("sales chart.png"), std::string::npos);
}

TEST(ToolDecode, FailureLeavesNoMessageBehind) {
    TestHome home;
    home.write("bad.dat", "not TNEF at all");
    const ToolRun r = runTool({"--home", home.path(), "decode", home.file("bad.dat")}, home.path());
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "tnefx: " + home.file("bad.dat") + ": not a TNEF stream (escape 102/1531)\n");
    EXPECT_TRUE(!fs::exists(home.file("store/messages")) ||
                fs::is_empty(home.file("store/messages")));
}

TEST(ToolShow, ShowsTheStoredMessageAndItsTexts) {
    TestHome home;
    const std::string id = decodeSample(home)["message"].text;
    const ToolRun r = runTool({"--home", home.path(), "show", id, "--texts"}, home.path());
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out.rfind("message " + id + "\n", 0), 0u) << r.out;
    EXPECT_NE(r.out.find("30500 g6 part type=0"), std::string::npos);
    EXPECT_NE(r.out.find("main property text"), std::string::npos);
    EXPECT_NE(r.out.find("1000001e PR_BODY = Hello,\\x0d\\x0a\\x0d\\x0athe report"), std::string::npos)
        << r.out;

    const std::string raw = home.file("raw");
    const jsoncheck::Value j =
        jsonOf(runTool({"--home", home.path(), "--json", "show",
                        home.file("store/messages/" + id + "/"), "--texts", "--raw-texts", raw},
                       home.path()));
    EXPECT_EQ(j["message"].text, id);
    ASSERT_EQ(j["texts"].size(), 2u);
    EXPECT_EQ(j["texts"][0]["kind"].text, "main");
    ASSERT_EQ(j["raw_files"].size(), 2u);
    const std::string mainText = readFileBytes(raw + "/main.txt");
    EXPECT_EQ(static_cast<double>(mainText.size()), j["texts"][0]["length"].number);
    EXPECT_EQ(mainText.rfind("1000001e\x1dHello,\x1bM\x1bJ", 0), 0u) << "byte for byte";
    EXPECT_GT(j["dump"].size(), 10u);
}

TEST(ToolDecode, OptionsAndFlagsReachTheDecoder) {
    TestHome home;
    home.write("sys/mailnode", "local.example\n");
    // A recipient of the local node is rewritten, and the flag marks it passive.
    const std::string id = decodeSample(home, {"--update-addresses"})["message"].text;
    EXPECT_NE(runTool({"--home", home.path(), "show", id}, home.path())
                  .out.find("recipient flags=0x0 texts=\"user\""),
              std::string::npos);
    const std::string flagged =
        decodeSample(
            home, {"--update-addresses", "--set", "UXI_PASSIVE_RECIPS_MAPI_ENABLED=yes"})["message"]
            .text;
    EXPECT_NE(runTool({"--home", home.path(), "show", flagged}, home.path())
                  .out.find("recipient flags=0x1"),
              std::string::npos);
    const std::string bare = decodeSample(home, {"--suppress-mapi"})["message"].text;
    const std::string shown = runTool({"--home", home.path(), "show", bare}, home.path()).out;
    EXPECT_EQ(shown.find("19500"), std::string::npos) << shown;
    EXPECT_NE(shown.find("quarterly report.txt"), std::string::npos);
}

TEST(ToolEncode, WritesTheDecodedMessageBackAsTnef) {
    TestHome home;
    const std::string id = decodeSample(home)["message"].text;
    const std::string out = home.file("again.tnef");
    const ToolRun r =
        runTool({"--home", home.path(), "--json", "encode", id, "-o", out}, home.path());
    ASSERT_EQ(r.status, 0) << r.err;
    const jsoncheck::Value j = jsonOf(r);
    EXPECT_TRUE(j["written"].boolean);
    EXPECT_EQ(j["result_word"].number, 0);
    EXPECT_EQ(j["size"].number, static_cast<double>(fs::file_size(out)));
    const jsoncheck::Value listed = jsonOf(runTool({"--json", "list", out}, home.path()));
    ASSERT_EQ(listed["files"][0]["attachments"].size(), 2u);
    EXPECT_EQ(listed["files"][0]["attachments"][1]["name"].text, "sales chart.png");
    EXPECT_EQ(listed["files"][0]["subject"].text, "Quarterly report");

    const ToolRun missingFolder =
        runTool({"--home", home.path(), "encode", id, "-o", home.file("none/x.tnef")}, home.path());
    EXPECT_EQ(missingFolder.status, 2);
    EXPECT_EQ(missingFolder.err,
              "tnefx: " + home.file("none/x.tnef") + ": No such file or directory\n");
    EXPECT_FALSE(fs::exists(home.file("none")));
}
