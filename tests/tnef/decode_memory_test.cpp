// A huge attachment is streamed from the TNEF file into its data item in fixed chunks: the
// decode's peak memory does not grow with the attachment.
#include <sys/statvfs.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "support/test_home.h"
#include "support/tnef_builder.h"
#include "tnef/platform/im_items.h"
#include "tnef/platform/msg_builder.h"
#include "tnef/platform/msg_store.h"
#include "tnef/platform/tf_msgfile.h"
#include "tnef/tnef.h"
#include "tnef_defs.h"

using namespace std::string_literals;
namespace fs = std::filesystem;

#if defined(__SANITIZE_ADDRESS__)
#define DECODE_MEMORY_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define DECODE_MEMORY_ASAN 1
#endif
#endif

namespace {

// 256 MiB shows that nothing is sized by the attachment; under AddressSanitizer every byte
// copied is checked, so a smaller one keeps the run well under a minute there.
#ifdef DECODE_MEMORY_ASAN
constexpr uint64_t kAttachmentBytes = uint64_t{64} << 20;
#else
constexpr uint64_t kAttachmentBytes = uint64_t{256} << 20;
#endif
constexpr uint64_t kChunk = uint64_t{1} << 20;
constexpr long kAllowedGrowthKiB = 16 * 1024;
constexpr uint64_t kNeededDisk = uint64_t{2} << 30;

// The attachment's bytes: each 8-byte word holds a mix of its own offset, so a chunk lost,
// doubled or moved changes the content.
void fillPattern(uint64_t offset, std::vector<char>* chunk) {
    for (size_t i = 0; i < chunk->size(); i += 8) {
        const uint64_t word = (offset + i) * 0x9E3779B97F4A7C15ull;
        std::memcpy(chunk->data() + i, &word, 8);
    }
}

// Header, subject and rendering data; attAttachData of kAttachmentBytes written a chunk at a
// time; then the attachment's properties.
void writeHugeStream(const std::string& path) {
    std::ofstream out(path, std::ios::binary);
    const std::string renddata = "\x01\x00"s + std::string(12, '\0');  // a by-value file
    const std::string head = tnefbuild::Stream()
                                 .header()
                                 .tnefVersion()
                                 .record(1, attSubject, "huge\0"s)
                                 .record(2, attAttachRenddata, renddata)
                                 .bytes();
    out.write(head.data(), static_cast<std::streamsize>(head.size()));
    std::string dataHead = tnefbuild::bytesOf({2});
    for (uint32_t v : {attAttachData, static_cast<uint32_t>(kAttachmentBytes)})
        for (int i = 0; i < 4; ++i) dataHead += static_cast<char>(v >> (8 * i));
    out.write(dataHead.data(), static_cast<std::streamsize>(dataHead.size()));
    uint16_t checksum = 0;
    std::vector<char> chunk(kChunk);
    for (uint64_t at = 0; at < kAttachmentBytes; at += kChunk) {
        fillPattern(at, &chunk);
        for (char ch : chunk) checksum = static_cast<uint16_t>(checksum + static_cast<uint8_t>(ch));
        out.write(chunk.data(), static_cast<std::streamsize>(chunk.size()));
    }
    const char sum[2] = {static_cast<char>(checksum), static_cast<char>(checksum >> 8)};
    out.write(sum, 2);
    const std::string props = tnefbuild::PropList().string8(PR_DISPLAY_NAME, "huge.bin").bytes();
    const std::string tail = tnefbuild::Stream().record(2, attAttachment, props).bytes();
    out.write(tail.data(), static_cast<std::streamsize>(tail.size()));
}

// A field of /proc/self/status in KiB, -1 when it cannot be read.
long statusKiB(const std::string& field) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.compare(0, field.size() + 1, field + ":") == 0)
            return std::stol(line.substr(field.size() + 1));
    return -1;
}

// Sets the peak resident size back to the current one.
bool resetPeak() {
    std::ofstream clear("/proc/self/clear_refs");
    clear << "5";
    clear.flush();
    return clear.good();
}

testing::AssertionResult holdsPattern(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::vector<char> expected(kChunk);
    std::vector<char> actual(kChunk);
    for (uint64_t at = 0; at < kAttachmentBytes; at += kChunk) {
        fillPattern(at, &expected);
        if (!in.read(actual.data(), static_cast<std::streamsize>(kChunk)) || actual != expected)
            return testing::AssertionFailure() << "the bytes differ in the MiB at offset " << at;
    }
    return testing::AssertionSuccess();
}

}  // namespace

TEST(DecodeMemory, HugeAttachmentStreamsInConstantMemory) {
    struct statvfs fsStat {};
    const std::string tmp = fs::temp_directory_path().string();
    if (::statvfs(tmp.c_str(), &fsStat) != 0 ||
        uint64_t{fsStat.f_bavail} * fsStat.f_frsize < kNeededDisk)
        GTEST_SKIP() << "less than 2 GiB free in " << tmp << " for the stream and its attachment";
    TestHome home;  // under the temporary folder, removed with everything in it
    const std::string path = home.file("tmp/huge.tnef");
    fs::create_directories(fs::path(path).parent_path());
    writeHugeStream(path);

    ReceivedMessage received;
    received.tnefBytes = "(the stream is passed by path)";
    int16_t messageFile = 0;
    MsgOwner message(Msg_BuildReceived(received, &messageFile));
    TfFileOwner receivedFile(messageFile);
    if (!resetPeak()) GTEST_SKIP() << "/proc/self/clear_refs cannot reset the peak resident size";
    const long baseline = statusKiB("VmHWM");
    uint16_t receipt = 0;
    uint32_t reply = 0;
    tnef_Decode(message.get(), &messageFile, path.c_str(), &receipt, &reply, 0, 0);
    const long growth = statusKiB("VmHWM") - baseline;
    TfFileOwner decodedFile(messageFile);
    ASSERT_GE(baseline, 0);
    EXPECT_LT(growth, kAllowedGrowthKiB) << "peak resident size grew by " << growth << " KiB";
    RecordProperty("attachment_mib", static_cast<int>(kAttachmentBytes >> 20));
    RecordProperty("peak_growth_kib", static_cast<int>(growth));
    std::printf("decode of a %llu MiB attachment: peak resident size grew by %ld KiB\n",
                static_cast<unsigned long long>(kAttachmentBytes >> 20), growth);

    fs::remove(path);
    ASSERT_EQ(Msg_GetPartCount(message.get()), 3u) << "body, TNEF file and the attachment";
    ItemRef ref{};
    Msg_GetAttachedFile(message.get(), &ref, 3);
    const std::string part = im_ItemRef2FName(ref);
    ASSERT_EQ(fs::file_size(part), kAttachmentBytes);
    EXPECT_TRUE(holdsPattern(part));
}
