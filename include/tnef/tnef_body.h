// Message bodies: the compressed RTF of PR_RTF_COMPRESSED, the HTML or text a client
// encapsulated in that RTF, and the choice of a message's best body.
//
//   std::string rtf;
//   uint32_t flags = 0;
//   if (tnef_DecompressRtf(value, size, &rtf, &flags) == TNEF_RTF_OK) {
//       TnefDeencapsulated body = tnef_DeencapsulateRtf(rtf);
//       ... body.kind, body.text (UTF-8)
//   }
//
// Nothing here reads outside the bytes it is given, allocates from a size the input
// announces, recurses on the input's nesting, or loops on it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "tnef/tnef_reader.h"

// Everything this header declares is part of the library's exported interface.
#pragma GCC visibility push(default)

// ---- Compressed RTF ------------------------------------------------------------------------

enum TnefRtfStatus {
    TNEF_RTF_OK = 0,
    TNEF_RTF_TOO_SHORT = 1,     // fewer than the 16 header bytes
    TNEF_RTF_UNKNOWN_FORM = 2,  // neither LZFu (compressed) nor MELA (stored)
};

inline constexpr uint32_t TNEF_RTF_BAD_CRC = 0x1;       // the text is given; the CRC-32 of the
                                                        // data differs from the header's
inline constexpr uint32_t TNEF_RTF_CUT = 0x2;           // the data ends before its end marker,
                                                        // or the header's size passes the value
inline constexpr uint32_t TNEF_RTF_SIZE_DIFFERS = 0x4;  // the text's size is not the header's
inline constexpr uint32_t TNEF_RTF_TOO_LONG = 0x8;      // output stopped at TNEF_RTF_OUTPUT_LIMIT

// Output a decompression gives at most, whatever the header announces.
inline constexpr uint64_t TNEF_RTF_OUTPUT_LIMIT = 1ull << 30;

// Where decompressed bytes go, piece by piece (a piece is at most 64 KiB).
struct TnefByteSink {
    void (*write)(void* context, const char* bytes, size_t n) = nullptr;
    void* context = nullptr;
};

// Decompresses a PR_RTF_COMPRESSED value held in memory into *out (replaced). flags gets
// TNEF_RTF_ bits. The header's sizes are trusted only as far as the value goes.
TnefRtfStatus tnef_DecompressRtf(const void* value, size_t size, std::string* out, uint32_t* flags);

// The same for a value that lies in [offset, offset + length) of the file on fd (as the
// reader gives a binary value), read in pieces and written to sink in pieces: memory stays
// the same whatever the body's size. Escapes 100/errno when a read fails.
TnefRtfStatus tnef_DecompressRtfFile(int fd, uint64_t offset, uint64_t length, TnefByteSink sink,
                                     uint32_t* flags);

// The CRC-32 compressed RTF uses (no initial or final inversion), continued from crc.
uint32_t tnef_RtfCrc32(uint32_t crc, const void* bytes, size_t n);

// Compresses RTF into the LZFu form, header and CRC included; tnef_DecompressRtf gives the
// RTF back.
std::string tnef_CompressRtf(std::string_view rtf);

// ---- RTF to HTML or text -------------------------------------------------------------------

enum TnefBodyKind { TNEF_BODY_NONE = 0, TNEF_BODY_TEXT = 1, TNEF_BODY_HTML = 2, TNEF_BODY_RTF = 3 };

struct TnefDeencapsulated {
    TnefBodyKind kind = TNEF_BODY_TEXT;  // HTML for \fromhtml1 RTF, else text
    bool encapsulated = false;           // \fromhtml1 or \fromtext: the original, exactly
    std::string text;                    // UTF-8
};

// The HTML (\fromhtml1) or text (\fromtext) a client encapsulated in RTF, in UTF-8: \'hh in
// the document's code page (\ansicpg, or the current font's \fcharset), \uN with its \ucN
// fallback skipped, \par as a line feed. Other RTF gives its plain text by a minimal
// reading (paragraphs, tabs, characters), marked not encapsulated. Groups nested deeper
// than 1024 are read as their content, without their state.
TnefDeencapsulated tnef_DeencapsulateRtf(std::string_view rtf);

// The same a piece at a time, for RTF too large to hold (a body decompressed from a file):
// tnef_DeencapBegin, tnef_DeencapFeed for each piece as it arrives (the HTML or text goes to
// sink as it is found), then tnef_DeencapEnd, which gives kind and encapsulated (text empty)
// and frees the state. Memory stays bounded whatever the RTF's size; the result is the same
// as tnef_DeencapsulateRtf's on the whole, but for a single control word of over 64 KiB.
struct TnefDeencapReader;
struct TnefDeencapStream {
    struct Free {
        void operator()(TnefDeencapReader* r) const;
    };
    std::unique_ptr<TnefDeencapReader, Free> reader;
};
void tnef_DeencapBegin(TnefDeencapStream* stream, TnefByteSink sink);
void tnef_DeencapFeed(TnefDeencapStream* stream, const char* bytes, size_t n);
TnefDeencapsulated tnef_DeencapEnd(TnefDeencapStream* stream);

// ---- The message's body --------------------------------------------------------------------

struct TnefBody {
    TnefBodyKind kind = TNEF_BODY_NONE;
    std::string text;     // UTF-8 for HTML and text; the RTF's own bytes for RTF
    std::string source;   // PR_BODY_HTML, PR_BODY, attBody, PR_RTF_COMPRESSED
    uint32_t rtfFlags = 0;
};

// The message's body of one kind: HTML from PR_BODY_HTML or from RTF that encapsulates
// HTML; text from PR_BODY, attBody, or RTF that encapsulates text (else read from any RTF);
// RTF from PR_RTF_COMPRESSED. TNEF_BODY_NONE asks for the best there is: HTML, else text.
// 8-bit bodies are converted by PR_INTERNET_CPID, else an HTML meta charset, else the
// stream's code page. fd is the file the view was read from. kind NONE when there is none.
TnefBody tnef_MessageBody(int fd, const TnefMessageView& view, TnefBodyKind want);

// The same written to sink a piece at a time (text left empty): a body from compressed RTF is
// decompressed and de-encapsulated as it goes, in memory that stays the same whatever its
// size. Whether RTF encapsulates HTML is judged from its first 64 KiB (where the header says
// so). Escapes 100/errno when the file cannot be read.
TnefBody tnef_WriteMessageBody(int fd, const TnefMessageView& view, TnefBodyKind want, TnefByteSink sink);

#pragma GCC visibility pop
