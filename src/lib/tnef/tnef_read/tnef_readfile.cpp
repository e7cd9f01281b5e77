#include "tnef_read/tnef_readfile.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tnef/platform/er_escape.h"
#include "tnef_defs.h"
#include "tnef_propstream.h"

namespace {

[[noreturn]] void readFailed(int err) {
    er_TracedEscapeText(ER_GROUP_IO, err, TNEF_UNIT_READ, __LINE__, "reading the TNEF file failed");
}

bool readDirect(const TnefReadFile& file, uint64_t at, uint8_t* out, size_t n) {
    size_t done = 0;
    while (done < n) {
        const ssize_t got = ::pread(file.fd, out + done, n - done, static_cast<off_t>(at + done));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) readFailed(errno);
        if (got == 0) return false;  // the file shrank under us: as if it ended here
        done += static_cast<size_t>(got);
    }
    return true;
}

}  // namespace

bool tnef_ReadFileAt(TnefReadFile& file, uint64_t at, void* out, size_t n) {
    if (at > file.size || n > file.size - at) return false;
    if (at >= file.windowAt && at + n <= file.windowAt + file.windowed) {
        std::memcpy(out, file.window.data() + (at - file.windowAt), n);
        return true;
    }
    if (n > TNEF_READ_WINDOW) return readDirect(file, at, static_cast<uint8_t*>(out), n);
    if (file.window.empty()) file.window.resize(TNEF_READ_WINDOW);
    const size_t want = static_cast<size_t>(std::min<uint64_t>(TNEF_READ_WINDOW, file.size - at));
    file.windowed = 0;
    if (!readDirect(file, at, file.window.data(), want)) return false;
    file.windowAt = at;
    file.windowed = want;
    std::memcpy(out, file.window.data(), n);
    return true;
}

bool tnef_SumFileRange(TnefReadFile& file, uint64_t at, uint64_t n, uint16_t& sum) {
    if (at > file.size || n > file.size - at) return false;
    uint32_t total = 0;
    while (n > 0) {
        // Sum in place in the window, one window's worth at a time.
        uint8_t first;
        if (!tnef_ReadFileAt(file, at, &first, 1)) return false;
        const uint8_t* bytes = file.window.data() + (at - file.windowAt);
        const size_t take = static_cast<size_t>(
            std::min<uint64_t>(n, file.windowAt + file.windowed - at));
        for (size_t i = 0; i < take; ++i) total += bytes[i];
        at += take;
        n -= take;
    }
    sum = static_cast<uint16_t>(total);
    return true;
}

namespace {

struct FlagPair {
    uint32_t list;
    uint32_t read;
};

constexpr FlagPair kFlagPairs[] = {
    {TNEF_LIST_TRUNCATED, TNEF_READ_TRUNCATED},   {TNEF_LIST_TRAILING, TNEF_READ_TRAILING},
    {TNEF_LIST_BAD_CHECKSUM, TNEF_READ_BAD_CHECKSUM}, {TNEF_LIST_NO_RECORDS, TNEF_READ_NO_RECORDS},
    {TNEF_LIST_BAD_PROPS, TNEF_READ_BAD_PROPS},   {TNEF_LIST_TOO_MANY, TNEF_READ_TOO_MANY},
};

}  // namespace

uint32_t tnef_ListFlagsFromRead(uint32_t readFlags) {
    uint32_t flags = 0;
    for (const FlagPair& f : kFlagPairs)
        if (readFlags & f.read) flags |= f.list;
    return flags;
}

uint32_t tnef_ReadFlagsFromList(uint32_t listFlags) {
    uint32_t flags = 0;
    for (const FlagPair& f : kFlagPairs)
        if (listFlags & f.list) flags |= f.read;
    return flags;
}

bool TnefSpan::u32(uint32_t& out) {
    uint8_t b[4];
    if (!bytes(b, sizeof b)) return false;
    out = tnef_GetU32(b);
    return true;
}
