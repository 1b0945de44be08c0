// SPDX-License-Identifier: Apache-2.0
#include "zel2/zel2_vault_controller.h"

#include <algorithm>
#include <fstream>
#include <iostream>

#include "zel2/zel2_utils.h"

using sc_core::sc_time;
using sc_core::sc_time_stamp;
using sc_core::SC_NS;

namespace Sornak::Internal::ZEL2 {

// The process-wide DRAM command trace, owned and opened by the cube.
extern std::ofstream dramLog;

namespace {

// 0 below 2, otherwise the least n with 2^n >= x (non powers of two round up).
uint32_t CeilLog2(uint32_t x) {
  uint32_t bits = 0;
  while ((1ull << bits) < x) bits++;
  return x < 2 ? 0 : bits;
}

}  // namespace

zel2_vault_controller::zel2_vault_controller(sc_core::sc_module_name name, const Config& config,
                                             StatsKeeper& statsKeeper, unsigned number)
    : sc_module(name),
      flitsOut("flitsOut"),
      flitsIn("flitsIn"),
      commandCreditOut("commandCreditOut"),
      responseCreditIn("responseCreditIn"),
      writeCreditOut("writeCreditOut"),
      dramCommandOut("dramCommandOut"),
      dramDataIn("dramDataIn"),
      dramDataOut("dramDataOut"),
      cfg(config),
      stats(statsKeeper),
      id(number),
      transactionQueueLatch(nullptr),
      packetTagInProgress(ALL_ONES),
      refreshPartition(0),
      refreshBank(0),
      refreshRow(0),
      refreshesPending(0),
      requestQueueTransactions(0),
      responseCredits(config.VSW_RESPONSE_BUFFER_SIZE),
      nextProcessTime(sc_core::SC_ZERO_TIME),
      openBanks(0),
      writeResponseHold(false),
      commandCreditQueue("commandCreditQueue"),
      sendResponseQueue("sendResponseQueue"),
      writeDataQueue("writeDataQueue", DelayQueue::kMethodConsumer),
      writeCreditQueue("writeCreditQueue"),
      responseCreditQueue("responseCreditQueue", DelayQueue::kMethodConsumer) {
  flitsOut.init(cfg.FLITS_OUT_PER_CYCLE_VC);
  flitsIn.init(cfg.FLITS_IN_PER_CYCLE_VC);

  byteBits = CeilLog2(cfg.BYTE_OFFSET);
  vaultBits = CeilLog2(cfg.NUM_VAULTS);
  partitionBits = CeilLog2(cfg.NUM_PARTITIONS);
  bankBits = CeilLog2(cfg.NUM_BANKS);
  rowBits = CeilLog2(cfg.NUM_ROWS);
  colHighBits = CeilLog2(cfg.NUM_COLS) + CeilLog2(cfg.BYTE_OFFSET) - CeilLog2(cfg.MAX_BLOCK_SIZE);
  colLowBits = CeilLog2(cfg.MAX_BLOCK_SIZE) - CeilLog2(cfg.BYTE_OFFSET);

  // All partitions a vault can have exist from the start; setNumPartitions parks
  // the ones not in use.
  char bankName[32];
  for (unsigned p = 0; p < maxPartitions; p++) {
    std::vector<zel2_bank*> partition;
    for (unsigned b = 0; b < cfg.NUM_BANKS; b++) {
      snprintf(bankName, sizeof bankName, "vc_bank%d%d", p, b);
      partition.push_back(new zel2_bank(bankName));
    }
    bankStates.push_back(partition);
  }

  SC_METHOD(ReceiveInputFlits);
  for (auto& port : flitsIn) sensitive << port;
  dont_initialize();
  SC_METHOD(ProcessInputFlits);
  sensitive << processEvent;
  dont_initialize();
  SC_METHOD(MoveToRequestQueue);
  sensitive << moveEvent;
  dont_initialize();

  SC_THREAD(IssuingThread);
  sensitive << issueEvent;
  // Refresh exists only if enabled when the vault is built.
  if (cfg.REFRESH_ENABLED) {
    SC_METHOD(RefreshThread);
    sensitive << refreshEvent;
    dont_initialize();
  }

  SC_THREAD(GetResponseData);
  sensitive << dramDataIn;
  SC_THREAD(SendResponseThread);
  sensitive << sendResponseQueue;
  SC_THREAD(ReturnCommandCredit);
  sensitive << commandCreditQueue;
  SC_THREAD(ReturnWriteCredits);
  sensitive << writeCreditQueue;
  SC_METHOD(IssueWriteDataThread);
  sensitive << writeDataQueue;
  dont_initialize();
  SC_METHOD(ReceiveResponseCredit);
  sensitive << responseCreditIn;
  dont_initialize();
  SC_METHOD(IncrementResponseCredit);
  sensitive << responseCreditQueue;
  dont_initialize();
}

// ---------------------------------------------------------------------------
// Helpers
// ---------------------------------------------------------------------------

sc_time zel2_vault_controller::NextEdgePlusCycle() const {
  return OnCoreEdge() ? cfg.CORE_CLK : cfg.CORE_CLK + cfg.NextCoreEdgeDelay();
}

void zel2_vault_controller::setMaxBlockSize(unsigned int size) {
  const_cast<Config&>(cfg).MAX_BLOCK_SIZE = size;
  colHighBits = CeilLog2(cfg.NUM_COLS) + CeilLog2(cfg.BYTE_OFFSET) - CeilLog2(size);
  colLowBits = CeilLog2(size) - CeilLog2(cfg.BYTE_OFFSET);
}

// ---------------------------------------------------------------------------
// Intake
// ---------------------------------------------------------------------------

void zel2_vault_controller::ReceiveInputFlits() {
  const sc_time now = sc_time_stamp();
  if (!OnCoreEdge()) {
    std::cout << "Off timing in VC" << id << " @ " << now << std::endl;
    FatalAbort();
  }
  for (unsigned i = 0; i < flitsIn.size(); i++) {
    if (!flitsIn[i].event()) continue;
    Flit_P flit = flitsIn[i].read();

    if ((*flit).destination != id) {
      TimedError() << flit << " sent incorrectly to VC" << id << std::endl;
      ZEL_ASSERT(false);
    }
    if (packetTagInProgress != ALL_ONES && packetTagInProgress != (*flit).tag) {
      PlainError() << "VC" << id << " did not receive contiguous packet of tag :" << packetTagInProgress << " : "
                   << flit << std::endl;
      FatalExit0();
    }
    if ((*flit).header) packetTagInProgress = (*flit).tag;
    if ((*flit).tail) packetTagInProgress = ALL_ONES;

    switch ((*flit).command) {
      case RD:
        ZEL_ASSERT((*flit).header && (*flit).tail);
        ZEL_ASSERT((*flit).requestLength % 16 == 0 && (*flit).requestLength <= cfg.MAX_REQUEST_SIZE);
        stats.vaultReads[id]++;
        break;
      case P_WR:
      case WR:
        ZEL_ASSERT(!((*flit).header&&(*flit).tail));
        ZEL_ASSERT((*flit).requestLength % 16 == 0 && (*flit).requestLength <= cfg.MAX_REQUEST_SIZE);
        // No data is modelled: only the tail flit goes on.
        if (!(*flit).tail) {
          delete flit.flit;
          continue;
        }
        stats.vaultWrites[id]++;
        stats.vaultBytes[id] += (*flit).requestLength;
        break;
      case BWR:
      case P_BWR:
      case DADD8:
      case P_DADD8:
      case ADD16:
      case P_ADD16:
        if (!(*flit).tail) {
          delete flit.flit;
          continue;
        }
        (*flit).flitNumber = 1;
        break;
      default:
        TimedError() << "Received wronge packet type in vault controller " << id << " - " << flit << std::endl;
        ZEL_ASSERT(false);
    }

    RaiseTimeIntegral(stats.vaultTransactionTime[id], transactionQueueChangeTime, transactionQueue.size());
    (*flit).timeStamps[3] = now;
    transactionQueue.push_back(flit);
    processEvent.notify(cfg.CORE_CLK);
  }
}

void zel2_vault_controller::ProcessInputFlits() {
  const sc_time now = sc_time_stamp();
  if (!OnCoreEdge()) {
    std::cout << "ERROR: off timing in VC @ " << now << std::endl;
    ZEL_ASSERT(false);
  }
  if (now < nextProcessTime) {
    processEvent.notify(cfg.CORE_CLK);
    return;
  }
  // MoveToRequestQueue still holds a transaction and will wake us.
  if (transactionQueueLatch != nullptr) return;

  // Refresh goes first and needs no response credits.
  if (refreshesPending != 0) {
    Flit_P refresh(new Flit(ALL_ONES, 0, RD, 32, true, true, 1));
    transactionQueueLatch = new Flit_P(refresh);
    refreshesPending--;
    stats.vaultRefreshes[id]++;
    nextProcessTime = now + CycleDelay(cfg, 2);
    moveEvent.notify(cfg.CORE_CLK);
    return;
  }
  // A response credit arriving wakes us again.
  if (responseCredits < cfg.CREDITS_FOR_PROCESSING) return;
  if (transactionQueue.empty()) return;

  size_t chosen = transactionQueue.size();
  for (size_t i = 0; i < transactionQueue.size(); i++) {
    unsigned partition, bank, row, column;
    AddressMap(transactionQueue[i]->address, partition, bank, row, column);
    zel2_bank* state = Bank(partition, bank);
    if (state == nullptr || (!state->transactionWaiting && !state->refreshWaiting)) {
      chosen = i;
      break;
    }
  }
  if (chosen == transactionQueue.size()) {
    processEvent.notify(cfg.CORE_CLK);  // poll until a bank frees up
    return;
  }

  transactionQueueLatch = new Flit_P(transactionQueue[chosen]);
  moveEvent.notify(cfg.CORE_CLK);
  nextProcessTime = now + CycleDelay(cfg, 2);
  RaiseTimeIntegral(stats.vaultTransactionTime[id], transactionQueueChangeTime, transactionQueue.size());
  transactionQueue.erase(transactionQueue.begin() + chosen);
  commandCreditQueue.notify(CycleDelay(cfg, cfg.COMMAND_CREDIT_DELAY));
  if (!transactionQueue.empty()) processEvent.notify(cfg.CORE_CLK);
}

void zel2_vault_controller::AppendCommand(DRAMCommand command, unsigned partition, unsigned bank, unsigned row,
                                          unsigned col, uint32_t tag, const sc_time& earliestIssue) {
  DRAMBusPacket packet;
  packet.command = command;
  packet.partition = partition;
  packet.bank = bank;
  packet.row = row;
  packet.col = col;
  packet.tag = tag;
  packet.firstBeat = true;
  packet.earliestIssue = earliestIssue;
  if (command == DATA)
    writeBuffer.push_back(packet);
  else
    requestQueue.push_back(packet);
}

void zel2_vault_controller::MoveToRequestQueue() {
  // Full: IssuingThread wakes us when a transaction leaves.
  if (requestQueueTransactions == cfg.REQUEST_Q_CAPACITY) return;
  ZEL_ASSERT(transactionQueueLatch!=__null);
  const sc_time now = sc_time_stamp();
  const sc_time earliest = now + cfg.CORE_CLK;  // only the ACT looks at it
  Flit_P flit = *transactionQueueLatch;

  if ((*flit).tag == ALL_ONES) {
    // Refresh: one row cycle, queued even if the bank is busy; its ACT waits.
    AppendCommand(ACT, refreshPartition, refreshBank, refreshRow, 0, ALL_ONES, earliest);
    AppendCommand(READ, refreshPartition, refreshBank, refreshRow, 0, ALL_ONES, earliest);
    AppendCommand(PRE, refreshPartition, refreshBank, refreshRow, 0, ALL_ONES, earliest);
    if (zel2_bank* state = Bank(refreshPartition, refreshBank)) {
      state->refreshWaiting = true;
      state->transactionWaiting = true;
    }
    // Partition turns fastest, then row, then bank.
    if (++refreshPartition == cfg.NUM_PARTITIONS) {
      refreshPartition = 0;
      if (++refreshRow == cfg.NUM_ROWS) {
        refreshRow = 0;
        if (++refreshBank == cfg.NUM_BANKS) refreshBank = 0;
      }
    }
    delete flit.flit;
  } else {
    unsigned partition, bank, row, column;
    AddressMap((*flit).address, partition, bank, row, column);
    // Column accesses are aligned to even columns: a whole multiple of the
    // access length that starts on an odd column needs one access more.
    const unsigned length = (*flit).requestLength;
    unsigned accesses = length / cfg.COLUMN_ACCESS_LENGTH;
    if (length % cfg.COLUMN_ACCESS_LENGTH != 0)
      accesses++;
    else if (column % 2 == 1)
      accesses++;

    if (zel2_bank* state = Bank(partition, bank)) state->transactionWaiting = true;
    (*flit).timeStamps[4] = now;
    const uint32_t tag = (*flit).tag;
    AppendCommand(ACT, partition, bank, row, column, tag, earliest);

    bool respond = false;
    switch ((*flit).command) {
      case RD:
        RaiseTimeIntegral(stats.vaultCreditTime[id], responseCreditChangeTime, responseCredits);
        responseCredits -= 1 + length / cfg.FLIT_SIZE;
        for (unsigned a = 0; a < accesses; a++) AppendCommand(READ, partition, bank, row, column++, tag, earliest);
        AppendCommand(PRE, partition, bank, row, column, tag, earliest);
        pendingReads.push_back(flit);
        break;
      case WR:
      case P_WR:
        for (unsigned a = 0; a < accesses; a++) {
          AppendCommand(WRITE, partition, bank, row, column, tag, earliest);
          AppendCommand(DATA, partition, bank, row, column++, tag, earliest);
        }
        AppendCommand(PRE, partition, bank, row, column, tag, earliest);
        // Write credits go in pairs of flits: a literal 32-byte test.
        creditsByTag[tag] = length / cfg.FLIT_SIZE + ((length & 0x1F) ? 1 : 0);
        respond = (*flit).command == WR;
        break;
      case BWR:
      case DADD8:
      case ADD16:
      case P_BWR:
      case P_DADD8:
      case P_ADD16:
        // Read, modify, write back: one READ and one WRITE whatever the length.
        AppendCommand(READ, partition, bank, row, column, tag, earliest);
        AppendCommand(WRITE, partition, bank, row, column, tag, earliest);
        AppendCommand(DATA, partition, bank, row, column, tag, earliest);
        AppendCommand(PRE, partition, bank, row, column, tag, earliest);
        creditsByTag[tag] = 2;
        atomicTags.push_back(tag);
        respond = (*flit).command == BWR || (*flit).command == DADD8 || (*flit).command == ADD16;
        break;
      default:
        TimedError() << "Wrong type of transaction in VC" << id << " transactioin queue - " << flit << std::endl;
        ZEL_ASSERT(false);
    }

    if (respond) {
      // The request's tail flit becomes its response in place.
      (*flit).command = WR_RSP;
      (*flit).header = true;
      (*flit).tail = true;
      (*flit).flitNumber = 1;
      pendingWriteResponses.push_back(flit);
      RaiseTimeIntegral(stats.vaultCreditTime[id], responseCreditChangeTime, responseCredits);
      responseCredits -= 1;
    } else if ((*flit).command != RD) {
      delete flit.flit;  // posted: no response
    }
  }

  RaiseTimeIntegral(stats.vaultRequestTime[id], requestQueueChangeTime, requestQueueTransactions);
  requestQueueTransactions++;
  // A wake from IssuingThread can come between edges; land on an edge.
  const sc_time delay = NextEdgePlusCycle();
  issueEvent.notify(delay);
  delete transactionQueueLatch;
  transactionQueueLatch = nullptr;
  processEvent.notify(delay);
}

// ---------------------------------------------------------------------------
// Command issue
// ---------------------------------------------------------------------------

sc_time zel2_vault_controller::IsIssuable(unsigned int index) {
  return IssueWait(index, sc_time_stamp(), OnCoreEdge());
}

sc_time zel2_vault_controller::IssueWait(unsigned index, const sc_time& now, bool onEdge) {
  // Made once: the unit conversion of a time is costly next to the rest of this check.
  static const sc_time longWait(100, SC_NS);
  const DRAMBusPacket& c = requestQueue[index];
  if (c.command != ACT && c.command != PRE && c.command != READ && c.command != WRITE) {
    TimedError() << "Wrong packet type trying to be issued " << c << std::endl;
    ZEL_ASSERT(false);
  }
  zel2_bank* bank = Bank(c.partition, c.bank);
  // A partition outside the vault has no bank model; let it through to the
  // partition check of the issue loop.
  if (bank == nullptr) return sc_core::SC_ZERO_TIME;
  const bool sameTransactionBefore = index != 0 && requestQueue[index - 1].tag == c.tag;
  if (cfg.corrections.bankOwnership && OwnedByEarlierTransaction(index)) return longWait;

  // Column commands get priority over row commands: a row command waits while
  // a later column command could go now. (The two never share a slot.)
  auto columnCommandReady = [&]() {
    bool ready = false;
    for (unsigned j = index + 1; j < requestQueue.size(); j++) {
      if (requestQueue[j].command != READ && requestQueue[j].command != WRITE) continue;
      if (IssueWait(j, now, onEdge) == sc_core::SC_ZERO_TIME) ready = true;
    }
    return ready;
  };

  switch (c.command) {
    case ACT:
      if (bank->bankState != IDLE) return cfg.tRP;
      if (now < bank->nextActivate) return bank->nextActivate - now;
      if (!onEdge) return cfg.tCMD;
      if (c.earliestIssue > now) return c.earliestIssue - now;
      if (columnCommandReady()) return longWait;
      return sc_core::SC_ZERO_TIME;
    case PRE:
      if (bank->bankState != ROW_ACTIVE) return cfg.tRAS;
      if (sameTransactionBefore) return longWait;
      if (now < bank->nextPrecharge) return bank->nextPrecharge - now;
      if (!onEdge) return cfg.tCMD;
      if (columnCommandReady()) return longWait;
      return sc_core::SC_ZERO_TIME;
    case READ:
      if (bank->bankState != ROW_ACTIVE) return longWait;
      if (bank->openRow != c.row) return cfg.tRTP + cfg.tRCDr + cfg.tRP;
      if (now < bank->nextRead) return bank->nextRead - now;
      if (onEdge) return cfg.tCMD;
      return sc_core::SC_ZERO_TIME;
    case WRITE:
      if (bank->bankState != ROW_ACTIVE) return longWait;
      if (bank->openRow != c.row) return cfg.tRTP + cfg.tRCDw + cfg.tRP;
      if (sameTransactionBefore) return longWait;
      if (now < bank->nextWrite) return bank->nextWrite - now;
      if (onEdge) return cfg.tCMD;
      return sc_core::SC_ZERO_TIME;
    default:
      return longWait;  // refused above
  }
}

// A transaction's commands enter the queue together, ACT first and PRE last,
// and leave it one by one. Walking back from `index` over the commands of the
// same bank, the command's own transaction can only show as earlier column
// commands and its ACT; anything else (another tag, a PRE, or anything before
// the own ACT) is an earlier transaction's that still holds the bank.
bool zel2_vault_controller::OwnedByEarlierTransaction(unsigned index) const {
  const DRAMBusPacket& c = requestQueue[index];
  bool pastOwnActivate = c.command == ACT;
  for (unsigned j = index; j-- > 0;) {
    const DRAMBusPacket& earlier = requestQueue[j];
    if (earlier.partition != c.partition || earlier.bank != c.bank) continue;
    if (pastOwnActivate || earlier.tag != c.tag || earlier.command == PRE) return true;
    if (earlier.command == ACT) pastOwnActivate = true;
  }
  return false;
}

void zel2_vault_controller::IssuingThread() {
  while (true) {
    wait();
    const sc_time now = sc_time_stamp();
    if (now.value() % cfg.tCMD.value() != 0) {
      std::cout << "UNALIGNED CLOCK!!!!!!!!!!\n\tTime Now=" << now << ", period=" << cfg.tCMD << std::endl;
      ZEL_ASSERT(false);
    }
    if (requestQueue.empty()) continue;

    // The oldest command that can issue now goes first.
    static const sc_time longest = sc_core::sc_max_time();  // the largest time there is, made once
    sc_time shortest = longest;
    bool found = false;
    unsigned i = 0;
    const bool onEdge = OnCoreEdge();
    for (; i < requestQueue.size(); i++) {
      shortest = std::min(shortest, IssueWait(i, now, onEdge));
      if (shortest == sc_core::SC_ZERO_TIME) {
        found = true;
        break;
      }
    }

    if (found) {
      const DRAMBusPacket packet = requestQueue[i];
      const unsigned partition = packet.partition;
      ZEL_ASSERT(partition<cfg.NUM_PARTITIONS);
      if (cfg.DRAM_TRACING) TraceCommand(packet);
      switch (packet.command) {
        case ACT:
          UpdateForAct(packet);
          break;
        case PRE:
          UpdateForPre(packet);
          break;
        case READ:
          UpdateForRead(i, packet);
          break;
        case WRITE:
          UpdateForWrite(i, packet);
          break;
        default:
          TimedError() << "Issuing wrong packet type!!!!!" << std::endl;
          ZEL_ASSERT(false);
      }
      dramCommandOut.write(packet);
      requestQueue.erase(requestQueue.begin() + i);
    }

    if (!requestQueue.empty()) {
      // Stay on the tCMD grid: one slot after an issue, else the shortest wait rounded up.
      const uint64_t slot = cfg.tCMD.value();
      const uint64_t pause = std::max(shortest, cfg.tCMD).value();
      issueEvent.notify(sc_time::from_value((pause + slot - 1) / slot * slot));
    }
  }
}

void zel2_vault_controller::TraceCommand(const DRAMBusPacket& packet) {
  const sc_time now = sc_time_stamp();
  const char* word = "";
  sc_time gap = sc_core::SC_ZERO_TIME;
  switch (packet.command) {
    case ACT:
      word = "ACT";
      gap = now - lastActTime;
      break;
    case PRE:
      word = "PRE";
      break;
    case READ:
      word = "READ";
      gap = now - lastReadTime;
      break;
    case WRITE:
      word = "WRITE";
      gap = now - lastWriteTime;
      break;
    default:
      break;
  }
  dramLog << now.value() << ",VC" << id << "," << word << ",d" << packet.partition << ",b" << packet.bank << ","
          << gap.value() << std::endl;
}

void zel2_vault_controller::UpdateForAct(const DRAMBusPacket& packet) {
  const sc_time now = sc_time_stamp();
  for (zel2_bank* other : bankStates[packet.partition]) {
    other->nextPrecharge = std::max(other->nextPrecharge, now + cfg.tAPA);
    other->nextActivate = std::max(other->nextActivate, now + cfg.tRRD);
    other->nextRefresh = std::max(other->nextRefresh, now + cfg.tRRD);
  }
  zel2_bank* bank = bankStates[packet.partition][packet.bank];
  bank->nextRead = std::max(bank->nextRead, now + cfg.tRCDr);
  bank->nextWrite = std::max(bank->nextWrite, now + cfg.tRCDw);
  bank->nextActivate = now + cfg.tRC;
  bank->nextRefresh = now + cfg.tRC;
  bank->nextPrecharge = now + cfg.tRAS;

  RaiseTimeIntegral(stats.vaultOpenBankTime[id], openBanksChangeTime, openBanks);
  openBanks++;
  if (packet.tag != ALL_ONES) stats.bankCounts[id][packet.partition * cfg.NUM_BANKS + packet.bank]++;

  bank->bankState = ROW_ACTIVE;
  bank->openRow = packet.row;
  bank->lastCommand = ACT;
  lastActTime = now;
}

void zel2_vault_controller::UpdateForPre(const DRAMBusPacket& packet) {
  const sc_time now = sc_time_stamp();
  for (zel2_bank* other : bankStates[packet.partition])
    other->nextActivate = std::max(other->nextActivate, now + cfg.tAPA);
  zel2_bank* bank = bankStates[packet.partition][packet.bank];
  bank->nextActivate = std::max(bank->nextActivate, now + cfg.tRP);
  bank->nextRefresh = std::max(bank->nextRefresh, now + cfg.tRP);

  RaiseTimeIntegral(stats.vaultOpenBankTime[id], openBanksChangeTime, openBanks);
  openBanks--;
  bank->bankState = PRECHARGING;
  bank->lastCommand = PRE;
  // The copy turns IDLE three cycles early, so that the next transaction of the
  // bank is through the intake by the time nextActivate lets its ACT go.
  bank->stateEvent.notify(cfg.tRP - CycleDelay(cfg, 3));
}

void zel2_vault_controller::LowerRequestQueueTransactions() {
  RaiseTimeIntegral(stats.vaultRequestTime[id], requestQueueChangeTime, requestQueueTransactions);
  requestQueueTransactions--;
  // Wake the intake: a latched transaction moves in this very evaluation phase.
  if (transactionQueueLatch != nullptr) {
    moveEvent.cancel();
    moveEvent.notify();
  } else {
    processEvent.notify(cfg.NextCoreEdgeDelay());
  }
}

void zel2_vault_controller::UpdateForRead(unsigned index, const DRAMBusPacket& packet) {
  const sc_time now = sc_time_stamp();
  auto atomic = std::find(atomicTags.begin(), atomicTags.end(), packet.tag);
  const bool isAtomic = atomic != atomicTags.end();
  if (isAtomic) atomicTags.erase(atomic);

  // Count the READs of this transaction still to come; a WRITE after us (an
  // atomic) means we are not the last column command.
  unsigned k = 0;
  bool writeFollows = false;
  for (unsigned j = index + 1; j < requestQueue.size() && requestQueue[j].tag == packet.tag; j++) {
    if (requestQueue[j].command == READ)
      k++;
    else if (requestQueue[j].command == PRE)
      break;
    else
      writeFollows = true;
  }
  if (!writeFollows && k == 0) LowerRequestQueueTransactions();

  const unsigned partitions = UsedPartitions();
  if (isAtomic) {
    // The whole vault holds its column commands while the atomic reads, modifies and writes back.
    const sc_time hold = now + CycleDelay(cfg, cfg.ATOMICS_SPACING + 1);
    for (unsigned p = 0; p < partitions; p++)
      for (zel2_bank* bank : bankStates[p]) {
        bank->nextRead = std::max(bank->nextRead, hold);
        bank->nextWrite = std::max(bank->nextWrite, hold);
      }
  } else {
    // r keeps other transactions' column commands out of the rest of this burst.
    SpaceColumnCommands(packet.partition, &zel2_bank::nextRead, &zel2_bank::nextWrite,
                        {cfg.tCCD + cfg.tRTR2D, cfg.tCCDRP, cfg.RD_TO_WR_DIFF, cfg.RD_TO_WR_SAME}, cfg.tCCD * k);
  }

  zel2_bank* bank = bankStates[packet.partition][packet.bank];
  bank->nextRead = now + cfg.tCCD;
  // Spaces an atomic's WRITE exactly ATOMICS_SPACING cycles behind its READ.
  bank->nextWrite = now + CycleDelay(cfg, cfg.ATOMICS_SPACING);
  bank->nextPrecharge = std::max(bank->nextPrecharge, now + cfg.tRTP);

  bank->lastCommand = READ;
  stats.vaultCASs[id]++;
  if (packet.tag == ALL_ONES) bank->refreshWaiting = false;
  lastReadTime = now;
}

void zel2_vault_controller::WriteTransactionDone(uint32_t tag) {
  const sc_time now = sc_time_stamp();
  const sc_time creditDelay = CycleDelay(cfg, cfg.WRITE_CREDIT_DELAY);
  writeCreditQueue.notify(creditDelay);
  writeCreditTimes.push_back(now + creditDelay);
  auto credits = creditsByTag.find(tag);
  writeCreditCounts.push_back(credits == creditsByTag.end() ? 0 : credits->second);
  if (credits != creditsByTag.end()) creditsByTag.erase(credits);

  auto response = std::find_if(pendingWriteResponses.begin(), pendingWriteResponses.end(),
                               [tag](const Flit_P& f) { return f.flit->tag == tag; });
  if (response == pendingWriteResponses.end()) return;  // posted
  readyWriteResponses.push_back(*response);
  pendingWriteResponses.erase(response);
  sc_time delay = CycleDelay(cfg, cfg.WRITE_RESPONSE_DELAY);
  if (!OnCoreEdge()) delay += cfg.NextCoreEdgeDelay();
  writeResponseTimes.push_back(now + delay);
  sendResponseQueue.notify(delay);
}

void zel2_vault_controller::SpaceColumnCommands(unsigned partition, sc_time zel2_bank::*same,
                                                sc_time zel2_bank::*other, const ColumnGaps& gaps,
                                                const sc_time& r) {
  const sc_time now = sc_time_stamp();
  const unsigned partitions = UsedPartitions();
  for (unsigned p = 0; p < partitions; p++)
    for (zel2_bank* bank : bankStates[p]) {
      sc_time& next = bank->*same;
      if (p != partition) {
        next = std::max(next, now + gaps.sameKindOtherPartition + r);
        bank->*other = std::max(bank->*other, now + gaps.otherKindOtherPartition + r);
      } else {
        // A command of the same kind that could come within the page gap is put at its end.
        if (next > now + cfg.tCCD && next < now + gaps.samePartitionPage)
          next = now + gaps.samePartitionPage;
        else
          next = std::max(next, now + cfg.tCCD + r);
        bank->*other = std::max(bank->*other, now + gaps.otherKindSamePartition + r);
      }
    }
}

void zel2_vault_controller::UpdateForWrite(unsigned index, const DRAMBusPacket& packet) {
  const sc_time now = sc_time_stamp();
  unsigned k = 0;
  for (unsigned j = index + 1;
       j < requestQueue.size() && requestQueue[j].command == WRITE && requestQueue[j].tag == packet.tag; j++)
    k++;
  if (k == 0) {
    LowerRequestQueueTransactions();
    WriteTransactionDone(packet.tag);
  }

  SpaceColumnCommands(packet.partition, &zel2_bank::nextWrite, &zel2_bank::nextRead,
                      {cfg.tCCD, cfg.tCCDWP, cfg.WR_TO_RD_DIFF, cfg.WR_TO_RD_SAME}, cfg.tCCD * k);

  zel2_bank* bank = bankStates[packet.partition][packet.bank];
  bank->nextWrite = now + cfg.tCCD;
  bank->nextPrecharge = std::max(bank->nextPrecharge, now + cfg.tWL + cfg.BL + cfg.tWR);

  writeDataQueue.notify(cfg.tWL);
  bank->lastCommand = WRITE;
  stats.vaultCASs[id]++;
  lastWriteTime = now;
}

void zel2_vault_controller::RefreshThread() {
  refreshesPending++;
  processEvent.notify(NextEdgePlusCycle());
  // Clearing REFRESH_ENABLED at run time makes this tick the last.
  if (cfg.REFRESH_ENABLED) refreshEvent.notify(refreshPeriod);
}

void zel2_vault_controller::setNumPartitions(unsigned int numPartitions) {
  const_cast<Config&>(cfg).NUM_PARTITIONS = numPartitions;
  partitionBits = CeilLog2(numPartitions);
  if (cfg.REFRESH_ENABLED) {
    // Every row of every bank once per retention time; a hot device twice as often.
    const sc_time retention = cfg.Tj < 95 ? sc_time(32, sc_core::SC_MS) : sc_time(16, sc_core::SC_MS);
    const double rows = double(cfg.NUM_BANKS) * double(cfg.NUM_ROWS) * double(numPartitions);
    refreshPeriod = sc_time::from_value(static_cast<sc_core::sc_time::value_type>(
        static_cast<double>(retention.value()) / rows + 0.5));
    refreshEvent.cancel();
    refreshEvent.notify(refreshPeriod);
  }
  resizeBankStateVector(numPartitions);
}

void zel2_vault_controller::resizeBankStateVector(unsigned int numPartitions) {
  ZEL_ASSERT(numPartitions <= maxPartitions);
  ZEL_ASSERT(bankStates.size() + unusedBankStates.size() == maxPartitions);
  if (numPartitions == bankStates.size()) return;
  if (numPartitions < bankStates.size()) {
    unusedBankStates.insert(unusedBankStates.end(), bankStates.begin() + numPartitions, bankStates.end());
    bankStates.resize(numPartitions);
  } else {
    const size_t needed = numPartitions - bankStates.size();
    bankStates.insert(bankStates.end(), unusedBankStates.begin(), unusedBankStates.begin() + needed);
    unusedBankStates.erase(unusedBankStates.begin(), unusedBankStates.begin() + needed);
  }
  ZEL_ASSERT(bankStates.size() == numPartitions);
}

// ---------------------------------------------------------------------------
// Responses and credits
// ---------------------------------------------------------------------------

void zel2_vault_controller::IssueWriteDataThread() {
  FiringScope firing(writeDataQueue);
  stats.vaultDataTime[id] += cfg.BL;
  dramDataOut.write(writeBuffer.front());
  writeBuffer.erase(writeBuffer.begin());
  writeCreditQueue.notify(CycleDelay(cfg, cfg.WRITE_CREDIT_DELAY));
}

void zel2_vault_controller::ReturnWriteCredits() {
  while (true) {
    wait();
    const sc_time now = sc_time_stamp();
    // Most wakes find nothing due yet.
    if (writeCreditTimes.empty() || writeCreditTimes.front() > now) continue;
    const uint32_t count = writeCreditCounts.front();
    if (count > cfg.WRITE_CREDITS_PER_CYCLE) {
      writeCreditOut.write(static_cast<int>(cfg.WRITE_CREDITS_PER_CYCLE));
      writeCreditCounts.front() -= cfg.WRITE_CREDITS_PER_CYCLE;
      writeCreditQueue.notify(cfg.CORE_CLK);
    } else {
      writeCreditOut.write(static_cast<int>(count));
      writeCreditCounts.erase(writeCreditCounts.begin());
      writeCreditTimes.erase(writeCreditTimes.begin());
      if (!writeCreditTimes.empty() && writeCreditTimes.front() <= now) writeCreditQueue.notify(cfg.CORE_CLK);
    }
    wait(HalfCycle(cfg));
    writeCreditOut.write(0);
  }
}

void zel2_vault_controller::ReturnCommandCredit() {
  while (true) {
    wait();
    commandCreditOut.write(true);
    wait(HalfCycle(cfg));
    commandCreditOut.write(false);
  }
}

void zel2_vault_controller::GetResponseData() {
  while (true) {
    wait();
    if (!dramDataIn.event()) {
      std::cout << "?????????A" << std::endl;
      FatalExit0();
    }
    // Read one cycle late: the vault's beats stand one cycle apart, so we are
    // back at wait() before the next one shows.
    wait(cfg.CORE_CLK);
    const sc_time now = sc_time_stamp();
    const sc_time delay = CycleDelay(cfg, cfg.MI_OUT_DELAY);
    readData.push_back(dramDataIn.read());
    readDataTimes.push_back(now + delay);
    sendResponseQueue.notify(OnCoreEdge() ? delay : delay + cfg.NextCoreEdgeDelay());
  }
}

void zel2_vault_controller::SendResponseCopy(const Flit_P& request, unsigned port, bool header, bool tail) {
  Flit* copy = new Flit(*request.flit);
  copy->command = RD_RSP;
  copy->header = header;
  copy->tail = tail;
  flitsOut[port].write(Flit_P(copy));
}

void zel2_vault_controller::SendResponseThread() {
  while (true) {
    wait();
    const sc_time now = sc_time_stamp();
    if (!readData.empty() && readDataTimes.front() <= now) {
      // A read data beat is due: it has priority.
      const uint32_t tag = readData.front().tag;
      readData.erase(readData.begin());
      readDataTimes.erase(readDataTimes.begin());
      auto entry = std::find_if(pendingReads.begin(), pendingReads.end(),
                                [tag](const Flit_P& f) { return f.flit->tag == tag; });
      // Refresh beats and surplus beats of a read have no owner and are dropped.
      if (entry == pendingReads.end()) continue;

      Flit_P request = *entry;
      const unsigned total = (*request).requestLength / cfg.FLIT_SIZE + 1;
      const unsigned sent = (*request).flitNumber;
      bool finished = false;
      if (sent == 1) {
        stats.vaultBytes[id] += (*request).requestLength;
        SendResponseCopy(request, 0, true, false);
      } else if (sent != total) {
        SendResponseCopy(request, 0, false, false);
      } else {
        SendResponseCopy(request, 0, false, true);
        finished = true;
      }
      if (!finished) {
        // The last beat carries two flits: the data flit and the tail.
        if (++(*request).flitNumber != total) continue;
        SendResponseCopy(request, 1, false, true);
      }
      delete request.flit;
      pendingReads.erase(entry);
      writeResponseHold = false;
      // Let a write response passed over by this read go.
      if (!readyWriteResponses.empty() && writeResponseTimes.front() <= now)
        sendResponseQueue.notify(cfg.CORE_CLK + cfg.NextCoreEdgeDelay());
    } else {
      if (readyWriteResponses.empty() || writeResponseHold || writeResponseTimes.front() > now) continue;
      if (writeResponseTimes.front() > now) {
        PlainError() << "Trying to send write response before it is ready" << std::endl;
        FatalExit0();
      }
      flitsOut[0].write(readyWriteResponses.front());
      readyWriteResponses.erase(readyWriteResponses.begin());
      writeResponseTimes.erase(writeResponseTimes.begin());
    }
  }
}

void zel2_vault_controller::ReceiveResponseCredit() {
  const int count = responseCreditIn.read();
  if (count < 1) return;  // the return to 0 after a pulse
  if (!OnCoreEdge()) {
    std::cout << "Off timing in VC" << id << " because of credit @ " << sc_time_stamp() << std::endl;
    FatalAbort();
  }
  creditDelayQueue.push_back(static_cast<uint32_t>(count));
  responseCreditQueue.notify(CycleDelay(cfg, cfg.CREDIT_RETURN_DELAY_VSW_VC));
}

void zel2_vault_controller::IncrementResponseCredit() {
  FiringScope firing(responseCreditQueue);
  ZEL_ASSERT(!creditDelayQueue.empty());
  RaiseTimeIntegral(stats.vaultCreditTime[id], responseCreditChangeTime, responseCredits);
  responseCredits += creditDelayQueue.front();
  creditDelayQueue.erase(creditDelayQueue.begin());
  if (responseCredits > cfg.VSW_RESPONSE_BUFFER_SIZE) {
    PlainError() << "Response Credit overflow in VC" << id << std::endl;
    FatalAbort();
  }
  // ProcessInputFlits may have stopped for lack of credits.
  processEvent.notify(cfg.NextCoreEdgeDelay());
}

// ---------------------------------------------------------------------------
// Diagnostics
// ---------------------------------------------------------------------------

void zel2_vault_controller::DumpState() {
  std::cout << "== VC" << id << " [Response Credits : " << responseCredits << "]" << std::endl;
  std::cout << "\t\tTransaction Queue - " << transactionQueue.size() << " entries" << std::endl;
  for (size_t i = 0; i < transactionQueue.size(); i++)
    std::cout << "\t\t\t" << i << "] " << transactionQueue[i] << std::endl;
  std::cout << "\t\tRequest Queue" << std::endl;
  for (size_t i = 0; i < requestQueue.size(); i++)
    std::cout << "\t\t\t" << i << "] " << requestQueue[i] << std::endl;
  std::cout << "\t\tPending Reads" << std::endl;
  for (size_t i = 0; i < pendingReads.size(); i++)
    std::cout << "\t\t\t" << i << "] " << pendingReads[i] << std::endl;
  std::cout << "\t\tWrite Buffer" << std::endl;
  for (size_t i = 0; i < writeBuffer.size(); i++)
    std::cout << "\t\t\t" << i << "] " << writeBuffer[i] << std::endl;
}

}  // namespace Sornak::Internal::ZEL2
