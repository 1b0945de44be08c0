// SPDX-License-Identifier: Apache-2.0
// The vault's DRAM checker and its banks, driven through the command and
// data buses by a small harness. A command's issue time is when the harness
// writes it; the vault acts on it one tCMD later.
#include <cstdlib>
#include <utility>

#include "test_support.h"
#include "zel2/Config.h"
#include "zel2/StatsKeeper.h"
#include "zel2/zel2_bank.h"
#include "zel2/zel2_vault.h"

namespace {

using namespace Sornak::Internal::ZEL2;
using sc_core::sc_time;
using zelsim_test::Ns;

// One command of a script, issued at `at`.
struct Issue {
  Issue(sc_time at, DRAMCommand command, unsigned partition = 0, unsigned bank = 0, unsigned row = 5,
        unsigned col = 0)
      : at(at), packet{command, partition, bank, row, col, 1} {}
  sc_time at;
  DRAMBusPacket packet;
};

// Issues a script of commands at absolute times to vault 3 and records the
// read data.
class Bench : public sc_core::sc_module {
 public:
  Config cfg;
  StatsKeeper stats;
  sc_core::sc_signal<DRAMBusPacket> commands{"commands"};
  sc_core::sc_signal<DRAMBusPacket> writeData{"writeData"};
  sc_core::sc_signal<DRAMBusPacket> readData{"readData"};
  zel2_vault vault;
  std::vector<Issue> script;
  std::vector<std::pair<sc_time, DRAMBusPacket>> beats;

  SC_HAS_PROCESS(Bench);
  Bench(sc_core::sc_module_name name, const Config& config, std::vector<Issue> issues)
      : sc_core::sc_module(name),
        cfg(config),
        stats(cfg),
        vault("vault", cfg, stats, 3),
        script(std::move(issues)) {
    vault.dramCommandIn(commands);
    vault.dramDataIn(writeData);
    vault.dramDataOut(readData);
    SC_THREAD(Drive);
    SC_METHOD(Collect);
    sensitive << readData;
    dont_initialize();
  }

  void Drive() {
    for (const Issue& issue : script) {
      if (issue.at > sc_core::sc_time_stamp()) wait(issue.at - sc_core::sc_time_stamp());
      commands.write(issue.packet);
    }
  }
  void Collect() { beats.emplace_back(sc_core::sc_time_stamp(), readData.read()); }
};

Bench* RunScript(const Config& config, std::vector<Issue> script) {
  auto* bench = new Bench("bench", config, std::move(script));
  sc_core::sc_start(Ns(200));
  return bench;
}

// Each rule's script ends in the command that the rule constrains, issued
// exactly at the rule's limit: it is accepted there and refused one tick
// earlier.
struct Rule {
  const char* name;
  const char* refusal;  // what the refusal says after the packet; nullptr: no limit
  std::vector<Issue> script;
};

const char* const kShouldnt = "in Vault 3 when we shouldn't have";

std::vector<Rule> Rules(const Config& k) {
  const sc_time t0 = sc_core::SC_ZERO_TIME;
  // A PRE one clock after tRAS, so that its tRP alone holds the next ACT.
  const sc_time latePre = k.tRAS + k.CORE_CLK;
  // Late enough that the other partition's bank has passed its tRCDr.
  const sc_time lateWrite = k.tRCDr + k.tCMD;
  const sc_time readBoth = k.tRRD + k.tRCDr;
  const sc_time readOther = k.tCMD + k.tRCDr;
  return {
      {"ActToRead", kShouldnt, {{t0, ACT}, {k.tRCDr, READ}}},
      {"ActToWrite", "in Vault 3 - TOO EARLY (next is ", {{t0, ACT}, {k.tRCDw, WRITE}}},
      {"ActToPre", "next:", {{t0, ACT}, {k.tRCDr, READ}, {k.tRAS, PRE}}},
      {"ReadToPre", "next:", {{t0, ACT}, {k.tRAS, READ}, {k.tRAS + k.tRTP, PRE}}},
      {"WriteToPre", "next:", {{t0, ACT}, {k.tRCDw, WRITE}, {k.tRCDw + k.BL + k.tWL + k.tWR, PRE}}},
      // The bank turns IDLE exactly when the ACT arrives.
      {"PreToAct", kShouldnt, {{t0, ACT}, {k.tRCDr, READ}, {latePre, PRE}, {latePre + k.tRP, ACT, 0, 0, 6}}},
      {"RefToAct", kShouldnt, {{t0, REF}, {k.tRC, ACT}}},
      {"ActToActInPartition", kShouldnt, {{t0, ACT}, {k.tRRD, ACT, 0, 1}}},
      {"ActToPreInPartition",
       "next:",
       {{t0, ACT}, {k.tRCDr, READ}, {k.tRAS - k.tCMD, ACT, 0, 1}, {k.tRAS - k.tCMD + k.tAPA, PRE}}},
      {"PreToActInPartition",
       kShouldnt,
       {{t0, ACT}, {k.tRCDr, READ}, {k.tRAS, PRE}, {k.tRAS + k.tAPA, ACT, 0, 1}}},
      {"ReadToReadSameBank", kShouldnt, {{t0, ACT}, {k.tRCDr, READ}, {k.tRCDr + k.tCCD, READ, 0, 0, 5, 1}}},
      {"ReadToReadInPartition",
       kShouldnt,
       {{t0, ACT}, {k.tRRD, ACT, 0, 1}, {readBoth, READ}, {readBoth + k.tCCD, READ, 0, 1}}},
      {"ReadToReadOtherPartition",
       kShouldnt,
       {{t0, ACT}, {k.tCMD, ACT, 1, 0}, {readOther, READ}, {readOther + k.tCCD + k.tRTR2D, READ, 1, 0}}},
      {"ReadToWriteInPartition",
       "TOO EARLY",
       {{t0, ACT}, {k.tRRD, ACT, 0, 1}, {k.tRCDr, READ}, {k.tRCDr + k.RD_TO_WR_SAME, WRITE, 0, 1}}},
      {"ReadToWriteOtherPartition",
       "TOO EARLY",
       {{t0, ACT}, {k.tCMD, ACT, 1, 0}, {k.tRCDr, READ}, {k.tRCDr + k.RD_TO_WR_DIFF, WRITE, 1, 0}}},
      {"WriteToReadInPartition",
       kShouldnt,
       {{t0, ACT}, {k.tRRD, ACT, 0, 1}, {k.tRCDw, WRITE}, {k.tRCDw + k.WR_TO_RD_SAME, READ, 0, 1}}},
      {"WriteToReadOtherPartition",
       kShouldnt,
       {{t0, ACT, 1, 0}, {k.tCMD, ACT}, {lateWrite, WRITE}, {lateWrite + k.WR_TO_RD_DIFF, READ, 1, 0}}},
      {"WriteToWrite", "TOO EARLY", {{t0, ACT}, {k.tRCDw, WRITE}, {k.tRCDw + k.tCCD, WRITE, 0, 0, 5, 1}}},
      {"PreToRef", "when bank not idle", {{t0, ACT}, {k.tRCDr, READ}, {k.tRAS, PRE}, {k.tRAS + k.tRP, REF}}},
      // Activation limits are per partition and per bank: another partition,
      // or another bank after tRRD, opens at once.
      {"ActivationsOfOtherPartitions", nullptr, {{t0, ACT}, {k.tCMD, ACT, 1, 0}, {2 * k.tCMD, ACT, 2, 3}}},
  };
}

TEST(Vault, TimingRulesHoldExactlyToTheirLimits) {
  const Config k;
  for (Rule rule : Rules(k)) {
    SCOPED_TRACE(rule.name);
    EXPECT_EXIT((RunScript(k, rule.script), std::_Exit(7)), ::testing::ExitedWithCode(7),
                "");  // ran to its end
    if (rule.refusal == nullptr) continue;
    rule.script.back().at -= zelsim_test::Ps(1);
    EXPECT_DIES_SAYING(RunScript(k, rule.script), rule.refusal);
  }
}

TEST(Vault, ReadReturnsTwoBeatsOneClockApart) {
  Config k;
  Issue read(k.tRCDr, READ, 1, 2, 7, 4);
  read.packet.tag = 42;
  Bench* bench = RunScript(k, {{Ns(0), ACT, 1, 2, 7}, read});
  ASSERT_EQ(bench->beats.size(), 2u);
  const sc_time first = k.tRCDr + k.tCMD + k.tAA + k.tAC;
  EXPECT_EQ(bench->beats[0].first, first);
  EXPECT_EQ(bench->beats[1].first, first + k.CORE_CLK);
  std::ostringstream printed;  // the beats carry every field of the READ
  printed << bench->beats[0].second << "|" << bench->beats[1].second;
  EXPECT_EQ(printed.str(), "DATA prt:1 bnk:2 row:7 col:4 (1) tag:42|DATA prt:1 bnk:2 row:7 col:4 (0) tag:42");
  EXPECT_EQ(bench->stats.vaultDataTime[3], 2 * k.CORE_CLK);
  EXPECT_EQ(bench->stats.vaultDataTime[0], sc_core::SC_ZERO_TIME);
}

// The end of a precharge clears the transaction mark, the end of a refresh
// the refresh mark; neither touches the other. Other states have no timed end.
TEST(Bank, TimedStatesClearTheirOwnMark) {
  auto endAfterRead = [] {
    zel2_bank& bank = *new zel2_bank("bank");
    bank.bankState = ROW_ACTIVE;
    bank.lastCommand = READ;
    bank.stateEvent.notify(Ns(1));
    sc_core::sc_start(Ns(2));
  };
  EXPECT_DIES_SAYING(
      endAfterRead(),
      "== ERROR - In bank updating bankState from wrong state - Last command : 3\tCurrent State : 0\n");
  zel2_bank& pre = *new zel2_bank("pre");
  zel2_bank& ref = *new zel2_bank("ref");
  for (zel2_bank* bank : {&pre, &ref}) {
    bank->transactionWaiting = bank->refreshWaiting = true;
    bank->lastCommand = bank == &pre ? PRE : REF;
    bank->bankState = bank == &pre ? PRECHARGING : REFRESHING;
    bank->stateEvent.notify(Ns(5));
  }
  sc_core::sc_start(Ns(10));
  EXPECT_EQ(pre.bankState, IDLE);
  EXPECT_EQ(ref.bankState, IDLE);
  EXPECT_EQ(std::make_pair(pre.transactionWaiting, pre.refreshWaiting), std::make_pair(false, true));
  EXPECT_EQ(std::make_pair(ref.transactionWaiting, ref.refreshWaiting), std::make_pair(true, false));
}

TEST(Vault, PartitionCountMovesTheSameBanks) {
  Config k;
  EXPECT_DIES_SAYING((new Bench("bench", k, {}))->vault.setNumPartitions(9),
                     "numPartitions <= maxPartitions");
  auto* bench = new Bench("bench", k, {});
  zel2_vault& vault = bench->vault;
  const auto all = vault.banks;
  ASSERT_EQ(all.size(), maxPartitions);
  EXPECT_STREQ(all[7][3]->name(), "bench.vault.v_bank73");

  vault.setNumPartitions(2);
  ASSERT_EQ(vault.banks.size(), 2u);
  ASSERT_EQ(vault.unusedBanks.size(), 6u);
  EXPECT_EQ(vault.unusedBanks[0], all[2]);
  vault.setNumPartitions(4);
  vault.setNumPartitions(2);
  // Partitions 2 and 3 went back behind 4 to 7.
  EXPECT_EQ(vault.unusedBanks[0], all[4]);
  EXPECT_EQ(vault.unusedBanks[4], all[2]);
  vault.setNumPartitions(8);
  EXPECT_TRUE(vault.unusedBanks.empty());
  EXPECT_EQ(vault.banks[2], all[4]);
  EXPECT_EQ(vault.banks[6], all[2]);
}

TEST(Vault, RefusalTexts) {
  const Config k;
  const struct {
    std::vector<Issue> script;
    const char* text;
    sc_time tRC = sc_core::SC_ZERO_TIME;  // when set, replaces the default
  } cases[] = {
      {{{Ns(0), ACT}, {Ns(40), ACT, 0, 0, 6}},
       "=[40800 ps]= ERROR - Received ACT prt:0 bnk:0 row:6 col:0 tag:1 in Vault 3 when we shouldn't have\n"},
      {{{Ns(0), PRE, 1, 2}},
       "=[800 ps]= ERROR - Received PRE prt:1 bnk:2 row:5 col:0 tag:1 in Vault 3 when we shouldn't have\n"
       "Bank not active - current state : 3\n"},
      {{{Ns(0), ACT}, {Ns(40), PRE}},
       "=[40800 ps]= ERROR - Received PRE prt:0 bnk:0 row:5 col:0 tag:1 in Vault 3 when we shouldn't have\n"
       " Last command was not read or write - last command was : 0\n"},
      {{{Ns(0), ACT}, {k.tRCDr, READ}, {Ns(20), PRE}},
       "=[20800 ps]= ERROR - Received PRE prt:0 bnk:0 row:5 col:0 tag:1 in Vault 3 when we shouldn't have\n"
       "next:23200 ps\n"},
      {{{Ns(0), ACT, 1, 2}, {Ns(40), REF, 1, 2}},
       "=[40800 ps]= ERROR - Received refresh for partition 1 bank 2 in Vault 3 when bank not idle\n"
       "\t\t State : 0\n"},
      // With tRC above tRAS + tRP the bank is IDLE before it may be refreshed.
      {{{Ns(0), ACT}, {k.tRCDr, READ}, {k.tRAS, PRE}, {Ns(36), REF}},
       "=[36800 ps]= ERROR - Received refresh before we should have in Vault 3\n",
       Ns(40)},
      {{{Ns(0), ACT}, {Ns(20), READ, 0, 0, 6}},
       "=[20800 ps]= ERROR - Received READ prt:0 bnk:0 row:6 col:0 tag:1 in Vault 3 when we shouldn't "
       "have\n"},
      {{{Ns(0), WRITE, 0, 1}},
       "=[800 ps]= ERROR - Received WRITE prt:0 bnk:1 row:5 col:0 tag:1 in Vault 3 - ROW NOT OPEN\n"},
      {{{Ns(0), ACT}, {Ns(20), WRITE, 0, 0, 6}},
       "=[20800 ps]= ERROR - Received WRITE prt:0 bnk:0 row:6 col:0 tag:1 in Vault 3 - WRONG ROW\n"},
      {{{Ns(0), ACT}, {Ns(4), WRITE}},
       "=[4800 ps]= ERROR - Received WRITE prt:0 bnk:0 row:5 col:0 tag:1 in Vault 3 - TOO EARLY (next is 8 "
       "ns)\n"},
      {{{Ns(0), DATA}},
       "=[800 ps]= ERROR - Received unknown packet - DATA prt:0 bnk:0 row:5 col:0 (1) tag:1\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    Config config = k;
    if (c.tRC != sc_core::SC_ZERO_TIME) config.tRC = c.tRC;
    EXPECT_DIES_SAYING(RunScript(config, c.script), c.text);
  }
}

}  // namespace
