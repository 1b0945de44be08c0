// SPDX-License-Identifier: Apache-2.0
// The host side of one link: writes request flits into the cube and collects
// response flits into a queue on which the host can wait.
#ifndef ZEL2_CUBEDRIVER_H
#define ZEL2_CUBEDRIVER_H

#include <deque>

#include <systemc>

#include "zel2/zel2_flit.h"

class CubeDriver : public sc_core::sc_module {
 public:
  using Flit_P = Sornak::Internal::ZEL2::Flit_P;

  unsigned linkNumber;                     // its link
  sc_core::sc_out<Flit_P> requestOut;      // requests to the cube
  sc_core::sc_in<Flit_P> responseIn;       // responses from the cube
  sc_core::sc_in<bool> clk;                // the core clock; bound, not read
  sc_core::sc_event responseWaiting;       // notified for each response flit
  std::deque<Flit_P> pendingResponses;     // responses the host has not taken yet

  SC_HAS_PROCESS(CubeDriver);
  // The third argument is accepted and ignored.
  CubeDriver(sc_core::sc_module_name name, unsigned linkNumber, unsigned unused = 0);

  // Queues each response flit, token returns included, and wakes the host
  // in the same delta cycle.
  void sendResponseFlitsToBFM();
};

#endif  // ZEL2_CUBEDRIVER_H
