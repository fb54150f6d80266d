// Reading a run's settings.

#include "api/RunOptions.h"

#include <algorithm>
#include <cstdlib>

#include "api/ApiState.h"
#include "api/Vocabulary.h"
#include "secstore/CSecStore.h"
#include "support/CCConv.h"
#include "support/Decimal.h"

namespace kivreg::api {
namespace {

constexpr int kDefaultTimeout = 420;  // seconds

// Seconds from an option; 0 means no limit (-1), anything not numeric the default.
int timeoutOf(const CPArgs& args, std::u16string_view option) {
    if (!args.isSwitchSetIgnCase(option)) return kDefaultTimeout;
    const std::u16string value = CCConv::trim(args.getArgIgnCase(option));
    if (!CPArgs::isNumeric(value)) return kDefaultTimeout;
    const int seconds = CPArgs::getNumber(value);
    return seconds == 0 ? -1 : seconds;
}

}  // namespace

ConnectData resolveConnectData(ApiState& s) {
    ConnectData c;
    const std::u16string connectFile = s.gArgs.getArgIgnCase(CMDARG_CONNECT_FILE);
    if (!connectFile.empty()) {
        CSecStore store(&s.gLog, connectFile);
        if (store.fetch()) {
            c.host = store.get(std::u16string(PARAM_HOST));
            c.port = store.get(std::u16string(PARAM_PORT));
            c.user = store.get(std::u16string(PARAM_USER));
            c.password = store.get(std::u16string(PARAM_PASS));
            c.useHttps = store.get(std::u16string(PARAM_HTTPS)) == u"y";
        } else {
            s.gLog << timestamp << u"Failed to read connect file: " << connectFile << endlog;
            c.failed = true;
        }
    } else {
        c.user = s.gArgs.getArgIgnCase(CMDARG_HTTP_USER);
        c.password = s.gArgs.getArgIgnCase(CMDARG_HTTP_PASS);
        c.host = s.gArgs.getArgIgnCase(CMDARG_HTTP_HOST);
        c.port = CCConv::trim(s.gArgs.getArgIgnCase(CMDARG_HTTP_PORT));
        c.useHttps = s.gArgs.isSwitchSetIgnCase(CMDARG_USEHTTPS);
    }
    return c;
}

bool portAccepted(const std::u16string& port) {
    // A text that is no number counts as 2147483647.
    const int n = CPArgs::getNumber(port);
    return n >= 0 && n <= 65536;
}

Timeouts timeoutsOf(const CPArgs& args) {
    return {timeoutOf(args, CMDARG_CONNECT_TIMEOUT), timeoutOf(args, CMDARG_SEND_TIMEOUT),
            timeoutOf(args, CMDARG_RECEIVE_TIMEOUT)};
}

ProxyOptions proxyOptions(const CPArgs& args) {
    ProxyOptions options;
    if (args.isSwitchSet(CMDARG_PROXY)) options.proxy = args.getArg(CMDARG_PROXY);
    if (args.isSwitchSet(CMDARG_NOPROXY)) options.noProxy = args.getArg(CMDARG_NOPROXY);
    return options;
}

int boundedNumber(const CPArgs& args, std::u16string_view option, int fallback, int low, int high) {
    const std::u16string value = CCConv::trim(args.getArg(option));
    if (!CPArgs::isNumeric(value)) return fallback;
    return std::clamp(CPArgs::getNumber(value), low, high);
}

std::string settingOrEnv(const CPArgs& args, std::u16string_view option, const char* variable) {
    if (args.isSwitchSet(option)) return CCConv::toUTF8Str(args.getArg(option));
    const char* value = std::getenv(variable);
    return value ? value : "";
}

uint64_t spoolMaxBytes(const CPArgs& args) {
    const std::string text = settingOrEnv(args, CMDARG_SPOOL_MAX_MB, ENV_SPOOL_MAX_MB);
    char* end = nullptr;
    const long mb = std::strtol(text.c_str(), &end, 10);
    const bool valid = !text.empty() && *end == '\0' && mb >= 1 && mb <= SPOOL_MAX_MB_LIMIT;
    return static_cast<uint64_t>(valid ? mb : 1024) << 20;
}

bool ifChanged(const CPArgs& args) {
    const char* value = std::getenv(ENV_IF_CHANGED);
    return args.isSwitchSet(CMDARG_IF_CHANGED) || (value && std::string_view(value) == "1");
}

long durationSeconds(std::string_view text) {
    constexpr std::string_view kUnits = "smhd";
    constexpr unsigned long kUnitSeconds[] = {1, 60, 3600, 86400};
    constexpr unsigned long kMax = 365 * 86400;
    unsigned long unit = 1;
    if (const size_t u = text.empty() ? text.npos : kUnits.find(text.back()); u != text.npos) {
        unit = kUnitSeconds[u];
        text.remove_suffix(1);
    }
    unsigned long n = 0;
    if (!wholeDecimal(text, n) || n > kMax / unit) return -1;
    return static_cast<long>(n * unit);
}

}  // namespace kivreg::api
