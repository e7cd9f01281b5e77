// Character sets: the site's alias map, conversions through iconv and MIME charset labels.
//
// The server spells character sets its own way ("ISO8859_1", "UTF8", "CP437"); iconv and
// MIME spell them differently. Every cvc_ function takes server names and turns them into
// iconv names in two steps: first the alias map, then the server's spellings ("ISO8859_n"
// becomes "ISO-8859-n", "UTF8" becomes "UTF-8"; any other name passes as it stands).
//
// The alias map is the optional file "~/sys/charsets.map", one alias per line:
//
//     # comment
//     MRTF1252 = CP1252
//
// Blanks around alias and name are ignored, '#' starts a comment anywhere on a line, lines
// without '=' or with an empty side are ignored. Aliases compare without regard to case and
// the first line for an alias wins. A name longer than 39 characters does not fit the 40-byte
// buffers callers provide, so its line is ignored as if it were absent. The file is re-read
// when its modification time or size changes. A mapped name is not looked up again: aliases
// do not chain.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tnef/platform/dstring.h"

// Everything this header declares is part of the library's exported interface.
#pragma GCC visibility push(default)

// Size of a buffer that holds a character set name and its NUL.
inline constexpr size_t CHARSET_NAME_CAPACITY = 40;
inline constexpr const char* CHARSET_ALIAS_PATH = "~/sys/charsets.map";

// Looks alias up in the alias map. When it is there, copies the mapped name (with its NUL)
// into mappedOut, which holds CHARSET_NAME_CAPACITY bytes, and returns 1; otherwise returns 0
// and leaves mappedOut as it was.
int sdl_MapSysChar(const char* alias, char* mappedOut);

// The iconv name for a server name: the alias map, then the server's spellings.
std::string cvc_IconvCharsetName(const char* name);

// True when iconv can open a conversion from name (a server name) to UTF-8.
bool cvc_iconv_recognised_charset(const char* name);

// The byte length of each character of text in charset (a server name), in order, so that
// text can be cut between characters. A byte that is invalid in charset, or a sequence left
// incomplete at the end, counts as characters of one byte each. Empty when no cut is safe:
// iconv does not know charset, or the text switches shift states (ISO-2022, UTF-7, HZ),
// where a piece cut out would not start in the state it needs.
std::vector<size_t> cvc_CharacterLengths(std::string_view text, const char* charset);

// The MIME charset label for a server name: CP1250..CP1258 give windows-125x, CP874
// windows-874, the IBM code pages CP437, CP850, CP852, CP855, CP857, CP860..CP866 and
// CP869 give IBMnnn, CP932 Shift_JIS, CP936 GBK, CP949 EUC-KR, CP950 Big5, CP20866
// KOI8-R, CP28591..CP28599 ISO-8859-n, CP65001 UTF-8, "ISO8859_n" ISO-8859-n, "UTF8"
// UTF-8 (all without regard to case); any other name is the label as it stands. The alias
// map plays no part: it says which converter reads a name, not what the name is called.
std::string cvc_MimeCharsetLabel(const char* name);

// cvc_CnvString's arguments and statuses.
inline constexpr int CVC_MODE_NAMED = 11;        // both sets given by name: the only mode
inline constexpr int CVC_FLAG_STRICT = 0;        // an invalid input byte ends the conversion
inline constexpr int CVC_FLAG_SKIP_INVALID = 1;  // skip and count invalid bytes instead
inline constexpr int CVC_OUT_TEXT = 1;           // options: fill the converted text
inline constexpr int CVC_OUT_LENGTH = 2;         //          fill its length
inline constexpr int CVC_OUT_BAD_BYTES = 4;      //          fill the count of bytes not converted
inline constexpr int CVC_OUT_FINISH = 8;         //          end the text in the target's initial
                                                 //          shift state (stateful targets)
inline constexpr int CVC_OUT_ALL = 15;
inline constexpr uint16_t CVC_OK = 0;
inline constexpr uint16_t CVC_ERR_CHARSET = 1;   // iconv cannot open the conversion
inline constexpr uint16_t CVC_ERR_INVALID = 2;   // a byte invalid in the source set, or one
                                                 // the target cannot hold (strict mode)
inline constexpr uint16_t CVC_ERR_ARGUMENT = 3;  // unknown mode, no text, negative length

// Converts length bytes of text (length -1: up to its NUL) from fromCharset to toCharset.
// mode must be CVC_MODE_NAMED; flags CVC_FLAG_STRICT or CVC_FLAG_SKIP_INVALID; options a
// mask of the CVC_OUT_ bits saying which outputs to fill (null outputs are never touched).
// out receives the converted text (replacing what it held), outLength its length and
// badBytes the bytes that could not be converted: in strict mode everything from the first
// bad byte on (out then holds the text converted before it), otherwise the bytes skipped.
// Returns CVC_OK or one of the CVC_ERR_ statuses; skipped bytes do not make an error. After
// CVC_ERR_CHARSET or CVC_ERR_ARGUMENT no output has been touched.
uint16_t cvc_CnvString(int mode, int flags, const char* text, int length, const char* fromCharset,
                       const char* toCharset, dstring* out, int* outLength, int* badBytes,
                       int options);

#pragma GCC visibility pop
