#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <string>

#include "support/store_checks.h"
#include "support/test_home.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/im_items.h"
#include "tnef/platform/os_file.h"

using storecheck::filesIn;
using storecheck::openFdCount;

namespace {

bool startsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

}  // namespace

TEST(Items, EachKindLivesInItsOwnFolderUnderTheHome) {
    TestHome home;
    ItemRef data, temp;
    uint32_t kind = 0;
    OsFd dataFd(im_CrNewDataItem(&kind, &data));
    EXPECT_EQ(kind, IM_KIND_DATA);
    OsFd tempFd(im_CrNewTempItem(&temp));
    EXPECT_EQ(temp.w[0], IM_KIND_TEMP);
    EXPECT_EQ(data.w[2], static_cast<uint32_t>(::getpid()));

    EXPECT_TRUE(startsWith(im_ItemRef2FName(data), home.file("store/items/")));
    EXPECT_TRUE(startsWith(im_ItemRef2FName(temp), home.file("tmp/items/")));
    // The descriptor writes into the very file the name gives.
    os_write(dataFd.get(), "abc", 3);
    EXPECT_EQ(readFileBytes(im_ItemRef2FName(data)), "abc");

    const ItemRef part{{IM_KIND_MESSAGE, 0x12, 0xAB, 3}};
    EXPECT_EQ(im_ItemRef2FName(part), home.file("store/messages/00000012000000ab/part-3"));
    const ItemRef msgfile{{IM_KIND_MESSAGE, 0x12, 0xAB, 0}};
    EXPECT_EQ(im_ItemRef2FName(msgfile), home.file("store/messages/00000012000000ab/msgfile"));

    try {
        im_ItemRef2FName(ItemRef{{9, 1, 2, 3}});
        FAIL() << "a reference of no known kind gave a name";
    } catch (const Escape& e) {
        EXPECT_EQ(e.group, ER_GROUP_STORE);
        EXPECT_EQ(e.reason, ER_STORE_BAD_REFERENCE);
    }
    EXPECT_THROW(im_CrNewItem(IM_KIND_MESSAGE, &data), Escape);
}

TEST(Items, ConcurrentProcessesNeverShareAName) {
    TestHome home;
    constexpr int kProcesses = 8;
    constexpr int kItemsEach = 150;
    for (int p = 0; p < kProcesses; ++p) {
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            // Each process writes its own mark into every item it gets: an item handed to
            // two processes would end up with two marks or a foreign one.
            const std::string mark = std::to_string(::getpid()) + ";";
            int status = 0;
            try {
                for (int i = 0; i < kItemsEach; ++i) {
                    ItemRef ref;
                    OsFd fd(im_CrNewDataItem(nullptr, &ref));
                    os_write(fd.get(), mark.data(), static_cast<int64_t>(mark.size()));
                }
            } catch (...) {
                status = 1;
            }
            ::_exit(status);
        }
    }
    for (int p = 0; p < kProcesses; ++p) {
        int status = 0;
        ::wait(&status);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    const auto names = filesIn(home.file("store/items"));
    ASSERT_EQ(names.size(), static_cast<size_t>(kProcesses * kItemsEach));
    std::set<std::string> marks;
    for (const std::string& name : names) {
        const std::string content = readFileBytes(home.file("store/items/" + name));
        ASSERT_EQ(content.find(';'), content.size() - 1) << name << " holds " << content;
        // The pid in the name is the pid that wrote it.
        EXPECT_EQ(std::stoul(name.substr(9, 8), nullptr, 16), std::stoul(content)) << name;
        marks.insert(content);
    }
    EXPECT_EQ(marks.size(), static_cast<size_t>(kProcesses));
}

namespace {

int g_takenNames = 0;
int takenOpen(const char* path, int flags, mode_t mode) {
    if ((flags & O_EXCL) && g_takenNames > 0) {
        --g_takenNames;
        errno = EEXIST;
        return -1;
    }
    return ::open(path, flags, mode);
}

}  // namespace

TEST(Items, ANameAlreadyTakenIsRetriedAndAStoreThatIsAllTakenGivesUp) {
    TestHome home;
    OsSysCalls calls = os_GetSysCalls();
    calls.open = takenOpen;
    os_SetSysCalls(&calls);

    g_takenNames = 5;
    ItemRef ref;
    OsFd fd(im_CrNewTempItem(&ref));
    EXPECT_EQ(g_takenNames, 0);
    EXPECT_EQ(filesIn(home.file("tmp/items")).size(), 1u);
    fd.close();

    const int before = openFdCount();
    g_takenNames = 1000;
    try {
        im_CrNewDataItem(nullptr, &ref);
        FAIL() << "no escape";
    } catch (const Escape& e) {
        EXPECT_EQ(e.group, ER_GROUP_IO);
        EXPECT_EQ(e.reason, EEXIST);
    }
    os_SetSysCalls(nullptr);
    EXPECT_EQ(openFdCount(), before);
    EXPECT_TRUE(filesIn(home.file("store/items")).empty());
}

TEST(Items, UnlinkRemovesOneNameAndOwnersRemoveUnlessReleased) {
    TestHome home;
    ItemRef ref;
    OsFd(im_CrNewDataItem(nullptr, &ref)).close();
    const std::string path = im_ItemRef2FName(ref);
    const std::string other = home.file("second-name");
    ASSERT_EQ(::link(path.c_str(), other.c_str()), 0);
    im_UnlinkItem(ref);
    struct stat st;
    EXPECT_NE(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(::stat(other.c_str(), &st), 0) << "the other name went too";
    EXPECT_NO_THROW(im_UnlinkItem(ref)) << "a name already gone is no error";

    ItemRef dropped, kept;
    OsFd(im_CrNewTempItem(&dropped)).close();
    OsFd(im_CrNewTempItem(&kept)).close();
    {
        ImItemOwner a(dropped);
        ImItemOwner b(kept);
        b.release();
    }
    EXPECT_NE(::stat(im_ItemRef2FName(dropped).c_str(), &st), 0);
    EXPECT_EQ(::stat(im_ItemRef2FName(kept).c_str(), &st), 0);
}

TEST(ItemFiles, ReadWholeElementsAndRefuseWhatTheyCannotOpen) {
    TestHome home;
    ItemRef ref;
    {
        OsFd fd(im_CrNewDataItem(nullptr, &ref));
        os_write(fd.get(), "0123456789", 10);
    }
    const int before = openFdCount();
    SflFile* file = sfl_fOpenItem(ref, "r");
    char buffer[16] = {};
    EXPECT_EQ(sfl_fRead(buffer, 4, 3, file), 2u) << "10 bytes hold two whole 4-byte elements";
    EXPECT_EQ(std::string(buffer, 10), "0123456789");
    EXPECT_EQ(sfl_fRead(buffer, 1, 4, file), 0u);
    sfl_fClose(file);
    EXPECT_EQ(openFdCount(), before);

    try {
        sfl_fOpenItem(ref, "a+");
        FAIL() << "an unsupported mode opened";
    } catch (const Escape& e) {
        EXPECT_EQ(e.reason, ER_STORE_BAD_ARGUMENT);
    }
    im_UnlinkItem(ref);
    try {
        sfl_fOpenItem(ref, "r");
        FAIL() << "a missing item opened";
    } catch (const Escape& e) {
        EXPECT_EQ(e.group, ER_GROUP_IO);
        EXPECT_EQ(e.reason, ENOENT);
        EXPECT_NE(std::string(e.what()).find(im_ItemRef2FName(ref)), std::string::npos);
    }

    // An owner closes the item when an escape passes.
    ItemRef other;
    OsFd(im_CrNewDataItem(nullptr, &other)).close();
    try {
        SflFileOwner owner(sfl_fOpenItem(other, "r"));
        er_TracedEscape(ER_GROUP_TNEF, ER_TNEF_TOO_LONG, "test", __LINE__);
    } catch (const Escape&) {
    }
    EXPECT_EQ(openFdCount(), before);
}
