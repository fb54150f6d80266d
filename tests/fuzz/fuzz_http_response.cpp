// The server's answer, read as the registration reads it, from a connection
// that hands out the bytes in pieces of the size the first byte gives.

#include <algorithm>
#include <cstring>

#include "FuzzUtil.h"
#include "http/CHttpProxy.h"
#include "http/IHttpResponse.h"
#include "http/IHttpStatus.h"
#include "http/IIPConnection.h"
#include "runtime/NetRc.h"
#include "support/ERegExcept.h"

using namespace kivreg;

namespace {

class MemoryConnection final : public IIPConnection {
public:
    MemoryConnection(std::string_view bytes, size_t piece) : m_bytes(bytes), m_piece(piece) {}
    int open(const char16_t*, const char16_t*, bool) override { return 0; }
    int openTunnel(const char16_t*, const char16_t*, const char16_t*, const char16_t*,
                   std::string_view) override {
        return 0;
    }
    const std::string& getTunnelRefusal() const override { return m_none; }
    int write(const void*, int size, int*) override { return size; }
    int read(void* data, int size, int* rc) override {
        const size_t n = std::min({m_bytes.size(), m_piece, static_cast<size_t>(size)});
        std::memcpy(data, m_bytes.data(), n);
        m_bytes.remove_prefix(n);
        *rc = n == 0 ? rt::NET_ERR_CLOSED : rt::NET_OK;
        return static_cast<int>(n);
    }
    int skip(int size) override {
        const size_t n = std::min(m_bytes.size(), static_cast<size_t>(size));
        m_bytes.remove_prefix(n);
        return static_cast<int>(n);
    }
    int close() override { return 1; }
    int setTimeOutConn(int) override { return 0; }
    int setTimeOutSend(int) override { return 0; }
    int setTimeOutRead(int) override { return 0; }
    int getTimeOutConn() const override { return 0; }
    int getTimeOutSend() const override { return 0; }
    int getTimeOutRead() const override { return 0; }

private:
    std::string_view m_bytes;
    size_t m_piece;
    const std::string m_none;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    MemoryConnection connection(fuzz::bytes(data + 1, size - 1), data[0] + size_t{1});
    std::unique_ptr<IHttpResponse> response;
    if (createIHttpResponse(&connection, response) != 0) return 0;
    int rc = 0;
    response->readHeaderSkip100(&rc);
    try {
        CHttpProxy::readAnswerBody(*response);
    } catch (const ERegExcept&) {
        // A body that is not UTF-8 fails the run with this exception.
    }
    if (IHttpStatus* status = response->getIHttpStatus()) status->getMessage();
    return 0;
}
