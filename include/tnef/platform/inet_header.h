// Header texts: RFC 2047 encoded words, written and read.
//
// An encoded word is "=?charset?B?base64?=" or "=?charset?Q?quoted?="; the charset may carry
// a "*language" suffix, and B and Q may be written in either case. Words are recognised
// wherever they stand in a text; a word that is not well formed (no closing "?=", an empty
// part, a byte outside the base64 alphabet or misplaced padding, "=" in Q text without two
// hex digits after it, or a word that would yield a NUL byte) is not a word at all and stays
// as literal text.
#pragma once

#include <cstddef>

#include "tnef/platform/dstring.h"

// Everything this header declares is part of the library's exported interface.
#pragma GCC visibility push(default)

// The longest encoded word written, in characters.
inline constexpr size_t RFC2047_WORD_LIMIT = 75;

// Sets out to the header form of text, whose bytes are in charset (a server name; null is
// taken as "UTF8"). Text of printable ASCII (0x20..0x7E) that holds no "=?" stays exactly as
// it is. Anything else becomes B-encoded words labelled with cvc_MimeCharsetLabel(charset),
// each at most RFC2047_WORD_LIMIT characters, separated by one space. Words end only on
// character boundaries, which iconv finds; when iconv does not know the charset, or the text
// switches shift states (ISO-2022, UTF-7, HZ), no boundary is safe and the text becomes a
// single word of whatever length it needs. The last two arguments are reserved (pass 0).
void inet_2Subjects_toRfc2047_dstring(dstring* out, const char* text, const char* charset,
                                      int reserved1, int reserved2);

// True when text is one or more well-formed encoded words separated by blanks (space, tab,
// CR, LF) and holds nothing else, not even blanks before the first or after the last word.
bool inet_is2047Encoded(const char* text);

// Decodes the encoded words of in into out and returns the length written (out then ends
// with a NUL there). Words yield the bytes they carry, in their own charset: nothing is
// converted. Blanks between two adjacent words are dropped; all other text is kept. The
// result is never longer than in, so out may be a buffer of strlen(in) + 1 bytes, or in
// itself. flags is reserved (pass 0). A null in gives an empty text.
int mim_DecodeMimeCharStr(const char* in, char* out, int flags);

// Decodes as mim_DecodeMimeCharStr does and converts each word from its charset to UTF-8;
// a word whose charset iconv does not know, or whose bytes are invalid in it, is kept as
// literal text. Text outside words is kept as it stands.
void mim_DecodeMimeToUtf8(const char* in, dstring* out);

#pragma GCC visibility pop
