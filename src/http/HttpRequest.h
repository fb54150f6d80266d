#pragma once
#include <utility>

#include "http/IHttpRequest.h"
#include "support/Status.h"

namespace kivreg {

class HttpRequest final : public IHttpRequest {
public:
    HttpRequest(IIPConnection& connection, IURL& url);

    int connect(int* rc) override;

    size_t sendMessage(int* rc) override;
    const Status& failure() const override { return m_failure; }

    void setHeaderline(std::u16string_view line) override;
    void addHeaderline(std::u16string_view line) override;
    void setBody(std::string&& bytes) override;
    std::string_view body() const override { return m_body; }
    void setBodyWriter(size_t size, BodyWriter writer) override;
    void setProgress(Progress progress) override { m_progress = std::move(progress); }

private:
    // "POST /path HTTP/1.1\r\nHost: h\r\nConnection: Close".
    std::string makeCmdLine() const;
    // Request line in front, credentials, length line, empty line.
    void completeHeader();
    size_t writeBuffer(std::string_view buffer, int* rc);
    size_t writeBody(int* rc);

    IURL& m_url;
    IIPConnection& m_connection;
    std::string m_header;
    std::string m_body;
    BodyWriter m_writer;    // set instead of m_body for a rendered body
    size_t m_bodySize = 0;  // of either
    int m_sendCount = 0;
    bool m_viaProxy = false;
    Progress m_progress;
    Status m_failure;
};

}  // namespace kivreg
