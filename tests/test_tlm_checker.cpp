// SPDX-License-Identifier: Apache-2.0
// The base-protocol checker, on a table of hops: silent on legal traffic,
// and loud on initiators and targets broken on purpose (phases out of order, exclusion rules, return
// values, timing annotations going backwards, statuses and attributes).
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
using namespace tlm;

namespace {

const sc_time kNs(1, sc_core::SC_NS);
using Nb = std::function<tlm_sync_enum(tlm_generic_payload&, tlm_phase&, sc_time&)>;
const Nb kAccept = [](tlm_generic_payload&, tlm_phase&, sc_time&) { return TLM_ACCEPTED; };

// An initiator and a target whose answers a test writes, with a checker
// between them, and the payloads a script sends through it.
struct Hop : sc_core::sc_module, tlm_bw_transport_if<>, tlm_fw_transport_if<> {
  tlm_initiator_socket<32> initiatorSocket;
  BaseProtocolChecker<32> checker;
  tlm_target_socket<32> targetSocket;
  Nb bw = kAccept, fw = kAccept;
  std::function<void(tlm_generic_payload&, sc_time&)> blocking = [](tlm_generic_payload& p, sc_time&) {
    p.set_response_status(TLM_OK_RESPONSE);
  };
  tlm_generic_payload p[2];
  unsigned char data[64] = {};

  explicit Hop(sc_core::sc_module_name name)
      : sc_module(name), initiatorSocket("i"), checker("checker"), targetSocket("t") {
    initiatorSocket.bind(*this);
    targetSocket.bind(*this);
    initiatorSocket.bind(checker.in);
    checker.out.bind(targetSocket);
    for (unsigned i = 0; i < 2; ++i) {  // fresh reads, as an initiator must send them
      p[i].set_command(TLM_READ_COMMAND);
      p[i].set_address(0x40 * i);
      p[i].set_data_ptr(data);
      p[i].set_data_length(64);
      p[i].set_streaming_width(64);
      p[i].set_response_status(TLM_INCOMPLETE_RESPONSE);
    }
  }
  tlm_sync_enum nb_transport_bw(tlm_generic_payload& x, tlm_phase& ph, sc_time& d) override { return bw(x, ph, d); }
  tlm_sync_enum nb_transport_fw(tlm_generic_payload& x, tlm_phase& ph, sc_time& d) override { return fw(x, ph, d); }
  void b_transport(tlm_generic_payload& x, sc_time& d) override { blocking(x, d); }
  unsigned transport_dbg(tlm_generic_payload&) override { return 0; }
  bool get_direct_mem_ptr(tlm_generic_payload&, tlm_dmi&) override { return false; }
  void invalidate_direct_mem_ptr(sc_dt::uint64, sc_dt::uint64) override {}

  // Calls by the initiator (forward) and by the target (backward) on p[i].
  tlm_sync_enum F(int i, tlm_phase phase, sc_time delay = sc_core::SC_ZERO_TIME) {
    return initiatorSocket->nb_transport_fw(p[i], phase, delay);
  }
  tlm_sync_enum B(int i, tlm_phase phase, sc_time delay = sc_core::SC_ZERO_TIME) {
    return targetSocket->nb_transport_bw(p[i], phase, delay);
  }
  void Blocking(int i, sc_time delay = sc_core::SC_ZERO_TIME) { initiatorSocket->b_transport(p[i], delay); }
  void Ok(int i) { p[i].set_response_status(TLM_OK_RESPONSE); }
};

struct Row {
  const char* expected;  // a violation's text; null: legal traffic, no violation
  std::function<void(Hop&)> script;
  bool loud = false;  // reported as an SC_ERROR (the default), which throws
};

// Legal paths the cube's target doesn't take (the target's tests cover
// the rest): END_REQ by return, BEGIN_RESP by return of BEGIN_REQ, and
// END_RESP by return.
void Legal(Hop& h) {
  h.fw = [](tlm_generic_payload& p, tlm_phase& phase, sc_time& delay) {
    if (phase == END_RESP) return TLM_COMPLETED;
    if (p.get_address() == 0x0) {
      phase = END_REQ;
      delay += 2 * kNs;
    } else {
      p.set_response_status(TLM_OK_RESPONSE);
      phase = BEGIN_RESP;
    }
    return TLM_UPDATED;
  };
  h.bw = [](tlm_generic_payload&, tlm_phase& phase, sc_time&) {
    phase = END_RESP;
    return TLM_UPDATED;
  };
  EXPECT_EQ(h.F(0, BEGIN_REQ), TLM_UPDATED);
  wait(3 * kNs);
  h.Ok(0);
  EXPECT_EQ(h.B(0, BEGIN_RESP, kNs), TLM_UPDATED);
  EXPECT_EQ(h.F(1, BEGIN_REQ), TLM_UPDATED);
  EXPECT_EQ(h.F(1, END_RESP), TLM_COMPLETED);
  EXPECT_EQ(h.checker.rules.InFlight(), 0u);
}

// Rows that compare times run first, while the clock is still at 0; the
// loud row runs last: it hands errors back to the kernel's own handler.
const std::vector<Row>& Rows() {
  static const std::vector<Row> rows = {
      // A broken initiator.
      {"BEGIN_REQ while another request is in its request phase", [](Hop& h) { h.F(0, BEGIN_REQ); h.F(1, BEGIN_REQ); }},
      {"END_RESP before BEGIN_RESP", [](Hop& h) { h.F(0, BEGIN_REQ); h.F(0, END_RESP); }},
      {"BEGIN_REQ with a response status other than TLM_INCOMPLETE_RESPONSE",
       [](Hop& h) { h.Ok(0); h.F(0, BEGIN_REQ); }},
      {"b_transport on a transaction under way through nb_transport", [](Hop& h) { h.F(0, BEGIN_REQ); h.Blocking(0); }},
      {"END_REQ sent forward; an initiator sends only BEGIN_REQ and END_RESP",
       [](Hop& h) { h.F(0, BEGIN_REQ); h.F(0, END_REQ); }},
      // A broken target.
      {"END_REQ after BEGIN_RESP", [](Hop& h) { h.F(0, BEGIN_REQ); h.Ok(0); h.B(0, BEGIN_RESP); h.B(0, END_REQ); }},
      {"BEGIN_RESP while another response is in its response phase",
       [](Hop& h) { h.F(0, BEGIN_REQ); h.Ok(0); h.B(0, BEGIN_RESP); h.F(1, BEGIN_REQ); h.Ok(1); h.B(1, BEGIN_RESP); }},
      {"TLM_UPDATED that leaves the phase at BEGIN_REQ",
       [](Hop& h) {
         h.fw = [](tlm_generic_payload&, tlm_phase&, sc_time&) { return TLM_UPDATED; };
         h.F(0, BEGIN_REQ);
       }},
      {"TLM_ACCEPTED with the phase changed from BEGIN_REQ to END_REQ",
       [](Hop& h) {
         h.fw = [](tlm_generic_payload&, tlm_phase& phase, sc_time&) {
           phase = END_REQ;
           return TLM_ACCEPTED;
         };
         h.F(0, BEGIN_REQ);
       }},
      {"BEGIN_RESP with TLM_INCOMPLETE_RESPONSE", [](Hop& h) { h.F(0, BEGIN_REQ); h.B(0, BEGIN_RESP); }},
      {"BEGIN_RESP at 2 ns, before the transaction's previous phase at 10 ns",
       [](Hop& h) { h.F(0, BEGIN_REQ); h.B(0, END_REQ, 10 * kNs); h.Ok(0); h.B(0, BEGIN_RESP, 2 * kNs); }},
      {"a request attribute changed", [](Hop& h) { h.F(0, BEGIN_REQ); h.p[0].set_address(0x999); h.B(0, END_REQ); }},
      {"b_transport returns at 0 s, before the time it was called for, 5 ns",
       [](Hop& h) {
         h.blocking = [](tlm_generic_payload& p, sc_time& delay) {  // spent without waiting
           delay = sc_core::SC_ZERO_TIME;
           p.set_response_status(TLM_OK_RESPONSE);
         };
         h.Blocking(0, 5 * kNs);
       }},
      {"b_transport returns with TLM_INCOMPLETE_RESPONSE",
       [](Hop& h) { h.blocking = [](tlm_generic_payload&, sc_time&) {}; h.Blocking(0); }},
      {nullptr, Legal},
      {"END_RESP for a transaction not under way",
       [](Hop& h) { zelsim_test::AllowKernelWarnings(); h.F(0, END_RESP); }, true},
  };
  return rows;
}

// Runs `body` in a thread of its own.
struct Script : sc_core::sc_module {
  std::function<void()> body;
  SC_HAS_PROCESS(Script);
  Script(sc_core::sc_module_name name, std::function<void()> body) : sc_module(name), body(std::move(body)) {
    SC_THREAD(Run);
  }
  void Run() { body(); }
};

}  // namespace

TEST(TlmChecker, SilentOnLegalTrafficAndFindsEachBrokenRule) {
  std::vector<std::unique_ptr<Hop>> hops;
  for (std::size_t r = 0; r < Rows().size(); ++r) hops.emplace_back(new Hop(("hop" + std::to_string(r)).c_str()));
  std::vector<std::string> thrown(Rows().size());
  Script script("script", [&] {
    for (std::size_t r = 0; r < Rows().size(); ++r) {
      hops[r]->checker.rules.reportErrors = Rows()[r].loud;
      try {
        Rows()[r].script(*hops[r]);
      } catch (const sc_core::sc_report& report) {
        thrown[r] = report.get_msg();
      }
    }
  });
  sc_core::sc_start();
  for (std::size_t r = 0; r < Rows().size(); ++r) {
    const Row& row = Rows()[r];
    std::string found;
    for (const std::string& m : hops[r]->checker.rules.Messages()) found += m + "\n";
    if (row.expected == nullptr) {
      EXPECT_EQ(hops[r]->checker.rules.Violations(), 0u) << "legal traffic:\n" << found;
      continue;
    }
    EXPECT_NE(found.find(row.expected), std::string::npos) << row.expected << "\nfound:\n" << found;
    if (row.loud) EXPECT_NE(thrown[r].find(row.expected), std::string::npos) << "not reported as an error";
  }
}
