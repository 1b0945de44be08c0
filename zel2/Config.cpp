// SPDX-License-Identifier: Apache-2.0
#include "zel2/Config.h"

#include <iostream>

#include "zel2/zel2_utils.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {

namespace {

// Value texts of print(): a time as sc_time prints itself, a flag as 1 or 0,
// a float widened to double in the stream's current format.
void PrintValue(std::ostream& out, const sc_core::sc_time& value) { value.print(out); }
void PrintValue(std::ostream& out, bool value) { out << (value ? 1 : 0); }
void PrintValue(std::ostream& out, std::uint32_t value) { out << value; }
void PrintValue(std::ostream& out, const std::string& value) { out << value; }
void PrintValue(std::ostream& out, float value) { out << static_cast<double>(value); }

}  // namespace

// Making the 1 ps time below fixes the simulator's time resolution, as any
// sc_time made from a unit does; the defaults are scaled at that resolution.
Config::Config()
    : ticksPerPs(static_cast<std::uint32_t>(sc_core::sc_time(1, sc_core::SC_PS) /
                                            sc_core::sc_get_time_resolution())) {
#define ZEL_CONFIG_ENTER_KEY(type, name, def) keyCounts[#name] = 0;
  ZEL_CONFIG_KEYS(ZEL_CONFIG_ENTER_KEY)
#undef ZEL_CONFIG_ENTER_KEY

  if (ticksPerPs == 0) {
    std::cerr << "WARNING: Your time resolution of ";
    sc_core::sc_get_time_resolution().print(std::cerr);
    std::cerr << " is below the required 1ps time resolution" << '\n';
  }
}

void Config::print(std::ostream& out, bool onlySetKeys) const {
  auto printKey = [&](const char* typeWord, const char* key, const auto& value) {
    const auto count = keyCounts.find(key);
    if (count == keyCounts.end()) return;
    if (count->second != 0) {
      out << "[*] ";
    } else if (onlySetKeys) {
      return;
    }
    out << "[" << typeWord << "]: '" << key << "'=";
    PrintValue(out, value);
    out << '\n';
  };
#define ZEL_CONFIG_PRINT_KEY(type, name, def) printKey(#type, #name, name);
  ZEL_CONFIG_KEYS(ZEL_CONFIG_PRINT_KEY)
#undef ZEL_CONFIG_PRINT_KEY
}

sc_core::sc_time Config::NextCoreEdgeDelay() const { return NextEdgeDelay(CORE_CLK, ticksPerPs); }

}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak
