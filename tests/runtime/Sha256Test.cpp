#include <gtest/gtest.h>

#include <string>

#include "runtime/Sha256.h"

namespace kivreg::test {
namespace {

// The published test vectors, whole and cut into pieces at every size up to
// past a block, so that the pieces' boundaries never change the digest.
TEST(Sha256, DigestDoesNotDependOnThePieces) {
    const struct {
        std::string bytes, hex;
    } rows[] = {
        {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
        {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
         "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
        {std::string(1000000, 'a'),
         "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(rt::sha256Hex(row.bytes), row.hex);
        for (const size_t piece : {size_t{1}, size_t{63}, size_t{65}, size_t{4096}}) {
            if (row.bytes.size() > 100000 && piece < 4096) continue;
            rt::Sha256 hash;
            for (size_t at = 0; at < row.bytes.size(); at += piece)
                hash.update(std::string_view(row.bytes).substr(at, piece));
            EXPECT_EQ(hash.hexDigest(), row.hex) << piece;
        }
    }
}

}  // namespace
}  // namespace kivreg::test
