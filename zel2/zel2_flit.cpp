// SPDX-License-Identifier: Apache-2.0
#include "zel2/zel2_flit.h"

#include <cstddef>
#include <cstdio>
#include <new>

namespace Sornak {
namespace Internal {
namespace ZEL2 {

uint64_t Flit_P::guid = 0;
int64_t Flit::liveRequestsAndResponses = 0;

namespace {
bool CountsAsLive(ZELCommand command) { return command != NULL_COMMAND && command != TOKEN_RETURN; }

// Under AddressSanitizer every flit keeps its own allocation, so that a use
// after delete is still caught.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kPooled = false;
#else
constexpr bool kPooled = true;
#endif

// The freed records of one thread, each holding the next in its first bytes.
// Every record is an allocation of its own from the general allocator, so
// that a record may still go back to it by a plain ::operator delete, as
// after an explicit destructor call; the pool only keeps freed records for
// reuse. A record freed on another thread than the one that made it joins
// that thread's pool.
struct FlitPool {
  struct FreeRecord {
    FreeRecord* next;
  };
  FreeRecord* free = nullptr;

  void* Take() {
    if (free == nullptr) return ::operator new(sizeof(Flit));
    FreeRecord* record = free;
    free = record->next;
    return record;
  }
  void Give(void* record) {
    FreeRecord* freed = static_cast<FreeRecord*>(record);
    freed->next = free;
    free = freed;
  }
};
static_assert(sizeof(Flit) >= sizeof(FlitPool::FreeRecord) && alignof(Flit) <= alignof(std::max_align_t),
              "a flit record must hold a free-list link");

FlitPool& Pool() {
  // Never destroyed: a flit may be deleted after its thread's end, at the
  // program's exit.
  thread_local FlitPool* pool = new FlitPool;
  return *pool;
}
}  // namespace

void* Flit::operator new(std::size_t size) {
  if (!kPooled || size != sizeof(Flit)) return ::operator new(size);
  return Pool().Take();
}

void Flit::operator delete(void* record, std::size_t size) noexcept {
  if (record == nullptr) return;
  if (!kPooled || size != sizeof(Flit)) {
    ::operator delete(record);
    return;
  }
  Pool().Give(record);
}

Flit::Flit()
    : tag(0xffffffffu),
      address(0),
      command(NULL_COMMAND),
      requestLength(0),
      header(true),
      tail(true),
      flitNumber(0xffffffffu),
      returnTokens(0),
      sourceLink(0xffffffffu),
      destination(0xffffffffu) {}

Flit::Flit(unsigned int tag, unsigned long address, ZELCommand command, unsigned int requestLength,
           bool header, bool tail, unsigned int flitNumber)
    : tag(tag),
      hostTag(-1),
      consumed(false),
      address(address),
      command(command),
      requestLength(requestLength),
      header(header),
      tail(tail),
      flitNumber(flitNumber),
      returnTokens(0),
      sourceLink(0xffffffffu),
      destination(0xffffffffu),
      validMark(FLIT_VALID_MARK) {
  if (CountsAsLive(command)) ++liveRequestsAndResponses;
}

Flit::Flit(const Flit& other)
    : tag(other.tag),
      hostTag(other.hostTag),
      consumed(other.consumed),
      address(other.address),
      command(other.command),
      requestLength(other.requestLength),
      header(other.header),
      tail(other.tail),
      flitNumber(other.flitNumber),
      returnTokens(other.returnTokens),
      sourceLink(other.sourceLink),
      destination(other.destination),
      lane(other.lane),
      validMark(other.validMark) {
  for (int i = 0; i < 8; ++i) timeStamps[i] = other.timeStamps[i];
  if (CountsAsLive(command)) ++liveRequestsAndResponses;
}

// The mark is cleared through a volatile access: a store into an object
// that is being destroyed is otherwise dropped by the optimiser, and a later
// look through a stale pointer must find the mark gone.
Flit::~Flit() {
  if (CountsAsLive(command)) --liveRequestsAndResponses;
  *const_cast<volatile uint32_t*>(&validMark) = 0;
}

Flit& Flit::operator=(const Flit& other) {
  tag = other.tag;
  address = other.address;
  command = other.command;
  requestLength = other.requestLength;
  tail = other.tail;
  header = other.header;
  returnTokens = other.returnTokens;
  flitNumber = other.flitNumber;
  destination = other.destination;
  sourceLink = other.sourceLink;
  for (int i = 0; i < 8; ++i) timeStamps[i] = other.timeStamps[i];
  lane = other.lane;
  consumed = other.consumed;
  return *this;
}

bool Flit::operator==(const Flit& other) const {
  return address == other.address && tag == other.tag && command == other.command &&
         requestLength == other.requestLength && header == other.header && tail == other.tail &&
         returnTokens == other.returnTokens && flitNumber == other.flitNumber && lane == other.lane;
}

Flit_P::Flit_P(unsigned int tag, unsigned long address, ZELCommand command, unsigned int requestLength,
               bool header, bool tail, unsigned int flitNumber)
    : flit(new Flit(tag, address, command, requestLength, header, tail, flitNumber)), handleId(++guid) {}

Flit_P::Flit_P(Flit* existing) : flit(existing), handleId(++guid) {}

void Flit_P::AttachTokens(unsigned int tokens) {
  ZEL_ASSERT((*flit).tail);
  flit->returnTokens = tokens;
}

namespace {

// The command enumerations have the fixed underlying type uint32_t; the trace
// file keeps a reference to the field and reads it as that integer at each
// time step, so that the traced value follows the live record.
const uint32_t& AsInteger(const ZELCommand& command) {
  return *reinterpret_cast<const uint32_t*>(static_cast<const void*>(&command));
}
const uint32_t& AsInteger(const DRAMCommand& command) {
  return *reinterpret_cast<const uint32_t*>(static_cast<const void*>(&command));
}

// The part of a request's printed form from " addr:0x" on.
void PrintRoute(std::ostream& out, const Flit& flit) {
  out << " addr:0x" << std::hex;
  out.width(8);
  out.fill('0');
  out << flit.address << std::dec;  // the fill stays '0' on purpose
  out << " d[" << flit.destination << "] l[" << flit.sourceLink << "," << flit.lane << "] #:"
      << flit.flitNumber;
}

void PrintCommand(std::ostream& out, const Flit& flit) {
  char hexTag[16];
  std::snprintf(hexTag, sizeof hexTag, "%03x", flit.hostTag >= 0 ? static_cast<unsigned>(flit.hostTag)
                                                                   : flit.tag);
  const char* name = nullptr;
  switch (flit.command) {
    case RD: name = "RD"; break;
    case RD_RSP: name = "RD_RSP"; break;
    case P_WR: name = "P_WR"; break;
    case WR: name = "WR"; break;
    default: break;
  }
  if (name != nullptr) {
    out << "cmd:" << name << flit.requestLength << " tag:" << hexTag << " sc_tag:" << flit.tag;
    PrintRoute(out, flit);
    return;
  }
  switch (flit.command) {
    case WR_RSP:
      out << "cmd:WR_RSP tag:" << hexTag << " sc_tag:" << flit.tag;
      PrintRoute(out, flit);
      return;
    case TOKEN_RETURN:
      out << "cmd:TOKEN_RETURN tag:" << hexTag << " sc_tag:" << flit.tag;
      return;
    case BWR: name = "BWR"; break;
    case P_BWR: name = "P_BWR"; break;
    case DADD8: name = "DADD8"; break;
    case P_DADD8: name = "P_DADD8"; break;
    case ADD16: name = "ADD16"; break;
    case P_ADD16: name = "P_ADD16"; break;
    case NULL_COMMAND:
      out << "cmd:NULL_COMMAND";
      return;
    default:
      out << "Unknown Command!!!";
      return;
  }
  // Atomics print their tag in decimal and have no sc_tag.
  out << "cmd:" << name << " tag:" << flit.tag;
  PrintRoute(out, flit);
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const Flit& flit) {
  out << (flit.header ? "[HEAD " : "      ");
  PrintCommand(out, flit);
  out << " tokens:" << flit.returnTokens;
  if (flit.tail) out << " TAIL]";
  if (flit.consumed) out << " **CONSUMED**";
  if (flit.validMark != FLIT_VALID_MARK) out << " **INVALID**";
  return out;
}

std::ostream& operator<<(std::ostream& out, const Flit_P& handle) { return out << *handle.flit; }

void sc_trace(sc_core::sc_trace_file*& tf, const Flit& flit, const std::string& name) {
  if (tf == nullptr) return;
  sc_core::sc_trace(tf, flit.tag, name + ".tag", 32);
  sc_core::sc_trace(tf, AsInteger(flit.command), name + ".command", 32);
  sc_core::sc_trace(tf, flit.requestLength, name + ".requestLength", 32);
  sc_core::sc_trace(tf, flit.address, name + ".address", 64);
}

void sc_trace(sc_core::sc_trace_file* tf, const Flit_P& handle, const std::string& name) {
  sc_trace(tf, *handle.flit, name);
}

bool DRAMBusPacket::operator==(const DRAMBusPacket& other) const {
  return command == other.command && partition == other.partition && bank == other.bank &&
         row == other.row && col == other.col && tag == other.tag && firstBeat == other.firstBeat &&
         earliestIssue == other.earliestIssue;
}

std::ostream& operator<<(std::ostream& out, const DRAMBusPacket& packet) {
  const char* name = nullptr;
  switch (packet.command) {
    case ACT: name = "ACT"; break;
    case PRE: name = "PRE"; break;
    case READ: name = "READ"; break;
    case WRITE: name = "WRITE"; break;
    case REF:
      return out << "REF prt:" << packet.partition << " bnk:" << packet.bank;
    case DATA:
      return out << "DATA prt:" << packet.partition << " bnk:" << packet.bank << " row:" << packet.row
                 << " col:" << packet.col << " (" << packet.firstBeat << ") tag:" << packet.tag;
    default:
      return out << "EVEN BIGGER ERROR!!!!!!!!!!!!!!!!!!!" << std::endl;
  }
  return out << name << " prt:" << packet.partition << " bnk:" << packet.bank << " row:" << packet.row
             << " col:" << packet.col << " tag:" << packet.tag;
}

void sc_trace(sc_core::sc_trace_file* tf, const DRAMBusPacket& packet, const std::string& name) {
  if (tf == nullptr) return;
  sc_core::sc_trace(tf, packet.tag, name + ".tag", 32);
  sc_core::sc_trace(tf, AsInteger(packet.command), name + ".command", 32);
  sc_core::sc_trace(tf, packet.partition, name + ".partition", 32);
  sc_core::sc_trace(tf, packet.bank, name + ".bank", 32);
  sc_core::sc_trace(tf, packet.row, name + ".row", 32);
  sc_core::sc_trace(tf, packet.col, name + ".col", 32);
}

}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak
