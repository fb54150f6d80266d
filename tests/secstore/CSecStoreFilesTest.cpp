#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "secstore/CSecStore.h"
#include "testutil/TestUtil.h"

namespace kivreg {
namespace {

namespace fs = std::filesystem;
using test::LogCapture;
using test::readFile;
using test::TempDir;
using test::u16;
using test::u8;
using test::writeFile;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

const std::string HEADER = "\x15\x0C\x13\x3B";
const unsigned char fixedKey[8] = {0x13, 0x34, 0x57, 0x79, 0x9B, 0xBC, 0xDF, 0xF1};

void fillFive(CSecStore& store, const std::u16string& password = u"s3cr\u00e9t pw") {
    store.add(u"host_param", u"registry.example.org");
    store.add(u"port_param", u"50000");
    store.add(u"user_param", u"admin");
    store.add(u"pass_param", password);
    store.add(u"https_param", u"y");
}

std::string asString(const unsigned char* data, size_t size) {
    return std::string(reinterpret_cast<const char*>(data), size);
}

// A 16-bit text file as earlier releases wrote it: units in little-endian
// byte order and a zero unit behind them.
std::string unitFile(const std::u16string& text) {
    std::string out;
    for (char16_t unit : text) {
        out.push_back(static_cast<char>(unit & 0xFF));
        out.push_back(static_cast<char>(unit >> 8));
    }
    return out + std::string(2, '\0');
}

class StoreFiles : public testing::Test {
protected:
    TempDir dir;
    LogCapture log;
    const fs::path data = dir / "conn.dat";
    const fs::path key = dir / "conn.dat.key";
    std::string dataName = data.string();
    std::string keyName = key.string();

    std::vector<fs::path> backups(const std::string& prefix) const {
        std::vector<fs::path> out;
        for (const auto& e : fs::directory_iterator(dir.path()))
            if (e.path().filename().string().rfind(prefix + ".", 0) == 0) out.push_back(e.path());
        return out;
    }
};

// The file is the header and the UTF-8 plain text encrypted under the key in
// use; the key file, when there is one, the header and the key.
TEST_F(StoreFiles, FiveEntriesRoundTrip) {
    const std::string plain =
        u8(u"host_param=registry.example.org;https_param=y;pass_param=s3cr\u00e9t pw;"
           u"port_param=50000;user_param=admin;");
    for (bool useKeyFile : {false, true}) {
        SCOPED_TRACE(useKeyFile ? "key file" : "built-in key");
        fs::remove(data);
        fs::remove(key);
        LogCapture rowLog;
        std::string keyBytes;
        {
            CSecStore store(rowLog, u16(data), useKeyFile);
            fillFive(store);
            const unsigned char* k = useKeyFile ? store.getRandKeyBinary() : CSecStore::ms_key;
            keyBytes = asString(k, 8);
            ASSERT_TRUE(store.store());
        }
        const auto cipher = CSecStore::encryptBinary(
            reinterpret_cast<const unsigned char*>(plain.data()), plain.size(),
            reinterpret_cast<const unsigned char*>(keyBytes.data()));
        EXPECT_EQ(readFile(data), HEADER + asString(cipher.data(), cipher.size()));
        EXPECT_EQ(fs::exists(key), useKeyFile);
        if (useKeyFile) {
            EXPECT_EQ(readFile(key), HEADER + keyBytes);
        }

        CSecStore back(rowLog, u16(data));  // the key file beside the data decides
        ASSERT_TRUE(back.fetch());
        EXPECT_EQ(back.usesKeyFile(), useKeyFile);
        EXPECT_EQ(back.getAll().size(), 5u);
        EXPECT_EQ(back.get(u"pass_param"), u"s3cr\u00e9t pw");
        EXPECT_EQ(back.get(u"host_param"), u"registry.example.org");

        std::vector<std::string> expected = {
            "Writing data to encrypted file '" + dataName + "'",
            "Data written to secured data file '" + dataName + "'"};
        if (useKeyFile) expected.push_back("Data written to key file '" + keyName + "'");
        expected.push_back("Using destination file '" + dataName + "'.");
        expected.push_back(useKeyFile ? "Use binary key file '" + keyName + "' for data decryption"
                                      : "No key file '" + keyName + "' used.");
        expected.push_back("Use encryted destination file '" + dataName + "' as data source");
        EXPECT_EQ(rowLog.messages(), expected);
        EXPECT_THAT(rowLog.text(), Not(HasSubstr("s3cr")));
    }
}

// Plain texts of every length around the block boundary survive the files.
TEST_F(StoreFiles, ValueLengthsAroundTheBlockBoundaryRoundTrip) {
    // "a=" plus the value plus ";" is the whole plain text.
    for (size_t valueLen : {4, 5, 6, 12, 13, 14, 15, 29}) {
        for (bool useKeyFile : {false, true}) {
            SCOPED_TRACE(std::to_string(valueLen) + (useKeyFile ? " key file" : " built-in key"));
            const std::u16string value(valueLen, u'v');
            CSecStore store(log, u16(data), useKeyFile);
            store.add(u"a", value);
            ASSERT_TRUE(store.store());
            EXPECT_EQ(fs::file_size(data), 4 + valueLen + 3);
            CSecStore back(log, u16(data));
            ASSERT_TRUE(back.fetch());
            EXPECT_EQ(back.get(u"a"), value);
            fs::remove(key);
        }
    }
}

TEST_F(StoreFiles, FilesAreOwnerOnlyWhateverTheUmask) {
    const mode_t old = ::umask(0);
    CSecStore store(log, u16(data), true);
    fillFive(store);
    const bool stored = store.store();
    ::umask(old);
    ASSERT_TRUE(stored);
    for (const fs::path& p : {data, key}) {
        SCOPED_TRACE(p.string());
        struct stat st;
        ASSERT_EQ(::stat(p.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0600u);
    }
}

TEST_F(StoreFiles, SecondStoreMovesBothFilesAsideWithATimeStamp) {
    {
        CSecStore first(log, u16(data), true);
        fillFive(first, u"one");
        ASSERT_TRUE(first.store());
    }
    const std::string firstData = readFile(data);
    const std::string firstKey = readFile(key);
    {
        CSecStore second(log, u16(data), true);
        fillFive(second, u"two");
        ASSERT_TRUE(second.store());
    }
    const std::regex stamped(R"(conn\.dat(\.key)?\.\d{14})");
    std::vector<fs::path> aside = backups("conn.dat");
    std::erase_if(aside, [](const fs::path& p) { return p.filename() == "conn.dat.key"; });
    ASSERT_EQ(aside.size(), 2u);
    for (const fs::path& p : aside) {
        SCOPED_TRACE(p.string());
        EXPECT_TRUE(std::regex_match(p.filename().string(), stamped));
        const bool isKey = p.filename().string().find(".key.") != std::string::npos;
        EXPECT_EQ(readFile(p), isKey ? firstKey : firstData);
        EXPECT_EQ(p.string(),
                  (isKey ? keyName : dataName) + p.string().substr(p.string().rfind('.')));
        EXPECT_THAT(log.text(), HasSubstr("Renamed file '" + (isKey ? keyName : dataName) +
                                          "' to '" + p.string() + "'"));
    }
    CSecStore back(log, u16(data));
    ASSERT_TRUE(back.fetch());
    EXPECT_EQ(back.get(u"pass_param"), u"two");
}

TEST_F(StoreFiles, TakenBackupNamesGetANumberedSuffix) {
    const std::u16string stamp = u"20240131235959";
    writeFile(data, "newest");
    writeFile(dir / "conn.dat.20240131235959", "earlier backup");
    CSecStore store(log, u16(data));
    ASSERT_TRUE(store.unifyFile(u16(data), stamp));
    EXPECT_EQ(readFile(dir / "conn.dat.20240131235959"), "earlier backup");
    EXPECT_EQ(readFile(dir / "conn.dat.20240131235959.1"), "newest");
    EXPECT_FALSE(fs::exists(data));

    writeFile(data, "newer still");
    ASSERT_TRUE(store.unifyFile(u16(data), stamp));
    EXPECT_EQ(readFile(dir / "conn.dat.20240131235959.1"), "newest");
    EXPECT_EQ(readFile(dir / "conn.dat.20240131235959.2"), "newer still");
    EXPECT_THAT(
        log.messages(),
        ElementsAre("Renamed file '" + dataName + "' to '" + dataName + ".20240131235959.1'",
                    "Renamed file '" + dataName + "' to '" + dataName + ".20240131235959.2'"));

    // A missing file is nothing to move.
    EXPECT_TRUE(store.unifyFile(u16(dir / "absent"), stamp));
    EXPECT_TRUE(std::regex_match(u8(CSecStore::getFileUnifier()), std::regex(R"(\d{14})")));
}

TEST_F(StoreFiles, StoreFailures) {
    {
        CSecStore empty(log, u16(data));
        EXPECT_FALSE(empty.store());
    }
    EXPECT_THAT(log.messages(), ElementsAre("Writing data to encrypted file '" + dataName + "'",
                                            "Failed to write secured data file " + dataName));

    LogCapture log2;
    const std::string missing = (dir / "no-such-dir" / "conn.dat").string();
    CSecStore nowhere(log2, u16(missing), true);
    fillFive(nowhere);
    EXPECT_FALSE(nowhere.store());
    EXPECT_THAT(log2.messages(), ElementsAre("Failed to create data file " + missing));

    // A data file name at the length limit leaves no room for ".key".
    LogCapture log3;
    const fs::path longName = dir / std::string(253, 'k');
    CSecStore blocked(log3, u16(longName), true);
    fillFive(blocked);
    EXPECT_FALSE(blocked.store());
    EXPECT_THAT(log3.messages(),
                ElementsAre("Failed to create key file " + longName.string() + ".key"));
}

TEST_F(StoreFiles, RenameFailureStopsTheStore) {
    const fs::path longName = dir / std::string(250, 'c');
    writeFile(longName, "old");
    CSecStore store(log, u16(longName));
    fillFive(store);
    EXPECT_FALSE(store.store());
    EXPECT_EQ(readFile(longName), "old");
    const std::vector<std::string> messages = log.messages();
    ASSERT_EQ(messages.size(), 2u);
    const std::string prefix =
        "Can not rename file '" + longName.string() + "' to '" + longName.string() + ".";
    EXPECT_EQ(messages[0].substr(0, prefix.size()), prefix);
    EXPECT_TRUE(std::regex_match(messages[0].substr(prefix.size()),
                                 std::regex(R"(\d{14}' \[RC=36/File name too long\])")))
        << messages[0];
    EXPECT_EQ(messages[1], "Failed to rename already existing configuration files.");
}

TEST_F(StoreFiles, OldTextConnectionFileIsRead) {
    const std::u16string plain = u"host_param=h1;pass_param=pw;port_param=50000;user_param=admin;";
    writeFile(data, unitFile(CSecStore::encrypt(plain, CSecStore::ms_key)));
    CSecStore store(log, u16(data));
    ASSERT_TRUE(store.fetch());
    EXPECT_EQ(store.mapToString(), plain);
    EXPECT_THAT(log.messages(), ElementsAre("Using destination file '" + dataName + "'.",
                                            "No key file '" + keyName + "' used."));
}

TEST_F(StoreFiles, OldKeyFileWithBinaryAndOldDataFiles) {
    const std::u16string plain = u"host_param=h2;user_param=u;";
    const std::string keyText = unitFile(std::u16string(fixedKey, fixedKey + 8));
    const std::string utf8 = u8(plain);
    const auto cipher = CSecStore::encryptBinary(
        reinterpret_cast<const unsigned char*>(utf8.data()), utf8.size(), fixedKey);
    struct Row {
        const char* name;
        std::string dataBytes;
    };
    const Row rows[] = {
        {"binary data", HEADER + asString(cipher.data(), cipher.size())},
        {"old text data", unitFile(CSecStore::encrypt(plain, fixedKey))},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        writeFile(key, keyText);
        writeFile(data, row.dataBytes);
        LogCapture rowLog;
        CSecStore store(rowLog, u16(data));
        ASSERT_TRUE(store.fetch());
        EXPECT_TRUE(store.usesKeyFile());
        EXPECT_EQ(store.mapToString(), plain);
        EXPECT_THAT(rowLog.text(), HasSubstr("Use key file '" + keyName + "' for data decryption"));
    }
}

// A file whose cipher text was made under another key decrypts to garbage:
// not valid UTF-8, so the old form is tried, which finds no ";" either.
TEST_F(StoreFiles, WrongKeyFailsThroughBothForms) {
    {
        CSecStore store(log, u16(data), true);
        store.setRandKeyBinary(fixedKey);
        fillFive(store);
        ASSERT_TRUE(store.store());
    }
    fs::remove(key);
    LogCapture readLog;
    CSecStore back(readLog, u16(data));
    EXPECT_FALSE(back.fetch());
    EXPECT_TRUE(back.getAll().empty());
    EXPECT_THAT(readLog.messages(),
                ElementsAre("Using destination file '" + dataName + "'.",
                            "No key file '" + keyName + "' used.",
                            "Use encryted destination file '" + dataName + "' as data source",
                            "Invalid data found in binary encryted file, trying to read old format",
                            "Invalid data found in encryted file '" + dataName + "'"));
}

// Bad connection files: every one fails with the old-form message, leaves no
// entries and reads nothing beyond the file.
TEST_F(StoreFiles, BadConnectionFilesFail) {
    std::string valid;
    {
        CSecStore store(log, u16(data));
        fillFive(store);
        ASSERT_TRUE(store.store());
        valid = readFile(data);
    }
    std::string garbage;
    for (int i = 0; i < 301; ++i) garbage.push_back(static_cast<char>((i * 149 + 17) % 256));
    struct Row {
        const char* name;
        std::string bytes;
        bool binary;  // begins with the header
    };
    const Row rows[] = {
        {"empty", "", false},
        {"one byte", "\x15", false},
        {"three header bytes", HEADER.substr(0, 3), false},
        {"header only", HEADER, true},
        {"header and one byte", HEADER + "x", true},
        {"cut inside the first entry", valid.substr(0, 4 + 15), true},
        {"cut one byte into the file", valid.substr(1), false},
        {"garbage", garbage, false},
        {"header and garbage", HEADER + garbage, true},
        {"blank nibble prefix and garbage", "    " + garbage, false},
        {"zero units only", std::string(40, '\0'), false},
        {"odd length text", "    !", false},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        writeFile(data, row.bytes);
        LogCapture rowLog;
        CSecStore store(rowLog, u16(data));
        store.add(u"stale", u"entry");
        EXPECT_FALSE(store.fetch());
        EXPECT_TRUE(store.getAll().empty());
        std::vector<std::string> expected = {"Using destination file '" + dataName + "'.",
                                             "No key file '" + keyName + "' used."};
        if (row.binary) {
            expected.push_back("Use encryted destination file '" + dataName + "' as data source");
            expected.push_back(
                "Invalid data found in binary encryted file, trying to read old format");
        }
        expected.push_back("Invalid data found in encryted file '" + dataName + "'");
        EXPECT_EQ(rowLog.messages(), expected);
    }
}

TEST_F(StoreFiles, BadKeyFilesFail) {
    {
        CSecStore store(log, u16(data), true);
        store.setRandKeyBinary(fixedKey);
        fillFive(store);
        ASSERT_TRUE(store.store());
    }
    const std::string badSize = "Key size in binary format invalid, trying to read old format";
    const std::string useOld = "Use key file '" + keyName + "' for data decryption";
    const std::string incorrect = "Key size incorrect. Invalid key file " + keyName;
    struct Row {
        const char* name;
        std::string bytes;
        std::vector<std::string> keyMessages;
    };
    const Row rows[] = {
        {"seven key bytes", HEADER + "1234567", {badSize, useOld, incorrect}},
        {"nine key bytes", HEADER + "123456789", {badSize, useOld, incorrect}},
        {"header only", HEADER, {badSize, useOld, incorrect}},
        {"empty", "", {useOld, incorrect}},
        {"seven units", unitFile(u"1234567"), {useOld, incorrect}},
        {"nine units", unitFile(u"123456789"), {useOld, incorrect}},
        {"zero unit cuts the text", unitFile(u"1234") + unitFile(u"5678"), {useOld, incorrect}},
        {"odd byte", "x", {useOld, incorrect}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        writeFile(key, row.bytes);
        LogCapture rowLog;
        CSecStore store(rowLog, u16(data));
        EXPECT_FALSE(store.fetch());
        EXPECT_TRUE(store.getAll().empty());
        std::vector<std::string> expected = {"Using destination file '" + dataName + "'."};
        expected.insert(expected.end(), row.keyMessages.begin(), row.keyMessages.end());
        EXPECT_EQ(rowLog.messages(), expected);
    }
}

TEST_F(StoreFiles, MissingConnectionFile) {
    CSecStore store(log, u16(data));
    EXPECT_FALSE(store.fetch());
    EXPECT_THAT(log.messages(), ElementsAre("Failed to open destination file '" + dataName + "'"));
}

}  // namespace
}  // namespace kivreg
