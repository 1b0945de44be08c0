// SPDX-License-Identifier: Apache-2.0
// The cost of one process activation on this machine: a minimal SystemC
// program whose method processes re-arm themselves every core cycle. The
// benchmark report divides the model's figures by this floor so that results
// compare across machines. It prints one JSON line with the wall-clock and
// the processor time of the simulation alone, and the cost per activation
// by each.
//
// The floor itself has every process re-arm at the same instants, which keeps
// the kernel's timed-event heap trivially ordered. The other kinds price what
// a model's activations cost the kernel: processes out of step with each
// other (each one a picosecond after the one before, so the heap orders real
// times), threads resumed by a timed wait, and methods woken through an
// sc_event_queue (a firing of the queue's own process, then the method).
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

// What the out-of-step kinds share: the period, the phase (how long after
// the start the first activation comes) and the activation count.
struct OutOfStep : sc_core::sc_module {
  sc_core::sc_time period;
  sc_core::sc_time phase;
  unsigned long activations = 0;
  OutOfStep(sc_core::sc_module_name name, const sc_core::sc_time& period, const sc_core::sc_time& phase)
      : sc_module(name), period(period), phase(phase) {}
};

// A method out of step with the others, re-armed through `Trigger`, an
// sc_event or an sc_event_queue (whose own process then runs before the
// method each time).
template <class Trigger>
struct StaggeredTicker : OutOfStep {
  Trigger tick;
  SC_HAS_PROCESS(StaggeredTicker);
  StaggeredTicker(sc_core::sc_module_name name, const sc_core::sc_time& period, const sc_core::sc_time& phase)
      : OutOfStep(name, period, phase) {
    SC_METHOD(Tick);
    sensitive << tick;
    dont_initialize();
  }
  void start_of_simulation() override { tick.notify(phase); }
  void Tick() {
    ++activations;
    tick.notify(period);
  }
};

// A thread out of step with the others, resumed by a timed wait.
struct ThreadTicker : OutOfStep {
  SC_HAS_PROCESS(ThreadTicker);
  ThreadTicker(sc_core::sc_module_name name, const sc_core::sc_time& period, const sc_core::sc_time& phase)
      : OutOfStep(name, period, phase) {
    SC_THREAD(Run);
  }
  void Run() {
    sc_core::wait(phase);
    while (true) {
      ++activations;
      sc_core::wait(period);
    }
  }
};

// Processes that share a time step in the kinds other than the floor.
constexpr unsigned kGroup = 32;

// Makes `count` processes of `kind` and returns their activation counters.
bool MakeTickers(const std::string& kind, unsigned count, const sc_core::sc_time& period,
                 std::vector<const unsigned long*>& counters) {
  for (unsigned i = 0; i < count; ++i) {
    const std::string name = "ticker" + std::to_string(i);
    // Groups of kGroup processes share a phase, a picosecond after the
    // group before: about as many activations per time step as a model of
    // many blocks has.
    const sc_core::sc_time phase = sc_core::sc_time::from_value(i / kGroup + 1);
    if (kind == "method") {
      counters.push_back(&(new Ticker(name.c_str(), period))->activations);
    } else if (kind == "staggered") {
      counters.push_back(&(new StaggeredTicker<sc_core::sc_event>(name.c_str(), period, phase))->activations);
    } else if (kind == "thread") {
      counters.push_back(&(new ThreadTicker(name.c_str(), period, phase))->activations);
    } else if (kind == "queue") {
      counters.push_back(&(new StaggeredTicker<sc_core::sc_event_queue>(name.c_str(), period, phase))->activations);
    } else {
      return false;
    }
  }
  return true;
}

// Processor time of this process, user and system, in seconds.
double CpuSeconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

}  // namespace

// Usage: kernel_floor [processes] [simulated microseconds] [kind]
// kind: method (the floor, the default), staggered, thread or queue.
int sc_main(int argc, char* argv[]) {
  const unsigned processes = argc > 1 ? static_cast<unsigned>(std::strtoul(argv[1], nullptr, 10)) : 64;
  const double microseconds = argc > 2 ? std::strtod(argv[2], nullptr) : 200.0;
  const std::string kind = argc > 3 ? argv[3] : "method";
  const sc_core::sc_time period(1.6, sc_core::SC_NS);
  if (processes == 0 || processes >= 1600 || !(microseconds > 0)) {
    std::cerr << "kernel_floor: want 1 to 1599 processes and a positive simulated time\n";
    return 2;
  }

  std::vector<const unsigned long*> counters;
  if (!MakeTickers(kind, processes, period, counters)) {
    std::cerr << "kernel_floor: unknown kind '" << kind << "' (method, staggered, thread or queue)\n";
    return 2;
  }
  const double cpuStart = CpuSeconds();
  const auto start = std::chrono::steady_clock::now();
  sc_core::sc_start(sc_core::sc_time(microseconds, sc_core::SC_US));
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const double cpuSeconds = CpuSeconds() - cpuStart;

  unsigned long activations = 0;
  for (const unsigned long* counter : counters) activations += *counter;
  const double nsPerActivation = seconds * 1e9 / static_cast<double>(activations);
  const double cpuNsPerActivation = cpuSeconds * 1e9 / static_cast<double>(activations);
  std::cout << "{\"kind\": \"" << kind << "\", \"processes\": " << processes << ", \"simulated_us\": " << microseconds
            << ", \"activations\": " << activations << ", \"wall_s\": " << seconds
            << ", \"ns_per_activation\": " << nsPerActivation << ", \"cpu_s\": " << cpuSeconds
            << ", \"cpu_ns_per_activation\": " << cpuNsPerActivation << "}" << std::endl;
  return 0;
}
