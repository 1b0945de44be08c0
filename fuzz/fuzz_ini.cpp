// SPDX-License-Identifier: Apache-2.0
// Fuzz harness of the configuration file reader. Each input is written to a
// file and read the way the library reads its configuration file: a fresh
// Config, a reader made as `IniReader reader{{}, true, false}`, readFile,
// finish, then print. The reader may skip lines and keep defaults, but it
// must never crash or hang, and what it keeps must match the file syntax,
// which this harness works out on its own:
//   - the table of pairs equals the one computed here from the raw lines (";"
//     cuts a comment, exactly one run of "=" per line, blanks and tabs
//     stripped, the last line of a key wins);
//   - the reader says "Reading ini file '<name>'" on standard error and
//     nothing else;
//   - a key the file doesn't give keeps its compiled default and a count of 0;
//     a given key has a count of 1; no other key enters the counts;
//   - a given key holds what its value text means for its type wherever that
//     is plain (flags, words, short decimal numbers), and its default where the
//     text doesn't begin with a number;
//   - finish returns false when a key is missing or a value can't parse, and
//     true when all are given and plain;
//   - print lists the 141 keys in record order, "[*] " exactly on the given
//     ones, and with onlySetKeys just the given ones.
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "zel2/Config.h"
#include "zel2/IniReader.h"

using Sornak::Internal::ZEL2::Config;
using Sornak::Internal::ZEL2::IniReader;
using ZelFuzz::GetlineLines;
using ZelFuzz::IsDigit;
using ZelFuzz::IsStreamSpace;

namespace {

// ---- What the file means, worked out independently of the reader ---------

std::string StripBlanks(const std::string& text) {
  size_t begin = 0;
  size_t end = text.size();
  while (begin < end && (text[begin] == ' ' || text[begin] == '\t')) ++begin;
  while (end > begin && (text[end - 1] == ' ' || text[end - 1] == '\t')) --end;
  return text.substr(begin, end - begin);
}

// The pairs a file gives: per line, the text before the first ';'; a
// non-empty line with exactly one run of '=' is a pair.
std::map<std::string, std::string> ExpectedPairs(const std::string& text) {
  std::map<std::string, std::string> pairs;
  for (std::string line : GetlineLines(text)) {
    line = line.substr(0, line.find(';'));
    if (line.empty()) continue;
    const size_t runStart = line.find('=');
    if (runStart == std::string::npos) continue;
    const size_t runEnd = line.find_first_not_of('=', runStart);
    if (runEnd != std::string::npos && line.find('=', runEnd) != std::string::npos) continue;
    pairs[StripBlanks(line.substr(0, runStart))] =
        StripBlanks(runEnd == std::string::npos ? std::string() : line.substr(runEnd));
  }
  return pairs;
}

// What the harness can say about a value text of a given type.
enum class Parse { kOk, kFails, kUnknown };

size_t SkipSpace(const std::string& text) {
  size_t pos = 0;
  while (pos < text.size() && IsStreamSpace(text[pos])) ++pos;
  return pos;
}

// Number text the stream can't even start to read: keeps the default.
bool CannotStartNumber(const std::string& text, bool allowPoint) {
  const size_t pos = SkipSpace(text);
  if (pos == text.size()) return true;
  const char c = text[pos];
  return !(IsDigit(c) || c == '+' || c == '-' || (allowPoint && c == '.'));
}

Parse Expect(const std::string& text, const uint32_t&, uint32_t& expected) {
  if (CannotStartNumber(text, false)) return Parse::kFails;
  size_t pos = SkipSpace(text);
  if (!IsDigit(text[pos])) return Parse::kUnknown;  // signs: left to the stream's rules
  uint64_t value = 0;
  for (; pos < text.size() && IsDigit(text[pos]); ++pos) {
    value = value * 10 + static_cast<uint64_t>(text[pos] - '0');
    if (value > UINT_MAX) return Parse::kFails;  // out of range: the stream fails
  }
  expected = static_cast<uint32_t>(value);
  return Parse::kOk;
}

// A plain decimal float: digits, optionally a point and more digits, then no
// exponent. Longer texts are left alone so that no rounding edge is judged.
Parse ExpectFloat(const std::string& text, float& expected) {
  if (CannotStartNumber(text, true)) return Parse::kFails;
  const size_t begin = SkipSpace(text);
  size_t pos = begin;
  while (pos < text.size() && IsDigit(text[pos])) ++pos;
  if (pos == begin) return Parse::kUnknown;
  if (pos < text.size() && text[pos] == '.') {
    ++pos;
    while (pos < text.size() && IsDigit(text[pos])) ++pos;
  }
  if (pos < text.size() && (text[pos] == 'e' || text[pos] == 'E' || text[pos] == '.')) return Parse::kUnknown;
  if (pos - begin > 30) return Parse::kUnknown;
  expected = std::strtof(text.substr(begin, pos - begin).c_str(), nullptr);
  return Parse::kOk;
}

Parse Expect(const std::string& text, const float&, float& expected) { return ExpectFloat(text, expected); }

Parse Expect(const std::string& text, const sc_core::sc_time&, sc_core::sc_time& expected) {
  float ns = 0;
  const Parse parse = ExpectFloat(text, ns);
  if (parse == Parse::kOk) {
    expected = ns == 0 ? sc_core::SC_ZERO_TIME : sc_core::sc_time(static_cast<double>(ns), sc_core::SC_NS);
  }
  return parse;
}

Parse Expect(const std::string& text, const bool&, bool& expected) {
  expected = text == "true" || text == "True";
  return Parse::kOk;
}

Parse Expect(const std::string& text, const std::string&, std::string& expected) {
  size_t begin = SkipSpace(text);
  if (begin == text.size()) return Parse::kFails;
  size_t end = begin;
  while (end < text.size() && !IsStreamSpace(text[end])) ++end;
  expected = text.substr(begin, end - begin);
  return Parse::kOk;
}

// Checks one key of the record after finish and notes what finish must return.
struct KeyChecker {
  const std::map<std::string, std::string>& values;
  const Config& config;
  bool someMissingOrBad = false;
  bool someUnknown = false;

  template <class T>
  void Check(const char* key, const T& got, const T& def) {
    const auto count = config.keyCounts.find(key);
    FUZZ_CHECK(count != config.keyCounts.end(), std::string("key ") + key + " left the counts");
    const auto found = values.find(key);
    if (found == values.end()) {
      FUZZ_CHECK(got == def, std::string("key ") + key + " changed, but the file doesn't give it");
      FUZZ_CHECK(count->second == 0, std::string("key ") + key + " counted, but the file doesn't give it");
      someMissingOrBad = true;
      return;
    }
    FUZZ_CHECK(count->second == 1, std::string("key ") + key + " given once, counted " +
                                       std::to_string(count->second));
    T expected = def;
    switch (Expect(found->second, def, expected)) {
      case Parse::kOk:
        FUZZ_CHECK(got == expected, std::string("key ") + key + " from '" + found->second + "'");
        break;
      case Parse::kFails:
        FUZZ_CHECK(got == def, std::string("key ") + key + " changed by the bad value '" + found->second + "'");
        someMissingOrBad = true;
        break;
      case Parse::kUnknown:
        someUnknown = true;
        break;
    }
  }
};

struct KeyInfo {
  const char* type;
  const char* name;
};

const KeyInfo kKeys[] = {
#define ZEL_FUZZ_KEY_INFO(type, name, def) {#type, #name},
    ZEL_CONFIG_KEYS(ZEL_FUZZ_KEY_INFO)
#undef ZEL_FUZZ_KEY_INFO
};

// print: one line per key in record order, marked when the file gave the key.
void CheckPrint(const Config& config, const std::map<std::string, std::string>& values) {
  std::ostringstream all;
  config.print(all, false);
  std::ostringstream given;
  config.print(given, true);
  const std::vector<std::string> allLines = GetlineLines(all.str());
  const std::vector<std::string> givenLines = GetlineLines(given.str());
  FUZZ_CHECK(!all.str().empty() && all.str().back() == '\n', "print ends its last line");
  FUZZ_CHECK(allLines.size() == sizeof kKeys / sizeof kKeys[0],
             "print gave " + std::to_string(allLines.size()) + " lines");
  size_t next = 0;
  for (size_t i = 0; i < allLines.size(); ++i) {
    const bool set = values.count(kKeys[i].name) != 0;
    const std::string prefix =
        std::string(set ? "[*] " : "") + "[" + kKeys[i].type + "]: '" + kKeys[i].name + "'=";
    FUZZ_CHECK(allLines[i].compare(0, prefix.size(), prefix) == 0, "line '" + allLines[i] + "' for " + prefix);
    if (set) {
      FUZZ_CHECK(next < givenLines.size() && givenLines[next] == allLines[i],
                 std::string("print of the given keys misses ") + kKeys[i].name);
      ++next;
    }
  }
  FUZZ_CHECK(next == givenLines.size(), "print of the given keys has extra lines");
}

// Standard error of the reader, kept out of the fuzzing engine's output.
class CerrCapture {
 public:
  CerrCapture() : old_(std::cerr.rdbuf(text_.rdbuf())) {}
  ~CerrCapture() { std::cerr.rdbuf(old_); }
  std::string Text() const { return text_.str(); }

 private:
  std::ostringstream text_;
  std::streambuf* old_;
};

}  // namespace

// libsystemc's own main refers to sc_main; neither the fuzzing engine nor the
// replay program calls it.
int sc_main(int, char*[]) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const Config defaults;
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::string& path = ZelFuzz::InputFile::Get().Write(data, size);

  Config config;
  IniReader reader{{}, true, false};
  std::string said;
  {
    CerrCapture capture;
    reader.readFile(path, config);
    said = capture.Text();
  }
  ZelFuzz::InputFile::Get().Remove();
  const bool allRead = reader.finish(config);

  FUZZ_CHECK(said == "Reading ini file '" + path + "'\n", "the reader said '" + said + "'");
  const std::map<std::string, std::string> expected = ExpectedPairs(text);
  FUZZ_CHECK(reader.values == expected, "the reader's table differs from the file's pairs");
  FUZZ_CHECK(config.keyCounts.size() == Sornak::Internal::ZEL2::NUM_CONFIG_KEYS,
             "the counts hold " + std::to_string(config.keyCounts.size()) + " keys");

  KeyChecker checker{reader.values, config};
#define ZEL_FUZZ_CHECK_KEY(type, name, def) checker.Check(#name, config.name, defaults.name);
  ZEL_CONFIG_KEYS(ZEL_FUZZ_CHECK_KEY)
#undef ZEL_FUZZ_CHECK_KEY
  if (checker.someMissingOrBad) FUZZ_CHECK(!allRead, "finish says all keys were read");
  if (!checker.someMissingOrBad && !checker.someUnknown) FUZZ_CHECK(allRead, "finish says a key was not read");

  CheckPrint(config, reader.values);
  return 0;
}
