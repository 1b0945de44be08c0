// SPDX-License-Identifier: Apache-2.0
#include "apps/soak/runner.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <utility>

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Soak {

namespace {

std::string ReadAndRemove(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in.is_open()) return std::string();
  std::ostringstream text;
  text << in.rdbuf();
  in.close();
  std::remove(path.c_str());
  return text.str();
}

}  // namespace

Child::Child(std::vector<std::string> argv, std::string workDir, std::string name, double timeoutSeconds)
    : argv_(std::move(argv)),
      outPath_(workDir + "/" + name + ".out"),
      errPath_(workDir + "/" + name + ".err"),
      jsonPath_(workDir + "/" + name + ".json"),
      timeoutSeconds_(timeoutSeconds) {}

Child::~Child() {
  // A child still running when the soak gives up is not left behind.
  if (pid_ > 0 && !done_) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    Collect();
  }
}

bool Child::Start() {
  start_ = std::chrono::steady_clock::now();
  std::remove(jsonPath_.c_str());
  std::vector<char*> args;
  for (std::string& a : argv_) args.push_back(a.data());
  args.push_back(nullptr);
  pid_ = fork();
  if (pid_ == 0) {
    const int out = open(outPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int err = open(errPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (out < 0 || err < 0) _exit(126);
    dup2(out, 1);
    dup2(err, 2);
    close(out);
    close(err);
    execv(args[0], args.data());
    _exit(127);
  }
  if (pid_ < 0) {
    done_ = true;
    return false;
  }
  result_.started = true;
  return true;
}

bool Child::Poll() {
  if (done_) return true;
  int status = 0;
  const pid_t r = waitpid(pid_, &status, WNOHANG);
  const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  if (r == 0) {
    if (elapsed < timeoutSeconds_) return false;
    kill(pid_, SIGKILL);
    waitpid(pid_, &status, 0);
    result_.timedOut = true;
  }
  result_.seconds = elapsed;
  if (WIFEXITED(status)) {
    result_.exited = true;
    result_.exitCode = WEXITSTATUS(status);
  } else if (WIFSIGNALED(status)) {
    result_.signal = WTERMSIG(status);
  }
  Collect();
  return true;
}

void Child::Collect() {
  done_ = true;
  result_.out = ReadAndRemove(outPath_);
  result_.err = ReadAndRemove(errPath_);
  result_.json = ReadAndRemove(jsonPath_);
}

std::string MakeWorkDir() {
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/zelsim-soak-XXXXXX";
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  if (mkdtemp(name.data()) == nullptr) return std::string();
  return name.data();
}

void RemoveWorkDir(const std::string& dir) {
  if (!dir.empty()) rmdir(dir.c_str());
}

std::string ShellLine(const std::vector<std::string>& argv) {
  std::string line;
  for (const std::string& a : argv) {
    if (!line.empty()) line += ' ';
    const bool plain = !a.empty() && a.find_first_not_of(
                                         "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                         "0123456789_-+=.,/:@%") == std::string::npos;
    if (plain) {
      line += a;
    } else {
      line += '\'';
      for (char ch : a) {
        if (ch == '\'') {
          line += "'\\''";
        } else {
          line += ch;
        }
      }
      line += '\'';
    }
  }
  return line;
}

}  // namespace Soak
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak
