// SPDX-License-Identifier: Apache-2.0
// The same requests through the TLM target and through zelsim's generators
// and host give the same completion time for every request: the target adds
// no timing of its own. zelsim's side runs in a child process (the kernel
// elaborates once per process) and hands its times back through a pipe.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "apps/zelsim/bench.h"
#include "host/generator.h"
#include "test_tlm_support.h"

using namespace zelsim_test;
using namespace Sornak::Internal::ZEL2;
using Sornak::Internal::ZEL2::Host::LinkMapping;

namespace {

// Completion times in ps of the non-posted requests, by generator and number.
using Times = std::map<std::pair<unsigned, uint64_t>, uint64_t>;

struct AnswerLog : Bench::HostObserver {
  Times times;
  void RequestAnswered(unsigned, const Bench::Request& request, bool matched, const sc_core::sc_time&) override {
    if (matched) times[{request.generator, request.serial}] = sc_core::sc_time_stamp().value();
  }
};

// Four traces of `count` requests each: every kind of request, sizes from 16
// to 128 bytes, random addresses, and `gap` (inclusive) cycles between
// requests of one generator.
std::vector<std::vector<Bench::TraceEntry>> MakeTraces(unsigned count, unsigned minGap, unsigned maxGap) {
  const ZELCommand kinds[] = {RD, RD, RD, WR, WR, P_WR, ADD16, P_DADD8, BWR};
  std::vector<std::vector<Bench::TraceEntry>> traces(4);
  Bench::Rng rng(17);
  for (auto& trace : traces) {
    uint64_t cycle = 0;
    for (unsigned k = 0; k < count; ++k) {
      Bench::TraceEntry entry;
      cycle += minGap + rng.Below(maxGap - minGap + 1);
      entry.cycle = cycle;
      entry.command = kinds[rng.Below(9)];
      entry.length = Bench::IsAtomic(entry.command) ? 16 : 16 * static_cast<unsigned>(1 + rng.Below(8));
      entry.address = rng.Below((uint64_t{1} << 30) / 16) * 16;
      trace.push_back(entry);
    }
  }
  return traces;
}

// zelsim's generators and host on the traces, in a child process.
Times RunZelsimEngine(const std::vector<std::vector<Bench::TraceEntry>>& traces, unsigned hostMapping) {
  int fds[2];
  if (pipe(fds) != 0) return {};
  std::fflush(stdout);
  const pid_t child = fork();
  if (child == 0) {
    close(fds[0]);
    ClearModelEnvironment();
    auto* wrapper = new Cube2in1Wrapper("cube");
    auto* cfg = new Config(wrapper->cube->cfg);
    cfg->HOST_MAPPING = hostMapping;
    cfg->NUM_GENERATORS = static_cast<unsigned>(traces.size());
    auto* source = new Bench::GeneratorSource(*cfg, 1, traces);
    Bench::HostSetup setup;
    setup.tokenReturnWait = TargetOptions().host.tokenReturnWait;
    auto* host = new Bench::LegalHost("host", *wrapper, *source, setup);
    AnswerLog log;
    host->observers.push_back(&log);
    sc_core::sc_start();
    FILE* out = fdopen(fds[1], "w");
    for (const auto& entry : log.times)
      std::fprintf(out, "%u %llu %llu\n", entry.first.first, static_cast<unsigned long long>(entry.first.second),
                   static_cast<unsigned long long>(entry.second));
    std::fclose(out);
    std::_Exit(host->drained ? 0 : 3);
  }
  close(fds[1]);
  Times times;
  FILE* in = fdopen(fds[0], "r");
  unsigned g;
  unsigned long long serial, ps;
  while (std::fscanf(in, "%u %llu %llu", &g, &serial, &ps) == 3) times[{g, serial}] = ps;
  std::fclose(in);
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "zelsim's engine didn't drain";
  return times;
}

JobPtr JobOf(const Bench::TraceEntry& entry) {
  switch (entry.command) {
    case RD:
      return Read(entry.address, entry.length);
    case WR:
      return Write(entry.address, entry.length, 1);
    case P_WR:
      return PostedWrite(entry.address, entry.length, 2);
    default:
      return Atomic(entry.command, entry.address, std::vector<unsigned char>(16, 3));
  }
}

// Plays the traces through the target, initiator g playing trace g, each
// request issued on the clock edge of its cycle, and compares each
// non-posted request's completion with zelsim's. The initiators wake on the
// cube's clock signal rather than on times of their own: the model's
// processes that fall due at the same time run in the order the kernel
// takes their timed events from its queue, and timed events of other
// processes change that order (and with it, at times, the model's
// arbitration), while delta-cycle events leave it alone.
void ExpectSameTimes(const std::vector<std::vector<Bench::TraceEntry>>& traces, Style style, LinkMapping mapping,
                     unsigned hostMapping) {
  const Times expected = RunZelsimEngine(traces, hostMapping);
  TargetOptions options;
  options.mapping = mapping;
  Platform p(std::vector<Style>(traces.size(), style), options);
  const sc_core::sc_time clock = p.cube->cube->cfg.CORE_CLK;
  for (std::size_t g = 0; g < traces.size(); ++g) {
    for (const Bench::TraceEntry& entry : traces[g])
      p.initiators[g]->Add(JobOf(entry), clock * static_cast<double>(entry.cycle));
  }
  p.RunClocked();
  ASSERT_TRUE(p.AllDone());
  EXPECT_EQ(p.Violations(), 0u);
  std::size_t compared = 0, differing = 0;
  for (std::size_t g = 0; g < traces.size(); ++g) {
    EXPECT_EQ(p.initiators[g]->Unexpected(), 0u);
    for (std::size_t k = 0; k < traces[g].size(); ++k) {
      const Job& job = *p.initiators[g]->jobs[k];
      // The traffic of a non-blocking initiator leaves every request room.
      if (style == Style::NonBlocking) EXPECT_EQ(job.sentAt, job.issueAt) << "generator " << g << " request " << k;
      if (Bench::IsPosted(traces[g][k].command)) continue;
      const auto found = expected.find({static_cast<unsigned>(g), k});
      ASSERT_NE(found, expected.end()) << "generator " << g << " request " << k;
      ++compared;
      if (job.doneAt.value() != found->second && ++differing <= 5) {
        ADD_FAILURE() << "generator " << g << " request " << k << ": target " << job.doneAt.value()
                      << " ps, zelsim " << found->second << " ps";
      }
    }
  }
  EXPECT_EQ(differing, 0u) << "of " << compared;
  EXPECT_GT(compared, traces.size() * traces[0].size() / 2);
  EXPECT_EQ(compared, expected.size());
}

}  // namespace

// Blocking initiators start a thread per request, so that requests queue at
// the host as zelsim's generators queue them: the traffic overloads the
// links, and requests wait for tokens, tags and their link in both runs.
TEST(TlmTargetEquivalence, BlockingUnderOverloadMatchesZelsim) {
  ExpectSameTimes(MakeTraces(2500, 0, 1), Style::Blocking, LinkMapping::ByVaultQuad, Bench::MAP_VAULT_QUAD);
}

// A non-blocking initiator has one request in its request phase at a time,
// so the traffic leaves each request room to go out before the next one of
// its initiator is due; each initiator has a link of its own.
TEST(TlmTargetEquivalence, NonBlockingMatchesZelsim) {
  const auto traces = MakeTraces(1500, 4, 12);
  ExpectSameTimes(traces, Style::NonBlocking, LinkMapping::ByInitiator, Bench::MAP_GENERATOR);
}

// Round robin turns over the links the same way in both.
TEST(TlmTargetEquivalence, RoundRobinMatchesZelsim) {
  ExpectSameTimes(MakeTraces(1500, 0, 3), Style::Blocking, LinkMapping::RoundRobin, Bench::MAP_ROUND_ROBIN);
}
