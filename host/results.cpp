// SPDX-License-Identifier: Apache-2.0
#include "host/results.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Bench {

LatencyHistogram LinkResults::Latency() const {
  LatencyHistogram all = readLatency;
  all.Merge(writeLatency);
  all.Merge(atomicLatency);
  return all;
}

LinkResults HostResults::Total() const {
  LinkResults total;
  for (const LinkResults& r : links) {
    total.issued += r.issued;
    total.reads += r.reads;
    total.writes += r.writes;
    total.atomics += r.atomics;
    total.posted += r.posted;
    total.completed += r.completed;
    total.outstanding += r.outstanding;
    total.requestFlits += r.requestFlits;
    total.responseFlits += r.responseFlits;
    total.tokenReturnsSent += r.tokenReturnsSent;
    total.tokenReturnsReceived += r.tokenReturnsReceived;
    total.requestTokensReceived += r.requestTokensReceived;
    total.responseTokensReturned += r.responseTokensReturned;
    total.requestTokensHeld += r.requestTokensHeld;
    total.bytesRead += r.bytesRead;
    total.bytesWritten += r.bytesWritten;
    total.mismatches += r.mismatches;
    total.offeredBytesRead += r.offeredBytesRead;
    total.offeredBytesWritten += r.offeredBytesWritten;
    total.readLatency.Merge(r.readLatency);
    total.writeLatency.Merge(r.writeLatency);
    total.atomicLatency.Merge(r.atomicLatency);
  }
  return total;
}

double HostResults::TrafficTimeNs() const {
  if (!sentAny || !tookAny || lastResponsePs < firstRequestPs) return 0;
  return static_cast<double>(lastResponsePs - firstRequestPs) / 1000;
}

}  // namespace Bench
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak
