// props: readable properties, and every value the same as getprop's own walker reads.

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>
#include <utility>

#include "support/test_home.h"
#include "tnef/tnef_body.h"
#include "tool_run.h"

namespace {

using Json = nlohmann::json;
using Seen = std::set<std::pair<std::string, std::string>>;  // (tag, value)

std::string samplePath() { return std::string(TNEF_SOURCE_DIR) + "/samples/winmail.dat"; }

// getprop's entries that both walkers render alike: 32-bit integers, and printable 8-bit
// text (getprop escapes other bytes, props converts them to UTF-8). PR_ATTACH_FILENAME is
// left out: getprop writes attAttachTitle under that tag too.
void addGetpropEntries(const Json& entries, Seen& seen) {
    for (const Json& e : entries) {
        const std::string id = e["id"];
        if (id.size() < 6 || id.size() > 8 || id == "3704001e" || e["values"].size() != 1) continue;
        const std::string value = e["values"][0];
        const unsigned long tag = std::strtoul(id.c_str(), nullptr, 16);
        if ((tag & 0xFFFF) == 0x0003)
            seen.insert({id, std::to_string(static_cast<int32_t>(std::strtoul(value.c_str(), nullptr, 16)))});
        else if ((tag & 0xFFFF) == 0x001E && value.find('\\') == std::string::npos)
            seen.insert({id, value});
    }
}

void addPropsEntries(const Json& entries, Seen& seen) {
    for (const Json& e : entries) {
        if (!e["set"].is_null()) continue;
        char id[16];
        std::snprintf(id, sizeof id, "%x", static_cast<unsigned>(std::stoul(e["tag"].get<std::string>(), nullptr, 16)));
        if (e["type"] == "PT_LONG") seen.insert({id, std::to_string(e["value"].get<int64_t>())});
        if (e["type"] == "PT_STRING8") seen.insert({id, e["value"].get<std::string>()});
    }
}

}  // namespace

TEST(ToolProps, ShowsNamedTypedValuesAndJson) {
    TestHome home;
    const ToolRun run = runTool({"props", samplePath(), "--attachments"}, home.path());
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_NE(run.out.find("PR_SENDER_EMAIL_ADDRESS (0x0C1F001E, PT_STRING8) = \"reports@example.com\"\n"),
              std::string::npos) << run.out;
    EXPECT_NE(run.out.find("PR_READ_RECEIPT_REQUESTED (0x0029000B, PT_BOOLEAN) = true\n"), std::string::npos);
    EXPECT_NE(run.out.find("attachment 2:\n  PR_ATTACH_METHOD (0x37050003, PT_LONG) = 1\n"), std::string::npos);
    EXPECT_NE(run.out.find("  PR_ATTACH_LONG_FILENAME (0x3707001E, PT_STRING8) = \"sales chart.png\"\n"),
              std::string::npos);
    const Json j = Json::parse(runTool({"--json", "props", samplePath()}, home.path()).out);
    EXPECT_EQ(j["properties"][0]["name"], "PR_IMPORTANCE");
    EXPECT_EQ(j["properties"][0]["value"], 2);
    EXPECT_EQ(j["properties"][1]["value"], true);
    const ToolRun bad = runTool({"--json", "props", TNEF_SOURCE_DIR "/README.md"}, home.path());
    EXPECT_EQ(bad.status, 2);
    EXPECT_TRUE(Json::parse(bad.out).contains("error"));
}

TEST(ToolGetprop, TakesPublishedNamesAndRefusesWhatIsNoRequest) {
    TestHome home;
    const ToolRun byName = runTool({"getprop", samplePath(), "pr_sender_email_address"}, home.path());
    EXPECT_EQ(byName.status, 0);
    EXPECT_EQ(byName.out, "properties:\nc1f001e = reports@example.com\n");
    for (const char* bad : {"PR_NO_SUCH_NAME", "#3", "123456789", "#g/1"}) {
        const ToolRun run = runTool({"getprop", samplePath(), bad}, home.path());
        EXPECT_EQ(run.status, 2) << bad;
        EXPECT_NE(run.err.find("is neither GET-ALL"), std::string::npos) << run.err;
    }
}

// One byte altered inside a record's data: its checksum no longer holds. A forensic reader
// wants to hear of it from every command; the command still gives everything, unless
// --strict stops it before it writes a byte.
TEST(ToolWarnings, BadChecksumWarnsEverywhereAndStrictStopsFirst) {
    TestHome home;
    std::string bytes = readFileBytes(samplePath());
    const size_t at = bytes.find("Quarterly report");
    ASSERT_NE(at, std::string::npos);
    bytes[at] = 'q';
    home.write("altered.dat", bytes);
    const std::string file = home.file("altered.dat");
    const std::string out = home.file("out");
    const std::vector<std::vector<std::string>> commands = {
        {"list", file}, {"props", file}, {"body", file}, {"getprop", file},
        {"scan", file}, {"extract", file, "-C", out}, {"extract", file, "--stdout", "--index", "2"}};
    for (const auto& command : commands) {
        SCOPED_TRACE(command[0] + " " + command.back());
        const ToolRun run = runTool(command, home.path());
        EXPECT_EQ(run.status, 0) << run.err;
        EXPECT_NE(run.err.find("warning: a record's checksum is wrong"), std::string::npos) << run.err;
        EXPECT_FALSE(run.out.empty());
        std::vector<std::string> strict = {"--strict"};
        strict.insert(strict.end(), command.begin(), command.end());
        std::filesystem::remove_all(out);
        const ToolRun stopped = runTool(strict, home.path());
        EXPECT_EQ(stopped.status, 2);
        EXPECT_EQ(stopped.out, "");
        EXPECT_NE(stopped.err.find("--strict: stopped on 1 warning"), std::string::npos) << stopped.err;
        EXPECT_FALSE(std::filesystem::exists(out));
    }
    // decode weighs the stream only under --strict, and then stores nothing.
    EXPECT_EQ(runTool({"--strict", "--home", home.path(), "decode", file}, home.path()).status, 2);
    EXPECT_FALSE(std::filesystem::exists(home.file("store/messages")) &&
                 !std::filesystem::is_empty(home.file("store/messages")));
    const Json j = Json::parse(runTool({"--json", "list", file}, home.path()).out);
    EXPECT_EQ(j["files"][0]["warnings"][0], "a record's checksum is wrong");
    // The unaltered file passes --strict.
    EXPECT_EQ(runTool({"--strict", "list", samplePath()}, home.path()).status, 0);
}

TEST(ToolBody, BodiesOutOfMessagesAndCompressedRtf) {
    TestHome home;
    const ToolRun body = runTool({"body", samplePath()}, home.path());
    EXPECT_EQ(body.status, 0);
    EXPECT_EQ(body.out, "Hello,\r\n\r\nthe report and the chart are attached.\r\n");
    EXPECT_EQ(runTool({"body", samplePath(), "--format", "html"}, home.path()).status, 1);
    const ToolRun extract = runTool({"extract", "--body", samplePath(), "-C", home.file("out")}, home.path());
    EXPECT_EQ(extract.status, 0) << extract.err;
    EXPECT_EQ(readFileBytes(home.file("out/message.txt")), body.out);
    // list names the bodies first, as extract --body lists what it wrote.
    EXPECT_NE(runTool({"list", samplePath()}, home.path()).out.find("   0  body            50  text/plain"),
              std::string::npos);
    const Json listed = Json::parse(runTool({"--json", "list", samplePath()}, home.path()).out);
    EXPECT_EQ(listed["files"][0]["bodies"], Json::parse(R"([{"kind":"text","source":"PR_BODY","size":50}])"));

    // Embedded messages' bodies are written beside the message's, numbered.
    if (!corpusDir().empty()) {
        const ToolRun nested = runTool({"extract", "--body", corpusDir() + "/files/mimekit__UnitTests__TestData__tnef__christmas.tnef",
                                        "-C", home.file("nested")},
                                       home.path());
        EXPECT_NE(nested.out.find("nested/message-2.rtf"), std::string::npos) << nested.out;
        EXPECT_NE(nested.out.find("nested/message-3.txt"), std::string::npos) << nested.out;
    }

    home.write("value.bin", tnef_CompressRtf("{\\rtf1\\ansi\\fromtext caf\\'e9\\par}"));
    const ToolRun rtf = runTool({"rtf", home.file("value.bin"), "--format", "text"}, home.path());
    EXPECT_EQ(rtf.status, 0) << rtf.err;
    EXPECT_EQ(rtf.out, "caf\xC3\xA9\n");
    home.write("not.bin", "{not rtf at all}");
    EXPECT_EQ(runTool({"rtf", home.file("not.bin")}, home.path()).status, 2);
}

// "-" reads standard input, a pipe included (spooled where the reader can seek in it).
TEST(ToolStdin, EveryReadingCommandTakesAPipe) {
    TestHome home;
    const std::string tool = TNEF_TOOL_PATH;
    for (const char* command : {"list", "props", "body", "getprop", "scan", "decode"}) {
        const ToolRun piped = runProgram("/bin/sh", {"-c", "cat '" + samplePath() + "' | '" + tool + "' --home '" +
                                                             home.path() + "' " + command + " -"},
                                         home.path());
        EXPECT_EQ(piped.status, 0) << command << ": " << piped.err;
        EXPECT_FALSE(piped.out.empty()) << command;
    }
    EXPECT_EQ(runProgram("/bin/sh", {"-c", "printf 'MZ' | '" + tool + "' list -"}, home.path()).status, 2);
    // extract --stdout: one attachment, from a pipe to a pipe, byte for byte.
    const ToolRun one = runProgram(
        "/bin/sh", {"-c", "cat '" + samplePath() + "' | '" + tool + "' extract - --stdout --index 1 | cat"}, home.path());
    EXPECT_EQ(one.status, 0) << one.err;
    ASSERT_EQ(runTool({"extract", samplePath(), "-C", home.file("x")}, home.path()).status, 0);
    EXPECT_EQ(one.out, readFileBytes(home.file("x/quarterly report.txt")));
    const ToolRun ambiguous = runTool({"extract", samplePath(), "--stdout"}, home.path());
    EXPECT_EQ(ambiguous.status, 2);
    EXPECT_NE(ambiguous.err.find("2 attachments; choose one with --index"), std::string::npos);
}

// A report that cannot be written is one line on stderr and status 2; --json failing
// still answers with a JSON document.
TEST(ToolOutput, ClosedOrFullStdoutAndJsonOnFailure) {
    TestHome home;
    const std::string tool = TNEF_TOOL_PATH;
    for (const std::string redirect : {">&-", ">/dev/full"}) {
        const ToolRun list = runProgram("/bin/sh", {"-c", "'" + tool + "' list '" + samplePath() + "' " + redirect},
                                        home.path());
        EXPECT_EQ(list.status, 2) << redirect;
        EXPECT_NE(list.err.find("tnefx: standard output: "), std::string::npos) << list.err;
    }
    const ToolRun decode = runProgram(
        "/bin/sh", {"-c", "'" + tool + "' --home '" + home.path() + "' decode '" + samplePath() + "' >/dev/full"},
        home.path());
    EXPECT_EQ(decode.status, 2);
    EXPECT_NE(decode.err.find("stored message "), std::string::npos) << decode.err;
    for (const char* command : {"decode", "scan", "getprop", "body", "props"}) {
        const ToolRun bad = runTool({"--json", "--home", home.path(), command, TNEF_SOURCE_DIR "/README.md"}, home.path());
        EXPECT_EQ(bad.status, 2) << command;
        EXPECT_TRUE(Json::parse(bad.out).contains("error")) << command << ": " << bad.out;
    }
}

// Over the corpus, every value getprop reads for the message and its attachments, props
// reads alike: two walkers of the stream that share nothing but the file.
TEST(ToolProps, AgreesWithGetpropOverTheCorpus) {
    const std::string corpus = corpusDir();
    if (corpus.empty()) GTEST_SKIP() << "no shared corpus beside this checkout (set TNEF_CORPUS)";
    TestHome home;
    size_t compared = 0;
    for (const auto& f : std::filesystem::directory_iterator(corpus + "/files")) {
        SCOPED_TRACE(f.path().filename().string());
        const ToolRun props = runTool({"--json", "props", f.path(), "--attachments", "--recipients"}, home.path());
        const ToolRun get = runTool({"--json", "getprop", f.path()}, home.path());
        ASSERT_TRUE(Json::accept(props.out)) << props.out;
        if (props.status != 0 || !Json::accept(get.out)) continue;
        const Json p = Json::parse(props.out);
        const Json g = Json::parse(get.out);
        Seen fromGetprop, fromProps;
        addGetpropEntries(g.value("properties", Json::array()), fromGetprop);
        for (const Json& row : g.value("attachments", Json::array())) addGetpropEntries(row, fromGetprop);
        addPropsEntries(p["properties"], fromProps);
        for (const Json& row : p["attachments"]) addPropsEntries(row, fromProps);
        for (const auto& entry : fromGetprop) {
            EXPECT_TRUE(fromProps.count(entry)) << entry.first << " = " << entry.second;
            ++compared;
        }
    }
    EXPECT_GT(compared, 200u);
}

// extract of many files shows its progress on a terminal only, and not with --quiet.
TEST(ToolProgress, OnlyOnATerminalAndNotWhenQuiet) {
    TestHome home;
    const std::string tool = TNEF_TOOL_PATH;
    auto onTerminal = [&](const std::string& options, const std::string& dir) {
        const std::string command = "'" + tool + "' " + options + " extract '" + samplePath() + "' '" +
                                    samplePath() + "' -C '" + home.file(dir) + "'";
        return runProgram("/usr/bin/script", {"-qec", command, "/dev/null"}, home.path());
    };
    EXPECT_NE(onTerminal("", "a").out.find("2/2 files"), std::string::npos);
    EXPECT_EQ(onTerminal("--quiet", "b").out.find("files,"), std::string::npos);
    const ToolRun piped = runTool({"extract", samplePath(), samplePath(), "-C", home.file("c")}, home.path());
    EXPECT_EQ(piped.err, "");
}
