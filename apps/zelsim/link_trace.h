// SPDX-License-Identifier: Apache-2.0
// Traces of the links as the host sees them: a VCD of every link's request
// and response signal (--vcd), and a log of every flit the host takes from
// the cube (--responses).
#ifndef ZELSIM_LINK_TRACE_H
#define ZELSIM_LINK_TRACE_H

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <systemc>
#include <vector>

#include "host/legal_host.h"
#include "zel2/zel2_flit.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Bench {

// A VCD file with, for each link and direction, the fields of the flit the
// signal carries (through Flit's sc_trace: tag, command, requestLength,
// address; then header, tail, flitNumber and returnTokens) and the number of
// flits so far, which tells two equal flits in a row apart.
//
// A trace binds to its variables by reference, while the signals carry
// handles to flits that the model and the host change and delete. The
// tracer therefore keeps one stable Flit per link and direction and copies
// each flit into it as it passes. The copy is taken at the host, where each
// flit is alive by contract: a request as the host writes it, a response as
// the host takes it (in the delta cycle in which the signal shows it). A
// process watching the signals could not be sure of that: the host deletes
// a response packet in the very delta cycle in which its tail arrives, and
// the link deletes some TOKEN_RETURN flits as soon as it reads them.
// Values are sampled at the end of each time step, as for any signal.
class LinkVcd : public HostObserver {
 public:
  // Made before the simulation starts; the file is exactly `path`.
  LinkVcd(const std::string& path, unsigned links);
  ~LinkVcd() override;
  LinkVcd(const LinkVcd&) = delete;
  LinkVcd& operator=(const LinkVcd&) = delete;

  // Ends the file once the simulation is over; false when it can't be put
  // in place.
  bool Close();

  void FlitSent(unsigned link, const Flit& flit) override;
  void FlitTaken(unsigned link, const Flit& flit) override;

 private:
  struct Traced {
    Flit flit;           // the last flit, copied
    uint64_t flits = 0;  // flits so far
  };
  void Trace(Traced& traced, const std::string& name);
  static void Copy(Traced& traced, const Flit& flit);

  std::string path_;
  std::string written_;  // the file the kernel writes, `path_` plus ".vcd" unless it ends so
  sc_core::sc_trace_file* file_ = nullptr;
  // Fixed in size once traced: the trace holds their addresses.
  std::vector<Traced> requests_;
  std::vector<Traced> responses_;
};

// One line per flit the host takes from the cube, in the order taken:
// simulated time in ps, link, and the flit as the library prints it.
class ResponseLog : public HostObserver {
 public:
  explicit ResponseLog(std::ostream& out) : out_(out) {}
  void FlitTaken(unsigned link, const Flit& flit) override;

 private:
  std::ostream& out_;
};

}  // namespace Bench
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak

#endif  // ZELSIM_LINK_TRACE_H
