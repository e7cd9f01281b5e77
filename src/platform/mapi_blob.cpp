#include "tnef/platform/mapi_blob.h"

#include <string>

size_t mapi_BlobEncodeBytes(char* destination, const void* bytes, size_t length) {
    const auto* in = static_cast<const unsigned char*>(bytes);
    size_t out = 0;
    for (size_t i = 0; i < length; ++i) {
        const unsigned char c = in[i];
        if (c < 0x20) {
            destination[out++] = BLOB_ESCAPE;
            destination[out++] = static_cast<char>(c + 0x40);
        } else {
            destination[out++] = static_cast<char>(c);
        }
    }
    return out;
}

void mapi_BlobEncodeToDstring(const void* bytes, size_t length, dstring* out) {
    std::string& text = out->text;
    const size_t old = text.size();
    text.resize(old + 2 * length);
    text.resize(old + mapi_BlobEncodeBytes(text.data() + old, bytes, length));
}

void mapi_BlobDecodeToDstring(const char* text, size_t length, dstring* out) {
    std::string& bytes = out->text;
    bytes.reserve(bytes.size() + length);
    for (size_t i = 0; i < length; ++i) {
        if (text[i] != BLOB_ESCAPE) {
            bytes.push_back(text[i]);
        } else if (i + 1 < length) {
            ++i;
            bytes.push_back(static_cast<char>(static_cast<unsigned char>(text[i]) - 0x40));
        }
    }
}

const unsigned char* os_GraphicToControl2(const char* text, size_t length, size_t* lengthOut) {
    thread_local dstring decoded;
    decoded.text.clear();
    mapi_BlobDecodeToDstring(text, length, &decoded);
    if (lengthOut != nullptr) *lengthOut = decoded.text.size();
    return reinterpret_cast<const unsigned char*>(decoded.text.c_str());
}
