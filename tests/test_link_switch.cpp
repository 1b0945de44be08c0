// SPDX-License-Identifier: Apache-2.0
// The link switch on its own. A bench binds every port of one or more switches
// to signals: it plays the link slave of each quad (flits by lane, under
// tokens and the busy signal), the vault controllers (taking flits, checking
// that packets arrive whole and contiguous, and returning command and write
// credits), and wires switches of several quads to one another as a quad
// array would. Quads without a switch leave their signals to test scripts.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <deque>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <systemc>

#include "zel2/Config.h"
#include "zel2/StatsKeeper.h"
#include "zel2/zel2_cube.h"
#include "zel2/zel2_flit.h"
#include "zel2/zel2_link_switch.h"

namespace {

namespace zel = Sornak::Internal::ZEL2;
using sc_core::sc_signal;
using sc_core::sc_time;
using sc_core::SC_NS;
using sc_core::SC_PS;
using zel::Flit;
using zel::Flit_P;

constexpr uint32_t NONE = 0xffffffffu;

// ---- Matching of the model's messages in death tests

class ContainsAllText : public ::testing::MatcherInterface<const std::string&> {
 public:
  explicit ContainsAllText(std::vector<std::string> texts) : texts_(std::move(texts)) {}
  bool MatchAndExplain(const std::string& output, ::testing::MatchResultListener*) const override {
    for (const auto& text : texts_)
      if (output.find(text) == std::string::npos) return false;
    return true;
  }
  void DescribeTo(std::ostream* os) const override {
    *os << "contains";
    for (const auto& text : texts_) *os << " \"" << text << "\"";
  }

 private:
  std::vector<std::string> texts_;
};

::testing::Matcher<const std::string&> Output(std::vector<std::string> texts) {
  return ::testing::MakeMatcher(new ContainsAllText(std::move(texts)));
}

// The model writes to stdout; death tests read stderr.
#define EXPECT_MODEL_EXIT(statement, ...) \
  EXPECT_EXIT({ dup2(2, 1); statement; }, ::testing::ExitedWithCode(0), Output({__VA_ARGS__}))
#define EXPECT_MODEL_DEATH(statement, ...) EXPECT_DEATH({ dup2(2, 1); statement; }, Output({__VA_ARGS__}))

template <class T>
using SignalPtr = std::unique_ptr<sc_signal<T>>;

template <class T>
std::vector<SignalPtr<T>> MakeSignals(size_t count) {
  std::vector<SignalPtr<T>> signals;
  for (size_t i = 0; i < count; ++i)
    signals.emplace_back(new sc_signal<T>(sc_core::sc_gen_unique_name("signal")));
  return signals;
}

unsigned Peer(unsigned self, unsigned other) { return other < self ? other : other - 1; }

// Write credits a flit takes at its vault, by header, tail and length.
unsigned WriteEntries(const Flit& flit) {
  if (flit.header) return flit.tail ? 0 : 1;
  if (!flit.tail) return 1;
  return flit.requestLength % 32 != 0 ? 1 : 0;
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

struct Bench : sc_core::sc_module {
  // The link slave of a quad.
  struct LinkSide {
    std::deque<Flit*> pending;   // flits not yet sent, in order
    int tokens = 100;
    int initialTokens = 100;
    unsigned perCycle = 3;       // flits sent in one cycle at most
    bool midPacket = false;
    unsigned nextTag = 1;
    std::vector<std::pair<sc_time, int>> tokenLog;
    std::vector<std::pair<sc_time, bool>> busyLog;
    std::vector<size_t> lineLog;  // own source line count, sampled half a cycle after each edge
  };
  // The vault controller of one vault.
  struct VaultSide {
    uint32_t tagInProgress = NONE;
    uint32_t nextFlitNumber = 1;
    std::deque<sc_time> commandDue;                 // command credits owed, by due time
    std::deque<std::pair<sc_time, int>> writeDue;   // write credits owed
    unsigned outstandingCommands = 0, maxOutstandingCommands = 0;
    unsigned outstandingWrites = 0, maxOutstandingWrites = 0;
    sc_time lastCommandReturn = sc_core::SC_ZERO_TIME;
    std::vector<std::pair<sc_time, uint32_t>> arrivals;  // (time, tag) of whole packets
  };

  const zel::Config& cfg;
  zel::StatsKeeper& stats;
  const unsigned Q, V;
  std::vector<std::unique_ptr<zel::zel2_link_switch>> lsw;  // null where the quad has none

  std::vector<std::vector<SignalPtr<Flit_P>>> linkFlits;           // [q][lane]
  std::vector<SignalPtr<bool>> busy;                               // [q]
  std::vector<SignalPtr<int>> linkTokens;                          // [q]
  std::vector<std::vector<SignalPtr<Flit_P>>> vaultFlits;          // [q][port]
  std::vector<std::vector<SignalPtr<bool>>> commandCredits;        // [q][v]
  std::vector<std::vector<SignalPtr<int>>> writeCredits;           // [q][v]
  std::vector<std::vector<std::vector<SignalPtr<Flit_P>>>> interquadFlits;  // [from][to][slot]
  std::vector<std::vector<SignalPtr<int>>> interquadCredits;       // [from][to]
  std::vector<std::vector<SignalPtr<int>>> earlyCredits;           // [from][to]

  std::vector<LinkSide> links;
  std::vector<std::vector<VaultSide>> vaults;
  // Credit behaviour of the vault controllers.
  unsigned commandDelay = 3, commandSpacing = 1, writeDelay = 8, writesPerCycle = 2;
  sc_time holdCreditsUntil = sc_core::SC_ZERO_TIME;

  std::map<std::pair<unsigned, uint32_t>, unsigned> sent;       // (link, tag) -> flits
  std::map<std::pair<unsigned, uint32_t>, unsigned> delivered;  // (link, tag) -> whole arrivals
  unsigned totalFlits = 0, remoteFlits = 0, crossings = 0, earlyRefunds = 0;
  sc_time lastDelivery = sc_core::SC_ZERO_TIME;
  std::vector<std::tuple<sc_time, unsigned, unsigned, int>> peerCreditLog;  // time, from, to, value
  std::function<void(unsigned cycle)> onEdge;  // called at each edge after the bench's own writes
  std::function<void()> script;                // runs in its own thread from time zero

  SC_HAS_PROCESS(Bench);
  Bench(sc_core::sc_module_name name, const zel::Config& config, zel::StatsKeeper& keeper,
        std::vector<bool> real)
      : sc_module(name), cfg(config), stats(keeper), Q(config.NUM_QUADS), V(config.VAULTS_PER_QUAD) {
    lsw.resize(Q);
    links.resize(Q);
    vaults.assign(Q, std::vector<VaultSide>(V));
    busy = MakeSignals<bool>(Q);
    linkTokens = MakeSignals<int>(Q);
    for (unsigned q = 0; q < Q; ++q) {
      linkFlits.push_back(MakeSignals<Flit_P>(cfg.FLITS_PER_CYCLE_LINK));
      vaultFlits.push_back(MakeSignals<Flit_P>(V * cfg.FLITS_IN_PER_CYCLE_VC));
      commandCredits.push_back(MakeSignals<bool>(V));
      writeCredits.push_back(MakeSignals<int>(V));
      interquadFlits.emplace_back();
      interquadCredits.push_back(MakeSignals<int>(Q));
      earlyCredits.push_back(MakeSignals<int>(Q));
      for (unsigned n = 0; n < Q; ++n)
        interquadFlits[q].push_back(MakeSignals<Flit_P>(n == q ? 0 : cfg.FLITS_PER_CYCLE_LSW));
    }
    for (unsigned q = 0; q < Q; ++q)
      if (real[q]) Build(q);

    SC_THREAD(Run);
    SC_THREAD(RunScript);

    SC_METHOD(ReceiveAtVaults);
    for (unsigned q = 0; q < Q; ++q)
      if (lsw[q])
        for (auto& signal : vaultFlits[q]) sensitive << *signal;
    dont_initialize();

    SC_METHOD(WatchLinks);
    for (unsigned q = 0; q < Q; ++q)
      if (lsw[q]) sensitive << *linkTokens[q] << *busy[q];
    dont_initialize();

    bool anyPeer = false;
    for (unsigned q = 0; q < Q; ++q) anyPeer = anyPeer || (lsw[q] && Q > 1);
    if (anyPeer) {
      SC_METHOD(WatchInterquad);
      for (unsigned from = 0; from < Q; ++from)
        for (unsigned to = 0; to < Q; ++to) {
          if (from == to || !lsw[from]) continue;
          if (lsw[to])
            for (auto& signal : interquadFlits[from][to]) sensitive << *signal;
          sensitive << *interquadCredits[from][to] << *earlyCredits[from][to];
        }
      dont_initialize();
    }
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
      const unsigned r = Peer(q, n);
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
      auto* flit = new Flit(tag, 0, command, length, i == 1, i == flits, i);
      flit->destination = vault;
      flit->sourceLink = link;
      links[link].pending.push_back(flit);
      // The harness owns no flit that it hands to the block: they stay
      // reachable here for the program's life.
      static auto* made = new std::vector<Flit*>;  // never destroyed
      made->push_back(flit);
    }
    sent[{link, tag}] = flits;
    totalFlits += flits;
    if (vault / V != link) remoteFlits += flits;
  }

  void Run() {
    const sc_time cycle = cfg.CORE_CLK;
    const sc_time half = zel::HalfCycle(cfg);
    wait(cycle);
    for (unsigned count = 1;; ++count) {
      std::vector<sc_signal<bool>*> raisedCommands;
      std::vector<sc_signal<int>*> raisedWrites;
      for (unsigned q = 0; q < Q; ++q) {
        if (!lsw[q]) continue;
        DriveLink(q);
        for (unsigned v = 0; v < V; ++v) ReturnCredits(q, v, raisedCommands, raisedWrites);
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
    if (script) script();
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
      if (flit->header) link.midPacket = true;
      if (flit->tail) link.midPacket = false;
      if (isBusy && flit->tail) break;
    }
  }

  void ReturnCredits(unsigned q, unsigned v, std::vector<sc_signal<bool>*>& raisedCommands,
                     std::vector<sc_signal<int>*>& raisedWrites) {
    const sc_time now = sc_core::sc_time_stamp();
    if (now < holdCreditsUntil) return;
    VaultSide& vault = vaults[q][v];
    if (!vault.commandDue.empty() && vault.commandDue.front() <= now &&
        now - vault.lastCommandReturn >= cfg.CORE_CLK * commandSpacing) {
      vault.commandDue.pop_front();
      --vault.outstandingCommands;
      vault.lastCommandReturn = now;
      commandCredits[q][v]->write(true);
      raisedCommands.push_back(commandCredits[q][v].get());
    }
    int amount = 0;
    while (!vault.writeDue.empty() && vault.writeDue.front().first <= now &&
           amount < static_cast<int>(writesPerCycle)) {
      auto& due = vault.writeDue.front();
      const int take = std::min(due.second, static_cast<int>(writesPerCycle) - amount);
      amount += take;
      due.second -= take;
      if (due.second == 0) vault.writeDue.pop_front();
    }
    if (amount > 0) {
      vault.outstandingWrites -= amount;
      writeCredits[q][v]->write(amount);
      raisedWrites.push_back(writeCredits[q][v].get());
    }
  }

  void ReceiveAtVaults() {
    const sc_time now = sc_core::sc_time_stamp();
    for (unsigned q = 0; q < Q; ++q) {
      if (!lsw[q]) continue;
      for (unsigned n = 0; n < vaultFlits[q].size(); ++n) {
        if (!vaultFlits[q][n]->event()) continue;
        const unsigned v = n / cfg.FLITS_IN_PER_CYCLE_VC;
        Flit* flit = vaultFlits[q][n]->read().flit;
        VaultSide& vault = vaults[q][v];
        EXPECT_EQ(flit->destination, V * q + v) << "flit at the wrong vault";
        if (flit->header) {
          EXPECT_EQ(vault.tagInProgress, NONE) << "packets interleaved at vault " << V * q + v;
          vault.tagInProgress = flit->tag;
          vault.nextFlitNumber = 1;
          ++vault.outstandingCommands;
          vault.maxOutstandingCommands = std::max(vault.maxOutstandingCommands, vault.outstandingCommands);
          vault.commandDue.push_back(now + cfg.CORE_CLK * commandDelay);
        } else {
          EXPECT_EQ(flit->tag, vault.tagInProgress) << "packets interleaved at vault " << V * q + v;
        }
        EXPECT_EQ(flit->flitNumber, vault.nextFlitNumber) << "flits out of order";
        ++vault.nextFlitNumber;
        if (const unsigned entries = WriteEntries(*flit)) {
          vault.outstandingWrites += entries;
          vault.maxOutstandingWrites = std::max(vault.maxOutstandingWrites, vault.outstandingWrites);
          vault.writeDue.push_back({now + cfg.CORE_CLK * writeDelay, static_cast<int>(entries)});
        }
        if (flit->tail) {
          vault.tagInProgress = NONE;
          ++delivered[{flit->sourceLink, flit->tag}];
          vault.arrivals.push_back({now, flit->tag});
          lastDelivery = now;
        }
        delete flit;
      }
    }
  }

  void WatchLinks() {
    const sc_time now = sc_core::sc_time_stamp();
    for (unsigned q = 0; q < Q; ++q) {
      if (!lsw[q]) continue;
      if (linkTokens[q]->event() && linkTokens[q]->read() >= 1) {
        links[q].tokens += linkTokens[q]->read();
        links[q].tokenLog.push_back({now, linkTokens[q]->read()});
      }
      if (busy[q]->event()) links[q].busyLog.push_back({now, busy[q]->read()});
    }
  }

  // Every crossing must go from the flit's own quad straight to its vault's.
  void WatchInterquad() {
    const sc_time now = sc_core::sc_time_stamp();
    for (unsigned from = 0; from < Q; ++from)
      for (unsigned to = 0; to < Q; ++to) {
        if (from == to || !lsw[from]) continue;
        for (auto& signal : interquadFlits[from][to]) {
          if (!signal->event()) continue;
          ++crossings;
          EXPECT_EQ(signal->read()->sourceLink, from) << "flit forwarded by a third quad";
          EXPECT_EQ(signal->read()->destination / V, to) << "flit sent to the wrong quad";
        }
        if (interquadCredits[from][to]->event() && interquadCredits[from][to]->read() != 0)
          peerCreditLog.emplace_back(now, from, to, interquadCredits[from][to]->read());
        if (earlyCredits[from][to]->event()) earlyRefunds += earlyCredits[from][to]->read();
      }
  }

  // Every counter of every switch back at its start, and nothing held anywhere.
  void ExpectAtRest() {
    for (unsigned q = 0; q < Q; ++q) {
      if (!lsw[q]) continue;
      const auto& s = *lsw[q];
      for (unsigned d = 0; d < V + Q - 1; ++d)
        EXPECT_EQ(s.destinationCredits[d], d < V ? cfg.TRANSACTION_Q_CAPACITY : cfg.LSW_INTERQUAD_BUFFER_SIZE)
            << "lsw" << q << " destination " << d;
      for (unsigned v = 0; v < V; ++v) EXPECT_EQ(s.writeCredits[v], cfg.DATA_Q_CAPACITY) << "lsw" << q;
      for (unsigned n = 0; n < Q; ++n) {
        EXPECT_EQ(s.returnCredits[n], 0u) << "lsw" << q << " source " << n;
        EXPECT_TRUE(s.sourceBuffers[n].empty()) << "lsw" << q << " source " << n;
        EXPECT_EQ(s.completePackets[n], 0u) << "lsw" << q << " source " << n;
      }
      for (int32_t owner : s.destinationOwner) EXPECT_EQ(owner, -1);
      EXPECT_TRUE(s.creditIncreaseQueue.empty());
      EXPECT_TRUE(s.earlyCreditQueue.empty());
      EXPECT_TRUE(s.tailIncreaseQueue.empty());
      EXPECT_EQ(links[q].tokens, links[q].initialTokens) << "link " << q;
      EXPECT_FALSE(busy[q]->read());
      for (unsigned v = 0; v < V; ++v) {
        EXPECT_EQ(vaults[q][v].outstandingCommands, 0u);
        EXPECT_EQ(vaults[q][v].outstandingWrites, 0u);
      }
    }
  }

  void ExpectAllDelivered() {
    EXPECT_EQ(delivered.size(), sent.size());
    for (const auto& [key, count] : delivered) {
      EXPECT_EQ(count, 1u) << "packet " << key.second << " of link " << key.first;
      EXPECT_EQ(sent.count(key), 1u);
    }
    for (unsigned q = 0; q < Q; ++q) EXPECT_TRUE(links[q].pending.empty());
  }
};

std::string Printed(const Flit& flit) {
  std::ostringstream out;
  out << flit;
  return out.str();
}

std::string CaptureStdout(const std::function<void()>& action) {
  std::ostringstream captured;
  std::streambuf* old = std::cout.rdbuf(captured.rdbuf());
  action();
  std::cout.rdbuf(old);
  return captured.str();
}

Flit_P NewFlit(uint32_t tag, zel::ZELCommand command, unsigned length, unsigned destination,
               bool header, bool tail, unsigned number = 1) {
  auto* flit = new Flit(tag, 0, command, length, header, tail, number);
  flit->destination = destination;
  // The harness owns no flit that it hands to the block: they stay reachable
  // here for the program's life, whether the block deletes them or not.
  static auto* made = new std::vector<Flit*>;  // never destroyed
  made->push_back(flit);
  return Flit_P(flit);
}

// ---- Routing under load

// Random reads and writes from every link to every vault of the cube.
void RunMixedTraffic(unsigned packing) {
  zel::Config cfg = MakeConfig(4, 4);
  cfg.PACK_INTERQUAD = packing;
  zel::StatsKeeper stats(cfg);
  Bench bench("bench", cfg, stats, {true, true, true, true});
  std::mt19937 random(7);
  const zel::ZELCommand commands[] = {zel::RD, zel::WR, zel::P_WR};
  for (unsigned i = 0; i < 200; ++i)
    for (unsigned link = 0; link < 4; ++link)
      bench.Send(link, commands[random() % 3], 16 * (1 + random() % 8), random() % 16);
  sc_core::sc_start(30, sc_core::SC_US);

  ASSERT_EQ(bench.sent.size(), 800u);
  bench.ExpectAllDelivered();
  bench.ExpectAtRest();
  EXPECT_EQ(bench.crossings, bench.remoteFlits);
  // Flits of one packet that arrive together share a line and are refunded
  // early, unless packing puts them into lines instead.
  if (packing)
    EXPECT_EQ(bench.earlyRefunds, 0u);
  else
    EXPECT_GT(bench.earlyRefunds, 0u);
  uint64_t moved = 0;
  for (unsigned q = 0; q < 4; ++q) {
    moved += stats.lswFlitsMoved[q];
    for (unsigned source = 0; source < 4; ++source)
      EXPECT_GT(stats.lswBufferTime[q][source], 0u) << "quad " << q << " source " << source;
  }
  // A local flit is moved once, a remote one by both switches.
  EXPECT_EQ(moved, bench.totalFlits + bench.remoteFlits);
}

TEST(LinkSwitchRouting, EveryPacketReachesItsVaultWholeAcrossAtMostOneBoundary) { RunMixedTraffic(0); }

TEST(LinkSwitchRouting, PackingInterquadFlitsKeepsPacketsWholeAndCreditsBalanced) { RunMixedTraffic(1); }

TEST(LinkSwitchRouting, AllLinksWritingToOneVaultDeliverContiguousPackets) {
  zel::Config cfg = MakeConfig(4, 4);
  zel::StatsKeeper stats(cfg);
  Bench bench("bench", cfg, stats, {true, true, true, true});
  for (unsigned i = 0; i < 40; ++i)
    for (unsigned link = 0; link < 4; ++link) bench.Send(link, i % 2 ? zel::WR : zel::P_WR, 128, 5);
  sc_core::sc_start(30, sc_core::SC_US);

  bench.ExpectAllDelivered();
  bench.ExpectAtRest();
  EXPECT_EQ(bench.vaults[1][1].arrivals.size(), 160u);
}

// One quad: no inter-quad ports at all. A host with few tokens keeps going
// for as long as it has packets, since each line's token comes back.
TEST(LinkSwitchRouting, TokensComeBackSoAHostWithFewTokensSendsIndefinitely) {
  zel::Config cfg = MakeConfig(1, 4);
  zel::StatsKeeper stats(cfg);
  Bench bench("bench", cfg, stats, {true});
  bench.links[0].tokens = bench.links[0].initialTokens = 6;
  std::mt19937 random(3);
  for (unsigned i = 0; i < 400; ++i) bench.Send(0, i % 3 ? zel::RD : zel::WR, 64, random() % 4);
  sc_core::sc_start(40, sc_core::SC_US);

  EXPECT_TRUE(bench.lsw[0]->interquadFlitsIn.size() == 0 && bench.lsw[0]->returnTokensOut.size() == 1);
  bench.ExpectAllDelivered();
  bench.ExpectAtRest();
}

// ---- Lines, tokens and lanes

TEST(LinkSwitchLines, FlitsJoiningALineOfTheSameCycleGetTheirTokenAtOnce) {
  zel::Config cfg = MakeConfig(2, 4);
  zel::StatsKeeper stats(cfg);
  Bench bench("bench", cfg, stats, {true, true});
  // Cycle 1: two reads for vault 0 share a line, a read for quad 1 opens one.
  // Cycle 2: reads for vaults 4 and 5 of quad 1 share a line: quad alone matters.
  bench.Send(0, zel::RD, 64, 0);
  bench.Send(0, zel::RD, 64, 0);
  bench.Send(0, zel::RD, 64, 4);
  bench.Send(0, zel::RD, 64, 4);
  bench.Send(0, zel::RD, 64, 5);
  bench.onEdge = [&](unsigned cycle) {
    if (cycle == 1) bench.links[0].perCycle = 2;  // next cycle sends the remaining two
  };
  sc_core::sc_start(4100, SC_PS);  // cycles 1 and 2, and the sample after each
  ASSERT_GE(bench.links[0].tokenLog.size(), 2u);
  EXPECT_EQ(bench.links[0].tokenLog[0], std::make_pair(sc_time(1600, SC_PS), 1));
  EXPECT_EQ(bench.links[0].tokenLog[1], std::make_pair(sc_time(3200, SC_PS), 1));
  ASSERT_EQ(bench.links[0].lineLog.size(), 2u);
  EXPECT_EQ(bench.links[0].lineLog[0], 2u);
  EXPECT_EQ(bench.links[0].lineLog[1], 3u);
  EXPECT_EQ(bench.lsw[0]->sourceBuffers[0][2].size(), 2u);
  sc_core::sc_start(10, sc_core::SC_US);
  bench.ExpectAllDelivered();
  bench.ExpectAtRest();
}

// With every vault throttled for 10 cycles, the lines of cycles 1 and 2 are
// all ready when the vaults open for one activation: the flits on lanes 0 and
// 1 leave together, the second flit on lane 0 waits for the next opening.
TEST(LinkSwitchLines, OneLaneOfASourceCarriesOneFlitPerActivation) {
  zel::Config cfg = MakeConfig(1, 4);
  cfg.CREDIT_THROTTLE_VC = 100;
  cfg.THROTTLE_STALL_TIME = 10;
  zel::StatsKeeper stats(cfg);
  Bench bench("bench", cfg, stats, {true});
  bench.links[0].perCycle = 2;
  bench.Send(0, zel::RD, 64, 0);
  bench.Send(0, zel::RD, 64, 1);
  bench.Send(0, zel::RD, 64, 2);
  sc_core::sc_start(5, sc_core::SC_US);

  const sc_time cycle = cfg.CORE_CLK;
  ASSERT_EQ(bench.vaults[0][0].arrivals.size(), 1u);
  ASSERT_EQ(bench.vaults[0][1].arrivals.size(), 1u);
  ASSERT_EQ(bench.vaults[0][2].arrivals.size(), 1u);
  // The first activation, at cycle 2, closes all vaults until cycle 12. Each
  // activation moves the first local vault on by one, so at cycle 12 the scan
  // starts at vault 2, whose flit takes lane 0 before vault 0's can.
  EXPECT_EQ(bench.vaults[0][2].arrivals[0].first, cycle * 12);
  EXPECT_EQ(bench.vaults[0][1].arrivals[0].first, cycle * 12);
  EXPECT_EQ(bench.vaults[0][0].arrivals[0].first, cycle * 23);
  bench.ExpectAtRest();
}

TEST(LinkSwitchLines, BusyRisesPastTheThresholdAndFallsBackAtIt) {
  zel::Config cfg = MakeConfig(1, 4);
  cfg.LSW_INPUT_BUFFER_THRESHOLD = 6;
  cfg.TRANSACTION_Q_CAPACITY = 1;  // one read passes, the rest wait for its credit
  cfg.CREDIT_THROTTLE_VC = 0;
  zel::StatsKeeper stats(cfg);
  Bench bench("bench", cfg, stats, {true});
  bench.links[0].perCycle = 1;
  bench.holdCreditsUntil = cfg.CORE_CLK * 40;
  for (unsigned i = 0; i < 12; ++i) bench.Send(0, zel::RD, 64, 0);
  sc_core::sc_start(5, sc_core::SC_US);

  bench.ExpectAllDelivered();
  bench.ExpectAtRest();
  const auto& log = bench.links[0].busyLog;
  const auto& lines = bench.links[0].lineLog;  // lines[i]: the count after edge i + 1
  ASSERT_EQ(log.size(), 2u);
  EXPECT_TRUE(log[0].second);
  EXPECT_FALSE(log[1].second);
  const unsigned delay = cfg.BUSY_SIGNAL_DELAY;
  const unsigned rise = static_cast<unsigned>(log[0].first / cfg.CORE_CLK);
  const unsigned fall = static_cast<unsigned>(log[1].first / cfg.CORE_CLK);
  EXPECT_EQ(rise, 8 + delay);  // a line a cycle, one gone at cycle 5
  EXPECT_EQ(lines[rise - delay - 1], 7u);  // became threshold + 1 at this edge
  EXPECT_EQ(lines[rise - delay - 2], 6u);
  EXPECT_EQ(lines[fall - delay - 1], 6u);  // fell back to the threshold at this edge
  EXPECT_EQ(lines[fall - delay - 2], 7u);
  EXPECT_EQ(*std::max_element(lines.begin(), lines.end()), 11u);
}

// ---- Credits

// Vault 0 gets reads and a command credit every 20 cycles; vault 1 gets
// 128-byte writes and one write credit a cycle.
TEST(LinkSwitchCredits, AVaultControllerPacesRequestsByItsCredits) {
  zel::Config cfg = MakeConfig(1, 2);
  zel::StatsKeeper stats(cfg);
  Bench bench("bench", cfg, stats, {true});
  bench.commandSpacing = 20;
  bench.writesPerCycle = 1;
  for (unsigned i = 0; i < 60; ++i) {
    if (i % 3 == 2)
      bench.Send(0, zel::WR, 128, 1);
    else
      bench.Send(0, zel::RD, 64, 0);
  }
  sc_core::sc_start(30, sc_core::SC_US);

  bench.ExpectAllDelivered();
  bench.ExpectAtRest();
  const auto& reads = bench.vaults[0][0];
  const auto& writes = bench.vaults[0][1];
  EXPECT_EQ(reads.maxOutstandingCommands, cfg.TRANSACTION_Q_CAPACITY);
  // Read 40 needs the 16th returned credit, which comes 15 spacings after the first.
  EXPECT_GE(reads.arrivals.back().first, cfg.CORE_CLK * (20 * 15));
  EXPECT_LE(writes.maxOutstandingWrites, cfg.DATA_Q_CAPACITY);
  // 160 write entries through a queue of 53 refilled one a cycle.
  EXPECT_GE(writes.arrivals.back().first, cfg.CORE_CLK * (160 - 53));
}

TEST(LinkSwitchCredits, OwedTokensGoOutInSlicesAndPeersGetOneCreditPerPulse) {
  zel::Config cfg = MakeConfig(2, 4);
  zel::StatsKeeper stats(cfg);
  Bench bench("bench", cfg, stats, {true, false});
  bench.onEdge = [&](unsigned cycle) {
    if (cycle != 2) return;
    bench.lsw[0]->returnCredits[0] = 5;
    bench.lsw[0]->returnCredits[1] = 3;
    bench.lsw[0]->returnTokensEvent.notify();
  };
  sc_core::sc_start(10, SC_NS);
  const sc_time cycle = cfg.CORE_CLK;
  const std::vector<std::pair<sc_time, int>> tokens = {{cycle * 2, 3}, {cycle * 3, 2}};
  EXPECT_EQ(bench.links[0].tokenLog, tokens);
  ASSERT_EQ(bench.peerCreditLog.size(), 3u);
  for (unsigned i = 0; i < 3; ++i)
    EXPECT_EQ(bench.peerCreditLog[i], std::make_tuple(cycle * (2 + i), 0u, 1u, 1));
  EXPECT_EQ(bench.lsw[0]->returnCredits[0], 0u);
  EXPECT_EQ(bench.lsw[0]->returnCredits[1], 0u);
}

// ---- Diagnostics

TEST(LinkSwitchDiagnostics, DumpStateListsCreditsAndLines) {
  zel::Config cfg = MakeConfig(2, 2);
  zel::StatsKeeper stats(cfg);
  Bench bench("bench", cfg, stats, {true, false});
  bench.Send(0, zel::RD, 64, 1);
  Flit* flit = bench.links[0].pending.front();
  std::string dump, expected;
  bench.onEdge = [&](unsigned cycle) {
    if (cycle != 2) return;
    dump = CaptureStdout([&] { bench.lsw[0]->DumpState(); });
    expected = "== LSW0\n\t Destination Credits [[24,53], [24,53], 15, ]\n  Return Credits [0, 0, ]"
               "\t SourceBuffer 0 - 1 entries\n   == Line 0\n\t\t   " +
               Printed(*flit) + "\n\t SourceBuffer 1 - 0 entries\n";
  };
  sc_core::sc_start(5, SC_NS);
  EXPECT_EQ(dump, expected);
  EXPECT_NE(expected.find("l[0,0]"), std::string::npos);  // the lane the switch gave it
}

// Link 1 reads 64 bytes of vault 9, crossing from quad 1 to quad 2 at 1.6 us.
TEST(LinkSwitchDiagnostics, InterquadTraceLineHasItsFourteenColumns) {
  zel::Config cfg = MakeConfig(5, 4);
  zel::StatsKeeper stats(cfg);
  Bench bench("bench", cfg, stats, {false, true, false, false, true});
  sc_core::sc_start(1600, SC_NS);
  const std::string path = ::testing::TempDir() + "lsw_interquad.tsv";
  zel::tsvFile.open(path);
  Flit_P read = NewFlit(0x1a, zel::RD, 64, 9, true, true);
  read->sourceLink = 1;
  bench.lsw[1]->PrintInterquad(read, 2);
  Flit_P write = NewFlit(300, zel::WR, 32, 0, false, false, 2);
  write->sourceLink = 1;
  write->hostTag = 5;
  bench.lsw[1]->PrintInterquad(write, 3);
  bench.lsw[4]->PrintInterquad(read, 1);  // no axes beyond quad 3: nothing
  zel::tsvFile.close();
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  EXPECT_EQ(text.str(),
            "1600\tSWITCHZ1_req\t1\t0\t9\tXXX\t0xDONTCARE\t0x1a\t1\tRD64\t0\t0\t0\t0\n"
            "1600\tSWITCHX1_req\t1\t0\t0\tXXX\t0xDONTCARE\t0x5\t2\tWR32\t0\t0\t0\t0\n");
  std::remove(path.c_str());
}

// ---- Failures

// A bench with the switch of quad `id` only; the script drives the rest.
#define RUN_BENCH(quads, id, setup, body)                                   \
  do {                                                                      \
    zel::Config cfg = MakeConfig(quads, 4);                                 \
    setup;                                                                  \
    zel::StatsKeeper stats(cfg);                                            \
    std::vector<bool> real(quads, false);                                   \
    real[id] = true;                                                        \
    Bench bench("bench", cfg, stats, real);                                 \
    const sc_time cycle = cfg.CORE_CLK;                                     \
    (void)cycle;                                                            \
    bench.script = [&] { body; };                                           \
    sc_core::sc_start(1, sc_core::SC_US);                                   \
  } while (0)

TEST(LinkSwitchFailures, TwoDeliveriesFromTheLinkInOneTimeStep) {
  // The first delivery at time zero meets a last delivery time of zero.
  EXPECT_MODEL_EXIT(RUN_BENCH(1, 0, , bench.linkFlits[0][0]->write(NewFlit(1, zel::RD, 64, 0, true, true))),
                    "=[0 s]= ERROR - LS sent to DIS twice on one cycle!!!!\n");
}

TEST(LinkSwitchFailures, NonContiguousTagFromTheLink) {
  Flit_P second = NewFlit(2, zel::WR, 16, 1, true, false);
  second->sourceLink = 0;
  second->lane = 0;
  EXPECT_MODEL_EXIT(RUN_BENCH(1, 0, , {
                      sc_core::wait(cycle);
                      bench.linkFlits[0][0]->write(NewFlit(1, zel::WR, 16, 1, true, false));
                      sc_core::wait(cycle);
                      bench.linkFlits[0][0]->write(second);
                    }),
                    "== ERROR - Non-contiguous tag received from LS in LSW0 (tag=1)\n" + Printed(*second) + "\n");
}

TEST(LinkSwitchFailures, LinkInputBufferAboveItsCapacity) {
  EXPECT_MODEL_DEATH(RUN_BENCH(1, 0, cfg.LSW_INPUT_BUFFER_SIZE = 2, {
                       sc_core::wait(cycle);
                       for (unsigned k = 0; k < 3; ++k)
                         bench.linkFlits[0][k]->write(NewFlit(k, zel::RD, 64, k, true, true));
                     }),
                     "=[1600 ps]= ERROR - Link Switch 0 input buffer exceeded max capacity (3)\n",
                     "Assertion `false' failed");
}

TEST(LinkSwitchFailures, NonContiguousTagFromAnotherQuad) {
  Flit_P second = NewFlit(2, zel::WR, 16, 1, true, false);
  second->lane = 1;
  EXPECT_MODEL_EXIT(RUN_BENCH(2, 0, , {
                      sc_core::wait(cycle);
                      bench.interquadFlits[1][0][0]->write(NewFlit(1, zel::WR, 16, 1, true, false));
                      sc_core::wait(cycle);
                      bench.interquadFlits[1][0][1]->write(second);
                    }),
                    "== ERROR - Non-contiguous tag received from interquad in LSW0\n" + Printed(*second) + "\n");
}

TEST(LinkSwitchFailures, InterquadBufferAboveItsCapacity) {
  EXPECT_MODEL_DEATH(RUN_BENCH(2, 1, cfg.LSW_INTERQUAD_BUFFER_SIZE = 1, {
                       sc_core::wait(cycle);
                       bench.interquadFlits[0][1][0]->write(NewFlit(1, zel::RD, 64, 4, true, true));
                       bench.interquadFlits[0][1][1]->write(NewFlit(2, zel::RD, 64, 5, true, true));
                     }),
                     "=[1600 ps]= ERROR - Link Switch 1 interquad buffer 0 exceeded max capacity\n",
                     "Assertion `false' failed");
}

TEST(LinkSwitchFailures, ArbitrationOffTheCoreClock) {
  // A delivery half a cycle off the edge wakes the arbiter off the edge too.
  EXPECT_MODEL_DEATH(RUN_BENCH(1, 0, , {
                       sc_core::wait(cycle / 2);
                       bench.linkFlits[0][0]->write(NewFlit(1, zel::RD, 64, 0, true, true));
                     }),
                     "ERROR: off timing in LSW0 @ 2400 ps\n", "Assertion `0' failed");
}

TEST(LinkSwitchFailures, TailIncreaseWithNoTailQueued) {
  EXPECT_MODEL_DEATH(RUN_BENCH(1, 0, , bench.lsw[0]->tailIncreaseQueue.queue.notify(cycle)),
                     "Assertion `tailIncreaseQueue.size()' failed");
}

TEST(LinkSwitchFailures, MoreCommandCreditsThanTheTransactionQueueHolds) {
  EXPECT_MODEL_DEATH(RUN_BENCH(2, 1, , {
                       sc_core::wait(cycle);
                       bench.commandCredits[1][2]->write(true);
                     }),
                     "=[1600 ps]= ERROR - LSW1 Received too many credits from VC6 [Now have : 25]\n",
                     "Assertion `false' failed");
}

TEST(LinkSwitchFailures, MoreWriteCreditsThanTheDataQueueHolds) {
  EXPECT_MODEL_DEATH(RUN_BENCH(2, 1, , {
                       sc_core::wait(cycle);
                       bench.writeCredits[1][2]->write(1);
                     }),
                     "=[1600 ps]= ERROR - LSW1 Received too many write credits from VC6\n",
                     "Assertion `false' failed");
}

TEST(LinkSwitchFailures, MoreInterquadCreditsThanTheBufferHoldsOnTheDelayedRoad) {
  EXPECT_MODEL_DEATH(RUN_BENCH(2, 1, , {
                       sc_core::wait(cycle);
                       bench.interquadCredits[0][1]->write(1);
                     }),
                     "Assertion `destinationCredits[cfg.VAULTS_PER_QUAD+q]<=cfg.LSW_INTERQUAD_BUFFER_SIZE' failed");
}

TEST(LinkSwitchFailures, MoreInterquadCreditsThanTheBufferHoldsOnTheEarlyRoad) {
  EXPECT_MODEL_DEATH(RUN_BENCH(2, 1, , {
                       sc_core::wait(cycle);
                       bench.earlyCredits[0][1]->write(1);
                     }),
                     "Assertion `destinationCredits[cfg.VAULTS_PER_QUAD+i]<=cfg.LSW_INTERQUAD_BUFFER_SIZE' failed");
}

TEST(LinkSwitchFailures, TraceOfACommandWithoutShortText) {
  EXPECT_MODEL_EXIT(
      {
        zel::Config cfg = MakeConfig(4, 4);
        zel::StatsKeeper stats(cfg);
        zel::zel2_link_switch lsw("lsw1", cfg, stats, 1);
        lsw.PrintInterquad(NewFlit(1, zel::WR_RSP, 0, 9, true, true), 2);
      },
      "WTF TSV FILE\n");
}

TEST(LinkSwitchFailures, TraceToItsOwnQuad) {
  EXPECT_MODEL_EXIT(
      {
        zel::Config cfg = MakeConfig(4, 4);
        zel::StatsKeeper stats(cfg);
        zel::zel2_link_switch lsw("lsw2", cfg, stats, 2);
        lsw.PrintInterquad(NewFlit(1, zel::RD, 64, 9, true, true), 2);
      },
      "ERROR with interquad tsv printing\n");
}

}  // namespace
