// Attachment names to UTF-8: the listing reads names as the stream holds them, 8-bit in the
// sender's code page or UTF-16LE, and hands them on in one encoding.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// UTF-16LE bytes up to the first NUL code unit (an odd last byte is dropped); unpaired
// surrogates become U+FFFD.
std::string tnef_TextFromUtf16(std::string_view utf16le);

// 8-bit text up to its first NUL, in code page codePage (0: none named, taken as 1252).
// Bytes the code page does not define are left out; a code page iconv does not know is
// read as 1252.
std::string tnef_TextFrom8Bit(std::string_view text, uint32_t codePage);

// The UTF-8 bytes of one code point.
void tnef_AppendUtf8(std::string& out, char32_t c);
