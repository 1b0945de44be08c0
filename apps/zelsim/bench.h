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

#include "host/generator.h"
#include "host/legal_host.h"
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
// drive), and, with `modelLimits`, every value with which the cube could not
// carry the run's traffic to the end: too few ports, tokens, credits or
// buffer places for the largest packet, shapes the fabric isn't built for.
// `cfg` is the configuration the cube is built with; the limits apply to it
// as the token variables of the environment and the host's setters
// (`setup`) change it. The message names the key and says why.
bool CheckBenchSettings(const Config& cfg, const HostSetup& setup, std::string& error,
                        bool modelLimits = true);

// Gives `cfg` the values that the cube will run with once the library has
// applied the token variables and the host has called the wrapper's setters:
// the token counts and the link parameters.
void ApplyHostSetup(const HostSetup& setup, Config& cfg);

// Exit statuses of RunZelsim and of the zelsim program.
constexpr int kExitClean = 0;
constexpr int kExitMismatch = 1;      // responses didn't match, or the cube was not at rest
constexpr int kExitRefused = 2;       // bad command line or configuration; nothing simulated
constexpr int kExitModelStopped = 3;  // the model ended the process before zelsim finished
constexpr int kExitDeadlock = 4;      // the deadlock watchdog stopped the run

// The setLinkParams rate of a lane speed: 10, 12.5 and 15 Gb/s give 40, 50
// and 60; any other speed gives 0.
unsigned LinkRateOfSpeed(float gigabitsPerLane);

// Runs zelsim and returns its exit status: 0 for a clean run, 1 when
// responses didn't match their requests (or --check-rest found the cube not
// at rest), 2 for a bad command line or configuration (with a one-line
// message on standard error, before any simulation), 4 when the deadlock
// watchdog stopped the run (with the cube's state dump, and the JSON when
// asked for, but no summary). Once the
// simulation has started, a process that ends before RunZelsim returns (the
// model's own exit(0) on a broken rule) ends instead with status 3 and the
// line "zelsim: the model stopped the run" on standard error. `results`,
// when given, receives what the run found, and `rest` what --check-rest
// found.
int RunZelsim(int argc, const char* const* argv, RunResults* results = nullptr, RestReport* rest = nullptr);

}  // namespace Bench
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak

#endif  // ZELSIM_BENCH_H
