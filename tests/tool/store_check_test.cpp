// store check over a home damaged in each way interrupted work or a hand leaves it, and
// decode's warnings for what a file holds that the decode does not store.

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "support/test_home.h"
#include "support/tnef_builder.h"
#include "tool_run.h"

namespace fs = std::filesystem;

namespace {

// Above any pid the kernel hands out, so its owner is gone.
constexpr const char* kGone = "6b000000-3ffffff0-0000000";

std::string decodeSample(const TestHome& home) {
    const ToolRun r = runTool({"--home", home.path(), "--json", "decode",
                               std::string(TNEF_SOURCE_DIR) + "/samples/winmail.dat"}, home.path());
    EXPECT_EQ(r.status, 0) << r.err;
    return jsonOf(r)["message"].text;
}

ToolRun check(const TestHome& home, std::vector<std::string> extra) {
    std::vector<std::string> args{"--home", home.path(), "--json", "store", "check"};
    args.insert(args.end(), extra.begin(), extra.end());
    return runTool(args, home.path());
}

struct Damage {
    const char* what;
    std::function<void(const TestHome&, const std::string& message)> make;
    const char* kind;  // the finding it must give
    bool removable;
};

}  // namespace

TEST(StoreCheck, FindsEachLeftoverAndRepairRemovesOnlyWhatNoMessageReferences) {
    const std::string folder = "store/messages/";
    const std::vector<Damage> damages = {
        {"a staged message its process left",
         [](const TestHome& h, const std::string&) { h.write("store/staging/6b00000012345678/msgfile", ""); },
         "staged", true},
        {"a temporary item of an ended process",
         [](const TestHome& h, const std::string&) { h.write(std::string("tmp/items/") + kGone + "1", "x"); },
         "temporary", true},
        {"a data item no part shares",
         [](const TestHome& h, const std::string&) { h.write(std::string("store/items/") + kGone + "2", "x"); },
         "item", true},
        {"a kept object no record names",
         [](const TestHome& h, const std::string&) { h.write(std::string("store/objects/") + kGone + "3", "x"); },
         "object", true},
        {"a message folder without its message file",
         [](const TestHome& h, const std::string&) { h.write("store/messages/6b00000087654321/part-1", "x"); },
         "damaged-message", true},
        {"a part no record counts",
         [&](const TestHome& h, const std::string& m) { h.write(folder + m + "/part-5", "x"); },
         "unreferenced-part", true},
        {"a stray file in a message folder",
         [&](const TestHome& h, const std::string& m) { h.write(folder + m + "/.msgfile-1234abcd", "x"); },
         "stray", true},
        {"a record naming an object that is gone",
         [](const TestHome& h, const std::string&) {
             for (const auto& e : fs::directory_iterator(h.file("store/objects"))) fs::remove(e.path());
         },
         "missing-object", false},
    };
    for (const Damage& d : damages) {
        SCOPED_TRACE(d.what);
        TestHome home;
        const std::string message = decodeSample(home);
        // Work under way is no finding: an item of a running process (this one).
        home.write("tmp/items/6b000000-" + [] {
            char pid[9];
            std::snprintf(pid, sizeof pid, "%08x", static_cast<unsigned>(::getpid()));
            return std::string(pid);
        }() + "-00000001", "busy");
        ASSERT_EQ(check(home, {"--min-age", "0"}).status, 0);
        d.make(home, message);

        // Younger than the default age: reported, kept.
        const ToolRun young = check(home, {"--repair"});
        EXPECT_EQ(young.status, 1);
        const jsoncheck::Value y = jsonOf(young);
        ASSERT_EQ(y["findings"].size(), 1u) << young.out;
        EXPECT_EQ(y["findings"][0]["kind"].text, d.kind);
        EXPECT_FALSE(y["findings"][0]["removed"].boolean);

        const ToolRun repaired = check(home, {"--repair", "--min-age", "0"});
        EXPECT_EQ(jsonOf(repaired)["findings"][0]["removed"].boolean, d.removable);
        EXPECT_EQ(check(home, {"--min-age", "0"}).status, d.removable ? 0 : 1);
        // The message stays whole.
        EXPECT_EQ(runTool({"--home", home.path(), "show", message}, home.path()).status, 0);
    }
}

TEST(StoreCheck, DecodeWarnsOfWhatItDidNotStoreAndStillSucceeds) {
    using tnefbuild::PropList;
    using tnefbuild::Stream;
    const std::string rend(14, '\1'), ole = std::string("\2\0", 2) + std::string(12, '\0');
    const std::string props = PropList().string8(0x3707001E, "a.txt").bytes();
    const Stream head = Stream().header().tnefVersion();
    const struct {
        const char* what;
        std::string bytes;
        const char* warning;  // empty: none
    } cases[] = {
        {"a whole file", Stream(head).record(2, 0x00069002, rend).record(2, 0x0006800F, "data")
                             .record(2, 0x00069005, props).bytes(), ""},
        {"data without attAttachment", Stream(head).record(2, 0x00069002, rend).record(2, 0x0006800F, "data").bytes(),
         "1 attachment with data but no attAttachment record"},
        {"properties without data", Stream(head).record(2, 0x00069002, rend).record(2, 0x00069005, props).bytes(),
         "1 attachment with properties but no attAttachData record"},
        {"an OLE object", Stream(head).record(2, 0x00069002, ole).record(2, 0x0006800F, "data").bytes(),
         "1 attachment kept whole in the object file only"},
        {"a stream cut short", Stream(head).record(1, 0x00018004, std::string("Hi\0", 3)).cut(30).bytes(),
         "the stream ends inside a record: the last 9 bytes, from offset 21"},
        {"the header alone", Stream().header().bytes(), "the file is too short to hold a TNEF record"},
        {"a subject of 4,079 bytes", Stream(head).record(1, 0x00018004, std::string(4079, 's') + '\0').bytes(), ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        TestHome home;
        home.write("in.tnef", c.bytes);
        const ToolRun r = runTool({"--home", home.path(), "--json", "decode", home.file("in.tnef")}, home.path());
        EXPECT_EQ(r.status, 0) << r.err;
        const jsoncheck::Value d = jsonOf(r);
        if (*c.warning == '\0') {
            EXPECT_EQ(d["warnings"].size(), 0u) << r.err;
            EXPECT_EQ(r.err, "");
        } else {
            ASSERT_GE(d["warnings"].size(), 1u);
            EXPECT_EQ(d["warnings"][0].text.rfind(c.warning, 0), 0u) << d["warnings"][0].text;
            EXPECT_NE(r.err.find(std::string("warning: ") + c.warning), std::string::npos) << r.err;
        }
        if (c.bytes.size() > 4079) {
            EXPECT_EQ(d["subject"].text, std::string(4079, 's'));
        }
    }
}
