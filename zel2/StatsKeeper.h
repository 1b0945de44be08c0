// SPDX-License-Identifier: Apache-2.0
// The counters of one cube. Blocks raise the public fields directly; the
// keeper itself only sizes them and turns them into the report.
#ifndef ZEL2_STATSKEEPER_H
#define ZEL2_STATSKEEPER_H

#include <cstdint>
#include <iosfwd>
#include <vector>

#include <systemc>

namespace Sornak {
namespace Internal {
namespace ZEL2 {

class Config;

// Adds (now - lastChange) in ticks times `level`, the level that stood before
// the change, to `field`, and moves `lastChange` to now. The field divided by
// the elapsed time is the mean level.
inline void RaiseTimeIntegral(uint64_t& field, sc_core::sc_time& lastChange, uint64_t level) {
  const sc_core::sc_time now = sc_core::sc_time_stamp();
  field += (now.value() - lastChange.value()) * level;
  lastChange = now;
}

// ---- Report arithmetic --------------------------------------------------
// Plain functions behind the figures of the report; none needs a kernel.

// `when` in nanoseconds, narrowed to single precision.
float ReportTimeNs(const sc_core::sc_time& when);

// Whole periods of `coreClk` in `when` (tick counts divided as doubles, then
// truncated).
uint64_t ReportCubeCycles(const sc_core::sc_time& when, const sc_core::sc_time& coreClk);

// Lanes of link `link` as the report reads them: LINK_<link>_WIDTH, and the
// width of link 3 for every link above it.
unsigned ReportLinkLanes(const Config& cfg, unsigned link);

// Rate of a link in GB/s: lanes times gigabits per lane, over 8 bits a byte.
float LinkRate(unsigned lanes, float gigabitsPerLane);

// How many flits a link could have carried in `elapsed`, one per `flitTime`
// (whole ticks, integer division). A zero flit time divides by zero.
uint64_t FlitSlots(const sc_core::sc_time& elapsed, const sc_core::sc_time& flitTime);

// Share of the flit slots that carried flits. With no slots yet (time 0) it
// is 0 / 0 or n / 0, which the report prints as it comes.
float Utilization(uint64_t flits, uint64_t flitSlots);

// GB/s of `bytes` moved in `when`: one second over `when`, times the bytes,
// over 1e9. A `when` of zero gives infinity times the bytes.
double Bandwidth(const sc_core::sc_time& when, uint64_t bytes);

// GB/s of a vault: 32 bytes per column access over the elapsed nanoseconds.
float VaultBandwidth(uint64_t columnAccesses, float nowNs);

class StatsKeeper {
 public:
  using Counters = std::vector<uint64_t>;

  // Requests by size, index size / 16 - 1. Nothing in the model raises them.
  Counters readsBySize;
  Counters writesBySize;

  // Per vault.
  Counters vaultReads;
  Counters vaultWrites;
  Counters vaultCASs;       // READ and WRITE commands, refresh reads included
  Counters vaultBytes;
  Counters vaultRefreshes;
  Counters vaultCreditTime;  // time integral of response credits
  std::vector<std::vector<uint32_t>> bankCounts;  // ACTs per [vault][partition * NUM_BANKS + bank]
  Counters vaultOpenBankTime;     // time integral of open banks
  Counters vaultTransactionTime;  // time integral of the transaction queue
  Counters vaultRequestTime;      // time integral of request queue transactions
  std::vector<sc_core::sc_time> vaultDataTime;  // busy time of the vault's data bus

  // Per link.
  Counters linkReads;
  Counters linkWrites;
  Counters linkReadResponses;   // raised by nothing in the model
  Counters linkWriteResponses;  // raised by nothing in the model
  Counters linkBytes;
  Counters linkReadBytes;
  Counters linkWriteBytes;
  std::vector<uint32_t> linkSpare;
  Counters linkRequestFlits;
  Counters linkResponseFlits;
  std::vector<Counters> linkQuadCountsA;  // [quad][link]
  std::vector<Counters> linkQuadCountsB;  // [quad][link]
  Counters linkLatencySum;                // ticks; raised by nothing in the model
  Counters linkLatencyCountA;
  Counters linkLatencyCountB;
  std::vector<uint32_t> linkMaxLatency;  // ticks
  std::vector<uint32_t> linkMinLatency;  // ticks, starts at all ones
  std::vector<std::vector<sc_core::sc_time>> linkStageTimes;  // 14 x NUM_LINKS

  // Totals; raised by nothing in the model.
  uint64_t totalReads;
  uint64_t totalWrites;
  uint64_t totalAtomics;
  uint64_t totalBytes;
  Counters linkResponsesA;
  Counters linkResponsesB;
  Counters linkWriteResponsesTotal;

  // Switch buffers, time integrals: [quad][buffer].
  std::vector<Counters> vswBufferTime;  // VAULTS_PER_QUAD + NUM_QUADS - 1 buffers
  std::vector<Counters> lswBufferTime;  // NUM_QUADS source buffers
  Counters lswFlitsMoved;              // per quad

  const Config* cfg;

  explicit StatsKeeper(const Config& config);

  // Prints the report for a run of `when` on std::cout, and its long form to
  // the statistics file when that is enabled. Changes no counter.
  void DumpStats(sc_core::sc_time when);

 private:
  // Pieces that the short report on std::cout and the long one in the file
  // share, each written to `out` in that stream's own format.
  void PrintHeader(std::ostream& out, float nowNs, uint64_t cubeCycles) const;
  // The counts, utilisations and bandwidths of one link (all but its title).
  void PrintLinkFigures(std::ostream& out, unsigned link, const sc_core::sc_time& when) const;
  // The title and the request counts of one vault.
  void PrintVaultCounts(std::ostream& out, unsigned vault, float nowNs) const;
  void PrintClosing(std::ostream& out, float totalVaultBW, uint64_t totalBytesMoved) const;
  // The long form of the report, into the file STATS_FILENAME.
  void DumpStatsFile(const sc_core::sc_time& when, float nowNs, uint64_t cubeCycles) const;
};

}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak

#endif  // ZEL2_STATSKEEPER_H
