#pragma once
// Why something failed, filled in where it failed and handed up unchanged,
// so that the log can say what failed, where and why in one line:
//   "Could not connect to 127.0.0.1 port 1: Connection refused"
//   "Proxy p.example port 3128 refused the tunnel: HTTP status 403 (Forbidden)"
// The line reads: what, context, after (if any), then ": " and the reason (if any).

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

namespace kivreg {

struct Status {
    // The part of a transfer that failed; monitoring counts failures by it.
    enum class Step { None, Resolve, Connect, Tls, Proxy, Send, Receive, HttpStatus };

    int code = 0;  // 0: no failure; else the failing layer's code (runtime/NetRc.h)
    Step step = Step::None;
    std::string what;     // "Could not connect to"
    std::string context;  // the host and port, or the file
    std::string after;    // "refused the tunnel", "within 420 s"
    std::string reason;   // in the system's or the library's own words

    bool ok() const { return code == 0; }
    std::string message() const;

    static Status failed(int code, Step step, std::string what, std::string context,
                         std::string reason = {}, std::string after = {}) {
        Status s;
        s.code = code;
        s.step = step;
        s.what = std::move(what);
        s.context = std::move(context);
        s.after = std::move(after);
        s.reason = std::move(reason);
        return s;
    }
};

// A host as a URL or a log line shows it before its port: an IPv6 address in
// brackets. hostPort("::1", "443") is "[::1]:443"; hostPort("h", "80", " port ")
// is "h port 80"; without a port, the host alone.
std::string hostPort(std::string_view host, std::string_view port = {},
                     std::string_view between = ":");
std::u16string hostPort(std::u16string_view host, std::u16string_view port = {},
                        std::u16string_view between = u":");

// "420 s", "0.2 s": a time in milliseconds as the log shows it.
std::string secondsText(long long ms);
// "512 bytes", "4.1 MiB": a byte count as the log shows it.
std::string bytesText(size_t bytes);

// Text from elsewhere (an answer's body, a header value) as one log line: at
// most `max` bytes of it (whole UTF-8 characters), "..." when there was more,
// and control characters escaped as \n, \r, \t or \xHH.
std::string oneLine(std::string_view text, size_t max);

}  // namespace kivreg
