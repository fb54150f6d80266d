#pragma once
// Where one transfer goes: the configured destination and then the places the
// directory sends it on to with 307 or 308 on the same host (a reverse proxy
// that moved the service, or one that insists on HTTPS). Anything else that
// points elsewhere is left to the person who writes the connect data, so that
// the credentials never reach another host.

#include <string>

#include "api/RunOptions.h"

namespace kivreg {
class CLog;
}

namespace kivreg::api {

struct Target {
    bool https = false;
    std::u16string host, port;
    std::u16string path;  // empty: the data-supplier path

    // "scheme://host:port/path", as the log shows it.
    std::u16string url() const;
};

class Redirects {
public:
    static constexpr int kMaxFollowed = 5;

    Redirects(CLog& log, const ConnectData& configured);
    const Target& target() const { return m_target; }
    // After an answer: true when it redirects to a place to follow, which
    // target() then is (logged as "Redirected to URL (HTTP status N)").
    // False otherwise; a redirect not followed leaves note() saying where it
    // points, for the caller to log after the failure's own lines.
    bool follow(int answerCode, const std::u16string& location);
    const std::u16string& note() const { return m_note; }

private:
    CLog& m_log;
    Target m_target;
    int m_followed = 0;
    std::u16string m_note;
};

}  // namespace kivreg::api
