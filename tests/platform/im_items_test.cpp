#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <string>

#include "support/store_checks.h"
#include "support/test_home.h"
#include "tnef/platform/im_items.h"
#include "tnef/platform/os_file.h"

using namespace storecheck;

TEST(Items, ConcurrentProcessesNeverShareAName) {
    TestHome home;
    constexpr int kProcesses = 8, kItemsEach = 150;
    for (int p = 0; p < kProcesses; ++p) {
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child != 0) continue;
        // Every item gets its creator's mark: one handed to two processes gets two.
        const std::string mark = std::to_string(::getpid()) + ";";
        try {
            for (int i = 0; i < kItemsEach; ++i) {
                ItemRef ref;
                OsFd fd(im_CrNewDataItem(nullptr, &ref));
                os_write(fd.get(), mark.data(), static_cast<int64_t>(mark.size()));
            }
        } catch (...) {
            ::_exit(1);
        }
        ::_exit(0);
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
        marks.insert(content);
    }
    EXPECT_EQ(marks.size(), static_cast<size_t>(kProcesses));
}

namespace {

int g_takenNames = 0;  // the next this many O_EXCL opens find their name taken
int takenOpen(const char* path, int flags, mode_t mode) {
    if ((flags & O_EXCL) && g_takenNames > 0 && g_takenNames--) {
        errno = EEXIST;
        return -1;
    }
    return ::open(path, flags, mode);
}

}  // namespace

TEST(Items, ANameAlreadyTakenIsRetriedAndAStoreThatIsAllTakenGivesUpCleanly) {
    TestHome home;
    OsSysCalls calls = os_GetSysCalls();
    calls.open = takenOpen;
    os_SetSysCalls(&calls);
    g_takenNames = 5;
    ItemRef ref;
    OsFd(im_CrNewTempItem(&ref)).close();
    EXPECT_EQ(filesIn(home.file("tmp/items")).size(), 1u);

    const int fds = openFdCount();
    g_takenNames = 1000;
    const Escape e = escapeOf([&] { im_CrNewDataItem(nullptr, &ref); });
    os_SetSysCalls(nullptr);
    EXPECT_EQ(e.reason, EEXIST);
    EXPECT_EQ(openFdCount(), fds);
    EXPECT_TRUE(filesIn(home.file("store/items")).empty());
}

TEST(ItemFiles, ReadWholeElementsAndCloseWhenAnEscapePasses) {
    TestHome home;
    ItemRef ref;
    os_write(OsFd(im_CrNewDataItem(nullptr, &ref)).get(), "0123456789", 10);
    const int fds = openFdCount();
    escapeOf([&] {
        SflFileOwner file(sfl_fOpenItem(ref, "r"));
        char buffer[16];
        EXPECT_EQ(sfl_fRead(buffer, 4, 3, file.get()), 2u) << "10 bytes hold two 4-byte elements";
        EXPECT_EQ(sfl_fRead(buffer, 1, 4, file.get()), 0u);
        er_TracedEscape(ER_GROUP_TNEF, ER_TNEF_TOO_LONG, "test", __LINE__);
    });
    EXPECT_EQ(openFdCount(), fds);
    im_UnlinkItem(ref);
    const Escape e = escapeOf([&] { sfl_fOpenItem(ref, "r"); });
    EXPECT_EQ(e.reason, ENOENT);
    EXPECT_NE(std::string(e.what()).find(im_ItemRef2FName(ref)), std::string::npos);
}
