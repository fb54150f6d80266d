#include "api/Redirect.h"

#include <optional>

#include "http/CHttpProxy.h"
#include "http/URL.h"
#include "support/CGetStr.h"
#include "support/CLog.h"
#include "support/LowerCase.h"
#include "support/Status.h"

namespace kivreg::api {
namespace {

std::u16string_view orEmpty(const char16_t* text) {
    return text != nullptr ? text : u"";
}

std::u16string defaultPort(bool https) {
    return https ? u"443" : u"80";
}

std::u16string portOf(const Target& t) {
    return t.port.empty() ? defaultPort(t.https) : t.port;
}

std::u16string origin(const Target& t) {
    return (t.https ? u"https://" : u"http://") + hostPort(t.host, portOf(t));
}

std::u16string pathOf(const Target& t) {
    return t.path.empty() ? u"/" + std::u16string(CHttpProxy::ms_dsServletUrl) : t.path;
}

// The place a Location value names, resolved against the current target;
// nothing when it is no http or https URL with a host, or when its path
// would not go into a request line as it stands (a query is not sent).
std::optional<Target> resolve(const Target& from, const std::u16string& location) {
    std::u16string text = location;
    if (text.starts_with(u"//")) {
        text.insert(0, from.https ? u"https:" : u"http:");
    } else if (text.starts_with(u"/")) {
        text.insert(0, origin(from));
    } else if (const size_t colon = text.find(u':');
               colon == 0 || colon == std::u16string::npos ||
               text.find_first_of(u"/?#") < colon) {  // no scheme: relative to the path
        const std::u16string path = pathOf(from);
        text.insert(0, origin(from) + path.substr(0, path.rfind(u'/') + 1));
    }
    URL url;
    url.setUrl(text.c_str());
    const std::u16string_view scheme = orEmpty(url.getService());
    Target to;
    to.https = equalsIgnoreCase(scheme, u"https");
    if (!to.https && !equalsIgnoreCase(scheme, u"http")) return std::nullopt;
    to.host = orEmpty(url.getHost());
    to.port = url.getHport() != nullptr ? url.getHport() : defaultPort(to.https);
    to.path = orEmpty(url.getRawPath());
    if (to.host.empty() || to.port.empty() || url.getQuery() != nullptr) return std::nullopt;
    for (char16_t c : to.path)
        if (c <= u' ' || c >= 0x7f) return std::nullopt;
    return to;
}

// The same host by name: the same scheme and port, or from http to https.
bool sameHost(const Target& from, const Target& to) {
    if (!equalsIgnoreCase(from.host, to.host)) return false;
    if (from.https == to.https) return portOf(from) == portOf(to);
    return to.https;
}

}  // namespace

std::u16string Target::url() const {
    return origin(*this) + pathOf(*this);
}

Redirects::Redirects(CLog& log, const ConnectData& configured) : m_log(log) {
    m_target.https = configured.useHttps;
    m_target.host = configured.host;
    m_target.port = configured.port;
}

bool Redirects::follow(int answerCode, const std::u16string& location) {
    m_note.clear();
    if (answerCode < 300 || answerCode > 399 || location.empty()) return false;
    const std::u16string status = u" (HTTP status " + CGetStr<int>::get(answerCode) + u")";
    const std::optional<Target> to = resolve(m_target, location);
    if (!to) {
        m_note = u"The directory points to " + location + status + u", which is not followed.";
        return false;
    }
    if ((answerCode == 307 || answerCode == 308) && sameHost(m_target, *to)) {
        if (m_followed == kMaxFollowed) {
            m_note = u"Too many redirects: " + to->url() + status + u" is not followed after " +
                     CGetStr<int>::get(kMaxFollowed) + u".";
            return false;
        }
        ++m_followed;
        m_target = *to;
        m_log << timestamp << u"Redirected to " << m_target.url() << status << endlog;
        return true;
    }
    m_note = u"The directory points to " + to->url() + status + u": the connect data should name it.";
    return false;
}

}  // namespace kivreg::api
