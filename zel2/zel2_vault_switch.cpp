// SPDX-License-Identifier: Apache-2.0
#include "zel2/zel2_vault_switch.h"

#include <algorithm>
#include <bitset>
#include <iostream>
#include <utility>

#include "zel2/zel2_cube.h"

using namespace sc_core;

// An assertion prints its condition as written, so the conditions below keep
// their exact spelling, with clang-format turned off around them.

namespace Sornak {
namespace Internal {
namespace ZEL2 {

namespace {

// A destination is short of credits at or below these levels, and a short
// destination then stalls for a fixed two cycles. They are part of the
// design, not configuration.
constexpr int32_t kLinkMasterThrottleLimit = 7;
constexpr int32_t kPeerThrottleLimit = 10;
constexpr double kThrottleStallCycles = 2;

// The local smoothing buffer's value of lmRoundRobin, fixed for four quads.
constexpr unsigned kLocalSource = 3;

std::size_t PopCount(uint64_t word) { return std::bitset<64>(word).count(); }

uint64_t Bit(unsigned index) { return uint64_t{1} << index; }

}  // namespace

zel2_vault_switch::zel2_vault_switch(sc_module_name name, const Config& cfg, StatsKeeper& stats,
                                     unsigned quadNumber)
    : sc_module(name),
      sliceFlits("sliceFlits"),
      linkMasterFlits("linkMasterFlits"),
      interquadFlitsOut("interquadFlitsOut"),
      interquadFlitsIn("interquadFlitsIn"),
      linkMasterCredits("linkMasterCredits"),
      creditsOut("creditsOut"),
      interquadCreditsIn("interquadCreditsIn"),
      cfg(cfg),
      stats(stats),
      id(quadNumber),
      quadPointer(0),
      lmRoundRobin(0),
      lmPacketActive(false),
      overThreshold(0),
      sourcesWithFlits(0),
      sourcesWithPackets(0),
      priorityOn(false),
      priorityLock(false),
      lastReceiveFromSlice(0),
      creditDelayQueue("creditEventQueue", DelayQueue::kMethodConsumer),
      zcreditDelayQueue("zcreditEventQueue", DelayQueue::kMethodConsumer),
      responseEventQueue("responseEventQueue"),
      sourceEventQueue("sourceEventQueue"),
      moveToSmoothingEvent("moveToSmoothingEvent"),
      handleQueuesEvent("handleQueuesEvent"),
      returnCreditsEvent("returnCreditsEvent"),
      turnOffPriorityEvent("turnOffPriorityEvent"),
      priorityLockEvent("priorityLockEvent") {
  const unsigned Q = cfg.NUM_QUADS;
  const unsigned V = cfg.VAULTS_PER_QUAD;
  const unsigned peers = Q > 0 ? Q - 1 : 0;
  const unsigned vcLanes = cfg.FLITS_OUT_PER_CYCLE_VC;
  const unsigned lanes = cfg.FLITS_PER_CYCLE_VSW;

  sliceFlits.init(V, [vcLanes](const char* portName, std::size_t) {
    return new sc_vector<sc_in<Flit_P>>(portName, vcLanes);
  });
  linkMasterFlits.init(lanes);
  interquadFlitsOut.init(peers, [lanes](const char* portName, std::size_t) {
    return new sc_vector<sc_out<Flit_P>>(portName, lanes);
  });
  interquadFlitsIn.init(peers, [lanes](const char* portName, std::size_t) {
    return new sc_vector<sc_in<Flit_P>>(portName, lanes);
  });
  creditsOut.init(V + peers);
  interquadCreditsIn.init(peers);

  responseLatches.resize(V);
  responseLatchTimes.resize(V);
  responseBuffers.resize(V);
  interquadLatches.resize(peers);
  interquadLatchTimes.resize(peers);
  interquadBuffers.resize(peers);
  smoothingBuffers.resize(Q);
  smoothingTimes.resize(Q);

  responseTails.assign(V, 0);
  responseFlitsFor.assign(V, std::vector<int>(Q, 0));
  interquadTails.assign(peers + 1, 0);
  destinationCredits.assign(Q, static_cast<int32_t>(cfg.VSW_INTERQUAD_BUFFER_SIZE));
  if (id < Q) destinationCredits[id] = static_cast<int32_t>(cfg.LINK_MASTER_BUFFER_SIZE);
  returnCredits.assign(V + peers, 0);
  smoothingOwner.assign(Q, -1);
  vaultPointers.assign(std::max(V, Q), 0);
  priorityFor.assign(Q, false);
  throttled.assign(Q, false);
  throttleUntil.assign(Q, SC_ZERO_TIME);
  flitsIntoQuad.assign(Q, 0);
  flitsOutOfVault.assign(V, 0);
  lastOccupancyChange.assign(V + peers, SC_ZERO_TIME);

  SC_THREAD(ReceiveFromSlices);
  for (auto& vault : sliceFlits)
    for (auto& port : vault) sensitive << port;

  SC_THREAD(ReturnCredits);
  sensitive << returnCreditsEvent;

  SC_METHOD(IncrementCreditCount);
  sensitive << creditDelayQueue.queue;
  dont_initialize();

  SC_METHOD(IncrementZCreditCount);
  sensitive << zcreditDelayQueue.queue;
  dont_initialize();

  SC_METHOD(ReceiveLMCredits);
  sensitive << linkMasterCredits;
  dont_initialize();

  SC_METHOD(HandleQueues);
  sensitive << handleQueuesEvent;
  dont_initialize();

  SC_METHOD(MoveToSmoothingBuffers);
  sensitive << moveToSmoothingEvent;
  dont_initialize();

  SC_THREAD(MoveToResponseBuffer);
  sensitive << responseEventQueue;

  SC_THREAD(MoveToSourceBuffer);
  sensitive << sourceEventQueue;

  SC_THREAD(ReceiveFromInterQuad);
  for (auto& peer : interquadFlitsIn)
    for (auto& port : peer) sensitive << port;

  // Runs once at start, when no port has an event and so nothing happens.
  SC_METHOD(ReceiveInterQuadCredits);
  for (auto& port : interquadCreditsIn) sensitive << port;

  SC_METHOD(TurnOffPriority);
  sensitive << turnOffPriorityEvent;
  dont_initialize();

  SC_METHOD(TurnOffPriorityLock);
  sensitive << priorityLockEvent;
  dont_initialize();
}

// ---- Helpers ----------------------------------------------------------------

bool zel2_vault_switch::ZPeer(unsigned& quad) const {
  if (id > 3) return false;
  quad = 3 - id;
  return true;
}

void zel2_vault_switch::CheckOnCoreClock() const {
  if (sc_time_stamp().value() % cfg.CORE_CLK.value() != 0) {
    std::cout << "ERROR: off timing in VSW @ " << sc_time_stamp() << std::endl;
    ZEL_ASSERT(0);
  }
}

void zel2_vault_switch::SampleOccupancy(unsigned index, std::size_t level) {
  RaiseTimeIntegral(stats.vswBufferTime[id][index], lastOccupancyChange[index], level);
}

bool zel2_vault_switch::JoinPriority() {
  if (!priorityOn && !priorityLock) {
    priorityOn = true;
    turnOffPriorityEvent.notify(cfg.BUFFER_PRIORITY_TIME);
  }
  return priorityOn;
}

void zel2_vault_switch::MarkPriorityForVault(unsigned vault) {
  for (unsigned quad = 0; quad < cfg.NUM_QUADS; ++quad)
    if (responseFlitsFor[vault][quad] != 0) priorityFor[quad] = true;
}

// ---- Intake from the slices ---------------------------------------------------

void zel2_vault_switch::ReceiveFromSlices() {
  while (true) {
    wait();
    ZEL_ASSERT(lastReceiveFromSlice < sc_time_stamp().value());
    lastReceiveFromSlice = sc_time_stamp().value();

    const sc_time latchDelay = CycleDelay(cfg, cfg.VSW_LATCH_DELAY);
    const int lanes = static_cast<int>(cfg.FLITS_PER_CYCLE_VSW);
    for (unsigned v = 0; v < sliceFlits.size(); ++v) {
      for (auto& port : sliceFlits[v]) {
        if (!port.event()) continue;
        Flit_P flit = port.read();
        std::vector<Flit_P>& latch = responseLatches[v];
        // Lanes run on from the latch's last flit, so a buffer's lane order
        // shows where one cycle's flits end and the next begin.
        flit->lane = latch.empty() ? 0 : (latch.back()->lane + 1) % lanes;
        if (flit->tail) flit->timeStamps[5] = sc_time_stamp();
        latch.push_back(flit);
        responseLatchTimes[v].push_back(sc_time_stamp() + latchDelay);
      }
    }
    responseEventQueue.notify(latchDelay);
  }
}

void zel2_vault_switch::MoveToResponseBuffer() {
  while (true) {
    wait();
    const sc_time now = sc_time_stamp();
    for (unsigned v = 0; v < responseLatches.size(); ++v) {
      std::vector<Flit_P>& latch = responseLatches[v];
      std::vector<sc_time>& times = responseLatchTimes[v];
      while (!latch.empty() && now >= times.front()) {
        Flit_P flit = latch.front();
        latch.erase(latch.begin());
        responseBuffers[v].push_back(flit);
        if (flit->tail) ++responseTails[v];
        ++responseFlitsFor[v][flit->sourceLink];
        times.erase(times.begin());
        SampleOccupancy(v, responseBuffers[v].size());
        if (responseBuffers[v].size() > cfg.VSW_RESPONSE_BUFFER_SIZE) {
          TimedError() << "Vault Switch " << id << " overflowed buffer " << v << std::endl;
          ZEL_ASSERT(false);
        }
      }
    }
    moveToSmoothingEvent.notify(cfg.CORE_CLK);
  }
}

// ---- Intake from the peers ----------------------------------------------------

void zel2_vault_switch::ReceiveFromInterQuad() {
  std::vector<std::vector<bool>> arrived(interquadFlitsIn.size(),
                                         std::vector<bool>(cfg.FLITS_PER_CYCLE_VSW, false));
  while (true) {
    wait();
    for (unsigned r = 0; r < interquadFlitsIn.size(); ++r)
      for (unsigned p = 0; p < interquadFlitsIn[r].size(); ++p)
        arrived[r][p] = interquadFlitsIn[r][p].event();

    // The flits are read one cycle after they arrive; that cycle is part of
    // the road's latency.
    wait(cfg.CORE_CLK);
    const sc_time now = sc_time_stamp();
    for (unsigned r = 0; r < interquadFlitsIn.size(); ++r) {
      for (unsigned p = 0; p < interquadFlitsIn[r].size(); ++p) {
        if (!arrived[r][p]) continue;
        Flit_P incomingFlit = interquadFlitsIn[r][p].read();
        // clang-format off
        ZEL_ASSERT((*incomingFlit).sourceLink==id);
        // clang-format on
        if (incomingFlit->tail) incomingFlit->timeStamps[6] = now;
        interquadLatches[r].push_back(incomingFlit);
        if (id > 3) continue;

        // The diagonal latency applies to 0 from 3, 1 from 2 and 2 from 1,
        // but not to 3 from 0: the longer latch is one-sided on that pair.
        const unsigned source = QuadOfPeer(r);
        const bool zPath = (id == 0 && source == 3) || (id == 1 && source == 2) || (id == 2 && source == 1);
        const sc_time delay =
            CycleDelay(cfg, zPath ? cfg.VSW_INTERQUAD_LATCH_DELAY_Z : cfg.VSW_INTERQUAD_LATCH_DELAY);
        interquadLatchTimes[r].push_back(now + delay);
        sourceEventQueue.notify(delay);
      }
    }
  }
}

void zel2_vault_switch::MoveToSourceBuffer() {
  while (true) {
    wait();
    const sc_time now = sc_time_stamp();
    for (unsigned r = 0; r < interquadLatches.size(); ++r) {
      std::vector<Flit_P>& latch = interquadLatches[r];
      std::vector<sc_time>& times = interquadLatchTimes[r];
      // A quad numbered above 3 latches flits without a time: they stay.
      while (!latch.empty() && !times.empty() && now >= times.front()) {
        Flit_P flit = latch.front();
        latch.erase(latch.begin());
        interquadBuffers[r].push_back(flit);
        if (flit->tail) ++interquadTails[r];
        times.erase(times.begin());
        const unsigned index = cfg.VAULTS_PER_QUAD + r;
        SampleOccupancy(index, interquadBuffers[r].size());
        if (interquadBuffers[r].size() > cfg.VSW_INTERQUAD_BUFFER_SIZE) {
          TimedError() << "Vault Switch " << id << " overflowed buffer Q" << QuadOfPeer(r) << std::endl;
          ZEL_ASSERT(false);
        }
      }
    }
    handleQueuesEvent.notify(cfg.CORE_CLK);
  }
}

// ---- Response buffers to smoothing buffers ------------------------------------

void zel2_vault_switch::MoveToSmoothingBuffers() {
  CheckOnCoreClock();
  const unsigned Q = cfg.NUM_QUADS;
  const unsigned V = cfg.VAULTS_PER_QUAD;

  std::fill(priorityFor.begin(), priorityFor.end(), false);
  for (unsigned v = 0; v < V; ++v) {
    if (responseBuffers[v].size() < cfg.VSW_RESPONSE_BUFFER_THRESHOLD) {
      overThreshold &= ~Bit(v);
    } else {
      overThreshold |= Bit(v);
      if (JoinPriority()) MarkPriorityForVault(v);
    }
    if (!responseBuffers[v].empty()) sourcesWithFlits |= Bit(v);
    if (responseTails[v] != 0) sourcesWithPackets |= Bit(v);
  }

  bool flitMoved = false;
  bool workRemains = false;
  const unsigned startQuad = quadPointer;
  unsigned quad = startQuad;
  do {
    const unsigned capacity = quad == id ? cfg.SMOOTHING_BUFFER_LM_SIZE : cfg.SMOOTHING_BUFFER_Q_SIZE;
    if (smoothingBuffers[quad].size() < capacity) FillSmoothingBuffer(quad, capacity, flitMoved, workRemains);
    quad = (quad + 1) % Q;
  } while (quad != startQuad);
  quadPointer = (startQuad + 1) % Q;
  // Work remains only where a scan reached a vault and left flits behind. A
  // vault that no scan reached (its quad's smoothing buffer full, or the scan
  // stopped early) brings no further activation of its own; if no response
  // arrives afterwards, nothing wakes this process and the quad stalls. The
  // smoothing-stall correction re-arms while any response buffer holds flits.
  if (cfg.corrections.smoothingStall)
    for (unsigned v = 0; v < V && !workRemains; ++v)
      if (!responseBuffers[v].empty()) workRemains = true;

  std::fill(flitsOutOfVault.begin(), flitsOutOfVault.end(), 0);
  std::fill(flitsIntoQuad.begin(), flitsIntoQuad.end(), 0);
  if (flitMoved) returnCreditsEvent.notify();
  if (workRemains) moveToSmoothingEvent.notify(cfg.CORE_CLK);
  sourcesWithPackets = 0;
  sourcesWithFlits = 0;
}

void zel2_vault_switch::FillSmoothingBuffer(unsigned quad, unsigned capacity, bool& flitMoved,
                                            bool& workRemains) {
  const unsigned V = cfg.VAULTS_PER_QUAD;
  const unsigned startVault = vaultPointers[quad];
  unsigned v = startVault;
  do {
    // While some vault holds a whole packet, vaults holding only part of one wait.
    const bool passedOver = sourcesWithPackets != 0 && (sourcesWithPackets & Bit(v)) == 0;
    const bool lanesWrapped = !passedOver && WalkResponseBuffer(quad, v, capacity, flitMoved);
    if (!responseBuffers[v].empty()) workRemains = true;
    if (lanesWrapped || flitsIntoQuad[quad] == cfg.FLITS_PER_CYCLE_VSW) break;
    vaultPointers[quad] = (vaultPointers[quad] + 1) % V;
    v = (v + 1) % V;
  } while (v != startVault);
  // With no packet in progress the next activation starts at another vault.
  if (smoothingOwner[quad] == -1) vaultPointers[quad] = (vaultPointers[quad] + 1) % V;
}

bool zel2_vault_switch::WalkResponseBuffer(unsigned quad, unsigned vault, unsigned capacity,
                                           bool& flitMoved) {
  std::vector<Flit_P>& buffer = responseBuffers[vault];
  const unsigned lanes = cfg.FLITS_PER_CYCLE_VSW;
  const int owner = static_cast<int>(vault);
  int previousLane = -1;
  bool wrapped = false;
  bool movedInWalk = false;
  std::size_t index = 0;
  // Flits for this quad from `index` on. Once none is left, the rest of the
  // walk could only step over other quads' flits, which changes nothing, so
  // it stops there (the buffers are long and mostly hold other quads' flits).
  int forQuad = responseFlitsFor[vault][quad];
  while (index < buffer.size() && forQuad > 0) {
    if (flitsIntoQuad[quad] >= lanes || flitsOutOfVault[vault] >= lanes) break;
    if (smoothingBuffers[quad].size() >= capacity) break;
    if (priorityFor[quad] && (overThreshold & Bit(vault)) == 0 && smoothingOwner[quad] != owner) break;

    const Flit_P flit = buffer[index];
    // After a whole packet the slot goes to another source, if there is one.
    bool handOver = false;
    if (flit->sourceLink == quad && (smoothingOwner[quad] == owner || smoothingOwner[quad] == -1)) {
      const int oldLane = flit->lane;
      if (previousLane > oldLane) wrapped = true;
      MoveToSmoothing(quad, vault, index);
      --forQuad;
      previousLane = oldLane;
      movedInWalk = true;
      flitMoved = true;
      handOver = smoothingOwner[quad] == -1 && PopCount(sourcesWithFlits) > 1;
    } else {
      // A flit for another quad, or held back by another vault's packet,
      // stays where it is and doesn't block those behind it.
      if (flit->sourceLink == quad) --forQuad;
      ++index;
      handOver = movedInWalk && smoothingOwner[quad] == -1 && PopCount(sourcesWithFlits) > 1;
    }
    if (handOver) break;
    // The lanes came round to 0 again: the flits of the vault's next cycle
    // wait for the next activation.
    if (previousLane == 0 && wrapped) return true;
  }
  return false;
}

void zel2_vault_switch::MoveToSmoothing(unsigned quad, unsigned vault, std::size_t index) {
  std::vector<Flit_P>& buffer = responseBuffers[vault];
  const Flit_P flit = buffer[index];
  flit->lane = static_cast<int32_t>(flitsIntoQuad[quad]);
  smoothingBuffers[quad].push_back(flit);
  smoothingTimes[quad].push_back(sc_time_stamp() + cfg.CORE_CLK);
  if (quad == id && flit->tail) ++interquadTails[cfg.NUM_QUADS - 1];
  if (flit->header) smoothingOwner[quad] = static_cast<int>(vault);
  if (flit->tail) {
    --responseTails[vault];
    smoothingOwner[quad] = -1;
  }
  ++flitsOutOfVault[vault];
  ++flitsIntoQuad[quad];
  handleQueuesEvent.notify(cfg.CORE_CLK);
  // The vault controller's credit comes back as soon as the flit leaves the
  // response buffer; the smoothing buffer has no credit of its own.
  ++returnCredits[vault];
  SampleOccupancy(vault, buffer.size());
  buffer.erase(buffer.begin() + static_cast<std::ptrdiff_t>(index));
  --responseFlitsFor[vault][quad];
}

// ---- Buffers to destinations -----------------------------------------------

void zel2_vault_switch::HandleQueues() {
  CheckOnCoreClock();
  std::fill(priorityFor.begin(), priorityFor.end(), false);
  UpdateThresholds();
  UpdateThrottles();

  bool creditOwed = false;
  bool workRemains = false;
  // Destinations in ascending order every time; no pointer rotates it.
  for (unsigned quad = 0; quad < cfg.NUM_QUADS; ++quad) {
    if (throttled[quad]) continue;
    if (quad == id)
      ServeLinkMaster(quad, creditOwed, workRemains);
    else
      ServePeer(quad, workRemains);
  }
  if (creditOwed) returnCreditsEvent.notify();
  if (workRemains) handleQueuesEvent.notify(cfg.CORE_CLK);
}

void zel2_vault_switch::UpdateThresholds() {
  const unsigned V = cfg.VAULTS_PER_QUAD;
  // Unlike MoveToSmoothingBuffers, the first vault at its threshold marks all
  // vaults as over it, and the vaults after it are not looked at.
  for (unsigned v = 0; v < V; ++v) {
    overThreshold &= ~Bit(v);
    if (responseBuffers[v].size() >= cfg.VSW_RESPONSE_BUFFER_THRESHOLD) {
      overThreshold |= V >= 64 ? ~uint64_t{0} : Bit(V) - 1;
      if (JoinPriority()) MarkPriorityForVault(v);
      break;
    }
  }
  for (unsigned r = 0; r < interquadBuffers.size(); ++r) {
    if (interquadBuffers[r].size() >= cfg.VSW_INTERQUAD_BUFFER_THRESHOLD) {
      overThreshold |= Bit(V + r);
      if (JoinPriority()) priorityFor[id] = true;
    } else {
      overThreshold &= ~Bit(V + r);
    }
    if (!interquadBuffers[r].empty()) sourcesWithFlits |= Bit(r);
    if (interquadTails[r] != 0) sourcesWithPackets |= Bit(r);
  }
  if (!smoothingBuffers[id].empty()) sourcesWithFlits |= Bit(cfg.NUM_QUADS - 1);
  // A period that ends here for want of full buffers leaves no lock behind.
  if (overThreshold == 0) {
    priorityOn = false;
    turnOffPriorityEvent.cancel();
  }
}

void zel2_vault_switch::UpdateThrottles() {
  const sc_time now = sc_time_stamp();
  for (unsigned quad = 0; quad < cfg.NUM_QUADS; ++quad) {
    const bool shortOfCredits = quad == id ? destinationCredits[quad] <= kLinkMasterThrottleLimit
                                           : destinationCredits[quad] <= kPeerThrottleLimit;
    if (throttled[quad]) {
      // A stall that has run its time is lifted for at least this activation.
      if (!shortOfCredits || now >= throttleUntil[quad]) throttled[quad] = false;
    } else if (shortOfCredits) {
      throttled[quad] = true;
      throttleUntil[quad] = now + CycleDelay(cfg, kThrottleStallCycles);
    }
  }
}

void zel2_vault_switch::ServeLinkMaster(unsigned quad, bool& creditOwed, bool& workRemains) {
  const sc_time now = sc_time_stamp();
  const unsigned V = cfg.VAULTS_PER_QUAD;
  const unsigned lanes = cfg.FLITS_PER_CYCLE_VSW;
  const unsigned startSource = lmRoundRobin;
  unsigned sent = 0;
  while (true) {
    bool sourceEmpty = true;
    if (lmRoundRobin == kLocalSource) {
      std::vector<Flit_P>& buffer = smoothingBuffers[id];
      std::vector<sc_time>& times = smoothingTimes[id];
      // The buffer has no threshold bit of its own; vault 0's bit stands in.
      const bool held = priorityFor[id] && (overThreshold & Bit(0)) == 0 && !lmPacketActive;
      if (!held && !buffer.empty() && now >= times.front()) {
        while (sent < lanes && !buffer.empty() && destinationCredits[id] >= 1 && now >= times.front()) {
          const Flit_P flit = buffer.front();
          if (flit->header) lmPacketActive = true;
          if (flit->tail) {
            --interquadTails[kLocalSource];
            lmPacketActive = false;
          }
          // clang-format off
          ZEL_ASSERT((*smoothingBuffers[id][0]).sourceLink==quad);
          // clang-format on
          linkMasterFlits[sent].write(flit);
          ++sent;
          --destinationCredits[id];
          buffer.erase(buffer.begin());
          times.erase(times.begin());
          if (!lmPacketActive && PopCount(sourcesWithFlits) > 1) break;
        }
      }
      sourceEmpty = buffer.empty();
    } else if (lmRoundRobin < interquadBuffers.size()) {
      std::vector<Flit_P>& buffer = interquadBuffers[lmRoundRobin];
      const bool held = priorityFor[id] && (overThreshold & Bit(V + lmRoundRobin)) == 0 && !lmPacketActive;
      if (!held) {
        while (sent < lanes && !buffer.empty() && destinationCredits[id] >= 1) {
          const Flit_P flit = buffer.front();
          if (flit->header) lmPacketActive = true;
          if (flit->tail) {
            --interquadTails[lmRoundRobin];
            lmPacketActive = false;
          }
          // clang-format off
          ZEL_ASSERT((*interquadBuffers[lmRoundRobin][0]).sourceLink==quad);
          // clang-format on
          linkMasterFlits[sent].write(flit);
          ++sent;
          --destinationCredits[id];
          buffer.erase(buffer.begin());
          // The peer's credit comes back only now that the flit has gone on.
          ++returnCredits[V + lmRoundRobin];
          creditOwed = true;
          if (!lmPacketActive && PopCount(sourcesWithFlits) > 1) break;
        }
      }
      sourceEmpty = buffer.empty();
    }
    // (A round robin value with no buffer behind it, possible with fewer than
    // four quads, is an empty source.)
    if (!sourceEmpty) workRemains = true;
    // A packet in progress keeps its source for the next cycle.
    if (lmPacketActive) return;
    lmRoundRobin = (lmRoundRobin + 1) % cfg.NUM_QUADS;
    if (lmRoundRobin == startSource) {
      lmRoundRobin = (startSource + 1) % cfg.NUM_QUADS;
      return;
    }
  }
}

void zel2_vault_switch::ServePeer(unsigned quad, bool& workRemains) {
  const sc_time now = sc_time_stamp();
  std::vector<Flit_P>& buffer = smoothingBuffers[quad];
  std::vector<sc_time>& times = smoothingTimes[quad];
  const unsigned r = PeerOfQuad(quad);
  if (!buffer.empty() && destinationCredits[quad] >= 1) {
    unsigned sent = 0;
    while (now >= times.front()) {
      // clang-format off
      ZEL_ASSERT((*smoothingBuffers[quad][0]).sourceLink==quad);
      // clang-format on
      interquadFlitsOut[r][sent].write(buffer.front());
      ++sent;
      --destinationCredits[quad];
      buffer.erase(buffer.begin());
      times.erase(times.begin());
      if (sent >= cfg.FLITS_PER_CYCLE_VSW || buffer.empty() || destinationCredits[quad] < 1) break;
    }
  }
  if (!buffer.empty()) workRemains = true;
}

// ---- Priority ---------------------------------------------------------------

void zel2_vault_switch::TurnOffPriority() {
  priorityOn = false;
  priorityLock = true;
  priorityLockEvent.notify(cfg.BUFFER_PRIORITY_WAIT);
}

void zel2_vault_switch::TurnOffPriorityLock() {
  if (!priorityLock) {
    std::cout << "ERROR - Priority lock was not set when event triggered" << std::endl;
    ZEL_ASSERT(false);
  }
  priorityLock = false;
}

// ---- Credits ----------------------------------------------------------------

void zel2_vault_switch::ReturnCredits() {
  const unsigned V = cfg.VAULTS_PER_QUAD;
  while (true) {
    wait();
    for (unsigned i = 0; i < returnCredits.size(); ++i) {
      const uint32_t owed = returnCredits[i];
      if (owed == 0) continue;
      const uint32_t limit = i < V ? cfg.FLITS_OUT_PER_CYCLE_VC : cfg.FLITS_PER_CYCLE_VSW;
      // What is above the limit waits for the next returnCreditsEvent; the
      // thread doesn't wake itself for it.
      const uint32_t pulse = std::min(owed, limit);
      creditsOut[i].write(static_cast<int>(pulse));
      returnCredits[i] = owed - pulse;
    }
    wait(HalfCycle(cfg));
    for (auto& port : creditsOut) port.write(0);
  }
}

void zel2_vault_switch::ReceiveLMCredits() {
  if (!linkMasterCredits.event() || linkMasterCredits.read() < 1) return;
  destinationCredits[id] += linkMasterCredits.read();
  handleQueuesEvent.notify(cfg.NextCoreEdgeDelay());
}

void zel2_vault_switch::ReceiveInterQuadCredits() {
  const unsigned Q = cfg.NUM_QUADS;
  if (Q == 1) return;
  std::vector<int> counts(Q, 0);
  bool raised = false;
  unsigned zPeer = 0;
  const bool hasZPeer = ZPeer(zPeer);
  for (unsigned r = 0; r < interquadCreditsIn.size(); ++r) {
    sc_in<int>& port = interquadCreditsIn[r];
    if (!port.event() || port.read() < 1) continue;
    const unsigned source = QuadOfPeer(r);
    if (hasZPeer && source == zPeer) {
      zcreditDelayQueue.Push(port.read(), CycleDelay(cfg, cfg.CREDIT_RETURN_DELAY_VSW_VSW_Z));
    } else if (id <= 3) {
      counts[source] += port.read();
      raised = true;
    }
  }
  if (raised) creditDelayQueue.Push(std::move(counts), CycleDelay(cfg, cfg.CREDIT_RETURN_DELAY_VSW_VSW));
}

void zel2_vault_switch::IncrementCreditCount() {
  FiringScope firing(creditDelayQueue.queue);
  ZEL_ASSERT(!creditDelayQueue.empty());
  const std::vector<int>& counts = creditDelayQueue.front();
  for (unsigned quad = 0; quad < counts.size(); ++quad) {
    if (counts[quad] <= 0) continue;
    destinationCredits[quad] += counts[quad];
    if (destinationCredits[quad] > static_cast<int32_t>(cfg.VSW_INTERQUAD_BUFFER_SIZE)) {
      PlainError() << "Credit overflow in quad " << id << " - index " << quad << std::endl;
      FatalAbort();
    }
  }
  creditDelayQueue.Pop();
  handleQueuesEvent.notify(cfg.CORE_CLK);
}

void zel2_vault_switch::IncrementZCreditCount() {
  FiringScope firing(zcreditDelayQueue.queue);
  // clang-format off
  ZEL_ASSERT(!zcreditDelayQueue.empty() && zcreditDelayQueue.front()>0);
  // clang-format on
  unsigned zPeer = 0;
  if (ZPeer(zPeer)) {
    destinationCredits[zPeer] += zcreditDelayQueue.front();
    if (destinationCredits[zPeer] > static_cast<int32_t>(cfg.VSW_INTERQUAD_BUFFER_SIZE)) {
      PlainError() << "Z-Credit overflow in quad " << id << std::endl;
      FatalAbort();
    }
  }
  zcreditDelayQueue.Pop();
  handleQueuesEvent.notify(cfg.CORE_CLK);
}

// ---- Diagnostics ------------------------------------------------------------

void zel2_vault_switch::DumpState() {
  std::cout << "== VSW" << id << std::endl;
  std::cout << "\t\tDestination Credits [";
  for (int32_t credits : destinationCredits) std::cout << credits << ", ";
  std::cout << "]" << std::endl;

  auto printFlits = [](const std::vector<Flit_P>& flits) {
    for (std::size_t i = 0; i < flits.size(); ++i) std::cout << "\t\t " << i << "] " << flits[i] << std::endl;
  };
  const unsigned V = cfg.VAULTS_PER_QUAD;
  for (unsigned v = 0; v < V; ++v) {
    std::cout << "\t\tVC" << V * id + v << " Buffer - " << responseBuffers[v].size() << " entries"
              << std::endl;
    printFlits(responseBuffers[v]);
  }
  std::cout << "\t\tLocal Smoothing Buffer : " << smoothingBuffers[id].size() << " entries" << std::endl;
  printFlits(smoothingBuffers[id]);
  for (unsigned r = 0; r < interquadBuffers.size(); ++r) {
    std::cout << "\t\tQ" << QuadOfPeer(r) << " : " << interquadBuffers[r].size() << " entries" << std::endl;
    printFlits(interquadBuffers[r]);
  }
}

void zel2_vault_switch::PrintInterquad(Flit_P flit, unsigned int peer) {
  const char* shortText = nullptr;
  switch (flit->command) {
    case RD_RSP:
      shortText = "RD_RS";
      break;
    case WR_RSP:
      shortText = "WR_RS";
      break;
    default:
      std::cout << "WTF TSV FILE" << std::endl;
      FatalExit0();
  }
  if (id > 3) return;
  const char* axis = InterquadAxis(id, QuadOfPeer(peer));
  if (axis == nullptr) {
    std::cout << "ERROR writing vsw" << id << " interquad to tsv file" << std::endl;
    FatalExit0();
  }
  const uint32_t tag = flit->hostTag >= 0 ? static_cast<uint32_t>(flit->hostTag) : flit->tag;
  // Columns 4 to 7 mean nothing for a response and stay empty.
  tsvFile << static_cast<double>(TraceTimeNs()) << "\t" << axis << id << "_rsp\t" << flit->sourceLink
          << "\t\t\t\t\t0x" << std::hex << tag << std::dec << "\t" << flit->flitNumber << "\t" << shortText
          << "\t0\t0\t0\t0" << std::endl;
}

}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak
