#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "support/test_home.h"
#include "tnef/platform/os_file.h"
#include "tnef_prop/tnef_proplog.h"

TEST(PropLog, OpensOnlyWithTheDebugSwitchAndIsNamedByProcess) {
    TestHome home;
    tnef_OpenPropLog();
    EXPECT_EQ(tnefPropLog, nullptr);
    tnef_PropLogf("nothing %d\n", 1);
    EXPECT_FALSE(std::filesystem::exists(home.file("tmp")));

    home.write("sys/tnef.dbg", "");
    tnef_OpenPropLog();
    ASSERT_NE(tnefPropLog, nullptr);
    tnef_PropLogf("line %d\n", 7);
    tnef_ClosePropLog();
    EXPECT_EQ(tnefPropLog, nullptr);
    EXPECT_EQ(home.read("tmp/tnef.log." + std::to_string(::getpid())), "line 7\n");
}

TEST(PropLog, EndOfFileIsStickyUntilAnAbsoluteSeek) {
    TestHome home;
    home.write("tmp/f", "abcdef");
    OsFd fd(os_open("~/tmp/f", O_RDONLY, 0));
    int eof = 0;
    uint32_t n = 99;
    char buf[8];
    EXPECT_EQ(tnef_PropRead(fd.get(), buf, 0, &n, &eof), 1);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(eof, 0) << "a read of nothing leaves the flag alone";
    EXPECT_EQ(tnef_PropRead(fd.get(), buf, 8, &n, &eof), 1) << "a short read succeeds";
    EXPECT_EQ(n, 6u);
    EXPECT_EQ(eof, 0);
    EXPECT_EQ(tnef_PropRead(fd.get(), buf, 1, &n, &eof), 1);
    EXPECT_EQ(eof, 1);
    EXPECT_EQ(tnef_PropRead(fd.get(), buf, 1, &n, &eof), 0);
    EXPECT_EQ(tnef_PropSeek(fd.get(), -3, 1, &eof), -1);
    EXPECT_EQ(os_lseek64(fd.get(), 0, 1), 6) << "the refused seek did not move";
    EXPECT_EQ(tnef_PropSeek(fd.get(), 2, 0, &eof), 2);
    EXPECT_EQ(eof, 0);
    EXPECT_EQ(tnef_PropRead(fd.get(), buf, 2, &n, &eof), 1);
    EXPECT_EQ(std::string(buf, 2), "cd");
    EXPECT_EQ(tnef_PropSeek(fd.get(), -1, 2, &eof), 5);

    // A failing read sets the flag instead of raising.
    int bad = 0;
    EXPECT_EQ(tnef_PropRead(-1, buf, 1, &n, &bad), 0);
    EXPECT_EQ(bad, 1);
}
