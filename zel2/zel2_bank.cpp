// SPDX-License-Identifier: Apache-2.0
#include "zel2/zel2_bank.h"

#include "zel2/zel2_utils.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {

zel2_bank::zel2_bank(sc_core::sc_module_name name) : sc_core::sc_module(name) {
  SC_METHOD(UpdateBankStates);
  sensitive << stateEvent;
  dont_initialize();
}

void zel2_bank::UpdateBankStates() {
  if (lastCommand == PRE) {
    bankState = IDLE;
    transactionWaiting = false;
  } else if (lastCommand == REF) {
    bankState = IDLE;
    refreshWaiting = false;
  } else {
    PlainError() << "In " << name() << " updating bankState from wrong state - Last command : "
                 << static_cast<unsigned>(lastCommand)
                 << "\tCurrent State : " << static_cast<unsigned>(bankState) << std::endl;
    ZEL_ASSERT(lastCommand == PRE || lastCommand == REF);
  }
}

}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak
