// SPDX-License-Identifier: Apache-2.0
// A checker of the TLM-2.0 base protocol, written for this library. Put
// between an initiator and a target, it passes every call through
// unchanged and checks, on the way in and on the way back:
// - the order of each transaction's phases (BEGIN_REQ, then END_REQ or
//   BEGIN_RESP, then END_RESP or an early TLM_COMPLETED), and that each
//   phase travels in its own direction;
// - the request and response exclusion rules: one request in its request
//   phase and one response in its response phase on the hop at a time;
// - the meaning of each return value (TLM_ACCEPTED keeps the phase,
//   TLM_UPDATED moves it on, TLM_COMPLETED ends the transaction where that
//   is allowed);
// - timing annotations: a transaction's phases never go back in time
//   (current time plus delay), nor does b_transport's return;
// - response statuses: TLM_INCOMPLETE_RESPONSE going in, anything else by
//   the response; and that the target changes none of the request's
//   attributes (command, address, data pointer, lengths, enables).
// b_transport on a transaction still under way through nb_transport is a
// violation too. Each violation is kept as a line of text and, unless
// turned off, reported as an SC_ERROR of type "zelsim/checker".
#ifndef ZELSIM_HOST_PROTOCOL_CHECKER_H
#define ZELSIM_HOST_PROTOCOL_CHECKER_H

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include <systemc>
#include <tlm>

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Host {

// The rules, fed with every call and return of one hop.
class ProtocolRules {
 public:
  explicit ProtocolRules(std::string hop) : hop_(std::move(hop)) {}

  // nb_transport_fw: the initiator's call and the target's return; the
  // return gets the phase the call was made with.
  void ForwardCall(const tlm::tlm_generic_payload& payload, const tlm::tlm_phase& phase, const sc_core::sc_time& delay);
  void ForwardReturn(const tlm::tlm_generic_payload& payload, const tlm::tlm_phase& called, tlm::tlm_sync_enum reply,
                     const tlm::tlm_phase& phase, const sc_core::sc_time& delay);
  // nb_transport_bw: the target's call and the initiator's return.
  void BackwardCall(const tlm::tlm_generic_payload& payload, const tlm::tlm_phase& phase, const sc_core::sc_time& delay);
  void BackwardReturn(const tlm::tlm_generic_payload& payload, const tlm::tlm_phase& called, tlm::tlm_sync_enum reply,
                      const tlm::tlm_phase& phase, const sc_core::sc_time& delay);
  // b_transport: the call's effective time, to be compared with the return.
  sc_core::sc_time BlockingCall(const tlm::tlm_generic_payload& payload, const sc_core::sc_time& delay);
  void BlockingReturn(const tlm::tlm_generic_payload& payload, const sc_core::sc_time& calledAt,
                      const sc_core::sc_time& delay);

  // Violations found, the first kMaxMessages of them word for word.
  static constexpr std::size_t kMaxMessages = 100;
  uint64_t Violations() const { return violations_; }
  const std::vector<std::string>& Messages() const { return messages_; }
  // Phase transitions and blocking calls checked.
  uint64_t Checked() const { return checked_; }
  // Transactions under way through nb_transport.
  std::size_t InFlight() const { return transactions_.size(); }
  // Report each violation as an SC_ERROR (default), or only keep it.
  bool reportErrors = true;

 private:
  // A TLM_ACCEPTED return must leave the phase as it was called.
  void AcceptedLeavesThePhase(const tlm::tlm_generic_payload& payload, const tlm::tlm_phase& called,
                              const tlm::tlm_phase& phase);
  enum class Phase { Request, RequestEnded, Response };
  struct State {
    Phase phase = Phase::Request;
    sc_core::sc_time at;  // effective time of the last transition
    // The request's attributes, which the target must leave alone.
    tlm::tlm_command command = tlm::TLM_IGNORE_COMMAND;
    sc_dt::uint64 address = 0;
    unsigned char* data = nullptr;
    unsigned length = 0;
    unsigned char* enables = nullptr;
    unsigned enableLength = 0;
    unsigned streamingWidth = 0;
  };

  void Violation(const tlm::tlm_generic_payload& payload, const std::string& what);
  // A transition of `payload` to `phase` at `delay` from now, by the
  // initiator (`forward`) or the target.
  void Transition(const tlm::tlm_generic_payload& payload, const tlm::tlm_phase& phase, const sc_core::sc_time& delay,
                  bool forward);
  void Complete(const tlm::tlm_generic_payload& payload, const sc_core::sc_time& delay, const char* how);
  void CheckAttributes(const tlm::tlm_generic_payload& payload, const State& state);
  void CheckTime(const tlm::tlm_generic_payload& payload, State& state, const sc_core::sc_time& delay,
                 const char* what);

  std::string hop_;
  std::unordered_map<const tlm::tlm_generic_payload*, State> transactions_;
  const tlm::tlm_generic_payload* inRequest_ = nullptr;   // in its request phase on the hop
  const tlm::tlm_generic_payload* inResponse_ = nullptr;  // in its response phase on the hop
  uint64_t violations_ = 0;
  uint64_t checked_ = 0;
  std::vector<std::string> messages_;
};

// The checker as a module: bind the initiator to `in` and `out` to the
// target. Debug transport and DMI pass through unchecked.
template <unsigned BUSWIDTH = 32>
class BaseProtocolChecker : public sc_core::sc_module,
                            public tlm::tlm_fw_transport_if<>,
                            public tlm::tlm_bw_transport_if<> {
 public:
  tlm::tlm_target_socket<BUSWIDTH> in;
  tlm::tlm_initiator_socket<BUSWIDTH> out;
  ProtocolRules rules;

  explicit BaseProtocolChecker(sc_core::sc_module_name name)
      : sc_module(name), in("in"), out("out"), rules(this->name()) {
    in.bind(*this);
    out.bind(*this);
  }

  void b_transport(tlm::tlm_generic_payload& payload, sc_core::sc_time& delay) override {
    const sc_core::sc_time calledAt = rules.BlockingCall(payload, delay);
    out->b_transport(payload, delay);
    rules.BlockingReturn(payload, calledAt, delay);
  }
  tlm::tlm_sync_enum nb_transport_fw(tlm::tlm_generic_payload& payload, tlm::tlm_phase& phase,
                                     sc_core::sc_time& delay) override {
    const tlm::tlm_phase called = phase;
    rules.ForwardCall(payload, phase, delay);
    const tlm::tlm_sync_enum reply = out->nb_transport_fw(payload, phase, delay);
    rules.ForwardReturn(payload, called, reply, phase, delay);
    return reply;
  }
  tlm::tlm_sync_enum nb_transport_bw(tlm::tlm_generic_payload& payload, tlm::tlm_phase& phase,
                                     sc_core::sc_time& delay) override {
    const tlm::tlm_phase called = phase;
    rules.BackwardCall(payload, phase, delay);
    const tlm::tlm_sync_enum reply = in->nb_transport_bw(payload, phase, delay);
    rules.BackwardReturn(payload, called, reply, phase, delay);
    return reply;
  }
  unsigned transport_dbg(tlm::tlm_generic_payload& payload) override { return out->transport_dbg(payload); }
  bool get_direct_mem_ptr(tlm::tlm_generic_payload& payload, tlm::tlm_dmi& dmi) override {
    return out->get_direct_mem_ptr(payload, dmi);
  }
  void invalidate_direct_mem_ptr(sc_dt::uint64 start, sc_dt::uint64 end) override {
    in->invalidate_direct_mem_ptr(start, end);
  }
};

}  // namespace Host
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak

#endif  // ZELSIM_HOST_PROTOCOL_CHECKER_H
