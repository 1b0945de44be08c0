// SPDX-License-Identifier: Apache-2.0
// Entry point of every test program. libsystemc brings its own main, which
// calls sc_main; this sc_main runs the GoogleTest cases instead.
#include <gtest/gtest.h>
#include <systemc>

#if defined(__SANITIZE_ADDRESS__)
#include <pthread.h>
#include <sanitizer/asan_interface.h>
#include <sanitizer/common_interface_defs.h>
#endif

namespace {

#if defined(__SANITIZE_ADDRESS__)
// SystemC tells AddressSanitizer when it switches to the stack of a thread
// process, but not when it comes back to the main stack: the checker then
// takes the main stack to be the last thread's. These two helpers put that
// right where it matters.
void TellCheckerTheStack(const void* bottom, std::size_t size) {
  __sanitizer_start_switch_fiber(nullptr, bottom, size);
  __sanitizer_finish_switch_fiber(nullptr, nullptr, nullptr);
}

// Before the leak check at exit, which would otherwise scan the last
// thread's stack, perhaps unmapped by then, instead of the main one.
void RestoreMainStack() {
  pthread_attr_t attr;
  void* bottom = nullptr;
  std::size_t size = 0;
  pthread_getattr_np(pthread_self(), &attr);
  pthread_attr_getstack(&attr, &bottom, &size);
  pthread_attr_destroy(&attr);
  TellCheckerTheStack(bottom, size);
}

// A call that doesn't return (abort, exit, a throw) from a stack the checker
// has wrong makes it warn, once per process; in a death test the warning
// would land in the middle of the model's message. It is spent at start-up,
// against a stack that is plainly not the one in use.
void SpendWrongStackWarning() {
  static char elsewhere[4096];
  TellCheckerTheStack(elsewhere, sizeof elsewhere);
  __asan_handle_no_return();
  RestoreMainStack();
}
#endif

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
#if defined(__SANITIZE_ADDRESS__)
  SpendWrongStackWarning();
#endif
  ::testing::InitGoogleTest(&argc, argv);
  sc_core::sc_report_handler::set_handler(ReportToFailure);
  const int status = RUN_ALL_TESTS();
#if defined(__SANITIZE_ADDRESS__)
  RestoreMainStack();
#endif
  return status;
}

#if defined(__SANITIZE_ADDRESS__)
// A death test's child ends on purpose in the middle of the test, with the
// test's objects still held by frames that will never return; checking it
// for leaks would only report those. The test program itself is checked.
extern "C" int __lsan_is_turned_off() { return testing::internal::InDeathTestChild() ? 1 : 0; }
#endif
