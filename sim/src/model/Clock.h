// The emulator's notion of time. Transition durations are given in seconds at scale 1
// and stretched by the time scale (0.01 makes a 20 s snapshot take 0.2 s of real time).
// Wall-clock timestamps reported by the API are not scaled.
#pragma once

#include <chrono>

#include "model/Model.h"
#include "util/Time.h"

namespace hxsim::model {

class Clock {
 public:
  explicit Clock(double scale) : scale_(scale > 0 ? scale : 1.0) {}
  SteadyTime Now() const { return std::chrono::steady_clock::now(); }
  timefmt::WallTime WallNow() const { return std::chrono::system_clock::now(); }
  double Scale() const { return scale_; }
  // Real duration of a transition that takes `seconds` at scale 1.
  std::chrono::steady_clock::duration Scaled(double seconds) const {
    return std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(seconds * scale_));
  }
  // Inverse of Scaled: how many scale-1 seconds a real duration represents.
  double Unscaled(std::chrono::steady_clock::duration d) const {
    return std::chrono::duration<double>(d).count() / scale_;
  }

 private:
  double scale_;
};

}  // namespace hxsim::model
