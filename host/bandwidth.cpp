// SPDX-License-Identifier: Apache-2.0
#include "host/bandwidth.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Bench {

double GigabytesPerSecond(uint64_t bytes, double ns) { return ns > 0 ? static_cast<double>(bytes) / ns : 0; }

double FlitCapacity(const std::vector<uint64_t>& flitTimesPs, double ns) {
  double flits = 0;
  for (uint64_t ps : flitTimesPs) {
    if (ps != 0) flits += ns * 1000 / static_cast<double>(ps);
  }
  return flits;
}

LinkRates RatesOf(const LinkResults& link, double trafficNs, double capacityFlits) {
  LinkRates rates;
  rates.readGbps = GigabytesPerSecond(link.bytesRead, trafficNs);
  rates.writeGbps = GigabytesPerSecond(link.bytesWritten, trafficNs);
  rates.totalGbps = GigabytesPerSecond(link.bytesRead + link.bytesWritten, trafficNs);
  rates.offeredReadGbps = GigabytesPerSecond(link.offeredBytesRead, trafficNs);
  rates.offeredWriteGbps = GigabytesPerSecond(link.offeredBytesWritten, trafficNs);
  rates.offeredTotalGbps = GigabytesPerSecond(link.offeredBytesRead + link.offeredBytesWritten, trafficNs);
  if (capacityFlits > 0) {
    rates.requestUtilisation = static_cast<double>(link.requestFlits + link.tokenReturnsSent) / capacityFlits;
    rates.responseUtilisation =
        static_cast<double>(link.responseFlits + link.tokenReturnsReceived) / capacityFlits;
  }
  return rates;
}

}  // namespace Bench
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak
