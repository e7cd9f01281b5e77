// The file under every cursor of the reader: positioned reads through one read-ahead
// window, so that a walk over many small records costs few system calls.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "tnef/tnef_reader.h"

struct TnefReadFile {
    int fd = -1;
    uint64_t size = 0;  // taken once at open: the file must not change while it is read
    std::vector<uint8_t> window;
    uint64_t windowAt = 0;
    size_t windowed = 0;
};

inline constexpr size_t TNEF_READ_WINDOW = 64 * 1024;

// Copies [at, at + n) into out. False when the range is not inside the file (or the file
// shrank under us); escapes 100/errno when a read fails.
bool tnef_ReadFileAt(TnefReadFile& file, uint64_t at, void* out, size_t n);

// The 16-bit sum of [at, at + n), read in window-sized pieces; false when the range is not
// inside the file.
bool tnef_SumFileRange(TnefReadFile& file, uint64_t at, uint64_t n, uint16_t& sum);

// A bounded view of [pos, end) of the file: no read passes end.
struct TnefSpan {
    TnefReadFile* file;
    uint64_t pos;
    uint64_t end;

    uint64_t at() const { return pos; }
    uint64_t left() const { return end - pos; }
    bool bytes(void* out, size_t n) {
        if (n > left() || !tnef_ReadFileAt(*file, pos, out, n)) return false;
        pos += n;
        return true;
    }
    bool u32(uint32_t& out);
    bool skip(uint64_t n) {
        if (n > left()) return false;
        pos += n;
        return true;
    }
};

// The listing's flags and the reader's name the same damage with different bits (the
// listing's are older and public): one table translates both ways.
uint32_t tnef_ListFlagsFromRead(uint32_t readFlags);
uint32_t tnef_ReadFlagsFromList(uint32_t listFlags);
