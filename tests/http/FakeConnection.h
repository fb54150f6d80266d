#pragma once
// A connection that keeps what is written to it, for checking request bytes
// without a network; the open code can be scripted.

#include <string>

#include "http/IIPConnection.h"
#include "runtime/NetRc.h"

namespace kivreg::test {

class FakeConnection final : public IIPConnection {
public:
    int open(const char16_t* h, const char16_t* s, bool secure) override {
        host = h, service = s, tls = secure, ++opens;
        return openRc;
    }
    int write(const void* data, int size, int* rc) override {
        wire.append(static_cast<const char*>(data), static_cast<size_t>(size));
        return *rc = rt::NET_OK, size;
    }
    int read(void*, int, int* rc) override { return *rc = rt::NET_ERR_CLOSED, 0; }
    int skip(int) override { return 0; }
    int close() override { return 0; }
    int setTimeOutConn(int) override { return 0; }
    int setTimeOutSend(int) override { return 0; }
    int setTimeOutRead(int) override { return 0; }
    int getTimeOutConn() const override { return -1; }
    int getTimeOutSend() const override { return -1; }
    int getTimeOutRead() const override { return -1; }

    std::u16string host, service;
    bool tls = false;
    int opens = 0;
    int openRc = rt::NET_OK;
    std::string wire;
};

}  // namespace kivreg::test
