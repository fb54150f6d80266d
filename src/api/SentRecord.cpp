#include "api/SentRecord.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>

#include "api/Delivery.h"
#include "api/Vocabulary.h"
#include "http/CHttpProxy.h"
#include "runtime/FileIo.h"
#include "runtime/Sha256.h"
#include "support/CCConv.h"
#include "support/Decimal.h"

namespace kivreg::api {
namespace {

constexpr size_t kPiece = 1 << 16;
constexpr size_t kMaxRecordBytes = 1 << 16;

// What makes a record the one for this run: everything the directory's
// answer depended on. The version is part of it, so a record written by
// another version never matches.
std::string keyText(const SpoolEntry& key, const std::u16string& user) {
    std::string text = "kivreg-sent 1\nversion: " KIVREG_VERSION_STRING "\n";
    text += "scheme: " + std::string(key.destination.https ? "https" : "http");
    text += "\nhost: " + escaped(key.destination.host);
    text += "\nport: " + escaped(key.destination.port);
    text += "\npath: " + escaped(key.destination.path);
    text += "\nuser-sha256: " + rt::sha256Hex(CCConv::toUTF8Str(user));
    text += "\nformat: " + std::string(key.oldFormat ? "old" : "current");
    text += "\nsupplier-name: " + escaped(key.supplierName);
    text += "\nsupplier-vendor: " + escaped(key.supplierVendor) + "\n";
    return text;
}

std::string recordPath(const Spool& spool, const std::string& keyText) {
    // The version stays out of the name, so that a newer one replaces the record.
    const std::string unversioned = keyText.substr(keyText.find('\n', keyText.find('\n') + 1));
    return spool.dir() + "/sent/" + rt::sha256Hex(unversioned).substr(0, 32) + ".sent";
}

struct Record {
    std::string sha256;
    uint64_t bytes = 0;
    long long time = 0;  // of the 200, seconds since the epoch
};

std::optional<Record> readRecord(const std::string& path, const std::string& keyText) {
    std::ifstream in(path, std::ios::binary);
    std::string text(kMaxRecordBytes, '\0');
    in.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<size_t>(in.gcount()));
    if (!text.starts_with(keyText)) return std::nullopt;
    std::istringstream rest(text.substr(keyText.size()));
    std::string line;
    const auto field = [&](std::string_view name) -> std::optional<std::string> {
        if (!std::getline(rest, line) || !line.starts_with(name)) return std::nullopt;
        return line.substr(name.size());
    };
    const std::optional<std::string> sha = field("body-sha256: ");
    const std::optional<std::string> bytes = field("body-bytes: ");
    const std::optional<std::string> time = field("time: ");
    Record r;
    if (!sha || sha->size() != 64 || !bytes || !wholeDecimal(*bytes, r.bytes) || !time ||
        !wholeDecimal(*time, r.time) || rest.peek() != EOF || !text.ends_with('\n'))
        return std::nullopt;
    r.sha256 = *sha;
    return r;
}

}  // namespace

IfChanged ifChangedOf(ApiState& s) {
    IfChanged rule;
    rule.on = ifChanged(s.gArgs);
    if (!rule.on) return rule;
    if (settingOrEnv(s.gArgs, CMDARG_SPOOL, ENV_SPOOL).empty()) {
        s.gLog << timestamp << u"--if-changed needs a spool: --spool DIR or KIVREG_SPOOL."
               << endlog;
        rule.refused = true;
        return rule;
    }
    const std::string text = settingOrEnv(s.gArgs, CMDARG_RESEND_AFTER, ENV_RESEND_AFTER);
    if (text.empty()) return rule;
    rule.resendAfter = durationSeconds(text);
    if (rule.resendAfter < 0) {
        const bool option = s.gArgs.isSwitchSet(CMDARG_RESEND_AFTER);
        s.gLog << timestamp << (option ? u"Option --resend-after " : u"KIVREG_RESEND_AFTER=")
               << text.c_str() << u" refused: a time of at most 365 days is needed "
               << u"(seconds, or a number with s, m, h or d)." << endlog;
        rule.refused = true;
    }
    return rule;
}

BodyDigest digestOf(std::string_view body) {
    return {rt::sha256Hex(body), body.size()};
}

const BodyDigest& documentDigest(ApiState& s) {
    if (s.bodyDigest.sha256.empty()) {
        rt::Sha256 hash;
        uint64_t bytes = 0;
        s.gpXmlFile->writeBody(CHttpProxy::declaration(CHttpProxy::TRANSFER_ENCODING_UTF8), kPiece,
                               [&](std::string_view piece) {
                                   hash.update(piece);
                                   bytes += piece.size();
                                   return true;
                               });
        s.bodyDigest = {hash.hexDigest(), bytes};
    }
    return s.bodyDigest;
}

bool heldByDirectory(ApiState& s, const ConnectData& c, long resendAfter) {
    const BodyDigest& body = documentDigest(s);
    Spool spool(s.gLog, settingOrEnv(s.gArgs, CMDARG_SPOOL, ENV_SPOOL), spoolMaxBytes(s.gArgs));
    if (!spool.ok()) return false;
    const SpoolEntry key = spoolKeyOf(s, c);
    for (const SpoolEntry& e : spool.pending(key.destination))
        if (e.sameKey(key)) return false;
    const std::string text = keyText(key, c.user);
    const std::optional<Record> sent = readRecord(recordPath(spool, text), text);
    const long long now = std::time(nullptr);
    // A time ahead of the clock means the clock went back: the record proves nothing.
    if (!sent || sent->sha256 != body.sha256 || sent->bytes != body.bytes || sent->time > now ||
        now - sent->time >= resendAfter)
        return false;
    s.gLog << timestamp << u"Registration unchanged since " << logTime(sent->time).c_str()
           << u": not sent (sent again after " << logTime(sent->time + resendAfter).c_str() << u")."
           << endlog;
    s.skipped = true;
    s.lastBodyBytes = body.bytes;
    return true;
}

void recordSent(CLog& log, const Spool& spool, const SpoolEntry& key, const std::u16string& user,
                const BodyDigest& body) {
    const std::string dir = spool.dir() + "/sent";
    if (::mkdir(dir.c_str(), 0700) == 0) rt::syncDirectoryOf(dir);
    // Only a run holding the lock writes here, so these are from runs that were stopped.
    std::error_code ignored;
    for (const auto& e : std::filesystem::directory_iterator(dir, ignored))
        if (e.path().filename().string().starts_with('.')) std::filesystem::remove(e, ignored);
    const std::string text = keyText(key, user);
    const std::string file = recordPath(spool, text);
    const std::string record = text + "body-sha256: " + body.sha256 +
                               "\nbody-bytes: " + std::to_string(body.bytes) +
                               "\ntime: " + std::to_string(std::time(nullptr)) + "\n";
    if (const int error = rt::replaceFile(file, record, 0600))
        log << timestamp << u"Failed to record the registration as sent: " << file.c_str() << u": "
            << std::strerror(error) << endlog;
}

}  // namespace kivreg::api
