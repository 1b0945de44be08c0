// SPDX-License-Identifier: Apache-2.0
#include "zel2/zel2_link.h"

#include <algorithm>
#include <cmath>
#include <ios>

namespace Sornak {
namespace Internal {
namespace ZEL2 {

using sc_core::sc_time;
using sc_core::sc_time_stamp;

namespace {

constexpr unsigned kNone = 0xFFFFFFFFu;

bool IsAtomic(ZELCommand command) { return command >= BWR && command <= P_ADD16; }

// True while the header flit `head` is still a live record with the tag it
// left with and the host hasn't taken it. The host may already have deleted
// it: reading through the stale pointer is deliberate, since ~Flit clears
// validMark and the tag comparison rejects memory reused for another flit.
// Kept apart so that a memory checker can exempt this one read.
__attribute__((noinline, no_sanitize("address"))) bool HeaderStillWithHost(const Flit* head,
                                                                           unsigned headTag) {
  return head->validMark == FLIT_VALID_MARK && headTag != 0 && headTag == head->tag && !head->consumed;
}

}  // namespace

zel2_link::zel2_link(sc_core::sc_module_name name, const Config& cfg, StatsKeeper& stats, unsigned linkNumber)
    : sc_module(name),
      requestIn("requestIn"),
      responseOut("responseOut"),
      responseFlitsIn("responseFlitsIn"),
      flitsToLSW("flitsToLSW"),
      creditsOut("creditsOut"),
      returnTokensIn("returnTokensIn"),
      busyIn("busyIn"),
      cfg(cfg),
      stats(stats),
      linkNumber(linkNumber),
      delayedBlocks("inputDelayQueue", DelayQueue::kMethodConsumer),
      inputBufferEvent("inputBufferEvent"),
      moveToLSWEvent("moveToLSWEvent"),
      flitsPerClock(0),
      busy(false),
      midPacket(false),
      lastBufferDrain(sc_core::SC_ZERO_TIME),
      linkOn(false),
      haveSeenFlits(false),
      tokenCount(0),
      returnTokenCount(cfg.TOKENS_PER_LINK),
      sendEvent("sendEvent"),
      lastFlitTime(sc_core::SC_ZERO_TIME),
      expectedTag(kNone),
      expectedSize(kNone),
      expectedCommand(NULL_COMMAND),
      expectedFlitNumber(1),
      completePackets(0),
      responseTag(kNone),
      responseLinkFlits("outputDelayQueue", DelayQueue::kMethodConsumer),
      returnCredits("creditEventQueue"),
      tokenDelayQueue("tokenEventQueue", DelayQueue::kMethodConsumer),
      tokenReturnTag(0),
      lastOutgoingHeadFlit(nullptr),
      lastOutgoingHeadTag(0) {
  responseFlitsIn.init(cfg.FLITS_PER_CYCLE_VSW);
  flitsToLSW.init(cfg.FLITS_PER_CYCLE_LINK);

  SC_METHOD(ReceiveRequestFlits);
  sensitive << requestIn;
  dont_initialize();

  SC_THREAD(HandleClockBoundary);

  SC_THREAD(ReceiveResponseFlits);
  for (auto& port : responseFlitsIn) sensitive << port;

  SC_METHOD(SendResponseFlits);
  sensitive << sendEvent;
  dont_initialize();

  SC_METHOD(ReceiveReturnTokensFromLSW);
  sensitive << returnTokensIn;
  dont_initialize();

  SC_METHOD(IncrementReturnTokens);
  sensitive << tokenDelayQueue.queue;
  dont_initialize();

  SC_THREAD(CreditReturn);
  sensitive << returnCredits.queue;

  SC_METHOD(WriteToResponseLink);
  sensitive << responseLinkFlits.queue;
  dont_initialize();

  SC_METHOD(ReceiveRequestFlitsAtLS);
  sensitive << delayedBlocks.queue;
  dont_initialize();

  SC_METHOD(HandleInputBuffer);
  sensitive << inputBufferEvent;
  dont_initialize();

  SC_METHOD(MoveFlitsToLSW);
  sensitive << moveToLSWEvent;
  dont_initialize();

  SC_METHOD(ReceiveBusyToggle);
  sensitive << busyIn;
  dont_initialize();

  updateLinkParams(linkNumber);
}

// ---- Link rate ---------------------------------------------------------

void zel2_link::updateLinkParams(unsigned link) {
  // Links above 3 have no width key of their own and run with link 3's lanes,
  // as the report counts them.
  const unsigned width = cfg.LinkWidth(link);
  const unsigned bitTimesPerFlit = cfg.FLIT_SIZE * 8 / width;
  // LINK_SPEED is in Gb/s per lane, so one bit time is 1/LINK_SPEED ns.
  const float flitNs = static_cast<float>(bitTimesPerFlit) * (1.0f / cfg.LINK_SPEED);
  flitRate = sc_time(static_cast<double>(flitNs), sc_core::SC_NS);

  const double ratio = static_cast<double>(cfg.CORE_CLK.value()) / static_cast<double>(flitRate.value());
  if (!std::isfinite(ratio)) {
    // A link without flit time puts no limit on the flits of a cycle.
    flitsPerClock = kNone;
    return;
  }
  // A ratio just above a whole number (fraction below 0.05) rounds down, any
  // other rounds up.
  const double up = std::ceil(ratio);
  flitsPerClock = static_cast<unsigned>(std::fabs(up - ratio) > 0.95 ? std::floor(ratio) : up);
}

sc_time zel2_link::NextFlitBoundary() const { return NextEdgeDelay(flitRate, cfg.ticksPerPs); }

uint64_t zel2_link::ComputeDestinationField(uint64_t address) {
  if (cfg.MAPPING_SCHEME != 0) {
    TimedError() << "Wrong unknown address mapping scheme when computing destination field in link"
                 << std::endl;
    ZEL_ASSERT(cfg.MAPPING_SCHEME == 0);
  }
  // The vault field starts above the block offset: ceil(log2(MAX_BLOCK_SIZE)).
  unsigned shift = 0;
  while (shift < 63 && (uint64_t(1) << shift) < cfg.MAX_BLOCK_SIZE) ++shift;
  return (address >> shift) & (cfg.NUM_VAULTS - 1);
}

// ---- Request half --------------------------------------------------------

void zel2_link::ReceiveRequestFlits() {
  if (!requestIn.event()) return;
  Flit_P flit = requestIn.read();
  flit->sourceLink = linkNumber;
  ringBuffer.push_back(flit);
}

void zel2_link::HandleClockBoundary() {
  for (;;) {
    wait(cfg.CORE_CLK);
    std::vector<Flit_P> block;
    if (!ringBuffer.empty()) block.reserve(std::min<std::size_t>(ringBuffer.size(), flitsPerClock));
    while (!ringBuffer.empty() && block.size() < flitsPerClock) {
      Flit_P flit = ringBuffer.front();
      ringBuffer.erase(ringBuffer.begin());
      flit->lane = static_cast<int>(block.size());
      block.push_back(flit);
    }
    if (!block.empty()) delayedBlocks.Push(std::move(block), CycleDelay(cfg, cfg.LINK_INPUT_DELAY));
    // More flits than the link can carry in a cycle: the host broke the link rate.
    if (!ringBuffer.empty()) {
      std::cout << "==ERROR - Ring-Buffer overflow in link.  Received too many flits this core cycle ("
                << sc_time_stamp() << ")" << std::endl;
      ZEL_ASSERT(ringBuffer.empty());
    }
  }
}

void zel2_link::TakeHostTokens(unsigned tokens, const char* source) {
  tokenCount += tokens;
  sendEvent.notify(NextFlitBoundary());
  if (!cfg.RESPONSE_OPEN_LOOP && cfg.BFM_TOKENS_PER_LINK != 0 && tokenCount > cfg.BFM_TOKENS_PER_LINK) {
    TimedError() << "Too many tokens in link" << linkNumber << source << tokenCount << std::endl;
    ZEL_ASSERT(tokenCount <= cfg.BFM_TOKENS_PER_LINK);
  }
}

void zel2_link::ReceiveRequestFlitsAtLS() {
  FiringScope firing(delayedBlocks.queue);
  for (Flit_P flit : delayedBlocks.front()) {
    if (flit->command == TOKEN_RETURN) {
      TakeHostTokens(flit->returnTokens, " from token return packet : ");
    } else if (flit->command != NULL_COMMAND) {
      flit->destination = static_cast<unsigned>(ComputeDestinationField(flit->address));
      if (flit->tail && flit->returnTokens > 0) {
        TakeHostTokens(flit->returnTokens, " from tail of packet : ");
        // The host's tokens end here; they don't travel on into the cube.
        flit->returnTokens = 0;
      }
      if (flit->tail && (flit->command == P_WR || flit->command == WR)) {
        stats.linkBytes[linkNumber] += flit->requestLength;
        stats.linkWriteBytes[linkNumber] += flit->requestLength;
      }
      if (flit->header) {
        if (flit->command == RD)
          stats.linkReads[linkNumber]++;
        else
          stats.linkWrites[linkNumber]++;
      }
      stats.linkRequestFlits[linkNumber]++;
    }
    incomingFlits.push_back(flit);
  }

  const std::size_t count = std::min<std::size_t>(incomingFlits.size(), cfg.FLITS_PER_CYCLE_LSW);
  for (std::size_t i = 0; i < count; ++i) {
    Flit_P flit = incomingFlits.front();
    incomingFlits.erase(incomingFlits.begin());
    // Straight on only if nothing holds it back and the buffer made no
    // delivery in this time step: the link switch takes one per step.
    const bool straight = (!busy || midPacket) && lastBufferDrain != sc_time_stamp() && inputBuffer.empty();
    if (straight) {
      flitsForLSW.push_back(flit);
      if (flit->header) midPacket = true;
      if (flit->tail) midPacket = false;
      moveToLSWEvent.notify(sc_core::SC_ZERO_TIME);
    } else {
      // Flow-control flits have done their work once counted; they are
      // dropped here, and on this way nobody deletes them.
      if (flit->command != NULL_COMMAND && flit->command != TOKEN_RETURN) {
        flit->lane = inputBuffer.empty()
                         ? 0
                         : static_cast<int>((inputBuffer.back()->lane + 1) % cfg.FLITS_PER_CYCLE_LSW);
        inputBuffer.push_back(flit);
      }
      inputBufferEvent.notify(cfg.CORE_CLK);
    }
  }
  delayedBlocks.Pop();
}

void zel2_link::HandleInputBuffer() {
  // A packet that has begun goes on in spite of busy; a new one doesn't start.
  if (busy && !midPacket) return;
  if (inputBuffer.empty()) return;
  ZEL_ASSERT(flitsForLSW.empty());

  // At most one line of lanes per activation, and a tail ends it while busy.
  const std::size_t n = inputBuffer.size();
  for (std::size_t sent = 1;; ++sent) {
    Flit_P flit = inputBuffer.front();
    inputBuffer.erase(inputBuffer.begin());
    flitsForLSW.push_back(flit);
    if (flit->header) midPacket = true;
    if (flit->tail) {
      midPacket = false;
      if (busy) break;
    }
    if (flit->lane == static_cast<int>(cfg.FLITS_PER_CYCLE_LSW) - 1) break;
    if (sent == n || sent == cfg.FLITS_PER_CYCLE_LSW) break;
  }
  moveToLSWEvent.notify(sc_core::SC_ZERO_TIME);
  lastBufferDrain = sc_time_stamp();
  if (!inputBuffer.empty()) inputBufferEvent.notify(cfg.CORE_CLK);
}

void zel2_link::ReceiveBusyToggle() {
  busy = busyIn.read();
  if (!busy && !inputBuffer.empty()) inputBufferEvent.notify(cfg.CORE_CLK);
}

void zel2_link::MoveFlitsToLSW() {
  // The conditions are also the assertions' texts, spelt as they are.
  // clang-format off
  ZEL_ASSERT(flitsForLSW.size()<=cfg.FLITS_PER_CYCLE_LSW);
  ZEL_ASSERT(flitsForLSW.size()>0);
  // clang-format on
  for (Flit_P flit : flitsForLSW) {
    if (flit->command == NULL_COMMAND || flit->command == TOKEN_RETURN)
      delete flit.flit;  // the end of a flow-control flit's road
    else
      flitsToLSW[flit->lane].write(flit);
  }
  flitsForLSW.clear();
}

// ---- Response half -------------------------------------------------------

void zel2_link::ReceiveResponseFlits() {
  std::vector<bool> portHadEvent(cfg.FLITS_PER_CYCLE_VSW);
  for (;;) {
    wait();
    for (std::size_t k = 0; k < portHadEvent.size(); ++k) portHadEvent[k] = responseFlitsIn[k].event();
    // The link master's input latch: the flits are read one cycle later.
    wait(cfg.CORE_CLK);
    for (std::size_t k = 0; k < portHadEvent.size(); ++k) {
      if (!portHadEvent[k]) continue;
      Flit_P flit = responseFlitsIn[k].read();
      if (responseTag != kNone && responseTag != flit->tag) {
        PlainError() << "Non-contiguous packet in LM" << linkNumber << std::endl;
        FatalAbort();
      }
      if (flit->header) responseTag = flit->tag;
      if (flit->tail) {
        responseTag = kNone;
        flit->timeStamps[7] = sc_time_stamp();
        completePackets++;
      }
      outputBuffer.push_back(flit);
      if (outputBuffer.size() > cfg.LINK_MASTER_BUFFER_SIZE) {
        TimedError() << "Link Master " << linkNumber << " buffer exceeded capacity" << std::endl;
        ZEL_ASSERT(outputBuffer.size() <= cfg.LINK_MASTER_BUFFER_SIZE);
      }
    }
    if (completePackets != 0) sendEvent.notify(NextFlitBoundary());
  }
}

void zel2_link::SendResponseFlits() {
  if (!TrySendResponseFlit()) SendTokenReturnFlit();
  // Keep polling at the flit rate while anything waits, tokens or not.
  if (outputBuffer.empty() && returnTokenCount == 0) return;
  sendEvent.notify(flitRate);
}

bool zel2_link::TrySendResponseFlit() {
  if (completePackets == 0) return false;
  Flit_P flit = outputBuffer.front();
  if (!cfg.RESPONSE_OPEN_LOOP) {
    if (tokenCount == 0) return false;
    // A read response starts only with tokens for all its flits, so that it
    // can't stall in mid-packet.
    if (flit->header && flit->command == RD_RSP && tokenCount < flit->requestLength / cfg.FLIT_SIZE + 1)
      return false;
    tokenCount--;
  }
  if (flit->header) {
    lastOutgoingHeadFlit = flit.flit;
    lastOutgoingHeadTag = flit->tag;
  }
  if (flit->tail) {
    completePackets--;
    const unsigned tokens = std::min(returnTokenCount, cfg.MAX_TOKEN_RETURN);
    flit->returnTokens = tokens;
    returnTokenCount -= tokens;
    if (flit->command == RD_RSP) {
      stats.linkBytes[linkNumber] += flit->requestLength;
      stats.linkReadBytes[linkNumber] += flit->requestLength;
    }
    ZEL_ASSERT(lastOutgoingHeadFlit);
    MoveTokensToWaitingHeader(flit);
    lastOutgoingHeadFlit = nullptr;
    lastOutgoingHeadTag = 0;
  }
  stats.linkResponseFlits[linkNumber]++;
  responseLinkFlits.Push(flit, CycleDelay(cfg, cfg.LINK_OUTPUT_DELAY));
  outputBuffer.erase(outputBuffer.begin());
  returnCredits.Push(1, flitRate * static_cast<double>(cfg.CREDIT_RETURN_DELAY_LM));
  return true;
}

void zel2_link::MoveTokensToWaitingHeader(Flit_P tail) {
  Flit* head = lastOutgoingHeadFlit;
  // The header has left the link but the host hasn't taken it yet: the
  // tokens go on the header so that the host sees them sooner.
  if (head == tail.flit || !HeaderStillWithHost(head, lastOutgoingHeadTag)) return;
  if (!head->header || head->tail) {
    std::cout << sc_time_stamp()
              << ": Unexpected flit to move to tokens to: lastOutgoing ptr=" << static_cast<const void*>(head)
              << "( " << *head << ") from Output buffer[0] ptr=" << static_cast<const void*>(tail.flit)
              << " (" << *tail << ")" << std::endl;
    FatalAbort();
  }
  head->returnTokens = tail->returnTokens;
  tail->returnTokens = 0;
}

void zel2_link::SendTokenReturnFlit() {
  if (returnTokenCount == 0) return;
  Flit* flit = new Flit(tokenReturnTag, ~0UL, TOKEN_RETURN, 0, true, true, 1);
  tokenReturnTag++;
  Flit_P handle(flit);
  const unsigned tokens = std::min(returnTokenCount, cfg.MAX_TOKEN_RETURN);
  handle->returnTokens = tokens;
  returnTokenCount -= tokens;
  responseLinkFlits.Push(handle, CycleDelay(cfg, cfg.LINK_OUTPUT_DELAY));
}

void zel2_link::WriteToResponseLink() {
  FiringScope firing(responseLinkFlits.queue);
  responseOut.write(responseLinkFlits.Pop());
}

void zel2_link::CreditReturn() {
  for (;;) {
    wait();
    {
      // The FIFO's values under the FIFO's own name, for the two checks.
      const std::vector<unsigned>& returnCredits = this->returnCredits.items;
      ZEL_ASSERT(returnCredits.size());
      // The condition is also the assertion's text, spelt as it is.
      // clang-format off
      ZEL_ASSERT(returnCredits[0]<=cfg.FLITS_PER_CYCLE_VSW);
      // clang-format on
    }
    creditsOut.write(static_cast<int>(returnCredits.Pop()));
    // A pulse, so that the next credit is again a change of value.
    wait(sc_time::from_value(static_cast<sc_dt::uint64>(static_cast<double>(flitRate.value()) * 0.5 + 0.5)));
    creditsOut.write(0);
  }
}

void zel2_link::ReceiveReturnTokensFromLSW() {
  const int tokens = returnTokensIn.read();
  if (tokens < 1) return;  // the falling edge of the link switch's pulse
  tokenDelayQueue.Push(static_cast<unsigned>(tokens), CycleDelay(cfg, cfg.TOKEN_RETURN_DELAY_LSW));
}

void zel2_link::IncrementReturnTokens() {
  FiringScope firing(tokenDelayQueue.queue);
  // The condition is also the assertion's text, spelt as it is.
  // clang-format off
  ZEL_ASSERT(tokenDelayQueue.size()>0);
  // clang-format on
  returnTokenCount += tokenDelayQueue.front();
  if (returnTokenCount > cfg.TOKENS_PER_LINK) {
    TimedError() << "Somehow have too many tokens" << std::endl;
    ZEL_ASSERT(returnTokenCount <= cfg.TOKENS_PER_LINK);
  }
  tokenDelayQueue.Pop();
  sendEvent.notify(NextFlitBoundary());
}

// ---- Host operations -----------------------------------------------------

void zel2_link::TurnOnLink() {
  haveSeenFlits = true;
  linkOn = true;
  sendEvent.notify(cfg.CORE_CLK);
  std::cout << sc_time_stamp() << ": SYSTEMC: Turning on link " << linkNumber << " with " << returnTokenCount
            << " tokens" << std::endl;
  if (linkNumber == 0) cfg.print(std::cout, false);
}

void zel2_link::TurnOffLink() { ZEL_ASSERT(0 && "Implement this!"); }

void zel2_link::adjustTokenCount(int delta) {
  if (delta != 0) {
    tokenCount += delta;
    std::cout << sc_time_stamp() << ": Adjusting link " << linkNumber << " by " << delta
              << " tokens (now=" << tokenCount << ")" << std::endl;
  }
  if (!cfg.RESPONSE_OPEN_LOOP && cfg.BFM_TOKENS_PER_LINK != 0 && tokenCount > cfg.BFM_TOKENS_PER_LINK) {
    std::cout << sc_time_stamp() << ": ERROR: SystemC model now has " << tokenCount
              << "; if this value is much higher than the expected (BFM_TOKENS_PER_LINK="
              << cfg.BFM_TOKENS_PER_LINK << ") this may mean there is a token error somewhere" << std::endl;
    FatalAbort();
  }
}

void zel2_link::setCubeTokens(unsigned numTokens) {
  ZEL_ASSERT(!haveSeenFlits);
  ZEL_ASSERT(numTokens);
  returnTokenCount = numTokens;
}

// ---- Host protocol check -------------------------------------------------

void zel2_link::SafetyFailure(const Flit_P& flit) {
  std::cout << std::endl << "           Flit : " << flit << std::endl;
  FatalAbort();
}

void zel2_link::SafetyCheck(Flit_P flit) {
  const sc_time now = sc_time_stamp();
  // lastFlitTime + flitRate - 1 ps > now, without going below zero.
  if (lastFlitTime + flitRate > now + sc_time(1, sc_core::SC_PS)) {
    PlainError() << "Receive flit at a rate that does not match link config" << std::endl
                 << "           Flit rate currently : " << flitRate << std::endl;
    FatalAbort();
  }
  lastFlitTime = now;

  const ZELCommand command = flit->command;
  bool checkAddress = true;
  if (command == RD || command == P_WR || command == WR) {
    const unsigned size = flit->requestLength;
    if (size < 16 || size > 128 || size % 16 != 0) {
      PlainError() << "Request size not acceptable : " << size << std::endl
                   << "           Please use one of the standard request sizes";
      SafetyFailure(flit);
    }
  } else if (IsAtomic(command)) {
    flit->requestLength = 16;
  } else if (command == TOKEN_RETURN) {
    if (flit->returnTokens == 0) {
      PlainError() << "Token return packet with 0 tokens attached is not allowed";
      SafetyFailure(flit);
    }
    checkAddress = false;
  } else if (command == NULL_COMMAND) {
    checkAddress = false;
  } else {
    PlainError() << "Incorrect command type received on Link " << linkNumber << std::endl
                 << "           Flit : " << flit << std::endl;
    checkAddress = false;
  }

  if (checkAddress) {
    const char* limitText = nullptr;
    uint64_t limit = 0;
    if (cfg.NUM_PARTITIONS == 2) {
      limit = 2147483648ULL;
      limitText = ") outside of address space for 2GB ZEL";
    } else if (cfg.NUM_PARTITIONS == 4) {
      limit = 4294967296ULL;
      limitText = ") outside of address space for 4GB ZEL";
    }
    if (limitText && flit->address > limit) {
      PlainError() << "Address (0x" << std::hex << flit->address << std::dec << limitText;
      SafetyFailure(flit);
    }
  }

  const bool single = flit->header && flit->tail;
  if (command == RD || command == TOKEN_RETURN || command == NULL_COMMAND) {
    if (!single) {
      // The words say the contrary of the test; they are kept as they are.
      PlainError() << "Packet should not be both header and tail";
      SafetyFailure(flit);
    }
  } else if (command == P_WR || command == WR || IsAtomic(command)) {
    if (single) {
      PlainError() << "Packet header and tail improperly set for this command type";
      SafetyFailure(flit);
    }
  }

  if (expectedTag != kNone && expectedTag != flit->tag) {
    PlainError() << "Received non-contiguous packet - Expecting the rest of packet with tag " << expectedTag;
    SafetyFailure(flit);
  }
  if (flit->header) {
    expectedSize = flit->requestLength;
    expectedTag = flit->tag;
    expectedCommand = command;
  }
  if (flit->tail) {
    expectedSize = kNone;
    expectedTag = kNone;
    expectedCommand = NULL_COMMAND;
  } else {
    if (expectedTag != kNone && expectedCommand != command) {
      PlainError() << "Command type changed mid packet";
      SafetyFailure(flit);
    }
    if (flit->returnTokens != 0) {
      PlainError() << "Return tokens should only be attached to tail flits";
      SafetyFailure(flit);
    }
  }
  if (expectedSize != kNone && expectedSize != flit->requestLength) {
    PlainError() << "Request size changed mid-packet - Expecting " << expectedSize;
    SafetyFailure(flit);
  }
  if (expectedFlitNumber != flit->flitNumber) {
    PlainError() << "Expected flit number " << expectedFlitNumber << " of incoming packet";
    SafetyFailure(flit);
  }
  if (flit->tail) {
    if (expectedFlitNumber > flit->requestLength / 16 + 1) {
      PlainError() << "Too many flits (" << expectedFlitNumber << ") in a " << flit->requestLength
                   << "B packet";
      SafetyFailure(flit);
    }
    expectedFlitNumber = 1;
  } else {
    expectedFlitNumber++;
    // Signed, so that "no size" (all ones) allows a single further flit.
    if (static_cast<int>(expectedFlitNumber) > static_cast<int>(expectedSize) / 16 + 1) {
      PlainError() << "Expected tail of " << expectedSize << "B packet";
      SafetyFailure(flit);
    }
  }
}

// ---- State dump ----------------------------------------------------------

void zel2_link::DumpState() {
  std::cout << "== Link" << linkNumber << std::endl;
  std::cout << "\t\tToken Count\t\t\t : " << tokenCount << std::endl;
  std::cout << "\t\tReturn Tokens\t\t : " << returnTokenCount << std::endl;
  std::cout << "      ReturnTokenQ  : " << tokenDelayQueue.size() << std::endl;
  std::cout << "\t\tToken Return Tag : " << tokenReturnTag << std::endl;
  std::cout << "   Block Boundary : " << ringBuffer.size() << std::endl;
  std::cout << "\t\tLS Input Buffer :" << std::endl;
  for (std::size_t i = 0; i < inputBuffer.size(); ++i)
    std::cout << "\t\t " << i << "] " << inputBuffer[i] << std::endl;
  std::cout << "\t\tLM Output Buffer :" << std::endl;
  for (std::size_t i = 0; i < outputBuffer.size(); ++i)
    std::cout << "\t\t " << i << "] " << outputBuffer[i] << std::endl;
}

}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak
