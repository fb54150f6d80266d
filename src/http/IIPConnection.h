#pragma once
// A byte stream to a server over plain TCP or TLS. Codes are those of
// runtime/NetRc.h (0 = success).

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace kivreg {

struct Status;

class IIPConnection {
public:
    virtual ~IIPConnection() = default;

    // 0 at once when already open; otherwise connects (and runs the TLS
    // handshake when `secure`) and returns the network layer's code.
    virtual int open(const char16_t* host, const char16_t* service, bool secure) = 0;
    // TLS to host:service through an HTTP proxy: a plain connection to the
    // proxy, "CONNECT host:service" (with Basic credentials for the proxy when
    // `proxyCredentials`, already encoded, is not empty), then the handshake
    // with `host` through the tunnel. The connect timeout bounds all of it.
    // NET_ERR_PROXY when the proxy answers with another status than 2xx.
    virtual int openTunnel(const char16_t* proxy, const char16_t* proxyService,
                           const char16_t* host, const char16_t* service,
                           std::string_view proxyCredentials) = 0;
    // The last failure of open, openTunnel, write or read: what failed, with
    // whom ("host port N") and why. A proxy's refusal has the reason
    // "HTTP status 407 (Proxy Authentication Required)".
    virtual const Status& status() const = 0;
    // "host port N" of the server last opened (through a tunnel: the
    // server, not the proxy), as failures name it.
    virtual const std::string& peer() const = 0;
    // Where the TLS set-up finds kivreg_trust.pem and kivreg_client.pem;
    // empty (the default): neither is looked for.
    virtual void setCredentialDir(std::string dir) = 0;
    // All `size` bytes with the send timeout; returns the bytes written.
    virtual size_t write(const void* data, size_t size, int* rc) = 0;
    // Up to `size` bytes with the read timeout; returns the bytes read.
    virtual size_t read(void* data, size_t size, int* rc) = 0;
    // 0 when nothing was open, else closes and returns 1.
    virtual int close() = 0;

    // Timeouts are given in seconds and kept in milliseconds: a negative
    // value means no limit (-1); anything from 0 to 59 becomes one minute and
    // anything above 900 becomes fifteen minutes. A server that is not
    // allowed a minute is not given a chance; one that needs more than
    // fifteen is treated as gone. Returns the stored milliseconds, except
    // 60000 for the negative and the capped case.
    virtual int setTimeOutConn(int seconds) = 0;
    virtual int setTimeOutSend(int seconds) = 0;
    virtual int setTimeOutRead(int seconds) = 0;
    virtual int getTimeOutConn() const = 0;
    virtual int getTimeOutSend() const = 0;
    virtual int getTimeOutRead() const = 0;
};

// 0 and a closed connection without timeouts, or -1.
int createIIPConnection(std::unique_ptr<IIPConnection>& out);

}  // namespace kivreg
