// SPDX-License-Identifier: Apache-2.0
#include "zel2/IniReader.h"

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <limits>
#include <list>
#include <sstream>
#include <type_traits>

#include "zel2/zel2_utils.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {

namespace {

const unsigned long kNoPieceLimit = std::numeric_limits<unsigned long>::max();

// Extracts one T from the start of `text`, as a stream reads it; text after
// it is ignored.
template <class T>
bool Extract(const std::string& text, T& value) {
  std::istringstream in(text);
  in >> value;
  return !in.fail();  // neither fail bit nor bad bit
}

}  // namespace

bool IniReader::readFile(const std::string& fileName, Config& /*config*/) {
  std::ifstream file(fileName);
  if (!file.is_open()) {
    std::cerr << "Can't open '" << fileName << "'" << std::endl;
    FatalAbort();
  }
  std::cerr << "Reading ini file '" << fileName << "'\n";

  std::string line;
  while (std::getline(file, line)) {
    // ";" starts a comment anywhere in the line.
    line = split(line, ";", kNoPieceLimit).front();
    if (line.empty()) continue;
    // Exactly one key and one value; a run of "=" counts as one.
    const std::list<std::string> pieces = split(line, "=", kNoPieceLimit);
    if (pieces.size() != 2) continue;
    // Only blanks and tabs are stripped: a DOS carriage return stays in the value.
    values[strip(pieces.front(), " \t")] = strip(pieces.back(), " \t");
  }
  return file.is_open();
}

bool IniReader::finish(Config& config) {
  // Floats have no read() of their own; they are read here.
  auto readKey = [this](const std::string& key, auto& target) -> bool {
    if constexpr (std::is_same_v<std::decay_t<decltype(target)>, float>) {
      const std::string* text = getValue(key);
      if (text == nullptr) return false;
      float value;
      if (!Extract(*text, value)) return false;
      target = value;
      return true;
    } else {
      return read(key, target);
    }
  };

  // Every key is tried, even after one has failed.
  bool allRead = true;
#define ZEL_CONFIG_READ_KEY(type, name, def) allRead = readKey(#name, config.name) && allRead;
  ZEL_CONFIG_KEYS(ZEL_CONFIG_READ_KEY)
#undef ZEL_CONFIG_READ_KEY

  // A supplied key counts as set whether or not its value parsed.
  for (const auto& entry : values) {
    const auto count = config.keyCounts.find(entry.first);
    if (count != config.keyCounts.end()) ++count->second;
  }
  return allRead;
}

bool IniReader::read(const std::string& key, sc_core::sc_time& target) {
  const std::string* text = getValue(key);
  if (text == nullptr) return false;
  float ns;
  if (!Extract(*text, ns)) return false;
  target = ns == 0 ? sc_core::SC_ZERO_TIME : sc_core::sc_time(static_cast<double>(ns), sc_core::SC_NS);
  return true;
}

bool IniReader::read(const std::string& key, bool& target) {
  const std::string* text = getValue(key);
  if (text == nullptr) return false;
  target = *text == "True" || *text == "true";
  return true;
}

bool IniReader::read(const std::string& key, unsigned& target) {
  const std::string* text = getValue(key);
  if (text == nullptr) return false;
  unsigned value;
  if (!Extract(*text, value)) return false;
  target = value;
  return true;
}

bool IniReader::read(const std::string& key, std::string& target) {
  const std::string* text = getValue(key);
  if (text == nullptr) return false;
  std::string word;
  if (!Extract(*text, word)) return false;
  target = word;
  return true;
}

const std::string* IniReader::getValue(const std::string& key) {
  const auto found = values.find(key);
  if (found != values.end()) return &found->second;
  if (failOnUnset) {
    std::cerr << "ERROR: key '" << key << "' is unset" << std::endl;
    FatalAbort();
  }
  return nullptr;
}

}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak
