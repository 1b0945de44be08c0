// SPDX-License-Identifier: Apache-2.0
// Fuzz harness of zelsim's trace reader (ReadTrace, ParseTraceLine). Each
// input is written to a file and read with ReadTrace. A refusal must be a
// clean false with a one-line message naming the file and the line; an
// acceptance must hold only requests that the bench can send. Both are
// compared with a reading of the trace format made here independently:
//   - per line, the text before the first ';' or '#' is split at white space;
//     no field is blank, else 3 or 4 fields: cycle, command, address, size;
//   - numbers are decimal, or hexadecimal after "0x", and fit in 64 bits;
//   - commands are the nine request commands; RD, WR and P_WR have a size of
//     16 to 128 in steps of 16; atomics are 16 bytes, a size given being 16;
//   - cycles don't decrease from entry to entry.
// An accepted trace is also replayed through a RequestGenerator, which must
// hand out the entries as they are, each on an existing link.
#include <cstdint>
#include <string>
#include <vector>

#include "host/generator.h"
#include "fuzz/fuzz_support.h"

using namespace Sornak::Internal::ZEL2;
using namespace Sornak::Internal::ZEL2::Bench;
using ZelFuzz::GetlineLines;
using ZelFuzz::IsDigit;
using ZelFuzz::IsStreamSpace;

namespace {

const char* const kRequestNames[] = {"RD", "WR", "P_WR", "BWR", "P_BWR", "DADD8", "P_DADD8", "ADD16", "P_ADD16"};

bool IsHexDigit(char c) { return IsDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

unsigned HexValue(char c) {
  if (IsDigit(c)) return static_cast<unsigned>(c - '0');
  if (c >= 'a' && c <= 'f') return static_cast<unsigned>(c - 'a' + 10);
  return static_cast<unsigned>(c - 'A' + 10);
}

// A whole field as an unsigned 64-bit number, without the C library.
bool RefNumber(const std::string& text, uint64_t& value) {
  const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  const unsigned base = hex ? 16 : 10;
  const size_t begin = hex ? 2 : 0;
  if (begin == text.size()) return false;
  value = 0;
  for (size_t i = begin; i < text.size(); ++i) {
    if (hex ? !IsHexDigit(text[i]) : !IsDigit(text[i])) return false;
    const unsigned digit = HexValue(text[i]);
    if (value > (UINT64_MAX - digit) / base) return false;
    value = value * base + digit;
  }
  return true;
}

struct RefEntry {
  uint64_t cycle = 0;
  std::string command;
  uint64_t address = 0;
  unsigned length = 0;
};

enum class LineKind { kBlank, kEntry, kBad };

LineKind RefParse(const std::string& raw, RefEntry& entry) {
  const std::string line = raw.substr(0, raw.find_first_of(";#"));
  std::vector<std::string> fields;
  for (size_t pos = 0; pos < line.size();) {
    while (pos < line.size() && IsStreamSpace(line[pos])) ++pos;
    const size_t begin = pos;
    while (pos < line.size() && !IsStreamSpace(line[pos])) ++pos;
    if (pos > begin) fields.push_back(line.substr(begin, pos - begin));
  }
  if (fields.empty()) return LineKind::kBlank;
  if (fields.size() < 3 || fields.size() > 4) return LineKind::kBad;
  if (!RefNumber(fields[0], entry.cycle)) return LineKind::kBad;
  bool known = false;
  for (const char* name : kRequestNames) known = known || fields[1] == name;
  if (!known) return LineKind::kBad;
  entry.command = fields[1];
  if (!RefNumber(fields[2], entry.address)) return LineKind::kBad;
  const bool atomic = entry.command != "RD" && entry.command != "WR" && entry.command != "P_WR";
  uint64_t size = 0;
  if (atomic) {
    if (fields.size() == 4 && (!RefNumber(fields[3], size) || size != 16)) return LineKind::kBad;
    entry.length = 16;
    return LineKind::kEntry;
  }
  if (fields.size() != 4 || !RefNumber(fields[3], size) || size < 16 || size > 128 || size % 16 != 0) {
    return LineKind::kBad;
  }
  entry.length = static_cast<unsigned>(size);
  return LineKind::kEntry;
}

std::string Prefix(const std::string& path, size_t line) {
  return "trace file '" + path + "' line " + std::to_string(line) + ": ";
}

bool StartsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

// What the bench relies on for every accepted entry.
void CheckEntry(const TraceEntry& entry, size_t lineCount) {
  FUZZ_CHECK(IsRequestCommand(entry.command), "command " + std::to_string(entry.command));
  FUZZ_CHECK(CommandName(entry.command) != nullptr, "unnamed command");
  if (IsAtomic(entry.command)) {
    FUZZ_CHECK(entry.length == 16, "atomic of " + std::to_string(entry.length) + " bytes");
  } else {
    FUZZ_CHECK(entry.length >= 16 && entry.length <= 128 && entry.length % 16 == 0,
               "request of " + std::to_string(entry.length) + " bytes");
  }
  FUZZ_CHECK(entry.line >= 1 && entry.line <= lineCount, "line " + std::to_string(entry.line));
  // Written out and read back, the entry is the same.
  const std::string text = std::to_string(entry.cycle) + "\t" + CommandName(entry.command) + " 0x" +
                           [](uint64_t value) {
                             static const char digits[] = "0123456789abcdef";
                             std::string hex;
                             do {
                               hex.insert(hex.begin(), digits[value % 16]);
                               value /= 16;
                             } while (value != 0);
                             return hex;
                           }(entry.address) +
                           " " + std::to_string(entry.length) + " ; again";
  TraceEntry again;
  std::string error;
  FUZZ_CHECK(ParseTraceLine(text, again, error) && error.empty(), "'" + text + "' reads back: " + error);
  FUZZ_CHECK(again.cycle == entry.cycle && again.command == entry.command && again.address == entry.address &&
                 again.length == entry.length,
             "'" + text + "' reads back different");
}

// Replays accepted entries; a generator must pass them on unchanged.
void CheckReplay(const std::vector<TraceEntry>& entries, uint8_t choice) {
  TrafficSettings settings;
  settings.mapping = choice % 3;
  settings.links = 1 + choice / 3 % 4;
  const uint64_t limit = choice & 0x80 ? entries.size() / 2 : entries.size() + 1;
  RequestGenerator generator(choice % 4, settings, entries, limit);
  FUZZ_CHECK(generator.Replaying(), "a trace generator that doesn't replay");
  size_t n = 0;
  for (; !generator.Done(); ++n) {
    FUZZ_CHECK(n < entries.size(), "the generator makes more requests than the trace holds");
    FUZZ_CHECK(generator.NextCycle() == entries[n].cycle, "next cycle of request " + std::to_string(n));
    FUZZ_CHECK(generator.NextTraceLine() == entries[n].line, "next line of request " + std::to_string(n));
    const Request request = generator.Next(entries[n].cycle + 1);
    FUZZ_CHECK(request.command == entries[n].command && request.address == entries[n].address &&
                   request.length == entries[n].length,
               "request " + std::to_string(n) + " differs from its trace line");
    FUZZ_CHECK(request.serial == n && request.generator == choice % 4, "numbering of request " + std::to_string(n));
    FUZZ_CHECK(request.link < settings.links, "link " + std::to_string(request.link));
  }
  FUZZ_CHECK(n == (limit < entries.size() ? limit : entries.size()), "the generator stopped after " + std::to_string(n));
}

}  // namespace

// libsystemc's own main refers to sc_main; neither the fuzzing engine nor the
// replay program calls it.
int sc_main(int, char*[]) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const std::string& path = ZelFuzz::InputFile::Get().Write(data, size);
  static const bool missingChecked = [&path] {
    std::vector<TraceEntry> none;
    std::string error;
    const std::string absent = path + ".absent";
    FUZZ_CHECK(!ReadTrace(absent, none, error), "read a file that isn't there");
    FUZZ_CHECK(error == "can't read trace file '" + absent + "'", error);
    return true;
  }();
  (void)missingChecked;
  std::vector<TraceEntry> entries(1);  // not empty: ReadTrace must start afresh
  std::string error;
  const bool accepted = ReadTrace(path, entries, error);
  ZelFuzz::InputFile::Get().Remove();

  // The same file, read here.
  const std::vector<std::string> lines = GetlineLines(text);
  std::vector<RefEntry> expected;
  size_t badLine = 0;
  bool decreasing = false;
  for (size_t i = 0; i < lines.size() && badLine == 0; ++i) {
    RefEntry entry;
    switch (RefParse(lines[i], entry)) {
      case LineKind::kBlank:
        break;
      case LineKind::kBad:
        badLine = i + 1;
        break;
      case LineKind::kEntry:
        if (!expected.empty() && entry.cycle < expected.back().cycle) {
          badLine = i + 1;
          decreasing = true;
        } else {
          expected.push_back(entry);
        }
        break;
    }
  }

  if (badLine != 0) {
    FUZZ_CHECK(!accepted, "accepted a trace that is bad at line " + std::to_string(badLine));
    FUZZ_CHECK(StartsWith(error, Prefix(path, badLine)), "message '" + error + "' for line " + std::to_string(badLine));
    FUZZ_CHECK(error.size() > Prefix(path, badLine).size(), "message without a reason");
    FUZZ_CHECK(error.find('\n') == std::string::npos, "message of more than one line");
    if (decreasing) FUZZ_CHECK(error == Prefix(path, badLine) + "cycles must not decrease", error);
    return 0;
  }

  FUZZ_CHECK(accepted, "refused a good trace: " + error);
  FUZZ_CHECK(error.empty(), "an accepted trace with a message: " + error);
  FUZZ_CHECK(entries.size() == expected.size(),
             std::to_string(entries.size()) + " entries, expected " + std::to_string(expected.size()));
  for (size_t i = 0; i < entries.size(); ++i) {
    const TraceEntry& entry = entries[i];
    CheckEntry(entry, lines.size());
    FUZZ_CHECK(entry.cycle == expected[i].cycle && CommandName(entry.command) == expected[i].command &&
                   entry.address == expected[i].address && entry.length == expected[i].length,
               "entry " + std::to_string(i) + " (line " + std::to_string(entry.line) + ") differs");
    if (i > 0) FUZZ_CHECK(entry.line > entries[i - 1].line, "line numbers out of order");
  }
  CheckReplay(entries, size == 0 ? 0 : data[size - 1]);
  return 0;
}
