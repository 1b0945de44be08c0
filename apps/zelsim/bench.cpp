// SPDX-License-Identifier: Apache-2.0
#include "apps/zelsim/bench.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>
#include <utility>
#include <vector>

#include "zel2/2in1Wrapper.h"
#include "zel2/zel2_cube.h"
#include "zel2/zel2_utils.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Bench {

namespace {

int Refuse(const std::string& message) {
  std::cout.flush();
  std::cerr << "zelsim: " << message << std::endl;
  return 2;
}

uint64_t WeightSum(const unsigned (&weights)[8]) {
  uint64_t sum = 0;
  for (unsigned w : weights) sum += w;
  return sum;
}

const std::string& TraceFileName(const Config& cfg, unsigned generator) {
  switch (generator) {
    case 0:
      return cfg.TRACE_FILENAME_0;
    case 1:
      return cfg.TRACE_FILENAME_1;
    case 2:
      return cfg.TRACE_FILENAME_2;
    default:
      return cfg.TRACE_FILENAME_3;
  }
}

// Writes the overlay where the library will read it and points
// LIBZEL_CONFIG_FILE at it for as long as the object lives; the variable
// gets its old value back afterwards.
class ConfigFileForLibrary {
 public:
  bool Write(const ConfigOverlay& overlay, std::string& error) {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern =
        std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/zelsim-config-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    const int fd = mkstemp(name.data());
    if (fd < 0) {
      error = "can't write a configuration file in '" + pattern.substr(0, pattern.rfind('/')) + "'";
      return false;
    }
    close(fd);
    path_ = name.data();
    std::ofstream out(path_);
    if (!WriteOverlay(overlay, out)) {
      error = "can't write configuration file '" + path_ + "'";
      return false;
    }
    if (const char* old = std::getenv("LIBZEL_CONFIG_FILE")) {
      hadOld_ = true;
      old_ = old;
    }
    setenv("LIBZEL_CONFIG_FILE", path_.c_str(), 1);
    return true;
  }
  ~ConfigFileForLibrary() {
    if (path_.empty()) return;
    std::remove(path_.c_str());
    if (hadOld_) {
      setenv("LIBZEL_CONFIG_FILE", old_.c_str(), 1);
    } else {
      unsetenv("LIBZEL_CONFIG_FILE");
    }
  }

 private:
  std::string path_;
  bool hadOld_ = false;
  std::string old_;
};

// --check-rest: how long the cube may take to drain after the traffic or
// the flush, and how long it then settles before the check, so that the last
// credit and token pulses have arrived.
const sc_core::sc_time kDrainLimit(1, sc_core::SC_MS);
constexpr double kSettleCycles = 1000;

// Lets the simulation run until the host pauses at its next drain, for at
// most `limit`; false if the limit came first.
bool RunUntilDrained(LegalHost& host, const sc_core::sc_time& limit) {
  sc_core::sc_start(limit);
  return host.pausedAtDrain;
}

std::string LimitText(const sc_core::sc_time& limit) {
  return std::to_string(static_cast<uint64_t>(limit.to_seconds() * 1e9 + 0.5)) + " ns";
}

// The end of a --check-rest run, once the generators are done or SIM_TIME is
// up: the model's report for the traffic, the drain of what is still under
// way, the results, the credit flush, a pause to settle, and the check.
std::vector<std::string> DrainAndCheck(Cube2in1Wrapper& wrapper, LegalHost& host, GeneratorSource& source,
                                       RestPhaseSource& phases, int64_t liveFlitsAtStart,
                                       RunResults& results) {
  const Config& cfg = wrapper.cube->cfg;
  std::vector<std::string> problems;
  const bool drainedBySelf = host.pausedAtDrain;
  // The report covers the same time as in a run without the check.
  wrapper.DumpStats();

  // No new requests; those in flight get their responses.
  bool drained = drainedBySelf;
  if (!drained) {
    phases.phase = RestPhaseSource::Phase::Quiet;
    drained = RunUntilDrained(host, kDrainLimit);
    if (!drained)
      problems.push_back("host: traffic still under way " + LimitText(kDrainLimit) + " after SIM_TIME");
  }
  results.endTimeNs = sc_core::sc_time_stamp().to_seconds() * 1e9;
  host.CollectResults(results);
  source.FillResults(results);
  results.drained = drainedBySelf;

  // The flush's writes are checked like any other request.
  bool flushed = false;
  if (drained) {
    phases.phase = RestPhaseSource::Phase::Flush;
    flushed = RunUntilDrained(host, kDrainLimit);
    if (!flushed) problems.push_back("host: credit flush still under way after " + LimitText(kDrainLimit));
    RunResults after;
    host.CollectResults(after);
    if (after.Mismatches() > results.Mismatches()) {
      problems.push_back("host: " + std::to_string(after.Mismatches() - results.Mismatches()) +
                         " response mismatches in the credit flush");
    }
  }
  sc_core::sc_start(CycleDelay(cfg, kSettleCycles));

  RestExpectations expect;
  expect.liveFlitsAtStart = liveFlitsAtStart;
  expect.vaultCreditsReturned = flushed;
  for (std::string& line : CheckRestState(wrapper, host, expect)) problems.push_back(std::move(line));
  return problems;
}

}  // namespace

std::string JsonWithRestState(const std::string& json, const std::vector<std::string>& violations) {
  std::string field = "  \"rest_state\": ";
  if (violations.empty()) {
    field += "\"ok\"";
  } else {
    field += "[";
    for (std::size_t i = 0; i < violations.size(); ++i)
      field += (i == 0 ? "\n    " : ",\n    ") + JsonString(violations[i]);
    field += "\n  ]";
  }
  const std::size_t close = json.rfind('}');
  if (close == std::string::npos || close == 0) return json;
  const std::size_t last = json.find_last_not_of(" \n", close - 1);
  return json.substr(0, last + 1) + ",\n" + field + "\n}\n";
}

// ---- Generators as a request source --------------------------------------------

GeneratorSource::GeneratorSource(const Config& cfg, uint64_t seed,
                                 std::vector<std::vector<TraceEntry>> traces)
    : cfg_(cfg), seed_(seed), traces_(std::move(traces)) {}

void GeneratorSource::Refill(LegalHost& host, uint64_t cycle) {
  if (!built_) {
    const TrafficSettings settings =
        TrafficSettings::FromConfig(cfg_, static_cast<unsigned>(host.links.size()));
    for (unsigned g = 0; g < cfg_.NUM_GENERATORS; ++g) {
      const unsigned queue = host.AddQueue(cfg_.REQUEST_BUFFER_SIZE);
      if (g < traces_.size()) {
        slots_.push_back(Slot{RequestGenerator(g, settings, traces_[g], cfg_.NUM_REQUESTS), queue});
      } else {
        slots_.push_back(Slot{RequestGenerator(g, settings, seed_, cfg_.NUM_REQUESTS), queue});
      }
    }
    built_ = true;
  }
  const uint64_t spacing = cfg_.REQUEST_SPACING;
  for (Slot& slot : slots_) {
    // Spacing 0 fills the queue at once; otherwise one request at most
    // every `spacing` cycles.
    while (!slot.generator.Done() && host.QueueSpace(slot.queue) > 0 && slot.generator.NextCycle() <= cycle &&
           (!slot.started || spacing == 0 || cycle - slot.lastCycle >= spacing)) {
      const unsigned traceLine = slot.generator.NextTraceLine();
      const Request request = slot.generator.Next(cycle);
      host.Enqueue(slot.queue, request);
      slot.started = true;
      slot.lastCycle = cycle;
      if (cfg_.TRACE_DEBUG && slot.generator.Replaying()) {
        std::cout << sc_core::sc_time_stamp() << ": zelsim: generator " << slot.generator.Id()
                  << " trace line " << traceLine << ": " << CommandName(request.command) << " 0x" << std::hex
                  << request.address << std::dec << " " << request.length << " bytes on link " << request.link
                  << std::endl;
      }
    }
  }
}

bool GeneratorSource::Exhausted() const {
  if (!built_) return false;
  for (const Slot& slot : slots_) {
    if (!slot.generator.Done()) return false;
  }
  return true;
}

void GeneratorSource::FillResults(RunResults& results) const {
  for (GeneratorResults& g : results.generators) {
    if (g.generator < slots_.size()) g.done = slots_[g.generator].generator.Done();
  }
}

// ---- Checks ------------------------------------------------------------------------

bool CheckBenchSettings(const Config& cfg, std::string& error) {
  auto refuse = [&](const std::string& message) {
    error = message;
    return false;
  };
  if (cfg.NUM_LINKS != cfg.NUM_QUADS) {
    return refuse("key NUM_LINKS: " + std::to_string(cfg.NUM_LINKS) + " links on " +
                  std::to_string(cfg.NUM_QUADS) + " quads; every quad has one link (NUM_QUADS)");
  }
  if (cfg.NUM_LINKS == 0 || cfg.NUM_LINKS > 4) {
    return refuse("key NUM_LINKS: " + std::to_string(cfg.NUM_LINKS) + " is not a link count from 1 to 4");
  }
  const unsigned widths[4] = {cfg.LINK_0_WIDTH, cfg.LINK_1_WIDTH, cfg.LINK_2_WIDTH, cfg.LINK_3_WIDTH};
  for (unsigned link = 0; link < cfg.NUM_LINKS; ++link) {
    if (widths[link] == 0) return refuse("key LINK_" + std::to_string(link) + "_WIDTH: a link needs lanes");
  }
  if (cfg.NUM_VAULTS == 0 || (cfg.NUM_VAULTS & (cfg.NUM_VAULTS - 1)) != 0) {
    return refuse("key NUM_VAULTS: " + std::to_string(cfg.NUM_VAULTS) + " is not a power of 2");
  }
  if (cfg.CORE_CLK == sc_core::SC_ZERO_TIME) return refuse("key CORE_CLK: the core clock needs a period");
  if (AddressSpace(cfg) < 32) return refuse("the cube's geometry keys give no address space");
  if (cfg.REQUEST_STREAM > STREAM_STRIDED) {
    return refuse("key REQUEST_STREAM: " + std::to_string(cfg.REQUEST_STREAM) +
                  " is not 0 (random), 1 (sequential) or 2 (strided)");
  }
  if (cfg.HOST_MAPPING > MAP_VAULT_QUAD) {
    return refuse("key HOST_MAPPING: " + std::to_string(cfg.HOST_MAPPING) +
                  " is not 0 (by generator), 1 (round robin) or 2 (quad of the vault)");
  }
  if (cfg.PERCENTAGE_READ > 100) return refuse("key PERCENTAGE_READ: above 100");
  if (cfg.ATOMICS_PERCENTAGE > 100) return refuse("key ATOMICS_PERCENTAGE: above 100");
  const TrafficSettings traffic = TrafficSettings::FromConfig(cfg, cfg.NUM_LINKS);
  const bool onlyAtomics = traffic.atomics && traffic.atomicsPercent == 100;
  if (!cfg.USE_TRACE && !onlyAtomics) {
    if (traffic.percentRead > 0 && WeightSum(traffic.readWeights) == 0) {
      return refuse(
          "keys PERCENTAGE_RD_16B to PERCENTAGE_RD_128B: all 0, but PERCENTAGE_READ asks for reads");
    }
    if (traffic.percentRead < 100 && WeightSum(traffic.writeWeights) == 0) {
      return refuse(
          "keys PERCENTAGE_WR_16B to PERCENTAGE_WR_128B: all 0, but PERCENTAGE_READ asks for writes");
    }
  }
  if (cfg.REQUEST_BUFFER_SIZE == 0) return refuse("key REQUEST_BUFFER_SIZE: a host queue needs room");
  if (cfg.TAGS_PER_LINK == 0 || cfg.TAGS_PER_LINK > kPostedTagSpan) {
    return refuse("key TAGS_PER_LINK: " + std::to_string(cfg.TAGS_PER_LINK) + " is not from 1 to " +
                  std::to_string(kPostedTagSpan));
  }
  if (cfg.TOKENS_PER_LINK == 0) return refuse("key TOKENS_PER_LINK: a link needs tokens");
  if (cfg.USE_TRACE && cfg.NUM_GENERATORS > 4) {
    return refuse("key NUM_GENERATORS: " + std::to_string(cfg.NUM_GENERATORS) +
                  " generators, but traces exist for 4 (TRACE_FILENAME_0 to TRACE_FILENAME_3)");
  }
  return true;
}

unsigned LinkRateOfSpeed(float gigabitsPerLane) {
  if (gigabitsPerLane == 10.0f) return 40;
  if (gigabitsPerLane == 12.5f) return 50;
  if (gigabitsPerLane == 15.0f) return 60;
  return 0;
}

// ---- The run -------------------------------------------------------------------------

int RunZelsim(int argc, const char* const* argv, RunResults* resultsOut, RestReport* restOut) {
  Options options;
  std::string error;
  switch (ParseCommandLine(argc, argv, options, error)) {
    case ParseStatus::Help:
      std::cout << UsageText();
      return 0;
    case ParseStatus::Version:
      std::cout << VersionText();
      return 0;
    case ParseStatus::Error:
      return Refuse(error);
    case ParseStatus::Run:
      break;
  }

  // Everything that can be wrong with the input is found before the cube
  // is built.
  ConfigOverlay overlay;
  if (!ResolveConfiguration(options, overlay, error)) return Refuse(error);
  if (!CheckTokenVariables(error)) return Refuse(error);
  Config planned;
  ApplyOverlay(overlay, planned);
  if (options.cubeSize >= 0) planned.NUM_PARTITIONS = 2u << options.cubeSize;
  if (!CheckBenchSettings(planned, error)) return Refuse(error);

  std::vector<std::vector<TraceEntry>> traces;
  if (planned.USE_TRACE) {
    for (unsigned g = 0; g < planned.NUM_GENERATORS; ++g) {
      traces.emplace_back();
      if (!ReadTrace(TraceFileName(planned, g), traces.back(), error)) {
        return Refuse(error + " (TRACE_FILENAME_" + std::to_string(g) + ")");
      }
    }
  }

  HostSetup setup;
  setup.cubeSize = options.cubeSize;
  if (options.linkRate != 0 || options.lanes != 0) {
    setup.linkRate = options.linkRate != 0 ? options.linkRate : LinkRateOfSpeed(planned.LINK_SPEED);
    if (setup.linkRate == 0) {
      return Refuse("--lanes needs --link-rate: LINK_SPEED " + std::to_string(planned.LINK_SPEED) +
                    " is not 10, 12.5 or 15 Gb/s");
    }
    setup.lanes = options.lanes != 0 ? options.lanes : planned.LINK_0_WIDTH;
  }
  // The command line's token counts win over the environment's: the host
  // sets them through the wrapper, as a host does.
  const auto cubeTokens = overlay.find("TOKENS_PER_LINK");
  if (cubeTokens != overlay.end() && cubeTokens->second.origin != Origin::EnvironmentFile) {
    setup.cubeTokens = planned.TOKENS_PER_LINK;
  }
  const auto hostTokens = overlay.find("BFM_TOKENS_PER_LINK");
  if (hostTokens != overlay.end() && hostTokens->second.origin != Origin::EnvironmentFile) {
    setup.hostTokensGiven = true;
    setup.hostTokens = planned.BFM_TOKENS_PER_LINK;
  }
  const auto dumpState = overlay.find("DUMP_STATE");
  const bool wantsStateDump =
      options.dumpState || (dumpState != overlay.end() && dumpState->second.value == "true");

  std::ofstream json;
  if (!options.jsonFile.empty()) {
    json.open(options.jsonFile, std::ios::out | std::ios::trunc);
    if (!json.is_open()) return Refuse("can't write JSON file '" + options.jsonFile + "'");
  }

  std::cout << "zelsim: seed " << options.seed << "; " << planned.NUM_GENERATORS << " generators of "
            << planned.NUM_REQUESTS << (planned.USE_TRACE ? " trace requests at most" : " requests")
            << "; SIM_TIME " << planned.SIM_TIME << std::endl;

  // The library reads its configuration from the environment, so the keys
  // resolved here reach it as a file of their own.
  Cube2in1Wrapper* wrapper = nullptr;
  const int64_t liveFlitsAtStart = Flit::liveRequestsAndResponses;
  {
    ConfigFileForLibrary configFile;
    if (!overlay.empty() && !configFile.Write(overlay, error)) return Refuse(error);
    // Modules live as long as the process, as the model's own do.
    wrapper = new Cube2in1Wrapper("wrapper");
  }
  const Config& cfg = wrapper->cube->cfg;

  // A host that drains its traffic stops the kernel; that is no news.
  sc_core::sc_report_handler::set_actions("/OSCI/SystemC", sc_core::SC_INFO, sc_core::SC_DO_NOTHING);
  auto* source = new GeneratorSource(cfg, options.seed, std::move(traces));
  RequestSource* hostSource = source;
  RestPhaseSource* phases = nullptr;
  if (options.checkRest) {
    // The host pauses at each drain, and the run goes on in phases.
    setup.stopWhenDrained = false;
    setup.pauseWhenDrained = true;
    phases = new RestPhaseSource(*source, *new CreditFlush(cfg));
    hostSource = phases;
  }
  auto* host = new LegalHost("host", *wrapper, *hostSource, setup);

  if (cfg.SIM_TIME == sc_core::SC_ZERO_TIME) {
    sc_core::sc_start();
  } else {
    sc_core::sc_start(cfg.SIM_TIME);
  }

  RunResults results;
  results.version = VersionText();
  results.version.pop_back();
  results.seed = options.seed;
  results.simTimeNs = cfg.SIM_TIME.to_seconds() * 1e9;
  std::vector<std::string> violations;
  if (options.checkRest) {
    violations = DrainAndCheck(*wrapper, *host, *source, *phases, liveFlitsAtStart, results);
  } else {
    results.endTimeNs = sc_core::sc_time_stamp().to_seconds() * 1e9;
    host->CollectResults(results);
    source->FillResults(results);
    wrapper->DumpStats();
  }

  if (wantsStateDump) wrapper->cube->DumpState();
  PrintSummary(std::cout, results);
  if (options.checkRest) {
    for (const std::string& line : violations) std::cout << "zelsim: rest-state violation: " << line << '\n';
    if (violations.empty()) std::cout << "zelsim: rest state OK\n";
  }
  std::cout.flush();

  int status = results.Mismatches() == 0 && violations.empty() ? 0 : 1;
  if (json.is_open()) {
    if (options.checkRest) {
      std::ostringstream text;
      WriteJson(text, results);
      json << JsonWithRestState(text.str(), violations);
    } else {
      WriteJson(json, results);
    }
    json.close();
    if (json.fail()) {
      std::cerr << "zelsim: can't write JSON file '" << options.jsonFile << "'" << std::endl;
      status = 1;
    }
  }
  if (resultsOut != nullptr) *resultsOut = results;
  if (restOut != nullptr) {
    restOut->checked = options.checkRest;
    restOut->violations = violations;
  }
  return status;
}

}  // namespace Bench
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak
