#include <gtest/gtest.h>

#include <cstring>
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

Bytes ascii(const std::string& text) { return Bytes(text.begin(), text.end()); }

Bytes encryptBlock(const Bytes& key, const Bytes& block) {
    Bytes out(8);
    DesCipher(key.data()).encryptBlock(block.data(), out.data());
    return out;
}

Bytes xored(Bytes a, const Bytes& b) {
    for (size_t i = 0; i < a.size(); ++i) a[i] ^= b[i];
    return a;
}

// Published DES vectors (FIPS 81 examples and the classic textbook ones).
TEST(DesCipher, BlockPrimitiveMatchesKnownAnswers) {
    struct Row {
        const char* key;
        Bytes plain;
        const char* cipher;
    };
    const Row rows[] = {
        {"0123456789ABCDEF", ascii("Now is t"), "3FA40E8A984D4815"},
        {"0123456789ABCDEF", ascii("he time "), "6A271787AB8883F9"},
        {"0123456789ABCDEF", ascii("for all "), "893D51EC4B563B53"},
        {"133457799BBCDFF1", hex("0123456789ABCDEF"), "85E813540F0AB405"},
        {"0E329232EA6D0D73", hex("8787878787878787"), "0000000000000000"},
        // The same key with every parity bit flipped: parity is ignored.
        {"0022446688AACCEE", ascii("Now is t"), "3FA40E8A984D4815"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.key);
        const Bytes key = hex(row.key);
        EXPECT_EQ(encryptBlock(key, row.plain), hex(row.cipher));
        Bytes back(8);
        DesCipher(key.data()).decryptBlock(hex(row.cipher).data(), back.data());
        EXPECT_EQ(back, row.plain);
    }
}

TEST(DesCipher, RoundTripsAroundTheBlockBoundary) {
    const Bytes key = hex("0123456789ABCDEF");
    for (size_t size : {0, 1, 7, 8, 9, 15, 16, 17, 64}) {
        SCOPED_TRACE(size);
        Bytes plain(size);
        for (size_t i = 0; i < size; ++i) plain[i] = static_cast<unsigned char>('a' + i % 26);
        const Bytes cipher = CSecStore::encryptBinary(plain.data(), plain.size(), key.data());
        ASSERT_EQ(cipher.size(), size);
        if (size > 0) {
            EXPECT_NE(cipher, plain);
        }
        EXPECT_EQ(CSecStore::decryptBinary(cipher.data(), cipher.size(), key.data()), plain);
    }
}

// The chaining and the tail rule, recomputed from the bare primitive.
TEST(DesCipher, ChainsFullBlocksAndXorsTheTail) {
    const Bytes key = hex("0123456789ABCDEF");
    const Bytes plain = ascii("Now is the time for all ");  // three blocks
    const Bytes withTail = ascii("Now is the time f");      // two blocks and one byte

    const Bytes c1 = encryptBlock(key, Bytes(plain.begin(), plain.begin() + 8));
    const Bytes c2 = encryptBlock(key, xored(Bytes(plain.begin() + 8, plain.begin() + 16), c1));
    const Bytes c3 = encryptBlock(key, xored(Bytes(plain.begin() + 16, plain.end()), c2));
    Bytes expected = c1;
    expected.insert(expected.end(), c2.begin(), c2.end());
    expected.insert(expected.end(), c3.begin(), c3.end());
    EXPECT_EQ(CSecStore::encryptBinary(plain.data(), plain.size(), key.data()), expected);
    // A zero vector: the first block is plain ECB.
    EXPECT_EQ(c1, hex("3FA40E8A984D4815"));

    const Bytes tailStream = encryptBlock(key, c2);
    Bytes expectedTail(expected.begin(), expected.begin() + 16);
    expectedTail.push_back(static_cast<unsigned char>('f' ^ tailStream[0]));
    EXPECT_EQ(CSecStore::encryptBinary(withTail.data(), withTail.size(), key.data()), expectedTail);

    // Shorter than a block: the key stream is the encrypted zero block, both ways.
    const Bytes shortPlain = ascii("pw;x=1");
    const Bytes shortCipher = xored(shortPlain, encryptBlock(key, Bytes(8, 0)));
    EXPECT_EQ(CSecStore::encryptBinary(shortPlain.data(), shortPlain.size(), key.data()),
              shortCipher);
    EXPECT_EQ(CSecStore::decryptBinary(shortCipher.data(), shortCipher.size(), key.data()),
              shortPlain);
}

}  // namespace
}  // namespace kivreg
