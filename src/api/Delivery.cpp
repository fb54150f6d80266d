// Keeping registrations in the spool and delivering them.

#include "api/Delivery.h"

#include <algorithm>

#include "api/ApiState.h"
#include "api/SentRecord.h"
#include "api/Spool.h"
#include "api/Vocabulary.h"
#include "http/CHttpProxy.h"
#include "support/CCConv.h"

namespace kivreg::api {
namespace {

Destination destinationOf(const ConnectData& c) {
    std::string host = CCConv::toUTF8Str(c.host);
    std::transform(host.begin(), host.end(), host.begin(), [](char ch) {
        return ch >= 'A' && ch <= 'Z' ? static_cast<char>(ch + 32) : ch;
    });
    std::string path(1, '/');
    path += CCConv::toUTF8Str(CHttpProxy::ms_dsServletUrl);
    return {c.useHttps, host, std::to_string(CPArgs::getNumber(c.port)), path};
}

// Sends the entries kept for c's destination, oldest first, one attempt each.
// 0 when none is left, else the result of what stopped the delivery. With
// `report` the status file tells of these transfers (--flush).
int deliver(ApiState& s, Spool& spool, const ConnectData& c, const Timeouts& t, bool report) {
    const std::vector<SpoolEntry> entries = spool.pending(destinationOf(c));
    // Nothing sent: the status file keeps telling of the last registration.
    s.statusUnchanged = entries.empty() && report;
    if (entries.empty() && report)
        s.gLog << timestamp << u"Spool holds no registration for " << destinationOf(c).url().c_str()
               << endlog;
    int result = 0;
    for (const SpoolEntry& e : entries) {
        std::string body;
        if (!spool.readBody(e, body)) {  // moved aside: the others still go
            result = -1;
            if (report) s.failure = FailureReason::Spool;
            continue;
        }
        if (report) s.lastBodyBytes = body.size();
        const BodyDigest digest = digestOf(body);
        Attempt a;
        try {
            a = attempt(s, c, t, nullptr, std::move(body), e.oldFormat);
        } catch (const ERegExcept& ex) {
            logFailure(s.gLog, ex);
            return -2;
        }
        if (report) {
            s.lastHttpStatus = a.answerCode;
            s.failure = a.failure;
        }
        if (a.result == 0) {
            spool.delivered(e);
            recordSent(s.gLog, spool, e, c.user, digest);
            if (report) s.delivered = true;
        } else if (a.reason.empty()) {
            spool.rejected(e, a.answerCode);  // the directory's final answer
        } else {
            return a.result;  // the rest waits until the directory is back
        }
    }
    return result;
}

}  // namespace

SpoolEntry spoolKeyOf(const ApiState& s, const ConnectData& c) {
    const CXmlFile& doc = *s.gpXmlFile;
    SpoolEntry key;
    key.destination = destinationOf(c);
    key.oldFormat = doc.useOldTransferDtd();
    key.supplierName = doc.getSupplierName();
    key.supplierVendor = doc.getSupplierVendor();
    return key;
}

void spoolAfter(ApiState& s, const ConnectData& c, const Timeouts& t, const Attempt& a) {
    const std::string dir = settingOrEnv(s.gArgs, CMDARG_SPOOL, ENV_SPOOL);
    if (dir.empty() || (a.result != 0 && a.reason.empty())) return;
    const SpoolEntry key = spoolKeyOf(s, c);
    Spool spool(s.gLog, dir, spoolMaxBytes(s.gArgs));
    if (!spool.ok()) return;
    if (a.result != 0) {
        spool.keep(key, renderBody(s));
        return;
    }
    spool.supersede(key);
    recordSent(s.gLog, spool, key, c.user, documentDigest(s));
    deliver(s, spool, c, t, false);
}

int flush(ApiState& s, const ConnectData& c) {
    const std::string dir = settingOrEnv(s.gArgs, CMDARG_SPOOL, ENV_SPOOL);
    if (dir.empty()) {
        s.gLog << timestamp << u"--flush needs a spool: --spool DIR or KIVREG_SPOOL." << endlog;
        s.failure = FailureReason::Spool;
        return -1;
    }
    Spool spool(s.gLog, dir, spoolMaxBytes(s.gArgs));
    if (spool.ok()) return deliver(s, spool, c, timeoutsOf(s.gArgs), true);
    s.failure = FailureReason::Spool;
    return -1;
}

}  // namespace kivreg::api
