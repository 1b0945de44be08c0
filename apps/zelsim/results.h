// SPDX-License-Identifier: Apache-2.0
// What a zelsim run found out, as plain records: the host's counts per link
// and per generator, its latencies, and the run as a whole; printed as a
// summary for people and as JSON for programs.
#ifndef ZELSIM_RESULTS_H
#define ZELSIM_RESULTS_H

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "apps/zelsim/latency.h"
#include "zel2/Config.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Bench {

// The host's counts of one link.
struct LinkResults {
  unsigned link = 0;
  uint64_t issued = 0;  // requests whose first flit went out
  uint64_t reads = 0;
  uint64_t writes = 0;  // WR and P_WR
  uint64_t atomics = 0;
  uint64_t posted = 0;                  // issued requests that get no response
  uint64_t completed = 0;               // non-posted requests whose whole response came back
  uint64_t outstanding = 0;             // non-posted requests still waiting at the end
  uint64_t requestFlits = 0;            // request flits sent
  uint64_t responseFlits = 0;           // RD_RSP and WR_RSP flits received
  uint64_t tokenReturnsSent = 0;        // TOKEN_RETURN flits the host sent
  uint64_t tokenReturnsReceived = 0;    // TOKEN_RETURN flits the cube sent
  uint64_t requestTokensReceived = 0;   // tokens the cube granted for requests
  uint64_t responseTokensReturned = 0;  // tokens the host granted for responses
  uint64_t requestTokensHeld = 0;       // request tokens in the host's hands at the end
  uint64_t bytesRead = 0;               // payload of completed reads
  uint64_t bytesWritten = 0;            // payload of issued writes
  uint64_t mismatches = 0;              // responses that matched no request as they should
  uint64_t offeredBytesRead = 0;        // payload of the reads the generators made for this link
  uint64_t offeredBytesWritten = 0;     // payload of the writes they made for it
  // Flit time of the link in ps: its capacity is one flit per flit time.
  uint64_t flitTimePs = 0;
  // Latencies of the completed requests, from the first request flit sent
  // to the last response flit taken, by kind: reads, non-posted writes and
  // non-posted atomics.
  LatencyHistogram readLatency;
  LatencyHistogram writeLatency;
  LatencyHistogram atomicLatency;

  // All three kinds together.
  LatencyHistogram Latency() const;
  // Carried any traffic: sent a request or took a response.
  bool CarriedTraffic() const { return issued != 0 || responseFlits != 0; }
};

struct GeneratorResults {
  unsigned generator = 0;
  uint64_t generated = 0;  // requests put into its host queue
  uint64_t issued = 0;     // of these, sent to the cube
  bool done = false;       // made all its requests
};

struct RunResults {
  std::string version;
  uint64_t seed = 0;
  std::vector<std::string> corrections;  // names of the model corrections asked for
  double simTimeNs = 0;                  // SIM_TIME; 0 for no limit
  double endTimeNs = 0;                  // when the run ended
  // The traffic's time: from the first request flit sent to the last
  // response flit taken; no time when either is missing.
  bool sentAny = false;
  bool tookAny = false;
  uint64_t firstRequestPs = 0;
  uint64_t lastResponsePs = 0;
  bool drained = false;   // ended because all generators were done and all traffic was back
  bool deadlock = false;  // stopped by the deadlock watchdog
  std::vector<LinkResults> links;
  std::vector<GeneratorResults> generators;
  std::vector<std::string> mismatchMessages;  // the first few, word for word
  // The run as planned, for the summary's first line.
  unsigned numGenerators = 0;
  uint64_t numRequests = 0;
  bool traces = false;
  // --check-rest: whether it ran, and what it found.
  bool restChecked = false;
  std::vector<std::string> restViolations;
  // Wall-clock time of the simulation, the only figure that differs between
  // two runs of the same point.
  double wallSeconds = 0;

  LinkResults Total() const;
  uint64_t Mismatches() const { return Total().mismatches; }
  double TrafficTimeNs() const;
};

// The summary for people, after the model's own report: one table per link
// that carried traffic, then the total.
void PrintSummary(std::ostream& out, const RunResults& results);
// The results as one JSON object (fields in docs/usage.md), with the
// effective configuration `cfg`.
void WriteJson(std::ostream& out, const RunResults& results, const Config& cfg);

}  // namespace Bench
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak

#endif  // ZELSIM_RESULTS_H
