#include <cctype>
#include <cstring>

#include "tnef/platform/os_file.h"

char* os_ul2str(uint32_t value, int base, int lowerCase, char* text, int* lengthOut) {
    if (base < 2 || base > 36) base = 10;
    const char* digits = lowerCase ? "0123456789abcdefghijklmnopqrstuvwxyz"
                                   : "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";
    char reversed[33];
    int n = 0;
    do {
        reversed[n++] = digits[value % static_cast<uint32_t>(base)];
        value /= static_cast<uint32_t>(base);
    } while (value != 0);
    for (int i = 0; i < n; ++i) text[i] = reversed[n - 1 - i];
    text[n] = '\0';
    if (lengthOut != nullptr) *lengthOut = n;
    return text;
}

char* mdc_ul2str(uint32_t value, int base, int lowerCase, char* text, int* lengthOut) {
    return os_ul2str(value, base, lowerCase, text, lengthOut);
}

namespace {

int digitValue(unsigned char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'z') return c - 'a' + 10;
    if (c >= 'A' && c <= 'Z') return c - 'A' + 10;
    return 99;
}

// Parses as strtoul does, limited to 32 bits; digitsRead tells whether any digit was seen.
uint32_t parseUnsigned(const char* text, char** end, int base, bool* digitsRead) {
    const auto* p = reinterpret_cast<const unsigned char*>(text);
    while (std::isspace(*p)) ++p;
    bool negative = false;
    if (*p == '+' || *p == '-') negative = *p++ == '-';
    if ((base == 0 || base == 16) && p[0] == '0' && (p[1] == 'x' || p[1] == 'X') &&
        digitValue(p[2]) < 16) {
        p += 2;
        base = 16;
    } else if (base == 0) {
        base = p[0] == '0' ? 8 : 10;
    }
    uint64_t value = 0;
    bool any = false;
    bool overflow = false;
    for (; digitValue(*p) < base; ++p) {
        any = true;
        value = value * static_cast<uint64_t>(base) + static_cast<uint64_t>(digitValue(*p));
        if (value > 0xFFFFFFFFull) {
            overflow = true;
            value = 0xFFFFFFFFull;
        }
    }
    if (end != nullptr)
        *end = const_cast<char*>(any ? reinterpret_cast<const char*>(p) : text);
    if (digitsRead != nullptr) *digitsRead = any;
    auto result = static_cast<uint32_t>(value);
    if (negative && !overflow) result = static_cast<uint32_t>(0u - result);
    return result;
}

}  // namespace

uint32_t mdc_strtoul(const char* text, char** end, int base) {
    return parseUnsigned(text, end, base, nullptr);
}

uint32_t os_str2ul(const char* text, int base) { return parseUnsigned(text, nullptr, base, nullptr); }

int mdc_string2ul(const char* text, uint32_t* result, int base) {
    bool any = false;
    uint32_t value = parseUnsigned(text, nullptr, base, &any);
    *result = any ? value : 0;
    return any ? 1 : 0;
}

int mdc_string2unsigned(const char* text, unsigned* result, int base) {
    uint32_t value = 0;
    int ok = mdc_string2ul(text, &value, base);
    *result = value;
    return ok;
}

const char* mdc_strpbrk(const char* text, const char* set) { return std::strpbrk(text, set); }
char* mdc_strpbrk(char* text, const char* set) { return std::strpbrk(text, set); }
