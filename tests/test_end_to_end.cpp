// SPDX-License-Identifier: Apache-2.0
// Whole cubes driven by the legal host of the zelsim bench, and the rest state
// after each run: queues empty, credits and tokens back, no flit left alive.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "apps/zelsim/bench.h"
#include "host/generator.h"
#include "host/legal_host.h"
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
struct ListSource : RequestSource {
  explicit ListSource(std::vector<Request> list) : requests(std::move(list)) {}
  void Refill(LegalHost& host, uint64_t) override {
    for (unsigned link = 0; !requests.empty() && link < host.links.size(); ++link) {
      const unsigned queue = host.AddQueue(static_cast<unsigned>(requests.size()));
      for (const Request& r : requests)
        if (r.link == link) host.Enqueue(queue, r);
    }
    requests.clear();
  }
  bool Exhausted() const override { return requests.empty(); }
  std::vector<Request> requests;
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
    flush = new CreditFlush(wrapper->cube->cfg);
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
    sc_core::sc_start(CycleDelay(wrapper->cube->cfg, 1000));
    return drained;
  }
  // The rest check's findings, one a line.
  std::string Check(bool vaultCreditsReturned) const {
    RestExpectations expect;
    expect.liveFlitsAtStart = liveAtStart;
    expect.vaultCreditsReturned = vaultCreditsReturned;
    return Joined(CheckRestState(*wrapper, *host, expect));
  }
  zel2_quad& Quad(unsigned q) const { return *wrapper->cube->quads[q]; }

  ListSource source;
  CreditFlush* flush = nullptr;
  RestPhaseSource* phases = nullptr;
  int64_t liveAtStart = 0;
  Cube2in1Wrapper* wrapper = nullptr;
  LegalHost* host = nullptr;
};

// Runs zelsim with --check-rest, `options` and the keys `sets`, its standard
// output kept out of the log, and expects a clean run that ends at rest.
RunResults RunCleanToRest(const std::vector<std::string>& sets, std::vector<std::string> options = {}) {
  zelsim_test::ClearModelEnvironment();
  const int64_t liveBefore = Flit::liveRequestsAndResponses;
  RunResults results;
  RestReport rest;
  std::string out;
  options.push_back("--check-rest");
  for (const std::string& set : sets) options.insert(options.end(), {"--set", set});
  const int status = zelsim_test::RunCommand(
      [&](int argc, const char* const* argv) { return RunZelsim(argc, argv, &results, &rest); }, options,
      &out);
  EXPECT_EQ(status, kExitClean);
  EXPECT_NE(out.find("zelsim: rest state OK\n"), std::string::npos) << Joined(rest.violations);
  EXPECT_EQ(Flit::liveRequestsAndResponses, liveBefore);
  const LinkResults total = results.Total();
  EXPECT_EQ(total.mismatches + total.outstanding, 0u);
  EXPECT_EQ(total.completed + total.posted, total.issued);
  EXPECT_EQ(total.Latency().Count(), total.completed);
  for (const GeneratorResults& g : results.generators) EXPECT_EQ(g.issued, g.generated);
  return results;
}

}  // namespace

// From link l to vault l of every quad (cube-wide vault 4q + l): a 64-byte
// read and a 32-byte write in another row. Then the rest check, which must
// name what is out of place and change nothing.
TEST(EndToEnd, OneReadAndOneWriteFromEveryLinkToEveryQuadAndTheRestCheck) {
  const Config defaults;
  const uint64_t block = defaults.MAX_BLOCK_SIZE;
  std::vector<Request> requests;
  for (unsigned link = 0; link < 4; ++link) {
    for (unsigned quad = 0; quad < 4; ++quad) {
      const unsigned vault = quad * defaults.VAULTS_PER_QUAD + link;
      requests.push_back(Request{RD, vault * block, 64, link});
      requests.push_back(Request{WR, vault * block + 1000 * block * defaults.NUM_VAULTS, 32, link});
    }
  }
  HostedCube bench(requests);
  ASSERT_TRUE(bench.RunToRest());

  // Every response matched its request by tag, command, flit count and
  // address: four 5-flit read responses and four 1-flit write responses.
  for (const LegalHost::HostLink& link : bench.host->links) {
    const LinkResults& r = link.stats;
    EXPECT_EQ(std::make_tuple(r.mismatches, r.reads, r.writes, r.completed, r.Latency().Count(), r.bytesRead),
              std::make_tuple(0u, 4u, 4u, 8u, 8u, 4u * 64u))
        << "link " << link.number;
    EXPECT_EQ(std::make_tuple(r.responseFlits, r.requestFlits), std::make_tuple(4u * 5u + 4u, 4u + 4u * 3u));
    EXPECT_TRUE(link.outstanding.empty());
  }
  const StatsKeeper& stats = bench.wrapper->cube->stats;
  EXPECT_EQ(stats.vaultReads, StatsKeeper::Counters(16, 1));  // each vault its read and its write
  EXPECT_EQ(stats.vaultWrites, StatsKeeper::Counters(16, 1));
  EXPECT_EQ(bench.Check(false), "");  // parked vault switch credits allowed
  EXPECT_EQ(Flit::liveRequestsAndResponses, bench.liveAtStart);

  zel2_quad& quad1 = bench.Quad(1);
  zel2_quad& quad2 = bench.Quad(2);
  zel2_vault_controller& vc9 = *quad2.slices[1]->vaultController;
  Flit* lost = new Flit(7, 0x80, WR_RSP, 16, true, true, 1);
  // Each fault moves one thing by `step` and is named so; -1 puts it back.
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
  const std::string found = bench.Check(false);
  for (const auto& fault : faults) EXPECT_NE(found.find(fault.second), std::string::npos) << found;
  EXPECT_NE(found.find("flits: Flit::liveRequestsAndResponses is 1, expected 0"), std::string::npos) << found;
  EXPECT_EQ(std::count(found.begin(), found.end(), '\n'), 8) << found;
  for (const auto& fault : faults) fault.first(-1);
  delete lost;
  EXPECT_EQ(bench.Check(false), "");

  // A parked vault credit is allowed only before the flush.
  quad2.vsw->returnCredits[1] += 1;
  vc9.responseCredits -= 1;
  EXPECT_EQ(bench.Check(false), "");
  EXPECT_EQ(bench.Check(true), "vsw2: returnCredits[1] is 1, expected 0\n");
}

// Read responses backed up behind a host with room for one packet leave
// quad 1's response buffers up to three flits a cycle, while the vault switch
// returns at most two credits a pulse: credits stay parked until the flush.
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
  EXPECT_EQ(bench.Check(false), "");
  const std::vector<std::string> parked = zelsim_test::Lines(bench.Check(true));
  ASSERT_FALSE(parked.empty());
  for (const std::string& line : parked) EXPECT_EQ(line.rfind("vsw1: returnCredits[", 0), 0u) << line;

  bench.phases->phase = RestPhaseSource::Phase::Flush;
  ASSERT_TRUE(bench.RunToRest());
  EXPECT_EQ(bench.Check(true), "");
  // Every vault got its share of the flush (the only writes), and every write its response.
  const unsigned perVault = bench.flush->WritesPerVault();
  EXPECT_EQ(perVault, defaults.VSW_RESPONSE_BUFFER_SIZE);
  EXPECT_EQ(bench.wrapper->cube->stats.vaultWrites, StatsKeeper::Counters(16, perVault));
  RunResults results;
  bench.host->CollectResults(results);
  EXPECT_EQ(results.Total().mismatches, 0u);
  EXPECT_EQ(results.Total().completed, requests.size() + 16u * perVault);
}

// Four links at full rate, random addresses over the whole cube (most
// requests cross quads) for the default SIM_TIME of 100 us, which ends the
// traffic with every generator still busy; then drain, flush and check.
TEST(EndToEnd, FullRateRandomTrafficFor100usComesToRest) {
  const RunResults results = RunCleanToRest({"HOST_MAPPING=0", "SIM_TIME=100000"});
  EXPECT_FALSE(results.drained);
  EXPECT_GT(results.endTimeNs, 100000);
  for (const GeneratorResults& g : results.generators) EXPECT_FALSE(g.done);
  for (const LinkResults& link : results.links) EXPECT_GT(link.issued, 30000u) << "link " << link.link;
}

// Every request kind and size, posted writes and atomics, unaligned
// addresses, round-robin links, few tags, short host queues and small token
// budgets; refresh keeps the vault controllers busy at rest, which the check
// passes over. The JSON gets the rest state.
TEST(EndToEnd, EveryKindUnderTightFlowControlWithRefreshComesToRest) {
  zelsim_test::TempDir dir;
  const std::string json = dir.path + "/r.json";
  const RunResults results = RunCleanToRest(
      {"NUM_REQUESTS=600",      "SIM_TIME=100000",     "POSTED_WRITES=true",    "USE_ATOMICS=1",
       "ATOMICS_PERCENTAGE=30", "ALIGNED_32B=false",   "HOST_MAPPING=1",        "REFRESH_ENABLED=true",
       "REQUEST_SPACING=2",     "TAGS_PER_LINK=6",     "REQUEST_BUFFER_SIZE=3", "BFM_TOKENS_PER_LINK=12",
       "TOKENS_PER_LINK=40",    "PERCENTAGE_RD_16B=1", "PERCENTAGE_RD_48B=1",   "PERCENTAGE_RD_128B=1",
       "PERCENTAGE_WR_16B=1",   "PERCENTAGE_WR_80B=1", "PERCENTAGE_WR_112B=1",  "PERCENTAGE_WR_128B=1"},
      {"--seed", "5", "--json", json});
  EXPECT_TRUE(results.drained);
  const LinkResults total = results.Total();
  EXPECT_EQ(total.issued, 2400u);
  EXPECT_GT(total.atomics, 500u);
  EXPECT_GT(total.posted, total.atomics / 2);  // posted writes and posted atomics
  EXPECT_GT(total.tokenReturnsSent, 0u);
  const std::string text = zelsim_test::ReadFile(json);
  EXPECT_NE(text.find("  \"mismatch_messages\": [],\n  \"rest_state\": \"ok\"\n}\n"), std::string::npos)
      << text;
}
