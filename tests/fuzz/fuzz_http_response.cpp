// The server's answer, read as the registration reads it, from a connection
// that hands out the bytes in pieces of the size the first byte gives.

#include <algorithm>
#include <cstring>

#include "FuzzUtil.h"
#include "http/CHttpProxy.h"
#include "http/IHttpResponse.h"
#include "http/IHttpStatus.h"
#include "runtime/NetRc.h"
#include "support/ERegExcept.h"
#include "testutil/InertConnection.h"

using namespace kivreg;

namespace {

class MemoryConnection final : public test::InertConnection {
public:
    MemoryConnection(std::string_view bytes, size_t piece) : m_bytes(bytes), m_piece(piece) {}
    size_t read(void* data, size_t size, int* rc) override {
        const size_t n = std::min({m_bytes.size(), m_piece, size});
        std::memcpy(data, m_bytes.data(), n);
        m_bytes.remove_prefix(n);
        *rc = n == 0 ? rt::NET_ERR_CLOSED : rt::NET_OK;
        return n;
    }

private:
    std::string_view m_bytes;
    size_t m_piece;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    MemoryConnection connection(fuzz::bytes(data + 1, size - 1), data[0] + size_t{1});
    std::unique_ptr<IHttpResponse> response;
    if (createIHttpResponse(connection, response) != 0) return 0;
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
