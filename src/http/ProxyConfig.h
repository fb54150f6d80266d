#pragma once
// Whether a run reaches the directory through an HTTP proxy, and which one:
// the program's options when given, otherwise the environment, read by the
// rules users know from curl.
//
//   https_proxy, HTTPS_PROXY   for an HTTPS directory
//   http_proxy                 for an HTTP one (lower case only: HTTP_PROXY
//                              can be set by a web server's client in CGI)
//   all_proxy, ALL_PROXY       when the above are unset or empty
//   no_proxy, NO_PROXY         hosts reached directly (see bypassesProxy)
//
// A proxy is named as http://[user[:password]@]host[:port]; the scheme may be
// left out and the port defaults to 1080.

#include <optional>
#include <string>
#include <string_view>

namespace kivreg {

// The program's choice; an unset member leaves the environment in charge.
struct ProxyOptions {
    std::optional<std::u16string> proxy = std::nullopt;  // empty: no proxy at all
    std::optional<std::u16string> noProxy = std::nullopt;
};

struct ProxyChoice {
    std::u16string host;  // empty: straight to the directory
    std::u16string port;
    std::optional<std::u16string> user, password;
    std::u16string error;  // set when a proxy was named that cannot be used

    bool direct() const { return host.empty(); }
    // "http://host:port", without the credentials.
    std::u16string display() const;
};

ProxyChoice chooseProxy(bool https, std::u16string_view host, const ProxyOptions& options);

ProxyChoice parseProxyUrl(std::u16string_view text);

// A no-proxy list holds host names, domains ("example.com" and
// ".example.com" both match a.example.com) and IP addresses, separated by
// commas and compared without regard to case; "*" matches every host.
bool bypassesProxy(std::u16string_view list, std::u16string_view host);

}  // namespace kivreg
