// SPDX-License-Identifier: Apache-2.0
// A million transactions through the TLM target, in four cases of 250 000
// that ctest runs side by side. Each case has two blocking initiators of
// eight threads each and two non-blocking ones with up to 64 transactions
// in flight, all through protocol checkers: reads and writes of 64 and 128
// bytes, posted writes, every atomic, a few payloads the target must
// refuse, with annotated delays, over all links. Every transaction must be
// answered once with the right status, every read must return the last
// data its stream wrote (each thread of an initiator, and each non-blocking
// initiator, owns its own blocks), and the checkers must stay silent.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <unordered_map>
#include <vector>

#include "host/generator.h"
#include "host/backing_store.h"
#include "test_tlm_support.h"

using namespace zelsim_test;
using namespace Sornak::Internal::ZEL2;
using Sornak::Internal::ZEL2::Host::BackingStore;
using Sornak::Internal::ZEL2::Host::LinkMapping;
using Sornak::Internal::ZEL2::Host::PartialAccess;
using sc_core::sc_time;

namespace {

constexpr uint64_t kPerCase = 250000;
constexpr unsigned kInitiators = 4;       // 0 and 2 blocking, 1 and 3 non-blocking
constexpr unsigned kThreads = 8;          // of a blocking initiator
constexpr unsigned kWindow = 64;          // transactions in flight of a non-blocking initiator
constexpr unsigned kStreams = 2 * kThreads + 2;
constexpr uint64_t kBlock = 128;

// What a case counts.
struct Tally {
  uint64_t issued = 0, answered = 0, wrongStatus = 0, wrongData = 0, twice = 0;
  uint64_t reads = 0, writes = 0, posted = 0, atomics = 0, refused = 0;
};

// One transaction with its bytes and what it must come back with.
struct Slot {
  tlm::tlm_generic_payload payload;
  unsigned char data[128];
  std::vector<unsigned char> expected;  // a read's data
  tlm::tlm_response_status status = tlm::TLM_OK_RESPONSE;
  bool outstanding = false;
  Slot() {
    payload.set_data_ptr(data);
    payload.set_byte_enable_ptr(nullptr);
  }
};

const ZELCommand kAtomics[6] = {BWR, P_BWR, DADD8, P_DADD8, ADD16, P_ADD16};

// Fills `slot` with the next transaction of stream `stream`, and keeps the
// stream's own copy of its blocks up to date.
void Draw(Bench::Rng& rng, unsigned stream, uint64_t capacity, BackingStore& shadow, Slot& slot, Tally& tally) {
  tlm::tlm_generic_payload& p = slot.payload;
  p.clear_extension<PostedWriteExtension>();
  p.clear_extension<zel2_atomics_extension>();
  p.set_response_status(tlm::TLM_INCOMPLETE_RESPONSE);
  slot.status = tlm::TLM_OK_RESPONSE;
  slot.expected.clear();
  const uint64_t blocks = capacity / kBlock / kStreams;
  const uint64_t block = (rng.Below(blocks) * kStreams + stream) * kBlock;
  const unsigned length = rng.Below(2) == 0 ? 64 : 128;
  const uint64_t address = block + (length == 64 ? 64 * rng.Below(2) : 0);
  for (unsigned i = 0; i < 128; i += 8) {
    const uint64_t word = rng.Next();
    for (unsigned b = 0; b < 8; ++b) slot.data[i + b] = static_cast<unsigned char>(word >> (8 * b));
  }
  const uint64_t kind = rng.Below(200);
  p.set_address(address);
  p.set_data_length(length);
  p.set_streaming_width(length);
  if (kind < 90) {
    p.set_command(tlm::TLM_READ_COMMAND);
    slot.expected.resize(length);
    shadow.Read(address, slot.expected.data(), length);
    ++tally.reads;
  } else if (kind < 160) {
    p.set_command(tlm::TLM_WRITE_COMMAND);
    if (kind >= 140) {
      p.set_extension(new PostedWriteExtension);  // freed by the slot's payload
      ++tally.posted;
    }
    shadow.Write(address, slot.data, length);
    ++tally.writes;
  } else if (kind < 198) {
    const ZELCommand command = kAtomics[rng.Below(6)];
    const uint64_t at = block + 16 * rng.Below(kBlock / 16);
    p.set_command(tlm::TLM_WRITE_COMMAND);
    p.set_address(at);
    p.set_data_length(16);
    p.set_streaming_width(16);
    p.set_extension(new zel2_atomics_extension(command));
    shadow.Atomic(command, at, slot.data);
    ++tally.atomics;
    if (Bench::IsPosted(command)) ++tally.posted;
  } else {
    // Beyond the end of the cube.
    p.set_command(tlm::TLM_READ_COMMAND);
    p.set_address(capacity + address);
    slot.status = tlm::TLM_ADDRESS_ERROR_RESPONSE;
    ++tally.refused;
  }
  ++tally.issued;
}

void Check(Slot& slot, Tally& tally) {
  ++tally.answered;
  if (slot.payload.get_response_status() != slot.status) ++tally.wrongStatus;
  if (!slot.expected.empty() && std::memcmp(slot.expected.data(), slot.data, slot.expected.size()) != 0)
    ++tally.wrongData;
}

// Random annotated delays: none most of the time, else up to 5 ns.
sc_time SomeDelay(Bench::Rng& rng) {
  return rng.Below(4) == 0 ? sc_time(static_cast<double>(rng.Below(5001)), sc_core::SC_PS) : sc_core::SC_ZERO_TIME;
}

class Traffic : public sc_core::sc_module, public tlm::tlm_bw_transport_if<> {
 public:
  tlm::tlm_initiator_socket<32> socket;
  Tally tally;
  unsigned* playing;

  SC_HAS_PROCESS(Traffic);
  Traffic(sc_core::sc_module_name name, unsigned id, bool blocking, uint64_t quota, unsigned* playing)
      : sc_module(name), socket("socket"), playing(playing), id_(id), quota_(quota), shadow_(blocking ? kThreads : 1) {
    socket.bind(*this);
    if (blocking) {
      for (unsigned t = 0; t < kThreads; ++t) sc_core::sc_spawn([this, t] { Worker(t); });
    } else {
      for (unsigned k = 0; k < kWindow; ++k) {
        slots_.emplace_back(new Slot);
        free_.push_back(slots_.back().get());
        owner_[&slots_.back()->payload] = slots_.back().get();
      }
      SC_THREAD(Window);
    }
  }

  tlm::tlm_sync_enum nb_transport_bw(tlm::tlm_generic_payload& payload, tlm::tlm_phase& phase, sc_time&) override {
    Slot& slot = *owner_.at(&payload);
    if (phase == tlm::END_REQ) {
      requestOpen_ = false;
      requestEnded_.notify(sc_core::SC_ZERO_TIME);
      return tlm::TLM_ACCEPTED;
    }
    if (!slot.outstanding) {
      ++tally.twice;
      return tlm::TLM_COMPLETED;
    }
    Done(slot);
    // Both legal ways of ending a response at once.
    if ((tally.answered & 1) == 0) return tlm::TLM_COMPLETED;
    phase = tlm::END_RESP;
    return tlm::TLM_UPDATED;
  }
  void invalidate_direct_mem_ptr(sc_dt::uint64, sc_dt::uint64) override {}

 private:
  unsigned Stream(unsigned thread) const { return id_ / 2 * (kThreads + 1) + thread; }
  uint64_t Capacity() const { return uint64_t{1} << 30; }

  void Worker(unsigned thread) {
    Bench::Rng rng(1000 * id_ + thread);
    Slot slot;
    while (claimed_ < quota_) {
      ++claimed_;
      Draw(rng, Stream(thread), Capacity(), shadow_[thread], slot, tally);
      sc_time delay = SomeDelay(rng);
      socket->b_transport(slot.payload, delay);
      Check(slot, tally);
    }
    if (++finished_ == kThreads) Finish();
  }

  void Window() {
    Bench::Rng rng(1000 * id_ + 99);
    for (uint64_t n = 0; n < quota_; ++n) {
      while (free_.empty()) wait(freed_);
      Slot& slot = *free_.back();
      free_.pop_back();
      Draw(rng, Stream(kThreads), Capacity(), shadow_[0], slot, tally);
      slot.outstanding = true;
      tlm::tlm_phase phase = tlm::BEGIN_REQ;
      sc_time delay = SomeDelay(rng);
      requestOpen_ = true;
      if (socket->nb_transport_fw(slot.payload, phase, delay) == tlm::TLM_COMPLETED) {
        requestOpen_ = false;
        Done(slot);
        continue;
      }
      while (requestOpen_) wait(requestEnded_);
    }
    while (free_.size() < slots_.size()) wait(freed_);
    Finish();
  }

  void Done(Slot& slot) {
    slot.outstanding = false;
    Check(slot, tally);
    free_.push_back(&slot);
    freed_.notify(sc_core::SC_ZERO_TIME);
  }
  void Finish() {
    if (--*playing == 0) sc_core::sc_stop();
  }

  unsigned id_;
  uint64_t quota_;
  uint64_t claimed_ = 0;
  unsigned finished_ = 0;
  std::vector<BackingStore> shadow_;  // per stream
  std::vector<std::unique_ptr<Slot>> slots_;
  std::unordered_map<const tlm::tlm_generic_payload*, Slot*> owner_;
  std::vector<Slot*> free_;
  bool requestOpen_ = false;
  sc_core::sc_event requestEnded_, freed_;
};

struct Case {
  LinkMapping mapping;
  PartialAccess partial;
  const char* name;
};

void PrintTo(const Case& c, std::ostream* out) { *out << c.name; }

class TlmTargetMillion : public ::testing::TestWithParam<Case> {};

}  // namespace

TEST_P(TlmTargetMillion, EveryTransactionAnsweredOnceWithItsDataAndStatus) {
  ClearModelEnvironment();
  TargetOptions options;
  options.mapping = GetParam().mapping;
  options.partial = GetParam().partial;
  auto* cube = new Cube2in1Wrapper("cube");
  auto* target = new CubeTarget("target", *cube, options);
  ASSERT_EQ(target->Capacity(), uint64_t{1} << 30);
  unsigned playing = kInitiators;
  std::vector<Traffic*> traffic;
  std::vector<BaseProtocolChecker<32>*> checkers;
  for (unsigned i = 0; i < kInitiators; ++i) {
    const std::string n = std::to_string(i);
    traffic.push_back(new Traffic(("traffic" + n).c_str(), i, i % 2 == 0, kPerCase / kInitiators, &playing));
    checkers.push_back(new BaseProtocolChecker<32>(("checker" + n).c_str()));
    traffic.back()->socket.bind(checkers.back()->in);
    checkers.back()->out.bind(target->socket);
  }
  sc_core::sc_start();

  Tally all;
  for (const Traffic* t : traffic) {
    const Tally& x = t->tally;
    EXPECT_EQ(x.answered, x.issued);
    EXPECT_EQ(x.wrongStatus + x.wrongData + x.twice, 0u)
        << "status " << x.wrongStatus << ", data " << x.wrongData << ", twice " << x.twice;
    all.issued += x.issued;
    all.answered += x.answered;
    all.reads += x.reads;
    all.writes += x.writes;
    all.posted += x.posted;
    all.atomics += x.atomics;
    all.refused += x.refused;
  }
  EXPECT_EQ(all.issued, kPerCase);
  EXPECT_EQ(all.answered, kPerCase);
  for (uint64_t kind : {all.reads, all.writes, all.posted, all.atomics, all.refused}) EXPECT_GT(kind, 100u);
  for (const auto* checker : checkers) {
    EXPECT_EQ(checker->rules.Violations(), 0u);
    EXPECT_EQ(checker->rules.InFlight(), 0u);
    EXPECT_GE(checker->rules.Checked(), kPerCase / kInitiators);
  }
  const auto& counts = target->Counts();
  EXPECT_EQ(counts.transactions, kPerCase);
  EXPECT_EQ(counts.refused, all.refused);
  EXPECT_EQ(counts.completed, kPerCase - all.refused);
  EXPECT_EQ(counts.failed + counts.inFlight, 0u);
  Bench::HostResults results;
  target->Engine().CollectResults(results);
  const Bench::LinkResults total = results.Total();
  EXPECT_EQ(total.mismatches + total.outstanding, 0u);
  EXPECT_EQ(total.issued, counts.packets);
  for (const Bench::LinkResults& link : results.links) EXPECT_GT(link.issued, kPerCase / 10) << "link " << link.link;
  std::cout << "case " << GetParam().name << ": " << all.issued << " transactions, " << counts.packets
            << " packets, " << sc_core::sc_time_stamp() << " simulated" << std::endl;
}

INSTANTIATE_TEST_SUITE_P(
    QuarterOfAMillion, TlmTargetMillion,
    ::testing::Values(Case{LinkMapping::ByVaultQuad, PartialAccess::Widen, "ByVaultQuadWiden"},
                      Case{LinkMapping::RoundRobin, PartialAccess::Refuse, "RoundRobinRefuse"},
                      Case{LinkMapping::ByInitiator, PartialAccess::Widen, "ByInitiatorWiden"},
                      Case{LinkMapping::ByVaultQuad, PartialAccess::Refuse, "ByVaultQuadRefuse"}),
    [](const ::testing::TestParamInfo<Case>& info) { return std::string(info.param.name); });

// The four cases together make the million.
static_assert(4 * kPerCase == 1000000, "four cases of a quarter million");
