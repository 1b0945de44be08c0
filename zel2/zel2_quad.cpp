// SPDX-License-Identifier: Apache-2.0
#include "zel2/zel2_quad.h"

#include <cstdlib>
#include <iostream>
#include <string>

#include "zel2/zel2_link.h"
#include "zel2/zel2_link_switch.h"
#include "zel2/zel2_slice.h"
#include "zel2/zel2_vault_switch.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {

namespace {

// Sizes a [peer][lane] vector of ports.
template <class Port>
void InitPeerLanes(sc_core::sc_vector<sc_core::sc_vector<Port>>& ports, unsigned peers, unsigned lanes) {
  ports.init(peers, [=](const char* nm, size_t) { return new sc_core::sc_vector<Port>(nm, lanes); });
}

std::string Numbered(const char* prefix, unsigned number) { return prefix + std::to_string(number); }

}  // namespace

zel2_quad::zel2_quad(sc_core::sc_module_name name, const Config& cfg, StatsKeeper& stats, unsigned quadNumber)
    : sc_module(name),
      requestIn("requestIn"),
      responseOut("responseOut"),
      lswInterquadFlitsOut("lswInterquadFlitsOut"),
      lswInterquadFlitsIn("lswInterquadFlitsIn"),
      lswInterquadCreditsIn("lswInterquadCreditsIn"),
      lswReturnTokensOut("lswReturnTokensOut"),
      lswEarlyCreditsIn("lswEarlyCreditsIn"),
      lswEarlyCreditsOut("lswEarlyCreditsOut"),
      vswInterquadFlitsIn("vswInterquadFlitsIn"),
      vswInterquadFlitsOut("vswInterquadFlitsOut"),
      vswInterquadCreditsIn("vswInterquadCreditsIn"),
      vswInterquadCreditsOut("vswInterquadCreditsOut"),
      cfg(cfg),
      stats(stats),
      quadNumber(quadNumber),
      slices(nullptr),
      vsw(nullptr),
      lsw(nullptr),
      link(nullptr),
      linkToLswFlits("linkToLswFlits"),
      vswToLinkFlits("vswToLinkFlits"),
      lswToVaultFlits("lswToVaultFlits"),
      vaultToVswFlits("vaultToVswFlits"),
      commandCredits("commandCredits"),
      writeCredits("writeCredits"),
      responseCredits("responseCredits"),
      linkTokens("linkTokens"),
      linkMasterCredits("linkMasterCredits"),
      busy("busy") {
  const unsigned peers = cfg.NUM_QUADS - 1;
  const unsigned vaults = cfg.VAULTS_PER_QUAD;

  // 1. Ports; with a single quad the inter-quad vectors stay empty.
  InitPeerLanes(lswInterquadFlitsOut, peers, cfg.FLITS_PER_CYCLE_LSW);
  InitPeerLanes(lswInterquadFlitsIn, peers, cfg.FLITS_PER_CYCLE_LSW);
  lswInterquadCreditsIn.init(peers);
  lswReturnTokensOut.init(peers);
  lswEarlyCreditsIn.init(peers);
  lswEarlyCreditsOut.init(peers);
  InitPeerLanes(vswInterquadFlitsIn, peers, cfg.FLITS_PER_CYCLE_VSW);
  InitPeerLanes(vswInterquadFlitsOut, peers, cfg.FLITS_PER_CYCLE_VSW);
  vswInterquadCreditsIn.init(peers);
  vswInterquadCreditsOut.init(peers);

  // 2. Signals.
  linkToLswFlits.init(cfg.FLITS_PER_CYCLE_LINK);
  vswToLinkFlits.init(cfg.FLITS_PER_CYCLE_VSW);
  lswToVaultFlits.init(vaults * cfg.FLITS_IN_PER_CYCLE_VC);
  InitPeerLanes(vaultToVswFlits, vaults, cfg.FLITS_OUT_PER_CYCLE_VC);
  commandCredits.init(vaults);
  writeCredits.init(vaults);
  responseCredits.init(vaults);

  // 3. The link.
  link = new zel2_link(Numbered("link", quadNumber).c_str(), cfg, stats, quadNumber);
  link->requestIn(requestIn);
  link->responseOut(responseOut);
  for (unsigned k = 0; k < cfg.FLITS_PER_CYCLE_LINK; ++k) link->flitsToLSW[k](linkToLswFlits[k]);
  for (unsigned k = 0; k < cfg.FLITS_PER_CYCLE_VSW; ++k) link->responseFlitsIn[k](vswToLinkFlits[k]);
  link->returnTokensIn(linkTokens);
  link->creditsOut(linkMasterCredits);
  link->busyIn(busy);

  // The vault switch.
  vsw = new zel2_vault_switch(Numbered("vsw", quadNumber).c_str(), cfg, stats, quadNumber);
  for (unsigned v = 0; v < vaults; ++v) {
    for (unsigned j = 0; j < cfg.FLITS_OUT_PER_CYCLE_VC; ++j) vsw->sliceFlits[v][j](vaultToVswFlits[v][j]);
  }
  for (unsigned k = 0; k < cfg.FLITS_PER_CYCLE_VSW; ++k) vsw->linkMasterFlits[k](vswToLinkFlits[k]);
  for (unsigned r = 0; r < peers; ++r) {
    for (unsigned k = 0; k < cfg.FLITS_PER_CYCLE_VSW; ++k) {
      vsw->interquadFlitsOut[r][k](vswInterquadFlitsOut[r][k]);
      vsw->interquadFlitsIn[r][k](vswInterquadFlitsIn[r][k]);
    }
    vsw->interquadCreditsIn[r](vswInterquadCreditsIn[r]);
  }
  vsw->linkMasterCredits(linkMasterCredits);
  // Credits go first to the local vault controllers, then to the peers.
  for (unsigned n = 0; n < vaults; ++n) vsw->creditsOut[n](responseCredits[n]);
  for (unsigned n = vaults; n < vaults + peers; ++n) vsw->creditsOut[n](vswInterquadCreditsOut[n - vaults]);

  // The link switch.
  lsw = new zel2_link_switch(Numbered("lsw", quadNumber).c_str(), cfg, stats, quadNumber);
  for (unsigned n = 0; n < vaults * cfg.FLITS_IN_PER_CYCLE_VC; ++n) lsw->vaultFlits[n](lswToVaultFlits[n]);
  for (unsigned k = 0; k < cfg.FLITS_PER_CYCLE_LINK; ++k) lsw->linkSlaveFlits[k](linkToLswFlits[k]);
  for (unsigned r = 0; r < peers; ++r) {
    for (unsigned k = 0; k < cfg.FLITS_PER_CYCLE_LSW; ++k) {
      lsw->interquadFlitsOut[r][k](lswInterquadFlitsOut[r][k]);
      lsw->interquadFlitsIn[r][k](lswInterquadFlitsIn[r][k]);
    }
    lsw->interquadCreditsIn[r](lswInterquadCreditsIn[r]);
    lsw->earlyCreditsIn[r](lswEarlyCreditsIn[r]);
    lsw->earlyCreditsOut[r](lswEarlyCreditsOut[r]);
  }
  for (unsigned v = 0; v < vaults; ++v) {
    lsw->sliceCredits[v](commandCredits[v]);
    lsw->writeCreditsIn[v](writeCredits[v]);
  }
  lsw->busyOut(busy);
  // Indexed by quad: the own entry returns tokens to the link, the others
  // return credits to the peers.
  for (unsigned n = 0; n < cfg.NUM_QUADS; ++n) {
    if (n == quadNumber) {
      lsw->returnTokensOut[n](linkTokens);
    } else {
      lsw->returnTokensOut[n](lswReturnTokensOut[PeerIndex(quadNumber, n)]);
    }
  }

  // The slices, numbered through the cube.
  slices = static_cast<zel2_slice**>(std::malloc(sizeof(zel2_slice*) * vaults));
  for (unsigned v = 0; v < vaults; ++v) {
    const unsigned id = vaults * quadNumber + v;
    zel2_slice* slice = new zel2_slice(Numbered("slice", id).c_str(), cfg, stats, id);
    slices[v] = slice;
    slice->commandCreditOut(commandCredits[v]);
    slice->responseCreditIn(responseCredits[v]);
    slice->writeCreditOut(writeCredits[v]);
    for (unsigned j = 0; j < cfg.FLITS_IN_PER_CYCLE_VC; ++j) {
      slice->flitsIn[j](lswToVaultFlits[v * cfg.FLITS_IN_PER_CYCLE_VC + j]);
    }
    for (unsigned j = 0; j < cfg.FLITS_OUT_PER_CYCLE_VC; ++j) slice->flitsOut[j](vaultToVswFlits[v][j]);
  }
}

void zel2_quad::DumpState() {
  std::cout << "============ Quad " << quadNumber << " ============" << std::endl;
  link->DumpState();
  lsw->DumpState();
  vsw->DumpState();
  for (unsigned v = 0; v < cfg.VAULTS_PER_QUAD; ++v) slices[v]->DumpState();
}

}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak
