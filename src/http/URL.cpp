#include "http/URL.h"

#include <new>

#include "http/ParValDictionary.h"
#include "runtime/textconv.h"

namespace kivreg {

namespace {

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Length of a leading "scheme:" (RFC 3986 scheme characters), 0 if none.
size_t schemeLength(std::u16string_view text) {
    if (text.empty() || !((text[0] | 0x20) >= u'a' && (text[0] | 0x20) <= u'z')) return 0;
    for (size_t i = 1; i < text.size(); ++i) {
        const char16_t c = text[i];
        if (c == u':') return i;
        const bool ok = ((c | 0x20) >= u'a' && (c | 0x20) <= u'z') || (c >= u'0' && c <= u'9') ||
                        c == u'+' || c == u'-' || c == u'.';
        if (!ok) return 0;
    }
    return 0;
}

}  // namespace

int createIURL(std::unique_ptr<IURL>& out) {
    out.reset(new (std::nothrow) URL);
    return out ? 0 : -1;
}

void URL::set(Part p, const char16_t* v) {
    if (v == nullptr)
        m_parts[p].reset();
    else
        m_parts[p] = std::u16string(v);
}

bool URL::isSecure() const {
    return m_parts[SERVICE] && equalsIgnoreCase(*m_parts[SERVICE], u"https");
}

void URL::setUrl(const char16_t* url) {
    std::u16string_view rest(url);
    for (Part p : {SERVICE, HOST, HPORT, RAW_PATH, QUERY, FRAGMENT}) m_parts[p].reset();

    std::u16string kept;  // the URL text without user information
    if (const size_t n = schemeLength(rest); n > 0) {
        set(SERVICE, rest.substr(0, n));
        kept.assign(rest.substr(0, n + 1));
        rest.remove_prefix(n + 1);
        if (rest.substr(0, 2) != u"//") {  // mailto:x, urn:y: no authority, no path
            m_url = kept.append(rest);
            return;
        }
        kept += u"//";
        rest.remove_prefix(2);
        std::u16string_view authority = rest.substr(0, rest.find_first_of(u"/?#"));
        rest.remove_prefix(authority.size());
        if (const size_t at = authority.rfind(u'@'); at != std::u16string_view::npos) {
            const std::u16string_view info = authority.substr(0, at);
            const size_t colon = info.find(u':');
            set(HUSER, unescape(info.substr(0, colon)));
            if (colon != std::u16string_view::npos) set(HPASS, unescape(info.substr(colon + 1)));
            authority.remove_prefix(at + 1);
        }
        kept += authority;
        size_t portStart = std::u16string_view::npos;
        if (!authority.empty() && authority[0] == u'[') {  // IPv6 literal
            const size_t close = authority.find(u']');
            set(HOST,
                authority.substr(
                    1, close == std::u16string_view::npos ? std::u16string_view::npos : close - 1));
            if (close != std::u16string_view::npos && close + 1 < authority.size() &&
                authority[close + 1] == u':')
                portStart = close + 2;
        } else {
            const size_t colon = authority.find(u':');
            set(HOST, authority.substr(0, colon));
            if (colon != std::u16string_view::npos) portStart = colon + 1;
        }
        if (portStart != std::u16string_view::npos) set(HPORT, authority.substr(portStart));
    }
    kept += rest;

    if (const size_t hash = rest.find(u'#'); hash != std::u16string_view::npos) {
        set(FRAGMENT, rest.substr(hash + 1));
        rest = rest.substr(0, hash);
    }
    if (const size_t q = rest.find(u'?'); q != std::u16string_view::npos) {
        set(QUERY, rest.substr(q + 1));
        rest = rest.substr(0, q);
    }
    set(RAW_PATH, rest.empty() ? std::u16string_view(u"/") : rest);
    m_url = std::move(kept);
}

std::u16string URL::unescape(std::u16string_view text) {
    if (text.find(u'%') == std::u16string_view::npos) return std::u16string(text);
    std::string bytes;
    rt::utf16ToUtf8Lenient(text, bytes);
    std::string decoded;
    decoded.reserve(bytes.size());
    for (size_t i = 0; i < bytes.size(); ++i) {
        int hi, lo;
        if (bytes[i] == '%' && i + 2 < bytes.size() && (hi = hexValue(bytes[i + 1])) >= 0 &&
            (lo = hexValue(bytes[i + 2])) >= 0) {
            decoded += static_cast<char>(hi * 16 + lo);
            i += 2;
        } else {
            decoded += bytes[i];
        }
    }
    std::u16string out;
    rt::utf8ToUtf16Lenient(decoded, out);
    return out;
}

}  // namespace kivreg
