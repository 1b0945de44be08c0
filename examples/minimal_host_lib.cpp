// SPDX-License-Identifier: Apache-2.0
// A minimal host on the host library: starts a cube, sends eight 64-byte
// reads on each link, and prints the latency of each as it completes. The
// library keeps the link protocol (tokens, tags, pacing) for us.
//
//   g++ -std=c++17 minimal_host_lib.cpp $(pkg-config --cflags --libs zelsim-host)
#include <iostream>

#include <host/zelsim_host.h>

using namespace Sornak::Internal::ZEL2;

int sc_main(int, char*[]) {
  Cube2in1Wrapper cube("cube");
  Host::CubeHost host("host", cube);

  host.onCompletion = [](const Host::Completion& done) {
    std::cout << "read " << done.request.serial << " on link " << done.request.link << " at 0x" << std::hex
              << done.request.address << std::dec << ": " << done.latency.to_seconds() * 1e9 << " ns\n";
  };
  for (unsigned link = 0; link < host.Links(); ++link)
    for (unsigned i = 0; i < 8; ++i) host.Read(link, 0x10000 * link + 0x40 * i, 64);
  host.Close();  // the host stops the simulation once every read is answered

  sc_core::sc_start();
  const Bench::LinkResults total = host.Results().Total();
  std::cout << total.completed << " reads, mean latency " << total.Latency().MeanPs() / 1000 << " ns\n";
  return 0;
}
