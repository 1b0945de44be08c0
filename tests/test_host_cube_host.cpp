// SPDX-License-Identifier: Apache-2.0
// The host library's front door: what goes in comes out, once, on time, and
// the links' tokens and tags all come home, through the callback and through
// the event alike.
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <unistd.h>

#include "host/cube_host.h"
#include "test_support.h"

using namespace Sornak::Internal::ZEL2;
using Host::Completion;
using Host::CubeHost;
using Host::Request;
using zelsim_test::ClearModelEnvironment;

namespace {

// Few tags, few tokens and short queues, so that a run of a few hundred
// requests reuses every tag and waits for tokens over and over: a tag that
// isn't freed or a token miscounted stalls the links or trips the model.
constexpr unsigned kTags = 4;
constexpr unsigned kCubeTokens = 20;
const char* const kTightConfig =
    "TAGS_PER_LINK = 4\nTOKENS_PER_LINK = 20\nREQUEST_BUFFER_SIZE = 2\n";

// A configuration file for the cubes made while it lives.
struct ConfigFile {
  std::string path = "/tmp/host_test_XXXXXX";
  explicit ConfigFile(const char* text) {
    ClearModelEnvironment();
    const int fd = mkstemp(&path[0]);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(write(fd, text, std::strlen(text)), static_cast<ssize_t>(std::strlen(text)));
    close(fd);
    setenv("LIBZEL_CONFIG_FILE", path.c_str(), 1);
  }
  ~ConfigFile() {
    unlink(path.c_str());
    unsetenv("LIBZEL_CONFIG_FILE");
  }
};

// Every kind and size of request, over all links, in a fixed order.
std::vector<Request> MixedRequests(unsigned count, unsigned links) {
  static const ZELCommand kinds[] = {RD, WR, P_WR, RD, DADD8, P_ADD16, RD, WR};
  std::vector<Request> requests;
  for (unsigned i = 0; i < count; ++i) {
    Request r;
    r.command = kinds[i % 8];
    r.length = Bench::IsAtomic(r.command) ? 16 : 16 * (1 + (i * 5) % 8);
    r.address = (uint64_t{i} * 0x1230) & ~uint64_t{15};
    r.link = (i / 3) % links;
    requests.push_back(r);
  }
  return requests;
}

// Few response tokens on the host's side, and the deadlock watchdog: a
// stall ends the run at once instead of at the test's time limit.
Host::HostSetup Watched() {
  Host::HostSetup setup;
  setup.hostTokensGiven = true;  // room for one long read response at a time
  setup.hostTokens = 12;
  setup.deadlockTimeout = sc_core::sc_time(20, sc_core::SC_US);
  return setup;
}

// Checks the completions against the requests sent: each non-posted one
// once, matched, as it was sent, on time; posted ones never; each link's
// requests issued in the order they were sent.
void CheckCompletions(const std::vector<Request>& sent, const std::vector<Completion>& done,
                      const std::vector<sc_core::sc_time>& seenAt) {
  std::map<uint64_t, const Completion*> bySerial;
  for (const Completion& c : done) {
    EXPECT_TRUE(bySerial.emplace(c.request.serial, &c).second) << "request " << c.request.serial << " twice";
  }
  std::map<unsigned, sc_core::sc_time> lastSentOnLink;
  for (uint64_t serial = 0; serial < sent.size(); ++serial) {
    const Request& r = sent[serial];
    const auto found = bySerial.find(serial);
    if (Bench::IsPosted(r.command)) {
      EXPECT_EQ(found, bySerial.end()) << "posted request " << serial << " completed";
      continue;
    }
    ASSERT_NE(found, bySerial.end()) << "request " << serial << " never completed";
    const Completion& c = *found->second;
    EXPECT_TRUE(c.matched) << serial;
    EXPECT_EQ(c.request.command, r.command) << serial;
    EXPECT_EQ(c.request.address, r.address) << serial;
    EXPECT_EQ(c.request.length, r.length) << serial;
    EXPECT_EQ(c.request.link, r.link) << serial;
    EXPECT_GT(c.latency, sc_core::SC_ZERO_TIME) << serial;
    EXPECT_GE(c.sentAt, lastSentOnLink[r.link]) << "request " << serial << " overtook an earlier one";
    lastSentOnLink[r.link] = c.sentAt;
  }
  for (std::size_t i = 0; i < done.size(); ++i)
    EXPECT_EQ(done[i].sentAt + done[i].latency, seenAt[i]) << "request " << done[i].request.serial;
}

// After the run: nothing pending, no mismatch, no stall, and every link
// holds all the tokens the cube granted and all its tags.
void CheckDrained(CubeHost& host) {
  EXPECT_FALSE(host.Engine().deadlocked);
  EXPECT_EQ(host.Pending(), 0u);
  const Host::HostResults results = host.Results();
  for (const Bench::LinkResults& link : results.links) {
    EXPECT_EQ(link.requestTokensHeld, kCubeTokens) << "link " << link.link;
    EXPECT_EQ(link.mismatches, 0u) << "link " << link.link;
    EXPECT_EQ(host.Engine().links[link.link].freeTags.size(), kTags) << "link " << link.link;
  }
}

}  // namespace

TEST(CubeHost, CallbackGetsEveryRequestOnceUnderTightFlowControl) {
  const ConfigFile config(kTightConfig);
  Cube2in1Wrapper cube("cube");
  CubeHost host("host", cube, Watched());
  std::vector<Completion> done;
  std::vector<sc_core::sc_time> seenAt;
  host.onCompletion = [&](const Completion& c) {
    done.push_back(c);
    seenAt.push_back(sc_core::sc_time_stamp());
  };
  const std::vector<Request> sent = MixedRequests(400, host.Links());
  for (std::size_t i = 0; i < sent.size(); ++i) ASSERT_EQ(host.Send(sent[i]), i);
  host.Close();
  const sc_core::sc_time limit(1, sc_core::SC_MS);
  sc_core::sc_start(limit);

  EXPECT_LT(sc_core::sc_time_stamp(), limit) << "the closed host didn't stop once drained";
  CheckCompletions(sent, done, seenAt);
  CheckDrained(host);
  EXPECT_EQ(host.Results().Total().completed, done.size());
  EXPECT_GT(done.size(), 10 * kTags * host.Links());  // every tag went round many times
}

// Requests sent while the run goes, by a thread that waits on the event.
// Completions that come in the same delta cycle arrive together.
struct EventDriver : sc_core::sc_module {
  CubeHost& host;
  std::vector<Request> sent;
  std::vector<Completion> done;
  std::vector<sc_core::sc_time> seenAt;

  SC_HAS_PROCESS(EventDriver);
  EventDriver(sc_core::sc_module_name name, CubeHost& host) : sc_module(name), host(host) { SC_THREAD(Run); }

  void Run() {
    sent = MixedRequests(300, host.Links());
    // Half now, half once the first completion is in.
    for (std::size_t i = 0; i < sent.size() / 2; ++i) host.Send(sent[i]);
    Take();
    for (std::size_t i = sent.size() / 2; i < sent.size(); ++i) host.Send(sent[i]);
    host.Close();
    while (true) Take();
  }
  void Take() {
    wait(host.CompletionEvent());
    for (const Completion& c : host.TakeCompletions()) {
      done.push_back(c);
      seenAt.push_back(sc_core::sc_time_stamp());
    }
  }
};

TEST(CubeHost, EventGetsEveryRequestOnceWhileRequestsKeepComing) {
  const ConfigFile config(kTightConfig);
  Cube2in1Wrapper cube("cube");
  CubeHost host("host", cube, Watched());
  EventDriver driver("driver", host);
  const sc_core::sc_time limit(1, sc_core::SC_MS);
  sc_core::sc_start(limit);

  EXPECT_LT(sc_core::sc_time_stamp(), limit);
  CheckCompletions(driver.sent, driver.done, driver.seenAt);
  CheckDrained(host);
}

// Left open, the host waits for more requests however long the cube is
// idle; closed, it stops the kernel at once if all is answered.
TEST(CubeHost, AnOpenHostKeepsTheRunGoingAndStopsOnceClosed) {
  ClearModelEnvironment();
  Cube2in1Wrapper cube("cube");
  CubeHost host("host", cube);
  unsigned completed = 0;
  host.onCompletion = [&](const Completion&) { ++completed; };
  for (unsigned i = 0; i < 10; ++i) host.Read(i % host.Links(), 0x100 * i, 64);
  const sc_core::sc_time idle(20, sc_core::SC_US);
  sc_core::sc_start(idle);
  EXPECT_EQ(sc_core::sc_time_stamp(), idle);
  EXPECT_EQ(completed, 10u);

  host.Write(1, 0x4000, 128, /*posted=*/true);
  host.Close();
  sc_core::sc_start(idle);
  EXPECT_LT(sc_core::sc_time_stamp(), idle + sc_core::sc_time(1, sc_core::SC_US));
  EXPECT_EQ(completed, 10u);
  EXPECT_EQ(host.Results().Total().bytesWritten, 128u);
}

TEST(CubeHost, ARequestOnAMissingLinkIsRefusedByName) {
  ClearModelEnvironment();
  Cube2in1Wrapper cube("cube");
  static CubeHost* host = new CubeHost("host", cube);
  static uint64_t number = 0;
  EXPECT_NONFATAL_FAILURE(number = host->Read(7, 0, 64), "request on link 7 of a cube with 4 links");
  EXPECT_EQ(number, CubeHost::kRefused);
  EXPECT_EQ(host->Pending(), 0u);
  EXPECT_EQ(host->Read(3, 0, 64), 0u);  // numbers count accepted requests only
}
