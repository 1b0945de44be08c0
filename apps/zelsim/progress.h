// SPDX-License-Identifier: Apache-2.0
// The progress display of a run on standard error: simulated time against
// SIM_TIME, requests completed, simulated nanoseconds per wall-clock second
// and an estimate of the time left, redrawn in place on one line at most
// four times a second.
#ifndef ZELSIM_PROGRESS_H
#define ZELSIM_PROGRESS_H

#include <chrono>
#include <cstdint>
#include <ostream>
#include <string>
#include <systemc>

#include "host/legal_host.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Bench {

// What the display shows, from where the run stands. `simTime` zero: no
// time limit; `plannedRequests` zero: no request limit. The fraction done is
// the larger of the simulated time's and the requests made, as the run ends
// at whichever limit comes first.
std::string ProgressLine(const sc_core::sc_time& now, const sc_core::sc_time& simTime, uint64_t completed,
                         uint64_t made, uint64_t plannedRequests, double wallSeconds);

// Looks at the wall clock from the host's cycles, as a HostObserver, so
// that it adds no process or event to the simulation: the run is the same
// with and without it.
class ProgressDisplay : public HostObserver {
 public:
  ProgressDisplay(const LegalHost& host, std::ostream& out, const sc_core::sc_time& simTime,
                  uint64_t plannedRequests);
  void CycleDone(uint64_t cycle) override;
  // Clears the line, so that what follows starts on a clean one, and draws
  // no more (the simulation may go on, for --check-rest).
  void Finish();

 private:
  const LegalHost& host_;
  std::ostream& out_;
  sc_core::sc_time simTime_;
  uint64_t planned_;
  // The clock is looked at every `stride_` cycles, a stride adapted to the
  // simulation's speed so that it is some twenty times a second.
  uint64_t stride_ = 64;
  uint64_t nextCheck_ = 0;
  std::chrono::steady_clock::time_point start_;
  std::chrono::steady_clock::time_point lastCheck_;
  std::chrono::steady_clock::time_point lastDraw_;
  bool drawn_ = false;
  bool finished_ = false;
};

}  // namespace Bench
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak

#endif  // ZELSIM_PROGRESS_H
