// SPDX-License-Identifier: Apache-2.0
// The host wrapper: its setters and change lines, and the first contact of a
// host with a turned-on link.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "test_support.h"
#include "zel2/zelsim.h"

using namespace Sornak::Internal::ZEL2;
using zelsim_test::CaptureStdout;
using zelsim_test::Ns;

namespace {

Cube2in1Wrapper& MakeWrapper() {
  zelsim_test::ClearModelEnvironment();
  return *new Cube2in1Wrapper("wrapper");
}

bool Contains(const std::string& text, const std::string& piece) {
  return text.find(piece) != std::string::npos;
}

// Records every flit that reaches a driver's queue, with its time.
struct ResponseRecorder : sc_core::sc_module {
  Cube2in1Wrapper& wrapper;
  unsigned link;
  std::vector<std::pair<sc_core::sc_time, Flit_P>> seen;
  SC_HAS_PROCESS(ResponseRecorder);
  ResponseRecorder(sc_core::sc_module_name name, Cube2in1Wrapper& wrapper, unsigned link)
      : sc_module(name), wrapper(wrapper), link(link) {
    SC_METHOD(Take);
    sensitive << wrapper.getResponseWaitingEvent(link);
    dont_initialize();
  }
  void Take() {
    auto& queue = wrapper.getPendingResponseQueue(link);
    while (!queue.empty()) {
      seen.emplace_back(sc_core::sc_time_stamp(), queue.front());
      queue.pop_front();
    }
  }
};

}  // namespace

TEST(Wrapper, SettersAndTheirChangeLines) {
  Cube2in1Wrapper& wrapper = MakeWrapper();
  EXPECT_DIES_SAYING(wrapper.setCubeSize(3), "Unknown cube size encoding 3");
  EXPECT_DIES_SAYING(wrapper.setLinkParams(45, 16), "ERROR : Unknown Link Rate 45");
  CaptureStdout out;
  wrapper.setCubeSize(2);
  EXPECT_EQ(wrapper.cube->cfg.NUM_PARTITIONS, 8u);
  wrapper.setHostTokens(0);
  EXPECT_EQ(wrapper.cube->cfg.BFM_TOKENS_PER_LINK, 100u);
  wrapper.setBlockSize(512);
  EXPECT_EQ(wrapper.cube->cfg.MAX_BLOCK_SIZE, 64u);
  wrapper.setRefreshEn(5);
  wrapper.setResponseOpenLoopMode(7);
  wrapper.setDramTracingEn(3);
  wrapper.setCubeTokens(0);  // does nothing at all
  EXPECT_TRUE(wrapper.cube->cfg.REFRESH_ENABLED);
  EXPECT_TRUE(wrapper.cube->cfg.RESPONSE_OPEN_LOOP);
  const std::string changes = out.str();
  for (const char* line : {"setting cube size=2; (512 Total Banks)", "setting host tokens=100",
                           "setting max block size=64 Bytes", "setting refresh enable=5",
                           "setting response open loop mode=1", "setting DRAM tracing=1"})
    EXPECT_TRUE(Contains(changes, std::string("0 s: SYSTEMC CONFIG CHANGE: ") + line + "\n")) << line;
  EXPECT_FALSE(Contains(changes, "cube tokens"));
}

// The rate of 50 is 12.5 Gb/s; every link gets it, and its change line.
TEST(Wrapper, LinkRatesApplyToEveryLink) {
  Cube2in1Wrapper& wrapper = MakeWrapper();
  CaptureStdout out;
  wrapper.setLinkParams(50, 16);
  EXPECT_FLOAT_EQ(wrapper.cube->cfg.LINK_SPEED, 12.5f);
  const std::string text = out.str();
  size_t count = 0;
  for (size_t at = text.find("setting link rate=12.5 Gb/s"); at != std::string::npos;
       at = text.find("setting link rate=12.5 Gb/s", at + 1))
    ++count;
  EXPECT_EQ(count, 4u);
  EXPECT_TRUE(Contains(text, "setting link3 width=16 lanes"));
}

// A turned-on link hands out its tokens at once, 31 a flit. Turning a link
// off is only a warning.
TEST(Wrapper, TurnedOnLinkHandsOutItsTokens) {
  Cube2in1Wrapper& wrapper = MakeWrapper();
  ResponseRecorder recorder("recorder", wrapper, 1);
  sc_core::sc_start(Ns(10));
  CaptureStdout out;
  wrapper.changeLinkState(0, 0);
  EXPECT_EQ(out.str(), "WARNING: TURNING OFF SYSTEMC LINKS NOT IMPLEMENTED YET\n");  // and nothing else
  wrapper.changeLinkState(1, 1);
  sc_core::sc_start(Ns(100));
  ASSERT_EQ(recorder.seen.size(), 4u);
  const unsigned expected[4] = {31, 31, 31, 7};
  const sc_core::sc_time flitTime = wrapper.cube->GetLinkRate(1);
  for (unsigned i = 0; i < 4; ++i) {
    const Flit_P& flit = recorder.seen[i].second;
    EXPECT_EQ(flit->command, TOKEN_RETURN);
    EXPECT_EQ(flit->returnTokens, expected[i]);
    if (i > 0) EXPECT_EQ(recorder.seen[i].first - recorder.seen[i - 1].first, flitTime);
    delete flit.flit;
  }
}
