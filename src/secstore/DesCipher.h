#pragma once
// DES under an 8-byte key with the connection file's own chaining: full
// blocks in CBC from an all-zero vector; a tail of 1 to 7 bytes is XORed with
// the encryption of the last cipher block (of an all-zero block when the
// buffer holds no full block). Lengths never change; there is no padding.

#include <cstddef>
#include <memory>

namespace kivreg {

class DesCipher {
public:
    static constexpr size_t BLOCK = 8;

    // Parity bits of the key are ignored.
    explicit DesCipher(const unsigned char* key);
    ~DesCipher();
    DesCipher(const DesCipher&) = delete;
    DesCipher& operator=(const DesCipher&) = delete;

    // The bare block primitive.
    void encryptBlock(const unsigned char* in, unsigned char* out) const;
    void decryptBlock(const unsigned char* in, unsigned char* out) const;

    void encrypt(unsigned char* data, size_t size) const;
    void decrypt(unsigned char* data, size_t size) const;

private:
    void crypt(const unsigned char* in, unsigned char* out, bool encrypting) const;
    void xorTail(unsigned char* tail, size_t size, const unsigned char* lastCipherBlock) const;

    // The key schedule; opaque so that the deprecated header stays in the one
    // file that needs it.
    struct Schedule;
    std::unique_ptr<Schedule> m_schedule;
};

}  // namespace kivreg
