// SPDX-License-Identifier: Apache-2.0
// Runs zelsim as a child process, one case per process (the SystemC kernel
// elaborates once per process), and reads what it left: exit status,
// standard output, standard error and the JSON results. Several children may
// run at once; each has a wall-clock limit after which it is killed.
#ifndef ZELSIM_SOAK_RUNNER_H
#define ZELSIM_SOAK_RUNNER_H

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Soak {

// What one child left behind.
struct ChildResult {
  bool started = false;  // fork and exec worked
  bool exited = false;   // ended by exit(), with `exitCode`
  int exitCode = -1;
  int signal = 0;         // the signal that ended it, when not `exited`
  bool timedOut = false;  // killed at the wall-clock limit
  std::string out;        // standard output
  std::string err;        // standard error
  std::string json;       // the --json file, empty when none was written
  double seconds = 0;     // wall time
};

// One child process. Its standard output and error and its JSON file go to
// files in `workDir`, named after `name`, and are read back and removed at
// the end.
class Child {
 public:
  Child(std::vector<std::string> argv, std::string workDir, std::string name, double timeoutSeconds);
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child();

  // The path the child should give to --json.
  const std::string& JsonPath() const { return jsonPath_; }
  // Forks and executes; false (with `result().started` false) on failure.
  bool Start();
  // True once the child has ended, been killed or never started. Kills it
  // when its time is up. Does not block.
  bool Poll();
  const ChildResult& Result() const { return result_; }

 private:
  void Collect();

  std::vector<std::string> argv_;
  std::string outPath_, errPath_, jsonPath_;
  double timeoutSeconds_;
  pid_t pid_ = -1;
  bool done_ = false;
  std::chrono::steady_clock::time_point start_;
  ChildResult result_;
};

// A fresh directory for the children's files under TMPDIR (or /tmp).
std::string MakeWorkDir();
// Removes the (empty) directory again.
void RemoveWorkDir(const std::string& dir);

// A command line as a shell would take it back: arguments quoted where needed.
std::string ShellLine(const std::vector<std::string>& argv);

}  // namespace Soak
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak

#endif  // ZELSIM_SOAK_RUNNER_H
