// The registration run: resolve traces and connection data, then validate,
// substitute and send the document.

#include <cstdio>

#include "api/ApiState.h"
#include "api/Vocabulary.h"
#include "http/CHttpProxy.h"
#include "http/Trace.h"
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

void dataTrace(ApiState& s) {
    if (!s.gArgs.isSwitchSetIgnCase(CMDARG_DATA_TRACE)) return;
    s.gLog << timestamp << u">>> Begin Parsed Data >>>" << endlog;
    s.gpXmlFile->write2File();
    s.gLog << timestamp << u"<<< End Parsed Data <<<" << endlog;
}

int transfer(ApiState& s, const ConnectData& c) {
    CLog& log = s.gLog;
    CXmlFile& doc = *s.gpXmlFile;
    if (!doc.isLoaded() || !doc.validateReferences()) {
        log << timestamp << u"Invalid XML data file input." << endlog;
        return -1;
    }
    dataTrace(s);
    if (s.gpSymbols) {
        doc.setSymbols(*s.gpSymbols);
        s.gpSymbols->printSymbols();
        if (!doc.replaceSymbols()) return -1;
        dataTrace(s);  // the document once more, after substitution
    }
    const int connectTimeout = timeoutOf(s.gArgs, CMDARG_CONNECT_TIMEOUT);
    const int sendTimeout = timeoutOf(s.gArgs, CMDARG_SEND_TIMEOUT);
    const int receiveTimeout = timeoutOf(s.gArgs, CMDARG_RECEIVE_TIMEOUT);
    // "infinte" is how this line has always read; log watchers match on it.
    logTimeout(log, u"HTTP open timeout     = ", u"infinte", connectTimeout);
    logTimeout(log, u"HTTP send timeout     = ", u"infinite", sendTimeout);
    logTimeout(log, u"HTTP response timeout = ", u"infinite", receiveTimeout);

    CHttpProxy proxy(&log, CHttpProxy::TRANSFER_ENCODING_UTF8, doc, c.user, c.password, c.host,
                     c.port, connectTimeout, sendTimeout, receiveTimeout, true, c.useHttps,
                     proxyOptions(s.gArgs));
    if (s.gArgs.isSwitchSetIgnCase(CMDARG_HTTP_TRACE)) proxy.setTrace();
    if (!proxy.isOpen()) {
        log << timestamp << u"Failed to open HTTP connection!" << endlog;
        return -2;
    }
    proxy.createBodyFromXML();
    const int rc = proxy.send();
    if (rc != 0) {
        log << timestamp << u"HTTP data sending failed. NI RC=" << rc << endlog;
        return -1;
    }
    log << timestamp << u"HTTP send successful." << endlog;
    const int status = proxy.receive();
    if (status == CHttpProxy::HTTP_SUCCESS_CODE) {
        log << timestamp << u"HTTP response: Success. HTTP status code: " << status << endlog;
        return 0;
    }
    log << timestamp << u"HTTP response: Failure. HTTP status code: " << status << endlog;
    return -1;
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
        s.gLog << timestamp << u"Failed to transfer data (type/msg): "
               << static_cast<int>(e.getExceptionType()) << u"/" << e.getExceptionMsg() << endlog;
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

    const ConnectData c = resolveConnectData(s);
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
    if (s.gArgs.isSwitchSetIgnCase(CMDARG_SYMBOL_FILE)) {
        s.gpSymbols = std::make_unique<PSymbols>(&s.gLog);
        const int rc = s.gpSymbols->addSymbols(s.gArgs.getArgIgnCase(CMDARG_SYMBOL_FILE));
        if (rc < 0) {
            s.lastResultFromSymbols = true;
            return rc;
        }
    }
    return doReg(s, c);
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
