// SPDX-License-Identifier: Apache-2.0
// The zelsim test bench: strict configuration and command line, request
// generation, the host's flit arithmetic and reports (all without a kernel),
// the limits of the cube, and whole runs with their exit statuses.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "apps/zelsim/bench.h"
#include "apps/zelsim/options.h"
#include "apps/zelsim/results.h"
#include "host/generator.h"
#include "host/legal_host.h"
#include "host/timeline.h"
#include "test_support.h"

using namespace Sornak::Internal::ZEL2;
using namespace Sornak::Internal::ZEL2::Bench;

namespace {

// Runs zelsim in this process; standard error goes to `err` or out of the log.
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

std::vector<Request> Generate(const TrafficSettings& settings, unsigned count, uint64_t seed = 1,
                              unsigned id = 0) {
  RequestGenerator generator(id, settings, seed, count);
  std::vector<Request> requests;
  while (!generator.Done()) requests.push_back(generator.Next(0));
  return requests;
}

TrafficSettings DefaultTraffic() { return TrafficSettings::FromConfig(Config(), 4); }

Config ConfigWith(const std::vector<std::string>& sets) {
  ConfigOverlay overlay;
  std::string error;
  for (const std::string& set : sets) EXPECT_TRUE(ApplyAssignment(set, overlay, error)) << error;
  Config cfg;
  ApplyOverlay(overlay, cfg);
  return cfg;
}

// Runs zelsim, expects `status`, and checks what the host guarantees of a
// run that ends: all traffic back, each non-posted request answered once,
// every request token returned by the cube.
RunResults RunClean(const std::vector<std::string>& args, int status = kExitClean, std::string* err = nullptr,
                    std::string* out = nullptr) {
  RunResults r;
  std::string text;
  EXPECT_EQ(RunBench(args, &text, out, &r), status) << text;
  if (err != nullptr) *err = text;
  EXPECT_TRUE(r.drained);
  const LinkResults total = r.Total();
  EXPECT_EQ(total.mismatches + total.outstanding, 0u);
  EXPECT_EQ(total.completed + total.posted, total.issued);
  EXPECT_EQ(total.Latency().Count(), total.completed);
  for (const LinkResults& link : r.links) EXPECT_EQ(link.requestTokensHeld, 100u) << "link " << link.link;
  for (const GeneratorResults& g : r.generators) EXPECT_TRUE(g.done && g.issued == g.generated);
  return r;
}

}  // namespace

// ---- Configuration and command line --------------------------------------------

// Every key is known; accepted values reach the library meaning what they
// meant to zelsim; sources apply in their order after the environment's file;
// the token variables reach the ends of their ranges (0: the cube's own count).
TEST(ZelsimConfig, ValuesAndSourcesKeepTheirMeaningAndOrder) {
  const Config defaults;
  EXPECT_EQ(KeyTable().size(), defaults.keyCounts.size());
  for (const KeyInfo& key : KeyTable()) EXPECT_EQ(defaults.keyCounts.count(key.name), 1u) << key.name;
  std::ostringstream printed;
  ConfigWith({"CORE_CLK=1.6", "LINK_SPEED=12.5", "REFRESH_ENABLED=True", "DUMP_STATE=false", "NUM_ROWS=0100",
              "TAGS_PER_LINK=4294967295", "STATS_FILENAME=s.txt", "tRAS=0"})
      .print(printed, true);
  EXPECT_EQ(printed.str(),
            "[*] [bool]: 'DUMP_STATE'=0\n[*] [string]: 'STATS_FILENAME'=s.txt\n"
            "[*] [unsigned]: 'TAGS_PER_LINK'=4294967295\n[*] [sc_time]: 'CORE_CLK'=1600 ps\n"
            "[*] [float]: 'LINK_SPEED'=12.5\n[*] [bool]: 'REFRESH_ENABLED'=1\n"
            "[*] [unsigned]: 'NUM_ROWS'=100\n[*] [sc_time]: 'tRAS'=0 s\n");

  zelsim_test::TempDir dir;
  const std::string envFile = dir.Write("env.ini", "NUM_REQUESTS = 10\nNUM_GENERATORS = 3\nSIM_TIME = 500\n");
  const std::string file = dir.Write("cfg.ini",
                                     "; a comment\n\n  NUM_GENERATORS = 5 ; trailing comment\r\n"
                                     "ALIGNED_32B=false\r\nNUM_REQUESTS = 20\nNUM_GENERATORS = 2\n");
  setenv("LIBZEL_CONFIG_FILE", envFile.c_str(), 1);
  setenv("LIBZEL_NUM_TOKENS", "289", 1);
  setenv("ZEL_BFM_NUM_TOKENS", "0", 1);
  Options options;
  options.sources = {{false, "NUM_GENERATORS=1"}, {true, file}, {false, "NUM_REQUESTS=30"}};
  ConfigOverlay overlay;
  std::string error;
  EXPECT_TRUE(ResolveConfiguration(options, overlay, error)) << error;
  EXPECT_TRUE(CheckTokenVariables(error)) << error;
  zelsim_test::ClearModelEnvironment();
  EXPECT_EQ(overlay["SIM_TIME"].value, "500");
  EXPECT_EQ(overlay["SIM_TIME"].origin, Origin::EnvironmentFile);
  EXPECT_EQ(overlay["NUM_GENERATORS"].value, "2");   // the file's last line, after the --set
  EXPECT_EQ(overlay["ALIGNED_32B"].value, "false");  // no DOS line end in the value
  EXPECT_EQ(overlay["NUM_REQUESTS"].value, "30");
  EXPECT_EQ(overlay["NUM_REQUESTS"].origin, Origin::SetOption);
}

// --help and --version end at once, before any check. Repeated options:
// --config and --set keep their order among each other, the last of a
// single-valued option wins, and corrections come in their listed order,
// each once.
TEST(ZelsimCommandLine, HelpVersionAndRepeatedOptions) {
  std::string out;
  EXPECT_EQ(RunBench({"--set", "NUM_QUADS=2", "--help"}, nullptr, &out), kExitClean);
  EXPECT_NE(out.find("\nUsage: zelsim [OPTIONS]\n"), std::string::npos) << out;
  EXPECT_NE(out.find("\n  --timeline FILE "), std::string::npos) << out;
  EXPECT_EQ(out.find("--no-config-guards"), std::string::npos);  // for tests only
  EXPECT_EQ(RunBench({"--version"}, nullptr, &out), kExitClean);
  EXPECT_EQ(out.rfind("zelsim ", 0), 0u) << out;
  EXPECT_EQ(out.find('\n'), out.size() - 1);

  const char* argv[] = {"zelsim",     "--set",          "A=1",
                        "--config",   "f.ini",          "--set=B=2",
                        "--correct",  "bank-ownership", "--correct=all",
                        "--progress", "--no-progress",  "--seed",
                        "5",          "--seed=6",       "--no-config-guards"};
  Options options;
  std::string error;
  ASSERT_EQ(ParseCommandLine(sizeof argv / sizeof argv[0], argv, options, error), ParseStatus::Run) << error;
  ASSERT_EQ(options.sources.size(), 3u);
  EXPECT_EQ(std::make_tuple(options.sources[0].isFile, options.sources[0].text),
            std::make_tuple(false, "A=1"));
  EXPECT_EQ(std::make_tuple(options.sources[1].isFile, options.sources[1].text),
            std::make_tuple(true, "f.ini"));
  EXPECT_EQ(options.sources[2].text, "B=2");
  EXPECT_EQ(options.corrections, CorrectionNames());
  EXPECT_EQ(options.progress, ProgressMode::Off);
  EXPECT_EQ(options.seed, 6u);
  EXPECT_FALSE(options.configGuards);
}

// Bad input, values the bench can't run with, and configurations the cube
// can't carry (as the token variables and the host's setters leave them)
// stop zelsim before it builds the cube: status 2, one line on standard error.
TEST(ZelsimCommandLine, BadInputStopsWithStatus2AndOneLine) {
  zelsim_test::TempDir dir;
  const std::string badFile = dir.Write("bad.ini", "NUM_QUADS = 4\nCORE_CLK = 1600 ps\n");
  struct Case {
    std::vector<std::string> args;
    std::vector<std::string> words;
    std::pair<const char*, std::string> variable = {};  // set for the run
  };
  const Case cases[] = {
      {{"--set", "NUM_QUAD=2"}, {"zelsim: --set NUM_QUAD=2: unknown key 'NUM_QUAD'\n"}},
      {{"--set", "NUM_REQUESTS"}, {"KEY=VALUE"}},
      {{"--set", "CORE_CLK=1e30"}, {"CORE_CLK", "up to 10^12"}},
      {{"--config", dir.path + "/none.ini"}, {"can't read configuration file '" + dir.path + "/none.ini'\n"}},
      {{"--config", badFile},
       {"bad.ini' line 2: bad value '1600 ps' for key CORE_CLK: "
        "expected a number of nanoseconds up to 10^12, without a unit\n"}},
      {{}, {"bad.ini' (LIBZEL_CONFIG_FILE) line 2", "CORE_CLK"}, {"LIBZEL_CONFIG_FILE", badFile}},
      {{"--config", dir.Write("k1.ini", "NUM_QUAD = 4\n")}, {"k1.ini", "line 1", "unknown key 'NUM_QUAD'"}},
      {{"--config", dir.Write("k2.ini", "num_quads = 4\n")}, {"unknown key 'num_quads'", "NUM_QUADS"}},
      {{"--config", dir.Write("k3.ini", "\n[section]\n")}, {"k3.ini", "line 2", "KEY = VALUE"}},
      {{"--config", dir.Write("k4.ini", "= 5\n")}, {"k4.ini", "no key"}},
      {{"--frobnicate"}, {"unknown option '--frobnicate'"}},
      {{"extra"}, {"unexpected argument 'extra'"}},
      {{"--seed"}, {"--seed", "missing"}},
      {{"--dump-state=yes"}, {"dump-state"}},
      {{"--seed", "x"}, {"--seed: bad value 'x'"}},
      {{"--seed", "0x10"}, {"--seed: bad value '0x10'"}},
      {{"--interval", "0"}, {"--interval: bad value '0'"}},
      {{"--correct", "all", "--correct", "smoothing"}, {"--correct", "unknown correction 'smoothing'"}},
      {{"--json", ""}, {"--json", "file name"}},
      {{"--report", dir.path + "/no/such/report.txt"}, {"can't write report file", "report.txt"}},
      {{"--timeline", dir.path + "/no/such/t.csv"}, {"can't write timeline file", "t.csv"}},
      {{"--vcd", dir.path + "/no/such/t.vcd"}, {"can't write VCD file", "t.vcd"}},
      {{"--responses", dir.path + "/no/such/r.txt"}, {"can't write responses file", "r.txt"}},
      {{"--link-rate", "45"}, {"--link-rate"}},
      {{"--cube-size", "3"}, {"--cube-size"}},
      {{"--deadlock-timeout", "1000000000001"}, {"--deadlock-timeout"}},
      {{"--token-return-wait", "x"}, {"--token-return-wait"}},
      {{"--lanes", "8", "--set", "LINK_SPEED=11"}, {"--lanes needs --link-rate"}},
      {{"--json", dir.path + "/no/such/dir.json"}, {"JSON", "dir.json"}},
      {{}, {"LIBZEL_NUM_TOKENS='290' is not a token count from 1 to 289"}, {"LIBZEL_NUM_TOKENS", "290"}},
      {{}, {"LIBZEL_NUM_TOKENS='0'"}, {"LIBZEL_NUM_TOKENS", "0"}},
      {{}, {"ZEL_BFM_NUM_TOKENS='300' is not a token count from 0 to 289"}, {"ZEL_BFM_NUM_TOKENS", "300"}},
      {{"--set", "REQUEST_STREAM=3"}, {"key REQUEST_STREAM"}},
      {{"--set", "HOST_MAPPING=7"}, {"key HOST_MAPPING"}},
      {{"--set", "ATOMICS_PERCENTAGE=101"}, {"key ATOMICS_PERCENTAGE: above 100"}},
      {{"--set", "PERCENTAGE_RD_64B=0"}, {"PERCENTAGE_RD_16B", "asks for reads"}},
      {{"--set", "NUM_LINKS=2"}, {"key NUM_LINKS"}},
      {Args({}, {"NUM_QUADS=5", "NUM_LINKS=5"}), {"key NUM_LINKS: 5 is not a link count from 1 to 4"}},
      {{"--set", "LINK_1_WIDTH=0"}, {"key LINK_1_WIDTH: a link needs lanes"}},
      {{"--set", "NUM_VAULTS=12"}, {"key NUM_VAULTS: 12 is not a power of 2"}},
      {{"--set", "TAGS_PER_LINK=65537"}, {"key TAGS_PER_LINK"}},
      {{"--set", "REQUEST_BUFFER_SIZE=0"}, {"key REQUEST_BUFFER_SIZE"}},
      {{"--set", "TOKENS_PER_LINK=0"}, {"key TOKENS_PER_LINK"}},
      {Args({}, {"USE_TRACE=true", "NUM_GENERATORS=5"}), {"key NUM_GENERATORS", "traces exist for 4"}},
      {Args({}, {"USE_TRACE=true", "TRACE_FILENAME_0=" + dir.path + "/no.trace"}),
       {"no.trace", "TRACE_FILENAME_0"}},
      {Args({}, {"LINK_MASTER_BUFFER_SIZE=9"}),
       {"zelsim: key LINK_MASTER_BUFFER_SIZE: 9 is below 12: a link master sends only whole packets, and the "
        "vault switch holds back from it at 7 free places or fewer, so it needs 7 places beyond the largest "
        "response packet (5 flits)\n"}},
      {{"--lanes", "32"}, {"LINK_0_WIDTH", "--lanes", "6 flits per core cycle", "FLITS_PER_CYCLE_LINK"}},
      {{"--link-rate", "60", "--lanes", "24"}, {"24 lanes at 15 Gb/s carry 5 flits"}},
      {{"--set", "PERCENTAGE_WR_128B=1"}, {"key TOKENS_PER_LINK: 8 is below 9"}, {"LIBZEL_NUM_TOKENS", "8"}},
      // --set TOKENS_PER_LINK wins over the variable; the host grants the cube's first count.
      {Args({}, {"PERCENTAGE_RD_128B=1", "TOKENS_PER_LINK=9"}),
       {"key BFM_TOKENS_PER_LINK: the host grants 8 "},
       {"LIBZEL_NUM_TOKENS", "8"}},
      {{"--set", "PERCENTAGE_RD_128B=1"},
       {"BFM_TOKENS_PER_LINK", "ZEL_BFM_NUM_TOKENS", "9 flits"},
       {"ZEL_BFM_NUM_TOKENS", "8"}},
  };
  std::vector<Case> all(std::begin(cases), std::end(cases));
  // Values of the wrong form for their key's type.
  for (const std::string set :
       {"NUM_QUADS=12a", "NUM_QUADS=-1", "NUM_QUADS=4294967296", "NUM_QUADS=", "NUM_QUADS=0x10",
        "CORE_CLK=1600 ps", "CORE_CLK=-1", "LINK_SPEED=fast", "REFRESH_ENABLED=TRUE", "REFRESH_ENABLED=1",
        "STATS_FILENAME=my stats.txt", "STATS_FILENAME=a=b"})
    all.push_back({{"--set", set}, {"--set " + set + ": bad value", set.substr(0, set.find('='))}});
  // Trace lines that can't be parsed, named by file and line.
  for (const auto& [text, words] : std::initializer_list<std::pair<const char*, const char*>>{
           {"0 RD 0x10\n", "line 1"},
           {"0 RD 0x10 24\n", "size"},
           {"0 XOR 0x10 16\n", "unknown command"},
           {"0 ADD16 0x10 32\n", "16"},
           {"x RD 0 16\n", "cycle"},
           {"0 RD 0xg 16\n", "address"},
           {"5 RD 0 16\n4 RD 0 16\n", "line 2: cycles must not decrease"}}) {
    const std::string name = "t" + std::to_string(all.size()) + ".trace";
    all.push_back({Args({}, {"USE_TRACE=true", "TRACE_FILENAME_0=" + dir.Write(name, text)}), {name, words}});
  }
  for (const Case& c : all) {
    SCOPED_TRACE(c.words.front());
    if (c.variable.first != nullptr) setenv(c.variable.first, c.variable.second.c_str(), 1);
    std::string err;
    EXPECT_EQ(RunBench(c.args, &err), kExitRefused);
    if (c.variable.first != nullptr) unsetenv(c.variable.first);
    EXPECT_EQ(err.find('\n'), err.size() - 1) << err;
    EXPECT_EQ(err.rfind("zelsim: ", 0), 0u) << err;
    for (const std::string& word : c.words) EXPECT_NE(err.find(word), std::string::npos) << err;
  }
}

// ---- Request generation --------------------------------------------------------

TEST(ZelsimGenerator, MixFollowsSharesAndSizeWeights) {
  TrafficSettings s = DefaultTraffic();
  s.percentRead = 30;
  for (unsigned i = 0; i < 8; ++i) s.readWeights[i] = s.writeWeights[i] = 0;
  s.readWeights[0] = 1;   // 16 bytes
  s.readWeights[7] = 3;   // 128 bytes
  s.writeWeights[2] = 5;  // 48 bytes
  const std::vector<Request> requests = Generate(s, 20000);
  EXPECT_EQ(requests.back().serial, 19999u);
  std::map<std::pair<ZELCommand, unsigned>, unsigned> mix;
  for (const Request& r : requests) ++mix[{r.command, r.length}];
  EXPECT_EQ(mix.size(), 3u);
  auto share = [&](ZELCommand command, unsigned length) { return mix[{command, length}] / 20000.0; };
  EXPECT_NEAR(share(RD, 16), 0.30 / 4, 0.01);
  EXPECT_NEAR(share(RD, 128), 0.30 * 3 / 4, 0.02);
  EXPECT_NEAR(share(WR, 48), 0.70, 0.02);

  s.postedWrites = true;
  s.atomicsPercent = 40;  // without USE_ATOMICS the share means nothing
  for (const Request& r : Generate(s, 2000)) EXPECT_TRUE(r.command == RD || r.command == P_WR);
  s.atomics = true;
  std::map<ZELCommand, unsigned> atomics;
  for (const Request& r : Generate(s, 20000))
    if (IsAtomic(r.command) && r.length == 16) ++atomics[r.command];
  EXPECT_EQ(atomics.size(), 6u);
  for (const auto& [command, count] : atomics) EXPECT_NEAR(count / 20000.0, 0.40 / 6, 0.01) << command;
}

// Random addresses at 16- or 32-byte steps, inside the cube; a strided
// stream stays in its generator's vault while round-robin turns over the links.
TEST(ZelsimGenerator, AddressesStayAlignedInsideTheCube) {
  TrafficSettings s = DefaultTraffic();
  EXPECT_EQ(s.capacity, uint64_t{1} << 30);  // 16 vaults of 64 MB
  for (const bool aligned32 : {false, true}) {
    s.aligned32 = aligned32;
    bool someOdd16 = false;
    for (const Request& r : Generate(s, 5000)) {
      ASSERT_EQ(r.address % (aligned32 ? 32 : 16), 0u);
      ASSERT_LT(r.address, s.capacity);
      someOdd16 = someOdd16 || r.address % 32 != 0;
    }
    EXPECT_EQ(someOdd16, !aligned32);
  }
  s.stream = STREAM_STRIDED;
  s.mapping = MAP_ROUND_ROBIN;
  const auto strided = Generate(s, 40, 1, 5);
  for (std::size_t i = 0; i < strided.size(); ++i) {
    EXPECT_EQ(VaultOf(strided[i].address, s.blockSize, s.numVaults), 5u);
    EXPECT_EQ(strided[i].link, (5 + i) % 4);
  }
}

// ---- Host arithmetic, results and the timeline ----------------------------------

TEST(ZelsimHost, FlitsPerCycleAsTheLinkCountsThem) {
  // Flit time in ps, and the flits of a 1.6 ns cycle on a link of 3 ports:
  // 3.002 rounds down, 2.5 up, and the ports cap the count.
  const std::pair<double, unsigned> cases[] = {{533, 3}, {800, 2}, {640, 3}, {1600, 1}, {266, 3}, {0, 3}};
  for (const auto& [flitTime, flits] : cases)
    EXPECT_EQ(FlitsPerCoreCycle(zelsim_test::Ps(1600), zelsim_test::Ps(flitTime), 3), flits) << flitTime;
}

// What the golden runs can't show: a link without traffic left out, an
// empty distribution, text that needs escaping, a float key as typed.
TEST(ZelsimResults, JsonLeavesIdleLinksOutAndKeepsValuesTyped) {
  RunResults results;
  results.links.resize(2);
  results.links[1].link = 1;
  results.links[1].issued = results.links[1].posted = results.links[1].writes = 1;
  results.mismatchMessages = {"tag \"5\"\tlost"};
  results.restChecked = true;
  results.restViolations = {"vsw0: a \"b\""};
  Config cfg;
  cfg.LINK_SPEED = 0.1f;
  std::ostringstream text;
  WriteJson(text, results, cfg);
  const nlohmann::json json = nlohmann::json::parse(text.str());
  ASSERT_EQ(json["links"].size(), 1u);
  EXPECT_EQ(json["links"][0]["link"], 1);
  const nlohmann::json& all = json["total"]["latency_ns"]["all"];
  EXPECT_EQ(all["count"], 0);
  EXPECT_TRUE(all["p50"].is_null() && all["max"].is_null() && all["histogram"]["counts"].empty());
  EXPECT_EQ(json["total"]["bandwidth_gbps"]["write"], 0);  // no time, no rate
  EXPECT_EQ(json["mismatch_messages"][0], results.mismatchMessages[0]);
  EXPECT_EQ(json["rest_state"][0], results.restViolations[0]);
  EXPECT_EQ(json["config"]["LINK_SPEED"], 0.1);
}

// The histogram's percentiles against exact nearest-rank ones, over
// latencies from a few picoseconds to a millisecond; merged histograms (the
// links' into the total) against one that saw everything.
TEST(ZelsimLatency, PercentilesStayWithinTheStatedError) {
  EXPECT_LE(LatencyHistogram::kRelativeError, 0.01);
  Rng rng(5);
  std::vector<uint64_t> sorted;
  LatencyHistogram whole, first, second;
  for (unsigned i = 0; i < 20000; ++i) {
    const uint64_t ps = 1 + rng.Below(uint64_t{1} << rng.Below(31));
    sorted.push_back(ps);
    whole.Add(ps);
    (i % 3 == 0 ? first : second).Add(ps);
  }
  first.Merge(second);
  std::sort(sorted.begin(), sorted.end());
  for (const unsigned perMille : {1u, 500u, 950u, 990u, 999u, 1000u}) {
    const double exact = static_cast<double>(sorted[(sorted.size() * perMille + 999) / 1000 - 1]);
    EXPECT_NEAR(whole.PercentilePs(perMille), exact, exact * LatencyHistogram::kRelativeError) << perMille;
    EXPECT_EQ(first.PercentilePs(perMille), whole.PercentilePs(perMille)) << perMille;
  }
  EXPECT_EQ(whole.MinPs(), sorted.front());
  EXPECT_EQ(whole.MaxPs(), sorted.back());
  LatencyHistogram one;  // one latency: every figure is that latency
  one.Add(123457);
  EXPECT_EQ(Summarise(one).p50Ns, 123.457);
  EXPECT_EQ(Summarise(one).p999Ns, 123.457);
}

// Two links, intervals of 10 ns. An event on an interval's end belongs to
// it; a mismatch is answered but not completed; quiet intervals still get
// their row; the last row ends with the run.
TEST(ZelsimTimeline, RowsCoverTheRunIntervalByInterval) {
  std::ostringstream csv;
  Timeline timeline(csv, 10000, 2);
  const Request read{RD, 0, 64, 0};
  const Request write{WR, 0, 32, 1};
  timeline.Issued(0, read, 0);
  timeline.Issued(1, write, 2000);
  timeline.Issued(1, Request{P_WR, 0, 16, 1}, 3000);
  timeline.Answered(0, read, true, 10000, 10000);  // on the first interval's end
  timeline.Issued(0, read, 10000);
  timeline.Answered(1, write, false, 5000, 25000);
  timeline.Issued(0, read, 41000);
  timeline.Answered(0, read, true, 31500, 41500);
  timeline.Finish(43000);
  timeline.Issued(0, read, 44000);  // after the end: not counted
  const std::vector<std::string> rows = zelsim_test::Lines(csv.str());
  ASSERT_EQ(rows.size(), 6u) << csv.str();
  EXPECT_EQ(rows[1], "0,10,1,64,0,6.4,0,10.000,10,1,0,0,48,0,4.8,,,1,1,64,48,6.4,4.8,10.000,10,2");
  EXPECT_EQ(rows[2], "10,20,0,0,0,0,0,,,1,0,0,0,0,0,,,1,0,0,0,0,0,,,2");
  EXPECT_EQ(rows[3], "20,30,0,0,0,0,0,,,1,0,0,0,0,0,,,0,0,0,0,0,0,,,1");
  EXPECT_EQ(rows[4], "30,40,0,0,0,0,0,,,1,0,0,0,0,0,,,0,0,0,0,0,0,,,1");
  EXPECT_EQ(rows[5], "40,43,1,64,0,21.3333,0,31.500,31.5,1,0,0,0,0,0,,,0,1,64,0,21.3333,0,31.500,31.5,1");
}

// Each limit of the cube at its boundary passes and one step beyond is
// refused, naming the key; --no-config-guards lets it through. The defaults
// make 64-byte requests; kLargest adds 128-byte ones.
TEST(ZelsimLimits, EachLimitAcceptsItsBoundaryAndRefusesOneStepBeyond) {
  const std::vector<std::string> kLargest = {"PERCENTAGE_RD_128B=1", "PERCENTAGE_WR_128B=1"};
  struct Case {
    const char* good;  // assignments separated by spaces
    const char* bad;
    std::vector<std::string> with = {};  // for both
    const char* named = nullptr;         // the key of the refusal, if not the first of `bad`
  };
  // clang-format off
  const Case cases[] = {
      {"LINK_MASTER_BUFFER_SIZE=12", "LINK_MASTER_BUFFER_SIZE=11"},
      {"LINK_MASTER_BUFFER_SIZE=16", "LINK_MASTER_BUFFER_SIZE=15", kLargest},
      {"LINK_MASTER_BUFFER_SIZE=16", "LINK_MASTER_BUFFER_SIZE=15", {"USE_TRACE=true"}},  // traces: any size
      {"VSW_INTERQUAD_BUFFER_SIZE=11", "VSW_INTERQUAD_BUFFER_SIZE=10"},
      {"TOKENS_PER_LINK=9", "TOKENS_PER_LINK=8", kLargest},
      {"TOKENS_PER_LINK=5", "TOKENS_PER_LINK=4"},  // the host grants as many response tokens
      {"TOKENS_PER_LINK=9", "TOKENS_PER_LINK=8", {"PERCENTAGE_RD_128B=1"}, "BFM_TOKENS_PER_LINK"},
      {"RESPONSE_OPEN_LOOP=true", "RESPONSE_OPEN_LOOP=false", {"PERCENTAGE_RD_128B=1", "TOKENS_PER_LINK=8"},
       "BFM_TOKENS_PER_LINK"},
      {"MAX_TOKEN_RETURN=1", "MAX_TOKEN_RETURN=0"},
      {"DATA_Q_CAPACITY=10", "DATA_Q_CAPACITY=9", kLargest},
      {"DATA_Q_CAPACITY=3", "DATA_Q_CAPACITY=2", {"PERCENTAGE_WR_64B=0", "PERCENTAGE_WR_16B=1"}},
      {"CREDITS_FOR_PROCESSING=9", "CREDITS_FOR_PROCESSING=8", kLargest},
      {"CREDITS_FOR_PROCESSING=59", "CREDITS_FOR_PROCESSING=62", {"VSW_RESPONSE_BUFFER_SIZE=61"}},
      // 3 flits move per cycle, 2 credits go back: 3 parked after 9 flits, 2 after 5.
      {"VSW_RESPONSE_BUFFER_SIZE=12", "VSW_RESPONSE_BUFFER_SIZE=11", kLargest},
      {"VSW_RESPONSE_BUFFER_SIZE=11", "VSW_RESPONSE_BUFFER_SIZE=10"},
      {"FLITS_PER_CYCLE_VSW=2", "FLITS_PER_CYCLE_VSW=3", {"VSW_RESPONSE_BUFFER_SIZE=9"},
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
      // Each column access brings two beats, one response flit each.
      {"PERCENTAGE_RD_128B=1", "PERCENTAGE_RD_112B=1", {"PERCENTAGE_RD_64B=0", "COLUMN_ACCESS_LENGTH=40"},
       "COLUMN_ACCESS_LENGTH"},
      {"COLUMN_ACCESS_LENGTH=1", "COLUMN_ACCESS_LENGTH=0"},
      {"tCMD=0.4", "tCMD=0.5"},
      {"tCMD=0.8", "tCMD=1.6"},
      {"FLIT_SIZE=16", "FLIT_SIZE=32"},
      {"FLITS_PER_CYCLE_LSW=1", "FLITS_PER_CYCLE_LSW=2"},
      {"FLITS_PER_CYCLE_LSW=4", "FLITS_PER_CYCLE_LSW=5", {"FLITS_PER_CYCLE_LINK=4"}},
      {"LINK_2_WIDTH=16", "LINK_2_WIDTH=20"},  // 3 and 4 flits per core cycle at 15 Gb/s
      {"LINK_SPEED=15", "LINK_SPEED=0"},
      {"NUM_VAULTS=16", "NUM_VAULTS=8"},
      {"VAULTS_PER_QUAD=2 NUM_VAULTS=8", "VAULTS_PER_QUAD=8 NUM_VAULTS=32"},
      {"NUM_QUADS=4 NUM_LINKS=4", "NUM_QUADS=2 NUM_LINKS=2 NUM_VAULTS=8"},
  };
  // clang-format on
  auto setsOf = [](const char* assignments, std::vector<std::string> sets) {
    std::istringstream words(assignments);
    for (std::string word; words >> word;) sets.push_back(word);
    return sets;
  };
  std::string error;
  EXPECT_TRUE(CheckBenchSettings(Config(), HostSetup(), error)) << error;
  for (const Case& c : cases) {
    const std::string bad = c.bad;
    const std::string key = c.named != nullptr ? c.named : bad.substr(0, bad.find('='));
    SCOPED_TRACE(bad);
    EXPECT_TRUE(CheckBenchSettings(ConfigWith(setsOf(c.good, c.with)), HostSetup(), error)) << error;
    std::string err;
    EXPECT_EQ(RunBench(Args({}, setsOf(c.bad, c.with)), &err), kExitRefused);
    EXPECT_EQ(err.rfind("zelsim: key " + key + ":", 0), 0u) << err;
    EXPECT_EQ(err.find('\n'), err.size() - 1) << err;
    EXPECT_TRUE(CheckBenchSettings(ConfigWith(setsOf(c.bad, c.with)), HostSetup(), error, false)) << error;
  }
}

// ---- Whole runs and how they end -----------------------------------------------

// With a wait, the tokens of read responses ride on request tails instead
// of TOKEN_RETURN flits of their own, and the cube still comes to rest.
TEST(ZelsimRun, TokenReturnsWaitForRequestTails) {
  const RunResults r = RunClean(Args({"--seed=3", "--token-return-wait=8", "--check-rest"},
                                     {"NUM_REQUESTS=400", "PERCENTAGE_READ=100", "REQUEST_SPACING=0"}));
  EXPECT_EQ(r.Total().completed, 1600u);
  EXPECT_GT(r.Total().tokenReturnsSent, 0u);                       // the last tokens, after the requests
  EXPECT_LT(r.Total().tokenReturnsSent * 5, r.Total().completed);  // without the wait, more than one a read
}

// Each trace request enters the host queue at its cycle or later (half a
// core cycle after its edge), on the link of its vault's quad, up to
// NUM_REQUESTS of them; comments, blank lines, decimal and hex are read.
TEST(ZelsimRun, TracesAreReplayed) {
  zelsim_test::TempDir dir;
  const std::string first =
      dir.Write("g0.trace",
                "; cycle command address size\n0 RD 0x0 64\n\n0 WR 4096 128  # same cycle\n"
                "3 P_WR 0x100 16\n7 P_ADD16 0x40\n20 RD 0x12340 128\n30 RD 0 16\n");
  const std::string second = dir.Write("g1.trace", "10 RD 0x40000 32\n");
  std::string out;
  const RunResults r =
      RunClean(Args({}, {"USE_TRACE=true", "NUM_GENERATORS=2", "TRACE_FILENAME_0=" + first,
                         "TRACE_FILENAME_1=" + second, "NUM_REQUESTS=5", "TRACE_DEBUG=true"}),
               kExitClean, nullptr, &out);
  ASSERT_EQ(r.generators.size(), 2u);
  EXPECT_EQ(r.generators[0].issued, 5u);
  EXPECT_EQ(r.generators[1].issued, 1u);
  EXPECT_EQ(r.Total().posted, 2u);
  EXPECT_EQ(r.Total().bytesRead, 64u + 128u + 32u);
  for (const char* line : {"\n800 ps: zelsim: generator 0 trace line 4: WR 0x1000 128 bytes on link 0\n",
                           "\n12 ns: zelsim: generator 0 trace line 6: P_ADD16 0x40 16 bytes on link 0\n",
                           "\n32800 ps: zelsim: generator 0 trace line 7: RD 0x12340 128 bytes on link 1\n"})
    EXPECT_NE(out.find(line), std::string::npos) << line;
}

// Long quiet spells with nothing outstanding are no deadlock; the
// corrections asked for are recorded. A JSON file that can't be written at
// the end turns the clean run into status 1.
TEST(ZelsimRun, TheWatchdogSleepsWhileNothingIsOutstanding) {
  std::string err;
  const RunResults r =
      RunClean(Args({"--deadlock-timeout", "1000", "--json", "/dev/full", "--correct", "bank-ownership"},
                    {"NUM_REQUESTS=3", "NUM_GENERATORS=1", "REQUEST_SPACING=2000", "SIM_TIME=0"}),
               kExitMismatch, &err);
  EXPECT_GT(r.endTimeNs, 2 * 2000 * 1.6);
  EXPECT_EQ(r.corrections, std::vector<std::string>{"bank-ownership"});
  EXPECT_NE(err.find("zelsim: can't write JSON file '/dev/full'\n"), std::string::npos) << err;
}

// A link switch that receives flits out of order (FLITS_PER_CYCLE_LSW too
// small for the link) ends the program with exit(0): not a clean run.
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

// The watchdog ends a deadlocked run (one run per process) with status 4,
// the state of the cube and no summary, and the JSON tells of it with the
// requests left open.
namespace {
void ExpectDeadlock(std::vector<std::string> args) {
  zelsim_test::TempDir dir;
  args.insert(args.end(),
              {"--no-config-guards", "--deadlock-timeout", "500", "--json", dir.path + "/d.json"});
  std::string err, out;
  EXPECT_EQ(RunBench(args, &err, &out), kExitDeadlock);
  const nlohmann::json json = nlohmann::json::parse(zelsim_test::ReadFile(dir.path + "/d.json"));
  EXPECT_EQ(json["run"]["deadlock"], true);
  EXPECT_EQ(json["run"]["drained"], false);
  EXPECT_GT(json["total"]["outstanding"].get<int>(), 0);
  EXPECT_NE(err.find("zelsim: deadlock: no flit moved for 500 ns with "), std::string::npos) << err;
  EXPECT_NE(err.find(" requests outstanding\n"), std::string::npos) << err;
  const std::size_t line = out.find("zelsim: deadlock: no flit moved for 500 ns");
  ASSERT_NE(line, std::string::npos);
  EXPECT_NE(out.find("== VSW", line), std::string::npos);  // the state dump follows
  EXPECT_EQ(out.find("==== zelsim summary"), std::string::npos);
  EXPECT_EQ(out.find("rest state OK"), std::string::npos);
}
}  // namespace

// A vault controller that can't hold a transaction's commands takes none:
// requests pile up and no flit moves.
TEST(ZelsimEnds, TheWatchdogReportsADeadlockWithTheStateOfTheCube) {
  ExpectDeadlock(Args({}, {"REQUEST_Q_CAPACITY=0", "SIM_TIME=0"}));
}

// A link master too small for a whole response beyond the vault switch's
// reserve deadlocks while --check-rest drains.
TEST(ZelsimEnds, TheWatchdogStopsARestCheckThatCanNotDrain) {
  ExpectDeadlock(Args({"--check-rest"}, {"LINK_MASTER_BUFFER_SIZE=9", "HOST_MAPPING=1", "SIM_TIME=3000"}));
}
