// The sample TNEF file in samples/ is the generator's output: rebuilding it must give the
// same bytes, so that the file and its generator never drift apart.

#include <gtest/gtest.h>

#include <string>

#include "support/test_home.h"
#include "tool_run.h"

TEST(ToolSample, GeneratorReproducesTheCommittedSample) {
    TestHome home;
    const std::string out = home.file("winmail.dat");
    const ToolRun r = runProgram(TNEF_MAKE_SAMPLE_PATH, {out}, home.path());
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string committed =
        readFileBytes(std::string(TNEF_SOURCE_DIR) + "/samples/winmail.dat");
    ASSERT_FALSE(committed.empty());
    EXPECT_TRUE(readFileBytes(out) == committed)
        << "regenerate samples/winmail.dat with tnef_make_sample";
}
