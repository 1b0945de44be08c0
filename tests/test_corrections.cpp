// SPDX-License-Identifier: Apache-2.0
// The two opt-in corrections: how a host chooses them, what the model does
// without them (the known stall and the known checker stop, each from a
// legal host), what it does with them, and that they change nothing where
// the faults can't arise.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "apps/zelsim/bench.h"
#include "test_support.h"
#include "zel2/zelsim.h"

using namespace Sornak::Internal::ZEL2;
using namespace Sornak::Internal::ZEL2::Bench;

namespace {

struct ChildRun {
  int status = -1;  // exit status, or 128 + signal
  std::string out;  // standard output and error
};

// Runs zelsim in a child process of its own (the kernel elaborates once per
// process), with LIBZEL_CORRECTIONS set to `corrections` unless empty.
ChildRun RunZelsimChild(const std::vector<std::string>& args, const std::string& corrections) {
  zelsim_test::TempDir dir;
  const std::string log = dir.path + "/out.txt";
  std::cout.flush();
  const pid_t pid = fork();
  if (pid == 0) {
    zelsim_test::ClearModelEnvironment();
    if (corrections.empty())
      unsetenv("LIBZEL_CORRECTIONS");
    else
      setenv("LIBZEL_CORRECTIONS", corrections.c_str(), 1);
    if (!freopen(log.c_str(), "w", stdout)) _exit(100);
    dup2(1, 2);
    std::vector<std::string> full = args;
    full.insert(full.begin(), "zelsim");
    std::vector<const char*> argv;
    for (const std::string& a : full) argv.push_back(a.c_str());
    const int status = RunZelsim(static_cast<int>(argv.size()), argv.data());
    std::cout.flush();
    fflush(stdout);
    _exit(status);
  }
  int raw = 0;
  waitpid(pid, &raw, 0);
  ChildRun run;
  run.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
  run.out = zelsim_test::ReadFile(log);
  return run;
}

// The output without the lines that differ between two runs for reasons
// other than the model: the name of zelsim's scratch configuration file,
// and the start-up line that names the corrections.
std::string Comparable(const std::string& out) {
  std::string kept;
  for (const std::string& line : zelsim_test::Lines(out)) {
    if (line.rfind("Reading ini file", 0) == 0 || line.rfind("*** CORRECTIONS ON: ", 0) == 0) continue;
    kept += line + "\n";
  }
  return kept;
}

bool Contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

}  // namespace

TEST(Corrections, NamesListsAndUnknownNames) {
  Corrections c;
  EXPECT_FALSE(c.Any());
  EXPECT_EQ(c.Names(), "");
  std::string unknown;
  EXPECT_TRUE(c.EnableList(" bank-ownership ,", unknown));
  EXPECT_EQ(c.Names(), "bank-ownership");
  // An unknown name anywhere in the list changes nothing and is named.
  EXPECT_FALSE(c.EnableList("smoothing-stall,smoothing", unknown));
  EXPECT_EQ(unknown, "smoothing");
  EXPECT_FALSE(c.smoothingStall);
  EXPECT_TRUE(c.EnableList("all", unknown));
  EXPECT_EQ(c.Names(), "smoothing-stall, bank-ownership");
}

// The environment variable reaches the cube, and the start-up line names
// what is on; with nothing on, there is no such line.
TEST(Corrections, EnvironmentVariableAndStartUpLine) {
  zelsim_test::ClearModelEnvironment();
  setenv("LIBZEL_CORRECTIONS", "smoothing-stall", 1);
  Cube2in1Wrapper* wrapper = nullptr;
  {
    zelsim_test::CaptureStdout capture;
    wrapper = new Cube2in1Wrapper("wrapper");
    unsetenv("LIBZEL_CORRECTIONS");
    EXPECT_TRUE(wrapper->cube->cfg.corrections.smoothingStall);
    EXPECT_FALSE(wrapper->cube->cfg.corrections.bankOwnership);
    Corrections both;
    both.Enable("all");
    wrapper->setCorrections(both);
    sc_core::sc_start(zelsim_test::Ns(10));
    EXPECT_TRUE(Contains(capture.str(), "*** CORRECTIONS ON: smoothing-stall, bank-ownership\n")) << capture.str();
  }
  // Once the simulation runs, the choice is fixed.
  EXPECT_DIES_SAYING(wrapper->setCorrections(Corrections()),
                     "== ERROR - Corrections can only be chosen before the simulation starts");
}

TEST(Corrections, UnknownNameInTheEnvironmentStopsCreateCube) {
  zelsim_test::ClearModelEnvironment();
  setenv("LIBZEL_CORRECTIONS", "bank-ownership,tidy", 1);
  EXPECT_DIES_SAYING(CreateCube(nullptr), "== ERROR - LIBZEL_CORRECTIONS names no known correction: tidy");
}

// A host that batches its token returns (the freed response space waits up
// to 500 cycles for a request tail) backs the responses up to the vault
// controllers, which run out of response credits. When the last smoothing
// buffers fill, no scan reaches the vaults, nothing re-arms the move, and
// after the host's tokens come back the quads stay stalled for good: the
// watchdog ends the run. With the correction the same run drains.
TEST(Corrections, BatchingHostStallsTheSmoothingBuffersUnlessCorrected) {
  const std::vector<std::string> args = {
      "--seed", "1", "--set", "SIM_TIME=0", "--set", "NUM_REQUESTS=200", "--set", "HOST_MAPPING=0",
      "--set", "PERCENTAGE_READ=100", "--set", "PERCENTAGE_RD_64B=0", "--set", "PERCENTAGE_RD_128B=100",
      "--token-return-wait", "500", "--deadlock-timeout", "20000"};
  const ChildRun literal = RunZelsimChild(args, "");
  EXPECT_EQ(literal.status, kExitDeadlock) << literal.out;
  EXPECT_TRUE(Contains(literal.out, "zelsim: deadlock: no flit moved for 20000 ns")) << literal.out;
  std::vector<std::string> correctedArgs = args;
  correctedArgs.insert(correctedArgs.end(), {"--correct", "smoothing-stall"});
  const ChildRun corrected = RunZelsimChild(correctedArgs, "");
  EXPECT_EQ(corrected.status, kExitClean) << corrected.out;
  EXPECT_TRUE(Contains(corrected.out, "Response mismatches: 0; unanswered at the end: 0")) << corrected.out;
}

// Refresh lets a second transaction into the request queue of a busy bank,
// and from then on a bank's precharge always admits the next one while
// another is queued; a read then goes out under another request's row before
// its own ACT, and the vault's checker stops the run at its PRE. With the
// correction the run is clean and ends at rest.
TEST(Corrections, RefreshOverlapStopsTheCheckerUnlessCorrected) {
  const std::vector<std::string> args = {"--seed", "1", "--set", "SIM_TIME=20000", "--set",
                                         "REFRESH_ENABLED=true", "--cube-size", "0", "--set", "REQUEST_STREAM=1"};
  const ChildRun literal = RunZelsimChild(args, "");
  EXPECT_EQ(literal.status, 128 + SIGABRT);
  EXPECT_TRUE(Contains(literal.out, "]= ERROR - Received PRE prt:0 bnk:0 row:2048 col:22 tag:1050 in Vault 10 "
                                    "when we shouldn't have"))
      << literal.out;
  std::vector<std::string> rest = args;
  rest.push_back("--check-rest");
  const ChildRun corrected = RunZelsimChild(rest, "bank-ownership");
  EXPECT_EQ(corrected.status, kExitClean) << corrected.out;
  EXPECT_TRUE(Contains(corrected.out, "zelsim: rest state OK")) << corrected.out;
}

// Without refresh a bank never holds two transactions, and with responses
// in their own quad no smoothing buffer is shared: both corrections together
// must not change one byte of the report, the statistics or the state dump.
TEST(Corrections, ChangeNothingWithoutRefreshWhenResponsesStayInTheirQuad) {
  for (const char* seed : {"3", "8"}) {
    const std::vector<std::string> args = {
        "--seed", seed, "--set", "SIM_TIME=6000", "--set", "HOST_MAPPING=2", "--set", "REQUEST_STREAM=2",
        "--set", "PERCENTAGE_RD_16B=30", "--set", "PERCENTAGE_RD_64B=30", "--set", "PERCENTAGE_RD_128B=40",
        "--set", "PERCENTAGE_WR_128B=50", "--set", "USE_ATOMICS=1", "--set", "ATOMICS_PERCENTAGE=10",
        "--dump-state"};
    const ChildRun literal = RunZelsimChild(args, "");
    const ChildRun corrected = RunZelsimChild(args, "all");
    EXPECT_EQ(literal.status, kExitClean) << literal.out;
    EXPECT_TRUE(Contains(corrected.out, "*** CORRECTIONS ON: smoothing-stall, bank-ownership\n"));
    EXPECT_EQ(Comparable(literal.out), Comparable(corrected.out)) << "seed " << seed;
  }
}
