// SPDX-License-Identifier: Apache-2.0
// The zelsim test bench: builds a cube, drives it with request generators
// through a host that keeps the link protocol, and reports.
#include <systemc>

#include "apps/zelsim/bench.h"
#include "apps/zelsim/sanitizer_stack.h"

int sc_main(int argc, char* argv[]) {
  namespace Bench = Sornak::Internal::ZEL2::Bench;
  Bench::SpendWrongStackWarning();
  const int status = Bench::RunZelsim(argc, argv);
  Bench::RestoreMainStack();
  return status;
}
