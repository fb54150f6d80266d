#pragma once
// One registration carried to the directory server: the loaded document is
// posted to the data-supplier path and the server's status is reported.
// Constructed (and connected) -> createBodyFromXML -> send -> receive. The
// connection is transient, so an object carries exactly one request.

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "http/ProxyConfig.h"
#include "support/Status.h"

namespace kivreg {

class CLog;
class CXmlFile;
class IIPConnection;
class IHttpRequest;
class IHttpResponse;
class IHttpStatus;
class IURL;

class CHttpProxy {
public:
    static constexpr std::u16string_view TRANSFER_ENCODING_UTF8 = u"utf-8";
    // Sent as it stands; the servers expect this header name without a hyphen.
    static constexpr std::u16string_view USER_AGENT = u"UserAgent: KIV Data Supplier kivreg";
    static constexpr std::u16string_view DATA_SUPPLIER_XML_VERSION = u"dsxmlversion:2.0";
    static constexpr std::u16string_view ms_dsServletUrl = u"kiv/ds";
    static constexpr std::u16string_view ms_httpHeaderContentTypeTemplate =
        u"Content-type: text/xml; charset=\"XXX\"";
    static constexpr std::u16string_view ms_placeholder = u"XXX";
    static constexpr int HTTP_SUCCESS_CODE = 200;
    static constexpr std::u16string_view SECUDIR = u"SECUDIR";

    // Timeouts in seconds (see IIPConnection for the limits). The document
    // must outlive the object; its body is read, never copied. Without one
    // the body comes prepared (setPreparedBody). The proxy, if any, is
    // chosen here from the options and the environment. The request goes to
    // path on the host, by default the data-supplier path.
    CHttpProxy(CLog* log, std::u16string_view encoding, CXmlFile* xmlFile,
               const std::u16string& user, const std::u16string& password,
               const std::u16string& host, const std::u16string& port, int connectTimeout,
               int sendTimeout, int readTimeout, bool openNow, bool https,
               const ProxyOptions& proxy = {}, std::u16string_view path = {});
    ~CHttpProxy();
    CHttpProxy(const CHttpProxy&) = delete;
    CHttpProxy& operator=(const CHttpProxy&) = delete;

    bool isOpen() const { return m_open; }
    // Sets the header lines; the body is rendered from the document as it is
    // sent, a piece at a time: renderBody's bytes, never held whole beside the
    // model.
    void createBodyFromXML();
    // The length of the body set, in bytes.
    size_t bodySize() const { return m_bodySize; }
    // The same for bytes of either format kept from any earlier run, sent
    // exactly as they are.
    void setPreparedBody(std::string body, bool oldFormat);
    // 0 when the body was written, else the network layer's code.
    int send();
    // Reports the body's bytes written and their total as send goes on.
    void setProgress(std::function<void(size_t written, size_t total)> progress);
    // The HTTP status of the answer, or -1 when none could be had.
    int receive();
    // The number in the answer's status line, -1 without one.
    int getAnswerCode() const { return m_answerCode; }
    // What the last step (open, send, receive) failed of, where and why; for
    // an answer other than 200, its status (and a 3xx answer's Location).
    const Status& failure() const { return m_failure; }
    // The first bytes of the answer's body, as sent.
    static constexpr size_t MAX_ANSWER_START = 512;
    const std::string& answerStart() const { return m_answerStart; }
    // The answer's Retry-After value as sent, empty when it had none.
    const std::u16string& getRetryAfter() const { return m_retryAfter; }
    // The answer's Location value as sent, empty when it had none.
    const std::u16string& getLocation() const { return m_location; }
    // The body (and trailer) of an answer whose header has been read, as
    // receive takes it: refused when malformed or beyond the bounds.
    struct AnswerBody {
        std::u16string text;
        size_t bytes = 0;
        bool refused = false;
        std::string start;  // the first bytes, a few beyond MAX_ANSWER_START
    };
    static AnswerBody readAnswerBody(IHttpResponse& response);

    // The bytes of the transfer document as they are sent: the XML
    // declaration and the document, UTF-8, rendered straight from the model
    // into one buffer. The one place that yields them; createBodyFromXML
    // sends them as it renders them, setPreparedBody as they were kept.
    static std::string renderBody(const CXmlFile& xmlFile, std::u16string_view encoding);
    // What renderBody puts before the document.
    static std::string declaration(std::u16string_view encoding);
    // The length of what renderBody would give.
    static size_t renderedSize(const CXmlFile& xmlFile, std::u16string_view encoding);

    int getNiRc() const { return m_niRc; }
    void setTrace() { m_trace = true; }
    void unsetTrace() { m_trace = false; }

    // Tells the connection where the TLS credentials lie: SECUDIR when set,
    // else the working directory. The environment is left as it is.
    void handleSecEnv();

private:
    int connect();

    std::unique_ptr<IIPConnection> m_connection;
    std::unique_ptr<IHttpRequest> m_request;
    std::unique_ptr<IHttpResponse> m_response;
    std::unique_ptr<IURL> m_url;
    IHttpStatus* m_status = nullptr;  // owned by m_response
    int m_niRc = 0;
    CLog* m_log;
    CXmlFile* m_xmlFile;  // null when the body comes prepared
    std::u16string m_user;
    std::u16string m_password;
    std::u16string m_host;
    std::u16string m_port;
    bool m_open = false;
    bool m_proxyUnusable = false;  // a proxy was named that cannot be used
    bool m_viaProxy = false;
    std::u16string m_encoding;
    bool m_trace = false;
    bool m_streamed = false;  // the body is rendered from m_xmlFile as it is sent
    size_t m_bodySize = 0;
    std::u16string m_retryAfter;
    std::u16string m_location;
    int m_answerCode = -1;
    Status m_failure;
    std::string m_answerStart;
};

}  // namespace kivreg
