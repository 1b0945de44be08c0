// SPDX-License-Identifier: Apache-2.0
#include "apps/zelsim/options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
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

const std::vector<std::string>& CorrectionNames() {
  static const std::vector<std::string> names(Corrections::AllNames(),
                                              Corrections::AllNames() + Corrections::kCount);
  return names;
}

namespace {

const char kDescription[] =
    "Drives a simulated memory cube with request generators through its host\n"
    "interface and reports the model's statistics and its own summary.\n"
    "Configuration (later sources win): compiled defaults, LIBZEL_CONFIG_FILE,\n"
    "LIBZEL_NUM_TOKENS and ZEL_BFM_NUM_TOKENS, then --config and --set in\n"
    "command-line order.";

const char kFooter[] =
    "Exit status:\n"
    "  0  the run ended and every response matched its request\n"
    "  1  responses did not match requests, (--check-rest) the cube was not at rest,\n"
    "     or an output file could not be written at the end\n"
    "  2  the command line or the configuration is wrong, or the cube can't run it\n"
    "     to the end; nothing was simulated\n"
    "  3  the model stopped the run before zelsim finished it (a model error that\n"
    "     ends the program with status 0 on its own)\n"
    "  4  deadlock: traffic outstanding and no flit moved for the deadlock timeout\n"
    "A model error that aborts ends zelsim by its signal.\n"
    "See docs/usage.md for the keys zelsim reads, the outputs and the trace format.";

// What the parser collects beyond Options: the values of the repeatable
// options, put in order once the whole line is read.
struct Collected {
  CLI::Option* config = nullptr;
  CLI::Option* set = nullptr;
  CLI::Option* progressOn = nullptr;
  CLI::Option* progressOff = nullptr;
  std::vector<std::string> configFiles;
  std::vector<std::string> assignments;
  std::vector<std::string> corrections;
  bool showProgress = false;
  bool hideProgress = false;
  bool noConfigGuards = false;
};

// An option that takes an unsigned decimal number up to `max` that passes
// `valid`; `expected` describes a good value for the message.
CLI::Option* AddNumber(CLI::App& app, const std::string& name, const std::string& typeName,
                       const std::string& help, uint64_t max, const std::string& expected,
                       std::function<bool(uint64_t)> valid, std::function<void(uint64_t)> store) {
  const CLI::Validator check(
      [=](std::string& text) {
        uint64_t value = 0;
        if (ParseUnsignedOption(text, max, value) && valid(value)) return std::string();
        return "bad value '" + text + "': expected " + expected;
      },
      "");
  return app
      .add_option_function<std::string>(
          name,
          [=](const std::string& text) {
            uint64_t value = 0;
            ParseUnsignedOption(text, max, value);
            store(value);
          },
          help)
      ->type_name(typeName)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
      ->check(check);
}

// An option that names a file to write.
CLI::Option* AddFile(CLI::App& app, const std::string& name, std::string& file, const std::string& help) {
  const CLI::Validator named(
      [](std::string& text) { return text.empty() ? std::string("needs a file name") : std::string(); }, "");
  return app.add_option(name, file, help)
      ->type_name("FILE")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
      ->check(named);
}

CLI::Option* AddFlag(CLI::App& app, const std::string& name, bool& flag, const std::string& help) {
  return app.add_flag(name, flag, help)
      ->disable_flag_override()
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
}

std::string Joined(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : ", ") + word;
  return text;
}

void DefineOptions(CLI::App& app, Options& options, Collected& c) {
  app.description(kDescription);
  app.footer(kFooter);
  app.get_formatter()->column_width(28);
  // Unknown options and stray words get zelsim's own message (see below).
  app.allow_extras();
  app.set_version_flag("--version", VersionText(), "Show the version and exit");
  app.set_help_flag("-h,--help", "Show this text and exit");

  const std::string configuration = "Configuration";
  c.config = app.add_option("--config", c.configFiles, "Read KEY = VALUE lines from FILE (repeatable)")
                 ->type_name("FILE")
                 ->type_size(1)
                 ->allow_extra_args(false)
                 ->group(configuration);
  c.set = app.add_option("--set", c.assignments, "Set one key (repeatable)")
              ->type_name("KEY=VALUE")
              ->type_size(1)
              ->allow_extra_args(false)
              ->group(configuration);

  const std::string run = "Run";
  const auto any = [](uint64_t) { return true; };
  AddNumber(app, "--seed", "N", "Seed of the request generators (default 1)",
            std::numeric_limits<uint64_t>::max(), "an unsigned decimal number", any,
            [&options](uint64_t n) { options.seed = n; })
      ->group(run);
  AddNumber(app, "--cube-size", "ENC", "Cube size encoding 0, 1 or 2 (2, 4 or 8 GB)", 2,
            "0, 1 or 2 (2, 4 or 8 GB)", any,
            [&options](uint64_t n) { options.cubeSize = static_cast<int>(n); })
      ->group(run);
  AddNumber(
      app, "--link-rate", "RATE", "Link rate 40, 50 or 60 (10, 12.5 or 15 Gb/s per lane)", 60, "40, 50 or 60",
      [](uint64_t n) { return n == 40 || n == 50 || n == 60; },
      [&options](uint64_t n) { options.linkRate = static_cast<unsigned>(n); })
      ->group(run);
  AddNumber(
      app, "--lanes", "N", "Lanes of every link", 128, "a lane count from 1 to 128",
      [](uint64_t n) { return n != 0; }, [&options](uint64_t n) { options.lanes = static_cast<unsigned>(n); })
      ->group(run);
  AddFlag(app, "--check-rest", options.checkRest,
          "After the run, drain the cube and check that it is at rest")
      ->group(run);
  // Up to 1000 s, which a time of picoseconds holds with room to spare.
  AddNumber(app, "--deadlock-timeout", "NS", "Deadlocked after NS ns without a flit moving (100000; 0: off)",
            1000000000000ull, "a number of nanoseconds up to 10^12 (0: off)", any,
            [&options](uint64_t n) { options.deadlockTimeoutNs = n; })
      ->group(run);
  AddNumber(app, "--token-return-wait", "CYCLES", "Core cycles response tokens wait for a request tail (0)",
            1000000, "a number of core cycles up to 1000000", any,
            [&options](uint64_t n) { options.tokenReturnWait = static_cast<unsigned>(n); })
      ->group(run);
  const CLI::Validator knownCorrection(
      [](std::string& name) {
        const std::vector<std::string>& names = CorrectionNames();
        if (name == "all" || std::find(names.begin(), names.end(), name) != names.end()) return std::string();
        return "unknown correction '" + name + "' (known: " + Joined(names) + ", all)";
      },
      "");
  app.add_option("--correct", c.corrections,
                 "Correct the model: " + Joined(CorrectionNames()) + " or all (repeatable)")
      ->type_name("NAME")
      ->type_size(1)
      ->allow_extra_args(false)
      ->check(knownCorrection)
      ->group(run);
  // For tests: an empty group keeps it out of the help.
  AddFlag(app, "--no-config-guards", c.noConfigGuards, "")->group("");

  const std::string output = "Output";
  AddFile(app, "--json", options.jsonFile, "Write the results as JSON to FILE")->group(output);
  AddFile(app, "--report", options.reportFile, "Write the model's own text to FILE, not to standard output")
      ->group(output);
  AddFile(app, "--timeline", options.timelineFile, "Write a CSV row per interval to FILE")->group(output);
  AddNumber(
      app, "--interval", "NS", "Interval of the timeline in ns (default 1000)", 1000000000000ull,
      "a number of nanoseconds from 1 to 10^12", [](uint64_t n) { return n != 0; },
      [&options](uint64_t n) { options.intervalNs = n; })
      ->group(output);
  AddFile(app, "--vcd", options.vcdFile, "Write a VCD of the links' signals to FILE")->group(output);
  AddFile(app, "--responses", options.responsesFile, "Write a line per flit the host takes to FILE")
      ->group(output);
  c.progressOn = AddFlag(app, "--progress", c.showProgress, "Show progress on standard error")->group(output);
  c.progressOff =
      AddFlag(app, "--no-progress", c.hideProgress, "Don't (default: only on a terminal)")->group(output);
  AddFlag(app, "--dump-state", options.dumpState, "Print the cube's state at the end of the run")
      ->group(output);
}

}  // namespace

ParseStatus ParseCommandLine(int argc, const char* const* argv, Options& options, std::string& error) {
  CLI::App app("", "zelsim");
  Collected c;
  DefineOptions(app, options, c);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    return ParseStatus::Help;
  } catch (const CLI::CallForAllHelp&) {
    return ParseStatus::Help;
  } catch (const CLI::CallForVersion&) {
    return ParseStatus::Version;
  } catch (const CLI::ParseError& e) {
    error = std::string(e.what()) + " (try --help)";
    return ParseStatus::Error;
  }
  const std::vector<std::string> extras = app.remaining();
  if (!extras.empty()) {
    error = (extras.front().rfind('-', 0) == 0 ? "unknown option '" : "unexpected argument '") +
            extras.front() + "' (try --help)";
    return ParseStatus::Error;
  }
  // --config and --set in the order they stand on the command line, and
  // the last of --progress and --no-progress.
  std::size_t nextFile = 0;
  std::size_t nextAssignment = 0;
  for (const CLI::Option* option : app.parse_order()) {
    if (option == c.config) options.sources.push_back(ConfigSource{true, c.configFiles[nextFile++]});
    if (option == c.set) options.sources.push_back(ConfigSource{false, c.assignments[nextAssignment++]});
    if (option == c.progressOn) options.progress = ProgressMode::On;
    if (option == c.progressOff) options.progress = ProgressMode::Off;
  }
  options.configGuards = !c.noConfigGuards;
  const bool all = std::find(c.corrections.begin(), c.corrections.end(), "all") != c.corrections.end();
  for (const std::string& name : CorrectionNames()) {
    if (all || std::find(c.corrections.begin(), c.corrections.end(), name) != c.corrections.end())
      options.corrections.push_back(name);
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
  CLI::App app("", "zelsim");
  Options options;
  Collected c;
  DefineOptions(app, options, c);
  return app.help();
}

std::string VersionText() {
  return std::string("zelsim ") + ZELSIM_VERSION + " (revision " + ZELSIM_REVISION + ")\n";
}

}  // namespace Bench
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak
