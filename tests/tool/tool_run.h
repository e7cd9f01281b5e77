// Runs the tnef tool as a user would: a process of its own, real files, its exit status and
// what it wrote to stdout and stderr.
#pragma once

#include <string>
#include <vector>

#include "json_check.h"

struct ToolRun {
    int status = -1;  // exit status; 128 + signal when a signal ended it
    std::string out;
    std::string err;
};

// Runs the tool with args. The child's TNEF_HOME is scratchHome, so that a command that
// forgets --home still writes nowhere but there.
ToolRun runTool(const std::vector<std::string>& args, const std::string& scratchHome);

// Runs another program of the build (the sample generator) the same way.
ToolRun runProgram(const std::string& program, const std::vector<std::string>& args,
                   const std::string& scratchHome);

// stdout parsed as JSON; a test failure naming the fault when it is not valid JSON.
jsoncheck::Value jsonOf(const ToolRun& run);

// Number of lines of text.
size_t lineCount(const std::string& text);
