// SPDX-License-Identifier: Apache-2.0
// The cube as a TLM-2.0 target: data through the backing store and debug
// transport, payloads that aren't whole 16-byte units, the timing of both
// coding styles against the engine's own view of the flits, and the same
// traffic through the target and through zelsim's engine. Every platform
// runs through protocol checkers that must stay silent.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

#include "test_tlm_support.h"

using namespace zelsim_test;

namespace {

std::vector<unsigned char> Bytes(unsigned n, unsigned char b) { return std::vector<unsigned char>(n, b); }
std::vector<unsigned char> operator+(std::vector<unsigned char> a, const std::vector<unsigned char>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

}  // namespace

// Writes of every kind, then reads of the same places, in both styles:
// reads see the last data written, atomics act on the stored words, partial
// payloads move only their own enabled bytes, unwritten memory reads as
// zeros, and debug transport sees the same store without simulated time.
TEST(TlmTarget, ReadsReturnWhatWasWrittenInBothStyles) {
  Platform p({Style::Blocking, Style::NonBlocking});
  const uint64_t ones = ~uint64_t{0};
  const sc_time later(2, sc_core::SC_US);  // the store takes transactions in the order they arrive
  struct Check {
    uint64_t offset;
    std::vector<unsigned char> enables, expected;
    const char* what;
  };
  const std::vector<Check> checks = {
      {0x000, {}, Bytes(64, 0xa0), "64 bytes"},
      {0x200, {}, Bytes(256, 0xb0), "two packets"},
      {0x400, {}, Bytes(128, 0xc0), "posted"},
      {0x600, {}, Words(0, 4) + Words(0, 12) + Words(0xf0f0f0f00f0f0f0full, 0xf0f0f0f0f0f0f0f0ull), "atomics"},
      {0x800, {}, Bytes(32, 0), "unwritten"},
      {0xa00, {}, Bytes(3, 0) + Bytes(1, 0xee) + Bytes(1, 0) + Bytes(2, 0xee) + Bytes(9, 0), "write enables"},
      {0xa02, {0xff, 0}, {0, 0x55, 0, 0x55, 0xee, 0x55}, "read enables, unaligned"},
  };
  for (unsigned i = 0; i < 2; ++i) {
    JobInitiator& in = p[i];
    const uint64_t base = 0x100000 * (i + 1);
    in.Add(Write(base, 64, 0xa0));
    in.Add(Write(base + 0x200, 256, 0xb0));
    in.Add(PostedWrite(base + 0x400, 128, 0xc0));
    in.Add(Write(base + 0x600, 16, 0)).Set(Words(ones, 1));  // ADD16 carries into the high word
    in.Add(Atomic(ADD16, base + 0x600, Words(1, 2)));
    in.Add(Write(base + 0x610, 16, 0)).Set(Words(ones, 5));  // DADD8's words don't carry
    in.Add(Atomic(DADD8, base + 0x610, Words(1, 7)));
    in.Add(Write(base + 0x620, 16, 0xf0));
    in.Add(Atomic(P_BWR, base + 0x620, Words(0x0f0f0f0f0f0f0f0full, 0x00000000ffffffffull)));
    in.Add(Write(base + 0xa03, 5, 0xee)).Enable({0xff, 0, 0xff, 0xff, 0});
    for (const Check& c : checks) {
      Job& read = in.Add(Read(base + c.offset, static_cast<unsigned>(c.expected.size())), later);
      if (!c.enables.empty()) read.Enable(c.enables);
      std::fill(read.data.begin(), read.data.end(), 0x55);
    }
  }
  p.Run();
  for (unsigned i = 0; i < 2; ++i) {
    EXPECT_EQ(p[i].Unexpected(), 0u) << i;
    const std::size_t first = p[i].jobs.size() - checks.size();
    for (std::size_t k = 0; k < checks.size(); ++k)
      EXPECT_EQ(p[i].jobs[first + k]->data, checks[k].expected) << checks[k].what << ", " << i;
  }
  const sc_time before = sc_core::sc_time_stamp();
  const uint64_t packets = p.target->Counts().packets;
  std::vector<unsigned char> bytes(8, 0x77), back(10);
  EXPECT_EQ(p[0].Debug(tlm::TLM_WRITE_COMMAND, 0x100201, bytes), 8u);
  EXPECT_EQ(p[1].Debug(tlm::TLM_READ_COMMAND, 0x100200, back), 10u);
  EXPECT_EQ(back, Bytes(1, 0xb0) + Bytes(8, 0x77) + Bytes(1, 0xb0));
  EXPECT_EQ(sc_core::sc_time_stamp(), before);
  EXPECT_EQ(p.target->Counts().packets, packets);
}

// Without a store reads give zeros and debug writes are dropped; debug
// transport stops at the end of the cube; DMI is refused for all addresses.
TEST(TlmTarget, WithoutAStoreReadsAreZerosAndDmiIsRefused) {
  TargetOptions options;
  options.backingStore = false;
  Platform p({Style::Blocking}, options);
  p[0].Add(Write(0x4000, 64, 0x11));
  Job& read = p[0].Add(Read(0x4000, 64), sc_time(1, sc_core::SC_US));
  std::fill(read.data.begin(), read.data.end(), 0x55);
  p.Run();
  EXPECT_EQ(p[0].Unexpected(), 0u);
  EXPECT_EQ(read.data, Bytes(64, 0));
  std::vector<unsigned char> bytes(16, 0x99);
  EXPECT_EQ(p[0].Debug(tlm::TLM_WRITE_COMMAND, 0x4000, bytes), 0u);
  EXPECT_EQ(p[0].Debug(tlm::TLM_READ_COMMAND, 0x4000, bytes), 16u);
  EXPECT_EQ(bytes, Bytes(16, 0));
  EXPECT_EQ(p[0].Debug(tlm::TLM_READ_COMMAND, p.target->Capacity() - 4, bytes), 4u);
  tlm::tlm_dmi dmi;
  EXPECT_FALSE(p[0].socket->get_direct_mem_ptr(read.payload, dmi));
  EXPECT_EQ(dmi.get_start_address(), 0u);
  EXPECT_EQ(dmi.get_end_address(), ~sc_dt::uint64{0});
}

namespace {

// A payload, its answer under each PartialAccess, and the packets it
// becomes when served; refused payloads make none.
struct PartialCase {
  JobPtr job;
  tlm::tlm_response_status refuse, widen;
  std::vector<std::pair<uint64_t, unsigned>> packets;
};
std::vector<PartialCase> PartialCases(uint64_t capacity) {
  const auto ok = tlm::TLM_OK_RESPONSE, address = tlm::TLM_ADDRESS_ERROR_RESPONSE,
             burst = tlm::TLM_BURST_ERROR_RESPONSE, command = tlm::TLM_COMMAND_ERROR_RESPONSE;
  JobPtr streamed = Read(0x1000, 64), postedRead = Read(0x1000, 64), atomicRead = Read(0x1000, 16);
  JobPtr enabled = Write(0x5000, 16, 1);
  streamed->payload.set_streaming_width(16);
  postedRead->payload.set_extension(new PostedWriteExtension);
  atomicRead->payload.set_extension(new zel2_atomics_extension(ADD16));
  enabled->Enable({0xff, 0});
  std::vector<PartialCase> cases;
  auto add = [&](JobPtr job, tlm::tlm_response_status refuse, tlm::tlm_response_status widen,
                 std::vector<std::pair<uint64_t, unsigned>> packets) {
    cases.push_back({std::move(job), refuse, widen, std::move(packets)});
  };
  add(Read(capacity - 16, 32), address, address, {});
  add(Read(capacity, 16), address, address, {});
  add(Read(0x1000, 0), burst, burst, {});
  add(std::move(streamed), burst, burst, {});
  add(std::move(postedRead), command, command, {});
  add(std::move(atomicRead), command, command, {});
  add(Atomic(WR, 0x1000, Words(1, 1)), command, command, {});
  add(Atomic(ADD16, 0x1008, Words(1, 1)), address, address, {});
  add(Atomic(DADD8, 0x1000, Bytes(32, 0)), burst, burst, {});
  // Served in both modes, or only when widened; these come last, so that
  // every refusal is due at time 0.
  add(Read(0x2008, 8), address, ok, {{0x2000, 16}});
  add(Read(0x300c, 8), address, ok, {{0x3000, 32}});
  add(Read(0x4008, 200), address, ok, {{0x4000, 128}, {0x4080, 80}});
  add(Read(0x6000, 20), burst, ok, {{0x6000, 32}});
  add(std::move(enabled), tlm::TLM_BYTE_ENABLE_ERROR_RESPONSE, ok, {{0x5000, 16}});
  add(Read(0x7000, 64), ok, ok, {{0x7000, 64}});
  return cases;
}

// Plays every case on a blocking and a non-blocking initiator: each gets
// its answer once, refusals at once and without traffic.
void PlayPartialCases(PartialAccess mode) {
  TargetOptions options;
  options.partial = mode;
  Platform p({Style::Blocking, Style::NonBlocking}, options);
  std::vector<tlm::tlm_response_status> expected;
  std::multiset<std::pair<uint64_t, unsigned>> packets;
  for (unsigned i = 0; i < 2; ++i) {
    for (PartialCase& c : PartialCases(p.target->Capacity())) {
      expected.push_back(mode == PartialAccess::Refuse ? c.refuse : c.widen);
      if (expected.back() == tlm::TLM_OK_RESPONSE) packets.insert(c.packets.begin(), c.packets.end());
      p[i].Add(std::move(c.job));
    }
  }
  p.Run();
  const uint64_t refused = expected.size() - std::count(expected.begin(), expected.end(), tlm::TLM_OK_RESPONSE);
  for (std::size_t k = 0; k < expected.size(); ++k) {
    const Job& job = *p[k / (expected.size() / 2)].jobs[k % (expected.size() / 2)];
    EXPECT_EQ(job.status, expected[k]) << "case " << k;
    EXPECT_EQ(job.responses, 1) << "case " << k;
    if (expected[k] != tlm::TLM_OK_RESPONSE) EXPECT_EQ(job.doneAt, sc_core::SC_ZERO_TIME) << "case " << k;
  }
  EXPECT_EQ(p.log.packets, packets);
  EXPECT_EQ(p.target->Counts().refused, refused);
}

}  // namespace

TEST(TlmTarget, PartialPayloadsRefusedWithTheMatchingErrorWhenStrict) { PlayPartialCases(PartialAccess::Refuse); }
TEST(TlmTarget, PartialPayloadsWidenedToWholeUnitsByDefault) { PlayPartialCases(PartialAccess::Widen); }

// Each transaction completes when the cube is done with it, in both styles:
// b_transport spends its annotated delay before the request goes out,
// gives back zero and returns when the last packet's response is in (a
// posted write: when its last flit is out). nb_transport sends END_REQ when
// the last flit is out and BEGIN_RESP then (posted) or when the last
// response is in, with many transactions in flight; an initiator that ends
// its responses late holds back the next BEGIN_RESP exactly that long.
TEST(TlmTarget, EachStyleCompletesWhenTheCubeDoes) {
  Platform p({Style::Blocking, Style::NonBlocking, Style::NonBlocking});
  const sc_time hold(20, sc_core::SC_NS), start(1, sc_core::SC_US);
  p[1].endResponse = JobInitiator::EndResponse::Later;
  p[1].hold = hold;
  p[2].endResponse = JobInitiator::EndResponse::Updated;
  p[0].Add(Read(0x7000, 64)).delay = sc_time(100, sc_core::SC_NS);
  for (unsigned i = 0; i < 3; ++i) {
    for (unsigned k = 0; k < 40; ++k) {
      const uint64_t a = 0x800000 * (i + 1) + 0x400 * k;
      JobPtr kinds[] = {Read(a, 128), Write(a, 128, 1), PostedWrite(a, 128, 2), Read(a, 1024),
                        Write(a, 384, 3), PostedWrite(a, 256, 4), Read(a, 64), Read(a, 128)};
      p[i].Add(std::move(kinds[k % 8]), start);
    }
  }
  p.Run();
  const sc_time cycle = p.cube->cube->cfg.CORE_CLK;
  EXPECT_GE(p.log.issuedAt.at(0x7000), sc_time(100, sc_core::SC_NS));
  EXPECT_LE(p.log.issuedAt.at(0x7000), sc_time(100, sc_core::SC_NS) + cycle);
  for (unsigned i = 0; i < 3; ++i) {
    EXPECT_EQ(p[i].Unexpected(), 0u);
    EXPECT_GT(p[i].mostInFlight, 8u);
    std::vector<const Job*> byResponse;
    for (const JobPtr& job : p[i].jobs) byResponse.push_back(job.get());
    std::sort(byResponse.begin(), byResponse.end(), [](const Job* a, const Job* b) { return a->doneAt < b->doneAt; });
    sc_time free;
    for (const Job* job : byResponse) {
      const bool posted = job->payload.get_extension<PostedWriteExtension>() != nullptr;
      const sc_time sent = EngineLog::Last(p.log.lastFlitAt, *job);
      const sc_time ready = posted ? sent : EngineLog::Last(p.log.answeredAt, *job);
      const std::string what = std::to_string(i) + " @" + std::to_string(job->payload.get_address());
      if (p[i].style == Style::Blocking) {
        EXPECT_EQ(job->returnedDelay, sc_core::SC_ZERO_TIME) << what;
      } else {
        EXPECT_EQ(job->endRequestAt, sent) << what;
      }
      EXPECT_EQ(job->doneAt, std::max(ready, free)) << what;
      if (p[i].endResponse == JobInitiator::EndResponse::Later) free = job->doneAt + hold;
    }
  }
}

// ---- The same requests through the target and through zelsim's generators
// and host complete at the same time, request by request, under each link
// mapping: the target adds no timing of its own and puts each packet on the
// link zelsim would. zelsim's side runs in a child process (the kernel
// elaborates once per process) and hands its times back through a pipe.

namespace {

using Traces = std::vector<std::vector<Bench::TraceEntry>>;
using Times = std::map<std::pair<unsigned, uint64_t>, uint64_t>;  // ps, by generator and number

struct AnswerLog : Bench::HostObserver {
  Times times;
  void RequestAnswered(unsigned, const Bench::Request& request, bool matched, const sc_time&) override {
    if (matched) times[{request.generator, request.serial}] = sc_core::sc_time_stamp().value();
  }
};

// Four traces of `count` requests of every kind, 16 to 128 bytes at random
// addresses, `minGap` to `maxGap` cycles apart.
Traces MakeTraces(unsigned count, unsigned minGap, unsigned maxGap) {
  const ZELCommand kinds[] = {RD, RD, RD, WR, WR, P_WR, ADD16, P_DADD8, BWR};
  Traces traces(4);
  Bench::Rng rng(17);
  for (auto& trace : traces) {
    uint64_t cycle = 0;
    for (unsigned k = 0; k < count; ++k) {
      Bench::TraceEntry entry;
      entry.cycle = cycle += minGap + rng.Below(maxGap - minGap + 1);
      entry.command = kinds[rng.Below(9)];
      entry.length = Bench::IsAtomic(entry.command) ? 16 : 16 * static_cast<unsigned>(1 + rng.Below(8));
      entry.address = rng.Below((uint64_t{1} << 30) / 16) * 16;
      trace.push_back(entry);
    }
  }
  return traces;
}

// zelsim's generators and host on the traces, in a child process.
Times RunZelsimEngine(const Traces& traces, unsigned hostMapping) {
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
    for (const auto& e : log.times) {
      const uint64_t row[3] = {e.first.first, e.first.second, e.second};  // each write whole, as it is small
      if (write(fds[1], row, sizeof row) != sizeof row) std::_Exit(4);
    }
    std::_Exit(host->drained ? 0 : 3);
  }
  close(fds[1]);
  Times times;
  uint64_t row[3];
  while (read(fds[0], row, sizeof row) == sizeof row) times[{static_cast<unsigned>(row[0]), row[1]}] = row[2];
  close(fds[0]);
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "zelsim's engine didn't drain";
  return times;
}

JobPtr JobOf(const Bench::TraceEntry& entry) {
  if (entry.command == RD) return Read(entry.address, entry.length);
  if (entry.command == WR) return Write(entry.address, entry.length, 1);
  if (entry.command == P_WR) return PostedWrite(entry.address, entry.length, 2);
  return Atomic(entry.command, entry.address, std::vector<unsigned char>(16, 3));
}

// Blocking initiators start a thread per request, so that requests queue at
// the host as zelsim's generators queue them: the traffic overloads the
// links, and requests wait for tokens, tags and their link in both runs. A
// non-blocking initiator has one request in its request phase at a time, so
// its traffic leaves each request room to go out when it is due.
struct Case {
  const char* name;
  Style style;
  LinkMapping mapping;
  unsigned hostMapping, count, minGap, maxGap;
};
const Case kCases[] = {
    {"BlockingOverloadByVaultQuad", Style::Blocking, LinkMapping::ByVaultQuad, Bench::MAP_VAULT_QUAD, 2500, 0, 1},
    {"NonBlockingByInitiator", Style::NonBlocking, LinkMapping::ByInitiator, Bench::MAP_GENERATOR, 1500, 4, 12},
    {"BlockingRoundRobin", Style::Blocking, LinkMapping::RoundRobin, Bench::MAP_ROUND_ROBIN, 1500, 0, 3},
};
void PrintTo(const Case& c, std::ostream* out) { *out << c.name; }

class TlmTargetEquivalence : public ::testing::TestWithParam<Case> {};

}  // namespace

// Each request is issued on the clock edge of its cycle, and each
// non-posted one must complete at zelsim's time to the picosecond.
TEST_P(TlmTargetEquivalence, CompletionTimesMatchZelsim) {
  const Case& c = GetParam();
  const Traces traces = MakeTraces(c.count, c.minGap, c.maxGap);
  const Times expected = RunZelsimEngine(traces, c.hostMapping);
  TargetOptions options;
  options.mapping = c.mapping;
  Platform p(std::vector<Style>(traces.size(), c.style), options);
  const sc_time clock = p.cube->cube->cfg.CORE_CLK;
  for (std::size_t g = 0; g < traces.size(); ++g) {
    for (const Bench::TraceEntry& entry : traces[g]) p[g].Add(JobOf(entry), clock * static_cast<double>(entry.cycle));
  }
  p.Run();
  std::size_t compared = 0, differing = 0;
  for (unsigned g = 0; g < traces.size(); ++g) {
    EXPECT_EQ(p[g].Unexpected(), 0u);
    for (uint64_t k = 0; k < traces[g].size(); ++k) {
      const Job& job = *p[g].jobs[k];
      if (c.style == Style::NonBlocking) EXPECT_EQ(job.sentAt, job.issueAt) << g << "/" << k;
      if (Bench::IsPosted(traces[g][k].command)) continue;
      const auto found = expected.find({g, k});
      ASSERT_NE(found, expected.end()) << g << "/" << k;
      ++compared;
      if (job.doneAt.value() != found->second && ++differing <= 5)
        ADD_FAILURE() << g << "/" << k << ": target " << job.doneAt.value() << " ps, zelsim " << found->second;
    }
  }
  EXPECT_EQ(differing, 0u) << "of " << compared;
  EXPECT_EQ(compared, expected.size());
  EXPECT_GT(compared, traces.size() * c.count / 2);
}

INSTANTIATE_TEST_SUITE_P(Mappings, TlmTargetEquivalence, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<Case>& info) { return std::string(info.param.name); });
