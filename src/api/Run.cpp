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

// One transfer. A failure that may pass when tried again carries its reason.
struct Attempt {
    int result = 0;
    std::u16string reason;  // empty: not worth another attempt
    std::u16string retryAfter;
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

// The body goes in and comes back out, so that a retry sends it as it is.
Attempt attempt(ApiState& s, const ConnectData& c, const Timeouts& t, std::string& body) {
    CLog& log = s.gLog;
    CHttpProxy proxy(&log, CHttpProxy::TRANSFER_ENCODING_UTF8, *s.gpXmlFile, c.user, c.password,
                     c.host, c.port, t.connect, t.send, t.receive, true, c.useHttps,
                     proxyOptions(s.gArgs));
    if (s.gArgs.isSwitchSetIgnCase(CMDARG_HTTP_TRACE)) proxy.setTrace();
    if (!proxy.isOpen()) {
        log << timestamp << u"Failed to open HTTP connection!" << endlog;
        return {-2, u"connection failed", {}};
    }
    if (s.progress) {
        s.progress(0, body.size());  // the rate counts from here
        proxy.setProgress(s.progress);
    }
    proxy.createBodyFromXML(std::move(body));
    const int rc = proxy.send();
    body = proxy.takeBody();
    if (s.progress) s.progress(0, 0);
    if (rc != 0) {
        log << timestamp << u"HTTP data sending failed. NI RC=" << rc << endlog;
        return {-1, u"send failed", {}};
    }
    log << timestamp << u"HTTP send successful." << endlog;
    const int status = proxy.receive();
    if (status == CHttpProxy::HTTP_SUCCESS_CODE) {
        log << timestamp << u"HTTP response: Success. HTTP status code: " << status << endlog;
        return {};
    }
    log << timestamp << u"HTTP response: Failure. HTTP status code: " << status << endlog;
    Attempt failed{-1, {}, proxy.getRetryAfter()};
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

int transfer(ApiState& s, const ConnectData& c) {
    CLog& log = s.gLog;
    if (!prepare(s)) return -1;
    const Timeouts t{timeoutOf(s.gArgs, CMDARG_CONNECT_TIMEOUT),
                     timeoutOf(s.gArgs, CMDARG_SEND_TIMEOUT),
                     timeoutOf(s.gArgs, CMDARG_RECEIVE_TIMEOUT)};
    // "infinte" is how this line has always read; log watchers match on it.
    logTimeout(log, u"HTTP open timeout     = ", u"infinte", t.connect);
    logTimeout(log, u"HTTP send timeout     = ", u"infinite", t.send);
    logTimeout(log, u"HTTP response timeout = ", u"infinite", t.receive);

    std::string body = renderBody(s);
    if (!writeOutput(s, body)) return -1;

    const int retries = boundedNumber(s.gArgs, CMDARG_RETRY, 0, 0, 100);
    const std::chrono::seconds budget(
        boundedNumber(s.gArgs, CMDARG_RETRY_MAX_TIME, 600, 0, 2147483647));
    const auto start = std::chrono::steady_clock::now();
    std::mt19937 random(std::random_device{}());
    Millis backoff(1000);
    for (int k = 1;; ++k) {
        const Attempt a = attempt(s, c, t, body);
        if (a.reason.empty() || k > retries) return a.result;
        Millis wait;
        if (const std::optional<Millis> asked = retryAfterWait(a.retryAfter)) {
            wait = *asked;
        } else {
            // Jitter keeps the suppliers of one timer from returning in step.
            wait = Millis(std::uniform_int_distribution<long long>(backoff.count() / 2,
                                                                   backoff.count())(random));
            backoff = std::min(backoff * 2, Millis(60000));
        }
        if (std::chrono::steady_clock::now() - start + wait > budget) return a.result;
        log << timestamp << u"Retry " << k << u" of " << retries << u" in " << secondsText(wait)
            << u" s: " << a.reason << endlog;
        std::this_thread::sleep_for(wait);
    }
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
    // 65536 and 0 pass on purpose: the run has always been that lenient.
    if (!CPArgs::isNumeric(port)) return false;
    const int n = CPArgs::getNumber(port);
    return n >= 0 && n <= 65536;
}

int resolveAndRegister(ApiState& s) {
    const bool dataTraceOn = s.gArgs.isSwitchSetIgnCase(CMDARG_DATA_TRACE);
    s.gLog << timestamp << u"Data trace: " << dataTraceOn << endlog;

    // A check needs no connection data and never connects.
    const bool check = s.gArgs.isSwitchSet(CMDARG_CHECK);
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
            trace.setLogPath(u"-");
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
    return result;
}

}  // namespace kivreg::api
