#pragma once
// What the directory last took with status 200, so that --if-changed leaves
// unsent what it already holds. One record per destination, user, format and
// supplier in the spool's sent/ directory, written under the spool's lock: the
// key's parts (the user only as a hash), the body's SHA-256 and length, the
// time of the 200 and the kivreg version; never a password or the body. A
// record that cannot be read, is of another version or lies in the future
// counts as none, and the run sends.

#include <string>
#include <string_view>

#include "api/ApiState.h"
#include "api/RunOptions.h"
#include "api/Spool.h"

namespace kivreg::api {

struct IfChanged {
    bool on = false;
    long resendAfter = 86400;  // seconds
    bool refused = false;      // the settings refuse the run; the reason is logged
};
// --if-changed and --resend-after (or their variables), read before anything
// is done: the record lives in the spool, so --if-changed needs one.
IfChanged ifChangedOf(ApiState& s);

BodyDigest digestOf(std::string_view body);
// The run's document as it is sent, hashed as it is rendered, a piece at a
// time; once per run.
const BodyDigest& documentDigest(ApiState& s);

// True, with the line that says so, when the directory took this body with a
// 200 younger than resendAfter seconds and nothing for its key waits in the
// spool (an entry there means the directory does not have the latest).
bool heldByDirectory(ApiState& s, const ConnectData& c, long resendAfter);

// After the directory's 200 for key's destination and supplier; the caller
// holds the spool's lock. A failure is logged, the run's result stays.
void recordSent(CLog& log, const Spool& spool, const SpoolEntry& key, const std::u16string& user,
                const BodyDigest& body);

}  // namespace kivreg::api
