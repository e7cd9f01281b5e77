// Attachment names made safe to create in a folder, MIME types guessed from them, and the
// words a listing uses: one source for the tool and the Python binding.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <vector>

struct TnefAttachInfo;

// A name that can only ever name a file directly inside the folder it is created in: the
// last component of any path it holds (either slash), without NUL or control bytes, without
// leading dots or blanks (so never "." or ".." and never hidden), and at most 255 bytes
// (cut between UTF-8 characters, keeping a short extension). fallback when nothing is left.
std::string safeFileName(std::string_view name, std::string_view fallback);

// "name (n).ext": the n-th candidate for a name that is taken.
std::string numberedName(std::string_view name, unsigned n);

// The MIME type for a file name's extension, or "application/octet-stream".
std::string guessMimeType(std::string_view name);

// "file", "ole", "message" or "none".
const char* attachKindName(uint32_t kind);
// The name a listing shows: the attachment's best name, else "attachment-N.dat".
std::string attachName(const TnefAttachInfo& a);
// Its MIME type: TNEF for an embedded message, else its MIME tag, else guessed from its name.
std::string attachType(const TnefAttachInfo& a);
// The name it is written under: attachName made safe, and ".tnef" after an embedded message's.
std::string attachFileName(const TnefAttachInfo& a);

// What the reader's damage flags (TNEF_READ_) mean, one text a flag set, in a fixed order.
std::vector<std::string> readDamageTexts(uint32_t flags);
