#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "secstore/CSecStore.h"
#include "testutil/TestUtil.h"

namespace kivreg {
namespace {

using test::LogCapture;
using Bytes = CSecStore::Bytes;

// The byte order of the old text form: high byte of each unit first.
Bytes highByteFirst(const std::u16string& text) {
    Bytes out;
    for (char16_t unit : text) {
        out.push_back(static_cast<unsigned char>(unit >> 8));
        out.push_back(static_cast<unsigned char>(unit & 0xFF));
    }
    return out;
}

const unsigned char otherKey[8] = {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF};

TEST(CSecStore, AddKeepsTheFirstValueAndEntriesStaySorted) {
    LogCapture log;
    CSecStore store(log, u"unused");
    store.add(u"user_param", u"admin");
    store.add(u"host_param", u"a");
    store.add(u"host_param", u"b");
    store.add(u"pass_param", u"pw");
    EXPECT_EQ(store.get(u"host_param"), u"a");
    EXPECT_EQ(store.get(u"port_param"), u"");
    EXPECT_EQ(store.mapToString(), u"host_param=a;pass_param=pw;user_param=admin;");
    store.remove(u"pass_param");
    store.remove(u"not_there");
    EXPECT_EQ(store.mapToString(), u"host_param=a;user_param=admin;");
    EXPECT_EQ(store.getAll().size(), 2u);
}

TEST(CSecStore, StringToMapSplitsEntries) {
    struct Row {
        std::u16string text;
        std::u16string rendered;  // the entries after parsing, rendered again
    };
    const Row rows[] = {
        {u"host_param=h1;pass_param=pw;port_param=50000;user_param=admin;",
         u"host_param=h1;pass_param=pw;port_param=50000;user_param=admin;"},
        {u"b=2;a=1;", u"a=1;b=2;"},
        {u"user=a=b;", u"user=a=b;"},  // only the first "=" separates
        {u"noequals;x=1;", u"x=1;"},   // a piece without "=" is skipped
        {u"a=1;a=2;", u"a=1;"},        // the first value of a key wins
        {u"a=;=v;", u"=v;a=;"},        // empty keys and values are kept
        {u"a=1;b=half", u"a=1;"},      // an unterminated piece is dropped
        {u";;;", u""},
        {u"", u""},
    };
    LogCapture log;
    CSecStore store(log, u"unused");
    store.add(u"stale", u"gone after parsing");
    for (const Row& row : rows) {
        SCOPED_TRACE(test::u8(row.text));
        store.stringToMap(row.text);
        EXPECT_EQ(store.mapToString(), row.rendered);
    }
}

TEST(CSecStore, NibbleTextCodesLowNibbleFirst) {
    const Bytes bytes = {0x00, 0xFF, 0x3A};
    const std::string text = CSecStore::encodeBytes(bytes);
    EXPECT_EQ(text, "      //*#");
    EXPECT_EQ(CSecStore::decodeBytes(text), bytes);
    EXPECT_EQ(CSecStore::decodeBytes("    "), Bytes{});
    EXPECT_FALSE(CSecStore::decodeBytes("   *#").has_value());
    EXPECT_FALSE(CSecStore::decodeBytes("").has_value());
}

// The old text form, rebuilt here from the binary form: the text's bytes high
// byte first, encrypted, written as nibble text and packed in memory order.
TEST(CSecStore, OldTextFormIsNibbleTextOfTheCipherBytes) {
    const std::u16string plain = u"host_param=\u00e9;";
    const Bytes bytes = highByteFirst(plain);
    const std::string nibbles = CSecStore::encodeBytes(
        CSecStore::encryptBinary(bytes.data(), bytes.size(), CSecStore::ms_key));
    std::u16string expected(nibbles.size() / 2, u'\0');
    std::memcpy(expected.data(), nibbles.data(), nibbles.size());

    const std::u16string encrypted = CSecStore::encrypt(plain, CSecStore::ms_key);
    EXPECT_EQ(encrypted, expected);
    EXPECT_EQ(encrypted.substr(0, 2), u"\x2020\x2020");
    EXPECT_EQ(CSecStore::decrypt(encrypted, CSecStore::ms_key), plain);
}

TEST(CSecStore, OldTextFormRoundTripsAroundTheBlockBoundary) {
    // Two bytes per unit: 3, 4 and 5 units straddle the first block.
    for (const std::u16string plain :
         {u"", u"a", u"abc", u"abcd", u"abcde", u"a;b=c;\u20ac\U0001F600xyz"}) {
        SCOPED_TRACE(test::u8(plain));
        EXPECT_EQ(CSecStore::decrypt(CSecStore::encrypt(plain, otherKey), otherKey), plain);
    }
    EXPECT_EQ(CSecStore::encrypt(u"", otherKey), u"");
    EXPECT_NE(CSecStore::decrypt(CSecStore::encrypt(u"a=1;", otherKey), CSecStore::ms_key),
              u"a=1;");
}

// Without the four blanks the string's memory is the cipher text itself.
TEST(CSecStore, OldestTextFormDecryptsTheRawBytes) {
    const std::u16string plain = u"user_param=x;";
    const Bytes bytes = highByteFirst(plain);
    const Bytes cipher = CSecStore::encryptBinary(bytes.data(), bytes.size(), CSecStore::ms_key);
    std::u16string raw(cipher.size() / 2, u'\0');
    std::memcpy(raw.data(), cipher.data(), cipher.size());
    EXPECT_EQ(CSecStore::decrypt(raw, CSecStore::ms_key), plain);
}

TEST(CSecStore, KeyFormsAndKeyFileSwitch) {
    LogCapture log;
    CSecStore store(log, u"/some/dir/conn.dat");
    EXPECT_FALSE(store.usesKeyFile());
    EXPECT_EQ(store.getRandKeyBinary(), nullptr);
    EXPECT_EQ(store.getRandKeyString(), u"");
    EXPECT_EQ(store.getKeyFileName(), u"/some/dir/conn.dat.key");

    EXPECT_TRUE(store.setRandKey(u"\x0100\x00ff\x0041\x0042\x7f43\x0044\x0045\x0046"));
    const unsigned char expected[8] = {0x00, 0xFF, 0x41, 0x42, 0x43, 0x44, 0x45, 0x46};
    ASSERT_NE(store.getRandKeyBinary(), nullptr);
    EXPECT_EQ(std::memcmp(store.getRandKeyBinary(), expected, 8), 0);
    EXPECT_EQ(store.getRandKeyString(),
              std::u16string(u"\x0000\x00ff\x0041\x0042\x0043\x0044\x0045\x0046", 8));
    EXPECT_FALSE(store.setRandKey(u"short"));
    EXPECT_FALSE(store.setRandKey(u"ninechars"));

    store.setKeyFile();  // keeps the key it holds
    EXPECT_TRUE(store.usesKeyFile());
    EXPECT_EQ(std::memcmp(store.getRandKeyBinary(), expected, 8), 0);
    store.unsetKeyFile();
    EXPECT_FALSE(store.usesKeyFile());
    EXPECT_EQ(store.getRandKeyBinary(), nullptr);
}

TEST(CSecStore, GeneratedKeysDifferBetweenStores) {
    LogCapture log;
    CSecStore a(log, u"a", true);
    CSecStore b(log, u"b", true);
    ASSERT_TRUE(a.usesKeyFile());
    ASSERT_NE(a.getRandKeyBinary(), nullptr);
    ASSERT_NE(b.getRandKeyBinary(), nullptr);
    // Keys seeded from the clock would coincide for stores made in one second.
    EXPECT_NE(std::memcmp(a.getRandKeyBinary(), b.getRandKeyBinary(), 8), 0);
}

}  // namespace
}  // namespace kivreg
