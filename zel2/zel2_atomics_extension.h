// SPDX-License-Identifier: Apache-2.0
// A TLM extension that carries an atomic command on a generic payload, for
// hosts that speak TLM. Nothing inside the model makes or reads it.
#ifndef ZEL2_ATOMICS_EXTENSION_H
#define ZEL2_ATOMICS_EXTENSION_H

#include <tlm>

#include "zel2/zel2_flit.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {

class zel2_atomics_extension : public tlm::tlm_extension<zel2_atomics_extension> {
 public:
  ZELCommand command;

  zel2_atomics_extension(ZELCommand command = NULL_COMMAND)  // NOLINT(google-explicit-constructor)
      : command(command) {}

  // The other extension is taken to be of this type.
  void copy_from(const tlm::tlm_extension_base& other) override;
  tlm::tlm_extension_base* clone() const override;
};

}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak

#endif  // ZEL2_ATOMICS_EXTENSION_H
