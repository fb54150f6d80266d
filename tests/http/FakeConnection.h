#pragma once
// A connection that keeps what is written to it, for checking request bytes
// without a network; open and write codes can be scripted.

#include <string>
#include <vector>

#include "http/IIPConnection.h"
#include "runtime/NetRc.h"

namespace kivreg::test {

class FakeConnection final : public IIPConnection {
public:
    int open(const char16_t* host, const char16_t* service, bool secure) override {
        opened.push_back({host, service, secure});
        isOpen = openRc == rt::NET_OK;
        return openRc;
    }
    int write(const void* data, int size, int* rc) override {
        const int code = writeRcs.empty() ? rt::NET_OK : writeRcs[std::min(writes, writeRcs.size() - 1)];
        ++writes;
        *rc = code;
        if (code != rt::NET_OK) return 0;
        wire.append(static_cast<const char*>(data), static_cast<size_t>(size));
        return size;
    }
    int read(void*, int, int* rc) override {
        *rc = rt::NET_ERR_CLOSED;
        return 0;
    }
    int skip(int) override { return 0; }
    int close() override {
        const bool was = isOpen;
        isOpen = false;
        return was ? 1 : 0;
    }
    int setTimeOutConn(int) override { return 0; }
    int setTimeOutSend(int) override { return 0; }
    int setTimeOutRead(int) override { return 0; }
    int getTimeOutConn() const override { return -1; }
    int getTimeOutSend() const override { return -1; }
    int getTimeOutRead() const override { return -1; }

    struct Open {
        std::u16string host, service;
        bool secure;
    };
    std::vector<Open> opened;
    int openRc = rt::NET_OK;
    std::vector<int> writeRcs;  // code of the n-th write (the last one repeats)
    size_t writes = 0;
    std::string wire;
    bool isOpen = false;
};

}  // namespace kivreg::test
