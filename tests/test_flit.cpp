// SPDX-License-Identifier: Apache-2.0
// Flits, handles, DRAM bus packets and the text utilities.
#define SC_INCLUDE_DYNAMIC_PROCESSES
#include <gtest/gtest.h>
#include <unistd.h>

#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "test_support.h"
#include "zel2/zel2_flit.h"
#include "zel2/zel2_utils.h"

using namespace Sornak::Internal::ZEL2;

namespace {

template <class T>
std::string Print(const T& value) {
  std::ostringstream out;
  out << value;
  return out.str();
}

}  // namespace

TEST(TextUtils, SplitStripAndConvert) {
  using V = std::vector<std::string>;
  auto pieces = [](const char* text, const char* delimiters, unsigned long limit = ~0ul) {
    const auto list = split(text, delimiters, limit);
    return V(list.begin(), list.end());
  };
  // A run of delimiters counts as one.
  EXPECT_EQ(pieces("a=b", "="), (V{"a", "b"}));
  EXPECT_EQ(pieces("a=", "="), (V{"a", ""}));
  EXPECT_EQ(pieces("=b", "="), (V{"", "b"}));
  EXPECT_EQ(pieces("a==b", "="), (V{"a", "b"}));
  EXPECT_EQ(pieces("a=b=c", "="), (V{"a", "b", "c"}));
  EXPECT_EQ(pieces("a=b=c", "=", 2), (V{"a", "b=c"}));
  EXPECT_EQ(pieces(";;;", ";"), (V{"", ""}));
  EXPECT_EQ(pieces("", ";"), (V{""}));
  EXPECT_EQ(pieces("abc", ";", 0), (V{"abc"}));

  EXPECT_EQ(strip(" \t a b\t ", " \t"), "a b");
  EXPECT_EQ(strip(" \t ", " \t"), "");
  EXPECT_EQ(strip("value\r", " \t"), "value\r");

  unsigned long value = 0;
  convert_uint64_t(value, "18446744073709551615", "max");
  EXPECT_EQ(value, std::numeric_limits<unsigned long>::max());
  EXPECT_DIES_SAYING(convert_uint64_t(value, "12a", "count"),
                     "ERROR: Non-digit character found: count : 12a");

  zelsim_test::TempDir dir;
  confirm_directory_exists(dir.Write("file", ""));  // "test -e" is all that is asked
}

// The host tag prints in hex and the model's tag in decimal; atomics print
// their tag in decimal and no sc_tag.
TEST(FlitPrinting, EveryForm) {
  Flit read(300, 0x1234, RD, 64, true, true, 1);
  read.hostTag = 5;
  read.lane = 2;
  std::ostringstream out;
  out << read;
  EXPECT_EQ(
      out.str(),
      "[HEAD cmd:RD64 tag:005 sc_tag:300 addr:0x00001234 d[4294967295] l[4294967295,2] #:1 tokens:0 TAIL]");
  EXPECT_EQ(out.fill(), '0');  // left behind on the stream
  EXPECT_EQ(out.flags() & std::ios::basefield, std::ios::dec);
  read.hostTag = -1;
  EXPECT_NE(Print(read).find("tag:12c sc_tag:300"), std::string::npos);

  Flit response(7, 0xabc, WR_RSP, 32, true, true, 1);
  response.lane = 0;
  EXPECT_EQ(
      Print(response),
      "[HEAD cmd:WR_RSP tag:007 sc_tag:7 addr:0x00000abc d[4294967295] l[4294967295,0] #:1 tokens:0 TAIL]");
  Flit tokens(9, ~0ul, TOKEN_RETURN, 0, true, true, 1);
  tokens.returnTokens = 31;
  EXPECT_EQ(Print(tokens), "[HEAD cmd:TOKEN_RETURN tag:009 sc_tag:9 tokens:31 TAIL]");
  Flit atomic(300, 0x10, ADD16, 16, false, true, 2);
  atomic.lane = 1;
  EXPECT_EQ(Print(atomic),
            "      cmd:ADD16 tag:300 addr:0x00000010 d[4294967295] l[4294967295,1] #:2 tokens:0 TAIL]");
  Flit unknown(1, 0, static_cast<ZELCommand>(13), 0, false, false, 1);
  unknown.returnTokens = 3;
  unknown.consumed = true;
  EXPECT_EQ(Print(unknown), "      Unknown Command!!! tokens:3 **CONSUMED**");
  EXPECT_EQ(Print(Flit_P()), "      cmd:NULL_COMMAND tokens:0");

  Flit* stale = new Flit(1, 0, RD, 16, true, true, 1);
  stale->lane = 0;
  stale->~Flit();  // look at the record after its destructor, as a stale pointer would
  EXPECT_NE(Print(*stale).find(" **INVALID**"), std::string::npos);
  ::operator delete(stale);
}

TEST(FlitHandle, NumbersComparisonAndTokens) {
  Flit* flit = new Flit(1, 0, RD, 16, true, true, 1);
  Flit_P a(flit);
  Flit_P b(flit);
  EXPECT_EQ(b.handleId, a.handleId + 1);
  EXPECT_FALSE(a == b);
  EXPECT_TRUE(*a == *b);
  Flit_P copy = a;
  EXPECT_TRUE(copy == a);
  delete flit;

  Flit_P tail(1, 0, WR, 16, false, true, 2);
  tail.AttachTokens(7);
  tail.AttachTokens(3);
  EXPECT_EQ(tail.GetNumReturnTokens(), 3u);
  Flit_P header(1, 0, WR, 16, true, false, 1);
  EXPECT_DIES_SAYING(header.AttachTokens(1), "(*flit).tail");
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

// Two handles to one flit written to a signal in turn are two events; a
// copy of the current handle is none.
TEST(FlitHandle, SignalSeesEveryNewHandle) {
  sc_core::sc_signal<Flit_P> signal("signal");
  int events = 0;
  sc_core::sc_spawn_options options;
  options.spawn_method();
  options.set_sensitivity(&signal.value_changed_event());
  options.dont_initialize();
  sc_core::sc_spawn([&events] { ++events; }, "count", &options);
  Flit* flit = new Flit(1, 0, RD, 16, true, true, 1);
  for (int write = 0; write < 3; ++write) {
    signal.write(write < 2 ? Flit_P(flit) : signal.read());
    sc_core::sc_start(1, sc_core::SC_NS);
  }
  EXPECT_EQ(events, 2);
  delete flit;
}

TEST(DramBusPacket, PrintedFormsAndEquality) {
  DRAMBusPacket packet;
  packet.command = READ;
  packet.partition = 1;
  packet.bank = 2;
  packet.row = 3;
  packet.col = 4;
  packet.tag = 0xffffffffu;
  EXPECT_EQ(Print(packet), "READ prt:1 bnk:2 row:3 col:4 tag:4294967295");
  packet.command = REF;
  EXPECT_EQ(Print(packet), "REF prt:1 bnk:2");
  packet.command = static_cast<DRAMCommand>(6);
  EXPECT_EQ(Print(packet), "EVEN BIGGER ERROR!!!!!!!!!!!!!!!!!!!\n");

  // Equality covers every field, down to the beat and the issue time.
  DRAMBusPacket a;
  DRAMBusPacket b;
  EXPECT_TRUE(a == b);
  b.firstBeat = false;
  EXPECT_FALSE(a == b);
  b = a;
  b.earliestIssue = sc_core::sc_time(1, sc_core::SC_NS);
  EXPECT_FALSE(a == b);
}
