// Transfers and their retries.

#include "api/Transfer.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <optional>
#include <random>
#include <thread>

#include "api/ApiState.h"
#include "api/Redirect.h"
#include "api/Vocabulary.h"
#include "http/CHttpProxy.h"
#include "support/CCConv.h"
#include "support/CGetStr.h"
#include "support/Status.h"

namespace kivreg::api {
namespace {

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

FailureReason reasonOf(Status::Step step) {
    switch (step) {
        case Status::Step::Resolve:
            return FailureReason::Resolve;
        case Status::Step::Tls:
            return FailureReason::Tls;
        case Status::Step::Proxy:
            return FailureReason::Proxy;
        case Status::Step::Send:
            return FailureReason::Send;
        case Status::Step::Receive:
            return FailureReason::Receive;
        case Status::Step::HttpStatus:
            return FailureReason::HttpStatus;
        default:
            return FailureReason::Connect;
    }
}

// After the lines a failed step has always logged: what failed, where and
// why, and for an answer the start of what the directory said.
FailureReason reportFailure(CLog& log, const CHttpProxy& proxy, Status::Step step) {
    Status failure = proxy.failure();
    if (failure.ok()) failure = Status::failed(-1, step, "The transfer failed", {});
    log << timestamp << failure.message().c_str() << endlog;
    if (step == Status::Step::HttpStatus && !proxy.answerStart().empty())
        log << timestamp << u"Answer body: "
            << oneLine(proxy.answerStart(), CHttpProxy::MAX_ANSWER_START).c_str() << endlog;
    return reasonOf(failure.step);
}

}  // namespace

void logFailure(CLog& log, const ERegExcept& e) {
    log << timestamp << u"Failed to transfer data (type/msg): "
        << static_cast<int>(e.getExceptionType()) << u"/" << e.getExceptionMsg() << endlog;
}

std::string renderBody(ApiState& s) {
    return CHttpProxy::renderBody(*s.gpXmlFile, CHttpProxy::TRANSFER_ENCODING_UTF8);
}

// One transfer to where the redirects so far lead, and on to the next place
// they lead when the answer is one to follow.
static Attempt attemptTo(ApiState& s, const ConnectData& c, const Timeouts& t, CXmlFile* document,
                         const std::string& spooled, bool oldFormat, Redirects& redirects) {
    CLog& log = s.gLog;
    const Target& to = redirects.target();
    CHttpProxy proxy(&log, CHttpProxy::TRANSFER_ENCODING_UTF8, document, c.user, c.password,
                     to.host, to.port, t.connect, t.send, t.receive, true, to.https,
                     proxyOptions(s.gArgs), to.path);
    if (s.gArgs.isSwitchSetIgnCase(CMDARG_HTTP_TRACE)) proxy.setTrace();
    if (!proxy.isOpen()) {
        log << timestamp << u"Failed to open HTTP connection!" << endlog;
        return {-2, u"connection failed", {}, 0, reportFailure(log, proxy, Status::Step::Connect)};
    }
    if (document)
        proxy.createBodyFromXML();
    else
        proxy.setPreparedBody(spooled, oldFormat);  // a copy: a redirect sends it again
    if (s.progress) {
        s.progress(0, proxy.bodySize());  // the rate counts from here
        proxy.setProgress(s.progress);
    }
    const int rc = proxy.send();
    if (s.progress) s.progress(0, 0);
    if (rc != 0) {
        log << timestamp << u"HTTP data sending failed. NI RC=" << rc << endlog;
        return {-1, u"send failed", {}, 0, reportFailure(log, proxy, Status::Step::Send)};
    }
    log << timestamp << u"HTTP send successful." << endlog;
    const int status = proxy.receive();
    if (redirects.follow(proxy.getAnswerCode(), proxy.getLocation()))
        return attemptTo(s, c, t, document, spooled, oldFormat, redirects);
    const int answerCode = std::max(0, proxy.getAnswerCode());
    if (status == CHttpProxy::HTTP_SUCCESS_CODE) {
        log << timestamp << u"HTTP response: Success. HTTP status code: " << status << endlog;
        return {0, {}, {}, answerCode};
    }
    log << timestamp << u"HTTP response: Failure. HTTP status code: " << status << endlog;
    if (!redirects.note().empty()) log << timestamp << redirects.note() << endlog;
    const Status::Step step = status < 0 ? Status::Step::Receive : Status::Step::HttpStatus;
    Attempt failed{-1, {}, proxy.getRetryAfter(), answerCode, reportFailure(log, proxy, step)};
    if (status < 0) {
        failed.reason = u"no answer";
    } else if (const char16_t* text = retriedStatusText(proxy.getAnswerCode())) {
        failed.reason = u"HTTP status " + CGetStr<int>::get(proxy.getAnswerCode()) + u" (" + text + u")";
    }
    return failed;
}

Attempt attempt(ApiState& s, const ConnectData& c, const Timeouts& t, CXmlFile* document,
                std::string spooled, bool oldFormat) {
    Redirects redirects(s.gLog, c);
    return attemptTo(s, c, t, document, spooled, oldFormat, redirects);
}

Attempt sendWithRetries(ApiState& s, const ConnectData& c, const Timeouts& t) {
    const int retries = boundedNumber(s.gArgs, CMDARG_RETRY, 0, 0, 100);
    const std::chrono::seconds budget(
        boundedNumber(s.gArgs, CMDARG_RETRY_MAX_TIME, 600, 0, 2147483647));
    const auto start = std::chrono::steady_clock::now();
    std::mt19937 random(std::random_device{}());
    Millis backoff(1000);
    for (int k = 1;; ++k) {
        Attempt a = attempt(s, c, t, s.gpXmlFile.get());
        s.failure = a.failure;
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
        s.gLog << timestamp << u"Retry " << k << u" of " << retries << u" in "
               << secondsText(wait.count()).c_str() << u": " << a.reason << endlog;
        std::this_thread::sleep_for(wait);
    }
}

}  // namespace kivreg::api
