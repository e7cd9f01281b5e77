#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>

#include "support/test_home.h"
#include "tnef/tnef.h"
#include "tnef_decode/tnef_classmap.h"

namespace {

const char* const kMapFile = "sys/mapiclass.map";

std::string pair(const std::string& mapiClass, const std::string& serverClass) {
    return "EXCHANGE_MSG_CLASS = " + mapiClass + "\nZR_MSG_CLASS = " + serverClass + "\n";
}

// Maps a copy of messageClass in a buffer of the size callers must provide.
std::string mapIn(const std::string& messageClass) {
    std::array<char, TNEF_CLASS_CAPACITY> buffer{};
    std::memcpy(buffer.data(), messageClass.data(), messageClass.size());
    tnef_InMapMsgClass(buffer.data());
    return buffer.data();
}

std::string mapOut(const std::string& messageClass) {
    std::array<char, TNEF_CLASS_CAPACITY> buffer{};
    std::memcpy(buffer.data(), messageClass.data(), messageClass.size());
    tnef_OutMapMsgClass(buffer.data());
    return buffer.data();
}

}  // namespace

// One map file holding every shape a site's file takes; each row maps one class one way.
TEST(ClassMap, PairsMapExactBytesEachWayAndMalformedPairsAreSkippedWhole) {
    TestHome home;
    const std::string longest(255, 'L');  // fills the 256-byte entry half with its NUL
    const std::string tooLongMapi = std::string(255, 'M') + "X";
    const std::string tooLongServer = std::string(255, 'S') + "X";
    std::string file = "# site classes\nZR_MSG_CLASS = ORPHAN\n"  // no MAPI class before it
                       "exchange_msg_class = IPM.Lower\nzr_msg_class = LOWER\n"  // tags are exact
                       "EXCHANGE_MSG_CLASS = IPM.Note\nCOMMENT = between\nZR_MSG_CLASS = MEMO\n";
    file += pair("IPM.Note", "MEMO.SECOND") + pair("IPM.Schedule", "MEMO");
    file += pair(tooLongMapi, "SRV.A") + pair("IPM.B", tooLongServer) + pair("IPM.C", "") +
            "EXCHANGE_MSG_CLASS =\nZR_MSG_CLASS = SRV.D\n" + pair(longest, "SRV.E") +
            pair("IPM.F", longest);
    for (int i = 0; i < 40; ++i)  // a table that grows past any first allocation
        file += pair("IPM.Class" + std::to_string(i), "SRV" + std::to_string(i));
    home.write(kMapFile, file + "EXCHANGE_MSG_CLASS = IPM.Trailing\n");

    const struct {
        bool in;
        std::string from, to;
    } rows[] = {
        {true, "IPM.Note", "MEMO"},           // the first entry wins in each direction
        {true, "IPM.Schedule", "MEMO"},
        {false, "MEMO", "IPM.Note"},
        {false, "MEMO.SECOND", "IPM.Note"},   // a shadowed entry still answers for its own
        {true, "ipm.note", "ipm.note"},       // letter case, suffix, prefix, blank: no match
        {true, "IPM.Note.Custom", "IPM.Note.Custom"},
        {true, "IPM.Not", "IPM.Not"},
        {true, "IPM.Note ", "IPM.Note "},
        {true, "", ""},
        {true, "MEMO", "MEMO"},               // each direction reads its own column
        {false, "IPM.Note", "IPM.Note"},
        {false, "ORPHAN", "ORPHAN"},
        {true, "IPM.Lower", "IPM.Lower"},
        {true, tooLongMapi.substr(0, 255), tooLongMapi.substr(0, 255)},
        {false, "SRV.A", "SRV.A"},
        {true, "IPM.B", "IPM.B"},
        {false, tooLongServer.substr(0, 255), tooLongServer.substr(0, 255)},
        {true, "IPM.C", "IPM.C"},
        {false, "SRV.D", "SRV.D"},
        {true, longest, "SRV.E"},             // skipped pairs take both halves with them
        {false, "SRV.E", longest},
        {true, "IPM.F", longest},
        {true, "IPM.Class0", "SRV0"},
        {false, "SRV39", "IPM.Class39"},
        {true, "IPM.Class39", "SRV39"},
        {true, "IPM.Trailing", "IPM.Trailing"},  // no server class after it
    };
    for (const auto& r : rows)
        EXPECT_EQ(r.in ? mapIn(r.from) : mapOut(r.from), r.to) << (r.in ? "in: " : "out: ") << r.from;
}

// The file is read once per process: missing, or holding no pair, it maps nothing even
// after it appears. (Each case a process of its own: the table is process state.)
class ClassMapFirstFile : public testing::TestWithParam<const char*> {};

TEST_P(ClassMapFirstFile, LeavesEveryClassAloneForTheLifeOfTheProcess) {
    TestHome home;
    if (*GetParam() != '\0') home.write(kMapFile, GetParam());
    EXPECT_EQ(mapOut("MEMO"), "MEMO");
    home.write(kMapFile, pair("IPM.Note", "MEMO"));
    EXPECT_EQ(mapIn("IPM.Note"), "IPM.Note");
}

INSTANTIATE_TEST_SUITE_P(MissingOrWithoutPairs, ClassMapFirstFile,
                         testing::Values("", "ZR_MSG_CLASS = MEMO\nOTHER = IPM.Note\n"));
