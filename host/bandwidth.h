// SPDX-License-Identifier: Apache-2.0
// Bandwidth and link utilisation of a run, from the host's byte and flit
// counts and the traffic's time: the time from the first request flit sent
// to the last response flit taken, so that a run's warm-up and drain at
// either end of SIM_TIME, or a cube idle after its last response, don't
// dilute the figures.
#ifndef ZELSIM_HOST_BANDWIDTH_H
#define ZELSIM_HOST_BANDWIDTH_H

#include <cstdint>
#include <vector>

#include "host/results.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Bench {

// Decimal gigabytes per second: bytes per nanosecond. 0 without time.
double GigabytesPerSecond(uint64_t bytes, double ns);

// Flits that links with these flit times carry in `ns` together.
double FlitCapacity(const std::vector<uint64_t>& flitTimesPs, double ns);

struct LinkRates {
  // Achieved: payload of completed reads, and of issued writes (posted ones
  // included), over the traffic's time.
  double readGbps = 0;
  double writeGbps = 0;
  double totalGbps = 0;
  // Offered: payload of the requests the generators made, over the same time.
  double offeredReadGbps = 0;
  double offeredWriteGbps = 0;
  double offeredTotalGbps = 0;
  // Flits the host sent (requests and TOKEN_RETURN) and took (responses and
  // TOKEN_RETURN) over the flits the link could carry in the traffic's time.
  double requestUtilisation = 0;
  double responseUtilisation = 0;
};

// The rates of one link, or of the total, whose links could carry
// `capacityFlits` in `trafficNs`.
LinkRates RatesOf(const LinkResults& link, double trafficNs, double capacityFlits);

}  // namespace Bench
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak

#endif  // ZELSIM_HOST_BANDWIDTH_H
