// SPDX-License-Identifier: Apache-2.0
// A small TLM platform for the target's tests: a cube, its target, and
// initiators that each reach the target through a protocol checker. An
// initiator plays a list of jobs, in either coding style, and notes when
// each phase of each job happened.
#ifndef ZELSIM_TEST_TLM_SUPPORT_H
#define ZELSIM_TEST_TLM_SUPPORT_H

#include <gtest/gtest.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include <systemc>
#include <tlm>

#include "host/protocol_checker.h"
#include "host/tlm_target.h"
#include "test_support.h"
#include "zel2/zel2_atomics_extension.h"

namespace zelsim_test {

using ::Cube2in1Wrapper;
using Sornak::Internal::ZEL2::ZELCommand;
using Sornak::Internal::ZEL2::zel2_atomics_extension;
using Sornak::Internal::ZEL2::Host::BaseProtocolChecker;
using Sornak::Internal::ZEL2::Host::CubeTarget;
using Sornak::Internal::ZEL2::Host::PostedWriteExtension;
using Sornak::Internal::ZEL2::Host::TargetOptions;

// One transaction of a test and what became of it.
struct Job {
  tlm::tlm_generic_payload payload;
  std::vector<unsigned char> data;
  std::vector<unsigned char> enables;
  sc_core::sc_time issueAt;  // absolute: not sent before
  sc_core::sc_time delay;    // annotated on the call
  // What happened, in absolute times.
  sc_core::sc_time sentAt;         // the call (b_transport or BEGIN_REQ)
  sc_core::sc_time endRequestAt;   // END_REQ (nb)
  sc_core::sc_time doneAt;         // b_transport's return, or BEGIN_RESP
  sc_core::sc_time returnedDelay;  // b_transport's delay on return
  int responses = 0;               // times it was answered
  tlm::tlm_response_status status = tlm::TLM_INCOMPLETE_RESPONSE;
};

using JobPtr = std::unique_ptr<Job>;

inline JobPtr MakeJob(tlm::tlm_command command, uint64_t address, unsigned length, unsigned char fill = 0) {
  JobPtr job(new Job);
  job->data.assign(length, fill);
  job->payload.set_command(command);
  job->payload.set_address(address);
  job->payload.set_data_ptr(job->data.data());
  job->payload.set_data_length(length);
  job->payload.set_streaming_width(length);
  job->payload.set_byte_enable_ptr(nullptr);
  job->payload.set_dmi_allowed(false);
  job->payload.set_response_status(tlm::TLM_INCOMPLETE_RESPONSE);
  return job;
}
inline JobPtr Read(uint64_t address, unsigned length) { return MakeJob(tlm::TLM_READ_COMMAND, address, length); }
inline JobPtr Write(uint64_t address, unsigned length, unsigned char fill) {
  return MakeJob(tlm::TLM_WRITE_COMMAND, address, length, fill);
}
inline JobPtr PostedWrite(uint64_t address, unsigned length, unsigned char fill) {
  JobPtr job = Write(address, length, fill);
  job->payload.set_extension(new PostedWriteExtension);
  return job;
}
inline JobPtr Atomic(ZELCommand command, uint64_t address, const std::vector<unsigned char>& operand) {
  JobPtr job = MakeJob(tlm::TLM_WRITE_COMMAND, address, static_cast<unsigned>(operand.size()));
  job->data = operand;
  job->payload.set_data_ptr(job->data.data());
  job->payload.set_extension(new zel2_atomics_extension(command));
  return job;
}

enum class Style { Blocking, NonBlocking };

// Plays its jobs in order. Blocking: each job's b_transport runs in a thread
// of its own, started at its issue time, so that many can be under way.
// Non-blocking: BEGIN_REQ at the issue time or after the previous END_REQ,
// whichever is later; BEGIN_RESP is answered by `endResponse`.
class JobInitiator : public sc_core::sc_module, public tlm::tlm_bw_transport_if<> {
 public:
  // How the initiator ends a response phase.
  enum class EndResponse { Completed, Updated, Later };

  tlm::tlm_initiator_socket<32> socket;
  Style style;
  std::vector<JobPtr> jobs;
  EndResponse endResponse = EndResponse::Completed;
  sc_core::sc_time endResponseDelay;  // with Later: END_RESP this long after BEGIN_RESP
  unsigned inFlight = 0;
  unsigned mostInFlight = 0;
  bool done = false;  // every job answered
  // When set, the initiator issues on this clock's rising edges instead of
  // waiting for times of its own, so that it adds no timed event to the
  // kernel; the cube's order of processes within a time step then stays as
  // it is without the initiator.
  const sc_core::sc_signal<bool>* clock = nullptr;
  // When set, counts the initiators still playing; the last to finish stops
  // the kernel.
  unsigned* playing = nullptr;

  SC_HAS_PROCESS(JobInitiator);
  JobInitiator(sc_core::sc_module_name name, Style style) : sc_module(name), socket("socket"), style(style) {
    socket.bind(*this);
    SC_THREAD(Run);
    SC_THREAD(EndResponses);
  }

  void Add(JobPtr job, sc_core::sc_time issueAt = sc_core::SC_ZERO_TIME) {
    job->issueAt = issueAt;
    jobs.push_back(std::move(job));
  }

  tlm::tlm_sync_enum nb_transport_bw(tlm::tlm_generic_payload& payload, tlm::tlm_phase& phase,
                                     sc_core::sc_time& delay) override {
    Job& job = Find(payload);
    const sc_core::sc_time now = sc_core::sc_time_stamp() + delay;
    if (phase == tlm::END_REQ) {
      job.endRequestAt = now;
      requestEnded_.notify(delay);
      return tlm::TLM_ACCEPTED;
    }
    EXPECT_EQ(phase, tlm::BEGIN_RESP);
    Answer(job, now);
    switch (endResponse) {
      case EndResponse::Completed:
        return tlm::TLM_COMPLETED;
      case EndResponse::Updated:
        phase = tlm::END_RESP;
        return tlm::TLM_UPDATED;
      case EndResponse::Later:
        pendingEnds_.push_back(&payload);
        endNow_.notify(endResponseDelay);
        return tlm::TLM_ACCEPTED;
    }
    return tlm::TLM_ACCEPTED;
  }
  void invalidate_direct_mem_ptr(sc_dt::uint64, sc_dt::uint64) override {}

  // Jobs whose response status is not `expected`.
  unsigned Unexpected(tlm::tlm_response_status expected = tlm::TLM_OK_RESPONSE) const {
    unsigned count = 0;
    for (const JobPtr& job : jobs) count += job->status != expected || job->responses != 1;
    return count;
  }

 private:
  Job& Find(const tlm::tlm_generic_payload& payload) {
    for (JobPtr& job : jobs) {
      if (&job->payload == &payload) return *job;
    }
    ADD_FAILURE() << "a response for a payload nobody sent";
    return *jobs.front();
  }
  void Answer(Job& job, const sc_core::sc_time& at) {
    job.doneAt = at;
    job.status = job.payload.get_response_status();
    ++job.responses;
    --inFlight;
    if (++answered_ == jobs.size()) {
      done = true;
      if (playing != nullptr && --*playing == 0) sc_core::sc_stop();
    }
  }
  void Blocking(Job* job) {
    job->sentAt = sc_core::sc_time_stamp();
    sc_core::sc_time delay = job->delay;
    socket->b_transport(job->payload, delay);
    job->returnedDelay = delay;
    Answer(*job, sc_core::sc_time_stamp() + delay);
  }
  void Run() {
    for (JobPtr& job : jobs) {
      while (clock != nullptr && sc_core::sc_time_stamp() < job->issueAt) wait(clock->posedge_event());
      if (sc_core::sc_time_stamp() < job->issueAt) wait(job->issueAt - sc_core::sc_time_stamp());
      mostInFlight = std::max(mostInFlight, ++inFlight);
      if (style == Style::Blocking) {
        Job* j = job.get();
        sc_core::sc_spawn([this, j] { Blocking(j); });
        // The next one starts a delta later, so that they reach the target in order.
        wait(sc_core::SC_ZERO_TIME);
        continue;
      }
      job->sentAt = sc_core::sc_time_stamp();
      tlm::tlm_phase phase = tlm::BEGIN_REQ;
      sc_core::sc_time delay = job->delay;
      const tlm::tlm_sync_enum reply = socket->nb_transport_fw(job->payload, phase, delay);
      if (reply == tlm::TLM_COMPLETED) {
        Answer(*job, sc_core::sc_time_stamp() + delay);
        continue;
      }
      wait(requestEnded_);
    }
  }
  // END_RESPs the initiator owes; the target has at most one response
  // under way per initiator.
  void EndResponses() {
    for (;;) {
      wait(endNow_);
      SendEnds();
    }
  }
  void SendEnds() {
    while (!pendingEnds_.empty()) {
      tlm::tlm_phase phase = tlm::END_RESP;
      sc_core::sc_time delay = sc_core::SC_ZERO_TIME;
      socket->nb_transport_fw(*pendingEnds_.front(), phase, delay);
      pendingEnds_.pop_front();
    }
  }

  sc_core::sc_event requestEnded_;
  sc_core::sc_event endNow_;
  std::deque<tlm::tlm_generic_payload*> pendingEnds_;
  std::size_t answered_ = 0;
};

// A cube, its target, and `styles.size()` initiators, each through a checker.
struct Platform {
  Cube2in1Wrapper* cube;
  CubeTarget* target;
  std::vector<BaseProtocolChecker<32>*> checkers;
  std::vector<JobInitiator*> initiators;

  explicit Platform(const std::vector<Style>& styles, const TargetOptions& options = TargetOptions()) {
    ClearModelEnvironment();
    cube = new Cube2in1Wrapper("cube");
    target = new CubeTarget("target", *cube, options);
    for (std::size_t i = 0; i < styles.size(); ++i) {
      const std::string n = std::to_string(i);
      initiators.push_back(new JobInitiator(("initiator" + n).c_str(), styles[i]));
      checkers.push_back(new BaseProtocolChecker<32>(("checker" + n).c_str()));
      initiators.back()->socket.bind(checkers.back()->in);
      checkers.back()->out.bind(target->socket);
    }
  }
  // Runs until every initiator is done, or `limit` passes.
  void Run(const sc_core::sc_time& limit = sc_core::sc_time(1, sc_core::SC_MS)) {
    const sc_core::sc_time step(1, sc_core::SC_US);
    while (sc_core::sc_time_stamp() < limit && !AllDone()) sc_core::sc_start(step);
  }
  // Issues on the cube's clock and runs until every initiator is done.
  void RunClocked() {
    playing_ = static_cast<unsigned>(initiators.size());
    for (JobInitiator* initiator : initiators) {
      initiator->clock = &cube->clkSignal;
      initiator->playing = &playing_;
    }
    sc_core::sc_start();
  }
  bool AllDone() const {
    for (const JobInitiator* initiator : initiators) {
      if (!initiator->done && !initiator->jobs.empty()) return false;
    }
    return true;
  }
  uint64_t Violations() const {
    uint64_t count = 0;
    for (const auto* checker : checkers) count += checker->rules.Violations();
    return count;
  }

 private:
  unsigned playing_ = 0;
};

}  // namespace zelsim_test

#endif  // ZELSIM_TEST_TLM_SUPPORT_H
