// SPDX-License-Identifier: Apache-2.0
// Golden outputs: zelsim runs for a fixed seed and configuration, and what the
// run writes (standard output with the model's report and state dump, the
// DRAM command trace and zelsim's JSON) must match the files kept in
// tests/golden byte for byte. Any change of timing, order or text shows here,
// which is what guards the speed work on the model's hot paths.
//
// The only text masked is the build revision, in the banner and in the JSON's
// "version", and the JSON's wall-clock figures. To regenerate the files on purpose, run the cases with
// ZELSIM_UPDATE_GOLDEN=1 and say why in the commit message.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <systemc>
#include <vector>

#include "apps/zelsim/bench.h"

using namespace Sornak::Internal::ZEL2::Bench;

namespace {

const std::string kGoldenDir = std::filesystem::path(__FILE__).parent_path().string() + "/golden/";

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// Replaces the rest of the line after each occurrence of `marker` with
// `replacement`, up to `end` (a line break, or the closing quote of a JSON value).
std::string MaskAfter(std::string text, const std::string& marker, char end, const std::string& replacement) {
  for (size_t at = text.find(marker); at != std::string::npos; at = text.find(marker, at + 1)) {
    const size_t from = at + marker.size();
    const size_t to = text.find(end, from);
    text.replace(from, (to == std::string::npos ? text.size() : to) - from, replacement);
  }
  return text;
}

// Compares `actual` with the golden file `name`, or rewrites that file when
// ZELSIM_UPDATE_GOLDEN is set. A mismatch names the first differing line.
void ExpectGolden(const std::string& name, const std::string& actual) {
  const std::string path = kGoldenDir + name;
  const char* update = std::getenv("ZELSIM_UPDATE_GOLDEN");
  if (update != nullptr && std::string(update) == "1") {
    std::ofstream(path, std::ios::binary) << actual;
    return;
  }
  const std::string expected = ReadFile(path);
  ASSERT_FALSE(expected.empty()) << "missing golden file " << path;
  if (expected == actual) return;
  std::istringstream e(expected), a(actual);
  std::string eLine, aLine;
  for (size_t line = 1;; ++line) {
    const bool eMore = static_cast<bool>(std::getline(e, eLine));
    const bool aMore = static_cast<bool>(std::getline(a, aLine));
    if (!eMore && !aMore) break;
    if (eMore != aMore || eLine != aLine) {
      ADD_FAILURE() << name << " differs from line " << line << "\n  expected: " << (eMore ? eLine : "<end>")
                    << "\n  actual:   " << (aMore ? aLine : "<end>");
      return;
    }
  }
  ADD_FAILURE() << name << " differs in its line ends";
}

// Runs zelsim in a directory of its own (the DRAM trace goes to the working
// directory) and checks its three outputs against the files `stem`.*.
void RunAndCompare(const std::string& stem, std::vector<std::string> args) {
  // Only the command line configures these runs.
  unsetenv("LIBZEL_CONFIG_FILE");
  unsetenv("LIBZEL_NUM_TOKENS");
  unsetenv("ZEL_BFM_NUM_TOKENS");

  std::string dir = (std::filesystem::temp_directory_path() / "zelsimgoldenXXXXXX").string();
  ASSERT_NE(mkdtemp(dir.data()), nullptr);
  const std::filesystem::path previous = std::filesystem::current_path();
  std::filesystem::current_path(dir);

  args.insert(args.begin(), "zelsim");
  args.push_back("--json");
  args.push_back(dir + "/results.json");
  std::vector<const char*> argv;
  for (const std::string& arg : args) argv.push_back(arg.c_str());

  ::testing::internal::CaptureStdout();
  const int status = RunZelsim(static_cast<int>(argv.size()), argv.data());
  const std::string out = ::testing::internal::GetCapturedStdout();
  std::filesystem::current_path(previous);
  EXPECT_EQ(status, 0);

  ExpectGolden(stem + ".stdout.txt", MaskAfter(out, "built from revision: ", '\n', "REVISION"));
  ExpectGolden(stem + ".dram_trace.tsv", ReadFile(dir + "/dram_trace.tsv"));
  std::string json = MaskAfter(ReadFile(dir + "/results.json"), "\"version\": \"", '"', "VERSION");
  json = MaskAfter(MaskAfter(json, "\"seconds\": ", ',', "0"), "\"sim_ns_per_second\": ", '\n', "0");
  ExpectGolden(stem + ".json", json);
  std::filesystem::remove_all(dir);
}

}  // namespace

// All four links, every generator on its own link with random addresses, so
// that three requests in four cross to another quad; reads of two sizes,
// non-posted writes and all six atomics; refresh of a hot device on a cube of
// four partitions per vault; the state dump while traffic is in flight.
TEST(Golden, MixedTrafficWithRefreshAcrossQuads) {
  RunAndCompare("mixed", {"--seed",      "20240611",
                          "--set",       "SIM_TIME=3000",
                          "--set",       "HOST_MAPPING=0",
                          "--set",       "PERCENTAGE_READ=60",
                          "--set",       "PERCENTAGE_RD_32B=30",
                          "--set",       "PERCENTAGE_WR_128B=50",
                          "--set",       "USE_ATOMICS=1",
                          "--set",       "ATOMICS_PERCENTAGE=20",
                          "--set",       "REFRESH_ENABLED=true",
                          "--set",       "Tj=95",
                          "--cube-size", "1",
                          "--set",       "DRAM_TRACING=true",
                          "--dump-state"});
}

// Packed inter-quad traffic: round-robin links over sequential streams,
// posted writes of five sizes mixed with reads, narrower and slower links,
// and a short request spacing, until every generator is done and the cube
// has drained.
TEST(Golden, PackedInterquadPostedWritesUntilDrained) {
  RunAndCompare("interquad", {"--seed",      "77",
                              "--set",       "SIM_TIME=0",
                              "--set",       "NUM_REQUESTS=800",
                              "--set",       "HOST_MAPPING=1",
                              "--set",       "REQUEST_STREAM=1",
                              "--set",       "PACK_INTERQUAD=1",
                              "--set",       "POSTED_WRITES=true",
                              "--set",       "PERCENTAGE_READ=50",
                              "--set",       "PERCENTAGE_WR_16B=10",
                              "--set",       "PERCENTAGE_WR_48B=10",
                              "--set",       "PERCENTAGE_WR_80B=10",
                              "--set",       "PERCENTAGE_WR_112B=10",
                              "--set",       "PERCENTAGE_RD_16B=20",
                              "--set",       "PERCENTAGE_RD_128B=20",
                              "--set",       "REQUEST_SPACING=1",
                              "--link-rate", "50",
                              "--lanes",     "8",
                              "--set",       "DRAM_TRACING=true",
                              "--cube-size", "0",
                              "--dump-state"});
}
