// SPDX-License-Identifier: Apache-2.0
// The verdict on one zelsim --check-rest run: whether the model stopped on an
// error of its own, whether the kernel complained, whether the host found
// responses that didn't match or never came, and whether the cube came back
// to rest; with the run's figures from its JSON results.
#ifndef ZELSIM_SOAK_OUTCOME_H
#define ZELSIM_SOAK_OUTCOME_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "apps/soak/runner.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Soak {

// The host's totals over all links, as the JSON results give them.
struct RunFigures {
  uint64_t issued = 0;
  uint64_t reads = 0;
  uint64_t writes = 0;
  uint64_t atomics = 0;
  uint64_t posted = 0;
  uint64_t completed = 0;    // non-posted requests answered
  uint64_t outstanding = 0;  // non-posted requests never answered
  uint64_t requestFlits = 0;
  uint64_t responseFlits = 0;
  uint64_t mismatches = 0;
  double endTimeNs = 0;
};

// How a run went wrong; a run can go wrong in several ways at once.
enum class Failure {
  ModelError,     // the model stopped on a broken rule (message, abort or assertion)
  KernelReport,   // a SystemC warning or error
  Sanitizer,      // an AddressSanitizer, LeakSanitizer or UndefinedBehaviorSanitizer report
  Mismatch,       // a response that didn't match its request
  Unanswered,     // a non-posted request without a response
  RestViolation,  // the cube did not come back to rest
  Deadlock,       // zelsim's watchdog: traffic outstanding and no flit moving
  Timeout,        // killed at the wall-clock limit
  Refused,        // zelsim refused the command line or configuration (status 2)
  NoResults,      // no summary, no rest-state line or no readable JSON
  Count
};
const char* FailureName(Failure f);

// A fault of the model's own rules, reduced, explained and documented
// (docs/corrections.md), that a run of the reference behaviour may meet; a
// correction (zelsim --correct) removes it.
struct KnownIssue {
  const char* id;           // the correction's name, as the report shows it
  Failure failure;          // the one kind of failure it causes
  const char* message;      // regular expression matched against the run's detail lines
  const char* requiredArg;  // a zelsim argument the case must have for the issue to arise
  const char* summary;      // one line: which block and rule
  const char* reproducer;   // the shortest zelsim command line that shows it
};
const std::vector<KnownIssue>& KnownIssues();

struct Outcome {
  bool haveFigures = false;
  RunFigures figures;
  unsigned restViolations = 0;
  std::map<Failure, unsigned> failures;  // kind -> count (lines, requests ...)
  std::vector<std::string> details;      // the lines that tell why, for the report
  // The id of the known issue that explains the run's only failure, a model
  // error; empty when there is none.
  std::string knownIssue;

  bool Passed() const { return failures.empty(); }
};

// Judges one finished child run of zelsim with the arguments `argv`.
Outcome Judge(const ChildResult& run, const std::vector<std::string>& argv = {});

}  // namespace Soak
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak

#endif  // ZELSIM_SOAK_OUTCOME_H
