// The command line as a user meets it: help for every command, and bad command lines and
// bad input files answered with one clear line and exit status 2.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/test_home.h"
#include "tool_run.h"

namespace {

const std::vector<std::string> kCommands = {"list",   "extract", "decode", "show", "getprop", "writeblob",
                                            "scan",   "encode",  "props",  "body", "rtf"};

void expectOneLineError(const ToolRun& r, const std::string& start) {
    EXPECT_EQ(r.status, 2) << r.err;
    EXPECT_EQ(lineCount(r.err), 1u) << r.err;
    EXPECT_EQ(r.err.rfind(start, 0), 0u) << r.err;
    EXPECT_EQ(r.out, "");
}

}  // namespace

TEST(ToolCli, EveryCommandHasHelp) {
    TestHome home;
    for (const std::string& command : kCommands) {
        SCOPED_TRACE(command);
        const ToolRun r = runTool({command, "--help"}, home.path());
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.out.rfind("usage: tnefx " + command, 0), 0u) << r.out;
        EXPECT_EQ(r.err, "");
        EXPECT_EQ(runTool({"help", command}, home.path()).out, r.out);
    }
    const ToolRun general = runTool({"--help"}, home.path());
    EXPECT_EQ(general.status, 0);
    for (const std::string& command : kCommands)
        EXPECT_NE(general.out.find("  " + command), std::string::npos);
    EXPECT_EQ(runTool({"--version"}, home.path()).out.rfind("tnefx ", 0), 0u);
}

TEST(ToolCli, BadCommandLinesGetOneLineAndStatus2) {
    TestHome home;
    expectOneLineError(runTool({"frobnicate"}, home.path()), "tnefx: unknown command 'frobnicate'");
    expectOneLineError(runTool({"list", "--frob", "x"}, home.path()),
                       "tnefx: list: unknown option '--frob'");
    expectOneLineError(runTool({"extract", "-C"}, home.path()),
                       "tnefx: extract: option '-C' needs a value");
    expectOneLineError(runTool({"--set", "NOVALUE", "list", "x"}, home.path()),
                       "tnefx: --set wants NAME=VALUE");
    expectOneLineError(runTool({"list"}, home.path()), "tnefx: list: no FILE given");
    expectOneLineError(runTool({"show", "../../etc"}, home.path()),
                       "tnefx: show: 'etc' is not a message id");
    expectOneLineError(runTool({"writeblob"}, home.path()), "tnefx: writeblob: no output file");
    const ToolRun bare = runTool({}, home.path());
    EXPECT_EQ(bare.status, 2);
    EXPECT_NE(bare.err.find("usage: tnefx"), std::string::npos);
}

// Each command that reads a TNEF file names the file and what is wrong with it.
TEST(ToolCli, BadInputFilesAreNamedWithTheirFault) {
    TestHome home;
    home.write("plain.txt", "Hello, this is no TNEF file.\n");
    home.write("empty.dat", "");
    const std::string missing = home.file("missing.dat");
    const std::string plain = home.file("plain.txt");
    const std::string empty = home.file("empty.dat");
    for (const std::string command : {"list", "extract", "decode", "getprop", "scan"}) {
        SCOPED_TRACE(command);
        const std::vector<std::string> extra =
            command == std::string("extract") ? std::vector<std::string>{"-C", home.file("out")}
                                              : std::vector<std::string>{};
        auto run = [&](const std::string& file) {
            std::vector<std::string> args{"--home", home.path(), command, file};
            args.insert(args.end(), extra.begin(), extra.end());
            return runTool(args, home.path());
        };
        expectOneLineError(run(missing), "tnefx: " + missing + ": No such file or directory");
        expectOneLineError(run(plain), "tnefx: " + plain + ": not a TNEF stream (escape 102/1531)");
        expectOneLineError(run(empty), "tnefx: " + empty + ": not a TNEF stream (escape 102/1531)");
        expectOneLineError(run(home.path()), "tnefx: " + home.path() + ": Is a directory");
    }
}

TEST(ToolCli, ShowOfAnUnknownMessageSaysSo) {
    TestHome home;
    expectOneLineError(runTool({"--home", home.path(), "show", "0123456789abcdef"}, home.path()),
                       "tnefx: 0123456789abcdef: no such message in the store under " + home.path());
}
