// SPDX-License-Identifier: Apache-2.0
// The base-protocol checker: silent on legal traffic that takes every path
// the protocol allows, and loud on initiators and targets broken on purpose
// (phases out of order, broken exclusion rules, wrong return values, time
// going backwards, statuses and attributes).
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <systemc>
#include <tlm>

#include "host/protocol_checker.h"
#include "test_support.h"

using Sornak::Internal::ZEL2::Host::BaseProtocolChecker;
using sc_core::sc_time;
using tlm::tlm_generic_payload;
using tlm::tlm_phase;
using tlm::tlm_sync_enum;

namespace {

const sc_time kNs(1, sc_core::SC_NS);

using Nb = std::function<tlm_sync_enum(tlm_generic_payload&, tlm_phase&, sc_time&)>;

// An initiator and a target whose answers a test writes, with a checker
// between them that keeps what it finds.
struct Hop {
  struct Initiator : sc_core::sc_module, tlm::tlm_bw_transport_if<> {
    tlm::tlm_initiator_socket<32> socket;
    Nb bw = [](tlm_generic_payload&, tlm_phase&, sc_time&) { return tlm::TLM_ACCEPTED; };
    explicit Initiator(sc_core::sc_module_name name) : sc_module(name), socket("socket") { socket.bind(*this); }
    tlm_sync_enum nb_transport_bw(tlm_generic_payload& p, tlm_phase& phase, sc_time& delay) override {
      return bw(p, phase, delay);
    }
    void invalidate_direct_mem_ptr(sc_dt::uint64, sc_dt::uint64) override {}
  };
  struct Target : sc_core::sc_module, tlm::tlm_fw_transport_if<> {
    tlm::tlm_target_socket<32> socket;
    Nb fw = [](tlm_generic_payload&, tlm_phase&, sc_time&) { return tlm::TLM_ACCEPTED; };
    std::function<void(tlm_generic_payload&, sc_time&)> blocking = [](tlm_generic_payload& p, sc_time&) {
      p.set_response_status(tlm::TLM_OK_RESPONSE);
    };
    explicit Target(sc_core::sc_module_name name) : sc_module(name), socket("socket") { socket.bind(*this); }
    tlm_sync_enum nb_transport_fw(tlm_generic_payload& p, tlm_phase& phase, sc_time& delay) override {
      return fw(p, phase, delay);
    }
    void b_transport(tlm_generic_payload& p, sc_time& delay) override { blocking(p, delay); }
    unsigned transport_dbg(tlm_generic_payload&) override { return 0; }
    bool get_direct_mem_ptr(tlm_generic_payload&, tlm::tlm_dmi&) override { return false; }
  };

  Initiator initiator;
  BaseProtocolChecker<32> checker;
  Target target;

  explicit Hop(const std::string& name)
      : initiator((name + "_initiator").c_str()), checker((name + "_checker").c_str()), target((name + "_target").c_str()) {
    initiator.socket.bind(checker.in);
    checker.out.bind(target.socket);
    checker.rules.reportErrors = false;
  }

  // Calls from the initiator and from the target, through the checker.
  tlm_sync_enum Forward(tlm_generic_payload& p, tlm_phase phase, sc_time delay = sc_core::SC_ZERO_TIME) {
    return initiator.socket->nb_transport_fw(p, phase, delay);
  }
  tlm_sync_enum Backward(tlm_generic_payload& p, tlm_phase phase, sc_time delay = sc_core::SC_ZERO_TIME) {
    return target.socket->nb_transport_bw(p, phase, delay);
  }
  void Blocking(tlm_generic_payload& p, sc_time delay = sc_core::SC_ZERO_TIME) { initiator.socket->b_transport(p, delay); }

  std::string Found() const {
    std::string all;
    for (const std::string& m : checker.rules.Messages()) all += m + "\n";
    return all;
  }
};

// A fresh read, as an initiator must send it.
std::unique_ptr<tlm_generic_payload> Payload(uint64_t address) {
  static unsigned char data[64];
  std::unique_ptr<tlm_generic_payload> p(new tlm_generic_payload);
  p->set_command(tlm::TLM_READ_COMMAND);
  p->set_address(address);
  p->set_data_ptr(data);
  p->set_data_length(64);
  p->set_streaming_width(64);
  p->set_response_status(tlm::TLM_INCOMPLETE_RESPONSE);
  return p;
}

// Runs `script` in a thread of its own.
struct Script : sc_core::sc_module {
  std::function<void()> body;
  SC_HAS_PROCESS(Script);
  Script(sc_core::sc_module_name name, std::function<void()> body) : sc_module(name), body(std::move(body)) {
    SC_THREAD(Run);
  }
  void Run() { body(); }
};

void Respond(tlm_generic_payload& p) { p.set_response_status(tlm::TLM_OK_RESPONSE); }

}  // namespace

// Every legal path: END_REQ by return and by call, BEGIN_RESP straight
// after BEGIN_REQ, early completion by target and by initiator, END_RESP by
// call and by return, and b_transport that waits.
TEST(TlmChecker, LegalTrafficOnEveryPathPassesSilently) {
  Hop hop("legal");
  auto a = Payload(0x0), b = Payload(0x40), c = Payload(0x80), d = Payload(0xc0), e = Payload(0x100);
  Script script("script", [&] {
    hop.target.fw = [](tlm_generic_payload& p, tlm_phase& phase, sc_time& delay) {
      if (phase == tlm::END_RESP) return tlm::TLM_COMPLETED;
      if (p.get_address() == 0x40) {  // done at once
        Respond(p);
        delay += 5 * kNs;
        return tlm::TLM_COMPLETED;
      }
      if (p.get_address() == 0x80) {  // the response straight away
        Respond(p);
        phase = tlm::BEGIN_RESP;
        return tlm::TLM_UPDATED;
      }
      phase = tlm::END_REQ;
      delay += 2 * kNs;
      return tlm::TLM_UPDATED;
    };
    hop.initiator.bw = [](tlm_generic_payload&, tlm_phase& phase, sc_time&) {
      phase = tlm::END_RESP;
      return tlm::TLM_UPDATED;
    };
    EXPECT_EQ(hop.Forward(*a, tlm::BEGIN_REQ), tlm::TLM_UPDATED);
    wait(3 * kNs);
    Respond(*a);
    EXPECT_EQ(hop.Backward(*a, tlm::BEGIN_RESP, kNs), tlm::TLM_UPDATED);
    EXPECT_EQ(hop.Forward(*b, tlm::BEGIN_REQ), tlm::TLM_COMPLETED);
    wait(10 * kNs);
    EXPECT_EQ(hop.Forward(*c, tlm::BEGIN_REQ), tlm::TLM_UPDATED);
    EXPECT_EQ(hop.Forward(*c, tlm::END_RESP), tlm::TLM_COMPLETED);
    // The four phases each by a call of its own.
    hop.target.fw = [](tlm_generic_payload&, tlm_phase& phase, sc_time&) {
      return phase == tlm::END_RESP ? tlm::TLM_COMPLETED : tlm::TLM_ACCEPTED;
    };
    hop.initiator.bw = [](tlm_generic_payload&, tlm_phase&, sc_time&) { return tlm::TLM_ACCEPTED; };
    EXPECT_EQ(hop.Forward(*d, tlm::BEGIN_REQ, kNs), tlm::TLM_ACCEPTED);
    wait(kNs);
    hop.Backward(*d, tlm::END_REQ);
    Respond(*d);
    hop.Backward(*d, tlm::BEGIN_RESP, 4 * kNs);
    wait(4 * kNs);
    hop.Forward(*d, tlm::END_RESP);
    // b_transport that spends its delay and gives back zero.
    hop.target.blocking = [](tlm_generic_payload& p, sc_time& delay) {
      wait(delay + 7 * kNs);
      delay = sc_core::SC_ZERO_TIME;
      Respond(p);
    };
    hop.Blocking(*e, 3 * kNs);
  });
  sc_core::sc_start();
  EXPECT_EQ(hop.checker.rules.Violations(), 0u) << hop.Found();
  EXPECT_EQ(hop.checker.rules.InFlight(), 0u);
  EXPECT_GE(hop.checker.rules.Checked(), 14u);
}

// Initiators that break the rules: a second request before the first one's
// END_REQ, END_RESP before any response, a status already set, and
// b_transport on a transaction under way.
TEST(TlmChecker, CatchesABrokenInitiator) {
  Hop hop("initiator");
  auto a = Payload(0x0), b = Payload(0x40), c = Payload(0x80);
  Script script("script", [&] {
    hop.Forward(*a, tlm::BEGIN_REQ);
    hop.Forward(*b, tlm::BEGIN_REQ);
    hop.Forward(*a, tlm::END_RESP);
    c->set_response_status(tlm::TLM_OK_RESPONSE);
    hop.Forward(*c, tlm::BEGIN_REQ);
    hop.Blocking(*b);
    hop.Forward(*a, tlm::END_REQ);
  });
  sc_core::sc_start();
  const std::string found = hop.Found();
  for (const char* what : {"BEGIN_REQ while another request is in its request phase", "END_RESP before BEGIN_RESP",
                           "BEGIN_REQ with a response status other than TLM_INCOMPLETE_RESPONSE",
                           "b_transport on a transaction under way through nb_transport",
                           "END_REQ sent forward; an initiator sends only BEGIN_REQ and END_RESP"})
    EXPECT_NE(found.find(what), std::string::npos) << what << "\nfound:\n" << found;
}

// Targets that break the rules: END_REQ after BEGIN_RESP, two responses
// at once, TLM_UPDATED that moves nothing, TLM_ACCEPTED that moves the
// phase, a response without a status, time going backwards, a changed
// address, and b_transport coming back early or without a status.
TEST(TlmChecker, CatchesABrokenTarget) {
  Hop hop("target");
  auto a = Payload(0x0), b = Payload(0x40), c = Payload(0x80), d = Payload(0xc0), e = Payload(0x100),
       f = Payload(0x140), g = Payload(0x180), h = Payload(0x1c0);
  Script script("script", [&] {
    hop.Forward(*a, tlm::BEGIN_REQ);
    Respond(*a);
    hop.Backward(*a, tlm::BEGIN_RESP);
    hop.Backward(*a, tlm::END_REQ);  // out of order
    hop.Forward(*b, tlm::BEGIN_REQ);
    Respond(*b);
    hop.Backward(*b, tlm::BEGIN_RESP);  // a still in its response phase
    hop.Forward(*a, tlm::END_RESP);
    hop.Forward(*b, tlm::END_RESP);

    hop.target.fw = [](tlm_generic_payload&, tlm_phase&, sc_time&) { return tlm::TLM_UPDATED; };
    hop.Forward(*c, tlm::BEGIN_REQ);
    hop.Backward(*c, tlm::END_REQ);
    hop.Backward(*c, tlm::BEGIN_RESP);  // no status
    hop.target.fw = [](tlm_generic_payload&, tlm_phase& phase, sc_time&) {
      return phase == tlm::END_RESP ? tlm::TLM_COMPLETED : tlm::TLM_ACCEPTED;
    };
    hop.Forward(*c, tlm::END_RESP);
    hop.target.fw = [](tlm_generic_payload&, tlm_phase& phase, sc_time&) {
      phase = tlm::END_REQ;
      return tlm::TLM_ACCEPTED;
    };
    hop.Forward(*h, tlm::BEGIN_REQ);
    hop.Backward(*h, tlm::END_REQ);
    hop.target.fw = [](tlm_generic_payload&, tlm_phase&, sc_time&) { return tlm::TLM_ACCEPTED; };

    hop.Forward(*d, tlm::BEGIN_REQ);
    hop.Backward(*d, tlm::END_REQ, 10 * kNs);
    Respond(*d);
    hop.Backward(*d, tlm::BEGIN_RESP, 2 * kNs);  // before its END_REQ
    hop.Forward(*d, tlm::END_RESP, 10 * kNs);

    hop.Forward(*e, tlm::BEGIN_REQ);
    e->set_address(0x999);
    hop.Backward(*e, tlm::END_REQ);

    hop.target.blocking = [](tlm_generic_payload& p, sc_time& delay) {
      delay = sc_core::SC_ZERO_TIME;  // spent without waiting
      Respond(p);
    };
    hop.Blocking(*f, 5 * kNs);
    hop.target.blocking = [](tlm_generic_payload&, sc_time&) {};
    hop.Blocking(*g);
  });
  sc_core::sc_start();
  const std::string found = hop.Found();
  for (const char* what :
       {"END_REQ after BEGIN_RESP", "BEGIN_RESP while another response is in its response phase",
        "TLM_UPDATED that leaves the phase at BEGIN_REQ", "TLM_ACCEPTED with the phase changed from BEGIN_REQ to END_REQ",
        "BEGIN_RESP with TLM_INCOMPLETE_RESPONSE", "BEGIN_RESP at 2 ns, before the transaction's previous phase at 10 ns",
        "a request attribute changed", "b_transport returns at 0 s, before the time it was called for, 5 ns",
        "b_transport returns with TLM_INCOMPLETE_RESPONSE"})
    EXPECT_NE(found.find(what), std::string::npos) << what << "\nfound:\n" << found;
}

// By default each violation is an SC_ERROR, which stops a platform that
// doesn't catch it.
TEST(TlmChecker, ReportsViolationsAsErrors) {
  Hop hop("loud");
  hop.checker.rules.reportErrors = true;
  auto a = Payload(0x0);
  zelsim_test::AllowKernelWarnings();  // the kernel's own handling: an error throws
  Script script("script", [&] {
    bool thrown = false;
    try {
      hop.Forward(*a, tlm::END_RESP);
    } catch (const sc_core::sc_report& report) {
      thrown = std::string(report.get_msg()).find("END_RESP for a transaction not under way") != std::string::npos;
    }
    EXPECT_TRUE(thrown);
  });
  sc_core::sc_start();
  EXPECT_EQ(hop.checker.rules.Violations(), 1u);
}
