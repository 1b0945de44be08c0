// SPDX-License-Identifier: Apache-2.0
// The zelsim command line, and a strict reader of configuration keys. The
// library's own reader is lax by design (unknown keys and bad values pass in
// silence); zelsim checks every key and value it is given and refuses a run
// that would not do what its user wrote.
#ifndef ZELSIM_OPTIONS_H
#define ZELSIM_OPTIONS_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "zel2/Config.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Bench {

// The value types of the key table.
enum class KeyType { Time, Unsigned, Bool, String, Float };

struct KeyInfo {
  const char* name;
  KeyType type;
};

// All keys of the configuration record, in record order, with their types.
const std::vector<KeyInfo>& KeyTable();
// The entry of a key, or nullptr for a key the record doesn't have.
const KeyInfo* FindKey(const std::string& name);

// Checks `text` as a value of `key` and gives its canonical text, the one
// the library's reader reads back to the same value. Unsigned numbers are
// decimal, times a plain number of nanoseconds, flags true or false (or True,
// False), strings one word. On failure `error` says why, naming the key.
bool CheckValue(const KeyInfo& key, const std::string& text, std::string& canonical, std::string& error);

// Where a key's value came from, lowest precedence first.
enum class Origin { EnvironmentFile, ConfigOption, SetOption };

struct KeySetting {
  std::string value;  // canonical text
  Origin origin;
};

// Keys given by configuration sources, by name; a later source replaces an
// earlier one's value.
using ConfigOverlay = std::map<std::string, KeySetting>;

// Reads a configuration file strictly: "KEY = VALUE" lines, ";" starts a
// comment, blank lines are skipped, surrounding blanks (and a DOS line end)
// are ignored. Any other line, an unknown key or a bad value fails with a
// one-line message naming the file, the line and the key.
bool ReadConfigFile(const std::string& path, Origin origin, ConfigOverlay& overlay, std::string& error);
// One --set argument, "KEY=VALUE".
bool ApplyAssignment(const std::string& assignment, ConfigOverlay& overlay, std::string& error);
// Copies the overlay into a record through the library's own reader, so that
// values mean exactly what they mean to the library.
void ApplyOverlay(const ConfigOverlay& overlay, Config& cfg);
// Writes the overlay as a configuration file that the library reads.
bool WriteOverlay(const ConfigOverlay& overlay, std::ostream& out);

// The token variables of the environment must be decimal numbers below 290
// (LIBZEL_NUM_TOKENS also above 0), or the library would stop on them.
bool CheckTokenVariables(std::string& error);

// One configuration source of the command line, in the order given.
struct ConfigSource {
  bool isFile;       // --config FILE, else --set KEY=VALUE
  std::string text;  // the file name or the assignment
};

// The corrections of known model faults that a run can ask for, in the order
// in which they are listed and recorded.
const std::vector<std::string>& CorrectionNames();

// Whether the progress display is drawn: by default only when standard error
// is a terminal.
enum class ProgressMode { Auto, On, Off };

struct Options {
  std::vector<ConfigSource> sources;
  uint64_t seed = 1;
  std::string jsonFile;        // empty: no JSON
  std::string reportFile;      // the model's own text goes there; empty: to standard output
  std::string timelineFile;    // empty: no timeline
  uint64_t intervalNs = 1000;  // of the timeline
  std::string vcdFile;         // empty: no VCD of the links
  std::string responsesFile;   // empty: no log of the flits taken
  ProgressMode progress = ProgressMode::Auto;
  // The corrections asked for, `all` expanded, in the order of
  // CorrectionNames(), each once.
  std::vector<std::string> corrections;
  bool dumpState = false;
  // After the run: drain the cube, flush the vault switches' parked credits
  // and check that every block is back at rest.
  bool checkRest = false;
  int cubeSize = -1;      // setCubeSize encoding 0, 1, 2; -1: leave the configuration's
  unsigned linkRate = 0;  // setLinkParams rate 40, 50, 60; 0: not asked for
  unsigned lanes = 0;     // setLinkParams lanes; 0: not asked for
  // Simulated time without a flit sent or received at the host, while
  // traffic is outstanding, after which the run is taken as deadlocked; 0
  // turns the watchdog off.
  uint64_t deadlockTimeoutNs = 100000;
  unsigned tokenReturnWait = 0;  // HostSetup::tokenReturnWait
  // False (--no-config-guards, for tests only): skip the refusal of
  // configurations that the cube can't run to the end.
  bool configGuards = true;
};

enum class ParseStatus { Run, Help, Version, Error };

// Reads the command line. Error: `error` holds a one-line message.
ParseStatus ParseCommandLine(int argc, const char* const* argv, Options& options, std::string& error);

// Applies the configuration sources in order: LIBZEL_CONFIG_FILE, when set,
// then the --config and --set arguments as they stand on the command line.
bool ResolveConfiguration(const Options& options, ConfigOverlay& overlay, std::string& error);

std::string UsageText();
std::string VersionText();

}  // namespace Bench
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak

#endif  // ZELSIM_OPTIONS_H
