// SPDX-License-Identifier: Apache-2.0
// A plain call interface for a host test bench: one module, made with a name
// alone, builds the cube from the environment, one driver per link, and
// offers the run-time setters of the device.
#ifndef ZEL2_2IN1WRAPPER_H
#define ZEL2_2IN1WRAPPER_H

#include <deque>
#include <vector>

#include <systemc>

#include "zel2/CubeDriver.h"
#include "zel2/zel2_cube.h"
#include "zel2/zel2_flit.h"

class Cube2in1Wrapper : public sc_core::sc_module {
 public:
  using Flit = Sornak::Internal::ZEL2::Flit;
  using Flit_P = Sornak::Internal::ZEL2::Flit_P;

  Sornak::Internal::ZEL2::zel2_cube* cube;                 // configured from the environment
  std::vector<CubeDriver*> drivers;                         // one per link
  sc_core::sc_vector<sc_core::sc_signal<Flit_P>> responseSignals;  // cube to driver
  sc_core::sc_vector<sc_core::sc_signal<Flit_P>> requestSignals;   // driver to cube
  sc_core::sc_signal<bool> clkSignal;                       // the cube's clock

  explicit Cube2in1Wrapper(sc_core::sc_module_name name);

  // Sends a request flit. The flit must come from `new`: the model deletes
  // it. At most one call per link in a delta cycle, and no more flits in a
  // core cycle than the link carries.
  void addRequestFlit(unsigned link, Flit& flit);
  // Any state but 0 turns the link on; turning links off is not supported.
  void changeLinkState(unsigned link, unsigned state);
  // Encoding 0, 1, 2: 2, 4 or 8 partitions per vault.
  void setCubeSize(unsigned encoding);
  void setBlockSize(unsigned bits);
  void setCubeTokens(unsigned tokens);
  // Rate 40, 50 or 60 (10, 12.5 or 15 Gb/s per lane), on every link.
  void setLinkParams(unsigned rate, unsigned lanes);
  void setHostTokens(unsigned tokens);
  void setResponseOpenLoopMode(unsigned mode);
  void setTj(unsigned temperature);
  void setDramTracingEn(unsigned enable);
  void setRefreshEn(unsigned enable);
  // Turns on the corrections of the model's known faults; before the
  // simulation starts only (see zel2_cube::setCorrections).
  void setCorrections(const Sornak::Internal::ZEL2::Corrections& corrections);
  std::deque<Flit_P>& getPendingResponseQueue(unsigned link);
  sc_core::sc_event& getResponseWaitingEvent(unsigned link);
  void tokenAdjustment(unsigned link, int delta);
  void DumpStats();

 private:
  Sornak::Internal::ZEL2::Config& config();
};

#endif  // ZEL2_2IN1WRAPPER_H
