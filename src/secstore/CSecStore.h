#pragma once
// The connection store: the HTTP connection settings (user, password, host,
// port, HTTPS switch) kept in a DES-encrypted connection file, under either
// the built-in key or a random key written beside it in "<file>.key".
//
// Files are written in the binary form (header 15 0C 13 3B, then the cipher
// text); files of earlier releases, held as 16-bit text, are still read.
// Nothing here writes a value to the log: messages name files only.

#include <array>
#include <cstddef>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/FileIo.h"
#include "support/CLog.h"

namespace kivreg {

class CSecStore {
public:
    using Entries = std::map<std::u16string, std::u16string>;
    using Bytes = std::vector<unsigned char>;

    static const std::u16string ms_sep;  // ends every entry in the plain text
    static const std::u16string ms_eq;   // separates key and value
    static constexpr size_t ms_keyLen = 8;
    static constexpr int ms_maxKeyValue = 255;
    static const unsigned char ms_key[ms_keyLen];  // the built-in key
    static constexpr size_t utf8_header_size = 4;
    static const unsigned char utf8_header[utf8_header_size];
    // Settings take a few hundred bytes: a larger connection or key file is
    // not one, and is not read into memory.
    static constexpr size_t ms_maxFileSize = size_t{1} << 20;

    // Built-in key.
    CSecStore(CLog* log, const std::u16string& fileName);
    // With useKeyFile a random key is generated at once.
    CSecStore(CLog* log, const std::u16string& fileName, bool useKeyFile);
    ~CSecStore();
    CSecStore(const CSecStore&) = delete;
    CSecStore& operator=(const CSecStore&) = delete;

    // Keeps an existing value: the first add of a key wins.
    void add(const std::u16string& key, const std::u16string& value);
    // Empty when the key is absent.
    std::u16string get(const std::u16string& key) const;
    const Entries& getAll() const { return m_entries; }

    // Writes the connection file (and the key file when one is used) and
    // keeps the earlier ones under a time-stamped name. Whatever stops it,
    // the old pair or the new one is read afterwards, never a mix. False,
    // with a log line naming the file and the reason, on any failure.
    bool store();
    // Reads the connection file, with the key of the key file when one lies
    // beside it. On failure the entries are left empty.
    bool fetch();

    // Keeps `path` also as "<path>.<stamp>" (".1", ".2", ... appended when
    // that name is taken). A file that cannot be opened counts as done.
    // made: the backup's name, when one was made.
    bool unifyFile(const std::u16string& path, const std::u16string& stamp,
                   std::u16string* made = nullptr);
    // Local time as "%Y%m%d%H%M%S".
    static std::u16string getFileUnifier();

    bool usesKeyFile() const { return m_useKeyFile; }
    const std::u16string& getFileName() const { return m_fileName; }
    std::u16string getKeyFileName() const { return m_fileName + u".key"; }

    // The random key: from OpenSSL's generator, seeded by the operating system.
    void generateKey();
    // Takes the low byte of each of exactly ms_keyLen units; false otherwise.
    bool setRandKey(const std::u16string& keyText);
    void setRandKeyBinary(const unsigned char* key);

    // The old text form, still read: bytes of the 16-bit text (high byte
    // first), encrypted, written as nibble text and packed two characters to
    // a unit.
    static std::u16string decrypt(const std::u16string& text, const unsigned char* key);
    // The binary form: a copy of the data, encrypted in place; same length.
    static Bytes encryptBinary(const unsigned char* data, size_t size, const unsigned char* key);
    static Bytes decryptBinary(const unsigned char* data, size_t size, const unsigned char* key);

    // Four blanks, then per byte the low and the high nibble plus 0x20.
    // Nothing when the four leading blanks are missing.
    static std::optional<Bytes> decodeBytes(std::string_view text);

    // "key=value;" for every entry in key order.
    std::u16string mapToString() const;
    // Replaces the entries by those of a plain text.
    void stringToMap(const std::u16string& text);

private:
    // "<file>.new": the new pair while a store switches over to it.
    std::u16string pendingName() const;
    // Puts the pending pair in place of the old one (key: the finished key
    // file, null for the built-in key).
    bool installPending(rt::PendingFile* key);
    std::unique_ptr<rt::PendingFile> keyFileFor(const std::string& keyBytes);
    // Completes or discards what a stopped store left.
    bool finishPending();
    const unsigned char* activeKey() const;
    // The key of the pair from keySource; messages name the key file.
    bool readKeyFile(const std::u16string& keySource);
    // Takes the entries from a decrypted text holding at least one ";" and
    // clears the text either way.
    bool takePlainText(std::u16string& text);

    CLog* m_log;
    std::u16string m_fileName;
    Entries m_entries;
    std::optional<std::array<unsigned char, ms_keyLen>> m_randKey;
    bool m_useKeyFile = false;
};

}  // namespace kivreg
