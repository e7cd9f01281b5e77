// Whole mails: a filter that replaces each TNEF part (winmail.dat) of a mail with the MIME
// parts it hides, so that every mail client shows them and every scanner sees them. Part of
// libtnef-convert, which parses and writes MIME with GMime; the codec library does not.
//
//   TnefUnwrapResult r = tnef_UnwrapMail(inFd, outFd);
//   if (r.status == TNEF_UNWRAP_FAILED) ...  // the original mail was written unchanged
//
// What takes a TNEF part's place: its attachments (type from PR_ATTACH_MIME_TAG, else from
// the file name's extension; UTF-8 file names as RFC 2231 gives them; Content-ID; inline
// when the HTML body refers to that Content-ID; modification date), an embedded message as
// message/rfc822 with its headers rebuilt from its properties, a meeting or task as
// text/calendar with its method, a contact as text/vcard, and the body as text/plain and
// text/html in a multipart/alternative when the mail's own body is empty (or has no HTML
// while the TNEF part has). Every other part and header stays as the mail had it; a mail
// with no TNEF part is written back byte for byte. A TNEF part inside a signed part
// (multipart/signed, application/pkcs7-mime) is left alone: changing it breaks the
// signature. A TNEF part that cannot be read is kept as it was; one that is damaged is
// converted as far as it reads and kept beside what it gave.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// GMime's own declaration, repeated so that this header does not pull in GMime's.
typedef struct _GMimeStream GMimeStream;

// Everything this header declares is part of the library's exported interface.
#pragma GCC visibility push(default)

enum TnefUnwrapStatus {
    TNEF_UNWRAP_UNCHANGED = 0,  // no TNEF part that could be converted: the mail as it came
    TNEF_UNWRAP_CONVERTED = 1,  // at least one TNEF part was replaced
    TNEF_UNWRAP_FAILED = 2,     // the mail could not be read or written as MIME: the original
                                // was written unchanged (reason in warnings)
};

struct TnefUnwrapResult {
    TnefUnwrapStatus status = TNEF_UNWRAP_UNCHANGED;
    uint32_t tnefParts = 0;   // TNEF parts found
    uint32_t converted = 0;   // of them, replaced by their content
    uint32_t kept = 0;        // of them, kept as they were (unreadable, damaged or signed)
    uint32_t parts = 0;       // MIME parts written in their place (a body's alternative counts
                              // as one)
    std::vector<std::string> warnings;  // one line each, for a person
};

// Header that records what was converted; added to the mail only when something was.
inline constexpr const char* TNEF_UNWRAP_HEADER = "X-TNEF-Unwrapped";

// Reads the whole mail from inFd and writes the result to outFd. Escapes 100/errno when
// reading inFd or writing outFd fails; every other failure gives TNEF_UNWRAP_FAILED with
// the original bytes written.
TnefUnwrapResult tnef_UnwrapMail(int inFd, int outFd);

// The same on GMime streams: in is read to its end, the result written to out.
TnefUnwrapResult tnef_UnwrapStream(GMimeStream* in, GMimeStream* out);

// The same on bytes in memory, the result into *out (replaced).
TnefUnwrapResult tnef_UnwrapBytes(const std::string& mail, std::string* out);

#pragma GCC visibility pop
