// SPDX-License-Identifier: Apache-2.0
// The host library's front door: a host for every link of a cube that
// takes requests and hands back completions. Behind it the legal host
// engine (legal_host.h) keeps the link protocol: tokens in both directions,
// tags unique across the cube, flits per core cycle, TOKEN_RETURN packets.
//
//   Cube2in1Wrapper cube("cube");
//   CubeHost host("host", cube);
//   host.onCompletion = [](const Completion& c) { ... c.latency ... };
//   host.Read(0, 0x1000, 64);   // link 0, 64 bytes at 0x1000
//   host.Close();               // no more requests: stop once all are answered
//   sc_core::sc_start();
//
// docs/host.md describes the API and its rules.
#ifndef ZELSIM_HOST_CUBE_HOST_H
#define ZELSIM_HOST_CUBE_HOST_H

#include <cstdint>
#include <deque>
#include <functional>
#include <vector>

#include <systemc>

#include "host/generator.h"
#include "host/legal_host.h"
#include "host/results.h"
#include "zel2/2in1Wrapper.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Host {

using Bench::HostResults;
using Bench::HostSetup;
using Bench::LegalHost;
using Bench::Request;

// A non-posted request whose response is in.
struct Completion {
  Request request;           // as sent; request.serial is the number Send returned
  sc_core::sc_time sentAt;   // when its first flit went out
  sc_core::sc_time latency;  // from then to the last flit of its response
  bool matched = true;       // false: the response didn't match it (a model fault, counted as a mismatch)
};

class CubeHost : public sc_core::sc_module, private Bench::RequestSource, private Bench::HostObserver {
 public:
  // Drives every link of `cube`. With setup.stopWhenDrained (the default)
  // the host stops the kernel once it is closed and every request answered.
  CubeHost(sc_core::sc_module_name name, Cube2in1Wrapper& cube, const HostSetup& setup = HostSetup());
  ~CubeHost() override;

  // Queues a request on link `request.link` (command, address and length
  // as the cube takes them; see docs/host.md). Any time, before or during
  // the run, from any process. Returns its number, kept in request.serial,
  // counting from 0; a request on a link the cube lacks is an SC_ERROR and,
  // if the report handler returns, is dropped, with kRefused.
  static constexpr uint64_t kRefused = ~uint64_t{0};
  uint64_t Send(Request request);
  uint64_t Read(unsigned link, uint64_t address, unsigned length);
  uint64_t Write(unsigned link, uint64_t address, unsigned length, bool posted = false);
  // No more requests will come.
  void Close() { closed_ = true; }

  // Told of each completion as its response's last flit is taken. Without
  // a callback, completions wait in a list for TakeCompletions instead.
  std::function<void(const Completion&)> onCompletion;
  // Notified in the delta cycle after a completion: a process may wait on
  // it, then call TakeCompletions.
  const sc_core::sc_event& CompletionEvent() const { return completed_; }
  std::vector<Completion> TakeCompletions();

  // Requests sent to the host and not yet answered (posted ones until their
  // last flit is out).
  uint64_t Pending() const;
  // The engine's counts so far: per link, its flits, tokens, bytes and
  // latency histograms; bandwidth.h turns them into rates.
  HostResults Results() const;
  // The engine itself, for what this interface doesn't cover.
  LegalHost& Engine() { return *engine_; }
  // Links of the cube.
  unsigned Links() const { return static_cast<unsigned>(waiting_.size()); }

 private:
  void Refill(LegalHost& host, uint64_t cycle) override;
  bool Exhausted() const override;
  void RequestAnswered(unsigned link, const Request& request, bool matched,
                       const sc_core::sc_time& latency) override;

  LegalHost* engine_;
  std::vector<unsigned> queues_;                // the engine's queue of each link
  std::vector<std::deque<Request>> waiting_;    // per link: sent to us, not yet in the engine's queue
  std::deque<Completion> completions_;
  sc_core::sc_event completed_;
  uint64_t nextSerial_ = 0;
  bool closed_ = false;
};

}  // namespace Host
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak

#endif  // ZELSIM_HOST_CUBE_HOST_H
