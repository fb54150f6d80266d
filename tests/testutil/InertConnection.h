#pragma once
// A connection that opens at once, accepts every write and has nothing to
// read: test doubles override only the calls they watch or feed. Header-only,
// so the fuzz targets can use it without the test framework.

#include <string>

#include "http/IIPConnection.h"
#include "runtime/NetRc.h"
#include "support/Status.h"

namespace kivreg::test {

class InertConnection : public IIPConnection {
public:
    int open(const char16_t*, const char16_t*, bool) override { return rt::NET_OK; }
    int openTunnel(const char16_t*, const char16_t*, const char16_t*, const char16_t*,
                   std::string_view) override {
        return rt::NET_OK;
    }
    const Status& status() const override { return m_status; }
    const std::string& peer() const override { return m_peer; }
    void setCredentialDir(std::string) override {}
    size_t write(const void*, size_t size, int* rc) override { return *rc = rt::NET_OK, size; }
    size_t read(void*, size_t, int* rc) override { return *rc = rt::NET_ERR_CLOSED, 0; }
    int close() override { return 0; }
    int setTimeOutConn(int) override { return 0; }
    int setTimeOutSend(int) override { return 0; }
    int setTimeOutRead(int) override { return 0; }
    int getTimeOutConn() const override { return -1; }
    int getTimeOutSend() const override { return -1; }
    int getTimeOutRead() const override { return -1; }

protected:
    Status m_status;
    std::string m_peer = "memory";
};

}  // namespace kivreg::test
