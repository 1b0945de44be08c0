// SPDX-License-Identifier: Apache-2.0
#include "apps/zelsim/options.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <limits>
#include <ostream>
#include <type_traits>
#include <utility>

#include "zel2/IniReader.h"

#ifndef ZELSIM_VERSION
#define ZELSIM_VERSION "unknown"
#endif
#ifndef ZELSIM_REVISION
#define ZELSIM_REVISION "unknown"
#endif

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Bench {

namespace {

// The value type of a record field.
template <class T>
constexpr KeyType KeyTypeOf() {
  if constexpr (std::is_same_v<T, sc_core::sc_time>) return KeyType::Time;
  if constexpr (std::is_same_v<T, bool>) return KeyType::Bool;
  if constexpr (std::is_same_v<T, std::string>) return KeyType::String;
  if constexpr (std::is_same_v<T, float>) return KeyType::Float;
  static_assert(std::is_same_v<T, sc_core::sc_time> || std::is_same_v<T, bool> ||
                    std::is_same_v<T, std::string> || std::is_same_v<T, float> ||
                    std::is_same_v<T, std::uint32_t>,
                "a key type zelsim doesn't know");
  return KeyType::Unsigned;
}

std::string Strip(const std::string& text) {
  const char* blanks = " \t\r\n";
  const auto first = text.find_first_not_of(blanks);
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

std::string Upper(std::string text) {
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

std::string UnknownKey(const std::string& name) {
  std::string message = "unknown key '" + name + "'";
  for (const KeyInfo& key : KeyTable()) {
    if (Upper(key.name) == Upper(name)) return message + " (keys are case-sensitive: " + key.name + ")";
  }
  return message;
}

bool AllDigits(const std::string& text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

// A whole text as a float: nothing may follow the number.
bool ParseFloat(const std::string& text, float& value) {
  if (text.empty() || std::isspace(static_cast<unsigned char>(text[0])) != 0) return false;
  errno = 0;
  char* end = nullptr;
  value = std::strtof(text.c_str(), &end);
  return errno == 0 && end != text.c_str() && *end == '\0' && std::isfinite(value);
}

std::string FloatText(float value) {
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%.9g", static_cast<double>(value));
  return buffer;
}

bool ParseUnsignedOption(const std::string& text, uint64_t limit, uint64_t& value) {
  if (!AllDigits(text) || text.size() > 20) return false;
  errno = 0;
  const unsigned long long parsed = std::strtoull(text.c_str(), nullptr, 10);
  if (errno != 0 || parsed > limit) return false;
  value = parsed;
  return true;
}

bool CheckTokenVariable(const char* variable, bool zeroAllowed, std::string& error) {
  const char* text = std::getenv(variable);
  if (text == nullptr) return true;
  uint64_t value = 0;
  if (!ParseUnsignedOption(text, 289, value) || (value == 0 && !zeroAllowed)) {
    error = std::string(variable) + "='" + text + "' is not a token count from " + (zeroAllowed ? "0" : "1") +
            " to 289";
    return false;
  }
  return true;
}

}  // namespace

// ---- Keys ----------------------------------------------------------------

const std::vector<KeyInfo>& KeyTable() {
  static const std::vector<KeyInfo> table = {
#define ZELSIM_KEY_INFO(type, name, def) KeyInfo{#name, KeyTypeOf<decltype(Config::name)>()},
      ZEL_CONFIG_KEYS(ZELSIM_KEY_INFO)
#undef ZELSIM_KEY_INFO
  };
  return table;
}

const KeyInfo* FindKey(const std::string& name) {
  for (const KeyInfo& key : KeyTable()) {
    if (name == key.name) return &key;
  }
  return nullptr;
}

bool CheckValue(const KeyInfo& key, const std::string& text, std::string& canonical, std::string& error) {
  const std::string prefix = "bad value '" + text + "' for key " + key.name + ": ";
  switch (key.type) {
    case KeyType::Unsigned: {
      uint64_t value = 0;
      if (!ParseUnsignedOption(text, std::numeric_limits<std::uint32_t>::max(), value)) {
        error = prefix + "expected an unsigned decimal number below 2^32";
        return false;
      }
      canonical = std::to_string(value);
      return true;
    }
    case KeyType::Float: {
      float value = 0;
      if (!ParseFloat(text, value)) {
        error = prefix + "expected a number";
        return false;
      }
      canonical = FloatText(value);
      return true;
    }
    case KeyType::Time: {
      float value = 0;
      // Up to 1000 s: far beyond any DRAM timing or clock, and well inside
      // what the kernel's picosecond times hold (larger values wrap).
      if (!ParseFloat(text, value) || value < 0 || value > 1e12f) {
        error = prefix + "expected a number of nanoseconds up to 10^12, without a unit";
        return false;
      }
      canonical = FloatText(value);
      return true;
    }
    case KeyType::Bool:
      if (text == "true" || text == "True") {
        canonical = "true";
        return true;
      }
      if (text == "false" || text == "False") {
        canonical = "false";
        return true;
      }
      error = prefix + "expected true or false";
      return false;
    case KeyType::String:
      // The library keeps only the first word of a value, and ";" or "="
      // would change how it splits the line.
      if (text.empty() || text.find_first_of(" \t\r\n;=") != std::string::npos) {
        error = prefix + "expected one word without ';' or '='";
        return false;
      }
      canonical = text;
      return true;
  }
  error = prefix + "unknown type";
  return false;
}

// Checks one "KEY=VALUE" setting, `line` holding the '=' at `equals`, and
// puts it into `overlay`; an error starts with `where`.
static bool ApplySetting(const std::string& line, std::size_t equals, Origin origin, const std::string& where,
                         ConfigOverlay& overlay, std::string& error) {
  const std::string name = Strip(line.substr(0, equals));
  const KeyInfo* key = FindKey(name);
  if (key == nullptr) {
    error = where + (name.empty() ? std::string("no key before '='") : UnknownKey(name));
    return false;
  }
  std::string canonical;
  std::string what;
  if (!CheckValue(*key, Strip(line.substr(equals + 1)), canonical, what)) {
    error = where + what;
    return false;
  }
  overlay[name] = KeySetting{canonical, origin};
  return true;
}

bool ReadConfigFile(const std::string& path, Origin origin, ConfigOverlay& overlay, std::string& error) {
  const std::string from = origin == Origin::EnvironmentFile ? " (LIBZEL_CONFIG_FILE)" : "";
  std::ifstream file(path);
  if (path.empty() || !file.is_open()) {
    error = "can't read configuration file '" + path + "'" + from;
    return false;
  }
  std::string line;
  unsigned lineNumber = 0;
  while (std::getline(file, line)) {
    ++lineNumber;
    const std::string where = "'" + path + "'" + from + " line " + std::to_string(lineNumber) + ": ";
    line = Strip(line.substr(0, line.find(';')));
    if (line.empty()) continue;
    const auto equals = line.find('=');
    if (equals == std::string::npos) {
      error = where + "expected KEY = VALUE, found '" + line + "'";
      return false;
    }
    if (!ApplySetting(line, equals, origin, where, overlay, error)) return false;
  }
  if (file.bad()) {
    error = "can't read configuration file '" + path + "'" + from;
    return false;
  }
  return true;
}

bool ApplyAssignment(const std::string& assignment, ConfigOverlay& overlay, std::string& error) {
  const std::string where = "--set " + assignment + ": ";
  const auto equals = assignment.find('=');
  if (equals == std::string::npos) {
    error = where + "expected KEY=VALUE";
    return false;
  }
  return ApplySetting(assignment, equals, Origin::SetOption, where, overlay, error);
}

void ApplyOverlay(const ConfigOverlay& overlay, Config& cfg) {
  IniReader reader{{}, true, false};
  for (const auto& entry : overlay) reader.values[entry.first] = entry.second.value;
  reader.finish(cfg);
}

bool WriteOverlay(const ConfigOverlay& overlay, std::ostream& out) {
  out << "; Configuration resolved by zelsim from its environment and command line\n";
  for (const auto& entry : overlay) out << entry.first << " = " << entry.second.value << '\n';
  out.flush();
  return static_cast<bool>(out);
}

bool CheckTokenVariables(std::string& error) {
  return CheckTokenVariable("LIBZEL_NUM_TOKENS", false, error) &&
         CheckTokenVariable("ZEL_BFM_NUM_TOKENS", true, error);
}

// ---- Command line ------------------------------------------------------------

ParseStatus ParseCommandLine(int argc, const char* const* argv, Options& options, std::string& error) {
  for (int i = 1; i < argc; ++i) {
    std::string option = argv[i];
    std::string value;
    bool hasValue = false;
    // "--name=value" as well as "--name value".
    const auto equals = option.find('=');
    if (option.rfind("--", 0) == 0 && equals != std::string::npos) {
      value = option.substr(equals + 1);
      option = option.substr(0, equals);
      hasValue = true;
    }
    auto takeValue = [&]() -> bool {
      if (hasValue) return true;
      if (i + 1 >= argc) {
        error = "option " + option + " needs a value (try --help)";
        return false;
      }
      value = argv[++i];
      return true;
    };
    auto flagOnly = [&]() -> bool {
      if (!hasValue) return true;
      error = "option " + option + " takes no value";
      return false;
    };

    if (option == "--help" || option == "-h") {
      if (!flagOnly()) return ParseStatus::Error;
      return ParseStatus::Help;
    }
    if (option == "--version") {
      if (!flagOnly()) return ParseStatus::Error;
      return ParseStatus::Version;
    }
    if (option == "--dump-state") {
      if (!flagOnly()) return ParseStatus::Error;
      options.dumpState = true;
      continue;
    }
    if (option == "--check-rest") {
      if (!flagOnly()) return ParseStatus::Error;
      options.checkRest = true;
      continue;
    }
    if (option == "--no-config-guards") {
      if (!flagOnly()) return ParseStatus::Error;
      options.configGuards = false;
      continue;
    }
    if (option == "--config" || option == "--set") {
      if (!takeValue()) return ParseStatus::Error;
      options.sources.push_back(ConfigSource{option == "--config", value});
      continue;
    }
    if (option == "--json") {
      if (!takeValue()) return ParseStatus::Error;
      if (value.empty()) {
        error = "option --json needs a file name";
        return ParseStatus::Error;
      }
      options.jsonFile = value;
      continue;
    }
    // The options that take an unsigned number: the largest value, what a
    // good value looks like (for the message), any further test, and where
    // the value goes.
    struct NumberOption {
      const char* name;
      uint64_t max;
      const char* expected;
      bool (*valid)(uint64_t);
      std::function<void(uint64_t)> store;
    };
    const auto any = [](uint64_t) { return true; };
    const NumberOption numberOptions[] = {
        {"--seed", std::numeric_limits<uint64_t>::max(), "an unsigned decimal number", any,
         [&](uint64_t n) { options.seed = n; }},
        // Up to 1000 s, which a time of picoseconds holds with room to spare.
        {"--deadlock-timeout", 1000000000000ull, "a number of nanoseconds up to 10^12 (0: off)", any,
         [&](uint64_t n) { options.deadlockTimeoutNs = n; }},
        {"--token-return-wait", 1000000, "a number of core cycles up to 1000000", any,
         [&](uint64_t n) { options.tokenReturnWait = static_cast<unsigned>(n); }},
        {"--cube-size", 2, "0, 1 or 2 (2, 4 or 8 GB)", any,
         [&](uint64_t n) { options.cubeSize = static_cast<int>(n); }},
        {"--link-rate", 60, "40, 50 or 60", [](uint64_t n) { return n == 40 || n == 50 || n == 60; },
         [&](uint64_t n) { options.linkRate = static_cast<unsigned>(n); }},
        {"--lanes", 128, "a lane count from 1 to 128", [](uint64_t n) { return n != 0; },
         [&](uint64_t n) { options.lanes = static_cast<unsigned>(n); }},
    };
    const NumberOption* numberOption = nullptr;
    for (const NumberOption& candidate : numberOptions)
      if (option == candidate.name) numberOption = &candidate;
    if (numberOption != nullptr) {
      if (!takeValue()) return ParseStatus::Error;
      uint64_t number = 0;
      if (!ParseUnsignedOption(value, numberOption->max, number) || !numberOption->valid(number)) {
        error = "bad value '" + value + "' for " + option + ": expected " + numberOption->expected;
        return ParseStatus::Error;
      }
      numberOption->store(number);
      continue;
    }
    error = (option.rfind('-', 0) == 0 ? "unknown option '" : "unexpected argument '") +
            std::string(argv[i]) + "' (try --help)";
    return ParseStatus::Error;
  }
  return ParseStatus::Run;
}

bool ResolveConfiguration(const Options& options, ConfigOverlay& overlay, std::string& error) {
  overlay.clear();
  if (const char* envFile = std::getenv("LIBZEL_CONFIG_FILE")) {
    if (!ReadConfigFile(envFile, Origin::EnvironmentFile, overlay, error)) return false;
  }
  for (const ConfigSource& source : options.sources) {
    const bool ok = source.isFile ? ReadConfigFile(source.text, Origin::ConfigOption, overlay, error)
                                  : ApplyAssignment(source.text, overlay, error);
    if (!ok) return false;
  }
  return true;
}

std::string UsageText() {
  return "Usage: zelsim [OPTION]...\n"
         "Drives a simulated memory cube with request generators through its host\n"
         "interface and reports the model's statistics and its own summary.\n"
         "\n"
         "Configuration (later sources win): compiled defaults, LIBZEL_CONFIG_FILE,\n"
         "LIBZEL_NUM_TOKENS and ZEL_BFM_NUM_TOKENS, then these, in command-line order:\n"
         "  --config FILE       read KEY = VALUE lines from FILE (repeatable)\n"
         "  --set KEY=VALUE     set one key (repeatable)\n"
         "\n"
         "Run:\n"
         "  --seed N            seed of the request generators (default 1)\n"
         "  --cube-size ENC     cube size encoding 0, 1 or 2 (2, 4 or 8 GB)\n"
         "  --link-rate RATE    link rate 40, 50 or 60 (10, 12.5 or 15 Gb/s per lane)\n"
         "  --lanes N           lanes of every link\n"
         "  --check-rest        after the run, drain the cube and check that it is at rest\n"
         "  --deadlock-timeout NS\n"
         "                      stop as deadlocked when no flit moves at the host for NS ns\n"
         "                      of simulated time while traffic is outstanding (default\n"
         "                      100000; 0: never)\n"
         "  --token-return-wait CYCLES\n"
         "                      let freed response space wait CYCLES core cycles for a\n"
         "                      request tail, then go in a TOKEN_RETURN flit while all\n"
         "                      request tokens are back, or after 8 x CYCLES (default 0:\n"
         "                      at once)\n"
         "\n"
         "Output:\n"
         "  --json FILE         write the results as JSON to FILE\n"
         "  --dump-state        print the cube's state at the end of the run\n"
         "  --help              show this text and exit\n"
         "  --version           show the version and exit\n"
         "\n"
         "Exit status:\n"
         "  0  the run ended and every response matched its request\n"
         "  1  responses did not match requests, or (--check-rest) the cube was not at rest\n"
         "  2  the command line or the configuration is wrong, or the cube can't run it\n"
         "     to the end; nothing was simulated\n"
         "  3  the model stopped the run before zelsim finished it (a model error that\n"
         "     ends the program with status 0 on its own)\n"
         "  4  deadlock: traffic outstanding and no flit moved for the deadlock timeout\n"
         "A model error that aborts ends zelsim by its signal.\n"
         "See docs/usage.md for the keys zelsim reads and the trace file format.\n";
}

std::string VersionText() {
  return std::string("zelsim ") + ZELSIM_VERSION + " (revision " + ZELSIM_REVISION + ")\n";
}

}  // namespace Bench
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak
