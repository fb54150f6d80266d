#pragma once
// The process-wide state behind the exported functions. Settings live in
// gArgs under the command line's option names, so that a host calling the
// setters and a parsed command line look the same to the registration run.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "api/CPArgs.h"
#include "model/CXmlFile.h"
#include "model/PSymbols.h"
#include "support/CLog.h"

namespace kivreg::api {

// Why the last run failed, for monitoring; each names one place a run can stop.
enum class FailureReason {
    None,
    Document,
    Symbols,
    References,
    ConnectData,
    Resolve,
    Connect,
    Tls,
    Proxy,
    Send,
    Receive,
    HttpStatus,
    Output,
    Spool,
};

// A body's SHA-256 (lowercase hex) and length.
struct BodyDigest {
    std::string sha256;
    uint64_t bytes = 0;
};

struct ApiState {
    CLog gLog;  // before gArgs and the documents: they log until they are gone
    CPArgs gArgs;
    std::unique_ptr<CXmlFile> gpXmlFile;
    std::unique_ptr<PSymbols> gpSymbols;
    // Set by a run whose result is the symbol reader's own code, which can
    // coincide with the run's -1 and -2; the program tells them apart by it.
    bool lastResultFromSymbols = false;
    // Told the body's bytes sent and their total as it goes out, and (0, 0)
    // once the send has ended; the program draws its progress line with it.
    std::function<void(size_t sent, size_t total)> progress;
    // Where "--output -" writes; the program points its log elsewhere then.
    int outputFd = 1;
    // When the run began (seconds since the epoch), 0 until one does. The
    // program sets it before loading the document; reportRun clears it.
    double runStart = 0;
    // What the status file says of the run's transfer.
    int lastHttpStatus = 0;
    uint64_t lastBodyBytes = 0;
    bool delivered = false;  // the directory took a registration
    FailureReason failure = FailureReason::None;
    // The run's document as --if-changed compares it, once computed.
    BodyDigest bodyDigest;
    bool skipped = false;          // --if-changed found the directory holding it
    bool statusUnchanged = false;  // nothing to tell monitoring (a --flush with nothing to send)
};

ApiState& state();

// A null string from a C caller reads as empty.
inline std::u16string text(const char16_t* s) {
    return s ? std::u16string(s) : std::u16string();
}

// The registration run (KivRegSendReceiveData) and its inner part.
int sendReceiveData();

// Seconds since the epoch, as the status file counts them.
double epochSeconds();

// Ends a run that ended with that exit status: writes the status file, when
// one is set, and readies the state for the next run.
void reportRun(int exitStatus);

}  // namespace kivreg::api
