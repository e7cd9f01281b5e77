// Growable byte strings. A dstring may hold any byte; where the codec treats one as a C
// string it relies on the text holding no NUL, and dstring_str always ends with one.
#pragma once

#include <cstddef>
#include <string>

// Everything this header declares is part of the library's exported interface.
#pragma GCC visibility push(default)

struct dstring {
    std::string text;
};

void dstring_init(dstring* d);
void dstring_free(dstring* d);
void dstring_set1(dstring* d, const char* text);
void dstring_append1(dstring* d, const char* text);
void dstring_appendN(dstring* d, const char* bytes, size_t count);
void dstring_appendChar(dstring* d, char c);
// printf-style append.
void dstring_appendPrintf(dstring* d, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
// Truncates (or pads with NUL bytes) to length.
void dstring_setLength(dstring* d, size_t length);
inline const char* dstring_str(const dstring* d) { return d->text.c_str(); }
inline size_t dstring_length(const dstring* d) { return d->text.size(); }

#pragma GCC visibility pop
