// SPDX-License-Identifier: Apache-2.0
// Flits, handles, DRAM bus packets and the text utilities.
#include <limits>

#include "test_support.h"
#include "zel2/zel2_atomics_extension.h"
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
  // A run of delimiters counts as one. The configuration reader's line
  // syntax covers the common cases.
  EXPECT_EQ(pieces("a==b", "="), (V{"a", "b"}));
  EXPECT_EQ(pieces("a=b=c", "="), (V{"a", "b", "c"}));
  EXPECT_EQ(pieces("a=b=c", "=", 2), (V{"a", "b=c"}));
  EXPECT_EQ(pieces(";;;", ";"), (V{"", ""}));
  EXPECT_EQ(pieces("", ";"), (V{""}));
  EXPECT_EQ(pieces("abc", ";", 0), (V{"abc"}));

  EXPECT_EQ(strip(" \t a b\t ", " \t"), "a b");
  EXPECT_EQ(strip(" \t ", " \t"), "");

  unsigned long value = 0;
  convert_uint64_t(value, "18446744073709551615", "max");
  EXPECT_EQ(value, std::numeric_limits<unsigned long>::max());
  EXPECT_DIES_SAYING(convert_uint64_t(value, "12a", "count"),
                     "ERROR: Non-digit character found: count : 12a");

  zelsim_test::TempDir dir;
  confirm_directory_exists(dir.Write("file", ""));  // "test -e" is all that is asked
}

// The golden state dumps hold the forms of requests, responses and atomics;
// here, the rarer ones. Without a host tag the model's tag shows in hex.
TEST(FlitPrinting, RareForms) {
  Flit read(300, 0x1234, RD, 64, true, true, 1);
  read.lane = 2;
  std::ostringstream out;
  out << read;
  EXPECT_NE(out.str().find("tag:12c sc_tag:300"), std::string::npos);
  EXPECT_EQ(out.fill(), '0');  // left behind on the stream
  EXPECT_EQ(out.flags() & std::ios::basefield, std::ios::dec);

  Flit tokens(9, ~0ul, TOKEN_RETURN, 0, true, true, 1);
  tokens.returnTokens = 31;
  EXPECT_EQ(Print(tokens), "[HEAD cmd:TOKEN_RETURN tag:009 sc_tag:9 tokens:31 TAIL]");
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
  Flit_P b = flit;  // hosts convert a flit to its handle plainly
  EXPECT_EQ(b.handleId, a.handleId + 1);
  EXPECT_FALSE(a == b);  // so that a signal sees every new handle to the same flit
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

  const zel2_atomics_extension atomic = ADD16;  // plain conversion, as for the handle
  EXPECT_EQ(atomic.command, ADD16);
}

// Assignment keeps the target's host tag and mark; the copy constructor
// copies everything. Requests and responses count as live, token returns
// and the blank flits of default handles don't.
TEST(FlitRecord, AssignmentCopyAndLiveCount) {
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
  Flit copy(source);
  EXPECT_EQ(copy.hostTag, 9);
  EXPECT_EQ(copy.validMark, FLIT_VALID_MARK);

  const int64_t before = Flit::liveRequestsAndResponses;
  Flit* request = new Flit(1, 0, RD, 32, true, true, 1);
  Flit* response = new Flit(*request);
  response->command = RD_RSP;
  Flit* tokens = new Flit(2, ~0ul, TOKEN_RETURN, 0, true, true, 1);
  Flit_P blank;
  EXPECT_EQ(Flit::liveRequestsAndResponses, before + 2);
  delete request;
  delete response;
  delete tokens;
  EXPECT_EQ(Flit::liveRequestsAndResponses, before);
}

TEST(DramBusPacket, PrintedFormsAndEquality) {
  DRAMBusPacket packet{REF, 1, 2, 3, 4};  // the other forms show in the vault's refusals
  EXPECT_EQ(Print(packet), "REF prt:1 bnk:2");
  packet.command = static_cast<DRAMCommand>(6);
  EXPECT_EQ(Print(packet), "EVEN BIGGER ERROR!!!!!!!!!!!!!!!!!!!\n");

  // Equality covers every field, down to the beat and the issue time.
  DRAMBusPacket a, b;
  EXPECT_TRUE(a == b);
  b.firstBeat = false;
  EXPECT_FALSE(a == b);
  b = a;
  b.earliestIssue = sc_core::sc_time(1, sc_core::SC_NS);
  EXPECT_FALSE(a == b);
}
