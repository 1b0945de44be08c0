// SPDX-License-Identifier: Apache-2.0
// The vault's DRAM checker and its banks, driven through the command and
// data buses by a small harness. A command's issue time is when the harness
// writes it; the vault acts on it one tCMD later.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <sstream>
#include <string>
#include <systemc>
#include <utility>
#include <vector>

#include "test_support.h"
#include "zel2/Config.h"
#include "zel2/StatsKeeper.h"
#include "zel2/zel2_bank.h"
#include "zel2/zel2_vault.h"

namespace {

using namespace Sornak::Internal::ZEL2;
using sc_core::sc_time;
using zelsim_test::Ns;

const sc_time kTick = zelsim_test::Ps(1);

DRAMBusPacket Cmd(DRAMCommand command, unsigned partition, unsigned bank, unsigned row = 5,
                  unsigned col = 0) {
  DRAMBusPacket packet;
  packet.command = command;
  packet.partition = partition;
  packet.bank = bank;
  packet.row = row;
  packet.col = col;
  packet.tag = 1;
  return packet;
}

struct Issue {
  sc_time at;
  DRAMBusPacket packet;
};

// Issues a script of commands at absolute times and records the read data.
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
  Bench(sc_core::sc_module_name name, const Config& config, std::vector<Issue> issues, unsigned id)
      : sc_core::sc_module(name),
        cfg(config),
        stats(cfg),
        vault("vault", cfg, stats, id),
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

  zel2_bank& Bank(unsigned p, unsigned b) { return *vault.banks[p][b]; }
};

Bench* RunScript(const Config& config, std::vector<Issue> script, unsigned id = 0) {
  auto* bench = new Bench("bench", config, std::move(script), id);
  sc_core::sc_start(Ns(200));
  return bench;
}

// A regular expression that matches `text` literally.
std::string Literal(const std::string& text) {
  std::string pattern;
  for (char c : text) {
    if (std::strchr("\\^$.|?*+()[]{}", c) != nullptr) pattern += '\\';
    pattern += c;
  }
  return pattern;
}

// Runs `script` in a child process and expects the vault to stop it with
// exactly `text` on the standard output.
#define EXPECT_VAULT_STOPS(config, script, text) \
  EXPECT_DEATH(                                  \
      {                                          \
        dup2(2, 1);                              \
        RunScript(config, script, 3);            \
      },                                         \
      Literal(text))

// ---- Timing rules at their boundaries ------------------------------------
//
// Each rule's script ends in the command that the rule constrains, issued
// exactly at the rule's limit: it is accepted there and refused one tick
// earlier.

struct Rule {
  const char* name;
  std::vector<Issue> script;
  const char* refusal;  // what the refusal says after the packet
};

const char* const kShouldnt = "in Vault 3 when we shouldn't have";

std::vector<Rule> Rules(const Config& k) {
  const sc_time zero = sc_core::SC_ZERO_TIME;
  // A PRE one clock after tRAS, so that its tRP alone holds the next ACT.
  const sc_time latePre = k.tRAS + k.CORE_CLK;
  // Late enough that the other partition's bank has passed its tRCDr.
  const sc_time lateWrite = k.tRCDr + k.tCMD;
  const sc_time readBoth = k.tRRD + k.tRCDr;
  const sc_time readOther = k.tCMD + k.tRCDr;
  return {
      {"ActToRead", {{zero, Cmd(ACT, 0, 0)}, {k.tRCDr, Cmd(READ, 0, 0)}}, kShouldnt},
      {"ActToWrite",
       {{zero, Cmd(ACT, 0, 0)}, {k.tRCDw, Cmd(WRITE, 0, 0)}},
       "in Vault 3 - TOO EARLY (next is "},
      {"ActToPre", {{zero, Cmd(ACT, 0, 0)}, {k.tRCDr, Cmd(READ, 0, 0)}, {k.tRAS, Cmd(PRE, 0, 0)}}, "next:"},
      {"ReadToPre",
       {{zero, Cmd(ACT, 0, 0)}, {k.tRAS, Cmd(READ, 0, 0)}, {k.tRAS + k.tRTP, Cmd(PRE, 0, 0)}},
       "next:"},
      {"WriteToPre",
       {{zero, Cmd(ACT, 0, 0)},
        {k.tRCDw, Cmd(WRITE, 0, 0)},
        {k.tRCDw + k.BL + k.tWL + k.tWR, Cmd(PRE, 0, 0)}},
       "next:"},
      // The bank turns IDLE exactly when the ACT arrives.
      {"PreToAct",
       {{zero, Cmd(ACT, 0, 0)},
        {k.tRCDr, Cmd(READ, 0, 0)},
        {latePre, Cmd(PRE, 0, 0)},
        {latePre + k.tRP, Cmd(ACT, 0, 0, 6)}},
       kShouldnt},
      {"RefToAct", {{zero, Cmd(REF, 0, 0)}, {k.tRC, Cmd(ACT, 0, 0)}}, kShouldnt},
      {"ActToActInPartition", {{zero, Cmd(ACT, 0, 0)}, {k.tRRD, Cmd(ACT, 0, 1)}}, kShouldnt},
      {"ActToPreInPartition",
       {{zero, Cmd(ACT, 0, 0)},
        {k.tRCDr, Cmd(READ, 0, 0)},
        {k.tRAS - k.tCMD, Cmd(ACT, 0, 1)},
        {k.tRAS - k.tCMD + k.tAPA, Cmd(PRE, 0, 0)}},
       "next:"},
      {"PreToActInPartition",
       {{zero, Cmd(ACT, 0, 0)},
        {k.tRCDr, Cmd(READ, 0, 0)},
        {k.tRAS, Cmd(PRE, 0, 0)},
        {k.tRAS + k.tAPA, Cmd(ACT, 0, 1)}},
       kShouldnt},
      {"ReadToReadSameBank",
       {{zero, Cmd(ACT, 0, 0)}, {k.tRCDr, Cmd(READ, 0, 0, 5, 0)}, {k.tRCDr + k.tCCD, Cmd(READ, 0, 0, 5, 1)}},
       kShouldnt},
      {"ReadToReadInPartition",
       {{zero, Cmd(ACT, 0, 0)},
        {k.tRRD, Cmd(ACT, 0, 1)},
        {readBoth, Cmd(READ, 0, 0)},
        {readBoth + k.tCCD, Cmd(READ, 0, 1)}},
       kShouldnt},
      {"ReadToReadOtherPartition",
       {{zero, Cmd(ACT, 0, 0)},
        {k.tCMD, Cmd(ACT, 1, 0)},
        {readOther, Cmd(READ, 0, 0)},
        {readOther + k.tCCD + k.tRTR2D, Cmd(READ, 1, 0)}},
       kShouldnt},
      {"ReadToWriteInPartition",
       {{zero, Cmd(ACT, 0, 0)},
        {k.tRRD, Cmd(ACT, 0, 1)},
        {k.tRCDr, Cmd(READ, 0, 0)},
        {k.tRCDr + k.RD_TO_WR_SAME, Cmd(WRITE, 0, 1)}},
       "TOO EARLY"},
      {"ReadToWriteOtherPartition",
       {{zero, Cmd(ACT, 0, 0)},
        {k.tCMD, Cmd(ACT, 1, 0)},
        {k.tRCDr, Cmd(READ, 0, 0)},
        {k.tRCDr + k.RD_TO_WR_DIFF, Cmd(WRITE, 1, 0)}},
       "TOO EARLY"},
      {"WriteToReadInPartition",
       {{zero, Cmd(ACT, 0, 0)},
        {k.tRRD, Cmd(ACT, 0, 1)},
        {k.tRCDw, Cmd(WRITE, 0, 0)},
        {k.tRCDw + k.WR_TO_RD_SAME, Cmd(READ, 0, 1)}},
       kShouldnt},
      {"WriteToReadOtherPartition",
       {{zero, Cmd(ACT, 1, 0)},
        {k.tCMD, Cmd(ACT, 0, 0)},
        {lateWrite, Cmd(WRITE, 0, 0)},
        {lateWrite + k.WR_TO_RD_DIFF, Cmd(READ, 1, 0)}},
       kShouldnt},
      {"WriteToWrite",
       {{zero, Cmd(ACT, 0, 0)},
        {k.tRCDw, Cmd(WRITE, 0, 0, 5, 0)},
        {k.tRCDw + k.tCCD, Cmd(WRITE, 0, 0, 5, 1)}},
       "TOO EARLY"},
      {"PreToRef",
       {{zero, Cmd(ACT, 0, 0)},
        {k.tRCDr, Cmd(READ, 0, 0)},
        {k.tRAS, Cmd(PRE, 0, 0)},
        {k.tRAS + k.tRP, Cmd(REF, 0, 0)}},
       "when bank not idle"},
  };
}

class TimingBoundary : public ::testing::TestWithParam<size_t> {
 protected:
  Config k;
  Rule rule = Rules(k)[GetParam()];
};

TEST_P(TimingBoundary, AcceptedAtTheLimit) { RunScript(k, rule.script); }

TEST_P(TimingBoundary, RefusedOneTickEarly) {
  rule.script.back().at -= kTick;
  EXPECT_DEATH(
      {
        dup2(2, 1);
        RunScript(k, rule.script, 3);
      },
      Literal(rule.refusal));
}

INSTANTIATE_TEST_SUITE_P(Vault, TimingBoundary, ::testing::Range<size_t>(0, Rules(Config()).size()),
                         [](const ::testing::TestParamInfo<size_t>& info) {
                           return std::string(Rules(Config())[info.param].name);
                         });

// Activation limits are per partition and per bank: another partition, or
// another bank after tRRD, opens at once.
TEST(Vault, ActivationsOfOtherPartitionsDontWait) {
  Config k;
  RunScript(k, {{Ns(0), Cmd(ACT, 0, 0)}, {k.tCMD, Cmd(ACT, 1, 0)}, {2 * k.tCMD, Cmd(ACT, 2, 3)}});
}

// ---- Read data -----------------------------------------------------------

TEST(Vault, ReadReturnsTwoBeatsOneClockApart) {
  Config k;
  DRAMBusPacket read = Cmd(READ, 1, 2, 7, 4);
  read.tag = 42;
  const sc_time issue = k.tRCDr;
  Bench* bench = RunScript(k, {{Ns(0), Cmd(ACT, 1, 2, 7)}, {issue, read}}, 3);

  ASSERT_EQ(bench->beats.size(), 2u);
  const sc_time first = issue + k.tCMD + k.tAA + k.tAC;
  EXPECT_EQ(bench->beats[0].first, first);
  EXPECT_EQ(bench->beats[1].first, first + k.CORE_CLK);
  for (const auto& beat : bench->beats) {
    EXPECT_EQ(beat.second.command, DATA);
    EXPECT_EQ(beat.second.partition, 1u);
    EXPECT_EQ(beat.second.bank, 2u);
    EXPECT_EQ(beat.second.row, 7u);
    EXPECT_EQ(beat.second.col, 4u);
    EXPECT_EQ(beat.second.tag, 42u);
  }
  std::ostringstream printed;
  printed << bench->beats[0].second << "|" << bench->beats[1].second;
  EXPECT_EQ(printed.str(), "DATA prt:1 bnk:2 row:7 col:4 (1) tag:42|DATA prt:1 bnk:2 row:7 col:4 (0) tag:42");
  EXPECT_EQ(bench->stats.vaultDataTime[3], 2 * k.CORE_CLK);
  EXPECT_EQ(bench->stats.vaultDataTime[0], sc_core::SC_ZERO_TIME);
}

// ---- Bank state machine --------------------------------------------------

TEST(Vault, BankStatesFollowTheRowCycle) {
  Config k;
  const sc_time read = k.tRCDr, pre = k.tRAS, ref = k.tRAS + k.tRP + k.CORE_CLK;
  auto* bench = new Bench("bench", k,
                          {{Ns(0), Cmd(ACT, 0, 1, 9)},
                           {read, Cmd(READ, 0, 1, 9)},
                           {pre, Cmd(PRE, 0, 1, 9)},
                           {ref, Cmd(REF, 0, 1)}},
                          0);
  zel2_bank& bank = bench->Bank(0, 1);
  // Runs until just after the command issued at `t` has taken effect. A run
  // of sc_start stops before the events of its end time.
  auto at = [&](sc_time t) { sc_core::sc_start(t + k.tCMD + kTick - sc_core::sc_time_stamp()); };

  at(Ns(0));
  EXPECT_EQ(bank.bankState, ROW_ACTIVE);
  EXPECT_EQ(bank.lastCommand, ACT);
  EXPECT_EQ(bank.openRow, 9u);
  EXPECT_EQ(bank.nextActivate, k.tCMD + k.tRC);
  EXPECT_EQ(bench->Bank(0, 0).nextActivate, k.tCMD + k.tRRD);
  EXPECT_EQ(bench->Bank(1, 1).nextActivate, sc_core::SC_ZERO_TIME);
  at(read);
  EXPECT_EQ(bank.bankState, ROW_ACTIVE);
  EXPECT_EQ(bank.lastCommand, READ);
  at(pre);
  EXPECT_EQ(bank.bankState, PRECHARGING);
  EXPECT_EQ(bank.lastCommand, PRE);
  sc_core::sc_start(k.tRP - kTick);  // up to tRP after the PRE took effect
  EXPECT_EQ(bank.bankState, PRECHARGING);
  sc_core::sc_start(kTick);
  EXPECT_EQ(bank.bankState, IDLE);
  at(ref);
  EXPECT_EQ(bank.bankState, REFRESHING);
  EXPECT_EQ(bank.lastCommand, REF);
  sc_core::sc_start(k.tRC);
  EXPECT_EQ(bank.bankState, IDLE);
}

// The end of a precharge clears the transaction mark, the end of a refresh
// the refresh mark; neither touches the other.
TEST(Bank, TimedStatesClearTheirOwnMark) {
  zel2_bank& pre = *new zel2_bank("pre");
  zel2_bank& ref = *new zel2_bank("ref");
  for (zel2_bank* bank : {&pre, &ref}) {
    bank->transactionWaiting = bank->refreshWaiting = true;
  }
  pre.lastCommand = PRE;
  pre.bankState = PRECHARGING;
  ref.lastCommand = REF;
  ref.bankState = REFRESHING;
  pre.stateEvent.notify(Ns(5));
  ref.stateEvent.notify(Ns(5));
  sc_core::sc_start(Ns(10));
  EXPECT_EQ(pre.bankState, IDLE);
  EXPECT_FALSE(pre.transactionWaiting);
  EXPECT_TRUE(pre.refreshWaiting);
  EXPECT_EQ(ref.bankState, IDLE);
  EXPECT_TRUE(ref.transactionWaiting);
  EXPECT_FALSE(ref.refreshWaiting);
}

TEST(Bank, TimedStateEndAfterReadIsAnError) {
  EXPECT_DEATH(
      {
        dup2(2, 1);
        zel2_bank& bank = *new zel2_bank("bank");
        bank.bankState = ROW_ACTIVE;
        bank.lastCommand = READ;
        bank.stateEvent.notify(Ns(1));
        sc_core::sc_start(Ns(2));
      },
      Literal("== ERROR - In bank updating bankState from wrong state - Last command : 3\t"
              "Current State : 0\n"));
}

// ---- Partition count -----------------------------------------------------

TEST(Vault, PartitionCountMovesTheSameBanks) {
  Config k;
  auto* bench = new Bench("bench", k, {}, 0);
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

TEST(Vault, MoreThanEightPartitionsAreRefused) {
  Config k;
  EXPECT_DEATH(
      {
        auto* bench = new Bench("bench", k, {}, 0);
        bench->vault.setNumPartitions(9);
      },
      Literal("numPartitions <= maxPartitions"));
}

// ---- Exact texts of the checker's refusals -------------------------------

TEST(VaultRefusal, ActToOpenBank) {
  Config k;
  EXPECT_VAULT_STOPS(k, (std::vector<Issue>{{Ns(0), Cmd(ACT, 0, 0)}, {Ns(40), Cmd(ACT, 0, 0, 6)}}),
                     "=[40800 ps]= ERROR - Received ACT prt:0 bnk:0 row:6 col:0 tag:1 in Vault 3 "
                     "when we shouldn't have\n");
}

TEST(VaultRefusal, PreToIdleBank) {
  Config k;
  EXPECT_VAULT_STOPS(k, (std::vector<Issue>{{Ns(0), Cmd(PRE, 1, 2)}}),
                     "=[800 ps]= ERROR - Received PRE prt:1 bnk:2 row:5 col:0 tag:1 in Vault 3 "
                     "when we shouldn't have\nBank not active - current state : 3\n");
}

TEST(VaultRefusal, PreStraightAfterAct) {
  Config k;
  EXPECT_VAULT_STOPS(k, (std::vector<Issue>{{Ns(0), Cmd(ACT, 0, 0)}, {Ns(40), Cmd(PRE, 0, 0)}}),
                     "=[40800 ps]= ERROR - Received PRE prt:0 bnk:0 row:5 col:0 tag:1 in Vault 3 "
                     "when we shouldn't have\n Last command was not read or write - last command "
                     "was : 0\n");
}

TEST(VaultRefusal, PreTooEarly) {
  Config k;
  EXPECT_VAULT_STOPS(
      k, (std::vector<Issue>{{Ns(0), Cmd(ACT, 0, 0)}, {k.tRCDr, Cmd(READ, 0, 0)}, {Ns(20), Cmd(PRE, 0, 0)}}),
      "=[20800 ps]= ERROR - Received PRE prt:0 bnk:0 row:5 col:0 tag:1 in Vault 3 "
      "when we shouldn't have\nnext:23200 ps\n");
}

TEST(VaultRefusal, RefToOpenBank) {
  Config k;
  EXPECT_VAULT_STOPS(k, (std::vector<Issue>{{Ns(0), Cmd(ACT, 1, 2)}, {Ns(40), Cmd(REF, 1, 2)}}),
                     "=[40800 ps]= ERROR - Received refresh for partition 1 bank 2 in Vault 3 when "
                     "bank not idle\n\t\t State : 0\n");
}

// With tRC longer than tRAS + tRP the bank is IDLE again before it may be
// refreshed.
TEST(VaultRefusal, RefBeforeItsTime) {
  Config k;
  k.tRC = Ns(40);
  EXPECT_VAULT_STOPS(k,
                     (std::vector<Issue>{{Ns(0), Cmd(ACT, 0, 0)},
                                         {k.tRCDr, Cmd(READ, 0, 0)},
                                         {k.tRAS, Cmd(PRE, 0, 0)},
                                         {Ns(36), Cmd(REF, 0, 0)}}),
                     "=[36800 ps]= ERROR - Received refresh before we should have in Vault 3\n");
}

TEST(VaultRefusal, ReadToOtherRow) {
  Config k;
  EXPECT_VAULT_STOPS(k, (std::vector<Issue>{{Ns(0), Cmd(ACT, 0, 0)}, {Ns(20), Cmd(READ, 0, 0, 6)}}),
                     "=[20800 ps]= ERROR - Received READ prt:0 bnk:0 row:6 col:0 tag:1 in Vault 3 "
                     "when we shouldn't have\n");
}

TEST(VaultRefusal, WriteToClosedBank) {
  Config k;
  EXPECT_VAULT_STOPS(k, (std::vector<Issue>{{Ns(0), Cmd(WRITE, 0, 1)}}),
                     "=[800 ps]= ERROR - Received WRITE prt:0 bnk:1 row:5 col:0 tag:1 in Vault 3 - "
                     "ROW NOT OPEN\n");
}

TEST(VaultRefusal, WriteToOtherRow) {
  Config k;
  EXPECT_VAULT_STOPS(k, (std::vector<Issue>{{Ns(0), Cmd(ACT, 0, 0)}, {Ns(20), Cmd(WRITE, 0, 0, 6)}}),
                     "=[20800 ps]= ERROR - Received WRITE prt:0 bnk:0 row:6 col:0 tag:1 in Vault 3 - "
                     "WRONG ROW\n");
}

TEST(VaultRefusal, WriteTooEarly) {
  Config k;
  EXPECT_VAULT_STOPS(k, (std::vector<Issue>{{Ns(0), Cmd(ACT, 0, 0)}, {Ns(4), Cmd(WRITE, 0, 0)}}),
                     "=[4800 ps]= ERROR - Received WRITE prt:0 bnk:0 row:5 col:0 tag:1 in Vault 3 - "
                     "TOO EARLY (next is 8 ns)\n");
}

TEST(VaultRefusal, DataOnTheCommandBus) {
  Config k;
  EXPECT_VAULT_STOPS(k, (std::vector<Issue>{{Ns(0), Cmd(DATA, 0, 0)}}),
                     "=[800 ps]= ERROR - Received unknown packet - DATA prt:0 bnk:0 row:5 col:0 (1) "
                     "tag:1\n");
}

}  // namespace
