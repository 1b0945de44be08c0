// SPDX-License-Identifier: Apache-2.0
// A million transactions through the TLM target, in four cases of 250 000
// that ctest runs side by side. Each case has two blocking initiators of
// eight threads each and two non-blocking ones with up to 64 transactions
// in flight, all through protocol checkers: reads and writes of 64 and 128
// bytes, posted writes, every atomic and a few payloads beyond the cube,
// with annotated delays, over all links. Every transaction must be answered
// once with the right status, every read must return the last data its
// stream wrote (each thread of an initiator, and each non-blocking
// initiator, owns its own blocks), and the checkers must stay silent.
#include <cstring>
#include <unordered_map>

#include "host/backing_store.h"
#include "test_tlm_support.h"

using namespace zelsim_test;
using Host::BackingStore;

namespace {

constexpr uint64_t kPerCase = 250000;
constexpr unsigned kInitiators = 4;  // even ones blocking, odd ones non-blocking
constexpr unsigned kThreads = 8;     // of a blocking initiator
constexpr unsigned kWindow = 64;     // transactions in flight of a non-blocking initiator
constexpr unsigned kStreams = 2 * kThreads + 2;
constexpr uint64_t kBlock = 128, kCapacity = uint64_t{1} << 30;
const ZELCommand kAtomics[6] = {BWR, P_BWR, DADD8, P_DADD8, ADD16, P_ADD16};
enum Kind { kRead, kWrite, kPosted, kAtomic, kOutside, kKinds };

struct Tally {
  uint64_t issued = 0, answered = 0, wrong = 0, twice = 0, kinds[kKinds] = {};
};

// One transaction with its bytes and what it must come back with.
struct Slot {
  tlm::tlm_generic_payload payload;
  unsigned char data[128];
  std::vector<unsigned char> expected;  // a read's data
  tlm::tlm_response_status status = tlm::TLM_OK_RESPONSE;
  bool outstanding = false;
  Slot() { payload.set_data_ptr(data); }

  // The next transaction of `stream`, kept in the stream's own copy of its blocks.
  void Draw(Bench::Rng& rng, unsigned stream, BackingStore& shadow, Tally& tally) {
    tlm::tlm_generic_payload& p = payload;
    p.clear_extension<PostedWriteExtension>();
    p.clear_extension<zel2_atomics_extension>();
    p.set_response_status(tlm::TLM_INCOMPLETE_RESPONSE);
    status = tlm::TLM_OK_RESPONSE;
    expected.clear();
    const uint64_t block = (rng.Below(kCapacity / kBlock / kStreams) * kStreams + stream) * kBlock;
    const unsigned length = rng.Below(2) == 0 ? 64 : 128;
    const uint64_t address = block + (length == 64 ? 64 * rng.Below(2) : 0);
    for (unsigned i = 0; i < 128; i += 8) {
      const uint64_t word = rng.Next();
      for (unsigned b = 0; b < 8; ++b) data[i + b] = static_cast<unsigned char>(word >> (8 * b));
    }
    const uint64_t draw = rng.Below(200);
    const Kind kind = draw < 90 ? kRead : draw < 140 ? kWrite : draw < 160 ? kPosted : draw < 198 ? kAtomic : kOutside;
    p.set_command(kind == kRead || kind == kOutside ? tlm::TLM_READ_COMMAND : tlm::TLM_WRITE_COMMAND);
    p.set_address(kind == kOutside ? kCapacity + address : address);
    p.set_data_length(length);
    p.set_streaming_width(length);
    if (kind == kRead) {
      expected.resize(length);
      shadow.Read(address, expected.data(), length);
    } else if (kind == kWrite || kind == kPosted) {
      if (kind == kPosted) p.set_extension(new PostedWriteExtension);  // freed by the payload
      shadow.Write(address, data, length);
    } else if (kind == kAtomic) {
      const ZELCommand command = kAtomics[rng.Below(6)];
      const uint64_t at = block + 16 * rng.Below(kBlock / 16);
      p.set_address(at);
      p.set_data_length(16);
      p.set_streaming_width(16);
      p.set_extension(new zel2_atomics_extension(command));
      shadow.Atomic(command, at, data);
    } else {
      status = tlm::TLM_ADDRESS_ERROR_RESPONSE;
    }
    ++tally.kinds[kind];
    ++tally.issued;
  }
  void Check(Tally& tally) const {
    ++tally.answered;
    tally.wrong += payload.get_response_status() != status ||
                   (!expected.empty() && std::memcmp(expected.data(), data, expected.size()) != 0);
  }
};

// Random annotated delays: none most of the time, else up to 5 ns.
sc_time SomeDelay(Bench::Rng& rng) {
  return rng.Below(4) == 0 ? sc_time(static_cast<double>(rng.Below(5001)), sc_core::SC_PS) : sc_core::SC_ZERO_TIME;
}

class Traffic : public sc_core::sc_module, public tlm::tlm_bw_transport_if<> {
 public:
  tlm::tlm_initiator_socket<32> socket;
  Tally tally;

  SC_HAS_PROCESS(Traffic);
  Traffic(sc_core::sc_module_name name, unsigned id, uint64_t seed, unsigned* playing)
      : sc_module(name), socket("socket"), id_(id), seed_(seed), playing_(playing), shadow_(kThreads) {
    socket.bind(*this);
    if (id % 2 == 0) {
      for (unsigned t = 0; t < kThreads; ++t) sc_core::sc_spawn([this, t] { Worker(t); });
      return;
    }
    for (unsigned k = 0; k < kWindow; ++k) {
      slots_.emplace_back(new Slot);
      free_.push_back(slots_.back().get());
      owner_[&slots_.back()->payload] = slots_.back().get();
    }
    SC_THREAD(Window);
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
  static constexpr uint64_t kQuota = kPerCase / kInitiators;

  void Worker(unsigned thread) {
    Bench::Rng rng(seed_ + thread);
    Slot slot;
    while (claimed_ < kQuota) {
      ++claimed_;
      slot.Draw(rng, Stream(thread), shadow_[thread], tally);
      sc_time delay = SomeDelay(rng);
      socket->b_transport(slot.payload, delay);
      slot.Check(tally);
    }
    if (++finished_ == kThreads) Finish();
  }
  void Window() {
    Bench::Rng rng(seed_ + 99);
    for (uint64_t n = 0; n < kQuota; ++n) {
      while (free_.empty()) wait(freed_);
      Slot& slot = *free_.back();
      free_.pop_back();
      slot.Draw(rng, Stream(kThreads), shadow_[0], tally);
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
    slot.Check(tally);
    free_.push_back(&slot);
    freed_.notify(sc_core::SC_ZERO_TIME);
  }
  void Finish() {
    if (--*playing_ == 0) sc_core::sc_stop();
  }

  unsigned id_;
  uint64_t seed_, claimed_ = 0;
  unsigned* playing_;
  unsigned finished_ = 0;
  std::vector<BackingStore> shadow_;  // per stream
  std::vector<std::unique_ptr<Slot>> slots_;
  std::unordered_map<const tlm::tlm_generic_payload*, Slot*> owner_;
  std::vector<Slot*> free_;
  bool requestOpen_ = false;
  sc_core::sc_event requestEnded_, freed_;
};

class TlmTargetMillion : public ::testing::TestWithParam<int> {};

}  // namespace

// Case c runs traffic of its own under the mapping c mod 3.
TEST_P(TlmTargetMillion, EveryTransactionAnsweredOnceWithItsDataAndStatus) {
  const LinkMapping mappings[] = {LinkMapping::ByVaultQuad, LinkMapping::RoundRobin, LinkMapping::ByInitiator};
  ClearModelEnvironment();
  TargetOptions options;
  options.mapping = mappings[GetParam() % 3];
  auto* cube = new Cube2in1Wrapper("cube");
  auto* target = new CubeTarget("target", *cube, options);
  ASSERT_EQ(target->Capacity(), kCapacity);
  unsigned playing = kInitiators;
  std::vector<Traffic*> traffic;
  std::vector<BaseProtocolChecker<32>*> checkers;
  for (unsigned i = 0; i < kInitiators; ++i) {
    const std::string n = std::to_string(i);
    traffic.push_back(new Traffic(("traffic" + n).c_str(), i, 100000 * GetParam() + 1000 * i, &playing));
    checkers.push_back(new BaseProtocolChecker<32>(("checker" + n).c_str()));
    traffic.back()->socket.bind(checkers.back()->in);
    checkers.back()->out.bind(target->socket);
  }
  sc_core::sc_start();

  Tally all;
  for (unsigned i = 0; i < kInitiators; ++i) {
    const Tally& x = traffic[i]->tally;
    EXPECT_EQ(x.answered, x.issued) << i;
    EXPECT_EQ(x.wrong + x.twice, 0u) << "initiator " << i << ": wrong " << x.wrong << ", twice " << x.twice;
    all.issued += x.issued;
    for (unsigned k = 0; k < kKinds; ++k) all.kinds[k] += x.kinds[k];
    EXPECT_EQ(checkers[i]->rules.Violations(), 0u);
    EXPECT_EQ(checkers[i]->rules.InFlight(), 0u);
  }
  EXPECT_EQ(all.issued, kPerCase);
  for (uint64_t n : all.kinds) EXPECT_GT(n, 100u);
  const auto& counts = target->Counts();
  EXPECT_EQ(counts.refused, all.kinds[kOutside]);
  EXPECT_EQ(counts.completed, kPerCase - all.kinds[kOutside]);
  Bench::HostResults results;
  target->Engine().CollectResults(results);
  for (const Bench::LinkResults& link : results.links) EXPECT_GT(link.issued, kPerCase / 10) << "link " << link.link;
  std::cout << all.issued << " transactions, " << counts.packets << " packets, " << sc_core::sc_time_stamp()
            << " simulated" << std::endl;
}

// The four cases together make the million.
static_assert(4 * kPerCase == 1000000, "four cases of a quarter million");
INSTANTIATE_TEST_SUITE_P(QuarterOfAMillion, TlmTargetMillion, ::testing::Range(0, 4));
