// SPDX-License-Identifier: Apache-2.0
// The vault switch on its own. Two benches: a fabric of four switches wired
// to each other, with harness processes playing the vault controllers and
// the link masters; and a single switch whose every port a scripted driver
// plays, for credits, priority and error cases.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <deque>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <sstream>
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

namespace {

using FlitSignal = sc_signal<Flit_P>;
using IntSignal = sc_signal<int>;

unsigned PeerIndex(unsigned from, unsigned to) { return to > from ? to - 1 : to; }
unsigned QuadOfPeer(unsigned from, unsigned r) { return r < from ? r : r + 1; }

// The n-th flit (from 1) of a response packet of `flits` flits: a WR_RSP for
// one flit, else a RD_RSP.
Flit_P ResponseFlit(uint32_t tag, unsigned home, unsigned n, unsigned flits) {
  Flit* flit =
      new Flit(tag, 0x40ul * tag, flits == 1 ? WR_RSP : RD_RSP, (flits - 1) * 16, n == 1, n == flits, n);
  flit->sourceLink = home;
  // The harness owns no flit that it hands to the block: they stay reachable
  // here for the program's life, whether the block deletes them or not.
  static auto* made = new std::vector<Flit*>;  // never destroyed
  made->push_back(flit);
  return Flit_P(flit);
}

// Regular expression that matches `text` literally.
std::string Quote(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos) out += '\\';
    out += c;
  }
  return out;
}

std::string AssertionText(const std::string& condition) {
  return Quote("Assertion `" + condition + "' failed");
}

// ---- Four switches wired to each other --------------------------------------

struct PacketPlan {
  unsigned home;
  unsigned flits;
  sc_time notBefore;
  uint32_t tag;
};

struct Arrival {
  sc_time time;
  uint32_t tag;
  unsigned flitNumber;
};

class Fabric : public sc_module {
 public:
  const Config& cfg;
  unsigned Q, V;
  std::vector<zel2_vault_switch*> vsw;
  std::vector<std::vector<std::vector<FlitSignal*>>> slice;  // [quad][vault][port]
  std::vector<std::vector<FlitSignal*>> lm;                  // [quad][slot]
  std::vector<IntSignal*> lmCredit;                          // [quad]
  std::vector<std::vector<IntSignal*>> vcCredit;             // [quad][vault]

  // Vault controllers: packets to send, flits per cycle, response credits.
  std::vector<std::vector<std::deque<PacketPlan>>> plans;
  std::vector<std::vector<unsigned>> flitsPerCycle;
  std::vector<std::vector<int>> vcCredits;
  // Link masters: what arrived, what they hold, and when they start to drain.
  std::vector<std::vector<Arrival>> arrivals;
  std::vector<unsigned> lmHeld;
  std::vector<sc_time> lmReleaseAt;
  std::vector<std::string> failures;

  SC_HAS_PROCESS(Fabric);
  Fabric(sc_module_name name, const Config& config, StatsKeeper& stats)
      : sc_module(name), cfg(config), Q(config.NUM_QUADS), V(config.VAULTS_PER_QUAD) {
    slice.resize(Q);
    lm.resize(Q);
    vcCredit.resize(Q);
    for (unsigned q = 0; q < Q; ++q) {
      vsw.push_back(new zel2_vault_switch(("vsw" + std::to_string(q)).c_str(), cfg, stats, q));
      slice[q].resize(V);
      for (unsigned v = 0; v < V; ++v) {
        for (unsigned j = 0; j < cfg.FLITS_OUT_PER_CYCLE_VC; ++j) {
          slice[q][v].push_back(new FlitSignal(sc_gen_unique_name("slice")));
          vsw[q]->sliceFlits[v][j](*slice[q][v][j]);
        }
        vcCredit[q].push_back(new IntSignal(sc_gen_unique_name("vcCredit")));
        vsw[q]->creditsOut[v](*vcCredit[q][v]);
      }
      for (unsigned k = 0; k < cfg.FLITS_PER_CYCLE_VSW; ++k) {
        lm[q].push_back(new FlitSignal(sc_gen_unique_name("lm")));
        vsw[q]->linkMasterFlits[k](*lm[q][k]);
      }
      lmCredit.push_back(new IntSignal(sc_gen_unique_name("lmCredit")));
      vsw[q]->linkMasterCredits(*lmCredit[q]);
    }
    for (unsigned q = 0; q < Q; ++q) {
      for (unsigned r = 0; r + 1 < Q; ++r) {
        const unsigned s = QuadOfPeer(q, r);
        const unsigned back = PeerIndex(s, q);
        for (unsigned k = 0; k < cfg.FLITS_PER_CYCLE_VSW; ++k) {
          auto* wire = new FlitSignal(sc_gen_unique_name("iq"));
          vsw[q]->interquadFlitsOut[r][k](*wire);
          vsw[s]->interquadFlitsIn[back][k](*wire);
        }
        auto* credit = new IntSignal(sc_gen_unique_name("iqCredit"));
        vsw[q]->creditsOut[V + r](*credit);
        vsw[s]->interquadCreditsIn[back](*credit);
      }
    }
    plans.assign(Q, std::vector<std::deque<PacketPlan>>(V));
    flitsPerCycle.assign(Q, std::vector<unsigned>(V, cfg.FLITS_OUT_PER_CYCLE_VC));
    vcCredits.assign(Q, std::vector<int>(V, static_cast<int>(cfg.VSW_RESPONSE_BUFFER_SIZE)));
    active.assign(Q, std::vector<Active>(V));
    arrivals.resize(Q);
    lmHeld.assign(Q, 0);
    lmReleaseAt.assign(Q, SC_ZERO_TIME);
    openTag.assign(Q, kNone);
    nextFlit.assign(Q, 1);

    SC_THREAD(PlayVaultControllers);
    SC_THREAD(DrainLinkMasters);
    SC_METHOD(ReceiveAtLinkMasters);
    for (auto& quad : lm)
      for (auto* port : quad) sensitive << *port;
    dont_initialize();
    SC_METHOD(ReceiveVcCredits);
    for (auto& quad : vcCredit)
      for (auto* port : quad) sensitive << *port;
    dont_initialize();
  }

  void Plan(unsigned quad, unsigned vault, unsigned home, unsigned flits, double cycle, uint32_t tag) {
    plans[quad][vault].push_back({home, flits, CycleDelay(cfg, cycle), tag});
  }

  // Tags in order of arrival at a link master, one per packet.
  std::vector<uint32_t> PacketsAt(unsigned quad) const {
    std::vector<uint32_t> tags;
    for (const Arrival& a : arrivals[quad])
      if (a.flitNumber == 1) tags.push_back(a.tag);
    return tags;
  }
  sc_time ArrivalOf(unsigned quad, uint32_t tag, unsigned flitNumber = 1) const {
    for (const Arrival& a : arrivals[quad])
      if (a.tag == tag && a.flitNumber == flitNumber) return a.time;
    return SC_ZERO_TIME;
  }

  // Everything drained: no flit in any switch, every credit back at its
  // start, nothing owed.
  void ExpectAtRest() const {
    for (unsigned q = 0; q < Q; ++q) {
      const zel2_vault_switch& s = *vsw[q];
      for (unsigned d = 0; d < Q; ++d) {
        const unsigned start = d == q ? cfg.LINK_MASTER_BUFFER_SIZE : cfg.VSW_INTERQUAD_BUFFER_SIZE;
        EXPECT_EQ(s.destinationCredits[d], static_cast<int>(start)) << "quad " << q << " dest " << d;
        EXPECT_TRUE(s.smoothingBuffers[d].empty()) << "quad " << q;
      }
      for (unsigned i = 0; i < s.returnCredits.size(); ++i)
        EXPECT_EQ(s.returnCredits[i], 0u) << "quad " << q << " index " << i;
      for (unsigned v = 0; v < V; ++v) {
        EXPECT_TRUE(s.responseBuffers[v].empty() && s.responseLatches[v].empty());
        EXPECT_EQ(vcCredits[q][v], static_cast<int>(cfg.VSW_RESPONSE_BUFFER_SIZE)) << "vault " << q * V + v;
      }
      for (unsigned r = 0; r + 1 < Q; ++r)
        EXPECT_TRUE(s.interquadBuffers[r].empty() && s.interquadLatches[r].empty());
      EXPECT_EQ(lmHeld[q], 0u);
    }
    for (const std::string& f : failures) ADD_FAILURE() << f;
  }

 private:
  static constexpr uint32_t kNone = 0xffffffffu;
  struct Active {
    bool on = false;
    PacketPlan plan{};
    unsigned next = 1;
  };
  std::vector<std::vector<Active>> active;
  std::vector<uint32_t> openTag;
  std::vector<unsigned> nextFlit;

  void Fail(const std::string& text) {
    std::ostringstream out;
    out << sc_time_stamp() << ": " << text;
    failures.push_back(out.str());
  }

  // Each vault writes up to its flits per cycle on ports 0, 1, ..., packets
  // back to back, reserving the whole packet's credits before its header.
  void PlayVaultControllers() {
    while (true) {
      wait(cfg.CORE_CLK);
      for (unsigned q = 0; q < Q; ++q) {
        for (unsigned v = 0; v < V; ++v) {
          Active& a = active[q][v];
          std::deque<PacketPlan>& queue = plans[q][v];
          for (unsigned port = 0; port < flitsPerCycle[q][v]; ++port) {
            if (!a.on) {
              if (queue.empty() || sc_time_stamp() < queue.front().notBefore ||
                  vcCredits[q][v] < static_cast<int>(queue.front().flits))
                break;
              a = Active{true, queue.front(), 1};
              queue.pop_front();
              vcCredits[q][v] -= static_cast<int>(a.plan.flits);
            }
            slice[q][v][port]->write(ResponseFlit(a.plan.tag, a.plan.home, a.next, a.plan.flits));
            if (++a.next > a.plan.flits) a.on = false;
          }
        }
      }
    }
  }

  // Packets must come whole, one after the other, to their home only, and
  // never more flits than the link master's buffer holds.
  void ReceiveAtLinkMasters() {
    for (unsigned q = 0; q < Q; ++q) {
      for (FlitSignal* port : lm[q]) {
        if (!port->event()) continue;
        const Flit_P flit = port->read();
        if (flit->sourceLink != q) Fail("flit homed elsewhere at link master " + std::to_string(q));
        if (openTag[q] != kNone && flit->tag != openTag[q]) Fail("packets interleaved at LM");
        if (flit->header) {
          openTag[q] = flit->tag;
          nextFlit[q] = 1;
        }
        if (flit->flitNumber != nextFlit[q]++) Fail("flit out of order at LM");
        if (flit->tail) openTag[q] = kNone;
        if (++lmHeld[q] > cfg.LINK_MASTER_BUFFER_SIZE) Fail("link master buffer overrun");
        arrivals[q].push_back({sc_time_stamp(), flit->tag, flit->flitNumber});
      }
    }
  }

  // One flit per cycle leaves each link master; each gives a credit pulse.
  void DrainLinkMasters() {
    wait(cfg.CORE_CLK);
    while (true) {
      for (unsigned q = 0; q < Q; ++q) {
        if (lmHeld[q] == 0 || sc_time_stamp() < lmReleaseAt[q]) continue;
        --lmHeld[q];
        lmCredit[q]->write(1);
      }
      wait(HalfCycle(cfg));
      for (IntSignal* credit : lmCredit) credit->write(0);
      wait(cfg.CORE_CLK - HalfCycle(cfg));
    }
  }

  void ReceiveVcCredits() {
    for (unsigned q = 0; q < Q; ++q) {
      for (unsigned v = 0; v < V; ++v) {
        if (!vcCredit[q][v]->event() || vcCredit[q][v]->read() < 1) continue;
        const int value = vcCredit[q][v]->read();
        if (value > static_cast<int>(cfg.FLITS_OUT_PER_CYCLE_VC)) Fail("credit pulse too large");
        if (sc_time_stamp().value() % cfg.CORE_CLK.value() != 0) Fail("credit off the clock");
        vcCredits[q][v] += value;
        if (vcCredits[q][v] > static_cast<int>(cfg.VSW_RESPONSE_BUFFER_SIZE))
          Fail("vault controller credits above start");
      }
    }
  }
};

struct FabricRun {
  Config* cfg;
  StatsKeeper* stats;
  Fabric* fabric;
};

FabricRun MakeFabric(const std::function<void(Config&)>& configure = {}) {
  auto* cfg = new Config();
  if (configure) configure(*cfg);
  auto* stats = new StatsKeeper(*cfg);
  return {cfg, stats, new Fabric("fabric", *cfg, *stats)};
}

// ---- One switch, every port played by a script ------------------------------

class SoloBench : public sc_module {
 public:
  const Config& cfg;
  zel2_vault_switch* vsw;
  std::vector<std::vector<FlitSignal*>> slice;  // [vault][port]
  std::vector<std::vector<FlitSignal*>> iqIn;   // [peer][slot]
  std::vector<IntSignal*> creditsOut;           // [index]
  std::vector<IntSignal*> iqCredits;            // [peer]
  IntSignal lmCredit;
  std::function<void(SoloBench&)> script;
  struct Pulse {
    sc_time time;
    unsigned index;
    int value;
  };
  std::vector<Pulse> pulses;  // every change of creditsOut

  SC_HAS_PROCESS(SoloBench);
  SoloBench(sc_module_name name, const Config& config, StatsKeeper& stats, unsigned id,
            std::function<void(SoloBench&)> play)
      : sc_module(name), cfg(config), lmCredit("lmCredit"), script(std::move(play)) {
    const unsigned Q = cfg.NUM_QUADS, V = cfg.VAULTS_PER_QUAD;
    vsw = new zel2_vault_switch("vsw", cfg, stats, id);
    slice.resize(V);
    for (unsigned v = 0; v < V; ++v)
      for (unsigned j = 0; j < cfg.FLITS_OUT_PER_CYCLE_VC; ++j) {
        slice[v].push_back(new FlitSignal(sc_gen_unique_name("slice")));
        vsw->sliceFlits[v][j](*slice[v][j]);
      }
    for (unsigned k = 0; k < cfg.FLITS_PER_CYCLE_VSW; ++k)
      vsw->linkMasterFlits[k](*new FlitSignal(sc_gen_unique_name("lm")));
    iqIn.resize(Q - 1);
    for (unsigned r = 0; r + 1 < Q; ++r) {
      for (unsigned k = 0; k < cfg.FLITS_PER_CYCLE_VSW; ++k) {
        vsw->interquadFlitsOut[r][k](*new FlitSignal(sc_gen_unique_name("iqOut")));
        iqIn[r].push_back(new FlitSignal(sc_gen_unique_name("iqIn")));
        vsw->interquadFlitsIn[r][k](*iqIn[r][k]);
      }
      iqCredits.push_back(new IntSignal(sc_gen_unique_name("iqCredit")));
      vsw->interquadCreditsIn[r](*iqCredits[r]);
    }
    for (unsigned n = 0; n < V + Q - 1; ++n) {
      creditsOut.push_back(new IntSignal(sc_gen_unique_name("creditOut")));
      vsw->creditsOut[n](*creditsOut[n]);
    }
    vsw->linkMasterCredits(lmCredit);

    SC_THREAD(Drive);
    SC_METHOD(WatchCredits);
    for (IntSignal* port : creditsOut) sensitive << *port;
    dont_initialize();
  }

  sc_time Cycles(double n) const { return CycleDelay(cfg, n); }

 private:
  void Drive() {
    if (script) script(*this);
  }
  void WatchCredits() {
    for (unsigned n = 0; n < creditsOut.size(); ++n)
      if (creditsOut[n]->event()) pulses.push_back({sc_time_stamp(), n, creditsOut[n]->read()});
  }
};

SoloBench& MakeSolo(const std::function<void(Config&)>& configure = {},
                    std::function<void(SoloBench&)> script = {}, unsigned id = 0) {
  auto* cfg = new Config();
  if (configure) configure(*cfg);
  auto* stats = new StatsKeeper(*cfg);
  return *new SoloBench("bench", *cfg, *stats, id, std::move(script));
}

// ---- Routing through the fabric ---------------------------------------------

// Random packets from every vault to every quad, more than the link masters
// drain: each arrives whole, in order, once, at its home's link master, in
// the order its vault sent it; after a flush of single-flit responses every
// credit is back at its start.
TEST(VaultSwitchFabric, RoutesPacketsHomeWholeAndInOrderAndCreditsComeBack) {
  FabricRun run = MakeFabric();
  Fabric& f = *run.fabric;
  std::mt19937 rng(11);
  const unsigned sizes[] = {1, 2, 3, 5, 9};
  std::map<uint32_t, std::pair<unsigned, unsigned>> homeAndSize;
  std::map<std::pair<unsigned, unsigned>, std::vector<uint32_t>> sentOrder;  // (vault, home)
  uint32_t tag = 1;
  for (unsigned q = 0; q < f.Q; ++q) {
    for (unsigned v = 0; v < f.V; ++v) {
      double cycle = 10;
      // About twice what the link masters drain: every buffer backs up.
      for (int i = 0; i < 40; ++i) {
        cycle += rng() % 12;
        const unsigned home = rng() % f.Q, flits = sizes[rng() % 5];
        f.Plan(q, v, home, flits, cycle, tag);
        homeAndSize[tag] = {home, flits};
        sentOrder[{q * f.V + v, home}].push_back(tag++);
      }
    }
  }
  sc_start(CycleDelay(*run.cfg, 3000));

  // Conservation before the flush: what the vault controller holds plus what
  // the switch still owes it is its whole buffer.
  for (unsigned q = 0; q < f.Q; ++q)
    for (unsigned v = 0; v < f.V; ++v)
      EXPECT_EQ(f.vcCredits[q][v] + static_cast<int>(f.vsw[q]->returnCredits[v]),
                static_cast<int>(run.cfg->VSW_RESPONSE_BUFFER_SIZE));

  std::map<uint32_t, unsigned> seen;
  for (unsigned q = 0; q < f.Q; ++q) {
    for (uint32_t t : f.PacketsAt(q)) {
      EXPECT_EQ(homeAndSize[t].first, q) << "tag " << t;
      ++seen[t];
    }
    unsigned flitsAtHome = 0;
    for (const Arrival& a : f.arrivals[q]) flitsAtHome += a.flitNumber == homeAndSize[a.tag].second;
    EXPECT_EQ(flitsAtHome, f.PacketsAt(q).size()) << "every packet ends with its last flit";
  }
  EXPECT_EQ(seen.size(), homeAndSize.size());
  for (const auto& entry : seen) EXPECT_EQ(entry.second, 1u) << "tag " << entry.first;
  for (const auto& entry : sentOrder) {
    std::vector<uint32_t> got;
    for (uint32_t t : f.PacketsAt(entry.first.second))
      if (std::find(entry.second.begin(), entry.second.end(), t) != entry.second.end()) got.push_back(t);
    EXPECT_EQ(got, entry.second) << "vault " << entry.first.first << " home " << entry.first.second;
  }

  // The flush: single-flit responses, one vault at a time, far apart.
  for (unsigned q = 0; q < f.Q; ++q)
    for (unsigned v = 0; v < f.V; ++v)
      for (unsigned k = 0; k < 4; ++k) f.Plan(q, v, q, 1, 3000 + (v * 4 + k) * 20.0, tag++);
  sc_start(CycleDelay(*run.cfg, 500));
  f.ExpectAtRest();
}

// Latencies from a vault controller's write to the link master: 8 cycles at
// home; across quads 10 plus the latch delay, the diagonal one on the Z pairs
// but for quad 3 receiving from quad 0. A flit for home waits for no flit
// for elsewhere in the same response buffer.
TEST(VaultSwitchFabric, LatchDelaysAreOneSidedOnTheZPairAndLocalFlitsDontWait) {
  FabricRun run = MakeFabric([](Config& c) {
    c.VSW_INTERQUAD_LATCH_DELAY = 3;
    c.VSW_INTERQUAD_LATCH_DELAY_Z = 7;
  });
  Fabric& f = *run.fabric;
  const double T = 20;
  f.Plan(0, 0, 3, 1, T, 1);  // 0 -> 3: plain at quad 3
  f.Plan(3, 0, 0, 1, T, 2);  // 3 -> 0: Z
  f.Plan(1, 0, 2, 1, T, 3);  // 1 -> 2: Z
  f.Plan(2, 0, 1, 1, T, 4);  // 2 -> 1: Z
  f.Plan(0, 1, 1, 1, T, 5);  // 0 -> 1: plain
  f.Plan(0, 2, 2, 1, T, 6);  // port 0 of vault 2, for quad 2 ...
  f.Plan(0, 2, 0, 1, T, 7);  // ... and port 1, for home
  sc_start(CycleDelay(*run.cfg, 60));

  const Config& c = *run.cfg;
  EXPECT_EQ(f.ArrivalOf(3, 1), CycleDelay(c, T + 13));
  EXPECT_EQ(f.ArrivalOf(0, 2), CycleDelay(c, T + 17));
  EXPECT_EQ(f.ArrivalOf(2, 3), CycleDelay(c, T + 17));
  EXPECT_EQ(f.ArrivalOf(1, 4), CycleDelay(c, T + 17));
  EXPECT_EQ(f.ArrivalOf(1, 5), CycleDelay(c, T + 13));
  EXPECT_EQ(f.ArrivalOf(2, 6), CycleDelay(c, T + 13));
  EXPECT_EQ(f.ArrivalOf(0, 7), CycleDelay(c, T + 8));

  // Occupancy integrals: the response buffer samples its level after a flit
  // comes in and before it leaves; the inter-quad buffer only on arrival.
  EXPECT_EQ(run.stats->vswBufferTime[0][0], CycleDelay(c, T + 7).value());
  EXPECT_EQ(run.stats->vswBufferTime[3][c.VAULTS_PER_QUAD + 0], CycleDelay(c, T + 12).value());
  f.ExpectAtRest();
}

// While vault 1's packet is in progress into the home smoothing buffer,
// vault 2's flit for home waits for the tail; its flit for quad 1 goes on at
// once. And while vault 2 holds a whole packet, vault 1, which holds only
// part of one, is passed over until its tail is in.
TEST(VaultSwitchFabric, PacketInProgressOwnsItsSmoothingBufferOnly) {
  FabricRun run = MakeFabric();
  Fabric& f = *run.fabric;
  const Config& c = *run.cfg;
  f.flitsPerCycle[0][1] = 1;
  f.Plan(0, 1, 0, 9, 20, 100);  // flits written at cycles 20 to 28
  f.Plan(0, 2, 0, 1, 23, 200);
  f.Plan(0, 2, 1, 1, 23, 201);
  sc_start(CycleDelay(c, 80));

  EXPECT_EQ(f.PacketsAt(0), (std::vector<uint32_t>{100, 200}));
  EXPECT_EQ(f.ArrivalOf(1, 201), CycleDelay(c, 23 + 13));
  EXPECT_EQ(f.ArrivalOf(0, 100, 3), CycleDelay(c, 22 + 8));
  // The tail is written at 28 and reaches the smoothing buffer at 35.
  for (unsigned n = 4; n <= 9; ++n)
    EXPECT_EQ(f.ArrivalOf(0, 100, n), CycleDelay(c, n <= 6 ? 36 : 37)) << "flit " << n;
  f.ExpectAtRest();
}

// After each whole packet the walk through a response buffer stops when
// other sources hold flits, so two vaults take turns into one smoothing
// buffer within the same activation.
TEST(VaultSwitchFabric, VaultsTakeTurnsAfterEachWholePacket) {
  FabricRun run = MakeFabric();
  Fabric& f = *run.fabric;
  for (uint32_t t = 0; t < 4; ++t) {
    f.Plan(0, 0, 0, 1, 20, 10 + t);
    f.Plan(0, 1, 0, 1, 20, 20 + t);
  }
  sc_start(CycleDelay(*run.cfg, 60));
  ASSERT_EQ(f.arrivals[0].size(), 8u);
  for (unsigned i = 0; i < 8; i += 2) {
    const Arrival& a = f.arrivals[0][i];
    const Arrival& b = f.arrivals[0][i + 1];
    EXPECT_EQ(a.time, b.time);
    EXPECT_NE(a.tag / 10, b.tag / 10) << "one flit of each vault per cycle";
  }
}

// A peer destination at 10 credits or fewer stalls for two cycles, is served
// once, and stalls again.
TEST(VaultSwitchFabric, ShortDestinationStallsTwoCyclesAtATime) {
  FabricRun run = MakeFabric([](Config& c) { c.VSW_INTERQUAD_BUFFER_SIZE = 13; });
  Fabric& f = *run.fabric;
  for (uint32_t t = 0; t < 12; ++t) f.Plan(0, 0, 1, 1, 20, t + 1);
  sc_start(CycleDelay(*run.cfg, 80));
  // Two flits a cycle until 9 credits are left, then a stall of two cycles
  // and one activation that sends three.
  const sc_time first = f.ArrivalOf(1, 1);
  EXPECT_EQ(f.ArrivalOf(1, 4), first + run.cfg->CORE_CLK);
  for (uint32_t t = 5; t <= 7; ++t) EXPECT_EQ(f.ArrivalOf(1, t), first + CycleDelay(*run.cfg, 4));
  EXPECT_GT(f.ArrivalOf(1, 8), first + CycleDelay(*run.cfg, 5));
  EXPECT_EQ(f.PacketsAt(1).size(), 12u);
}

// With the link master out of credits the home smoothing buffer fills to its
// capacity and stops there; the vault's flit for another quad flows on.
TEST(VaultSwitchFabric, FullSmoothingBufferStopsOnlyItsQuad) {
  FabricRun run = MakeFabric();
  Fabric& f = *run.fabric;
  const Config& c = *run.cfg;
  f.lmReleaseAt[0] = CycleDelay(c, 200);
  for (uint32_t t = 1; t <= 50; ++t) f.Plan(0, 0, 0, 1, 20, t);
  f.Plan(0, 0, 1, 1, 20, 99);
  sc_start(CycleDelay(c, 150));

  const zel2_vault_switch& s = *f.vsw[0];
  EXPECT_LE(f.arrivals[0].size(), c.LINK_MASTER_BUFFER_SIZE);
  EXPECT_EQ(s.smoothingBuffers[0].size(), c.SMOOTHING_BUFFER_LM_SIZE);
  EXPECT_EQ(f.arrivals[0].size() + s.smoothingBuffers[0].size() + s.responseBuffers[0].size(), 50u);
  EXPECT_EQ(f.PacketsAt(1), std::vector<uint32_t>{99});

  sc_start(CycleDelay(c, 200));
  EXPECT_EQ(f.PacketsAt(0).size(), 50u);
  EXPECT_TRUE(s.responseBuffers[0].empty() && s.smoothingBuffers[0].empty());
}

// A priority period starts when a response buffer reaches its threshold,
// runs BUFFER_PRIORITY_TIME, is locked out for BUFFER_PRIORITY_WAIT and then
// starts again; once the buffers drain it ends at once, with no lock.
TEST(VaultSwitchFabric, PriorityPeriodRunsThenLocksThenEndsEarlyWithoutLock) {
  FabricRun run = MakeFabric([](Config& c) {
    c.VSW_RESPONSE_BUFFER_THRESHOLD = 4;
    c.BUFFER_PRIORITY_TIME = 40 * c.CORE_CLK;
    c.BUFFER_PRIORITY_WAIT = 20 * c.CORE_CLK;
  });
  Fabric& f = *run.fabric;
  const Config& c = *run.cfg;
  const zel2_vault_switch& s = *f.vsw[0];
  f.lmReleaseAt[0] = CycleDelay(c, 100000);
  for (uint32_t t = 1; t <= 60; ++t) f.Plan(0, 0, 0, 1, 20, t);

  // States sampled a quarter cycle after each edge: 0 idle, 1 on, 2 locked.
  std::vector<std::pair<int, int>> changes;  // cycle, new state
  int state = 0;
  int secondOn = -1;
  sc_start(CycleDelay(c, 0.25));
  for (int cycle = 0; cycle < 400; ++cycle) {
    const int now = s.priorityOn ? 1 : s.priorityLock ? 2 : 0;
    EXPECT_FALSE(s.priorityOn && s.priorityLock);
    if (now != state) changes.push_back({cycle, state = now});
    // Let the link master drain a little into the second period.
    if (secondOn < 0 && changes.size() >= 3 && state == 1) {
      secondOn = cycle;
      f.lmReleaseAt[0] = SC_ZERO_TIME;
    }
    sc_start(c.CORE_CLK);
  }
  ASSERT_GE(changes.size(), 4u);
  const int on = changes[0].first;
  EXPECT_EQ(changes[0].second, 1);
  EXPECT_EQ(changes[1], std::make_pair(on + 40, 2));
  ASSERT_GE(secondOn, 0);
  EXPECT_GE(secondOn, on + 60);
  EXPECT_LE(secondOn, on + 61);
  // The second period ends as the buffer drains, early and without a lock.
  EXPECT_EQ(changes.back().second, 0);
  EXPECT_EQ(changes[changes.size() - 2].first, secondOn);
  EXPECT_LT(changes.back().first, secondOn + 40);
  EXPECT_EQ(f.PacketsAt(0).size(), 60u);
}

// With priority on for an inter-quad buffer over its threshold, the local
// smoothing buffer is passed over although the round robin points at it.
TEST(VaultSwitchFabric, PriorityForAnInterquadBufferHoldsBackTheLocalSmoothingBuffer) {
  FabricRun run = MakeFabric([](Config& c) { c.VSW_INTERQUAD_BUFFER_THRESHOLD = 2; });
  Fabric& f = *run.fabric;
  zel2_vault_switch& s = *f.vsw[0];
  for (uint32_t t = 1; t <= 3; ++t) {
    s.interquadBuffers[0].push_back(ResponseFlit(t, 0, 1, 1));
    ++s.interquadTails[0];
  }
  s.smoothingBuffers[0].push_back(ResponseFlit(9, 0, 1, 1));
  s.smoothingTimes[0].push_back(SC_ZERO_TIME);
  ++s.interquadTails[3];
  s.lmRoundRobin = 3;
  // As though quad 1 had sent the three flits.
  f.vsw[1]->destinationCredits[0] -= 3;
  s.handleQueuesEvent.notify(CycleDelay(*run.cfg, 10));
  sc_start(CycleDelay(*run.cfg, 40));

  const std::vector<uint32_t> got = f.PacketsAt(0);
  ASSERT_EQ(got.size(), 4u);
  EXPECT_EQ(got[0], 1u);
  EXPECT_EQ(got[1], 2u);
  // The inter-quad flits' credits went back to quad 1.
  EXPECT_EQ(f.vsw[1]->destinationCredits[0], static_cast<int>(run.cfg->VSW_INTERQUAD_BUFFER_SIZE));
}

// ---- Credits ----------------------------------------------------------------

// Plain credits wait CREDIT_RETURN_DELAY_VSW_VSW, those of the Z peer
// CREDIT_RETURN_DELAY_VSW_VSW_Z; a pulse of 2 raises by 2, its fall nothing.
TEST(VaultSwitchCredits, PlainAndZCreditsTakeTheirOwnDelays) {
  SoloBench& b = MakeSolo({}, [](SoloBench& bench) {
    wait(bench.Cycles(10));
    bench.iqCredits[0]->write(2);  // quad 1
    bench.iqCredits[2]->write(3);  // quad 3, the Z peer of quad 0
    wait(bench.Cycles(0.5));
    bench.iqCredits[0]->write(0);
    bench.iqCredits[2]->write(0);
  });
  zel2_vault_switch& s = *b.vsw;
  s.destinationCredits[1] = 30;
  s.destinationCredits[3] = 30;
  // sc_start(t) stops before the processes of time t run.
  sc_start(b.Cycles(18));
  EXPECT_EQ(s.destinationCredits[1], 30);
  sc_start(sc_time(1, SC_PS));
  EXPECT_EQ(s.destinationCredits[1], 32);
  sc_start(b.Cycles(1) - sc_time(1, SC_PS));
  EXPECT_EQ(s.destinationCredits[3], 30);
  sc_start(sc_time(1, SC_PS));
  EXPECT_EQ(s.destinationCredits[3], 33);
  sc_start(b.Cycles(20));
  EXPECT_EQ(s.destinationCredits[1], 32);
  EXPECT_EQ(s.destinationCredits[3], 33);
}

// Owed credits go out at most FLITS_OUT_PER_CYCLE_VC (vaults) or
// FLITS_PER_CYCLE_VSW (peers) per pulse; the rest waits for the next
// returnCreditsEvent, however long.
TEST(VaultSwitchCredits, ReturnCreditsCapsEachPulseAndDoesNotRearm) {
  SoloBench& b = MakeSolo();
  zel2_vault_switch& s = *b.vsw;
  const unsigned V = b.cfg.VAULTS_PER_QUAD;
  s.returnCredits[0] = 5;
  s.returnCredits[V + 1] = 4;
  s.returnCreditsEvent.notify(b.Cycles(10));
  sc_start(b.Cycles(50));
  ASSERT_EQ(b.pulses.size(), 4u);
  EXPECT_EQ(b.pulses[0].time, b.Cycles(10));
  EXPECT_EQ(b.pulses[0].value, 2);
  EXPECT_EQ(b.pulses[1].value, 3);
  EXPECT_EQ(b.pulses[1].index, V + 1);
  EXPECT_EQ(b.pulses[2].time, b.Cycles(10.5));
  EXPECT_EQ(b.pulses[2].value, 0);
  EXPECT_EQ(s.returnCredits[0], 3u);
  EXPECT_EQ(s.returnCredits[V + 1], 1u);

  s.returnCreditsEvent.notify(b.Cycles(1));
  sc_start(b.Cycles(5));
  EXPECT_EQ(s.returnCredits[0], 1u);
  EXPECT_EQ(s.returnCredits[V + 1], 0u);
}

// Link master credits count from the next core edge on and have no ceiling.
TEST(VaultSwitchCredits, LinkMasterCreditsHaveNoUpperCheck) {
  SoloBench& b = MakeSolo({}, [](SoloBench& bench) {
    wait(bench.Cycles(10) + sc_time(100, SC_PS));
    bench.lmCredit.write(5);
    wait(bench.Cycles(0.5));
    bench.lmCredit.write(0);
  });
  sc_start(b.Cycles(20));
  EXPECT_EQ(b.vsw->destinationCredits[0], static_cast<int>(b.cfg.LINK_MASTER_BUFFER_SIZE) + 5);
}

// ---- Diagnostics ------------------------------------------------------------

TEST(VaultSwitchDiagnostics, DumpStateListsCreditsAndBuffers) {
  SoloBench& b = MakeSolo({}, {}, 1);
  zel2_vault_switch& s = *b.vsw;
  s.responseBuffers[2].push_back(ResponseFlit(7, 0, 1, 1));
  s.interquadBuffers[1].push_back(ResponseFlit(8, 1, 1, 1));
  std::ostringstream expected;
  expected << "== VSW1\n\t\tDestination Credits [42, 32, 42, 42, ]\n"
           << "\t\tVC4 Buffer - 0 entries\n\t\tVC5 Buffer - 0 entries\n"
           << "\t\tVC6 Buffer - 1 entries\n\t\t 0] " << s.responseBuffers[2][0] << "\n"
           << "\t\tVC7 Buffer - 0 entries\n\t\tLocal Smoothing Buffer : 0 entries\n"
           << "\t\tQ0 : 0 entries\n\t\tQ2 : 1 entries\n\t\t 0] " << s.interquadBuffers[1][0] << "\n"
           << "\t\tQ3 : 0 entries\n";
  std::string dumped;
  {
    zelsim_test::CaptureStdout capture;
    s.DumpState();
    dumped = capture.str();
  }
  EXPECT_EQ(dumped, expected.str());
}

// A response line has columns 4 to 7 empty: as many tabs as a request line.
TEST(VaultSwitchDiagnostics, PrintInterquadWritesAResponseLine) {
  SoloBench& b = MakeSolo();
  char path[] = "/tmp/vsw_tsvXXXXXX";
  const int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  close(fd);
  tsvFile.open(path);
  sc_start(sc_time(1600000, SC_PS));
  Flit_P read = ResponseFlit(0x1a, 3, 1, 5);
  b.vsw->PrintInterquad(read, 2);
  Flit_P write = ResponseFlit(0x2b, 1, 1, 1);
  write->hostTag = 5;
  b.vsw->PrintInterquad(write, 0);
  tsvFile.close();

  std::ifstream in(path);
  std::string first, second;
  std::getline(in, first);
  std::getline(in, second);
  std::remove(path);
  EXPECT_EQ(first, "1600\tSWITCHZ0_rsp\t3\t\t\t\t\t0x1a\t1\tRD_RS\t0\t0\t0\t0");
  EXPECT_EQ(second, "1600\tSWITCHY0_rsp\t1\t\t\t\t\t0x5\t1\tWR_RS\t0\t0\t0\t0");
  EXPECT_EQ(std::count(first.begin(), first.end(), '\t'), 13);
}

// ---- Model errors -----------------------------------------------------------

void RunSolo(const std::function<void(Config&)>& configure, std::function<void(SoloBench&)> script,
             const std::function<void(zel2_vault_switch&)>& prepare = {}) {
  dup2(2, 1);
  SoloBench& b = MakeSolo(configure, std::move(script));
  if (prepare) prepare(*b.vsw);
  sc_start(b.Cycles(100));
}

void WriteFlitsAt(FlitSignal* const* ports, unsigned count, unsigned home, double cycle, const Config& cfg) {
  wait(CycleDelay(cfg, cycle));
  for (unsigned k = 0; k < count; ++k) ports[k]->write(ResponseFlit(k + 1, home, 1, 1));
}

TEST(VaultSwitchDeathTest, OffTheCoreClock) {
  const auto offClock = [](sc_event zel2_vault_switch::*event) {
    return [event](zel2_vault_switch& s) { (s.*event).notify(sc_time(100, SC_PS)); };
  };
  const std::string text = Quote("ERROR: off timing in VSW @ 100 ps") + ".*" + AssertionText("0");
  EXPECT_DEATH(RunSolo({}, {}, offClock(&zel2_vault_switch::handleQueuesEvent)), text);
  EXPECT_DEATH(RunSolo({}, {}, offClock(&zel2_vault_switch::moveToSmoothingEvent)), text);
}

TEST(VaultSwitchDeathTest, FlitFromASliceAtTimeZero) {
  EXPECT_DEATH(RunSolo({}, [](SoloBench& b) { WriteFlitsAt(b.slice[0].data(), 1, 0, 0, b.cfg); }),
               AssertionText("lastReceiveFromSlice < sc_time_stamp().value()"));
}

TEST(VaultSwitchDeathTest, ResponseBufferOverflow) {
  EXPECT_DEATH(
      RunSolo(
          [](Config& c) {
            c.FLITS_OUT_PER_CYCLE_VC = 3;
            c.VSW_RESPONSE_BUFFER_SIZE = 2;
          },
          [](SoloBench& b) { WriteFlitsAt(b.slice[1].data(), 3, 0, 10, b.cfg); }),
      Quote("=[25600 ps]= ERROR - Vault Switch 0 overflowed buffer 1\n") + ".*" + AssertionText("false"));
}

TEST(VaultSwitchDeathTest, InterquadBufferOverflow) {
  EXPECT_DEATH(RunSolo([](Config& c) { c.VSW_INTERQUAD_BUFFER_SIZE = 2; },
                       [](SoloBench& b) { WriteFlitsAt(b.iqIn[2].data(), 3, 0, 10, b.cfg); }),
               Quote("]= ERROR - Vault Switch 0 overflowed buffer Q3\n") + ".*" + AssertionText("false"));
}

TEST(VaultSwitchDeathTest, PeerFlitNotHomedHere) {
  EXPECT_DEATH(RunSolo({}, [](SoloBench& b) { WriteFlitsAt(b.iqIn[0].data(), 1, 2, 10, b.cfg); }),
               AssertionText("(*incomingFlit).sourceLink==id"));
}

TEST(VaultSwitchDeathTest, FlitInTheWrongBufferForItsDestination) {
  const auto inject = [](std::vector<std::vector<Flit_P>> zel2_vault_switch::*buffers, unsigned index,
                         unsigned home, unsigned roundRobin) {
    return [=](zel2_vault_switch& s) {
      (s.*buffers)[index].push_back(ResponseFlit(1, home, 1, 1));
      if (buffers == &zel2_vault_switch::smoothingBuffers) s.smoothingTimes[index].push_back(SC_ZERO_TIME);
      s.lmRoundRobin = roundRobin;
      s.handleQueuesEvent.notify(CycleDelay(s.cfg, 10));
    };
  };
  EXPECT_DEATH(RunSolo({}, {}, inject(&zel2_vault_switch::smoothingBuffers, 0, 1, 3)),
               AssertionText("(*smoothingBuffers[id][0]).sourceLink==quad"));
  EXPECT_DEATH(RunSolo({}, {}, inject(&zel2_vault_switch::smoothingBuffers, 1, 2, 3)),
               AssertionText("(*smoothingBuffers[quad][0]).sourceLink==quad"));
  EXPECT_DEATH(RunSolo({}, {}, inject(&zel2_vault_switch::interquadBuffers, 0, 1, 0)),
               AssertionText("(*interquadBuffers[lmRoundRobin][0]).sourceLink==quad"));
}

TEST(VaultSwitchDeathTest, PriorityLockEventWithoutLock) {
  EXPECT_DEATH(
      RunSolo({}, {}, [](zel2_vault_switch& s) { s.priorityLockEvent.notify(CycleDelay(s.cfg, 3)); }),
      Quote("ERROR - Priority lock was not set when event triggered\n") + ".*" + AssertionText("false"));
}

TEST(VaultSwitchDeathTest, PeerCreditOverflowAborts) {
  const auto pulse = [](unsigned peer) {
    return [peer](SoloBench& b) {
      wait(b.Cycles(10));
      b.iqCredits[peer]->write(1);
    };
  };
  EXPECT_DEATH(RunSolo({}, pulse(0)), Quote("== ERROR - Credit overflow in quad 0 - index 1\n"));
  EXPECT_DEATH(RunSolo({}, pulse(2)), Quote("== ERROR - Z-Credit overflow in quad 0\n"));
}

TEST(VaultSwitchDeathTest, CreditQueueFiresEmpty) {
  EXPECT_DEATH(
      RunSolo({}, {}, [](zel2_vault_switch& s) { s.creditDelayQueue.queue.notify(CycleDelay(s.cfg, 3)); }),
      AssertionText("!creditDelayQueue.empty()"));
  EXPECT_DEATH(
      RunSolo({}, {}, [](zel2_vault_switch& s) { s.zcreditDelayQueue.queue.notify(CycleDelay(s.cfg, 3)); }),
      AssertionText("!zcreditDelayQueue.empty() && zcreditDelayQueue.front()>0"));
}

TEST(VaultSwitchDeathTest, PrintInterquadErrorsEndWithStatusZero) {
  const auto print = [](unsigned id, ZELCommand command, unsigned peer) {
    dup2(2, 1);
    auto* cfg = new Config();
    auto* stats = new StatsKeeper(*cfg);
    auto* vsw = new zel2_vault_switch("vsw", *cfg, *stats, id);
    Flit_P flit = ResponseFlit(1, id, 1, 1);
    flit->command = command;
    vsw->PrintInterquad(flit, peer);
  };
  EXPECT_EXIT(print(0, RD, 0), ::testing::ExitedWithCode(0), Quote("WTF TSV FILE\n"));
  for (unsigned id = 0; id < 4; ++id)
    EXPECT_EXIT(print(id, WR_RSP, 3), ::testing::ExitedWithCode(0),
                Quote("ERROR writing vsw" + std::to_string(id) + " interquad to tsv file\n"));
}

}  // namespace
