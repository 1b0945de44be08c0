// SPDX-License-Identifier: Apache-2.0
// A TLM-2.0 platform with the cube as its memory: four initiators, two
// calling b_transport and two with several transactions in flight through
// nb_transport, make random reads and writes of 64 and 128 bytes for 20 us
// of simulated time. Each prints its bandwidth and latencies.
#include <algorithm>
#include <cstdint>
#include <iomanip>
#include <iostream>
#include <random>
#include <vector>

#include <systemc>
#include <tlm>

#include <host/tlm_target.h>

using namespace Sornak::Internal::ZEL2;

struct Initiator : sc_core::sc_module, tlm::tlm_bw_transport_if<> {
  tlm::tlm_initiator_socket<32> socket;
  bool blocking;
  std::mt19937_64 random;
  uint64_t bytes = 0, transactions = 0;
  sc_core::sc_time latencySum, latencyMax;
  // nb_transport: when each payload in flight started.
  std::vector<tlm::tlm_generic_payload> slots;
  std::vector<unsigned char> data;
  std::vector<sc_core::sc_time> started;
  std::vector<unsigned> freeSlots;
  sc_core::sc_event requestEnded, slotFreed;

  SC_HAS_PROCESS(Initiator);
  Initiator(sc_core::sc_module_name name, bool blocking, unsigned seed)
      : sc_module(name), socket("socket"), blocking(blocking), random(seed), slots(16), data(16 * 128),
        started(16) {
    socket.bind(*this);
    for (unsigned i = 0; i < slots.size(); ++i) freeSlots.push_back(i);
    SC_THREAD(Run);
  }

  // A random read or write of 64 or 128 bytes somewhere in the first GB.
  void Draw(tlm::tlm_generic_payload& p, unsigned char* bytesOf) {
    const unsigned length = random() % 2 ? 64 : 128;
    p.set_command(random() % 3 ? tlm::TLM_READ_COMMAND : tlm::TLM_WRITE_COMMAND);
    p.set_address((random() % ((1u << 30) / 128)) * 128);
    p.set_data_ptr(bytesOf);
    p.set_data_length(length);
    p.set_streaming_width(length);
    p.set_byte_enable_ptr(nullptr);
    p.set_response_status(tlm::TLM_INCOMPLETE_RESPONSE);
  }
  void Count(const tlm::tlm_generic_payload& p, const sc_core::sc_time& since) {
    const sc_core::sc_time latency = sc_core::sc_time_stamp() - since;
    bytes += p.get_data_length();
    ++transactions;
    latencySum += latency;
    latencyMax = std::max(latencyMax, latency);
  }

  void Run() {
    for (;;) {
      if (blocking) {
        tlm::tlm_generic_payload p;
        Draw(p, data.data());
        sc_core::sc_time delay = sc_core::SC_ZERO_TIME;
        const sc_core::sc_time since = sc_core::sc_time_stamp();
        socket->b_transport(p, delay);
        Count(p, since);
        continue;
      }
      while (freeSlots.empty()) wait(slotFreed);
      const unsigned slot = freeSlots.back();
      freeSlots.pop_back();
      Draw(slots[slot], &data[slot * 128]);
      started[slot] = sc_core::sc_time_stamp();
      tlm::tlm_phase phase = tlm::BEGIN_REQ;
      sc_core::sc_time delay = sc_core::SC_ZERO_TIME;
      if (socket->nb_transport_fw(slots[slot], phase, delay) == tlm::TLM_ACCEPTED) wait(requestEnded);
    }
  }

  tlm::tlm_sync_enum nb_transport_bw(tlm::tlm_generic_payload& p, tlm::tlm_phase& phase, sc_core::sc_time&) override {
    if (phase == tlm::END_REQ) {
      requestEnded.notify();
      return tlm::TLM_ACCEPTED;
    }
    const unsigned slot = static_cast<unsigned>(&p - slots.data());
    Count(p, started[slot]);
    freeSlots.push_back(slot);
    slotFreed.notify();
    return tlm::TLM_COMPLETED;
  }
  void invalidate_direct_mem_ptr(sc_dt::uint64, sc_dt::uint64) override {}
};

int sc_main(int, char*[]) {
  Cube2in1Wrapper cube("cube");
  Host::CubeTarget memory("memory", cube);
  std::vector<Initiator*> initiators;
  for (unsigned i = 0; i < 4; ++i) {
    initiators.push_back(new Initiator(("cpu" + std::to_string(i)).c_str(), i < 2, i + 1));
    initiators.back()->socket.bind(memory.socket);
  }
  const sc_core::sc_time run(20, sc_core::SC_US);
  sc_core::sc_start(run);

  std::cout << "initiator  style         transactions   GB/s   mean ns    max ns\n" << std::fixed;
  for (const Initiator* in : initiators) {
    const double ns = run.to_seconds() * 1e9;
    const double mean = in->transactions == 0 ? 0 : in->latencySum.to_seconds() * 1e9 / in->transactions;
    std::cout << std::left << std::setw(11) << in->name() << std::setw(14)
              << (in->blocking ? "b_transport" : "nb_transport") << std::right << std::setw(12) << in->transactions
              << std::setprecision(2) << std::setw(7) << in->bytes / ns << std::setprecision(1) << std::setw(10)
              << mean << std::setw(10) << in->latencyMax.to_seconds() * 1e9 << "\n";
  }
  return 0;
}
