#include "secstore/CSecStore.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <random>
#include <system_error>

#include "runtime/FileIo.h"
#include "secstore/DesCipher.h"
#include "support/CCConv.h"
#include "support/CGetStr.h"

namespace kivreg {

const std::u16string CSecStore::ms_sep = u";";
const std::u16string CSecStore::ms_eq = u"=";
const unsigned char CSecStore::ms_key[ms_keyLen] = {0x3A, 0x91, 0xC4, 0x07, 0x5E, 0xB2, 0x68, 0xFD};
const unsigned char CSecStore::utf8_header[utf8_header_size] = {0x15, 0x0C, 0x13, 0x3B};

namespace {

// File names that cannot be represented (unpaired surrogates) still give some
// name; opening it then simply fails or finds nothing.
std::string nativePath(const std::u16string& path) {
    std::string out;
    appendUtf8Lenient(out, path);
    return out;
}

class Fd {
public:
    explicit Fd(int fd) : m_fd(fd) {}
    ~Fd() {
        if (m_fd >= 0) ::close(m_fd);
    }
    Fd(Fd&& other) noexcept : m_fd(other.m_fd) { other.m_fd = -1; }
    Fd& operator=(Fd&&) = delete;
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return m_fd; }
    bool ok() const { return m_fd >= 0; }
    bool close() {
        const int fd = m_fd;
        m_fd = -1;
        return fd < 0 || ::close(fd) == 0;
    }

private:
    int m_fd;
};

Fd openForReading(const std::u16string& path) {
    return Fd(::open(nativePath(path).c_str(), O_RDONLY | O_CLOEXEC));
}

// Owner-only whatever the umask; fchmod also narrows a file that existed.
Fd createForWriting(const std::u16string& path) {
    Fd fd(::open(nativePath(path).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC,
                 S_IRUSR | S_IWUSR));
    if (fd.ok() && ::fchmod(fd.get(), S_IRUSR | S_IWUSR) != 0) return Fd(-1);
    return fd;
}

// A file beyond the bound counts as unreadable.
std::optional<std::string> readAll(const Fd& fd) {
    std::string out;
    char chunk[4096];
    for (;;) {
        const ssize_t n = ::read(fd.get(), chunk, sizeof chunk);
        if (n == 0) return out;
        if (n < 0) {
            if (errno == EINTR) continue;
            return std::nullopt;
        }
        if (out.size() + static_cast<size_t>(n) > CSecStore::ms_maxFileSize) return std::nullopt;
        out.append(chunk, static_cast<size_t>(n));
    }
}

std::optional<std::string> readWhole(const std::u16string& path) {
    const Fd fd = openForReading(path);
    if (!fd.ok()) return std::nullopt;
    return readAll(fd);
}

bool writeWithHeader(const Fd& fd, const unsigned char* data, size_t size) {
    return rt::writeAll(fd.get(), CSecStore::utf8_header, CSecStore::utf8_header_size) &&
           size > 0 && rt::writeAll(fd.get(), data, size);
}

// Units in machine byte order up to the first zero unit; an odd last byte
// belongs to no unit.
std::u16string unitsOf(std::string_view bytes) {
    std::u16string out;
    for (size_t pos = 0; pos + 1 < bytes.size(); pos += 2) {
        char16_t unit;
        std::memcpy(&unit, bytes.data() + pos, sizeof unit);
        if (unit == 0) break;
        out.push_back(unit);
    }
    return out;
}

std::optional<CSecStore::Bytes> payloadBehindHeader(std::string_view bytes) {
    if (bytes.size() < CSecStore::utf8_header_size ||
        std::memcmp(bytes.data(), CSecStore::utf8_header, CSecStore::utf8_header_size) != 0)
        return std::nullopt;
    return CSecStore::Bytes(bytes.begin() + CSecStore::utf8_header_size, bytes.end());
}

const unsigned char* bytePtr(const std::string& s) {
    return reinterpret_cast<const unsigned char*>(s.data());
}

// No rename may replace an earlier backup; renameat2 makes that check and the
// rename one step where the file system supports it.
int renameNoReplace(const std::string& from, const std::string& to) {
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
    if (errno != EINVAL && errno != ENOSYS) return -1;
    struct stat st;
    if (::lstat(to.c_str(), &st) == 0) {
        errno = EEXIST;
        return -1;
    }
    return std::rename(from.c_str(), to.c_str());
}

// Plain text holds the password: clear it before the memory goes back.
template <typename Buffer>
void wipe(Buffer& buffer) {
    if (!buffer.empty()) OPENSSL_cleanse(buffer.data(), buffer.size() * sizeof(buffer[0]));
}

}  // namespace

CSecStore::CSecStore(CLog* log, const std::u16string& fileName)
    : m_log(log), m_fileName(fileName) {}

CSecStore::CSecStore(CLog* log, const std::u16string& fileName, bool useKeyFile)
    : CSecStore(log, fileName) {
    if (useKeyFile) setKeyFile();
}

CSecStore::~CSecStore() {
    unsetKeyFile();
}

void CSecStore::add(const std::u16string& key, const std::u16string& value) {
    m_entries.emplace(key, value);
}

std::u16string CSecStore::get(const std::u16string& key) const {
    const auto it = m_entries.find(key);
    return it == m_entries.end() ? std::u16string() : it->second;
}

void CSecStore::remove(const std::u16string& key) {
    m_entries.erase(key);
}

void CSecStore::setKeyFile() {
    if (!m_randKey) generateKey();
    m_useKeyFile = true;
}

void CSecStore::unsetKeyFile() {
    if (m_randKey) OPENSSL_cleanse(m_randKey->data(), m_randKey->size());
    m_randKey.reset();
    m_useKeyFile = false;
}

void CSecStore::generateKey() {
    std::array<unsigned char, ms_keyLen> key;
    size_t got = 0;
    while (got < key.size()) {
        const ssize_t n = ::getrandom(key.data() + got, key.size() - got, 0);
        if (n > 0) {
            got += static_cast<size_t>(n);
        } else if (n < 0 && errno != EINTR) {
            break;
        }
    }
    if (got < key.size() && RAND_bytes(key.data(), static_cast<int>(key.size())) != 1)
        throw std::system_error(errno, std::generic_category(), "no random source for the key");
    setRandKeyBinary(key.data());
    OPENSSL_cleanse(key.data(), key.size());
}

std::u16string CSecStore::getRandKeyString() const {
    std::u16string out;
    if (m_randKey)
        for (unsigned char b : *m_randKey) out.push_back(b);
    return out;
}

bool CSecStore::setRandKey(const std::u16string& keyText) {
    if (keyText.size() != ms_keyLen) return false;
    std::array<unsigned char, ms_keyLen> key;
    for (size_t i = 0; i < ms_keyLen; ++i) key[i] = static_cast<unsigned char>(keyText[i] & 0xFF);
    setRandKeyBinary(key.data());
    return true;
}

void CSecStore::setRandKeyBinary(const unsigned char* key) {
    m_randKey.emplace();
    std::memcpy(m_randKey->data(), key, ms_keyLen);
}

const unsigned char* CSecStore::getRandKeyBinary() const {
    return m_randKey ? m_randKey->data() : nullptr;
}

const unsigned char* CSecStore::activeKey() const {
    return m_useKeyFile && m_randKey ? m_randKey->data() : ms_key;
}

CSecStore::Bytes CSecStore::encryptBinary(const unsigned char* data, size_t size,
                                          const unsigned char* key) {
    Bytes out(data, data + size);
    if (size > 0) DesCipher(key).encrypt(out.data(), out.size());
    return out;
}

CSecStore::Bytes CSecStore::decryptBinary(const unsigned char* data, size_t size,
                                          const unsigned char* key) {
    Bytes out(data, data + size);
    if (size > 0) DesCipher(key).decrypt(out.data(), out.size());
    return out;
}

std::string CSecStore::encodeBytes(const Bytes& bytes) {
    std::string out(4, ' ');
    out.reserve(4 + 2 * bytes.size());
    for (unsigned char b : bytes) {
        out.push_back(static_cast<char>((b & 0x0F) + 0x20));
        out.push_back(static_cast<char>((b >> 4) + 0x20));
    }
    return out;
}

std::optional<CSecStore::Bytes> CSecStore::decodeBytes(std::string_view text) {
    if (text.substr(0, 4) != "    ") return std::nullopt;
    Bytes out;
    out.reserve((text.size() - 4) / 2);
    for (size_t pos = 4; pos + 1 < text.size(); pos += 2) {
        const unsigned lo = static_cast<unsigned char>(text[pos]);
        const unsigned hi = static_cast<unsigned char>(text[pos + 1]);
        out.push_back(static_cast<unsigned char>((16 * hi + lo - 0x20) & 0xFF));
    }
    return out;
}

std::u16string CSecStore::encrypt(const std::u16string& text, const unsigned char* key) {
    if (text.empty()) return {};
    Bytes bytes;
    bytes.reserve(2 * text.size());
    for (char16_t unit : text) {
        bytes.push_back(static_cast<unsigned char>(unit >> 8));
        bytes.push_back(static_cast<unsigned char>(unit & 0xFF));
    }
    DesCipher(key).encrypt(bytes.data(), bytes.size());
    const std::string nibbles = encodeBytes(bytes);
    // Two nibble characters to a unit, in memory order: the unit string's
    // bytes are the nibble text itself. Its length is always even.
    std::u16string out(nibbles.size() / 2, u'\0');
    std::memcpy(out.data(), nibbles.data(), nibbles.size());
    return out;
}

std::u16string CSecStore::decrypt(const std::u16string& text, const unsigned char* key) {
    if (text.empty()) return {};
    std::string raw(text.size() * 2, '\0');
    std::memcpy(raw.data(), text.data(), raw.size());
    // Without the four blanks the string is the still older form whose
    // memory holds the cipher bytes themselves.
    Bytes bytes = decodeBytes(raw).value_or(Bytes(raw.begin(), raw.end()));
    if (!bytes.empty()) DesCipher(key).decrypt(bytes.data(), bytes.size());
    std::u16string out;
    for (size_t pos = 0; pos + 1 < bytes.size(); pos += 2) {
        const char16_t unit = static_cast<char16_t>(bytes[pos] << 8 | bytes[pos + 1]);
        if (unit == 0) break;  // the text was held as a zero-terminated string
        out.push_back(unit);
    }
    wipe(bytes);
    return out;
}

std::u16string CSecStore::mapToString() const {
    std::u16string out;
    for (const auto& [key, value] : m_entries) out += key + ms_eq + value + ms_sep;
    return out;
}

void CSecStore::stringToMap(const std::u16string& text) {
    m_entries.clear();
    std::u16string rest = text;
    std::u16string piece;
    std::u16string right;
    // A last piece without ";" is dropped: it is what a cut-off file leaves,
    // and half a value must not pass for a whole one.
    while (CCConv::chop(rest, ms_sep, piece, right)) {
        std::u16string key;
        std::u16string value;
        if (CCConv::chop(piece, ms_eq, key, value))
            m_entries.emplace(std::move(key), std::move(value));
        rest = std::move(right);
    }
    wipe(rest);
    wipe(piece);
}

std::optional<std::u16string> CSecStore::readFile(const std::u16string& path) {
    const std::optional<std::string> bytes = readWhole(path);
    if (!bytes) return std::nullopt;
    return unitsOf(*bytes);
}

bool CSecStore::writeFile(const std::u16string& path, const std::u16string& text) {
    Fd fd = createForWriting(path);
    const char16_t end = 0;
    return fd.ok() && rt::writeAll(fd.get(), text.data(), text.size() * sizeof(char16_t)) &&
           rt::writeAll(fd.get(), &end, sizeof end) && fd.close();
}

std::optional<CSecStore::Bytes> CSecStore::readFileBinary(const std::u16string& path) {
    const std::optional<std::string> bytes = readWhole(path);
    if (!bytes) return std::nullopt;
    return payloadBehindHeader(*bytes);
}

bool CSecStore::writeFileBinary(const std::u16string& path, const Bytes& payload) {
    Fd fd = createForWriting(path);
    return fd.ok() && writeWithHeader(fd, payload.data(), payload.size()) && fd.close();
}

std::u16string CSecStore::getFileUnifier() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    char text[32];
    if (localtime_r(&now, &local) != nullptr &&
        std::strftime(text, sizeof text, "%Y%m%d%H%M%S", &local) > 0)
        return std::u16string(text, text + std::strlen(text));
    return CGetStr<unsigned int>::get(std::random_device{}());
}

bool CSecStore::unifyFile(const std::u16string& path) {
    return unifyFile(path, getFileUnifier());
}

bool CSecStore::unifyFile(const std::u16string& path, const std::u16string& stamp) {
    if (!openForReading(path).ok()) return true;
    const std::string from = nativePath(path);
    const std::u16string stamped = path + u"." + stamp;
    constexpr int MAX_SUFFIX = 10000;
    std::u16string target = stamped;
    int rc = renameNoReplace(from, nativePath(target));
    for (int n = 1; rc != 0 && errno == EEXIST && n < MAX_SUFFIX; ++n) {
        target = stamped + u"." + CGetStr<int>::get(n);
        rc = renameNoReplace(from, nativePath(target));
    }
    if (rc == 0) {
        *m_log << timestamp << u"Renamed file '" << path << u"' to '" << target << u"'" << endlog;
        return true;
    }
    const int err = errno;
    *m_log << timestamp << u"Can not rename file '" << path << u"' to '" << target << u"' [RC="
           << err << u"/" << std::strerror(err) << u"]" << endlog;
    return false;
}

bool CSecStore::renameOnDemand() {
    if (!unifyFile(m_fileName)) return false;
    return !m_useKeyFile || unifyFile(getKeyFileName());
}

bool CSecStore::store() {
    if (!renameOnDemand()) {
        *m_log << timestamp << u"Failed to rename already existing configuration files." << endlog;
        return false;
    }
    Fd data = createForWriting(m_fileName);
    if (!data.ok()) {
        *m_log << timestamp << u"Failed to create data file " << m_fileName << endlog;
        return false;
    }
    const std::u16string keyPath = getKeyFileName();
    Fd key = m_useKeyFile ? createForWriting(keyPath) : Fd(-1);
    if (m_useKeyFile && !key.ok()) {
        *m_log << timestamp << u"Failed to create key file " << keyPath << endlog;
        return false;
    }
    *m_log << timestamp << u"Writing data to encrypted file '" << m_fileName << u"'" << endlog;

    bool written = false;
    std::u16string plain = mapToString();
    try {
        std::string utf8 = CCConv::toUTF8Str(plain);
        Bytes cipher = encryptBinary(bytePtr(utf8), utf8.size(), activeKey());
        written = writeWithHeader(data, cipher.data(), cipher.size());
        wipe(utf8);
    } catch (const ERegExcept&) {
        // A value that is no valid text cannot be stored; reported below.
    }
    wipe(plain);
    written = data.close() && written;
    if (!written) {
        *m_log << timestamp << u"Failed to write secured data file " << m_fileName << endlog;
        return false;
    }
    *m_log << timestamp << u"Data written to secured data file '" << m_fileName << u"'" << endlog;

    if (m_useKeyFile) {
        const bool keyWritten = writeWithHeader(key, m_randKey->data(), ms_keyLen) && key.close();
        if (!keyWritten) {
            *m_log << timestamp << u"Failed to write key data file '" << keyPath << u"'" << endlog;
            return false;
        }
        *m_log << timestamp << u"Data written to key file '" << keyPath << u"'" << endlog;
    }
    return true;
}

bool CSecStore::readKeyFile() {
    const std::u16string keyPath = getKeyFileName();
    const Fd fd = openForReading(keyPath);
    if (!fd.ok()) {
        *m_log << timestamp << u"No key file '" << keyPath << u"' used." << endlog;
        m_useKeyFile = false;
        return true;
    }
    m_useKeyFile = true;
    const std::optional<std::string> bytes = readAll(fd);
    if (bytes) {
        if (const std::optional<Bytes> binary = payloadBehindHeader(*bytes)) {
            if (binary->size() == ms_keyLen) {
                *m_log << timestamp << u"Use binary key file '" << keyPath
                       << u"' for data decryption" << endlog;
                setRandKeyBinary(binary->data());
                return true;
            }
            *m_log << timestamp << u"Key size in binary format invalid, trying to read old format"
                   << endlog;
        }
        *m_log << timestamp << u"Use key file '" << keyPath << u"' for data decryption" << endlog;
    } else {
        *m_log << timestamp << u"Failed to read key file " << keyPath << endlog;
    }
    if (!bytes || !setRandKey(unitsOf(*bytes))) {
        *m_log << timestamp << u"Key size incorrect. Invalid key file " << keyPath << endlog;
        return false;
    }
    return true;
}

bool CSecStore::takePlainText(std::u16string& text) {
    // Decrypted under a wrong key, text has no ";": that, not a checksum,
    // tells a bad file from a good one.
    const bool parsed = text.find(ms_sep) != std::u16string::npos;
    if (parsed) stringToMap(text);
    wipe(text);
    return parsed;
}

bool CSecStore::fetch() {
    m_entries.clear();
    const Fd data = openForReading(m_fileName);
    if (!data.ok()) {
        *m_log << timestamp << u"Failed to open destination file '" << m_fileName << u"'" << endlog;
        return false;
    }
    *m_log << timestamp << u"Using destination file '" << m_fileName << u"'." << endlog;
    if (!readKeyFile()) return false;
    const unsigned char* key = activeKey();

    const std::optional<std::string> content = readAll(data);
    if (!content) {
        *m_log << timestamp << u"Failed to read data file '" << m_fileName << u"'" << endlog;
        return false;
    }
    if (const std::optional<Bytes> cipher = payloadBehindHeader(*content)) {
        *m_log << timestamp << u"Use encryted destination file '" << m_fileName
               << u"' as data source" << endlog;
        Bytes plain = decryptBinary(cipher->data(), cipher->size(), key);
        std::u16string text;
        try {
            text = CCConv::fromUTF8Str(
                std::string_view(reinterpret_cast<const char*>(plain.data()), plain.size()));
        } catch (const ERegExcept&) {
            // A wrong key shows as bytes that are no UTF-8: judged like text without ";".
        }
        wipe(plain);
        if (takePlainText(text)) return true;
        *m_log << timestamp
               << u"Invalid data found in binary encryted file, trying to read old format"
               << endlog;
    }

    std::u16string text = decrypt(unitsOf(*content), key);
    if (!takePlainText(text)) {
        *m_log << timestamp << u"Invalid data found in encryted file '" << m_fileName << u"'"
               << endlog;
        return false;
    }
    return true;
}

}  // namespace kivreg
