// The character set of a stream's code page, and the header form of 8-bit attachment names
// written in it.
#pragma once

#include <cstdint>

#include "tnef/platform/dstring.h"

// The charset that stands when a code page names none that the platform knows.
inline constexpr const char* TNEF_FALLBACK_CHARSET = "ISO8859_1";

// Writes the character set of codePage into nameBuffer (TNEF_CHARSET_CAPACITY bytes) and
// returns nameBuffer: the site's mapping for "MRTF<code page>" when it has one, else
// "CP<code page>" (at least three digits) when iconv knows it, else TNEF_FALLBACK_CHARSET.
// *recognised is 1 for the first two, 0 for the fallback.
char* tnef_CharsetForCodePage(uint32_t codePage, char* nameBuffer, int* recognised);

// Sets out to the header form of the NUL-terminated 8-bit name written in codePage: RFC 2047
// words in the code page's character set; with the fallback set, RFC 2047 words in it when
// the name converts from it, else the name with every control byte and every byte above
// 0x7E replaced by '*'.
void tnef_EncodeAttachName(uint32_t codePage, const char* name, dstring* out);
