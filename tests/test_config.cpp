// SPDX-License-Identifier: Apache-2.0
// The configuration record's next core edge and resolution check, and the
// configuration file reader. The golden outputs hold the print of every
// default.
#include <algorithm>
#include <csignal>

#include "test_support.h"
#include "zel2/Config.h"
#include "zel2/IniReader.h"

using namespace Sornak::Internal::ZEL2;
using sc_core::SC_NS;
using sc_core::SC_PS;
using sc_core::sc_time;

namespace {

std::vector<std::string> PrintLines(const Config& cfg, bool onlySetKeys) {
  std::ostringstream out;
  cfg.print(out, onlySetKeys);
  return zelsim_test::Lines(out.str());
}

// Writes configuration files into a directory of its own and reads them into
// `cfg` the way the library's entry points do.
class ConfigFile : public ::testing::Test {
 protected:
  // Returns what finish() returned. Keys the file lacks pass without a word.
  bool Load(const std::string& text) {
    const std::string path = dir.Write("test config.ini", text);
    ::testing::internal::CaptureStderr();
    reader.readFile(path, cfg);
    const bool complete = reader.finish(cfg);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "Reading ini file '" + path + "'\n");
    return complete;
  }

  // One line of a file and how the print of the set keys shows it, if at all.
  struct Line {
    const char* text;
    const char* printed;
  };
  // Reads the lines as one file and expects exactly their marked lines in
  // the print of the set keys.
  void ExpectPrinted(const std::vector<Line>& file) {
    std::string text;
    std::vector<std::string> expected;
    for (const Line& line : file) {
      text += (text.empty() ? "" : "\n") + std::string(line.text);
      if (line.printed != nullptr) expected.push_back(std::string("[*] ") + line.printed);
    }
    EXPECT_FALSE(Load(text));  // some keys are missing
    std::vector<std::string> printed = PrintLines(cfg, true);
    std::sort(printed.begin(), printed.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(printed, expected);
    // Every other line is the default one: a set key is marked in its own
    // place, and no default derived from a set key changes.
    const auto all = PrintLines(cfg, false);
    const auto defaults = PrintLines(Config(), false);
    ASSERT_EQ(all.size(), defaults.size());
    for (std::size_t i = 0; i < all.size(); ++i)
      if (all[i] != defaults[i])
        EXPECT_EQ(all[i].rfind("[*] ", 0), 0u) << all[i] << " in place of " << defaults[i];
  }

  zelsim_test::TempDir dir;
  Config cfg;
  IniReader reader{{}, true, false};
};

}  // namespace

TEST(ConfigRecord, NextCoreEdgeDelayFollowsTheClock) {
  Config cfg;
  EXPECT_EQ(cfg.NextCoreEdgeDelay(), sc_time(1600, SC_PS));  // on an edge: a full period
  sc_core::sc_start(1, SC_NS);
  EXPECT_EQ(cfg.NextCoreEdgeDelay(), sc_time(600, SC_PS));
  sc_core::sc_start(600, SC_PS);
  EXPECT_EQ(cfg.NextCoreEdgeDelay(), sc_time(1600, SC_PS));
  // A changed period is obeyed at the next call: 1.6 ns is 0.6 ns into a 1 ns period.
  cfg.CORE_CLK = sc_time(1, SC_NS);
  EXPECT_EQ(cfg.NextCoreEdgeDelay(), sc_time(400, SC_PS));
}

// The warning is all the record does about a coarse resolution; the edge
// computation that follows divides by the zero ticksPerPs (a crash where the
// machine traps on it). Runs in a fresh process, whose resolution is not fixed
// yet.
TEST(ConfigRecordDeathTest, CoarseResolutionOnlyWarns) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_DEATH(
      {
        sc_core::sc_set_time_resolution(10, SC_PS);
        Config cfg;
        std::cerr << "ticksPerPs=" << cfg.ticksPerPs << std::endl;
        std::abort();
      },
      "\nWARNING: Your time resolution of 10 ps is below the required 1ps time resolution\n"
      "ticksPerPs=0\n");
}

TEST_F(ConfigFile, LineSyntax) {
  ExpectPrinted({
      {"; a comment line", nullptr},
      {"tCMD = 1.6 ; command period", "[sc_time]: 'tCMD'=1600 ps"},
      {"\tLINK_SPEED\t=\t12.5  ", "[float]: 'LINK_SPEED'=12.5"},
      {"[section]", nullptr},
      {"NUM_VAULTS = 8 = 9", nullptr},                              // a second separator: nothing set
      {"MAX_TOKEN_RETURN==7", "[unsigned]: 'MAX_TOKEN_RETURN'=7"},  // a run of "=" is one separator
      {"# FLIT_SIZE = 1", nullptr},                                 // "#" starts no comment
      {"=5", nullptr},
      {"num_quads = 1", nullptr},  // keys are case-sensitive
      {"NUM_COLS ; = 3", nullptr},
      {"NUM_QUADS = 2", nullptr},
      {"", nullptr},
      // DOS line ends spoil only the flags.
      {"NUM_ROWS = 100\r", "[unsigned]: 'NUM_ROWS'=100"},
      {"tWR = 2\r", "[sc_time]: 'tWR'=2 ns"},
      {"USE_TRACE = true\r", "[bool]: 'USE_TRACE'=0"},
      {"TRACE_FILENAME_1 = out.txt\r", "[string]: 'TRACE_FILENAME_1'=out.txt"},
      {"NUM_QUADS = 8", "[unsigned]: 'NUM_QUADS'=8"},  // the last line of a key wins, even without a newline
  });
  EXPECT_EQ(cfg.keyCounts["NUM_QUADS"], 1u);
  // Unknown keys are kept by the reader and go nowhere.
  EXPECT_EQ(cfg.keyCounts.size(), 141u);
  EXPECT_EQ(reader.values.count("NUM_VAULTS") + reader.values.count("NUM_COLS"), 0u);
  EXPECT_EQ(reader.values["# FLIT_SIZE"], "1");
  EXPECT_EQ(reader.values[""], "5");
  EXPECT_EQ(reader.values["num_quads"], "1");
  EXPECT_EQ(reader.values["USE_TRACE"], "true\r");
}

// The inputs of derived defaults (CORE_CLK, UI, tRAS, tRP, tWTR) leave
// those as they were.
TEST_F(ConfigFile, ValuesByType) {
  ExpectPrinted({
      {"CORE_CLK = 1600 ps", "[sc_time]: 'CORE_CLK'=1600 ns"},  // unit words are ignored
      {"UI = 1", "[sc_time]: 'UI'=1 ns"},
      {"tWTR = 10", "[sc_time]: 'tWTR'=10 ns"},
      {"tRAS = 0", "[sc_time]: 'tRAS'=0 s"},
      {"tRP = 12.5", "[sc_time]: 'tRP'=12500 ps"},
      {"STATS_FILENAME = my stats.txt", "[string]: 'STATS_FILENAME'=my"},
      {"NUM_REQUESTS = 4000000000", "[unsigned]: 'NUM_REQUESTS'=4000000000"},
      {"FLIT_SIZE = 32 bytes", "[unsigned]: 'FLIT_SIZE'=32"},
      // Only "true" and "True" are true; an empty value is present, hence false.
      {"REFRESH_ENABLED = TRUE", "[bool]: 'REFRESH_ENABLED'=0"},
      {"DRAM_TRACING = true", "[bool]: 'DRAM_TRACING'=1"},
      {"RESPONSE_OPEN_LOOP = True", "[bool]: 'RESPONSE_OPEN_LOOP'=1"},
      {"POSTED_WRITES = 1", "[bool]: 'POSTED_WRITES'=0"},
      {"ALIGNED_32B = yes", "[bool]: 'ALIGNED_32B'=0"},
      {"DUMP_STATE =", "[bool]: 'DUMP_STATE'=0"},
      // A value that doesn't parse keeps the default, but the key counts as set.
      {"NUM_GENERATORS = x", "[unsigned]: 'NUM_GENERATORS'=4"},
      {"NUM_LINKS=", "[unsigned]: 'NUM_LINKS'=4"},
      {"tAA = fast", "[sc_time]: 'tAA'=10800 ps"},
      {"LINK_SPEED = -", "[float]: 'LINK_SPEED'=15"},
      {"TRACE_FILENAME_0 =\t", "[string]: 'TRACE_FILENAME_0'=traces/test.txt"},
      {"", nullptr},
  });
}

// A file that names every key, each with a value its type parses, must reach
// every field: finish() succeeds and every printed value is the file's.
TEST_F(ConfigFile, CompleteFileSetsEveryKey) {
  std::string text;
  std::vector<std::string> expected;
  for (const auto& line : PrintLines(Config(), false)) {
    const std::string type = line.substr(1, line.find(']') - 1);
    const std::size_t keyStart = line.find('\'') + 1;
    const std::string key = line.substr(keyStart, line.find('\'', keyStart) - keyStart);
    const std::string value = type == "bool" ? "true" : type == "string" ? "zz" : "7";
    const std::string shown = type == "bool" ? "1" : type == "sc_time" ? "7 ns" : value;
    text += key + " = " + value + "\n";
    expected.push_back("[*] [" + type + "]: '" + key + "'=" + shown);
  }
  EXPECT_TRUE(Load(text));
  EXPECT_EQ(PrintLines(cfg, true), expected);
  for (const auto& entry : cfg.keyCounts) EXPECT_EQ(entry.second, 1u) << entry.first;
}

// A file that can't be opened, and a strict reader's first unset key.
TEST_F(ConfigFile, ReadErrorsAbort) {
  const std::string missing = dir.path + "/missing.ini";
  EXPECT_EXIT((dup2(2, 1), reader.readFile(missing, cfg)), ::testing::KilledBySignal(SIGABRT),
              "^Can't open '" + missing + "'\n$");

  const std::string path = dir.Write("short.ini", "SIM_TIME = 5\n");
  auto readStrictly = [&] {
    dup2(2, 1);
    IniReader strict{{}, true, true};
    strict.readFile(path, cfg);
    strict.finish(cfg);
  };
  EXPECT_EXIT(readStrictly(), ::testing::KilledBySignal(SIGABRT),
              "^Reading ini file '.*'\nERROR: key 'NUM_GENERATORS' is unset\n$");
}
