// SPDX-License-Identifier: Apache-2.0
// Small helpers shared by the test programs.
#ifndef ZELSIM_TEST_SUPPORT_H
#define ZELSIM_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <systemc>
#include <vector>

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

// A regular expression that matches `text` literally.
inline std::string Literal(const std::string& text) {
  std::string pattern;
  for (char c : text) {
    if (std::strchr("\\^$.|?*+()[]{}", c) != nullptr) pattern += '\\';
    pattern += c;
  }
  return pattern;
}

// Expects `statement` to end the process by a signal or a non-zero status
// after writing `text`, literally, to the standard output. The child sends
// its standard output to standard error, where the death test reads.
#define EXPECT_DIES_SAYING(statement, text) \
  EXPECT_DEATH((dup2(2, 1), statement), ::zelsim_test::Literal(text))

// A directory of its own for the files a test writes, removed at the end.
class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "zelsimtestXXXXXX").string();
    if (mkdtemp(pattern.data()) != nullptr) path = pattern;
  }
  ~TempDir() { std::filesystem::remove_all(path); }
  std::string Write(const std::string& name, const std::string& text) const {
    const std::string file = path + "/" + name;
    std::ofstream(file, std::ios::binary) << text;
    return file;
  }
  std::string path;
};

inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

inline std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// Calls `entry`, a program's entry point taking (argc, argv), with the
// command line "zelsim `args`..." and returns its status. What it writes to
// the standard output and error goes to `out` and `err` when they are given.
template <class Entry>
int RunCommand(Entry entry, std::vector<std::string> args, std::string* out = nullptr,
               std::string* err = nullptr) {
  args.insert(args.begin(), "zelsim");
  std::vector<const char*> argv;
  for (const std::string& a : args) argv.push_back(a.c_str());
  if (out != nullptr) ::testing::internal::CaptureStdout();
  if (err != nullptr) ::testing::internal::CaptureStderr();
  const int status = entry(static_cast<int>(argv.size()), argv.data());
  if (err != nullptr) *err = ::testing::internal::GetCapturedStderr();
  if (out != nullptr) *out = ::testing::internal::GetCapturedStdout();
  return status;
}

}  // namespace zelsim_test

#endif  // ZELSIM_TEST_SUPPORT_H
