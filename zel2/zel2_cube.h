// SPDX-License-Identifier: Apache-2.0
// The top module of the model, one object per device, and the library's
// entry points that build a configuration, a statistics keeper and a cube.
#ifndef ZEL2_CUBE_H
#define ZEL2_CUBE_H

#include <fstream>
#include <string>

#include <systemc>

#include "zel2/Config.h"
#include "zel2/StatsKeeper.h"
#include "zel2/zel2_flit.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {

class zel2_quad;

// Process-wide stream of the DRAM command trace, opened by the cube when
// DRAM_TRACING is set at construction.
extern std::ofstream dramLog;
// Process-wide stream of the inter-quad traffic trace; the model never opens
// it, a host that wants the trace does.
extern std::ofstream tsvFile;

class zel2_cube : public sc_core::sc_module {
 public:
  // ---- Ports
  sc_core::sc_vector<sc_core::sc_in<Flit_P>> requestLinks;    // requests from the host, per link
  sc_core::sc_vector<sc_core::sc_out<Flit_P>> responseLinks;  // responses to the host, per link
  sc_core::sc_out<bool> clk;  // core clock for the host side; nothing inside reads it

  // ---- State
  const Config& cfg;  // shared by every block; the setters write through it
  StatsKeeper& stats;
  zel2_quad** quads;  // NUM_QUADS quads
  // [source quad][peer][lane] and [source quad][peer]; see BindInterquad.
  sc_core::sc_vector<sc_core::sc_vector<sc_core::sc_vector<sc_core::sc_signal<Flit_P>>>>
      interquadRequestFlits;
  sc_core::sc_vector<sc_core::sc_vector<sc_core::sc_vector<sc_core::sc_signal<Flit_P>>>>
      interquadResponseFlits;
  sc_core::sc_vector<sc_core::sc_vector<sc_core::sc_signal<int>>> interquadEarlyCredits;
  sc_core::sc_vector<sc_core::sc_vector<sc_core::sc_signal<int>>> interquadTokens;
  sc_core::sc_vector<sc_core::sc_vector<sc_core::sc_signal<int>>> interquadVswCredits;
  sc_core::sc_event toggleEvent;  // wakes ToggleClock

  SC_HAS_PROCESS(zel2_cube);
  zel2_cube(sc_core::sc_module_name name, const Config& cfg, StatsKeeper& stats);

  // ---- Processes
  void ToggleClock();  // drives clk with the period CORE_CLK
  // Names the corrections that are on, in one line, before time zero.
  void start_of_simulation() override;

  // ---- Run-time setters, called by the host between simulation steps
  void setLinkParams(unsigned link, float gigabitsPerLane, unsigned numLanes);
  void setCubeTokens(unsigned numTokens);
  void setCubeSize(unsigned numPartitions);
  void setTj(unsigned temperature);
  void setMaxBlockSize(unsigned size);
  // Chooses the corrections of the model's known faults (all off by
  // default). Only before the simulation starts: later it stops the run.
  void setCorrections(const Corrections& corrections);

  // ---- Diagnostics and accessors
  void DumpState();
  void DumpStats();
  void PrintBanner();
  sc_core::sc_vector<sc_core::sc_in<Flit_P>>& GetRequestLinks();
  sc_core::sc_vector<sc_core::sc_out<Flit_P>>& GetResponseLinks();
  // Time in which a flit crosses link 0 to 3 at the configured speed and width.
  sc_core::sc_time GetLinkRate(unsigned link);

 private:
  Config& mutableConfig() { return const_cast<Config&>(cfg); }
  void BindInterquad();
};

// ---- Entry points of the library

// Builds a cube configured from the environment (LIBZEL_CONFIG_FILE, the two
// token variables, and LIBZEL_CORRECTIONS, a comma-separated list of
// correction names or "all"). A non-null argument skips the configuration file
// altogether: it works as a switch, not as a file name.
zel2_cube& CreateCube(const char* configFile);
// A configuration with its defaults, overridden by the file when one is named.
Config& GetConfig(std::string* fileName);
Config& GetConfig(std::string fileName);
// A cube on a given configuration, or on one read from a file.
zel2_cube& GetCube(const Config& cfg);
zel2_cube& GetCube(std::string* fileName);
sc_core::sc_vector<sc_core::sc_in<Flit_P>>& GetRequestLinks(zel2_cube* cube);
sc_core::sc_vector<sc_core::sc_out<Flit_P>>& GetResponseLinks(zel2_cube* cube);
sc_core::sc_time GetLinkRate(zel2_cube* cube, unsigned link);
void DumpStats(zel2_cube* cube);

}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak

#endif  // ZEL2_CUBE_H
