// SPDX-License-Identifier: Apache-2.0
// The cube as a memory of a TLM-2.0 platform. Initiators bind the target's
// multi-socket; their reads and writes become request packets that the
// legal host engine sends, with its tokens, tags and pacing, and they
// complete when the cube's response does. Both coding styles are served:
// b_transport, and nb_transport with the four phases of the base protocol.
// docs/host.md says how payloads map to packets and to links.
#ifndef ZELSIM_HOST_TLM_TARGET_H
#define ZELSIM_HOST_TLM_TARGET_H

#include <cstdint>
#include <deque>
#include <memory>
#include <unordered_map>
#include <vector>

#include <systemc>
#include <tlm>
#include <tlm_utils/multi_passthrough_target_socket.h>
#include <tlm_utils/peq_with_cb_and_phase.h>

#include "host/legal_host.h"
#include "host/backing_store.h"
#include "zel2/2in1Wrapper.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Host {

using Bench::HostSetup;
using Bench::LegalHost;
using Bench::Request;

// Marks a write as posted: the cube sends no response, and the transaction
// completes when its last flit is sent. Its presence is all it says.
class PostedWriteExtension : public tlm::tlm_extension<PostedWriteExtension> {
 public:
  void copy_from(const tlm::tlm_extension_base&) override {}
  tlm::tlm_extension_base* clone() const override { return new PostedWriteExtension; }
};

// The link of each packet.
enum class LinkMapping {
  ByInitiator,  // initiator i (its binding of the socket) sends on link i mod links
  ByVaultQuad,  // the link of the quad that owns the packet's vault: no quad crossing
  RoundRobin,   // each initiator turns over all links, packet by packet, from link i mod links
};

// Payloads that don't cover whole 16-byte units, or that carry byte enables.
enum class PartialAccess {
  Widen,   // the packets cover the 16-byte units the payload touches; data moves for its bytes only
  Refuse,  // TLM_ADDRESS_, TLM_BURST_ or TLM_BYTE_ENABLE_ERROR_RESPONSE, without traffic
};

struct TargetOptions {
  LinkMapping mapping = LinkMapping::ByVaultQuad;
  PartialAccess partial = PartialAccess::Widen;
  // Reads return what was written (docs/host.md). Without it reads return
  // zeros; the timing is the same either way.
  bool backingStore = true;
  // Packets of one initiator that wait in the engine's queue for tokens,
  // tags or the link; the rest wait in the target. 0: REQUEST_BUFFER_SIZE.
  unsigned queueCapacity = 0;
  // The engine's set-up: the wrapper's setters, the deadlock watchdog and
  // the token return wait. The target never stops the kernel when traffic
  // is drained; the platform ends the simulation.
  HostSetup host;

  TargetOptions() {
    host.stopWhenDrained = false;
    // Four cycles keep the memory of a long run flat (docs/usage.md, "The host").
    host.tokenReturnWait = 4;
  }
};

// What the target has done so far.
struct TargetCounts {
  uint64_t transactions = 0;  // taken in, errors included
  uint64_t packets = 0;       // request packets made
  uint64_t completed = 0;     // ended with TLM_OK_RESPONSE
  uint64_t refused = 0;       // ended with an error response, without traffic
  uint64_t failed = 0;        // a response that didn't match its request (never on a sound model)
  uint64_t inFlight = 0;      // taken in, not ended yet
};

class CubeTarget : public sc_core::sc_module, private Bench::RequestSource, private Bench::HostObserver {
 public:
  // Any number of initiators bind it; each binding is an initiator of its own.
  tlm_utils::multi_passthrough_target_socket<CubeTarget> socket;

  SC_HAS_PROCESS(CubeTarget);
  // Drives every link of `cube` through a legal host engine of its own.
  CubeTarget(sc_core::sc_module_name name, Cube2in1Wrapper& cube, const TargetOptions& options = TargetOptions());
  ~CubeTarget() override;

  // Bytes of the address space: addresses 0 to Capacity() - 1 are valid.
  uint64_t Capacity() const;
  const TargetCounts& Counts() const { return counts_; }
  // The engine, for its counts (LegalHost::CollectResults) and set-up.
  LegalHost& Engine() { return *host_; }
  // The backing store; null without one.
  BackingStore* Store() { return store_.get(); }

  // ---- TLM interface
  void b_transport(int initiator, tlm::tlm_generic_payload& payload, sc_core::sc_time& delay);
  tlm::tlm_sync_enum nb_transport_fw(int initiator, tlm::tlm_generic_payload& payload, tlm::tlm_phase& phase,
                                     sc_core::sc_time& delay);
  // Reads and writes the backing store only; writes without one are dropped.
  unsigned transport_dbg(int initiator, tlm::tlm_generic_payload& payload);
  // Refused, for the whole address range: all data goes through the model.
  bool get_direct_mem_ptr(int initiator, tlm::tlm_generic_payload& payload, tlm::tlm_dmi& dmi);

 private:
  // The packets a payload becomes.
  struct Plan {
    ZELCommand command = RD;
    uint64_t first = 0;  // address of the first packet
    uint64_t bytes = 0;  // whole 16-byte units from `first` on
    bool posted = false;
  };
  struct Transaction {
    tlm::tlm_generic_payload* payload = nullptr;
    unsigned initiator = 0;
    bool blocking = false;
    bool posted = false;
    unsigned packetsUnsent = 0;  // packets whose last flit hasn't gone out
    unsigned responsesDue = 0;   // non-posted packets without their response
    tlm::tlm_response_status status = tlm::TLM_OK_RESPONSE;
    sc_core::sc_event* done = nullptr;  // b_transport's wake-up
  };
  // One binding of the socket.
  struct Port {
    unsigned queue = 0;             // its queue in the engine
    unsigned nextLink = 0;          // round robin
    std::deque<Request> waiting;    // packets not yet in the engine's queue
    // nb_transport: the transaction in its request phase (BEGIN_REQ taken,
    // END_REQ not sent), whether it has arrived (its annotated time
    // reached), and the END_REQs to send.
    tlm::tlm_generic_payload* inRequest = nullptr;
    bool requestArrived = false;
    Plan arriving;  // the packets of inRequest
    std::deque<uint64_t> endRequests;
    // nb_transport: responses ready, the one in its response phase, and when
    // the response channel is free again (END_RESP's annotated time).
    std::deque<uint64_t> responses;
    uint64_t inResponse = 0;
    bool responding = false;
    sc_core::sc_time responseFreeAt = sc_core::SC_ZERO_TIME;
  };

  // RequestSource
  void Refill(LegalHost& host, uint64_t cycle) override;
  bool Exhausted() const override { return false; }
  // HostObserver
  void FlitSent(unsigned link, const Flit& flit) override;
  void RequestIssued(unsigned link, const Request& request) override;
  void RequestAnswered(unsigned link, const Request& request, bool matched, const sc_core::sc_time&) override;

  void end_of_elaboration() override;
  const Config& cfg() const { return host_->cfg; }
  tlm::tlm_response_status Examine(const tlm::tlm_generic_payload& payload, Plan& plan) const;
  // True when the payload was answered without the cube (ignored or refused).
  bool AnsweredAtOnce(tlm::tlm_generic_payload& payload, Plan& plan);
  // Moves the payload's data to or from the store and queues its packets.
  uint64_t Accept(tlm::tlm_generic_payload& payload, unsigned initiator, const Plan& plan, bool blocking,
                  sc_core::sc_event* done);
  void MoveData(tlm::tlm_generic_payload& payload, const Plan& plan);
  unsigned LinkOf(Port& port, unsigned initiator, uint64_t address);
  void AllSent(uint64_t id);
  void Answered(uint64_t id);
  void Arrive(tlm::tlm_generic_payload& payload, const tlm::tlm_phase& phase);
  // Sends due END_REQs and BEGIN_RESPs, at the current time.
  void Dispatch();
  void EndResponse(unsigned initiator, const sc_core::sc_time& delay);
  void Finish(uint64_t id);

  std::unique_ptr<BackingStore> store_;
  TargetOptions options_;
  LegalHost* host_;
  std::vector<Port> ports_;
  std::unordered_map<uint64_t, Transaction> transactions_;
  uint64_t nextId_ = 1;
  std::vector<std::deque<uint64_t>> sending_;  // per link: transactions of packets issued, not all sent
  tlm_utils::peq_with_cb_and_phase<CubeTarget> arrivals_;
  sc_core::sc_event dispatch_;
  TargetCounts counts_;
};

}  // namespace Host
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak

#endif  // ZELSIM_HOST_TLM_TARGET_H
