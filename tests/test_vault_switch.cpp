// SPDX-License-Identifier: Apache-2.0
// The vault switch on its own: four switches wired to each other, with
// harness processes playing the vault controllers and the link masters.
#include <gtest/gtest.h>
#include <unistd.h>

#include <deque>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <systemc>
#include <vector>

#include "test_support.h"
#include "zel2/Config.h"
#include "zel2/StatsKeeper.h"
#include "zel2/zel2_cube.h"
#include "zel2/zel2_flit.h"
#include "zel2/zel2_vault_switch.h"

using namespace sc_core;
using namespace Sornak::Internal::ZEL2;
using zelsim_test::Literal;
using zelsim_test::Ps;

namespace {

using Wires = sc_vector<sc_signal<Flit_P>>;
using Credits = sc_vector<sc_signal<int>>;

unsigned PeerIndex(unsigned from, unsigned to) { return to > from ? to - 1 : to; }

// The n-th flit of a response packet of `flits` flits homed at `home`: a
// WR_RSP for one flit, else a RD_RSP. The flits stay reachable for the
// program's life, whether the switch deletes them or not.
Flit_P ResponseFlit(uint32_t tag, unsigned home, unsigned n = 1, unsigned flits = 1) {
  static auto* made = new std::vector<Flit*>;  // never destroyed
  made->push_back(
      new Flit(tag, 0x40ul * tag, flits == 1 ? WR_RSP : RD_RSP, (flits - 1) * 16, n == 1, n == flits, n));
  made->back()->sourceLink = home;
  return Flit_P(made->back());
}

class Fabric : public sc_module {
 public:
  const Config& cfg;
  StatsKeeper& stats;
  const unsigned Q = cfg.NUM_QUADS, V = cfg.VAULTS_PER_QUAD;
  std::vector<zel2_vault_switch*> vsw;
  std::vector<std::vector<Wires*>> slice, iq;  // [quad][vault]; [quad][peer], out of the quad
  std::vector<Wires*> lm;                      // [quad]
  std::vector<Credits*> credits;               // [quad]: the creditsOut of each switch
  Credits lmCredit{"lmCredit"};
  // Vault controllers: flits to write, each from its time on, and response credits.
  std::vector<std::vector<std::deque<std::pair<sc_time, Flit_P>>>> plans =
      decltype(plans)(Q, std::vector<std::deque<std::pair<sc_time, Flit_P>>>(V));
  std::vector<std::vector<int>> vcCredits =
      decltype(vcCredits)(Q, std::vector<int>(V, static_cast<int>(cfg.VSW_RESPONSE_BUFFER_SIZE)));
  // Link masters: what arrived when, what they hold, and when they start to drain.
  std::vector<std::vector<std::pair<sc_time, Flit>>> arrivals = decltype(arrivals)(Q);
  std::vector<unsigned> lmHeld = std::vector<unsigned>(Q);
  std::vector<sc_time> lmReleaseAt = std::vector<sc_time>(Q);

  SC_HAS_PROCESS(Fabric);
  Fabric(sc_module_name name, const Config& config, StatsKeeper& keeper)
      : sc_module(name), cfg(config), stats(keeper) {
    const auto wires = [](unsigned n) { return new Wires(sc_gen_unique_name("flits"), n); };
    lmCredit.init(Q);
    for (unsigned q = 0; q < Q; ++q)
      vsw.push_back(new zel2_vault_switch(("vsw" + std::to_string(q)).c_str(), cfg, stats, q));
    for (unsigned q = 0; q < Q; ++q) {
      slice.emplace_back();
      for (unsigned v = 0; v < V; ++v)
        vsw[q]->sliceFlits[v](*slice[q].emplace_back(wires(cfg.FLITS_OUT_PER_CYCLE_VC)));
      vsw[q]->linkMasterFlits(*lm.emplace_back(wires(cfg.FLITS_PER_CYCLE_VSW)));
      vsw[q]->creditsOut(*credits.emplace_back(new Credits(sc_gen_unique_name("credits"), V + Q - 1)));
      vsw[q]->linkMasterCredits(lmCredit[q]);
      iq.emplace_back();
      for (unsigned r = 0; r + 1 < Q; ++r) {
        const unsigned s = r < q ? r : r + 1, back = PeerIndex(s, q);
        vsw[q]->interquadFlitsOut[r](*iq[q].emplace_back(wires(cfg.FLITS_PER_CYCLE_VSW)));
        vsw[s]->interquadFlitsIn[back](*iq[q][r]);
        vsw[s]->interquadCreditsIn[back]((*credits[q])[V + r]);
      }
    }
    SC_THREAD(Clock);
    SC_METHOD(Observe);
    for (unsigned q = 0; q < Q; ++q) {
      for (auto& port : *lm[q]) sensitive << port;
      for (unsigned v = 0; v < V; ++v) sensitive << (*credits[q])[v];
    }
    dont_initialize();
  }

  // A packet written from `cycle` on, its flits `spacing` cycles apart at least.
  void Plan(unsigned quad, unsigned vault, unsigned home, unsigned flits, double cycle, uint32_t tag,
            double spacing = 0) {
    for (unsigned n = 1; n <= flits; ++n)
      plans[quad][vault].push_back(
          {CycleDelay(cfg, cycle + (n - 1) * spacing), ResponseFlit(tag, home, n, flits)});
  }
  // Tags in order of arrival at a link master, one per packet.
  std::vector<uint32_t> PacketsAt(unsigned quad) const {
    std::vector<uint32_t> tags;
    for (const auto& [time, flit] : arrivals[quad])
      if (flit.header) tags.push_back(flit.tag);
    return tags;
  }
  sc_time ArrivalOf(unsigned quad, uint32_t tag, unsigned flitNumber = 1) const {
    for (const auto& [time, flit] : arrivals[quad])
      if (flit.tag == tag && flit.flitNumber == flitNumber) return time;
    return SC_ZERO_TIME;
  }

  // No flit anywhere, every credit back at its start, nothing owed.
  void ExpectAtRest() const {
    for (unsigned q = 0; q < Q; ++q) {
      const zel2_vault_switch& s = *vsw[q];
      size_t held = lmHeld[q];
      for (const auto* lists : {&s.responseLatches, &s.responseBuffers, &s.interquadLatches,
                                &s.interquadBuffers, &s.smoothingBuffers})
        for (const auto& list : *lists) held += list.size();
      EXPECT_EQ(held, 0u) << "quad " << q;
      std::vector<int> start(Q, static_cast<int>(cfg.VSW_INTERQUAD_BUFFER_SIZE));
      start[q] = static_cast<int>(cfg.LINK_MASTER_BUFFER_SIZE);
      EXPECT_EQ(s.destinationCredits, start) << "quad " << q;
      EXPECT_EQ(s.returnCredits, std::vector<uint32_t>(V + Q - 1, 0)) << "quad " << q;
      EXPECT_EQ(vcCredits[q], std::vector<int>(V, static_cast<int>(cfg.VSW_RESPONSE_BUFFER_SIZE))) << q;
    }
  }

 private:
  // At each edge every vault writes up to FLITS_OUT_PER_CYCLE_VC flits on
  // ports 0, 1, ..., reserving a whole packet's credits before its header, and
  // every link master passes one flit on, with a credit pulse for it.
  void Clock() {
    for (;; wait(cfg.CORE_CLK - HalfCycle(cfg))) {
      for (unsigned q = 0; q < Q; ++q) {
        for (unsigned v = 0; v < V; ++v) {
          for (unsigned port = 0; port < cfg.FLITS_OUT_PER_CYCLE_VC; ++port) {
            if (plans[q][v].empty() || plans[q][v].front().first > sc_time_stamp()) break;
            const Flit_P flit = plans[q][v].front().second;
            const int flits = static_cast<int>(flit->requestLength / 16 + 1);
            if (flit->header && vcCredits[q][v] < flits) break;
            vcCredits[q][v] -= flit->header ? flits : 0;
            (*slice[q][v])[port].write(flit);
            plans[q][v].pop_front();
          }
        }
        if (lmHeld[q] == 0 || sc_time_stamp() < lmReleaseAt[q]) continue;
        --lmHeld[q];
        lmCredit[q].write(1);
      }
      wait(HalfCycle(cfg));
      for (auto& credit : lmCredit) credit.write(0);
    }
  }

  // Vault controllers take their credits back. At the link masters packets
  // come whole, one after the other, numbered in order, to their home only,
  // and never more flits than the buffer holds.
  void Observe() {
    for (unsigned q = 0; q < Q; ++q) {
      for (unsigned v = 0; v < V; ++v)
        if ((*credits[q])[v].event()) vcCredits[q][v] += std::max(0, (*credits[q])[v].read());
      for (auto& port : *lm[q]) {
        if (!port.event()) continue;
        const Flit& f = *port.read();
        const Flit* last = arrivals[q].empty() ? nullptr : &arrivals[q].back().second;
        const bool fresh = last == nullptr || last->tail;
        if (f.sourceLink != q || f.header != fresh || f.flitNumber != (fresh ? 1 : last->flitNumber + 1) ||
            (!fresh && f.tag != last->tag))
          ADD_FAILURE() << sc_time_stamp() << ": flit out of place at link master " << q << ": " << f;
        if (++lmHeld[q] > cfg.LINK_MASTER_BUFFER_SIZE) ADD_FAILURE() << "link master " << q << " overrun";
        arrivals[q].emplace_back(sc_time_stamp(), f);
      }
    }
  }
};

Fabric& MakeFabric(const std::function<void(Config&)>& configure = {}) {
  auto* cfg = new Config();
  if (configure) configure(*cfg);
  return *new Fabric("fabric", *cfg, *new StatsKeeper(*cfg));
}

// Random packets from every vault to every quad, about twice what the link
// masters drain; `sent` gets the tags by (vault, home), `vaultOf` the vault of each.
uint32_t PlanRandomTraffic(Fabric& f, std::map<std::pair<unsigned, unsigned>, std::vector<uint32_t>>& sent,
                           std::map<uint32_t, unsigned>& vaultOf) {
  std::mt19937 rng(11);
  const unsigned sizes[] = {1, 2, 3, 5, 9};
  uint32_t tag = 1;
  for (unsigned q = 0; q < f.Q; ++q)
    for (unsigned v = 0; v < f.V; ++v)
      for (double i = 0, cycle = 10; i < 40; ++i, ++tag) {
        cycle += rng() % 12;
        const unsigned home = rng() % f.Q;
        f.Plan(q, v, home, sizes[rng() % 5], cycle, tag);
        sent[{vaultOf[tag] = q * f.V + v, home}].push_back(tag);
      }
  return tag;
}

// Under the literal rule the same traffic stalls: once every smoothing buffer
// that a vault's flits need has been full when the move ran, no scan reaches
// that vault, nothing is noted as left over, and with the vault controllers
// out of credits no new response wakes the move again. The flits stay.
TEST(VaultSwitchFabric, LiteralRuleStallsOnceNoScanReachesTheWaitingFlits) {
  Fabric& f = MakeFabric();
  std::map<uint32_t, unsigned> vaultOf;
  std::map<std::pair<unsigned, unsigned>, std::vector<uint32_t>> sent;
  PlanRandomTraffic(f, sent, vaultOf);
  sc_start(CycleDelay(f.cfg, 3000));
  auto waiting = [&f]() {
    std::size_t flits = 0;
    for (unsigned q = 0; q < f.Q; ++q)
      for (unsigned v = 0; v < f.V; ++v) flits += f.vsw[q]->responseBuffers[v].size();
    return flits;
  };
  const std::size_t stuck = waiting();
  EXPECT_GT(stuck, 0u);
  sc_start(CycleDelay(f.cfg, 20000));
  EXPECT_EQ(waiting(), stuck);
}

// With the smoothing-stall correction, each packet arrives whole, once, at
// its home, in the order its vault sent it; after a flush of single-flit
// responses every credit is back.
TEST(VaultSwitchFabric, CorrectedRoutesPacketsHomeWholeAndInOrderAndCreditsComeBack) {
  Fabric& f = MakeFabric([](Config& c) { c.corrections.smoothingStall = true; });
  std::map<uint32_t, unsigned> vaultOf;
  std::map<std::pair<unsigned, unsigned>, std::vector<uint32_t>> sent, got;  // (vault, home): tags
  uint32_t tag = PlanRandomTraffic(f, sent, vaultOf);
  sc_start(CycleDelay(f.cfg, 3000));
  // What a vault controller holds plus what the switch owes it is its whole buffer.
  for (unsigned q = 0; q < f.Q; ++q)
    for (unsigned v = 0; v < f.V; ++v)
      EXPECT_EQ(f.vcCredits[q][v] + static_cast<int>(f.vsw[q]->returnCredits[v]),
                static_cast<int>(f.cfg.VSW_RESPONSE_BUFFER_SIZE));
  for (unsigned q = 0; q < f.Q; ++q)
    for (uint32_t t : f.PacketsAt(q)) got[{vaultOf[t], q}].push_back(t);
  EXPECT_EQ(got, sent);
  // The flush: single-flit responses, one vault at a time, far apart.
  for (unsigned q = 0; q < f.Q; ++q)
    for (unsigned v = 0; v < f.V; ++v)
      for (unsigned k = 0; k < 4; ++k) f.Plan(q, v, q, 1, 3000 + (v * 4 + k) * 20.0, tag++);
  sc_start(CycleDelay(f.cfg, 500));
  f.ExpectAtRest();
}

// From a vault controller's write to the link master: 8 cycles at home;
// across quads 10 plus the latch delay, the diagonal one on the Z pairs but
// for quad 3 receiving from quad 0. A flit for home waits for no flit for
// elsewhere in the same response buffer.
TEST(VaultSwitchFabric, LatchDelaysAreOneSidedOnTheZPairAndLocalFlitsDontWait) {
  Fabric& f = MakeFabric([](Config& c) {
    c.VSW_INTERQUAD_LATCH_DELAY = 3;
    c.VSW_INTERQUAD_LATCH_DELAY_Z = 7;
  });
  // Quad, vault, home and latency of tags 1 to 7: plain, Z, Z, Z, plain, and
  // two flits written at once by one vault, for quad 2 and for home.
  const unsigned path[][4] = {{0, 0, 3, 13}, {3, 0, 0, 17}, {1, 0, 2, 17}, {2, 0, 1, 17},
                              {0, 1, 1, 13}, {0, 2, 2, 13}, {0, 2, 0, 8}};
  for (uint32_t t = 1; t <= 7; ++t) f.Plan(path[t - 1][0], path[t - 1][1], path[t - 1][2], 1, 20, t);
  sc_start(CycleDelay(f.cfg, 60));
  for (uint32_t t = 1; t <= 7; ++t)
    EXPECT_EQ(f.ArrivalOf(path[t - 1][2], t), CycleDelay(f.cfg, 20 + path[t - 1][3])) << "tag " << t;
  // Occupancy integrals: the response buffer samples its level after a flit
  // comes in and before it leaves; the inter-quad buffer only on arrival.
  EXPECT_EQ(f.stats.vswBufferTime[0][0], CycleDelay(f.cfg, 27).value());
  EXPECT_EQ(f.stats.vswBufferTime[3][f.V + 0], CycleDelay(f.cfg, 32).value());
  f.ExpectAtRest();
}

// A peer destination at 10 credits or fewer stalls for two cycles, is served
// once, and stalls again: two flits a cycle until 9 credits are left, then a
// stall of two cycles and one activation that sends three.
TEST(VaultSwitchFabric, ShortDestinationStallsTwoCyclesAtATime) {
  Fabric& f = MakeFabric([](Config& c) { c.VSW_INTERQUAD_BUFFER_SIZE = 13; });
  for (uint32_t t = 1; t <= 12; ++t) f.Plan(0, 0, 1, 1, 20, t);
  sc_start(CycleDelay(f.cfg, 80));
  const sc_time first = f.ArrivalOf(1, 1);
  EXPECT_EQ(f.ArrivalOf(1, 4), first + f.cfg.CORE_CLK);
  for (uint32_t t = 5; t <= 7; ++t) EXPECT_EQ(f.ArrivalOf(1, t), first + CycleDelay(f.cfg, 4));
  EXPECT_GT(f.ArrivalOf(1, 8), first + CycleDelay(f.cfg, 5));
  EXPECT_EQ(f.PacketsAt(1).size(), 12u);
}

// Quad 0: while vault 1's packet is in progress into the home smoothing
// buffer, vault 2's flit for home waits for the tail and its flit for quad 1
// goes on at once. Quad 2: two vaults take turns into one smoothing buffer, a
// packet each per cycle. Quad 3: with its link master out of credits the home
// smoothing buffer fills to its capacity and stops, while a flit for quad 1
// flows on.
TEST(VaultSwitchFabric, SmoothingBuffersKeepPacketsWholeTakeTurnsAndFillOnlyTheirQuad) {
  Fabric& f = MakeFabric();
  const Config& c = f.cfg;
  f.Plan(0, 1, 0, 9, 20, 100, 1);  // flits written at cycles 20 to 28
  f.Plan(0, 2, 0, 1, 23, 200);
  f.Plan(0, 2, 1, 1, 23, 201);
  for (uint32_t t = 0; t < 4; ++t) f.Plan(2, 0, 2, 1, 20, 10 + t), f.Plan(2, 1, 2, 1, 20, 20 + t);
  f.lmReleaseAt[3] = CycleDelay(c, 200);
  for (uint32_t t = 1; t <= 50; ++t) f.Plan(3, 0, 3, 1, 20, 1000 + t);
  f.Plan(3, 0, 1, 1, 20, 99);
  sc_start(CycleDelay(c, 150));

  EXPECT_EQ(f.PacketsAt(0), (std::vector<uint32_t>{100, 200}));
  EXPECT_EQ(f.ArrivalOf(1, 201), CycleDelay(c, 23 + 13));
  EXPECT_EQ(f.ArrivalOf(0, 100, 3), CycleDelay(c, 22 + 8));
  // The tail is written at 28 and reaches the smoothing buffer at 35.
  for (unsigned n = 4; n <= 9; ++n) EXPECT_EQ(f.ArrivalOf(0, 100, n), CycleDelay(c, n <= 6 ? 36 : 37)) << n;
  ASSERT_EQ(f.arrivals[2].size(), 8u);
  for (unsigned i = 0; i < 8; i += 2) {
    EXPECT_EQ(f.arrivals[2][i].first, f.arrivals[2][i + 1].first);
    EXPECT_NE(f.arrivals[2][i].second.tag / 10, f.arrivals[2][i + 1].second.tag / 10) << "vaults take turns";
  }
  const zel2_vault_switch& s = *f.vsw[3];
  EXPECT_EQ(s.smoothingBuffers[3].size(), c.SMOOTHING_BUFFER_LM_SIZE);
  EXPECT_EQ(f.arrivals[3].size() + s.smoothingBuffers[3].size() + s.responseBuffers[0].size(), 50u);
  EXPECT_EQ(f.PacketsAt(1), (std::vector<uint32_t>{201, 99}));
  sc_start(CycleDelay(c, 200));
  EXPECT_EQ(f.PacketsAt(3).size(), 50u);
  f.ExpectAtRest();
}

// Quad 0: a priority period starts when a response buffer reaches its
// threshold, runs BUFFER_PRIORITY_TIME, is locked out for
// BUFFER_PRIORITY_WAIT and starts again; once the buffers drain it ends at
// once, with no lock. Quad 2: with priority on for an inter-quad buffer over
// its threshold, the local smoothing buffer is passed over although the
// round robin points at it.
TEST(VaultSwitchFabric, PriorityPeriodsRunLockAndEndEarlyAndHoldBackTheLocalBuffer) {
  Fabric& f = MakeFabric([](Config& c) {
    c.VSW_RESPONSE_BUFFER_THRESHOLD = 4;
    c.VSW_INTERQUAD_BUFFER_THRESHOLD = 2;
    c.BUFFER_PRIORITY_TIME = 40 * c.CORE_CLK;
    c.BUFFER_PRIORITY_WAIT = 20 * c.CORE_CLK;
  });
  const zel2_vault_switch& s = *f.vsw[0];
  f.lmReleaseAt[0] = CycleDelay(f.cfg, 100000);
  for (uint32_t t = 1; t <= 60; ++t) f.Plan(0, 0, 0, 1, 20, t);
  zel2_vault_switch& s2 = *f.vsw[2];
  s2.interquadBuffers[0] = {ResponseFlit(1, 2), ResponseFlit(2, 2), ResponseFlit(3, 2)};
  s2.smoothingBuffers[2] = {ResponseFlit(9, 2)};
  s2.smoothingTimes[2] = {SC_ZERO_TIME};
  s2.interquadTails[0] = 3;
  s2.interquadTails[3] = 1;
  s2.lmRoundRobin = 3;
  f.vsw[0]->destinationCredits[2] -= 3;  // as though quad 0 had sent the three flits
  s2.handleQueuesEvent.notify(CycleDelay(f.cfg, 10));

  // Quad 0's state a quarter cycle after each edge, up to the cycle where `state` holds.
  int cycle = 0;
  const auto until = [&](const std::function<bool()>& state) {
    for (; !state() && cycle < 400; ++cycle, sc_start(f.cfg.CORE_CLK))
      EXPECT_FALSE(s.priorityOn && s.priorityLock);
    return cycle;
  };
  sc_start(CycleDelay(f.cfg, 0.25));
  const int on = until([&] { return s.priorityOn; });
  EXPECT_EQ(until([&] { return !s.priorityOn; }), on + 40);
  EXPECT_EQ(until([&] { return !s.priorityLock; }), on + 60);
  const int again = until([&] { return s.priorityOn; });
  EXPECT_LE(again, on + 61);
  f.lmReleaseAt[0] = SC_ZERO_TIME;  // the link master drains from the second period on
  EXPECT_LT(until([&] { return !s.priorityOn; }), again + 40);
  EXPECT_FALSE(s.priorityLock);
  sc_start(CycleDelay(f.cfg, 60));
  EXPECT_EQ(f.PacketsAt(0).size(), 60u);
  const std::vector<uint32_t> got = f.PacketsAt(2);
  ASSERT_EQ(got.size(), 4u);
  EXPECT_EQ(std::vector<uint32_t>(got.begin(), got.begin() + 2), (std::vector<uint32_t>{1, 2}));
  EXPECT_EQ(f.vsw[0]->destinationCredits[2], static_cast<int>(f.cfg.VSW_INTERQUAD_BUFFER_SIZE));
}

// A pulse carries at most FLITS_OUT_PER_CYCLE_VC credits to a vault and
// FLITS_PER_CYCLE_VSW to a peer; the rest waits for the next
// returnCreditsEvent, however long. Plain peer credits count after
// CREDIT_RETURN_DELAY_VSW_VSW, those of the Z peer after
// CREDIT_RETURN_DELAY_VSW_VSW_Z; link master credits have no ceiling.
TEST(VaultSwitchCredits, PulsesAreCappedAndPeerCreditsTakeTheirDelays) {
  Fabric& f = MakeFabric();
  zel2_vault_switch& s = *f.vsw[0];
  const int vcStart = f.vcCredits[0][0] -= 5, iqSize = f.cfg.VSW_INTERQUAD_BUFFER_SIZE;
  s.returnCredits[0] = 5;
  s.returnCredits[f.V + 1] = 4;  // to quad 2
  f.vsw[2]->destinationCredits[0] -= 4;
  f.vsw[1]->returnCredits[f.V + PeerIndex(1, 0)] = 2;
  f.vsw[3]->returnCredits[f.V + PeerIndex(3, 0)] = 3;  // the Z peer of quad 0
  s.destinationCredits[1] = s.destinationCredits[3] = 30;
  for (zel2_vault_switch* sw : f.vsw) sw->returnCreditsEvent.notify(CycleDelay(f.cfg, 10));
  f.lmHeld[0] = 5;
  // Vault 0's credits, then quad 0's for quads 1 and 3, just before and just
  // after cycles 10, 18 and 19 (sc_start(t) stops before the processes of t run).
  std::vector<std::vector<int>> seen;
  for (double cycle : {10, 18, 19}) {
    for (const sc_time& t : {CycleDelay(f.cfg, cycle), CycleDelay(f.cfg, cycle) + Ps(1)}) {
      sc_start(t - sc_time_stamp());
      seen.push_back({f.vcCredits[0][0] - vcStart, s.destinationCredits[1], s.destinationCredits[3]});
    }
  }
  EXPECT_EQ(seen, (std::vector<std::vector<int>>{
                      {0, 30, 30}, {2, 30, 30}, {2, 30, 30}, {2, 32, 30}, {2, 32, 30}, {2, 32, 33}}));
  EXPECT_EQ(std::make_pair(s.returnCredits[0], s.returnCredits[f.V + 1]), std::make_pair(3u, 1u));
  EXPECT_EQ(f.vsw[2]->destinationCredits[0], iqSize - 1);
  sc_start(f.cfg.CORE_CLK - Ps(1));
  s.returnCreditsEvent.notify(f.cfg.CORE_CLK);
  sc_start(CycleDelay(f.cfg, 20));
  EXPECT_EQ(std::make_pair(s.returnCredits[0], s.returnCredits[f.V + 1]), std::make_pair(1u, 0u));
  EXPECT_EQ(f.vcCredits[0][0], vcStart + 4);
  EXPECT_EQ(f.vsw[2]->destinationCredits[0], iqSize);
  EXPECT_EQ(s.destinationCredits[0], static_cast<int>(f.cfg.LINK_MASTER_BUFFER_SIZE) + 5);
}

// An inter-quad trace line for a response has columns 4 to 7 empty, as
// many tabs as a request line.
TEST(VaultSwitchDiagnostics, InterquadTraceLineOfAResponse) {
  Fabric& f = MakeFabric();
  zelsim_test::TempDir dir;
  tsvFile.open(dir.path + "/trace.tsv");
  sc_start(Ps(1600000));
  const Flit_P write = ResponseFlit(0x2b, 1);
  write->hostTag = 5;
  f.vsw[0]->PrintInterquad(ResponseFlit(0x1a, 3, 1, 5), 2);
  f.vsw[0]->PrintInterquad(write, 0);
  tsvFile.close();
  EXPECT_EQ(zelsim_test::Lines(zelsim_test::ReadFile(dir.path + "/trace.tsv")),
            (std::vector<std::string>{"1600\tSWITCHZ0_rsp\t3\t\t\t\t\t0x1a\t1\tRD_RS\t0\t0\t0\t0",
                                      "1600\tSWITCHY0_rsp\t1\t\t\t\t\t0x5\t1\tWR_RS\t0\t0\t0\t0"}));
}

// Expects a run of the fabric that `prepare` sets up, in a child of its own,
// to end after writing `says` and failing `assertion` (either may be empty).
void ExpectDeath(const std::function<void(Fabric&)>& prepare, const std::string& says,
                 const std::string& assertion, const std::function<void(Config&)>& configure = {}) {
  const auto run = [&] {
    dup2(2, 1);
    Fabric& f = MakeFabric(configure);
    prepare(f);
    sc_start(CycleDelay(f.cfg, 100));
  };
  const std::string failed = assertion.empty() ? "" : "Assertion `" + assertion + "' failed";
  EXPECT_DEATH(run(), Literal(says) + (says.empty() || failed.empty() ? "" : ".*") + Literal(failed));
}

TEST(VaultSwitchDeathTest, ModelErrorsAbortWithTheirText) {
  const auto at = [](sc_event zel2_vault_switch::*event, double cycle) {
    return [=](Fabric& f) { (f.vsw[0]->*event).notify(CycleDelay(f.cfg, cycle)); };
  };
  ExpectDeath(at(&zel2_vault_switch::handleQueuesEvent, 1.0 / 16), "ERROR: off timing in VSW @ 100 ps", "0");
  ExpectDeath(at(&zel2_vault_switch::moveToSmoothingEvent, 1.0 / 16), "ERROR: off timing in VSW @ 100 ps",
              "0");
  ExpectDeath(at(&zel2_vault_switch::priorityLockEvent, 3),
              "ERROR - Priority lock was not set when event triggered\n", "false");
  ExpectDeath([](Fabric& f) { f.vsw[0]->creditDelayQueue.queue.notify(CycleDelay(f.cfg, 3)); }, "",
              "!creditDelayQueue.empty()");
  ExpectDeath([](Fabric& f) { f.vsw[0]->zcreditDelayQueue.queue.notify(CycleDelay(f.cfg, 3)); }, "",
              "!zcreditDelayQueue.empty() && zcreditDelayQueue.front()>0");
  ExpectDeath([](Fabric& f) { f.Plan(0, 0, 0, 1, 0, 1); }, "",
              "lastReceiveFromSlice < sc_time_stamp().value()");
  ExpectDeath(
      [](Fabric& f) {
        f.vcCredits[0][1] = 3;  // one more than the buffer holds
        for (uint32_t t = 1; t <= 3; ++t) f.Plan(0, 1, 0, 1, 10, t);
      },
      "=[25600 ps]= ERROR - Vault Switch 0 overflowed buffer 1\n", "false",
      [](Config& c) {
        c.FLITS_OUT_PER_CYCLE_VC = 3;
        c.VSW_RESPONSE_BUFFER_SIZE = 2;
      });

  // At cycle 10, `count` flits homed at `home` from quad `from` to quad 0.
  const auto send = [](unsigned from, unsigned count, unsigned home) {
    return [=](Fabric& f) {
      sc_start(CycleDelay(f.cfg, 10));
      for (unsigned k = 0; k < count; ++k)
        (*f.iq[from][PeerIndex(from, 0)])[k].write(ResponseFlit(k + 1, home));
    };
  };
  ExpectDeath(send(3, 3, 0), "]= ERROR - Vault Switch 0 overflowed buffer Q3\n", "false",
              [](Config& c) { c.VSW_INTERQUAD_BUFFER_SIZE = 2; });
  ExpectDeath(send(1, 1, 2), "", "(*incomingFlit).sourceLink==id");

  const auto misplace = [](bool smoothing, unsigned index, unsigned home, unsigned roundRobin) {
    return [=](Fabric& f) {
      zel2_vault_switch& s = *f.vsw[0];
      (smoothing ? s.smoothingBuffers : s.interquadBuffers)[index].push_back(ResponseFlit(1, home));
      if (smoothing) s.smoothingTimes[index].push_back(SC_ZERO_TIME);
      s.lmRoundRobin = roundRobin;
      s.handleQueuesEvent.notify(CycleDelay(f.cfg, 10));
    };
  };
  ExpectDeath(misplace(true, 0, 1, 3), "", "(*smoothingBuffers[id][0]).sourceLink==quad");
  ExpectDeath(misplace(true, 1, 2, 3), "", "(*smoothingBuffers[quad][0]).sourceLink==quad");
  ExpectDeath(misplace(false, 0, 1, 0), "", "(*interquadBuffers[lmRoundRobin][0]).sourceLink==quad");

  const auto creditFrom = [](unsigned quad) {
    return [quad](Fabric& f) {
      f.vsw[quad]->returnCredits[f.V + PeerIndex(quad, 0)] = 1;
      f.vsw[quad]->returnCreditsEvent.notify(CycleDelay(f.cfg, 10));
    };
  };
  ExpectDeath(creditFrom(1), "== ERROR - Credit overflow in quad 0 - index 1\n", "");
  ExpectDeath(creditFrom(3), "== ERROR - Z-Credit overflow in quad 0\n", "");
}

TEST(VaultSwitchDeathTest, InterquadTraceErrorsEndWithStatusZero) {
  const auto trace = [](unsigned id, ZELCommand command) {
    dup2(2, 1);
    Flit_P flit = ResponseFlit(1, id);
    flit->command = command;
    MakeFabric().vsw[id]->PrintInterquad(flit, 3);
  };
  EXPECT_EXIT(trace(0, RD), ::testing::ExitedWithCode(0), Literal("WTF TSV FILE\n"));
  for (unsigned id = 0; id < 4; ++id)
    EXPECT_EXIT(trace(id, WR_RSP), ::testing::ExitedWithCode(0),
                Literal("ERROR writing vsw" + std::to_string(id) + " interquad to tsv file\n"));
}

}  // namespace
