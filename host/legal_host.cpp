// SPDX-License-Identifier: Apache-2.0
#include "host/legal_host.h"

#include <algorithm>
#include <cmath>
#include <iostream>
#include <sstream>

#include "zel2/zel2_cube.h"
#include "zel2/zel2_utils.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Bench {

using sc_core::sc_time;
using sc_core::sc_time_stamp;

namespace {

// Whole picoseconds: the kernel's resolution, which the model requires.
uint64_t Picoseconds(const sc_time& time) { return time.value(); }

}  // namespace

unsigned FlitsPerCoreCycle(const sc_time& coreClock, const sc_time& flitTime, unsigned portLimit) {
  if (flitTime == sc_core::SC_ZERO_TIME) return portLimit;
  const double ratio = static_cast<double>(coreClock.value()) / static_cast<double>(flitTime.value());
  const double up = std::ceil(ratio);
  const double flits = std::fabs(up - ratio) > 0.95 ? std::floor(ratio) : up;
  return std::min(static_cast<unsigned>(flits), portLimit);
}

std::vector<Flit*> BuildRequestFlits(const Request& request, unsigned tag, unsigned flitSize,
                                     const sc_time& now) {
  const unsigned count = RequestFlitCount(request.command, request.length, flitSize);
  std::vector<Flit*> flits;
  for (unsigned i = 0; i < count; ++i) {
    Flit* flit =
        new Flit(tag, request.address, request.command, request.length, i == 0, i + 1 == count, i + 1);
    flit->timeStamps[0] = now;
    flits.push_back(flit);
  }
  return flits;
}

LegalHost::LegalHost(sc_core::sc_module_name name, Cube2in1Wrapper& cube, RequestSource& source,
                     const HostSetup& setup)
    : sc_module(name), cube(cube), cfg(cube.cube->cfg), source(source), setup(setup) {
  links.resize(cube.drivers.size());
  for (unsigned i = 0; i < links.size(); ++i) links[i].number = i;

  SC_THREAD(HostThread);

  SC_METHOD(ReceiveResponses);
  for (unsigned i = 0; i < links.size(); ++i) sensitive << cube.getResponseWaitingEvent(i);
  dont_initialize();
}

// ---- Queues ----------------------------------------------------------------

unsigned LegalHost::AddQueue(unsigned capacity) {
  RequestQueue queue;
  queue.capacity = capacity;
  queue.stats.generator = static_cast<unsigned>(queues.size());
  queues.push_back(queue);
  return static_cast<unsigned>(queues.size() - 1);
}

std::size_t LegalHost::QueueSpace(unsigned queue) const {
  const RequestQueue& q = queues[queue];
  return q.requests.size() >= q.capacity ? 0 : q.capacity - q.requests.size();
}

bool LegalHost::Enqueue(unsigned queue, const Request& request) {
  if (QueueSpace(queue) == 0) return false;
  queues[queue].requests.push_back(request);
  ++queues[queue].stats.generated;
  if (request.link < links.size()) {
    LinkResults& stats = links[request.link].stats;
    if (request.command == RD) stats.offeredBytesRead += request.length;
    if (request.command == WR || request.command == P_WR) stats.offeredBytesWritten += request.length;
  }
  return true;
}

bool LegalHost::Drained() const {
  for (const RequestQueue& queue : queues) {
    if (!queue.requests.empty()) return false;
  }
  for (const HostLink& link : links) {
    if (!link.sending.empty() || !link.outstanding.empty() || !link.arriving.empty()) return false;
    if (link.requestTokens < cfg.TOKENS_PER_LINK) return false;
  }
  return true;
}

uint64_t LegalHost::RequestsOutstanding() const {
  uint64_t count = 0;
  for (const RequestQueue& queue : queues) count += queue.requests.size();
  for (const HostLink& link : links) {
    count += link.outstanding.size();
    // A posted packet under way is a request too; a non-posted one is
    // already counted as outstanding.
    if (!link.sending.empty() && IsPosted(link.sending.front()->command)) ++count;
  }
  return count;
}

void LegalHost::CollectResults(HostResults& results) const {
  results.links.clear();
  for (const HostLink& link : links) {
    LinkResults r = link.stats;
    r.link = link.number;
    r.outstanding = link.outstanding.size();
    r.requestTokensHeld = link.requestTokens;
    results.links.push_back(r);
  }
  results.generators.clear();
  for (const RequestQueue& queue : queues) results.generators.push_back(queue.stats);
  results.mismatchMessages = mismatchMessages;
  results.drained = drained;
  results.deadlock = deadlocked;
  results.sentAny = sentAny;
  results.tookAny = tookAny;
  results.firstRequestPs = Picoseconds(firstRequestSent);
  results.lastResponsePs = Picoseconds(lastResponseTaken);
}

uint64_t LegalHost::Completed() const {
  uint64_t completed = 0;
  for (const HostLink& link : links) completed += link.stats.completed;
  return completed;
}

// ---- Sending -------------------------------------------------------------------

void LegalHost::Configure() {
  if (setup.cubeTokens != 0) cube.setCubeTokens(setup.cubeTokens);
  cube.setHostTokens(setup.hostTokensGiven ? setup.hostTokens : cfg.BFM_TOKENS_PER_LINK);
  if (setup.cubeSize >= 0) cube.setCubeSize(static_cast<unsigned>(setup.cubeSize));
  if (setup.linkRate != 0 && setup.lanes != 0) cube.setLinkParams(setup.linkRate, setup.lanes);

  openLoop = cfg.RESPONSE_OPEN_LOOP;
  for (HostLink& link : links) {
    const sc_time flitTime = cube.cube->GetLinkRate(link.number);
    link.flitsPerCycle = FlitsPerCoreCycle(cfg.CORE_CLK, flitTime, cfg.FLITS_PER_CYCLE_LINK);
    link.stats.flitTimePs = Picoseconds(flitTime);
    // All of the host's response space is free at the start; the cube hears
    // of it with the first flits.
    link.responseTokensOwed = openLoop ? 0 : cfg.BFM_TOKENS_PER_LINK;
    // Disjoint tag ranges per link: the vault controllers know transactions
    // by tag alone, whichever link they came through.
    for (unsigned t = 0; t < cfg.TAGS_PER_LINK; ++t)
      link.freeTags.push_back(link.number * cfg.TAGS_PER_LINK + t);
  }
  for (HostLink& link : links) cube.changeLinkState(link.number, 1);
}

void LegalHost::HostThread() {
  Configure();
  // Flits written half a cycle off the edges fall clearly into one core
  // cycle of the link's rate check.
  wait(HalfCycle(cfg));
  std::vector<std::vector<Flit*>> plan(links.size());
  for (;;) {
    source.Refill(*this, cycle);
    std::size_t longest = 0;
    for (HostLink& link : links) {
      plan[link.number].clear();
      PlanCycle(link, plan[link.number]);
      longest = std::max(longest, plan[link.number].size());
    }
    // A driver's signal takes one value per delta cycle: one flit per link
    // and delta.
    for (std::size_t k = 0; k < longest; ++k) {
      for (HostLink& link : links) {
        if (k >= plan[link.number].size()) continue;
        Flit& flit = *plan[link.number][k];
        for (HostObserver* observer : observers) observer->FlitSent(link.number, flit);
        cube.addRequestFlit(link.number, flit);
      }
      wait(sc_core::SC_ZERO_TIME);
    }
    if (longest > 0) lastFlitMove = sc_time_stamp();
    if (setup.deadlockTimeout != sc_core::SC_ZERO_TIME &&
        sc_time_stamp() - lastFlitMove >= setup.deadlockTimeout && !Drained()) {
      deadlocked = true;
      sc_core::sc_stop();
      return;
    }
    if (setup.stopWhenDrained && source.Exhausted() && Drained()) {
      drained = true;
      sc_core::sc_stop();
      return;
    }
    if (setup.pauseWhenDrained) PauseAtDrain();
    for (HostObserver* observer : observers) observer->CycleDone(cycle);
    ++cycle;
    wait(CycleDelay(cfg, 1));
  }
}

void LegalHost::PauseAtDrain() {
  // Once per drain: a paused host that stays drained doesn't pause again, so
  // that the caller can let the cube settle for a while.
  const bool nowDrained = source.Exhausted() && Drained();
  if (nowDrained && !pausedAtDrain) sc_core::sc_pause();
  pausedAtDrain = nowDrained;
}

void LegalHost::PlanCycle(HostLink& link, std::vector<Flit*>& flits) {
  unsigned budget = link.flitsPerCycle;
  while (budget > 0) {
    if (link.sending.empty() && !StartPacket(link)) break;
    Flit* flit = link.sending.front();
    link.sending.pop_front();
    if (flit->tail && link.responseTokensOwed > 0) {
      flit->returnTokens = link.responseTokensOwed;
      link.stats.responseTokensReturned += link.responseTokensOwed;
      link.responseTokensOwed = 0;
    }
    flits.push_back(flit);
    ++link.stats.requestFlits;
    --budget;
  }
  // Response space that no tail could carry goes back in a flit of its own,
  // never in the middle of a packet.
  // With a wait, the tokens go in a flit of their own only while every
  // request token is back with the host: nothing of the host's is then in
  // the link's input path, so the flit passes straight on and the link frees
  // it (one that meets a busy link switch is dropped without being freed).
  // Past eight times the wait they go anyway, so that the link never starves.
  const uint64_t waited = cycle - link.owedSince;
  const uint64_t wait = setup.tokenReturnWait;
  const bool inputPathEmpty = link.requestTokens >= cfg.TOKENS_PER_LINK;
  const bool tokensWaited =
      wait == 0 || waited >= 8 * wait ||
      (inputPathEmpty && (waited >= wait || link.responseTokensOwed >= cfg.MAX_TOKEN_RETURN));
  if (budget > 0 && link.sending.empty() && link.responseTokensOwed > 0 && tokensWaited) {
    Flit* tokens = MakeTokenReturn(link.responseTokensOwed);
    link.stats.responseTokensReturned += link.responseTokensOwed;
    link.responseTokensOwed = 0;
    ++link.stats.tokenReturnsSent;
    flits.push_back(tokens);
  }
}

// Never inlined, so that the leak checker can tell these flits by their maker.
__attribute__((noinline)) Flit* LegalHost::MakeTokenReturn(unsigned tokens) {
  // The link deletes such a flit when it passes straight on and drops it
  // without deleting it when it meets a busy link switch, so the host can
  // never free it itself: once sent, it belongs to the link.
  Flit* flit = new Flit(kHostTokenReturnTag, ~0ul, TOKEN_RETURN, 0, true, true, 1);
  flit->returnTokens = tokens;
  return flit;
}

bool LegalHost::StartPacket(HostLink& link) {
  for (std::size_t n = 0; n < queues.size(); ++n) {
    const unsigned index = static_cast<unsigned>((link.nextQueue + n) % queues.size());
    RequestQueue& queue = queues[index];
    if (queue.requests.empty() || queue.requests.front().link != link.number) continue;
    const Request& request = queue.requests.front();
    const bool posted = IsPosted(request.command);
    const unsigned flitCount = RequestFlitCount(request.command, request.length, cfg.FLIT_SIZE);
    // The queue's head waits for tokens or a tag; others may go meanwhile.
    if (link.requestTokens < flitCount || (!posted && link.freeTags.empty())) continue;

    unsigned tag;
    if (posted) {
      tag = static_cast<unsigned>(links.size()) * cfg.TAGS_PER_LINK + link.number * kPostedTagSpan +
            static_cast<unsigned>(link.postedCount++ % kPostedTagSpan);
    } else {
      tag = link.freeTags.front();
      link.freeTags.pop_front();
      const ZELCommand response = request.command == RD ? RD_RSP : WR_RSP;
      link.outstanding[tag] =
          Outstanding{request, sc_time_stamp(),
                      ResponseFlitCount(request.command, request.length, cfg.FLIT_SIZE), response};
    }
    link.requestTokens -= flitCount;
    if (!sentAny) firstRequestSent = sc_time_stamp();
    sentAny = true;
    for (HostObserver* observer : observers) observer->RequestIssued(link.number, request);
    for (Flit* flit : BuildRequestFlits(request, tag, cfg.FLIT_SIZE, sc_time_stamp()))
      link.sending.push_back(flit);

    LinkResults& stats = link.stats;
    ++stats.issued;
    if (request.command == RD) ++stats.reads;
    if (request.command == WR || request.command == P_WR) {
      ++stats.writes;
      stats.bytesWritten += request.length;
    }
    if (IsAtomic(request.command)) ++stats.atomics;
    if (posted) ++stats.posted;
    ++queue.stats.issued;

    queue.requests.pop_front();
    link.nextQueue = (index + 1) % queues.size();
    return true;
  }
  return false;
}

// ---- Receiving -------------------------------------------------------------------

void LegalHost::ReceiveResponses() {
  for (HostLink& link : links) {
    std::deque<Flit_P>& pending = cube.getPendingResponseQueue(link.number);
    while (!pending.empty()) {
      Flit* flit = pending.front().flit;
      pending.pop_front();
      TakeResponse(link, flit);
    }
  }
}

void LegalHost::TakeResponse(HostLink& link, Flit* flit) {
  // Observers see the flit as the cube sent it.
  for (HostObserver* observer : observers) observer->FlitTaken(link.number, *flit);
  // Marked before anything else: from now on the link may no longer move a
  // packet's tokens up to this flit.
  flit->consumed = true;
  // A TOKEN_RETURN without tokens carries nothing: a link that sends only
  // such flits is as stuck as one that sends none.
  if (flit->command != TOKEN_RETURN || flit->returnTokens != 0) lastFlitMove = sc_time_stamp();
  // Tokens may stand on any flit: on a tail, on a TOKEN_RETURN, or on a
  // header that they were moved up to.
  link.requestTokens += flit->returnTokens;
  link.stats.requestTokensReceived += flit->returnTokens;

  if (flit->command == TOKEN_RETURN) {
    ++link.stats.tokenReturnsReceived;
    delete flit;
    return;
  }
  if (flit->command != RD_RSP && flit->command != WR_RSP) {
    Mismatch(link, "flit that is no response", flit);
    delete flit;
    return;
  }
  ++link.stats.responseFlits;
  tookAny = true;
  lastResponseTaken = sc_time_stamp();
  if (!openLoop && link.responseTokensOwed++ == 0) link.owedSince = cycle;

  if (!link.arriving.empty() && (flit->header || flit->tag != link.arriving.front()->tag)) {
    Mismatch(link, "response packet cut short by another", link.arriving.front());
    for (Flit* f : link.arriving) delete f;
    link.arriving.clear();
  }
  if (link.arriving.empty() && !flit->header) {
    Mismatch(link, "response flit without a header", flit);
    delete flit;
    return;
  }
  // The flits of a packet are kept until its tail is in: the link may still
  // look at the header it sent until the tail leaves.
  link.arriving.push_back(flit);
  if (flit->tail) CompletePacket(link);
}

void LegalHost::CompletePacket(HostLink& link) {
  const Flit* head = link.arriving.front();
  const auto found = link.outstanding.find(head->tag);
  if (found == link.outstanding.end()) {
    Mismatch(link, "response matches no outstanding request", head);
  } else {
    const Outstanding& expected = found->second;
    const bool commandOk = head->command == expected.response;
    const bool lengthOk = link.arriving.size() == expected.responseFlits;
    const bool addressOk = head->address == expected.request.address;
    const sc_time latency = sc_time_stamp() - expected.sentAt;
    const bool matched = commandOk && lengthOk && addressOk;
    if (matched) {
      LinkResults& stats = link.stats;
      ++stats.completed;
      const ZELCommand command = expected.request.command;
      if (command == RD) {
        stats.bytesRead += expected.request.length;
        stats.readLatency.Add(Picoseconds(latency));
      } else if (command == WR) {
        stats.writeLatency.Add(Picoseconds(latency));
      } else {
        stats.atomicLatency.Add(Picoseconds(latency));
      }
    } else {
      // The text is built only when Mismatch will print it: on the normal
      // path, and past the message limit, a response costs no formatting.
      std::ostringstream what;
      if (mismatchMessages.size() >= setup.maxMismatchMessages) {
        // Only counted.
      } else if (!commandOk) {
        what << "response command " << CommandName(head->command) << " to a "
             << CommandName(expected.request.command) << " request";
      } else if (!lengthOk) {
        what << "response of " << link.arriving.size() << " flits, expected " << expected.responseFlits;
      } else {
        what << "response for address 0x" << std::hex << head->address << ", request had 0x"
             << expected.request.address;
      }
      Mismatch(link, what.str(), head);
    }
    for (HostObserver* observer : observers)
      observer->RequestAnswered(link.number, expected.request, matched, latency);
    link.freeTags.push_back(found->first);
    link.outstanding.erase(found);
  }
  for (Flit* flit : link.arriving) delete flit;
  link.arriving.clear();
}

void LegalHost::Mismatch(HostLink& link, const std::string& what, const Flit* flit) {
  ++link.stats.mismatches;
  if (mismatchMessages.size() >= setup.maxMismatchMessages) return;
  std::ostringstream message;
  message << sc_time_stamp() << ": link " << link.number << ": " << what << ": " << *flit;
  mismatchMessages.push_back(message.str());
  std::cout << setup.messagePrefix << ": " << message.str() << std::endl;
}

}  // namespace Bench
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak
