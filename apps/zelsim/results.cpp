// SPDX-License-Identifier: Apache-2.0
#include "apps/zelsim/results.h"

#include <cstdio>
#include <iomanip>
#include <sstream>

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Bench {

namespace {

// A number for JSON: integers stay exact, others get enough digits to read back.
std::string JsonNumber(double value) {
  char buffer[40];
  std::snprintf(buffer, sizeof buffer, "%.15g", value);
  return buffer;
}

std::string LatencyCell(const LatencyStats& latency, double value) {
  if (latency.count == 0) return "-";
  std::ostringstream text;
  text << std::fixed << std::setprecision(1) << value;
  return text.str();
}

void PrintLinkRow(std::ostream& out, const std::string& name, const LinkResults& r) {
  out << std::setfill(' ') << std::left << std::setw(6) << name << std::right << std::setw(10) << r.issued
      << std::setw(10) << r.completed << std::setw(9) << r.posted << std::setw(8) << r.outstanding
      << std::setw(10) << r.requestFlits << std::setw(10) << r.responseFlits << std::setw(11)
      << LatencyCell(r.latency, r.latency.MeanNs()) << std::setw(10)
      << LatencyCell(r.latency, r.latency.minNs) << std::setw(10) << LatencyCell(r.latency, r.latency.maxNs)
      << '\n';
}

void WriteLinkFields(std::ostream& out, const LinkResults& r, const char* indent) {
  const auto field = [&](const char* name, uint64_t value, bool comma = true) {
    out << indent << JsonString(name) << ": " << value << (comma ? ",\n" : "\n");
  };
  field("issued", r.issued);
  field("reads", r.reads);
  field("writes", r.writes);
  field("atomics", r.atomics);
  field("posted", r.posted);
  field("completed", r.completed);
  field("outstanding", r.outstanding);
  field("request_flits", r.requestFlits);
  field("response_flits", r.responseFlits);
  field("token_returns_sent", r.tokenReturnsSent);
  field("token_returns_received", r.tokenReturnsReceived);
  field("request_tokens_received", r.requestTokensReceived);
  field("response_tokens_returned", r.responseTokensReturned);
  field("request_tokens_held", r.requestTokensHeld);
  field("bytes_read", r.bytesRead);
  field("bytes_written", r.bytesWritten);
  field("mismatches", r.mismatches);
  out << indent << "\"latency_ns\": {\"count\": " << r.latency.count;
  if (r.latency.count != 0) {
    out << ", \"mean\": " << JsonNumber(r.latency.MeanNs()) << ", \"min\": " << JsonNumber(r.latency.minNs)
        << ", \"max\": " << JsonNumber(r.latency.maxNs);
  } else {
    out << ", \"mean\": null, \"min\": null, \"max\": null";
  }
  out << "}\n";
}

}  // namespace

void LatencyStats::Add(double ns) {
  if (count == 0 || ns < minNs) minNs = ns;
  if (count == 0 || ns > maxNs) maxNs = ns;
  sumNs += ns;
  ++count;
}

void LatencyStats::Merge(const LatencyStats& other) {
  if (other.count == 0) return;
  if (count == 0 || other.minNs < minNs) minNs = other.minNs;
  if (count == 0 || other.maxNs > maxNs) maxNs = other.maxNs;
  sumNs += other.sumNs;
  count += other.count;
}

LinkResults RunResults::Total() const {
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
    total.latency.Merge(r.latency);
  }
  return total;
}

void PrintSummary(std::ostream& out, const RunResults& results) {
  const LinkResults total = results.Total();
  out << "==== zelsim summary " << std::string(60, '=') << '\n';
  out << "Seed " << results.seed << "; ended at " << std::fixed << std::setprecision(1) << results.endTimeNs
      << " ns, " << (results.drained ? "all requests done and drained" : "SIM_TIME reached") << '\n';
  out << std::setfill(' ') << std::left << std::setw(6) << "Link" << std::right << std::setw(10) << "Issued"
      << std::setw(10) << "Complete" << std::setw(9) << "Posted" << std::setw(8) << "Open" << std::setw(10)
      << "ReqFlits" << std::setw(10) << "RspFlits" << std::setw(11) << "Lat.mean" << std::setw(10)
      << "Lat.min" << std::setw(10) << "Lat.max" << '\n';
  for (const LinkResults& r : results.links) PrintLinkRow(out, std::to_string(r.link), r);
  PrintLinkRow(out, "All", total);
  out << "Latencies in ns, from the first request flit sent to the last response flit taken.\n";
  out << "Requests: " << total.reads << " reads, " << total.writes << " writes, " << total.atomics
      << " atomics; " << total.bytesRead << " bytes read, " << total.bytesWritten << " bytes written\n";
  out << "Generators:";
  for (const GeneratorResults& g : results.generators) {
    out << " " << g.generator << ":" << g.issued << "/" << g.generated << (g.done ? "" : "+");
  }
  out << " (issued/generated, + still generating)\n";
  out << "Response mismatches: " << total.mismatches << "; unanswered at the end: " << total.outstanding
      << '\n';
  for (const std::string& message : results.mismatchMessages) out << "  " << message << '\n';
  out << std::defaultfloat << std::setprecision(6);
}

void WriteJson(std::ostream& out, const RunResults& results) {
  out << "{\n";
  out << "  \"version\": " << JsonString(results.version) << ",\n";
  out << "  \"seed\": " << results.seed << ",\n";
  out << "  \"sim_time_ns\": " << JsonNumber(results.simTimeNs) << ",\n";
  out << "  \"end_time_ns\": " << JsonNumber(results.endTimeNs) << ",\n";
  out << "  \"drained\": " << (results.drained ? "true" : "false") << ",\n";
  out << "  \"links\": [\n";
  for (size_t i = 0; i < results.links.size(); ++i) {
    out << "    {\n      \"link\": " << results.links[i].link << ",\n";
    WriteLinkFields(out, results.links[i], "      ");
    out << "    }" << (i + 1 < results.links.size() ? ",\n" : "\n");
  }
  out << "  ],\n  \"total\": {\n";
  WriteLinkFields(out, results.Total(), "    ");
  out << "  },\n  \"generators\": [\n";
  for (size_t i = 0; i < results.generators.size(); ++i) {
    const GeneratorResults& g = results.generators[i];
    out << "    {\"generator\": " << g.generator << ", \"generated\": " << g.generated
        << ", \"issued\": " << g.issued << ", \"done\": " << (g.done ? "true" : "false") << "}"
        << (i + 1 < results.generators.size() ? ",\n" : "\n");
  }
  out << "  ],\n  \"mismatch_messages\": [";
  for (size_t i = 0; i < results.mismatchMessages.size(); ++i) {
    out << (i == 0 ? "\n    " : ",\n    ") << JsonString(results.mismatchMessages[i]);
  }
  out << (results.mismatchMessages.empty() ? "]\n" : "\n  ]\n");
  out << "}\n";
}

std::string JsonString(const std::string& text) {
  std::string quoted = "\"";
  for (const char c : text) {
    switch (c) {
      case '"':
        quoted += "\\\"";
        break;
      case '\\':
        quoted += "\\\\";
        break;
      case '\n':
        quoted += "\\n";
        break;
      case '\r':
        quoted += "\\r";
        break;
      case '\t':
        quoted += "\\t";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          char escape[8];
          std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned char>(c));
          quoted += escape;
        } else {
          quoted += c;
        }
    }
  }
  return quoted + "\"";
}

}  // namespace Bench
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak
