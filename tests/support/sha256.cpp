#include "support/sha256.h"

#include <openssl/evp.h>

#include <array>
#include <cstdio>

namespace testsha {

Sha256::Sha256() : ctx_(EVP_MD_CTX_new(), &EVP_MD_CTX_free) {
    EVP_DigestInit_ex(ctx_.get(), EVP_sha256(), nullptr);
}

void Sha256::update(const void* data, size_t size) { EVP_DigestUpdate(ctx_.get(), data, size); }

std::string Sha256::hex() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int n = 0;
    EVP_DigestFinal_ex(ctx_.get(), digest.data(), &n);
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string out;
    for (unsigned int i = 0; i < n; ++i) {
        out += kDigits[digest[i] >> 4];
        out += kDigits[digest[i] & 15];
    }
    return out;
}

std::string sha256Hex(std::string_view bytes) {
    Sha256 s;
    s.update(bytes);
    return s.hex();
}

std::string sha256OfFile(const std::string& path) {
    std::unique_ptr<FILE, int (*)(FILE*)> f(std::fopen(path.c_str(), "rb"), &std::fclose);
    if (!f) return {};
    Sha256 s;
    std::array<char, 65536> chunk;
    size_t n = 0;
    while ((n = std::fread(chunk.data(), 1, chunk.size(), f.get())) > 0) s.update(chunk.data(), n);
    return s.hex();
}

}  // namespace testsha
