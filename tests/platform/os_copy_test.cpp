#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <optional>
#include <string>

#include "support/test_home.h"
#include "tnef/platform/os_file.h"

namespace {

std::string pattern(size_t n) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>(i * 131 + 7);
    return s;
}

// Copies the middle of a file after a pending write and a read-ahead, inside a batch or not,
// small or large (kernel copy), and checks bytes and both positions.
void copyMiddle(const TestHome& home, bool batch, size_t size) {
    const std::string source = pattern(size + 100);
    home.write("tmp/in", source);
    OsFd in(os_open(home.file("tmp/in").c_str(), O_RDONLY, 0));
    OsFd out(os_open(home.file("tmp/out").c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600));
    {
        std::optional<OsIoBatch> io;
        if (batch) io.emplace();
        char head[10];
        ASSERT_EQ(os_read(in.get(), head, 10), 10);
        ASSERT_EQ(os_write(out.get(), "prefix", 6), 6);
        EXPECT_EQ(os_CopyRange(in.get(), out.get(), static_cast<int64_t>(size)), static_cast<int64_t>(size));
        EXPECT_EQ(os_lseek64(in.get(), 0, SEEK_CUR), static_cast<int64_t>(10 + size));
        EXPECT_EQ(os_lseek64(out.get(), 0, SEEK_CUR), static_cast<int64_t>(6 + size));
        ASSERT_EQ(os_write(out.get(), "!", 1), 1);
        // Asking for more than is left copies what is there.
        EXPECT_EQ(os_CopyRange(in.get(), out.get(), 1000), 90);
    }
    EXPECT_EQ(::lseek(in.get(), 0, SEEK_CUR), static_cast<off_t>(size + 100));
    in.close();
    out.close();
    EXPECT_EQ(home.read("tmp/out"), "prefix" + source.substr(10, size) + "!" + source.substr(10 + size));
}

TEST(CopyRange, MovesBytesAndPositionsInAndOutOfBatches) {
    TestHome home;
    for (bool batch : {false, true})
        for (size_t size : {size_t{100}, size_t{300000}}) {
            SCOPED_TRACE(std::to_string(batch) + "/" + std::to_string(size));
            copyMiddle(home, batch, size);
        }
}

TEST(CopyRange, ReplacedSystemCallsSeeEveryByte) {
    TestHome home;
    static int64_t readBytes = 0;
    OsSysCalls calls = os_GetSysCalls();
    calls.read = [](int fd, void* b, size_t n) {
        const ssize_t got = ::read(fd, b, n);
        if (got > 0) readBytes += got;
        return got;
    };
    os_SetSysCalls(&calls);
    copyMiddle(home, false, 300000);
    os_SetSysCalls(nullptr);
    EXPECT_GE(readBytes, 300000);
}

}  // namespace
