// SPDX-License-Identifier: Apache-2.0
// The diagnostics of a whole cube: the DRAM command trace and the state dump.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include "apps/zelsim/bench.h"
#include "test_support.h"
#include "zel2/zelsim.h"

using namespace Sornak::Internal::ZEL2;
using zelsim_test::CaptureStdout;

namespace {

// Runs the test in a fresh directory, so that the trace file is its own.
void EnterScratchDirectory() {
  char name[] = "/tmp/zelsimdiagXXXXXX";
  ASSERT_NE(mkdtemp(name), nullptr);
  ASSERT_EQ(chdir(name), 0);
  zelsim_test::ClearModelEnvironment();
}

int RunZelsim(const std::vector<std::string>& args) {
  return zelsim_test::RunCommand(
      [](int argc, const char* const* argv) { return Bench::RunZelsim(argc, argv); }, args);
}

std::vector<std::string> TraceLines() { return zelsim_test::Lines(zelsim_test::ReadFile("dram_trace.tsv")); }

}  // namespace

TEST(DramTrace, OneLinePerCommandWithItsGap) {
  EnterScratchDirectory();
  {
    CaptureStdout out;
    ASSERT_EQ(RunZelsim({"--set", "SIM_TIME=2000", "--set", "NUM_REQUESTS=50", "--set", "DRAM_TRACING=true"}),
              0);
  }
  const std::vector<std::string> lines = TraceLines();
  ASSERT_FALSE(lines.empty());
  const std::regex format("([0-9]+),VC([0-9]+),(ACT|PRE|READ|WRITE),d[0-9]+,b[0-9]+,([0-9]+)");
  std::vector<bool> seenAct(16, false);
  for (const std::string& line : lines) {
    std::smatch match;
    ASSERT_TRUE(std::regex_match(line, match, format)) << line;
    if (match[3] == "PRE") EXPECT_EQ(match[4], "0") << line;
    const unsigned vault = std::stoul(match[2]);
    ASSERT_LT(vault, 16u);
    // The first ACT of a vault has the time itself as its gap.
    if (match[3] == "ACT" && !seenAct[vault]) {
      EXPECT_EQ(match[1], match[4]) << line;
      seenAct[vault] = true;
    }
  }
}

TEST(DramTrace, RefreshShowsAsActReadPreOnOneBank) {
  EnterScratchDirectory();
  std::ofstream("keys.ini") << "DRAM_TRACING = true\nREFRESH_ENABLED = true\n";
  setenv("LIBZEL_CONFIG_FILE", "keys.ini", 1);
  Cube2in1Wrapper& wrapper = *new Cube2in1Wrapper("wrapper");
  {
    CaptureStdout out;
    wrapper.setCubeSize(0);  // refresh starts only once the cube size is set
    sc_core::sc_start(sc_core::sc_time(2, sc_core::SC_US));
  }
  dramLog.flush();
  const std::vector<std::string> lines = TraceLines();
  // Sixteen vaults refresh about every 488 ns: three lines per refresh.
  ASSERT_GE(lines.size(), 16u * 3);
  const std::regex format("[0-9]+,(VC[0-9]+),(ACT|PRE|READ),(d[0-9]+,b[0-9]+),[0-9]+");
  std::map<std::string, std::vector<std::string>> byVault;
  for (const std::string& line : lines) {
    std::smatch match;
    ASSERT_TRUE(std::regex_match(line, match, format)) << line;
    byVault[match[1]].push_back(std::string(match[2]) + " " + std::string(match[3]));
  }
  for (const auto& [vault, commands] : byVault) {
    ASSERT_GE(commands.size(), 3u) << vault;
    EXPECT_EQ(commands[0], "ACT d0,b0") << vault;
    EXPECT_EQ(commands[1], "READ d0,b0") << vault;
    EXPECT_EQ(commands[2], "PRE d0,b0") << vault;
  }
}

// The run ends at SIM_TIME with traffic still in flight. Without
// DRAM_TRACING at construction there is no trace file.
TEST(StateDump, ShowsTheFlitsOfABusyCube) {
  EnterScratchDirectory();
  CaptureStdout out;
  EXPECT_EQ(RunZelsim({"--set", "SIM_TIME=400", "--dump-state"}), 0);
  EXPECT_FALSE(std::filesystem::exists("dram_trace.tsv"));
  const std::string text = out.str();
  const size_t dump = text.find("== Cube\n");
  ASSERT_NE(dump, std::string::npos);
  const std::string state = text.substr(dump);
  EXPECT_NE(state.find("============ Quad 3 ============\n== Link3\n"), std::string::npos);
  EXPECT_NE(state.find("== VSW0\n"), std::string::npos);
  EXPECT_NE(state.find("== Slice15\n== VC15 [Response Credits : "), std::string::npos);
  // Some request or response flit is somewhere in the cube.
  EXPECT_TRUE(state.find("cmd:RD") != std::string::npos || state.find("cmd:WR") != std::string::npos);
}
