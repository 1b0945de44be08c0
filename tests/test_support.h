// SPDX-License-Identifier: Apache-2.0
// Small helpers shared by the test programs.
#ifndef ZELSIM_TEST_SUPPORT_H
#define ZELSIM_TEST_SUPPORT_H

#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>

#include <systemc>

namespace zelsim_test {

// Collects what the model writes to std::cout while it lives. The model
// leaves fill and precision changes on the stream, so each capture starts
// from a fresh stream state and restores the old one.
class CaptureStdout {
 public:
  CaptureStdout() : old_(std::cout.rdbuf(buffer_.rdbuf())) { saved_.copyfmt(std::cout); }
  ~CaptureStdout() {
    std::cout.rdbuf(old_);
    std::cout.copyfmt(saved_);
  }
  std::string str() const { return buffer_.str(); }

 private:
  std::ostringstream buffer_;
  std::streambuf* old_;
  std::ios saved_{nullptr};
};

// Clears the model's environment variables so that a test runs on the
// compiled defaults whatever the shell has set.
inline void ClearModelEnvironment() {
  unsetenv("LIBZEL_CONFIG_FILE");
  unsetenv("LIBZEL_NUM_TOKENS");
  unsetenv("ZEL_BFM_NUM_TOKENS");
}

// Lets kernel warnings through without failing the test, for the cases that
// provoke one on purpose.
inline void AllowKernelWarnings() {
  sc_core::sc_report_handler::set_handler(sc_core::sc_report_handler::default_handler);
}

inline sc_core::sc_time Ps(double value) { return sc_core::sc_time(value, sc_core::SC_PS); }
inline sc_core::sc_time Ns(double value) { return sc_core::sc_time(value, sc_core::SC_NS); }

}  // namespace zelsim_test

#endif  // ZELSIM_TEST_SUPPORT_H
