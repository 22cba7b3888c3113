// A clock cheap enough to time millions of short calls: the processor's time
// stamp counter where there is one (a few cycles to read, against a system
// call's worth for the steady clock), else the steady clock in nanoseconds.
// Ticks become seconds against the steady clock over the span they were
// taken in.
#pragma once

#include <chrono>
#include <cstdint>

#if defined(__x86_64__) || defined(__i386__)
#include <x86intrin.h>
#endif

namespace tolm {

class TickClock {
 public:
  static uint64_t now() {
#if defined(__x86_64__) || defined(__i386__)
    return __rdtsc();
#else
    return static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
            .count());
#endif
  }

  TickClock() : wall0_(std::chrono::steady_clock::now()), tick0_(now()) {}

  // Seconds per tick, measured from construction to this call.
  double seconds_per_tick() const {
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - wall0_).count();
    const uint64_t ticks = now() - tick0_;
    return ticks > 0 ? wall / static_cast<double>(ticks) : 0.0;
  }

 private:
  std::chrono::steady_clock::time_point wall0_;
  uint64_t tick0_;
};

}  // namespace tolm
