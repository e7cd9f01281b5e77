#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "support/test_home.h"
#include "tnef/platform/dstring.h"
#include "tnef/platform/os_file.h"
#include "tnef/platform/tfo_tagfile.h"

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

// Every pair the reader finds in a file holding bytes.
Pairs readPairs(const TestHome& home, const std::string& bytes) {
    home.write("sys/tags.txt", bytes);
    FILE* file = os_fopen("~/sys/tags.txt", "r");
    EXPECT_NE(file, nullptr);
    Pairs pairs;
    if (file == nullptr) return pairs;
    dstring tag;
    dstring value;
    dstring_init(&tag);
    dstring_init(&value);
    while (tfo_FindTagValue(file, &tag, &value) == 1) pairs.emplace_back(tag.text, value.text);
    os_fclose(file);
    return pairs;
}

}  // namespace

// One file of every line shape: the first '=' splits, blanks around tag and value go,
// lines without a tag or separator and comments are skipped, CR LF and long lines are read.
TEST(TagFile, PairsAreReadFromEveryLineShape) {
    TestHome home;
    const std::string longValue(100000, 'x');
    const Pairs pairs = readPairs(home, "PLAIN=value\n  SPACED  =  two words  \n\tTABBED\t=\tv\t\n"
                                        "EQUALS = a=b = c\nEMPTY =\nHASH = not # a comment\n"
                                        "\n   \t \n# COMMENTED = out\n   # INDENTED = comment\n"
                                        "no separator here\n = value without a tag\n"
                                        "DOS = crlf \r\n\r\nLONG = " + longValue +
                                        "\nINNER = a\rb\nLAST = no newline");
    const Pairs expected = {{"PLAIN", "value"}, {"SPACED", "two words"},    {"TABBED", "v"},
                            {"EQUALS", "a=b = c"}, {"EMPTY", ""},          {"HASH", "not # a comment"},
                            {"DOS", "crlf"},    {"LONG", longValue},        {"INNER", "a\rb"},
                            {"LAST", "no newline"}};
    EXPECT_EQ(pairs, expected);
    EXPECT_TRUE(readPairs(home, "").empty());
}

TEST(TagFile, TheEndIsReportedWithEmptyOutputsAndStaysTheEnd) {
    TestHome home;
    home.write("sys/tags.txt", "ONLY = one\n# trailing comment\n\n");
    FILE* file = os_fopen("~/sys/tags.txt", "r");
    ASSERT_NE(file, nullptr);
    dstring tag;
    dstring value;
    dstring_init(&tag);
    dstring_init(&value);
    ASSERT_EQ(tfo_FindTagValue(file, &tag, &value), 1);
    EXPECT_EQ(tag.text, "ONLY");
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(tfo_FindTagValue(file, &tag, &value), 0);
        EXPECT_EQ(tag.text, "");
        EXPECT_EQ(value.text, "");
    }
    os_fclose(file);
}
