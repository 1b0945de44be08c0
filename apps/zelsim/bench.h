// SPDX-License-Identifier: Apache-2.0
// One zelsim run, from the command line to the reports: the configuration is
// resolved and checked, the cube is built through Cube2in1Wrapper, the
// generators feed a LegalHost, and the model's report, zelsim's summary and
// the optional JSON follow the simulation.
#ifndef ZELSIM_BENCH_H
#define ZELSIM_BENCH_H

#include <cstdint>
#include <string>
#include <vector>

#include "apps/zelsim/generator.h"
#include "apps/zelsim/host.h"
#include "apps/zelsim/options.h"
#include "apps/zelsim/rest_state.h"
#include "apps/zelsim/results.h"
#include "zel2/Config.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Bench {

// The NUM_GENERATORS generators of zelsim, each with its host queue of
// REQUEST_BUFFER_SIZE requests. They are made at the first refill, after the
// host has applied the setters, so that they see the cube as it will run.
class GeneratorSource : public RequestSource {
 public:
  // `traces` holds one entry list per generator when traces are replayed,
  // and is empty otherwise.
  GeneratorSource(const Config& cfg, uint64_t seed, std::vector<std::vector<TraceEntry>> traces);

  void Refill(LegalHost& host, uint64_t cycle) override;
  bool Exhausted() const override;
  // Marks the generators that made all their requests.
  void FillResults(RunResults& results) const;

 private:
  struct Slot {
    RequestGenerator generator;
    unsigned queue;
    bool started = false;    // has made a request
    uint64_t lastCycle = 0;  // cycle of its last request
  };

  const Config& cfg_;
  uint64_t seed_;
  std::vector<std::vector<TraceEntry>> traces_;
  std::vector<Slot> slots_;
  bool built_ = false;
};

// Checks the keys that zelsim itself reads for values it can't run with
// (selectors out of range, all size weights 0, a cube shape the host can't
// drive). The message names the key.
bool CheckBenchSettings(const Config& cfg, std::string& error);

// The setLinkParams rate of a lane speed: 10, 12.5 and 15 Gb/s give 40, 50
// and 60; any other speed gives 0.
unsigned LinkRateOfSpeed(float gigabitsPerLane);

// Runs zelsim and returns its exit status: 0 for a clean run, 1 when
// responses didn't match their requests (or --check-rest found the cube not
// at rest), 2 for a bad command line or configuration (with a one-line
// message on standard error, before any simulation). `results`, when given,
// receives what the run found, and `rest` what --check-rest found.
int RunZelsim(int argc, const char* const* argv, RunResults* results = nullptr, RestReport* rest = nullptr);

// The JSON text of WriteJson with the field "rest_state" added at its end:
// "ok", or the list of violations.
std::string JsonWithRestState(const std::string& json, const std::vector<std::string>& violations);

}  // namespace Bench
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak

#endif  // ZELSIM_BENCH_H
