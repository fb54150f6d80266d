#include "secstore/CSecStore.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/rand.h>
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

// The older files hold 16-bit units low byte first, as the x86 hosts that
// wrote them kept them in memory; they are read so on every host. Up to the
// first zero unit; an odd last byte belongs to no unit.
std::u16string unitsOf(std::string_view bytes) {
    std::u16string out;
    for (size_t pos = 0; pos + 1 < bytes.size(); pos += 2) {
        const char16_t unit =
            static_cast<char16_t>(static_cast<unsigned char>(bytes[pos]) |
                                  static_cast<unsigned char>(bytes[pos + 1]) << 8);
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
    if (!useKeyFile) return;
    generateKey();
    m_useKeyFile = true;
}

CSecStore::~CSecStore() {
    if (m_randKey) OPENSSL_cleanse(m_randKey->data(), m_randKey->size());
}

void CSecStore::add(const std::u16string& key, const std::u16string& value) {
    m_entries.emplace(key, value);
}

std::u16string CSecStore::get(const std::u16string& key) const {
    const auto it = m_entries.find(key);
    return it == m_entries.end() ? std::u16string() : it->second;
}

void CSecStore::generateKey() {
    std::array<unsigned char, ms_keyLen> key;
    if (RAND_bytes(key.data(), static_cast<int>(key.size())) != 1)
        throw std::system_error(errno, std::generic_category(), "no random source for the key");
    setRandKeyBinary(key.data());
    OPENSSL_cleanse(key.data(), key.size());
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

std::u16string CSecStore::decrypt(const std::u16string& text, const unsigned char* key) {
    // The bytes of the units as the file held them, low byte first.
    std::string raw;
    raw.reserve(text.size() * 2);
    for (const char16_t unit : text)
        raw += {static_cast<char>(unit & 0xFF), static_cast<char>(unit >> 8)};
    // Without the four blanks the string is the still older form whose
    // units hold the cipher bytes themselves.
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

std::u16string CSecStore::getFileUnifier() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    char text[32];
    if (localtime_r(&now, &local) != nullptr &&
        std::strftime(text, sizeof text, "%Y%m%d%H%M%S", &local) > 0)
        return std::u16string(text, text + std::strlen(text));
    return CGetStr<unsigned int>::get(std::random_device{}());
}

bool CSecStore::unifyFile(const std::u16string& path, const std::u16string& stamp,
                          std::u16string* made) {
    if (!openForReading(path).ok()) return true;
    const std::string from = nativePath(path);
    const std::u16string stamped = path + u"." + stamp;
    constexpr int MAX_SUFFIX = 10000;
    std::u16string target = stamped;
    // A second name for the file: it stays readable at its own name until
    // its replacement is whole. No earlier backup is ever replaced.
    int rc = ::link(from.c_str(), nativePath(target).c_str());
    for (int n = 1; rc != 0 && errno == EEXIST && n < MAX_SUFFIX; ++n) {
        target = stamped + u"." + CGetStr<int>::get(n);
        rc = ::link(from.c_str(), nativePath(target).c_str());
    }
    if (rc == 0) {
        *m_log << timestamp << u"Renamed file '" << path << u"' to '" << target << u"'" << endlog;
        if (made) *made = target;
        return true;
    }
    const int err = errno;
    *m_log << timestamp << u"Can not rename file '" << path << u"' to '" << target << u"' [RC="
           << err << u"/" << std::strerror(err) << u"]" << endlog;
    return false;
}

// A connection file and its key file cannot be replaced in one step, and a
// stop between the two would pair the new file with the old key (or the old
// file with the new key, or with none). So the new pair is first written
// whole beside the old one as "<file>.new" and "<file>.key.new": the rename
// that makes "<file>.new" appear is the one step that switches from the old
// pair to the new. While it exists, fetch reads the new pair from the ".new"
// names (no "<file>.key.new": the built-in key), whatever state the old names
// are in; once the old names hold the new pair it is removed, last.
std::u16string CSecStore::pendingName() const {
    return m_fileName + u".new";
}

namespace {

// Reports a failure with the file and the system's reason; always false.
bool failed(CLog& log, const char16_t* what, const std::u16string& path, int error) {
    log << timestamp << what << path << u": " << std::strerror(error) << endlog;
    return false;
}

std::string withHeader(const unsigned char* data, size_t size) {
    std::string bytes(reinterpret_cast<const char*>(CSecStore::utf8_header),
                      CSecStore::utf8_header_size);
    bytes.append(reinterpret_cast<const char*>(data), size);
    return bytes;
}

}  // namespace

bool CSecStore::installPending(rt::PendingFile* key) {
    const std::string file = nativePath(m_fileName);
    const std::string keyFile = nativePath(getKeyFileName());
    // The key goes to its place first: until the data file follows, readers
    // still take both from the ".new" names.
    if (key ? !key->renameTo(keyFile) : !rt::removeFile(keyFile))
        return failed(*m_log, u"Failed to replace key file ", getKeyFileName(),
                      key ? key->error() : errno);
    if (::rename(nativePath(pendingName()).c_str(), file.c_str()) != 0 ||
        !rt::removeFile(keyFile + ".new") || !rt::syncDirectoryOf(file))
        return failed(*m_log, u"Failed to replace data file ", m_fileName, errno);
    return true;
}

// A finished temporary file for the key file, or nothing on failure.
std::unique_ptr<rt::PendingFile> CSecStore::keyFileFor(const std::string& keyBytes) {
    auto key = std::make_unique<rt::PendingFile>(nativePath(getKeyFileName()), S_IRUSR | S_IWUSR);
    if (key->write(keyBytes) && key->finish()) return key;
    failed(*m_log, u"Failed to write key data file ", getKeyFileName(), key->error());
    return nullptr;
}

bool CSecStore::finishPending() {
    const std::string pendingKey = nativePath(getKeyFileName() + u".new");
    if (!openForReading(pendingName()).ok()) {
        // A key written by a store that stopped before its switch belongs to
        // no pair; it must not join the next one.
        if (::unlink(pendingKey.c_str()) == 0 ? rt::syncDirectoryOf(pendingKey) : errno == ENOENT)
            return true;
        return failed(*m_log, u"Failed to remove key file ", getKeyFileName() + u".new", errno);
    }
    std::unique_ptr<rt::PendingFile> key;
    if (const std::optional<std::string> keyBytes = readWhole(getKeyFileName() + u".new")) {
        key = keyFileFor(*keyBytes);
        if (!key) return false;
    }
    return installPending(key.get());
}

bool CSecStore::store() {
    // What an earlier store left half done is finished first, so that the
    // backups below are of the pair readers see.
    if (!finishPending()) return false;

    std::u16string plain = mapToString();
    std::string utf8;
    try {
        utf8 = CCConv::toUTF8Str(plain);
    } catch (const ERegExcept&) {
        // A value that is no valid text cannot be stored; reported below.
    }
    wipe(plain);
    if (utf8.empty()) {
        *m_log << timestamp << u"Failed to write secured data file " << m_fileName << endlog;
        return false;
    }
    const Bytes cipher = encryptBinary(bytePtr(utf8), utf8.size(), activeKey());
    wipe(utf8);

    // Everything that writes data comes before the switch, so that a full
    // disk or any other failure leaves the old pair as it was.
    const std::string pending = nativePath(pendingName());
    const std::string pendingKey = nativePath(getKeyFileName() + u".new");
    rt::PendingFile data(pending, S_IRUSR | S_IWUSR);
    if (!(data.write(withHeader(cipher.data(), cipher.size())) && data.finish()))
        return failed(*m_log, u"Failed to write secured data file ", m_fileName, data.error());
    std::unique_ptr<rt::PendingFile> key;
    if (m_useKeyFile) {
        const std::string keyBytes = withHeader(m_randKey->data(), ms_keyLen);
        key = keyFileFor(keyBytes);
        if (!key) return false;
        rt::PendingFile keyNew(pendingKey, S_IRUSR | S_IWUSR);
        if (!(keyNew.write(keyBytes) && keyNew.finish() && keyNew.renameTo(pendingKey)))
            return failed(*m_log, u"Failed to write key data file ", getKeyFileName(),
                          keyNew.error());
    }
    // The old key goes aside whenever there is one: left in place, it would
    // be taken for the key of a file written under the built-in key.
    // A store that fails before its switch takes its backups back: the old
    // files never left their names.
    const std::u16string keyPath = getKeyFileName();
    const std::u16string stamp = getFileUnifier();
    std::u16string backups[2];
    const auto undo = [&] {
        const int error = errno;
        rt::removeFile(pendingKey);
        for (const std::u16string& backup : backups)
            if (!backup.empty()) rt::removeFile(nativePath(backup));
        return error;
    };
    if (!unifyFile(m_fileName, stamp, &backups[0]) || !unifyFile(keyPath, stamp, &backups[1])) {
        undo();
        *m_log << timestamp << u"Failed to rename already existing configuration files." << endlog;
        return false;
    }
    // The switch. The key beside it must be on the disk first, and the
    // switch itself before the old names change.
    if (!(rt::syncDirectoryOf(pending) && data.renameTo(pending))) {
        const int error = undo();
        return failed(*m_log, u"Failed to write secured data file ", m_fileName,
                      data.ok() ? error : data.error());
    }
    if (!rt::syncDirectoryOf(pending))
        return failed(*m_log, u"Failed to write secured data file ", m_fileName, errno);
    if (!installPending(key.get())) return false;
    *m_log << timestamp << u"Writing data to encrypted file '" << m_fileName << u"'" << endlog;
    *m_log << timestamp << u"Data written to secured data file '" << m_fileName << u"'" << endlog;
    if (m_useKeyFile)
        *m_log << timestamp << u"Data written to key file '" << keyPath << u"'" << endlog;
    return true;
}

bool CSecStore::readKeyFile(const std::u16string& keySource) {
    const std::u16string keyPath = getKeyFileName();
    const Fd fd = openForReading(keySource);
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
    // A store that switched to a new pair but had not yet put it in place:
    // the new pair is the one to read.
    Fd pending = openForReading(pendingName());
    const bool switching = pending.ok();
    const Fd data = switching ? std::move(pending) : openForReading(m_fileName);
    if (!data.ok()) {
        *m_log << timestamp << u"Failed to open destination file '" << m_fileName << u"'" << endlog;
        return false;
    }
    *m_log << timestamp << u"Using destination file '" << m_fileName << u"'." << endlog;
    if (!readKeyFile(getKeyFileName() + (switching ? u".new" : u""))) return false;
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
