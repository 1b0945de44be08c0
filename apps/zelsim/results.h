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

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Bench {

// Latencies in nanoseconds: count, sum, smallest and largest.
struct LatencyStats {
  uint64_t count = 0;
  double sumNs = 0;
  double minNs = 0;
  double maxNs = 0;

  void Add(double ns);
  void Merge(const LatencyStats& other);
  double MeanNs() const { return count == 0 ? 0 : sumNs / static_cast<double>(count); }
};

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
  LatencyStats latency;                 // first request flit sent to last response flit taken
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
  double simTimeNs = 0;  // SIM_TIME; 0 for no limit
  double endTimeNs = 0;  // when the run ended
  bool drained = false;  // ended because all generators were done and all traffic was back
  std::vector<LinkResults> links;
  std::vector<GeneratorResults> generators;
  std::vector<std::string> mismatchMessages;  // the first few, word for word

  LinkResults Total() const;
  uint64_t Mismatches() const { return Total().mismatches; }
};

// The summary for people, after the model's own report.
void PrintSummary(std::ostream& out, const RunResults& results);
// The results as one JSON object (fields in docs/usage.md).
void WriteJson(std::ostream& out, const RunResults& results);
// A string as a JSON string literal, quotes included.
std::string JsonString(const std::string& text);

}  // namespace Bench
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak

#endif  // ZELSIM_RESULTS_H
