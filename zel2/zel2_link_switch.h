// SPDX-License-Identifier: Apache-2.0
// The request crossbar of one quad. It takes request flits from the quad's
// own link slave and from the link switches of the other quads, holds them in
// one source buffer per quad, and passes each packet, whole and contiguous, to
// a local vault controller or, when its vault lies in another quad, straight
// to that quad's link switch. It sends nothing without a credit from the far
// end and gives credits (and the link's tokens) back as its buffers drain.
//
// Indices used throughout, with Q = NUM_QUADS, V = VAULTS_PER_QUAD:
//  - destination index d: 0 .. V-1 is a local vault, V .. V+Q-2 another quad
//    (quad q has d = V + q - (q > id ? 1 : 0));
//  - source index: the quad number; source `id` is the own link, any other
//    source is the link switch of that quad;
//  - peer index r (inter-quad port vectors): quad r if r < id, else r + 1.
#ifndef ZEL2_LINK_SWITCH_H
#define ZEL2_LINK_SWITCH_H

#include <cstdint>
#include <deque>
#include <vector>

#include <systemc>

#include "zel2/Config.h"
#include "zel2/StatsKeeper.h"
#include "zel2/zel2_flit.h"
#include "zel2/zel2_utils.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {

class zel2_link_switch : public sc_core::sc_module {
 public:
  using FlitInVector = sc_core::sc_vector<sc_core::sc_in<Flit_P>>;
  using FlitOutVector = sc_core::sc_vector<sc_core::sc_out<Flit_P>>;
  // Flits that entered together for one destination; the unit of buffer space.
  // A first-in first-out list: flits join at the back and leave from the
  // front. Lines are made and dropped for nearly every packet, so a line is
  // one small vector with a read position rather than a deque, which would
  // allocate a map and a large block for each.
  class Line {
   public:
    explicit Line(const Flit_P& flit) {
      flits_.reserve(4);
      flits_.push_back(flit);
    }
    bool empty() const { return head_ == flits_.size(); }
    std::size_t size() const { return flits_.size() - head_; }
    const Flit_P& front() const { return flits_[head_]; }
    const Flit_P& back() const { return flits_.back(); }
    void push_back(const Flit_P& flit) { flits_.push_back(flit); }
    void pop_front() { ++head_; }
    using const_iterator = std::vector<Flit_P>::const_iterator;
    const_iterator begin() const { return flits_.begin() + static_cast<std::ptrdiff_t>(head_); }
    const_iterator end() const { return flits_.end(); }

   private:
    std::vector<Flit_P> flits_;
    std::size_t head_ = 0;  // flits before it have left
  };

  // ---- Ports
  FlitInVector linkSlaveFlits;           // from the link slave; the port index is the flit's lane
  sc_core::sc_out<bool> busyOut;         // tells the link to hold new packets back
  FlitOutVector vaultFlits;              // to local vault d, slot s at FLITS_IN_PER_CYCLE_VC * d + s
  sc_core::sc_vector<FlitOutVector> interquadFlitsOut;  // to peer r, slot by slot
  sc_core::sc_vector<FlitInVector> interquadFlitsIn;    // from peer r; the port index is the lane
  sc_core::sc_vector<sc_core::sc_in<bool>> sliceCredits;     // command credit pulses, per local vault
  sc_core::sc_vector<sc_core::sc_in<int>> writeCreditsIn;    // write credit pulses, per local vault
  sc_core::sc_vector<sc_core::sc_out<int>> returnTokensOut;  // per quad number: own entry to the link, others to peers
  sc_core::sc_vector<sc_core::sc_in<int>> interquadCreditsIn;  // credits for lines freed by peer r
  sc_core::sc_vector<sc_core::sc_out<int>> earlyCreditsOut;    // refunds to peer r for flits that joined a line
  sc_core::sc_vector<sc_core::sc_in<int>> earlyCreditsIn;      // such refunds from peer r

  // ---- State
  const Config& cfg;
  StatsKeeper& stats;
  unsigned id;  // quad number

  std::vector<std::deque<Line>> sourceBuffers;      // per source, lines in arrival order
  std::vector<std::deque<sc_core::sc_time>> lineTimes;  // per source and line: earliest departure
  std::vector<std::vector<int32_t>> firstLine;      // [source][d]: oldest line for d, -1 if none
  // Credits toward d: command credits for a local vault (never above
  // TRANSACTION_Q_CAPACITY), buffer credits of another quad (never above
  // LSW_INTERQUAD_BUFFER_SIZE). Back at those values when traffic has drained.
  std::vector<uint32_t> destinationCredits;
  std::vector<uint32_t> writeCredits;   // per local vault; never above DATA_Q_CAPACITY, back there at rest
  std::vector<uint32_t> returnCredits;  // per source: owed tokens or credits; 0 at rest
  unsigned sourcePointer;                   // source served first
  std::vector<unsigned> destinationPointers;  // per source: destination looked at first
  std::vector<unsigned> localVaultPointers;   // per source: local vault first (own source only)
  std::vector<int32_t> destinationOwner;      // per d: source with a packet in progress, -1 if free
  std::vector<bool> throttled;                // per d: closed for lack of credits
  std::vector<sc_core::sc_time> throttleUntil;  // per d: end of the stall
  std::vector<unsigned> flitsToDestination;   // per d, in the present activation
  std::vector<unsigned> flitsFromSource;      // per source, in the present activation
  std::vector<unsigned> completePackets;      // per source: tails past their input delay
  std::vector<bool> laneTaken;                // lanes used by the source being served (ServeSource)
  DelayFifo<unsigned> tailIncreaseQueue;      // tails on their way into completePackets (queue: tailEventQueue)
  DelayFifo<bool> busyQueue;                  // values on their way to busyOut (queue: busyEventQueue)
  DelayFifo<std::vector<int>> creditIncreaseQueue;  // peer credits in their return delay (queue: creditEventQueue)
  DelayFifo<std::vector<int>> earlyCreditQueue;     // early refunds on their way out (queue: earlyCreditEventQueue)
  uint32_t linkPacketTag;                     // packet in progress on the link input, all ones if none
  std::vector<uint32_t> interquadPacketTags;  // the same per inter-quad input
  sc_core::sc_time lastLinkReceive;
  std::vector<sc_core::sc_time> lastOccupancyChange;  // per source, for lswBufferTime
  sc_core::sc_event handleQueuesEvent;
  sc_core::sc_event returnTokensEvent;

  SC_HAS_PROCESS(zel2_link_switch);
  zel2_link_switch(sc_core::sc_module_name name, const Config& cfg, StatsKeeper& stats,
                   unsigned quadNumber);

  // ---- Processes
  void ReceiveFromLinkSlave();          // puts the link's flits into lines of the own source
  void HandleQueues();                  // one core cycle of arbitration and sending
  void ReturnTokens();                  // pulses owed tokens to the link and credits to peers
  void EarlyCreditReturn();             // pulses early refunds to peers
  void ToggleBusy();                    // drives busyOut after its delay
  void ReceiveFromInterQuad();          // puts peers' flits into lines of their sources
  void ReceiveSliceCredits();           // command credits from the vault controllers
  void ReceiveWriteCredits();           // write credits from the vault controllers
  void ReceiveInterQuadCredits();       // line credits from peers, into their return delay
  void IncrementCredits();              // line credits from peers, after the delay
  void ReceiveEarlyInterQuadCredits();  // early refunds from peers, at once
  void TailIncrease();                  // a tail has passed its input delay

  // ---- Diagnostics
  void DumpState();
  // Appends a line for `flit` crossing to or from `quad` to the inter-quad trace.
  void PrintInterquad(Flit_P flit, unsigned int quad);

 private:
  unsigned QuadOfPeer(unsigned r) const { return r < id ? r : r + 1; }
  // Destination index of a flit's vault: its local vault, or its quad.
  unsigned DestinationIndex(const Flit& flit) const;
  // Quad number that destination index d stands for.
  unsigned QuadOfDestination(unsigned d) const;
  // Adds the source's present line count over the time since its last change.
  void SampleOccupancy(unsigned source);
  // Takes the credits the flit needs toward d; false, taking nothing, when short.
  bool TakeCredits(unsigned d, const Flit& flit);
  void UpdateThrottles();
  // One source's pass over its destinations in an activation of HandleQueues.
  void ServeSource(unsigned src, unsigned startSource, bool& startSourceFinished);
  // Sends what it may from the oldest line of src for d; true if a tail went to d.
  bool SendFromLine(unsigned src, unsigned d, unsigned limit, bool& startSourceFinished,
                    unsigned startSource, std::vector<bool>& laneTaken);
  // Removes the emptied line `index` of src, kept for d, and gives its credit back.
  void RetireLine(unsigned src, unsigned d, unsigned index);
  // Whether a flit for destination index d opens the line it leads.
  bool LineBelongsTo(const Line& line, unsigned d) const;
};

}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak

#endif  // ZEL2_LINK_SWITCH_H
