// SPDX-License-Identifier: Apache-2.0
// One quadrant of the cube: a link, a link switch for requests, a vault
// switch for responses and VAULTS_PER_QUAD slices. No behaviour of its own:
// the constructor is the wiring plan of the quad.
#ifndef ZEL2_QUAD_H
#define ZEL2_QUAD_H

#include <systemc>

#include "zel2/Config.h"
#include "zel2/StatsKeeper.h"
#include "zel2/zel2_flit.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {

class zel2_link;
class zel2_link_switch;
class zel2_vault_switch;
class zel2_slice;

class zel2_quad : public sc_core::sc_module {
 public:
  template <class T>
  using Vector = sc_core::sc_vector<T>;
  using FlitIn = sc_core::sc_in<Flit_P>;
  using FlitOut = sc_core::sc_out<Flit_P>;

  // ---- Ports. Inter-quad vectors are indexed by peer: the other quads in
  // ascending order, this one left out.
  FlitIn requestIn;    // requests of this quad's link, from the cube
  FlitOut responseOut;  // responses of this quad's link, to the cube
  Vector<Vector<FlitOut>> lswInterquadFlitsOut;  // [peer][lane] requests to peers
  Vector<Vector<FlitIn>> lswInterquadFlitsIn;    // [peer][lane] requests from peers
  Vector<sc_core::sc_in<int>> lswInterquadCreditsIn;  // credits from peers' link switches
  Vector<sc_core::sc_out<int>> lswReturnTokensOut;    // credits to peers' link switches
  Vector<sc_core::sc_in<int>> lswEarlyCreditsIn;      // early credits from peers' link switches
  Vector<sc_core::sc_out<int>> lswEarlyCreditsOut;    // early credits to peers' link switches
  Vector<Vector<FlitIn>> vswInterquadFlitsIn;    // [peer][lane] responses from peers
  Vector<Vector<FlitOut>> vswInterquadFlitsOut;  // [peer][lane] responses to peers
  Vector<sc_core::sc_in<int>> vswInterquadCreditsIn;  // credits from peers' vault switches
  Vector<sc_core::sc_out<int>> vswInterquadCreditsOut;  // credits to peers' vault switches

  // ---- Sub-modules
  const Config& cfg;
  StatsKeeper& stats;
  unsigned quadNumber;
  zel2_slice** slices;  // VAULTS_PER_QUAD slices
  zel2_vault_switch* vsw;
  zel2_link_switch* lsw;
  zel2_link* link;

  // ---- Signals inside the quad
  Vector<sc_core::sc_signal<Flit_P>> linkToLswFlits;           // link to link switch, per lane
  Vector<sc_core::sc_signal<Flit_P>> vswToLinkFlits;           // vault switch to link, per lane
  Vector<sc_core::sc_signal<Flit_P>> lswToVaultFlits;          // flat: vault v starts at v * FLITS_IN_PER_CYCLE_VC
  Vector<Vector<sc_core::sc_signal<Flit_P>>> vaultToVswFlits;  // [vault][slot]
  Vector<sc_core::sc_signal<bool>> commandCredits;  // vault controllers to link switch
  Vector<sc_core::sc_signal<int>> writeCredits;     // vault controllers to link switch
  Vector<sc_core::sc_signal<int>> responseCredits;  // vault switch to vault controllers
  sc_core::sc_signal<int> linkTokens;               // link switch to link
  sc_core::sc_signal<int> linkMasterCredits;        // link to vault switch
  sc_core::sc_signal<bool> busy;                    // link switch to link

  zel2_quad(sc_core::sc_module_name name, const Config& cfg, StatsKeeper& stats, unsigned quadNumber);

  // Prints the queues of the link, the switches and the slices.
  void DumpState();
};

}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak

#endif  // ZEL2_QUAD_H
