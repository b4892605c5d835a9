// Ctrl-C and SIGTERM raise the running job's cancel flag (hxruntime::RaiseCancel, which is
// async-signal-safe); the job notices it between cloud calls and between data chunks, and
// its teardown still runs. The teardown clears the flag first so that its own waits are
// not cut short; a further signal during teardown raises it again.
#pragma once

namespace hxagent {

void InstallCancelHandlers();
// Number of SIGINT/SIGTERM received so far.
int CancelSignalsReceived();

}  // namespace hxagent
