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

// ---- Corrections

namespace {
const char* const kCorrectionNames[Corrections::kCount] = {"smoothing-stall", "bank-ownership"};
}  // namespace

const char* const* Corrections::AllNames() { return kCorrectionNames; }

std::vector<std::string> Corrections::List() const {
  const bool on[kCount] = {smoothingStall, bankOwnership};
  std::vector<std::string> names;
  for (unsigned i = 0; i < kCount; ++i)
    if (on[i]) names.push_back(kCorrectionNames[i]);
  return names;
}

std::string Corrections::Names() const {
  std::string names;
  for (const std::string& name : List()) names += (names.empty() ? "" : ", ") + name;
  return names;
}

bool Corrections::Enable(const std::string& name) {
  if (name == "all") {
    smoothingStall = bankOwnership = true;
  } else if (name == kCorrectionNames[0]) {
    smoothingStall = true;
  } else if (name == kCorrectionNames[1]) {
    bankOwnership = true;
  } else {
    return false;
  }
  return true;
}

bool Corrections::EnableList(const std::string& list, std::string& unknown) {
  Corrections chosen = *this;
  std::size_t start = 0;
  while (start <= list.size()) {
    std::size_t end = list.find(',', start);
    if (end == std::string::npos) end = list.size();
    const std::string name = strip(list.substr(start, end - start), " \t");
    start = end + 1;
    if (name.empty()) continue;
    if (!chosen.Enable(name)) {
      unknown = name;
      return false;
    }
  }
  *this = chosen;
  return true;
}

// ---- Record

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

unsigned Config::LinkWidth(unsigned link) const {
  switch (link) {
    case 0:
      return LINK_0_WIDTH;
    case 1:
      return LINK_1_WIDTH;
    case 2:
      return LINK_2_WIDTH;
    default:
      return LINK_3_WIDTH;
  }
}

}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak
