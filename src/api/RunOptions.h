#pragma once
// What a run reads from its settings (and, for the abilities library hosts
// reach without a setter, from the environment).

#include <cstdint>
#include <string>
#include <string_view>

#include "api/CPArgs.h"
#include "http/ProxyConfig.h"

namespace kivreg::api {

struct ApiState;

struct ConnectData {
    std::u16string user, password, host, port;
    bool useHttps = false;
    bool failed = false;
};

// The connect file when one is set (it rules over -user, -pass, -host, -port
// and -usehttps), else those options.
ConnectData resolveConnectData(ApiState& s);

// 0 and 65536 pass on purpose: the run has always been that lenient.
bool portAccepted(const std::u16string& port);

struct Timeouts {
    int connect, send, receive;  // seconds, -1 for none
};
Timeouts timeoutsOf(const CPArgs& args);

// --proxy and --noproxy, when given, rule over the environment.
ProxyOptions proxyOptions(const CPArgs& args);

// A number from the settings within [low, high], else the fallback.
int boundedNumber(const CPArgs& args, std::u16string_view option, int fallback, int low, int high);

// An option's value, else the environment variable's, as bytes; empty when neither is set.
std::string settingOrEnv(const CPArgs& args, std::u16string_view option, const char* variable);

uint64_t spoolMaxBytes(const CPArgs& args);

// --if-changed, else KIVREG_IF_CHANGED=1.
bool ifChanged(const CPArgs& args);
// A duration for --resend-after: seconds, or a number with s, m, h or d; at
// most 365 days. -1 for anything else.
long durationSeconds(std::string_view text);

}  // namespace kivreg::api
