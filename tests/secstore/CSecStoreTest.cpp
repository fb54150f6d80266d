#include <gmock/gmock.h>

#include <sys/stat.h>

#include <filesystem>
#include <map>
#include <optional>
#include <regex>
#include <string>

#include "secstore/CSecStore.h"
#include "secstore/DesCipher.h"
#include "testutil/TestUtil.h"

namespace kivreg::test {
namespace {

namespace fs = std::filesystem;
using Bytes = CSecStore::Bytes;

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

const std::string HEADER = "\x15\x0C\x13\x3B";
const unsigned char otherKey[8] = {0x13, 0x34, 0x57, 0x79, 0x9B, 0xBC, 0xDF, 0xF1};
const std::string OTHER_KEY_FILE = HEADER + std::string(otherKey, otherKey + 8);

std::string str(const Bytes& bytes) {
    return std::string(bytes.begin(), bytes.end());
}

std::string binaryFile(const std::string& plain, const unsigned char* key) {
    const Bytes in(plain.begin(), plain.end());
    return HEADER + str(CSecStore::encryptBinary(in.data(), in.size(), key));
}

// A 16-bit text as earlier releases wrote it: little-endian units, then a zero unit.
std::string units(const std::u16string& text) {
    std::string out;
    for (char16_t u : text) out += {static_cast<char>(u & 0xFF), static_cast<char>(u >> 8)};
    return out + std::string(2, '\0');
}

// The old data forms: the text's units high byte first, encrypted; then either
// four blanks and per byte the low and the high nibble plus 0x20 (the units
// hold that text in memory order), or, still older, the cipher bytes bare.
std::string oldFile(const std::u16string& plain, const unsigned char* key, bool nibbles) {
    Bytes in;
    for (char16_t u : plain)
        in.insert(in.end(),
                  {static_cast<unsigned char>(u >> 8), static_cast<unsigned char>(u & 0xFF)});
    const Bytes cipher = CSecStore::encryptBinary(in.data(), in.size(), key);
    if (!nibbles) return str(cipher) + std::string(2, '\0');
    std::string out = "    ";
    for (unsigned char b : cipher)
        out += {static_cast<char>((b & 15) + 32), static_cast<char>((b >> 4) + 32)};
    return out + std::string(2, '\0');
}

void fillFive(CSecStore& store, const std::u16string& password) {
    store.stringToMap(
        u"host_param=registry.example.org;port_param=50000;user_param=admin;"
        u"https_param=y;");
    store.add(u"pass_param", password);
}

class StoreFiles : public testing::Test {
protected:
    test::TempDir dir;
    test::LogCapture log;
    const fs::path data = dir / "conn.dat";
    const fs::path key = dir / "conn.dat.key";
};

// The data file is the header and the UTF-8 plain text encrypted under the key
// in use; the key file the header and the key. Both are for the owner only.
TEST_F(StoreFiles, StoreAndFetchRoundTrip) {
    const mode_t oldMask = ::umask(0);
    for (const bool keyFile : {false, true}) {
        for (const char16_t* password : {u"s3cr\u00e9t=pw \U0001F600", u""}) {
            SCOPED_TRACE(u8(password) + (keyFile ? " key file" : " built-in key"));
            fs::remove(data);
            fs::remove(key);
            CSecStore store(log, u16(data), keyFile);
            fillFive(store, password);
            ASSERT_TRUE(store.store());
            const fs::perms ownerOnly = fs::perms::owner_read | fs::perms::owner_write;
            EXPECT_EQ(fs::status(data).permissions(), ownerOnly);
            ASSERT_EQ(fs::exists(key), keyFile);
            std::string randomKey;
            if (keyFile) {
                randomKey = readFile(key);
                ASSERT_EQ(randomKey.size(), HEADER.size() + 8);
                EXPECT_EQ(randomKey.substr(0, HEADER.size()), HEADER);
                randomKey.erase(0, HEADER.size());
                EXPECT_NE(randomKey, std::string(CSecStore::ms_key, CSecStore::ms_key + 8));
                EXPECT_EQ(fs::status(key).permissions(), ownerOnly);
            }
            const auto* k = keyFile ? reinterpret_cast<const unsigned char*>(randomKey.data())
                                    : CSecStore::ms_key;
            EXPECT_EQ(readFile(data), binaryFile(u8(store.mapToString()), k));

            CSecStore back(log, u16(data));  // the key file beside the data decides
            ASSERT_TRUE(back.fetch());
            EXPECT_EQ(back.usesKeyFile(), keyFile);
            EXPECT_EQ(back.getAll(), store.getAll());
            EXPECT_EQ(log.text().find("s3cr"), std::string::npos);  // no value in the log
        }
    }
    ::umask(oldMask);
}

TEST_F(StoreFiles, OldFormatsAreRead) {
    const std::u16string plain = u"host_param=h\u00e9;user_param=u;";
    const std::string keyUnits = units(std::u16string(otherKey, otherKey + 8));
    const struct {
        const char* name;
        std::string dataBytes;
        std::optional<std::string> keyBytes;
    } rows[] = {
        {"nibble text, built-in key", oldFile(plain, CSecStore::ms_key, true), {}},
        {"bare cipher units, built-in key", oldFile(plain, CSecStore::ms_key, false), {}},
        {"unit key file, binary data", binaryFile(u8(plain), otherKey), keyUnits},
        {"unit key file, nibble text", oldFile(plain, otherKey, true), keyUnits},
        {"binary key file, nibble text", oldFile(plain, otherKey, true), OTHER_KEY_FILE},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        fs::remove(key);
        writeFile(data, row.dataBytes);
        if (row.keyBytes) writeFile(key, *row.keyBytes);
        CSecStore store(log, u16(data));
        ASSERT_TRUE(store.fetch());
        EXPECT_EQ(store.usesKeyFile(), row.keyBytes.has_value());
        EXPECT_EQ(store.mapToString(), plain);
    }
}

// Files an x86-64 host wrote, checked in: every host reads the same settings
// from them and writes the same bytes for the same settings and key.
TEST_F(StoreFiles, FilesOfX86HostsAreReadAndWrittenAlikeOnEveryHost) {
    const fs::path x86 = fs::path(KIVREG_TEST_DATA_DIR) / "byteorder";
    const std::u16string plain =
        u"host_param=registry.example.org;https_param=y;pass_param=pr\u00eas \u20ac=1;"
        u"port_param=50000;user_param=admin;";
    // With a binary key file, under the built-in key, the nibble text with a
    // key file of units, and the bare cipher units.
    for (const char* name : {"connect", "connect-builtin", "connect-old", "connect-older"}) {
        SCOPED_TRACE(name);
        CSecStore store(log, u16(x86 / name));
        ASSERT_TRUE(store.fetch());
        EXPECT_EQ(store.mapToString(), plain);
    }
    for (const bool keyFile : {true, false}) {
        SCOPED_TRACE(keyFile ? "key file" : "built-in key");
        fs::remove(key);
        CSecStore store(log, u16(data), keyFile);
        if (keyFile) store.setRandKeyBinary(otherKey);
        store.stringToMap(plain);
        ASSERT_TRUE(store.store());
        EXPECT_EQ(readFile(data), readFile(x86 / (keyFile ? "connect" : "connect-builtin")));
        ASSERT_EQ(fs::exists(key), keyFile);
        if (keyFile) {
            EXPECT_EQ(readFile(key), readFile(x86 / "connect.key"));
        }
    }
}

TEST_F(StoreFiles, EarlierFilesAreMovedAsideUnderAStamp) {
    std::string first[2];
    for (const char16_t* password : {u"one", u"two"}) {
        CSecStore store(log, u16(data), true);
        fillFive(store, password);
        ASSERT_TRUE(store.store());
        if (first[0].empty()) first[0] = readFile(data), first[1] = readFile(key);
    }
    // Nothing but the pair and the two backups: no temporary or pending file.
    const std::regex stamped(R"(conn\.dat(\.key)?\.\d{14})");
    int aside = 0;
    for (const auto& e : fs::directory_iterator(dir.path())) {
        const std::string name = e.path().filename().string();
        if (name == "conn.dat" || name == "conn.dat.key") continue;
        ASSERT_TRUE(std::regex_match(name, stamped)) << name;
        ++aside;
        EXPECT_EQ(readFile(e.path()), first[name.find(".key.") != std::string::npos]) << name;
    }
    EXPECT_EQ(aside, 2);
    CSecStore back(log, u16(data));
    ASSERT_TRUE(back.fetch());
    EXPECT_EQ(back.get(u"pass_param"), u"two");

    // A taken name gets ".1", then ".2".
    writeFile(dir / "conn.dat.20240131235959", "taken");
    for (const char* n : {"1", "2"}) {
        writeFile(data, n);
        ASSERT_TRUE(back.unifyFile(u16(data), u"20240131235959"));
        EXPECT_EQ(readFile(data), n);
        EXPECT_EQ(readFile(dir / (std::string("conn.dat.20240131235959.") + n)), n);
    }
    EXPECT_EQ(readFile(dir / "conn.dat.20240131235959"), "taken");
}

// What a store stopped between its steps leaves: "old" and "new" pairs side
// by side under the names a stop can leave them. fetch reads the pair that
// was switched to; the next store finishes or discards the rest first.
TEST_F(StoreFiles, StoppedStoreIsReadThroughAndFinished) {
    const std::string oldData = binaryFile("user_param=old;", otherKey);
    const std::string newKeyed = binaryFile("user_param=new;", KEY.data());
    const std::string newPlain = binaryFile("user_param=new;", CSecStore::ms_key);
    const std::string newKey = HEADER + str(KEY);
    const fs::path pending = dir / "conn.dat.new";
    const fs::path pendingKey = dir / "conn.dat.key.new";
    const struct {
        const char* name;
        std::map<fs::path, std::string> files;
        const char16_t* reads;
        bool keyFile;  // of the pair read
    } rows[] = {
        {"key of an unswitched store",
         {{data, oldData}, {key, OTHER_KEY_FILE}, {pendingKey, newKey}},
         u"old",
         true},
        {"switched, nothing moved",
         {{data, oldData}, {key, OTHER_KEY_FILE}, {pending, newKeyed}, {pendingKey, newKey}},
         u"new",
         true},
        {"switched, key moved",
         {{data, oldData}, {key, newKey}, {pending, newKeyed}, {pendingKey, newKey}},
         u"new",
         true},
        {"switched to the built-in key",
         {{data, oldData}, {key, OTHER_KEY_FILE}, {pending, newPlain}},
         u"new",
         false},
        {"switched, old key gone", {{data, oldData}, {pending, newPlain}}, u"new", false},
        {"moved, pending key left",
         {{data, newKeyed}, {key, newKey}, {pendingKey, newKey}},
         u"new",
         true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        for (const auto& e : fs::directory_iterator(dir.path())) fs::remove(e.path());
        for (const auto& [file, bytes] : row.files) writeFile(file, bytes);
        CSecStore read(log, u16(data), true);  // whatever it was made with, the files decide
        ASSERT_TRUE(read.fetch());
        EXPECT_EQ(read.get(u"user_param"), row.reads);
        EXPECT_EQ(read.usesKeyFile(), row.keyFile);

        CSecStore next(log, u16(data));
        next.add(u"user_param", u"next");
        ASSERT_TRUE(next.store());
        EXPECT_FALSE(fs::exists(pending));
        EXPECT_FALSE(fs::exists(pendingKey));
        EXPECT_FALSE(fs::exists(key));  // the built-in key: no key file beside it
        CSecStore back(log, u16(data));
        ASSERT_TRUE(back.fetch());
        EXPECT_EQ(back.get(u"user_param"), u"next");
        // The backup keeps the file that was read.
        const std::string wasRead = row.reads == std::u16string(u"old") ? oldData
                                    : row.keyFile                       ? newKeyed
                                                                        : newPlain;
        int backups = 0;
        for (const auto& e : fs::directory_iterator(dir.path())) {
            const std::string name = e.path().filename().string();
            if (!std::regex_match(name, std::regex(R"(conn\.dat\.\d{14})"))) continue;
            ++backups;
            EXPECT_EQ(readFile(e.path()), wasRead);
        }
        EXPECT_EQ(backups, 1);
    }
}

// A stale pending key that cannot be removed would join the next pair: the
// store refuses, says why, and the old pair stays as it was.
TEST_F(StoreFiles, StalePendingKeyThatCannotGoStopsTheStore) {
    const std::string oldData = binaryFile("user_param=old;", CSecStore::ms_key);
    writeFile(data, oldData);
    fs::create_directory(dir / "conn.dat.key.new");
    CSecStore store(log, u16(data), true);
    store.add(u"user_param", u"new");
    EXPECT_FALSE(store.store());
    EXPECT_EQ(log.messages().back(),
              "Failed to remove key file " + data.string() + ".key.new: Is a directory");
    EXPECT_EQ(readFile(data), oldData);
    EXPECT_FALSE(fs::exists(key));
}

// Every bad connection or key file fails with its message and leaves no entries.
TEST_F(StoreFiles, BadFilesFail) {
    const std::string valid =
        binaryFile("host_param=registry.example.org;user_param=admin;", CSecStore::ms_key);
    std::string garbage;
    for (int i = 0; i < 301; ++i) garbage.push_back(static_cast<char>((i * 149 + 17) % 256));
    const std::string badData = "Invalid data found in encryted file '" + data.string() + "'";
    const std::string badKey = "Key size incorrect. Invalid key file " + key.string();
    const size_t kMax = CSecStore::ms_maxFileSize;
    const struct {
        const char* name;
        std::optional<std::string> dataBytes;
        std::optional<std::string> keyBytes;
        std::string message;
        std::string earlier = "";  // logged before it, when not empty
    } rows[] = {
        {"no data file", {}, {}, "Failed to open destination file '" + data.string() + "'"},
        {"empty", "", {}, badData},
        {"three header bytes", HEADER.substr(0, 3), {}, badData},
        {"header only",
         HEADER,
         {},
         badData,
         "Invalid data found in binary encryted file, trying to read old format"},
        {"cut inside the first entry", valid.substr(0, 4 + 15), {}, badData},
        {"cut one byte into the file", valid.substr(1), {}, badData},
        {"garbage", garbage, {}, badData},
        {"header and garbage", HEADER + garbage, {}, badData},
        {"blanks and garbage", "    " + garbage, {}, badData},
        {"zero units only", std::string(40, '\0'), {}, badData},
        {"odd length text", "    !", {}, badData},
        {"another key, no key file", binaryFile("a=1;b=2;", otherKey), {}, badData},
        {"another key in the key file", valid, OTHER_KEY_FILE, badData},
        {"seven key bytes", valid, HEADER + "1234567", badKey},
        {"nine key bytes", valid, HEADER + "123456789", badKey},
        {"key header only", valid, HEADER, badKey,
         "Key size in binary format invalid, trying to read old format"},
        {"empty key file", valid, "", badKey},
        {"seven key units", valid, units(u"1234567"), badKey},
        {"zero unit cuts the key", valid, units(u"1234") + units(u"5678"), badKey},
        {"odd key byte", valid, "x", badKey},
        {"seven key units and an odd byte", valid, units(u"1234567").substr(0, 14) + "x", badKey},
        {"data file at the size bound", HEADER + std::string(kMax - 4, 'x'), {}, badData},
        {"data file beyond the size bound",
         HEADER + std::string(kMax - 3, 'x'),
         {},
         "Failed to read data file '" + data.string() + "'"},
        {"key file at the size bound", valid, std::string(kMax, 'k'), badKey,
         "Use key file '" + key.string() + "' for data decryption"},
        {"key file beyond the size bound", valid, std::string(kMax + 1, 'k'), badKey,
         "Failed to read key file " + key.string()},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        fs::remove(data);
        fs::remove(key);
        if (row.dataBytes) writeFile(data, *row.dataBytes);
        if (row.keyBytes) writeFile(key, *row.keyBytes);
        CSecStore store(log, u16(data));
        store.add(u"stale", u"entry");
        EXPECT_FALSE(store.fetch());
        EXPECT_TRUE(store.getAll().empty());
        ASSERT_FALSE(log.messages().empty());
        EXPECT_EQ(log.messages().back(), row.message);
        if (!row.earlier.empty()) {
            EXPECT_THAT(log.messages(), testing::Contains(row.earlier));
        }
    }
}

}  // namespace
}  // namespace kivreg::test
