#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "support/store_checks.h"
#include "support/test_home.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/os_file.h"

namespace {

constexpr int64_t kBig = 70000;  // above the buffer size: such transfers bypass it

// One file and two descriptors on it, driven by the same operations as its twin.
struct Side {
    std::string path;
    std::array<int, 2> fds{-1, -1};
    std::optional<OsIoBatch> batch;  // set on the buffered side only
};

std::string outcome(int64_t result) {
    return std::to_string(result);
}

template <typename F>
std::string guarded(F work) {
    try {
        return work();
    } catch (const Escape& e) {
        return "escape " + std::to_string(e.group) + "/" + std::to_string(e.reason);
    }
}

int64_t pickCount(std::mt19937& rng) {
    static constexpr int64_t kCounts[] = {0, 1, 2, 4, 4, 9, 17, 100, 4000, 65535, kBig};
    return kCounts[rng() % std::size(kCounts)];
}

int64_t pickOffset(std::mt19937& rng) {
    switch (rng() % 4) {
        case 0:
            return static_cast<int64_t>(rng() % 200000);
        case 1:
            return static_cast<int64_t>(rng() % 64) - 32;
        case 2:
            return -static_cast<int64_t>(rng() % 300000);
        default:
            return static_cast<int64_t>(rng() % 16);
    }
}

// Runs one random step on a side (op below 40, reopening the rarest); the text tells what
// it returned.
std::string step(Side& s, uint32_t op, uint64_t arg, int64_t count, int64_t offset, int whence) {
    const int fd = s.fds[arg % 2];
    std::string buffer(static_cast<size_t>(count), '\0');
    if (op < 14) {
        const int64_t n =
            op < 3 ? mdc_read(fd, buffer.data(), count) : os_read(fd, buffer.data(), count);
        return outcome(n) + ":" + buffer.substr(0, n > 0 ? static_cast<size_t>(n) : 0);
    }
    if (op < 26) {
        for (int64_t i = 0; i < count; ++i)
            buffer[static_cast<size_t>(i)] = static_cast<char>('a' + (arg + i) % 26);
        return outcome(op < 24 ? os_write(fd, buffer.data(), count)
                               : mdc_write(fd, buffer.data(), count));
    }
    const auto low = static_cast<uint32_t>(offset);
    const auto high = static_cast<int32_t>(offset >> 32);
    if (op < 35) return outcome(os_lseek(fd, low, high, whence));
    if (op < 37) return outcome(mdc_lseek(fd, low, high, whence));
    if (op < 39) return outcome(os_fsize(fd));
    // Close and open again: the number is reused, the position starts over.
    os_close(fd);
    s.fds[arg % 2] = -1;
    static constexpr int kFlags[] = {O_RDWR,   O_RDWR,   O_RDWR | O_TRUNC,
                                     O_RDONLY, O_WRONLY, O_RDWR | O_APPEND};
    s.fds[arg % 2] = os_open(s.path.c_str(), kFlags[arg / 2 % std::size(kFlags)], 0);
    return "reopened";
}

// What a caller sees between library calls: the kernel's offsets and the file's bytes.
std::string kernelView(const Side& s) {
    std::string view;
    for (int fd : s.fds) view += std::to_string(::lseek(fd, 0, SEEK_CUR)) + " ";
    return view + readFileBytes(s.path);
}

// The seed's random sequence on a fresh file, inside batches or not: every result, and what
// the kernel holds each time a batch has ended (or would have).
std::vector<std::string> runSequence(const std::string& path, uint32_t seed, bool batched) {
    Side s{path, {}, {}};
    for (int& fd : s.fds) fd = os_open(path.c_str(), O_RDWR | O_CREAT, 0600);
    if (batched) s.batch.emplace();
    std::vector<std::string> log;
    std::mt19937 rng(seed);
    for (int i = 0; i < 300; ++i) {
        const uint32_t op = rng() % 40;
        const uint64_t arg = rng();
        const int64_t count = pickCount(rng);
        const int64_t offset = pickOffset(rng);
        const int whence = static_cast<int>(rng() % 3);
        log.push_back(std::to_string(i) + ": " +
                      guarded([&] { return step(s, op, arg, count, offset, whence); }));
        // Now and then the library call ends, and the caller looks and moves on its own.
        if (rng() % 40 == 0 || i == 299) {
            if (batched) s.batch->end();
            log.push_back(kernelView(s));
            const off_t to = static_cast<off_t>(rng() % 5000);
            ::lseek(s.fds[0], to, SEEK_SET);
            if (batched) s.batch.emplace();
        }
    }
    if (batched) s.batch->end();
    for (int fd : s.fds) os_close(fd);
    return log;
}

}  // namespace

TEST(OsBuffer, BatchedCallsBehaveExactlyAsUnbufferedOnesForRandomMixes) {
    TestHome home;
    // Small buffers put the window edges under the small transfers too.
    static constexpr int64_t kSizes[] = {64 * 1024, 7, 100};
    for (uint32_t seed = 1; seed <= 150; ++seed) {
        const int64_t size = kSizes[seed % std::size(kSizes)];
        const std::vector<std::string> plain = runSequence(home.file("plain"), seed, false);
        os_SetIoBufferSize(size);
        const std::vector<std::string> batched = runSequence(home.file("batched"), seed, true);
        os_SetIoBufferSize(-1);
        EXPECT_EQ(os_IoBufferBytes(), 0);
        ASSERT_EQ(plain.size(), batched.size());
        for (size_t i = 0; i < plain.size(); ++i)
            ASSERT_EQ(batched[i], plain[i]) << "seed " << seed << ", buffers of " << size;
        ::unlink(home.file("plain").c_str());
        ::unlink(home.file("batched").c_str());
    }
}

TEST(OsBuffer, AfterABatchTheKernelHoldsWhatUnbufferedCallsWouldHaveLeft) {
    TestHome home;
    home.write("tmp/in", "0123456789");
    const int in = os_open("~/tmp/in", O_RDONLY, 0);
    const int out = os_open("~/tmp/out", O_RDWR | O_CREAT, 0600);
    int pipeEnds[2];
    ASSERT_EQ(::pipe(pipeEnds), 0);
    {
        OsIoBatch batch;
        char field[3];
        EXPECT_EQ(os_read(in, field, 3), 3);
        EXPECT_EQ(os_write(out, "abcdef", 6), 6);
        EXPECT_EQ(os_lseek64(out, 2, SEEK_SET), 2);
        EXPECT_EQ(os_write(out, "XY", 2), 2);
        EXPECT_GT(os_IoBufferBytes(), 0);
        // A pipe is not buffered: the other end has the bytes at once.
        EXPECT_EQ(os_write(pipeEnds[1], "p", 1), 1);
        EXPECT_EQ(::read(pipeEnds[0], field, 1), 1);
        // Positions beyond 2 GiB are checked by the kernel and kept.
        EXPECT_EQ(os_lseek64(in, int64_t{3} << 30, SEEK_SET), int64_t{3} << 30);
        EXPECT_EQ(os_read(in, field, 3), 0);
        EXPECT_EQ(os_lseek64(in, 3, SEEK_SET), 3);
    }
    char rest[16] = {};
    EXPECT_EQ(::read(in, rest, sizeof rest), 7);
    EXPECT_STREQ(rest, "3456789");
    EXPECT_EQ(::lseek(out, 0, SEEK_CUR), 4);
    EXPECT_EQ(home.read("tmp/out"), "abXYef");
    for (int fd : {in, out, pipeEnds[0], pipeEnds[1]}) os_close(fd);
}

TEST(OsBuffer, AFileWrittenInABatchIsCompleteWheneverItIsSeenByName) {
    TestHome home;
    OsIoBatch batch;
    OsFd writer(os_open("~/tmp/item", O_RDWR | O_CREAT | O_TRUNC, 0600));
    EXPECT_EQ(os_write(writer.get(), "hello", 5), 5);
    EXPECT_TRUE(os_fexists("~/tmp/item"));
    EXPECT_EQ(home.read("tmp/item"), "hello");
    EXPECT_EQ(os_write(writer.get(), " world", 6), 6);
    OsFd reader(os_open("~/tmp/item", O_RDONLY, 0));
    EXPECT_EQ(home.read("tmp/item"), "hello world");
    EXPECT_EQ(os_fsize(reader.get()), 11);
    batch.end();
}

TEST(OsBuffer, AnEscapeUnwindingABatchWritesItsBytesAndLeavesNothingBuffered) {
    TestHome home;
    const int fd = os_open("~/tmp/f", O_RDWR | O_CREAT, 0600);
    try {
        OsIoBatch outer;
        OsIoBatch inner;
        EXPECT_EQ(os_write(fd, "abc", 3), 3);
        inner.end();
        EXPECT_TRUE(os_InIoBatch()) << "only the outermost batch ends the buffering";
        EXPECT_EQ(home.read("tmp/f"), "");
        EXPECT_EQ(os_lseek64(fd, 1, SEEK_SET), 1);
        er_TracedEscape(ER_GROUP_TNEF, ER_TNEF_TOO_LONG, "test", __LINE__);
    } catch (const Escape& e) {
        EXPECT_EQ(e.reason, ER_TNEF_TOO_LONG);
    }
    EXPECT_FALSE(os_InIoBatch());
    EXPECT_EQ(os_IoBufferBytes(), 0);
    EXPECT_EQ(home.read("tmp/f"), "abc");
    EXPECT_EQ(::lseek(fd, 0, SEEK_CUR), 1);
    os_close(fd);
}

TEST(OsBuffer, AWriteThatFailsLaterStillRaisesNamingTheFileUnlessAnotherEscapeWins) {
    TestHome home;
    const std::string path = home.file("tmp/full");
    const auto expectFull = [&](const Escape& e) {
        EXPECT_EQ(e.group, ER_GROUP_IO);
        EXPECT_EQ(e.reason, ENOSPC);
        EXPECT_NE(std::string(e.what()).find(path), std::string::npos) << e.what();
    };
    storecheck::FailingWrites full(1);

    // At the close; for a descriptor its owner closes quietly, at the end of the batch.
    expectFull(storecheck::escapeOf([&] {
        OsIoBatch batch;
        const int fd = os_open(path.c_str(), O_WRONLY | O_CREAT, 0600);
        EXPECT_EQ(os_write(fd, "abc", 3), 3);
        os_close(fd);
    }));
    const int kept = os_open(path.c_str(), O_WRONLY, 0);
    expectFull(storecheck::escapeOf([&] {
        OsIoBatch batch;
        OsFd fd(os_open(path.c_str(), O_WRONLY, 0));
        EXPECT_EQ(os_write(fd.get(), "abc", 3), 3);
    }));
    EXPECT_FALSE(os_InIoBatch());

    // An escape already on its way is the one the caller gets.
    const Escape e = storecheck::escapeOf([&] {
        OsIoBatch batch;
        EXPECT_EQ(os_write(kept, "abc", 3), 3);
        er_TracedEscape(ER_GROUP_TNEF, ER_TNEF_BAD_SIGNATURE, "test", __LINE__);
    });
    EXPECT_EQ(e.reason, ER_TNEF_BAD_SIGNATURE);
    EXPECT_FALSE(os_InIoBatch());
    os_close(kept);
}

namespace {

int g_calls = 0;
const OsSysCalls* g_real = nullptr;

OsSysCalls countingCalls() {
    static OsSysCalls real = os_GetSysCalls();
    g_real = &real;
    OsSysCalls calls = real;
    calls.read = [](int fd, void* b, size_t n) { return ++g_calls, g_real->read(fd, b, n); };
    calls.write = [](int fd, const void* b, size_t n) {
        return ++g_calls, g_real->write(fd, b, n);
    };
    calls.lseek = [](int fd, off_t o, int w) { return ++g_calls, g_real->lseek(fd, o, w); };
    return calls;
}

// Writes then reads back a stream of records field by field, as the codec does.
void fieldByField(int fd) {
    const uint8_t level = 1;
    const uint32_t id = 0x00069003, length = 16;
    const char data[16] = "0123456789abcde";
    const uint16_t checksum = 7;
    for (int i = 0; i < 400; ++i) {
        os_write(fd, &level, 1);
        os_write(fd, &id, 4);
        os_write(fd, &length, 4);
        os_write(fd, data, length);
        os_write(fd, &checksum, 2);
    }
    os_lseek64(fd, 0, SEEK_SET);
    uint8_t l;
    uint32_t v;
    for (int i = 0; i < 400; ++i) {
        os_read(fd, &l, 1);
        os_read(fd, &v, 4);
        os_read(fd, &v, 4);
        os_lseek64(fd, v, SEEK_CUR);
        os_read(fd, &v, 2);
    }
}

}  // namespace

TEST(OsBuffer, FieldByFieldStreamsNeedAFractionOfTheSystemCalls) {
    TestHome home;
    const OsSysCalls calls = countingCalls();
    os_SetSysCalls(&calls);
    OsFd plain(os_open("~/tmp/plain", O_RDWR | O_CREAT, 0600));
    OsFd batched(os_open("~/tmp/batched", O_RDWR | O_CREAT, 0600));
    g_calls = 0;
    fieldByField(plain.get());
    const int unbuffered = g_calls;
    g_calls = 0;
    {
        OsIoBatch batch;
        fieldByField(batched.get());
    }
    const int buffered = g_calls;
    os_SetSysCalls(nullptr);
    EXPECT_EQ(home.read("tmp/batched"), home.read("tmp/plain"));
    RecordProperty("unbuffered", unbuffered);
    RecordProperty("buffered", buffered);
    EXPECT_LE(buffered * 10, unbuffered) << buffered << " against " << unbuffered;
}
