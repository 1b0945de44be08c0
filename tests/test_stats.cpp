// SPDX-License-Identifier: Apache-2.0
// The statistics report: its arithmetic, and its text on std::cout and in
// the statistics file, line for line. No cube is built: each case makes a
// Config and a StatsKeeper, sets counters by hand and lets simulated time
// pass with sc_start where the report reads the kernel's clock.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <iostream>
#include <sstream>
#include <string>
#include <systemc>
#include <vector>

#include "test_support.h"
#include "zel2/Config.h"
#include "zel2/StatsKeeper.h"
#include "zel2/zel2_utils.h"

using namespace Sornak::Internal::ZEL2;
using sc_core::SC_NS;
using sc_core::SC_PS;
using sc_core::sc_time;
using zelsim_test::Lines;
using zelsim_test::ReadFile;

namespace {

// Lets the kernel's clock reach `target`; every case starts at time 0 in a
// process of its own.
void AdvanceTo(const sc_time& target) {
  ASSERT_LE(sc_core::sc_time_stamp(), target);
  sc_core::sc_start(target - sc_core::sc_time_stamp());
  ASSERT_EQ(sc_core::sc_time_stamp(), target);
}

// What one report writes to std::cout. The report's own formatting of
// std::cout (fill, precision) is what is being checked, so only the buffer
// is swapped.
std::string CaptureReport(StatsKeeper& stats, const sc_time& when) {
  std::stringstream text;
  std::streambuf* const saved = std::cout.rdbuf(text.rdbuf());
  stats.DumpStats(when);
  std::cout.rdbuf(saved);
  return text.str();
}

// Expects each of `lines` to be one whole line of `text`.
void ExpectLines(const std::string& text, const std::vector<std::string>& lines) {
  const std::vector<std::string> all = Lines(text);
  for (const std::string& line : lines)
    EXPECT_NE(std::find(all.begin(), all.end(), line), all.end()) << "lacks \"" << line << "\" in\n" << text;
}

// A cube of one quad with two vaults of one partition and two links, the
// second link 8 lanes wide: small enough to spell its whole report out.
void SmallShape(Config& cfg) {
  cfg.NUM_QUADS = 1;
  cfg.VAULTS_PER_QUAD = 2;
  cfg.NUM_VAULTS = 2;
  cfg.NUM_LINKS = 2;
  cfg.NUM_PARTITIONS = 1;
  cfg.LINK_1_WIDTH = 8;
}

// Sets the first counters of `counters` to `values`.
template <class T>
void Set(std::vector<T>& counters, std::initializer_list<T> values) {
  std::copy(values.begin(), values.end(), counters.begin());
}

// The counters that blocks of the model raise, for the small shape.
void RaiseModelCounters(StatsKeeper& stats) {
  Set<uint64_t>(stats.readsBySize, {1});
  Set<uint64_t>(stats.writesBySize, {0, 1000});
  Set<uint64_t>(stats.linkReads, {10});
  Set<uint64_t>(stats.linkWrites, {5, 3});
  Set<uint64_t>(stats.linkRequestFlits, {1407, 300});
  Set<uint64_t>(stats.linkResponseFlits, {1000});
  Set<uint64_t>(stats.linkBytes, {64000, 640});
  Set<uint64_t>(stats.linkReadBytes, {32000});
  Set<uint64_t>(stats.linkWriteBytes, {32000, 640});
  Set<uint32_t>(stats.bankCounts[0], {1, 2, 3, 4, 99});  // 99: a bank of a partition the vault doesn't have
  Set<uint64_t>(stats.vaultReads, {7});
  Set<uint64_t>(stats.vaultWrites, {3, 1});
  Set<uint64_t>(stats.vaultCASs, {100});
  Set<uint64_t>(stats.vaultBytes, {640, 128});
}

}  // namespace

// Links above 3 take the width of link 3.
TEST(StatsArithmetic, ReportedLaneCounts) {
  Config cfg;
  cfg.LINK_1_WIDTH = 4;
  cfg.LINK_3_WIDTH = 8;
  EXPECT_EQ(ReportLinkLanes(cfg, 0), 16u);
  EXPECT_EQ(ReportLinkLanes(cfg, 1), 4u);
  EXPECT_EQ(ReportLinkLanes(cfg, 3), 8u);
  EXPECT_EQ(ReportLinkLanes(cfg, 6), 8u);
}

// The figures of the worked example: 16 lanes at 15 Gb/s over 1000 ns, a
// flit every 533 ps, 938 of 1876 flit slots used.
TEST(StatsReport, WorkedExampleOnStdout) {
  Config cfg;
  StatsKeeper stats(cfg);
  AdvanceTo(sc_time(1000, SC_NS));
  stats.linkRequestFlits[1] = 938;
  stats.linkBytes[1] = 15000;
  stats.vaultCASs[3] = 100;
  const std::string text = CaptureReport(stats, sc_core::sc_time_stamp());
  const auto lines = Lines(text);

  ASSERT_EQ(lines.size(), 5u + 4 * 8 + 16 * 6 + 3);
  EXPECT_EQ(lines[0], "======= Dumping stats at 1000ns / 625 cube cycles =======");
  // Link 1 starts after the five head lines and link 0's eight.
  EXPECT_EQ(lines[13], "== Link 1 [16 lanes @ 15Gbps = 30 GB/s]");
  EXPECT_EQ(lines[16], "   Request Utilization  : 50% (15 GB/s)");
  EXPECT_EQ(lines[17], "   Response Utilization : 0% (0 GB/s)");
  EXPECT_EQ(lines[18], "   Effective Bandwidth  : 15 GB/s [15000 bytes]");
  // Vault 3, after the links and three vaults of six lines each.
  EXPECT_EQ(lines[37 + 18], "== Vault 3 at 1000ns");
  EXPECT_EQ(lines[37 + 18 + 1], "\tBank Counts : [0 0 0 0 0 0 0 0 ]");
  EXPECT_EQ(lines[37 + 18 + 5], "\tVault BW    : 3.2 GB/s");
  EXPECT_EQ(lines[lines.size() - 2], "  Total Vault BW    : 3.2");
}

// The report on std::cout and in the file, line for line. At time 0 every
// figure divided by the time is a division by zero, and a file that can't be
// opened is passed over without a word.
TEST(StatsReport, LineForLine) {
  Config cfg;
  SmallShape(cfg);
  cfg.DUMP_STATS_FILE = true;
  cfg.STATS_FILENAME = "/nonexistent-zelsim-dir/stats.txt";
  StatsKeeper stats(cfg);
  stats.linkRequestFlits[1] = 5;
  stats.linkBytes[0] = 64;
  stats.vaultCASs[0] = 1;
  const std::string atZero = CaptureReport(stats, sc_core::SC_ZERO_TIME);
  EXPECT_EQ(Lines(atZero).size(), 36u);
  ExpectLines(
      atZero,
      {"======= Dumping stats at 0ns / 0 cube cycles =======",
       "Reads:-nan,-nan,-nan,-nan,-nan,-nan,-nan,-nan,", "Writes:-nan,-nan,-nan,-nan,-nan,-nan,-nan,-nan,",
       "   Request Utilization  : -nan% (-nan GB/s)", "   Effective Bandwidth  : inf GB/s [64 bytes]",
       "        Read Bandwidth  : -nan GB/s [0 bytes]", "   Request Utilization  : inf% (inf GB/s)",
       "\tVault BW    : inf GB/s", "\tVault BW    : -nan GB/s", "  Total Vault BW    : -nan"});

  AdvanceTo(sc_time(3000, SC_NS));
  RaiseModelCounters(stats);
  // Counters that only a host can raise, to show where each one lands.
  Set<uint64_t>(stats.readsBySize, {1, 0x100000003ull});  // the file's total keeps 32 bits
  Set<uint64_t>(stats.writesBySize, {0, 1000, 0, 0, 0, 0, 0, 2});
  Set<uint64_t>(stats.linkReadResponses, {9});
  Set<uint64_t>(stats.linkWriteResponses, {0, 2});
  Set<uint64_t>(stats.linkResponsesA, {3});
  Set<uint64_t>(stats.linkResponsesB, {1});
  Set<uint64_t>(stats.linkWriteResponsesTotal, {0, 6});
  Set<uint64_t>(stats.linkLatencySum, {200000});
  Set<uint32_t>(stats.linkMaxLatency, {80000});
  Set<uint32_t>(stats.linkMinLatency, {20500});
  stats.totalBytes = 10000;
  stats.totalReads = 30;
  stats.totalWrites = 10;
  stats.totalAtomics = 2;
  zelsim_test::TempDir dir;
  cfg.STATS_FILENAME = dir.path + "/stats.txt";
  std::cout.fill('*');
  const std::string text = CaptureReport(stats, sc_core::sc_time_stamp());

  // The head stays at the stream's six digits; four from "Reads:" on.
  EXPECT_EQ(text,
            "======= Dumping stats at 3000ns / 1875 cube cycles =======\n"
            "==== Per-Packet Bandwidth ====\n"
            "Size:16B,32B,48B,64B,80B,96B,112B,128B,\n"
            "Reads:0.005333,4.581e+07,0,0,0,0,0,0,\n"
            "Writes:0,10.67,0,0,0,0,0,0.08533,\n"
            "== Link 0 [16 lanes @ 15Gbps = 30 GB/s]\n"
            "   Reads : 10 (Rsp : 9)\n"
            "   Writes: 5 (Rsp : 0)\n"
            "   Request Utilization  : 25% (7.5 GB/s)\n"
            "   Response Utilization : 17.77% (5.33 GB/s)\n"
            "   Effective Bandwidth  : 21.33 GB/s [64000 bytes]\n"
            "        Read Bandwidth  : 10.67 GB/s [32000 bytes]\n"
            "       Write Bandwidth  : 10.67 GB/s [32000 bytes]\n"
            "== Link 1 [8 lanes @ 15Gbps = 15 GB/s]\n"
            "   Reads : 0 (Rsp : 0)\n"
            "   Writes: 3 (Rsp : 2)\n"
            "   Request Utilization  : 10.67% (1.601 GB/s)\n"
            "   Response Utilization : 0% (0 GB/s)\n"
            "   Effective Bandwidth  : 0.2133 GB/s [640 bytes]\n"
            "        Read Bandwidth  : 0 GB/s [0 bytes]\n"
            "       Write Bandwidth  : 0.2133 GB/s [640 bytes]\n"
            "== Vault 0 at 3000ns\n"
            "\tBank Counts : [1 2 3 4 ]\n"
            "\tReads       : 7\n"
            "\tWrites      : 3\n"
            "\tTotal       : 10\n"
            "\tVault BW    : 1.067 GB/s\n"
            "== Vault 1 at 3000ns\n"
            "\tBank Counts : [0 0 0 0 ]\n"
            "\tReads       : 0\n"
            "\tWrites      : 1\n"
            "\tTotal       : 1\n"
            "\tVault BW    : 0 GB/s\n"
            "===================\n"
            "  Total Vault BW    : 1.067\n"
            "  Total Bytes Moved : 768\n");
  EXPECT_EQ(std::cout.precision(), 4);
  EXPECT_EQ(std::cout.fill(), ' ');

  // The file keeps the stream's six digits throughout.
  EXPECT_EQ(ReadFile(cfg.STATS_FILENAME),
            "======= Dumping stats at 3000ns / 1875 cube cycles =======\n"
            "==== Generator Requests ====\n"
            "         (READS)    (WRITES)\n"
            " 16B ]          1\t         0\n"
            " 32B ] 4294967299\t      1000\n"
            " 48B ]          0\t         0\n"
            " 64B ]          0\t         0\n"
            " 80B ]          0\t         0\n"
            " 96B ]          0\t         0\n"
            "112B ]          0\t         0\n"
            "128B ]          0\t         2\n"
            "-----\n"
            "Total : 1006\n"
            "\n"
            "== ZEL Controller\n"
            "   ==================================\n"
            "     DATA BANDWIDTH  : 3.33333 GB/s\n"
            "     Bytes Moved     : 10000\n"
            "   ==================================\n"
            "   Reads : 30 (4 Responses)\n"
            "   Writes: 10 (6 Responses)\n"
            "   Atomics: 2\n"
            "   Total : 40 (10 Responses)\n"
            "   R/W%  : 75 %\n"
            "\n"
            "== Link 0 Statistics\n"
            "   Reads : 10 (Rsp : 9)\n"
            "   Writes: 5 (Rsp : 0)\n"
            "   Request Utilization  : 25% (7.5 GB/s)\n"
            "   Response Utilization : 17.7683% (5.33049 GB/s)\n"
            "   Effective Bandwidth  : 21.3333 GB/s [64000 bytes]\n"
            "        Read Bandwidth  : 10.6667 GB/s [32000 bytes]\n"
            "       Write Bandwidth  : 10.6667 GB/s [32000 bytes]\n"
            "   Link Avg. Latency : 50 ns\n"
            "   Max Latency       : 80 ns\n"
            "   Min Latency       : 20.5 ns\n"
            "== Link 1 Statistics\n"
            "   Reads : 0 (Rsp : 0)\n"
            "   Writes: 3 (Rsp : 2)\n"
            "   Request Utilization  : 10.6724% (1.60085 GB/s)\n"
            "   Response Utilization : 0% (0 GB/s)\n"
            "   Effective Bandwidth  : 0.213333 GB/s [640 bytes]\n"
            "        Read Bandwidth  : 0 GB/s [0 bytes]\n"
            "       Write Bandwidth  : 0.213333 GB/s [640 bytes]\n"
            "   Link Avg. Latency : -\n"
            "   Max Latency       : -\n"
            "   Min Latency       : -\n"
            "== Vault 0 at 3000ns\n"
            "\tBank Counts : [1 2 3 4 ]\n"
            "\tReads       : 7\n"
            "\tWrites      : 3\n"
            "\tTotal       : 10\n"
            "\tCASs        : 100 (3200 bytes)\n"
            "\tTSV BW      : 1.06667 GB/s\n"
            "== Vault 1 at 3000ns\n"
            "\tBank Counts : [0 0 0 0 ]\n"
            "\tReads       : 0\n"
            "\tWrites      : 1\n"
            "\tTotal       : 1\n"
            "\tCASs        : 0 (0 bytes)\n"
            "\tTSV BW      : 0 GB/s\n"
            "===================\n"
            "  Total Vault BW    : 1.06667\n"
            "  Total Bytes Moved : 768\n");
}

// Every report counts from time 0 and replaces the file; std::cout keeps the
// four digits that the first report set, down to the next header. With the
// file switched off, the last file stays as it was. The counters that none
// of the model's blocks raises show zeros and a read share of 0 / 0.
TEST(StatsReport, SecondReportReplacesFile) {
  zelsim_test::TempDir dir;
  Config cfg;
  SmallShape(cfg);
  cfg.DUMP_STATS_FILE = true;
  cfg.STATS_FILENAME = dir.path + "/stats.txt";
  StatsKeeper stats(cfg);

  AdvanceTo(sc_time(1234567, SC_PS));
  stats.linkBytes[0] = 1000;
  const std::string first = CaptureReport(stats, sc_core::sc_time_stamp());
  EXPECT_EQ(Lines(first)[0], "======= Dumping stats at 1234.57ns / 771 cube cycles =======");
  ExpectLines(first, {"Reads:0,0,0,0,0,0,0,0,", "Writes:0,0,0,0,0,0,0,0,"});
  const std::string firstFile = ReadFile(cfg.STATS_FILENAME);
  ExpectLines(firstFile, {"   Effective Bandwidth  : 0.810001 GB/s [1000 bytes]",
                          " 64B ]          0\t         0", "Total : 0", "     DATA BANDWIDTH  : 0 GB/s",
                          "     Bytes Moved     : 0", "   Reads : 0 (0 Responses)",
                          "   Writes: 0 (0 Responses)", "   Total : 0 (0 Responses)", "   R/W%  : -nan %"});
  EXPECT_EQ(firstFile.find("Atomics"), std::string::npos);

  AdvanceTo(sc_time(2468300, SC_PS));
  stats.linkBytes[0] = 3000;
  const std::string second = CaptureReport(stats, sc_core::sc_time_stamp());
  EXPECT_EQ(Lines(second)[0], "======= Dumping stats at 2468ns / 1542 cube cycles =======");
  ExpectLines(second, {"   Effective Bandwidth  : 1.215 GB/s [3000 bytes]"});

  const std::string secondFile = ReadFile(cfg.STATS_FILENAME);
  EXPECT_EQ(Lines(secondFile).size(), Lines(firstFile).size());
  EXPECT_EQ(secondFile.find("======= Dumping stats at 2468.3ns / 1542 cube cycles =======\n"), 0u);
  EXPECT_EQ(secondFile.find("Dumping stats", secondFile.find("Dumping stats") + 1), std::string::npos);
  ExpectLines(secondFile, {"   Effective Bandwidth  : 1.21541 GB/s [3000 bytes]"});

  cfg.DUMP_STATS_FILE = false;
  stats.linkBytes[0] = 5000;
  CaptureReport(stats, sc_core::sc_time_stamp());
  EXPECT_EQ(ReadFile(cfg.STATS_FILENAME), secondFile);
}
