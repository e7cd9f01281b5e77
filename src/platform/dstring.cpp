#include "tnef/platform/dstring.h"

#include <cstdarg>
#include <cstdio>

void dstring_init(dstring* d) { d->text.clear(); }

void dstring_free(dstring* d) {
    d->text.clear();
    d->text.shrink_to_fit();
}

void dstring_set1(dstring* d, const char* text) { d->text.assign(text != nullptr ? text : ""); }

void dstring_append1(dstring* d, const char* text) {
    if (text != nullptr) d->text.append(text);
}

void dstring_appendN(dstring* d, const char* bytes, size_t count) { d->text.append(bytes, count); }

void dstring_appendChar(dstring* d, char c) { d->text.push_back(c); }

void dstring_appendPrintf(dstring* d, const char* format, ...) {
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    int needed = std::vsnprintf(nullptr, 0, format, args);
    va_end(args);
    if (needed > 0) {
        size_t old = d->text.size();
        d->text.resize(old + static_cast<size_t>(needed) + 1);
        std::vsnprintf(d->text.data() + old, static_cast<size_t>(needed) + 1, format, again);
        d->text.resize(old + static_cast<size_t>(needed));
    }
    va_end(again);
}

void dstring_setLength(dstring* d, size_t length) { d->text.resize(length); }
