// SPDX-License-Identifier: Apache-2.0
// One DRAM bank as a timing record. Both the vault controller and the vault
// keep their own set of these; the two sets are never linked.
#ifndef ZEL2_BANK_H
#define ZEL2_BANK_H

#include <cstdint>
#include <systemc>

#include "zel2/zel2_flit.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {

// Partitions for which every bank owner makes banks at construction; the
// partition count in use can be set anywhere up to this.
constexpr unsigned maxPartitions = 8;

// Where a bank is in its row cycle. Legal transitions:
//   IDLE        --ACT taken-->  ROW_ACTIVE    (owner)
//   ROW_ACTIVE  --PRE taken-->  PRECHARGING   (owner, notifies stateEvent)
//   PRECHARGING --stateEvent--> IDLE          (UpdateBankStates)
//   IDLE        --REF taken-->  REFRESHING    (owner, notifies stateEvent; the vault only)
//   REFRESHING  --stateEvent--> IDLE          (UpdateBankStates)
// READ and WRITE leave a ROW_ACTIVE bank as it is.
enum BankState : uint32_t { ROW_ACTIVE = 0, PRECHARGING = 1, REFRESHING = 2, IDLE = 3 };

class zel2_bank : public sc_core::sc_module {
 public:
  // No ports: the owner reads and writes the fields directly.

  BankState bankState = IDLE;
  uint32_t openRow = 0;            // row opened by the last ACT
  sc_core::sc_time nextActivate;   // earliest legal ACT
  sc_core::sc_time nextRead;       // earliest legal READ
  sc_core::sc_time nextWrite;      // earliest legal WRITE
  sc_core::sc_time nextPrecharge;  // earliest legal PRE
  sc_core::sc_time nextRefresh;    // earliest legal REF
  // DATA is a value no transition accepts, so a stateEvent before the first
  // command of the bank is reported as an error.
  DRAMCommand lastCommand = DATA;
  sc_core::sc_event stateEvent;     // fires when PRECHARGING or REFRESHING ends
  bool refreshWaiting = false;      // a refresh transaction is queued (vault controller's banks)
  bool transactionWaiting = false;  // a transaction is queued (vault controller's banks)

  SC_HAS_PROCESS(zel2_bank);
  explicit zel2_bank(sc_core::sc_module_name name);

  // Ends a timed state on stateEvent: back to IDLE after PRE or REF.
  void UpdateBankStates();
};

}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak

#endif  // ZEL2_BANK_H
