#include "http/ProxyConfig.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <initializer_list>

#include "http/URL.h"
#include "runtime/textconv.h"
#include "support/LowerCase.h"
#include "support/Status.h"

namespace kivreg {

namespace {

// The first of the variables that is set and not empty.
std::u16string fromEnvironment(std::initializer_list<const char*> names) {
    std::u16string value;
    for (const char* name : names) {
        const char* text = std::getenv(name);
        if (text != nullptr && *text != '\0') {
            rt::utf8ToUtf16Lenient(text, value);
            break;
        }
    }
    return value;
}

std::u16string_view trimmed(std::u16string_view text) {
    const size_t first = text.find_first_not_of(u" \t");
    if (first == std::u16string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(u" \t") - first + 1);
}

std::u16string_view unbracketed(std::u16string_view text) {
    if (text.size() >= 2 && text.front() == u'[' && text.back() == u']')
        return text.substr(1, text.size() - 2);
    return text;
}

bool isAddress(std::u16string_view host) {
    std::string text;
    rt::utf16ToUtf8Lenient(host, text);
    unsigned char addr[16];
    return inet_pton(AF_INET, text.c_str(), addr) == 1 ||
           inet_pton(AF_INET6, text.c_str(), addr) == 1;
}

bool validPort(std::u16string_view port) {
    if (port.empty() || port.size() > 5) return false;
    int n = 0;
    for (char16_t c : port) {
        if (c < u'0' || c > u'9') return false;
        n = n * 10 + (c - u'0');
    }
    return n >= 1 && n <= 65535;
}

std::u16string_view orEmpty(const char16_t* text) {
    return text != nullptr ? text : u"";
}

}  // namespace

std::u16string ProxyChoice::display() const {
    return u"http://" + hostPort(host, port);
}

ProxyChoice chooseProxy(bool https, std::u16string_view host, const ProxyOptions& options) {
    std::u16string text = options.proxy ? *options.proxy
                          : https       ? fromEnvironment({"https_proxy", "HTTPS_PROXY"})
                                        : fromEnvironment({"http_proxy"});
    if (!options.proxy && text.empty()) text = fromEnvironment({"all_proxy", "ALL_PROXY"});
    if (trimmed(text).empty()) return {};
    const std::u16string noProxy =
        options.noProxy ? *options.noProxy : fromEnvironment({"no_proxy", "NO_PROXY"});
    if (bypassesProxy(noProxy, host)) return {};
    return parseProxyUrl(trimmed(text));
}

ProxyChoice parseProxyUrl(std::u16string_view text) {
    ProxyChoice choice;
    URL url;
    std::u16string full(text);
    if (text.find(u"://") == std::u16string_view::npos) full.insert(0, u"http://");
    url.setUrl(full.c_str());
    const std::u16string_view scheme = orEmpty(url.getService());
    if (!equalsIgnoreCase(scheme, u"http")) {
        // Only the scheme is named: the rest may hold a password.
        choice.error = u"Unsupported proxy scheme: " + std::u16string(scheme);
        return choice;
    }
    const std::u16string_view port = orEmpty(url.getHport());
    if (orEmpty(url.getHost()).empty() || (url.getHport() != nullptr && !validPort(port)) ||
        orEmpty(url.getRawPath()) != u"/" || url.getQuery() != nullptr ||
        url.getFragment() != nullptr) {
        choice.error = u"Invalid proxy URL: expected http://[user[:password]@]host[:port]";
        return choice;
    }
    choice.host = url.getHost();
    choice.port = url.getHport() != nullptr ? port : u"1080";
    if (url.getHuser() != nullptr) {
        choice.user = url.getHuser();
        choice.password = orEmpty(url.getHpass());
    }
    return choice;
}

bool bypassesProxy(std::u16string_view list, std::u16string_view host) {
    host = unbracketed(host);
    if (!host.empty() && host.back() == u'.') host.remove_suffix(1);
    const bool address = isAddress(host);
    while (!list.empty()) {
        const size_t comma = list.find(u',');
        std::u16string_view entry = unbracketed(trimmed(list.substr(0, comma)));
        list.remove_prefix(comma == std::u16string_view::npos ? list.size() : comma + 1);
        if (entry == u"*") return true;
        if (!entry.empty() && entry.front() == u'.') entry.remove_prefix(1);
        if (!entry.empty() && entry.back() == u'.') entry.remove_suffix(1);
        if (entry.empty() || entry.size() > host.size()) continue;
        const size_t at = host.size() - entry.size();
        // An address matches only as a whole; a name also by its domain.
        if (equalsIgnoreCase(host.substr(at), entry) &&
            (at == 0 || (!address && host[at - 1] == u'.')))
            return true;
    }
    return false;
}

}  // namespace kivreg
