// FXThread::Sleep and ZUSLEEP: the plug-in's fixed poll intervals, scaled by the host's time
// scale (1 = real time) so a demo or test against the emulator compresses them without any
// change to the plug-in. A raised cancel flag ends a sleep early (within kCancelPollMs):
// every caller polls IsJobCancelled() after sleeping, so a cancelled job stops promptly.
#include "Time.h"

#include <time.h>

#include <algorithm>
#include <chrono>

#include "EvDebug.h"
#include "FxUtil.h"
#include "hxruntime/HostApi.h"

namespace hxruntime::detail {

bool SleepRealMs(double milliseconds) {
    using Clock = std::chrono::steady_clock;
    if (IsCancelRaised()) return false;
    if (!(milliseconds > 0)) return true;
    auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                       std::chrono::duration<double, std::milli>(milliseconds));
    for (;;) {
        auto left = deadline - Clock::now();
        if (left <= Clock::duration::zero()) return true;
        auto slice = std::min<Clock::duration>(left, std::chrono::milliseconds(kCancelPollMs));
        auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(slice).count();
        timespec ts{static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
        ::nanosleep(&ts, nullptr);  // an EINTR just ends this slice early; the loop re-measures
        if (IsCancelRaised()) return false;
    }
}

bool SleepScaledMs(double milliseconds) { return SleepRealMs(milliseconds * GetTimeScale()); }

}  // namespace hxruntime::detail

void FXThread::Sleep(unsigned int milliseconds) { hxruntime::detail::SleepScaledMs(milliseconds); }

void ZUSLEEP_InTeRnAl(unsigned int milliseconds, const char* file, int line) {
    if (EvDebug::IsLevelEnabled(3))
        EvDebug::Write(EvLogKind::Debug, 3, "void ZUSLEEP_InTeRnAl(unsigned int, const char*, int)",
                       FXString::Format("Sleeping [%u] ms (scale [%g]) at [%s:%d].", milliseconds,
                                        hxruntime::GetTimeScale(), file, line));
    hxruntime::detail::SleepScaledMs(milliseconds);
}
