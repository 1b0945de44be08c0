// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <systemc>

#include <algorithm>
#include <cstdint>
#include <map>
#include <vector>

#include "zel2/Config.h"
#include "zel2/StatsKeeper.h"
#include "zel2/zel2_bank.h"
#include "zel2/zel2_flit.h"

namespace Sornak::Internal::ZEL2 {

// The DRAM scheduler of one vault. Request packets from the link switch become
// transactions; the oldest transaction whose bank is free is taken apart into
// ACT, column commands and PRE (closed page, one transaction per bank), and the
// command loop issues them on the tCMD grid under the controller's own bank
// model. Read data beats become response flits; every credit loop of the vault
// (command, write, response) ends here.
//
// Invariants: responseCredits never exceeds VSW_RESPONSE_BUFFER_SIZE and is back
// at it at rest; requestQueueTransactions never exceeds REQUEST_Q_CAPACITY.
class zel2_vault_controller : public sc_core::sc_module {
 public:
  // ---- Ports ----
  sc_core::sc_vector<sc_core::sc_out<Flit_P>> flitsOut;  // response flits to the vault switch (elements 0, 1)
  sc_core::sc_vector<sc_core::sc_in<Flit_P>> flitsIn;    // request flits from the link switch
  sc_core::sc_out<bool> commandCreditOut;                 // one half-cycle pulse per transaction place freed
  sc_core::sc_in<int> responseCreditIn;                   // response buffer places freed in the vault switch
  sc_core::sc_out<int> writeCreditOut;                    // write credits, held half a cycle, then 0
  sc_core::sc_out<DRAMBusPacket> dramCommandOut;          // command bus to the vault
  sc_core::sc_in<DRAMBusPacket> dramDataIn;               // read data beats from the vault
  sc_core::sc_out<DRAMBusPacket> dramDataOut;             // write data beats to the vault

  const Config& cfg;
  StatsKeeper& stats;
  unsigned id;

  static constexpr uint32_t ALL_ONES = 0xFFFFFFFFu;  // "no packet" and the refresh tag

  // ---- Intake state ----
  std::vector<Flit_P> transactionQueue;      // tail flit of each complete request, arrival order
  Flit_P* transactionQueueLatch;             // transaction chosen, waiting for the request queue
  std::vector<DRAMBusPacket> requestQueue;   // DRAM commands; a transaction's commands are adjacent
  std::vector<DRAMBusPacket> writeBuffer;    // one DATA beat per queued WRITE, in order
  std::vector<Flit_P> pendingReads;          // reads awaiting data; flitNumber = response flits sent + 1
  std::vector<Flit_P> pendingWriteResponses; // responses of writes/atomics whose last WRITE is pending
  std::map<uint32_t, uint32_t> creditsByTag; // write credits a transaction returns at its last WRITE
  std::vector<uint32_t> atomicTags;          // atomics whose READ has not issued yet

  uint32_t packetTagInProgress;  // tag of the multi-flit packet now arriving, all ones if none
  uint32_t refreshPartition, refreshBank, refreshRow;  // next refresh target
  uint32_t refreshesPending;          // refresh ticks not yet turned into transactions
  uint32_t requestQueueTransactions;  // transactions in requestQueue
  uint32_t responseCredits;           // free places of this vault's response buffer in the vault switch
  sc_core::sc_time nextProcessTime;   // no transaction is chosen before this
  uint32_t byteBits, vaultBits, partitionBits, bankBits, rowBits, colHighBits, colLowBits;

  // The controller's own picture of its banks, by partition then bank. Partitions
  // beyond NUM_PARTITIONS are parked in unusedBankStates, keeping their state.
  std::vector<std::vector<zel2_bank*>> bankStates;
  std::vector<std::vector<zel2_bank*>> unusedBankStates;

  // ---- Issue state ----
  sc_core::sc_time refreshPeriod;  // time between refresh ticks
  uint32_t openBanks;              // banks with an open row
  sc_core::sc_time lastActTime, lastReadTime, lastWriteTime;  // gaps of the DRAM trace

  // ---- Response and credit state ----
  std::vector<DRAMBusPacket> readData;        // read data beats received
  std::vector<sc_core::sc_time> readDataTimes;  // time from which each beat may be sent
  std::vector<Flit_P> readyWriteResponses;    // responses of complete writes
  std::vector<sc_core::sc_time> writeResponseTimes;
  std::vector<uint32_t> writeCreditCounts;    // write credit amounts to return
  std::vector<sc_core::sc_time> writeCreditTimes;
  std::vector<uint32_t> creditDelayQueue;     // response credits inside their return delay
  bool writeResponseHold;  // holds write responses back; nothing sets it, read tails clear it

  // Companion last-change times of the time-integral statistics.
  sc_core::sc_time transactionQueueChangeTime, responseCreditChangeTime, requestQueueChangeTime,
      openBanksChangeTime;

  // ---- Events ----
  sc_core::sc_event processEvent;  // wakes ProcessInputFlits
  sc_core::sc_event moveEvent;     // wakes MoveToRequestQueue
  sc_core::sc_event issueEvent;    // wakes IssuingThread
  sc_core::sc_event refreshEvent;  // refresh tick; the cube may cancel it
  DelayQueue commandCreditQueue;   // one command credit pulse per firing
  DelayQueue sendResponseQueue;    // a read beat or write response may be due
  DelayQueue writeDataQueue;       // a WRITE's data beat is due at the vault
  DelayQueue writeCreditQueue;     // a write credit amount may be due
  DelayQueue responseCreditQueue;  // a received response credit takes effect

  SC_HAS_PROCESS(zel2_vault_controller);
  zel2_vault_controller(sc_core::sc_module_name name, const Config& cfg, StatsKeeper& stats, unsigned id);

  // ---- Processes: intake ----
  void ReceiveInputFlits();   // request flits -> transactionQueue (tail flits only)
  void ProcessInputFlits();   // choose the oldest transaction with a free bank, or a refresh
  void MoveToRequestQueue();  // take the latched transaction apart into DRAM commands

  // ---- Processes: command issue ----
  void IssuingThread();  // issue the oldest issuable command, once per tCMD at most
  void RefreshThread();  // refresh tick: one more row to refresh

  // ---- Processes: responses and credits ----
  void GetResponseData();          // store read data beats from the vault
  void SendResponseThread();       // read beats -> response flits; ready write responses
  void ReturnCommandCredit();      // command credit pulse to the link switch
  void ReturnWriteCredits();       // write credit pulses, at most WRITE_CREDITS_PER_CYCLE each
  void IssueWriteDataThread();     // a WRITE's data beat to the vault
  void ReceiveResponseCredit();    // response credit pulse from the vault switch
  void IncrementResponseCredit();  // the credit takes effect after its delay

  // ---- Operations ----
  // Splits an address into partition, bank, row and column (BYTE_OFFSET units).
  // Defined here so that the intake's scan over its queue inlines it.
  void AddressMap(unsigned long address, unsigned int& partition, unsigned int& bank, unsigned int& row,
                  unsigned int& column) const {
    unsigned long rest = address >> byteBits;
    const unsigned int low = rest & FieldMask(colLowBits);
    rest >>= colLowBits;
    rest >>= vaultBits;  // the vault was chosen by the link
    bank = rest & FieldMask(bankBits);
    rest >>= bankBits;
    partition = rest & FieldMask(partitionBits);
    rest >>= partitionBits;
    const unsigned int high = rest & FieldMask(colHighBits);
    rest >>= colHighBits;
    row = rest & FieldMask(rowBits);
    column = low | (high << colLowBits);
  }
  // How long requestQueue[index] must still wait; zero means it may issue now.
  sc_core::sc_time IsIssuable(unsigned int index);
  void setNumPartitions(unsigned int numPartitions);
  void resizeBankStateVector(unsigned int numPartitions);
  void setMaxBlockSize(unsigned int size);
  void DumpState();

 private:
  // The small helpers below run many times per cycle and are defined here so
  // that they inline.
  static unsigned long FieldMask(uint32_t bits) { return bits >= 64 ? ~0ul : (1ul << bits) - 1; }
  bool OnCoreEdge() const { return sc_core::sc_time_stamp().value() % cfg.CORE_CLK.value() == 0; }
  // CORE_CLK from an edge, else CORE_CLK plus the time to the next edge.
  sc_core::sc_time NextEdgePlusCycle() const;
  // The bank object of a partition in use, or nullptr when the partition is not in use.
  zel2_bank* Bank(unsigned partition, unsigned bank) const {
    if (partition >= bankStates.size() || bank >= bankStates[partition].size()) return nullptr;
    return bankStates[partition][bank];
  }
  unsigned UsedPartitions() const {
    return std::min<unsigned>(cfg.NUM_PARTITIONS, static_cast<unsigned>(bankStates.size()));
  }
  // IsIssuable at a time and clock phase the caller has already looked up;
  // the issue loop asks it for every queued command of one wake.
  sc_core::sc_time IssueWait(unsigned index, const sc_core::sc_time& now, bool onEdge);
  // Whether an earlier transaction for the same bank still has a command in
  // the request queue (the bank-ownership correction holds the command back).
  bool OwnedByEarlierTransaction(unsigned index) const;
  void AppendCommand(DRAMCommand command, unsigned partition, unsigned bank, unsigned row, unsigned col,
                     uint32_t tag, const sc_core::sc_time& earliestIssue);
  void LowerRequestQueueTransactions();  // a transaction's last column command has issued
  void WriteTransactionDone(uint32_t tag);  // write credits and the response of a finished write
  void UpdateForAct(const DRAMBusPacket& packet);
  void UpdateForPre(const DRAMBusPacket& packet);
  void UpdateForRead(unsigned index, const DRAMBusPacket& packet);
  void UpdateForWrite(unsigned index, const DRAMBusPacket& packet);
  // The spacing that a READ (or WRITE) imposes on the column commands of all
  // banks: `same` is the next time of its own kind, `other` of the other
  // kind; r is the rest of its burst.
  struct ColumnGaps {
    sc_core::sc_time sameKindOtherPartition;
    sc_core::sc_time samePartitionPage;
    sc_core::sc_time otherKindOtherPartition;
    sc_core::sc_time otherKindSamePartition;
  };
  void SpaceColumnCommands(unsigned partition, sc_core::sc_time zel2_bank::*same,
                           sc_core::sc_time zel2_bank::*other, const ColumnGaps& gaps,
                           const sc_core::sc_time& r);
  void TraceCommand(const DRAMBusPacket& packet);
  void SendResponseCopy(const Flit_P& request, unsigned port, bool header, bool tail);
};

}  // namespace Sornak::Internal::ZEL2
