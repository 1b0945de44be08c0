// SPDX-License-Identifier: Apache-2.0
// A small TLM platform for the target's tests: a cube, its target, and
// initiators that each reach the target through a protocol checker. An
// initiator plays a list of jobs, in either coding style, and notes when
// each phase of each job happened; the engine's log notes the flits.
#ifndef ZELSIM_TEST_TLM_SUPPORT_H
#define ZELSIM_TEST_TLM_SUPPORT_H

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <systemc>
#include <tlm>

#include "apps/zelsim/bench.h"
#include "host/generator.h"
#include "host/protocol_checker.h"
#include "host/tlm_target.h"
#include "test_support.h"
#include "zel2/zel2_atomics_extension.h"

namespace zelsim_test {

using namespace Sornak::Internal::ZEL2;
using Host::BaseProtocolChecker;
using Host::CubeTarget;
using Host::LinkMapping;
using Host::PartialAccess;
using Host::PostedWriteExtension;
using Host::TargetOptions;
using sc_core::sc_time;

// One transaction of a test and what became of it, in absolute times.
struct Job {
  tlm::tlm_generic_payload payload;
  std::vector<unsigned char> data, enables;
  sc_time issueAt, delay;  // not sent before; annotated on the call
  sc_time sentAt, endRequestAt, doneAt, returnedDelay;  // doneAt: b_transport's return or BEGIN_RESP
  int responses = 0;
  tlm::tlm_response_status status = tlm::TLM_INCOMPLETE_RESPONSE;

  // Byte enables, repeated over the payload.
  void Enable(const std::vector<unsigned char>& bytes) {
    enables = bytes;
    payload.set_byte_enable_ptr(enables.data());
    payload.set_byte_enable_length(static_cast<unsigned>(enables.size()));
  }
  void Set(const std::vector<unsigned char>& bytes) { std::copy(bytes.begin(), bytes.end(), data.begin()); }
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
  job->Set(operand);
  job->payload.set_extension(new zel2_atomics_extension(command));
  return job;
}

// 16 bytes: two little-endian words.
inline std::vector<unsigned char> Words(uint64_t low, uint64_t high) {
  std::vector<unsigned char> bytes(16);
  for (int i = 0; i < 8; ++i) {
    bytes[i] = static_cast<unsigned char>(low >> (8 * i));
    bytes[8 + i] = static_cast<unsigned char>(high >> (8 * i));
  }
  return bytes;
}

// The engine's view, by packet address: when each packet was issued, when
// its last flit went out, when its response came in.
struct EngineLog : Bench::HostObserver {
  std::multiset<std::pair<uint64_t, unsigned>> packets;  // address, length
  std::map<uint64_t, sc_time> issuedAt, lastFlitAt, answeredAt;

  void RequestIssued(unsigned, const Bench::Request& request) override {
    packets.insert({request.address, request.length});
    issuedAt[request.address] = sc_core::sc_time_stamp();
  }
  void FlitSent(unsigned, const Flit& flit) override {
    if (flit.command != TOKEN_RETURN && flit.tail) lastFlitAt[flit.address] = sc_core::sc_time_stamp();
  }
  void RequestAnswered(unsigned, const Bench::Request& request, bool, const sc_time&) override {
    answeredAt[request.address] = sc_core::sc_time_stamp();
  }
  // The latest time in `times` of the 128-byte packets of `job`.
  static sc_time Last(const std::map<uint64_t, sc_time>& times, const Job& job) {
    sc_time last;
    const uint64_t a = job.payload.get_address();
    for (uint64_t p = a; p < a + job.payload.get_data_length(); p += 128) last = std::max(last, times.at(p));
    return last;
  }
};

enum class Style { Blocking, NonBlocking };

// Plays its jobs in order, issuing on the cube's clock edges so that it adds
// no timed event of its own to the kernel. Blocking: each job's b_transport
// runs in a thread of its own, a delta after the previous one. Non-blocking:
// BEGIN_REQ at the issue time or after the previous END_REQ, whichever is
// later; BEGIN_RESP is ended as `endResponse` says.
class JobInitiator : public sc_core::sc_module, public tlm::tlm_bw_transport_if<> {
 public:
  // Later: END_RESP takes effect `hold` after BEGIN_RESP, called at half
  // that time with the other half annotated.
  enum class EndResponse { Completed, Updated, Later };

  tlm::tlm_initiator_socket<32> socket;
  Style style;
  std::vector<JobPtr> jobs;
  EndResponse endResponse = EndResponse::Completed;
  sc_time hold;
  unsigned inFlight = 0, mostInFlight = 0;
  bool done = false;

  SC_HAS_PROCESS(JobInitiator);
  // `playing` counts the initiators still playing; the last to finish stops the kernel.
  JobInitiator(sc_core::sc_module_name name, Style style, const sc_core::sc_signal<bool>& clock, unsigned& playing)
      : sc_module(name), socket("socket"), style(style), clock_(clock), playing_(playing) {
    socket.bind(*this);
    SC_THREAD(Run);
    SC_THREAD(EndResponses);
  }

  Job& Add(JobPtr job, sc_time issueAt = sc_core::SC_ZERO_TIME) {
    job->issueAt = issueAt;
    jobs.push_back(std::move(job));
    return *jobs.back();
  }

  tlm::tlm_sync_enum nb_transport_bw(tlm::tlm_generic_payload& payload, tlm::tlm_phase& phase,
                                     sc_time& delay) override {
    Job& job = Find(payload);
    const sc_time now = sc_core::sc_time_stamp() + delay;
    if (phase == tlm::END_REQ) {
      job.endRequestAt = now;
      requestEnded_.notify(delay);
      return tlm::TLM_ACCEPTED;
    }
    EXPECT_EQ(phase, tlm::BEGIN_RESP);
    Answer(job, now);
    if (endResponse == EndResponse::Completed) return tlm::TLM_COMPLETED;
    if (endResponse == EndResponse::Updated) {
      phase = tlm::END_RESP;
      return tlm::TLM_UPDATED;
    }
    pendingEnd_ = &payload;  // the target has one response under way per initiator
    endNow_.notify(hold / 2);
    return tlm::TLM_ACCEPTED;
  }
  void invalidate_direct_mem_ptr(sc_dt::uint64, sc_dt::uint64) override {}

  // Jobs not answered exactly once with `expected`.
  unsigned Unexpected(tlm::tlm_response_status expected = tlm::TLM_OK_RESPONSE) const {
    unsigned count = 0;
    for (const JobPtr& job : jobs) count += job->status != expected || job->responses != 1;
    return count;
  }
  // Debug transport of `bytes` at `address`; returns the bytes moved.
  unsigned Debug(tlm::tlm_command command, uint64_t address, std::vector<unsigned char>& bytes) {
    tlm::tlm_generic_payload p;
    p.set_command(command);
    p.set_address(address);
    p.set_data_ptr(bytes.data());
    p.set_data_length(static_cast<unsigned>(bytes.size()));
    return socket->transport_dbg(p);
  }

 private:
  Job& Find(const tlm::tlm_generic_payload& payload) {
    for (JobPtr& job : jobs)
      if (&job->payload == &payload) return *job;
    throw std::logic_error("a response for a payload nobody sent");
  }
  void Answer(Job& job, const sc_time& at) {
    job.doneAt = at;
    job.status = job.payload.get_response_status();
    ++job.responses;
    --inFlight;
    if (++answered_ == jobs.size()) {
      done = true;
      if (--playing_ == 0) sc_core::sc_stop();
    }
  }
  void Run() {
    for (JobPtr& job : jobs) {
      while (sc_core::sc_time_stamp() < job->issueAt) wait(clock_.posedge_event());
      mostInFlight = std::max(mostInFlight, ++inFlight);
      if (style == Style::Blocking) {
        Job* j = job.get();
        sc_core::sc_spawn([this, j] {
          j->sentAt = sc_core::sc_time_stamp();
          j->returnedDelay = j->delay;
          socket->b_transport(j->payload, j->returnedDelay);
          Answer(*j, sc_core::sc_time_stamp() + j->returnedDelay);
        });
        wait(sc_core::SC_ZERO_TIME);  // so that they reach the target in order
        continue;
      }
      job->sentAt = sc_core::sc_time_stamp();
      tlm::tlm_phase phase = tlm::BEGIN_REQ;
      sc_time delay = job->delay;
      if (socket->nb_transport_fw(job->payload, phase, delay) == tlm::TLM_COMPLETED) {
        Answer(*job, sc_core::sc_time_stamp() + delay);
      } else {
        wait(requestEnded_);
      }
    }
  }
  void EndResponses() {
    for (;;) {
      wait(endNow_);
      tlm::tlm_phase phase = tlm::END_RESP;
      sc_time delay = hold / 2;
      socket->nb_transport_fw(*pendingEnd_, phase, delay);
    }
  }

  const sc_core::sc_signal<bool>& clock_;
  unsigned& playing_;
  sc_core::sc_event requestEnded_, endNow_;
  tlm::tlm_generic_payload* pendingEnd_ = nullptr;
  std::size_t answered_ = 0;
};

// A cube, its target with an engine log, and an initiator of each given
// style, each through a checker.
struct Platform {
  Cube2in1Wrapper* cube;
  CubeTarget* target;
  EngineLog log;
  std::vector<BaseProtocolChecker<32>*> checkers;
  std::vector<JobInitiator*> initiators;

  explicit Platform(const std::vector<Style>& styles, const TargetOptions& options = TargetOptions()) {
    ClearModelEnvironment();
    cube = new Cube2in1Wrapper("cube");
    target = new CubeTarget("target", *cube, options);
    target->Engine().observers.push_back(&log);
    for (std::size_t i = 0; i < styles.size(); ++i) {
      const std::string n = std::to_string(i);
      initiators.push_back(new JobInitiator(("initiator" + n).c_str(), styles[i], cube->clkSignal, playing_));
      checkers.push_back(new BaseProtocolChecker<32>(("checker" + n).c_str()));
      initiators.back()->socket.bind(checkers.back()->in);
      checkers.back()->out.bind(target->socket);
    }
  }
  JobInitiator& operator[](std::size_t i) { return *initiators[i]; }
  // Runs until every initiator is done, or `limit` passes; then expects all
  // done and the checkers silent.
  void Run(const sc_time& limit = sc_time(1, sc_core::SC_MS)) {
    for (const JobInitiator* in : initiators) playing_ += !in->jobs.empty();
    sc_core::sc_start(limit);
    for (const JobInitiator* in : initiators) EXPECT_TRUE(in->done || in->jobs.empty()) << in->name();
    for (const auto* checker : checkers) EXPECT_EQ(checker->rules.Violations(), 0u) << checker->name();
  }

 private:
  unsigned playing_ = 0;
};

}  // namespace zelsim_test

#endif  // ZELSIM_TEST_TLM_SUPPORT_H
