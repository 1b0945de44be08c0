// SPDX-License-Identifier: Apache-2.0
// The statistics report: its arithmetic, and its text on std::cout and in
// the statistics file, line for line. No cube is built: each case makes a
// Config and a StatsKeeper, sets counters by hand and lets simulated time
// pass with sc_start where the report reads the kernel's clock.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <systemc>
#include <vector>

#include "zel2/Config.h"
#include "zel2/StatsKeeper.h"
#include "zel2/zel2_utils.h"

using namespace Sornak::Internal::ZEL2;
using sc_core::SC_NS;
using sc_core::SC_PS;
using sc_core::sc_time;

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

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// True when `line` is one whole line of `text`.
bool HasLine(const std::string& text, const std::string& line) {
  for (const auto& l : Lines(text))
    if (l == line) return true;
  return false;
}

std::string StatsPath(const char* name) { return ::testing::TempDir() + "zelsim_stats_" + name + ".txt"; }

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

// The counters that blocks of the model raise, for the small shape.
void RaiseModelCounters(StatsKeeper& stats) {
  stats.readsBySize[0] = 1;
  stats.writesBySize[1] = 1000;
  stats.linkReads[0] = 10;
  stats.linkWrites[0] = 5;
  stats.linkRequestFlits[0] = 1407;
  stats.linkResponseFlits[0] = 1000;
  stats.linkBytes[0] = 64000;
  stats.linkReadBytes[0] = 32000;
  stats.linkWriteBytes[0] = 32000;
  stats.linkWrites[1] = 3;
  stats.linkRequestFlits[1] = 300;
  stats.linkBytes[1] = 640;
  stats.linkWriteBytes[1] = 640;
  stats.bankCounts[0][0] = 1;
  stats.bankCounts[0][1] = 2;
  stats.bankCounts[0][2] = 3;
  stats.bankCounts[0][3] = 4;
  stats.bankCounts[0][4] = 99;  // a bank of a partition the vault doesn't have
  stats.vaultReads[0] = 7;
  stats.vaultWrites[0] = 3;
  stats.vaultCASs[0] = 100;
  stats.vaultBytes[0] = 640;
  stats.vaultWrites[1] = 1;
  stats.vaultBytes[1] = 128;
}

}  // namespace

// The figures of the worked example: 16 lanes at 15 Gb/s over 1000 ns.
TEST(StatsArithmetic, WorkedExampleAndEdges) {
  Config cfg;
  EXPECT_EQ(LinkRate(16, 15.0f), 30.0f);
  EXPECT_EQ(LinkRate(8, 12.5f), 12.5f);
  const sc_time flitTime = FlitTimeOnLink(16, 16, 15.0f);
  EXPECT_EQ(flitTime, sc_time(533, SC_PS));
  EXPECT_EQ(FlitSlots(sc_time(1000, SC_NS), flitTime), 1876u);
  EXPECT_EQ(FlitSlots(sc_time(1000, SC_NS), FlitTimeOnLink(16, 8, 15.0f)), 937u);  // 1067 ps a flit
  EXPECT_EQ(Utilization(938, 1876), 0.5f);
  EXPECT_DOUBLE_EQ(Bandwidth(sc_time(1000, SC_NS), 15000), 15.0);
  EXPECT_EQ(VaultBandwidth(100, 1000.0f), 3.2f);
  EXPECT_EQ(ReportTimeNs(sc_time(1234567, SC_PS)), 1234.567f);
  EXPECT_EQ(ReportCubeCycles(sc_time(1000, SC_NS), cfg.CORE_CLK), 625u);
  EXPECT_EQ(ReportCubeCycles(sc_time(1599, SC_PS), cfg.CORE_CLK), 0u);

  // At time 0 the figures are divisions by zero.
  EXPECT_TRUE(std::isinf(Bandwidth(sc_core::SC_ZERO_TIME, 64)));
  EXPECT_TRUE(std::isnan(Bandwidth(sc_core::SC_ZERO_TIME, 0)));
  EXPECT_TRUE(std::isnan(Utilization(0, 0)));
  EXPECT_TRUE(std::isinf(VaultBandwidth(1, 0.0f)));

  // Links above 3 take the width of link 3.
  cfg.LINK_1_WIDTH = 4;
  cfg.LINK_3_WIDTH = 8;
  EXPECT_EQ(ReportLinkLanes(cfg, 0), 16u);
  EXPECT_EQ(ReportLinkLanes(cfg, 1), 4u);
  EXPECT_EQ(ReportLinkLanes(cfg, 3), 8u);
  EXPECT_EQ(ReportLinkLanes(cfg, 6), 8u);
}

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

TEST(StatsReport, StdoutLineForLine) {
  Config cfg;
  SmallShape(cfg);
  StatsKeeper stats(cfg);
  AdvanceTo(sc_time(3000, SC_NS));
  RaiseModelCounters(stats);
  std::cout.fill('*');
  const std::string text = CaptureReport(stats, sc_core::sc_time_stamp());

  // The head stays at the stream's six digits; four from "Reads:" on.
  EXPECT_EQ(text,
            "======= Dumping stats at 3000ns / 1875 cube cycles =======\n"
            "==== Per-Packet Bandwidth ====\n"
            "Size:16B,32B,48B,64B,80B,96B,112B,128B,\n"
            "Reads:0.005333,0,0,0,0,0,0,0,\n"
            "Writes:0,10.67,0,0,0,0,0,0,\n"
            "== Link 0 [16 lanes @ 15Gbps = 30 GB/s]\n"
            "   Reads : 10 (Rsp : 0)\n"
            "   Writes: 5 (Rsp : 0)\n"
            "   Request Utilization  : 25% (7.5 GB/s)\n"
            "   Response Utilization : 17.77% (5.33 GB/s)\n"
            "   Effective Bandwidth  : 21.33 GB/s [64000 bytes]\n"
            "        Read Bandwidth  : 10.67 GB/s [32000 bytes]\n"
            "       Write Bandwidth  : 10.67 GB/s [32000 bytes]\n"
            "== Link 1 [8 lanes @ 15Gbps = 15 GB/s]\n"
            "   Reads : 0 (Rsp : 0)\n"
            "   Writes: 3 (Rsp : 0)\n"
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
}

TEST(StatsReport, FileLineForLine) {
  Config cfg;
  SmallShape(cfg);
  cfg.DUMP_STATS_FILE = true;
  cfg.STATS_FILENAME = StatsPath("long_form");
  StatsKeeper stats(cfg);
  AdvanceTo(sc_time(3000, SC_NS));
  RaiseModelCounters(stats);
  // Counters that only a host can raise, to show where each one lands.
  stats.readsBySize[0] = 0x100000003ull;  // the total keeps 32 bits of it
  stats.writesBySize[7] = 2;
  stats.linkReadResponses[0] = 9;
  stats.linkWriteResponses[1] = 2;
  stats.totalBytes = 10000;
  stats.totalReads = 30;
  stats.totalWrites = 10;
  stats.totalAtomics = 2;
  stats.linkResponsesA[0] = 3;
  stats.linkResponsesB[0] = 1;
  stats.linkWriteResponsesTotal[1] = 6;
  stats.linkLatencySum[0] = 200000;
  stats.linkMaxLatency[0] = 80000;
  stats.linkMinLatency[0] = 20500;
  CaptureReport(stats, sc_core::sc_time_stamp());

  // The file keeps the stream's six digits throughout.
  EXPECT_EQ(ReadFile(cfg.STATS_FILENAME),
            "======= Dumping stats at 3000ns / 1875 cube cycles =======\n"
            "==== Generator Requests ====\n"
            "         (READS)    (WRITES)\n"
            " 16B ] 4294967299\t         0\n"
            " 32B ]          0\t      1000\n"
            " 48B ]          0\t         0\n"
            " 64B ]          0\t         0\n"
            " 80B ]          0\t         0\n"
            " 96B ]          0\t         0\n"
            "112B ]          0\t         0\n"
            "128B ]          0\t         2\n"
            "-----\n"
            "Total : 1005\n"
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
  std::remove(cfg.STATS_FILENAME.c_str());
}

// What the model alone leaves in the counters that none of its blocks
// raises: zeros, dashes for the latencies and a read share of 0 / 0.
TEST(StatsReport, UnraisedCountersShowZero) {
  Config cfg;
  cfg.DUMP_STATS_FILE = true;
  cfg.STATS_FILENAME = StatsPath("unraised");
  StatsKeeper stats(cfg);
  AdvanceTo(sc_time(1000, SC_NS));
  stats.linkReads[2] = 4;
  stats.linkResponseFlits[2] = 16;
  stats.linkReadBytes[2] = 256;
  stats.linkBytes[2] = 256;
  const std::string text = CaptureReport(stats, sc_core::sc_time_stamp());
  const std::string file = ReadFile(cfg.STATS_FILENAME);

  EXPECT_TRUE(HasLine(text, "Reads:0,0,0,0,0,0,0,0,"));
  EXPECT_TRUE(HasLine(text, "Writes:0,0,0,0,0,0,0,0,"));
  EXPECT_TRUE(HasLine(text, "   Reads : 4 (Rsp : 0)"));
  EXPECT_TRUE(HasLine(text, "   Writes: 0 (Rsp : 0)"));

  EXPECT_TRUE(HasLine(file, " 64B ]          0\t         0"));
  EXPECT_TRUE(HasLine(file, "Total : 0"));
  EXPECT_TRUE(HasLine(file, "     DATA BANDWIDTH  : 0 GB/s"));
  EXPECT_TRUE(HasLine(file, "     Bytes Moved     : 0"));
  EXPECT_TRUE(HasLine(file, "   Reads : 0 (0 Responses)"));
  EXPECT_TRUE(HasLine(file, "   Writes: 0 (0 Responses)"));
  EXPECT_TRUE(HasLine(file, "   Total : 0 (0 Responses)"));
  EXPECT_TRUE(HasLine(file, "   R/W%  : -nan %"));
  EXPECT_EQ(file.find("Atomics"), std::string::npos);
  // Link 2 carried responses, but the latency counters stayed untouched.
  EXPECT_NE(file.find("== Link 2 Statistics\n"
                      "   Reads : 4 (Rsp : 0)\n"
                      "   Writes: 0 (Rsp : 0)\n"
                      "   Request Utilization  : 0% (0 GB/s)\n"
                      "   Response Utilization : 0.852879% (0.255864 GB/s)\n"
                      "   Effective Bandwidth  : 0.256 GB/s [256 bytes]\n"
                      "        Read Bandwidth  : 0.256 GB/s [256 bytes]\n"
                      "       Write Bandwidth  : 0 GB/s [0 bytes]\n"
                      "   Link Avg. Latency : -\n"
                      "   Max Latency       : -\n"
                      "   Min Latency       : -\n"),
            std::string::npos);
  std::remove(cfg.STATS_FILENAME.c_str());
}

// A report at time 0 divides by zero wherever it divides by the time. A
// file that can't be opened is passed over without a word.
TEST(StatsReport, TimeZeroShowsDivisionByZero) {
  Config cfg;
  SmallShape(cfg);
  cfg.DUMP_STATS_FILE = true;
  cfg.STATS_FILENAME = "/nonexistent-zelsim-dir/stats.txt";
  StatsKeeper stats(cfg);
  stats.linkRequestFlits[1] = 5;
  stats.linkBytes[0] = 64;
  stats.vaultCASs[0] = 1;
  const std::string text = CaptureReport(stats, sc_core::sc_time_stamp());

  EXPECT_EQ(text,
            "======= Dumping stats at 0ns / 0 cube cycles =======\n"
            "==== Per-Packet Bandwidth ====\n"
            "Size:16B,32B,48B,64B,80B,96B,112B,128B,\n"
            "Reads:-nan,-nan,-nan,-nan,-nan,-nan,-nan,-nan,\n"
            "Writes:-nan,-nan,-nan,-nan,-nan,-nan,-nan,-nan,\n"
            "== Link 0 [16 lanes @ 15Gbps = 30 GB/s]\n"
            "   Reads : 0 (Rsp : 0)\n"
            "   Writes: 0 (Rsp : 0)\n"
            "   Request Utilization  : -nan% (-nan GB/s)\n"
            "   Response Utilization : -nan% (-nan GB/s)\n"
            "   Effective Bandwidth  : inf GB/s [64 bytes]\n"
            "        Read Bandwidth  : -nan GB/s [0 bytes]\n"
            "       Write Bandwidth  : -nan GB/s [0 bytes]\n"
            "== Link 1 [8 lanes @ 15Gbps = 15 GB/s]\n"
            "   Reads : 0 (Rsp : 0)\n"
            "   Writes: 0 (Rsp : 0)\n"
            "   Request Utilization  : inf% (inf GB/s)\n"
            "   Response Utilization : -nan% (-nan GB/s)\n"
            "   Effective Bandwidth  : -nan GB/s [0 bytes]\n"
            "        Read Bandwidth  : -nan GB/s [0 bytes]\n"
            "       Write Bandwidth  : -nan GB/s [0 bytes]\n"
            "== Vault 0 at 0ns\n"
            "\tBank Counts : [0 0 0 0 ]\n"
            "\tReads       : 0\n"
            "\tWrites      : 0\n"
            "\tTotal       : 0\n"
            "\tVault BW    : inf GB/s\n"
            "== Vault 1 at 0ns\n"
            "\tBank Counts : [0 0 0 0 ]\n"
            "\tReads       : 0\n"
            "\tWrites      : 0\n"
            "\tTotal       : 0\n"
            "\tVault BW    : -nan GB/s\n"
            "===================\n"
            "  Total Vault BW    : -nan\n"
            "  Total Bytes Moved : 0\n");
}

// Every report counts from time 0 and replaces the file; std::cout keeps the
// four digits that the first report set, down to the next header. With the
// file switched off, the last file stays as it was.
TEST(StatsReport, SecondReportReplacesFile) {
  Config cfg;
  SmallShape(cfg);
  cfg.DUMP_STATS_FILE = true;
  cfg.STATS_FILENAME = StatsPath("second");
  StatsKeeper stats(cfg);

  AdvanceTo(sc_time(1234567, SC_PS));
  stats.linkBytes[0] = 1000;
  const std::string first = CaptureReport(stats, sc_core::sc_time_stamp());
  EXPECT_EQ(Lines(first)[0], "======= Dumping stats at 1234.57ns / 771 cube cycles =======");
  const std::string firstFile = ReadFile(cfg.STATS_FILENAME);
  EXPECT_TRUE(HasLine(firstFile, "   Effective Bandwidth  : 0.810001 GB/s [1000 bytes]"));

  AdvanceTo(sc_time(2468300, SC_PS));
  stats.linkBytes[0] = 3000;
  const std::string second = CaptureReport(stats, sc_core::sc_time_stamp());
  EXPECT_EQ(Lines(second)[0], "======= Dumping stats at 2468ns / 1542 cube cycles =======");
  EXPECT_TRUE(HasLine(second, "   Effective Bandwidth  : 1.215 GB/s [3000 bytes]"));

  const std::string secondFile = ReadFile(cfg.STATS_FILENAME);
  EXPECT_EQ(Lines(secondFile).size(), Lines(firstFile).size());
  EXPECT_EQ(secondFile.find("======= Dumping stats at 2468.3ns / 1542 cube cycles =======\n"), 0u);
  EXPECT_EQ(secondFile.find("Dumping stats", secondFile.find("Dumping stats") + 1), std::string::npos);
  EXPECT_TRUE(HasLine(secondFile, "   Effective Bandwidth  : 1.21541 GB/s [3000 bytes]"));

  cfg.DUMP_STATS_FILE = false;
  stats.linkBytes[0] = 5000;
  CaptureReport(stats, sc_core::sc_time_stamp());
  EXPECT_EQ(ReadFile(cfg.STATS_FILENAME), secondFile);
  std::remove(cfg.STATS_FILENAME.c_str());
}
