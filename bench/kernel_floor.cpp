// SPDX-License-Identifier: Apache-2.0
// The cost of one process activation on this machine: a minimal SystemC
// program whose method processes re-arm themselves every core cycle. The
// benchmark report divides the model's figures by this floor so that results
// compare across machines. It prints one JSON line with the wall-clock and
// the processor time of the simulation alone, and the cost per activation
// by each.
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <string>
#include <systemc>
#include <vector>

namespace {

// A method that does nothing but notify itself one core cycle later.
struct Ticker : sc_core::sc_module {
  sc_core::sc_event tick;
  sc_core::sc_time period;
  unsigned long activations = 0;
  SC_HAS_PROCESS(Ticker);
  Ticker(sc_core::sc_module_name name, const sc_core::sc_time& period) : sc_module(name), period(period) {
    SC_METHOD(Tick);
    sensitive << tick;
  }
  void Tick() {
    ++activations;
    tick.notify(period);
  }
};

// Processor time of this process, user and system, in seconds.
double CpuSeconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

}  // namespace

// Usage: kernel_floor [processes] [simulated microseconds]
int sc_main(int argc, char* argv[]) {
  const unsigned processes = argc > 1 ? static_cast<unsigned>(std::strtoul(argv[1], nullptr, 10)) : 64;
  const double microseconds = argc > 2 ? std::strtod(argv[2], nullptr) : 200.0;
  const sc_core::sc_time period(1.6, sc_core::SC_NS);

  std::vector<Ticker*> tickers;
  for (unsigned i = 0; i < processes; ++i) {
    tickers.push_back(new Ticker(("ticker" + std::to_string(i)).c_str(), period));
  }
  const double cpuStart = CpuSeconds();
  const auto start = std::chrono::steady_clock::now();
  sc_core::sc_start(sc_core::sc_time(microseconds, sc_core::SC_US));
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const double cpuSeconds = CpuSeconds() - cpuStart;

  unsigned long activations = 0;
  for (const Ticker* ticker : tickers) activations += ticker->activations;
  const double nsPerActivation = seconds * 1e9 / static_cast<double>(activations);
  const double cpuNsPerActivation = cpuSeconds * 1e9 / static_cast<double>(activations);
  std::cout << "{\"processes\": " << processes << ", \"simulated_us\": " << microseconds
            << ", \"activations\": " << activations << ", \"wall_s\": " << seconds
            << ", \"ns_per_activation\": " << nsPerActivation << ", \"cpu_s\": " << cpuSeconds
            << ", \"cpu_ns_per_activation\": " << cpuNsPerActivation << "}" << std::endl;
  return 0;
}
