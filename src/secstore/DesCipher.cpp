// The low-level DES interface is deprecated in OpenSSL 3 (single DES lives in
// the legacy provider for EVP), but it is the only one that offers the bare
// block primitive without loading a provider. The suppression stays here.
#define OPENSSL_SUPPRESS_DEPRECATED 1

#include "secstore/DesCipher.h"

#include <openssl/crypto.h>
#include <openssl/des.h>

#include <cstring>

namespace kivreg {

struct DesCipher::Schedule {
    DES_key_schedule ks;
};

DesCipher::DesCipher(const unsigned char* key) : m_schedule(std::make_unique<Schedule>()) {
    DES_cblock block;
    std::memcpy(block, key, BLOCK);
    // Unchecked: keys are random bytes, their parity bits mean nothing.
    DES_set_key_unchecked(&block, &m_schedule->ks);
    OPENSSL_cleanse(block, sizeof block);
}

DesCipher::~DesCipher() {
    OPENSSL_cleanse(&m_schedule->ks, sizeof m_schedule->ks);
}

void DesCipher::crypt(const unsigned char* in, unsigned char* out, bool encrypting) const {
    DES_cblock src;
    DES_cblock dst;
    std::memcpy(src, in, BLOCK);
    DES_ecb_encrypt(&src, &dst, &m_schedule->ks, encrypting ? DES_ENCRYPT : DES_DECRYPT);
    std::memcpy(out, dst, BLOCK);
}

void DesCipher::encryptBlock(const unsigned char* in, unsigned char* out) const {
    crypt(in, out, true);
}

void DesCipher::decryptBlock(const unsigned char* in, unsigned char* out) const {
    crypt(in, out, false);
}

void DesCipher::xorTail(unsigned char* tail, size_t size,
                        const unsigned char* lastCipherBlock) const {
    unsigned char stream[BLOCK];
    encryptBlock(lastCipherBlock, stream);
    for (size_t i = 0; i < size; ++i) tail[i] ^= stream[i];
}

void DesCipher::encrypt(unsigned char* data, size_t size) const {
    unsigned char prev[BLOCK] = {};
    const size_t full = size - size % BLOCK;
    for (size_t pos = 0; pos < full; pos += BLOCK) {
        unsigned char* block = data + pos;
        for (size_t i = 0; i < BLOCK; ++i) block[i] ^= prev[i];
        encryptBlock(block, block);
        std::memcpy(prev, block, BLOCK);
    }
    if (full < size) xorTail(data + full, size - full, prev);
}

void DesCipher::decrypt(unsigned char* data, size_t size) const {
    unsigned char prev[BLOCK] = {};
    unsigned char cipher[BLOCK];
    const size_t full = size - size % BLOCK;
    for (size_t pos = 0; pos < full; pos += BLOCK) {
        unsigned char* block = data + pos;
        std::memcpy(cipher, block, BLOCK);
        decryptBlock(block, block);
        for (size_t i = 0; i < BLOCK; ++i) block[i] ^= prev[i];
        std::memcpy(prev, cipher, BLOCK);
    }
    if (full < size) xorTail(data + full, size - full, prev);
}

}  // namespace kivreg
