// SPDX-License-Identifier: Apache-2.0
// The cube as a TLM-2.0 target: data through the backing store, partial
// accesses, long payloads, the choice of links, the timing of both coding
// styles against the engine's own view of the flits, debug transport and
// DMI, and the same traffic through the target and through zelsim's
// engine. Every platform runs through protocol checkers that must stay
// silent.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <set>
#include <sstream>

#include "apps/zelsim/bench.h"
#include "host/generator.h"
#include "test_tlm_support.h"

using namespace zelsim_test;
using namespace Sornak::Internal::ZEL2;
using Sornak::Internal::ZEL2::Host::LinkMapping;
using Sornak::Internal::ZEL2::Host::PartialAccess;
using sc_core::sc_time;

namespace {

const sc_time kNs(1, sc_core::SC_NS);

// The engine's view: each request as it is issued, each request's last flit
// as it goes out, each response as it comes in.
struct EngineLog : Bench::HostObserver {
  struct Issued {
    unsigned link;
    Bench::Request request;
    sc_time at;
  };
  std::vector<Issued> issued;
  std::map<uint64_t, sc_time> lastFlitAt;  // by request address
  std::map<uint64_t, sc_time> answeredAt;  // by request address
  std::map<unsigned, sc_time> lastAnswerOf;  // by initiator

  void RequestIssued(unsigned link, const Bench::Request& request) override {
    issued.push_back({link, request, sc_core::sc_time_stamp()});
  }
  void FlitSent(unsigned, const Flit& flit) override {
    if (flit.command != TOKEN_RETURN && flit.tail) lastFlitAt[flit.address] = sc_core::sc_time_stamp();
  }
  void RequestAnswered(unsigned, const Bench::Request& request, bool, const sc_time&) override {
    answeredAt[request.address] = sc_core::sc_time_stamp();
    lastAnswerOf[request.generator] = sc_core::sc_time_stamp();
  }
};

std::vector<unsigned char> Words(uint64_t low, uint64_t high) {
  std::vector<unsigned char> bytes(16);
  for (int i = 0; i < 8; ++i) {
    bytes[i] = static_cast<unsigned char>(low >> (8 * i));
    bytes[8 + i] = static_cast<unsigned char>(high >> (8 * i));
  }
  return bytes;
}

// Replaces a job's bytes in place: the payload points at them.
void SetData(Job& job, const std::vector<unsigned char>& bytes) { std::copy(bytes.begin(), bytes.end(), job.data.begin()); }

std::string Hex(const std::vector<unsigned char>& bytes) {
  std::ostringstream text;
  text << std::hex;
  for (unsigned char b : bytes) text << (b < 16 ? "0" : "") << unsigned(b);
  return text.str();
}

void ExpectBytes(const Job& job, const std::vector<unsigned char>& expected, const std::string& what) {
  EXPECT_EQ(job.status, tlm::TLM_OK_RESPONSE) << what;
  EXPECT_EQ(Hex(job.data), Hex(expected)) << what;
}

}  // namespace

// Writes of every kind, then reads of the same places, in both styles:
// reads see the last data written, atomics act on the stored words, partial
// writes change only their enabled bytes, unwritten memory reads as zeros,
// and debug transport sees the same store.
TEST(TlmTargetData, ReadsReturnWhatWasWrittenInBothStyles) {
  Platform p({Style::Blocking, Style::NonBlocking});
  const uint64_t ones = ~uint64_t{0};
  for (unsigned i = 0; i < 2; ++i) {
    JobInitiator& in = *p.initiators[i];
    const uint64_t base = 0x100000 * (i + 1);
    const unsigned char fill = static_cast<unsigned char>(0xa0 + i);
    in.Add(Write(base, 64, fill));
    in.Add(Write(base + 0x200, 256, 0xb0));  // two packets
    in.Add(PostedWrite(base + 0x400, 128, 0xc0));
    in.Add(MakeJob(tlm::TLM_WRITE_COMMAND, base + 0x600, 16));
    SetData(*in.jobs.back(), Words(ones, 1));  // ADD16 carries into the high word
    in.Add(Atomic(ADD16, base + 0x600, Words(1, 2)));
    in.Add(Write(base + 0x610, 16, 0));
    SetData(*in.jobs.back(), Words(ones, 5));  // DADD8's words don't carry
    in.Add(Atomic(DADD8, base + 0x610, Words(1, 7)));
    in.Add(Write(base + 0x620, 16, 0xf0));
    in.Add(Atomic(P_BWR, base + 0x620, Words(0x0f0f0f0f0f0f0f0full, 0x00000000ffffffffull)));
    JobPtr partial = Write(base + 0xa03, 5, 0xee);
    partial->enables = {0xff, 0, 0xff, 0xff, 0};
    partial->payload.set_byte_enable_ptr(partial->enables.data());
    partial->payload.set_byte_enable_length(5);
    in.Add(std::move(partial));
    // The reads go after the writes; the store takes transactions in the
    // order they arrive.
    const sc_time later(2, sc_core::SC_US);
    in.Add(Read(base, 64), later);
    in.Add(Read(base + 0x200, 256), later);
    in.Add(Read(base + 0x400, 128), later);
    in.Add(Read(base + 0x600, 48), later);
    in.Add(Read(base + 0x800, 32), later);
    in.Add(Read(base + 0xa00, 16), later);
  }
  p.Run();
  ASSERT_TRUE(p.AllDone());
  EXPECT_EQ(p.Violations(), 0u);
  for (unsigned i = 0; i < 2; ++i) {
    const std::vector<JobPtr>& jobs = p.initiators[i]->jobs;
    const std::string who = i == 0 ? "blocking" : "non-blocking";
    EXPECT_EQ(p.initiators[i]->Unexpected(), 0u) << who;
    const std::size_t r = jobs.size() - 6;
    ExpectBytes(*jobs[r], std::vector<unsigned char>(64, static_cast<unsigned char>(0xa0 + i)), who);
    ExpectBytes(*jobs[r + 1], std::vector<unsigned char>(256, 0xb0), who);
    ExpectBytes(*jobs[r + 2], std::vector<unsigned char>(128, 0xc0), who + " posted");
    std::vector<unsigned char> atomics = Words(0, 4);
    for (unsigned char b : Words(0, 12)) atomics.push_back(b);
    for (unsigned char b : Words(0xf0f0f0f00f0f0f0full, 0xf0f0f0f0f0f0f0f0ull)) atomics.push_back(b);
    ExpectBytes(*jobs[r + 3], atomics, who + " atomics");
    ExpectBytes(*jobs[r + 4], std::vector<unsigned char>(32, 0), who + " unwritten");
    std::vector<unsigned char> enabled(16, 0);
    enabled[3] = enabled[5] = enabled[6] = 0xee;
    ExpectBytes(*jobs[r + 5], enabled, who + " byte enables");
  }
  // Debug transport reads the same store, and writes into it without a
  // flit or a moment of simulated time.
  const sc_time before = sc_core::sc_time_stamp();
  const uint64_t packets = p.target->Counts().packets;
  std::vector<unsigned char> bytes(8, 0x77);
  tlm::tlm_generic_payload debug;
  debug.set_command(tlm::TLM_WRITE_COMMAND);
  debug.set_address(0x100000 + 0x201);
  debug.set_data_ptr(bytes.data());
  debug.set_data_length(8);
  EXPECT_EQ(p.initiators[0]->socket->transport_dbg(debug), 8u);
  std::vector<unsigned char> back(10);
  debug.set_command(tlm::TLM_READ_COMMAND);
  debug.set_address(0x100000 + 0x200);
  debug.set_data_ptr(back.data());
  debug.set_data_length(10);
  EXPECT_EQ(p.initiators[1]->socket->transport_dbg(debug), 10u);
  EXPECT_TRUE(back == std::vector<unsigned char>({0xb0, 0x77, 0x77, 0x77, 0x77, 0x77, 0x77, 0x77, 0x77, 0xb0}));
  EXPECT_EQ(sc_core::sc_time_stamp(), before);
  EXPECT_EQ(p.target->Counts().packets, packets);
}

// Without a store reads give zeros and debug writes are dropped; the
// timing is the model's all the same. DMI is refused for every address.
TEST(TlmTargetData, WithoutAStoreReadsAreZerosAndDmiIsRefused) {
  TargetOptions options;
  options.backingStore = false;
  Platform p({Style::Blocking}, options);
  p.initiators[0]->Add(Write(0x4000, 64, 0x11));
  p.initiators[0]->Add(Read(0x4000, 64), sc_time(1, sc_core::SC_US));
  std::fill(p.initiators[0]->jobs.back()->data.begin(), p.initiators[0]->jobs.back()->data.end(), 0x55);
  p.Run();
  ASSERT_TRUE(p.AllDone());
  EXPECT_EQ(p.initiators[0]->Unexpected(), 0u);
  EXPECT_TRUE(p.initiators[0]->jobs[1]->data == std::vector<unsigned char>(64, 0));
  EXPECT_GT(p.initiators[0]->jobs[1]->doneAt, sc_time(1, sc_core::SC_US));
  EXPECT_EQ(p.target->Store(), nullptr);

  std::vector<unsigned char> bytes(16, 0x99);
  tlm::tlm_generic_payload debug;
  debug.set_command(tlm::TLM_WRITE_COMMAND);
  debug.set_address(0x4000);
  debug.set_data_ptr(bytes.data());
  debug.set_data_length(16);
  EXPECT_EQ(p.initiators[0]->socket->transport_dbg(debug), 0u);
  debug.set_command(tlm::TLM_READ_COMMAND);
  EXPECT_EQ(p.initiators[0]->socket->transport_dbg(debug), 16u);
  EXPECT_TRUE(bytes == std::vector<unsigned char>(16, 0));
  // Beyond the end of the cube nothing moves.
  debug.set_address(p.target->Capacity() - 4);
  EXPECT_EQ(p.initiators[0]->socket->transport_dbg(debug), 4u);

  tlm::tlm_dmi dmi;
  EXPECT_FALSE(p.initiators[0]->socket->get_direct_mem_ptr(debug, dmi));
  EXPECT_EQ(dmi.get_start_address(), 0u);
  EXPECT_EQ(dmi.get_end_address(), ~sc_dt::uint64{0});
  EXPECT_EQ(dmi.get_dmi_ptr(), nullptr);
}

namespace {

struct Expected {
  JobPtr job;
  tlm::tlm_response_status status;
};

// Payloads the target can't or won't serve, in either mode, and the answer
// each must get.
std::vector<Expected> AlwaysRefused(uint64_t capacity) {
  std::vector<Expected> list;
  list.push_back({Read(capacity - 16, 32), tlm::TLM_ADDRESS_ERROR_RESPONSE});
  list.push_back({Read(capacity, 16), tlm::TLM_ADDRESS_ERROR_RESPONSE});
  list.push_back({Read(0x1000, 0), tlm::TLM_BURST_ERROR_RESPONSE});
  JobPtr streamed = Read(0x1000, 64);
  streamed->payload.set_streaming_width(16);
  list.push_back({std::move(streamed), tlm::TLM_BURST_ERROR_RESPONSE});
  JobPtr postedRead = Read(0x1000, 64);
  postedRead->payload.set_extension(new PostedWriteExtension);
  list.push_back({std::move(postedRead), tlm::TLM_COMMAND_ERROR_RESPONSE});
  JobPtr atomicRead = Read(0x1000, 16);
  atomicRead->payload.set_extension(new zel2_atomics_extension(ADD16));
  list.push_back({std::move(atomicRead), tlm::TLM_COMMAND_ERROR_RESPONSE});
  list.push_back({Atomic(WR, 0x1000, Words(1, 1)), tlm::TLM_COMMAND_ERROR_RESPONSE});
  list.push_back({Atomic(ADD16, 0x1008, Words(1, 1)), tlm::TLM_ADDRESS_ERROR_RESPONSE});
  list.push_back({Atomic(DADD8, 0x1000, std::vector<unsigned char>(32)), tlm::TLM_BURST_ERROR_RESPONSE});
  return list;
}

// Plays `list` on both a blocking and a non-blocking initiator and checks
// every answer; returns the platform for more checks.
std::unique_ptr<Platform> PlayExpecting(std::vector<Expected> (*make)(uint64_t), const TargetOptions& options,
                                        EngineLog& log) {
  std::unique_ptr<Platform> p(new Platform({Style::Blocking, Style::NonBlocking}, options));
  p->target->Engine().observers.push_back(&log);
  std::vector<std::vector<tlm::tlm_response_status>> expected(2);
  for (unsigned i = 0; i < 2; ++i) {
    for (Expected& e : make(p->target->Capacity())) {
      expected[i].push_back(e.status);
      p->initiators[i]->Add(std::move(e.job));
    }
  }
  p->Run();
  EXPECT_TRUE(p->AllDone());
  EXPECT_EQ(p->Violations(), 0u);
  for (unsigned i = 0; i < 2; ++i) {
    for (std::size_t j = 0; j < expected[i].size(); ++j) {
      const Job& job = *p->initiators[i]->jobs[j];
      EXPECT_EQ(job.status, expected[i][j]) << "initiator " << i << " job " << j;
      EXPECT_EQ(job.responses, 1) << "initiator " << i << " job " << j;
    }
  }
  return p;
}

std::vector<Expected> RefusedWhenStrict(uint64_t capacity) {
  std::vector<Expected> list = AlwaysRefused(capacity);
  list.push_back({Read(0x1008, 16), tlm::TLM_ADDRESS_ERROR_RESPONSE});
  list.push_back({Read(0x1000, 20), tlm::TLM_BURST_ERROR_RESPONSE});
  JobPtr enabled = Write(0x1000, 16, 1);
  enabled->enables.assign(16, 0xff);
  enabled->payload.set_byte_enable_ptr(enabled->enables.data());
  enabled->payload.set_byte_enable_length(16);
  list.push_back({std::move(enabled), tlm::TLM_BYTE_ENABLE_ERROR_RESPONSE});
  list.push_back({Read(0x1000, 64), tlm::TLM_OK_RESPONSE});
  return list;
}

std::vector<Expected> WidenedOrRefused(uint64_t capacity) {
  std::vector<Expected> list = AlwaysRefused(capacity);
  list.push_back({Read(0x2008, 8), tlm::TLM_OK_RESPONSE});    // one 16-byte unit
  list.push_back({Read(0x300c, 8), tlm::TLM_OK_RESPONSE});    // two units
  list.push_back({Read(0x4008, 200), tlm::TLM_OK_RESPONSE});  // 208 bytes: 128 + 80
  JobPtr enabled = Write(0x5000, 16, 1);
  enabled->enables = {0xff, 0};
  enabled->payload.set_byte_enable_ptr(enabled->enables.data());
  enabled->payload.set_byte_enable_length(2);
  list.push_back({std::move(enabled), tlm::TLM_OK_RESPONSE});
  return list;
}

}  // namespace

// Refused payloads get the matching error at once and never reach the
// cube; only the sound read of each initiator does.
TEST(TlmTargetPartial, RefusedWithTheMatchingErrorWhenStrict) {
  TargetOptions options;
  options.partial = PartialAccess::Refuse;
  EngineLog log;
  std::unique_ptr<Platform> p = PlayExpecting(RefusedWhenStrict, options, log);
  ASSERT_EQ(log.issued.size(), 2u);
  for (const EngineLog::Issued& issued : log.issued) {
    EXPECT_EQ(issued.request.address, 0x1000u);
    EXPECT_EQ(issued.request.length, 64u);
  }
  for (const JobPtr& job : p->initiators[0]->jobs) {
    if (job->status != tlm::TLM_OK_RESPONSE) {
      EXPECT_EQ(job->doneAt, sc_core::SC_ZERO_TIME);  // answered without waiting
    }
  }
  EXPECT_EQ(p->target->Counts().refused, 2 * (RefusedWhenStrict(1 << 30).size() - 1));
}

// Widened payloads cover the 16-byte units they touch, in packets of at
// most 128 bytes.
TEST(TlmTargetPartial, WidenedToWholeUnitsByDefault) {
  EngineLog log;
  std::unique_ptr<Platform> p = PlayExpecting(WidenedOrRefused, TargetOptions(), log);
  std::multiset<std::pair<uint64_t, unsigned>> packets;
  for (const EngineLog::Issued& issued : log.issued) packets.insert({issued.request.address, issued.request.length});
  const std::multiset<std::pair<uint64_t, unsigned>> expected = {
      {0x2000, 16}, {0x2000, 16}, {0x3000, 32}, {0x3000, 32}, {0x4000, 128},
      {0x4000, 128}, {0x4080, 80}, {0x4080, 80}, {0x5000, 16}, {0x5000, 16}};
  EXPECT_EQ(packets, expected);
}

// A long payload becomes packets of 128 bytes and completes with the last
// packet's response, in both styles; a posted write completes when its last
// flit is sent.
TEST(TlmTargetTiming, LongPayloadsCompleteWithTheirLastPacket) {
  Platform p({Style::Blocking, Style::NonBlocking});
  EngineLog log;
  p.target->Engine().observers.push_back(&log);
  p.initiators[0]->Add(Read(0x0, 1024));
  p.initiators[1]->Add(Write(0x100000, 384, 3));
  p.initiators[1]->Add(PostedWrite(0x200000, 256, 4), sc_time(2, sc_core::SC_US));
  p.Run();
  ASSERT_TRUE(p.AllDone());
  EXPECT_EQ(p.Violations(), 0u);
  EXPECT_EQ(p.target->Counts().packets, 8u + 3u + 2u);
  EXPECT_EQ(p.initiators[0]->jobs[0]->doneAt, log.lastAnswerOf[0]);
  const Job& write = *p.initiators[1]->jobs[0];
  sc_time last;
  for (uint64_t a = 0x100000; a < 0x100000 + 384; a += 128) last = std::max(last, log.answeredAt.at(a));
  EXPECT_EQ(write.doneAt, last);
  const Job& posted = *p.initiators[1]->jobs[1];
  EXPECT_EQ(posted.endRequestAt, std::max(log.lastFlitAt.at(0x200000), log.lastFlitAt.at(0x200080)));
  EXPECT_EQ(posted.doneAt, posted.endRequestAt);
}

// b_transport spends the annotated delay before the request goes out, gives
// back a zero delay and returns when the response tail is in; a posted
// write returns when its last flit is out.
TEST(TlmTargetTiming, BlockingWaitsForTheTailAndAddsNothing) {
  Platform p({Style::Blocking});
  EngineLog log;
  p.target->Engine().observers.push_back(&log);
  JobPtr read = Read(0x7000, 64);
  read->delay = 100 * kNs;
  p.initiators[0]->Add(std::move(read));
  p.initiators[0]->Add(PostedWrite(0x9000, 128, 9), 300 * kNs);
  p.Run();
  ASSERT_TRUE(p.AllDone());
  EXPECT_EQ(p.Violations(), 0u);
  const Job& r = *p.initiators[0]->jobs[0];
  const Job& w = *p.initiators[0]->jobs[1];
  ASSERT_EQ(log.issued.size(), 2u);
  EXPECT_GE(log.issued[0].at, 100 * kNs);
  EXPECT_LE(log.issued[0].at, 100 * kNs + sc_time(1.6, sc_core::SC_NS));  // within a cycle
  EXPECT_EQ(r.returnedDelay, sc_core::SC_ZERO_TIME);
  EXPECT_EQ(r.doneAt, log.answeredAt.at(0x7000));
  EXPECT_EQ(w.doneAt, log.lastFlitAt.at(0x9000));
  EXPECT_EQ(w.returnedDelay, sc_core::SC_ZERO_TIME);
}

// nb_transport: END_REQ when the request's last flit is out, BEGIN_RESP when
// the response tail is in, with many transactions in flight; an initiator
// that ends its responses late holds back the next BEGIN_RESP exactly that
// long, while one that ends them at once gets each at its tail.
TEST(TlmTargetTiming, NonBlockingPhasesFollowTheFlits) {
  Platform p({Style::NonBlocking, Style::NonBlocking});
  EngineLog log;
  p.target->Engine().observers.push_back(&log);
  const sc_time hold = 20 * kNs;
  p.initiators[0]->endResponse = JobInitiator::EndResponse::Later;
  p.initiators[0]->endResponseDelay = hold;
  p.initiators[1]->endResponse = JobInitiator::EndResponse::Updated;
  for (unsigned i = 0; i < 2; ++i) {
    for (unsigned k = 0; k < 40; ++k) {
      const uint64_t address = 0x800000 * (i + 1) + 0x80 * k;
      p.initiators[i]->Add(k % 3 == 2 ? Write(address, 128, 1) : Read(address, 128));
    }
  }
  p.Run();
  ASSERT_TRUE(p.AllDone());
  EXPECT_EQ(p.Violations(), 0u);
  for (unsigned i = 0; i < 2; ++i) {
    JobInitiator& in = *p.initiators[i];
    EXPECT_EQ(in.Unexpected(), 0u);
    EXPECT_GT(in.mostInFlight, 8u);
    std::vector<const Job*> byResponse;
    for (const JobPtr& job : in.jobs) {
      const uint64_t address = job->payload.get_address();
      EXPECT_EQ(job->endRequestAt, log.lastFlitAt.at(address));
      EXPECT_GE(job->doneAt, log.answeredAt.at(address));
      byResponse.push_back(job.get());
    }
    std::sort(byResponse.begin(), byResponse.end(),
              [](const Job* a, const Job* b) { return a->doneAt < b->doneAt; });
    sc_time free = sc_core::SC_ZERO_TIME;
    for (const Job* job : byResponse) {
      const sc_time answered = log.answeredAt.at(job->payload.get_address());
      EXPECT_EQ(job->doneAt, std::max(answered, free)) << "initiator " << i;
      if (i == 0) free = job->doneAt + hold;
    }
  }
}

// The link of each packet: by initiator, by the quad that owns the vault,
// or turning over the links.
class TlmTargetMapping : public ::testing::TestWithParam<LinkMapping> {};

TEST_P(TlmTargetMapping, EachPacketGoesOnItsLink) {
  TargetOptions options;
  options.mapping = GetParam();
  Platform p({Style::Blocking, Style::NonBlocking, Style::Blocking, Style::NonBlocking}, options);
  EngineLog log;
  p.target->Engine().observers.push_back(&log);
  // Each initiator reads one block of each of the 16 vaults, in order.
  for (unsigned i = 0; i < 4; ++i) {
    for (unsigned v = 0; v < 16; ++v) p.initiators[i]->Add(Read(0x10000 * (i + 1) + 128 * v, 64));
  }
  p.Run();
  ASSERT_TRUE(p.AllDone());
  EXPECT_EQ(p.Violations(), 0u);
  ASSERT_EQ(log.issued.size(), 64u);
  std::vector<unsigned> seen(4, 0);
  for (const EngineLog::Issued& issued : log.issued) {
    const unsigned initiator = issued.request.generator;
    const unsigned vault = static_cast<unsigned>(issued.request.address / 128 % 16);
    const unsigned k = seen[initiator]++;
    EXPECT_EQ(vault, k) << "packets of an initiator leave in order";
    switch (GetParam()) {
      case LinkMapping::ByInitiator:
        EXPECT_EQ(issued.link, initiator);
        break;
      case LinkMapping::ByVaultQuad:
        EXPECT_EQ(issued.link, vault / 4);
        break;
      case LinkMapping::RoundRobin:
        EXPECT_EQ(issued.link, (initiator + k) % 4);
        break;
    }
  }
}

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Host {
void PrintTo(LinkMapping mapping, std::ostream* out);
}  // namespace Host
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak

namespace {

std::string MappingName(const ::testing::TestParamInfo<LinkMapping>& info) {
  switch (info.param) {
    case LinkMapping::ByInitiator:
      return "ByInitiator";
    case LinkMapping::ByVaultQuad:
      return "ByVaultQuad";
    case LinkMapping::RoundRobin:
      break;
  }
  return "RoundRobin";
}

}  // namespace

void Sornak::Internal::ZEL2::Host::PrintTo(LinkMapping mapping, std::ostream* out) {
  *out << MappingName(::testing::TestParamInfo<LinkMapping>(mapping, 0));
}

INSTANTIATE_TEST_SUITE_P(Mappings, TlmTargetMapping,
                         ::testing::Values(LinkMapping::ByInitiator, LinkMapping::ByVaultQuad,
                                           LinkMapping::RoundRobin),
                         MappingName);
