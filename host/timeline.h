// SPDX-License-Identifier: Apache-2.0
// The timeline of a run: one CSV row per interval of simulated time, with
// per link and in total the requests completed in it, the bytes read and
// written and their rates, the mean and 99th percentile latency of the
// requests completed in it, and the requests outstanding at its end.
//
// Interval k covers the simulated times (k x I, (k + 1) x I], the first one
// time 0 as well, and the last one ends with the run. A row is written once
// the first event after its end arrives (or at Finish), so the timeline
// costs nothing while no request moves, and a row's outstanding count is the
// one at its end. Completions count as in the summary: bytes read when a
// read completes, bytes written when a write is issued, so that the rows add
// up to the run's totals.
#ifndef ZELSIM_HOST_TIMELINE_H
#define ZELSIM_HOST_TIMELINE_H

#include <cstdint>
#include <ostream>
#include <vector>

#include "host/legal_host.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Bench {

class Timeline : public HostObserver {
 public:
  // Writes the header line at once. `links` columns groups, then the total.
  Timeline(std::ostream& out, uint64_t intervalPs, unsigned links);

  // The events, at simulated time `nowPs`; times never decrease.
  void Issued(unsigned link, const Request& request, uint64_t nowPs);
  void Answered(unsigned link, const Request& request, bool matched, uint64_t latencyPs, uint64_t nowPs);
  // Writes the rows up to the end of the run; later events are ignored.
  void Finish(uint64_t endPs);

  void RequestIssued(unsigned link, const Request& request) override;
  void RequestAnswered(unsigned link, const Request& request, bool matched,
                       const sc_core::sc_time& latency) override;

 private:
  // What one link did in the current interval.
  struct Interval {
    uint64_t completed = 0;
    uint64_t bytesRead = 0;
    uint64_t bytesWritten = 0;
    std::vector<uint64_t> latenciesPs;  // of the requests completed in it
  };

  // Writes the rows of the intervals that end before `nowPs`.
  void AdvanceTo(uint64_t nowPs);
  void WriteRow(uint64_t endPs);
  void WriteGroup(Interval& interval, uint64_t outstanding, uint64_t lengthPs);

  std::ostream& out_;
  uint64_t intervalPs_;
  uint64_t startPs_ = 0;  // start of the current interval
  std::vector<Interval> links_;
  std::vector<uint64_t> outstanding_;  // non-posted requests waiting, per link
  bool finished_ = false;
};

}  // namespace Bench
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak

#endif  // ZELSIM_HOST_TIMELINE_H
