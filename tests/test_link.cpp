// SPDX-License-Identifier: Apache-2.0
// The external link on its own: a bench binds every port to a signal and
// plays the host (requests in, responses out), the link switch (flits out,
// token pulses and busy in) and the vault switch (responses in, credits out).
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <sstream>
#include <string>
#include <systemc>
#include <vector>

#include "zel2/Config.h"
#include "zel2/StatsKeeper.h"
#include "zel2/zel2_flit.h"
#include "zel2/zel2_link.h"

namespace {

using namespace Sornak::Internal::ZEL2;
using sc_core::SC_NS;
using sc_core::SC_PS;
using sc_core::sc_time;

sc_time Ps(double ps) { return sc_time(ps, SC_PS); }

// With the defaults a flit takes 533 ps and a core cycle 1600 ps; the input
// delay is 2 cycles and the output delay 3 (4800 ps).
constexpr double kFlit = 533;

Flit* MakeFlit(unsigned tag, uint64_t address, ZELCommand command, unsigned length, bool header, bool tail,
               unsigned number, unsigned tokens = 0) {
  Flit* flit = new Flit(tag, address, command, length, header, tail, number);
  flit->returnTokens = tokens;
  // The harness owns no flit that it hands to the block: they stay reachable
  // here for the program's life, whether the block deletes them or not.
  static auto* made = new std::vector<Flit*>;  // never destroyed
  made->push_back(flit);
  return flit;
}

// A literal text as a death-test pattern.
std::string Lit(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos) out += '\\';
    out += c;
  }
  return out;
}

class LinkBench : public sc_core::sc_module {
 public:
  struct Arrival {
    sc_time time;
    Flit_P handle;
    Flit snapshot;  // the flit as it was when it arrived
    unsigned port;
  };

  sc_core::sc_signal<Flit_P> request{"request"};
  sc_core::sc_signal<Flit_P> response{"response"};
  sc_core::sc_vector<sc_core::sc_signal<Flit_P>> vswToLink{"vswToLink"};
  sc_core::sc_vector<sc_core::sc_signal<Flit_P>> linkToLsw{"linkToLsw"};
  sc_core::sc_signal<int> credits{"credits"};
  sc_core::sc_signal<int> tokens{"tokens"};
  sc_core::sc_signal<bool> busy{"busy"};
  zel2_link link;

  std::function<void(LinkBench&)> script;             // runs as a thread from time 0
  std::function<void(const Flit_P&)> hostOnResponse;  // the host's handling of a response
  std::vector<Arrival> responses;
  std::vector<Arrival> toLsw;
  std::vector<std::pair<sc_time, int>> creditChanges;

  SC_HAS_PROCESS(LinkBench);
  LinkBench(sc_core::sc_module_name name, const Config& cfg, StatsKeeper& stats, unsigned number)
      : sc_module(name), link("link", cfg, stats, number) {
    vswToLink.init(cfg.FLITS_PER_CYCLE_VSW);
    linkToLsw.init(cfg.FLITS_PER_CYCLE_LINK);
    link.requestIn(request);
    link.responseOut(response);
    for (unsigned k = 0; k < vswToLink.size(); ++k) link.responseFlitsIn[k](vswToLink[k]);
    for (unsigned k = 0; k < linkToLsw.size(); ++k) link.flitsToLSW[k](linkToLsw[k]);
    link.creditsOut(credits);
    link.returnTokensIn(tokens);
    link.busyIn(busy);

    SC_THREAD(RunScript);
    SC_METHOD(CollectResponse);
    sensitive << response;
    dont_initialize();
    SC_METHOD(CollectToLsw);
    for (auto& signal : linkToLsw) sensitive << signal;
    dont_initialize();
    SC_METHOD(CollectCredits);
    sensitive << credits;
    dont_initialize();
  }

  // Script helpers, called from the script thread.
  void WaitUntil(double ps) { wait(Ps(ps) - sc_core::sc_time_stamp()); }
  void Send(double ps, Flit* flit) {
    WaitUntil(ps);
    request.write(Flit_P(flit));
  }
  void SendResponse(unsigned port, Flit* flit) { vswToLink[port].write(Flit_P(flit)); }
  // A token pulse of the link switch: the count for half a cycle, then zero.
  void PulseTokens(double ps, int count) {
    WaitUntil(ps);
    tokens.write(count);
    wait(Ps(800));
    tokens.write(0);
  }
  void SetBusy(double ps, bool value) {
    WaitUntil(ps);
    busy.write(value);
  }

  std::vector<Arrival> Responses(ZELCommand command) const {
    std::vector<Arrival> out;
    for (const Arrival& a : responses)
      if (a.snapshot.command == command) out.push_back(a);
    return out;
  }

 private:
  void RunScript() {
    if (script) script(*this);
  }
  void CollectResponse() {
    const Flit_P handle = response.read();
    responses.push_back({sc_core::sc_time_stamp(), handle, *handle, 0});
    if (hostOnResponse) hostOnResponse(handle);
  }
  void CollectToLsw() {
    for (unsigned k = 0; k < linkToLsw.size(); ++k) {
      if (!linkToLsw[k].event()) continue;
      const Flit_P handle = linkToLsw[k].read();
      toLsw.push_back({sc_core::sc_time_stamp(), handle, *handle, k});
    }
  }
  void CollectCredits() { creditChanges.emplace_back(sc_core::sc_time_stamp(), credits.read()); }
};

void ExpectArrival(const LinkBench::Arrival& a, double ps, unsigned tag, unsigned port) {
  EXPECT_EQ(a.time, Ps(ps)) << "tag " << a.snapshot.tag;
  EXPECT_EQ(a.snapshot.tag, tag);
  EXPECT_EQ(a.port, port) << "tag " << a.snapshot.tag;
}

// ---- Link rate and address mapping ------------------------------------------

TEST(LinkParams, RateAndFlitsPerClockFromWidthAndSpeed) {
  Config cfg;
  StatsKeeper stats(cfg);
  zel2_link link("link", cfg, stats, 0);
  EXPECT_EQ(link.flitRate, Ps(533));
  EXPECT_EQ(link.flitsPerClock, 3u);  // ratio 3.002 rounds down

  cfg.LINK_SPEED = 10.0f;
  link.updateLinkParams(0);
  EXPECT_EQ(link.flitRate, Ps(800));
  EXPECT_EQ(link.flitsPerClock, 2u);  // exactly 2

  cfg.LINK_SPEED = 12.5f;
  link.updateLinkParams(0);
  EXPECT_EQ(link.flitRate, Ps(640));
  EXPECT_EQ(link.flitsPerClock, 3u);  // 2.5 rounds up

  cfg.LINK_SPEED = 11.5f;
  link.updateLinkParams(0);
  EXPECT_EQ(link.flitRate, Ps(696));
  EXPECT_EQ(link.flitsPerClock, 3u);  // 2.299 rounds up as well

  // The width comes from the link named in the call, not from the link's own number.
  cfg.LINK_SPEED = 10.0f;
  cfg.LINK_2_WIDTH = 8;
  link.updateLinkParams(2);
  EXPECT_EQ(link.flitRate, Ps(1600));
  EXPECT_EQ(link.flitsPerClock, 1u);
}

TEST(LinkParams, DestinationFieldSitsAboveTheBlockOffset) {
  Config cfg;
  StatsKeeper stats(cfg);
  zel2_link link("link", cfg, stats, 0);
  EXPECT_EQ(link.ComputeDestinationField(0x80), 1u);  // MAX_BLOCK_SIZE 128
  EXPECT_EQ(link.ComputeDestinationField(0x7f), 0u);
  EXPECT_EQ(link.ComputeDestinationField(0x880), 1u);  // 16 vaults wrap
  cfg.MAX_BLOCK_SIZE = 64;
  EXPECT_EQ(link.ComputeDestinationField(0x40), 1u);
  EXPECT_EQ(link.ComputeDestinationField(0x400), 0u);
  cfg.MAX_BLOCK_SIZE = 48;  // rounds up to a shift of 6
  EXPECT_EQ(link.ComputeDestinationField(0x40), 1u);
  EXPECT_EQ(link.ComputeDestinationField(0x30), 0u);
  cfg.MAX_BLOCK_SIZE = 1;
  cfg.NUM_VAULTS = 32;
  EXPECT_EQ(link.ComputeDestinationField(0x25), 5u);
}

TEST(LinkDeath, UnknownMappingScheme) {
  EXPECT_DEATH(
      {
        dup2(2, 1);
        Config cfg;
        cfg.MAPPING_SCHEME = 1;
        StatsKeeper stats(cfg);
        zel2_link link("link", cfg, stats, 0);
        link.ComputeDestinationField(0x40);
      },
      Lit("=[0 s]= ERROR - Wrong unknown address mapping scheme when computing destination field "
          "in link\n"));
}

// ---- Request path ---------------------------------------------------------

TEST(LinkRequests, FlitsReachTheLinkSwitchAfterTheInputDelay) {
  Config cfg;
  StatsKeeper stats(cfg);
  LinkBench bench("bench", cfg, stats, 2);
  bench.script = [](LinkBench& b) {
    b.Send(100, MakeFlit(7, 0x1280, RD, 64, true, true, 1));
    // A 32-byte write in the next cycle, with host tokens on its tail.
    b.Send(1700, MakeFlit(8, 0x100, WR, 32, true, false, 1));
    b.Send(1800, MakeFlit(8, 0x100, WR, 32, false, false, 2));
    b.Send(1900, MakeFlit(8, 0x100, WR, 32, false, true, 3, 4));
    // Flow-control flits: counted, never passed on.
    b.Send(3300, MakeFlit(40, ~0UL, TOKEN_RETURN, 0, true, true, 1, 6));
    b.Send(3400, MakeFlit(0, 0, NULL_COMMAND, 0, true, true, 1, 9));
  };
  sc_core::sc_start(Ps(12000));

  ASSERT_EQ(bench.toLsw.size(), 4u);
  ExpectArrival(bench.toLsw[0], 4800, 7, 0);
  EXPECT_EQ(bench.toLsw[0].snapshot.sourceLink, 2u);
  EXPECT_EQ(bench.toLsw[0].snapshot.destination, 5u);  // (0x1280 >> 7) & 15
  EXPECT_EQ(bench.toLsw[0].snapshot.lane, 0);
  for (unsigned k = 0; k < 3; ++k) {
    ExpectArrival(bench.toLsw[1 + k], 6400, 8, k);
    EXPECT_EQ(bench.toLsw[1 + k].snapshot.lane, static_cast<int>(k));
    EXPECT_EQ(bench.toLsw[1 + k].snapshot.destination, 2u);
  }
  EXPECT_EQ(bench.toLsw[3].snapshot.returnTokens, 0u);  // host tokens stop at the link
  EXPECT_EQ(bench.link.tokenCount, 4u + 6u);            // NULL_COMMAND tokens are lost

  EXPECT_EQ(stats.linkReads[2], 1u);
  EXPECT_EQ(stats.linkWrites[2], 1u);
  EXPECT_EQ(stats.linkWriteBytes[2], 32u);
  EXPECT_EQ(stats.linkBytes[2], 32u);
  EXPECT_EQ(stats.linkRequestFlits[2], 4u);
}

TEST(LinkDeath, FourthFlitInOneCoreCycle) {
  EXPECT_DEATH(
      {
        dup2(2, 1);
        Config cfg;
        StatsKeeper stats(cfg);
        LinkBench bench("bench", cfg, stats, 0);
        bench.script = [](LinkBench& b) {
          for (unsigned i = 0; i < 4; ++i) b.Send(100 + 100 * i, MakeFlit(i + 1, 0, RD, 16, true, true, 1));
        };
        sc_core::sc_start(Ps(5000));
      },
      Lit("==ERROR - Ring-Buffer overflow in link.  Received too many flits this core cycle (1600 ps)\n"));
}

TEST(LinkRequests, BusyHoldsNewPacketsAndLetsTheCurrentOneFinish) {
  Config cfg;
  StatsKeeper stats(cfg);
  LinkBench bench("bench", cfg, stats, 1);
  bench.script = [](LinkBench& b) {
    // A five-flit write over two cycles, then a read behind its tail.
    b.Send(100, MakeFlit(1, 0, WR, 64, true, false, 1));
    b.Send(200, MakeFlit(1, 0, WR, 64, false, false, 2));
    b.Send(300, MakeFlit(1, 0, WR, 64, false, false, 3));
    b.Send(1700, MakeFlit(1, 0, WR, 64, false, false, 4));
    b.Send(1800, MakeFlit(1, 0, WR, 64, false, true, 5));
    b.Send(1900, MakeFlit(2, 0, RD, 16, true, true, 1));
    b.SetBusy(5000, true);  // after the header has passed
    b.SetBusy(9000, false);
  };
  sc_core::sc_start(Ps(20000));

  ASSERT_EQ(bench.toLsw.size(), 6u);
  for (unsigned k = 0; k < 3; ++k) ExpectArrival(bench.toLsw[k], 4800, 1, k);
  ExpectArrival(bench.toLsw[3], 6400, 1, 0);
  ExpectArrival(bench.toLsw[4], 6400, 1, 1);
  EXPECT_TRUE(bench.toLsw[4].snapshot.tail);
  // The read waited in the input buffer until a cycle after busy fell.
  ExpectArrival(bench.toLsw[5], 10600, 2, 0);
  EXPECT_TRUE(bench.link.inputBuffer.empty());
}

TEST(LinkRequests, BufferDrainsOneLineAtATimeAndATailEndsItWhileBusy) {
  Config cfg;
  StatsKeeper stats(cfg);
  LinkBench bench("bench", cfg, stats, 1);
  bench.script = [](LinkBench& b) {
    b.SetBusy(0, true);
    b.Send(100, MakeFlit(1, 0, RD, 16, true, true, 1));
    b.Send(200, MakeFlit(2, 0, WR, 32, true, false, 1));
    b.Send(300, MakeFlit(2, 0, WR, 32, false, false, 2));
    b.Send(1700, MakeFlit(2, 0, WR, 32, false, true, 3));
    b.Send(1800, MakeFlit(3, 0, RD, 16, true, true, 1));
    b.SetBusy(7000, false);
    b.SetBusy(9000, true);  // while the write is half through
    b.SetBusy(13000, false);
  };
  sc_core::sc_start(Ps(20000));

  ASSERT_EQ(bench.toLsw.size(), 5u);
  // First line: lanes 0 to 2. The retry pending for 8000 stands, being
  // earlier than the one that busy's fall asks for at 8600.
  ExpectArrival(bench.toLsw[0], 8000, 1, 0);
  ExpectArrival(bench.toLsw[1], 8000, 2, 1);
  ExpectArrival(bench.toLsw[2], 8000, 2, 2);
  // Busy again: the write's tail still goes, alone, and the read waits.
  ExpectArrival(bench.toLsw[3], 9600, 2, 0);
  EXPECT_TRUE(bench.toLsw[3].snapshot.tail);
  ExpectArrival(bench.toLsw[4], 14600, 3, 1);
}

TEST(LinkRequests, AFlitMeetingADrainInTheSameStepWaitsACycle) {
  Config cfg;
  cfg.LINK_INPUT_DELAY = 0;  // blocks reach the link slave a delta after their boundary
  StatsKeeper stats(cfg);
  LinkBench bench("bench", cfg, stats, 1);
  bench.script = [](LinkBench& b) {
    b.SetBusy(0, true);
    b.Send(100, MakeFlit(1, 0, RD, 16, true, true, 1));   // buffered at 1600
    b.Send(1700, MakeFlit(2, 0, RD, 16, true, true, 1));  // out of the delay at 3200
    b.SetBusy(2000, false);                               // the buffer drains at 3200
  };
  sc_core::sc_start(Ps(10000));

  // The link switch takes one delivery per time step: the second read may
  // not follow the drain straight through.
  ASSERT_EQ(bench.toLsw.size(), 2u);
  ExpectArrival(bench.toLsw[0], 3200, 1, 0);
  ExpectArrival(bench.toLsw[1], 4800, 2, 0);
}

// ---- Tokens to the host -----------------------------------------------------

TEST(LinkTokens, TurnOnHandsOutTheInitialTokensOneFlitTimeApart) {
  Config cfg;
  StatsKeeper stats(cfg);
  LinkBench bench("bench", cfg, stats, 1);
  testing::internal::CaptureStdout();
  bench.link.TurnOnLink();
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(out, "0 s: SYSTEMC: Turning on link 1 with 100 tokens\n");  // no configuration on link 1
  sc_core::sc_start(Ps(12000));

  const unsigned expected[] = {31, 31, 31, 7};
  ASSERT_EQ(bench.responses.size(), 4u);
  for (unsigned i = 0; i < 4; ++i) {
    const Flit& f = bench.responses[i].snapshot;
    EXPECT_EQ(bench.responses[i].time, Ps(1600 + 4800 + i * kFlit));
    EXPECT_EQ(f.command, TOKEN_RETURN);
    EXPECT_EQ(f.returnTokens, expected[i]);
    EXPECT_EQ(f.tag, i);
    EXPECT_TRUE(f.header && f.tail);
    EXPECT_EQ(f.address, ~0UL);
    EXPECT_EQ(f.flitNumber, 1u);
  }
  EXPECT_EQ(bench.link.returnTokenCount, 0u);
  EXPECT_TRUE(bench.creditChanges.empty());  // token returns cost no credit
}

TEST(LinkTokens, CubeTokensSetBeforeTurnOnAndLinkZeroPrintsTheConfiguration) {
  Config cfg;
  StatsKeeper stats(cfg);
  LinkBench bench("bench", cfg, stats, 0);
  bench.link.setCubeTokens(40);
  testing::internal::CaptureStdout();
  bench.link.TurnOnLink();
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(out.rfind("0 s: SYSTEMC: Turning on link 0 with 40 tokens\n", 0), 0u);
  EXPECT_NE(out.find("\n[sc_time]: 'CORE_CLK'=1600 ps\n"), std::string::npos);
  sc_core::sc_start(Ps(12000));
  ASSERT_EQ(bench.responses.size(), 2u);
  EXPECT_EQ(bench.responses[0].snapshot.returnTokens, 31u);
  EXPECT_EQ(bench.responses[1].snapshot.returnTokens, 9u);
}

TEST(LinkDeath, CubeTokensAfterTurnOnOrZero) {
  auto run = [](bool turnOn, unsigned tokens) {
    dup2(2, 1);
    Config cfg;
    StatsKeeper stats(cfg);
    zel2_link link("link", cfg, stats, 1);
    if (turnOn) link.TurnOnLink();
    link.setCubeTokens(tokens);
  };
  EXPECT_DEATH(run(true, 5), "Assertion `!haveSeenFlits' failed");
  EXPECT_DEATH(run(false, 0), "Assertion `numTokens' failed");
}

TEST(LinkDeath, TurnOffLinkIsNotImplemented) {
  EXPECT_DEATH(
      {
        Config cfg;
        StatsKeeper stats(cfg);
        zel2_link link("link", cfg, stats, 1);
        link.TurnOffLink();
      },
      "Assertion `0 && \"Implement this!\"' failed");
}

TEST(LinkDeath, ReturnedTokensAboveTokensPerLink) {
  EXPECT_DEATH(
      {
        dup2(2, 1);
        Config cfg;
        StatsKeeper stats(cfg);
        LinkBench bench("bench", cfg, stats, 1);  // never turned on: still owes 100
        bench.script = [](LinkBench& b) { b.PulseTokens(1000, 1); };
        sc_core::sc_start(Ps(20000));
      },
      Lit("=[7400 ps]= ERROR - Somehow have too many tokens\n"));
}

TEST(LinkDeath, HostGrantsMoreThanItsBuffer) {
  auto run = [](ZELCommand command) {
    dup2(2, 1);
    Config cfg;
    cfg.BFM_TOKENS_PER_LINK = 10;
    StatsKeeper stats(cfg);
    LinkBench bench("bench", cfg, stats, 1);
    bench.script = [command](LinkBench& b) {
      if (command == TOKEN_RETURN) {
        b.Send(100, MakeFlit(1, ~0UL, TOKEN_RETURN, 0, true, true, 1, 11));
      } else {
        b.Send(100, MakeFlit(1, 0, WR, 16, true, false, 1));
        b.Send(200, MakeFlit(1, 0, WR, 16, false, true, 2, 11));
      }
    };
    sc_core::sc_start(Ps(20000));
  };
  EXPECT_DEATH(run(TOKEN_RETURN),
               Lit("=[4800 ps]= ERROR - Too many tokens in link1 from token return packet : 11\n"));
  EXPECT_DEATH(run(WR), Lit("=[4800 ps]= ERROR - Too many tokens in link1 from tail of packet : 11\n"));
}

TEST(LinkTokens, AdjustTokenCountReportsAndChecksTheHostLimit) {
  Config cfg;
  cfg.BFM_TOKENS_PER_LINK = 10;
  StatsKeeper stats(cfg);
  zel2_link link("link", cfg, stats, 3);
  testing::internal::CaptureStdout();
  link.adjustTokenCount(10);
  link.adjustTokenCount(0);
  link.adjustTokenCount(-4);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "0 s: Adjusting link 3 by 10 tokens (now=10)\n0 s: Adjusting link 3 by -4 tokens (now=6)\n");
  EXPECT_EQ(link.tokenCount, 6u);

  EXPECT_DEATH(
      {
        dup2(2, 1);
        link.adjustTokenCount(5);
      },
      Lit("0 s: Adjusting link 3 by 5 tokens (now=11)\n0 s: ERROR: SystemC model now has 11; if this "
          "value is much higher than the expected (BFM_TOKENS_PER_LINK=10) this may mean there is a "
          "token error somewhere\n"));
  // The check runs with no change too.
  EXPECT_DEATH(
      {
        dup2(2, 1);
        cfg.RESPONSE_OPEN_LOOP = true;
        link.adjustTokenCount(20);
        cfg.RESPONSE_OPEN_LOOP = false;
        link.adjustTokenCount(0);
      },
      Lit("(now=26)\n0 s: ERROR: SystemC model now has 26;"));
}

// ---- Response path ----------------------------------------------------------

// A 32-byte read response of three flits, written by the vault switch on its
// three ports at once.
void SendReadResponse(LinkBench& b, unsigned tag) {
  b.SendResponse(0, MakeFlit(tag, 0x40, RD_RSP, 32, true, false, 1));
  b.SendResponse(1, MakeFlit(tag, 0x40, RD_RSP, 32, false, false, 2));
  b.SendResponse(2, MakeFlit(tag, 0x40, RD_RSP, 32, false, true, 3));
}

TEST(LinkResponses, WholePacketsLeaveOneFlitTimeApartWithTokensAndCredits) {
  Config cfg;
  StatsKeeper stats(cfg);
  LinkBench bench("bench", cfg, stats, 1);
  bench.script = [](LinkBench& b) {
    b.link.TurnOnLink();
    b.link.adjustTokenCount(3);
    // 40 tokens freed by the link switch reach the link at 22400, while the
    // packet is going out.
    b.PulseTokens(16000, 40);
    b.WaitUntil(20000);
    SendReadResponse(b, 0x21);
  };
  sc_core::sc_start(Ps(40000));

  const auto data = bench.Responses(RD_RSP);
  ASSERT_EQ(data.size(), 3u);
  // In at 21600 after the latch; out at flit boundaries 21853, 22386, 22919,
  // then the output delay.
  for (unsigned i = 0; i < 3; ++i) EXPECT_EQ(data[i].time, Ps(21853 + 4800 + i * kFlit));
  // The tail took 31 tokens and moved them to the header, which the host
  // still holds.
  EXPECT_EQ(data[0].handle->returnTokens, 31u);
  EXPECT_EQ(data[2].snapshot.returnTokens, 0u);
  EXPECT_EQ(data[2].snapshot.timeStamps[7], Ps(21600));
  // The other 9 follow in a token return of their own.
  const auto returns = bench.Responses(TOKEN_RETURN);
  ASSERT_EQ(returns.size(), 5u);
  EXPECT_EQ(returns[4].time, Ps(22919 + kFlit + 4800));
  EXPECT_EQ(returns[4].snapshot.returnTokens, 9u);
  EXPECT_EQ(returns[4].snapshot.tag, 4u);

  // One credit pulse per flit, CREDIT_RETURN_DELAY_LM flit times after it
  // left, high for half a flit time.
  const std::vector<std::pair<sc_time, int>> expectedCredits = {
      {Ps(22919), 1}, {Ps(23186), 0}, {Ps(23452), 1}, {Ps(23719), 0}, {Ps(23985), 1}, {Ps(24252), 0}};
  EXPECT_EQ(bench.creditChanges, expectedCredits);

  EXPECT_EQ(bench.link.tokenCount, 0u);
  EXPECT_EQ(bench.link.returnTokenCount, 0u);
  EXPECT_EQ(stats.linkResponseFlits[1], 3u);
  EXPECT_EQ(stats.linkReadBytes[1], 32u);
  EXPECT_EQ(stats.linkBytes[1], 32u);
}

// The tokens stay on the tail when the host has taken the header already,
// whether it only marked it consumed or deleted it.
void RunWithHeaderTakenByHost(bool deleteIt) {
  Config cfg;
  cfg.LINK_OUTPUT_DELAY = 0;  // the host has the header before the tail leaves
  StatsKeeper stats(cfg);
  LinkBench bench("bench", cfg, stats, 1);
  bench.hostOnResponse = [deleteIt](const Flit_P& f) {
    if (f->command != RD_RSP || !f->header) return;
    if (deleteIt)
      delete f.flit;
    else
      f->consumed = true;
  };
  bench.script = [](LinkBench& b) {
    b.link.TurnOnLink();
    b.link.adjustTokenCount(3);
    b.PulseTokens(16000, 40);
    b.WaitUntil(20000);
    SendReadResponse(b, 0x21);
  };
  sc_core::sc_start(Ps(40000));
  const auto data = bench.Responses(RD_RSP);
  ASSERT_EQ(data.size(), 3u);
  EXPECT_EQ(data[0].time, Ps(21853));
  EXPECT_EQ(data[0].snapshot.returnTokens, 0u);
  EXPECT_EQ(data[2].snapshot.returnTokens, 31u);
}

TEST(LinkResponses, TokensStayOnTheTailWhenTheHostConsumedTheHeader) { RunWithHeaderTakenByHost(false); }

TEST(LinkResponses, TokensStayOnTheTailWhenTheHostDeletedTheHeader) { RunWithHeaderTakenByHost(true); }

TEST(LinkResponses, ReadResponseWaitsForTokensForAllItsFlits) {
  Config cfg;
  StatsKeeper stats(cfg);
  LinkBench bench("bench", cfg, stats, 1);
  bench.script = [](LinkBench& b) {
    b.link.TurnOnLink();
    b.link.adjustTokenCount(2);
    b.WaitUntil(20000);
    SendReadResponse(b, 0x30);
    b.WaitUntil(25000);
    b.link.adjustTokenCount(1);
  };
  sc_core::sc_start(Ps(40000));
  const auto data = bench.Responses(RD_RSP);
  ASSERT_EQ(data.size(), 3u);
  // The link kept polling from 21853; the first poll after the third token is at 25051.
  EXPECT_EQ(data[0].time, Ps(25051 + 4800));
  EXPECT_EQ(data[2].time, Ps(25051 + 2 * kFlit + 4800));
  EXPECT_EQ(bench.link.tokenCount, 0u);
}

TEST(LinkResponses, WriteResponseNeedsOneTokenAndKeepsItsOwnReturnTokens) {
  Config cfg;
  StatsKeeper stats(cfg);
  LinkBench bench("bench", cfg, stats, 1);
  bench.script = [](LinkBench& b) {
    b.link.TurnOnLink();
    b.link.adjustTokenCount(1);
    b.PulseTokens(15300, 5);  // reaches the link at 21700, just before the first send
    b.WaitUntil(20000);
    b.SendResponse(0, MakeFlit(0x41, 0, WR_RSP, 16, true, true, 1));
    b.WaitUntil(22000);
    b.SendResponse(0, MakeFlit(0x42, 0, WR_RSP, 16, true, true, 1));
    b.WaitUntil(30000);
    b.link.adjustTokenCount(1);
  };
  sc_core::sc_start(Ps(40000));
  const auto writes = bench.Responses(WR_RSP);
  ASSERT_EQ(writes.size(), 2u);
  EXPECT_EQ(writes[0].time, Ps(21853 + 4800));
  EXPECT_EQ(writes[0].snapshot.returnTokens, 5u);  // a single flit is its own header
  // The second waited for a token, polling from 23985.
  EXPECT_EQ(writes[1].time, Ps(30381 + 4800));
  EXPECT_EQ(bench.Responses(TOKEN_RETURN).size(), 4u);
}

TEST(LinkResponses, OpenLoopIgnoresHostTokens) {
  Config cfg;
  cfg.RESPONSE_OPEN_LOOP = true;
  StatsKeeper stats(cfg);
  LinkBench bench("bench", cfg, stats, 1);
  bench.script = [](LinkBench& b) {
    b.link.TurnOnLink();
    b.WaitUntil(20000);
    SendReadResponse(b, 0x22);
  };
  sc_core::sc_start(Ps(40000));
  const auto data = bench.Responses(RD_RSP);
  ASSERT_EQ(data.size(), 3u);
  for (unsigned i = 0; i < 3; ++i) EXPECT_EQ(data[i].time, Ps(21853 + 4800 + i * kFlit));
  EXPECT_EQ(bench.link.tokenCount, 0u);
}

TEST(LinkDeath, ResponsePathErrors) {
  // Runs the vault switch side of a bench; `send` writes response flits at 1000 ps.
  auto run = [](std::function<void(Config&)> configure, std::function<void(LinkBench&)> send) {
    dup2(2, 1);
    Config cfg;
    configure(cfg);
    StatsKeeper stats(cfg);
    LinkBench bench("bench", cfg, stats, 1);
    bench.script = [send](LinkBench& b) {
      b.link.adjustTokenCount(5);
      b.WaitUntil(1000);
      send(b);
    };
    sc_core::sc_start(Ps(20000));
  };
  auto defaults = [](Config&) {};

  EXPECT_DEATH(run(defaults,
                   [](LinkBench& b) {
                     b.SendResponse(0, MakeFlit(5, 0, RD_RSP, 32, true, false, 1));
                     b.SendResponse(1, MakeFlit(6, 0, RD_RSP, 32, true, false, 1));
                   }),
               Lit("== ERROR - Non-contiguous packet in LM1\n"));
  EXPECT_DEATH(
      run([](Config& c) { c.LINK_MASTER_BUFFER_SIZE = 2; }, [](LinkBench& b) { SendReadResponse(b, 7); }),
      Lit("=[2600 ps]= ERROR - Link Master 1 buffer exceeded capacity\n"));
  EXPECT_DEATH(
      run(defaults, [](LinkBench& b) { b.SendResponse(0, MakeFlit(8, 0, RD_RSP, 16, false, true, 2)); }),
      "Assertion `lastOutgoingHeadFlit' failed");
}

TEST(LinkDeath, HeaderThatLostItsMarksWhileTheHostHeldIt) {
  EXPECT_DEATH(
      {
        dup2(2, 1);
        Config cfg;
        cfg.LINK_OUTPUT_DELAY = 0;
        StatsKeeper stats(cfg);
        LinkBench bench("bench", cfg, stats, 1);
        bench.hostOnResponse = [](const Flit_P& f) {
          if (f->command == RD_RSP && f->header) f->tail = true;
        };
        bench.script = [](LinkBench& b) {
          b.link.adjustTokenCount(3);
          b.WaitUntil(20000);
          SendReadResponse(b, 0x23);
        };
        sc_core::sc_start(Ps(40000));
      },
      "22919 ps: Unexpected flit to move to tokens to: lastOutgoing ptr=0x[0-9a-f]+\\( \\[HEAD "
      "cmd:RD_RSP.* TAIL\\]\\) from Output buffer\\[0\\] ptr=0x[0-9a-f]+ \\(      cmd:RD_RSP");
}

// ---- Host protocol check ----------------------------------------------------

// Checks `flits` one flit time apart; the last one is expected to fail.
void RunSafety(std::vector<Flit*> flits, unsigned partitions = 2) {
  dup2(2, 1);
  Config cfg;
  cfg.NUM_PARTITIONS = partitions;
  StatsKeeper stats(cfg);
  LinkBench bench("bench", cfg, stats, 1);
  for (Flit* flit : flits) {
    sc_core::sc_start(Ps(kFlit));
    bench.link.SafetyCheck(Flit_P(flit));
  }
}

const char* kFlitLine = "\n           Flit : ";

TEST(LinkSafety, AcceptsWellFormedTrafficAndFixesAtomicSizes) {
  Config cfg;
  StatsKeeper stats(cfg);
  LinkBench bench("bench", cfg, stats, 1);
  Flit* atomicHead = MakeFlit(3, 0x100, ADD16, 64, true, false, 1);
  const std::vector<Flit*> flits = {
      MakeFlit(1, 0x80000000, RD, 128, true, true, 1),  // the limit itself passes
      MakeFlit(2, 0x40, WR, 32, true, false, 1),       MakeFlit(2, 0x40, WR, 32, false, false, 2),
      MakeFlit(2, 0x40, WR, 32, false, true, 3, 7),    atomicHead,
      MakeFlit(3, 0x100, ADD16, 16, false, true, 2),   MakeFlit(4, ~0UL, TOKEN_RETURN, 0, true, true, 1, 2),
      MakeFlit(0, 0, NULL_COMMAND, 0, true, true, 1),
  };
  for (Flit* flit : flits) {
    sc_core::sc_start(Ps(kFlit));
    bench.link.SafetyCheck(Flit_P(flit));
  }
  EXPECT_EQ(atomicHead->requestLength, 16u);

  // A response is reported but not fatal.
  testing::internal::CaptureStdout();
  sc_core::sc_start(Ps(kFlit));
  Flit* response = MakeFlit(9, 0, WR_RSP, 0, true, true, 1);
  bench.link.SafetyCheck(Flit_P(response));
  std::ostringstream expected;
  expected << "== ERROR - Incorrect command type received on Link 1\n           Flit : " << *response << "\n";
  EXPECT_EQ(testing::internal::GetCapturedStdout(), expected.str());
}

TEST(LinkSafety, EachViolationStopsWithItsMessage) {
  EXPECT_DEATH(
      {
        Flit* first = MakeFlit(1, 0, RD, 16, true, true, 1);
        dup2(2, 1);
        Config cfg;
        StatsKeeper stats(cfg);
        LinkBench bench("bench", cfg, stats, 1);
        sc_core::sc_start(Ps(1000));
        bench.link.SafetyCheck(Flit_P(first));
        sc_core::sc_start(Ps(kFlit - 2));
        bench.link.SafetyCheck(Flit_P(first));
      },
      Lit("== ERROR - Receive flit at a rate that does not match link config\n           Flit rate "
          "currently : 533 ps\n"));
  EXPECT_DEATH(RunSafety({MakeFlit(1, 0, RD, 20, true, true, 1)}),
               Lit(std::string("== ERROR - Request size not acceptable : 20\n           Please use one of "
                               "the standard request sizes") +
                   kFlitLine + "[HEAD cmd:RD20"));
  EXPECT_DEATH(
      RunSafety({MakeFlit(1, ~0UL, TOKEN_RETURN, 0, true, true, 1)}),
      Lit(std::string("== ERROR - Token return packet with 0 tokens attached is not allowed") + kFlitLine));
  EXPECT_DEATH(
      RunSafety({MakeFlit(1, 0x80000001, RD, 16, true, true, 1)}),
      Lit(std::string("== ERROR - Address (0x80000001) outside of address space for 2GB ZEL") + kFlitLine));
  EXPECT_DEATH(
      RunSafety({MakeFlit(1, 0x100000001, RD, 16, true, true, 1)}, 4),
      Lit(std::string("== ERROR - Address (0x100000001) outside of address space for 4GB ZEL") + kFlitLine));
  EXPECT_DEATH(RunSafety({MakeFlit(1, 0, RD, 16, true, false, 1)}),
               Lit(std::string("== ERROR - Packet should not be both header and tail") + kFlitLine));
  EXPECT_DEATH(
      RunSafety({MakeFlit(1, 0, WR, 16, true, true, 1)}),
      Lit(std::string("== ERROR - Packet header and tail improperly set for this command type") + kFlitLine));
  EXPECT_DEATH(RunSafety({MakeFlit(1, 0, WR, 32, true, false, 1), MakeFlit(2, 0, WR, 32, false, false, 2)}),
               Lit(std::string("== ERROR - Received non-contiguous packet - Expecting the rest of packet "
                               "with tag 1") +
                   kFlitLine));
  EXPECT_DEATH(RunSafety({MakeFlit(1, 0, WR, 32, true, false, 1), MakeFlit(1, 0, P_WR, 32, false, false, 2)}),
               Lit(std::string("== ERROR - Command type changed mid packet") + kFlitLine));
  EXPECT_DEATH(
      RunSafety({MakeFlit(1, 0, WR, 32, true, false, 1, 3)}),
      Lit(std::string("== ERROR - Return tokens should only be attached to tail flits") + kFlitLine));
  EXPECT_DEATH(RunSafety({MakeFlit(1, 0, WR, 64, true, false, 1), MakeFlit(1, 0, WR, 32, false, false, 2)}),
               Lit(std::string("== ERROR - Request size changed mid-packet - Expecting 64") + kFlitLine));
  EXPECT_DEATH(RunSafety({MakeFlit(1, 0, WR, 32, true, false, 2)}),
               Lit(std::string("== ERROR - Expected flit number 1 of incoming packet") + kFlitLine));
  EXPECT_DEATH(RunSafety({MakeFlit(1, 0, WR, 64, true, false, 1), MakeFlit(1, 0, WR, 64, false, false, 2),
                          MakeFlit(1, 0, WR, 64, false, false, 3), MakeFlit(1, 0, WR, 16, false, true, 4)}),
               Lit(std::string("== ERROR - Too many flits (4) in a 16B packet") + kFlitLine));
  EXPECT_DEATH(RunSafety({MakeFlit(1, 0, WR, 16, true, false, 1), MakeFlit(1, 0, WR, 16, false, false, 2)}),
               Lit(std::string("== ERROR - Expected tail of 16B packet") + kFlitLine));
  // Outside a packet the size is all ones, which counts as -1: one flit at most.
  EXPECT_DEATH(RunSafety({MakeFlit(1, 0, WR, 16, false, false, 1)}),
               Lit(std::string("== ERROR - Expected tail of 4294967295B packet") + kFlitLine));
}

// ---- State dump -------------------------------------------------------------

TEST(LinkDump, ShowsCountsAndBothBuffers) {
  Config cfg;
  StatsKeeper stats(cfg);
  LinkBench bench("bench", cfg, stats, 1);
  Flit* held = MakeFlit(0x11, 0x80, RD, 16, true, true, 1);
  Flit* waiting = MakeFlit(0x12, 0x80, RD_RSP, 32, true, false, 1);
  bench.script = [&](LinkBench& b) {
    b.SetBusy(0, true);
    b.Send(100, held);
    b.WaitUntil(3000);
    b.SendResponse(0, waiting);  // an incomplete packet stays in the output buffer
    b.PulseTokens(5000, 2);      // due at the link at 11400
    b.Send(7000, MakeFlit(0x13, 0, RD, 16, true, true, 1));  // waits for the boundary at 8000
  };
  sc_core::sc_start(Ps(7500));
  testing::internal::CaptureStdout();
  bench.link.DumpState();
  std::ostringstream expected;
  expected << "== Link1\n"
           << "\t\tToken Count\t\t\t : 0\n"
           << "\t\tReturn Tokens\t\t : 100\n"
           << "      ReturnTokenQ  : 1\n"
           << "\t\tToken Return Tag : 0\n"
           << "   Block Boundary : 1\n"
           << "\t\tLS Input Buffer :\n"
           << "\t\t 0] " << *held << "\n"
           << "\t\tLM Output Buffer :\n"
           << "\t\t 0] " << *waiting << "\n";
  EXPECT_EQ(testing::internal::GetCapturedStdout(), expected.str());
}

}  // namespace
