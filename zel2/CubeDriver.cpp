// SPDX-License-Identifier: Apache-2.0
#include "zel2/CubeDriver.h"

CubeDriver::CubeDriver(sc_core::sc_module_name name, unsigned linkNumber, unsigned /*unused*/)
    : sc_module(name),
      linkNumber(linkNumber),
      requestOut("requestOut"),
      responseIn("responseIn"),
      clk("clk"),
      responseWaiting("responseWaiting") {
  SC_METHOD(sendResponseFlitsToBFM);
  sensitive << responseIn;
  dont_initialize();
}

void CubeDriver::sendResponseFlitsToBFM() {
  pendingResponses.push_back(responseIn.read());
  responseWaiting.notify();
}
