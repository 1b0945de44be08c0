// SPDX-License-Identifier: Apache-2.0
// The response crossbar of one quad. Response flits come in from the quad's
// vault controllers and from the vault switches of the other quads, and each
// leaves toward the link master of the quad its request came in on (its
// sourceLink): straight to this quad's link master, or across one quad
// boundary to the home quad's vault switch.
//
//   from a slice:   sliceFlits -> responseLatches[v] -> responseBuffers[v]
//                   -> smoothingBuffers[home] -> linkMasterFlits or interquadFlitsOut
//   from a peer:    interquadFlitsIn -> interquadLatches[r] -> interquadBuffers[r]
//                   -> linkMasterFlits
//
// Every hop out of the switch is paid for with a credit of the far end's
// buffer, counted in flits, and the switch hands credits back for what leaves
// its own buffers. A peer index r stands for quad r if r < id, else quad r + 1.
//
// The fabric is laid out for four quads: quad pairs (0, 3) and (1, 2) are
// the diagonal ("Z") pairs, and the link master's round robin names the local
// smoothing buffer with the fixed value 3. Neither follows NUM_QUADS.
#ifndef ZEL2_VAULT_SWITCH_H
#define ZEL2_VAULT_SWITCH_H

#include <cstdint>
#include <systemc>
#include <vector>

#include "zel2/Config.h"
#include "zel2/StatsKeeper.h"
#include "zel2/zel2_flit.h"
#include "zel2/zel2_utils.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {

class zel2_vault_switch : public sc_core::sc_module {
 public:
  // ---- Ports (Q = NUM_QUADS, V = VAULTS_PER_QUAD)
  // Response flits of each vault controller: V x FLITS_OUT_PER_CYCLE_VC.
  sc_core::sc_vector<sc_core::sc_vector<sc_core::sc_in<Flit_P>>> sliceFlits;
  // Flits to this quad's link master; slot s carries the s-th flit of a cycle.
  sc_core::sc_vector<sc_core::sc_out<Flit_P>> linkMasterFlits;
  // Flits to and from the peers: Q - 1 x FLITS_PER_CYCLE_VSW, by peer index.
  sc_core::sc_vector<sc_core::sc_vector<sc_core::sc_out<Flit_P>>> interquadFlitsOut;
  sc_core::sc_vector<sc_core::sc_vector<sc_core::sc_in<Flit_P>>> interquadFlitsIn;
  // Credit pulses from the link master.
  sc_core::sc_in<int> linkMasterCredits;
  // Credit pulses out: index v to vault controller v, index V + r to peer r.
  sc_core::sc_vector<sc_core::sc_out<int>> creditsOut;
  // Credit pulses from the peers, by peer index.
  sc_core::sc_vector<sc_core::sc_in<int>> interquadCreditsIn;

  // ---- Configuration
  const Config& cfg;
  StatsKeeper& stats;
  unsigned id;  // quad number

  // ---- Buffers, all of Flit_P in arrival order
  // Flits from each vault in the input latency, with the time each may leave.
  std::vector<std::vector<Flit_P>> responseLatches;
  std::vector<std::vector<sc_core::sc_time>> responseLatchTimes;
  // Per vault; never above VSW_RESPONSE_BUFFER_SIZE, which the vault
  // controller's response credits guarantee.
  std::vector<std::vector<Flit_P>> responseBuffers;
  // Flits from each peer in the input latency, with the time each may leave.
  std::vector<std::vector<Flit_P>> interquadLatches;
  std::vector<std::vector<sc_core::sc_time>> interquadLatchTimes;
  // Per peer; never above VSW_INTERQUAD_BUFFER_SIZE, which the peer's
  // destinationCredits guarantee.
  std::vector<std::vector<Flit_P>> interquadBuffers;
  // Per home quad: SMOOTHING_BUFFER_LM_SIZE for this quad, else
  // SMOOTHING_BUFFER_Q_SIZE; capacity is checked before each move. Each
  // flit may leave from its smoothingTimes entry on.
  std::vector<std::vector<Flit_P>> smoothingBuffers;
  std::vector<std::vector<sc_core::sc_time>> smoothingTimes;

  // ---- Counters and flags
  std::vector<unsigned> responseTails;             // tail flits per response buffer
  std::vector<std::vector<int>> responseFlitsFor;  // [vault][home quad]: flits in the response buffer
  // Tail flits per inter-quad buffer; the extra slot Q - 1 counts tails put
  // into the local smoothing buffer, and nothing reads it.
  std::vector<unsigned> interquadTails;
  // Free places at each destination: entry id is the link master's buffer
  // (LINK_MASTER_BUFFER_SIZE at start), entry q the peer q's buffer for this
  // quad (VSW_INTERQUAD_BUFFER_SIZE at start). Back at its start value at
  // rest; never below zero, never above VSW_INTERQUAD_BUFFER_SIZE for a peer.
  std::vector<int32_t> destinationCredits;
  // Credits owed: index v to vault controller v, index V + r to peer r. Zero
  // at rest once the last pulse has carried them.
  std::vector<uint32_t> returnCredits;
  // Vault whose packet is in progress into each smoothing buffer, -1 for none:
  // keeps a packet contiguous from its header to its tail.
  std::vector<int> smoothingOwner;
  // Indexed by quad: the vault a smoothing buffer looks at first. Sized for
  // both V and Q so that every quad has an entry.
  std::vector<unsigned> vaultPointers;
  unsigned quadPointer;  // smoothing buffer served first
  // Source of the link master: r for interquadBuffers[r], 3 for the local
  // smoothing buffer.
  unsigned lmRoundRobin;
  bool lmPacketActive;  // a packet to the link master is between header and tail
  // Bit v: response buffer v at or above its threshold; bit V + r: inter-quad
  // buffer r at or above its threshold.
  uint64_t overThreshold;
  // Sources holding flits and holding whole packets. MoveToSmoothingBuffers
  // sets bit v for vault v, HandleQueues bit r for inter-quad buffer r (and bit
  // Q - 1 of sourcesWithFlits for the local smoothing buffer). The two index
  // spaces overlap on purpose, and only MoveToSmoothingBuffers clears them,
  // so a word may carry bits of the other process's last activation.
  uint64_t sourcesWithFlits;
  uint64_t sourcesWithPackets;

  // Priority has three states:
  //   idle   (neither flag)  -> on      when a buffer reaches its threshold
  //   on     (priorityOn)    -> locked  when turnOffPriorityEvent fires
  //   on                     -> idle    when HandleQueues finds overThreshold zero
  //   locked (priorityLock)  -> idle    when priorityLockEvent fires
  // While on, a destination with priorityFor set takes flits only from
  // sources over their threshold or in the middle of a packet.
  bool priorityOn;
  bool priorityLock;
  std::vector<bool> priorityFor;  // per destination quad, worked out anew at each activation

  // A destination short of credits stalls for two cycles at a time.
  std::vector<bool> throttled;
  std::vector<sc_core::sc_time> throttleUntil;

  std::vector<unsigned> flitsIntoQuad;    // flits into each smoothing buffer in this activation
  std::vector<unsigned> flitsOutOfVault;  // flits out of each response buffer in this activation
  uint64_t lastReceiveFromSlice;          // ticks of the last ReceiveFromSlices activation
  // Last occupancy sample per buffer: v for a response buffer, V + r for an
  // inter-quad buffer.
  std::vector<sc_core::sc_time> lastOccupancyChange;

  // ---- Credits from peers in their delay
  // Plain credits as vectors of Q counts indexed by quad; the FIFO's queue is
  // the creditEventQueue.
  DelayFifo<std::vector<int>> creditDelayQueue;
  // Credits from the Z peer; the FIFO's queue is the zcreditEventQueue.
  DelayFifo<int> zcreditDelayQueue;

  // ---- Events
  DelayQueue responseEventQueue;  // a response latch may have a flit due
  DelayQueue sourceEventQueue;    // an inter-quad latch may have a flit due
  sc_core::sc_event moveToSmoothingEvent;
  sc_core::sc_event handleQueuesEvent;
  sc_core::sc_event returnCreditsEvent;
  sc_core::sc_event turnOffPriorityEvent;
  sc_core::sc_event priorityLockEvent;

  SC_HAS_PROCESS(zel2_vault_switch);
  zel2_vault_switch(sc_core::sc_module_name name, const Config& cfg, StatsKeeper& stats, unsigned quadNumber);

  // ---- Processes, in the order of their registration
  void ReceiveFromSlices();        // thread: slice flits into the response latches
  void ReturnCredits();            // thread: one pulse of owed credits per returnCreditsEvent
  void IncrementCreditCount();     // plain peer credits out of their delay
  void IncrementZCreditCount();    // Z peer credits out of their delay
  void ReceiveLMCredits();         // link master credits, effective at the next core edge
  void HandleQueues();             // smoothing and inter-quad buffers to the destinations
  void MoveToSmoothingBuffers();   // response buffers sorted into smoothing buffers by home quad
  void MoveToResponseBuffer();     // thread: response latches into the response buffers
  void MoveToSourceBuffer();       // thread: inter-quad latches into the inter-quad buffers
  void ReceiveFromInterQuad();     // thread: peer flits into the inter-quad latches
  void ReceiveInterQuadCredits();  // peer credit pulses into their delay
  void TurnOffPriority();          // a priority period ran its full time
  void TurnOffPriorityLock();      // the pause after a priority period is over

  // ---- Diagnostics
  // Prints destination credits and the response, local smoothing and
  // inter-quad buffers.
  void DumpState();
  // Appends one line to tsvFile for `flit` crossing from this quad to peer
  // index `peer`.
  void PrintInterquad(Flit_P flit, unsigned int peer);

 private:
  unsigned QuadOfPeer(unsigned peer) const { return peer < id ? peer : peer + 1; }
  unsigned PeerOfQuad(unsigned quad) const { return quad > id ? quad - 1 : quad; }
  // The diagonal partner of this quad; false for a quad number above 3.
  bool ZPeer(unsigned& quad) const;
  // A source has reached its threshold: starts a priority period unless one
  // is on or locked. True while a period is on, so that the caller marks the
  // source's destinations.
  bool JoinPriority();
  // Marks every home quad that has flits in response buffer `vault`.
  void MarkPriorityForVault(unsigned vault);
  // Steps of MoveToSmoothingBuffers: the vault scan for one smoothing buffer,
  // the walk through one response buffer (true when the lanes of the moved
  // flits wrapped and the scan stops), and the move of one flit.
  void FillSmoothingBuffer(unsigned quad, unsigned capacity, bool& flitMoved, bool& workRemains);
  bool WalkResponseBuffer(unsigned quad, unsigned vault, unsigned capacity, bool& flitMoved);
  void MoveToSmoothing(unsigned quad, unsigned vault, std::size_t index);
  // Steps of HandleQueues: thresholds and priority, throttles, and the two
  // kinds of destination.
  void UpdateThresholds();
  void UpdateThrottles();
  void ServeLinkMaster(unsigned quad, bool& creditOwed, bool& workRemains);
  void ServePeer(unsigned quad, bool& workRemains);
  // Off the core clock is a model error.
  void CheckOnCoreClock() const;
  // Adds the buffer's level times the time since the last sample to
  // vswBufferTime[id][index].
  void SampleOccupancy(unsigned index, std::size_t level);
};

}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak

#endif  // ZEL2_VAULT_SWITCH_H
