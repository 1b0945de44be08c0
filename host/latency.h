// SPDX-License-Identifier: Apache-2.0
// Latency distributions of a run. A histogram keeps every latency in a
// bucket whose width is at most 1/64 of its lower bound, so that it costs a
// few operations per request and a bounded amount of memory however long the
// run, and still gives percentiles close enough for any plot or comparison:
// a percentile is the middle of its bucket, within kRelativeError of the
// exact value. Latencies are whole picoseconds, the kernel's resolution.
#ifndef ZELSIM_HOST_LATENCY_H
#define ZELSIM_HOST_LATENCY_H

#include <cstdint>
#include <vector>

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Bench {

class LatencyHistogram {
 public:
  // Buckets per power of two. Below 2 x kSubBuckets ps every bucket is one
  // picosecond wide; above, a bucket spans 1/kSubBuckets of the power of two
  // it starts in.
  static constexpr unsigned kSubBucketBits = 6;
  static constexpr uint64_t kSubBuckets = uint64_t{1} << kSubBucketBits;
  // The largest error of a percentile, relative to the exact value: half a
  // bucket over its lower bound, 1 / (2 x kSubBuckets), under 0.8 %.
  static constexpr double kRelativeError = 1.0 / (2 * kSubBuckets);

  void Add(uint64_t ps);
  void Merge(const LatencyHistogram& other);

  uint64_t Count() const { return count_; }
  uint64_t MinPs() const { return min_; }  // 0 when empty
  uint64_t MaxPs() const { return max_; }
  double MeanPs() const;  // 0 when empty

  // The latency below or at which `perMille` thousandths of the requests
  // fall, by nearest rank: the value of rank ceil(perMille x count / 1000)
  // in ascending order (the smallest for rank 0). Given as the middle of its
  // bucket, kept within [MinPs, MaxPs]; 0 when empty.
  double PercentilePs(unsigned perMille) const;

  struct Bucket {
    uint64_t lowPs;   // first picosecond it holds
    uint64_t highPs;  // first picosecond it no longer holds
    uint64_t count;
  };
  // The buckets from the first to the last that holds a latency, empty ones
  // in between included, so that their bounds run without a gap.
  std::vector<Bucket> Buckets() const;

  // The bucket of a latency, and the bounds of a bucket.
  static std::size_t BucketOf(uint64_t ps);
  static uint64_t BucketLowPs(std::size_t bucket);
  static uint64_t BucketHighPs(std::size_t bucket);

 private:
  std::vector<uint64_t> counts_;  // by bucket, up to the last one used
  uint64_t count_ = 0;
  uint64_t sum_ = 0;
  uint64_t min_ = 0;
  uint64_t max_ = 0;
};

// The figures a report gives of a distribution, in nanoseconds.
struct LatencySummary {
  uint64_t count = 0;
  double minNs = 0, meanNs = 0, p50Ns = 0, p90Ns = 0, p95Ns = 0, p99Ns = 0, p999Ns = 0, maxNs = 0;
};
LatencySummary Summarise(const LatencyHistogram& histogram);

// The latency at `perMille` of an explicit list, by the same nearest rank,
// exact; the list is reordered. For distributions too small or short-lived
// for a histogram (one interval of a timeline).
uint64_t ExactPercentilePs(std::vector<uint64_t>& latencies, unsigned perMille);

}  // namespace Bench
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak

#endif  // ZELSIM_HOST_LATENCY_H
