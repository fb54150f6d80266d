#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "secstore/CSecStore.h"
#include "secstore/DesCipher.h"

namespace kivreg {
namespace {

using Bytes = std::vector<unsigned char>;

Bytes hex(const std::string& text) {
    Bytes out;
    for (size_t i = 0; i + 1 < text.size(); i += 2)
        out.push_back(static_cast<unsigned char>(std::stoi(text.substr(i, 2), nullptr, 16)));
    return out;
}

Bytes ascii(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

Bytes encryptBlock(const Bytes& key, const Bytes& in) {
    Bytes out(8);
    DesCipher(key.data()).encryptBlock(in.data(), out.data());
    return out;
}

const Bytes KEY = hex("0123456789ABCDEF");

// Published DES vectors (FIPS 81 examples and the classic textbook ones).
TEST(DesCipher, BlockPrimitiveMatchesKnownAnswers) {
    const struct {
        const char* key;
        Bytes plain;
        const char* cipher;
    } rows[] = {
        {"0123456789ABCDEF", ascii("Now is t"), "3FA40E8A984D4815"},
        {"133457799BBCDFF1", hex("0123456789ABCDEF"), "85E813540F0AB405"},
        {"0E329232EA6D0D73", hex("8787878787878787"), "0000000000000000"},
        {"0022446688AACCEE", ascii("Now is t"), "3FA40E8A984D4815"},  // parity bits flipped
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.key);
        const Bytes key = hex(row.key);
        const Bytes cipher = hex(row.cipher);
        EXPECT_EQ(encryptBlock(key, row.plain), cipher);
        Bytes back(8);
        DesCipher(key.data()).decryptBlock(cipher.data(), back.data());
        EXPECT_EQ(back, row.plain);
    }
}

// The chaining rebuilt from the bare primitive: full blocks in CBC from a zero
// vector, a tail XORed with the encryption of the last cipher block (of a zero
// block when there is no full block).
TEST(DesCipher, ChainsFullBlocksAndXorsTheTail) {
    for (size_t size : {0, 1, 7, 8, 9, 15, 16, 17, 31}) {
        SCOPED_TRACE(size);
        Bytes plain(size);
        for (size_t i = 0; i < size; ++i) plain[i] = static_cast<unsigned char>('a' + i % 26);
        Bytes expected;
        Bytes last(8, 0);
        size_t pos = 0;
        for (; pos + 8 <= size; pos += 8) {
            for (size_t i = 0; i < 8; ++i) last[i] ^= plain[pos + i];
            last = encryptBlock(KEY, last);
            expected.insert(expected.end(), last.begin(), last.end());
        }
        const Bytes stream = encryptBlock(KEY, last);
        for (size_t i = 0; pos + i < size; ++i) expected.push_back(plain[pos + i] ^ stream[i]);

        const Bytes cipher = CSecStore::encryptBinary(plain.data(), size, KEY.data());
        EXPECT_EQ(cipher, expected);
        EXPECT_EQ(CSecStore::decryptBinary(cipher.data(), size, KEY.data()), plain);
    }
}

}  // namespace
}  // namespace kivreg
