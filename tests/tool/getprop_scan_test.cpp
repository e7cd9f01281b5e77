// getprop, writeblob and scan: properties out as text, text back in as TNEF, and the scan
// of a file, with the exit statuses a search gives.

#include <gtest/gtest.h>

#include <string>

#include "support/test_home.h"
#include "tool_run.h"

namespace {

std::string samplePath() {
    return std::string(TNEF_SOURCE_DIR) + "/samples/winmail.dat";
}

}  // namespace

TEST(ToolGetprop, PrintsTextsReadablyAndExitsByWhatWasFound) {
    TestHome home;
    const ToolRun all = runTool({"getprop", samplePath()}, home.path());
    ASSERT_EQ(all.status, 0) << all.err;
    // The sample's writers put each message property in a record of its own; GET-ALL renders
    // the first record that has any.
    EXPECT_EQ(all.out.rfind("properties:\n170003 = 2\n", 0), 0u) << all.out;
    EXPECT_NE(all.out.find("  3707001e = sales chart.png\n"), std::string::npos);
    EXPECT_NE(all.out.find("attachments:\nrow 1:\n"), std::string::npos);

    const ToolRun one = runTool({"getprop", samplePath(), "c1f001e"}, home.path());
    EXPECT_EQ(one.status, 0);
    EXPECT_EQ(one.out, "properties:\nc1f001e = reports@example.com\n");
    const ToolRun none = runTool({"getprop", samplePath(), "0ff10003"}, home.path());
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(none.err, "");

    const jsoncheck::Value j = jsonOf(runTool({"--json", "getprop", samplePath()}, home.path()));
    EXPECT_TRUE(j["found"].boolean);
    EXPECT_EQ(j["request"].text, "GET-ALL");
    EXPECT_EQ(j["properties"][0]["id"].text, "170003");
    EXPECT_EQ(j["properties"][0]["values"][0].text, "2");
    EXPECT_EQ(j["attachments"].size(), 2u) << "two rows";
}

// getprop's texts, written byte for byte, make the same attachments again through writeblob.
TEST(ToolWriteblob, RoundTripsGetpropTexts) {
    TestHome home;
    const ToolRun get =
        runTool({"getprop", samplePath(), "-o", home.file("props.txt"), "--attach-out",
                 home.file("attach.txt"), "--recips-out", home.file("recips.txt")},
                home.path());
    ASSERT_EQ(get.status, 0) << get.err;
    EXPECT_EQ(get.out, "") << "every text went to its file";
    EXPECT_EQ(readFileBytes(home.file("props.txt")),
              "170003\x1d"
              "2");

    const std::string out = home.file("again.tnef");
    const ToolRun write = runTool({"--json", "writeblob", "-o", out, "--props",
                                   home.file("props.txt"), "--attach", home.file("attach.txt")},
                                  home.path());
    ASSERT_EQ(write.status, 0) << write.err;
    EXPECT_EQ(jsonOf(write)["size"].number, static_cast<double>(readFileBytes(out).size()));

    ASSERT_EQ(runTool({"extract", out, "-C", home.file("x")}, home.path()).status, 0);
    ASSERT_EQ(runTool({"extract", samplePath(), "-C", home.file("y")}, home.path()).status, 0);
    for (const char* name : {"quarterly report.txt", "sales chart.png"})
        EXPECT_EQ(readFileBytes(home.file("x/") + name), readFileBytes(home.file("y/") + name))
            << name;
    EXPECT_EQ(runTool({"getprop", out, "170003"}, home.path()).out, "properties:\n170003 = 2\n");
}

TEST(ToolWriteblob, BadTextFilesAreErrors) {
    TestHome home;
    const ToolRun missing = runTool(
        {"writeblob", "-o", home.file("o.tnef"), "--props", home.file("none.txt")}, home.path());
    EXPECT_EQ(missing.status, 2);
    EXPECT_EQ(missing.err, "tnefx: " + home.file("none.txt") + ": No such file or directory\n");
    home.write("nul.txt", std::string("37001e\x1dS\0x", 10));
    EXPECT_EQ(runTool({"writeblob", "-o", home.file("o.tnef"), "--props", home.file("nul.txt")},
                      home.path())
                  .status,
              2);
    const ToolRun unwritable =
        runTool({"writeblob", "-o", home.file("nul.txt/o.tnef")}, home.path());
    EXPECT_EQ(unwritable.status, 2);
    EXPECT_EQ(lineCount(unwritable.err), 1u);
}

TEST(ToolScan, LogsEveryAttributeAndFindsTheWantedTag) {
    TestHome home;
    const ToolRun found =
        runTool({"--home", home.path(), "scan", samplePath(), "--want", "3707001e"}, home.path());
    EXPECT_EQ(found.status, 0) << found.err;
    EXPECT_NE(found.out.find("* "), std::string::npos) << found.out;
    EXPECT_NE(found.out.find("attachments:\n"), std::string::npos);
    EXPECT_NE(found.out.find("quarterly report.txt"), std::string::npos);
    EXPECT_EQ(
        runTool({"--home", home.path(), "scan", samplePath(), "--want", "0x12345678"}, home.path())
            .status,
        1);
    EXPECT_EQ(runTool({"scan", samplePath(), "--want", "xyz"}, home.path()).status, 2);

    const jsoncheck::Value j = jsonOf(
        runTool({"--home", home.path(), "--json", "scan", samplePath(), "--want", "3707001e"},
                home.path()));
    EXPECT_TRUE(j["found"].boolean);
    EXPECT_GT(j["log"].size(), 5u);
    ASSERT_EQ(j["attachments"].size(), 2u);
    EXPECT_EQ(j["attachments"][1]["long_file_name"].text, "sales chart.png");
}
