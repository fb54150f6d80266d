// The registration run: resolve traces and connection data, then validate,
// substitute and send the document.

#include <cstdio>
#include <memory>

#include "api/ApiState.h"
#include "api/Boundary.h"
#include "api/Delivery.h"
#include "api/ExitStatus.h"
#include "api/Output.h"
#include "api/RunOptions.h"
#include "api/SentRecord.h"
#include "api/Transfer.h"
#include "api/Vocabulary.h"
#include "http/CHttpProxy.h"
#include "http/Trace.h"

namespace kivreg::api {
namespace {

void logTimeout(CLog& log, const char16_t* label, const char16_t* unlimited, int seconds) {
    log << timestamp << label;
    if (seconds >= 0) {
        log << seconds << u" sec";
    } else {
        log << unlimited;
    }
    log << endlog;
}

int noDocument(ApiState& s) {
    s.gLog << timestamp << u"XML input data not set!" << endlog;
    s.failure = FailureReason::Document;
    return -1;
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
    const bool loaded = doc.isLoaded();
    if (!loaded || !doc.validateReferences()) {
        log << timestamp << u"Invalid XML data file input." << endlog;
        s.failure = loaded ? FailureReason::References : FailureReason::Document;
        return false;
    }
    dataTrace(s);
    if (s.gpSymbols) {
        doc.setSymbols(*s.gpSymbols);
        s.gpSymbols->printSymbols();
        if (!doc.replaceSymbols()) {
            s.failure = FailureReason::Symbols;
            return false;
        }
        dataTrace(s);  // the document once more, after substitution
    }
    return true;
}

int transfer(ApiState& s, const ConnectData& c, const IfChanged& rule) {
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
    if (rule.on && heldByDirectory(s, c, rule.resendAfter)) return 0;
    s.lastBodyBytes = CHttpProxy::renderedSize(*s.gpXmlFile, CHttpProxy::TRANSFER_ENCODING_UTF8);
    const Attempt a = sendWithRetries(s, c, t);
    s.lastHttpStatus = a.answerCode;
    s.delivered = a.result == 0;
    spoolAfter(s, c, t, a);
    return a.result;
}

// --check: everything up to the transfer, then the size of what would be sent.
int checkDocument(ApiState& s) {
    if (!s.gpXmlFile) return noDocument(s);
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

// What the library did not foresee (memory, a limit of the standard
// library) still ends the run with a reason and a result.
int unexpected(ApiState& s, const std::exception& e) {
    s.gLog << timestamp << u"Registration failed: " << reasonOf(e) << endlog;
    return -2;
}

void banner(CLog& log, const char16_t* text) {
    const std::u16string stars(std::char_traits<char16_t>::length(text), u'*');
    log << timestamp << stars << endlog;
    log << timestamp << text << endlog;
    log << timestamp << stars << endlog;
}

int doReg(ApiState& s, const ConnectData& c, const IfChanged& rule) {
    if (!s.gpXmlFile) return noDocument(s);
    banner(s.gLog, u"*** Start KIV Registration ***");
    int result;
    try {
        result = transfer(s, c, rule);
    } catch (const ERegExcept& e) {
        logFailure(s.gLog, e);
        result = -2;
    } catch (const std::exception& e) {
        result = unexpected(s, e);
    }
    banner(s.gLog, u"*** End KIV Registration ***");
    return result;
}

// Connection data the run cannot use; the message, if any, says why.
int refused(ApiState& s, const char16_t* message) {
    if (message != nullptr) s.gLog << timestamp << message << endlog;
    s.failure = FailureReason::ConnectData;
    return -1;
}

int resolveAndRegister(ApiState& s) {
    const bool dataTraceOn = s.gArgs.isSwitchSetIgnCase(CMDARG_DATA_TRACE);
    s.gLog << timestamp << u"Data trace: " << dataTraceOn << endlog;

    // A check needs no connection data and never connects.
    const bool flushing = s.gArgs.isSwitchSet(CMDARG_FLUSH);
    const bool check = !flushing && s.gArgs.isSwitchSet(CMDARG_CHECK);
    const IfChanged rule = flushing || check ? IfChanged{} : ifChangedOf(s);
    if (rule.refused) return -1;
    ConnectData c;
    if (!check) {
        c = resolveConnectData(s);
        if (c.user.empty() || c.host.empty() || c.port.empty())
            return refused(s, u"Incomplete HTTP connect information specified.");
        if (c.failed) return refused(s, nullptr);
        if (!portAccepted(c.port)) return refused(s, u"Invalid HTTP port specified.");
        if (c.useHttps) s.gLog << timestamp << u"Using HTTPS" << endlog;
        if (flushing) return flush(s, c);
    }
    if (s.gArgs.isSwitchSetIgnCase(CMDARG_SYMBOL_FILE)) {
        s.gpSymbols = std::make_unique<PSymbols>(&s.gLog);
        const int rc = s.gpSymbols->addSymbols(s.gArgs.getArgIgnCase(CMDARG_SYMBOL_FILE));
        if (rc < 0) {
            s.lastResultFromSymbols = true;
            s.failure = FailureReason::Symbols;
            return rc;
        }
    }
    return check ? checkDocument(s) : doReg(s, c, rule);
}

}  // namespace

int sendReceiveData() {
    ApiState& s = state();
    if (s.runStart == 0) s.runStart = epochSeconds();
    s.lastResultFromSymbols = false;
    s.failure = FailureReason::None;  // a setter's refusal is not this run's reason
    const bool httpTrace = s.gArgs.isSwitchSetIgnCase(CMDARG_HTTP_TRACE);
    s.gLog << timestamp << u"HTTP trace: " << httpTrace << endlog;
    // Every setting of the trace afresh: a host's tenth run is traced as its first.
    Trace& trace = Trace::instance();
    const bool toFile = httpTrace && !s.gArgs.getArgIgnCase(CMDARG_LOGFILENAME).empty();
    // A failed open leaves the trace without a file; the run goes on.
    trace.setExternFP(toFile ? std::fopen("kivreg_http_trace.log", "we") : nullptr);
    setKernelTraceLevel(toFile ? 3 : 0);
    trace.setEcho(httpTrace && !toFile);
    trace.setVerbosity(httpTrace ? 0 : Trace::QUIET);
    trace.tOn(true);
    int result;
    try {
        result = resolveAndRegister(s);
    } catch (const std::exception& e) {
        result = unexpected(s, e);
    }
    if (std::FILE* fp = trace.getExternFP()) {
        std::fclose(fp);
        trace.setExternFP(nullptr);  // never leave the trace a closed file
    }
    reportRun(exitStatusOf(result, s.lastResultFromSymbols));
    return result;
}

}  // namespace kivreg::api
