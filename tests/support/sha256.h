// SHA-256 of bytes in memory or of a file read in chunks, as lower-case hexadecimal, for
// tests that compare contents with digests recorded elsewhere.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace testsha {

class Sha256 {
public:
    Sha256();
    void update(const void* data, size_t size);
    void update(std::string_view bytes) { update(bytes.data(), bytes.size()); }
    // The digest in hexadecimal; the object is spent afterwards.
    std::string hex();

private:
    void block(const uint8_t* p);
    std::array<uint32_t, 8> h_;
    std::array<uint8_t, 64> buffer_{};
    size_t buffered_ = 0;
    uint64_t total_ = 0;
};

std::string sha256Hex(std::string_view bytes);
// Empty text when the file cannot be read.
std::string sha256OfFile(const std::string& path);

}  // namespace testsha
