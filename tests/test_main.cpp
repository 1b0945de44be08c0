// SPDX-License-Identifier: Apache-2.0
// Entry point of every test program. libsystemc brings its own main, which
// calls sc_main; this sc_main runs the GoogleTest cases instead.
#include <gtest/gtest.h>
#include <systemc>

#include "apps/zelsim/sanitizer_stack.h"

namespace {

// A SystemC warning or error inside a test is a failure of that test, so
// that a silent kernel complaint can't pass unnoticed. Fatal reports keep
// their default action (they stop the program).
void ReportToFailure(const sc_core::sc_report& report, const sc_core::sc_actions& actions) {
  const auto severity = report.get_severity();
  if (severity == sc_core::SC_WARNING || severity == sc_core::SC_ERROR) {
    ADD_FAILURE() << "SystemC " << (severity == sc_core::SC_WARNING ? "warning" : "error") << " "
                  << report.get_msg_type() << ": " << report.get_msg();
    return;
  }
  sc_core::sc_report_handler::default_handler(report, actions);
}

}  // namespace

int sc_main(int argc, char* argv[]) {
  Sornak::Internal::ZEL2::Bench::SpendWrongStackWarning();
  ::testing::InitGoogleTest(&argc, argv);
  sc_core::sc_report_handler::set_handler(ReportToFailure);
  const int status = RUN_ALL_TESTS();
  Sornak::Internal::ZEL2::Bench::RestoreMainStack();
  return status;
}

#if defined(__SANITIZE_ADDRESS__)
// A death test's child ends on purpose in the middle of the test, with the
// test's objects still held by frames that will never return; checking it
// for leaks would only report those. The test program itself is checked.
extern "C" int __lsan_is_turned_off() { return testing::internal::InDeathTestChild() ? 1 : 0; }
#endif
