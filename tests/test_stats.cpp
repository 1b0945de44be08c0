// SPDX-License-Identifier: Apache-2.0
// The statistics report on std::cout and in the statistics file, from
// counters set by hand; no cube is built. The report of the default shape on
// std::cout is also pinned by the golden outputs.
#include <algorithm>
#include <cstdint>
#include <initializer_list>

#include "test_support.h"
#include "zel2/Config.h"
#include "zel2/StatsKeeper.h"
#include "zel2/zel2_utils.h"

using namespace Sornak::Internal::ZEL2;
using sc_core::sc_time;
using zelsim_test::Lines;
using zelsim_test::Ns;
using zelsim_test::Ps;
using zelsim_test::ReadFile;

namespace {

void AdvanceTo(const sc_time& target) { sc_core::sc_start(target - sc_core::sc_time_stamp()); }

// What one report writes to std::cout. Only the buffer is swapped: the
// report's own fill and precision on std::cout are checked too.
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

// One quad of two vaults of one partition, and two links, the second 8 lanes
// wide: small enough to spell its report out.
void SmallShape(Config& cfg) {
  cfg.NUM_QUADS = 1;
  cfg.VAULTS_PER_QUAD = 2;
  cfg.NUM_VAULTS = 2;
  cfg.NUM_LINKS = 2;
  cfg.NUM_PARTITIONS = 1;
  cfg.LINK_1_WIDTH = 8;
}

template <class T>
void Set(std::vector<T>& counters, std::initializer_list<T> values) {
  std::copy(values.begin(), values.end(), counters.begin());
}

}  // namespace

// At time 0 every figure divided by the time is a division by zero, and a
// file that can't be opened is passed over without a word. Links above 3
// report the width of link 3.
TEST(StatsReport, LineForLine) {
  Config cfg;
  cfg.LINK_3_WIDTH = 8;
  EXPECT_EQ(ReportLinkLanes(cfg, 6), 8u);
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

  AdvanceTo(Ns(3000));
  Set<uint64_t>(stats.readsBySize, {1, 0x100000003ull});  // the file's total keeps 32 bits
  Set<uint64_t>(stats.writesBySize, {0, 1000, 0, 0, 0, 0, 0, 2});
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

  // Four digits from "Reads:" on; the line order is the golden outputs' one.
  EXPECT_EQ(Lines(text).size(), 36u);
  ExpectLines(
      text,
      {"======= Dumping stats at 3000ns / 1875 cube cycles =======", "Reads:0.005333,4.581e+07,0,0,0,0,0,0,",
       "Writes:0,10.67,0,0,0,0,0,0.08533,", "   Reads : 10 (Rsp : 9)",
       "   Response Utilization : 17.77% (5.33 GB/s)", "       Write Bandwidth  : 10.67 GB/s [32000 bytes]",
       "== Link 1 [8 lanes @ 15Gbps = 15 GB/s]", "   Writes: 3 (Rsp : 2)",
       "   Request Utilization  : 10.67% (1.601 GB/s)", "   Effective Bandwidth  : 0.2133 GB/s [640 bytes]",
       "\tBank Counts : [1 2 3 4 ]", "\tTotal       : 10", "\tVault BW    : 1.067 GB/s",
       "\tBank Counts : [0 0 0 0 ]", "  Total Vault BW    : 1.067", "  Total Bytes Moved : 768"});
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

  AdvanceTo(Ps(1234567));
  stats.linkBytes[0] = 1000;
  const std::string first = CaptureReport(stats, sc_core::sc_time_stamp());
  EXPECT_EQ(Lines(first)[0], "======= Dumping stats at 1234.57ns / 771 cube cycles =======");
  ExpectLines(first, {"Reads:0,0,0,0,0,0,0,0,", "Writes:0,0,0,0,0,0,0,0,"});
  const std::string firstFile = ReadFile(cfg.STATS_FILENAME);
  ExpectLines(firstFile,
              {"   Effective Bandwidth  : 0.810001 GB/s [1000 bytes]", "Total : 0",
               "     DATA BANDWIDTH  : 0 GB/s", "   Total : 0 (0 Responses)", "   R/W%  : -nan %"});
  EXPECT_EQ(firstFile.find("Atomics"), std::string::npos);

  AdvanceTo(Ps(2468300));
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
