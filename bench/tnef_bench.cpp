// Google Benchmark cases for the codec's entries, on the shared corpus and on generated streams.
//
//   build/bench/bench/tnef_bench [--benchmark_filter=Decode]
//
// Inputs are written once per process into a scratch server home under $TMPDIR; the large
// generated streams are written in chunks, never held in memory. Figures: bytes per second
// of input, and items (files) per second for the corpus cases.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "support/test_home.h"
#include "support/tnef_builder.h"
#include "tnef/platform/er_escape.h"
#include "tnef/platform/mp_stored.h"
#include "tnef/platform/msg_builder.h"
#include "tnef/platform/msg_store.h"
#include "tnef/platform/os_file.h"
#include "tnef/platform/tf_msgfile.h"
#include "tnef/tnef.h"
#include "tnef/tnef_body.h"
#include "tnef/tnef_reader.h"

namespace fs = std::filesystem;
using namespace tnefbuild;
using namespace std::string_literals;

namespace {

// The scratch home of the whole run.
const std::string& home() {
    static const std::string path = [] {
        std::string pattern = (fs::temp_directory_path() / "tnef-bench-XXXXXX").string();
        const char* made = ::mkdtemp(pattern.data());
        if (made == nullptr) std::abort();
        os_SetHome(made);
        std::atexit([] {
            std::error_code ec;
            fs::remove_all(os_GetHome(), ec);
        });
        return std::string(made);
    }();
    return path;
}

const std::string kRend = "\x01\0"s + std::string(12, '\0');

// One record whose data is `size` bytes of a repeating pattern, streamed to out.
void streamRecord(std::ofstream& out, uint8_t level, uint32_t id, uint64_t size) {
    std::array<char, 9> head{};
    head[0] = static_cast<char>(level);
    std::memcpy(head.data() + 1, &id, 4);
    const auto length = static_cast<uint32_t>(size);
    std::memcpy(head.data() + 5, &length, 4);
    out.write(head.data(), head.size());
    std::vector<char> chunk(1 << 20);
    for (size_t i = 0; i < chunk.size(); ++i) chunk[i] = static_cast<char>(i * 131 + 7);
    uint16_t sum = 0;
    for (uint64_t left = size; left > 0;) {
        const size_t n = static_cast<size_t>(std::min<uint64_t>(left, chunk.size()));
        for (size_t i = 0; i < n; ++i) sum = static_cast<uint16_t>(sum + static_cast<uint8_t>(chunk[i]));
        out.write(chunk.data(), static_cast<std::streamsize>(n));
        left -= n;
    }
    out.write(reinterpret_cast<const char*>(&sum), 2);
}

std::string bigAttachment(uint64_t size) {
    const std::string path = home() + "/gen-attach-" + std::to_string(size >> 20) + "MiB.tnef";
    if (fs::exists(path)) return path;
    std::ofstream out(path, std::ios::binary);
    Stream head;
    head.header().tnefVersion().record(1, 0x00018004, "big\0"s);
    head.record(2, 0x00069002, kRend).record(2, 0x00018010, "big.bin\0"s);
    out << head.bytes();
    streamRecord(out, 2, 0x0006800F, size);
    Stream tail;
    tail.record(2, 0x00069005, PropList().string8(0x3707001E, "big.bin").bytes());
    out << tail.bytes();
    return path;
}

std::string manyProperties(int count) {
    const std::string path = home() + "/gen-props-" + std::to_string(count) + ".tnef";
    if (fs::exists(path)) return path;
    PropList props;
    for (int i = 0; i < count; ++i) {
        if (i % 2 == 0) props.long32(0x66000003 + (static_cast<uint32_t>(i % 0x100) << 16), i);
        else props.string8(0x6700001E + (static_cast<uint32_t>(i % 0x100) << 16), "value " + std::to_string(i));
    }
    Stream s;
    s.header().tnefVersion().record(1, 0x00069003, props.bytes());
    writeFile(path, s.bytes());
    return path;
}

std::string manyAttachments(int count) {
    const std::string path = home() + "/gen-attachments-" + std::to_string(count) + ".tnef";
    if (fs::exists(path)) return path;
    Stream s;
    s.header().tnefVersion().record(1, 0x00018004, "many\0"s);
    for (int i = 0; i < count; ++i) {
        const std::string name = "file-" + std::to_string(i) + ".txt";
        s.record(2, 0x00069002, kRend).record(2, 0x00018010, name + '\0');
        s.record(2, 0x0006800F, std::string(1000, static_cast<char>('a' + i % 26)));
        s.record(2, 0x00069005, PropList().string8(0x3707001E, name).bytes());
    }
    writeFile(path, s.bytes());
    return path;
}

std::string nestedMessage(int depth) {
    const std::string path = home() + "/gen-nested-" + std::to_string(depth) + ".tnef";
    if (fs::exists(path)) return path;
    const Guid iid{0x0B, 0x03, 0x02, 0, 0, 0, 0, 0, 0xC0, 0, 0, 0, 0, 0, 0, 0x46};
    Stream inner;
    inner.header().tnefVersion().record(1, 0x00018004, "level 0\0"s);
    inner.record(2, 0x00069002, kRend).record(2, 0x0006800F, "leaf data");
    std::string bytes = inner.bytes();
    for (int level = 1; level < depth; ++level) {
        Stream s;
        s.header().tnefVersion().record(1, 0x00018004, "level " + std::to_string(level) + '\0');
        s.record(2, 0x00069002, kRend);
        s.record(2, 0x00069005, PropList().object(0x3701000D, iid, bytes).bytes());
        bytes = s.bytes();
    }
    writeFile(path, bytes);
    return path;
}

std::vector<std::string> corpusFiles() {
    std::vector<std::string> out;
    const std::string dir = corpusDir();
    if (dir.empty()) return out;
    for (const auto& e : fs::directory_iterator(dir + "/files")) out.push_back(e.path().string());
    std::sort(out.begin(), out.end());
    return out;
}

// ---- The operations, one input each --------------------------------------------------------

// Decodes path as a received message and keeps the message (for the encode cases).
struct DecodedMessage {
    int16_t message = -1;
    int16_t messageFile = -1;
};

// Removes the items no message links any more, so repeated decodes do not fill the disk.
void sweepItems() {
    for (const char* dir : {"/store/items", "/store/objects", "/tmp/items"}) {
        std::error_code ec;
        for (auto it = fs::recursive_directory_iterator(home() + dir, ec);
             !ec && it != fs::recursive_directory_iterator(); ++it) {
            struct stat st {};
            if (it->is_regular_file() && ::stat(it->path().c_str(), &st) == 0 && st.st_nlink == 1)
                fs::remove(it->path(), ec);
        }
    }
}

DecodedMessage decodeFile(const std::string& path, bool keep) {
    ReceivedMessage received;
    received.tnefPath = path;
    DecodedMessage d;
    d.message = Msg_BuildReceived(received, &d.messageFile);
    const int16_t receivedFile = d.messageFile;
    uint16_t receipt = 0;
    uint32_t reply = 0;
    try {
        tnef_Decode(d.message, &d.messageFile, path.c_str(), &receipt, &reply, 0, 0);
        Msg_Save(d.message, d.messageFile);
    } catch (const Escape&) {
    }
    if (d.messageFile != receivedFile) tf_CloseFile(receivedFile);
    if (!keep) {
        tf_CloseFile(d.messageFile);
        Msg_Delete(d.message);
        sweepItems();
        d = {};
    }
    return d;
}

void getAll(const std::string& path) {
    OsFd fd(os_open(path.c_str(), O_RDONLY, 0));
    char* props = nullptr;
    char* recips = nullptr;
    char* attach = nullptr;
    try {
        tnef_GetProp(fd.get(), "GET-ALL", &props, &recips, &attach, path.c_str());
    } catch (const Escape&) {
    }
    std::free(props);
    std::free(recips);
    std::free(attach);
}

// The reader's whole view of a file: records, every property typed, recipients, attachments.
void readView(const std::string& path) {
    OsFd fd(os_open(path.c_str(), O_RDONLY, 0));
    TnefMessageView view;
    try {
        tnef_ReadMessage(fd.get(), &view);
    } catch (const Escape&) {
    }
    benchmark::DoNotOptimize(view.properties.data());
}

// The raw cursor: every record, and every property and value of the lists, nothing kept.
void walkCursor(const std::string& path) {
    OsFd fd(os_open(path.c_str(), O_RDONLY, 0));
    try {
        TnefRecordCursor rc;
        tnef_OpenRecords(&rc, fd.get());
        TnefRecord r;
        uint64_t values = 0;
        while (tnef_NextRecord(&rc, &r)) {
            TnefPropCursor pc;
            if ((r.id != 0x00069003 && r.id != 0x00069005) || !tnef_OpenProps(&pc, &rc, &r)) continue;
            TnefProp p;
            TnefValue v;
            while (tnef_NextProp(&pc, &p))
                while (tnef_NextValue(&pc, &v)) ++values;
        }
        benchmark::DoNotOptimize(values);
    } catch (const Escape&) {
    }
}

void listAttachments(const std::string& path) {
    OsFd fd(os_open(path.c_str(), O_RDONLY, 0));
    TnefAttachList list;
    try {
        tnef_ListAttachments(fd.get(), &list);
    } catch (const Escape&) {
    }
    benchmark::DoNotOptimize(list.attachments.data());
}

void scan(const std::string& path) {
    OsFd fd(os_open(path.c_str(), O_RDONLY, 0));
    TnefAttachScan* list = nullptr;
    try {
        tnef_ScanTnef(fd.get(), 0x3701000D, &list);
    } catch (const Escape&) {
    }
    tnef_FreeScanList(&list);
}

struct Blobs {
    std::string props, attach, recips;
};

Blobs blobsOf(const std::string& path) {
    OsFd fd(os_open(path.c_str(), O_RDONLY, 0));
    char* props = nullptr;
    char* recips = nullptr;
    char* attach = nullptr;
    Blobs b;
    try {
        tnef_GetProp(fd.get(), "GET-ALL", &props, &recips, &attach, path.c_str());
        b = {props ? props : "", attach ? attach : "", recips ? recips : ""};
    } catch (const Escape&) {
    }
    std::free(props);
    std::free(recips);
    std::free(attach);
    return b;
}

void writeBlobs(const Blobs& b) {
    const std::string out = home() + "/blob-out.tnef";
    OsFd fd(os_open(out.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600));
    tnef_WriteBrenvoProps2ObjectFile(fd.get(), -1, b.props.c_str(),
                                     b.attach.empty() ? nullptr : b.attach.c_str(),
                                     b.recips.empty() ? nullptr : b.recips.c_str());
}

void encode(const DecodedMessage& d) {
    const std::string out = home() + "/encode-out.tnef";
    OsFd fd(os_open(out.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600));
    uint32_t word = 0;
    try {
        tnef_Encode(d.messageFile, fd.get(), 0, &word, d.message);
    } catch (const Escape&) {
    }
}

// ---- Registration --------------------------------------------------------------------------

int64_t sizeOf(const std::vector<std::string>& paths) {
    int64_t n = 0;
    for (const auto& p : paths) n += static_cast<int64_t>(fs::file_size(p));
    return n;
}

template <class Op>
void overFiles(benchmark::State& state, const std::vector<std::string>& paths, Op op) {
    if (paths.empty()) {
        state.SkipWithError("no input (the shared corpus is not beside this checkout)");
        return;
    }
    for (auto _ : state)
        for (const auto& p : paths) op(p);
    state.SetBytesProcessed(state.iterations() * sizeOf(paths));
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(paths.size()));
}

std::map<std::string, std::vector<std::string>> inputs() {
    home();
    return {{"corpus", corpusFiles()},
            {"attach1MiB", {bigAttachment(1ull << 20)}},
            {"attach64MiB", {bigAttachment(64ull << 20)}},
            {"attach256MiB", {bigAttachment(256ull << 20)}},
            {"props10000", {manyProperties(10000)}},
            {"attachments1000", {manyAttachments(1000)}},
            {"nested10", {nestedMessage(10)}}};
}

void registerAll() {
    for (const auto& [name, paths] : inputs()) {
        benchmark::RegisterBenchmark(("Decode/" + name).c_str(), [paths = paths](benchmark::State& s) {
            overFiles(s, paths, [](const std::string& p) { decodeFile(p, false); });
        })->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark(("GetPropAll/" + name).c_str(), [paths = paths](benchmark::State& s) {
            overFiles(s, paths, getAll);
        })->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark(("Scan/" + name).c_str(), [paths = paths](benchmark::State& s) {
            overFiles(s, paths, scan);
        })->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark(("ReadMessage/" + name).c_str(), [paths = paths](benchmark::State& s) {
            overFiles(s, paths, readView);
        })->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark(("Cursor/" + name).c_str(), [paths = paths](benchmark::State& s) {
            overFiles(s, paths, walkCursor);
        })->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark(("ListAttachments/" + name).c_str(), [paths = paths](benchmark::State& s) {
            overFiles(s, paths, listAttachments);
        })->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark(("WriteBlob/" + name).c_str(), [paths = paths](benchmark::State& s) {
            std::vector<Blobs> blobs;
            for (const auto& p : paths) blobs.push_back(blobsOf(p));
            for (auto _ : s)
                for (const auto& b : blobs) writeBlobs(b);
            s.SetItemsProcessed(s.iterations() * static_cast<int64_t>(blobs.size()));
        })->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark(("Encode/" + name).c_str(), [paths = paths](benchmark::State& s) {
            std::vector<DecodedMessage> messages;
            for (const auto& p : paths) messages.push_back(decodeFile(p, true));
            for (auto _ : s)
                for (const auto& d : messages)
                    if (d.message >= 0) encode(d);
            s.SetBytesProcessed(s.iterations() * sizeOf(paths));
            s.SetItemsProcessed(s.iterations() * static_cast<int64_t>(messages.size()));
            for (const auto& d : messages) {
                if (d.message < 0) continue;
                tf_CloseFile(d.messageFile);
                Msg_Delete(d.message);
            }
        })->Unit(benchmark::kMillisecond);
    }
}

}  // namespace

// Bodies: a generated 64 MiB encapsulated-HTML RTF, compressed once; decompression is
// measured in output bytes, de-encapsulation in RTF bytes read.
const std::string& bigRtf() {
    static const std::string rtf = [] {
        std::string r = "{\\rtf1\\ansi\\ansicpg1252\\fromhtml1 {\\fonttbl{\\f0 Arial;}}";
        for (int i = 0; r.size() < (64u << 20); ++i)
            r += "{\\*\\htmltag <p class=x>}\\htmlrtf {\\f0 \\htmlrtf0 Line " + std::to_string(i) +
                 " of the report, caf\\'e9 \\u8364? and more text.}{\\*\\htmltag </p>\\par}\\par\r\n";
        return r + "}";
    }();
    return rtf;
}

void registerBodies() {
    benchmark::RegisterBenchmark("RtfDecompress/64MiB", [](benchmark::State& s) {
        const std::string packed = tnef_CompressRtf(bigRtf());
        std::string out;
        for (auto _ : s) {
            uint32_t flags = 0;
            tnef_DecompressRtf(packed.data(), packed.size(), &out, &flags);
        }
        s.SetBytesProcessed(s.iterations() * static_cast<int64_t>(bigRtf().size()));
    })->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("RtfDeencapsulate/64MiB", [](benchmark::State& s) {
        for (auto _ : s) benchmark::DoNotOptimize(tnef_DeencapsulateRtf(bigRtf()).text.size());
        s.SetBytesProcessed(s.iterations() * static_cast<int64_t>(bigRtf().size()));
    })->Unit(benchmark::kMillisecond);
}

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    registerAll();
    registerBodies();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
