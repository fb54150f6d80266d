#pragma once
// The status file for monitoring: after every run, the Prometheus text format
// that the node exporter's textfile collector reads, replaced atomically so
// that the collector never reads half of it.

#include <cstdint>
#include <string>

#include "api/ApiState.h"

namespace kivreg::api {

struct RunStatus {
    double start = 0, end = 0;  // seconds since the epoch
    int exitStatus = 0;
    bool success = false;  // the directory took a registration in this run
    bool skipped = false;  // the directory holds the run's document already (--if-changed)
    int httpStatus = 0;    // 0: no answer
    uint64_t bodyBytes = 0;
    uint64_t spoolEntries = 0, spoolBytes = 0;
    FailureReason failure = FailureReason::None;  // counted only when the run failed
};

// The errno of a failure, 0 on success. A run that did not succeed carries
// the last success over from the file it replaces, one that did not deliver
// the last delivery; a skipped run counts as a success.
int writeStatusFile(const std::string& path, const RunStatus& run);

}  // namespace kivreg::api
