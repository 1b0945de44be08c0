// SPDX-License-Identifier: Apache-2.0
#include "host/timeline.h"

#include <cstdio>
#include <string>

#include "host/bandwidth.h"
#include "host/latency.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Bench {

namespace {

// Nanoseconds from picoseconds, exactly: no more decimals than needed.
std::string NsText(uint64_t ps) {
  std::string text = std::to_string(ps / 1000);
  const uint64_t fraction = ps % 1000;
  if (fraction == 0) return text;
  char digits[8];
  std::snprintf(digits, sizeof digits, ".%03u", static_cast<unsigned>(fraction));
  std::string decimals = digits;
  while (decimals.back() == '0') decimals.pop_back();
  return text + decimals;
}

std::string Number(double value, const char* format) {
  char text[40];
  std::snprintf(text, sizeof text, format, value);
  return text;
}

const char* const kColumns[] = {"completed",  "bytes_read", "bytes_written", "read_gbps",
                                "write_gbps", "mean_ns",    "p99_ns",        "outstanding"};

}  // namespace

Timeline::Timeline(std::ostream& out, uint64_t intervalPs, unsigned links)
    : out_(out), intervalPs_(intervalPs), links_(links), outstanding_(links, 0) {
  out_ << "start_ns,end_ns";
  for (unsigned link = 0; link <= links; ++link) {
    const std::string prefix = link < links ? "link" + std::to_string(link) + "_" : std::string("all_");
    for (const char* column : kColumns) out_ << ',' << prefix << column;
  }
  out_ << '\n';
}

void Timeline::Issued(unsigned link, const Request& request, uint64_t nowPs) {
  if (finished_ || link >= links_.size()) return;
  AdvanceTo(nowPs);
  if (request.command == WR || request.command == P_WR) links_[link].bytesWritten += request.length;
  if (!IsPosted(request.command)) ++outstanding_[link];
}

void Timeline::Answered(unsigned link, const Request& request, bool matched, uint64_t latencyPs,
                        uint64_t nowPs) {
  if (finished_ || link >= links_.size()) return;
  AdvanceTo(nowPs);
  --outstanding_[link];
  if (!matched) return;
  Interval& interval = links_[link];
  ++interval.completed;
  if (request.command == RD) interval.bytesRead += request.length;
  interval.latenciesPs.push_back(latencyPs);
}

void Timeline::Finish(uint64_t endPs) {
  if (finished_) return;
  AdvanceTo(endPs);
  WriteRow(endPs < startPs_ ? startPs_ : endPs);
  finished_ = true;
}

void Timeline::RequestIssued(unsigned link, const Request& request) {
  Issued(link, request, sc_core::sc_time_stamp().value());
}

void Timeline::RequestAnswered(unsigned link, const Request& request, bool matched,
                               const sc_core::sc_time& latency) {
  Answered(link, request, matched, latency.value(), sc_core::sc_time_stamp().value());
}

void Timeline::AdvanceTo(uint64_t nowPs) {
  while (startPs_ + intervalPs_ < nowPs) {
    WriteRow(startPs_ + intervalPs_);
    startPs_ += intervalPs_;
  }
}

void Timeline::WriteRow(uint64_t endPs) {
  out_ << NsText(startPs_) << ',' << NsText(endPs);
  Interval all;
  uint64_t allOutstanding = 0;
  for (std::size_t link = 0; link < links_.size(); ++link) {
    Interval& interval = links_[link];
    WriteGroup(interval, outstanding_[link], endPs - startPs_);
    all.completed += interval.completed;
    all.bytesRead += interval.bytesRead;
    all.bytesWritten += interval.bytesWritten;
    all.latenciesPs.insert(all.latenciesPs.end(), interval.latenciesPs.begin(), interval.latenciesPs.end());
    allOutstanding += outstanding_[link];
    interval.completed = interval.bytesRead = interval.bytesWritten = 0;
    interval.latenciesPs.clear();
  }
  WriteGroup(all, allOutstanding, endPs - startPs_);
  out_ << '\n';
}

void Timeline::WriteGroup(Interval& interval, uint64_t outstanding, uint64_t lengthPs) {
  const double ns = static_cast<double>(lengthPs) / 1000;
  out_ << ',' << interval.completed << ',' << interval.bytesRead << ',' << interval.bytesWritten << ','
       << Number(GigabytesPerSecond(interval.bytesRead, ns), "%.6g") << ','
       << Number(GigabytesPerSecond(interval.bytesWritten, ns), "%.6g") << ',';
  // No latency figures for an interval in which nothing completed.
  if (!interval.latenciesPs.empty()) {
    uint64_t sum = 0;
    for (uint64_t ps : interval.latenciesPs) sum += ps;
    out_ << Number(static_cast<double>(sum) / static_cast<double>(interval.latenciesPs.size()) / 1000, "%.3f")
         << ',' << NsText(ExactPercentilePs(interval.latenciesPs, 990));
  } else {
    out_ << ',';
  }
  out_ << ',' << outstanding;
}

}  // namespace Bench
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak
