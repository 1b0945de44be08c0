// SPDX-License-Identifier: Apache-2.0
// The zelsim test bench: strict configuration and command line, request
// generation, the host's flit arithmetic and reports (all without a kernel),
// and whole runs of the bench against the cube.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <systemc>
#include <tuple>
#include <utility>
#include <vector>

#include "apps/zelsim/bench.h"
#include "apps/zelsim/generator.h"
#include "apps/zelsim/host.h"
#include "apps/zelsim/options.h"
#include "apps/zelsim/results.h"
#include "test_support.h"

using namespace Sornak::Internal::ZEL2;
using namespace Sornak::Internal::ZEL2::Bench;
using sc_core::SC_NS;
using sc_core::SC_PS;
using sc_core::sc_time;

namespace {

// Runs zelsim with `args` in this process and returns its status. What it
// writes to standard error goes to `err`, or else out of the test log.
int RunBench(const std::vector<std::string>& args, std::string* err = nullptr, std::string* out = nullptr,
             RunResults* results = nullptr) {
  std::string ignored;
  return zelsim_test::RunCommand(
      [results](int argc, const char* const* argv) { return RunZelsim(argc, argv, results); }, args, out,
      err != nullptr ? err : &ignored);
}

// `options` followed by "--set" and each of `sets`.
std::vector<std::string> Args(std::vector<std::string> options, const std::vector<std::string>& sets) {
  for (const std::string& set : sets) options.insert(options.end(), {"--set", set});
  return options;
}

// A refusal: status 2 and exactly one line on standard error that contains
// each of `words`.
void ExpectRefusal(const std::vector<std::string>& args, const std::vector<std::string>& words) {
  std::string err;
  EXPECT_EQ(RunBench(args, &err), kExitRefused);
  ASSERT_FALSE(err.empty());
  EXPECT_EQ(err.find('\n'), err.size() - 1) << err;
  EXPECT_EQ(err.rfind("zelsim: ", 0), 0u) << err;
  for (const std::string& word : words)
    EXPECT_NE(err.find(word), std::string::npos) << err << " lacks " << word;
}

std::vector<Request> Generate(const TrafficSettings& settings, unsigned count, uint64_t seed = 1,
                              unsigned id = 0) {
  RequestGenerator generator(id, settings, seed, count);
  std::vector<Request> requests;
  while (!generator.Done()) requests.push_back(generator.Next(0));
  return requests;
}

TrafficSettings DefaultTraffic() {
  Config cfg;
  return TrafficSettings::FromConfig(cfg, 4);
}

// The configuration a list of KEY=VALUE assignments gives.
Config ConfigWith(const std::vector<std::string>& sets) {
  ConfigOverlay overlay;
  std::string error;
  for (const std::string& set : sets) EXPECT_TRUE(ApplyAssignment(set, overlay, error)) << error;
  Config cfg;
  ApplyOverlay(overlay, cfg);
  return cfg;
}

// Runs zelsim with `args` and checks what every clean run must show: all
// traffic back, each non-posted request answered once, every request token
// returned by the cube.
RunResults RunClean(const std::vector<std::string>& args, unsigned tokensPerLink = 100) {
  RunResults r;
  std::string err;
  EXPECT_EQ(RunBench(args, &err, nullptr, &r), kExitClean) << err;
  EXPECT_TRUE(r.drained);
  const LinkResults total = r.Total();
  EXPECT_EQ(total.mismatches, 0u);
  EXPECT_EQ(total.outstanding, 0u);
  EXPECT_EQ(total.completed + total.posted, total.issued);
  EXPECT_EQ(total.latency.count, total.completed);
  for (const LinkResults& link : r.links)
    EXPECT_EQ(link.requestTokensHeld, tokensPerLink) << "link " << link.link;
  for (const GeneratorResults& g : r.generators) {
    EXPECT_TRUE(g.done);
    EXPECT_EQ(g.issued, g.generated);
  }
  return r;
}

}  // namespace

// ---- Strict keys and values ------------------------------------------------

// The types of the keys show in how their values are checked, below.
TEST(ZelsimKeys, TableKnowsEveryKey) {
  const Config cfg;
  EXPECT_EQ(KeyTable().size(), cfg.keyCounts.size());
  for (const KeyInfo& key : KeyTable()) EXPECT_EQ(cfg.keyCounts.count(key.name), 1u) << key.name;
  EXPECT_EQ(FindKey("TRAS"), nullptr);
}

TEST(ZelsimKeys, ValuesAreCheckedWhereTheLibraryWouldPassThemInSilence) {
  // Splits "KEY=text" and checks the text as a value of the key.
  auto check = [](const std::string& assignment, std::string& canonical, std::string& error) {
    const std::size_t at = assignment.find('=');
    return CheckValue(*FindKey(assignment.substr(0, at)), assignment.substr(at + 1), canonical, error);
  };
  std::string canonical;
  std::string error;
  const std::pair<const char*, const char*> accepted[] = {{"NUM_QUADS=007", "7"},
                                                          {"NUM_QUADS=4294967295", "4294967295"},
                                                          {"CORE_CLK=1.6", "1.60000002"},
                                                          {"tRAS=0", "0"},
                                                          {"LINK_SPEED=12.5", "12.5"},
                                                          {"REFRESH_ENABLED=True", "true"},
                                                          {"REFRESH_ENABLED=false", "false"},
                                                          {"STATS_FILENAME=out.txt", "out.txt"}};
  for (const auto& [assignment, text] : accepted) {
    EXPECT_TRUE(check(assignment, canonical, error)) << error;
    EXPECT_EQ(canonical, text) << assignment;
  }
  for (const char* assignment :
       {"NUM_QUADS=12a", "NUM_QUADS=-1", "NUM_QUADS=4294967296", "NUM_QUADS=", "NUM_QUADS=0x10",
        "CORE_CLK=1600 ps", "CORE_CLK=-1", "LINK_SPEED=fast", "REFRESH_ENABLED=TRUE", "REFRESH_ENABLED=1",
        "STATS_FILENAME=my stats.txt", "STATS_FILENAME=a=b"}) {
    EXPECT_FALSE(check(assignment, canonical, error)) << assignment;
    EXPECT_NE(error.find(std::string(assignment).substr(0, std::string(assignment).find('='))),
              std::string::npos)
        << error;
  }
}

TEST(ZelsimKeys, CanonicalTextsMeanTheSameToTheLibrary) {
  std::ostringstream printed;
  ConfigWith({"CORE_CLK=1.25", "LINK_SPEED=12.5", "REFRESH_ENABLED=True", "NUM_ROWS=0100",
              "STATS_FILENAME=s.txt", "tRAS=0"})
      .print(printed, true);
  EXPECT_EQ(printed.str(),
            "[*] [string]: 'STATS_FILENAME'=s.txt\n[*] [sc_time]: 'CORE_CLK'=1250 ps\n"
            "[*] [float]: 'LINK_SPEED'=12.5\n[*] [bool]: 'REFRESH_ENABLED'=1\n"
            "[*] [unsigned]: 'NUM_ROWS'=100\n[*] [sc_time]: 'tRAS'=0 s\n");
}

TEST(ZelsimKeys, SourcesApplyInOrderOnTopOfTheEnvironmentFile) {
  zelsim_test::TempDir dir;
  const std::string envFile = dir.Write("env.ini", "NUM_REQUESTS = 10\nNUM_GENERATORS = 3\nSIM_TIME = 500\n");
  const std::string file = dir.Write("cfg.ini",
                                     "; a comment\n\n  NUM_GENERATORS = 5 ; trailing comment\r\n"
                                     "ALIGNED_32B=false\r\nNUM_REQUESTS = 20\nNUM_GENERATORS = 2\n");
  setenv("LIBZEL_CONFIG_FILE", envFile.c_str(), 1);
  Options options;
  options.sources = {{false, "NUM_GENERATORS=1"}, {true, file}, {false, "NUM_REQUESTS=30"}};
  ConfigOverlay overlay;
  std::string error;
  ASSERT_TRUE(ResolveConfiguration(options, overlay, error)) << error;
  unsetenv("LIBZEL_CONFIG_FILE");
  EXPECT_EQ(overlay["SIM_TIME"].value, "500");
  EXPECT_EQ(overlay["SIM_TIME"].origin, Origin::EnvironmentFile);
  EXPECT_EQ(overlay["NUM_GENERATORS"].value, "2");   // the file's last line, after the --set
  EXPECT_EQ(overlay["ALIGNED_32B"].value, "false");  // a DOS line end is no part of the value
  EXPECT_EQ(overlay["NUM_REQUESTS"].value, "30");
  EXPECT_EQ(overlay["NUM_REQUESTS"].origin, Origin::SetOption);
}

TEST(ZelsimKeys, TokenVariablesMustBeCountsTheLibraryAccepts) {
  std::string error;
  const struct {
    const char* variable;
    const char* value;
    bool ok;
  } cases[] = {{"LIBZEL_NUM_TOKENS", "289", true},  {"LIBZEL_NUM_TOKENS", "290", false},
               {"LIBZEL_NUM_TOKENS", "0", false},   {"LIBZEL_NUM_TOKENS", "-5", false},
               {"LIBZEL_NUM_TOKENS", "50x", false}, {"ZEL_BFM_NUM_TOKENS", "0", true},
               {"ZEL_BFM_NUM_TOKENS", "300", false}};
  for (const auto& c : cases) {
    setenv(c.variable, c.value, 1);
    EXPECT_EQ(CheckTokenVariables(error), c.ok) << c.variable << "=" << c.value;
    if (!c.ok) EXPECT_NE(error.find(c.variable), std::string::npos) << error;
    unsetenv(c.variable);
  }
  EXPECT_TRUE(CheckTokenVariables(error));
}

// ---- Command line --------------------------------------------------------------

TEST(ZelsimCommandLine, OptionsAreRead) {
  Options options;
  std::string error;
  const int status = zelsim_test::RunCommand(
      [&](int argc, const char* const* argv) {
        return static_cast<int>(ParseCommandLine(argc, argv, options, error));
      },
      {"--config", "a.ini", "--set", "NUM_QUADS=2", "--seed=42", "--json", "r.json", "--dump-state",
       "--cube-size", "2", "--lanes", "8", "--link-rate=50", "--deadlock-timeout=0", "--token-return-wait=3", "--no-config-guards"});
  ASSERT_EQ(status, static_cast<int>(ParseStatus::Run)) << error;
  ASSERT_EQ(options.sources.size(), 2u);
  EXPECT_TRUE(options.sources[0].isFile);
  EXPECT_EQ(options.sources[1].text, "NUM_QUADS=2");
  EXPECT_EQ(options.seed, 42u);
  EXPECT_EQ(options.jsonFile, "r.json");
  EXPECT_TRUE(options.dumpState);
  EXPECT_EQ(options.cubeSize, 2);
  EXPECT_EQ(options.linkRate, 50u);
  EXPECT_EQ(options.lanes, 8u);
  EXPECT_EQ(options.deadlockTimeoutNs, 0u);
  EXPECT_EQ(options.tokenReturnWait, 3u);
  EXPECT_FALSE(options.configGuards);
}

TEST(ZelsimCommandLine, HelpAndVersionEndAtOnce) {
  std::string out;
  EXPECT_EQ(RunBench({"--set", "NUM_QUADS=2", "--help"}, nullptr, &out), kExitClean);
  EXPECT_EQ(out.rfind("Usage: zelsim", 0), 0u) << out;
  for (const char* piece :
       {"--set KEY=VALUE", "--deadlock-timeout NS", "  3  the model stopped the run", "  4  deadlock"})
    EXPECT_NE(out.find(piece), std::string::npos) << piece;
  EXPECT_EQ(out.find("--no-config-guards"), std::string::npos);  // for tests only
  EXPECT_EQ(RunBench({"--version"}, nullptr, &out), kExitClean);
  EXPECT_EQ(out.rfind("zelsim ", 0), 0u) << out;
  EXPECT_EQ(out.find('\n'), out.size() - 1);
}

// Bad input, and values that parse but that the bench can't run with, end
// before the cube is built.
TEST(ZelsimCommandLine, BadInputStopsWithStatus2AndOneLine) {
  zelsim_test::TempDir dir;
  const std::string badFile = dir.Write("bad.ini", "NUM_QUADS = 4\nNUM_REQUESTS = lots\n");
  const struct {
    std::vector<std::string> args;
    std::vector<std::string> words;
    std::pair<const char*, std::string> variable = {};  // set for the run
  } cases[] = {
      {{"--set", "NO_SUCH_KEY=1"}, {"--set NO_SUCH_KEY=1", "unknown key 'NO_SUCH_KEY'"}},
      {{"--set", "NUM_REQUESTS=12a"}, {"NUM_REQUESTS", "'12a'"}},
      {{"--set", "NUM_REQUESTS"}, {"KEY=VALUE"}},
      {{"--set", "CORE_CLK=1e30"}, {"CORE_CLK", "up to 10^12"}},
      {{"--config", dir.path + "/none.ini"}, {"can't read configuration file '" + dir.path + "/none.ini'"}},
      {{"--config", badFile}, {"bad.ini", "line 2", "NUM_REQUESTS", "'lots'"}},
      {{"--config", dir.Write("k1.ini", "NUM_QUADS = 4\nNUM_QUAD = 4\n")},
       {"k1.ini", "line 2", "unknown key 'NUM_QUAD'"}},
      {{"--config", dir.Write("k2.ini", "num_quads = 4\n")},
       {"k2.ini", "unknown key 'num_quads'", "NUM_QUADS"}},
      {{"--config", dir.Write("k3.ini", "[section]\n")}, {"k3.ini", "line 1", "KEY = VALUE"}},
      {{"--config", dir.Write("k4.ini", "= 5\n")}, {"k4.ini", "no key"}},
      {{"--frobnicate"}, {"unknown option '--frobnicate'"}},
      {{"extra"}, {"unexpected argument 'extra'"}},
      {{"--seed", "x"}, {"--seed"}},
      {{"--seed"}, {"--seed needs a value"}},
      {{"--link-rate", "45"}, {"--link-rate"}},
      {{"--cube-size", "3"}, {"--cube-size"}},
      {{"--deadlock-timeout", "soon"}, {"--deadlock-timeout", "'soon'"}},
      {{"--deadlock-timeout", "1000000000001"}, {"--deadlock-timeout"}},
      {{"--json", dir.path + "/no/such/dir.json"}, {"JSON", "dir.json"}},
      {{}, {"LIBZEL_NUM_TOKENS"}, {"LIBZEL_NUM_TOKENS", "290"}},
      {{}, {"bad.ini", "LIBZEL_CONFIG_FILE", "NUM_REQUESTS"}, {"LIBZEL_CONFIG_FILE", badFile}},
      {{"--set", "REQUEST_STREAM=3"}, {"REQUEST_STREAM"}},
      {{"--set", "HOST_MAPPING=7"}, {"HOST_MAPPING"}},
      {{"--set", "PERCENTAGE_RD_64B=0"}, {"PERCENTAGE_RD_16B"}},
      {{"--set", "NUM_LINKS=2"}, {"NUM_LINKS"}},
      {Args({}, {"USE_TRACE=true", "TRACE_FILENAME_0=" + dir.path + "/no.trace"}),
       {"no.trace", "TRACE_FILENAME_0"}},
      // The deadlock of a link master that can't hold a whole response and
      // the vault switch's reserve.
      {Args({}, {"LINK_MASTER_BUFFER_SIZE=9", "HOST_MAPPING=1", "SIM_TIME=3000"}),
       {"key LINK_MASTER_BUFFER_SIZE: 9 is below 12", "whole packets"}},
      {{"--lanes", "32"}, {"LINK_0_WIDTH", "--lanes", "6 flits per core cycle", "FLITS_PER_CYCLE_LINK"}},
      {{"--set", "PERCENTAGE_RD_128B=1"},
       {"BFM_TOKENS_PER_LINK", "ZEL_BFM_NUM_TOKENS", "9 flits"},
       {"ZEL_BFM_NUM_TOKENS", "8"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.words.front());
    if (c.variable.first != nullptr) setenv(c.variable.first, c.variable.second.c_str(), 1);
    ExpectRefusal(c.args, c.words);
    if (c.variable.first != nullptr) unsetenv(c.variable.first);
  }
}

TEST(ZelsimCommandLine, RefusalIsTheProcessExitStatus) {
  auto runAndExit = [] {
    const char* argv[] = {"zelsim", "--set", "FOO=1"};
    std::exit(RunZelsim(3, argv));
  };
  EXPECT_EXIT(runAndExit(), ::testing::ExitedWithCode(kExitRefused),
              "^zelsim: --set FOO=1: unknown key 'FOO'\n$");
}

// ---- Request generation --------------------------------------------------------

TEST(ZelsimGenerator, MixFollowsReadShareAndSizeWeights) {
  TrafficSettings s = DefaultTraffic();
  s.percentRead = 30;
  for (unsigned& w : s.readWeights) w = 0;
  for (unsigned& w : s.writeWeights) w = 0;
  s.readWeights[0] = 1;   // 16 bytes
  s.readWeights[7] = 3;   // 128 bytes
  s.writeWeights[2] = 5;  // 48 bytes
  std::map<unsigned, unsigned> readSizes;
  unsigned reads = 0;
  unsigned writes = 0;
  const std::vector<Request> requests = Generate(s, 20000);
  for (const Request& r : requests) {
    if (r.command == RD) {
      ++reads;
      ++readSizes[r.length];
    } else {
      ASSERT_EQ(r.command, WR);
      EXPECT_EQ(r.length, 48u);
      ++writes;
    }
  }
  EXPECT_NEAR(reads / 20000.0, 0.30, 0.02);
  EXPECT_EQ(readSizes.size(), 2u);
  EXPECT_NEAR(readSizes[128] / static_cast<double>(reads), 0.75, 0.03);
  EXPECT_EQ(requests.back().serial, 19999u);
}

TEST(ZelsimGenerator, AddressesAreAlignedAndInsideTheCube) {
  TrafficSettings s = DefaultTraffic();
  for (const bool aligned32 : {true, false}) {
    s.aligned32 = aligned32;
    bool someOdd16 = false;
    for (const Request& r : Generate(s, 5000)) {
      ASSERT_EQ(r.address % (aligned32 ? 32 : 16), 0u);
      ASSERT_LT(r.address, s.capacity);
      someOdd16 = someOdd16 || r.address % 32 != 0;
    }
    EXPECT_EQ(someOdd16, !aligned32);
  }
  EXPECT_EQ(s.capacity, uint64_t{1} << 30);  // the defaults: 16 vaults of 64 MB
}

TEST(ZelsimGenerator, PostedWritesAndAtomics) {
  TrafficSettings s = DefaultTraffic();
  s.postedWrites = true;
  s.atomicsPercent = 40;  // without USE_ATOMICS the share means nothing
  for (const Request& r : Generate(s, 2000)) EXPECT_TRUE(r.command == RD || r.command == P_WR);

  s.atomics = true;
  std::map<ZELCommand, unsigned> kinds;
  unsigned atomics = 0;
  for (const Request& r : Generate(s, 20000)) {
    if (!IsAtomic(r.command)) continue;
    ++atomics;
    ++kinds[r.command];
    EXPECT_EQ(r.length, 16u);
  }
  EXPECT_NEAR(atomics / 20000.0, 0.40, 0.02);
  EXPECT_EQ(kinds.size(), 6u);
}

TEST(ZelsimGenerator, SameSeedSameRequests) {
  auto requests = [](uint64_t seed, unsigned generator) {
    std::vector<std::tuple<uint64_t, ZELCommand, unsigned>> list;
    for (const Request& r : Generate(DefaultTraffic(), 100, seed, generator))
      list.emplace_back(r.address, r.command, r.length);
    return list;
  };
  EXPECT_EQ(requests(7, 0), requests(7, 0));
  EXPECT_NE(requests(7, 0), requests(8, 0));
  EXPECT_NE(requests(7, 0), requests(7, 1));
}

TEST(ZelsimGenerator, StreamsAndHostMappings) {
  TrafficSettings s = DefaultTraffic();
  s.stream = STREAM_SEQUENTIAL;
  s.mapping = MAP_GENERATOR;
  const auto sequential = Generate(s, 50, 1, 2);
  for (std::size_t i = 1; i < sequential.size(); ++i) {
    EXPECT_EQ(sequential[i].address, sequential[i - 1].address + (sequential[i - 1].length + 31) / 32 * 32);
  }
  EXPECT_EQ(sequential[0].address, s.capacity / 4 * 2);
  for (const Request& r : sequential) EXPECT_EQ(r.link, 2u);

  s.stream = STREAM_STRIDED;
  s.mapping = MAP_ROUND_ROBIN;
  const auto strided = Generate(s, 40, 1, 5);
  std::set<unsigned> vaults;
  for (std::size_t i = 0; i < strided.size(); ++i) {
    vaults.insert(VaultOf(strided[i].address, s.blockSize, s.numVaults));
    EXPECT_EQ(strided[i].link, (5 + i) % 4);
  }
  EXPECT_EQ(vaults, std::set<unsigned>{5});

  s.stream = STREAM_RANDOM;
  s.mapping = MAP_VAULT_QUAD;
  for (const Request& r : Generate(s, 500)) {
    EXPECT_EQ(r.link, VaultOf(r.address, 128, 16) / 4);
  }
}

TEST(ZelsimGenerator, TracesAreParsedAndReplayed) {
  zelsim_test::TempDir dir;
  const std::string path = dir.Write("t.trace",
                                     "; cycle command address size\n"
                                     "0 RD 0x1000 64\n"
                                     "\n"
                                     "0 WR 4096 128   # same cycle\n"
                                     "7 P_ADD16 0x40\n"
                                     "9 BWR 0x80 16\n");
  std::vector<TraceEntry> entries;
  std::string error;
  ASSERT_TRUE(ReadTrace(path, entries, error)) << error;
  ASSERT_EQ(entries.size(), 4u);
  EXPECT_EQ(entries[1].command, WR);
  EXPECT_EQ(entries[1].address, 4096u);
  EXPECT_EQ(entries[1].length, 128u);
  EXPECT_EQ(entries[2].cycle, 7u);
  EXPECT_EQ(entries[2].length, 16u);
  EXPECT_EQ(entries[3].line, 6u);

  RequestGenerator generator(0, DefaultTraffic(), entries, 3);  // stops after 3 of the 4
  generator.Next(0);
  generator.Next(0);
  EXPECT_EQ(generator.NextCycle(), 7u);
  EXPECT_EQ(generator.Next(7).link, 0u);  // address 0x40 is in vault 0, quad 0
  EXPECT_TRUE(generator.Done());

  const std::pair<const char*, const char*> bad[] = {
      {"0 RD 0x10\n", "size"},
      {"0 RD 0x10 24\n", "size"},
      {"0 XOR 0x10 16\n", "unknown command"},
      {"0 ADD16 0x10 32\n", "16"},
      {"x RD 0 16\n", "cycle"},
      {"0 RD 0xg 16\n", "address"},
      {"5 RD 0 16\n4 RD 0 16\n", "line 2: cycles must not decrease"}};
  for (const auto& [text, words] : bad) {
    ASSERT_FALSE(ReadTrace(dir.Write("bad.trace", text), entries, error)) << text;
    EXPECT_NE(error.find(words), std::string::npos) << error;
    EXPECT_NE(error.find("bad.trace"), std::string::npos) << error;
  }
}

// ---- Host arithmetic and reports ----------------------------------------------

TEST(ZelsimHost, FlitsPerCycleAsTheLinkCountsThem) {
  const sc_time clock(1600, SC_PS);
  EXPECT_EQ(FlitsPerCoreCycle(clock, sc_time(533, SC_PS), 3), 3u);  // 3.002 rounds down
  EXPECT_EQ(FlitsPerCoreCycle(clock, sc_time(800, SC_PS), 3), 2u);
  EXPECT_EQ(FlitsPerCoreCycle(clock, sc_time(640, SC_PS), 3), 3u);  // 2.5 rounds up
  EXPECT_EQ(FlitsPerCoreCycle(clock, sc_time(1600, SC_PS), 3), 1u);
  EXPECT_EQ(FlitsPerCoreCycle(clock, sc_time(266, SC_PS), 3), 3u);  // kept to the link's ports
  EXPECT_EQ(FlitsPerCoreCycle(clock, sc_core::SC_ZERO_TIME, 3), 3u);
}

TEST(ZelsimResults, SummaryAndJson) {
  RunResults results;
  results.version = "zelsim test";
  results.seed = 9;
  results.simTimeNs = 1000;
  results.endTimeNs = 770.4;
  results.drained = true;
  LinkResults a;
  a.link = 0;
  a.issued = 3;
  a.completed = 2;
  a.posted = 1;
  a.latency.Add(100);
  a.latency.Add(50);
  LinkResults b;
  b.link = 1;
  b.latency.Add(300);
  b.mismatches = 1;
  LinkResults idle;
  idle.link = 2;
  results.links = {a, b, idle};
  results.mismatchMessages = {"tag \"5\"\tlost"};

  const LinkResults total = results.Total();
  EXPECT_EQ(total.latency.count, 3u);
  EXPECT_DOUBLE_EQ(total.latency.MeanNs(), 150);
  EXPECT_DOUBLE_EQ(total.latency.minNs, 50);
  EXPECT_DOUBLE_EQ(total.latency.maxNs, 300);
  EXPECT_EQ(results.Mismatches(), 1u);

  std::ostringstream summary;
  PrintSummary(summary, results);
  EXPECT_NE(summary.str().find("all requests done and drained"), std::string::npos);
  EXPECT_NE(summary.str().find("Response mismatches: 1"), std::string::npos);

  std::ostringstream json;
  WriteJson(json, results);
  const std::string text = json.str();
  for (const char* field : {"\"seed\": 9", "\"end_time_ns\": 770.4", "\"drained\": true", "\"issued\": 3",
                            "\"mean\": 75,", "\"mean\": null", "\"total\"", "\"tag \\\"5\\\"\\tlost\""}) {
    EXPECT_NE(text.find(field), std::string::npos) << field << " in\n" << text;
  }
  EXPECT_EQ(JsonString(std::string("a\x01", 2)), "\"a\\u0001\"");
}

// ---- Whole runs against the cube ----------------------------------------------

// Every request kind and size, posted writes, unaligned addresses, traffic
// between quads, a small response budget, few tags and short queues.
TEST(ZelsimRun, EveryKindAcrossQuadsUnderTightFlowControl) {
  const RunResults r = RunClean(
      Args({"--seed", "5"},
           {"NUM_REQUESTS=120", "SIM_TIME=80000", "USE_ATOMICS=1", "ATOMICS_PERCENTAGE=25",
            "POSTED_WRITES=true", "ALIGNED_32B=false", "REQUEST_STREAM=1", "HOST_MAPPING=1",
            "REQUEST_SPACING=2", "TAGS_PER_LINK=6", "REQUEST_BUFFER_SIZE=3", "BFM_TOKENS_PER_LINK=12",
            "TOKENS_PER_LINK=40", "PERCENTAGE_RD_16B=1", "PERCENTAGE_RD_48B=1", "PERCENTAGE_RD_128B=1",
            "PERCENTAGE_WR_32B=1", "PERCENTAGE_WR_112B=1", "PERCENTAGE_WR_128B=1"}),
      40);
  const LinkResults total = r.Total();
  EXPECT_EQ(total.issued, 480u);
  EXPECT_GT(total.atomics, 60u);
  EXPECT_GT(total.posted, total.atomics / 2);  // posted writes and posted atomics
  EXPECT_GT(total.tokenReturnsSent, 0u);
  EXPECT_GT(total.latency.minNs, 0);
}

// Read traffic frees response space nearly every cycle; with a wait the
// tokens ride on request tails instead of TOKEN_RETURN flits of their own,
// and the run still ends with every token back where it belongs.
TEST(ZelsimRun, TokenReturnsWaitForRequestTails) {
  const RunResults r = RunClean(Args({"--seed", "3", "--token-return-wait", "8", "--check-rest"},
                                     {"NUM_REQUESTS=400", "PERCENTAGE_READ=100", "REQUEST_SPACING=0"}));
  const LinkResults total = r.Total();
  EXPECT_EQ(total.completed, 1600u);
  EXPECT_GT(total.tokenReturnsSent, 0u);  // the last tokens, once the requests ran out
  EXPECT_LT(total.tokenReturnsSent * 5, total.completed);  // without the wait, more than one per read
}

TEST(ZelsimRun, TracesAreReplayed) {
  zelsim_test::TempDir dir;
  const std::string first = dir.Write("g0.trace",
                                      "0 RD 0x0 64\n0 WR 0x80 128\n3 P_WR 0x100 16\n3 DADD8 0x2000\n"
                                      "20 RD 0x12340 128\n");
  const std::string second = dir.Write("g1.trace", "; nothing but one read\n10 RD 0x40000 32\n");
  const RunResults r = RunClean(Args({}, {"USE_TRACE=true", "NUM_GENERATORS=2", "TRACE_FILENAME_0=" + first,
                                          "TRACE_FILENAME_1=" + second, "SIM_TIME=20000"}));
  ASSERT_EQ(r.generators.size(), 2u);
  EXPECT_EQ(r.generators[0].issued, 5u);
  EXPECT_EQ(r.generators[1].issued, 1u);
  const LinkResults total = r.Total();
  EXPECT_EQ(total.posted, 1u);
  EXPECT_EQ(total.bytesRead, 64u + 128u + 32u);
}

// The links are slowed to one flit per core cycle (10 Gb/s, 8 lanes), so
// that the traffic fills them: neither direction of any link may carry more
// flits than that, and a host that sent at the default rate would stop the
// link on its rate check. The JSON file shows the run's results.
TEST(ZelsimRun, SlowLinksAreNotOverrun) {
  zelsim_test::TempDir dir;
  const std::string json = dir.path + "/r.json";
  const RunResults r =
      RunClean(Args({"--link-rate", "40", "--lanes", "8", "--json", json},
                    {"NUM_REQUESTS=100", "SIM_TIME=0", "POSTED_WRITES=true", "USE_ATOMICS=1",
                     "ATOMICS_PERCENTAGE=20", "PERCENTAGE_READ=60", "PERCENTAGE_RD_128B=100"}));
  EXPECT_EQ(r.Total().issued, 400u);
  EXPECT_GT(r.Total().posted, 40u);
  const double cycles = r.endTimeNs / 1.6;
  for (const LinkResults& link : r.links) {
    SCOPED_TRACE("link " + std::to_string(link.link));
    EXPECT_LE(link.requestFlits, cycles + 1);
    EXPECT_LE(link.responseFlits, cycles + 1);
    EXPECT_GT(link.requestFlits + link.responseFlits, cycles / 2) << "the link was not busy";
  }
  const std::string text = zelsim_test::ReadFile(json);
  for (const std::string& field :
       {std::string("\"issued\": 400,"), "\"completed\": " + std::to_string(r.Total().completed) + ",",
        "\"posted\": " + std::to_string(r.Total().posted) + ","})
    EXPECT_NE(text.find(field), std::string::npos) << field << " in\n" << text;
}

// ---- What the cube can carry -----------------------------------------------------

const std::vector<std::string> kLargest = {"PERCENTAGE_RD_128B=1", "PERCENTAGE_WR_128B=1"};

// Each limit at its boundary: the configuration at the limit passes, one
// step beyond it is refused with a message that names the key. The limits
// follow the traffic: the defaults make 64-byte requests, kLargest adds
// 128-byte ones.
TEST(ZelsimLimits, EachLimitAcceptsItsBoundaryAndRefusesOneStepBeyond) {
  struct Case {
    const char* good;  // assignments separated by spaces
    const char* bad;
    std::vector<std::string> with = {};  // for both
    const char* named = nullptr;         // the key of the refusal, if not the first of `bad`
  };
  const Case cases[] = {
      {"LINK_MASTER_BUFFER_SIZE=12", "LINK_MASTER_BUFFER_SIZE=11"},
      {"LINK_MASTER_BUFFER_SIZE=16", "LINK_MASTER_BUFFER_SIZE=15", kLargest},
      {"VSW_INTERQUAD_BUFFER_SIZE=11", "VSW_INTERQUAD_BUFFER_SIZE=10"},
      {"TOKENS_PER_LINK=9", "TOKENS_PER_LINK=8", kLargest},
      // Without BFM_TOKENS_PER_LINK the host grants TOKENS_PER_LINK.
      {"TOKENS_PER_LINK=5", "TOKENS_PER_LINK=4"},
      {"TOKENS_PER_LINK=9", "TOKENS_PER_LINK=8", {"PERCENTAGE_RD_128B=1"}, "BFM_TOKENS_PER_LINK"},
      {"RESPONSE_OPEN_LOOP=true",
       "RESPONSE_OPEN_LOOP=false",
       {"PERCENTAGE_RD_128B=1", "TOKENS_PER_LINK=8"},
       "BFM_TOKENS_PER_LINK"},
      {"MAX_TOKEN_RETURN=1", "MAX_TOKEN_RETURN=0"},
      {"DATA_Q_CAPACITY=10", "DATA_Q_CAPACITY=9", kLargest},
      {"DATA_Q_CAPACITY=3", "DATA_Q_CAPACITY=2", {"PERCENTAGE_WR_64B=0", "PERCENTAGE_WR_16B=1"}},
      {"CREDITS_FOR_PROCESSING=9", "CREDITS_FOR_PROCESSING=8", kLargest},
      {"CREDITS_FOR_PROCESSING=59", "CREDITS_FOR_PROCESSING=62", {"VSW_RESPONSE_BUFFER_SIZE=61"}},
      // Three flits of a vault move per cycle, two credits go back: a
      // 9-flit response may leave 3 credits behind, a 5-flit one 2.
      {"VSW_RESPONSE_BUFFER_SIZE=12", "VSW_RESPONSE_BUFFER_SIZE=11", kLargest},
      {"VSW_RESPONSE_BUFFER_SIZE=11", "VSW_RESPONSE_BUFFER_SIZE=10"},
      {"FLITS_PER_CYCLE_VSW=2",
       "FLITS_PER_CYCLE_VSW=3",
       {"VSW_RESPONSE_BUFFER_SIZE=9"},
       "VSW_RESPONSE_BUFFER_SIZE"},
      {"TRANSACTION_Q_CAPACITY=1", "TRANSACTION_Q_CAPACITY=0"},
      {"REQUEST_Q_CAPACITY=1", "REQUEST_Q_CAPACITY=0"},
      {"WRITE_CREDITS_PER_CYCLE=1", "WRITE_CREDITS_PER_CYCLE=0"},
      {"LSW_INTERQUAD_BUFFER_SIZE=1", "LSW_INTERQUAD_BUFFER_SIZE=0"},
      {"SMOOTHING_BUFFER_LM_SIZE=1", "SMOOTHING_BUFFER_LM_SIZE=0"},
      {"SMOOTHING_BUFFER_Q_SIZE=1", "SMOOTHING_BUFFER_Q_SIZE=0"},
      {"FLITS_OUT_PER_CYCLE_VC=2", "FLITS_OUT_PER_CYCLE_VC=1"},
      {"FLITS_IN_PER_CYCLE_VC=1", "FLITS_IN_PER_CYCLE_VC=0"},
      {"MAX_REQUEST_SIZE=64", "MAX_REQUEST_SIZE=63"},
      {"MAX_REQUEST_SIZE=128", "MAX_REQUEST_SIZE=127", kLargest},
      // Two beats per column access, one response flit per beat.
      {"PERCENTAGE_RD_128B=1",
       "PERCENTAGE_RD_112B=1",
       {"PERCENTAGE_RD_64B=0", "COLUMN_ACCESS_LENGTH=40"},
       "COLUMN_ACCESS_LENGTH"},
      {"COLUMN_ACCESS_LENGTH=1", "COLUMN_ACCESS_LENGTH=0"},
      {"tCMD=0.4", "tCMD=0.5"},
      {"tCMD=0.8", "tCMD=1.6"},
      {"FLIT_SIZE=16", "FLIT_SIZE=32"},
      {"FLITS_PER_CYCLE_LSW=1", "FLITS_PER_CYCLE_LSW=2"},
      {"FLITS_PER_CYCLE_LSW=4", "FLITS_PER_CYCLE_LSW=5", {"FLITS_PER_CYCLE_LINK=4"}},
      // 20 lanes at 15 Gb/s carry 4 flits per core cycle, 16 lanes 3.
      {"LINK_2_WIDTH=16", "LINK_2_WIDTH=20"},
      {"LINK_SPEED=15", "LINK_SPEED=0"},
      {"NUM_VAULTS=16", "NUM_VAULTS=8"},
      {"VAULTS_PER_QUAD=2 NUM_VAULTS=8", "VAULTS_PER_QUAD=8 NUM_VAULTS=32"},
      {"NUM_QUADS=4 NUM_LINKS=4", "NUM_QUADS=2 NUM_LINKS=2 NUM_VAULTS=8"},
      // Traces can hold every size.
      {"LINK_MASTER_BUFFER_SIZE=16", "LINK_MASTER_BUFFER_SIZE=15", {"USE_TRACE=true"}},
  };
  auto configOf = [](const char* assignments, std::vector<std::string> sets) {
    std::istringstream words(assignments);
    for (std::string word; words >> word;) sets.push_back(word);
    return ConfigWith(sets);
  };
  std::string error;
  EXPECT_TRUE(CheckBenchSettings(Config(), HostSetup(), error)) << error;
  for (const Case& c : cases) {
    const std::string bad = c.bad;
    const std::string key = c.named != nullptr ? c.named : bad.substr(0, bad.find('='));
    SCOPED_TRACE(bad);
    EXPECT_TRUE(CheckBenchSettings(configOf(c.good, c.with), HostSetup(), error)) << error;
    const Config refused = configOf(c.bad, c.with);
    ASSERT_FALSE(CheckBenchSettings(refused, HostSetup(), error));
    EXPECT_EQ(error.rfind("key " + key + ":", 0), 0u) << error;
    EXPECT_TRUE(CheckBenchSettings(refused, HostSetup(), error, false)) << error;
  }
}

// The limits apply to the values the cube runs with: after the token
// variables and the host's setters.
TEST(ZelsimLimits, TokensAndLinksAreCheckedAsTheHostWillSetThem) {
  std::string error;
  const Config largest = ConfigWith(kLargest);
  HostSetup setup;
  setenv("LIBZEL_NUM_TOKENS", "8", 1);
  EXPECT_FALSE(CheckBenchSettings(largest, setup, error));
  EXPECT_NE(error.find("key TOKENS_PER_LINK: 8 is below 9"), std::string::npos) << error;
  setup.cubeTokens = 9;  // --set TOKENS_PER_LINK wins over the variable, and the host grants 8
  EXPECT_FALSE(CheckBenchSettings(largest, setup, error));
  EXPECT_NE(error.find("key BFM_TOKENS_PER_LINK: the host grants 8 "), std::string::npos) << error;
  setenv("ZEL_BFM_NUM_TOKENS", "9", 1);
  EXPECT_TRUE(CheckBenchSettings(largest, setup, error)) << error;
  setup.hostTokensGiven = true;
  setup.hostTokens = 8;
  EXPECT_FALSE(CheckBenchSettings(largest, setup, error));
  setup.hostTokens = 0;  // 0 means the cube's own count
  EXPECT_TRUE(CheckBenchSettings(largest, setup, error)) << error;
  unsetenv("LIBZEL_NUM_TOKENS");
  unsetenv("ZEL_BFM_NUM_TOKENS");

  HostSetup link;
  link.linkRate = 60;
  link.lanes = 24;  // 4.8 flits per core cycle round up to 5
  EXPECT_FALSE(CheckBenchSettings(Config(), link, error));
  EXPECT_NE(error.find("LINK_0_WIDTH (as --link-rate and --lanes set it): 24 lanes at 15 Gb/s carry 5 flits"),
            std::string::npos)
      << error;
  link.linkRate = 40;  // 10 Gb/s: 2.67 flits per core cycle, rounded up to 3
  link.lanes = 20;
  EXPECT_TRUE(CheckBenchSettings(Config(), link, error)) << error;
}

// A model error that ends the program with exit(0) (here a link switch that
// receives flits out of order, since FLITS_PER_CYCLE_LSW is too small for
// the link) is not taken for a clean run.
TEST(ZelsimEnds, AModelStopWithStatus0EndsWithStatus3) {
  auto run = [] {
    dup2(2, 1);
    const char* argv[] = {"zelsim", "--no-config-guards", "--set", "FLITS_PER_CYCLE_LSW=2",
                          "--set",  "HOST_MAPPING=1",     "--set", "SIM_TIME=3000"};
    std::exit(RunZelsim(static_cast<int>(sizeof argv / sizeof argv[0]), argv));
  };
  EXPECT_EXIT(run(), ::testing::ExitedWithCode(kExitModelStopped),
              "Non-contiguous tag received from LS in LSW(.|\n)*\nzelsim: the model stopped the run\n$");
}

// A vault controller that can't hold a transaction's commands takes none:
// requests pile up, the cube stops giving tokens back and no flit moves.
TEST(ZelsimEnds, TheWatchdogReportsADeadlockWithTheStateOfTheCube) {
  std::string err;
  std::string out;
  EXPECT_EQ(RunBench(Args({"--no-config-guards", "--deadlock-timeout", "500"},
                          {"REQUEST_Q_CAPACITY=0", "SIM_TIME=0"}),
                     &err, &out),
            kExitDeadlock);
  EXPECT_NE(err.find("zelsim: deadlock: no flit moved for 500 ns with "), std::string::npos) << err;
  EXPECT_NE(err.find(" requests outstanding\n"), std::string::npos) << err;
  const std::size_t line = out.find("zelsim: deadlock: no flit moved for 500 ns");
  ASSERT_NE(line, std::string::npos);
  EXPECT_NE(out.find("== VSW", line), std::string::npos);  // the state dump follows
  EXPECT_EQ(out.find("==== zelsim summary"), std::string::npos);
}

// The deadlock of a link master whose buffer can't hold a whole response
// beyond the vault switch's reserve, found while --check-rest drains.
TEST(ZelsimEnds, TheWatchdogStopsARestCheckThatCanNotDrain) {
  std::string err;
  std::string out;
  EXPECT_EQ(RunBench(Args({"--no-config-guards", "--check-rest", "--deadlock-timeout", "2000"},
                          {"LINK_MASTER_BUFFER_SIZE=9", "HOST_MAPPING=1", "SIM_TIME=3000"}),
                     &err, &out),
            kExitDeadlock);
  EXPECT_NE(err.find("zelsim: deadlock: no flit moved for 2000 ns"), std::string::npos) << err;
  EXPECT_EQ(out.find("rest state OK"), std::string::npos);
}

// Long quiet spells with nothing outstanding are no deadlock.
TEST(ZelsimEnds, TheWatchdogSleepsWhileNothingIsOutstanding) {
  const RunResults r = RunClean(Args({"--deadlock-timeout", "1000"}, {"NUM_REQUESTS=3", "NUM_GENERATORS=1",
                                                                      "REQUEST_SPACING=2000", "SIM_TIME=0"}));
  EXPECT_GT(r.endTimeNs, 2 * 2000 * 1.6);
}
