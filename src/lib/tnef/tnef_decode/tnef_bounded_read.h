// The one way the decoder reads attribute data into a fixed buffer.
#pragma once

#include <cstdint>

// Reads length bytes from fd into buffer after checking length against capacity: a length
// above the capacity raises 102/1546 before any byte is read. Returns what the read
// returned (fewer bytes at the end of the stream).
int64_t tnef_ReadBounded(int fd, void* buffer, uint32_t length, uint32_t capacity);
