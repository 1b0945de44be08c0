// SPDX-License-Identifier: Apache-2.0
#include "host/latency.h"

#include <algorithm>

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Bench {

namespace {

// The rank of a percentile by nearest rank, from 1; 0 for an empty set.
uint64_t RankOf(uint64_t count, unsigned perMille) {
  const uint64_t rank = (count * perMille + 999) / 1000;
  return std::max<uint64_t>(rank, count == 0 ? 0 : 1);
}

unsigned FloorLog2(uint64_t value) { return 63 - static_cast<unsigned>(__builtin_clzll(value)); }

}  // namespace

// Bucket numbers run on from the one-picosecond buckets: bucket b below
// 2 x kSubBuckets holds b ps; above, group g = b / kSubBuckets holds the
// power of two 2^(g + kSubBucketBits - 1) in kSubBuckets equal parts.
std::size_t LatencyHistogram::BucketOf(uint64_t ps) {
  if (ps < 2 * kSubBuckets) return static_cast<std::size_t>(ps);
  const unsigned shift = FloorLog2(ps) - kSubBucketBits;
  return static_cast<std::size_t>((shift + 1) * kSubBuckets + ((ps >> shift) - kSubBuckets));
}

uint64_t LatencyHistogram::BucketLowPs(std::size_t bucket) {
  const uint64_t group = bucket / kSubBuckets;
  if (group < 2) return bucket;
  return (kSubBuckets + bucket % kSubBuckets) << (group - 1);
}

uint64_t LatencyHistogram::BucketHighPs(std::size_t bucket) {
  const uint64_t group = bucket / kSubBuckets;
  return BucketLowPs(bucket) + (group < 2 ? 1 : uint64_t{1} << (group - 1));
}

void LatencyHistogram::Add(uint64_t ps) {
  const std::size_t bucket = BucketOf(ps);
  if (bucket >= counts_.size()) counts_.resize(bucket + 1, 0);
  ++counts_[bucket];
  if (count_ == 0 || ps < min_) min_ = ps;
  if (count_ == 0 || ps > max_) max_ = ps;
  sum_ += ps;
  ++count_;
}

void LatencyHistogram::Merge(const LatencyHistogram& other) {
  if (other.count_ == 0) return;
  if (counts_.size() < other.counts_.size()) counts_.resize(other.counts_.size(), 0);
  for (std::size_t b = 0; b < other.counts_.size(); ++b) counts_[b] += other.counts_[b];
  if (count_ == 0 || other.min_ < min_) min_ = other.min_;
  if (count_ == 0 || other.max_ > max_) max_ = other.max_;
  sum_ += other.sum_;
  count_ += other.count_;
}

double LatencyHistogram::MeanPs() const {
  return count_ == 0 ? 0 : static_cast<double>(sum_) / static_cast<double>(count_);
}

double LatencyHistogram::PercentilePs(unsigned perMille) const {
  const uint64_t rank = RankOf(count_, perMille);
  uint64_t seen = 0;
  for (std::size_t b = 0; b < counts_.size(); ++b) {
    seen += counts_[b];
    if (seen < rank || counts_[b] == 0) continue;
    // The middle of the picoseconds the bucket holds; the smallest and the
    // largest latency are known exactly and bound it.
    const double middle =
        (static_cast<double>(BucketLowPs(b)) + static_cast<double>(BucketHighPs(b) - 1)) / 2;
    return std::min(std::max(middle, static_cast<double>(min_)), static_cast<double>(max_));
  }
  return 0;
}

std::vector<LatencyHistogram::Bucket> LatencyHistogram::Buckets() const {
  std::vector<Bucket> buckets;
  if (count_ == 0) return buckets;
  for (std::size_t b = BucketOf(min_); b <= BucketOf(max_); ++b)
    buckets.push_back(Bucket{BucketLowPs(b), BucketHighPs(b), counts_[b]});
  return buckets;
}

LatencySummary Summarise(const LatencyHistogram& histogram) {
  LatencySummary s;
  s.count = histogram.Count();
  if (s.count == 0) return s;
  s.minNs = static_cast<double>(histogram.MinPs()) / 1000;
  s.meanNs = histogram.MeanPs() / 1000;
  s.p50Ns = histogram.PercentilePs(500) / 1000;
  s.p90Ns = histogram.PercentilePs(900) / 1000;
  s.p95Ns = histogram.PercentilePs(950) / 1000;
  s.p99Ns = histogram.PercentilePs(990) / 1000;
  s.p999Ns = histogram.PercentilePs(999) / 1000;
  s.maxNs = static_cast<double>(histogram.MaxPs()) / 1000;
  return s;
}

uint64_t ExactPercentilePs(std::vector<uint64_t>& latencies, unsigned perMille) {
  if (latencies.empty()) return 0;
  const auto at = latencies.begin() + static_cast<std::ptrdiff_t>(RankOf(latencies.size(), perMille) - 1);
  std::nth_element(latencies.begin(), at, latencies.end());
  return *at;
}

}  // namespace Bench
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak
