// SPDX-License-Identifier: Apache-2.0
// Reader of configuration files: plain text, one "KEY = value" per line, ";"
// starts a comment. readFile() collects the pairs, finish() copies them into
// a Config. The reader is forgiving: lines it can't use, keys the record
// doesn't know and values that don't parse are passed over in silence.
#ifndef ZEL2_INIREADER_H
#define ZEL2_INIREADER_H

#include <map>
#include <string>

#include <systemc>

#include "zel2/Config.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {

// Has no constructor of its own: whoever makes one gives all three fields,
// as in `IniReader reader{{}, true, false};`.
struct IniReader {
  // Value text of each key read from files; the last line of a key wins.
  std::map<std::string, std::string> values;
  // Set by every maker of a reader; nothing reads it.
  bool markerFlag;
  // When true, asking for a key that no file supplied ends the program.
  bool failOnUnset;

  // Adds the pairs of a file to `values`. A file that can't be opened ends
  // the program. Returns true (the file stayed open).
  bool readFile(const std::string& fileName, Config& config);

  // Copies every key found in `values` into `config`, in record order, and
  // counts each supplied key in config.keyCounts. True only if all keys of
  // the record were present and parsed.
  bool finish(Config& config);

  // Each writes `target` and returns true when the key is present and its
  // value parses; otherwise `target` stays as it was.
  bool read(const std::string& key, sc_core::sc_time& target);  // a number of ns
  bool read(const std::string& key, bool& target);  // "true"/"True"; never fails
  bool read(const std::string& key, unsigned& target);
  bool read(const std::string& key, std::string& target);  // the first word

  // Value text of `key`, or nullptr when it is missing (which ends the
  // program when failOnUnset is set).
  const std::string* getValue(const std::string& key);
};

}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak

#endif  // ZEL2_INIREADER_H
