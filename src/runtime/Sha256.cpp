#include "runtime/Sha256.h"

#include <openssl/evp.h>

#include <new>

namespace kivreg::rt {

struct Sha256::Context {
    EVP_MD_CTX* md = EVP_MD_CTX_new();
    ~Context() { EVP_MD_CTX_free(md); }
};

Sha256::Sha256() : m_context(std::make_unique<Context>()) {
    // Both fail only when memory runs out.
    if (m_context->md == nullptr || EVP_DigestInit_ex(m_context->md, EVP_sha256(), nullptr) != 1)
        throw std::bad_alloc();
}

Sha256::~Sha256() = default;

void Sha256::update(std::string_view bytes) {
    EVP_DigestUpdate(m_context->md, bytes.data(), bytes.size());
}

std::string Sha256::hexDigest() {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    EVP_DigestFinal_ex(m_context->md, digest, &size);
    static constexpr char kHex[] = "0123456789abcdef";
    std::string text;
    for (unsigned int i = 0; i < size; ++i) {
        text += kHex[digest[i] >> 4];
        text += kHex[digest[i] & 15];
    }
    return text;
}

std::string sha256Hex(std::string_view bytes) {
    Sha256 hash;
    hash.update(bytes);
    return hash.hexDigest();
}

}  // namespace kivreg::rt
