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

TEST(ClassMap, TheFirstEntryWinsInEachDirection) {
    TestHome home;
    home.write(kMapFile, pair("IPM.Note", "NOTE.FIRST") + pair("IPM.Note", "NOTE.SECOND") +
                             pair("IPM.Schedule", "NOTE.FIRST"));
    EXPECT_EQ(mapIn("IPM.Note"), "NOTE.FIRST");
    EXPECT_EQ(mapIn("IPM.Schedule"), "NOTE.FIRST");
    EXPECT_EQ(mapOut("NOTE.FIRST"), "IPM.Note");
    // The shadowed entry is still loaded and answers for its own server class.
    EXPECT_EQ(mapOut("NOTE.SECOND"), "IPM.Note");
    EXPECT_EQ(tnefClassMap.count, 3u);
}

TEST(ClassMap, OnlyExactBytesMatchAndEachDirectionUsesItsOwnColumn) {
    TestHome home;
    home.write(kMapFile, pair("IPM.Note", "MEMO"));
    EXPECT_EQ(mapIn("ipm.note"), "ipm.note") << "letter case";
    EXPECT_EQ(mapIn("IPM.NOTE"), "IPM.NOTE") << "letter case";
    EXPECT_EQ(mapIn("IPM.Note.Custom"), "IPM.Note.Custom") << "further suffix";
    EXPECT_EQ(mapIn("IPM.Not"), "IPM.Not") << "prefix";
    EXPECT_EQ(mapIn("IPM.Note "), "IPM.Note ") << "trailing blank";
    EXPECT_EQ(mapIn(""), "");
    EXPECT_EQ(mapIn("MEMO"), "MEMO") << "a server class is not a MAPI class";
    EXPECT_EQ(mapOut("IPM.Note"), "IPM.Note") << "a MAPI class is not a server class";
    EXPECT_EQ(mapOut("memo"), "memo");
    EXPECT_EQ(mapIn("IPM.Note"), "MEMO");
}

TEST(ClassMap, InThenOutGivesBackTheClassAcrossAGrowingTable) {
    TestHome home;
    std::string file = "# site classes\nTITLE = message classes\n";
    for (int i = 0; i < 40; ++i)
        file += pair("IPM.Class" + std::to_string(i), "SRV" + std::to_string(i)) + "OTHER = x\n";
    home.write(kMapFile, file);
    // The outward direction loads the map just as well.
    EXPECT_EQ(mapOut("SRV39"), "IPM.Class39");
    for (int i = 0; i < 40; ++i) {
        const std::string start = "IPM.Class" + std::to_string(i);
        const std::string inward = mapIn(start);
        EXPECT_EQ(inward, "SRV" + std::to_string(i));
        EXPECT_EQ(mapOut(inward), start);
    }
    EXPECT_EQ(tnefClassMap.count, 40u);
    EXPECT_GE(tnefClassMap.capacity, tnefClassMap.count);
}

TEST(ClassMap, TagsOutsideAPairAndTagsInOtherCaseAreNotPairs) {
    TestHome home;
    home.write(kMapFile,
               "ZR_MSG_CLASS = ORPHAN\n"           // no MAPI class before it
               "exchange_msg_class = IPM.Lower\n"  // tags are exact too
               "zr_msg_class = LOWER\n"
               "EXCHANGE_MSG_CLASS = IPM.Note\n"
               "COMMENT = between the two halves\n"
               "ZR_MSG_CLASS = MEMO\n");
    EXPECT_EQ(mapOut("ORPHAN"), "ORPHAN");
    EXPECT_EQ(mapIn("IPM.Lower"), "IPM.Lower");
    EXPECT_EQ(mapIn("IPM.Note"), "MEMO");
    EXPECT_EQ(tnefClassMap.count, 1u);
}

TEST(ClassMap, AFileWithoutMapiClassesLoadsNothingAndIsNotReadAgain) {
    TestHome home;
    home.write(kMapFile, "ZR_MSG_CLASS = MEMO\nOTHER = IPM.Note\nZR_MSG_CLASS = FAX\n");
    EXPECT_EQ(mapIn("IPM.Note"), "IPM.Note");
    EXPECT_EQ(mapOut("MEMO"), "MEMO");
    EXPECT_TRUE(tnefClassMap.loaded);
    EXPECT_EQ(tnefClassMap.count, 0u);

    home.write(kMapFile, pair("IPM.Note", "MEMO"));
    EXPECT_EQ(mapIn("IPM.Note"), "IPM.Note");
    EXPECT_EQ(mapOut("MEMO"), "MEMO");
    EXPECT_EQ(tnefClassMap.count, 0u);
}

TEST(ClassMap, AMissingFileLeavesEveryClassAloneForTheLifeOfTheProcess) {
    TestHome home;
    EXPECT_EQ(mapOut("MEMO"), "MEMO");
    EXPECT_EQ(mapIn("IPM.Note"), "IPM.Note");
    EXPECT_TRUE(tnefClassMap.loaded);
    EXPECT_EQ(tnefClassMap.count, 0u);

    home.write(kMapFile, pair("IPM.Note", "MEMO"));
    EXPECT_EQ(mapIn("IPM.Note"), "IPM.Note");
}

TEST(ClassMap, ATrailingMapiClassWithoutServerClassIsDropped) {
    TestHome home;
    home.write(kMapFile, pair("IPM.Note", "MEMO") + "EXCHANGE_MSG_CLASS = IPM.Trailing\n");
    EXPECT_EQ(mapIn("IPM.Trailing"), "IPM.Trailing");
    EXPECT_EQ(mapIn("IPM.Note"), "MEMO");
    EXPECT_EQ(tnefClassMap.count, 1u);
}

TEST(ClassMap, PairsWithAnOverlongOrEmptyValueAreSkippedWhole) {
    TestHome home;
    const std::string longest(255, 'L');  // fills the 256-byte entry half with its NUL
    const std::string tooLongMapi = std::string(255, 'M') + "X";
    const std::string tooLongServer = std::string(255, 'S') + "X";
    home.write(kMapFile, pair(tooLongMapi, "SRV.A") +        // skipped: MAPI class too long
                             pair("IPM.B", tooLongServer) +  // skipped: server class too long
                             pair("IPM.C", "") +             // skipped: no server class
                             "EXCHANGE_MSG_CLASS =\nZR_MSG_CLASS = SRV.D\n" +
                             pair(longest, "SRV.E") + pair("IPM.F", longest));

    // Neither the truncated class nor the one it would have been paired with maps.
    EXPECT_EQ(mapIn(tooLongMapi.substr(0, 255)), tooLongMapi.substr(0, 255));
    EXPECT_EQ(mapOut("SRV.A"), "SRV.A");
    EXPECT_EQ(mapIn("IPM.B"), "IPM.B");
    EXPECT_EQ(mapOut(tooLongServer.substr(0, 255)), tooLongServer.substr(0, 255));
    EXPECT_EQ(mapIn("IPM.C"), "IPM.C");
    EXPECT_EQ(mapIn(""), "");
    EXPECT_EQ(mapOut("SRV.D"), "SRV.D");

    // The skipped pairs take their own halves with them: later pairs stay aligned.
    EXPECT_EQ(mapIn(longest), "SRV.E");
    EXPECT_EQ(mapOut("SRV.E"), longest);
    EXPECT_EQ(mapIn("IPM.F"), longest);
    EXPECT_EQ(tnefClassMap.count, 2u);
}
