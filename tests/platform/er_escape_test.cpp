#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <filesystem>
#include <string>

#include "support/test_home.h"
#include "tnef/platform/er_escape.h"

namespace {

const char* const kUnit = "src/lib/tnef/tnef_decode";

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// A home whose log folder exists already, so that each log test checks one thing.
void makeLogFolder(const TestHome& home) {
    std::filesystem::create_directories(home.file("tmp"));
}

size_t lineCount(const std::string& text) {
    return static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
}

}  // namespace

TEST(Escape, IsAStandardExceptionThatCarriesAndNamesItsOrigin) {
    TestHome home;
    try {
        er_TracedEscape(ER_GROUP_TNEF, ER_TNEF_TOO_LONG, kUnit, 42);
        FAIL() << "no escape";
    } catch (const std::exception& caught) {
        const auto* e = dynamic_cast<const Escape*>(&caught);
        ASSERT_NE(e, nullptr);
        EXPECT_EQ(er_GetGroup(*e), ER_GROUP_TNEF);
        EXPECT_EQ(er_GetReason(*e), ER_TNEF_TOO_LONG);
        EXPECT_STREQ(e->source, kUnit);
        EXPECT_EQ(e->line, 42);
        const std::string what = e->what();
        EXPECT_TRUE(contains(what, "102")) << what;
        EXPECT_TRUE(contains(what, "1546")) << what;
        EXPECT_TRUE(contains(what, kUnit)) << what;
        EXPECT_TRUE(contains(what, "42")) << what;
    }

    try {
        er_TracedEscapeText(ER_GROUP_IO, ENOENT, kUnit, 7, "~/store/items/missing");
        FAIL() << "no escape";
    } catch (const Escape& e) {
        EXPECT_EQ(e.group, ER_GROUP_IO);
        EXPECT_EQ(e.reason, ENOENT);
        EXPECT_TRUE(contains(e.what(), "~/store/items/missing")) << e.what();
    }
}

TEST(Escape, HandlersAcceptOrdinaryErrorsButNeverExhaustion) {
    TestHome home;
    Escape codec(ER_GROUP_TNEF, ER_TNEF_BAD_SIGNATURE, kUnit, 1);
    Escape io(ER_GROUP_IO, EIO, kUnit, 2);
    Escape exhausted(ER_GROUP_IO, ENOMEM, kUnit, 3);

    EXPECT_TRUE(er_GetLive(codec)) << "live until a handler accepts it";
    er_Accept(codec, 4);
    EXPECT_TRUE(er_GetLive(codec)) << "a level below the severity does not accept";
    er_Accept(codec, 5);
    EXPECT_FALSE(er_GetLive(codec));

    er_Accept(io, 5);
    EXPECT_FALSE(er_GetLive(io));

    er_Accept(exhausted, 5);
    EXPECT_TRUE(er_GetLive(exhausted));
    er_Accept(exhausted, 7);
    EXPECT_TRUE(er_GetLive(exhausted));
}

TEST(Escape, AnAcceptedEscapeStaysAcceptedWhenRethrown) {
    TestHome home;
    try {
        try {
            er_TracedEscape(ER_GROUP_TNEF, ER_TNEF_TOO_LONG, kUnit, 9);
        } catch (Escape& inner) {
            er_Accept(inner, 5);
            throw;
        }
    } catch (const Escape& outer) {
        EXPECT_FALSE(er_GetLive(outer));
        EXPECT_EQ(outer.line, 9);
    }
}

TEST(Escape, LogMsgWritesOneCatalogueLinePerCallToTheServerLog) {
    TestHome home;
    makeLogFolder(home);
    er_LogMsg(9, 102, 1167, "1", "0", "report.doc", nullptr);
    const std::string first = home.read("tmp/server.log");
    EXPECT_EQ(lineCount(first), 1u) << first;
    EXPECT_TRUE(contains(first, "102/1167")) << first;
    EXPECT_TRUE(contains(first,
                         "TNEF: body part 1 (type 0, name \"report.doc\") matched to an "
                         "attachment"))
        << first;

    // An uncatalogued number still logs its arguments; a trailing newline adds no empty line.
    er_LogMsg(5, 100, 99999, "could not", "open\n", nullptr);
    const std::string both = home.read("tmp/server.log");
    EXPECT_EQ(both.substr(0, first.size()), first);
    EXPECT_EQ(lineCount(both), 2u) << both;
    EXPECT_TRUE(contains(both.substr(first.size()), "could not open\n")) << both;
}

TEST(Escape, LogMsgCreatesTheLogFolderOfAFreshHome) {
    TestHome home;
    er_LogMsg(9, 102, 1169, nullptr);
    EXPECT_TRUE(contains(home.read("tmp/server.log"), "no further attachment"));
}

TEST(Escape, LogMsgReadsNoArgumentPastTheTerminatingNull) {
    TestHome home;
    makeLogFolder(home);
    // A caller with fewer texts than the catalogue line has places for: what follows the
    // null is not the caller's, and must not reach the log.
    er_LogMsg(9, 102, 1167, "3", nullptr, "NOT-AN-ARGUMENT", "NOR-THIS", nullptr);
    const std::string log = home.read("tmp/server.log");
    EXPECT_EQ(lineCount(log), 1u) << log;
    EXPECT_TRUE(contains(log, "body part 3")) << log;
    EXPECT_FALSE(contains(log, "NOT-AN-ARGUMENT")) << log;
    EXPECT_FALSE(contains(log, "NOR-THIS")) << log;
}
