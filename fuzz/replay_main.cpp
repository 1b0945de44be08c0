// SPDX-License-Identifier: Apache-2.0
// Runs a fuzz harness over saved inputs without the fuzzing engine, so that a
// plain build (any compiler) replays the seed corpus and every crash found
// so far as a regression test. Arguments are files or directories; the files
// of a directory are taken in name order, subdirectories are not entered.
// A failing input aborts inside the harness; an input that makes the code
// under test call exit fails as well, and so does a run without inputs.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

// The input being replayed, or nullptr between inputs.
const char* current = nullptr;

void ExitDuringInput() {
  if (current == nullptr) return;
  std::fprintf(stderr, "fuzz replay: '%s' made the program exit\n", current);
  std::fflush(stderr);
  std::_Exit(1);
}

std::vector<std::string> Inputs(const char* arg) {
  namespace fs = std::filesystem;
  std::vector<std::string> files;
  if (!fs::is_directory(arg)) {
    files.push_back(arg);
    return files;
  }
  for (const fs::directory_entry& entry : fs::directory_iterator(arg)) {
    if (entry.is_regular_file()) files.push_back(entry.path().string());
  }
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace

// Defined here, this main wins over the one in libsystemc.
int main(int argc, char* argv[]) {
  std::atexit(ExitDuringInput);
  size_t count = 0;
  for (int i = 1; i < argc; ++i) {
    for (const std::string& name : Inputs(argv[i])) {
      std::ifstream file(name, std::ios::binary);
      if (!file) {
        std::fprintf(stderr, "fuzz replay: can't read '%s'\n", name.c_str());
        return 1;
      }
      const std::vector<char> bytes{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
      std::printf("fuzz replay: %s (%zu bytes)\n", name.c_str(), bytes.size());
      std::fflush(stdout);
      current = name.c_str();
      LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
      current = nullptr;
      ++count;
    }
  }
  if (count == 0) {
    std::fprintf(stderr, "fuzz replay: no input given\n");
    return 1;
  }
  std::printf("fuzz replay: %zu inputs passed\n", count);
  return 0;
}
