#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "support/test_home.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/os_file.h"

TEST(ServerHome, TildePathsResolveAgainstTheHomeInOrderOfPrecedence) {
    TestHome home;
    EXPECT_EQ(os_ResolvePath("~/sys/custom.flags"), home.path() + "/sys/custom.flags");
    EXPECT_EQ(os_ResolvePath("/abs/file"), "/abs/file");
    EXPECT_EQ(os_ResolvePath("~user/file"), "~user/file");
    os_SetHome("");
    ::setenv("TNEF_HOME", "/srv/mail/", 1);
    EXPECT_EQ(os_ResolvePath("~/tmp/x"), "/srv/mail/tmp/x");
    ::unsetenv("TNEF_HOME");
    EXPECT_EQ(os_ResolvePath("~/tmp/x"), "tnef-home/tmp/x");
    os_SetHome(home.path());
}

TEST(OsFile, CreatingAFileMakesItsFoldersAndReadsReturnZeroAtEnd) {
    TestHome home;
    OsFd fd(os_open("~/store/items/a/b.dat", O_RDWR | O_CREAT | O_TRUNC, 0660));
    EXPECT_EQ(os_write(fd.get(), "hello", 5), 5);
    EXPECT_EQ(os_lseek(fd.get(), 1, 0, 0), 1);
    char buf[16] = {};
    EXPECT_EQ(os_read(fd.get(), buf, sizeof buf), 4);
    EXPECT_STREQ(buf, "ello");
    EXPECT_EQ(os_read(fd.get(), buf, sizeof buf), 0);
    // Negative offsets travel in the high half.
    EXPECT_EQ(os_lseek(fd.get(), 0xFFFFFFFEu, -1, 1), 3);
    EXPECT_TRUE(os_fexists("~/store/items/a/b.dat"));
    EXPECT_FALSE(os_fexists("~/store/items/a"));
}

TEST(OsFile, FailuresRaiseIoEscapesNamingThePathWhileMdcVariantsReturn) {
    TestHome home;
    try {
        os_open("~/missing/file", O_RDONLY, 0);
        FAIL() << "no escape";
    } catch (const Escape& e) {
        EXPECT_EQ(e.group, ER_GROUP_IO);
        EXPECT_EQ(e.reason, ENOENT);
        EXPECT_NE(std::string(e.what()).find(home.path() + "/missing/file"), std::string::npos);
    }
    char c;
    EXPECT_THROW(os_read(-1, &c, 1), Escape);
    EXPECT_THROW(os_lseek64(-1, 0, 0), Escape);
    EXPECT_LT(mdc_read(-1, &c, 1), 1);
    EXPECT_EQ(mdc_lseek(-1, 0, 0, 0), -1);
    EXPECT_EQ(os_fopen("~/no/such/dir/../x", "r"), nullptr);
}

namespace {

// Fails every write after the first `budget` bytes, as a full disk would.
int64_t g_writeBudget = 0;
ssize_t limitedWrite(int fd, const void* buf, size_t n) {
    if (g_writeBudget <= 0) {
        errno = ENOSPC;
        return -1;
    }
    size_t take = n < static_cast<size_t>(g_writeBudget) ? n : static_cast<size_t>(g_writeBudget);
    ssize_t done = ::write(fd, buf, take);
    if (done > 0) g_writeBudget -= done;
    return done;
}

// Delivers reads one byte at a time, as a pipe may.
ssize_t trickleRead(int fd, void* buf, size_t n) { return ::read(fd, buf, n > 0 ? 1 : 0); }

}  // namespace

TEST(OsFile, ShortTransfersAreRetriedAndAFullDiskRaisesAfterPartialWrite) {
    TestHome home;
    OsSysCalls calls = os_GetSysCalls();
    calls.write = limitedWrite;
    calls.read = trickleRead;
    os_SetSysCalls(&calls);
    OsFd fd(os_open("~/tmp/f", O_RDWR | O_CREAT | O_TRUNC, 0600));
    g_writeBudget = 6;
    EXPECT_EQ(os_write(fd.get(), "abcdef", 6), 6);
    try {
        os_write(fd.get(), "gh", 2);
        FAIL() << "no escape";
    } catch (const Escape& e) {
        EXPECT_EQ(e.reason, ENOSPC);
    }
    EXPECT_EQ(mdc_write(fd.get(), "gh", 2), -1);
    os_lseek64(fd.get(), 0, 0);
    char buf[8] = {};
    EXPECT_EQ(os_read(fd.get(), buf, 8), 6);
    EXPECT_STREQ(buf, "abcdef");
    os_SetSysCalls(nullptr);
}

TEST(NumberTexts, HexTextsAreLowerCaseWithoutLeadingZeros) {
    char text[40];
    int length = 0;
    EXPECT_STREQ(os_ul2str(0x37001E, 16, 1, text, &length), "37001e");
    EXPECT_EQ(length, 6);
    EXPECT_STREQ(os_ul2str(0, 16, 1, text, &length), "0");
    EXPECT_STREQ(os_ul2str(0xFFFFFFFFu, 16, 0, text, nullptr), "FFFFFFFF");
    EXPECT_STREQ(mdc_ul2str(4294967295u, 10, 1, text, &length), "4294967295");
    EXPECT_STREQ(os_ul2str(5, 2, 1, text, nullptr), "101");
}

TEST(NumberTexts, ParsingStopsAtTheFirstNonDigitAndSaturates) {
    EXPECT_EQ(os_str2ul("3704001e\x1dvalue", 16), 0x3704001Eu);
    EXPECT_EQ(os_str2ul("ffffffffff", 16), 0xFFFFFFFFu);
    EXPECT_EQ(os_str2ul("0x1F", 16), 0x1Fu);
    EXPECT_EQ(os_str2ul("aAzZ", 36), ((10u * 36 + 10) * 36 + 35) * 36 + 35) << "both ends of both letter ranges";
    EXPECT_EQ(os_str2ul("GUID", 16), 0u);
    char* end = nullptr;
    const char* text = "8001/Keywords";
    EXPECT_EQ(mdc_strtoul(text, &end, 16), 0x8001u);
    EXPECT_EQ(end, text + 4);
    uint32_t v = 99;
    EXPECT_EQ(mdc_string2ul("zz", &v, 16), 0);
    EXPECT_EQ(v, 0u);
    unsigned u = 0;
    EXPECT_EQ(mdc_string2unsigned("1c", &u, 16), 1);
    EXPECT_EQ(u, 0x1Cu);
    EXPECT_STREQ(mdc_strpbrk("ab\x1d" "cd\x1e", "\x1e\x1d"), "\x1d" "cd\x1e");
    EXPECT_EQ(mdc_strpbrk("abc", "\x1e"), nullptr);
}
