// The body unit's one positioned read of a file.
#pragma once

#include <cstddef>
#include <cstdint>

// Reads up to n bytes at offset (fewer at the end of the file); escapes 100/errno when a
// read fails.
size_t tnef_BodyReadAt(int fd, uint64_t offset, void* out, size_t n);
