// SPDX-License-Identifier: Apache-2.0
// A minimal complete host: builds a cube, turns link 0 on, sends one 64-byte
// read when the link has granted tokens, waits for the response and prints
// the model's report.
//
//   g++ -std=c++17 minimal_host.cpp $(pkg-config --cflags --libs zelsim systemc)
#include <iostream>

#include <zel2/zelsim.h>

using namespace Sornak::Internal::ZEL2;

struct Host : sc_core::sc_module {
  Cube2in1Wrapper& cube;
  unsigned requestTokens = 0;  // request flits the cube has room for

  SC_HAS_PROCESS(Host);
  Host(sc_core::sc_module_name name, Cube2in1Wrapper& cube) : sc_module(name), cube(cube) {
    SC_THREAD(Run);
  }

  // Takes every flit waiting on link 0: token grants, and the response.
  bool TakeResponses() {
    bool gotResponse = false;
    auto& queue = cube.getPendingResponseQueue(0);
    while (!queue.empty()) {
      Flit* flit = queue.front().flit;
      queue.pop_front();
      requestTokens += flit->returnTokens;
      if (flit->command == RD_RSP && flit->tail) {
        std::cout << sc_core::sc_time_stamp() << ": read response for tag " << flit->tag << std::endl;
        gotResponse = true;
      }
      delete flit;  // response flits belong to the host
    }
    return gotResponse;
  }

  void Run() {
    cube.changeLinkState(0, 1);
    while (requestTokens == 0) {
      wait(cube.getResponseWaitingEvent(0));
      TakeResponses();
    }
    // One flit: a read of 64 bytes at address 0x1000, tag 1. Its tail also
    // grants the link the host's tokens for responses, one per response
    // flit. The model deletes the flit; the response hands back the token
    // that the request used.
    Flit* read = new Flit(1, 0x1000, RD, 64, true, true, 1);
    read->returnTokens = cube.cube->cfg.BFM_TOKENS_PER_LINK;
    cube.addRequestFlit(0, *read);
    --requestTokens;
    bool done = false;
    while (!done) {
      wait(cube.getResponseWaitingEvent(0));
      done = TakeResponses();
    }
    sc_core::sc_stop();
  }
};

int sc_main(int, char*[]) {
  Cube2in1Wrapper cube("cube");
  Host host("host", cube);
  sc_core::sc_start(sc_core::sc_time(10, sc_core::SC_US));
  cube.DumpStats();
  return 0;
}
