// SPDX-License-Identifier: Apache-2.0
// The host library's front door: what goes in comes out, once, on time, and
// the links' tokens and tags all come home, through the callback and through
// the event alike; an open host keeps the run going; a missing link is refused.
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <string>

#include "host/cube_host.h"
#include "test_support.h"

using namespace Sornak::Internal::ZEL2;
using Host::Completion;
using Host::CubeHost;
using Host::Request;
using sc_core::sc_time;
using zelsim_test::ClearModelEnvironment;

namespace {

// Few tags, few tokens and short queues, so that a few hundred requests
// reuse every tag and wait for tokens over and over: a tag that isn't freed
// or a token miscounted stalls the links or trips the model.
constexpr unsigned kTags = 4, kCubeTokens = 20;
const char* const kTightConfig = "TAGS_PER_LINK = 4\nTOKENS_PER_LINK = 20\nREQUEST_BUFFER_SIZE = 2\n";

// Sends every kind and size of request over all links, by the callback
// (all before the run) or by the event (half, then the rest once the
// first completion is in; completions of one delta cycle come together).
struct Driver : sc_core::sc_module {
  CubeHost& host;
  std::vector<Request> sent;
  std::vector<Completion> done;
  std::vector<sc_time> seenAt;

  SC_HAS_PROCESS(Driver);
  Driver(sc_core::sc_module_name name, CubeHost& host, bool byEvent) : sc_module(name), host(host) {
    static const ZELCommand kinds[] = {RD, WR, P_WR, RD, DADD8, P_ADD16, RD, WR};
    for (unsigned i = 0; i < 400; ++i) {
      Request r;
      r.command = kinds[i % 8];
      r.length = Bench::IsAtomic(r.command) ? 16 : 16 * (1 + (i * 5) % 8);
      r.address = (uint64_t{i} * 0x1230) & ~uint64_t{15};
      r.link = (i / 3) % host.Links();
      sent.push_back(r);
    }
    if (!byEvent) {
      host.onCompletion = [this](const Completion& c) { Take(c); };
      for (std::size_t i = 0; i < sent.size(); ++i) EXPECT_EQ(host.Send(sent[i]), i);
      host.Close();
    } else {
      SC_THREAD(Run);
    }
  }
  void Take(const Completion& c) {
    done.push_back(c);
    seenAt.push_back(sc_core::sc_time_stamp());
  }
  void Run() {
    for (std::size_t i = 0; i < sent.size(); ++i) {
      if (i == sent.size() / 2) {
        wait(host.CompletionEvent());
        for (const Completion& c : host.TakeCompletions()) Take(c);
      }
      EXPECT_EQ(host.Send(sent[i]), i);
    }
    host.Close();
    for (;;) {
      wait(host.CompletionEvent());
      for (const Completion& c : host.TakeCompletions()) Take(c);
    }
  }
};

class CubeHostDelivery : public ::testing::TestWithParam<bool> {};

}  // namespace

// Each non-posted request completes once, matched, as it was sent and on
// time; posted ones never; each link's requests go out in the order sent;
// the closed host stops once drained, with every token and tag home.
TEST_P(CubeHostDelivery, EveryRequestOnceAllTokensAndTagsHome) {
  ClearModelEnvironment();
  const zelsim_test::TempDir dir;
  setenv("LIBZEL_CONFIG_FILE", dir.Write("tight.ini", kTightConfig).c_str(), 1);
  Cube2in1Wrapper cube("cube");
  Host::HostSetup setup;
  setup.hostTokensGiven = true;  // room for one long read response at a time
  setup.hostTokens = 12;
  setup.deadlockTimeout = sc_time(20, sc_core::SC_US);  // a stall ends the run at once
  CubeHost host("host", cube, setup);
  Driver driver("driver", host, GetParam());
  const sc_time limit(1, sc_core::SC_MS);
  sc_core::sc_start(limit);
  EXPECT_LT(sc_core::sc_time_stamp(), limit) << "the closed host didn't stop once drained";

  std::map<uint64_t, const Completion*> bySerial;
  for (std::size_t i = 0; i < driver.done.size(); ++i) {
    const Completion& c = driver.done[i];
    EXPECT_TRUE(bySerial.emplace(c.request.serial, &c).second) << "request " << c.request.serial << " twice";
    EXPECT_EQ(c.sentAt + c.latency, driver.seenAt[i]) << "request " << c.request.serial;
  }
  std::map<unsigned, sc_time> lastSentOnLink;
  for (uint64_t serial = 0; serial < driver.sent.size(); ++serial) {
    const Request& r = driver.sent[serial];
    const auto found = bySerial.find(serial);
    if (Bench::IsPosted(r.command)) {
      EXPECT_EQ(found, bySerial.end()) << "posted request " << serial << " completed";
      continue;
    }
    ASSERT_NE(found, bySerial.end()) << "request " << serial << " never completed";
    const Completion& c = *found->second;
    EXPECT_TRUE(c.matched && c.request.command == r.command && c.request.address == r.address &&
                c.request.length == r.length && c.request.link == r.link)
        << serial;
    EXPECT_GT(c.latency, sc_core::SC_ZERO_TIME) << serial;
    EXPECT_GE(c.sentAt, lastSentOnLink[r.link]) << "request " << serial << " overtook an earlier one";
    lastSentOnLink[r.link] = c.sentAt;
  }
  EXPECT_FALSE(host.Engine().deadlocked);
  EXPECT_EQ(host.Pending(), 0u);
  const Host::HostResults results = host.Results();
  EXPECT_EQ(results.Total().completed, driver.done.size());
  EXPECT_GT(driver.done.size(), 10 * kTags * host.Links());  // every tag went round many times
  for (const Bench::LinkResults& link : results.links) {
    EXPECT_EQ(link.requestTokensHeld, kCubeTokens) << "link " << link.link;
    EXPECT_EQ(link.mismatches, 0u) << "link " << link.link;
    EXPECT_EQ(host.Engine().links[link.link].freeTags.size(), kTags) << "link " << link.link;
  }
}

INSTANTIATE_TEST_SUITE_P(CallbackAndEvent, CubeHostDelivery, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& info) { return info.param ? "Event" : "Callback"; });

// Left open, the host waits for more requests however long the cube is
// idle; closed, it stops the kernel at once if all is answered. A request
// on a missing link is refused by name and takes no number.
TEST(CubeHost, AnOpenHostKeepsTheRunGoingAndAMissingLinkIsRefused) {
  ClearModelEnvironment();
  Cube2in1Wrapper cube("cube");
  static CubeHost* host = new CubeHost("host", cube);
  static uint64_t number = 0;
  EXPECT_NONFATAL_FAILURE(number = host->Read(7, 0, 64), "request on link 7 of a cube with 4 links");
  EXPECT_EQ(number, CubeHost::kRefused);
  unsigned completed = 0;
  host->onCompletion = [&](const Completion&) { ++completed; };
  for (unsigned i = 0; i < 10; ++i) EXPECT_EQ(host->Read(i % host->Links(), 0x100 * i, 64), i);
  const sc_time idle(20, sc_core::SC_US);
  sc_core::sc_start(idle);
  EXPECT_EQ(sc_core::sc_time_stamp(), idle);
  EXPECT_EQ(completed, 10u);

  host->Write(1, 0x4000, 128, /*posted=*/true);
  host->Close();
  sc_core::sc_start(idle);
  EXPECT_LT(sc_core::sc_time_stamp(), idle + sc_time(1, sc_core::SC_US));
  EXPECT_EQ(completed, 10u);
  EXPECT_EQ(host->Results().Total().bytesWritten, 128u);
}
