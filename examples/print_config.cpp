// SPDX-License-Identifier: Apache-2.0
// Prints the whole configuration record, or with an argument the keys that a
// configuration file sets.
//
//   g++ -std=c++17 print_config.cpp $(pkg-config --cflags --libs zelsim systemc)
#include <iostream>
#include <string>

#include <zel2/zelsim.h>

int sc_main(int argc, char* argv[]) {
  using namespace Sornak::Internal::ZEL2;
  if (argc > 1) {
    std::string file = argv[1];
    GetConfig(&file).print(std::cout, true);
  } else {
    GetConfig(nullptr).print(std::cout, false);
  }
  return 0;
}
