#include <cstdlib>

#include "tnef/platform/os_file.h"

// A zero-byte request still gets a block of its own, so callers can tell it from failure.
void* os_malloc(size_t bytes) { return std::malloc(bytes != 0 ? bytes : 1); }
void* os_realloc(void* block, size_t bytes) { return std::realloc(block, bytes != 0 ? bytes : 1); }
void os_free(void* block) { std::free(block); }
void* mdc_malloc(size_t bytes) { return os_malloc(bytes); }
void* mdc_calloc(size_t count, size_t bytes) {
    return std::calloc(count != 0 ? count : 1, bytes != 0 ? bytes : 1);
}
void mdc_free(void* block) { std::free(block); }
