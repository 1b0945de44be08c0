// SPDX-License-Identifier: Apache-2.0
// One external serial link of the cube. The link slave half takes request
// flits from the host, matches the serial flit rate to the core clock, delays
// them by the input latency and hands them to the quad's link switch, holding
// new packets back while the switch is busy. The link master half collects
// response flits from the vault switch and sends whole packets to the host,
// one per flit time, under the host's tokens; it also hands the host the
// request tokens that the cube has freed, on response tails or in
// TOKEN_RETURN flits of its own.
#ifndef ZEL2_LINK_H
#define ZEL2_LINK_H

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

class zel2_link : public sc_core::sc_module {
 public:
  // ---- Ports ----
  sc_core::sc_in<Flit_P> requestIn;     // request flits from the host
  sc_core::sc_out<Flit_P> responseOut;  // response flits to the host
  // Response flits from the vault switch, FLITS_PER_CYCLE_VSW ports.
  sc_core::sc_vector<sc_core::sc_in<Flit_P>> responseFlitsIn;
  // Request flits to the link switch, one port per lane, FLITS_PER_CYCLE_LINK ports.
  sc_core::sc_vector<sc_core::sc_out<Flit_P>> flitsToLSW;
  sc_core::sc_out<int> creditsOut;     // credit pulses to the vault switch
  sc_core::sc_in<int> returnTokensIn;  // token pulses from the link switch
  sc_core::sc_in<bool> busyIn;         // the link switch's busy toggle

  // ---- State of the whole link and its request half ----
  const Config& cfg;
  StatsKeeper& stats;
  unsigned linkNumber;             // also the number of the link's quad
  std::vector<Flit_P> ringBuffer;  // flits received since the last core clock boundary
  // Blocks of flits in the input delay, oldest first; its queue is the inputDelayQueue.
  DelayFifo<std::vector<Flit_P>> delayedBlocks;
  std::vector<Flit_P> incomingFlits;  // flits of the block just out of the delay
  std::vector<Flit_P> inputBuffer;    // flits held back from the link switch
  std::vector<Flit_P> flitsForLSW;    // what MoveFlitsToLSW writes next, at most FLITS_PER_CYCLE_LSW
  sc_core::sc_event inputBufferEvent;
  sc_core::sc_event moveToLSWEvent;
  sc_core::sc_time flitRate;         // time one flit takes on this link
  unsigned flitsPerClock;            // flits this link carries in one core cycle
  bool busy;                         // last value of busyIn
  bool midPacket;                    // a packet going to the link switch has begun and not ended
  sc_core::sc_time lastBufferDrain;  // when HandleInputBuffer last sent flits
  bool linkOn;                       // set by TurnOnLink; nothing reads it
  bool haveSeenFlits;                // set by TurnOnLink; setCubeTokens is refused afterwards
  // Tokens the host has granted for responses. Raised by the host's token
  // returns and adjustTokenCount, one spent per response flit; never above
  // BFM_TOKENS_PER_LINK (when that is not 0) unless RESPONSE_OPEN_LOOP is set.
  unsigned tokenCount;
  // Tokens the link still owes the host for request space freed in the cube.
  // Starts at TOKENS_PER_LINK and never rises above it.
  unsigned returnTokenCount;
  sc_core::sc_event sendEvent;

  // Protocol state of SafetyCheck, which only a host calls.
  sc_core::sc_time lastFlitTime;
  unsigned expectedTag;   // all ones: no packet in progress
  unsigned expectedSize;  // all ones after each tail
  ZELCommand expectedCommand;
  unsigned expectedFlitNumber;

  // ---- State of the response half ----
  std::vector<Flit_P> outputBuffer;  // flits waiting for the host, LINK_MASTER_BUFFER_SIZE at most
  unsigned completePackets;          // tails in outputBuffer: whole packets ready to go
  unsigned responseTag;              // tag of the packet arriving; all ones for none
  // Flits in the output delay; its queue is the outputDelayQueue.
  DelayFifo<Flit_P> responseLinkFlits;
  // Credits (each 1) on their way to the vault switch; its queue is the creditEventQueue.
  DelayFifo<unsigned> returnCredits;
  // Token counts from the link switch on their way to returnTokenCount; its
  // queue is the tokenEventQueue.
  DelayFifo<unsigned> tokenDelayQueue;
  unsigned tokenReturnTag;  // tag of the next TOKEN_RETURN flit
  // The header of the packet now going out, kept so that the tail's tokens
  // can move up to it while the host still holds it. The host may have
  // deleted it meanwhile; lastOutgoingHeadTag guards against a reused record.
  Flit* lastOutgoingHeadFlit;
  unsigned lastOutgoingHeadTag;

  zel2_link(sc_core::sc_module_name name, const Config& cfg, StatsKeeper& stats, unsigned linkNumber);
  SC_HAS_PROCESS(zel2_link);

  // ---- Operations ----
  // Turns the lane count and lane speed of link `link` into flitRate and flitsPerClock.
  void updateLinkParams(unsigned link);
  // The cube-wide vault number that an address maps to.
  uint64_t ComputeDestinationField(uint64_t address);
  // Checks one request flit of a host against the link protocol, in sending order.
  void SafetyCheck(Flit_P flit);
  // Starts the link: the first tokens go to the host one core cycle later.
  void TurnOnLink();
  void TurnOffLink();
  // Adds `delta` to the host's response tokens, with a check of the host's limit.
  void adjustTokenCount(int delta);
  // Sets the request tokens that the link will hand out; only before TurnOnLink.
  void setCubeTokens(unsigned numTokens);
  void DumpState();

  // ---- Processes of the request half ----
  void ReceiveRequestFlits();  // a host flit into ringBuffer
  void HandleClockBoundary();  // each core cycle: a block of at most flitsPerClock flits into the input delay
  void ReceiveRequestFlitsAtLS();  // a block out of the delay: tokens, destination, statistics, straight on
                                   // or buffered
  void HandleInputBuffer();        // one line of lanes from inputBuffer toward the link switch
  void MoveFlitsToLSW();           // writes flitsForLSW to the link switch ports
  void ReceiveBusyToggle();        // follows busyIn

  // ---- Processes of the response half ----
  void ReceiveResponseFlits();        // vault switch flits into outputBuffer after a one-cycle latch
  void SendResponseFlits();           // one flit per flit time to the output delay, or a TOKEN_RETURN flit
  void WriteToResponseLink();         // a flit out of the output delay onto responseOut
  void CreditReturn();                // one credit pulse to the vault switch per flit sent
  void ReceiveReturnTokensFromLSW();  // token pulses from the link switch into their delay
  void IncrementReturnTokens();       // delayed tokens into returnTokenCount

 private:
  // Adds host tokens from a request flit and checks the host's limit; `source`
  // names the kind of flit in the message.
  void TakeHostTokens(unsigned tokens, const char* source);
  // Sends the first flit of outputBuffer if a whole packet and the tokens are
  // there; false if nothing could go.
  bool TrySendResponseFlit();
  // Moves the tail's tokens to its header while the host still holds the header.
  void MoveTokensToWaitingHeader(Flit_P tail);
  // Hands the host up to MAX_TOKEN_RETURN owed tokens in a flit of their own.
  void SendTokenReturnFlit();
  // Prints the flit after a SafetyCheck finding and aborts.
  [[noreturn]] void SafetyFailure(const Flit_P& flit);
  sc_core::sc_time NextFlitBoundary() const;
};

}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak

#endif  // ZEL2_LINK_H
