#pragma once
// One transfer to the directory, and the attempts --retry allows.

#include <string>

#include "api/ApiState.h"
#include "api/RunOptions.h"
#include "support/ERegExcept.h"

namespace kivreg {
class CLog;
class CXmlFile;
}  // namespace kivreg

namespace kivreg::api {

// A transfer's outcome. A failure that may pass when tried again carries its reason.
struct Attempt {
    int result = 0;
    std::u16string reason;  // empty: not worth another attempt
    std::u16string retryAfter;
    int answerCode = 0;  // the answer's status, 0 without one
    FailureReason failure = FailureReason::None;
};

// A document's body is rendered from it as it is sent, the same bytes at each
// attempt. Without a document the body is a spooled one, sent in the format it
// was kept with.
Attempt attempt(ApiState& s, const ConnectData& c, const Timeouts& t, CXmlFile* document,
                std::string spooled = {}, bool oldFormat = false);

// The attempts --retry allows for the run's document; the last one's outcome.
Attempt sendWithRetries(ApiState& s, const ConnectData& c, const Timeouts& t);

// The run's document whole, as it would be sent.
std::string renderBody(ApiState& s);

void logFailure(CLog& log, const ERegExcept& e);

}  // namespace kivreg::api
