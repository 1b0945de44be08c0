// SPDX-License-Identifier: Apache-2.0
#include "apps/zelsim/bench.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <limits>
#include <sstream>
#include <utility>
#include <vector>

#include "apps/zelsim/link_trace.h"
#include "apps/zelsim/progress.h"
#include "host/timeline.h"
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
  return kExitRefused;
}

std::string Num(uint64_t value) { return std::to_string(value); }

std::string NsText(const sc_core::sc_time& time) {
  std::ostringstream text;
  text << std::setprecision(10) << time.to_seconds() * 1e9;
  return text.str();
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

// A token variable of the environment, already checked to be a count.
bool TokenVariable(const char* variable, unsigned& value) {
  const char* text = std::getenv(variable);
  if (text == nullptr) return false;
  value = static_cast<unsigned>(std::strtoul(text, nullptr, 10));
  return true;
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

// --report: sends the process's standard output, where the model writes, to
// a file from Begin to End, at the level of the file descriptor, so that
// whatever the model prints, and however, lands there in its order.
class ModelOutput {
 public:
  ModelOutput() = default;
  ModelOutput(const ModelOutput&) = delete;
  ModelOutput& operator=(const ModelOutput&) = delete;
  ~ModelOutput() {
    End();
    if (file_ >= 0) close(file_);
  }
  bool Open(const std::string& path, std::string& error) {
    file_ = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (file_ < 0) error = "can't write report file '" + path + "'";
    return file_ >= 0;
  }
  void Begin() {
    if (file_ < 0 || saved_ >= 0) return;
    Flush();
    saved_ = dup(STDOUT_FILENO);
    dup2(file_, STDOUT_FILENO);
  }
  void End() {
    if (saved_ < 0) return;
    Flush();
    dup2(saved_, STDOUT_FILENO);
    close(saved_);
    saved_ = -1;
  }

 private:
  static void Flush() {
    std::cout.flush();
    std::fflush(stdout);
  }
  int file_ = -1;
  int saved_ = -1;  // the standard output of before, while the file stands in
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
  return host.pausedAtDrain && !host.deadlocked;
}

// ---- Ends that are not a finished run

// The model ends the program with exit(0) on some broken rules, which would
// pass for a clean run. From the cube's construction until RunZelsim
// returns, an exit handler turns such an end into its own status.
enum class RunState { NotStarted, Simulating, Finished };
RunState runState = RunState::NotStarted;

void CatchModelStop() {
  if (runState != RunState::Simulating) return;
  std::cout.flush();
  std::fflush(stdout);
  std::fputs("zelsim: the model stopped the run\n", stderr);
  std::fflush(stderr);
  _exit(kExitModelStopped);
}

// Arms the exit handler for as long as it lives.
class ModelStopGuard {
 public:
  ModelStopGuard() {
    static const bool registered = std::atexit(CatchModelStop) == 0;
    (void)registered;
    runState = RunState::Simulating;
  }
  ~ModelStopGuard() { runState = RunState::Finished; }
  ModelStopGuard(const ModelStopGuard&) = delete;
  ModelStopGuard& operator=(const ModelStopGuard&) = delete;
};

// The watchdog's end: one line on standard output and standard error, and
// the state of the cube as the deadlock left it.
int ReportDeadlock(Cube2in1Wrapper& wrapper, const LegalHost& host) {
  std::ostringstream line;
  line << "zelsim: deadlock: no flit moved for " << NsText(host.setup.deadlockTimeout) << " ns with "
       << host.RequestsOutstanding() << " requests outstanding";
  std::cout << line.str() << " (last flit at " << NsText(host.lastFlitMove) << " ns, stopped at "
            << NsText(sc_core::sc_time_stamp()) << " ns); state of the cube:" << std::endl;
  wrapper.cube->DumpState();
  std::cout.flush();
  std::cerr << line.str() << std::endl;
  return kExitDeadlock;
}

// What the host, the generators and the timeline found up to now, the end
// of the run as the summary counts it.
void CollectRun(const LegalHost& host, const GeneratorSource& source, Timeline* timeline,
                RunResults& results) {
  results.endTimeNs = static_cast<double>(sc_core::sc_time_stamp().value()) / 1000;
  host.CollectResults(results);
  source.FillResults(results);
  if (timeline != nullptr) timeline->Finish(sc_core::sc_time_stamp().value());
}

std::string LimitText(const sc_core::sc_time& limit) {
  return std::to_string(static_cast<uint64_t>(limit.to_seconds() * 1e9 + 0.5)) + " ns";
}

// The end of a --check-rest run, once the generators are done or SIM_TIME is
// up: the model's report for the traffic, the drain of what is still under
// way, the results, the credit flush, a pause to settle, and the check.
std::vector<std::string> DrainAndCheck(Cube2in1Wrapper& wrapper, LegalHost& host, GeneratorSource& source,
                                       RestPhaseSource& phases, int64_t liveFlitsAtStart, Timeline* timeline,
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
    // The watchdog has stopped the kernel for good.
    if (host.deadlocked) return problems;
    if (!drained)
      problems.push_back("host: traffic still under way " + LimitText(kDrainLimit) + " after SIM_TIME");
  }
  CollectRun(host, source, timeline, results);
  results.drained = drainedBySelf;

  // The flush's writes are checked like any other request.
  bool flushed = false;
  if (drained) {
    phases.phase = RestPhaseSource::Phase::Flush;
    flushed = RunUntilDrained(host, kDrainLimit);
    if (host.deadlocked) return problems;
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

// ---- Limits of the cube ------------------------------------------------------------

// What the run's traffic can ask of the cube at most: the generators' mix
// (anything at all when traces are replayed), and the 16-byte writes of the
// --check-rest credit flush.
struct TrafficBounds {
  unsigned readSizes = 0;  // bit i set: reads of 16 (i + 1) bytes can occur
  unsigned largestRead = 0;
  unsigned largestWrite = 16;
};

TrafficBounds BoundsOfTraffic(const Config& cfg) {
  TrafficBounds bounds;
  if (cfg.USE_TRACE) {
    bounds.readSizes = 0xff;
    bounds.largestRead = 128;
    bounds.largestWrite = 128;
    return bounds;
  }
  const TrafficSettings traffic = TrafficSettings::FromConfig(cfg, cfg.NUM_LINKS);
  if (traffic.atomics && traffic.atomicsPercent >= 100) return bounds;
  for (unsigned i = 0; i < 8; ++i) {
    const unsigned bytes = 16 * (i + 1);
    if (traffic.percentRead > 0 && traffic.readWeights[i] > 0) {
      bounds.readSizes |= 1u << i;
      bounds.largestRead = bytes;
    }
    if (traffic.percentRead < 100 && traffic.writeWeights[i] > 0) bounds.largestWrite = bytes;
  }
  return bounds;
}

// Flits of the largest request packet (a write, or the two flits of an
// atomic or of a flush write) and of the largest response packet.
unsigned LargestRequestFlits(const TrafficBounds& b) { return b.largestWrite / 16 + 1; }
unsigned LargestResponseFlits(const TrafficBounds& b) {
  return b.largestRead == 0 ? 1 : b.largestRead / 16 + 1;
}

// The link switch asks for two write credits before it passes any flit of a
// write, the tail included, and by the tail it has spent one for each flit
// before it: a write of L bytes gets through only with L / 16 + 2 places of
// the controller's data queue free.
unsigned WriteCreditsToPass(unsigned bytes) { return bytes / 16 + 2; }

// The vault switch's fixed limits: it holds back from its link master at 7
// credits or fewer, and from another quad at 10 or fewer. Below these it
// stops rearming itself for that destination, and only a returning credit
// wakes it again.
constexpr unsigned kLinkMasterShortCredits = 7;
constexpr unsigned kPeerShortCredits = 10;

// Credits of a vault that the vault switch may keep back after one packet:
// it moves up to FLITS_PER_CYCLE_VSW flits of a vault per cycle into the
// smoothing buffers, but returns at most FLITS_OUT_PER_CYCLE_VC credits per
// pulse, and pulses only while flits move.
unsigned ParkedCredits(const Config& cfg, unsigned packetFlits) {
  const unsigned moved = cfg.FLITS_PER_CYCLE_VSW;
  const unsigned returned = cfg.FLITS_OUT_PER_CYCLE_VC;
  if (moved <= returned || moved == 0) return 0;
  return (packetFlits + moved - 1) / moved * (moved - returned);
}

// Column accesses of a read of `bytes` at an even column, as the vault
// controller counts them.
unsigned ColumnAccesses(unsigned bytes, unsigned accessLength) {
  return bytes / accessLength + (bytes % accessLength != 0 ? 1 : 0);
}

// The checks of configurations that the cube can't run to the end, which
// would otherwise deadlock, stop on a model error or run out of its
// buffers. `built` is the configuration the cube is built with, `cfg` the
// one it runs with: the setters' and the token variables' effects included.
bool CheckModelLimits(const Config& built, const Config& cfg, std::string& error) {
  auto refuse = [&](const std::string& key, const std::string& why) {
    error = "key " + key + ": " + why;
    return false;
  };
  auto atLeast = [&](const char* key, unsigned value, unsigned minimum, const std::string& why) {
    if (value >= minimum) return true;
    return refuse(key, Num(value) + " is below " + Num(minimum) + ": " + why);
  };

  // Shape.
  if (cfg.NUM_QUADS != 4) {
    return refuse("NUM_QUADS", Num(cfg.NUM_QUADS) +
                                   " quads; the vault switches pair quads 0 with 3 and 1 with 2 and know the "
                                   "link master as source 3, so traffic needs exactly 4 quads");
  }
  if (cfg.VAULTS_PER_QUAD == 0 || cfg.VAULTS_PER_QUAD > cfg.NUM_QUADS) {
    return refuse("VAULTS_PER_QUAD",
                  Num(cfg.VAULTS_PER_QUAD) + " is not from 1 to NUM_QUADS (" + Num(cfg.NUM_QUADS) +
                      "): a link switch turns another quad's requests over NUM_QUADS local vaults only, so "
                      "requests to the others would wait for ever");
  }
  if (cfg.NUM_VAULTS != cfg.NUM_QUADS * cfg.VAULTS_PER_QUAD) {
    return refuse("NUM_VAULTS", Num(cfg.NUM_VAULTS) + " vaults, but NUM_QUADS x VAULTS_PER_QUAD build " +
                                    Num(cfg.NUM_QUADS * cfg.VAULTS_PER_QUAD) +
                                    "; addresses must map onto the vaults that exist");
  }
  if (cfg.FLIT_SIZE != 16) {
    return refuse("FLIT_SIZE", Num(cfg.FLIT_SIZE) +
                                   " bytes; the vault controllers check lengths in steps of 16 bytes and "
                                   "answer with one flit per 16 bytes, so flits must be 16 bytes");
  }

  // Ports and lanes.
  const std::string noFlits = "a block that passes no flits per cycle stops all traffic";
  if (!atLeast("FLITS_PER_CYCLE_LINK", cfg.FLITS_PER_CYCLE_LINK, 1, noFlits) ||
      !atLeast("FLITS_PER_CYCLE_LSW", cfg.FLITS_PER_CYCLE_LSW, 1, noFlits) ||
      !atLeast("FLITS_PER_CYCLE_LSW_REMOTE", cfg.FLITS_PER_CYCLE_LSW_REMOTE, 1, noFlits) ||
      !atLeast("FLITS_PER_CYCLE_VSW", cfg.FLITS_PER_CYCLE_VSW, 1, noFlits) ||
      !atLeast("FLITS_IN_PER_CYCLE_VC", cfg.FLITS_IN_PER_CYCLE_VC, 1, noFlits) ||
      !atLeast("FLITS_OUT_PER_CYCLE_VC", cfg.FLITS_OUT_PER_CYCLE_VC, 2,
               "a vault controller sends the last two flits of a read response at once, on two ports")) {
    return false;
  }
  if (cfg.FLITS_PER_CYCLE_LSW > cfg.FLITS_PER_CYCLE_LINK) {
    return refuse("FLITS_PER_CYCLE_LSW",
                  Num(cfg.FLITS_PER_CYCLE_LSW) + " is above FLITS_PER_CYCLE_LINK (" +
                      Num(cfg.FLITS_PER_CYCLE_LINK) +
                      "): a link numbers the flits it buffers over FLITS_PER_CYCLE_LSW "
                      "lanes, one port to its link switch each");
  }
  // The links compute their rates when they are built, before the host's
  // setters change them.
  if (!(built.LINK_SPEED > 0.0f) || !(cfg.LINK_SPEED > 0.0f)) {
    return refuse("LINK_SPEED", "a link needs a speed above 0 Gb/s per lane");
  }
  const unsigned widths[4] = {cfg.LINK_0_WIDTH, cfg.LINK_1_WIDTH, cfg.LINK_2_WIDTH, cfg.LINK_3_WIDTH};
  const bool fromOptions = cfg.LINK_SPEED != built.LINK_SPEED || cfg.LINK_0_WIDTH != built.LINK_0_WIDTH ||
                           cfg.LINK_1_WIDTH != built.LINK_1_WIDTH || cfg.LINK_2_WIDTH != built.LINK_2_WIDTH ||
                           cfg.LINK_3_WIDTH != built.LINK_3_WIDTH;
  for (unsigned link = 0; link < cfg.NUM_LINKS && link < 4; ++link) {
    const std::string key =
        "LINK_" + Num(link) + "_WIDTH" + (fromOptions ? " (as --link-rate and --lanes set it)" : "");
    const sc_core::sc_time flitTime = FlitTimeOnLink(cfg.FLIT_SIZE, widths[link], cfg.LINK_SPEED);
    const unsigned perCycle =
        flitTime == sc_core::SC_ZERO_TIME
            ? std::numeric_limits<unsigned>::max()
            : FlitsPerCoreCycle(cfg.CORE_CLK, flitTime, std::numeric_limits<unsigned>::max());
    std::ostringstream speed;
    speed << cfg.LINK_SPEED;
    const std::string lanes = Num(widths[link]) + " lanes at " + speed.str() + " Gb/s";
    if (perCycle > cfg.FLITS_PER_CYCLE_LINK) {
      return refuse(key, lanes + " carry " +
                             (flitTime == sc_core::SC_ZERO_TIME ? std::string("unlimited") : Num(perCycle)) +
                             " flits per core cycle, more than the link's FLITS_PER_CYCLE_LINK (" +
                             Num(cfg.FLITS_PER_CYCLE_LINK) + ") ports to its link switch");
    }
    if (cfg.FLITS_PER_CYCLE_LSW != 1 && cfg.FLITS_PER_CYCLE_LSW < perCycle) {
      return refuse("FLITS_PER_CYCLE_LSW",
                    Num(cfg.FLITS_PER_CYCLE_LSW) + " is neither 1 nor at least the " + Num(perCycle) +
                        " flits per core cycle of link " + Num(link) + " (" + lanes +
                        "): flits the link can't pass on in their cycle keep their lanes and reach the link "
                        "switch out of order");
    }
  }

  // Tokens between host and cube.
  const TrafficBounds traffic = BoundsOfTraffic(cfg);
  const unsigned requestFlits = LargestRequestFlits(traffic);
  const unsigned responseFlits = LargestResponseFlits(traffic);
  if (!atLeast("MAX_TOKEN_RETURN", cfg.MAX_TOKEN_RETURN, 1,
               "a link that may hand back no token per flit never gives the host any") ||
      !atLeast("TOKENS_PER_LINK", cfg.TOKENS_PER_LINK, requestFlits,
               "the host sends a request packet only with a token for each flit, and the largest has " +
                   Num(requestFlits) + " flits")) {
    return false;
  }
  if (!cfg.RESPONSE_OPEN_LOOP && cfg.BFM_TOKENS_PER_LINK < responseFlits) {
    return refuse("BFM_TOKENS_PER_LINK",
                  "the host grants " + Num(cfg.BFM_TOKENS_PER_LINK) + " response tokens per link (" +
                      "BFM_TOKENS_PER_LINK, else ZEL_BFM_NUM_TOKENS, else TOKENS_PER_LINK), fewer than the " +
                      Num(responseFlits) +
                      " flits of the largest response packet, which a link master sends only with a token "
                      "for each");
  }

  // Link master and vault switch.
  if (!atLeast("LINK_MASTER_BUFFER_SIZE", cfg.LINK_MASTER_BUFFER_SIZE,
               kLinkMasterShortCredits + responseFlits,
               "a link master sends only whole packets, and the vault switch holds back from it at " +
                   Num(kLinkMasterShortCredits) + " free places or fewer, so it needs " +
                   Num(kLinkMasterShortCredits) + " places beyond the largest response packet (" +
                   Num(responseFlits) + " flits)") ||
      !atLeast("VSW_INTERQUAD_BUFFER_SIZE", cfg.VSW_INTERQUAD_BUFFER_SIZE, kPeerShortCredits + 1,
               "a vault switch holds back from another quad at " + Num(kPeerShortCredits) +
                   " credits or fewer and wakes again only on a returning credit, so with all its credits "
                   "home it must have more than that") ||
      !atLeast("SMOOTHING_BUFFER_LM_SIZE", cfg.SMOOTHING_BUFFER_LM_SIZE, 1, "responses pass through it") ||
      !atLeast("SMOOTHING_BUFFER_Q_SIZE", cfg.SMOOTHING_BUFFER_Q_SIZE, 1,
               "responses to other quads pass through it") ||
      !atLeast("LSW_INTERQUAD_BUFFER_SIZE", cfg.LSW_INTERQUAD_BUFFER_SIZE, 1,
               "requests to other quads pass through it")) {
    return false;
  }

  // Vault controller.
  const unsigned largestRequest = std::max(traffic.largestRead, traffic.largestWrite);
  const unsigned readCredits = responseFlits;
  if (!atLeast("TRANSACTION_Q_CAPACITY", cfg.TRANSACTION_Q_CAPACITY, 1,
               "a vault controller must take requests") ||
      !atLeast("REQUEST_Q_CAPACITY", cfg.REQUEST_Q_CAPACITY, 1,
               "a vault controller must hold a transaction's commands") ||
      !atLeast("DATA_Q_CAPACITY", cfg.DATA_Q_CAPACITY, WriteCreditsToPass(traffic.largestWrite),
               "the link switch wants 2 free places of the data queue before each flit of a write, the tail "
               "included, so a " +
                   Num(traffic.largestWrite) + "-byte write needs " +
                   Num(WriteCreditsToPass(traffic.largestWrite))) ||
      !atLeast("WRITE_CREDITS_PER_CYCLE", cfg.WRITE_CREDITS_PER_CYCLE, 1,
               "a vault controller that returns no write credit per cycle never returns any") ||
      !atLeast("MAX_REQUEST_SIZE", cfg.MAX_REQUEST_SIZE, largestRequest,
               "a vault controller stops the run on a longer request, and the traffic has " +
                   Num(largestRequest) + "-byte requests") ||
      !atLeast(
          "CREDITS_FOR_PROCESSING", cfg.CREDITS_FOR_PROCESSING, readCredits,
          "a vault controller takes a request only with this many response credits, which must cover the "
          "largest response (" +
              Num(readCredits) + " flits)")) {
    return false;
  }
  if (cfg.CREDITS_FOR_PROCESSING > cfg.VSW_RESPONSE_BUFFER_SIZE) {
    return refuse("CREDITS_FOR_PROCESSING", Num(cfg.CREDITS_FOR_PROCESSING) +
                                                " is above VSW_RESPONSE_BUFFER_SIZE (" +
                                                Num(cfg.VSW_RESPONSE_BUFFER_SIZE) +
                                                "): a vault controller would wait for more response credits "
                                                "than there are");
  }
  const unsigned parked = ParkedCredits(cfg, responseFlits);
  if (!atLeast("VSW_RESPONSE_BUFFER_SIZE", cfg.VSW_RESPONSE_BUFFER_SIZE, cfg.CREDITS_FOR_PROCESSING + parked,
               "a vault controller takes a request only with CREDITS_FOR_PROCESSING (" +
                   Num(cfg.CREDITS_FOR_PROCESSING) +
                   ") response credits home, and the vault switch may keep " + Num(parked) +
                   " of them back after a " + Num(responseFlits) +
                   "-flit response (FLITS_PER_CYCLE_VSW flits move per cycle, FLITS_OUT_PER_CYCLE_VC credits "
                   "go back) until flits move again")) {
    return false;
  }
  if (cfg.COLUMN_ACCESS_LENGTH == 0) {
    return refuse("COLUMN_ACCESS_LENGTH", "a column access must carry bytes");
  }
  for (unsigned i = 0; i < 8; ++i) {
    const unsigned bytes = 16 * (i + 1);
    if ((traffic.readSizes & (1u << i)) == 0) continue;
    // Each column access brings two data beats, and each beat one flit of
    // the response; the last beat brings the tail as well.
    if (2 * ColumnAccesses(bytes, cfg.COLUMN_ACCESS_LENGTH) < bytes / 16) {
      return refuse("COLUMN_ACCESS_LENGTH",
                    Num(cfg.COLUMN_ACCESS_LENGTH) + " bytes per access give a " + Num(bytes) + "-byte read " +
                        Num(2 * ColumnAccesses(bytes, cfg.COLUMN_ACCESS_LENGTH)) +
                        " data beats, fewer than the " + Num(bytes / 16) + " its response needs");
    }
  }

  // DRAM command grid: row commands go on CORE_CLK edges, column commands
  // on the tCMD slots between them.
  const uint64_t clock = cfg.CORE_CLK.value();
  const uint64_t slot = cfg.tCMD.value();
  if (slot == 0 || clock % slot != 0 || clock / slot < 2) {
    return refuse("tCMD",
                  NsText(cfg.tCMD) + " ns; CORE_CLK (" + NsText(cfg.CORE_CLK) +
                      " ns) must be a whole multiple of it, at least 2: row commands issue on the core "
                      "clock's edges and column commands only on the tCMD slots between them");
  }
  return true;
}

}  // namespace

void ApplyHostSetup(const HostSetup& setup, Config& cfg) {
  unsigned fromEnvironment = 0;
  if (TokenVariable("LIBZEL_NUM_TOKENS", fromEnvironment)) cfg.TOKENS_PER_LINK = fromEnvironment;
  const unsigned cubeAtStart = cfg.TOKENS_PER_LINK;
  if (setup.cubeTokens != 0) cfg.TOKENS_PER_LINK = setup.cubeTokens;
  unsigned hostTokens = cubeAtStart;
  if (TokenVariable("ZEL_BFM_NUM_TOKENS", fromEnvironment)) hostTokens = fromEnvironment;
  if (setup.hostTokensGiven) hostTokens = setup.hostTokens;
  cfg.BFM_TOKENS_PER_LINK = hostTokens != 0 ? hostTokens : cfg.TOKENS_PER_LINK;
  if (setup.linkRate != 0 && setup.lanes != 0) {
    cfg.LINK_SPEED = static_cast<float>(setup.linkRate) / 4.0f;
    cfg.LINK_0_WIDTH = cfg.LINK_1_WIDTH = cfg.LINK_2_WIDTH = cfg.LINK_3_WIDTH = setup.lanes;
  }
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

bool CheckBenchSettings(const Config& cfg, const HostSetup& setup, std::string& error, bool modelLimits) {
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
  if (!modelLimits) return true;
  Config running = cfg;
  ApplyHostSetup(setup, running);
  return CheckModelLimits(cfg, running, error);
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

  HostSetup setup;
  setup.messagePrefix = "zelsim";
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
  if (!CheckBenchSettings(planned, setup, error, options.configGuards)) return Refuse(error);

  std::vector<std::vector<TraceEntry>> traces;
  if (planned.USE_TRACE) {
    for (unsigned g = 0; g < planned.NUM_GENERATORS; ++g) {
      traces.emplace_back();
      if (!ReadTrace(TraceFileName(planned, g), traces.back(), error)) {
        return Refuse(error + " (TRACE_FILENAME_" + std::to_string(g) + ")");
      }
    }
  }
  setup.deadlockTimeout = sc_core::sc_time(static_cast<double>(options.deadlockTimeoutNs), sc_core::SC_NS);
  setup.tokenReturnWait = options.tokenReturnWait;
  const auto dumpState = overlay.find("DUMP_STATE");
  const bool wantsStateDump =
      options.dumpState || (dumpState != overlay.end() && dumpState->second.value == "true");

  // Every output file is opened before the cube is built, so that a name
  // that can't be written stops zelsim with nothing simulated.
  std::ofstream json;
  std::ofstream timelineFile;
  std::ofstream responsesFile;
  std::ofstream vcdProbe;
  const struct {
    std::ofstream& file;
    const std::string& name;
    const char* what;
  } outputs[] = {{json, options.jsonFile, "JSON"},
                 {timelineFile, options.timelineFile, "timeline"},
                 {responsesFile, options.responsesFile, "responses"},
                 {vcdProbe, options.vcdFile, "VCD"}};
  for (const auto& output : outputs) {
    if (output.name.empty()) continue;
    output.file.open(output.name, std::ios::out | std::ios::trunc);
    if (!output.file.is_open())
      return Refuse(std::string("can't write ") + output.what + " file '" + output.name + "'");
  }
  vcdProbe.close();
  ModelOutput modelOutput;
  if (!options.reportFile.empty() && !modelOutput.Open(options.reportFile, error)) return Refuse(error);
  uint64_t plannedRequests = 0;
  if (planned.USE_TRACE) {
    for (const std::vector<TraceEntry>& trace : traces)
      plannedRequests += std::min<uint64_t>(trace.size(), planned.NUM_REQUESTS);
  } else {
    plannedRequests = uint64_t{planned.NUM_GENERATORS} * planned.NUM_REQUESTS;
  }

  RunResults results;
  results.version = VersionText();
  results.version.pop_back();
  results.seed = options.seed;
  results.corrections = options.corrections;
  results.numGenerators = planned.NUM_GENERATORS;
  results.numRequests = planned.NUM_REQUESTS;
  results.traces = planned.USE_TRACE;

  // From here on the model writes: its start-up lines come as the cube is
  // built and its links are turned on.
  modelOutput.Begin();
  // The library reads its configuration from the environment, so the keys
  // resolved here reach it as a file of their own.
  Cube2in1Wrapper* wrapper = nullptr;
  const int64_t liveFlitsAtStart = Flit::liveRequestsAndResponses;
  const ModelStopGuard modelStopGuard;
  {
    ConfigFileForLibrary configFile;
    if (!overlay.empty() && !configFile.Write(overlay, error)) return Refuse(error);
    // Modules live as long as the process, as the model's own do.
    wrapper = new Cube2in1Wrapper("wrapper");
  }
  // --correct adds to what LIBZEL_CORRECTIONS chose; the JSON names all that are on.
  Corrections corrections = wrapper->cube->cfg.corrections;
  for (const std::string& name : options.corrections) corrections.Enable(name);
  wrapper->setCorrections(corrections);
  results.corrections = corrections.List();
  const Config& cfg = wrapper->cube->cfg;
  const unsigned links = static_cast<unsigned>(wrapper->drivers.size());

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
  Timeline* timeline = nullptr;
  if (timelineFile.is_open()) {
    timeline = new Timeline(timelineFile, options.intervalNs * 1000, links);
    host->observers.push_back(timeline);
  }
  LinkVcd* vcd = nullptr;
  if (!options.vcdFile.empty()) {
    vcd = new LinkVcd(options.vcdFile, links);
    host->observers.push_back(vcd);
  }
  if (responsesFile.is_open()) host->observers.push_back(new ResponseLog(responsesFile));
  ProgressDisplay* progress = nullptr;
  if (options.progress == ProgressMode::On ||
      (options.progress == ProgressMode::Auto && isatty(STDERR_FILENO) != 0)) {
    progress = new ProgressDisplay(*host, std::cerr, cfg.SIM_TIME, plannedRequests);
    host->observers.push_back(progress);
  }

  const auto wallStart = std::chrono::steady_clock::now();
  if (cfg.SIM_TIME == sc_core::SC_ZERO_TIME) {
    sc_core::sc_start();
  } else {
    sc_core::sc_start(cfg.SIM_TIME);
  }
  if (progress != nullptr) progress->Finish();

  results.simTimeNs = static_cast<double>(cfg.SIM_TIME.value()) / 1000;
  std::vector<std::string> violations;
  if (!host->deadlocked) {
    if (options.checkRest) {
      violations = DrainAndCheck(*wrapper, *host, *source, *phases, liveFlitsAtStart, timeline, results);
    } else {
      CollectRun(*host, *source, timeline, results);
      wrapper->DumpStats();
    }
  }
  const bool deadlocked = host->deadlocked;
  int status = kExitClean;
  if (deadlocked) {
    // The figures as the watchdog found them; no summary.
    CollectRun(*host, *source, timeline, results);
    status = ReportDeadlock(*wrapper, *host);
  } else if (wantsStateDump) {
    wrapper->cube->DumpState();
  }
  results.wallSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - wallStart).count();
  results.restViolations = violations;
  // A deadlock cut the check short: there is no rest state to tell of.
  results.restChecked = options.checkRest && !deadlocked;
  modelOutput.End();

  if (!deadlocked) {
    PrintSummary(std::cout, results);
    if (options.checkRest) {
      for (const std::string& line : violations)
        std::cout << "zelsim: rest-state violation: " << line << '\n';
      if (violations.empty()) std::cout << "zelsim: rest state OK\n";
    }
    std::cout.flush();
    status = results.Mismatches() == 0 && violations.empty() ? kExitClean : kExitMismatch;
  }
  if (!options.reportFile.empty()) {
    std::cerr << "zelsim: the model's report is in '"
              << std::filesystem::absolute(options.reportFile).string() << "'" << std::endl;
  }

  // Files that fail at the end turn a clean run into status 1.
  auto failed = [&](const std::string& what, const std::string& name) {
    std::cerr << "zelsim: can't write " << what << " file '" << name << "'" << std::endl;
    if (status == kExitClean) status = kExitMismatch;
  };
  if (json.is_open()) {
    WriteJson(json, results, cfg);
    json.close();
    if (json.fail()) failed("JSON", options.jsonFile);
  }
  for (const auto& output : outputs) {
    if (&output.file == &json || !output.file.is_open()) continue;
    output.file.close();
    if (output.file.fail()) failed(output.what, output.name);
  }
  if (vcd != nullptr && !vcd->Close()) failed("VCD", options.vcdFile);
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
