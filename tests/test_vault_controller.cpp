// SPDX-License-Identifier: Apache-2.0
// The vault controller with its vault, bound as a slice binds them, driven by a
// harness that plays the link switch (requests under command and write
// credits) and the vault switch (takes response flits, returns response
// credits). The vault's own checker watches every command the controller issues.
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <deque>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <systemc>

#include "zel2/Config.h"
#include "zel2/StatsKeeper.h"
#include "zel2/zel2_bank.h"
#include "zel2/zel2_flit.h"
#include "zel2/zel2_vault.h"
#include "zel2/zel2_vault_controller.h"

namespace Sornak::Internal::ZEL2 {
extern std::ofstream dramLog;
}

namespace {

using namespace Sornak::Internal::ZEL2;
using sc_core::sc_time;
using sc_core::sc_time_stamp;

constexpr unsigned kVault = 3;

sc_time Ns(double ns) { return sc_time(ns, sc_core::SC_NS); }

// Smallest multiple of `period` at or after t.
sc_time CeilTo(const sc_time& t, const sc_time& period) {
  const uint64_t p = period.value();
  return sc_time::from_value((t.value() + p - 1) / p * p);
}

// Escapes a literal text for a death-test regular expression.
std::string Esc(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (std::strchr(".[]()*+?{}|^$\\", c)) out += '\\';
    out += c;
  }
  return out;
}

bool IsAtomic(ZELCommand c) { return c >= BWR && c <= P_ADD16; }
bool IsPosted(ZELCommand c) { return c == P_WR || c == P_BWR || c == P_DADD8 || c == P_ADD16; }

struct Received {
  sc_time at;
  unsigned port;
  Flit flit;
};

// Link switch and vault switch around one slice.
class Harness : public sc_core::sc_module {
 public:
  const Config& cfg;
  StatsKeeper& stats;
  sc_core::sc_vector<sc_core::sc_signal<Flit_P>> toVc{"toVc"};
  sc_core::sc_vector<sc_core::sc_signal<Flit_P>> fromVc{"fromVc"};
  sc_core::sc_signal<bool> commandCredit{"commandCredit"};
  sc_core::sc_signal<int> responseCredit{"responseCredit"};
  sc_core::sc_signal<int> writeCredit{"writeCredit"};
  sc_core::sc_signal<DRAMBusPacket> dramCommands{"dramCommands"};
  sc_core::sc_signal<DRAMBusPacket> dramReadData{"dramReadData"};
  sc_core::sc_signal<DRAMBusPacket> dramWriteData{"dramWriteData"};
  zel2_vault* vault;
  zel2_vault_controller* vc;

  // Link switch side.
  struct Outgoing {
    Flit* flit;
    sc_time notBefore;
  };
  std::deque<Outgoing> outgoing;
  unsigned commandCredits, writeCredits;
  std::vector<sc_time> commandCreditPulses;
  std::vector<std::pair<sc_time, int>> writeCreditPulses;
  std::map<uint32_t, sc_time> tailSent;

  // Vault switch side.
  std::vector<Received> responses;
  unsigned owedCredits = 0;
  sc_time holdCreditsUntil;  // no response credit goes back before this
  unsigned leastResponseCredits = ~0u;

  // Observed buses.
  std::vector<std::pair<sc_time, DRAMBusPacket>> commands;
  std::vector<std::pair<sc_time, DRAMBusPacket>> writeBeats;

  // Pokes at fixed times, for the error cases.
  std::vector<std::pair<sc_time, std::function<void()>>> actions;

  SC_HAS_PROCESS(Harness);
  Harness(sc_core::sc_module_name name, const Config& config, StatsKeeper& keeper, unsigned id = kVault)
      : sc_module(name), cfg(config), stats(keeper) {
    toVc.init(cfg.FLITS_IN_PER_CYCLE_VC);
    fromVc.init(cfg.FLITS_OUT_PER_CYCLE_VC);
    vault = new zel2_vault("vault", cfg, stats, id);
    vc = new zel2_vault_controller("vaultController", cfg, stats, id);
    for (unsigned j = 0; j < toVc.size(); j++) vc->flitsIn[j](toVc[j]);
    for (unsigned j = 0; j < fromVc.size(); j++) vc->flitsOut[j](fromVc[j]);
    vc->commandCreditOut(commandCredit);
    vc->responseCreditIn(responseCredit);
    vc->writeCreditOut(writeCredit);
    vc->dramCommandOut(dramCommands);
    vc->dramDataIn(dramReadData);
    vc->dramDataOut(dramWriteData);
    vault->dramCommandIn(dramCommands);
    vault->dramDataIn(dramWriteData);
    vault->dramDataOut(dramReadData);
    commandCredits = cfg.TRANSACTION_Q_CAPACITY;
    writeCredits = cfg.DATA_Q_CAPACITY;

    SC_THREAD(SendThread);
    SC_THREAD(ReturnResponseCredits);
    SC_THREAD(RunActions);
    SC_METHOD(CountCommandCredits);
    sensitive << commandCredit;
    dont_initialize();
    SC_METHOD(CountWriteCredits);
    sensitive << writeCredit;
    dont_initialize();
    SC_METHOD(TakeResponses);
    for (auto& s : fromVc) sensitive << s;
    dont_initialize();
    SC_METHOD(WatchCommands);
    sensitive << dramCommands;
    dont_initialize();
    SC_METHOD(WatchWriteData);
    sensitive << dramWriteData;
    dont_initialize();
  }

  // Queues a request packet to be sent from `at` (a core edge) on.
  void Request(uint32_t tag, uint64_t address, ZELCommand command, unsigned length, sc_time at = sc_time()) {
    unsigned flits = command == RD ? 1 : IsAtomic(command) ? 2 : length / cfg.FLIT_SIZE + 1;
    for (unsigned k = 1; k <= flits; k++) {
      Flit* f = new Flit(tag, address, command, length, k == 1, k == flits, k);
      f->destination = vc->id;
      outgoing.push_back({f, at});
    }
  }

  uint64_t Address(unsigned partition, unsigned bank, unsigned row, unsigned column) const {
    const unsigned low = column & ((1u << vc->colLowBits) - 1);
    const unsigned high = column >> vc->colLowBits;
    uint64_t a = row;
    a = (a << vc->colHighBits) | high;
    a = (a << vc->partitionBits) | partition;
    a = (a << vc->bankBits) | bank;
    a = (a << vc->vaultBits) | vc->id;
    a = (a << vc->colLowBits) | low;
    return a << vc->byteBits;
  }

  void At(sc_time t, std::function<void()> action) { actions.emplace_back(t, std::move(action)); }

  std::vector<Received> ResponsesOf(uint32_t tag) const {
    std::vector<Received> out;
    for (const Received& r : responses)
      if (r.flit.tag == tag) out.push_back(r);
    return out;
  }
  std::vector<std::pair<sc_time, DRAMBusPacket>> CommandsOf(uint32_t tag) const {
    std::vector<std::pair<sc_time, DRAMBusPacket>> out;
    for (const auto& c : commands)
      if (c.second.tag == tag) out.push_back(c);
    return out;
  }

 private:
  // Sends whole packets in order, as the link switch's credit table allows.
  void SendThread() {
    while (true) {
      leastResponseCredits = std::min(leastResponseCredits, vc->responseCredits);
      unsigned lane = 0;
      while (lane < toVc.size() && !outgoing.empty() && outgoing.front().notBefore <= sc_time_stamp()) {
        Flit* f = outgoing.front().flit;
        // Every flit asks for two write credits; the header takes the command credit.
        const unsigned takeCommand = f->header ? 1 : 0;
        const unsigned takeWrite =
            f->header && f->tail ? 0 : (f->header || !f->tail) ? 1 : f->requestLength % 32 == 0 ? 0 : 1;
        if (writeCredits < 2 || commandCredits < takeCommand) break;
        commandCredits -= takeCommand;
        writeCredits -= takeWrite;
        if (f->tail) tailSent[f->tag] = sc_time_stamp();
        toVc[lane++].write(Flit_P(f));
        outgoing.pop_front();
      }
      wait(cfg.CORE_CLK);
    }
  }

  void ReturnResponseCredits() {
    while (true) {
      if (owedCredits > 0 && sc_time_stamp() >= holdCreditsUntil) {
        const unsigned n = std::min<unsigned>(owedCredits, cfg.FLITS_OUT_PER_CYCLE_VC);
        owedCredits -= n;
        responseCredit.write(static_cast<int>(n));
        wait(HalfCycle(cfg));
        responseCredit.write(0);
        wait(cfg.CORE_CLK - HalfCycle(cfg));
      } else {
        wait(cfg.CORE_CLK);
      }
    }
  }

  void RunActions() {
    std::stable_sort(actions.begin(), actions.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    for (auto& action : actions) {
      if (action.first > sc_time_stamp()) wait(action.first - sc_time_stamp());
      action.second();
    }
  }

  void CountCommandCredits() {
    if (!commandCredit.read()) return;
    commandCreditPulses.push_back(sc_time_stamp());
    commandCredits++;
    EXPECT_LE(commandCredits, cfg.TRANSACTION_Q_CAPACITY);
  }

  void CountWriteCredits() {
    const int value = writeCredit.read();
    if (value < 1) return;
    writeCreditPulses.emplace_back(sc_time_stamp(), value);
    writeCredits += value;
    EXPECT_LE(writeCredits, cfg.DATA_Q_CAPACITY);
  }

  void TakeResponses() {
    for (unsigned j = 0; j < fromVc.size(); j++) {
      if (!fromVc[j].event()) continue;
      Flit_P f = fromVc[j].read();
      responses.push_back({sc_time_stamp(), j, *f});
      delete f.flit;
      owedCredits++;
    }
  }

  void WatchCommands() { commands.emplace_back(sc_time_stamp(), dramCommands.read()); }
  void WatchWriteData() { writeBeats.emplace_back(sc_time_stamp(), dramWriteData.read()); }
};

// Times of the rules that pace a transaction through an idle vault.
struct Grid {
  const Config& cfg;
  sc_time Edge(const sc_time& t) const { return CeilTo(t, cfg.CORE_CLK); }
  // The first command slot at or after t that is off the core clock edges.
  sc_time Column(const sc_time& t) const {
    sc_time s = CeilTo(t, cfg.tCMD);
    if (s.value() % cfg.CORE_CLK.value() == 0) s += cfg.tCMD;
    return s;
  }
  sc_time C(double n) const { return CycleDelay(cfg, n); }
};

using Commands = std::vector<std::pair<sc_time, DRAMBusPacket>>;

// "ACT4", "READ5" ...: each command's word and column.
std::vector<std::string> Kinds(const Commands& commands) {
  static const char* words[] = {"ACT", "PRE", "REF", "READ", "WRITE", "DATA"};
  std::vector<std::string> out;
  for (const auto& c : commands) out.push_back(words[c.second.command] + std::to_string(c.second.col));
  return out;
}
std::vector<sc_time> Times(const Commands& commands) {
  std::vector<sc_time> out;
  for (const auto& c : commands) out.push_back(c.first);
  return out;
}

// A configuration, its statistics and the harness around one slice.
struct Bench {
  Config cfg;
  StatsKeeper stats;
  Harness h;
  Grid g;
  explicit Bench(const std::function<void(Config&)>& configure = {})
      : cfg(Configured(configure)), stats(cfg), h("h", cfg, stats), g{cfg} {}
  static Config Configured(const std::function<void(Config&)>& configure) {
    Config cfg;
    if (configure) configure(cfg);
    return cfg;
  }
};

// ---------------------------------------------------------------------------
// Address map and partition vectors (no simulation)
// ---------------------------------------------------------------------------

TEST(VaultControllerAddressMap, FieldsFromTheLowEndAndSetters) {
  Config cfg;
  StatsKeeper stats(cfg);
  zel2_vault_controller vc("vc", cfg, stats, 0);
  // Defaults: byte 4, column low 3, vault 4, bank 2, partition 1, column high 3, row 13.
  EXPECT_EQ((std::vector<uint32_t>{vc.byteBits, vc.colLowBits, vc.vaultBits, vc.bankBits, vc.partitionBits,
                                   vc.colHighBits, vc.rowBits}),
            (std::vector<uint32_t>{4, 3, 4, 2, 1, 3, 13}));

  unsigned p, b, r, c;
  // row 0x1abc, column high 5, partition 1, bank 2, vault 0xf, column low 6, byte 0xf
  const uint64_t address = ((((((0x1abcull << 3 | 5) << 1 | 1) << 2 | 2) << 4 | 0xf) << 3 | 6) << 4) | 0xf;
  vc.AddressMap(address, p, b, r, c);
  EXPECT_EQ((std::vector<unsigned>{p, b, r, c}), (std::vector<unsigned>{1, 2, 0x1abc, 6 | 5 << 3}));
  // Bits above the row are ignored.
  vc.AddressMap(address | (1ull << 40), p, b, r, c);
  EXPECT_EQ(r, 0x1abcu);

  // A smaller block moves bits from the low to the high column part only.
  vc.setMaxBlockSize(32);
  EXPECT_EQ(cfg.MAX_BLOCK_SIZE, 32u);
  EXPECT_EQ(vc.colLowBits, 1u);
  EXPECT_EQ(vc.colHighBits, 5u);
  // Now from the low end: byte 4, column low 1, vault 4, bank 2, partition 1, column high 5, row 13.
  const uint64_t a2 = ((((((0x155ull << 5 | 17) << 1 | 0) << 2 | 3) << 4 | 0x2) << 1 | 1) << 4);
  vc.AddressMap(a2, p, b, r, c);
  EXPECT_EQ((std::vector<unsigned>{p, b, r, c}), (std::vector<unsigned>{0, 3, 0x155, 1 | 17 << 1}));

  // Partition counts that aren't powers of two round up.
  vc.setNumPartitions(3);
  EXPECT_EQ(cfg.NUM_PARTITIONS, 3u);
  EXPECT_EQ(vc.partitionBits, 2u);
  vc.setNumPartitions(8);
  EXPECT_EQ(vc.partitionBits, 3u);
  vc.setNumPartitions(1);
  EXPECT_EQ(vc.partitionBits, 0u);
}

TEST(VaultControllerPartitions, ResizeKeepsBankObjectsAndOrder) {
  Config cfg;
  StatsKeeper stats(cfg);
  zel2_vault_controller vc("vc", cfg, stats, 0);
  ASSERT_EQ(vc.bankStates.size(), 8u);  // all partitions at first, whatever NUM_PARTITIONS says
  ASSERT_EQ(vc.bankStates[0].size(), cfg.NUM_BANKS);
  EXPECT_STREQ(vc.bankStates[5][2]->basename(), "vc_bank52");
  const auto original = vc.bankStates;
  vc.bankStates[6][1]->openRow = 77;

  vc.setNumPartitions(2);
  EXPECT_EQ(vc.bankStates.size(), 2u);
  EXPECT_EQ(vc.unusedBankStates.size(), 6u);
  EXPECT_EQ(vc.unusedBankStates[0], original[2]);
  vc.setNumPartitions(4);
  EXPECT_EQ(vc.bankStates[2], original[2]);
  EXPECT_EQ(vc.bankStates[3], original[3]);
  vc.setNumPartitions(8);
  EXPECT_EQ(vc.bankStates, original);
  EXPECT_TRUE(vc.unusedBankStates.empty());
  EXPECT_EQ(vc.bankStates[6][1]->openRow, 77u);
}

TEST(VaultControllerRefresh, PeriodFromCubeSizeAndTemperature) {
  Config cfg;
  cfg.REFRESH_ENABLED = true;
  StatsKeeper stats(cfg);
  zel2_vault_controller vc("vc", cfg, stats, 0);
  EXPECT_EQ(vc.refreshPeriod, sc_time());
  vc.setNumPartitions(2);
  EXPECT_EQ(vc.refreshPeriod.value(), 488281u);  // 32 ms / 65536, to the nearest ps
  cfg.Tj = 94;
  vc.setNumPartitions(2);
  EXPECT_EQ(vc.refreshPeriod.value(), 488281u);
  cfg.Tj = 95;
  vc.setNumPartitions(2);
  EXPECT_EQ(vc.refreshPeriod.value(), 244141u);  // 16 ms when hot
  vc.setNumPartitions(8);
  EXPECT_EQ(vc.refreshPeriod.value(), 61035u);
}

// ---------------------------------------------------------------------------
// Roads through an idle vault
// ---------------------------------------------------------------------------

TEST(VaultControllerRoads, ReadFollowsTheTimingTable) {
  Bench b;
  auto& [cfg, stats, h, g] = b;
  const sc_time t = g.C(10);
  h.Request(7, h.Address(1, 2, 300, 4), RD, 64, t);
  sc_core::sc_start(Ns(200));

  ASSERT_EQ(h.tailSent.at(7), t);
  const auto cmds = h.CommandsOf(7);
  EXPECT_EQ(Kinds(cmds), (std::vector<std::string>{"ACT4", "READ4", "READ5", "PRE6"}));
  for (const auto& c : cmds)
    EXPECT_TRUE(c.second.partition == 1 && c.second.bank == 2 && c.second.row == 300) << c.second;
  // Row commands on edges, column commands between them.
  const sc_time act = t + g.C(3);
  const sc_time read1 = g.Column(act + cfg.tRCDr);
  const sc_time read2 = read1 + cfg.tCCD;
  const sc_time pre = g.Edge(std::max(act + cfg.tRAS, read2 + cfg.tRTP));
  EXPECT_EQ(Times(cmds), (std::vector<sc_time>{act, read1, read2, pre}));

  // One command credit, COMMAND_CREDIT_DELAY after the choice.
  ASSERT_EQ(h.commandCreditPulses.size(), 1u);
  EXPECT_EQ(h.commandCreditPulses[0], t + g.C(1) + g.C(cfg.COMMAND_CREDIT_DELAY));

  // Beat stored one cycle after the vault sends it; flits from the next edge on.
  const sc_time stored = read1 + cfg.tCMD + cfg.tAA + cfg.tAC + cfg.CORE_CLK;
  const sc_time header = g.Edge(stored) + g.C(cfg.MI_OUT_DELAY);
  const auto rsp = h.ResponsesOf(7);
  ASSERT_EQ(rsp.size(), 5u);
  for (unsigned i = 0; i < 4; i++) {
    EXPECT_EQ(rsp[i].at, header + g.C(i)) << i;
    EXPECT_EQ(rsp[i].port, 0u);
    EXPECT_EQ(rsp[i].flit.command, RD_RSP);
    EXPECT_EQ(rsp[i].flit.header, i == 0);
    EXPECT_FALSE(rsp[i].flit.tail);
  }
  EXPECT_EQ(rsp[4].at, header + g.C(3));
  EXPECT_EQ(rsp[4].port, 1u);
  EXPECT_TRUE(rsp[4].flit.tail);
  EXPECT_FALSE(rsp[4].flit.header);
  EXPECT_EQ(rsp[0].flit.timeStamps[3], t);
  EXPECT_EQ(rsp[0].flit.timeStamps[4], t + g.C(2));

  // Everything is back at rest.
  EXPECT_EQ(h.vc->responseCredits, cfg.VSW_RESPONSE_BUFFER_SIZE);
  EXPECT_TRUE(h.vc->pendingReads.empty());
  EXPECT_EQ(h.vc->requestQueueTransactions, 0u);
  EXPECT_EQ(stats.vaultReads[kVault], 1u);
  EXPECT_EQ(stats.vaultBytes[kVault], 64u);
  EXPECT_EQ(stats.vaultCASs[kVault], 2u);
  EXPECT_EQ(stats.bankCounts[kVault][1 * cfg.NUM_BANKS + 2], 1u);
}

TEST(VaultControllerRoads, ColumnCommandDueOnAnEdgeWaitsOneSlot) {
  // An ACT on an edge now makes the READ due on an edge too.
  Bench b([](Config& cfg) { cfg.tRCDr = Ns(12.8); });
  auto& [cfg, stats, h, g] = b;
  h.Request(7, h.Address(0, 0, 1, 0), RD, 32, g.C(2));
  sc_core::sc_start(Ns(100));
  const auto cmds = h.CommandsOf(7);
  ASSERT_EQ(cmds.size(), 3u);
  EXPECT_EQ(cmds[1].first, cmds[0].first + cfg.tRCDr + cfg.tCMD);
}

TEST(VaultControllerRoads, NoColumnCommandWhenTheCommandSlotIsACycle) {
  // Every slot is an edge: column commands never issue.
  Bench b([](Config& cfg) { cfg.tCMD = cfg.CORE_CLK; });
  auto& h = b.h;
  h.Request(7, h.Address(0, 0, 1, 0), RD, 32, sc_time());
  sc_core::sc_start(Ns(500));
  EXPECT_EQ(Kinds(h.CommandsOf(7)), (std::vector<std::string>{"ACT0"}));
  EXPECT_TRUE(h.responses.empty());
  EXPECT_EQ(h.vc->requestQueue.size(), 2u);
}

TEST(VaultControllerRoads, WriteFollowsTheTimingTable) {
  Bench b;
  auto& [cfg, stats, h, g] = b;
  h.Request(9, h.Address(0, 1, 40, 2), WR, 128, g.C(6));
  sc_core::sc_start(Ns(200));

  const sc_time t = h.tailSent.at(9);
  EXPECT_EQ(t, g.C(10));  // nine flits, two per cycle
  const auto cmds = h.CommandsOf(9);
  EXPECT_EQ(Kinds(cmds), (std::vector<std::string>{"ACT2", "WRITE2", "WRITE3", "WRITE4", "WRITE5", "PRE6"}));
  const sc_time act = t + g.C(3);
  const sc_time firstWrite = g.Column(act + cfg.tRCDw);
  const sc_time lastWrite = firstWrite + cfg.tCCD * 3;
  const sc_time pre = g.Edge(std::max(act + cfg.tRAS, lastWrite + cfg.tWL + cfg.BL + cfg.tWR));
  EXPECT_EQ(Times(cmds), (std::vector<sc_time>{act, firstWrite, firstWrite + cfg.tCCD, firstWrite + cfg.tCCD * 2,
                                               lastWrite, pre}));

  // Each WRITE's data beat tWL later.
  ASSERT_EQ(h.writeBeats.size(), 4u);
  for (unsigned i = 0; i < 4; i++) {
    EXPECT_EQ(h.writeBeats[i].first, cmds[1 + i].first + cfg.tWL);
    EXPECT_EQ(h.writeBeats[i].second.command, DATA);
  }
  EXPECT_EQ(stats.vaultDataTime[kVault], cfg.BL * 4);

  // One response flit, WRITE_RESPONSE_DELAY after the last WRITE, on an edge.
  const auto rsp = h.ResponsesOf(9);
  ASSERT_EQ(rsp.size(), 1u);
  EXPECT_EQ(rsp[0].at, g.Edge(lastWrite) + g.C(cfg.WRITE_RESPONSE_DELAY));
  EXPECT_EQ(rsp[0].flit.command, WR_RSP);
  EXPECT_TRUE(rsp[0].flit.header && rsp[0].flit.tail);
  EXPECT_EQ(rsp[0].flit.flitNumber, 1u);

  // Eight write credits, two per cycle, from WRITE_CREDIT_DELAY after the last WRITE.
  ASSERT_EQ(h.writeCreditPulses.size(), 4u);
  for (unsigned i = 0; i < 4; i++) {
    EXPECT_EQ(h.writeCreditPulses[i].first, lastWrite + g.C(cfg.WRITE_CREDIT_DELAY) + g.C(i));
    EXPECT_EQ(h.writeCreditPulses[i].second, 2);
  }
  EXPECT_EQ(h.writeCredits, cfg.DATA_Q_CAPACITY);
  EXPECT_EQ(h.vc->responseCredits, cfg.VSW_RESPONSE_BUFFER_SIZE);
  EXPECT_EQ(stats.vaultWrites[kVault], 1u);
  EXPECT_EQ(stats.vaultBytes[kVault], 128u);
}

TEST(VaultControllerRoads, AtomicReadsThenWritesAfterTheSpacing) {
  Bench b;
  auto& [cfg, stats, h, g] = b;
  h.Request(11, h.Address(1, 0, 9, 3), DADD8, 16, g.C(4));
  h.Request(12, h.Address(0, 3, 9, 3), P_ADD16, 16, g.C(4));
  sc_core::sc_start(Ns(300));

  for (uint32_t tag : {11u, 12u})
    EXPECT_EQ(Kinds(h.CommandsOf(tag)), (std::vector<std::string>{"ACT3", "READ3", "WRITE3", "PRE3"}));
  // The first atomic's WRITE follows its READ exactly ATOMICS_SPACING cycles later.
  const auto first = h.CommandsOf(11);
  EXPECT_EQ(first[1].first, g.Column(first[0].first + cfg.tRCDr));
  EXPECT_EQ(first[2].first - first[1].first, g.C(cfg.ATOMICS_SPACING));
  // Its READ holds every bank's column commands one cycle longer than that.
  const auto second = h.CommandsOf(12);
  EXPECT_GE(second[1].first, first[1].first + g.C(cfg.ATOMICS_SPACING + 1));

  const auto rsp = h.ResponsesOf(11);
  ASSERT_EQ(rsp.size(), 1u);
  EXPECT_EQ(rsp[0].flit.command, WR_RSP);
  EXPECT_TRUE(h.ResponsesOf(12).empty());  // posted
  EXPECT_EQ(h.writeCredits, cfg.DATA_Q_CAPACITY);
  EXPECT_TRUE(h.vc->atomicTags.empty());
  EXPECT_TRUE(h.vc->creditsByTag.empty());
  EXPECT_EQ(h.vc->responseCredits, cfg.VSW_RESPONSE_BUFFER_SIZE);
}

TEST(VaultControllerRoads, ShortAndOddColumnReads) {
  Bench b;
  auto& [cfg, stats, h, g] = b;
  h.Request(1, h.Address(0, 0, 5, 2), RD, 16, g.C(2));   // one READ; header and tail together
  h.Request(2, h.Address(0, 1, 5, 3), RD, 64, g.C(2));   // odd column: 3 READs, 6 beats
  h.Request(3, h.Address(1, 1, 5, 3), RD, 48, g.C(2));   // odd column, remainder: 2 READs
  h.Request(4, h.Address(1, 2, 5, 3), RD, 32, g.C(2));   // odd column, whole: 2 READs
  sc_core::sc_start(Ns(400));

  auto reads = [&](uint32_t tag) {
    unsigned n = 0;
    for (const auto& c : h.CommandsOf(tag)) n += c.second.command == READ;
    return n;
  };
  EXPECT_EQ(reads(1), 1u);
  EXPECT_EQ(reads(2), 3u);
  EXPECT_EQ(reads(3), 2u);
  EXPECT_EQ(reads(4), 2u);

  const auto one = h.ResponsesOf(1);
  ASSERT_EQ(one.size(), 2u);
  EXPECT_EQ(one[0].at, one[1].at);
  EXPECT_EQ(one[0].port, 0u);
  EXPECT_TRUE(one[0].flit.header);
  EXPECT_EQ(one[1].port, 1u);
  EXPECT_TRUE(one[1].flit.tail);
  EXPECT_EQ(h.ResponsesOf(2).size(), 5u);
  EXPECT_EQ(h.ResponsesOf(3).size(), 4u);
  EXPECT_EQ(h.ResponsesOf(4).size(), 3u);
  EXPECT_TRUE(h.vc->pendingReads.empty());
  EXPECT_TRUE(h.vc->readData.empty());  // surplus beats dropped
  EXPECT_EQ(h.vc->responseCredits, cfg.VSW_RESPONSE_BUFFER_SIZE);
}

TEST(VaultControllerScheduling, BusyBankIsPassedByAnotherBank) {
  Bench b;
  auto& [cfg, stats, h, g] = b;
  h.Request(1, h.Address(0, 0, 100, 0), RD, 32, g.C(2));
  h.Request(2, h.Address(0, 0, 200, 0), RD, 32, g.C(2));
  h.Request(3, h.Address(1, 3, 100, 0), RD, 32, g.C(2));
  sc_core::sc_start(Ns(300));

  std::vector<uint32_t> actOrder;
  for (const auto& c : h.commands)
    if (c.second.command == ACT) actOrder.push_back(c.second.tag);
  EXPECT_EQ(actOrder, (std::vector<uint32_t>{1, 3, 2}));
  const auto first = h.CommandsOf(1);
  const auto second = h.CommandsOf(2);
  // The second request on bank 0 opens only after the first's full precharge.
  EXPECT_GE(second[0].first, first.back().first + cfg.tRP);
  EXPECT_GE(second[0].first, first[0].first + cfg.tRC);
  for (uint32_t tag : {1u, 2u, 3u}) EXPECT_EQ(h.ResponsesOf(tag).size(), 3u);
}

// The cube sets its size on the vault first, then on its controller.
void SetCubeSize(Harness& h, unsigned partitions) {
  h.vault->setNumPartitions(partitions);
  h.vc->setNumPartitions(partitions);
}

TEST(VaultControllerScheduling, NoCreditsStopRequestsButNotRefresh) {
  Bench b([](Config& cfg) {
    cfg.REFRESH_ENABLED = true;
    cfg.CREDITS_FOR_PROCESSING = cfg.VSW_RESPONSE_BUFFER_SIZE + 1;  // never enough credits
  });
  auto& [cfg, stats, h, g] = b;
  SetCubeSize(h, 2);
  h.Request(1, h.Address(0, 0, 2000, 0), RD, 32, sc_time());
  sc_core::sc_start(Ns(2000));
  EXPECT_EQ(h.vc->transactionQueue.size(), 1u);
  EXPECT_TRUE(h.responses.empty());
  EXPECT_EQ(stats.vaultRefreshes[kVault], 4u);  // ticks at 488, 976, 1465 and 1953 ns
  EXPECT_TRUE(h.commandCreditPulses.empty());  // refresh returns no command credit
}

// ---------------------------------------------------------------------------
// Refresh and the DRAM command trace
// ---------------------------------------------------------------------------

TEST(VaultControllerRefresh, NeedsEnableAtConstructionAndASize) {
  Bench b([](Config& cfg) { cfg.REFRESH_ENABLED = true; });
  sc_core::sc_start(Ns(3000));  // no cube size set: refresh never armed
  EXPECT_EQ(b.stats.vaultRefreshes[kVault], 0u);
  EXPECT_TRUE(b.h.commands.empty());
}

TEST(VaultControllerRefresh, EnablingAfterConstructionDoesNothing) {
  Bench b;
  b.cfg.REFRESH_ENABLED = true;
  SetCubeSize(b.h, 2);
  sc_core::sc_start(Ns(3000));
  EXPECT_EQ(b.stats.vaultRefreshes[kVault], 0u);
  EXPECT_TRUE(b.h.commands.empty());
}

TEST(VaultControllerTrace, LinesForARefreshAndARead) {
  char path[] = "/tmp/vc_traceXXXXXX";
  const int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  close(fd);
  dramLog.open(path, std::ios::out | std::ios::trunc);
  Bench b([](Config& cfg) {
    cfg.REFRESH_ENABLED = true;
    cfg.DRAM_TRACING = true;
  });
  auto& [cfg, stats, h, g] = b;
  SetCubeSize(h, 2);
  // A read before the first refresh tick, then the refresh of partition 0, bank 0, row 0.
  h.Request(5, h.Address(1, 2, 3000, 0), RD, 32, g.C(20));
  sc_core::sc_start(Ns(700));
  dramLog.close();

  std::ifstream in(path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  std::remove(path);
  ASSERT_EQ(lines.size(), 6u);

  const auto rd = h.CommandsOf(5);
  ASSERT_EQ(rd.size(), 3u);
  auto ticks = [](const sc_time& t) { return std::to_string(t.value()); };
  EXPECT_EQ(lines[0], ticks(rd[0].first) + ",VC3,ACT,d1,b2," + ticks(rd[0].first));  // first gap is the time
  EXPECT_EQ(lines[1], ticks(rd[1].first) + ",VC3,READ,d1,b2," + ticks(rd[1].first));
  EXPECT_EQ(lines[2], ticks(rd[2].first) + ",VC3,PRE,d1,b2,0");

  const auto refresh = h.CommandsOf(0xFFFFFFFFu);
  ASSERT_EQ(refresh.size(), 3u);
  EXPECT_EQ(lines[3], ticks(refresh[0].first) + ",VC3,ACT,d0,b0," + ticks(refresh[0].first - rd[0].first));
  EXPECT_EQ(lines[4], ticks(refresh[1].first) + ",VC3,READ,d0,b0," + ticks(refresh[1].first - rd[1].first));
  EXPECT_EQ(lines[5], ticks(refresh[2].first) + ",VC3,PRE,d0,b0,0");
  EXPECT_EQ(refresh[0].second.row, 0u);

  // The refresh tick comes at 488281 ps; its transaction is chosen on the edge after the next.
  const sc_time tick = sc_time::from_value(488281);
  EXPECT_EQ(refresh[0].first, g.Edge(tick) + g.C(3));
  EXPECT_EQ(stats.vaultRefreshes[kVault], 1u);
  EXPECT_EQ(stats.bankCounts[kVault][0], 0u);  // a refresh ACT isn't counted
  EXPECT_EQ(stats.vaultCASs[kVault], 2u);       // its READ is
  EXPECT_EQ(h.vc->refreshPartition, 1u);
  EXPECT_EQ(h.vc->requestQueueTransactions, 0u);
  EXPECT_FALSE(h.vc->bankStates[0][0]->refreshWaiting);
  EXPECT_FALSE(h.vc->bankStates[0][0]->transactionWaiting);
}

// ---------------------------------------------------------------------------
// Random legal traffic into one vault
// ---------------------------------------------------------------------------

struct TrafficCase {
  unsigned partitions;
  unsigned tj;
};

class VaultControllerTraffic : public ::testing::TestWithParam<TrafficCase> {};

TEST_P(VaultControllerTraffic, CheckerNeverFiresAndEveryRequestIsAnswered) {
  const TrafficCase tc = GetParam();
  Bench b([&tc](Config& cfg) {
    cfg.REFRESH_ENABLED = true;
    cfg.Tj = tc.tj;
  });
  auto& [cfg, stats, h, g] = b;
  SetCubeSize(h, tc.partitions);
  h.holdCreditsUntil = Ns(1000);  // the vault runs out of response credits for a while

  std::mt19937 rng(1234 + tc.partitions * 100 + tc.tj);
  // An atomic holds the whole vault for ATOMICS_SPACING + 1 cycles, so they are a minority.
  const ZELCommand kinds[] = {RD, RD, RD, RD, RD, WR, WR, WR, P_WR, P_WR, BWR, P_BWR, DADD8, P_DADD8, ADD16, P_ADD16};
  struct Sent {
    ZELCommand command;
    unsigned length;
  };
  std::map<uint32_t, Sent> sent;
  const unsigned count = 400;
  sc_time at;
  for (uint32_t tag = 1; tag <= count; tag++) {
    const ZELCommand command = kinds[rng() % 16];
    const unsigned length = IsAtomic(command) ? 16 : 16 * (1 + rng() % 8);
    // Rows of requests never meet the low rows that refresh reaches in this run,
    // nor each other: a refresh row cycle may share a bank with a request.
    const unsigned row = 1024 + tag;
    const unsigned column = rng() % 48;
    h.Request(tag, h.Address(rng() % tc.partitions, rng() % cfg.NUM_BANKS, row, column), command, length, at);
    sent[tag] = {command, length};
    at += CycleDelay(cfg, rng() % 6);
  }
  sc_core::sc_start(at + Ns(12000));

  EXPECT_TRUE(h.outgoing.empty());
  for (const auto& [tag, s] : sent) {
    const auto rsp = h.ResponsesOf(tag);
    if (IsPosted(s.command)) {
      EXPECT_TRUE(rsp.empty()) << tag;
    } else if (s.command == RD) {
      const unsigned n = s.length / cfg.FLIT_SIZE + 1;
      ASSERT_EQ(rsp.size(), n) << tag;
      for (unsigned i = 0; i < n; i++) {
        EXPECT_EQ(rsp[i].flit.command, RD_RSP);
        EXPECT_EQ(rsp[i].flit.header, i == 0) << tag;
        EXPECT_EQ(rsp[i].flit.tail, i == n - 1) << tag;
      }
    } else {
      ASSERT_EQ(rsp.size(), 1u) << tag;
      EXPECT_EQ(rsp[0].flit.command, WR_RSP);
      EXPECT_TRUE(rsp[0].flit.header && rsp[0].flit.tail);
    }
  }
  // Every credit loop is back at rest.
  EXPECT_EQ(h.commandCredits, cfg.TRANSACTION_Q_CAPACITY);
  EXPECT_EQ(h.writeCredits, cfg.DATA_Q_CAPACITY);
  EXPECT_EQ(h.vc->responseCredits, cfg.VSW_RESPONSE_BUFFER_SIZE);
  EXPECT_TRUE(h.vc->transactionQueue.empty());
  EXPECT_TRUE(h.vc->pendingReads.empty());
  EXPECT_TRUE(h.vc->pendingWriteResponses.empty());
  EXPECT_TRUE(h.vc->readyWriteResponses.empty());
  EXPECT_TRUE(h.vc->writeBuffer.empty());
  EXPECT_TRUE(h.vc->creditsByTag.empty());
  EXPECT_TRUE(h.vc->atomicTags.empty());
  EXPECT_EQ(h.vc->openBanks, 0u);
  EXPECT_LT(h.leastResponseCredits, cfg.CREDITS_FOR_PROCESSING);

  // Refresh kept its pace alongside the traffic.
  const uint64_t ticks = sc_time_stamp().value() / h.vc->refreshPeriod.value();
  EXPECT_GE(stats.vaultRefreshes[kVault] + 1, ticks);
  EXPECT_GT(stats.vaultRefreshes[kVault], 0u);
  // Row commands on edges, column commands between them.
  for (const auto& c : h.commands) {
    const bool onEdge = c.first.value() % cfg.CORE_CLK.value() == 0;
    EXPECT_EQ(onEdge, c.second.command == ACT || c.second.command == PRE) << c.second;
  }
}

INSTANTIATE_TEST_SUITE_P(Sizes, VaultControllerTraffic,
                         ::testing::Values(TrafficCase{2, 85}, TrafficCase{2, 95}, TrafficCase{4, 85},
                                           TrafficCase{4, 95}, TrafficCase{8, 85}, TrafficCase{8, 95}),
                         [](const auto& info) {
                           return "P" + std::to_string(info.param.partitions) + "Tj" +
                                  std::to_string(info.param.tj);
                         });

// ---------------------------------------------------------------------------
// State dump
// ---------------------------------------------------------------------------

TEST(VaultControllerDump, PrintsEveryQueue) {
  Config cfg;
  StatsKeeper stats(cfg);
  zel2_vault_controller vc("vc", cfg, stats, 3);
  Flit_P a(new Flit(1, 0x40, RD, 64, true, true, 1));
  Flit_P b(new Flit(2, 0x80, WR, 32, false, true, 3));
  vc.transactionQueue = {a, b};
  DRAMBusPacket act;
  act.command = ACT;
  act.partition = 1;
  act.bank = 2;
  act.row = 3;
  act.col = 4;
  act.tag = 1;
  vc.requestQueue = {act};
  vc.pendingReads = {a};
  DRAMBusPacket beat = act;
  beat.command = DATA;
  vc.writeBuffer = {beat, beat};
  vc.responseCredits = 52;

  std::ostringstream expected;
  expected << "== VC3 [Response Credits : 52]\n"
           << "\t\tTransaction Queue - 2 entries\n";
  expected << "\t\t\t0] " << a << "\n";
  expected << "\t\t\t1] " << b << "\n";
  expected << "\t\tRequest Queue\n";
  expected << "\t\t\t0] " << act << "\n";
  expected << "\t\tPending Reads\n";
  expected << "\t\t\t0] " << a << "\n";
  expected << "\t\tWrite Buffer\n";
  expected << "\t\t\t0] " << beat << "\n";
  expected << "\t\t\t1] " << beat << "\n";
  testing::internal::CaptureStdout();
  vc.DumpState();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), expected.str());
  EXPECT_NE(expected.str().find("ACT prt:1 bnk:2 row:3 col:4 tag:1"), std::string::npos);
  delete a.flit;
  delete b.flit;
}

// ---------------------------------------------------------------------------
// Errors: each ends the run with its own text
// ---------------------------------------------------------------------------

struct DeathCase {
  const char* name;
  std::function<void(Config&)> configure;
  std::function<void(Harness&)> setup;
  std::string pattern;
  bool exitsWithZero;
};

Flit* RequestFlit(uint32_t tag, ZELCommand command, unsigned length, unsigned destination = kVault) {
  Flit* f = new Flit(tag, 0, command, length, true, true, 1);
  f->destination = destination;
  return f;
}

const std::function<void(Config&)> NoConfig;

class VaultControllerDeath : public ::testing::TestWithParam<DeathCase> {};

TEST_P(VaultControllerDeath, EndsTheRun) {
  const DeathCase& c = GetParam();
  auto run = [&c] {
    dup2(2, 1);
    Bench b(c.configure);
    c.setup(b.h);
    sc_core::sc_start(Ns(300));
  };
  if (c.exitsWithZero)
    EXPECT_EXIT(run(), ::testing::ExitedWithCode(0), c.pattern);
  else
    EXPECT_DEATH(run(), c.pattern);
}

const std::string kLengthTest =
    Esc("(*flit).requestLength % 16 == 0 && (*flit).requestLength <= cfg.MAX_REQUEST_SIZE");

INSTANTIATE_TEST_SUITE_P(
    Rows, VaultControllerDeath,
    ::testing::Values(
        DeathCase{"FlitOffTheClock", NoConfig,
                  [](Harness& h) { h.At(Ns(2.4), [&h] { h.toVc[0].write(Flit_P(RequestFlit(1, RD, 32))); }); },
                  "Off timing in VC3 @ 2400 ps", false},
        DeathCase{"ProcessOffTheClock", NoConfig,
                  [](Harness& h) { h.At(Ns(0.8), [&h] { h.vc->processEvent.notify(); }); },
                  "ERROR: off timing in VC @ 800 ps\n.*Assertion", false},
        DeathCase{"WrongDestination", NoConfig,
                  [](Harness& h) {
                    h.At(Ns(3.2), [&h] { h.toVc[1].write(Flit_P(RequestFlit(1, RD, 32, kVault + 1))); });
                  },
                  "=\\[3200 ps\\]= ERROR - \\[HEAD cmd:RD32 .* TAIL\\] sent incorrectly to VC3\n.*Assertion", false},
        DeathCase{"InterleavedPackets", NoConfig,
                  [](Harness& h) {
                    h.Request(21, 0, WR, 32);
                    h.outgoing.pop_back();  // its tail never comes
                    h.Request(22, 0, RD, 32, CycleDelay(h.cfg, 2));
                  },
                  "== ERROR - VC3 did not receive contiguous packet of tag :21 : \\[HEAD cmd:RD32 tag:016", true},
        DeathCase{"NotARequest", NoConfig,
                  [](Harness& h) { h.At(Ns(1.6), [&h] { h.toVc[0].write(Flit_P(RequestFlit(5, RD_RSP, 32))); }); },
                  "=\\[1600 ps\\]= ERROR - Received wronge packet type in vault controller 3 - \\[HEAD cmd:RD_RSP32",
                  false},
        DeathCase{"ReadLengthNotFlits", NoConfig, [](Harness& h) { h.Request(5, 0, RD, 20); }, kLengthTest, false},
        DeathCase{"ReadTooLong", NoConfig, [](Harness& h) { h.Request(5, 0, RD, 144); }, kLengthTest, false},
        DeathCase{"ReadOfTwoFlits", NoConfig,
                  [](Harness& h) {
                    h.Request(5, 0, RD, 32);
                    h.outgoing.front().flit->tail = false;
                  },
                  Esc("(*flit).header && (*flit).tail"), false},
        DeathCase{"WriteOfOneFlit", NoConfig, [](Harness& h) { h.Request(5, 0, WR, 0); },
                  Esc("!((*flit).header&&(*flit).tail)"), false},
        DeathCase{"UnknownTransactionAtTheMove", NoConfig,
                  [](Harness& h) {
                    h.At(Ns(1.6), [&h] {
                      h.vc->transactionQueueLatch = new Flit_P(RequestFlit(4, WR_RSP, 0));
                      h.vc->moveEvent.notify(sc_core::SC_ZERO_TIME);
                    });
                  },
                  "=\\[1600 ps\\]= ERROR - Wrong type of transaction in VC3 transactioin queue - .*cmd:WR_RSP", false},
        DeathCase{"EmptyLatchAtTheMove", NoConfig,
                  [](Harness& h) { h.At(Ns(1.6), [&h] { h.vc->moveEvent.notify(); }); },
                  Esc("transactionQueueLatch!=__null"), false},
        DeathCase{"IssueOffTheCommandGrid", NoConfig,
                  [](Harness& h) { h.At(Ns(0.5), [&h] { h.vc->issueEvent.notify(); }); },
                  "UNALIGNED CLOCK!!!!!!!!!!\n\tTime Now=500 ps, period=800 ps\n.*Assertion", false},
        // Three partitions take two address bits, so partition 3 can be addressed.
        DeathCase{"PartitionOutOfRange", [](Config& cfg) { cfg.NUM_PARTITIONS = 3; },
                  [](Harness& h) { h.Request(5, h.Address(3, 0, 1, 0), RD, 32); },
                  Esc("partition<cfg.NUM_PARTITIONS"), false},
        DeathCase{"UnknownCommandToIssue", NoConfig,
                  [](Harness& h) {
                    h.At(Ns(1.6), [&h] {
                      DRAMBusPacket ref;
                      ref.command = REF;
                      ref.partition = 0;
                      ref.bank = 1;
                      h.vc->requestQueue.push_back(ref);
                      h.vc->issueEvent.notify();
                    });
                  },
                  "=\\[1600 ps\\]= ERROR - Wrong packet type trying to be issued REF prt:0 bnk:1\n.*Assertion", false},
        DeathCase{"TooManyPartitions", NoConfig, [](Harness& h) { h.vc->setNumPartitions(9); },
                  Esc("numPartitions <= maxPartitions"), false},
        DeathCase{"LostPartitions", NoConfig,
                  [](Harness& h) {
                    h.vc->unusedBankStates.push_back({});
                    h.vc->resizeBankStateVector(2);
                  },
                  Esc("bankStates.size() + unusedBankStates.size() == maxPartitions"), false},
        DeathCase{"CreditOffTheClock", NoConfig,
                  [](Harness& h) { h.At(Ns(0.8), [&h] { h.responseCredit.write(1); }); },
                  "Off timing in VC3 because of credit @ 800 ps", false},
        DeathCase{"CreditOverflow", NoConfig, [](Harness& h) { h.At(Ns(1.6), [&h] { h.owedCredits = 1; }); },
                  "== ERROR - Response Credit overflow in VC3", false},
        DeathCase{"CreditWithoutDelayEntry", NoConfig,
                  [](Harness& h) {
                    h.At(Ns(1.6), [&h] { h.vc->responseCreditQueue.notify(sc_core::SC_ZERO_TIME); });
                  },
                  Esc("!creditDelayQueue.empty()"), false}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
