#pragma once
#include <utility>

#include "http/IHttpRequest.h"

namespace kivreg {

class HttpRequest final : public IHttpRequest {
public:
    // Kept for callers of the old interface: both send credentials as given.
    enum CodeType : int { SCRAMBLED = 0, PLAIN = 1 };

    HttpRequest(IIPConnection* connection, HttpCmd cmd, IURL* url, CodeType codeType);

    void reset() override;
    int connect(int* rc, TransferType transfer, ConnectionType connection) override;
    void setIURL(IURL& url) override { m_url = &url; }
    void setIURL(IURL* url) override { m_url = url; }
    IURL* getIURL() const override { return m_url; }
    void setCmd(HttpCmd cmd) override { m_cmd = cmd; }
    HttpCmd getCmd() const override { return m_cmd; }

    int sendMessage(int* rc) override;
    int sendHeader(int* rc, int contentLength) override;
    int sendChunk(int* rc, std::u16string_view extension) override;
    int sendFooter(int* rc) override;

    int setHeaderline(std::u16string_view line) override;
    int addHeaderline(std::u16string_view line) override;
    int insertHeaderline(std::u16string_view line) override;
    int setBody(const unsigned char* data, int size) override;
    int setBody(std::string&& bytes) override;
    std::string takeBody() override { return std::exchange(m_body, {}); }
    int addBody(const unsigned char* data, int size) override;
    int setBodyline(std::u16string_view line) override;
    int addBodyline(std::u16string_view line) override;
    int insertBodyline(std::u16string_view line) override;
    int setFooterline(std::u16string_view footer) override;

    int getHeaderBlocksize() const override { return m_headerBlock; }
    int setHeaderBlocksize(int size) override { return swapBlock(m_headerBlock, size); }
    int getBodyBlocksize() const override { return m_bodyBlock; }
    int setBodyBlocksize(int size) override { return swapBlock(m_bodyBlock, size); }
    void setProgress(Progress progress) override { m_progress = std::move(progress); }

private:
    // "POST /path HTTP/1.1\r\nHost: h[\r\nConnection: Close]"; empty without URL.
    std::string makeCmdLine() const;
    // Request line in front, credentials, length or chunking line, empty line.
    void completeHeader(int contentLength);
    static int swapBlock(int& block, int size);
    static void reserveBlocks(std::string& buffer, size_t needed, int block);
    int writeBuffer(std::string_view buffer, int* rc);
    int writeBody(int* rc);

    HttpCmd m_cmd;
    IURL* m_url;
    IIPConnection* m_connection;
    ConnectionType m_connectionType = TRANSIENT;
    TransferType m_transferType = UNCHUNKED;
    std::string m_header;
    std::string m_body;
    int m_headerBlock = 4096;
    int m_bodyBlock = 102400;
    int m_sendCount = 0;
    bool m_viaProxy = false;
    Progress m_progress;
};

}  // namespace kivreg
