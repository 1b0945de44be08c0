// SPDX-License-Identifier: Apache-2.0
// The zelsim test bench: strict configuration and command line, request
// generation, the host's flit arithmetic and reports (all without a kernel),
// and whole runs of the bench against the cube.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <systemc>
#include <vector>

#include "apps/zelsim/bench.h"
#include "apps/zelsim/generator.h"
#include "apps/zelsim/host.h"
#include "apps/zelsim/options.h"
#include "apps/zelsim/results.h"

using namespace Sornak::Internal::ZEL2;
using namespace Sornak::Internal::ZEL2::Bench;
using sc_core::SC_NS;
using sc_core::SC_PS;
using sc_core::sc_time;

namespace {

// A directory of its own for files a test writes.
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

// Runs zelsim with `args` in this process and returns its status, with what
// it wrote to standard error.
int RunBench(std::vector<std::string> args, std::string* err = nullptr, std::string* out = nullptr,
             RunResults* results = nullptr) {
  args.insert(args.begin(), "zelsim");
  std::vector<const char*> argv;
  for (const std::string& a : args) argv.push_back(a.c_str());
  ::testing::internal::CaptureStderr();
  if (out != nullptr) ::testing::internal::CaptureStdout();
  const int status = RunZelsim(static_cast<int>(argv.size()), argv.data(), results);
  if (out != nullptr) *out = ::testing::internal::GetCapturedStdout();
  const std::string captured = ::testing::internal::GetCapturedStderr();
  if (err != nullptr) *err = captured;
  return status;
}

// A refusal: status 2 and exactly one line on standard error that contains
// each of `words`.
void ExpectRefusal(const std::vector<std::string>& args, const std::vector<std::string>& words) {
  std::string err;
  EXPECT_EQ(RunBench(args, &err), 2);
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

}  // namespace

// ---- Strict keys and values ------------------------------------------------

TEST(ZelsimKeys, TableKnowsEveryKeyWithItsType) {
  EXPECT_EQ(KeyTable().size(), 141u);
  const std::map<std::string, KeyType> samples = {
      {"SIM_TIME", KeyType::Time},           {"NUM_QUADS", KeyType::Unsigned}, {"ALIGNED_32B", KeyType::Bool},
      {"TRACE_FILENAME_3", KeyType::String}, {"LINK_SPEED", KeyType::Float},   {"tRAS", KeyType::Time},
      {"WR_TO_RD_DIFF", KeyType::Time}};
  for (const auto& [name, type] : samples) {
    const KeyInfo* key = FindKey(name);
    ASSERT_NE(key, nullptr) << name;
    EXPECT_EQ(key->type, type) << name;
  }
  EXPECT_EQ(FindKey("num_quads"), nullptr);
  EXPECT_EQ(FindKey("TRAS"), nullptr);
}

TEST(ZelsimKeys, ValuesAreCheckedWhereTheLibraryWouldPassThemInSilence) {
  struct Case {
    const char* key;
    const char* text;
    const char* canonical;  // nullptr: refused
  };
  const Case cases[] = {
      {"NUM_QUADS", "007", "7"},
      {"NUM_QUADS", "12a", nullptr},
      {"NUM_QUADS", "-1", nullptr},
      {"NUM_QUADS", "4294967295", "4294967295"},
      {"NUM_QUADS", "4294967296", nullptr},
      {"NUM_QUADS", "", nullptr},
      {"NUM_QUADS", "0x10", nullptr},
      {"CORE_CLK", "1.6", "1.60000002"},
      {"CORE_CLK", "1600 ps", nullptr},
      {"CORE_CLK", "-1", nullptr},
      {"tRAS", "0", "0"},
      {"LINK_SPEED", "12.5", "12.5"},
      {"LINK_SPEED", "fast", nullptr},
      {"REFRESH_ENABLED", "True", "true"},
      {"REFRESH_ENABLED", "false", "false"},
      {"REFRESH_ENABLED", "TRUE", nullptr},
      {"REFRESH_ENABLED", "1", nullptr},
      {"STATS_FILENAME", "out.txt", "out.txt"},
      {"STATS_FILENAME", "my stats.txt", nullptr},
      {"STATS_FILENAME", "a=b", nullptr},
  };
  for (const Case& c : cases) {
    std::string canonical;
    std::string error;
    const bool ok = CheckValue(*FindKey(c.key), c.text, canonical, error);
    EXPECT_EQ(ok, c.canonical != nullptr) << c.key << "=" << c.text;
    if (ok) {
      EXPECT_EQ(canonical, c.canonical) << c.key;
    } else {
      EXPECT_NE(error.find(c.key), std::string::npos) << error;
    }
  }
}

TEST(ZelsimKeys, CanonicalTextsMeanTheSameToTheLibrary) {
  ConfigOverlay overlay;
  std::string error;
  for (const char* assignment : {"CORE_CLK=1.25", "LINK_SPEED=12.5", "REFRESH_ENABLED=True", "NUM_ROWS=0100",
                                 "STATS_FILENAME=s.txt", "tRAS=0"}) {
    ASSERT_TRUE(ApplyAssignment(assignment, overlay, error)) << error;
  }
  Config cfg;
  ApplyOverlay(overlay, cfg);
  EXPECT_EQ(cfg.CORE_CLK, sc_time(1250, SC_PS));
  EXPECT_EQ(cfg.LINK_SPEED, 12.5f);
  EXPECT_TRUE(cfg.REFRESH_ENABLED);
  EXPECT_EQ(cfg.NUM_ROWS, 100u);
  EXPECT_EQ(cfg.STATS_FILENAME, "s.txt");
  EXPECT_EQ(cfg.tRAS, sc_core::SC_ZERO_TIME);
  EXPECT_EQ(cfg.keyCounts["CORE_CLK"], 1u);
  EXPECT_EQ(cfg.keyCounts["NUM_QUADS"], 0u);
}

TEST(ZelsimKeys, FilesAreReadStrictly) {
  TempDir dir;
  ConfigOverlay overlay;
  std::string error;
  const std::string good = dir.Write("good.ini",
                                     "; a comment\n\n  NUM_REQUESTS = 50 ; trailing comment\r\n"
                                     "ALIGNED_32B=false\r\nNUM_REQUESTS = 60\n");
  ASSERT_TRUE(ReadConfigFile(good, Origin::ConfigOption, overlay, error)) << error;
  EXPECT_EQ(overlay["NUM_REQUESTS"].value, "60");    // the last line wins
  EXPECT_EQ(overlay["ALIGNED_32B"].value, "false");  // a DOS line end is no part of the value

  const struct {
    const char* text;
    std::vector<std::string> words;
  } bad[] = {
      {"NUM_QUADS = 4\nNUM_QUAD = 4\n", {"line 2", "unknown key 'NUM_QUAD'"}},
      {"num_quads = 4\n", {"unknown key 'num_quads'", "NUM_QUADS"}},
      {"NUM_QUADS = four\n", {"line 1", "NUM_QUADS", "'four'"}},
      {"[section]\n", {"line 1", "KEY = VALUE"}},
      {"= 5\n", {"no key"}},
  };
  for (const auto& b : bad) {
    const std::string path = dir.Write("bad.ini", b.text);
    ASSERT_FALSE(ReadConfigFile(path, Origin::ConfigOption, overlay, error)) << b.text;
    EXPECT_NE(error.find("bad.ini"), std::string::npos) << error;
    for (const std::string& word : b.words) EXPECT_NE(error.find(word), std::string::npos) << error;
  }
  EXPECT_FALSE(ReadConfigFile(dir.path + "/missing.ini", Origin::ConfigOption, overlay, error));
  EXPECT_EQ(error, "can't read configuration file '" + dir.path + "/missing.ini'");
}

TEST(ZelsimKeys, SourcesApplyInOrderOnTopOfTheEnvironmentFile) {
  TempDir dir;
  const std::string envFile = dir.Write("env.ini", "NUM_REQUESTS = 10\nNUM_GENERATORS = 3\nSIM_TIME = 500\n");
  const std::string file = dir.Write("cfg.ini", "NUM_REQUESTS = 20\nNUM_GENERATORS = 2\n");
  setenv("LIBZEL_CONFIG_FILE", envFile.c_str(), 1);
  Options options;
  options.sources = {{false, "NUM_GENERATORS=1"}, {true, file}, {false, "NUM_REQUESTS=30"}};
  ConfigOverlay overlay;
  std::string error;
  ASSERT_TRUE(ResolveConfiguration(options, overlay, error)) << error;
  unsetenv("LIBZEL_CONFIG_FILE");
  EXPECT_EQ(overlay["SIM_TIME"].value, "500");
  EXPECT_EQ(overlay["SIM_TIME"].origin, Origin::EnvironmentFile);
  EXPECT_EQ(overlay["NUM_GENERATORS"].value, "2");  // the file came after the --set
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
  const char* argv[] = {"zelsim",  "--config", "a.ini",        "--set",       "NUM_QUADS=2", "--seed=42",
                        "--json",  "r.json",   "--dump-state", "--cube-size", "2",           "--link-rate=50",
                        "--lanes", "8"};
  Options options;
  std::string error;
  ASSERT_EQ(ParseCommandLine(14, argv, options, error), ParseStatus::Run) << error;
  ASSERT_EQ(options.sources.size(), 2u);
  EXPECT_TRUE(options.sources[0].isFile);
  EXPECT_EQ(options.sources[1].text, "NUM_QUADS=2");
  EXPECT_EQ(options.seed, 42u);
  EXPECT_EQ(options.jsonFile, "r.json");
  EXPECT_TRUE(options.dumpState);
  EXPECT_EQ(options.cubeSize, 2);
  EXPECT_EQ(options.linkRate, 50u);
  EXPECT_EQ(options.lanes, 8u);
}

TEST(ZelsimCommandLine, HelpAndVersionEndAtOnce) {
  std::string out;
  EXPECT_EQ(RunBench({"--set", "NUM_QUADS=2", "--help"}, nullptr, &out), 0);
  EXPECT_EQ(out.rfind("Usage: zelsim", 0), 0u) << out;
  EXPECT_NE(out.find("--set KEY=VALUE"), std::string::npos);
  EXPECT_EQ(RunBench({"--version"}, nullptr, &out), 0);
  EXPECT_EQ(out.rfind("zelsim ", 0), 0u) << out;
  EXPECT_EQ(out.find('\n'), out.size() - 1);
}

TEST(ZelsimCommandLine, BadInputStopsWithStatus2AndOneLine) {
  TempDir dir;
  const std::string badFile = dir.Write("bad.ini", "NUM_QUADS = 4\nNUM_REQUESTS = lots\n");
  ExpectRefusal({"--set", "NO_SUCH_KEY=1"}, {"--set NO_SUCH_KEY=1", "unknown key 'NO_SUCH_KEY'"});
  ExpectRefusal({"--set", "NUM_REQUESTS=12a"}, {"NUM_REQUESTS", "'12a'"});
  ExpectRefusal({"--set", "NUM_REQUESTS"}, {"KEY=VALUE"});
  ExpectRefusal({"--config", dir.path + "/none.ini"}, {"can't read", "none.ini"});
  ExpectRefusal({"--config", badFile}, {"bad.ini", "line 2", "NUM_REQUESTS", "'lots'"});
  ExpectRefusal({"--frobnicate"}, {"unknown option '--frobnicate'"});
  ExpectRefusal({"extra"}, {"unexpected argument 'extra'"});
  ExpectRefusal({"--seed", "x"}, {"--seed"});
  ExpectRefusal({"--seed"}, {"--seed needs a value"});
  ExpectRefusal({"--link-rate", "45"}, {"--link-rate"});
  ExpectRefusal({"--cube-size", "3"}, {"--cube-size"});
  // Values that parse but that the bench can't run with.
  ExpectRefusal({"--set", "REQUEST_STREAM=3"}, {"REQUEST_STREAM"});
  ExpectRefusal({"--set", "HOST_MAPPING=7"}, {"HOST_MAPPING"});
  ExpectRefusal({"--set", "PERCENTAGE_RD_64B=0"}, {"PERCENTAGE_RD_16B"});
  ExpectRefusal({"--set", "NUM_LINKS=2"}, {"NUM_LINKS"});
  ExpectRefusal({"--set", "USE_TRACE=true", "--set", "TRACE_FILENAME_0=" + dir.path + "/no.trace"},
                {"no.trace", "TRACE_FILENAME_0"});
  ExpectRefusal({"--json", dir.path + "/no/such/dir.json"}, {"JSON", "dir.json"});
  setenv("LIBZEL_NUM_TOKENS", "290", 1);
  ExpectRefusal({}, {"LIBZEL_NUM_TOKENS"});
  unsetenv("LIBZEL_NUM_TOKENS");
  setenv("LIBZEL_CONFIG_FILE", badFile.c_str(), 1);
  ExpectRefusal({}, {"bad.ini", "LIBZEL_CONFIG_FILE", "NUM_REQUESTS"});
  unsetenv("LIBZEL_CONFIG_FILE");
}

TEST(ZelsimCommandLine, RefusalIsTheProcessExitStatus) {
  auto runAndExit = [] {
    const char* argv[] = {"zelsim", "--set", "FOO=1"};
    std::exit(RunZelsim(3, argv));
  };
  EXPECT_EXIT(runAndExit(), ::testing::ExitedWithCode(2), "^zelsim: --set FOO=1: unknown key 'FOO'\n$");
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
  const TrafficSettings s = DefaultTraffic();
  const auto a = Generate(s, 100, 7);
  const auto b = Generate(s, 100, 7);
  const auto c = Generate(s, 100, 8);
  const auto otherGenerator = Generate(s, 100, 7, 1);
  auto same = [](const std::vector<Request>& x, const std::vector<Request>& y) {
    for (std::size_t i = 0; i < x.size(); ++i) {
      if (x[i].address != y[i].address || x[i].command != y[i].command || x[i].length != y[i].length)
        return false;
    }
    return true;
  };
  EXPECT_TRUE(same(a, b));
  EXPECT_FALSE(same(a, c));
  EXPECT_FALSE(same(a, otherGenerator));
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
  TempDir dir;
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

  TrafficSettings s = DefaultTraffic();
  RequestGenerator generator(0, s, entries, 3);  // stops after 3 of the 4
  EXPECT_EQ(generator.NextCycle(), 0u);
  generator.Next(0);
  generator.Next(0);
  EXPECT_EQ(generator.NextCycle(), 7u);
  const Request third = generator.Next(7);
  EXPECT_EQ(third.command, P_ADD16);
  EXPECT_EQ(third.link, 0u);  // address 0x40 is in vault 0, quad 0
  EXPECT_TRUE(generator.Done());

  const struct {
    const char* text;
    const char* words;
  } bad[] = {{"0 RD 0x10\n", "size"},
             {"0 RD 0x10 24\n", "size"},
             {"0 XOR 0x10 16\n", "unknown command"},
             {"0 ADD16 0x10 32\n", "16"},
             {"x RD 0 16\n", "cycle"},
             {"0 RD 0xg 16\n", "address"},
             {"5 RD 0 16\n4 RD 0 16\n", "line 2: cycles must not decrease"}};
  for (const auto& b : bad) {
    ASSERT_FALSE(ReadTrace(dir.Write("bad.trace", b.text), entries, error)) << b.text;
    EXPECT_NE(error.find(b.words), std::string::npos) << error;
    EXPECT_NE(error.find("bad.trace"), std::string::npos) << error;
  }
}

// ---- Host arithmetic and reports ----------------------------------------------

TEST(ZelsimHost, PacketShapes) {
  EXPECT_EQ(RequestFlitCount(RD, 128, 16), 1u);
  EXPECT_EQ(RequestFlitCount(WR, 64, 16), 5u);
  EXPECT_EQ(RequestFlitCount(P_WR, 16, 16), 2u);
  EXPECT_EQ(RequestFlitCount(DADD8, 16, 16), 2u);
  EXPECT_EQ(ResponseFlitCount(RD, 128, 16), 9u);
  EXPECT_EQ(ResponseFlitCount(WR, 128, 16), 1u);
  EXPECT_EQ(ResponseFlitCount(ADD16, 16, 16), 1u);
  EXPECT_EQ(ResponseFlitCount(P_BWR, 16, 16), 0u);

  Request write;
  write.command = WR;
  write.address = 0x1230;
  write.length = 32;
  const std::vector<Flit*> flits = BuildRequestFlits(write, 77, 16, sc_time(5, SC_NS));
  ASSERT_EQ(flits.size(), 3u);
  for (unsigned i = 0; i < 3; ++i) {
    EXPECT_EQ(flits[i]->tag, 77u);
    EXPECT_EQ(flits[i]->flitNumber, i + 1);
    EXPECT_EQ(flits[i]->header, i == 0);
    EXPECT_EQ(flits[i]->tail, i == 2);
    EXPECT_EQ(flits[i]->requestLength, 32u);
    EXPECT_EQ(flits[i]->address, 0x1230u);
    EXPECT_EQ(flits[i]->returnTokens, 0u);
    EXPECT_FALSE(flits[i]->consumed);
    EXPECT_EQ(flits[i]->timeStamps[0], sc_time(5, SC_NS));
    delete flits[i];
  }
}

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

namespace {

// Checks what every clean run must show: all traffic back, each non-posted
// request answered once, every request token returned by the cube.
void ExpectCleanRun(const RunResults& r, unsigned tokensPerLink = 100) {
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
}

}  // namespace

TEST(ZelsimRun, DefaultMixDrainsWithEveryResponseMatched) {
  TempDir dir;
  RunResults r;
  std::string err;
  const int status =
      RunBench({"--set", "NUM_REQUESTS=150", "--set", "SIM_TIME=50000", "--json", dir.path + "/r.json"}, &err,
               nullptr, &r);
  EXPECT_EQ(status, 0) << err;
  ExpectCleanRun(r);
  EXPECT_EQ(r.Total().issued, 600u);
  EXPECT_GT(r.Total().reads, 0u);
  EXPECT_GT(r.Total().writes, 0u);
  EXPECT_GT(r.Total().latency.minNs, 0);
  EXPECT_LT(r.endTimeNs, 50000);
  std::ifstream json(dir.path + "/r.json");
  std::stringstream text;
  text << json.rdbuf();
  EXPECT_NE(text.str().find("\"completed\": " + std::to_string(r.Total().completed)), std::string::npos);
}

// Every request kind and size, posted writes, unaligned addresses, traffic
// between quads, a small response budget, few tags and short queues.
TEST(ZelsimRun, EveryKindAcrossQuadsUnderTightFlowControl) {
  std::vector<std::string> args = {"--seed", "5"};
  for (const char* set :
       {"NUM_REQUESTS=120", "SIM_TIME=80000", "USE_ATOMICS=1", "ATOMICS_PERCENTAGE=25", "POSTED_WRITES=true",
        "ALIGNED_32B=false", "REQUEST_STREAM=1", "HOST_MAPPING=1", "REQUEST_SPACING=2", "TAGS_PER_LINK=6",
        "REQUEST_BUFFER_SIZE=3", "BFM_TOKENS_PER_LINK=12", "TOKENS_PER_LINK=40", "PERCENTAGE_RD_16B=1",
        "PERCENTAGE_RD_48B=1", "PERCENTAGE_RD_128B=1", "PERCENTAGE_WR_32B=1", "PERCENTAGE_WR_112B=1",
        "PERCENTAGE_WR_128B=1"}) {
    args.push_back("--set");
    args.push_back(set);
  }
  RunResults r;
  std::string err;
  EXPECT_EQ(RunBench(args, &err, nullptr, &r), 0) << err;
  ExpectCleanRun(r, 40);
  const LinkResults total = r.Total();
  EXPECT_EQ(total.issued, 480u);
  EXPECT_GT(total.atomics, 60u);
  EXPECT_GT(total.posted, total.atomics / 2);  // posted writes and posted atomics
  EXPECT_GT(total.tokenReturnsSent, 0u);
}

// One flit per core cycle: a host that sent at the default rate would stop
// the link on its rate check.
TEST(ZelsimRun, SlowLinksAreNotOverrun) {
  RunResults r;
  std::string err;
  EXPECT_EQ(RunBench({"--link-rate", "40", "--lanes", "8", "--cube-size", "1", "--set", "NUM_REQUESTS=60",
                      "--set", "PERCENTAGE_READ=20", "--set", "SIM_TIME=50000"},
                     &err, nullptr, &r),
            0)
      << err;
  ExpectCleanRun(r);
  EXPECT_EQ(r.Total().issued, 240u);
}

TEST(ZelsimRun, TracesAreReplayed) {
  TempDir dir;
  const std::string first = dir.Write("g0.trace",
                                      "0 RD 0x0 64\n0 WR 0x80 128\n3 P_WR 0x100 16\n3 DADD8 0x2000\n"
                                      "20 RD 0x12340 128\n");
  const std::string second = dir.Write("g1.trace", "; nothing but one read\n10 RD 0x40000 32\n");
  RunResults r;
  std::string err;
  EXPECT_EQ(
      RunBench({"--set", "USE_TRACE=true", "--set", "NUM_GENERATORS=2", "--set", "TRACE_FILENAME_0=" + first,
                "--set", "TRACE_FILENAME_1=" + second, "--set", "SIM_TIME=20000"},
               &err, nullptr, &r),
      0)
      << err;
  ExpectCleanRun(r);
  ASSERT_EQ(r.generators.size(), 2u);
  EXPECT_EQ(r.generators[0].issued, 5u);
  EXPECT_EQ(r.generators[1].issued, 1u);
  const LinkResults total = r.Total();
  EXPECT_EQ(total.posted, 1u);
  EXPECT_EQ(total.bytesRead, 64u + 128u + 32u);
}

// ---- What the cube can carry -----------------------------------------------------

namespace {

// The configuration a list of KEY=VALUE assignments gives.
Config ConfigWith(const std::vector<std::string>& sets) {
  ConfigOverlay overlay;
  std::string error;
  for (const std::string& set : sets) EXPECT_TRUE(ApplyAssignment(set, overlay, error)) << error;
  Config cfg;
  ApplyOverlay(overlay, cfg);
  return cfg;
}

// The numbers of one field of zelsim's JSON, in order: the links', then the
// total's.
std::vector<double> JsonNumbers(const std::string& json, const std::string& field) {
  std::vector<double> values;
  const std::string key = "\"" + field + "\": ";
  for (std::size_t at = json.find(key); at != std::string::npos; at = json.find(key, at + 1))
    values.push_back(std::stod(json.substr(at + key.size())));
  return values;
}

const std::vector<std::string> kLargest = {"PERCENTAGE_RD_128B=1", "PERCENTAGE_WR_128B=1"};

std::vector<std::string> Plus(std::vector<std::string> sets, const std::vector<std::string>& more) {
  sets.insert(sets.end(), more.begin(), more.end());
  return sets;
}

}  // namespace

// Each limit at its boundary: the configuration at the limit passes, one
// step beyond it is refused with a message that names the key. The limits
// follow the traffic: the defaults make 64-byte requests, kLargest adds
// 128-byte ones.
TEST(ZelsimLimits, EachLimitAcceptsItsBoundaryAndRefusesOneStepBeyond) {
  struct Case {
    std::vector<std::string> good;
    std::vector<std::string> bad;
    const char* key;  // named by the refusal
  };
  const Case cases[] = {
      {{"LINK_MASTER_BUFFER_SIZE=12"}, {"LINK_MASTER_BUFFER_SIZE=11"}, "LINK_MASTER_BUFFER_SIZE"},
      {Plus(kLargest, {"LINK_MASTER_BUFFER_SIZE=16"}), Plus(kLargest, {"LINK_MASTER_BUFFER_SIZE=15"}),
       "LINK_MASTER_BUFFER_SIZE"},
      {{"VSW_INTERQUAD_BUFFER_SIZE=11"}, {"VSW_INTERQUAD_BUFFER_SIZE=10"}, "VSW_INTERQUAD_BUFFER_SIZE"},
      {Plus(kLargest, {"TOKENS_PER_LINK=9"}), Plus(kLargest, {"TOKENS_PER_LINK=8"}), "TOKENS_PER_LINK"},
      // Without BFM_TOKENS_PER_LINK the host grants TOKENS_PER_LINK.
      {{"TOKENS_PER_LINK=5"}, {"TOKENS_PER_LINK=4"}, "TOKENS_PER_LINK"},
      {{"PERCENTAGE_RD_128B=1", "TOKENS_PER_LINK=9"},
       {"PERCENTAGE_RD_128B=1", "TOKENS_PER_LINK=8"},
       "BFM_TOKENS_PER_LINK"},
      {{"PERCENTAGE_RD_128B=1", "TOKENS_PER_LINK=8", "RESPONSE_OPEN_LOOP=true"},
       {"PERCENTAGE_RD_128B=1", "TOKENS_PER_LINK=8"},
       "BFM_TOKENS_PER_LINK"},
      {{"MAX_TOKEN_RETURN=1"}, {"MAX_TOKEN_RETURN=0"}, "MAX_TOKEN_RETURN"},
      {Plus(kLargest, {"DATA_Q_CAPACITY=10"}), Plus(kLargest, {"DATA_Q_CAPACITY=9"}), "DATA_Q_CAPACITY"},
      {{"PERCENTAGE_WR_64B=0", "PERCENTAGE_WR_16B=1", "DATA_Q_CAPACITY=3"},
       {"PERCENTAGE_WR_64B=0", "PERCENTAGE_WR_16B=1", "DATA_Q_CAPACITY=2"},
       "DATA_Q_CAPACITY"},
      {Plus(kLargest, {"CREDITS_FOR_PROCESSING=9"}), Plus(kLargest, {"CREDITS_FOR_PROCESSING=8"}),
       "CREDITS_FOR_PROCESSING"},
      {{"CREDITS_FOR_PROCESSING=59", "VSW_RESPONSE_BUFFER_SIZE=61"},
       {"CREDITS_FOR_PROCESSING=62", "VSW_RESPONSE_BUFFER_SIZE=61"},
       "CREDITS_FOR_PROCESSING"},
      // Three flits of a vault move per cycle, two credits go back: a
      // 9-flit response may leave 3 credits behind, a 5-flit one 2.
      {Plus(kLargest, {"VSW_RESPONSE_BUFFER_SIZE=12"}), Plus(kLargest, {"VSW_RESPONSE_BUFFER_SIZE=11"}),
       "VSW_RESPONSE_BUFFER_SIZE"},
      {{"VSW_RESPONSE_BUFFER_SIZE=11"}, {"VSW_RESPONSE_BUFFER_SIZE=10"}, "VSW_RESPONSE_BUFFER_SIZE"},
      {{"FLITS_PER_CYCLE_VSW=2", "VSW_RESPONSE_BUFFER_SIZE=9"},
       {"FLITS_PER_CYCLE_VSW=3", "VSW_RESPONSE_BUFFER_SIZE=9"},
       "VSW_RESPONSE_BUFFER_SIZE"},
      {{"TRANSACTION_Q_CAPACITY=1"}, {"TRANSACTION_Q_CAPACITY=0"}, "TRANSACTION_Q_CAPACITY"},
      {{"REQUEST_Q_CAPACITY=1"}, {"REQUEST_Q_CAPACITY=0"}, "REQUEST_Q_CAPACITY"},
      {{"WRITE_CREDITS_PER_CYCLE=1"}, {"WRITE_CREDITS_PER_CYCLE=0"}, "WRITE_CREDITS_PER_CYCLE"},
      {{"LSW_INTERQUAD_BUFFER_SIZE=1"}, {"LSW_INTERQUAD_BUFFER_SIZE=0"}, "LSW_INTERQUAD_BUFFER_SIZE"},
      {{"SMOOTHING_BUFFER_LM_SIZE=1"}, {"SMOOTHING_BUFFER_LM_SIZE=0"}, "SMOOTHING_BUFFER_LM_SIZE"},
      {{"SMOOTHING_BUFFER_Q_SIZE=1"}, {"SMOOTHING_BUFFER_Q_SIZE=0"}, "SMOOTHING_BUFFER_Q_SIZE"},
      {{"FLITS_OUT_PER_CYCLE_VC=2"}, {"FLITS_OUT_PER_CYCLE_VC=1"}, "FLITS_OUT_PER_CYCLE_VC"},
      {{"FLITS_IN_PER_CYCLE_VC=1"}, {"FLITS_IN_PER_CYCLE_VC=0"}, "FLITS_IN_PER_CYCLE_VC"},
      {{"MAX_REQUEST_SIZE=64"}, {"MAX_REQUEST_SIZE=63"}, "MAX_REQUEST_SIZE"},
      {Plus(kLargest, {"MAX_REQUEST_SIZE=128"}), Plus(kLargest, {"MAX_REQUEST_SIZE=127"}),
       "MAX_REQUEST_SIZE"},
      // Two beats per column access, one response flit per beat.
      {{"PERCENTAGE_RD_64B=0", "PERCENTAGE_RD_128B=1", "COLUMN_ACCESS_LENGTH=40"},
       {"PERCENTAGE_RD_64B=0", "PERCENTAGE_RD_112B=1", "COLUMN_ACCESS_LENGTH=40"},
       "COLUMN_ACCESS_LENGTH"},
      {{"COLUMN_ACCESS_LENGTH=1"}, {"COLUMN_ACCESS_LENGTH=0"}, "COLUMN_ACCESS_LENGTH"},
      {{"tCMD=0.4"}, {"tCMD=0.5"}, "tCMD"},
      {{"tCMD=0.8"}, {"tCMD=1.6"}, "tCMD"},
      {{"FLIT_SIZE=16"}, {"FLIT_SIZE=32"}, "FLIT_SIZE"},
      {{"FLITS_PER_CYCLE_LSW=1"}, {"FLITS_PER_CYCLE_LSW=2"}, "FLITS_PER_CYCLE_LSW"},
      {{"FLITS_PER_CYCLE_LINK=4", "FLITS_PER_CYCLE_LSW=4"},
       {"FLITS_PER_CYCLE_LINK=4", "FLITS_PER_CYCLE_LSW=5"},
       "FLITS_PER_CYCLE_LSW"},
      // 20 lanes at 15 Gb/s carry 4 flits per core cycle, 16 lanes 3.
      {{"LINK_2_WIDTH=16"}, {"LINK_2_WIDTH=20"}, "LINK_2_WIDTH"},
      {{"LINK_SPEED=15"}, {"LINK_SPEED=0"}, "LINK_SPEED"},
      {{"NUM_VAULTS=16"}, {"NUM_VAULTS=8"}, "NUM_VAULTS"},
      {{"VAULTS_PER_QUAD=2", "NUM_VAULTS=8"}, {"VAULTS_PER_QUAD=8", "NUM_VAULTS=32"}, "VAULTS_PER_QUAD"},
      {{"NUM_QUADS=4", "NUM_LINKS=4"}, {"NUM_QUADS=2", "NUM_LINKS=2", "NUM_VAULTS=8"}, "NUM_QUADS"},
      // Traces can hold every size.
      {{"USE_TRACE=true", "LINK_MASTER_BUFFER_SIZE=16"},
       {"USE_TRACE=true", "LINK_MASTER_BUFFER_SIZE=15"},
       "LINK_MASTER_BUFFER_SIZE"},
  };
  std::string error;
  EXPECT_TRUE(CheckBenchSettings(Config(), HostSetup(), error)) << error;
  for (const Case& c : cases) {
    EXPECT_TRUE(CheckBenchSettings(ConfigWith(c.good), HostSetup(), error)) << c.key << ": " << error;
    ASSERT_FALSE(CheckBenchSettings(ConfigWith(c.bad), HostSetup(), error)) << c.key;
    EXPECT_EQ(error.rfind(std::string("key ") + c.key + ":", 0), 0u) << error;
    EXPECT_FALSE(CheckBenchSettings(ConfigWith(c.bad), HostSetup(), error, true));
    EXPECT_TRUE(CheckBenchSettings(ConfigWith(c.bad), HostSetup(), error, false)) << error;
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

TEST(ZelsimLimits, RefusalsEndWithStatus2BeforeTheCubeIsBuilt) {
  // The deadlock of a link master that can't hold a whole response and the
  // vault switch's reserve.
  ExpectRefusal({"--set", "LINK_MASTER_BUFFER_SIZE=9", "--set", "HOST_MAPPING=1", "--set", "SIM_TIME=3000"},
                {"key LINK_MASTER_BUFFER_SIZE: 9 is below 12", "whole packets"});
  ExpectRefusal({"--lanes", "32"},
                {"LINK_0_WIDTH", "--lanes", "6 flits per core cycle", "FLITS_PER_CYCLE_LINK"});
  setenv("ZEL_BFM_NUM_TOKENS", "8", 1);
  ExpectRefusal({"--set", "PERCENTAGE_RD_128B=1"}, {"BFM_TOKENS_PER_LINK", "ZEL_BFM_NUM_TOKENS", "9 flits"});
  unsetenv("ZEL_BFM_NUM_TOKENS");
  ExpectRefusal({"--deadlock-timeout", "soon"}, {"--deadlock-timeout", "'soon'"});
  ExpectRefusal({"--deadlock-timeout", "1000000000001"}, {"--deadlock-timeout"});

  const char* argv[] = {"zelsim", "--deadlock-timeout=0", "--no-config-guards"};
  Options options;
  std::string error;
  ASSERT_EQ(ParseCommandLine(3, argv, options, error), ParseStatus::Run) << error;
  EXPECT_EQ(options.deadlockTimeoutNs, 0u);
  EXPECT_FALSE(options.configGuards);
  std::string out;
  EXPECT_EQ(RunBench({"--help"}, nullptr, &out), kExitClean);
  EXPECT_NE(out.find("--deadlock-timeout NS"), std::string::npos);
  EXPECT_NE(out.find("  3  the model stopped the run"), std::string::npos) << out;
  EXPECT_NE(out.find("  4  deadlock"), std::string::npos) << out;
  EXPECT_EQ(out.find("--no-config-guards"), std::string::npos);  // for tests only
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
  EXPECT_EQ(RunBench({"--no-config-guards", "--set", "REQUEST_Q_CAPACITY=0", "--set", "SIM_TIME=0",
                      "--deadlock-timeout", "500"},
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
  EXPECT_EQ(RunBench({"--no-config-guards", "--check-rest", "--set", "LINK_MASTER_BUFFER_SIZE=9", "--set",
                      "HOST_MAPPING=1", "--set", "SIM_TIME=3000", "--deadlock-timeout", "2000"},
                     &err, &out),
            kExitDeadlock);
  EXPECT_NE(err.find("zelsim: deadlock: no flit moved for 2000 ns"), std::string::npos) << err;
  EXPECT_EQ(out.find("rest state OK"), std::string::npos);
}

// Long quiet spells with nothing outstanding are no deadlock.
TEST(ZelsimEnds, TheWatchdogSleepsWhileNothingIsOutstanding) {
  RunResults r;
  std::string err;
  EXPECT_EQ(RunBench({"--set", "NUM_REQUESTS=3", "--set", "NUM_GENERATORS=1", "--set", "REQUEST_SPACING=2000",
                      "--set", "SIM_TIME=0", "--deadlock-timeout", "1000"},
                     &err, nullptr, &r),
            kExitClean)
      << err;
  EXPECT_TRUE(r.drained);
  EXPECT_GT(r.endTimeNs, 2 * 2000 * 1.6);
}

// Small configurations end to end, judged from the JSON alone: every
// non-posted request completed, and neither direction of any link carried
// more flits than its rate allows. The links are slowed to one flit per
// core cycle (10 Gb/s, 8 lanes), so that the traffic fills them.
TEST(ZelsimRun, JsonShowsEveryRequestCompletedWithinTheLinkRate) {
  TempDir dir;
  const std::string json = dir.path + "/r.json";
  std::string err;
  EXPECT_EQ(RunBench({"--link-rate", "40",
                      "--lanes",     "8",
                      "--json",      json,
                      "--set",       "NUM_REQUESTS=100",
                      "--set",       "SIM_TIME=0",
                      "--set",       "POSTED_WRITES=true",
                      "--set",       "USE_ATOMICS=1",
                      "--set",       "ATOMICS_PERCENTAGE=20",
                      "--set",       "PERCENTAGE_READ=60",
                      "--set",       "PERCENTAGE_RD_128B=100"},
                     &err),
            kExitClean)
      << err;
  std::ifstream file(json);
  std::stringstream read;
  read << file.rdbuf();
  const std::string text = read.str();
  const std::vector<double> issued = JsonNumbers(text, "issued");
  const std::vector<double> posted = JsonNumbers(text, "posted");
  const std::vector<double> completed = JsonNumbers(text, "completed");
  const std::vector<double> requestFlits = JsonNumbers(text, "request_flits");
  const std::vector<double> responseFlits = JsonNumbers(text, "response_flits");
  const std::vector<double> end = JsonNumbers(text, "end_time_ns");
  ASSERT_EQ(completed.size(), 5u);  // four links and the total
  ASSERT_EQ(end.size(), 1u);
  EXPECT_EQ(issued[4], 400);
  EXPECT_GT(posted[4], 40);
  const double cycles = end[0] / 1.6;
  for (std::size_t link = 0; link < 5; ++link) {
    EXPECT_EQ(completed[link], issued[link] - posted[link]) << "link " << link;
    if (link == 4) break;
    EXPECT_GT(requestFlits[link], 0);
    // One flit per 1.6 ns each way.
    EXPECT_LE(requestFlits[link], cycles + 1) << "link " << link;
    EXPECT_LE(responseFlits[link], cycles + 1) << "link " << link;
    EXPECT_GT(requestFlits[link] + responseFlits[link], cycles / 2) << "the link was not busy";
  }
}
