// SPDX-License-Identifier: Apache-2.0
#include "zel2/zel2_vault.h"

#include <algorithm>
#include <cstdio>

namespace Sornak {
namespace Internal {
namespace ZEL2 {

using sc_core::sc_time;

zel2_vault::zel2_vault(sc_core::sc_module_name name, const Config& cfg, StatsKeeper& stats, unsigned id)
    : sc_core::sc_module(name),
      dramCommandIn("dramCommandIn"),
      dramDataIn("dramDataIn"),
      dramDataOut("dramDataOut"),
      cfg(cfg),
      stats(stats),
      id(id),
      readDataQueue("readDataQueue", DelayQueue::kMethodConsumer) {
  // Every partition the device can have gets its banks now; setNumPartitions
  // only moves them between the two lists.
  for (unsigned p = 0; p < maxPartitions; p++) {
    std::vector<zel2_bank*> partition;
    for (unsigned b = 0; b < cfg.NUM_BANKS; b++) {
      char bankName[32];
      std::snprintf(bankName, sizeof bankName, "v_bank%d%d", p, b);
      partition.push_back(new zel2_bank(bankName));
    }
    banks.push_back(partition);
  }

  SC_THREAD(ReceiveCommand);
  sensitive << dramCommandIn;

  SC_THREAD(ReceiveData);
  sensitive << dramDataIn;

  SC_METHOD(ResponseDataThread);
  sensitive << readDataQueue.queue;
  dont_initialize();
}

void zel2_vault::setNumPartitions(unsigned numPartitions) {
  ZEL_ASSERT(numPartitions <= maxPartitions);
  ZEL_ASSERT(banks.size() + unusedBanks.size() == maxPartitions);
  if (numPartitions == banks.size()) return;
  if (numPartitions < banks.size()) {
    // The last partitions go to the end of the unused ones, in their order.
    unusedBanks.insert(unusedBanks.end(), banks.begin() + numPartitions, banks.end());
    banks.erase(banks.begin() + numPartitions, banks.end());
  } else {
    const size_t needed = numPartitions - banks.size();
    banks.insert(banks.end(), unusedBanks.begin(), unusedBanks.begin() + needed);
    unusedBanks.erase(unusedBanks.begin(), unusedBanks.begin() + needed);
  }
  ZEL_ASSERT(banks.size() == numPartitions);
}

void zel2_vault::ReceiveCommand() {
  for (;;) {
    wait();
    // A command takes effect one command slot after it was issued, so every
    // time here lags the controller's by tCMD.
    wait(cfg.tCMD);
    const DRAMBusPacket packet = dramCommandIn.read();
    switch (packet.command) {
      case ACT:
        Activate(packet);
        break;
      case PRE:
        Precharge(packet);
        break;
      case REF:
        Refresh(packet);
        break;
      case READ:
        Read(packet);
        break;
      case WRITE:
        Write(packet);
        break;
      default:
        TimedError() << "Received unknown packet - " << packet << std::endl;
        ZEL_ASSERT(packet.command <= WRITE);
    }
  }
}

zel2_bank& zel2_vault::BankOf(const DRAMBusPacket& packet) {
  ZEL_ASSERT(packet.partition < banks.size() && packet.bank < banks[packet.partition].size());
  return *banks[packet.partition][packet.bank];
}

void zel2_vault::PrintFailedCommand(const DRAMBusPacket& packet) const {
  TimedError() << "Received " << packet << " in Vault " << id << " when we shouldn't have" << std::endl;
}

void zel2_vault::Activate(const DRAMBusPacket& packet) {
  const sc_time now = sc_core::sc_time_stamp();
  zel2_bank& bank = BankOf(packet);
  if (bank.bankState != IDLE || now < bank.nextActivate) {
    PrintFailedCommand(packet);
    ZEL_ASSERT(bank.bankState == IDLE && now >= bank.nextActivate);
  }
  for (zel2_bank* other : banks[packet.partition]) {
    other->nextActivate = std::max(other->nextActivate, now + cfg.tRRD);
    other->nextPrecharge = std::max(other->nextPrecharge, now + cfg.tAPA);
  }
  bank.nextActivate = now + cfg.tRC;
  bank.nextPrecharge = now + cfg.tRAS;
  bank.nextRefresh = now + cfg.tRC;
  bank.nextRead = std::max(bank.nextRead, now + cfg.tRCDr);
  bank.nextWrite = std::max(bank.nextWrite, now + cfg.tRCDw);
  bank.bankState = ROW_ACTIVE;
  bank.lastCommand = ACT;
  bank.openRow = packet.row;
}

void zel2_vault::Precharge(const DRAMBusPacket& packet) {
  const sc_time now = sc_core::sc_time_stamp();
  zel2_bank& bank = BankOf(packet);
  if (bank.bankState != ROW_ACTIVE) {
    PrintFailedCommand(packet);
    std::cout << "Bank not active - current state : " << static_cast<unsigned>(bank.bankState) << std::endl;
    ZEL_ASSERT(bank.bankState == ROW_ACTIVE);
  }
  // A row is only ever opened to be read or written: a PRE straight after
  // its ACT is a controller fault.
  if (bank.lastCommand != READ && bank.lastCommand != WRITE) {
    PrintFailedCommand(packet);
    std::cout << " Last command was not read or write - last command was : "
              << static_cast<unsigned>(bank.lastCommand) << std::endl;
    ZEL_ASSERT(bank.lastCommand == READ || bank.lastCommand == WRITE);
  }
  if (now < bank.nextPrecharge) {
    PrintFailedCommand(packet);
    std::cout << "next:" << bank.nextPrecharge << std::endl;
    ZEL_ASSERT(now >= bank.nextPrecharge);
  }
  for (zel2_bank* other : banks[packet.partition]) {
    other->nextActivate = std::max(other->nextActivate, now + cfg.tAPA);
  }
  bank.nextActivate = std::max(bank.nextActivate, now + cfg.tRP);
  bank.nextRefresh = std::max(bank.nextRefresh, now + cfg.tRP);
  bank.bankState = PRECHARGING;
  bank.lastCommand = PRE;
  bank.stateEvent.notify(cfg.tRP);
}

void zel2_vault::Refresh(const DRAMBusPacket& packet) {
  const sc_time now = sc_core::sc_time_stamp();
  zel2_bank& bank = BankOf(packet);
  if (bank.bankState != IDLE) {
    TimedError() << "Received refresh for partition " << packet.partition << " bank " << packet.bank
                 << " in Vault " << id << " when bank not idle" << std::endl;
    std::cout << "\t\t State : " << static_cast<unsigned>(bank.bankState) << std::endl;
    ZEL_ASSERT(bank.bankState == IDLE);
  }
  if (now < bank.nextRefresh) {
    TimedError() << "Received refresh before we should have in Vault " << id << std::endl;
    ZEL_ASSERT(now >= bank.nextRefresh);
  }
  bank.nextActivate = now + cfg.tRC;
  bank.bankState = REFRESHING;
  bank.lastCommand = REF;
  bank.stateEvent.notify(cfg.tRC);
}

void zel2_vault::Read(const DRAMBusPacket& packet) {
  const sc_time now = sc_core::sc_time_stamp();
  zel2_bank& bank = BankOf(packet);
  if (bank.bankState != ROW_ACTIVE || bank.openRow != packet.row || now < bank.nextRead) {
    PrintFailedCommand(packet);
    ZEL_ASSERT(bank.bankState == ROW_ACTIVE && bank.openRow == packet.row && now >= bank.nextRead);
  }

  // Two beats one clock period apart. They differ only in firstBeat, which
  // makes the second one a change on the data signal.
  DRAMBusPacket beat = packet;
  beat.command = DATA;
  readDataQueue.Push(beat, cfg.tAA + cfg.tAC);
  beat.firstBeat = false;
  readDataQueue.Push(beat, cfg.tAA + cfg.tAC + cfg.CORE_CLK);

  for (unsigned p = 0; p < banks.size(); p++) {
    for (zel2_bank* other : banks[p]) {
      if (p != packet.partition) {
        other->nextRead = std::max(other->nextRead, now + cfg.tRTR2D + cfg.tCCD);
        other->nextWrite = std::max(other->nextWrite, now + cfg.RD_TO_WR_DIFF);
      } else {
        other->nextRead = std::max(other->nextRead, now + cfg.tCCD);
        other->nextWrite = std::max(other->nextWrite, now + cfg.RD_TO_WR_SAME);
      }
    }
  }
  bank.nextRead = now + cfg.tCCD;
  bank.nextPrecharge = std::max(bank.nextPrecharge, now + cfg.tRTP);
  bank.lastCommand = READ;
}

void zel2_vault::Write(const DRAMBusPacket& packet) {
  const sc_time now = sc_core::sc_time_stamp();
  zel2_bank& bank = BankOf(packet);
  if (bank.bankState != ROW_ACTIVE) {
    TimedError() << "Received " << packet << " in Vault " << id << " - ROW NOT OPEN" << std::endl;
    ZEL_ASSERT(bank.bankState == ROW_ACTIVE);
  }
  if (bank.openRow != packet.row) {
    TimedError() << "Received " << packet << " in Vault " << id << " - WRONG ROW" << std::endl;
    ZEL_ASSERT(bank.openRow == packet.row);
  }
  if (now < bank.nextWrite) {
    TimedError() << "Received " << packet << " in Vault " << id << " - TOO EARLY (next is " << bank.nextWrite
                 << ")" << std::endl;
    ZEL_ASSERT(now >= bank.nextWrite);
  }

  for (unsigned p = 0; p < banks.size(); p++) {
    for (zel2_bank* other : banks[p]) {
      const sc_time turnaround = p != packet.partition ? cfg.WR_TO_RD_DIFF : cfg.WR_TO_RD_SAME;
      other->nextRead = std::max(other->nextRead, now + turnaround);
      other->nextWrite = std::max(other->nextWrite, now + cfg.tCCD);
    }
  }
  bank.nextWrite = now + cfg.tCCD;
  bank.nextPrecharge = std::max(bank.nextPrecharge, now + cfg.BL + cfg.tWL + cfg.tWR);
  bank.lastCommand = WRITE;
}

void zel2_vault::ReceiveData() {
  // Models only the data bus being busy for one burst per beat.
  for (;;) {
    wait();
    wait(cfg.BL);
  }
}

void zel2_vault::ResponseDataThread() {
  FiringScope firing(readDataQueue.queue);
  stats.vaultDataTime[id] += cfg.CORE_CLK;
  dramDataOut.write(readDataQueue.Pop());
}

}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak
