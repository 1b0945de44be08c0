// SPDX-License-Identifier: Apache-2.0
// The vault controller with its vault, bound as a slice binds them, driven by
// a harness that plays the link switch (requests under command and write
// credits) and the vault switch (takes response flits, returns response
// credits). The vault's own checker watches every command the controller issues.
#include <deque>
#include <functional>
#include <map>
#include <random>
#include <utility>

#include "test_support.h"
#include "zel2/Config.h"
#include "zel2/StatsKeeper.h"
#include "zel2/zel2_bank.h"
#include "zel2/zel2_flit.h"
#include "zel2/zel2_vault.h"
#include "zel2/zel2_vault_controller.h"

namespace {

using namespace sc_core;
using namespace Sornak::Internal::ZEL2;
using zelsim_test::Literal;
using zelsim_test::Ns;
using Commands = std::vector<std::pair<sc_time, DRAMBusPacket>>;

constexpr unsigned kVault = 3;

bool IsAtomic(ZELCommand c) { return c >= BWR && c <= P_ADD16; }

struct Received {
  sc_time at;
  unsigned port;
  Flit flit;
};

// Link switch and vault switch around one slice.
class Harness : public sc_module {
 public:
  const Config& cfg;
  sc_vector<sc_signal<Flit_P>> toVc{"toVc"}, fromVc{"fromVc"};
  sc_signal<bool> commandCredit{"commandCredit"};
  sc_signal<int> responseCredit{"responseCredit"}, writeCredit{"writeCredit"};
  sc_signal<DRAMBusPacket> dramCommands{"dramCommands"}, dramReadData{"dramReadData"},
      dramWriteData{"dramWriteData"};
  zel2_vault* vault;
  zel2_vault_controller* vc;
  // Link switch side: flits to send, each from its time on, and the credits
  // it holds and gets back.
  std::deque<std::pair<sc_time, Flit*>> outgoing;
  unsigned commandCredits = cfg.TRANSACTION_Q_CAPACITY, writeCredits = cfg.DATA_Q_CAPACITY;
  std::vector<sc_time> commandCreditPulses;
  std::vector<std::pair<sc_time, int>> writeCreditPulses;
  // Vault switch side: what came, the credits owed (none go back before
  // holdCreditsUntil) and the fewest response credits the controller held.
  std::vector<Received> responses;
  unsigned owedCredits = 0, leastResponseCredits = ~0u;
  sc_time holdCreditsUntil;
  Commands commands, writeBeats;  // both DRAM buses

  SC_HAS_PROCESS(Harness);
  Harness(sc_module_name name, const Config& config, StatsKeeper& stats) : sc_module(name), cfg(config) {
    toVc.init(cfg.FLITS_IN_PER_CYCLE_VC);
    fromVc.init(cfg.FLITS_OUT_PER_CYCLE_VC);
    vault = new zel2_vault("vault", cfg, stats, kVault);
    vc = new zel2_vault_controller("vaultController", cfg, stats, kVault);
    vc->flitsIn(toVc);
    vc->flitsOut(fromVc);
    vc->commandCreditOut(commandCredit);
    vc->responseCreditIn(responseCredit);
    vc->writeCreditOut(writeCredit);
    vc->dramCommandOut(dramCommands);
    vc->dramDataIn(dramReadData);
    vc->dramDataOut(dramWriteData);
    vault->dramCommandIn(dramCommands);
    vault->dramDataIn(dramWriteData);
    vault->dramDataOut(dramReadData);
    SC_THREAD(SendThread);
    SC_THREAD(ReturnResponseCredits);
    SC_METHOD(Observe);
    sensitive << commandCredit << writeCredit << dramCommands << dramWriteData;
    for (auto& s : fromVc) sensitive << s;
    dont_initialize();
  }

  // Queues a request packet to be sent from `at` (a core edge) on.
  void Request(uint32_t tag, uint64_t address, ZELCommand command, unsigned length, sc_time at = {}) {
    const unsigned flits = command == RD ? 1 : IsAtomic(command) ? 2 : length / cfg.FLIT_SIZE + 1;
    for (unsigned k = 1; k <= flits; k++) {
      outgoing.emplace_back(at, new Flit(tag, address, command, length, k == 1, k == flits, k));
      outgoing.back().second->destination = kVault;
    }
  }
  uint64_t Address(unsigned partition, unsigned bank, unsigned row, unsigned column) const {
    uint64_t a = (uint64_t{row} << vc->colHighBits) | column >> vc->colLowBits;
    a = (((a << vc->partitionBits | partition) << vc->bankBits | bank) << vc->vaultBits) | kVault;
    return ((a << vc->colLowBits) | (column & ((1u << vc->colLowBits) - 1))) << vc->byteBits;
  }
  std::vector<Received> ResponsesOf(uint32_t tag) const { return Of(responses, tag, &Received::flit); }
  Commands CommandsOf(uint32_t tag) const { return Of(commands, tag, &Commands::value_type::second); }
  template <class V, class M>
  static V Of(const V& all, uint32_t tag, M member) {
    V out;
    for (const auto& x : all)
      if ((x.*member).tag == tag) out.push_back(x);
    return out;
  }

 private:
  // Sends whole packets in order, as the link switch's credit table allows:
  // every flit asks for two write credits, the header takes the command credit.
  void SendThread() {
    for (;; wait(cfg.CORE_CLK)) {
      leastResponseCredits = std::min(leastResponseCredits, vc->responseCredits);
      for (unsigned lane = 0;
           lane < toVc.size() && !outgoing.empty() && outgoing.front().first <= sc_time_stamp(); ++lane) {
        Flit* f = outgoing.front().second;
        if (writeCredits < 2 || commandCredits < (f->header ? 1u : 0u)) break;
        commandCredits -= f->header ? 1 : 0;
        writeCredits -= f->header && f->tail      ? 0
                        : (f->header || !f->tail) ? 1
                        : f->requestLength % 32   ? 1
                                                  : 0;
        toVc[lane].write(Flit_P(f));
        outgoing.pop_front();
      }
    }
  }

  void ReturnResponseCredits() {
    while (true) {
      if (owedCredits == 0 || sc_time_stamp() < holdCreditsUntil) {
        wait(cfg.CORE_CLK);
        continue;
      }
      const unsigned n = std::min<unsigned>(owedCredits, cfg.FLITS_OUT_PER_CYCLE_VC);
      owedCredits -= n;
      responseCredit.write(static_cast<int>(n));
      wait(HalfCycle(cfg));
      responseCredit.write(0);
      wait(cfg.CORE_CLK - HalfCycle(cfg));
    }
  }

  // Counts credits back (never above their start), takes responses and
  // records both DRAM buses.
  void Observe() {
    const sc_time now = sc_time_stamp();
    if (commandCredit.event() && commandCredit.read()) {
      commandCreditPulses.push_back(now);
      EXPECT_LE(++commandCredits, cfg.TRANSACTION_Q_CAPACITY);
    }
    if (writeCredit.event() && writeCredit.read() > 0) {
      writeCreditPulses.emplace_back(now, writeCredit.read());
      EXPECT_LE(writeCredits += writeCredit.read(), cfg.DATA_Q_CAPACITY);
    }
    for (unsigned j = 0; j < fromVc.size(); j++) {
      if (!fromVc[j].event()) continue;
      responses.push_back({now, j, *fromVc[j].read()});
      delete fromVc[j].read().flit;
      owedCredits++;
    }
    if (dramCommands.event()) commands.emplace_back(now, dramCommands.read());
    if (dramWriteData.event()) writeBeats.emplace_back(now, dramWriteData.read());
  }
};

// A configuration, its statistics and the harness around one slice, with
// the times of the rules that pace a transaction through an idle vault.
struct Bench {
  Config cfg;
  StatsKeeper stats{cfg};
  Harness h{"h", cfg, stats};
  // The configuration is set before the harness builds the blocks on it.
  explicit Bench(const std::function<void(Config&)>& configure = {})
      : cfg([&] {
          Config c;
          if (configure) configure(c);
          return c;
        }()) {}
  sc_time C(double n) const { return CycleDelay(cfg, n); }
  // The first core edge at or after t.
  sc_time Edge(const sc_time& t) const { return CeilTo(t, cfg.CORE_CLK); }
  // The first command slot at or after t that is off the core clock edges.
  sc_time Column(const sc_time& t) const {
    const sc_time s = CeilTo(t, cfg.tCMD);
    return s.value() % cfg.CORE_CLK.value() == 0 ? s + cfg.tCMD : s;
  }
  static sc_time CeilTo(const sc_time& t, const sc_time& period) {
    return sc_time::from_value((t.value() + period.value() - 1) / period.value() * period.value());
  }
  // The cube sets its size on the vault first, then on its controller.
  void SetCubeSize(unsigned partitions) {
    h.vault->setNumPartitions(partitions);
    h.vc->setNumPartitions(partitions);
  }
};

// "ACT4", "READ5" ...: each command's word and column, and their times.
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

// The address fields from the low end and the setters that move them; bank
// states parked and brought back by partition changes; the refresh period.
TEST(VaultControllerSetup, AddressMapPartitionsAndRefreshPeriod) {
  Config cfg;
  cfg.REFRESH_ENABLED = true;
  StatsKeeper stats(cfg);
  zel2_vault_controller vc("vc", cfg, stats, 0);
  // Byte 4, column low 3, vault 4, bank 2, partition 1, column high 3, row 13.
  EXPECT_EQ((std::vector<uint32_t>{vc.byteBits, vc.colLowBits, vc.vaultBits, vc.bankBits, vc.partitionBits,
                                   vc.colHighBits, vc.rowBits}),
            (std::vector<uint32_t>{4, 3, 4, 2, 1, 3, 13}));
  // A smaller block moves bits from the low to the high column part only. Then
  // row 0x155, column high 17, partition 0, bank 3, vault 2, column low 1, and
  // a byte offset and a bit above the row that are ignored.
  vc.setMaxBlockSize(32);
  EXPECT_EQ((std::vector<unsigned>{cfg.MAX_BLOCK_SIZE, vc.colLowBits, vc.colHighBits}),
            (std::vector<unsigned>{32, 1, 5}));
  unsigned p, b, r, c;
  vc.AddressMap((((((0x155ull << 5 | 17) << 1 | 0) << 2 | 3) << 4 | 0x2) << 1 | 1) << 4 | 0xf | 1ull << 40, p,
                b, r, c);
  EXPECT_EQ((std::vector<unsigned>{p, b, r, c}), (std::vector<unsigned>{0, 3, 0x155, 1 | 17 << 1}));

  // All partitions' banks at first, whatever NUM_PARTITIONS says; no refresh
  // before a size. Parked states come back as they were.
  ASSERT_EQ(vc.bankStates.size(), 8u);
  EXPECT_EQ(vc.refreshPeriod, sc_time());
  const auto original = vc.bankStates;
  vc.bankStates[6][1]->openRow = 77;
  vc.setNumPartitions(2);
  EXPECT_EQ(vc.unusedBankStates.size(), 6u);
  EXPECT_EQ(vc.refreshPeriod.value(), 488281u);  // 32 ms over every row, to the nearest ps
  cfg.Tj = 94;
  vc.setNumPartitions(4);
  EXPECT_EQ(vc.refreshPeriod.value(), 244141u);
  cfg.Tj = 95;
  vc.setNumPartitions(8);
  EXPECT_TRUE(vc.bankStates == original && vc.unusedBankStates.empty() && vc.bankStates[6][1]->openRow == 77);
  EXPECT_EQ(vc.refreshPeriod.value(), 61035u);  // 16 ms when hot
  vc.setNumPartitions(1);
  EXPECT_EQ(std::make_pair(cfg.NUM_PARTITIONS, vc.partitionBits), std::make_pair(1u, 0u));
  vc.setNumPartitions(3);  // rounds up to a power of two
  EXPECT_EQ(std::make_pair(cfg.NUM_PARTITIONS, vc.partitionBits), std::make_pair(3u, 2u));
}

// A read through an idle vault, command by command and flit by flit.
// Refresh, enabled when the vault was built but with no cube size set, stays off.
TEST(VaultControllerRoads, ReadFollowsTheTimingTable) {
  Bench b([](Config& cfg) { cfg.REFRESH_ENABLED = true; });
  auto& [cfg, stats, h] = b;
  const sc_time t = b.C(10);
  h.Request(7, h.Address(1, 2, 300, 4), RD, 64, t);
  sc_start(Ns(600));

  const Commands cmds = h.CommandsOf(7);
  EXPECT_EQ(cmds.size(), h.commands.size());
  EXPECT_EQ(stats.vaultRefreshes[kVault], 0u);
  EXPECT_EQ(Kinds(cmds), (std::vector<std::string>{"ACT4", "READ4", "READ5", "PRE6"}));
  for (const auto& c : cmds)
    EXPECT_TRUE(c.second.partition == 1 && c.second.bank == 2 && c.second.row == 300) << c.second;
  // Row commands on edges, column commands between them.
  const sc_time act = t + b.C(3), read1 = b.Column(act + cfg.tRCDr), read2 = read1 + cfg.tCCD;
  EXPECT_EQ(Times(cmds),
            (std::vector<sc_time>{act, read1, read2, b.Edge(std::max(act + cfg.tRAS, read2 + cfg.tRTP))}));
  // One command credit, COMMAND_CREDIT_DELAY after the choice.
  EXPECT_EQ(h.commandCreditPulses, std::vector<sc_time>{t + b.C(1 + cfg.COMMAND_CREDIT_DELAY)});

  // Beat stored one cycle after the vault sends it; flits from the next edge on.
  const sc_time header = b.Edge(read1 + cfg.tCMD + cfg.tAA + cfg.tAC + cfg.CORE_CLK) + b.C(cfg.MI_OUT_DELAY);
  const auto rsp = h.ResponsesOf(7);
  ASSERT_EQ(rsp.size(), 5u);
  for (unsigned i = 0; i < 5; i++) {
    EXPECT_EQ(rsp[i].at, header + b.C(std::min(i, 3u))) << i;
    EXPECT_EQ(rsp[i].port, i / 4);
  }
  EXPECT_EQ(rsp[0].flit.timeStamps[3], t);
  EXPECT_EQ(rsp[0].flit.timeStamps[4], t + b.C(2));

  EXPECT_EQ(h.vc->responseCredits, cfg.VSW_RESPONSE_BUFFER_SIZE);
  EXPECT_EQ(h.vc->requestQueueTransactions, 0u);
}

// A write through an idle vault, with its data beats and write credits.
// Refresh, enabled only after the vault was built, stays off.
TEST(VaultControllerRoads, WriteFollowsTheTimingTable) {
  Bench b;
  auto& [cfg, stats, h] = b;
  cfg.REFRESH_ENABLED = true;
  b.SetCubeSize(2);
  h.Request(9, h.Address(0, 1, 40, 2), WR, 128, b.C(6));
  sc_start(Ns(600));

  const sc_time t = b.C(10);  // the tail of nine flits, two per cycle
  const Commands cmds = h.CommandsOf(9);
  EXPECT_EQ(cmds.size(), h.commands.size());
  EXPECT_EQ(stats.vaultRefreshes[kVault], 0u);
  EXPECT_EQ(Kinds(cmds), (std::vector<std::string>{"ACT2", "WRITE2", "WRITE3", "WRITE4", "WRITE5", "PRE6"}));
  const sc_time act = t + b.C(3), first = b.Column(act + cfg.tRCDw), last = first + cfg.tCCD * 3;
  EXPECT_EQ(Times(cmds),
            (std::vector<sc_time>{act, first, first + cfg.tCCD, first + cfg.tCCD * 2, last,
                                  b.Edge(std::max(act + cfg.tRAS, last + cfg.tWL + cfg.BL + cfg.tWR))}));
  // Each WRITE's data beat tWL later.
  ASSERT_EQ(h.writeBeats.size(), 4u);
  for (unsigned i = 0; i < 4; i++) {
    EXPECT_EQ(h.writeBeats[i].first, cmds[1 + i].first + cfg.tWL);
    EXPECT_EQ(h.writeBeats[i].second.command, DATA);
  }

  // One response flit, WRITE_RESPONSE_DELAY after the last WRITE, on an edge.
  const auto rsp = h.ResponsesOf(9);
  ASSERT_EQ(rsp.size(), 1u);
  EXPECT_EQ(rsp[0].at, b.Edge(last) + b.C(cfg.WRITE_RESPONSE_DELAY));
  EXPECT_EQ(rsp[0].flit.flitNumber, 1u);
  // Eight write credits, two per cycle, from WRITE_CREDIT_DELAY after the last WRITE.
  ASSERT_EQ(h.writeCreditPulses.size(), 4u);
  for (unsigned i = 0; i < 4; i++)
    EXPECT_EQ(h.writeCreditPulses[i], std::make_pair(last + b.C(cfg.WRITE_CREDIT_DELAY + i), 2));
}

// An ACT on an edge makes the READ due on an edge too: it waits one slot.
TEST(VaultControllerRoads, ColumnCommandDueOnAnEdgeWaitsOneSlot) {
  Bench b([](Config& cfg) { cfg.tRCDr = Ns(12.8); });
  b.h.Request(7, b.h.Address(0, 0, 1, 0), RD, 32, b.C(2));
  sc_start(Ns(100));
  const Commands cmds = b.h.CommandsOf(7);
  ASSERT_EQ(cmds.size(), 3u);
  EXPECT_EQ(cmds[1].first, cmds[0].first + b.cfg.tRCDr + b.cfg.tCMD);
}

// Tags 1-4: short and odd-column reads (a 16-byte read is one READ, header
// and tail together; an odd column takes one READ more and drops the surplus
// beats). Tags 11, 12: an atomic reads, then writes ATOMICS_SPACING cycles
// later, and its READ holds every bank's column commands one cycle longer.
// Tags 21-23: a busy bank is passed by another bank.
TEST(VaultControllerScheduling, ShortReadsAtomicsAndABusyBank) {
  Bench b;
  auto& [cfg, stats, h] = b;
  const unsigned reads[][4] = {
      {1, 0, 0, 16}, {2, 0, 1, 64}, {3, 1, 1, 48}, {4, 1, 2, 32}};  // tag, p, b, bytes
  for (const auto& r : reads) h.Request(r[0], h.Address(r[1], r[2], 5, r[0] == 1 ? 2 : 3), RD, r[3], b.C(2));
  h.Request(11, h.Address(1, 0, 9, 3), DADD8, 16, b.C(150));
  h.Request(12, h.Address(0, 3, 9, 3), P_ADD16, 16, b.C(150));
  h.Request(21, h.Address(0, 2, 100, 0), RD, 32, b.C(30));
  h.Request(22, h.Address(0, 2, 200, 0), RD, 32, b.C(30));
  h.Request(23, h.Address(1, 3, 100, 0), RD, 32, b.C(30));
  sc_start(Ns(600));

  std::vector<unsigned> counts;  // READs and response flits of tags 1 to 4
  for (uint32_t tag = 1; tag <= 4; tag++) {
    counts.push_back(0);
    for (const auto& c : h.CommandsOf(tag)) counts.back() += c.second.command == READ;
    counts.push_back(h.ResponsesOf(tag).size());
  }
  ASSERT_EQ(counts, (std::vector<unsigned>{1, 2, 3, 5, 2, 4, 2, 3}));
  const auto one = h.ResponsesOf(1);
  EXPECT_TRUE(one[0].at == one[1].at && one[0].port == 0 && one[0].flit.header && one[1].port == 1 &&
              one[1].flit.tail);

  for (uint32_t tag : {11u, 12u})
    ASSERT_EQ(Kinds(h.CommandsOf(tag)), (std::vector<std::string>{"ACT3", "READ3", "WRITE3", "PRE3"}));
  const Commands first = h.CommandsOf(11), second = h.CommandsOf(12);
  EXPECT_EQ(first[1].first, b.Column(first[0].first + cfg.tRCDr));
  EXPECT_EQ(first[2].first - first[1].first, b.C(cfg.ATOMICS_SPACING));
  EXPECT_GE(second[1].first, first[1].first + b.C(cfg.ATOMICS_SPACING + 1));

  // The vault's checker holds the bank timing; the order is the controller's.
  std::vector<uint32_t> actOrder;
  for (const auto& c : h.commands)
    if (c.second.command == ACT && c.second.tag > 20) actOrder.push_back(c.second.tag);
  EXPECT_EQ(actOrder, (std::vector<uint32_t>{21, 23, 22}));
  EXPECT_EQ(h.ResponsesOf(22).size(), 3u);
  EXPECT_TRUE(h.vc->readData.empty());
}

// The refresh of partition 0, bank 0, row 0 after a read. Then, with too few
// response credits to choose a request, refresh goes on alone.
TEST(VaultControllerRefresh, RefreshTickAndRefreshWithoutResponseCredits) {
  Bench b([](Config& cfg) { cfg.REFRESH_ENABLED = true; });
  auto& [cfg, stats, h] = b;
  b.SetCubeSize(2);
  h.Request(5, h.Address(1, 2, 3000, 0), RD, 32, b.C(20));
  sc_start(Ns(700));

  const Commands refresh = h.CommandsOf(0xFFFFFFFFu);
  ASSERT_EQ(Kinds(refresh), (std::vector<std::string>{"ACT0", "READ0", "PRE0"}));
  for (const auto& c : refresh)
    EXPECT_TRUE(c.second.partition == 0 && c.second.bank == 0 && c.second.row == 0) << c.second;
  // The refresh tick comes at 488281 ps; its transaction is chosen on the edge after the next.
  EXPECT_EQ(refresh[0].first, b.Edge(sc_time::from_value(488281)) + b.C(3));
  EXPECT_EQ(stats.vaultRefreshes[kVault], 1u);
  EXPECT_EQ(stats.bankCounts[kVault][0], 0u);  // a refresh ACT isn't counted
  EXPECT_EQ(stats.vaultCASs[kVault], 2u);      // its READ is
  EXPECT_EQ(h.vc->refreshPartition, 1u);
  EXPECT_FALSE(h.vc->bankStates[0][0]->refreshWaiting || h.vc->bankStates[0][0]->transactionWaiting);

  cfg.CREDITS_FOR_PROCESSING = cfg.VSW_RESPONSE_BUFFER_SIZE + 1;  // never enough credits
  h.Request(6, h.Address(0, 0, 2000, 0), RD, 32, b.C(500));
  sc_start(Ns(1300));
  EXPECT_EQ(h.vc->transactionQueue.size(), 1u);
  EXPECT_TRUE(h.ResponsesOf(6).empty());
  EXPECT_EQ(stats.vaultRefreshes[kVault], 4u);  // ticks at 488, 976, 1465 and 1953 ns
  EXPECT_EQ(h.commandCreditPulses.size(), 1u);  // refresh returns no command credit
}

// Random legal traffic into one vault, which runs out of response credits
// for a while: the vault's checker never fires, every request is answered as
// its kind says, every credit loop comes back to rest, and refresh keeps its pace.
class VaultControllerTraffic : public ::testing::TestWithParam<std::pair<unsigned, unsigned>> {};

TEST_P(VaultControllerTraffic, CheckerNeverFiresAndEveryRequestIsAnswered) {
  const auto [partitions, tj] = GetParam();
  Bench b([tj = tj](Config& cfg) {
    cfg.REFRESH_ENABLED = true;
    cfg.Tj = tj;
  });
  auto& [cfg, stats, h] = b;
  b.SetCubeSize(partitions);
  h.holdCreditsUntil = Ns(1000);
  std::mt19937 rng(1234 + partitions * 100 + tj);
  // An atomic holds the whole vault for ATOMICS_SPACING + 1 cycles, so they are a minority.
  const ZELCommand kinds[] = {RD,   RD,   RD,  RD,    RD,    WR,      WR,    WR,
                              P_WR, P_WR, BWR, P_BWR, DADD8, P_DADD8, ADD16, P_ADD16};
  std::map<uint32_t, std::pair<ZELCommand, unsigned>> sent;
  sc_time at;
  for (uint32_t tag = 1; tag <= 400; tag++) {
    const ZELCommand command = kinds[rng() % 16];
    const unsigned length = IsAtomic(command) ? 16 : 16 * (1 + rng() % 8);
    // Rows never meet the low rows that refresh reaches in this run, nor each other.
    const uint64_t address = h.Address(rng() % partitions, rng() % cfg.NUM_BANKS, 1024 + tag, rng() % 48);
    h.Request(tag, address, command, length, at);
    sent[tag] = {command, length};
    at += CycleDelay(cfg, rng() % 6);
  }
  sc_start(at + Ns(12000));

  EXPECT_TRUE(h.outgoing.empty());
  for (const auto& [tag, s] : sent) {
    const bool posted = s.first == P_WR || s.first == P_BWR || s.first == P_DADD8 || s.first == P_ADD16;
    const unsigned n = posted ? 0 : s.first == RD ? s.second / cfg.FLIT_SIZE + 1 : 1;
    const auto rsp = h.ResponsesOf(tag);
    ASSERT_EQ(rsp.size(), n) << tag;
    for (unsigned i = 0; i < n; i++) {
      EXPECT_EQ(rsp[i].flit.command, s.first == RD ? RD_RSP : WR_RSP) << tag;
      EXPECT_EQ(std::make_pair(rsp[i].flit.header, rsp[i].flit.tail), std::make_pair(i == 0, i == n - 1))
          << tag;
    }
  }
  EXPECT_EQ(h.commandCredits, cfg.TRANSACTION_Q_CAPACITY);
  EXPECT_EQ(h.writeCredits, cfg.DATA_Q_CAPACITY);
  EXPECT_EQ(h.vc->responseCredits, cfg.VSW_RESPONSE_BUFFER_SIZE);
  EXPECT_LT(h.leastResponseCredits, cfg.CREDITS_FOR_PROCESSING);
  const zel2_vault_controller& vc = *h.vc;
  EXPECT_TRUE(vc.transactionQueue.empty() && vc.pendingReads.empty() && vc.pendingWriteResponses.empty() &&
              vc.readyWriteResponses.empty() && vc.writeBuffer.empty() && vc.creditsByTag.empty() &&
              vc.atomicTags.empty() && vc.openBanks == 0);
  const uint64_t ticks = sc_time_stamp().value() / vc.refreshPeriod.value();
  EXPECT_GE(stats.vaultRefreshes[kVault] + 1, ticks);
  EXPECT_GT(stats.vaultRefreshes[kVault], 0u);
  // Row commands on edges, column commands between them.
  for (const auto& c : h.commands)
    EXPECT_EQ(c.first.value() % cfg.CORE_CLK.value() == 0, c.second.command == ACT || c.second.command == PRE)
        << c.second;
}

INSTANTIATE_TEST_SUITE_P(Sizes, VaultControllerTraffic,
                         ::testing::Values(std::pair(2u, 85u), std::pair(2u, 95u), std::pair(4u, 85u),
                                           std::pair(4u, 95u), std::pair(8u, 85u), std::pair(8u, 95u)));

// Expects the run that `setup` prepares, in a child of its own, to end with
// `pattern` on its output: by a signal, or with status zero if so marked.
void ExpectEnd(const std::function<void(Harness&)>& setup, const std::string& pattern,
               const std::function<void(Config&)>& configure = {}, bool exitsWithZero = false) {
  const auto run = [&] {
    dup2(2, 1);
    Bench b(configure);
    setup(b.h);
    sc_start(Ns(300));
  };
  if (exitsWithZero)
    EXPECT_EXIT(run(), ::testing::ExitedWithCode(0), pattern);
  else
    EXPECT_DEATH(run(), pattern);
}

Flit* RequestFlit(uint32_t tag, ZELCommand command, unsigned length, unsigned destination = kVault) {
  Flit* f = new Flit(tag, 0, command, length, true, true, 1);
  f->destination = destination;
  return f;
}

// What the link switch may send wrong, and the model's own states that are
// errors. A poke at a time runs the simulation up to it first.
TEST(VaultControllerDeathTest, ModelErrorsEndTheRun) {
  const auto assertion = [](const std::string& condition) {
    return Literal("Assertion `" + condition + "'");
  };
  const auto at = [](double ns, const std::function<void(Harness&)>& poke) {
    return [=](Harness& h) {
      sc_start(Ns(ns));
      poke(h);
    };
  };
  ExpectEnd(at(2.4, [](Harness& h) { h.toVc[0].write(Flit_P(RequestFlit(1, RD, 32))); }),
            "Off timing in VC3 @ 2400 ps");
  ExpectEnd(at(0.8, [](Harness& h) { h.vc->processEvent.notify(SC_ZERO_TIME); }),
            "ERROR: off timing in VC @ 800 ps\n.*Assertion");
  ExpectEnd(at(3.2, [](Harness& h) { h.toVc[1].write(Flit_P(RequestFlit(1, RD, 32, kVault + 1))); }),
            "=\\[3200 ps\\]= ERROR - \\[HEAD cmd:RD32 .* TAIL\\] sent incorrectly to VC3\n.*Assertion");
  ExpectEnd(
      [](Harness& h) {
        h.Request(21, 0, WR, 32);
        h.outgoing.pop_back();  // its tail never comes
        h.Request(22, 0, RD, 32, CycleDelay(h.cfg, 2));
      },
      "== ERROR - VC3 did not receive contiguous packet of tag :21 : \\[HEAD cmd:RD32 tag:016", {}, true);
  ExpectEnd(
      at(1.6, [](Harness& h) { h.toVc[0].write(Flit_P(RequestFlit(5, RD_RSP, 32))); }),
      "=\\[1600 ps\\]= ERROR - Received wronge packet type in vault controller 3 - \\[HEAD cmd:RD_RSP32");
  const std::string length =
      assertion("(*flit).requestLength % 16 == 0 && (*flit).requestLength <= cfg.MAX_REQUEST_SIZE");
  ExpectEnd([](Harness& h) { h.Request(5, 0, RD, 20); }, length);
  ExpectEnd([](Harness& h) { h.Request(5, 0, RD, 144); }, length);
  ExpectEnd(
      [](Harness& h) {
        h.Request(5, 0, RD, 32);
        h.outgoing.front().second->tail = false;
      },
      assertion("(*flit).header && (*flit).tail"));
  ExpectEnd([](Harness& h) { h.Request(5, 0, WR, 0); }, assertion("!((*flit).header&&(*flit).tail)"));
  ExpectEnd(at(1.6,
               [](Harness& h) {
                 h.vc->transactionQueueLatch = new Flit_P(RequestFlit(4, WR_RSP, 0));
                 h.vc->moveEvent.notify(SC_ZERO_TIME);
               }),
            "=\\[1600 ps\\]= ERROR - Wrong type of transaction in VC3 transactioin queue - .*cmd:WR_RSP");
  ExpectEnd(at(1.6, [](Harness& h) { h.vc->moveEvent.notify(SC_ZERO_TIME); }),
            assertion("transactionQueueLatch!=__null"));
  ExpectEnd(at(0.5, [](Harness& h) { h.vc->issueEvent.notify(SC_ZERO_TIME); }),
            "UNALIGNED CLOCK!!!!!!!!!!\n\tTime Now=500 ps, period=800 ps\n.*Assertion");
  // Three partitions take two address bits, so partition 3 can be addressed.
  ExpectEnd([](Harness& h) { h.Request(5, h.Address(3, 0, 1, 0), RD, 32); },
            assertion("partition<cfg.NUM_PARTITIONS"), [](Config& cfg) { cfg.NUM_PARTITIONS = 3; });
  ExpectEnd(at(1.6,
               [](Harness& h) {
                 h.vc->requestQueue.push_back({REF, 0, 1});
                 h.vc->issueEvent.notify(SC_ZERO_TIME);
               }),
            "=\\[1600 ps\\]= ERROR - Wrong packet type trying to be issued REF prt:0 bnk:1\n.*Assertion");
  ExpectEnd([](Harness& h) { h.vc->setNumPartitions(9); }, assertion("numPartitions <= maxPartitions"));
  ExpectEnd(
      [](Harness& h) {
        h.vc->unusedBankStates.push_back({});
        h.vc->resizeBankStateVector(2);
      },
      assertion("bankStates.size() + unusedBankStates.size() == maxPartitions"));
  ExpectEnd(at(0.8, [](Harness& h) { h.responseCredit.write(1); }),
            "Off timing in VC3 because of credit @ 800 ps");
  ExpectEnd(at(1.6, [](Harness& h) { h.owedCredits = 1; }), "== ERROR - Response Credit overflow in VC3");
  ExpectEnd(at(1.6, [](Harness& h) { h.vc->responseCreditQueue.notify(SC_ZERO_TIME); }),
            assertion("!creditDelayQueue.empty()"));
}

}  // namespace
