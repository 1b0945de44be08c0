// SPDX-License-Identifier: Apache-2.0
// The DRAM dies of one vault as seen from its command bus: takes the vault
// controller's commands, checks each against an independent statement of the
// DRAM timing rules, and answers every READ with two data beats. Stores no
// data; a broken rule stops the simulation.
#ifndef ZEL2_VAULT_H
#define ZEL2_VAULT_H

#include <systemc>
#include <vector>

#include "zel2/Config.h"
#include "zel2/StatsKeeper.h"
#include "zel2/zel2_bank.h"
#include "zel2/zel2_flit.h"
#include "zel2/zel2_utils.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {

class zel2_vault : public sc_core::sc_module {
 public:
  // ---- Ports ----
  sc_core::sc_in<DRAMBusPacket> dramCommandIn;  // commands from the vault controller
  sc_core::sc_in<DRAMBusPacket> dramDataIn;     // write data beats from it
  sc_core::sc_out<DRAMBusPacket> dramDataOut;   // read data beats to it

  // ---- State ----
  const Config& cfg;
  StatsKeeper& stats;
  unsigned id;  // vault number, used in messages and statistics

  // Read data beats waiting for their moment, in time order; fires once per
  // beat.
  DelayFifo<DRAMBusPacket> readDataQueue;
  // Banks by partition, then by bank. All maxPartitions partitions are made
  // at construction; those beyond the partition count in use wait in
  // unusedBanks and keep their state. Invariant:
  // banks.size() + unusedBanks.size() == maxPartitions.
  std::vector<std::vector<zel2_bank*>> banks;
  std::vector<std::vector<zel2_bank*>> unusedBanks;

  SC_HAS_PROCESS(zel2_vault);
  zel2_vault(sc_core::sc_module_name name, const Config& cfg, StatsKeeper& stats, unsigned id);

  // Moves whole partitions between banks and unusedBanks so that
  // numPartitions of them are in use.
  void setNumPartitions(unsigned numPartitions);

  // ---- Processes ----
  // Takes each command one tCMD after it was issued, checks it and updates
  // the banks.
  void ReceiveCommand();
  // Occupies the data bus for BL per write data beat; nothing is checked.
  void ReceiveData();
  // Sends the next read data beat when its time comes.
  void ResponseDataThread();

 private:
  // The bank a command addresses; an address outside the banks in use is a
  // controller fault.
  zel2_bank& BankOf(const DRAMBusPacket& packet);
  void Activate(const DRAMBusPacket& packet);
  void Precharge(const DRAMBusPacket& packet);
  void Refresh(const DRAMBusPacket& packet);
  void Read(const DRAMBusPacket& packet);
  void Write(const DRAMBusPacket& packet);
  // Prints the common text of a command that arrived when it shouldn't have.
  void PrintFailedCommand(const DRAMBusPacket& packet) const;
};

}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak

#endif  // ZEL2_VAULT_H
