// SPDX-License-Identifier: Apache-2.0
// What a zelsim run found out: the host library's records and the run as a
// whole, printed as a summary for people and as JSON for programs.
#ifndef ZELSIM_RESULTS_H
#define ZELSIM_RESULTS_H

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "host/results.h"
#include "zel2/Config.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Bench {

// A zelsim run: the host's records, and what zelsim adds for its reports.
struct RunResults : HostResults {
  std::string version;
  uint64_t seed = 0;
  std::vector<std::string> corrections;  // names of the model corrections asked for
  double simTimeNs = 0;                  // SIM_TIME; 0 for no limit
  double endTimeNs = 0;                  // when the run ended
  // The run as planned, for the summary's first line.
  unsigned numGenerators = 0;
  uint64_t numRequests = 0;
  bool traces = false;
  // --check-rest: whether it ran, and what it found.
  bool restChecked = false;
  std::vector<std::string> restViolations;
  // Wall-clock time of the simulation, the only figure that differs between
  // two runs of the same point.
  double wallSeconds = 0;
};

// The summary for people, after the model's own report: one table per link
// that carried traffic, then the total.
void PrintSummary(std::ostream& out, const RunResults& results);
// The results as one JSON object (fields in docs/usage.md), with the
// effective configuration `cfg`.
void WriteJson(std::ostream& out, const RunResults& results, const Config& cfg);

}  // namespace Bench
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak

#endif  // ZELSIM_RESULTS_H
