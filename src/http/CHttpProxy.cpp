#include "http/CHttpProxy.h"

#include <unistd.h>
#include <climits>
#include <cstdlib>
#include <new>

#include "http/IHttpRequest.h"
#include "http/IHttpResponse.h"
#include "http/IHttpStatus.h"
#include "http/IIPConnection.h"
#include "http/IURL.h"
#include "model/CXmlFile.h"
#include "model/Utf8Log.h"
#include "runtime/NetRc.h"
#include "runtime/textconv.h"
#include "support/CCConv.h"
#include "support/CLog.h"
#include "support/Status.h"

namespace kivreg {

namespace {

// The factories fail only when memory runs out.
void required(int rc) {
    if (rc != 0) throw std::bad_alloc();
}

}  // namespace

CHttpProxy::CHttpProxy(CLog* log, std::u16string_view encoding, CXmlFile* xmlFile,
                       const std::u16string& user, const std::u16string& password,
                       const std::u16string& host, const std::u16string& port, int connectTimeout,
                       int sendTimeout, int readTimeout, bool openNow, bool https,
                       const ProxyOptions& proxy, std::u16string_view path)
    : m_log(log),
      m_xmlFile(xmlFile),
      m_user(user),
      m_password(password),
      m_host(host),
      m_port(port),
      m_encoding(encoding) {
    required(createIIPConnection(m_connection));
    if (https) handleSecEnv();
    m_connection->setTimeOutConn(connectTimeout);
    m_connection->setTimeOutSend(sendTimeout);
    m_connection->setTimeOutRead(readTimeout);
    required(createIURL(m_url));
    required(createIHttpRequest(*m_connection, *m_url, m_request));
    required(createIHttpResponse(*m_connection, m_response));

    std::u16string text = https ? u"https://" : u"http://";
    text += hostPort(m_host, m_port);
    if (path.empty()) {
        text += u'/';
        text += ms_dsServletUrl;
    } else {
        text += path;
    }
    *m_log << timestamp << u"Used URL: " << text << endlog;

    m_url->setHuser(m_user.c_str());
    m_url->setHpass(m_password.c_str());
    m_url->setUrl(text.c_str());

    const ProxyChoice choice = chooseProxy(https, m_host, proxy);
    m_viaProxy = !choice.direct();
    if (!choice.error.empty()) {
        *m_log << timestamp << choice.error << endlog;
        m_proxyUnusable = true;
        std::string reason;
        rt::utf16ToUtf8Lenient(choice.error, reason);
        m_failure = Status::failed(rt::NET_ERR_PROXY, Status::Step::Proxy,
                                   "Could not use the proxy", {}, std::move(reason));
    } else if (!choice.direct()) {
        *m_log << timestamp << u"Using proxy: " << choice.display() << endlog;
        m_url->setProxy(choice.host.c_str());
        m_url->setPport(choice.port.c_str());
        if (choice.user) {
            m_url->setPuser(choice.user->c_str());
            m_url->setPpass(choice.password->c_str());
        }
    }

    m_request->setHeaderline(
        CCConv::stringSubstituteAll(ms_httpHeaderContentTypeTemplate, ms_placeholder, m_encoding));

    if (openNow) {
        // The line reports the code held before the attempt, not the one the
        // attempt produced; readers of these logs rely on its form.
        const int before = m_niRc;
        connect();
        *m_log << timestamp << u"HTTP open status: " << m_open << u" - NI RC=" << before << endlog;
    }
}

CHttpProxy::~CHttpProxy() = default;

int CHttpProxy::connect() {
    m_open = !m_proxyUnusable && m_request->connect(&m_niRc) > 0;
    if (!m_open && !m_proxyUnusable) {
        m_failure = m_connection->status();
        if (m_failure.code == rt::NET_ERR_PROXY)
            *m_log << timestamp << u"Proxy refused the tunnel: " << m_failure.reason.c_str()
                   << endlog;
        if (m_failure.ok()) {  // nothing was opened: there was no host to open
            m_failure = Status::failed(rt::NET_ERR_INVALID, Status::Step::Connect,
                                       "No host to connect to", {});
        } else if (m_viaProxy && (m_failure.step == Status::Step::Resolve ||
                                  m_failure.step == Status::Step::Connect)) {
            m_failure.step = Status::Step::Proxy;
            m_failure.after = "(the proxy)";
        }
    }
    // From here on the field holds the open flag, not the network code.
    m_niRc = m_open ? 1 : 0;
    return m_niRc;
}

void CHttpProxy::handleSecEnv() {
    // The process environment is the host's: the directory goes to the
    // connection, never into SECUDIR.
    if (const char* dir = std::getenv("SECUDIR")) {
        m_connection->setCredentialDir(dir);
        return;
    }
    char dir[PATH_MAX];
    if (getcwd(dir, sizeof dir) == nullptr) {
        *m_log << timestamp << u"Failed to get current work directory" << endlog;
        return;
    }
    m_connection->setCredentialDir(dir);
}

std::string CHttpProxy::declaration(std::u16string_view encoding) {
    std::string bytes = "<?xml version=\"1.0\" encoding=\"";
    rt::utf16ToUtf8Lenient(encoding, bytes);
    bytes += "\"?>";
    return bytes;
}

std::string CHttpProxy::renderBody(const CXmlFile& xmlFile, std::u16string_view encoding) {
    std::string bytes = declaration(encoding);
    xmlFile.appendBody(bytes);
    return bytes;
}

size_t CHttpProxy::renderedSize(const CXmlFile& xmlFile, std::u16string_view encoding) {
    return declaration(encoding).size() + xmlFile.bodySize();
}

void CHttpProxy::createBodyFromXML() {
    setPreparedBody({}, m_xmlFile->useOldTransferDtd());
    std::string head = declaration(m_encoding);
    m_bodySize = head.size() + m_xmlFile->bodySize();
    m_streamed = true;
    m_request->setBodyWriter(
        m_bodySize, [this, head = std::move(head)](size_t piece, const IHttpRequest::Piece& write) {
            m_xmlFile->writeBody(head, piece, write);
        });
}

void CHttpProxy::setPreparedBody(std::string bytes, bool oldFormat) {
    // Documents in the current format go without a content-type line: this
    // replaces the header set at construction. The old format keeps it.
    if (!oldFormat) m_request->setHeaderline(DATA_SUPPLIER_XML_VERSION);
    m_request->addHeaderline(USER_AGENT);
    m_streamed = false;
    m_bodySize = bytes.size();
    if (!bytes.empty()) m_request->setBody(std::move(bytes));
}

void CHttpProxy::setProgress(std::function<void(size_t written, size_t total)> progress) {
    m_request->setProgress(std::move(progress));
}

int CHttpProxy::send() {
    if (m_trace) {
        *m_log << timestamp << u">>> BEGIN HTTP MESSAGE BODY >>>" << endlog;
        if (m_streamed)
            *m_log << timestamp << Utf8(renderBody(*m_xmlFile, m_encoding)) << endlog;
        else
            *m_log << timestamp << Utf8(m_request->body()) << endlog;
        *m_log << timestamp << u"<<< END HTTP MESSAGE BODY <<<" << endlog;
    }
    m_request->sendMessage(&m_niRc);
    m_failure = m_niRc != 0 ? m_request->failure() : Status{};
    return m_niRc;
}

CHttpProxy::AnswerBody CHttpProxy::readAnswerBody(IHttpResponse& response) {
    AnswerBody body;
    std::string raw;
    int rc = 0;
    while (response.readBody(&rc) > 0) raw += response.getBody();
    if (response.isChunked() && rc >= 0) response.readFooter(&rc);
    // A malformed or oversized answer is no answer; a body cut short by
    // the server closing still leaves its status standing.
    body.refused = rc == rt::NET_ERR_PROTOCOL || rc == rt::NET_ERR_LIMIT;
    body.bytes = raw.size();
    body.start = raw.substr(0, MAX_ANSWER_START + 4);  // enough to tell that there is more
    if (!body.refused) body.text = CCConv::fromUTF8Str(std::string_view(raw));
    response.reset();
    return body;
}

int CHttpProxy::receive() {
    // The label says length, the value is the number of interim answers
    // skipped; the line keeps the form that log readers know.
    const int skipped = m_response->readHeaderSkip100(&m_niRc);
    if (m_trace)
        *m_log << timestamp << u"NI rc: " << m_niRc << u". HTTP header length: " << skipped
               << u". HTTP header: " << m_response->getHeader() << endlog;

    m_retryAfter = m_response->getField(u"Retry-After");
    m_location = m_response->getField(u"Location");
    const AnswerBody body = readAnswerBody(*m_response);
    if (m_trace)
        *m_log << timestamp << u"HTTP body length: " << body.bytes << u" --- HTTP body: "
               << (body.text.empty() ? std::u16string_view(u"*empty*")
                                     : std::u16string_view(body.text))
               << endlog;

    m_status = body.refused ? nullptr : m_response->getIHttpStatus();
    m_answerStart = body.start;
    if (m_status == nullptr) {
        m_failure = m_response->failure();
        return -1;
    }
    m_answerCode = m_response->getStatusCode();
    *m_log << timestamp << u"Return code: " << m_status->getCode() << u" --- Return message: "
           << m_status->getMessage() << endlog;
    m_failure = {};
    if (m_answerCode != HTTP_SUCCESS_CODE) {
        std::string status;
        rt::utf16ToUtf8Lenient(m_status->getMessage(), status);
        m_failure =
            Status::failed(m_answerCode, Status::Step::HttpStatus,
                           "HTTP status " + std::to_string(m_answerCode) + " " + status + " from",
                           m_connection->peer());
        if (m_answerCode / 100 == 3 && !m_location.empty()) {
            std::string location;
            rt::utf16ToUtf8Lenient(m_location, location);
            m_failure.reason = "Location " + oneLine(location, MAX_ANSWER_START);
        }
    }
    return m_status->getCode();
}

}  // namespace kivreg
