// SPDX-License-Identifier: Apache-2.0
// What a host engine counted, as plain records: its counts per link and per
// request queue, its latencies, and the traffic's time. LegalHost fills them
// (CollectResults); bandwidth.h turns them into rates.
#ifndef ZELSIM_HOST_RESULTS_H
#define ZELSIM_HOST_RESULTS_H

#include <cstdint>
#include <string>
#include <vector>

#include "host/latency.h"

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

struct HostResults {
  // The traffic's time: from the first request flit sent to the last
  // response flit taken; no time when either is missing.
  bool sentAny = false;
  bool tookAny = false;
  uint64_t firstRequestPs = 0;
  uint64_t lastResponsePs = 0;
  bool drained = false;   // ended because the source was done and all traffic was back
  bool deadlock = false;  // stopped by the deadlock watchdog
  std::vector<LinkResults> links;
  std::vector<GeneratorResults> generators;  // one per request queue
  std::vector<std::string> mismatchMessages;  // the first few, word for word

  // The links' counts added up, their latencies merged.
  LinkResults Total() const;
  uint64_t Mismatches() const { return Total().mismatches; }
  // The traffic's time in ns; 0 when there is none.
  double TrafficTimeNs() const;
};

}  // namespace Bench
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak

#endif  // ZELSIM_HOST_RESULTS_H
