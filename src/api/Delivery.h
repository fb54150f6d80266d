#pragma once
// The spool's side of a run: keeping what the directory could not take, and
// delivering what waits once it is back.

#include "api/RunOptions.h"
#include "api/Spool.h"
#include "api/Transfer.h"

namespace kivreg::api {

struct ApiState;

// The spool's key for the run's document at c's destination.
SpoolEntry spoolKeyOf(const ApiState& s, const ConnectData& c);

// After the run's transfer: a failure that may pass later keeps the document;
// a success makes the supplier's older entry moot and sends the others.
void spoolAfter(ApiState& s, const ConnectData& c, const Timeouts& t, const Attempt& a);

// --flush: the spooled registrations for the run's destination, no document.
int flush(ApiState& s, const ConnectData& c);

}  // namespace kivreg::api
