// SPDX-License-Identifier: Apache-2.0
// Flits, handles, DRAM bus packets and the text utilities.
#include <gtest/gtest.h>
#include <unistd.h>

#include <limits>
#include <sstream>
#include <vector>

#include "zel2/zel2_flit.h"
#include "zel2/zel2_utils.h"

using namespace Sornak::Internal::ZEL2;

namespace {

std::string Print(const Flit& flit) {
  std::ostringstream out;
  out << flit;
  return out.str();
}

std::vector<std::string> Pieces(const std::string& text, const std::string& delimiters,
                                unsigned long limit = std::numeric_limits<unsigned long>::max()) {
  const auto list = split(text, delimiters, limit);
  return {list.begin(), list.end()};
}

}  // namespace

TEST(TextUtils, SplitTreatsRunsOfDelimitersAsOne) {
  using V = std::vector<std::string>;
  EXPECT_EQ(Pieces("a=b", "="), (V{"a", "b"}));
  EXPECT_EQ(Pieces("a=", "="), (V{"a", ""}));
  EXPECT_EQ(Pieces("=b", "="), (V{"", "b"}));
  EXPECT_EQ(Pieces("a==b", "="), (V{"a", "b"}));
  EXPECT_EQ(Pieces("a=b=c", "="), (V{"a", "b", "c"}));
  EXPECT_EQ(Pieces("a=b=c", "=", 2), (V{"a", "b=c"}));
  EXPECT_EQ(Pieces(";x", ";"), (V{"", "x"}));
  EXPECT_EQ(Pieces(";;;", ";"), (V{"", ""}));
  EXPECT_EQ(Pieces("", ";"), (V{""}));
  EXPECT_EQ(Pieces("abc", ";", 0), (V{"abc"}));
}

TEST(TextUtils, StripRemovesOnlyTheGivenCharacters) {
  EXPECT_EQ(strip(" \t a b\t ", " \t"), "a b");
  EXPECT_EQ(strip(" \t ", " \t"), "");
  EXPECT_EQ(strip("value\r", " \t"), "value\r");
}

TEST(TextUtils, ConvertParsesDigitsAndStopsOnOthers) {
  unsigned long value = 0;
  convert_uint64_t(value, "18446744073709551615", "max");
  EXPECT_EQ(value, std::numeric_limits<unsigned long>::max());
  EXPECT_DEATH(
      {
        dup2(2, 1);
        convert_uint64_t(value, "12a", "count");
      },
      "ERROR: Non-digit character found: count : 12a");
}

TEST(TextUtils, ConfirmDirectoryAcceptsAnExistingFile) {
  char name[] = "/tmp/zelsimXXXXXX";
  const int fd = mkstemp(name);
  ASSERT_GE(fd, 0);
  close(fd);
  confirm_directory_exists(name);  // "test -e" is all that is asked
  unlink(name);
}

TEST(FlitPrinting, ReadShowsHostTagInHexAndModelTagInDecimal) {
  Flit flit(300, 0x1234, RD, 64, true, true, 1);
  flit.hostTag = 5;
  flit.lane = 2;
  EXPECT_EQ(Print(flit),
            "[HEAD cmd:RD64 tag:005 sc_tag:300 addr:0x00001234 d[4294967295] l[4294967295,2] #:1 tokens:0 TAIL]");
  flit.hostTag = -1;
  EXPECT_NE(Print(flit).find("tag:12c sc_tag:300"), std::string::npos);
}

TEST(FlitPrinting, EveryCommandHasItsForm) {
  Flit response(7, 0xabc, WR_RSP, 32, true, true, 1);
  response.lane = 0;
  EXPECT_EQ(Print(response),
            "[HEAD cmd:WR_RSP tag:007 sc_tag:7 addr:0x00000abc d[4294967295] l[4294967295,0] #:1 tokens:0 TAIL]");
  Flit tokens(9, ~0ul, TOKEN_RETURN, 0, true, true, 1);
  tokens.returnTokens = 31;
  EXPECT_EQ(Print(tokens), "[HEAD cmd:TOKEN_RETURN tag:009 sc_tag:9 tokens:31 TAIL]");
  // Atomics print the tag in decimal and no sc_tag.
  Flit atomic(300, 0x10, ADD16, 16, false, true, 2);
  atomic.lane = 1;
  EXPECT_EQ(Print(atomic), "      cmd:ADD16 tag:300 addr:0x00000010 d[4294967295] l[4294967295,1] #:2 tokens:0 TAIL]");
  Flit unknown(1, 0, static_cast<ZELCommand>(13), 0, false, false, 1);
  unknown.returnTokens = 3;
  unknown.consumed = true;
  EXPECT_EQ(Print(unknown), "      Unknown Command!!! tokens:3 **CONSUMED**");
}

TEST(FlitPrinting, DefaultHandleAndDeletedFlit) {
  Flit_P blank;
  std::ostringstream out;
  out << blank;
  EXPECT_EQ(out.str(), "      cmd:NULL_COMMAND tokens:0");

  Flit* flit = new Flit(1, 0, RD, 16, true, true, 1);
  flit->lane = 0;
  flit->~Flit();  // look at the record after its destructor, as a stale pointer would
  EXPECT_NE(Print(*flit).find(" **INVALID**"), std::string::npos);
  ::operator delete(flit);
}

TEST(FlitPrinting, LeavesFillCharacterAtZero) {
  std::ostringstream out;
  Flit flit(1, 0x1, RD, 16, true, true, 1);
  flit.lane = 0;
  out << flit;
  EXPECT_EQ(out.fill(), '0');
  EXPECT_EQ(out.flags() & std::ios::basefield, std::ios::dec);
}

TEST(FlitHandle, NumbersAndComparison) {
  Flit* flit = new Flit(1, 0, RD, 16, true, true, 1);
  Flit_P a(flit);
  Flit_P b(flit);
  EXPECT_EQ(b.handleId, a.handleId + 1);
  EXPECT_FALSE(a == b);
  EXPECT_TRUE(*a == *b);
  Flit_P copy = a;
  EXPECT_TRUE(copy == a);
  delete flit;
}

TEST(FlitHandle, AssignmentKeepsTargetsHostTagAndMark) {
  Flit source(1, 0x40, WR, 64, false, true, 5);
  source.hostTag = 9;
  source.destination = 3;
  Flit target(2, 0, RD, 16, true, true, 1);
  target.hostTag = 4;
  target.validMark = 0;
  target = source;
  EXPECT_EQ(target.hostTag, 4);
  EXPECT_EQ(target.validMark, 0u);
  EXPECT_EQ(target.destination, 3u);
  EXPECT_EQ(target.flitNumber, 5u);
  Flit copy(source);  // the copy constructor copies everything
  EXPECT_EQ(copy.hostTag, 9);
  EXPECT_EQ(copy.validMark, FLIT_VALID_MARK);
}

TEST(FlitHandle, AttachTokensNeedsATail) {
  Flit_P tail(1, 0, WR, 16, false, true, 2);
  tail.AttachTokens(7);
  tail.AttachTokens(3);
  EXPECT_EQ(tail.GetNumReturnTokens(), 3u);
  Flit_P header(1, 0, WR, 16, true, false, 1);
  EXPECT_DEATH(header.AttachTokens(1), "\\(\\*flit\\).tail");
}

TEST(DramBusPacket, PrintedForms) {
  DRAMBusPacket packet;
  packet.command = READ;
  packet.partition = 1;
  packet.bank = 2;
  packet.row = 3;
  packet.col = 4;
  packet.tag = 0xffffffffu;
  std::ostringstream out;
  out << packet;
  EXPECT_EQ(out.str(), "READ prt:1 bnk:2 row:3 col:4 tag:4294967295");

  packet.command = DATA;
  packet.tag = 5;
  std::ostringstream beats;
  beats << packet << "|";
  packet.firstBeat = false;
  beats << packet;
  EXPECT_EQ(beats.str(), "DATA prt:1 bnk:2 row:3 col:4 (1) tag:5|DATA prt:1 bnk:2 row:3 col:4 (0) tag:5");

  packet.command = REF;
  std::ostringstream ref;
  ref << packet;
  EXPECT_EQ(ref.str(), "REF prt:1 bnk:2");

  packet.command = static_cast<DRAMCommand>(6);
  std::ostringstream bad;
  bad << packet;
  EXPECT_EQ(bad.str(), "EVEN BIGGER ERROR!!!!!!!!!!!!!!!!!!!\n");
}

TEST(DramBusPacket, EqualityCoversEveryField) {
  DRAMBusPacket a;
  DRAMBusPacket b;
  EXPECT_TRUE(a == b);
  b.firstBeat = false;
  EXPECT_FALSE(a == b);
  b = a;
  b.earliestIssue = sc_core::sc_time(1, sc_core::SC_NS);
  EXPECT_FALSE(a == b);
}

// Two handles to one flit written to a signal in turn are two events; a
// copy of the current handle is none.
struct SignalProbe : sc_core::sc_module {
  sc_core::sc_signal<Flit_P> signal;
  int events = 0;
  Flit* flit = new Flit(1, 0, RD, 16, true, true, 1);
  SC_HAS_PROCESS(SignalProbe);
  explicit SignalProbe(sc_core::sc_module_name name) : sc_module(name), signal("signal") {
    SC_METHOD(Count);
    sensitive << signal;
    dont_initialize();
    SC_THREAD(Drive);
  }
  void Count() { ++events; }
  void Drive() {
    Flit_P first(flit);
    signal.write(first);
    wait(1, sc_core::SC_NS);
    signal.write(Flit_P(flit));
    wait(1, sc_core::SC_NS);
    signal.write(signal.read());
    wait(1, sc_core::SC_NS);
  }
};

TEST(FlitHandle, SignalSeesEveryNewHandle) {
  SignalProbe probe("probe");
  sc_core::sc_start(sc_core::sc_time(10, sc_core::SC_NS));
  EXPECT_EQ(probe.events, 2);
}

TEST(FlitHandle, LiveCounterFollowsRequestsAndResponses) {
  const int64_t before = Flit::liveRequestsAndResponses;
  Flit* request = new Flit(1, 0, RD, 32, true, true, 1);
  Flit* response = new Flit(*request);
  response->command = RD_RSP;
  Flit* tokens = new Flit(2, ~0ul, TOKEN_RETURN, 0, true, true, 1);
  Flit_P blank;  // blank flits of default handles don't count
  EXPECT_EQ(Flit::liveRequestsAndResponses, before + 2);
  delete request;
  delete response;
  delete tokens;
  EXPECT_EQ(Flit::liveRequestsAndResponses, before);
}
