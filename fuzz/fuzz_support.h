// SPDX-License-Identifier: Apache-2.0
// Helpers shared by the fuzz harnesses: an input file of the process's own
// for readers that take a file name, a check that stops the run with a
// message, and the line splitting of std::getline. Everything is inline so
// that a harness is one source file, built either with the fuzzing engine or
// with replay_main.cpp.
#ifndef ZELSIM_FUZZ_SUPPORT_H
#define ZELSIM_FUZZ_SUPPORT_H

#include <stdlib.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace ZelFuzz {

// A harness check failed: say which and where, then abort so that the fuzzing
// engine keeps the input as a crash (and the replay fails).
[[noreturn]] inline void Fail(const char* file, int line, const std::string& what) {
  std::fprintf(stderr, "%s:%d: fuzz check failed: %s\n", file, line, what.c_str());
  std::fflush(stderr);
  std::abort();
}

#define FUZZ_CHECK(cond, what)                                                    \
  do {                                                                            \
    if (!(cond)) ::ZelFuzz::Fail(__FILE__, __LINE__, std::string(#cond) + " -- " + (what)); \
  } while (0)

// Each input goes to a file in a fresh directory (in /dev/shm when it can be
// written, else TMPDIR or /tmp), so that parallel runs don't meet; file and
// directory are removed as soon as the code under test has read them, so
// that only a crash inside the reader leaves them behind.
class InputFile {
 public:
  static InputFile& Get() {
    static InputFile instance;
    return instance;
  }

  // Writes the bytes and returns the file's name.
  const std::string& Write(const uint8_t* data, size_t size) {
    Remove();
    std::vector<char> pattern(pattern_.begin(), pattern_.end());
    pattern.push_back('\0');
    if (::mkdtemp(pattern.data()) == nullptr) Fail(__FILE__, __LINE__, "can't make a directory like " + pattern_);
    dir_ = pattern.data();
    path_ = dir_ + "/input";
    FILE* file = std::fopen(path_.c_str(), "wb");
    if (file == nullptr) Fail(__FILE__, __LINE__, "can't write " + path_);
    if (size != 0 && std::fwrite(data, 1, size, file) != size) Fail(__FILE__, __LINE__, "short write to " + path_);
    if (std::fclose(file) != 0) Fail(__FILE__, __LINE__, "can't close " + path_);
    return path_;
  }

  void Remove() {
    if (dir_.empty()) return;
    ::unlink(path_.c_str());
    ::rmdir(dir_.c_str());
    dir_.clear();
  }

  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;

 private:
  InputFile() {
    std::string base = "/dev/shm";
    if (::access(base.c_str(), W_OK) != 0) {
      const char* tmp = std::getenv("TMPDIR");
      base = tmp != nullptr && *tmp != '\0' ? tmp : "/tmp";
    }
    pattern_ = base + "/zelsim-fuzz-XXXXXX";
  }
  ~InputFile() { Remove(); }

  std::string pattern_;
  std::string dir_;
  std::string path_;
};

// The lines std::getline gives for `text`: split at '\n', no line after a
// final '\n', none at all for an empty text.
inline std::vector<std::string> GetlineLines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    const size_t end = text.find('\n', start);
    if (end == std::string::npos) {
      lines.push_back(text.substr(start));
      break;
    }
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

// White space as the "C" locale's isspace sees it, which is what stream
// extraction of words and numbers skips.
inline bool IsStreamSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

inline bool IsDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace ZelFuzz

#endif  // ZELSIM_FUZZ_SUPPORT_H
