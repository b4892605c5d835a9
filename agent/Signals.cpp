#include "Signals.h"

#include <csignal>

#include "hxruntime/HostApi.h"

namespace hxagent {

namespace {
volatile std::sig_atomic_t g_signals = 0;

extern "C" void OnCancelSignal(int) {
    g_signals = g_signals + 1;
    hxruntime::RaiseCancel();
}
}  // namespace

void InstallCancelHandlers() {
    struct sigaction sa {};
    sa.sa_handler = OnCancelSignal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
}

int CancelSignalsReceived() { return static_cast<int>(g_signals); }

}  // namespace hxagent
