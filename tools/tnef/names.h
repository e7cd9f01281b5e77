// Attachment names made safe to create in a folder, and MIME types guessed from them.
#pragma once

#include <set>
#include <string>
#include <string_view>

// A name that can only ever name a file directly inside the folder it is created in: the
// last component of any path it holds (either slash), without NUL or control bytes, without
// leading dots or blanks (so never "." or ".." and never hidden), and at most 255 bytes
// (cut between UTF-8 characters, keeping a short extension). fallback when nothing is left.
std::string safeFileName(std::string_view name, std::string_view fallback);

// "name (n).ext": the n-th candidate for a name that is taken.
std::string numberedName(std::string_view name, unsigned n);

// The MIME type for a file name's extension, or "application/octet-stream".
std::string guessMimeType(std::string_view name);
