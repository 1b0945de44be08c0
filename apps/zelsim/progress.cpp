// SPDX-License-Identifier: Apache-2.0
#include "apps/zelsim/progress.h"

#include <algorithm>
#include <cstdio>

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Bench {

namespace {

using Clock = std::chrono::steady_clock;

// A redraw at most this often; the clock is looked at some 20 times a second.
constexpr double kRedrawSeconds = 0.25;
constexpr double kWakeSeconds = 0.05;

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

std::string Format(const char* format, double value) {
  char text[48];
  std::snprintf(text, sizeof text, format, value);
  return text;
}

std::string Duration(double seconds) {
  if (seconds < 60) return Format("%.0f s", seconds);
  if (seconds < 3600) return Format("%.0f min", seconds / 60);
  return Format("%.1f h", seconds / 3600);
}

}  // namespace

std::string ProgressLine(const sc_core::sc_time& now, const sc_core::sc_time& simTime, uint64_t completed,
                         uint64_t made, uint64_t plannedRequests, double wallSeconds) {
  const double nowUs = now.to_seconds() * 1e6;
  std::string line = "zelsim: " + Format("%.1f", nowUs);
  if (simTime != sc_core::SC_ZERO_TIME) line += Format(" of %.1f", simTime.to_seconds() * 1e6);
  line += " us simulated, " + std::to_string(completed) + " requests completed";
  if (wallSeconds > 0) line += ", " + Format("%.0f", nowUs * 1000 / wallSeconds) + " ns/s";
  double done = 0;
  if (simTime != sc_core::SC_ZERO_TIME) done = now / simTime;
  if (plannedRequests != 0)
    done = std::max(done, static_cast<double>(made) / static_cast<double>(plannedRequests));
  done = std::min(done, 1.0);
  if (done > 0) {
    line += Format(", %.0f %%", 100 * done);
    // An estimate from less than a second of running says little.
    if (wallSeconds >= 1) line += ", about " + Duration(wallSeconds * (1 - done) / done) + " left";
  }
  return line;
}

ProgressDisplay::ProgressDisplay(const LegalHost& host, std::ostream& out, const sc_core::sc_time& simTime,
                                 uint64_t plannedRequests)
    : host_(host),
      out_(out),
      simTime_(simTime),
      planned_(plannedRequests),
      start_(Clock::now()),
      lastCheck_(start_),
      lastDraw_(start_) {}

void ProgressDisplay::CycleDone(uint64_t cycle) {
  if (finished_ || cycle < nextCheck_) return;
  const Clock::time_point now = Clock::now();
  // Scale the stride towards kWakeSeconds of wall time, by at most a factor
  // of 2 each time.
  if (cycle != 0) {
    const double factor = std::clamp(kWakeSeconds / std::max(Seconds(now - lastCheck_), 1e-9), 0.5, 2.0);
    stride_ = std::clamp<uint64_t>(static_cast<uint64_t>(static_cast<double>(stride_) * factor), 1, 1u << 24);
  }
  nextCheck_ = cycle + stride_;
  lastCheck_ = now;
  if (drawn_ && Seconds(now - lastDraw_) < kRedrawSeconds) return;
  uint64_t made = 0;
  for (const LegalHost::RequestQueue& queue : host_.queues) made += queue.stats.generated;
  out_ << '\r'
       << ProgressLine(sc_core::sc_time_stamp(), simTime_, host_.Completed(), made, planned_,
                       Seconds(now - start_))
       << "\033[K" << std::flush;
  drawn_ = true;
  lastDraw_ = now;
}

void ProgressDisplay::Finish() {
  if (drawn_) out_ << "\r\033[K" << std::flush;
  finished_ = true;
}

}  // namespace Bench
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak
