// The end of every run: the status file for monitoring, and a state ready
// for the next run.

#include <chrono>
#include <cstring>

#include "api/ApiState.h"
#include "api/RunOptions.h"
#include "api/Spool.h"
#include "api/StatusFile.h"
#include "api/Vocabulary.h"

namespace kivreg::api {

double epochSeconds() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

void reportRun(int exitStatus) {
    ApiState& s = state();
    const std::string file = settingOrEnv(s.gArgs, CMDARG_STATUS_FILE, ENV_STATUS_FILE);
    if (!file.empty() && !(s.statusUnchanged && exitStatus == 0)) {
        RunStatus run;
        run.end = epochSeconds();
        run.start = s.runStart != 0 ? s.runStart : run.end;
        run.exitStatus = exitStatus;
        run.success = exitStatus == 0 && s.delivered;
        run.skipped = exitStatus == 0 && s.skipped;
        run.httpStatus = s.lastHttpStatus;
        run.bodyBytes = s.lastBodyBytes;
        run.failure = s.failure;
        if (const std::string dir = settingOrEnv(s.gArgs, CMDARG_SPOOL, ENV_SPOOL); !dir.empty()) {
            const Spool::Totals totals = Spool::totals(dir);
            run.spoolEntries = totals.entries;
            run.spoolBytes = totals.bytes;
        }
        // Monitoring is told, not the run: its result stays what it was.
        if (const int error = writeStatusFile(file, run))
            s.gLog << timestamp << u"Failed to write the status file " << file.c_str() << u": "
                   << std::strerror(error) << endlog;
    }
    s.runStart = 0;
    s.lastHttpStatus = 0;
    s.lastBodyBytes = 0;
    s.delivered = false;
    s.skipped = false;
    s.statusUnchanged = false;
    s.bodyDigest = {};
    s.failure = FailureReason::None;
}

}  // namespace kivreg::api
