// SPDX-License-Identifier: Apache-2.0
// Keeps AddressSanitizer's idea of the current stack right in programs that
// run the SystemC kernel (zelsim and the test programs). Without the address
// sanitizer both calls do nothing.
//
// SystemC tells the checker when it switches to the stack of a thread
// process, but not when it comes back to the main stack: the checker then
// takes the main stack to be the last thread's.
#ifndef ZELSIM_APPS_SANITIZER_STACK_H
#define ZELSIM_APPS_SANITIZER_STACK_H

#if defined(__SANITIZE_ADDRESS__)
#include <pthread.h>
#include <sanitizer/asan_interface.h>
#include <sanitizer/common_interface_defs.h>

#include <cstddef>
#endif

namespace Sornak::Internal::ZEL2::Bench {

#if defined(__SANITIZE_ADDRESS__)
inline void TellCheckerTheStack(const void* bottom, std::size_t size) {
  __sanitizer_start_switch_fiber(nullptr, bottom, size);
  __sanitizer_finish_switch_fiber(nullptr, nullptr, nullptr);
}

// Call before the leak check at exit, which would otherwise scan the last
// thread's stack, perhaps unmapped by then, instead of the main one.
inline void RestoreMainStack() {
  pthread_attr_t attr;
  void* bottom = nullptr;
  std::size_t size = 0;
  pthread_getattr_np(pthread_self(), &attr);
  pthread_attr_getstack(&attr, &bottom, &size);
  pthread_attr_destroy(&attr);
  TellCheckerTheStack(bottom, size);
}

// A call that doesn't return (abort, exit, a throw) from a stack the checker
// has wrong makes it warn, once per process, in the middle of whatever the
// program prints then. Call at start-up: the warning is spent against a
// stack that is plainly not the one in use.
inline void SpendWrongStackWarning() {
  static char elsewhere[4096];
  TellCheckerTheStack(elsewhere, sizeof elsewhere);
  __asan_handle_no_return();
  RestoreMainStack();
}
#else
inline void RestoreMainStack() {}
inline void SpendWrongStackWarning() {}
#endif

}  // namespace Sornak::Internal::ZEL2::Bench

#endif  // ZELSIM_APPS_SANITIZER_STACK_H
