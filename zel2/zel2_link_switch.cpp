// SPDX-License-Identifier: Apache-2.0
#include "zel2/zel2_link_switch.h"

#include <algorithm>
#include <iostream>
#include <utility>

#include "zel2/zel2_cube.h"  // tsvFile

namespace Sornak {
namespace Internal {
namespace ZEL2 {

using sc_core::sc_time;
using sc_core::sc_time_stamp;

namespace {
constexpr uint32_t NO_PACKET = 0xffffffffu;  // tag of "no packet in progress"
}  // namespace

zel2_link_switch::zel2_link_switch(sc_core::sc_module_name name, const Config& config,
                                   StatsKeeper& statsKeeper, unsigned quadNumber)
    : sc_module(name),
      linkSlaveFlits("linkSlaveFlits"),
      busyOut("busyOut"),
      vaultFlits("vaultFlits"),
      interquadFlitsOut("interquadFlitsOut"),
      interquadFlitsIn("interquadFlitsIn"),
      sliceCredits("sliceCredits"),
      writeCreditsIn("writeCreditsIn"),
      returnTokensOut("returnTokensOut"),
      interquadCreditsIn("interquadCreditsIn"),
      earlyCreditsOut("earlyCreditsOut"),
      earlyCreditsIn("earlyCreditsIn"),
      cfg(config),
      stats(statsKeeper),
      id(quadNumber),
      sourcePointer(quadNumber),
      tailIncreaseQueue("tailEventQueue", DelayQueue::kMethodConsumer),
      busyQueue("busyEventQueue", DelayQueue::kMethodConsumer),
      creditIncreaseQueue("creditEventQueue", DelayQueue::kMethodConsumer),
      earlyCreditQueue("earlyCreditEventQueue"),
      linkPacketTag(NO_PACKET),
      lastLinkReceive(sc_core::SC_ZERO_TIME) {
  const unsigned Q = cfg.NUM_QUADS;
  const unsigned V = cfg.VAULTS_PER_QUAD;
  const unsigned peers = Q - 1;
  const unsigned destinations = V + Q - 1;

  linkSlaveFlits.init(cfg.FLITS_PER_CYCLE_LINK);
  vaultFlits.init(V * cfg.FLITS_IN_PER_CYCLE_VC);
  const unsigned width = cfg.FLITS_PER_CYCLE_LSW;
  interquadFlitsOut.init(peers, [width](const char* nm, size_t) {
    auto* ports = new FlitOutVector(nm);
    ports->init(width);
    return ports;
  });
  interquadFlitsIn.init(peers, [width](const char* nm, size_t) {
    auto* ports = new FlitInVector(nm);
    ports->init(width);
    return ports;
  });
  sliceCredits.init(V);
  writeCreditsIn.init(V);
  returnTokensOut.init(Q);
  interquadCreditsIn.init(peers);
  earlyCreditsOut.init(peers);
  earlyCreditsIn.init(peers);

  sourceBuffers.resize(Q);
  lineTimes.resize(Q);
  firstLine.assign(Q, std::vector<int32_t>(destinations, -1));
  destinationCredits.assign(destinations, cfg.LSW_INTERQUAD_BUFFER_SIZE);
  for (unsigned d = 0; d < V; ++d) destinationCredits[d] = cfg.TRANSACTION_Q_CAPACITY;
  writeCredits.assign(V, cfg.DATA_Q_CAPACITY);
  returnCredits.assign(Q, 0);
  destinationPointers.resize(Q);
  for (unsigned q = 0; q < Q; ++q) destinationPointers[q] = q;
  localVaultPointers.assign(Q, 0);
  destinationOwner.assign(destinations, -1);
  throttled.assign(destinations, false);
  throttleUntil.assign(destinations, sc_core::SC_ZERO_TIME);
  flitsToDestination.assign(destinations, 0);
  flitsFromSource.assign(Q, 0);
  completePackets.assign(Q, 0);
  interquadPacketTags.assign(peers, NO_PACKET);
  lastOccupancyChange.assign(Q, sc_core::SC_ZERO_TIME);

  SC_METHOD(ReceiveFromLinkSlave);
  for (auto& port : linkSlaveFlits) sensitive << port;
  dont_initialize();

  SC_METHOD(HandleQueues);
  sensitive << handleQueuesEvent;
  dont_initialize();

  SC_THREAD(ReturnTokens);
  sensitive << returnTokensEvent;

  SC_THREAD(EarlyCreditReturn);
  sensitive << earlyCreditQueue.queue;

  SC_METHOD(ToggleBusy);
  sensitive << busyQueue.queue;
  dont_initialize();

  // With a single quad there are no inter-quad ports, and the processes that
  // serve them would have nothing to wait for.
  if (peers > 0) {
    SC_METHOD(ReceiveFromInterQuad);
    for (auto& ports : interquadFlitsIn)
      for (auto& port : ports) sensitive << port;
    dont_initialize();
  }

  SC_METHOD(ReceiveSliceCredits);
  for (auto& port : sliceCredits) sensitive << port;
  dont_initialize();

  SC_METHOD(ReceiveWriteCredits);
  for (auto& port : writeCreditsIn) sensitive << port;
  dont_initialize();

  if (peers > 0) {
    SC_METHOD(ReceiveInterQuadCredits);
    for (auto& port : interquadCreditsIn) sensitive << port;
    dont_initialize();

    SC_METHOD(IncrementCredits);
    sensitive << creditIncreaseQueue.queue;
    dont_initialize();

    SC_METHOD(ReceiveEarlyInterQuadCredits);
    for (auto& port : earlyCreditsIn) sensitive << port;
    dont_initialize();
  }

  SC_METHOD(TailIncrease);
  sensitive << tailIncreaseQueue.queue;
  dont_initialize();
}

// ---- Index helpers

unsigned zel2_link_switch::DestinationIndex(const Flit& flit) const {
  const unsigned V = cfg.VAULTS_PER_QUAD;
  const unsigned quad = flit.destination / V;
  if (quad == id) return flit.destination % V;
  return V + quad - (quad > id ? 1 : 0);
}

unsigned zel2_link_switch::QuadOfDestination(unsigned d) const {
  return QuadOfPeer(d - cfg.VAULTS_PER_QUAD);
}

bool zel2_link_switch::LineBelongsTo(const Line& line, unsigned d) const {
  const unsigned V = cfg.VAULTS_PER_QUAD;
  const unsigned destination = line.front()->destination;
  if (d < V) return destination == V * id + d;
  return destination / V == QuadOfDestination(d);
}

void zel2_link_switch::SampleOccupancy(unsigned source) {
  RaiseTimeIntegral(stats.lswBufferTime[id][source], lastOccupancyChange[source],
                    sourceBuffers[source].size());
}

// ---- Input from the link

void zel2_link_switch::ReceiveFromLinkSlave() {
  const sc_time now = sc_time_stamp();
  // The link delivers at most once per time step; a second delivery (or a
  // first one at time zero) means its rate matching is broken.
  if (now == lastLinkReceive) {
    TimedError() << "LS sent to DIS twice on one cycle!!!!" << std::endl;
    FatalExit0();
  }
  const unsigned V = cfg.VAULTS_PER_QUAD;
  std::deque<Line>& lines = sourceBuffers[id];
  const size_t firstNewLine = lines.size();

  for (unsigned i = 0; i < linkSlaveFlits.size(); ++i) {
    if (!linkSlaveFlits[i].event()) continue;
    Flit_P flit = linkSlaveFlits[i].read();
    flit->lane = static_cast<int32_t>(i);

    if (linkPacketTag != NO_PACKET && linkPacketTag != flit->tag) {
      PlainError() << "Non-contiguous tag received from LS in LSW" << id << " (tag=" << linkPacketTag
                   << ")" << std::endl
                   << flit << std::endl;
      FatalExit0();
    }
    if (flit->header) linkPacketTag = flit->tag;
    if (flit->tail) {
      linkPacketTag = NO_PACKET;
      flit->timeStamps[1] = now;
      tailIncreaseQueue.Push(id, CycleDelay(cfg, cfg.LSW_INPUT_DELAY));
    }

    // A line of this activation takes the flit if it goes to the same local
    // vault, or to the same other quad. Such a flit costs no line of space,
    // so its token goes back at once.
    const unsigned quad = flit->destination / V;
    bool joined = false;
    for (size_t j = firstNewLine; j < lines.size() && !joined; ++j) {
      const Flit& lead = *lines[j].front();
      const unsigned leadQuad = lead.destination / V;
      if ((leadQuad == id && lead.destination == flit->destination) ||
          (leadQuad != id && leadQuad == quad)) {
        lines[j].push_back(flit);
        ++returnCredits[id];
        returnTokensEvent.notify();
        joined = true;
      }
    }
    if (joined) continue;

    const unsigned d = DestinationIndex(*flit);
    if (firstLine[id][d] == -1) firstLine[id][d] = static_cast<int32_t>(lines.size());
    SampleOccupancy(id);
    lines.push_back(Line{flit});
    lineTimes[id].push_back(now + CycleDelay(cfg, cfg.LSW_INPUT_DELAY));
    if (lines.size() == cfg.LSW_INPUT_BUFFER_THRESHOLD + 1)
      busyQueue.Push(true, CycleDelay(cfg, cfg.BUSY_SIGNAL_DELAY));
    if (lines.size() > cfg.LSW_INPUT_BUFFER_SIZE) {
      TimedError() << "Link Switch " << id << " input buffer exceeded max capacity (" << lines.size()
                   << ")" << std::endl;
      ZEL_ASSERT(false);
    }
  }
  handleQueuesEvent.notify(CycleDelay(cfg, 1));
  lastLinkReceive = now;
}

// ---- Input from other quads

void zel2_link_switch::ReceiveFromInterQuad() {
  const sc_time now = sc_time_stamp();
  const unsigned V = cfg.VAULTS_PER_QUAD;
  const unsigned lanes = cfg.FLITS_PER_CYCLE_LSW;
  std::vector<int> earlyCredits(interquadFlitsIn.size(), 0);
  bool anyEarly = false;

  for (unsigned r = 0; r < interquadFlitsIn.size(); ++r) {
    const unsigned q = QuadOfPeer(r);
    std::deque<Line>& lines = sourceBuffers[q];
    const size_t firstNewLine = lines.size();
    std::vector<bool> packedLanes(lanes, false);  // lanes given out by packing in this activation

    for (unsigned p = 0; p < interquadFlitsIn[r].size(); ++p) {
      if (!interquadFlitsIn[r][p].event()) continue;
      Flit_P flit = interquadFlitsIn[r][p].read();
      flit->lane = static_cast<int32_t>(p);

      if (interquadPacketTags[r] != NO_PACKET && interquadPacketTags[r] != flit->tag) {
        PlainError() << "Non-contiguous tag received from interquad in LSW" << id << std::endl
                     << flit << std::endl;
        FatalExit0();
      }
      if (flit->header) interquadPacketTags[r] = flit->tag;
      if (flit->tail) {
        interquadPacketTags[r] = NO_PACKET;
        flit->timeStamps[2] = now;
        tailIncreaseQueue.Push(q, CycleDelay(cfg, cfg.LSW_INTERQUAD_DELAY));
      }
      SampleOccupancy(q);

      const unsigned v = flit->destination % V;
      bool placed = false;
      bool mustOpen = false;
      if (cfg.PACK_INTERQUAD != 0 && firstLine[q][v] != -1) {
        // Packing: the flit joins the newest line of its vault on the next
        // lane that is free, and keeps that line's departure time.
        for (size_t j = lines.size(); j-- > 0;) {
          if (lines[j].front()->destination != flit->destination) continue;
          unsigned n = static_cast<unsigned>(lines[j].back()->lane + 1);
          if (n < lanes)
            while (n < lanes && packedLanes[n]) ++n;
          if (n < lanes) {
            flit->lane = static_cast<int32_t>(n);
            packedLanes[n] = true;
            lines[j].push_back(flit);
            placed = true;
          } else {
            mustOpen = true;
          }
          break;
        }
      }
      if (!placed && !mustOpen) {
        // A line of this activation for the same vault takes the flit; the
        // credit it cost goes back early, as it took no line of space.
        for (size_t j = firstNewLine; j < lines.size(); ++j) {
          if (lines[j].front()->destination != flit->destination) continue;
          lines[j].push_back(flit);
          ++earlyCredits[r];
          anyEarly = true;
          placed = true;
          break;
        }
      }
      if (!placed) {
        if (firstLine[q][v] == -1) firstLine[q][v] = static_cast<int32_t>(lines.size());
        lines.push_back(Line{flit});
        lineTimes[q].push_back(now + CycleDelay(cfg, cfg.LSW_INTERQUAD_DELAY));
      }
      if (lines.size() > cfg.LSW_INTERQUAD_BUFFER_SIZE) {
        TimedError() << "Link Switch " << id << " interquad buffer " << q << " exceeded max capacity"
                     << std::endl;
        ZEL_ASSERT(false);
      }
    }
  }
  if (anyEarly)
    earlyCreditQueue.Push(std::move(earlyCredits), CycleDelay(cfg, cfg.EARLY_CREDIT_RETURN_DELAY_LSW));
  handleQueuesEvent.notify(CycleDelay(cfg, 1));
}

void zel2_link_switch::TailIncrease() {
  FiringScope firing(tailIncreaseQueue.queue);
  ZEL_ASSERT(tailIncreaseQueue.size());
  ++completePackets[tailIncreaseQueue.Pop()];
}

void zel2_link_switch::ToggleBusy() {
  FiringScope firing(busyQueue.queue);
  busyOut.write(busyQueue.Pop());
}

// ---- Arbitration

void zel2_link_switch::HandleQueues() {
  const sc_time now = sc_time_stamp();
  if (now.value() % cfg.CORE_CLK.value() != 0) {
    std::cout << "ERROR: off timing in LSW" << id << " @ " << now << std::endl;
    ZEL_ASSERT(0);
  }
  UpdateThrottles();

  const unsigned Q = cfg.NUM_QUADS;
  const unsigned startSource = sourcePointer;
  bool startSourceFinished = false;
  do {
    ServeSource(sourcePointer, startSource, startSourceFinished);
    sourcePointer = (sourcePointer + 1) % Q;
  } while (sourcePointer != startSource);

  // First place passes on once the first source has finished a packet, or
  // when it has no complete packet to finish.
  if (startSourceFinished || completePackets[startSource] == 0) sourcePointer = (sourcePointer + 1) % Q;
  std::fill(flitsToDestination.begin(), flitsToDestination.end(), 0);
  std::fill(flitsFromSource.begin(), flitsFromSource.end(), 0);
}

// A destination short of credits closes for THROTTLE_STALL_TIME, then opens
// for exactly one activation, and closes again if it is still short.
void zel2_link_switch::UpdateThrottles() {
  const sc_time now = sc_time_stamp();
  const unsigned V = cfg.VAULTS_PER_QUAD;
  for (unsigned d = 0; d < throttled.size(); ++d) {
    const bool isShort = d < V ? (destinationCredits[d] < cfg.CREDIT_THROTTLE_VC ||
                                  writeCredits[d] < cfg.CREDIT_THROTTLE_VC)
                               : destinationCredits[d] < cfg.CREDIT_THROTTLE_LSW;
    if (throttled[d]) {
      if (!isShort || now >= throttleUntil[d]) throttled[d] = false;
    } else if (isShort) {
      throttled[d] = true;
      throttleUntil[d] = now + CycleDelay(cfg, cfg.THROTTLE_STALL_TIME);
    }
  }
}

void zel2_link_switch::ServeSource(unsigned src, unsigned startSource, bool& startSourceFinished) {
  const unsigned Q = cfg.NUM_QUADS;
  const unsigned V = cfg.VAULTS_PER_QUAD;
  // Sized by the link's width for every source, as inter-quad lanes are
  // expected to fit in it too; a larger lane grows it.
  laneTaken.assign(cfg.FLITS_PER_CYCLE_LINK, false);  // kept as a member to reuse its storage
  const unsigned vaultStart = localVaultPointers[src];
  unsigned firstDestination = 0;
  bool rotate = false;

  for (unsigned step = 0; step < V + Q - 1; ++step) {
    unsigned d;
    unsigned limit;
    const unsigned pointer = destinationPointers[src];
    if (src == id && pointer == src) {
      d = localVaultPointers[src];
      limit = cfg.FLITS_IN_PER_CYCLE_VC;
    } else if (src == id) {
      d = pointer + V - (pointer > src ? 1 : 0);
      limit = cfg.FLITS_PER_CYCLE_LSW_REMOTE;
    } else {
      // Another quad's flits all go to local vaults; its pointer runs over
      // vault indices but wraps at NUM_QUADS.
      d = pointer;
      limit = cfg.FLITS_IN_PER_CYCLE_VC;
    }
    if (step == 0) firstDestination = d;

    const bool tailSent =
        SendFromLine(src, d, limit, startSourceFinished, startSource, laneTaken);
    if (tailSent && d == firstDestination) rotate = true;

    if (src == id && pointer == src) {
      localVaultPointers[src] = (localVaultPointers[src] + 1) % V;
      if (localVaultPointers[src] == vaultStart) {
        localVaultPointers[src] = (vaultStart + 1) % V;
        destinationPointers[src] = (pointer + 1) % Q;
      }
    } else if (src == id) {
      destinationPointers[src] = (pointer + 1) % Q;
    } else {
      destinationPointers[src] = (pointer + 1) % Q;
      if (destinationPointers[src] == firstDestination) break;
    }
  }

  // As long as anything waits, arbitrate again next cycle.
  if (!sourceBuffers[src].empty()) handleQueuesEvent.notify(CycleDelay(cfg, 1));
  // The first destination keeps first place until a tail has gone to it.
  if (rotate) destinationPointers[src] = (destinationPointers[src] + 1) % Q;
}

bool zel2_link_switch::SendFromLine(unsigned src, unsigned d, unsigned limit,
                                    bool& startSourceFinished, unsigned startSource,
                                    std::vector<bool>& laneTaken) {
  const int32_t index = firstLine[src][d];
  if (index == -1) return false;
  if (sc_time_stamp() < lineTimes[src][index]) return false;
  if (destinationOwner[d] != -1 && destinationOwner[d] != static_cast<int32_t>(src)) return false;
  if (throttled[d]) return false;
  Line& line = sourceBuffers[src][index];
  if (line.empty()) return false;
  if (flitsFromSource[src] >= cfg.FLITS_PER_CYCLE_LSW) return false;

  const unsigned V = cfg.VAULTS_PER_QUAD;
  bool tailSent = false;
  while (true) {
    const Flit_P flit = line.front();
    const unsigned lane = static_cast<unsigned>(flit->lane);
    // One flit per lane of a source per activation.
    if (lane < laneTaken.size() && laneTaken[lane]) break;
    if (flitsToDestination[d] >= limit) break;
    if (!TakeCredits(d, *flit)) break;

    ++stats.lswFlitsMoved[id];
    if (d < V)
      vaultFlits[cfg.FLITS_IN_PER_CYCLE_VC * d + flitsToDestination[d]].write(flit);
    else
      interquadFlitsOut[d - V][flitsToDestination[d]].write(flit);
    if (lane >= laneTaken.size()) laneTaken.resize(lane + 1, false);
    laneTaken[lane] = true;
    ++flitsToDestination[d];
    ++flitsFromSource[src];

    // The owner shuts every other source out of d until its tail has gone,
    // which keeps packets contiguous at the destination.
    if (flit->header) destinationOwner[d] = static_cast<int32_t>(src);
    if (flit->tail) {
      if (src == startSource) startSourceFinished = true;
      tailSent = true;
      destinationOwner[d] = -1;
      --completePackets[src];
    }
    SampleOccupancy(src);
    line.pop_front();
    // When packing, lines are no longer the unit of an inter-quad source's
    // space: each flit's credit goes back as it leaves.
    if (cfg.PACK_INTERQUAD != 0 && src != id) {
      ++returnCredits[src];
      returnTokensEvent.notify();
    }
    if (line.empty()) {
      RetireLine(src, d, static_cast<unsigned>(index));
      break;
    }
    if (flitsFromSource[src] >= cfg.FLITS_PER_CYCLE_LSW) break;
  }
  return tailSent;
}

// A local vault counts commands and data queue entries; a packet of L bytes
// takes one command credit and 2 * ceil(L / 32) write credits, and every flit
// asks for two write credits to stand free. Another quad counts flits.
bool zel2_link_switch::TakeCredits(unsigned d, const Flit& flit) {
  if (flit.destination / cfg.VAULTS_PER_QUAD != id) {
    if (destinationCredits[d] < 1) return false;
    --destinationCredits[d];
    return true;
  }
  if (writeCredits[d] < 2) return false;
  if (flit.header) {
    if (destinationCredits[d] < 1) return false;
    --destinationCredits[d];
    if (!flit.tail) --writeCredits[d];
    return true;
  }
  if (!flit.tail || flit.requestLength % 32 != 0) --writeCredits[d];
  return true;
}

void zel2_link_switch::RetireLine(unsigned src, unsigned d, unsigned index) {
  firstLine[src][d] = -1;
  std::deque<Line>& lines = sourceBuffers[src];
  lines.erase(lines.begin() + index);
  lineTimes[src].erase(lineTimes[src].begin() + index);
  if (src == id && lines.size() == cfg.LSW_INPUT_BUFFER_THRESHOLD)
    busyQueue.Push(false, CycleDelay(cfg, cfg.BUSY_SIGNAL_DELAY));
  if (cfg.PACK_INTERQUAD == 0 || src == id) {
    ++returnCredits[src];
    returnTokensEvent.notify();
  }
  for (unsigned e = 0; e < firstLine[src].size(); ++e)
    if (e != d && firstLine[src][e] > static_cast<int32_t>(index)) --firstLine[src][e];
  for (size_t j = index; j < lines.size(); ++j) {
    if (LineBelongsTo(lines[j], d)) {
      firstLine[src][d] = static_cast<int32_t>(j);
      break;
    }
  }
}

// ---- Credits and tokens

void zel2_link_switch::ReturnTokens() {
  const unsigned Q = cfg.NUM_QUADS;
  while (true) {
    wait();
    for (unsigned q = 0; q < Q; ++q) {
      if (q == id) {
        // The test and the amount use two different keys on purpose.
        const uint32_t owed = returnCredits[id];
        if (owed > cfg.FLITS_PER_CYCLE_LINK) {
          returnTokensOut[id].write(static_cast<int>(cfg.FLITS_PER_CYCLE_LSW));
          returnCredits[id] -= cfg.FLITS_PER_CYCLE_LSW;
        } else {
          returnTokensOut[id].write(static_cast<int>(owed));
          returnCredits[id] = 0;
        }
      } else {
        // Other quads get one credit per pulse, however much they are owed.
        if (returnCredits[q] == 0) continue;
        returnTokensOut[q].write(1);
        --returnCredits[q];
      }
      if (returnCredits[q] > 0) returnTokensEvent.notify(CycleDelay(cfg, 1));
    }
    wait(HalfCycle(cfg));
    for (auto& port : returnTokensOut) port.write(0);
  }
}

void zel2_link_switch::EarlyCreditReturn() {
  while (true) {
    wait();
    const std::vector<int> credits = earlyCreditQueue.Pop();
    for (unsigned r = 0; r < earlyCreditsOut.size(); ++r) earlyCreditsOut[r].write(credits[r]);
    wait(HalfCycle(cfg));
    for (auto& port : earlyCreditsOut) port.write(0);
  }
}

// A credit that comes on an edge is usable two edges later, one that comes
// between edges at the edge after next; HandleQueues stays on the clock.
void zel2_link_switch::ReceiveSliceCredits() {
  const unsigned V = cfg.VAULTS_PER_QUAD;
  for (unsigned v = 0; v < sliceCredits.size(); ++v) {
    if (!sliceCredits[v].event() || !sliceCredits[v].read()) continue;
    ++destinationCredits[v];
    handleQueuesEvent.notify(CycleDelay(cfg, 1) + cfg.NextCoreEdgeDelay());
    if (destinationCredits[v] > cfg.TRANSACTION_Q_CAPACITY) {
      TimedError() << "LSW" << id << " Received too many credits from VC" << V * id + v
                   << " [Now have : " << destinationCredits[v] << "]" << std::endl;
      ZEL_ASSERT(false);
    }
  }
}

void zel2_link_switch::ReceiveWriteCredits() {
  const unsigned V = cfg.VAULTS_PER_QUAD;
  for (unsigned v = 0; v < writeCreditsIn.size(); ++v) {
    if (!writeCreditsIn[v].event() || writeCreditsIn[v].read() < 1) continue;
    writeCredits[v] += static_cast<uint32_t>(writeCreditsIn[v].read());
    handleQueuesEvent.notify(CycleDelay(cfg, 1) + cfg.NextCoreEdgeDelay());
    if (writeCredits[v] > cfg.DATA_Q_CAPACITY) {
      TimedError() << "LSW" << id << " Received too many write credits from VC" << V * id + v
                   << std::endl;
      ZEL_ASSERT(false);
    }
  }
}

void zel2_link_switch::ReceiveInterQuadCredits() {
  std::vector<int> credits(interquadCreditsIn.size(), 0);
  bool any = false;
  for (unsigned r = 0; r < interquadCreditsIn.size(); ++r) {
    if (!interquadCreditsIn[r].event() || interquadCreditsIn[r].read() < 1) continue;
    credits[r] = interquadCreditsIn[r].read();
    any = true;
  }
  if (any) creditIncreaseQueue.Push(std::move(credits), CycleDelay(cfg, cfg.CREDIT_RETURN_DELAY_LSW));
}

void zel2_link_switch::IncrementCredits() {
  FiringScope firing(creditIncreaseQueue.queue);
  const std::vector<int> credits = creditIncreaseQueue.Pop();
  // q is a peer index here.
  for (unsigned q = 0; q < credits.size(); ++q) {
    if (credits[q] == 0) continue;
    destinationCredits[cfg.VAULTS_PER_QUAD + q] += static_cast<uint32_t>(credits[q]);
    ZEL_ASSERT(destinationCredits[cfg.VAULTS_PER_QUAD+q]<=cfg.LSW_INTERQUAD_BUFFER_SIZE);
  }
  handleQueuesEvent.notify(CycleDelay(cfg, 1));
}

void zel2_link_switch::ReceiveEarlyInterQuadCredits() {
  for (unsigned i = 0; i < earlyCreditsIn.size(); ++i) {
    if (!earlyCreditsIn[i].event() || earlyCreditsIn[i].read() < 1) continue;
    destinationCredits[cfg.VAULTS_PER_QUAD + i] += static_cast<uint32_t>(earlyCreditsIn[i].read());
    ZEL_ASSERT(destinationCredits[cfg.VAULTS_PER_QUAD+i]<=cfg.LSW_INTERQUAD_BUFFER_SIZE);
    handleQueuesEvent.notify(CycleDelay(cfg, 1));
  }
}

// ---- Diagnostics

void zel2_link_switch::DumpState() {
  const unsigned V = cfg.VAULTS_PER_QUAD;
  std::cout << "== LSW" << id << std::endl;
  std::cout << "\t Destination Credits [";
  for (unsigned d = 0; d < destinationCredits.size(); ++d) {
    if (d < V)
      std::cout << "[" << destinationCredits[d] << "," << writeCredits[d] << "], ";
    else
      std::cout << destinationCredits[d] << ", ";
  }
  std::cout << "]" << std::endl;
  std::cout << "  Return Credits [";
  for (uint32_t credits : returnCredits) std::cout << credits << ", ";
  std::cout << "]";
  for (unsigned q = 0; q < sourceBuffers.size(); ++q) {
    std::cout << "\t SourceBuffer " << q << " - " << sourceBuffers[q].size() << " entries" << std::endl;
    for (unsigned j = 0; j < sourceBuffers[q].size(); ++j) {
      std::cout << "   == Line " << j << std::endl;
      for (const Flit_P& flit : sourceBuffers[q][j]) std::cout << "\t\t   " << flit << std::endl;
    }
  }
}

void zel2_link_switch::PrintInterquad(Flit_P flit, unsigned int quad) {
  const char* command = nullptr;
  switch (flit->command) {
    case RD: command = "RD"; break;
    case WR: command = "WR"; break;
    case P_WR: command = "P_WR"; break;
    default:
      std::cout << "WTF TSV FILE" << std::endl;
      FatalExit0();
  }
  // The axes are those of a four-quad cube; larger quad numbers trace nothing.
  if (id > 3) return;
  const char* axis = InterquadAxis(id, quad);
  if (axis == nullptr) {
    std::cout << "ERROR with interquad tsv printing" << std::endl;
    FatalExit0();
  }
  tsvFile << static_cast<double>(TraceTimeNs()) << "\t" << axis << id << "_req\t" << flit->sourceLink
          << "\t0\t" << flit->destination << "\tXXX\t0xDONTCARE\t0x" << std::hex;
  if (flit->hostTag >= 0)
    tsvFile << flit->hostTag;
  else
    tsvFile << flit->tag;
  tsvFile << std::dec << "\t" << flit->flitNumber << "\t" << command << flit->requestLength
          << "\t0\t0\t0\t0" << std::endl;
}

}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak
