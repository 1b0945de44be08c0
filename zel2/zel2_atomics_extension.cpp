// SPDX-License-Identifier: Apache-2.0
#include "zel2/zel2_atomics_extension.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {

void zel2_atomics_extension::copy_from(const tlm::tlm_extension_base& other) {
  command = static_cast<const zel2_atomics_extension&>(other).command;
}

tlm::tlm_extension_base* zel2_atomics_extension::clone() const { return new zel2_atomics_extension(command); }

}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak
