// SPDX-License-Identifier: Apache-2.0
// The configuration record (defaults, derived defaults, print, next core
// edge) and the configuration file reader.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <systemc>

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
  std::vector<std::string> lines;
  std::istringstream in(out.str());
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// Index of the line that prints `key`, or -1.
int LineOf(const std::vector<std::string>& lines, const std::string& key) {
  for (std::size_t i = 0; i < lines.size(); ++i)
    if (lines[i].find("'" + key + "'=") != std::string::npos) return static_cast<int>(i);
  return -1;
}

// Writes configuration files into a directory of its own and reads them into
// `cfg` the way the library's entry points do.
class ConfigFile : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "zelcfgXXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir = pattern;
  }
  void TearDown() override { std::filesystem::remove_all(dir); }

  std::string Write(const std::string& text) {
    const std::string path = dir + "/test config.ini";
    std::ofstream(path, std::ios::binary) << text;
    return path;
  }

  // Returns what finish() returned.
  bool Load(const std::string& text) {
    const std::string path = Write(text);
    ::testing::internal::CaptureStderr();
    reader.readFile(path, cfg);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "Reading ini file '" + path + "'\n");
    return reader.finish(cfg);
  }

  std::string dir;
  Config cfg;
  IniReader reader{{}, true, false};
};

}  // namespace

// ---- Record ----------------------------------------------------------------

TEST(ConfigRecord, DefaultsPrintEveryKeyOnceAndUnmarked) {
  Config cfg;
  EXPECT_EQ(cfg.ticksPerPs, 1u);
  ASSERT_EQ(cfg.keyCounts.size(), 141u);  // also proves the key names are distinct
  for (const auto& entry : cfg.keyCounts) EXPECT_EQ(entry.second, 0u) << entry.first;

  const auto lines = PrintLines(cfg, false);
  ASSERT_EQ(lines.size(), 141u);
  for (const auto& line : lines) EXPECT_NE(line.rfind("[", 0), std::string::npos) << line;
  for (const auto& line : lines) EXPECT_NE(line.rfind("[*] ", 0), 0u) << line;
  EXPECT_EQ(lines.front(), "[sc_time]: 'SIM_TIME'=100 us");
  EXPECT_EQ(lines.back(), "[sc_time]: 'WR_TO_RD_DIFF'=4800 ps");
  // One of each type word and value form.
  EXPECT_EQ(lines[LineOf(lines, "CORE_CLK")], "[sc_time]: 'CORE_CLK'=1600 ps");
  EXPECT_EQ(lines[LineOf(lines, "NUM_QUADS")], "[unsigned]: 'NUM_QUADS'=4");
  EXPECT_EQ(lines[LineOf(lines, "ALIGNED_32B")], "[bool]: 'ALIGNED_32B'=1");
  EXPECT_EQ(lines[LineOf(lines, "USE_TRACE")], "[bool]: 'USE_TRACE'=0");
  EXPECT_EQ(lines[LineOf(lines, "TRACE_FILENAME_3")], "[string]: 'TRACE_FILENAME_3'=traces/test.txt");
  EXPECT_EQ(lines[LineOf(lines, "LINK_SPEED")], "[float]: 'LINK_SPEED'=15");
  EXPECT_EQ(lines[LineOf(lines, "Tj")], "[unsigned]: 'Tj'=85");

  EXPECT_TRUE(PrintLines(cfg, true).empty());
}

TEST(ConfigRecord, DerivedDefaultsAtOnePicosecond) {
  Config cfg;
  EXPECT_EQ(cfg.BUFFER_PRIORITY_TIME, sc_time(409600, SC_PS));
  EXPECT_EQ(cfg.BUFFER_PRIORITY_WAIT, sc_time(102400, SC_PS));
  EXPECT_EQ(cfg.DRAM_tCK, sc_time(800, SC_PS));
  EXPECT_EQ(cfg.BL, sc_time(3200, SC_PS));
  EXPECT_EQ(cfg.tCMD, sc_time(800, SC_PS));
  EXPECT_EQ(cfg.tRC, sc_time(35200, SC_PS));
  EXPECT_EQ(cfg.tCCD, sc_time(3200, SC_PS));
  EXPECT_EQ(cfg.tCCDRP, sc_time(6400, SC_PS));
  EXPECT_EQ(cfg.tCCDWP, sc_time(4800, SC_PS));
  EXPECT_EQ(cfg.RD_TO_WR_SAME, sc_time(8000, SC_PS));
  EXPECT_EQ(cfg.RD_TO_WR_DIFF, sc_time(8000, SC_PS));
  EXPECT_EQ(cfg.WR_TO_RD_SAME, sc_time(19200, SC_PS));
  EXPECT_EQ(cfg.WR_TO_RD_DIFF, sc_time(4800, SC_PS));
  // Only the same-partition write-to-read turnaround takes off one UI.
  EXPECT_EQ(cfg.WR_TO_RD_SAME + sc_time(400, SC_PS), cfg.tWL + cfg.BL + cfg.tWTR);
}

TEST_F(ConfigFile, DerivedDefaultsIgnoreTheirInputsFromAFile) {
  Load("tRAS = 30\ntRP = 20\ntAA = 20\nCORE_CLK = 1\nUI = 1\ntWTR = 10\n");
  EXPECT_EQ(cfg.tRAS, sc_time(30, SC_NS));
  EXPECT_EQ(cfg.CORE_CLK, sc_time(1, SC_NS));
  EXPECT_EQ(cfg.tRC, sc_time(35200, SC_PS));
  EXPECT_EQ(cfg.RD_TO_WR_SAME, sc_time(8000, SC_PS));
  EXPECT_EQ(cfg.BUFFER_PRIORITY_TIME, sc_time(409600, SC_PS));
  EXPECT_EQ(cfg.BL, sc_time(3200, SC_PS));
  EXPECT_EQ(cfg.WR_TO_RD_SAME, sc_time(19200, SC_PS));
}

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

// ---- Reader ----------------------------------------------------------------

TEST_F(ConfigFile, EmptyFileChangesNothing) {
  const std::string defaults = [] {
    std::ostringstream out;
    Config().print(out, false);
    return out.str();
  }();
  EXPECT_FALSE(Load(""));
  std::ostringstream out;
  cfg.print(out, false);
  EXPECT_EQ(out.str(), defaults);
  EXPECT_TRUE(PrintLines(cfg, true).empty());
  // A reader that read no file at all finishes the same way.
  IniReader unread{{}, true, false};
  EXPECT_FALSE(unread.finish(cfg));
}

TEST_F(ConfigFile, SetKeyIsMarkedInItsPlace) {
  Load("; only one key\nNUM_QUADS = 2\n");
  const auto all = PrintLines(cfg, false);
  const auto defaults = PrintLines(Config(), false);
  ASSERT_EQ(all.size(), 141u);
  const int at = LineOf(defaults, "NUM_QUADS");
  ASSERT_GT(at, 0);
  EXPECT_EQ(all[at], "[*] [unsigned]: 'NUM_QUADS'=2");
  EXPECT_EQ(all[0], defaults[0]);
  EXPECT_EQ(PrintLines(cfg, true), std::vector<std::string>{"[*] [unsigned]: 'NUM_QUADS'=2"});
}

TEST_F(ConfigFile, LineSyntax) {
  Load("; a comment line\n"
       "CORE_CLK = 1.6 ; core period\n"
       "\tNUM_LINKS\t=\t2  \n"
       "[section]\n"
       "NUM_VAULTS = 8 = 9\n"
       "MAX_TOKEN_RETURN==7\n"
       "# FLIT_SIZE = 1\n"
       "=5\n"
       "num_quads = 1\n"
       "FLIT_SIZE = 32 bytes\n"
       "NUM_COLS ; = 3\n"
       "\n"
       "VAULTS_PER_QUAD = 2");  // the last line has no newline
  EXPECT_EQ(cfg.CORE_CLK, sc_time(1600, SC_PS));
  EXPECT_EQ(cfg.NUM_LINKS, 2u);
  EXPECT_EQ(cfg.NUM_VAULTS, 16u);
  EXPECT_EQ(cfg.keyCounts["NUM_VAULTS"], 0u);
  EXPECT_EQ(cfg.MAX_TOKEN_RETURN, 7u);  // a run of "=" is one separator
  EXPECT_EQ(cfg.FLIT_SIZE, 32u);        // text after the number is ignored
  EXPECT_EQ(cfg.NUM_COLS, 64u);
  EXPECT_EQ(cfg.VAULTS_PER_QUAD, 2u);
  EXPECT_EQ(cfg.NUM_QUADS, 4u);  // keys are case-sensitive
  EXPECT_EQ(cfg.keyCounts["NUM_QUADS"], 0u);
  EXPECT_EQ(cfg.keyCounts.count("num_quads"), 0u);
  // Unknown keys are kept by the reader and go nowhere; "#" is no comment.
  const std::map<std::string, std::string> expected{
      {"", "5"},           {"# FLIT_SIZE", "1"},  {"CORE_CLK", "1.6"},
      {"FLIT_SIZE", "32 bytes"}, {"MAX_TOKEN_RETURN", "7"}, {"NUM_LINKS", "2"},
      {"VAULTS_PER_QUAD", "2"},  {"num_quads", "1"}};
  EXPECT_EQ(reader.values, expected);
  EXPECT_EQ(PrintLines(cfg, true).size(), 5u);
}

TEST_F(ConfigFile, ValuesByType) {
  Load("CORE_CLK = 1600 ps\n"  // no unit words: 1600 ns
       "tRAS = 0\n"
       "tRP = 12.5\n"
       "LINK_SPEED = 12.5\n"
       "STATS_FILENAME = my stats.txt\n"
       "NUM_REQUESTS = 4000000000\n");
  EXPECT_EQ(cfg.CORE_CLK, sc_time(1600, SC_NS));
  EXPECT_EQ(cfg.tRAS, sc_core::SC_ZERO_TIME);
  EXPECT_EQ(cfg.keyCounts["tRAS"], 1u);
  EXPECT_EQ(cfg.tRP, sc_time(12500, SC_PS));
  EXPECT_EQ(cfg.LINK_SPEED, 12.5f);
  EXPECT_EQ(cfg.STATS_FILENAME, "my");
  EXPECT_EQ(cfg.NUM_REQUESTS, 4000000000u);
  const auto lines = PrintLines(cfg, true);
  EXPECT_EQ(lines[LineOf(lines, "tRAS")], "[*] [sc_time]: 'tRAS'=0 s");
  EXPECT_EQ(lines[LineOf(lines, "LINK_SPEED")], "[*] [float]: 'LINK_SPEED'=12.5");
  EXPECT_EQ(lines[LineOf(lines, "STATS_FILENAME")], "[*] [string]: 'STATS_FILENAME'=my");
}

TEST_F(ConfigFile, OnlyTrueAndTrueCapitalisedAreTrue) {
  Load("REFRESH_ENABLED = TRUE\n"
       "DRAM_TRACING = true\n"
       "RESPONSE_OPEN_LOOP = True\n"
       "POSTED_WRITES = 1\n"
       "ALIGNED_32B = yes\n"
       "DUMP_STATE =\n");
  EXPECT_FALSE(cfg.REFRESH_ENABLED);
  EXPECT_TRUE(cfg.DRAM_TRACING);
  EXPECT_TRUE(cfg.RESPONSE_OPEN_LOOP);
  EXPECT_FALSE(cfg.POSTED_WRITES);
  EXPECT_FALSE(cfg.ALIGNED_32B);
  EXPECT_FALSE(cfg.DUMP_STATE);  // an empty value is present, hence false
  for (const char* key : {"REFRESH_ENABLED", "DRAM_TRACING", "RESPONSE_OPEN_LOOP", "POSTED_WRITES",
                          "ALIGNED_32B", "DUMP_STATE"})
    EXPECT_EQ(cfg.keyCounts[key], 1u) << key;
}

TEST_F(ConfigFile, BadValuesKeepTheDefaultButCountAsSet) {
  EXPECT_FALSE(Load("NUM_QUADS = x\n"
                    "NUM_LINKS=\n"
                    "CORE_CLK = fast\n"
                    "LINK_SPEED = -\n"
                    "STATS_FILENAME =\t\n"));
  EXPECT_EQ(cfg.NUM_QUADS, 4u);
  EXPECT_EQ(cfg.NUM_LINKS, 4u);
  EXPECT_EQ(cfg.CORE_CLK, sc_time(1600, SC_PS));
  EXPECT_EQ(cfg.LINK_SPEED, 15.0f);
  EXPECT_EQ(cfg.STATS_FILENAME, "stats.txt");
  const auto lines = PrintLines(cfg, true);
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_EQ(lines[LineOf(lines, "NUM_QUADS")], "[*] [unsigned]: 'NUM_QUADS'=4");
}

TEST_F(ConfigFile, LaterLineOfAKeyWins) {
  Load("NUM_QUADS = 2\nNUM_LINKS = 3\nNUM_QUADS = 8\n");
  EXPECT_EQ(cfg.NUM_QUADS, 8u);
  EXPECT_EQ(cfg.keyCounts["NUM_QUADS"], 1u);
}

TEST_F(ConfigFile, DosLineEndsSpoilOnlyFlags) {
  Load("NUM_QUADS = 2\r\nCORE_CLK = 2\r\nREFRESH_ENABLED = true\r\nSTATS_FILENAME = out.txt\r\n"
       "DRAM_TRACING = true\n");
  EXPECT_EQ(cfg.NUM_QUADS, 2u);
  EXPECT_EQ(cfg.CORE_CLK, sc_time(2, SC_NS));
  EXPECT_EQ(reader.values["REFRESH_ENABLED"], "true\r");
  EXPECT_FALSE(cfg.REFRESH_ENABLED);
  EXPECT_TRUE(cfg.DRAM_TRACING);
  EXPECT_EQ(cfg.STATS_FILENAME, "out.txt");
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
  EXPECT_FALSE(cfg.keyCounts.empty());
  for (const auto& entry : cfg.keyCounts) EXPECT_EQ(entry.second, 1u) << entry.first;
}

TEST(IniReader, MissingKeyLeavesTargetQuietly) {
  IniReader reader{{{"NUM_QUADS", "2"}}, true, false};
  unsigned number = 5;
  sc_time time(3, SC_NS);
  ::testing::internal::CaptureStderr();
  EXPECT_FALSE(reader.read("NUM_LINKS", number));
  EXPECT_FALSE(reader.read("NUM_LINKS", time));
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(number, 5u);
  EXPECT_EQ(time, sc_time(3, SC_NS));
  EXPECT_TRUE(reader.read("NUM_QUADS", number));
  EXPECT_EQ(number, 2u);
}

TEST_F(ConfigFile, UnopenableFileAborts) {
  const std::string path = dir + "/missing.ini";
  EXPECT_EXIT(
      {
        dup2(2, 1);
        reader.readFile(path, cfg);
      },
      ::testing::KilledBySignal(SIGABRT), "^Can't open '" + path + "'\n$");
}

TEST_F(ConfigFile, FailOnUnsetAbortsAtTheFirstMissingKey) {
  const std::string path = Write("SIM_TIME = 5\n");
  auto readStrictly = [&] {
    dup2(2, 1);
    IniReader strict{{}, true, true};
    strict.readFile(path, cfg);
    strict.finish(cfg);
  };
  EXPECT_EXIT(readStrictly(), ::testing::KilledBySignal(SIGABRT),
      "^Reading ini file '.*'\nERROR: key 'NUM_GENERATORS' is unset\n$");
}
