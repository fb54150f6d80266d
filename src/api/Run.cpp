// The registration run: resolve traces and connection data, then validate,
// substitute and send the document.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>
#include <random>
#include <thread>

#include "api/ApiState.h"
#include "api/ExitStatus.h"
#include "api/Spool.h"
#include "api/StatusFile.h"
#include "api/Vocabulary.h"
#include "http/CHttpProxy.h"
#include "http/Trace.h"
#include "runtime/FileIo.h"
#include "secstore/CSecStore.h"
#include "support/CCConv.h"

namespace kivreg::api {
namespace {

constexpr int kDefaultTimeout = 420;  // seconds

struct ConnectData {
    std::u16string user, password, host, port;
    bool useHttps = false;
    bool failed = false;
};

ConnectData resolveConnectData(ApiState& s) {
    ConnectData c;
    const std::u16string connectFile = s.gArgs.getArgIgnCase(CMDARG_CONNECT_FILE);
    if (!connectFile.empty()) {
        // The file takes precedence over -user, -pass, -host, -port, -usehttps.
        CSecStore store(&s.gLog, connectFile);
        if (store.fetch()) {
            c.host = store.get(std::u16string(PARAM_HOST));
            c.port = store.get(std::u16string(PARAM_PORT));
            c.user = store.get(std::u16string(PARAM_USER));
            c.password = store.get(std::u16string(PARAM_PASS));
            c.useHttps = store.get(std::u16string(PARAM_HTTPS)) == u"y";
        } else {
            s.gLog << timestamp << u"Failed to read connect file: " << connectFile << endlog;
            c.failed = true;
        }
    } else {
        c.user = s.gArgs.getArgIgnCase(CMDARG_HTTP_USER);
        c.password = s.gArgs.getArgIgnCase(CMDARG_HTTP_PASS);
        c.host = s.gArgs.getArgIgnCase(CMDARG_HTTP_HOST);
        c.port = CCConv::trim(s.gArgs.getArgIgnCase(CMDARG_HTTP_PORT));
        c.useHttps = s.gArgs.isSwitchSetIgnCase(CMDARG_USEHTTPS);
    }
    return c;
}

// Seconds from an option; 0 means no limit (-1), anything not numeric the default.
int timeoutOf(const CPArgs& args, std::u16string_view option) {
    if (!args.isSwitchSetIgnCase(option)) return kDefaultTimeout;
    const std::u16string value = CCConv::trim(args.getArgIgnCase(option));
    if (!CPArgs::isNumeric(value)) return kDefaultTimeout;
    const int seconds = CPArgs::getNumber(value);
    return seconds == 0 ? -1 : seconds;
}

void logTimeout(CLog& log, const char16_t* label, const char16_t* unlimited, int seconds) {
    log << timestamp << label;
    if (seconds >= 0) {
        log << seconds << u" sec";
    } else {
        log << unlimited;
    }
    log << endlog;
}

// --proxy and --noproxy, when given, rule over the environment.
ProxyOptions proxyOptions(const CPArgs& args) {
    ProxyOptions options;
    if (args.isSwitchSet(CMDARG_PROXY)) options.proxy = args.getArg(CMDARG_PROXY);
    if (args.isSwitchSet(CMDARG_NOPROXY)) options.noProxy = args.getArg(CMDARG_NOPROXY);
    return options;
}

void logFailure(CLog& log, const ERegExcept& e) {
    log << timestamp << u"Failed to transfer data (type/msg): "
        << static_cast<int>(e.getExceptionType()) << u"/" << e.getExceptionMsg() << endlog;
}

void dataTrace(ApiState& s) {
    if (!s.gArgs.isSwitchSetIgnCase(CMDARG_DATA_TRACE)) return;
    s.gLog << timestamp << u">>> Begin Parsed Data >>>" << endlog;
    s.gpXmlFile->write2File();
    s.gLog << timestamp << u"<<< End Parsed Data <<<" << endlog;
}

// Validation, the data trace and the substitution: false when the document
// would not be sent (the reason is logged).
bool prepare(ApiState& s) {
    CLog& log = s.gLog;
    CXmlFile& doc = *s.gpXmlFile;
    if (!doc.isLoaded() || !doc.validateReferences()) {
        log << timestamp << u"Invalid XML data file input." << endlog;
        return false;
    }
    dataTrace(s);
    if (s.gpSymbols) {
        doc.setSymbols(*s.gpSymbols);
        s.gpSymbols->printSymbols();
        if (!doc.replaceSymbols()) return false;
        dataTrace(s);  // the document once more, after substitution
    }
    return true;
}

// --output: the exact bytes of the transfer document.
bool writeOutput(ApiState& s, std::string_view body) {
    if (!s.gArgs.isSwitchSet(CMDARG_OUTPUT)) return true;
    const std::u16string name = s.gArgs.getArg(CMDARG_OUTPUT);
    int error = 0;
    if (name == u"-") {
        if (!rt::writeAll(s.outputFd, body.data(), body.size())) error = errno != 0 ? errno : EIO;
    } else if (!name.empty()) {
        const mode_t mask = ::umask(0);
        ::umask(mask);
        error = rt::replaceFile(CCConv::toUTF8Str(name), body, 0666 & ~mask);
    }
    if (error == 0 && !name.empty()) return true;
    s.gLog << timestamp << u"Failed to write the transfer document to " << name << u": "
           << (name.empty() ? "no file name given" : std::strerror(error)) << endlog;
    return false;
}

std::string renderBody(ApiState& s) {
    return CHttpProxy::renderBody(*s.gpXmlFile, CHttpProxy::TRANSFER_ENCODING_UTF8);
}

struct Timeouts {
    int connect, send, receive;
};

Timeouts timeoutsOf(const CPArgs& args) {
    return {timeoutOf(args, CMDARG_CONNECT_TIMEOUT), timeoutOf(args, CMDARG_SEND_TIMEOUT),
            timeoutOf(args, CMDARG_RECEIVE_TIMEOUT)};
}

// One transfer. A failure that may pass when tried again carries its reason.
struct Attempt {
    int result = 0;
    std::u16string reason;  // empty: not worth another attempt
    std::u16string retryAfter;
    int answerCode = 0;  // the answer's status, 0 without one
};

std::u16string decimal(long long n) {
    const std::string digits = std::to_string(n);
    return std::u16string(digits.begin(), digits.end());
}

const char16_t* retriedStatusText(int status) {
    switch (status) {
        case 408:
            return u"Request Timeout";
        case 429:
            return u"Too Many Requests";
        case 500:
            return u"Internal Server Error";
        case 502:
            return u"Bad Gateway";
        case 503:
            return u"Service Unavailable";
        case 504:
            return u"Gateway Timeout";
        default:
            return nullptr;
    }
}

// A document's body is rendered from it as it is sent, the same bytes at each
// attempt. Without a document the body is a spooled one, sent in the format it
// was kept with.
Attempt attempt(ApiState& s, const ConnectData& c, const Timeouts& t, CXmlFile* document,
                std::string spooled = {}, bool oldFormat = false) {
    CLog& log = s.gLog;
    CHttpProxy proxy(&log, CHttpProxy::TRANSFER_ENCODING_UTF8, document, c.user, c.password, c.host,
                     c.port, t.connect, t.send, t.receive, true, c.useHttps, proxyOptions(s.gArgs));
    if (s.gArgs.isSwitchSetIgnCase(CMDARG_HTTP_TRACE)) proxy.setTrace();
    if (!proxy.isOpen()) {
        log << timestamp << u"Failed to open HTTP connection!" << endlog;
        return {-2, u"connection failed", {}};
    }
    if (document)
        proxy.createBodyFromXML();
    else
        proxy.setPreparedBody(std::move(spooled), oldFormat);
    if (s.progress) {
        s.progress(0, proxy.bodySize());  // the rate counts from here
        proxy.setProgress(s.progress);
    }
    const int rc = proxy.send();
    if (s.progress) s.progress(0, 0);
    if (rc != 0) {
        log << timestamp << u"HTTP data sending failed. NI RC=" << rc << endlog;
        return {-1, u"send failed", {}};
    }
    log << timestamp << u"HTTP send successful." << endlog;
    const int status = proxy.receive();
    const int answerCode = std::max(0, proxy.getAnswerCode());
    if (status == CHttpProxy::HTTP_SUCCESS_CODE) {
        log << timestamp << u"HTTP response: Success. HTTP status code: " << status << endlog;
        return {0, {}, {}, answerCode};
    }
    log << timestamp << u"HTTP response: Failure. HTTP status code: " << status << endlog;
    Attempt failed{-1, {}, proxy.getRetryAfter(), answerCode};
    if (status < 0) {
        failed.reason = u"no answer";
    } else if (const char16_t* text = retriedStatusText(proxy.getAnswerCode())) {
        failed.reason = u"HTTP status " + decimal(proxy.getAnswerCode()) + u" (" + text + u")";
    }
    return failed;
}

using Millis = std::chrono::milliseconds;

// Retry-After as seconds or as an HTTP date; nothing when it is neither.
std::optional<Millis> retryAfterWait(const std::u16string& value) {
    if (value.empty()) return std::nullopt;
    if (std::all_of(value.begin(), value.end(), [](char16_t c) { return c >= u'0' && c <= u'9'; }))
        return std::chrono::seconds(value.size() > 9 ? 999999999
                                                     : std::stoi(CCConv::toUTF8Str(value)));
    std::tm tm{};
    const std::string date = CCConv::toUTF8Str(value);
    const char* end = ::strptime(date.c_str(), "%a, %d %b %Y %H:%M:%S GMT", &tm);
    if (end == nullptr || *end != '\0') return std::nullopt;
    const auto when = std::chrono::system_clock::from_time_t(::timegm(&tm));
    return std::max(Millis(0),
                    std::chrono::duration_cast<Millis>(when - std::chrono::system_clock::now()));
}

// A number from the settings within [low, high], else the fallback.
int boundedNumber(const CPArgs& args, std::u16string_view option, int fallback, int low, int high) {
    const std::u16string value = CCConv::trim(args.getArg(option));
    if (!CPArgs::isNumeric(value)) return fallback;
    return std::clamp(CPArgs::getNumber(value), low, high);
}

// "2" for whole seconds, "0.7" otherwise.
std::u16string secondsText(Millis wait) {
    const long long tenths = (wait.count() + 50) / 100;
    std::u16string text = decimal(tenths / 10);
    if (tenths % 10 != 0) text += u"." + decimal(tenths % 10);
    return text;
}

// The attempts --retry allows; the last one's outcome.
Attempt sendWithRetries(ApiState& s, const ConnectData& c, const Timeouts& t) {
    const int retries = boundedNumber(s.gArgs, CMDARG_RETRY, 0, 0, 100);
    const std::chrono::seconds budget(
        boundedNumber(s.gArgs, CMDARG_RETRY_MAX_TIME, 600, 0, 2147483647));
    const auto start = std::chrono::steady_clock::now();
    std::mt19937 random(std::random_device{}());
    Millis backoff(1000);
    for (int k = 1;; ++k) {
        Attempt a = attempt(s, c, t, s.gpXmlFile.get());
        if (a.reason.empty() || k > retries) return a;
        Millis wait;
        if (const std::optional<Millis> asked = retryAfterWait(a.retryAfter)) {
            wait = *asked;
        } else {
            // Jitter keeps the suppliers of one timer from returning in step.
            wait = Millis(std::uniform_int_distribution<long long>(backoff.count() / 2,
                                                                   backoff.count())(random));
            backoff = std::min(backoff * 2, Millis(60000));
        }
        if (std::chrono::steady_clock::now() - start + wait > budget) return a;
        s.gLog << timestamp << u"Retry " << k << u" of " << retries << u" in " << secondsText(wait)
               << u" s: " << a.reason << endlog;
        std::this_thread::sleep_for(wait);
    }
}

// An option's value, else the environment variable's, as bytes; empty when neither is set.
std::string settingOrEnv(const CPArgs& args, std::u16string_view option, const char* variable) {
    if (args.isSwitchSet(option)) return CCConv::toUTF8Str(args.getArg(option));
    const char* value = std::getenv(variable);
    return value ? value : "";
}

uint64_t spoolMaxBytes(const CPArgs& args) {
    const std::string text = settingOrEnv(args, CMDARG_SPOOL_MAX_MB, ENV_SPOOL_MAX_MB);
    char* end = nullptr;
    const long mb = std::strtol(text.c_str(), &end, 10);
    const bool valid = !text.empty() && *end == '\0' && mb >= 1 && mb <= SPOOL_MAX_MB_LIMIT;
    return static_cast<uint64_t>(valid ? mb : 1024) << 20;
}

Destination destinationOf(const ConnectData& c) {
    std::string host = CCConv::toUTF8Str(c.host);
    std::transform(host.begin(), host.end(), host.begin(), [](char ch) {
        return ch >= 'A' && ch <= 'Z' ? static_cast<char>(ch + 32) : ch;
    });
    std::string path(1, '/');
    path += CCConv::toUTF8Str(CHttpProxy::ms_dsServletUrl);
    return {c.useHttps, host, std::to_string(CPArgs::getNumber(c.port)), path};
}

// Sends the entries kept for c's destination, oldest first, one attempt each.
// 0 when none is left, else the result of what stopped the delivery. With
// `report` the status file tells of these transfers (--flush).
int deliver(ApiState& s, Spool& spool, const ConnectData& c, const Timeouts& t, bool report) {
    const std::vector<SpoolEntry> entries = spool.pending(destinationOf(c));
    if (entries.empty() && report)
        s.gLog << timestamp << u"Spool holds no registration for " << destinationOf(c).url().c_str()
               << endlog;
    int result = 0;
    for (const SpoolEntry& e : entries) {
        std::string body;
        if (!spool.readBody(e, body)) {
            result = -1;
            continue;
        }
        if (report) s.lastBodyBytes = body.size();
        Attempt a;
        try {
            a = attempt(s, c, t, nullptr, std::move(body), e.oldFormat);
        } catch (const ERegExcept& ex) {
            logFailure(s.gLog, ex);
            return -2;
        }
        if (report) s.lastHttpStatus = a.answerCode;
        if (a.result == 0) {
            spool.delivered(e);
            if (report) s.delivered = true;
        } else if (a.reason.empty()) {
            spool.rejected(e, a.answerCode);  // the directory's final answer
        } else {
            return a.result;  // the rest waits until the directory is back
        }
    }
    return result;
}

// After the transfer: a failure that may pass later keeps the document; a
// success makes the supplier's older entry moot and sends the others.
void spoolAfter(ApiState& s, const ConnectData& c, const Timeouts& t, const Attempt& a) {
    const std::string dir = settingOrEnv(s.gArgs, CMDARG_SPOOL, ENV_SPOOL);
    if (dir.empty() || (a.result != 0 && a.reason.empty())) return;
    const CXmlFile& doc = *s.gpXmlFile;
    SpoolEntry key;
    key.destination = destinationOf(c);
    key.oldFormat = doc.useOldTransferDtd();
    key.supplierName = doc.getSupplierName();
    key.supplierVendor = doc.getSupplierVendor();
    Spool spool(s.gLog, dir, spoolMaxBytes(s.gArgs));
    if (!spool.ok()) return;
    if (a.result != 0) {
        spool.keep(key, renderBody(s));
        return;
    }
    spool.supersede(key);
    deliver(s, spool, c, t, false);
}

int transfer(ApiState& s, const ConnectData& c) {
    CLog& log = s.gLog;
    if (!prepare(s)) return -1;
    const Timeouts t = timeoutsOf(s.gArgs);
    // "infinte" is how this line has always read; log watchers match on it.
    logTimeout(log, u"HTTP open timeout     = ", u"infinte", t.connect);
    logTimeout(log, u"HTTP send timeout     = ", u"infinite", t.send);
    logTimeout(log, u"HTTP response timeout = ", u"infinite", t.receive);

    // Only --output and the spool need the bytes whole. The model does not
    // change from here, so each attempt renders the same bytes as it sends.
    if (s.gArgs.isSwitchSet(CMDARG_OUTPUT) && !writeOutput(s, renderBody(s))) return -1;
    s.lastBodyBytes = CHttpProxy::renderedSize(*s.gpXmlFile, CHttpProxy::TRANSFER_ENCODING_UTF8);
    const Attempt a = sendWithRetries(s, c, t);
    s.lastHttpStatus = a.answerCode;
    s.delivered = a.result == 0;
    spoolAfter(s, c, t, a);
    return a.result;
}

// --flush: the spooled registrations for the run's destination, no document.
int flush(ApiState& s, const ConnectData& c) {
    const std::string dir = settingOrEnv(s.gArgs, CMDARG_SPOOL, ENV_SPOOL);
    if (dir.empty()) {
        s.gLog << timestamp << u"--flush needs a spool: --spool DIR or KIVREG_SPOOL." << endlog;
        return -1;
    }
    Spool spool(s.gLog, dir, spoolMaxBytes(s.gArgs));
    return spool.ok() ? deliver(s, spool, c, timeoutsOf(s.gArgs), true) : -1;
}

// --check: everything up to the transfer, then the size of what would be sent.
int checkDocument(ApiState& s) {
    if (!s.gpXmlFile) {
        s.gLog << timestamp << u"XML input data not set!" << endlog;
        return -1;
    }
    try {
        if (!prepare(s)) return -1;
        const std::string body = renderBody(s);
        if (!writeOutput(s, body)) return -1;
        s.lastBodyBytes = body.size();
        s.gLog << timestamp << u"Document checked: " << body.size() << u" bytes to send." << endlog;
        return 0;
    } catch (const ERegExcept& e) {
        logFailure(s.gLog, e);
        return -1;
    }
}

void banner(CLog& log, const char16_t* text) {
    const std::u16string stars(std::char_traits<char16_t>::length(text), u'*');
    log << timestamp << stars << endlog;
    log << timestamp << text << endlog;
    log << timestamp << stars << endlog;
}

int doReg(ApiState& s, const ConnectData& c) {
    if (!s.gpXmlFile) {
        s.gLog << timestamp << u"XML input data not set!" << endlog;
        return -1;
    }
    banner(s.gLog, u"*** Start KIV Registration ***");
    int result;
    try {
        result = transfer(s, c);
    } catch (const ERegExcept& e) {
        logFailure(s.gLog, e);
        result = -2;
    }
    banner(s.gLog, u"*** End KIV Registration ***");
    return result;
}

bool portAccepted(const std::u16string& port) {
    // 65536 and 0 pass on purpose: the run has always been that lenient. A
    // text that is no number counts as 2147483647.
    const int n = CPArgs::getNumber(port);
    return n >= 0 && n <= 65536;
}

int resolveAndRegister(ApiState& s) {
    const bool dataTraceOn = s.gArgs.isSwitchSetIgnCase(CMDARG_DATA_TRACE);
    s.gLog << timestamp << u"Data trace: " << dataTraceOn << endlog;

    // A check needs no connection data and never connects.
    const bool flushing = s.gArgs.isSwitchSet(CMDARG_FLUSH);
    const bool check = !flushing && s.gArgs.isSwitchSet(CMDARG_CHECK);
    ConnectData c;
    if (!check) {
        c = resolveConnectData(s);
        if (c.user.empty() || c.host.empty() || c.port.empty()) {
            s.gLog << timestamp << u"Incomplete HTTP connect information specified." << endlog;
            return -1;
        }
        if (c.failed) return -1;
        if (!portAccepted(c.port)) {
            s.gLog << timestamp << u"Invalid HTTP port specified." << endlog;
            return -1;
        }
        if (c.useHttps) s.gLog << timestamp << u"Using HTTPS" << endlog;
        if (flushing) return flush(s, c);
    }
    if (s.gArgs.isSwitchSetIgnCase(CMDARG_SYMBOL_FILE)) {
        s.gpSymbols = std::make_unique<PSymbols>(&s.gLog);
        const int rc = s.gpSymbols->addSymbols(s.gArgs.getArgIgnCase(CMDARG_SYMBOL_FILE));
        if (rc < 0) {
            s.lastResultFromSymbols = true;
            return rc;
        }
    }
    return check ? checkDocument(s) : doReg(s, c);
}

}  // namespace

int sendReceiveData() {
    ApiState& s = state();
    if (s.runStart == 0) s.runStart = epochSeconds();
    s.lastResultFromSymbols = false;
    const bool httpTrace = s.gArgs.isSwitchSetIgnCase(CMDARG_HTTP_TRACE);
    s.gLog << timestamp << u"HTTP trace: " << httpTrace << endlog;
    Trace& trace = Trace::instance();
    if (httpTrace) {
        if (!s.gArgs.getArgIgnCase(CMDARG_LOGFILENAME).empty()) {
            // A failed open leaves the trace without a file; the run goes on.
            trace.setExternFP(std::fopen("kivreg_http_trace.log", "w"));
            setKernelTraceLevel(3);
        } else {
            trace.toggleEcho();
        }
        trace.setVerbosity(0);
        trace.tOn(true);
    }
    const int result = resolveAndRegister(s);
    if (httpTrace) {
        if (std::FILE* fp = trace.getExternFP()) {
            std::fclose(fp);
            trace.setExternFP(nullptr);  // never leave the trace a closed file
        }
    }
    reportRun(exitStatusOf(result, s.lastResultFromSymbols));
    return result;
}

double epochSeconds() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

void reportRun(int exitStatus) {
    ApiState& s = state();
    const std::string file = settingOrEnv(s.gArgs, CMDARG_STATUS_FILE, ENV_STATUS_FILE);
    if (!file.empty()) {
        RunStatus run;
        run.end = epochSeconds();
        run.start = s.runStart != 0 ? s.runStart : run.end;
        run.exitStatus = exitStatus;
        run.success = exitStatus == 0 && s.delivered;
        run.httpStatus = s.lastHttpStatus;
        run.bodyBytes = s.lastBodyBytes;
        if (const std::string dir = settingOrEnv(s.gArgs, CMDARG_SPOOL, ENV_SPOOL); !dir.empty()) {
            const Spool::Totals totals = Spool::totals(dir);
            run.spoolEntries = totals.entries;
            run.spoolBytes = totals.bytes;
        }
        // Monitoring is told, not the run: its result stays what it was.
        if (const int error = writeStatusFile(file, run))
            s.gLog << timestamp << u"Failed to write the status file " << file.c_str() << u": "
                   << std::strerror(error) << endlog;
    }
    s.runStart = 0;
    s.lastHttpStatus = 0;
    s.lastBodyBytes = 0;
    s.delivered = false;
}

}  // namespace kivreg::api
