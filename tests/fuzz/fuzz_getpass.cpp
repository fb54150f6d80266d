// The hidden password input: the bytes are the keys typed, standard input a
// file that holds them (no terminal to switch).

#include <cstdio>

#include "FuzzUtil.h"
#include "secstore/CGetPass.h"

using namespace kivreg;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const fuzz::Env env;
    const std::string keys = env.file("keys", fuzz::bytes(data, size));
    if (std::freopen(keys.c_str(), "r", stdin) == nullptr) return 0;
    CGetPass::getPasswd();
    return 0;
}
