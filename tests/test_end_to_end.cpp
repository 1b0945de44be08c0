// SPDX-License-Identifier: Apache-2.0
// Whole cubes driven by the legal host of the zelsim bench: the first reads
// and writes from every link to every quad, full-rate random traffic for
// 100 us, and the rest state after each run: queues empty, credits and
// tokens back at their start, no flit left alive.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <systemc>
#include <vector>

#include "apps/zelsim/bench.h"
#include "apps/zelsim/generator.h"
#include "apps/zelsim/host.h"
#include "apps/zelsim/rest_state.h"
#include "test_support.h"
#include "zel2/2in1Wrapper.h"
#include "zel2/zel2_cube.h"
#include "zel2/zel2_link.h"
#include "zel2/zel2_link_switch.h"
#include "zel2/zel2_quad.h"
#include "zel2/zel2_slice.h"
#include "zel2/zel2_vault_controller.h"
#include "zel2/zel2_vault_switch.h"

using namespace Sornak::Internal::ZEL2;
using namespace Sornak::Internal::ZEL2::Bench;

namespace {

// A fixed list of requests, all queued at the first cycle, one queue per link.
class ListSource : public RequestSource {
 public:
  explicit ListSource(std::vector<Request> requests) : requests_(std::move(requests)) {}
  void Refill(LegalHost& host, uint64_t) override {
    if (built_) return;
    std::vector<unsigned> queues;
    for (std::size_t l = 0; l < host.links.size(); ++l)
      queues.push_back(host.AddQueue(static_cast<unsigned>(requests_.size())));
    for (const Request& r : requests_) host.Enqueue(queues[r.link], r);
    built_ = true;
  }
  bool Exhausted() const override { return built_; }

 private:
  std::vector<Request> requests_;
  bool built_ = false;
};

std::string Joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) text += line + "\n";
  return text;
}

// A cube on the compiled defaults with a legal host that pauses when all its
// traffic is back.
struct HostedCube {
  explicit HostedCube(std::vector<Request> requests, HostSetup setup = HostSetup())
      : source(std::move(requests)) {
    zelsim_test::ClearModelEnvironment();
    liveAtStart = Flit::liveRequestsAndResponses;
    wrapper = new Cube2in1Wrapper("wrapper");
    cfg = &wrapper->cube->cfg;
    flush = new CreditFlush(*cfg);
    phases = new RestPhaseSource(source, *flush);
    setup.stopWhenDrained = false;
    setup.pauseWhenDrained = true;
    host = new LegalHost("host", *wrapper, *phases, setup);
  }
  // Runs until the host has all its traffic back, then lets the last credit
  // pulses arrive.
  bool RunToRest() {
    sc_core::sc_start(sc_core::sc_time(50, sc_core::SC_US));
    const bool drained = host->pausedAtDrain;
    sc_core::sc_start(CycleDelay(*cfg, 1000));
    return drained;
  }
  std::vector<std::string> Check(bool vaultCreditsReturned) const {
    RestExpectations expect;
    expect.liveFlitsAtStart = liveAtStart;
    expect.vaultCreditsReturned = vaultCreditsReturned;
    return CheckRestState(*wrapper, *host, expect);
  }
  void ExpectAtRest(bool vaultCreditsReturned) const {
    const std::vector<std::string> found = Check(vaultCreditsReturned);
    EXPECT_TRUE(found.empty()) << Joined(found);
  }
  zel2_quad& Quad(unsigned q) const { return *wrapper->cube->quads[q]; }

  // Sends the credit flush and lets the cube come to rest after it.
  bool FlushToRest() {
    phases->phase = RestPhaseSource::Phase::Flush;
    return RunToRest();
  }

  ListSource source;
  CreditFlush* flush = nullptr;
  RestPhaseSource* phases = nullptr;
  int64_t liveAtStart = 0;
  Cube2in1Wrapper* wrapper = nullptr;
  LegalHost* host = nullptr;
  const Config* cfg = nullptr;
};

// From link l to vault l of every quad q (cube-wide vault 4q + l): a 64-byte
// read and a 32-byte write, in different rows.
std::vector<Request> OneReadAndWriteEverywhere() {
  const Config defaults;
  const uint64_t block = defaults.MAX_BLOCK_SIZE;
  const uint64_t stride = block * defaults.NUM_VAULTS;
  std::vector<Request> requests;
  for (unsigned link = 0; link < 4; ++link) {
    for (unsigned quad = 0; quad < 4; ++quad) {
      const unsigned vault = quad * defaults.VAULTS_PER_QUAD + link;
      requests.push_back(Request{RD, vault * block, 64, link});
      requests.push_back(Request{WR, vault * block + 1000 * stride, 32, link});
    }
  }
  return requests;
}

bool HasLine(const std::vector<std::string>& lines, const std::string& text) {
  for (const std::string& line : lines)
    if (line.find(text) != std::string::npos) return true;
  return false;
}

// Runs zelsim in this process with --check-rest, `options` and the given
// keys, and expects a clean run that leaves the cube at rest. Its standard
// output is kept out of the test log.
RunResults RunCleanToRest(const std::vector<std::string>& sets, std::vector<std::string> options = {}) {
  zelsim_test::ClearModelEnvironment();
  RunResults results;
  RestReport rest;
  std::string out;
  options.push_back("--check-rest");
  for (const std::string& set : sets) options.insert(options.end(), {"--set", set});
  const int status = zelsim_test::RunCommand(
      [&](int argc, const char* const* argv) { return RunZelsim(argc, argv, &results, &rest); }, options,
      &out);
  EXPECT_EQ(status, kExitClean);
  EXPECT_TRUE(rest.checked);
  EXPECT_TRUE(rest.violations.empty()) << Joined(rest.violations);
  EXPECT_NE(out.find("zelsim: rest state OK\n"), std::string::npos);
  EXPECT_EQ(out.find("rest-state violation"), std::string::npos);
  const LinkResults total = results.Total();
  EXPECT_EQ(total.mismatches, 0u);
  EXPECT_EQ(total.outstanding, 0u);
  EXPECT_EQ(total.completed + total.posted, total.issued);
  for (const GeneratorResults& g : results.generators) EXPECT_EQ(g.issued, g.generated);
  return results;
}

}  // namespace

// ---- The first requests ------------------------------------------------------

TEST(EndToEnd, OneReadAndOneWriteFromEveryLinkToEveryQuadAndTheRestCheck) {
  HostedCube bench(OneReadAndWriteEverywhere());
  ASSERT_TRUE(bench.RunToRest());

  // The host matches every response to its request by tag and checks its
  // command (RD_RSP, WR_RSP), flit count and address.
  for (const LegalHost::HostLink& link : bench.host->links) {
    SCOPED_TRACE("link " + std::to_string(link.number));
    EXPECT_EQ(link.stats.mismatches, 0u);
    EXPECT_EQ(link.stats.reads, 4u);
    EXPECT_EQ(link.stats.writes, 4u);
    EXPECT_EQ(link.stats.completed, 8u);
    EXPECT_EQ(link.stats.latency.count, 8u);
    EXPECT_EQ(link.stats.bytesRead, 4u * 64u);
    // Four reads of 5 flits and four single-flit write responses.
    EXPECT_EQ(link.stats.responseFlits, 4u * 5u + 4u);
    EXPECT_EQ(link.stats.requestFlits, 4u * 1u + 4u * 3u);
    EXPECT_TRUE(link.outstanding.empty());
  }
  // Each vault saw exactly its read and its write.
  const StatsKeeper& stats = bench.wrapper->cube->stats;
  for (unsigned v = 0; v < 16; ++v) {
    EXPECT_EQ(stats.vaultReads[v], 1u) << "vault " << v;
    EXPECT_EQ(stats.vaultWrites[v], 1u) << "vault " << v;
  }
  // At rest, parked vault switch credits aside.
  bench.ExpectAtRest(false);
  EXPECT_EQ(Flit::liveRequestsAndResponses, bench.liveAtStart);

  // The rest check finds a counter, a queue or a flit out of place, names
  // it, and leaves the model as it was.
  zel2_quad& quad1 = bench.Quad(1);
  zel2_quad& quad2 = bench.Quad(2);
  zel2_vault_controller& vc9 = *quad2.slices[1]->vaultController;
  Flit* lost = new Flit(7, 0x80, WR_RSP, 16, true, true, 1);
  // Each fault moves one thing by `step` and names it; -1 puts it back.
  const std::pair<std::function<void(int)>, const char*> faults[] = {
      {[&](int step) { quad1.lsw->writeCredits[3] -= step; },
       "lsw1: writeCredits[3] is 52, expected 53 (DATA_Q_CAPACITY)"},
      {[&](int step) { quad2.vsw->returnCredits[4] += step; },  // owed to peer 0
       "vsw2: returnCredits[4] is 1, expected 0"},
      {[&](int step) { vc9.responseCredits -= 2 * step; }, "vaultController9: responseCredits "},
      {[&](int step) { bench.Quad(3).link->tokenCount += step; }, "link3: tokenCount is "},
      {[&](int step) { quad1.link->returnTokenCount += 5 * step; },
       "link1: returnTokenCount is 5, expected 0"},
      {[&](int step) { bench.host->links[0].requestTokens -= 5 * step; },
       "host link 0: request tokens held is 95, expected 100"},
      {[&](int step) {
         if (step > 0) quad2.vsw->smoothingBuffers[0].push_back(Flit_P(lost));
         if (step < 0) quad2.vsw->smoothingBuffers[0].clear();
       },
       "vsw2: smoothingBuffers[0] holds 1 entry, first "},
  };
  for (const auto& fault : faults) fault.first(1);
  const std::vector<std::string> found = bench.Check(false);
  for (const auto& fault : faults) EXPECT_TRUE(HasLine(found, fault.second)) << Joined(found);
  EXPECT_TRUE(HasLine(found, "flits: Flit::liveRequestsAndResponses is 1, expected 0")) << Joined(found);
  EXPECT_EQ(found.size(), 8u) << Joined(found);

  // Put back, the cube is at rest again: the check changed nothing.
  for (const auto& fault : faults) fault.first(-1);
  delete lost;
  bench.ExpectAtRest(false);

  // A parked vault credit is allowed only before the flush.
  quad2.vsw->returnCredits[1] += 1;
  vc9.responseCredits -= 1;
  bench.ExpectAtRest(false);
  const std::vector<std::string> strict = bench.Check(true);
  EXPECT_TRUE(HasLine(strict, "vsw2: returnCredits[1] is 1, expected 0")) << Joined(strict);
  EXPECT_EQ(strict.size(), 1u) << Joined(strict);
}

// ---- The credit flush ---------------------------------------------------------

// Read responses that back up behind a host with room for one packet leave
// the response buffers of quad 1 in bursts of up to three flits a cycle, and
// the vault switch returns at most two credits a pulse: credits stay parked.
// The flush brings them home and the cube to its start values.
TEST(EndToEnd, ParkedVaultCreditsComeHomeWithTheFlush) {
  const Config defaults;
  const uint64_t stride = uint64_t{defaults.MAX_BLOCK_SIZE} * defaults.NUM_VAULTS;
  std::vector<Request> requests;
  for (unsigned vault = 4; vault < 8; ++vault)
    for (unsigned i = 0; i < 8; ++i)
      requests.push_back(Request{RD, vault * defaults.MAX_BLOCK_SIZE + i * stride, 128, 1});
  HostSetup setup;
  setup.hostTokensGiven = true;
  setup.hostTokens = 9;
  HostedCube bench(requests, setup);
  ASSERT_TRUE(bench.RunToRest());
  bench.ExpectAtRest(false);
  const std::vector<std::string> parked = bench.Check(true);
  ASSERT_FALSE(parked.empty());
  for (const std::string& line : parked) EXPECT_EQ(line.rfind("vsw1: returnCredits[", 0), 0u) << line;

  const StatsKeeper& stats = bench.wrapper->cube->stats;
  std::vector<uint64_t> writesBefore(stats.vaultWrites.begin(), stats.vaultWrites.end());
  ASSERT_TRUE(bench.FlushToRest());
  bench.ExpectAtRest(true);
  // Every vault got its share of the flush, and every write its response.
  const unsigned perVault = bench.flush->WritesPerVault();
  EXPECT_EQ(perVault, defaults.VSW_RESPONSE_BUFFER_SIZE);
  for (unsigned v = 0; v < 16; ++v)
    EXPECT_EQ(stats.vaultWrites[v] - writesBefore[v], perVault) << "vault " << v;
  uint64_t completed = 0;
  for (const LegalHost::HostLink& link : bench.host->links) {
    EXPECT_EQ(link.stats.mismatches, 0u);
    completed += link.stats.completed;
  }
  EXPECT_EQ(completed, requests.size() + 16u * perVault);
}

// ---- Full load ------------------------------------------------------------------

// Four links at their full rate, every generator's addresses random over the
// whole cube, so that most requests cross to another quad, for the whole
// default SIM_TIME of 100 us; then the drain, the credit flush and the check.
TEST(EndToEnd, FullRateRandomTrafficFor100usComesToRest) {
  const int64_t liveBefore = Flit::liveRequestsAndResponses;
  const RunResults results = RunCleanToRest({"HOST_MAPPING=0", "SIM_TIME=100000"});
  // SIM_TIME ended the traffic, with every generator still busy.
  EXPECT_FALSE(results.drained);
  EXPECT_GT(results.endTimeNs, 100000);
  for (const GeneratorResults& g : results.generators) EXPECT_FALSE(g.done);
  for (const LinkResults& link : results.links) {
    EXPECT_GT(link.issued, 30000u) << "link " << link.link;
    EXPECT_GT(link.reads, 0u);
    EXPECT_GT(link.writes, 0u);
  }
  EXPECT_EQ(Flit::liveRequestsAndResponses, liveBefore);
}

// ---- Other mixes -------------------------------------------------------------------

// Posted writes, atomics of all six kinds, every request size, unaligned
// addresses and round-robin links; the generators finish before SIM_TIME.
// Refresh keeps the vault controllers busy while the cube is otherwise at
// rest; its work isn't traffic and the check passes over it.
TEST(EndToEnd, PostedWritesAtomicsAndRefreshComeToRest) {
  const int64_t liveBefore = Flit::liveRequestsAndResponses;
  zelsim_test::TempDir dir;
  const std::string json = dir.path + "/r.json";
  const RunResults results =
      RunCleanToRest({"NUM_REQUESTS=1500", "SIM_TIME=100000", "POSTED_WRITES=true", "USE_ATOMICS=1",
                      "ATOMICS_PERCENTAGE=30", "ALIGNED_32B=false", "HOST_MAPPING=1", "REFRESH_ENABLED=true",
                      "PERCENTAGE_RD_16B=1", "PERCENTAGE_RD_48B=1", "PERCENTAGE_RD_128B=1",
                      "PERCENTAGE_WR_16B=1", "PERCENTAGE_WR_80B=1", "PERCENTAGE_WR_128B=1"},
                     {"--json", json});
  EXPECT_TRUE(results.drained);
  const LinkResults total = results.Total();
  EXPECT_EQ(total.issued, 6000u);
  EXPECT_GT(total.atomics, 1200u);
  EXPECT_GT(total.posted, total.atomics / 2);
  EXPECT_EQ(Flit::liveRequestsAndResponses, liveBefore);
  const std::string text = zelsim_test::ReadFile(json);
  EXPECT_NE(text.find("  \"mismatch_messages\": [],\n  \"rest_state\": \"ok\"\n}\n"), std::string::npos)
      << text;
}

TEST(EndToEnd, RestStateInTheJsonText) {
  const std::string json = "{\n  \"seed\": 1,\n  \"mismatch_messages\": []\n}\n";
  EXPECT_EQ(JsonWithRestState(json, {}),
            "{\n  \"seed\": 1,\n  \"mismatch_messages\": [],\n  \"rest_state\": \"ok\"\n}\n");
  EXPECT_EQ(
      JsonWithRestState(json, {"vsw0: a \"b\"", "link1: c"}),
      "{\n  \"seed\": 1,\n  \"mismatch_messages\": [],\n  \"rest_state\": [\n    \"vsw0: a \\\"b\\\"\",\n"
      "    \"link1: c\"\n  ]\n}\n");
}
