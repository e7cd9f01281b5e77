// calendar, contact and extract's calendars and cards, driven as a user would.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/calendar_builder.h"
#include "support/test_home.h"
#include "tool_run.h"

namespace {

using namespace calbuild;

TEST(ToolCalendar, CommandsAndExtractWriteCalendarsAndCards) {
    TestHome home;
    const auto seeds = calendarSeeds();
    for (const auto& [name, bytes] : seeds) home.write(name + ".tnef", bytes);
    // A note that is neither: each command says so with status 1.
    Message note;
    note.cls = "IPM.Note";
    home.write("note.tnef", note.text(0x0037001E, "Hi").bytes());

    struct Row {
        const char* command;
        const char* file;
        int status;
        const char* begins;  // what stdout begins with
    };
    const Row rows[] = {
        {"calendar", "request", 0, "BEGIN:VCALENDAR\r\n"},
        {"calendar", "contact", 1, ""},
        {"contact", "contact", 0, "BEGIN:VCARD\r\nVERSION:4.0\r\n"},
        {"contact", "list", 0, "BEGIN:VCARD\r\nVERSION:4.0\r\nKIND:group\r\n"},
        {"calendar", "note", 1, ""},
        {"contact", "note", 1, ""},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(std::string(r.command) + " " + r.file);
        const ToolRun run =
            runTool({r.command, home.file(std::string(r.file) + ".tnef")}, home.path());
        EXPECT_EQ(run.status, r.status) << run.err;
        EXPECT_EQ(run.out.rfind(r.begins, 0), 0u) << run.out;
        if (r.status == 1) {
            EXPECT_NE(run.err.find("no "), std::string::npos) << run.err;
        }
    }

    const ToolRun json = runTool(
        {"--json", "calendar", home.file("series.tnef"), "-o", home.file("s.ics")}, home.path());
    ASSERT_EQ(json.status, 0) << json.err;
    const jsoncheck::Value report = jsonOf(json);
    EXPECT_EQ(report["method"].text, "PUBLISH");
    EXPECT_EQ(report["component"].text, "VEVENT");
    EXPECT_EQ(report["bytes"].number,
              static_cast<double>(std::filesystem::file_size(home.file("s.ics"))));

    // extract: the calendar beside the attachments; a card for the contact, whose picture
    // is an attachment too.
    const ToolRun ex = runTool({"--json", "extract", home.file("request.tnef"),
                                home.file("contact.tnef"), "-C", home.file("out")},
                               home.path());
    ASSERT_EQ(ex.status, 0) << ex.err;
    const jsoncheck::Value files = jsonOf(ex)["files"];
    ASSERT_EQ(files.size(), 2u);
    EXPECT_EQ(files[0]["extracted"][0]["kind"].text, "converted");
    EXPECT_EQ(files[0]["extracted"][0]["type"].text, "text/calendar");
    EXPECT_TRUE(std::filesystem::exists(home.file("out/invite.ics")));
    EXPECT_TRUE(std::filesystem::exists(home.file("out/contact.vcf")));
    EXPECT_TRUE(std::filesystem::exists(home.file("out/ContactPicture.jpg")));
}

// A distribution list carried inside a note (the shared corpus's only one): extract writes
// its card with the note's attachments, contact finds it inside.
TEST(ToolCalendar, EmbeddedListGivesItsCard) {
    const std::string corpus = corpusDir();
    if (corpus.empty()) GTEST_SKIP() << "no shared corpus beside this checkout (set TNEF_CORPUS)";
    TestHome home;
    const std::string file = corpus + "/files/tnefparse__tests__examples__IPM-DistList.tnef";
    const ToolRun ex = runTool({"extract", file, "-C", home.file("out")}, home.path());
    EXPECT_TRUE(std::filesystem::exists(home.file("out/contact.vcf"))) << ex.out << ex.err;
    const ToolRun json =
        runTool({"--json", "contact", file, "-o", home.file("l.vcf")}, home.path());
    EXPECT_EQ(json.status, 0) << json.err;
    EXPECT_EQ(jsonOf(json)["depth"].number, 1);
    EXPECT_EQ(home.read("l.vcf"), home.read("out/contact.vcf"));
}

}  // namespace
