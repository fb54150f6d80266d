#pragma once
#include <optional>

#include "http/HttpStatus.h"
#include "http/IHttpResponse.h"
#include "http/ParValDictionary.h"
#include "support/Status.h"

namespace kivreg {

class HttpResponse final : public IHttpResponse {
public:
    explicit HttpResponse(IIPConnection* connection) : m_connection(connection) {}

    void reset() override;
    int close() override;
    IHttpStatus* getIHttpStatus() override;
    int getStatusCode() const override { return m_statusCode; }
    const std::u16string& getReasonPhrase() const override { return m_reasonPhrase; }
    const Status& failure() const override { return m_failure; }
    bool isChunked() const override { return m_chunked; }

    // One status line and header (a proxy's answer to CONNECT is read so).
    int readHeader(int* rc);
    int readHeaderSkip100(int* rc) override;
    size_t readBody(int* rc) override;
    void readFooter(int* rc) override;

    const std::u16string& getHeader() const override { return m_header; }
    std::u16string getField(std::u16string_view name) const override;
    // With the status line and the end mark.
    const std::u16string& getRawHeader() const { return m_rawHeader; }
    const std::string& getBody() const override { return m_body; }

    // Hands over the bytes received behind what has been read (what a proxy
    // sent after its answer to CONNECT belongs to the tunnel).
    std::string takeUnread() {
        std::string rest = m_buf.substr(m_pos);
        std::string().swap(m_buf);
        m_pos = 0;
        return rest;
    }

    void setReadBufferSize(int size) {
        if (size > 0) m_readBufferSize = static_cast<size_t>(size);
    }

private:
    size_t available() const { return m_buf.size() - m_pos; }
    // Reads once more from the connection behind the unread bytes.
    size_t fill(int* rc);
    // Moves up to `want` bytes into `out`: unread bytes first, then the connection.
    size_t readInto(std::string& out, size_t want, int* rc, const char* firstTrace,
                    const char* laterTrace);
    // One line ending in LF (a CR before it is dropped) of fewer than `budget`
    // bytes, its end included; the budget is reduced by the bytes taken.
    std::optional<std::string> readLine(int* rc, size_t& budget);
    // The answer refused: malformed (NET_ERR_PROTOCOL, for `reason`), beyond
    // a bound (NET_ERR_LIMIT) or cut off by the connection.
    int fail(int* rc, int code, std::string reason);
    // No header could be read from the connection.
    int lost(int* rc);
    int parseHeader(size_t length, bool bareLf, int* rc);
    size_t readChunk(int* rc);

    IIPConnection* m_connection;
    std::u16string m_version;
    int m_statusCode = 999;
    std::u16string m_reasonPhrase;
    bool m_haveStatus = false;
    std::u16string m_rawHeader;
    std::u16string m_header;
    std::unique_ptr<IParValMultilineDictionary> m_fields;  // of m_header
    std::string m_body;
    size_t m_bodyTotal = 0;
    bool m_bodyDone = false;
    bool m_lastChunkSeen = false;
    size_t m_contentLength = 0;
    bool m_chunked = false;
    std::string m_buf;  // bytes received and not yet consumed start at m_pos
    size_t m_pos = 0;
    size_t m_readBufferSize = 65536;
    std::unique_ptr<HttpStatus> m_status;
    Status m_failure;
};

}  // namespace kivreg
