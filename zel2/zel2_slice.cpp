// SPDX-License-Identifier: Apache-2.0
#include "zel2/zel2_slice.h"

#include <iostream>
#include <string>

#include "zel2/zel2_vault.h"
#include "zel2/zel2_vault_controller.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {

zel2_slice::zel2_slice(sc_core::sc_module_name name, const Config& cfg, StatsKeeper& stats, unsigned id)
    : sc_module(name),
      flitsOut("flitsOut"),
      flitsIn("flitsIn"),
      commandCreditOut("commandCreditOut"),
      responseCreditIn("responseCreditIn"),
      writeCreditOut("writeCreditOut"),
      dramWriteData("dramWriteData"),
      dramReadData("dramReadData"),
      dramCommands("dramCommands"),
      vault(nullptr),
      vaultController(nullptr),
      cfg(cfg),
      stats(stats),
      id(id) {
  vault = new zel2_vault(("vault" + std::to_string(id)).c_str(), cfg, stats, id);
  vaultController = new zel2_vault_controller(("vaultController" + std::to_string(id)).c_str(), cfg, stats, id);

  flitsIn.init(cfg.FLITS_IN_PER_CYCLE_VC);
  flitsOut.init(cfg.FLITS_OUT_PER_CYCLE_VC);
  for (unsigned j = 0; j < cfg.FLITS_OUT_PER_CYCLE_VC; ++j) vaultController->flitsOut[j](flitsOut[j]);
  for (unsigned j = 0; j < cfg.FLITS_IN_PER_CYCLE_VC; ++j) vaultController->flitsIn[j](flitsIn[j]);
  vaultController->commandCreditOut(commandCreditOut);
  vaultController->responseCreditIn(responseCreditIn);
  vaultController->writeCreditOut(writeCreditOut);
  vaultController->dramCommandOut(dramCommands);
  vaultController->dramDataIn(dramReadData);
  vaultController->dramDataOut(dramWriteData);

  vault->dramCommandIn(dramCommands);
  vault->dramDataIn(dramWriteData);
  vault->dramDataOut(dramReadData);
}

void zel2_slice::DumpState() {
  std::cout << "== Slice" << id << std::endl;
  vaultController->DumpState();
}

}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak
