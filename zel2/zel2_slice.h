// SPDX-License-Identifier: Apache-2.0
// One vault of the cube with its controller. No behaviour of its own: the
// constructor binds the controller to the vault and to the slice's ports.
#ifndef ZEL2_SLICE_H
#define ZEL2_SLICE_H

#include <systemc>

#include "zel2/Config.h"
#include "zel2/StatsKeeper.h"
#include "zel2/zel2_flit.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {

class zel2_vault;
class zel2_vault_controller;

class zel2_slice : public sc_core::sc_module {
 public:
  // ---- Ports
  sc_core::sc_vector<sc_core::sc_out<Flit_P>> flitsOut;  // response flits to the vault switch
  sc_core::sc_vector<sc_core::sc_in<Flit_P>> flitsIn;    // request flits from the link switch
  sc_core::sc_out<bool> commandCreditOut;                // command credit pulses to the link switch
  sc_core::sc_in<int> responseCreditIn;                  // response credits from the vault switch
  sc_core::sc_out<int> writeCreditOut;                   // write credits to the link switch

  // ---- The vault's internal bus
  sc_core::sc_signal<DRAMBusPacket> dramWriteData;  // controller to vault
  sc_core::sc_signal<DRAMBusPacket> dramReadData;   // vault to controller
  sc_core::sc_signal<DRAMBusPacket> dramCommands;   // controller to vault

  zel2_vault* vault;
  zel2_vault_controller* vaultController;
  const Config& cfg;
  StatsKeeper& stats;
  unsigned id;  // cube-wide vault number

  zel2_slice(sc_core::sc_module_name name, const Config& cfg, StatsKeeper& stats, unsigned id);

  void DumpState();
};

}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak

#endif  // ZEL2_SLICE_H
