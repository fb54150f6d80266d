#pragma once
#include "http/IIPConnection.h"
#include "runtime/NetSocket.h"
#include "runtime/Tls.h"
#include "support/Status.h"

namespace kivreg {

class IPConnection final : public IIPConnection {
public:
    IPConnection() = default;
    ~IPConnection() override { close(); }
    IPConnection(const IPConnection&) = delete;
    IPConnection& operator=(const IPConnection&) = delete;

    int open(const char16_t* host, const char16_t* service, bool secure) override;
    int openTunnel(const char16_t* proxy, const char16_t* proxyService, const char16_t* host,
                   const char16_t* service, std::string_view proxyCredentials) override;
    const Status& status() const override { return m_status; }
    const std::string& peer() const override { return m_peer; }
    void setCredentialDir(std::string dir) override { m_credentialDir = std::move(dir); }
    size_t write(const void* data, size_t size, int* rc) override;
    size_t read(void* data, size_t size, int* rc) override;
    int close() override;

    int setTimeOutConn(int seconds) override;
    int setTimeOutSend(int seconds) override;
    int setTimeOutRead(int seconds) override;
    int getTimeOutConn() const override { return m_connectMs; }
    int getTimeOutSend() const override { return m_sendMs; }
    int getTimeOutRead() const override { return m_readMs; }

private:
    // TLS set-up (once per object) when `tls`, then the TCP connection.
    int connectTo(const std::string& host, const std::string& service, bool tls,
                  const rt::NetDeadline& deadline);
    int startTls(const std::string& host, const rt::NetDeadline& deadline, std::string early);
    // Sends CONNECT and reads the answer; `early` gets what followed it.
    int askForTunnel(const std::string& host, const std::string& service,
                     std::string_view credentials, std::string& early);
    int waitMs(int phaseMs) const { return m_opening ? m_opening->remainingMs() : phaseMs; }
    // A failed read or write: the runtime's code and reason, said of the peer.
    int ioFailed(int code, Status::Step step, const char* what);

    int m_handle = -1;
    rt::TlsSessionPtr m_session;  // set while a TLS session runs on the socket
    rt::TlsContextPtr m_tls;      // set up once per object, on the first secure open
    int m_connectMs = -1;
    int m_sendMs = -1;
    int m_readMs = -1;
    const rt::NetDeadline* m_opening = nullptr;  // while opening, the connect timeout rules
    std::string m_credentialDir;
    std::string m_peer;  // "host port N" of the server spoken to
    Status m_status;
};

}  // namespace kivreg
