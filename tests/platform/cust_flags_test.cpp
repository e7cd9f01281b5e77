#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>

#include "support/test_home.h"
#include "tnef/platform/cust_flags.h"

namespace {

const char* const kFlagFile = "sys/custom.flags";

enum class Expect { True, False, NotConfigured };

// Checks the three readers against one expected state, both defaults of cust_GetBoolean
// included, so a not-configured flag cannot pass for a configured one.
void expectFlag(const char* name, Expect expected) {
    SCOPED_TRACE(name);
    EXPECT_EQ(cust_PresentAndTrue(name), expected == Expect::True);
    EXPECT_EQ(cust_PresentAndFalse(name), expected == Expect::False);
    const int withDefault0 = expected == Expect::True ? 1 : 0;
    const int withDefault1 = expected == Expect::False ? 0 : 1;
    EXPECT_EQ(cust_GetBoolean(name, 0, 0, 0), withDefault0);
    EXPECT_EQ(cust_GetBoolean(name, 1, 0, 0), withDefault1);
}

// Rewrites the flag file and moves its modification time away from the previous one, so the
// change is visible however coarse the file system's clock is.
void rewriteFlags(const TestHome& home, const std::string& bytes, int secondsLater) {
    namespace fs = std::filesystem;
    const fs::path path = home.file(kFlagFile);
    const auto before =
        fs::exists(path) ? fs::last_write_time(path) : fs::file_time_type::clock::now();
    home.write(kFlagFile, bytes);
    fs::last_write_time(path, before + std::chrono::seconds(secondsLater));
}

}  // namespace

TEST(CustFlags, TrueAndFalseWordsInAnyCaseAreConfiguredAndAnythingElseIsNot) {
    TestHome home;
    home.write(kFlagFile,
               "# site flags\n"
               "T1=1\nT2=true\nT3=YES\nT4=On\n"
               "F1=0\nF2=False\nF3=no\nF4=OFF\n"
               "  SPACED  =  yes  \n"
               "DOS=on\r\n"
               "TRAILING=no # comment after the value\n"
               "#COMMENTED=1\n"
               "   # INDENTED=1\n"
               "GARBAGE=maybe\n"
               "NUMBER=2\n"
               "EMPTY=\n"
               "NOSEPARATOR 1\n");
    for (const char* name : {"T1", "T2", "T3", "T4", "SPACED", "DOS"})
        expectFlag(name, Expect::True);
    for (const char* name : {"F1", "F2", "F3", "F4", "TRAILING"}) expectFlag(name, Expect::False);
    for (const char* name : {"#COMMENTED", "COMMENTED", "INDENTED", "GARBAGE", "NUMBER", "EMPTY",
                             "NOSEPARATOR", "ABSENT"})
        expectFlag(name, Expect::NotConfigured);
}

TEST(CustFlags, WithoutAFileNoFlagIsConfigured) {
    TestHome home;
    expectFlag("UXI_PRESERVE_MAPI_MSG_CLASS", Expect::NotConfigured);
    expectFlag("TNEF_AUGMENT_PROPS", Expect::NotConfigured);
}

TEST(CustFlags, OverridesWinOverTheFileUntilCleared) {
    TestHome home;
    home.write(kFlagFile, "A=1\nB=0\n");
    cust_Set("A", "off");
    cust_Set("B", "garbage");
    cust_Set("C", "yes");
    expectFlag("A", Expect::False);
    expectFlag("B", Expect::NotConfigured);  // a garbage override hides the file's value
    expectFlag("C", Expect::True);

    cust_Clear("A");
    expectFlag("A", Expect::True);
    expectFlag("B", Expect::NotConfigured);

    cust_ClearAll();
    expectFlag("B", Expect::False);
    expectFlag("C", Expect::NotConfigured);
}

TEST(CustFlags, TheFileIsReadAgainWhenItChanges) {
    TestHome home;
    rewriteFlags(home, "A=1\n", 0);
    expectFlag("A", Expect::True);

    rewriteFlags(home, "A=0\nB=yes\n", 10);
    expectFlag("A", Expect::False);
    expectFlag("B", Expect::True);

    // An older time is a change as well: a file restored from a backup.
    rewriteFlags(home, "A=yes\n", -100);
    expectFlag("A", Expect::True);
    expectFlag("B", Expect::NotConfigured);

    std::filesystem::remove(home.file(kFlagFile));
    expectFlag("A", Expect::NotConfigured);

    rewriteFlags(home, "A=no\n", 0);
    expectFlag("A", Expect::False);
}
