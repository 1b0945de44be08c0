// SPDX-License-Identifier: Apache-2.0
// zelsim's outputs as a user gets them, from the program itself: the JSON
// results and their figures checked against a hand computation, the split of
// --report, the timeline, the VCD of the links and the progress display on a
// terminal. Each run is a process of its own, so that one test can compare
// several runs.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "host/latency.h"
#include "test_support.h"

using nlohmann::json;
using Sornak::Internal::ZEL2::Bench::LatencyHistogram;

namespace {

struct Outcome {
  int status = -1;
  std::string out;
  std::string err;
};

std::string Quoted(const std::string& word) {
  std::string quoted = "'";
  for (char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

std::string CommandLine(const std::vector<std::string>& args) {
  std::string line = Quoted(ZELSIM_PROGRAM);
  for (const std::string& arg : args) line += " " + Quoted(arg);
  return line;
}

// Runs `shell`, a shell command line, in `dir` with no standard input, its
// standard output and error kept apart.
Outcome Shell(const zelsim_test::TempDir& dir, const std::string& shell) {
  zelsim_test::ClearModelEnvironment();
  const std::string out = dir.path + "/stdout.txt";
  const std::string err = dir.path + "/stderr.txt";
  const int status = std::system(
      ("cd " + Quoted(dir.path) + " && (" + shell + ") </dev/null >" + Quoted(out) + " 2>" + Quoted(err))
          .c_str());
  Outcome run;
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  run.out = zelsim_test::ReadFile(out);
  run.err = zelsim_test::ReadFile(err);
  return run;
}

Outcome Zelsim(const zelsim_test::TempDir& dir, const std::vector<std::string>& args) {
  return Shell(dir, CommandLine(args));
}

json ReadJson(const std::string& path) { return json::parse(zelsim_test::ReadFile(path)); }

std::vector<std::string> Split(const std::string& line, char separator) {
  std::vector<std::string> fields;
  std::istringstream in(line);
  for (std::string field; std::getline(in, field, separator);) fields.push_back(field);
  if (!line.empty() && line.back() == separator) fields.emplace_back();
  return fields;
}

}  // namespace

// Two runs of the same point, the second with every other output and the
// progress display: their JSON differs in "wall_clock" only, and the --report
// file and the second run's standard output are, together, exactly the first
// run's output (here with the state dump and the rest check, whose lines
// belong to either half). The JSON holds, per link and in total, latency
// percentiles in order, a histogram that counts every completed request, and
// the read and write bandwidth from the bytes and the traffic's time.
TEST(ZelsimOutputs, JsonHoldsDistributionsAndBandwidthRepeatsAndReportSplits) {
  zelsim_test::TempDir dir;
  const std::vector<std::string> point = {"--set", "SIM_TIME=20000", "--dump-state", "--check-rest"};
  std::vector<std::string> whole = point, split = point;
  whole.insert(whole.end(), {"--json", "a.json"});
  split.insert(split.end(), {"--json", "b.json", "--report", "b.txt", "--timeline", "b.csv", "--vcd", "b.vcd",
                             "--responses", "b.log", "--progress"});
  const Outcome first = Zelsim(dir, whole);
  const Outcome second = Zelsim(dir, split);
  ASSERT_EQ(first.status, 0) << first.err;
  ASSERT_EQ(second.status, 0) << second.err;
  const std::string report = zelsim_test::ReadFile(dir.path + "/b.txt");
  EXPECT_EQ(report + second.out, first.out);
  EXPECT_EQ(second.out.rfind("==== zelsim summary", 0), 0u) << second.out;
  EXPECT_NE(second.out.find("\nzelsim: rest state OK\n"), std::string::npos);
  EXPECT_NE(report.find("== VSW"), std::string::npos);  // the state dump
  EXPECT_NE(second.err.find("zelsim: the model's report is in '" + dir.path + "/b.txt'\n"), std::string::npos)
      << second.err;
  json a = ReadJson(dir.path + "/a.json");
  json b = ReadJson(dir.path + "/b.json");
  EXPECT_GT(a["wall_clock"]["seconds"].get<double>(), 0);
  a.erase("wall_clock");
  b.erase("wall_clock");
  EXPECT_EQ(a, b);

  const double trafficNs = a["run"]["traffic_time_ns"];
  EXPECT_GT(trafficNs, 19000);
  ASSERT_EQ(a["links"].size(), 4u);
  std::vector<json> objects(a["links"].begin(), a["links"].end());
  objects.push_back(a["total"]);
  for (const json& link : objects) {
    SCOPED_TRACE(link.value("link", -1));
    const json& all = link["latency_ns"]["all"];
    EXPECT_EQ(all["count"], link["completed"]);
    std::vector<double> figures;
    for (const char* name : {"min", "p50", "p95", "p99", "max"}) figures.push_back(all[name]);
    EXPECT_TRUE(std::is_sorted(figures.begin(), figures.end()));
    EXPECT_GT(figures.front(), 30);
    const std::vector<uint64_t> counts = all["histogram"]["counts"];
    EXPECT_EQ(all["histogram"]["bounds_ns"].size(), counts.size() + 1);
    uint64_t counted = 0;
    for (uint64_t c : counts) counted += c;
    EXPECT_EQ(counted, link["completed"].get<uint64_t>());
    const json& gbps = link["bandwidth_gbps"];
    EXPECT_GT(gbps["read"].get<double>(), 1);
    EXPECT_DOUBLE_EQ(gbps["read"].get<double>(), link["bytes_read"].get<double>() / trafficNs);
    EXPECT_DOUBLE_EQ(gbps["write"].get<double>(), link["bytes_written"].get<double>() / trafficNs);
  }
}

// A replay of requests that each have the cube to themselves: the latency
// of each is the time its response's tail came in (from --responses) less
// the half cycle after its trace cycle at which the host sent it. zelsim's
// percentiles, histogram and bandwidth must match the ones worked out from these.
TEST(ZelsimOutputs, PercentilesAndBandwidthMatchAHandComputation) {
  zelsim_test::TempDir dir;
  const std::pair<std::string, unsigned> kinds[] = {
      {"RD", 0}, {"WR", 0}, {"RD", 128}, {"ADD16", 16}, {"P_WR", 64}};
  std::ostringstream trace;
  std::vector<uint64_t> sentPs;
  uint64_t bytesRead = 0, bytesWritten = 0;
  for (unsigned i = 0; i < 40; ++i) {
    const auto& [command, size] = kinds[i % 5];
    const unsigned bytes = size != 0 ? size : 16 * (1 + (i * 3) % 8);
    // Far enough apart for each request to be alone in the cube, after the
    // cube has granted the host its tokens.
    const uint64_t cycle = 100 + 400 * i;
    trace << cycle << ' ' << command << ' ' << i * 128 * 17 << ' ' << bytes << '\n';
    if (command == "RD") bytesRead += bytes;
    if (command.find("WR") != std::string::npos) bytesWritten += bytes;
    if (command != "P_WR") sentPs.push_back(800 + 1600 * cycle);
  }
  dir.Write("t.trace", trace.str());
  const Outcome run = Zelsim(dir, {"--set", "USE_TRACE=true", "--set", "TRACE_FILENAME_0=t.trace", "--set",
                                   "NUM_GENERATORS=1", "--set", "NUM_REQUESTS=40", "--set", "HOST_MAPPING=0",
                                   "--set", "SIM_TIME=0", "--responses", "r.txt", "--json", "r.json"});
  ASSERT_EQ(run.status, 0) << run.err;

  // Lines: time in ps, link, flit. The tails of the responses, in order.
  std::vector<uint64_t> latencies;
  uint64_t lastResponsePs = 0;
  for (const std::string& line : zelsim_test::Lines(zelsim_test::ReadFile(dir.path + "/r.txt"))) {
    if (line.find("cmd:RD_RSP") == std::string::npos && line.find("cmd:WR_RSP") == std::string::npos)
      continue;
    lastResponsePs = std::stoull(line);
    if (line.find(" TAIL]") != std::string::npos) latencies.push_back(lastResponsePs);
  }
  ASSERT_EQ(latencies.size(), sentPs.size());
  for (std::size_t i = 0; i < sentPs.size(); ++i) latencies[i] -= sentPs[i];
  std::sort(latencies.begin(), latencies.end());
  ASSERT_GT(latencies.back(), latencies.front());  // a distribution, not one value

  const json results = ReadJson(dir.path + "/r.json");
  const json& all = results["total"]["latency_ns"]["all"];
  EXPECT_EQ(all["count"], latencies.size());
  EXPECT_DOUBLE_EQ(all["min"].get<double>(), latencies.front() / 1000.0);
  EXPECT_DOUBLE_EQ(all["max"].get<double>(), latencies.back() / 1000.0);
  for (const auto& [name, perMille] :
       {std::pair<const char*, unsigned>{"p50", 500}, {"p95", 950}, {"p99", 990}}) {
    const double exact = latencies[(latencies.size() * perMille + 999) / 1000 - 1] / 1000.0;
    EXPECT_NEAR(all[name].get<double>(), exact, exact * LatencyHistogram::kRelativeError) << name;
  }
  // Each latency in the bucket that counts it.
  const std::vector<double> bounds = all["histogram"]["bounds_ns"];
  const std::vector<uint64_t> counts = all["histogram"]["counts"];
  std::vector<uint64_t> expected(counts.size(), 0);
  for (uint64_t ps : latencies) {
    const auto above = std::upper_bound(bounds.begin(), bounds.end(), ps / 1000.0);
    ASSERT_TRUE(above != bounds.begin() && above != bounds.end()) << ps;
    ++expected[above - bounds.begin() - 1];
  }
  EXPECT_EQ(counts, expected);
  EXPECT_EQ(results["total"]["latency_ns"]["atomic"]["count"], 8);

  // Bandwidth: bytes over the time from the first request flit sent to the
  // last response flit taken.
  const double trafficNs = static_cast<double>(lastResponsePs - sentPs.front()) / 1000;
  EXPECT_DOUBLE_EQ(results["run"]["traffic_time_ns"].get<double>(), trafficNs);
  const json& gbps = results["total"]["bandwidth_gbps"];
  EXPECT_DOUBLE_EQ(gbps["read"].get<double>(), bytesRead / trafficNs);
  EXPECT_DOUBLE_EQ(gbps["write"].get<double>(), bytesWritten / trafficNs);
}

// The rows cover the run without gap or overlap, in intervals that don't
// divide it, and add up to its totals, per link and in all; the last row's
// outstanding requests are the run's.
TEST(ZelsimOutputs, TimelineRowsAddUpToTheRunsTotals) {
  zelsim_test::TempDir dir;
  const Outcome run = Zelsim(
      dir, {"--set", "SIM_TIME=7000", "--set", "USE_ATOMICS=1", "--set", "ATOMICS_PERCENTAGE=20", "--set",
            "POSTED_WRITES=true", "--timeline", "t.csv", "--interval", "300", "--json", "t.json"});
  ASSERT_EQ(run.status, 0) << run.err;
  const json results = ReadJson(dir.path + "/t.json");
  const std::vector<std::string> rows = zelsim_test::Lines(zelsim_test::ReadFile(dir.path + "/t.csv"));
  ASSERT_EQ(rows.size(), 1u + 24u);  // 7000 ns in intervals of 300
  const std::vector<std::string> header = Split(rows[0], ',');
  std::map<std::string, std::size_t> column;
  for (std::size_t i = 0; i < header.size(); ++i) column[header[i]] = i;

  std::map<std::string, double> sums;
  std::vector<std::string> cells;
  double end = 0;
  for (std::size_t r = 1; r < rows.size(); ++r) {
    cells = Split(rows[r], ',');
    ASSERT_EQ(cells.size(), header.size()) << rows[r];
    EXPECT_EQ(std::stod(cells[0]), end) << rows[r];
    end = std::stod(cells[1]);
    for (const auto& [name, at] : column)
      if (name.find("completed") != std::string::npos || name.find("bytes_") != std::string::npos)
        sums[name] += std::stod(cells[at]);
  }
  EXPECT_EQ(end, results["run"]["end_time_ns"].get<double>());
  std::vector<std::pair<std::string, json>> groups = {{"all_", results["total"]}};
  for (const json& link : results["links"]) groups.emplace_back("link" + link["link"].dump() + "_", link);
  ASSERT_EQ(groups.size(), 5u);
  for (const auto& [group, figures] : groups) {
    SCOPED_TRACE(group);
    for (const char* name : {"completed", "bytes_read", "bytes_written"})
      EXPECT_EQ(sums[group + name], figures[name].get<double>()) << name;
    EXPECT_EQ(std::stod(cells[column[group + "outstanding"]]), figures["outstanding"].get<double>());
  }
  EXPECT_GT(results["total"]["outstanding"].get<double>(), 0);
  EXPECT_GT(results["total"]["posted"].get<double>(), 0);
}

// The VCD, read back: a scope per link and direction with the same
// variables, each declared once, whose flit counts end where the run's end:
// the number of flits the host sent and took.
TEST(ZelsimOutputs, VcdHoldsOneVariableSetPerLinkAndDirection) {
  zelsim_test::TempDir dir;
  const Outcome run = Zelsim(dir, {"--set", "SIM_TIME=1500", "--vcd", "links.vcd", "--json", "v.json"});
  ASSERT_EQ(run.status, 0) << run.err;
  std::istringstream vcd(zelsim_test::ReadFile(dir.path + "/links.vcd"));
  std::vector<std::string> scope;
  std::map<std::string, std::string> nameOf;                 // id -> scope path and variable
  std::map<std::string, std::set<std::string>> variablesOf;  // scope path -> variables
  std::map<std::string, std::string> value;                  // id -> last value, in binary
  bool definitions = true;
  uint64_t lastTime = 0;
  for (std::string word; vcd >> word;) {
    if (word == "$comment" || word == "$date" || word == "$version") {
      while (vcd >> word && word != "$end") {
      }
    } else if (word == "$scope") {
      std::string kind, name;
      vcd >> kind >> name;
      scope.push_back(name);
    } else if (word == "$upscope") {
      ASSERT_FALSE(scope.empty());
      scope.pop_back();
    } else if (word == "$var") {
      std::string type, width, id, name, path;
      vcd >> type >> width >> id >> name;
      for (const std::string& s : scope) path += s + ".";
      ASSERT_TRUE(nameOf.emplace(id, path + name).second) << id;
      EXPECT_TRUE(variablesOf[path].insert(name).second) << path << name;
    } else if (word == "$enddefinitions") {
      definitions = false;
    } else if (!definitions && word[0] == '#') {
      EXPECT_GE(std::stoull(word.substr(1)), lastTime);
      lastTime = std::stoull(word.substr(1));
    } else if (!definitions && word[0] == 'b') {
      std::string id;
      vcd >> id;
      ASSERT_EQ(nameOf.count(id), 1u) << id;
      value[id] = word.substr(1);
    } else if (!definitions && (word[0] == '0' || word[0] == '1')) {
      ASSERT_EQ(nameOf.count(word.substr(1)), 1u) << word;
      value[word.substr(1)] = word.substr(0, 1);
    }
  }
  EXPECT_FALSE(definitions);
  EXPECT_TRUE(scope.empty());

  const std::set<std::string> fields = {"tag",  "command",    "requestLength", "address", "header",
                                        "tail", "flitNumber", "returnTokens",  "flits"};
  ASSERT_EQ(variablesOf.size(), 8u);
  std::map<std::string, uint64_t> finalFlits;
  for (const auto& [id, name] : nameOf)
    if (name.size() > 6 && name.compare(name.size() - 6, 6, ".flits") == 0)
      finalFlits[name] = value.count(id) != 0 ? std::stoull(value[id], nullptr, 2) : 0;
  const json results = ReadJson(dir.path + "/v.json");
  EXPECT_EQ(results["links"].size(), 4u);
  for (const json& link : results["links"]) {
    const std::string path = "SystemC.link" + link["link"].dump() + ".";
    EXPECT_EQ(variablesOf[path + "request."], fields) << path;
    EXPECT_EQ(variablesOf[path + "response."], fields) << path;
    EXPECT_EQ(finalFlits[path + "request.flits"],
              link["request_flits"].get<uint64_t>() + link["token_returns_sent"].get<uint64_t>());
    EXPECT_EQ(finalFlits[path + "response.flits"],
              link["response_flits"].get<uint64_t>() + link["token_returns_received"].get<uint64_t>());
  }
}

// The progress display draws on a terminal (here a pseudo-terminal of
// `script`), not into a pipe, unless forced either way. That it changes
// nothing in the run is checked with the JSON above.
TEST(ZelsimOutputs, ProgressShowsOnATerminalOnly) {
  zelsim_test::TempDir dir;
  const std::string run = CommandLine({"--set", "SIM_TIME=3000", "--report", "model.txt"});
  const std::string kShown = " us simulated, ";
  const Outcome terminal = Shell(dir, "script -qec " + Quoted(run) + " /dev/null");
  ASSERT_EQ(terminal.status, 0) << terminal.err;
  EXPECT_NE(terminal.out.find("\rzelsim: 0.0 of 3.0 us simulated, 0 requests completed"), std::string::npos)
      << terminal.out;
  EXPECT_NE(terminal.out.find("\r\033[K==== zelsim summary"), std::string::npos);  // cleared first
  EXPECT_EQ(Shell(dir, "script -qec " + Quoted(run + " --no-progress") + " /dev/null").out.find(kShown),
            std::string::npos);
  const Outcome pipe = Shell(dir, run + " 2>&1 | cat");
  ASSERT_EQ(pipe.status, 0);
  EXPECT_EQ(pipe.out.find(kShown), std::string::npos) << pipe.out;
  EXPECT_NE(Shell(dir, run + " --progress").err.find(kShown), std::string::npos);
}
