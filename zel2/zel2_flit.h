// SPDX-License-Identifier: Apache-2.0
// The transaction vocabulary of the model: packet commands, the flit record,
// the two-word flit handle that travels on every signal, and the DRAM bus
// packet that travels between a vault controller and its vault.
#ifndef ZEL2_FLIT_H
#define ZEL2_FLIT_H

#include <cstdint>
#include <ostream>
#include <string>

#include <systemc>

#include "zel2/zel2_utils.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {

// Packet commands. The numbers are part of the design: blocks test commands
// by range and bit mask.
enum ZELCommand : uint32_t {
  RD = 0,
  RD_RSP = 1,
  P_WR = 2,
  WR = 3,
  WR_RSP = 4,
  TOKEN_RETURN = 5,
  BWR = 6,
  P_BWR = 7,
  DADD8 = 8,
  P_DADD8 = 9,
  ADD16 = 10,
  P_ADD16 = 11,
  NULL_COMMAND = 12,
};

// Liveness mark of a flit built by the value constructor; the destructor
// clears it so that a look through a stale pointer can tell.
constexpr uint32_t FLIT_VALID_MARK = 0x123456;

// One flow unit of a packet. A heap object: the host allocates request flits,
// the stage at which a packet ends deletes them.
struct Flit {
  uint32_t tag;             // the model's tag of the packet (printed as sc_tag)
  int32_t hostTag;          // the host's own tag for printing; negative: use tag
  bool consumed;            // set by the host when it has taken the flit
  uint64_t address;         // byte address of the request
  ZELCommand command;       // the packet's command, the same on all its flits
  uint32_t requestLength;   // payload of the packet in bytes
  bool header;              // first flit of the packet
  bool tail;                // last flit of the packet
  uint32_t flitNumber;      // place in the packet, from 1
  uint32_t returnTokens;    // tokens handed back to the far end (tail only)
  uint32_t sourceLink;      // link on which the request entered
  uint32_t destination;     // cube-wide number of the target vault
  int32_t lane;             // port of a flit vector at the current stage
  sc_core::sc_time timeStamps[8];  // when the flit passed points of its road
  uint32_t validMark;       // FLIT_VALID_MARK while alive

  // Request and response flits alive in the process: flits made by the value
  // or copy constructor whose command is neither NULL_COMMAND nor
  // TOKEN_RETURN, less those deleted. Lets a test prove that no flit leaks.
  // Flow-control and blank flits are left out: the model drops some of them
  // by design.
  static int64_t liveRequestsAndResponses;

  // A flit is made and deleted for nearly every flit time of a link, so the
  // records come from a pool of their own: a freed record is kept for the
  // next `new Flit` of the same thread instead of going back to the general
  // allocator. `new Flit` and `delete flit` keep their meaning for hosts; a
  // class derived from Flit, of another size, takes the general allocator.
  static void* operator new(std::size_t size);
  static void operator delete(void* record, std::size_t size) noexcept;

  // A blank NULL_COMMAND flit; hostTag, consumed, lane and validMark are left
  // as the memory held them. Offered to hosts; the model never uses it.
  Flit();
  Flit(unsigned int tag, unsigned long address, ZELCommand command, unsigned int requestLength,
       bool header, bool tail, unsigned int flitNumber);
  Flit(const Flit& other);  // copies everything, validMark and hostTag too
  ~Flit();

  // Copies the packet fields but keeps the target's own hostTag and validMark.
  Flit& operator=(const Flit& other);
  // Equal packet contents; hostTag, consumed, routing and time stamps don't count.
  bool operator==(const Flit& other) const;
};

// The handle that travels on signals, ports and queues: a pointer and a
// number drawn from a process-wide counter. It doesn't own the flit.
struct Flit_P {
  Flit* flit;
  uint64_t handleId;

  // Counter of the whole process; each new handle takes the next number.
  static uint64_t guid;

  // Allocates a flit with the value constructor. A default handle is never
  // null: it refers to a blank NULL_COMMAND flit of its own.
  Flit_P(unsigned int tag = 0, unsigned long address = 0, ZELCommand command = NULL_COMMAND,
         unsigned int requestLength = 0, bool header = false, bool tail = false,
         unsigned int flitNumber = 0);
  // A new handle (with a new number) to an existing flit.
  Flit_P(Flit* existing);  // NOLINT(google-explicit-constructor): a plain conversion, as hosts write it

  Flit& operator*() const { return *flit; }
  Flit* operator->() const { return flit; }
  // Same flit under the same handle: what a signal uses to detect a change.
  bool operator==(const Flit_P& other) const {
    return flit == other.flit && handleId == other.handleId;
  }
  bool operator!=(const Flit_P& other) const { return !(*this == other); }

  // Host interface.
  void AttachTokens(unsigned int tokens);
  uint32_t GetTag() const { return flit->tag; }
  bool IsHead() const { return flit->header; }
  bool IsTail() const { return flit->tail; }
  uint64_t GetAddress() const { return flit->address; }
  uint32_t GetRequestSize() const { return flit->requestLength; }
  ZELCommand GetCommand() const { return flit->command; }
  uint32_t GetNumReturnTokens() const { return flit->returnTokens; }
  uint32_t GetFlitNumber() const { return flit->flitNumber; }
};

// Printed form of a flit, embedded in every error message. Leaves the
// stream's fill character at '0'.
std::ostream& operator<<(std::ostream& out, const Flit& flit);
std::ostream& operator<<(std::ostream& out, const Flit_P& handle);

void sc_trace(sc_core::sc_trace_file*& tf, const Flit& flit, const std::string& name);
void sc_trace(sc_core::sc_trace_file* tf, const Flit_P& handle, const std::string& name);

// ---- DRAM bus packets ----------------------------------------------------

// Command word of a DRAM bus packet. The numbers are part of the design.
enum DRAMCommand : uint32_t {
  ACT = 0,    // open `row`
  PRE = 1,    // close the open row
  REF = 2,    // refresh the bank
  READ = 3,   // column read
  WRITE = 4,  // column write
  DATA = 5,   // one data beat, either direction
};

// One command or data beat on a vault's internal bus.
struct DRAMBusPacket {
  DRAMCommand command = DATA;
  uint32_t partition = 0xffffffffu;
  uint32_t bank = 0xffffffffu;
  uint32_t row = 0xffffffffu;
  uint32_t col = 0xffffffffu;
  uint32_t tag = 0;  // the transaction's flit tag; all ones for a refresh
  // True except on the second of the two beats of a READ, so that the two
  // beats differ and each one is an event on the signal.
  bool firstBeat = true;
  sc_core::sc_time earliestIssue = sc_core::SC_ZERO_TIME;  // read for ACT only

  bool operator==(const DRAMBusPacket& other) const;
};

std::ostream& operator<<(std::ostream& out, const DRAMBusPacket& packet);
void sc_trace(sc_core::sc_trace_file* tf, const DRAMBusPacket& packet, const std::string& name);

}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak

#endif  // ZEL2_FLIT_H
