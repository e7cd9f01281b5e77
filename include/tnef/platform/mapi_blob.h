// The property blob encoding: inside an id part or a value every byte below 0x20 is written
// as 0x1B followed by the byte plus 0x40; every other byte stands for itself. Encoded text
// therefore holds no 0x00, 0x1C, 0x1D or 0x1E and can be split on those separators.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tnef/platform/dstring.h"

// Everything this header declares is part of the library's exported interface.
#pragma GCC visibility push(default)

inline constexpr char BLOB_ENTRY_SEP = 0x1E;
inline constexpr char BLOB_VALUE_SEP = 0x1D;
inline constexpr char BLOB_ROW_SEP = 0x1C;
inline constexpr char BLOB_ESCAPE = 0x1B;

// Encodes length bytes into destination, which holds 2 * length bytes; returns the bytes
// written.
size_t mapi_BlobEncodeBytes(char* destination, const void* bytes, size_t length);
// Appends the encoded form of length bytes to out.
void mapi_BlobEncodeToDstring(const void* bytes, size_t length, dstring* out);
// Appends the bytes that length bytes of encoded text stand for. 0x1B followed by c stands
// for c - 0x40 (modulo 256); an escape byte that ends the text stands for nothing.
void mapi_BlobDecodeToDstring(const char* text, size_t length, dstring* out);
// Decodes length bytes of encoded text into storage owned by the platform (valid until the
// next call on the same thread); stores the decoded length in *lengthOut. The result is
// followed by a NUL byte that the length does not count.
const unsigned char* os_GraphicToControl2(const char* text, size_t length, size_t* lengthOut);

#pragma GCC visibility pop
