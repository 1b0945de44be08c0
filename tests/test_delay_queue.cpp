// SPDX-License-Identifier: Apache-2.0
// The delay queue against the kernel's own event queue, whose wakes it must
// reproduce exactly: the same wakes, at the same times, in the same delta
// cycles, whether its consumer is a method that re-arms it or a thread; and
// the flit pool behind `new Flit` and `delete`.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <systemc>

#include "zel2/zel2_flit.h"
#include "zel2/zel2_utils.h"

namespace zel = Sornak::Internal::ZEL2;
using sc_core::sc_time;
using sc_core::SC_PS;

namespace {

// One wake: the time in ps and the kernel's delta count.
using Wake = std::pair<uint64_t, uint64_t>;

Wake Now() { return {sc_core::sc_time_stamp().value(), sc_core::sc_delta_count()}; }

// The same notifications go to a kernel event queue and to two delay queues,
// one with a method consumer and one with a thread consumer; each consumer
// logs its wakes. The notifications come from a driver thread, and also
// from the method consumer itself while it runs (as the model's consumers
// do), in bursts at one time, out of order and with zero delays.
struct Side : sc_core::sc_module {
  sc_core::sc_event_queue kernelQueue;
  zel::DelayQueue methodQueue;
  zel::DelayQueue threadQueue;
  std::vector<Wake> kernelWakes, methodWakes, threadWakes;
  std::vector<std::pair<unsigned, std::vector<uint64_t>>> plan;  // (time step in ps, delays in ps)
  std::vector<uint64_t> reactions;  // delays the consumers add on some of their wakes
  std::size_t kernelReacted = 0, methodReacted = 0;

  SC_HAS_PROCESS(Side);
  explicit Side(sc_core::sc_module_name name)
      : sc_module(name),
        kernelQueue("kernelQueue"),
        methodQueue("methodQueue", zel::DelayQueue::kMethodConsumer),
        threadQueue("threadQueue") {
    SC_THREAD(Drive);
    SC_METHOD(KernelConsumer);
    sensitive << kernelQueue;
    dont_initialize();
    SC_METHOD(MethodConsumer);
    sensitive << methodQueue;
    dont_initialize();
    SC_THREAD(ThreadConsumer);
    sensitive << threadQueue;
  }

  void Drive() {
    for (const auto& step : plan) {
      wait(sc_time(step.first, SC_PS));
      for (uint64_t delay : step.second) {
        kernelQueue.notify(sc_time(static_cast<double>(delay), SC_PS));
        methodQueue.notify(sc_time(static_cast<double>(delay), SC_PS));
        threadQueue.notify(sc_time(static_cast<double>(delay), SC_PS));
      }
    }
  }
  void KernelConsumer() {
    kernelWakes.push_back(Now());
    if (kernelReacted < reactions.size() && kernelWakes.size() % 3 == 0)
      kernelQueue.notify(sc_time(static_cast<double>(reactions[kernelReacted++]), SC_PS));
  }
  void MethodConsumer() {
    zel::FiringScope firing(methodQueue);
    methodWakes.push_back(Now());
    if (methodReacted < reactions.size() && methodWakes.size() % 3 == 0)
      methodQueue.notify(sc_time(static_cast<double>(reactions[methodReacted++]), SC_PS));
  }
  void ThreadConsumer() {
    for (;;) {
      wait();
      threadWakes.push_back(Now());
    }
  }
};

// A pseudo-random plan: bursts of notifications with delays from 0 to 40 ps
// (many equal, some shorter than those already pending) every 0 to 30 ps.
void MakePlan(Side& side, unsigned seed) {
  std::mt19937 random(seed);
  for (int step = 0; step < 400; ++step) {
    std::vector<uint64_t> delays(random() % 4);
    for (uint64_t& delay : delays) delay = random() % 5 == 0 ? 0 : (random() % 9) * 5;
    side.plan.push_back({static_cast<unsigned>(random() % 7) * 5, delays});
  }
  for (int i = 0; i < 100; ++i) side.reactions.push_back(random() % 4 == 0 ? 0 : (random() % 5) * 5);
}

TEST(DelayQueue, WakesAsTheKernelQueueForMethodAndThreadConsumers) {
  Side side("side");
  MakePlan(side, 20240611);
  sc_core::sc_start(sc_time(20000, SC_PS));

  // Every notification woke the kernel queue's consumer once, several of
  // them in one time step (successive delta cycles) ...
  std::size_t notified = 0;
  for (const auto& step : side.plan) notified += step.second.size();
  ASSERT_EQ(side.kernelWakes.size(), notified + side.kernelReacted);
  std::set<uint64_t> times;
  for (const Wake& w : side.kernelWakes) times.insert(w.first);
  ASSERT_LT(times.size(), side.kernelWakes.size());
  // ... and the delay queues woke theirs at the very same times and deltas.
  EXPECT_EQ(side.methodReacted, side.kernelReacted);
  EXPECT_EQ(side.methodWakes, side.kernelWakes);
  EXPECT_EQ(side.methodQueue.pending(), 0u);
}

TEST(DelayQueue, ThreadConsumerSeesTheKernelQueuesWakes) {
  // Without the consumers' own notifications, all three see one plan.
  Side side("side");
  MakePlan(side, 7);
  side.reactions.clear();
  sc_core::sc_start(sc_time(20000, SC_PS));
  ASSERT_FALSE(side.kernelWakes.empty());
  EXPECT_EQ(side.threadWakes, side.kernelWakes);
  EXPECT_EQ(side.methodWakes, side.kernelWakes);
  EXPECT_EQ(side.threadQueue.pending(), 0u);
}

TEST(FlitPool, RecordsComeBackIntactAndDistinct) {
  const int64_t liveBefore = zel::Flit::liveRequestsAndResponses;
  std::vector<zel::Flit*> flits;
  for (unsigned i = 0; i < 600; ++i) flits.push_back(new zel::Flit(i, i * 64, zel::RD, 64, true, true, 1));
  // Free every other one, then make as many again: they reuse freed records.
  for (unsigned i = 0; i < flits.size(); i += 2) {
    delete flits[i];
    flits[i] = nullptr;
  }
  for (unsigned i = 0; i < flits.size(); i += 2) flits[i] = new zel::Flit(1000 + i, 0, zel::WR, 32, true, false, 1);
  std::set<zel::Flit*> distinct(flits.begin(), flits.end());
  EXPECT_EQ(distinct.size(), flits.size());
  for (unsigned i = 0; i < flits.size(); ++i) {
    const zel::Flit& f = *flits[i];
    ASSERT_EQ(f.tag, i % 2 == 0 ? 1000 + i : i);
    ASSERT_EQ(f.command, i % 2 == 0 ? zel::WR : zel::RD);
    ASSERT_EQ(f.validMark, zel::FLIT_VALID_MARK);
  }
  EXPECT_EQ(zel::Flit::liveRequestsAndResponses, liveBefore + 600);
  for (zel::Flit* f : flits) delete f;
  EXPECT_EQ(zel::Flit::liveRequestsAndResponses, liveBefore);
}

}  // namespace
