// SPDX-License-Identifier: Apache-2.0
#include "apps/zelsim/results.h"

#include <cstdio>
#include <cstdlib>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <sstream>
#include <type_traits>

#include "host/bandwidth.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Bench {

using Json = nlohmann::ordered_json;

namespace {

// The capacity in flits of every link of the run, or of one, over the
// traffic's time.
double CapacityOf(const std::vector<LinkResults>& links, double trafficNs) {
  std::vector<uint64_t> flitTimes;
  for (const LinkResults& link : links) flitTimes.push_back(link.flitTimePs);
  return FlitCapacity(flitTimes, trafficNs);
}

// ---- The summary

std::string Fixed(double value, int digits) {
  std::ostringstream text;
  text << std::fixed << std::setprecision(digits) << value;
  return text.str();
}

// One row of a link's table: a kind of request, its completed count, its
// bandwidth (none for atomics, whose payload counts neither as read nor as
// written) and its latency figures.
void PrintKindRow(std::ostream& out, const char* kind, const LatencyHistogram& latency, const double* gbps,
                  const double* offered) {
  const LatencySummary s = Summarise(latency);
  out << std::left << std::setw(8) << kind << std::right << std::setw(9) << s.count;
  out << std::setw(8) << (gbps != nullptr ? Fixed(*gbps, 2) : "-");
  out << std::setw(9) << (offered != nullptr ? Fixed(*offered, 2) : "-");
  for (const double ns : {s.minNs, s.meanNs, s.p50Ns, s.p90Ns, s.p95Ns, s.p99Ns, s.p999Ns, s.maxNs})
    out << std::setw(9) << (s.count == 0 ? "-" : Fixed(ns, 1));
  out << '\n';
}

void PrintLinkTable(std::ostream& out, const std::string& name, const LinkResults& r,
                    const LinkRates& rates) {
  out << '\n'
      << name << ": " << r.issued << " requests issued, " << r.completed << " completed, " << r.posted
      << " posted, " << r.outstanding << " open\n"
      << "  " << r.requestFlits << " request flits (link busy " << Fixed(100 * rates.requestUtilisation, 1)
      << " %), " << r.responseFlits << " response flits (busy " << Fixed(100 * rates.responseUtilisation, 1)
      << " %)\n";
  out << std::left << std::setw(8) << "" << std::right << std::setw(9) << "Done" << std::setw(8) << "GB/s"
      << std::setw(9) << "Offered";
  for (const char* column : {"Min", "Mean", "p50", "p90", "p95", "p99", "p99.9", "Max"})
    out << std::setw(9) << column;
  out << '\n';
  PrintKindRow(out, "read", r.readLatency, &rates.readGbps, &rates.offeredReadGbps);
  PrintKindRow(out, "write", r.writeLatency, &rates.writeGbps, &rates.offeredWriteGbps);
  PrintKindRow(out, "atomic", r.atomicLatency, nullptr, nullptr);
  PrintKindRow(out, "all", r.Latency(), &rates.totalGbps, &rates.offeredTotalGbps);
}

// ---- JSON

// A float key as the shortest decimal that reads back to it, so that 0.1
// shows as 0.1 and not as the double nearest to the float.
double FloatValue(float value) {
  for (int digits = 1; digits < 10; ++digits) {
    char text[32];
    std::snprintf(text, sizeof text, "%.*g", digits, static_cast<double>(value));
    const double shortest = std::strtod(text, nullptr);
    if (static_cast<float>(shortest) == value) return shortest;
  }
  return static_cast<double>(value);
}

template <class T>
Json ConfigValue(const T& value) {
  if constexpr (std::is_same_v<T, sc_core::sc_time>) {
    // Nanoseconds from whole picoseconds, so that 1.6 ns shows as 1.6.
    return static_cast<double>(value.value()) / 1000;
  } else if constexpr (std::is_same_v<T, float>) {
    return FloatValue(value);
  } else {
    return value;
  }
}

Json ConfigJson(const Config& cfg) {
  Json config = Json::object();
#define ZELSIM_CONFIG_JSON(type, name, def) config[#name] = ConfigValue(cfg.name);
  ZEL_CONFIG_KEYS(ZELSIM_CONFIG_JSON)
#undef ZELSIM_CONFIG_JSON
  return config;
}

Json LatencyJson(const LatencyHistogram& histogram) {
  const LatencySummary s = Summarise(histogram);
  Json latency = Json::object();
  latency["count"] = s.count;
  const std::pair<const char*, double> figures[] = {{"min", s.minNs},   {"mean", s.meanNs}, {"p50", s.p50Ns},
                                                    {"p90", s.p90Ns},   {"p95", s.p95Ns},   {"p99", s.p99Ns},
                                                    {"p999", s.p999Ns}, {"max", s.maxNs}};
  for (const auto& [name, ns] : figures) latency[name] = s.count == 0 ? Json() : Json(ns);
  Json bounds = Json::array();
  Json counts = Json::array();
  for (const LatencyHistogram::Bucket& bucket : histogram.Buckets()) {
    if (bounds.empty()) bounds.push_back(static_cast<double>(bucket.lowPs) / 1000);
    bounds.push_back(static_cast<double>(bucket.highPs) / 1000);
    counts.push_back(bucket.count);
  }
  latency["histogram"] = {{"bounds_ns", bounds}, {"counts", counts}};
  return latency;
}

Json LinkJson(const LinkResults& r, const LinkRates& rates) {
  Json link = Json::object();
  link["issued"] = r.issued;
  link["completed"] = r.completed;
  link["outstanding"] = r.outstanding;
  link["posted"] = r.posted;
  link["reads"] = r.reads;
  link["writes"] = r.writes;
  link["atomics"] = r.atomics;
  link["bytes_read"] = r.bytesRead;
  link["bytes_written"] = r.bytesWritten;
  link["offered_bytes_read"] = r.offeredBytesRead;
  link["offered_bytes_written"] = r.offeredBytesWritten;
  link["request_flits"] = r.requestFlits;
  link["response_flits"] = r.responseFlits;
  link["bandwidth_gbps"] = {{"read", rates.readGbps},
                            {"write", rates.writeGbps},
                            {"total", rates.totalGbps},
                            {"offered_read", rates.offeredReadGbps},
                            {"offered_write", rates.offeredWriteGbps},
                            {"offered_total", rates.offeredTotalGbps}};
  link["utilisation"] = {{"request", rates.requestUtilisation}, {"response", rates.responseUtilisation}};
  link["latency_ns"] = {{"all", LatencyJson(r.Latency())},
                        {"read", LatencyJson(r.readLatency)},
                        {"write", LatencyJson(r.writeLatency)},
                        {"atomic", LatencyJson(r.atomicLatency)}};
  link["token_returns_sent"] = r.tokenReturnsSent;
  link["token_returns_received"] = r.tokenReturnsReceived;
  link["request_tokens_received"] = r.requestTokensReceived;
  link["response_tokens_returned"] = r.responseTokensReturned;
  link["request_tokens_held"] = r.requestTokensHeld;
  link["mismatches"] = r.mismatches;
  return link;
}

}  // namespace

void PrintSummary(std::ostream& out, const RunResults& results) {
  // The model leaves its fill character and number formats on the stream.
  std::ios saved(nullptr);
  saved.copyfmt(out);
  out << std::setfill(' ') << std::defaultfloat;
  const LinkResults total = results.Total();
  const double trafficNs = results.TrafficTimeNs();
  out << "==== zelsim summary " << std::string(60, '=') << '\n';
  out << "Seed " << results.seed << "; " << results.numGenerators << " generators of " << results.numRequests
      << (results.traces ? " trace requests at most" : " requests") << "; SIM_TIME "
      << (results.simTimeNs == 0 ? std::string("none") : Fixed(results.simTimeNs, 0) + " ns") << '\n';
  out << "Ended at " << Fixed(results.endTimeNs, 1) << " ns, "
      << (results.drained ? "all requests done and drained" : "SIM_TIME reached") << "; traffic for "
      << Fixed(trafficNs, 1) << " ns\n";
  for (const LinkResults& r : results.links) {
    if (!r.CarriedTraffic()) continue;
    PrintLinkTable(out, "Link " + std::to_string(r.link), r,
                   RatesOf(r, trafficNs, CapacityOf({r}, trafficNs)));
  }
  PrintLinkTable(out, "All links", total, RatesOf(total, trafficNs, CapacityOf(results.links, trafficNs)));
  out << '\n';
  out << "Latencies in ns, from the first request flit sent to the last response flit taken; percentiles\n"
         "within 0.8 %. GB/s are decimal, over the traffic's time (first request flit sent to last\n"
         "response flit taken): completed reads, issued writes, and what the generators offered.\n";
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
  out.copyfmt(saved);
}

void WriteJson(std::ostream& out, const RunResults& results, const Config& cfg) {
  const double trafficNs = results.TrafficTimeNs();
  Json json = Json::object();
  json["schema_version"] = 1;
  json["version"] = results.version;
  json["seed"] = results.seed;
  json["corrections"] = results.corrections;
  json["config"] = ConfigJson(cfg);
  json["run"] = {{"sim_time_ns", results.simTimeNs}, {"end_time_ns", results.endTimeNs},
                 {"traffic_time_ns", trafficNs},     {"drained", results.drained},
                 {"deadlock", results.deadlock},     {"mismatches", results.Mismatches()}};
  Json links = Json::array();
  for (const LinkResults& r : results.links) {
    if (!r.CarriedTraffic()) continue;
    Json link = {{"link", r.link}};
    link.update(LinkJson(r, RatesOf(r, trafficNs, CapacityOf({r}, trafficNs))));
    links.push_back(link);
  }
  json["links"] = links;
  json["total"] =
      LinkJson(results.Total(), RatesOf(results.Total(), trafficNs, CapacityOf(results.links, trafficNs)));
  Json generators = Json::array();
  for (const GeneratorResults& g : results.generators) {
    generators.push_back(
        {{"generator", g.generator}, {"generated", g.generated}, {"issued", g.issued}, {"done", g.done}});
  }
  json["generators"] = generators;
  json["wall_clock"] = {
      {"seconds", results.wallSeconds},
      {"sim_ns_per_second", results.wallSeconds > 0 ? results.endTimeNs / results.wallSeconds : 0.0}};
  // Beyond the schema's fields.
  json["mismatch_messages"] = results.mismatchMessages;
  if (results.restChecked) {
    json["rest_state"] = results.restViolations.empty() ? Json("ok") : Json(results.restViolations);
  }
  // Names from the command line may hold any bytes; JSON wants UTF-8.
  out << json.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
}

}  // namespace Bench
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak
