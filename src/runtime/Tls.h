#pragma once
// TLS client over a socket from runtime/NetSocket.h, built on OpenSSL 3. This
// header is the boundary: nothing above it sees an OpenSSL type.
//
// Every session verifies the server: TLS 1.2 or newer, the certificate chain
// against the system's trust store plus kivreg_trust.pem in the credential
// directory when that file exists, and the certificate against the host name
// (or IP address) that was asked for; the name is also sent as SNI. When the
// credential directory holds kivreg_client.pem, that is a client certificate
// and key (PEM), presented to a server that asks for one. There is
// deliberately no way to relax verification.
//
// Codes are those of runtime/NetRc.h. Failures fill a Status with what failed
// and OpenSSL's reason: the verify error with the certificate's subject,
// issuer and validity, or the names it is for when they do not match.

#include <cstddef>
#include <memory>
#include <string>

#include "runtime/NetRc.h"

namespace kivreg {
struct Status;
}

namespace kivreg::rt {

struct TlsContext;
struct TlsSession;
struct TlsContextFree {
    void operator()(TlsContext* ctx) const noexcept;
};
// Sends close_notify when it can without waiting, then frees the session. The
// socket itself belongs to the caller and stays open.
struct TlsSessionFree {
    void operator()(TlsSession* session) const noexcept;
};
using TlsContextPtr = std::unique_ptr<TlsContext, TlsContextFree>;
using TlsSessionPtr = std::unique_ptr<TlsSession, TlsSessionFree>;

inline constexpr const char* TLS_TRUST_FILE = "kivreg_trust.pem";
inline constexpr const char* TLS_CLIENT_FILE = "kivreg_client.pem";

// Builds the client configuration with the files of the credential
// directory (none when it is empty).
int tlsInit(TlsContextPtr& ctx, const std::string& credentialDir, Status& status);

// Runs the handshake on a connected socket, bounded by timeoutMs. `early`
// holds bytes already taken from the socket that belong to the session (what
// a proxy sent behind its answer); they are read before the socket.
int tlsSessionStart(TlsContext& ctx, int handle, const std::string& host, int timeoutMs,
                    TlsSessionPtr& session, Status& status, std::string early = {});

// As netWrite and netRead, the Status given the code and the reason.
int tlsWrite(TlsSession& session, const void* data, size_t size, int timeoutMs, size_t* written,
             Status* status = nullptr);
int tlsRead(TlsSession& session, void* data, size_t size, int timeoutMs, size_t* got,
            Status* status = nullptr);

// Why the last read or write of the session failed (empty after success).
const std::string& tlsLastReason(const TlsSession& session);
// Protocol version and cipher of an established session, e.g. "TLSv1.3 TLS_AES_256_GCM_SHA384".
std::string tlsDescribe(const TlsSession& session);

}  // namespace kivreg::rt
