// SPDX-License-Identifier: Apache-2.0
// The host library's engine: a host that keeps the link protocol of the
// cube in both directions. It drives all links of a
// Cube2in1Wrapper: it sends request packets from per-generator queues, spends
// one request token per flit and never more than the cube has granted, sends
// at most the link's flits per core cycle, hands response tokens back on
// request tails or in TOKEN_RETURN flits, matches every response to its
// request by tag, and deletes response flits once it has taken them.
#ifndef ZELSIM_HOST_LEGAL_HOST_H
#define ZELSIM_HOST_LEGAL_HOST_H

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <systemc>
#include <vector>

#include "host/generator.h"
#include "host/results.h"
#include "zel2/2in1Wrapper.h"
#include "zel2/Config.h"
#include "zel2/zel2_flit.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Bench {

class LegalHost;

// Whatever feeds the host's request queues: the request generators, a
// trace, the TLM target, or a fixed list in a test.
class RequestSource {
 public:
  virtual ~RequestSource() = default;
  // Called once per core cycle, before the host sends: puts new requests
  // into the host's queues (AddQueue, QueueSpace, Enqueue).
  virtual void Refill(LegalHost& host, uint64_t cycle) = 0;
  // True once the source will put no more requests.
  virtual bool Exhausted() const = 0;
};

// Looks at the traffic as the host sees it, for reports that follow a run
// as it goes (a timeline, a trace of the links, a log of the responses).
// Each call comes while the flit or request is alive and unchanged.
class HostObserver {
 public:
  virtual ~HostObserver() = default;
  // A flit the host writes to a link, requests and TOKEN_RETURN flits alike,
  // as it writes it.
  virtual void FlitSent(unsigned /*link*/, const Flit& /*flit*/) {}
  // A flit the host takes from a link, whatever its command, before the host
  // looks at it.
  virtual void FlitTaken(unsigned /*link*/, const Flit& /*flit*/) {}
  // A request whose first flit goes out now.
  virtual void RequestIssued(unsigned /*link*/, const Request& /*request*/) {}
  // A non-posted request whose response packet is in: `matched` when it
  // matched the request (the request then counts as completed, after
  // `latency`), false when the host counted a mismatch.
  virtual void RequestAnswered(unsigned /*link*/, const Request& /*request*/, bool /*matched*/,
                               const sc_core::sc_time& /*latency*/) {}
  // The host has written the flits of core cycle `cycle`. It wakes once per
  // cycle anyway, so an observer that wants to look at the run now and then
  // (a progress display) needs no process or event of its own, which would
  // change the order of the kernel's events at equal times.
  virtual void CycleDone(uint64_t /*cycle*/) {}
};

// What the host asks of the wrapper's setters before it turns the links on.
struct HostSetup {
  int cubeSize = -1;      // setCubeSize encoding; -1: not called
  unsigned linkRate = 0;  // setLinkParams(linkRate, lanes) when both are set
  unsigned lanes = 0;
  unsigned cubeTokens = 0;  // setCubeTokens when not 0
  bool hostTokensGiven = false;
  unsigned hostTokens = 0;            // setHostTokens value; else the configuration's BFM_TOKENS_PER_LINK
  bool stopWhenDrained = true;        // sc_stop once the source is exhausted and all traffic is back
  unsigned maxMismatchMessages = 10;  // mismatches printed and kept word for word
  std::string messagePrefix = "host";  // starts each printed mismatch: "host: ..."
  // Instead of stopping, sc_pause once each time the host becomes drained,
  // so that the caller can resume with another phase (a check of the cube at
  // rest, say).
  bool pauseWhenDrained = false;
  // With traffic outstanding and no flit sent or received for this long,
  // the host takes the cube as deadlocked, sets `deadlocked` and stops the
  // kernel. Zero turns the watchdog off.
  sc_core::sc_time deadlockTimeout = sc_core::SC_ZERO_TIME;
  // Core cycles that freed response space waits for a request tail to carry
  // it before it may go back in a TOKEN_RETURN flit of its own, which it
  // then does only while all request tokens are back with the host (at
  // once if it makes a flit's worth, MAX_TOKEN_RETURN), or in any case after
  // eight times this wait. Zero: at the first cycle with room on the link.
  unsigned tokenReturnWait = 0;
};

// Flits a link carries in one core cycle, computed as the link computes it
// from its flit time (a fraction below 0.05 rounds down, any other up), and
// kept to the link's port count.
unsigned FlitsPerCoreCycle(const sc_core::sc_time& coreClock, const sc_core::sc_time& flitTime,
                           unsigned portLimit);
// The flits of one request packet, made with new, numbered from 1, with the
// packet's tag; timeStamps slot 0 holds `now`.
std::vector<Flit*> BuildRequestFlits(const Request& request, unsigned tag, unsigned flitSize,
                                     const sc_core::sc_time& now);

// Tag of the TOKEN_RETURN flits the host sends; no request uses it.
constexpr unsigned kHostTokenReturnTag = 0xfffffffeu;
// Tags of posted requests rotate through this many values per link, above
// the tags of non-posted requests, so that a tag is not reused while the
// cube may still hold the request that had it.
constexpr unsigned kPostedTagSpan = 65536;

class LegalHost : public sc_core::sc_module {
 public:
  // A non-posted request waiting for its response.
  struct Outstanding {
    Request request;
    sc_core::sc_time sentAt;  // when its first flit was written
    unsigned responseFlits;   // flits its response must have
    ZELCommand response;      // RD_RSP or WR_RSP
  };

  // The host side of one link.
  struct HostLink {
    unsigned number = 0;
    unsigned flitsPerCycle = 0;  // at most this many flits written per core cycle
    // Request tokens granted by the cube and not yet spent. A packet starts
    // only when it can pay for all its flits, so this never goes below zero.
    unsigned requestTokens = 0;
    // Response space the host has freed and not yet handed back. Together
    // with the tokens the link holds and the responses under way it makes up
    // BFM_TOKENS_PER_LINK, so the link's count never exceeds that limit.
    unsigned responseTokensOwed = 0;
    uint64_t owedSince = 0;                       // cycle in which responseTokensOwed last rose from zero
    std::deque<unsigned> freeTags;                // tags for non-posted requests
    std::map<unsigned, Outstanding> outstanding;  // by tag
    std::deque<Flit*> sending;                    // rest of the packet being sent
    std::vector<Flit*> arriving;                  // response packet being received
    unsigned nextQueue = 0;                       // round-robin start among the queues
    uint64_t postedCount = 0;                     // posted requests sent, for their tags
    LinkResults stats;
  };

  // The host queue of one generator.
  struct RequestQueue {
    unsigned capacity = 0;
    std::deque<Request> requests;
    GeneratorResults stats;
  };

  // ---- State
  Cube2in1Wrapper& cube;
  const Config& cfg;  // the cube's configuration
  RequestSource& source;
  HostSetup setup;
  std::vector<HostLink> links;
  std::vector<RequestQueue> queues;
  bool openLoop = false;  // RESPONSE_OPEN_LOOP at turn-on: no response tokens at all
  bool drained = false;   // stopped because all traffic was back
  uint64_t cycle = 0;     // core cycles since the host started sending
  std::vector<std::string> mismatchMessages;
  // Drained and paused for it (pauseWhenDrained); cleared when traffic is
  // under way again.
  bool pausedAtDrain = false;
  // When the host last wrote or took a flit, for the deadlock watchdog.
  sc_core::sc_time lastFlitMove = sc_core::SC_ZERO_TIME;
  // The watchdog stopped the kernel (HostSetup::deadlockTimeout).
  bool deadlocked = false;
  // The traffic's time: when the first request flit went out and the last
  // response flit came in.
  bool sentAny = false;
  bool tookAny = false;
  sc_core::sc_time firstRequestSent = sc_core::SC_ZERO_TIME;
  sc_core::sc_time lastResponseTaken = sc_core::SC_ZERO_TIME;
  // Told of the traffic, in this order; none by default.
  std::vector<HostObserver*> observers;

  SC_HAS_PROCESS(LegalHost);
  LegalHost(sc_core::sc_module_name name, Cube2in1Wrapper& cube, RequestSource& source,
            const HostSetup& setup);

  // ---- Queues, for the request source
  unsigned AddQueue(unsigned capacity);
  std::size_t QueueSpace(unsigned queue) const;
  bool Enqueue(unsigned queue, const Request& request);

  // Nothing queued, sent or owed: every non-posted request answered and every
  // request token back from the cube.
  bool Drained() const;
  // Requests queued, being sent or waiting for their response.
  uint64_t RequestsOutstanding() const;
  // The host's counts, per link and per queue, and the traffic's time.
  void CollectResults(HostResults& results) const;
  // Requests completed on all links so far.
  uint64_t Completed() const;

  // ---- Processes
  // Calls the setters and turns the links on at time 0, then once per core
  // cycle, half a cycle away from the clock edges, refills the queues and
  // writes each link's flits, one per delta cycle.
  void HostThread();
  // Takes every response flit the drivers have queued, as they queue it.
  void ReceiveResponses();

 private:
  void Configure();
  void PauseAtDrain();
  void PlanCycle(HostLink& link, std::vector<Flit*>& flits);
  bool StartPacket(HostLink& link);
  // A TOKEN_RETURN flit carrying `tokens`; the link owns it once it is sent.
  static Flit* MakeTokenReturn(unsigned tokens);
  void TakeResponse(HostLink& link, Flit* flit);
  void CompletePacket(HostLink& link);
  void Mismatch(HostLink& link, const std::string& what, const Flit* flit);
};

}  // namespace Bench
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak

#endif  // ZELSIM_HOST_LEGAL_HOST_H
