// SHA-256 of bytes in memory or of a file read in chunks, as lower-case hexadecimal, for
// tests that compare contents with digests recorded elsewhere (OpenSSL's digest).
#pragma once

#include <memory>
#include <string>
#include <string_view>

struct evp_md_ctx_st;

namespace testsha {

class Sha256 {
public:
    Sha256();
    void update(const void* data, size_t size);
    void update(std::string_view bytes) { update(bytes.data(), bytes.size()); }
    // The digest in hexadecimal; the object is spent afterwards.
    std::string hex();

private:
    std::unique_ptr<evp_md_ctx_st, void (*)(evp_md_ctx_st*)> ctx_;
};

std::string sha256Hex(std::string_view bytes);
// Empty text when the file cannot be read.
std::string sha256OfFile(const std::string& path);

}  // namespace testsha
