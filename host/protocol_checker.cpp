// SPDX-License-Identifier: Apache-2.0
#include "host/protocol_checker.h"

#include <sstream>

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Host {

using sc_core::sc_time;
using tlm::tlm_generic_payload;
using tlm::tlm_phase;

namespace {

std::string Name(const tlm_phase& phase) { return phase.get_name(); }

}  // namespace

void ProtocolRules::Violation(const tlm_generic_payload& payload, const std::string& what) {
  ++violations_;
  std::ostringstream text;
  text << hop_ << " at " << sc_core::sc_time_stamp() << ": "
       << (payload.is_read() ? "read" : payload.is_write() ? "write" : "ignore") << " of " << payload.get_data_length()
       << " bytes at 0x" << std::hex << payload.get_address() << std::dec << ": " << what;
  if (messages_.size() < kMaxMessages) messages_.push_back(text.str());
  if (reportErrors) SC_REPORT_ERROR("zelsim/checker", text.str().c_str());
}

void ProtocolRules::CheckAttributes(const tlm_generic_payload& payload, const State& state) {
  if (payload.get_command() != state.command || payload.get_address() != state.address ||
      payload.get_data_ptr() != state.data || payload.get_data_length() != state.length ||
      payload.get_byte_enable_ptr() != state.enables || payload.get_byte_enable_length() != state.enableLength ||
      payload.get_streaming_width() != state.streamingWidth) {
    Violation(payload, "a request attribute changed while the transaction was under way");
  }
}

void ProtocolRules::CheckTime(const tlm_generic_payload& payload, State& state, const sc_time& delay,
                              const char* what) {
  const sc_time at = sc_core::sc_time_stamp() + delay;
  if (at < state.at) {
    std::ostringstream text;
    text << what << " at " << at << ", before the transaction's previous phase at " << state.at;
    Violation(payload, text.str());
  }
  state.at = at;
}

void ProtocolRules::ForwardCall(const tlm_generic_payload& payload, const tlm_phase& phase, const sc_time& delay) {
  ++checked_;
  if (phase == tlm::BEGIN_REQ) {
    if (transactions_.count(&payload) != 0) Violation(payload, "BEGIN_REQ for a transaction already under way");
    if (inRequest_ != nullptr) Violation(payload, "BEGIN_REQ while another request is in its request phase");
    if (payload.get_response_status() != tlm::TLM_INCOMPLETE_RESPONSE)
      Violation(payload, "BEGIN_REQ with a response status other than TLM_INCOMPLETE_RESPONSE");
    State& state = transactions_[&payload];
    state = State();
    state.at = sc_core::sc_time_stamp() + delay;
    state.command = payload.get_command();
    state.address = payload.get_address();
    state.data = payload.get_data_ptr();
    state.length = payload.get_data_length();
    state.enables = payload.get_byte_enable_ptr();
    state.enableLength = payload.get_byte_enable_length();
    state.streamingWidth = payload.get_streaming_width();
    inRequest_ = &payload;
    return;
  }
  if (phase == tlm::END_RESP) {
    Transition(payload, phase, delay, true);
    return;
  }
  Violation(payload, Name(phase) + " sent forward; an initiator sends only BEGIN_REQ and END_RESP");
}

void ProtocolRules::BackwardCall(const tlm_generic_payload& payload, const tlm_phase& phase, const sc_time& delay) {
  ++checked_;
  if (phase == tlm::END_REQ || phase == tlm::BEGIN_RESP) {
    Transition(payload, phase, delay, false);
    return;
  }
  Violation(payload, Name(phase) + " sent backward; a target sends only END_REQ and BEGIN_RESP");
}

void ProtocolRules::Transition(const tlm_generic_payload& payload, const tlm_phase& phase, const sc_time& delay,
                               bool byInitiator) {
  const auto found = transactions_.find(&payload);
  if (found == transactions_.end()) {
    Violation(payload, Name(phase) + " for a transaction not under way");
    return;
  }
  State& state = found->second;
  CheckAttributes(payload, state);
  const bool initiatorsPhase = phase == tlm::END_RESP;
  if (initiatorsPhase != byInitiator || phase == tlm::BEGIN_REQ) {
    Violation(payload, Name(phase) + (byInitiator ? " from the initiator" : " from the target"));
    return;
  }
  if (phase == tlm::END_REQ) {
    if (state.phase != Phase::Request)
      Violation(payload, state.phase == Phase::Response ? "END_REQ after BEGIN_RESP" : "a second END_REQ");
    state.phase = Phase::RequestEnded;
    if (inRequest_ == &payload) inRequest_ = nullptr;
    CheckTime(payload, state, delay, "END_REQ");
    return;
  }
  if (phase == tlm::BEGIN_RESP) {
    if (state.phase == Phase::Response) Violation(payload, "a second BEGIN_RESP");
    if (inResponse_ != nullptr && inResponse_ != &payload)
      Violation(payload, "BEGIN_RESP while another response is in its response phase");
    if (payload.get_response_status() == tlm::TLM_INCOMPLETE_RESPONSE)
      Violation(payload, "BEGIN_RESP with TLM_INCOMPLETE_RESPONSE");
    state.phase = Phase::Response;
    if (inRequest_ == &payload) inRequest_ = nullptr;
    inResponse_ = &payload;
    CheckTime(payload, state, delay, "BEGIN_RESP");
    return;
  }
  // END_RESP ends the transaction.
  if (state.phase != Phase::Response) Violation(payload, "END_RESP before BEGIN_RESP");
  CheckTime(payload, state, delay, "END_RESP");
  if (inRequest_ == &payload) inRequest_ = nullptr;
  if (inResponse_ == &payload) inResponse_ = nullptr;
  transactions_.erase(found);
}

void ProtocolRules::Complete(const tlm_generic_payload& payload, const sc_time& delay, const char* how) {
  const auto found = transactions_.find(&payload);
  if (found == transactions_.end()) return;  // reported when it went wrong
  CheckAttributes(payload, found->second);
  if (payload.get_response_status() == tlm::TLM_INCOMPLETE_RESPONSE)
    Violation(payload, std::string(how) + " with TLM_INCOMPLETE_RESPONSE");
  CheckTime(payload, found->second, delay, how);
  if (inRequest_ == &payload) inRequest_ = nullptr;
  if (inResponse_ == &payload) inResponse_ = nullptr;
  transactions_.erase(found);
}

void ProtocolRules::AcceptedLeavesThePhase(const tlm_generic_payload& payload, const tlm_phase& called,
                                           const tlm_phase& phase) {
  if (phase != called)
    Violation(payload, "TLM_ACCEPTED with the phase changed from " + Name(called) + " to " + Name(phase));
}

void ProtocolRules::ForwardReturn(const tlm_generic_payload& payload, const tlm_phase& called, tlm::tlm_sync_enum reply,
                                  const tlm_phase& phase, const sc_time& delay) {
  if (called != tlm::BEGIN_REQ && called != tlm::END_RESP) return;  // reported at the call
  switch (reply) {
    case tlm::TLM_ACCEPTED:
      AcceptedLeavesThePhase(payload, called, phase);
      return;
    case tlm::TLM_UPDATED:
      if (phase == called) {
        Violation(payload, "TLM_UPDATED that leaves the phase at " + Name(phase));
        return;
      }
      if (called == tlm::END_RESP) {
        Violation(payload, "TLM_UPDATED on END_RESP, after which no phase follows");
        return;
      }
      ++checked_;
      Transition(payload, phase, delay, false);
      return;
    case tlm::TLM_COMPLETED:
      if (called == tlm::BEGIN_REQ) {
        ++checked_;
        Complete(payload, delay, "TLM_COMPLETED on BEGIN_REQ");
      }
      return;
  }
}

void ProtocolRules::BackwardReturn(const tlm_generic_payload& payload, const tlm_phase& called,
                                   tlm::tlm_sync_enum reply, const tlm_phase& phase, const sc_time& delay) {
  if (called != tlm::END_REQ && called != tlm::BEGIN_RESP) return;  // reported at the call
  switch (reply) {
    case tlm::TLM_ACCEPTED:
      AcceptedLeavesThePhase(payload, called, phase);
      return;
    case tlm::TLM_UPDATED:
      if (called == tlm::END_REQ || phase != tlm::END_RESP) {
        Violation(payload, "TLM_UPDATED on " + Name(called) + " to " + Name(phase));
        return;
      }
      ++checked_;
      Transition(payload, phase, delay, true);
      return;
    case tlm::TLM_COMPLETED:
      if (called == tlm::END_REQ) {
        Violation(payload, "TLM_COMPLETED on END_REQ, before any response");
        return;
      }
      ++checked_;
      Complete(payload, delay, "TLM_COMPLETED on BEGIN_RESP");
      return;
  }
}

sc_time ProtocolRules::BlockingCall(const tlm_generic_payload& payload, const sc_time& delay) {
  ++checked_;
  if (transactions_.count(&payload) != 0)
    Violation(payload, "b_transport on a transaction under way through nb_transport");
  if (payload.get_response_status() != tlm::TLM_INCOMPLETE_RESPONSE)
    Violation(payload, "b_transport with a response status other than TLM_INCOMPLETE_RESPONSE");
  return sc_core::sc_time_stamp() + delay;
}

void ProtocolRules::BlockingReturn(const tlm_generic_payload& payload, const sc_time& calledAt, const sc_time& delay) {
  const sc_time at = sc_core::sc_time_stamp() + delay;
  if (at < calledAt) {
    std::ostringstream text;
    text << "b_transport returns at " << at << ", before the time it was called for, " << calledAt;
    Violation(payload, text.str());
  }
  if (payload.get_response_status() == tlm::TLM_INCOMPLETE_RESPONSE)
    Violation(payload, "b_transport returns with TLM_INCOMPLETE_RESPONSE");
}

}  // namespace Host
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak
