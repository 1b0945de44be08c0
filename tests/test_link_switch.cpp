// SPDX-License-Identifier: Apache-2.0
// The link switch on its own. A bench plays each quad's link slave (flits by
// lane, under tokens and busy) and vault controllers (checking that packets
// arrive whole, returning command and write credits), and wires the switches of
// several quads together. Quads without a switch leave their signals to scripts.
#include <algorithm>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <tuple>

#include "test_support.h"
#include "zel2/Config.h"
#include "zel2/StatsKeeper.h"
#include "zel2/zel2_cube.h"
#include "zel2/zel2_flit.h"
#include "zel2/zel2_link_switch.h"

namespace {

namespace zel = Sornak::Internal::ZEL2;
using sc_core::sc_signal;
using sc_core::sc_time;
using zel::Flit;
using zel::Flit_P;

constexpr uint32_t NONE = 0xffffffffu;

template <class T>
using Signals = std::vector<std::unique_ptr<sc_signal<T>>>;

template <class T>
Signals<T> MakeSignals(size_t count) {
  Signals<T> signals;
  for (size_t i = 0; i < count; ++i) signals.emplace_back(new sc_signal<T>(sc_core::sc_gen_unique_name("s")));
  return signals;
}

// The harness owns no flit that it hands to the block: they stay reachable
// here for the program's life, whether the block deletes them or not.
Flit* Keep(Flit* flit) {
  static auto* made = new std::vector<Flit*>;  // never destroyed
  made->push_back(flit);
  return flit;
}

Flit_P NewFlit(uint32_t tag, zel::ZELCommand command, unsigned length, unsigned destination, bool header,
               bool tail, unsigned number = 1) {
  Flit* flit = Keep(new Flit(tag, 0, command, length, header, tail, number));
  flit->destination = destination;
  return Flit_P(flit);
}

std::string Printed(const Flit& flit) {
  std::ostringstream out;
  out << flit;
  return out.str();
}

// A config for Q quads of V vaults, everything else at its default.
zel::Config MakeConfig(unsigned quads, unsigned vaults) {
  zel::Config cfg;
  cfg.NUM_QUADS = quads;
  cfg.NUM_LINKS = quads;
  cfg.VAULTS_PER_QUAD = vaults;
  cfg.NUM_VAULTS = quads * vaults;
  return cfg;
}

// Owns a copy of the configuration and the statistics; `real[q]` says
// whether quad q has a switch.
struct Bench : sc_core::sc_module {
  struct LinkSide {             // the link slave of a quad
    std::deque<Flit*> pending;  // flits not yet sent, in order
    int tokens = 100, initialTokens = 100;
    unsigned perCycle = 3;  // flits sent in one cycle at most
    bool midPacket = false;
    unsigned nextTag = 1;
    std::vector<std::pair<sc_time, int>> tokenLog;
    std::vector<std::pair<sc_time, bool>> busyLog;
    std::vector<size_t> lineLog;  // own source line count, sampled half a cycle after each edge
  };
  struct VaultSide {  // the vault controller of one vault
    uint32_t tagInProgress = NONE, nextFlitNumber = 1;
    std::deque<sc_time> commandDue, writeDue;                           // credits owed, by due time
    unsigned commands = 0, maxCommands = 0, writes = 0, maxWrites = 0;  // outstanding
    sc_time lastCommandReturn;
    std::vector<std::pair<sc_time, uint32_t>> arrivals;  // (time, tag) of whole packets
  };

  zel::Config cfg;
  zel::StatsKeeper stats;
  const unsigned Q, V;
  std::vector<std::unique_ptr<zel::zel2_link_switch>> lsw;   // null where the quad has none
  std::vector<Signals<Flit_P>> linkFlits, vaultFlits;        // [q][lane], [q][port]
  Signals<bool> busy;                                        // [q]
  Signals<int> linkTokens;                                   // [q]
  std::vector<Signals<bool>> commandCredits;                 // [q][v]
  std::vector<Signals<int>> writeCredits;                    // [q][v]
  std::vector<Signals<int>> interquadCredits, earlyCredits;  // [from][to]
  std::vector<std::vector<Signals<Flit_P>>> interquadFlits;  // [from][to][slot]
  std::vector<LinkSide> links;
  std::vector<std::vector<VaultSide>> vaults;
  // Credit behaviour of the vault controllers, in cycles and credits.
  unsigned commandDelay = 3, commandSpacing = 1, writeDelay = 8, writesPerCycle = 2;
  sc_time holdCreditsUntil;
  std::map<std::pair<unsigned, uint32_t>, unsigned> delivered;  // whole arrivals by (link, tag)
  unsigned packets = 0, totalFlits = 0, remoteFlits = 0, crossings = 0, earlyRefunds = 0;
  std::vector<std::tuple<sc_time, unsigned, unsigned, int>> peerCreditLog;  // time, from, to, value
  std::function<void(unsigned cycle)> onEdge;  // called at each edge after the bench's own writes
  std::function<void(Bench&)> script;          // runs in its own thread from time zero

  SC_HAS_PROCESS(Bench);
  Bench(sc_core::sc_module_name name, const zel::Config& config, std::vector<bool> real)
      : sc_module(name), cfg(config), stats(cfg), Q(cfg.NUM_QUADS), V(cfg.VAULTS_PER_QUAD), lsw(Q), links(Q) {
    vaults.assign(Q, std::vector<VaultSide>(V));
    busy = MakeSignals<bool>(Q);
    linkTokens = MakeSignals<int>(Q);
    for (unsigned q = 0; q < Q; ++q) {
      linkFlits.push_back(MakeSignals<Flit_P>(cfg.FLITS_PER_CYCLE_LINK));
      vaultFlits.push_back(MakeSignals<Flit_P>(V * cfg.FLITS_IN_PER_CYCLE_VC));
      commandCredits.push_back(MakeSignals<bool>(V));
      writeCredits.push_back(MakeSignals<int>(V));
      interquadCredits.push_back(MakeSignals<int>(Q));
      earlyCredits.push_back(MakeSignals<int>(Q));
      interquadFlits.emplace_back();
      for (unsigned n = 0; n < Q; ++n)
        interquadFlits[q].push_back(MakeSignals<Flit_P>(n == q ? 0 : cfg.FLITS_PER_CYCLE_LSW));
    }
    for (unsigned q = 0; q < Q; ++q)
      if (real[q]) Build(q);
    SC_THREAD(Run);
    SC_THREAD(RunScript);
    SC_METHOD(Watch);
    for (unsigned q = 0; q < Q; ++q) {
      if (!real[q]) continue;
      for (auto& signal : vaultFlits[q]) sensitive << *signal;
      sensitive << *linkTokens[q] << *busy[q];
      for (unsigned n = 0; n < Q; ++n) {
        for (auto& signal : interquadFlits[q][n])
          if (real[n]) sensitive << *signal;
        if (n != q) sensitive << *interquadCredits[q][n] << *earlyCredits[q][n];
      }
    }
    dont_initialize();
  }

  void Build(unsigned q) {
    auto* s = new zel::zel2_link_switch(("lsw" + std::to_string(q)).c_str(), cfg, stats, q);
    lsw[q].reset(s);
    for (unsigned k = 0; k < cfg.FLITS_PER_CYCLE_LINK; ++k) s->linkSlaveFlits[k](*linkFlits[q][k]);
    s->busyOut(*busy[q]);
    for (unsigned n = 0; n < V * cfg.FLITS_IN_PER_CYCLE_VC; ++n) s->vaultFlits[n](*vaultFlits[q][n]);
    for (unsigned v = 0; v < V; ++v) {
      s->sliceCredits[v](*commandCredits[q][v]);
      s->writeCreditsIn[v](*writeCredits[q][v]);
    }
    s->returnTokensOut[q](*linkTokens[q]);
    for (unsigned n = 0; n < Q; ++n) {
      if (n == q) continue;
      const unsigned r = n < q ? n : n - 1;  // the peer index of quad n
      for (unsigned k = 0; k < cfg.FLITS_PER_CYCLE_LSW; ++k) {
        s->interquadFlitsOut[r][k](*interquadFlits[q][n][k]);
        s->interquadFlitsIn[r][k](*interquadFlits[n][q][k]);
      }
      s->returnTokensOut[n](*interquadCredits[q][n]);
      s->interquadCreditsIn[r](*interquadCredits[n][q]);
      s->earlyCreditsOut[r](*earlyCredits[q][n]);
      s->earlyCreditsIn[r](*earlyCredits[n][q]);
    }
  }

  // Queues a packet on link `link` for cube-wide vault `vault`.
  void Send(unsigned link, zel::ZELCommand command, unsigned length, unsigned vault) {
    const uint32_t tag = links[link].nextTag++;
    const unsigned flits = command == zel::RD ? 1 : length / cfg.FLIT_SIZE + 1;
    for (unsigned i = 1; i <= flits; ++i) {
      links[link].pending.push_back(NewFlit(tag, command, length, vault, i == 1, i == flits, i).flit);
      links[link].pending.back()->sourceLink = link;
    }
    ++packets;
    totalFlits += flits;
    if (vault / V != link) remoteFlits += flits;
  }

  // Each core edge: the link slaves send and the vault controllers return
  // credits, as pulses half a cycle long.
  void Run() {
    const sc_time cycle = cfg.CORE_CLK, half = zel::HalfCycle(cfg);
    wait(cycle);
    for (unsigned count = 1;; ++count) {
      std::vector<sc_signal<bool>*> raisedCommands;
      std::vector<sc_signal<int>*> raisedWrites;
      for (unsigned q = 0; q < Q; ++q)
        for (unsigned v = 0; lsw[q] && v < V; ++v) {
          if (v == 0) DriveLink(q);
          if (sc_core::sc_time_stamp() < holdCreditsUntil) continue;
          VaultSide& vault = vaults[q][v];
          if (!vault.commandDue.empty() && vault.commandDue.front() <= sc_core::sc_time_stamp() &&
              sc_core::sc_time_stamp() - vault.lastCommandReturn >= cycle * commandSpacing) {
            vault.commandDue.pop_front();
            --vault.commands;
            vault.lastCommandReturn = sc_core::sc_time_stamp();
            commandCredits[q][v]->write(true);
            raisedCommands.push_back(commandCredits[q][v].get());
          }
          int amount = 0;
          for (; amount < static_cast<int>(writesPerCycle) && !vault.writeDue.empty() &&
                 vault.writeDue.front() <= sc_core::sc_time_stamp();
               ++amount)
            vault.writeDue.pop_front();
          if (amount == 0) continue;
          vault.writes -= amount;
          writeCredits[q][v]->write(amount);
          raisedWrites.push_back(writeCredits[q][v].get());
        }
      if (onEdge) onEdge(count);
      wait(half);
      for (auto* signal : raisedCommands) signal->write(false);
      for (auto* signal : raisedWrites) signal->write(0);
      for (unsigned q = 0; q < Q; ++q)
        if (lsw[q]) links[q].lineLog.push_back(lsw[q]->sourceBuffers[q].size());
      wait(cycle - half);
    }
  }

  void RunScript() {
    if (script) script(*this);
  }

  // Sends like the link slave: new packets wait while busy, a packet in
  // progress goes on and its tail ends the cycle.
  void DriveLink(unsigned q) {
    LinkSide& link = links[q];
    const bool isBusy = busy[q]->read();
    for (unsigned lane = 0; lane < link.perCycle && !link.pending.empty() && link.tokens > 0; ++lane) {
      Flit* flit = link.pending.front();
      if (isBusy && !link.midPacket) break;
      link.pending.pop_front();
      --link.tokens;
      linkFlits[q][lane]->write(Flit_P(flit));
      link.midPacket = !flit->tail && (flit->header || link.midPacket);
      if (isBusy && flit->tail) break;
    }
  }

  // Takes flits at the vaults, checking that packets arrive whole and in
  // order, and watches tokens, busy and the roads between quads: every
  // crossing must go from the flit's own quad straight to its vault's.
  void Watch() {
    const sc_time now = sc_core::sc_time_stamp();
    for (unsigned q = 0; q < Q; ++q) {
      for (unsigned n = 0; lsw[q] && n < vaultFlits[q].size(); ++n) {
        if (!vaultFlits[q][n]->event()) continue;
        const unsigned v = n / cfg.FLITS_IN_PER_CYCLE_VC;
        Flit* flit = vaultFlits[q][n]->read().flit;
        VaultSide& vault = vaults[q][v];
        EXPECT_EQ(flit->destination, V * q + v) << "flit at the wrong vault";
        EXPECT_EQ(flit->header ? NONE : flit->tag, vault.tagInProgress)
            << "packets interleaved at " << V * q + v;
        if (flit->header) {
          vault.tagInProgress = flit->tag;
          vault.nextFlitNumber = 1;
          vault.maxCommands = std::max(vault.maxCommands, ++vault.commands);
          vault.commandDue.push_back(now + cfg.CORE_CLK * commandDelay);
        }
        EXPECT_EQ(flit->flitNumber, vault.nextFlitNumber++) << "flits out of order";
        // The write credit a flit takes at its vault, by header, tail and length.
        if (flit->header ? !flit->tail : !flit->tail || flit->requestLength % 32 != 0) {
          vault.maxWrites = std::max(vault.maxWrites, ++vault.writes);
          vault.writeDue.push_back(now + cfg.CORE_CLK * writeDelay);
        }
        if (flit->tail) {
          vault.tagInProgress = NONE;
          ++delivered[{flit->sourceLink, flit->tag}];
          vault.arrivals.push_back({now, flit->tag});
        }
        delete flit;
      }
      if (!lsw[q]) continue;
      if (linkTokens[q]->event() && linkTokens[q]->read() >= 1) {
        links[q].tokens += linkTokens[q]->read();
        links[q].tokenLog.push_back({now, linkTokens[q]->read()});
      }
      if (busy[q]->event()) links[q].busyLog.push_back({now, busy[q]->read()});
      for (unsigned to = 0; to < Q; ++to) {
        for (auto& signal : interquadFlits[q][to]) {
          if (!signal->event()) continue;
          ++crossings;
          EXPECT_EQ(signal->read()->sourceLink, q) << "flit forwarded by a third quad";
          EXPECT_EQ(signal->read()->destination / V, to) << "flit sent to the wrong quad";
        }
        if (to == q) continue;
        if (interquadCredits[q][to]->event() && interquadCredits[q][to]->read() != 0)
          peerCreditLog.emplace_back(now, q, to, interquadCredits[q][to]->read());
        if (earlyCredits[q][to]->event()) earlyRefunds += earlyCredits[q][to]->read();
      }
    }
  }

  // Every packet arrived once, and every counter of every switch is back at
  // its start with nothing held anywhere.
  void ExpectDeliveredAndAtRest() {
    EXPECT_EQ(delivered.size(), packets);
    for (const auto& [key, count] : delivered)
      EXPECT_EQ(count, 1u) << "packet " << key.second << " of link " << key.first;
    for (unsigned q = 0; q < Q; ++q) {
      if (!lsw[q]) continue;
      const auto& s = *lsw[q];
      SCOPED_TRACE("lsw" + std::to_string(q));
      EXPECT_TRUE(links[q].pending.empty());
      for (unsigned d = 0; d < V + Q - 1; ++d)
        EXPECT_EQ(s.destinationCredits[d], d < V ? cfg.TRANSACTION_Q_CAPACITY : cfg.LSW_INTERQUAD_BUFFER_SIZE)
            << d;
      for (unsigned v = 0; v < V; ++v) EXPECT_EQ(s.writeCredits[v], cfg.DATA_Q_CAPACITY);
      for (unsigned n = 0; n < Q; ++n)
        EXPECT_TRUE(s.returnCredits[n] == 0 && s.sourceBuffers[n].empty() && s.completePackets[n] == 0) << n;
      for (int32_t owner : s.destinationOwner) EXPECT_EQ(owner, -1);
      EXPECT_TRUE(s.creditIncreaseQueue.empty() && s.earlyCreditQueue.empty() && s.tailIncreaseQueue.empty());
      EXPECT_EQ(links[q].tokens, links[q].initialTokens);
      EXPECT_FALSE(busy[q]->read());
      for (const VaultSide& vault : vaults[q])
        EXPECT_TRUE(vault.commands == 0 && vault.writes == 0 &&
                    vault.maxCommands <= cfg.TRANSACTION_Q_CAPACITY &&
                    vault.maxWrites <= cfg.DATA_Q_CAPACITY);
    }
  }
};

// ---- Routing under load

// Random reads and writes from every link to every vault of the cube, with
// and without packing of inter-quad flits.
class LinkSwitchRouting : public ::testing::TestWithParam<unsigned> {};

TEST_P(LinkSwitchRouting, EveryPacketReachesItsVaultWholeAcrossAtMostOneBoundary) {
  const unsigned packing = GetParam();
  zel::Config cfg = MakeConfig(4, 4);
  cfg.PACK_INTERQUAD = packing;
  Bench bench("bench", cfg, {true, true, true, true});
  std::mt19937 random(7);
  const zel::ZELCommand commands[] = {zel::RD, zel::WR, zel::P_WR};
  for (unsigned i = 0; i < 200; ++i)
    for (unsigned link = 0; link < 4; ++link)
      bench.Send(link, commands[random() % 3], 16 * (1 + random() % 8), random() % 16);
  sc_core::sc_start(30, sc_core::SC_US);

  bench.ExpectDeliveredAndAtRest();
  EXPECT_EQ(bench.crossings, bench.remoteFlits);
  // Flits of one packet that arrive together share a line and are refunded
  // early, unless packing puts them into lines instead.
  if (packing)
    EXPECT_EQ(bench.earlyRefunds, 0u);
  else
    EXPECT_GT(bench.earlyRefunds, 0u);
  uint64_t moved = 0;
  for (unsigned q = 0; q < 4; ++q) moved += bench.stats.lswFlitsMoved[q];
  // A local flit is moved once, a remote one by both switches.
  EXPECT_EQ(moved, bench.totalFlits + bench.remoteFlits);
}

INSTANTIATE_TEST_SUITE_P(Packing, LinkSwitchRouting, ::testing::Values(0u, 1u));

// ---- Lines, tokens and lanes

TEST(LinkSwitchLines, FlitsJoiningALineOfTheSameCycleGetTheirTokenAtOnce) {
  Bench bench("bench", MakeConfig(2, 4), {true, true});
  // Cycle 1: two reads for vault 0 share a line, a read for quad 1 opens one.
  // Cycle 2: reads for vaults 4 and 5 of quad 1 share a line: quad alone matters.
  for (unsigned vault : {0, 0, 4, 4, 5}) bench.Send(0, zel::RD, 64, vault);
  bench.onEdge = [&](unsigned cycle) {
    if (cycle == 1) bench.links[0].perCycle = 2;  // next cycle sends the remaining two
  };
  sc_core::sc_start(4100, sc_core::SC_PS);  // cycles 1 and 2, and the sample after each
  const auto& log = bench.links[0].tokenLog;
  ASSERT_GE(log.size(), 2u);
  EXPECT_EQ(log[0], std::make_pair(zelsim_test::Ps(1600), 1));
  EXPECT_EQ(log[1], std::make_pair(zelsim_test::Ps(3200), 1));
  EXPECT_EQ(bench.links[0].lineLog, (std::vector<size_t>{2, 3}));
  EXPECT_EQ(bench.lsw[0]->sourceBuffers[0][2].size(), 2u);
  sc_core::sc_start(10, sc_core::SC_US);
  bench.ExpectDeliveredAndAtRest();
}

// With every vault throttled for 10 cycles, the lines of cycles 1 and 2 are
// all ready when the vaults open for one activation: the flits on lanes 0 and
// 1 leave together, the second flit on lane 0 waits for the next opening.
TEST(LinkSwitchLines, OneLaneOfASourceCarriesOneFlitPerActivation) {
  zel::Config cfg = MakeConfig(1, 4);
  cfg.CREDIT_THROTTLE_VC = 100;
  cfg.THROTTLE_STALL_TIME = 10;
  Bench bench("bench", cfg, {true});
  bench.links[0].perCycle = 2;
  for (unsigned vault : {0, 1, 2}) bench.Send(0, zel::RD, 64, vault);
  sc_core::sc_start(5, sc_core::SC_US);
  // The first activation, at cycle 2, closes all vaults until cycle 12. Each
  // activation moves the first local vault on by one, so at cycle 12 the scan
  // starts at vault 2, whose flit takes lane 0 before vault 0's can.
  const auto& v = bench.vaults[0];
  const sc_time cycle = cfg.CORE_CLK;
  EXPECT_EQ(v[0].arrivals, (std::vector<std::pair<sc_time, uint32_t>>{{cycle * 23, 1}}));
  EXPECT_EQ(v[1].arrivals, (std::vector<std::pair<sc_time, uint32_t>>{{cycle * 12, 2}}));
  EXPECT_EQ(v[2].arrivals, (std::vector<std::pair<sc_time, uint32_t>>{{cycle * 12, 3}}));
  bench.ExpectDeliveredAndAtRest();
}

TEST(LinkSwitchLines, BusyRisesPastTheThresholdAndFallsBackAtIt) {
  zel::Config cfg = MakeConfig(1, 4);
  cfg.LSW_INPUT_BUFFER_THRESHOLD = 6;
  cfg.TRANSACTION_Q_CAPACITY = 1;  // one read passes, the rest wait for its credit
  cfg.CREDIT_THROTTLE_VC = 0;
  Bench bench("bench", cfg, {true});
  bench.links[0].perCycle = 1;
  bench.holdCreditsUntil = cfg.CORE_CLK * 40;
  for (unsigned i = 0; i < 12; ++i) bench.Send(0, zel::RD, 64, 0);
  sc_core::sc_start(5, sc_core::SC_US);

  bench.ExpectDeliveredAndAtRest();
  const auto& log = bench.links[0].busyLog;
  const auto& lines = bench.links[0].lineLog;  // lines[i]: the count after edge i + 1
  ASSERT_TRUE(log.size() == 2 && log[0].second && !log[1].second);
  const unsigned delay = cfg.BUSY_SIGNAL_DELAY;
  const unsigned rise = static_cast<unsigned>(log[0].first / cfg.CORE_CLK);
  const unsigned fall = static_cast<unsigned>(log[1].first / cfg.CORE_CLK);
  EXPECT_EQ(rise, 8 + delay);  // a line a cycle, one gone at cycle 5
  // Threshold + 1 at the edge that raised it, back to the threshold at the one that lowered it.
  EXPECT_EQ(std::make_pair(lines[rise - delay - 2], lines[rise - delay - 1]),
            std::make_pair(size_t{6}, size_t{7}));
  EXPECT_EQ(std::make_pair(lines[fall - delay - 2], lines[fall - delay - 1]),
            std::make_pair(size_t{7}, size_t{6}));
  EXPECT_EQ(*std::max_element(lines.begin(), lines.end()), 11u);
}

// ---- Credits

// Vault 0 gets reads and a command credit every 20 cycles; vault 1 gets
// 128-byte writes and one write credit a cycle. The switch fills the
// transaction queue and overfills neither queue.
TEST(LinkSwitchCredits, AVaultControllerPacesRequestsByItsCredits) {
  Bench bench("bench", MakeConfig(1, 2), {true});
  bench.commandSpacing = 20;
  bench.writesPerCycle = 1;
  for (unsigned i = 0; i < 60; ++i)
    bench.Send(0, i % 3 == 2 ? zel::WR : zel::RD, i % 3 == 2 ? 128 : 64, i % 3 == 2 ? 1 : 0);
  sc_core::sc_start(30, sc_core::SC_US);

  bench.ExpectDeliveredAndAtRest();
  EXPECT_EQ(bench.vaults[0][0].maxCommands, bench.cfg.TRANSACTION_Q_CAPACITY);
}

TEST(LinkSwitchCredits, OwedTokensGoOutInSlicesAndPeersGetOneCreditPerPulse) {
  Bench bench("bench", MakeConfig(2, 4), {true, false});
  bench.onEdge = [&](unsigned cycle) {
    if (cycle != 2) return;
    bench.lsw[0]->returnCredits[0] = 5;
    bench.lsw[0]->returnCredits[1] = 3;
    bench.lsw[0]->returnTokensEvent.notify();
  };
  sc_core::sc_start(10, sc_core::SC_NS);
  const sc_time cycle = bench.cfg.CORE_CLK;
  const std::vector<std::pair<sc_time, int>> tokens = {{cycle * 2, 3}, {cycle * 3, 2}};
  EXPECT_EQ(bench.links[0].tokenLog, tokens);
  ASSERT_EQ(bench.peerCreditLog.size(), 3u);
  for (unsigned i = 0; i < 3; ++i)
    EXPECT_EQ(bench.peerCreditLog[i], std::make_tuple(cycle * (2 + i), 0u, 1u, 1));
}

// ---- Diagnostics

// Link 1 reads 64 bytes of vault 9, crossing from quad 1 to quad 2 at 1.6 us.
TEST(LinkSwitchDiagnostics, InterquadTraceLineHasItsFourteenColumns) {
  Bench bench("bench", MakeConfig(5, 4), {false, true, false, false, true});
  sc_core::sc_start(1600, sc_core::SC_NS);
  zelsim_test::TempDir dir;
  zel::tsvFile.open(dir.path + "/interquad.tsv");
  Flit_P read = NewFlit(0x1a, zel::RD, 64, 9, true, true);
  read->sourceLink = 1;
  bench.lsw[1]->PrintInterquad(read, 2);
  Flit_P write = NewFlit(300, zel::WR, 32, 0, false, false, 2);
  write->sourceLink = 1;
  write->hostTag = 5;
  bench.lsw[1]->PrintInterquad(write, 3);
  bench.lsw[4]->PrintInterquad(read, 1);  // no axes beyond quad 3: nothing
  zel::tsvFile.close();
  EXPECT_EQ(zelsim_test::ReadFile(dir.path + "/interquad.tsv"),
            "1600\tSWITCHZ1_req\t1\t0\t9\tXXX\t0xDONTCARE\t0x1a\t1\tRD64\t0\t0\t0\t0\n"
            "1600\tSWITCHX1_req\t1\t0\t0\tXXX\t0xDONTCARE\t0x5\t2\tWR32\t0\t0\t0\t0\n");
}

// ---- Failures

// A bench of `quads` quads of four vaults where quad `id` alone has a switch
// runs `body` from `start` core cycles on; the model must end it, writing
// `message` and then failing `assertion` if there is one, or else exiting
// with status 0.
struct FailureCase {
  const char* name;
  unsigned quads, id;
  std::function<void(Bench&)> body;
  std::string message, assertion;
  double start = 1;
  std::function<void(zel::Config&)> configure = nullptr;
};

void PrintTo(const FailureCase& c, std::ostream* os) { *os << c.name; }

std::vector<FailureCase> FailureCases() {
  // A write header of another tag than the packet in progress, from the link and from quad 1.
  Flit_P fromLink = NewFlit(2, zel::WR, 16, 1, true, false),
         fromPeer = NewFlit(2, zel::WR, 16, 1, true, false);
  fromLink->sourceLink = 0;
  fromLink->lane = 0;
  fromPeer->lane = 1;
  auto rd = [](uint32_t tag, unsigned vault) { return NewFlit(tag, zel::RD, 64, vault, true, true); };
  return {
      // The first delivery, at time zero, meets a last delivery time of zero.
      {"TwoDeliveriesFromTheLinkInOneTimeStep", 1, 0, [=](Bench& b) { b.linkFlits[0][0]->write(rd(1, 0)); },
       "=[0 s]= ERROR - LS sent to DIS twice on one cycle!!!!\n", "", 0},
      {"NonContiguousTagFromTheLink", 1, 0,
       [=](Bench& b) {
         b.linkFlits[0][0]->write(NewFlit(1, zel::WR, 16, 1, true, false));
         sc_core::wait(b.cfg.CORE_CLK);
         b.linkFlits[0][0]->write(fromLink);
       },
       "== ERROR - Non-contiguous tag received from LS in LSW0 (tag=1)\n" + Printed(*fromLink) + "\n"},
      {"LinkInputBufferAboveItsCapacity", 1, 0,
       [=](Bench& b) {
         for (unsigned k = 0; k < 3; ++k) b.linkFlits[0][k]->write(rd(k, k));
       },
       "=[1600 ps]= ERROR - Link Switch 0 input buffer exceeded max capacity (3)\n", "false", 1,
       [](zel::Config& c) { c.LSW_INPUT_BUFFER_SIZE = 2; }},
      {"NonContiguousTagFromAnotherQuad", 2, 0,
       [=](Bench& b) {
         b.interquadFlits[1][0][0]->write(NewFlit(1, zel::WR, 16, 1, true, false));
         sc_core::wait(b.cfg.CORE_CLK);
         b.interquadFlits[1][0][1]->write(fromPeer);
       },
       "== ERROR - Non-contiguous tag received from interquad in LSW0\n" + Printed(*fromPeer) + "\n"},
      {"InterquadBufferAboveItsCapacity", 2, 1,
       [=](Bench& b) {
         b.interquadFlits[0][1][0]->write(rd(1, 4));
         b.interquadFlits[0][1][1]->write(rd(2, 5));
       },
       "=[1600 ps]= ERROR - Link Switch 1 interquad buffer 0 exceeded max capacity\n", "false", 1,
       [](zel::Config& c) { c.LSW_INTERQUAD_BUFFER_SIZE = 1; }},
      // A delivery half a cycle off the edge wakes the arbiter off the edge too.
      {"ArbitrationOffTheCoreClock", 1, 0, [=](Bench& b) { b.linkFlits[0][0]->write(rd(1, 0)); },
       "ERROR: off timing in LSW0 @ 2400 ps\n", "0", 0.5},
      {"TailIncreaseWithNoTailQueued", 1, 0,
       [](Bench& b) { b.lsw[0]->tailIncreaseQueue.queue.notify(b.cfg.CORE_CLK); }, "",
       "tailIncreaseQueue.size()"},
      {"MoreCommandCreditsThanTheTransactionQueueHolds", 2, 1,
       [](Bench& b) { b.commandCredits[1][2]->write(true); },
       "=[1600 ps]= ERROR - LSW1 Received too many credits from VC6 [Now have : 25]\n", "false"},
      {"MoreWriteCreditsThanTheDataQueueHolds", 2, 1, [](Bench& b) { b.writeCredits[1][2]->write(1); },
       "=[1600 ps]= ERROR - LSW1 Received too many write credits from VC6\n", "false"},
      {"MoreInterquadCreditsThanTheBufferHoldsOnTheDelayedRoad", 2, 1,
       [](Bench& b) { b.interquadCredits[0][1]->write(1); }, "",
       "destinationCredits[cfg.VAULTS_PER_QUAD+q]<=cfg.LSW_INTERQUAD_BUFFER_SIZE"},
      {"MoreInterquadCreditsThanTheBufferHoldsOnTheEarlyRoad", 2, 1,
       [](Bench& b) { b.earlyCredits[0][1]->write(1); }, "",
       "destinationCredits[cfg.VAULTS_PER_QUAD+i]<=cfg.LSW_INTERQUAD_BUFFER_SIZE"},
      {"TraceOfACommandWithoutShortText", 4, 1,
       [](Bench& b) { b.lsw[1]->PrintInterquad(NewFlit(1, zel::WR_RSP, 0, 9, true, true), 2); },
       "WTF TSV FILE\n"},
      {"TraceToItsOwnQuad", 4, 2, [=](Bench& b) { b.lsw[2]->PrintInterquad(rd(1, 9), 2); },
       "ERROR with interquad tsv printing\n"},
  };
}

class LinkSwitchFailure : public ::testing::TestWithParam<FailureCase> {};

TEST_P(LinkSwitchFailure, EndsTheRunWithItsMessage) {
  const FailureCase& c = GetParam();
  const auto run = [&c] {
    dup2(2, 1);
    zel::Config cfg = MakeConfig(c.quads, 4);
    if (c.configure) c.configure(cfg);
    std::vector<bool> real(c.quads, false);
    real[c.id] = true;
    Bench bench("bench", cfg, real);
    bench.script = [&c](Bench& b) {
      if (c.start > 0) sc_core::wait(b.cfg.CORE_CLK * c.start);
      c.body(b);
    };
    sc_core::sc_start(1, sc_core::SC_US);
  };
  const std::string pattern = zelsim_test::Literal(c.message);
  if (c.assertion.empty())
    EXPECT_EXIT(run(), ::testing::ExitedWithCode(0), pattern);
  else
    EXPECT_DEATH(run(), pattern + ".*" + zelsim_test::Literal("Assertion `" + c.assertion + "' failed"));
}

INSTANTIATE_TEST_SUITE_P(Cases, LinkSwitchFailure, ::testing::ValuesIn(FailureCases()),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
