#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "support/test_home.h"
#include "support/tnef_builder.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/im_items.h"
#include "tnef/platform/os_file.h"
#include "tnef_decode/tnef_downlevel.h"
#include "tnef_defs.h"

using namespace tnefbuild;
using namespace std::string_literals;

namespace {

struct Attachment {
    int result = -1;
    std::string main, secondary, fileName = "untouched", name, object;
    int64_t pos = 0;
};

Attachment parse(const TestHome& home, const PropList& list, const char* presetName = "preset") {
    home.write("tmp/att.tnef", list.bytes() + "tail");
    OsFd in(os_open("~/tmp/att.tnef", O_RDONLY, 0));
    OsFd props(os_open("~/tmp/props.tnef", O_RDWR | O_CREAT | O_TRUNC, 0600));
    dstring mainText, secondaryText;
    char name[257];
    std::strcpy(name, presetName);
    Attachment a;
    ItemRef ref{};
    a.result = tnef_ParseDownLevelMAPIProps(in.get(), &mainText, &secondaryText, props.get(),
                                            &a.fileName, static_cast<uint32_t>(list.size()), name,
                                            257, &ref);
    a.main = mainText.text;
    a.secondary = secondaryText.text;
    a.name = name;
    a.pos = os_lseek64(in.get(), 0, 1);
    if (a.fileName != "untouched") a.object = readFileBytes(a.fileName);
    return a;
}

size_t tempItems(const TestHome& home) {
    std::error_code ec;
    size_t n = 0;
    for (auto it = std::filesystem::directory_iterator(home.file("tmp/items"), ec);
         !ec && it != std::filesystem::directory_iterator(); ++it)
        ++n;
    return n;
}

const Guid kIid = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};

}  // namespace

TEST(DownLevel, PropertiesGoToTheAttachmentTextsAndTheNameIsTaken) {
    TestHome home;
    PropList list;
    list.string8(PR_DISPLAY_NAME, "report.pdf")
        .long32(0x0E200003, 1234)
        .long32(0x10900003, 1)
        .binary(PR_ATTACH_DATA_BIN, "data");
    list.namedId(PSETID_Common, 0x8503).i2(0x8000000B, 1);
    const Attachment a = parse(home, list);
    EXPECT_EQ(a.result, 0);
    EXPECT_EQ(a.name, "report.pdf");
    EXPECT_EQ(a.fileName, "untouched");
    EXPECT_EQ(a.main, "e200003\x1d" "4d2\x1e" "37010102\x1d" "data\x1e"s);
    EXPECT_EQ(a.secondary.substr(0, 15), "10900003\x1d" "1\x1eGUID"s);
    EXPECT_EQ(a.secondary.substr(a.secondary.size() - 10), "#b/8503\x1d" "1\x1e"s);
    EXPECT_EQ(a.pos, static_cast<int64_t>(list.size()));
}

TEST(DownLevel, AttachedObjectsAreCopiedFromTheirSignature) {
    TestHome home;
    const std::string stream = "\x78\x9F\x3E\x22\x01\x02"s + std::string(20000, 'z');
    PropList embedded;
    embedded.object(PR_ATTACH_DATA_OBJ, kIid, stream);
    Attachment a = parse(home, embedded);
    EXPECT_EQ(a.result, 1);
    EXPECT_EQ(a.object, stream) << "the item holds the value from byte 16 on";
    EXPECT_EQ(a.fileName.find(home.path() + "/tmp/items/"), 0u);

    PropList ole;
    ole.object(PR_ATTACH_DATA_OBJ, kIid, "\xD0\xCF\x11\xE0 ole"s);
    EXPECT_EQ(parse(home, ole).result, 0);

    // Twenty bytes or fewer: an empty item still named.
    PropList small;
    small.object(PR_ATTACH_DATA_OBJ, kIid, "abcd");
    a = parse(home, small);
    EXPECT_EQ(a.result, 0);
    EXPECT_NE(a.fileName, "untouched");
    EXPECT_EQ(a.object, "");
    EXPECT_EQ(a.main, "");
}

TEST(DownLevel, OnlyTheLastOfSeveralObjectsIsKept) {
    TestHome home;
    PropList two;
    two.object(PR_ATTACH_DATA_OBJ, kIid, "first object bytes").object(PR_ATTACH_DATA_OBJ, kIid, "second object bytes");
    const Attachment a = parse(home, two);
    EXPECT_EQ(a.object, "second object bytes");
    EXPECT_EQ(tempItems(home), 1u);
}

TEST(DownLevel, DisplayNameMustFitBelowTheBuffer) {
    TestHome home;
    PropList fits;
    fits.string8(PR_DISPLAY_NAME, std::string(255, 'n'));
    EXPECT_EQ(parse(home, fits).name.size(), 255u);

    // An object created before the failing name is removed as the escape passes.
    PropList tooLong;
    tooLong.object(PR_ATTACH_DATA_OBJ, kIid, std::string(40, 'o'))
        .string8(PR_DISPLAY_NAME, std::string(256, 'n'));
    try {
        parse(home, tooLong);
        FAIL() << "no escape";
    } catch (const Escape& e) {
        EXPECT_EQ(e.group, 102);
        EXPECT_EQ(e.reason, 1546);
    }
    EXPECT_EQ(tempItems(home), 0u);
}

TEST(DownLevel, ObjectLengthBeyondTheAttributeStopsAtItsEnd) {
    TestHome home;
    PropList list;
    list.object(PR_ATTACH_DATA_OBJ, kIid, "\x78\x9F\x3E\x22rest"s);
    std::string bytes = list.bytes();
    // Claim 1 MiB for the value: the copy takes what the attribute holds and no more.
    bytes[12] = 0;
    bytes[13] = 0;
    bytes[14] = 0x10;
    PropList raw;
    raw.raw(bytes.substr(4)).count(1);
    const Attachment a = parse(home, raw);
    EXPECT_EQ(a.result, 1);
    EXPECT_EQ(a.object, "\x78\x9F\x3E\x22rest"s);
}
