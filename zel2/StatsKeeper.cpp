// SPDX-License-Identifier: Apache-2.0
#include "zel2/StatsKeeper.h"

#include <fstream>
#include <iomanip>
#include <iostream>

#include "zel2/Config.h"
#include "zel2/zel2_utils.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {

StatsKeeper::StatsKeeper(const Config& config)
    : readsBySize(8, 0),
      writesBySize(8, 0),
      vaultReads(config.NUM_VAULTS, 0),
      vaultWrites(config.NUM_VAULTS, 0),
      vaultCASs(config.NUM_VAULTS, 0),
      vaultBytes(config.NUM_VAULTS, 0),
      vaultRefreshes(config.NUM_VAULTS, 0),
      vaultCreditTime(config.NUM_VAULTS, 0),
      // Room for 8 partitions, the most a vault can have, so that a later
      // change of the cube size needs no resizing.
      bankCounts(config.NUM_VAULTS, std::vector<uint32_t>(config.NUM_BANKS * 8, 0)),
      vaultOpenBankTime(config.NUM_VAULTS, 0),
      vaultTransactionTime(config.NUM_VAULTS, 0),
      vaultRequestTime(config.NUM_VAULTS, 0),
      vaultDataTime(config.NUM_VAULTS, sc_core::SC_ZERO_TIME),
      linkReads(config.NUM_LINKS, 0),
      linkWrites(config.NUM_LINKS, 0),
      linkReadResponses(config.NUM_LINKS, 0),
      linkWriteResponses(config.NUM_LINKS, 0),
      linkBytes(config.NUM_LINKS, 0),
      linkReadBytes(config.NUM_LINKS, 0),
      linkWriteBytes(config.NUM_LINKS, 0),
      linkSpare(config.NUM_LINKS, 0),
      linkRequestFlits(config.NUM_LINKS, 0),
      linkResponseFlits(config.NUM_LINKS, 0),
      linkQuadCountsA(config.NUM_QUADS, Counters(config.NUM_LINKS, 0)),
      linkQuadCountsB(config.NUM_QUADS, Counters(config.NUM_LINKS, 0)),
      linkLatencySum(config.NUM_LINKS, 0),
      linkLatencyCountA(config.NUM_LINKS, 0),
      linkLatencyCountB(config.NUM_LINKS, 0),
      linkMaxLatency(config.NUM_LINKS, 0),
      linkMinLatency(config.NUM_LINKS, 0xffffffffu),
      linkStageTimes(14, std::vector<sc_core::sc_time>(config.NUM_LINKS, sc_core::SC_ZERO_TIME)),
      totalReads(0),
      totalWrites(0),
      totalAtomics(0),
      totalBytes(0),
      linkResponsesA(config.NUM_LINKS, 0),
      linkResponsesB(config.NUM_LINKS, 0),
      linkWriteResponsesTotal(config.NUM_LINKS, 0),
      vswBufferTime(config.NUM_QUADS, Counters(config.VAULTS_PER_QUAD + config.NUM_QUADS - 1, 0)),
      lswBufferTime(config.NUM_QUADS, Counters(config.NUM_QUADS, 0)),
      lswFlitsMoved(config.NUM_QUADS, 0),
      cfg(&config) {}

// ---- Report arithmetic --------------------------------------------------

float ReportTimeNs(const sc_core::sc_time& when) { return static_cast<float>(when.to_seconds() * 1e9); }

uint64_t ReportCubeCycles(const sc_core::sc_time& when, const sc_core::sc_time& coreClk) {
  return static_cast<uint64_t>(when.to_double() / coreClk.to_double());
}

unsigned ReportLinkLanes(const Config& cfg, unsigned link) { return cfg.LinkWidth(link); }

float LinkRate(unsigned lanes, float gigabitsPerLane) {
  return static_cast<float>(static_cast<float>(lanes) * gigabitsPerLane * 0.125);
}

uint64_t FlitSlots(const sc_core::sc_time& elapsed, const sc_core::sc_time& flitTime) {
  return elapsed.value() / flitTime.value();
}

float Utilization(uint64_t flits, uint64_t flitSlots) {
  return static_cast<float>(flits) / static_cast<float>(flitSlots);
}

double Bandwidth(const sc_core::sc_time& when, uint64_t bytes) {
  const double secondsRate = sc_core::sc_time(1, sc_core::SC_SEC).to_double() / when.to_double();
  return (secondsRate * static_cast<double>(bytes)) / 1e9;
}

float VaultBandwidth(uint64_t columnAccesses, float nowNs) {
  return static_cast<float>(columnAccesses * 32) / nowNs;
}

// ---- The report ----------------------------------------------------------

namespace {

// Single-precision figures go out widened to double.
double Wide(float value) { return static_cast<double>(value); }

// Request sizes of the per-size counters: index i counts requests of
// (i + 1) * 16 bytes.
constexpr unsigned kRequestSizes = 8;
unsigned RequestSize(unsigned index) { return (index + 1) * 16; }

}  // namespace

void StatsKeeper::PrintHeader(std::ostream& out, float nowNs, uint64_t cubeCycles) const {
  out << "======= Dumping stats at " << Wide(nowNs) << "ns / " << cubeCycles
      << " cube cycles =======" << std::endl;
}

void StatsKeeper::PrintLinkFigures(std::ostream& out, unsigned link, const sc_core::sc_time& when) const {
  const unsigned lanes = ReportLinkLanes(*cfg, link);
  const float linkRate = LinkRate(lanes, cfg->LINK_SPEED);
  // The slots count up to the present moment of the kernel, whatever `when`
  // says.
  const uint64_t flitSlots =
      FlitSlots(sc_core::sc_time_stamp(), FlitTimeOnLink(cfg->FLIT_SIZE, lanes, cfg->LINK_SPEED));
  const float requestShare = Utilization(linkRequestFlits[link], flitSlots);
  const float responseShare = Utilization(linkResponseFlits[link], flitSlots);

  out << "   Reads : " << linkReads[link] << " (Rsp : " << linkReadResponses[link] << ")" << std::endl;
  out << "   Writes: " << linkWrites[link] << " (Rsp : " << linkWriteResponses[link] << ")" << std::endl;
  out << "   Request Utilization  : " << Wide(requestShare * 100) << "% (" << Wide(requestShare * linkRate)
      << " GB/s)" << std::endl;
  out << "   Response Utilization : " << Wide(responseShare * 100) << "% (" << Wide(responseShare * linkRate)
      << " GB/s)" << std::endl;
  out << "   Effective Bandwidth  : " << Bandwidth(when, linkBytes[link]) << " GB/s [" << linkBytes[link]
      << " bytes]" << std::endl;
  out << "        Read Bandwidth  : " << Bandwidth(when, linkReadBytes[link]) << " GB/s ["
      << linkReadBytes[link] << " bytes]" << std::endl;
  out << "       Write Bandwidth  : " << Bandwidth(when, linkWriteBytes[link]) << " GB/s ["
      << linkWriteBytes[link] << " bytes]" << std::endl;
}

void StatsKeeper::PrintVaultCounts(std::ostream& out, unsigned vault, float nowNs) const {
  out << "== Vault " << vault << " at " << Wide(nowNs) << "ns" << std::endl;
  // Only the banks of the present partitions, although the row has room
  // for eight.
  out << "\tBank Counts : [";
  const unsigned banks = cfg->NUM_PARTITIONS * cfg->NUM_BANKS;
  for (unsigned b = 0; b < banks; ++b) out << bankCounts[vault][b] << " ";
  out << "]" << std::endl;
  out << "\tReads       : " << vaultReads[vault] << std::endl;
  out << "\tWrites      : " << vaultWrites[vault] << std::endl;
  out << "\tTotal       : " << vaultReads[vault] + vaultWrites[vault] << std::endl;
}

void StatsKeeper::PrintClosing(std::ostream& out, float totalVaultBW, uint64_t totalBytesMoved) const {
  out << "===================" << std::endl;
  out << "  Total Vault BW    : " << Wide(totalVaultBW) << std::endl;
  out << "  Total Bytes Moved : " << totalBytesMoved << std::endl;
}

void StatsKeeper::DumpStats(sc_core::sc_time when) {
  const float nowNs = ReportTimeNs(when);
  const uint64_t cubeCycles = ReportCubeCycles(when, cfg->CORE_CLK);
  const unsigned numVaults = cfg->NUM_QUADS * cfg->VAULTS_PER_QUAD;

  std::cout.fill(' ');
  PrintHeader(std::cout, nowNs, cubeCycles);
  std::cout << "==== Per-Packet Bandwidth ====" << std::endl;
  std::cout << "Size:";
  for (unsigned s = 0; s < kRequestSizes; ++s) std::cout << RequestSize(s) << "B,";
  std::cout << std::endl;
  // From here on std::cout shows four significant digits, and keeps them
  // after the report: later reports and any other output see the same.
  std::cout.precision(4);
  std::cout << "Reads:";
  for (unsigned s = 0; s < kRequestSizes; ++s)
    std::cout << Bandwidth(when, RequestSize(s) * readsBySize[s]) << ",";
  std::cout << std::endl;
  std::cout << "Writes:";
  for (unsigned s = 0; s < kRequestSizes; ++s)
    std::cout << Bandwidth(when, RequestSize(s) * writesBySize[s]) << ",";
  std::cout << std::endl;

  for (unsigned i = 0; i < cfg->NUM_LINKS; ++i) {
    const unsigned lanes = ReportLinkLanes(*cfg, i);
    std::cout << "== Link " << i << " [" << lanes << " lanes @ " << Wide(cfg->LINK_SPEED)
              << "Gbps = " << Wide(LinkRate(lanes, cfg->LINK_SPEED)) << " GB/s]" << std::endl;
    PrintLinkFigures(std::cout, i, when);
  }

  float totalVaultBW = 0;
  uint64_t totalBytesMoved = 0;
  for (unsigned v = 0; v < numVaults; ++v) {
    const float vaultBW = VaultBandwidth(vaultCASs[v], nowNs);
    totalVaultBW += vaultBW;
    totalBytesMoved += vaultBytes[v];
    PrintVaultCounts(std::cout, v, nowNs);
    std::cout << "\tVault BW    : " << Wide(vaultBW) << " GB/s" << std::endl;
  }
  PrintClosing(std::cout, totalVaultBW, totalBytesMoved);

  if (cfg->DUMP_STATS_FILE) DumpStatsFile(when, nowNs, cubeCycles);
}

void StatsKeeper::DumpStatsFile(const sc_core::sc_time& when, float nowNs, uint64_t cubeCycles) const {
  // Truncated at every call, so the file holds the last report only. A file
  // that can't be opened leaves the stream failed and the writes go nowhere.
  std::ofstream out(cfg->STATS_FILENAME.c_str(), std::ios::out | std::ios::trunc);
  out.fill(' ');
  const unsigned numVaults = cfg->NUM_QUADS * cfg->VAULTS_PER_QUAD;
  const float ticksPerNs = static_cast<float>(sc_core::sc_time(1, sc_core::SC_NS).to_double() /
                                              sc_core::sc_get_time_resolution().to_double());
  uint32_t readResponses = 0;
  uint32_t writeResponses = 0;
  for (unsigned i = 0; i < cfg->NUM_LINKS; ++i) {
    readResponses += linkResponsesA[i] + linkResponsesB[i];
    writeResponses += linkWriteResponsesTotal[i];
  }

  PrintHeader(out, nowNs, cubeCycles);
  out << "==== Generator Requests ====" << std::endl;
  out << "         (READS)    (WRITES)" << std::endl;
  uint32_t generatorTotal = 0;  // deliberately 32 bits wide, like the response sums
  for (unsigned s = 0; s < kRequestSizes; ++s) {
    out << std::setw(3) << RequestSize(s) << "B ] " << std::setw(10) << readsBySize[s] << "\t"
        << std::setw(10) << writesBySize[s] << std::endl;
    generatorTotal += readsBySize[s] + writesBySize[s];
  }
  out << "-----" << std::endl;
  out << "Total : " << generatorTotal << std::endl;
  out << std::endl;

  out << "== ZEL Controller" << std::endl;
  out << "   ==================================" << std::endl;
  out << "     DATA BANDWIDTH  : " << Bandwidth(when, totalBytes) << " GB/s" << std::endl;
  out << "     Bytes Moved     : " << totalBytes << std::endl;
  out << "   ==================================" << std::endl;
  out << "   Reads : " << totalReads << " (" << readResponses << " Responses)" << std::endl;
  out << "   Writes: " << totalWrites << " (" << writeResponses << " Responses)" << std::endl;
  if (totalAtomics != 0) out << "   Atomics: " << totalAtomics << std::endl;
  out << "   Total : " << totalReads + totalWrites << " (" << readResponses + writeResponses << " Responses)"
      << std::endl;
  const float readShare = static_cast<float>(totalReads) /
                          (static_cast<float>(totalWrites) + static_cast<float>(totalReads)) * 100;
  out << "   R/W%  : " << Wide(readShare) << " %" << std::endl;
  out << std::endl;

  for (unsigned i = 0; i < cfg->NUM_LINKS; ++i) {
    out << "== Link " << i << " Statistics" << std::endl;
    PrintLinkFigures(out, i, when);
    const uint64_t responses = linkResponsesA[i] + linkResponsesB[i];
    if (responses != 0) {
      out << "   Link Avg. Latency : "
          << Wide(static_cast<float>(linkLatencySum[i]) / static_cast<float>(responses) / ticksPerNs) << " ns"
          << std::endl;
      out << "   Max Latency       : " << Wide(static_cast<float>(linkMaxLatency[i]) / ticksPerNs) << " ns"
          << std::endl;
      out << "   Min Latency       : " << Wide(static_cast<float>(linkMinLatency[i]) / ticksPerNs) << " ns"
          << std::endl;
    } else {
      out << "   Link Avg. Latency : -" << std::endl;
      out << "   Max Latency       : -" << std::endl;
      out << "   Min Latency       : -" << std::endl;
    }
  }

  float totalVaultBW = 0;
  uint64_t totalBytesMoved = 0;
  for (unsigned v = 0; v < numVaults; ++v) {
    const float vaultBW = VaultBandwidth(vaultCASs[v], nowNs);
    totalVaultBW += vaultBW;
    totalBytesMoved += vaultBytes[v];
    PrintVaultCounts(out, v, nowNs);
    out << "\tCASs        : " << vaultCASs[v] << " (" << vaultCASs[v] * 32 << " bytes)" << std::endl;
    out << "\tTSV BW      : " << Wide(vaultBW) << " GB/s" << std::endl;
  }
  PrintClosing(out, totalVaultBW, totalBytesMoved);
}

}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak
