// SPDX-License-Identifier: Apache-2.0
#include "zel2/zel2_cube.h"

#include <cassert>
#include <cstdlib>
#include <iostream>
#include <string>

#include "zel2/IniReader.h"
#include "zel2/zel2_link.h"
#include "zel2/zel2_quad.h"
#include "zel2/zel2_slice.h"
#include "zel2/zel2_vault.h"
#include "zel2/zel2_vault_controller.h"

#ifndef ZELSIM_REVISION
#define ZELSIM_REVISION "unknown"
#endif

namespace Sornak {
namespace Internal {
namespace ZEL2 {

using sc_core::sc_signal;
using sc_core::sc_vector;

std::ofstream dramLog;
std::ofstream tsvFile;

namespace {

template <class T>
void InitSignalMatrix(sc_vector<sc_vector<sc_vector<sc_signal<T>>>>& matrix, unsigned quads,
                      unsigned lanes) {
  matrix.init(quads, [=](const char* nm, size_t) {
    auto* peers = new sc_vector<sc_vector<sc_signal<T>>>(nm);
    peers->init(quads - 1, [=](const char* peerName, size_t) {
      return new sc_vector<sc_signal<T>>(peerName, lanes);
    });
    return peers;
  });
}

template <class T>
void InitSignalTable(sc_vector<sc_vector<sc_signal<T>>>& table, unsigned quads) {
  table.init(quads, [=](const char* nm, size_t) { return new sc_vector<sc_signal<T>>(nm, quads - 1); });
}

// Reads a token count from the environment; counts above 289 are refused.
bool TokensFromEnvironment(const char* variable, unsigned& numTokens) {
  const char* text = std::getenv(variable);
  if (text == nullptr) return false;
  numTokens = static_cast<unsigned>(std::strtol(text, nullptr, 10));
  ZEL_ASSERT(numTokens < 290);
  return true;
}

}  // namespace

zel2_cube::zel2_cube(sc_core::sc_module_name name, const Config& cfg, StatsKeeper& stats)
    : sc_module(name),
      requestLinks("requestLinks"),
      responseLinks("responseLinks"),
      clk("clk"),
      cfg(cfg),
      stats(stats),
      quads(nullptr),
      interquadRequestFlits("interquadRequestFlits"),
      interquadResponseFlits("interquadResponseFlits"),
      interquadEarlyCredits("interquadEarlyCredits"),
      interquadTokens("interquadTokens"),
      interquadVswCredits("interquadVswCredits"),
      toggleEvent("toggleEvent") {
  static unsigned cubeNum = 0;
  if (cubeNum == 0) PrintBanner();
  ++cubeNum;

  if (cfg.DRAM_TRACING) dramLog.open("dram_trace.tsv", std::ios::out | std::ios::trunc);

  requestLinks.init(cfg.NUM_LINKS);
  responseLinks.init(cfg.NUM_LINKS);

  quads = static_cast<zel2_quad**>(std::malloc(sizeof(zel2_quad*) * cfg.NUM_QUADS));
  for (unsigned q = 0; q < cfg.NUM_QUADS; ++q) {
    const std::string quadName = "quad" + std::to_string(q);
    quads[q] = new zel2_quad(quadName.c_str(), cfg, stats, q);
    quads[q]->requestIn(requestLinks[q]);
    quads[q]->responseOut(responseLinks[q]);
  }

  BindInterquad();

  SC_METHOD(ToggleClock);
  sensitive << toggleEvent;
}

void zel2_cube::BindInterquad() {
  const unsigned quadCount = cfg.NUM_QUADS;
  if (quadCount < 2) return;
  InitSignalMatrix(interquadRequestFlits, quadCount, cfg.FLITS_PER_CYCLE_LSW);
  InitSignalMatrix(interquadResponseFlits, quadCount, cfg.FLITS_PER_CYCLE_VSW);
  InitSignalTable(interquadEarlyCredits, quadCount);
  InitSignalTable(interquadTokens, quadCount);
  InitSignalTable(interquadVswCredits, quadCount);

  for (unsigned i = 0; i < quadCount; ++i) {
    for (unsigned j = 0; j + 1 < quadCount; ++j) {
      const unsigned d = PeerQuad(i, j);
      const unsigned s = PeerIndex(d, i);
      zel2_quad& source = *quads[i];
      zel2_quad& dest = *quads[d];
      for (unsigned k = 0; k < cfg.FLITS_PER_CYCLE_LSW; ++k) {
        source.lswInterquadFlitsOut[j][k](interquadRequestFlits[i][j][k]);
        dest.lswInterquadFlitsIn[s][k](interquadRequestFlits[i][j][k]);
      }
      for (unsigned k = 0; k < cfg.FLITS_PER_CYCLE_VSW; ++k) {
        source.vswInterquadFlitsOut[j][k](interquadResponseFlits[i][j][k]);
        dest.vswInterquadFlitsIn[s][k](interquadResponseFlits[i][j][k]);
      }
      source.lswReturnTokensOut[j](interquadTokens[i][j]);
      dest.lswInterquadCreditsIn[s](interquadTokens[i][j]);
      source.lswEarlyCreditsOut[j](interquadEarlyCredits[i][j]);
      dest.lswEarlyCreditsIn[s](interquadEarlyCredits[i][j]);
      source.vswInterquadCreditsOut[j](interquadVswCredits[i][j]);
      dest.vswInterquadCreditsIn[s](interquadVswCredits[i][j]);
    }
  }
}

void zel2_cube::ToggleClock() {
  clk.write(!clk.read());
  toggleEvent.notify(HalfCycle(cfg));
}

void zel2_cube::setLinkParams(unsigned link, float gigabitsPerLane, unsigned numLanes) {
  Config& config = mutableConfig();
  config.LINK_SPEED = gigabitsPerLane;
  std::cout << sc_core::sc_time_stamp() << ": SYSTEMC CONFIG CHANGE: setting link rate=" << config.LINK_SPEED
            << " Gb/s" << std::endl;
  ZEL_ASSERT(numLanes > 0);
  unsigned* widths[4] = {&config.LINK_0_WIDTH, &config.LINK_1_WIDTH, &config.LINK_2_WIDTH,
                         &config.LINK_3_WIDTH};
  if (link > 3) {
    std::cout << "== ERROR - Please pick a link value between 0 and 3" << std::endl;
    FatalAbort();
  }
  *widths[link] = numLanes;
  std::cout << sc_core::sc_time_stamp() << ": SYSTEMC CONFIG CHANGE: setting link" << link
            << " width=" << numLanes << " lanes" << std::endl;

  for (unsigned q = 0; q < cfg.NUM_QUADS; ++q) {
    for (unsigned v = 0; v < cfg.VAULTS_PER_QUAD; ++v) {
      if (!cfg.REFRESH_ENABLED) {
        std::cout << sc_core::sc_time_stamp() << ": Refresh disabled, cancelling refresh for quad " << q
                  << " vault " << v << std::endl;
        quads[q]->slices[v]->vaultController->refreshEvent.cancel();
      }
    }
    // Every link takes on the width of `link`: the argument, not q.
    quads[q]->link->updateLinkParams(link);
  }
}

void zel2_cube::setCubeTokens(unsigned numTokens) {
  mutableConfig().TOKENS_PER_LINK = numTokens;
  for (unsigned q = 0; q < cfg.NUM_QUADS; ++q) quads[q]->link->setCubeTokens(numTokens);
}

void zel2_cube::setCubeSize(unsigned numPartitions) {
  mutableConfig().NUM_PARTITIONS = numPartitions;
  for (unsigned q = 0; q < cfg.NUM_QUADS; ++q) {
    for (unsigned v = 0; v < cfg.VAULTS_PER_QUAD; ++v) {
      zel2_slice* slice = quads[q]->slices[v];
      slice->vault->setNumPartitions(numPartitions);
      slice->vaultController->setNumPartitions(numPartitions);
    }
  }
}

void zel2_cube::setTj(unsigned temperature) {
  mutableConfig().Tj = temperature;
  std::cout << sc_core::sc_time_stamp() << ": SYSTEMC CONFIG CHANGE: setting operating temperature (Tj)="
            << temperature << std::endl;
  setCubeSize(cfg.NUM_PARTITIONS);
}

void zel2_cube::setMaxBlockSize(unsigned size) {
  mutableConfig().MAX_BLOCK_SIZE = size;
  for (unsigned q = 0; q < cfg.NUM_QUADS; ++q) {
    for (unsigned v = 0; v < cfg.VAULTS_PER_QUAD; ++v) {
      quads[q]->slices[v]->vaultController->setMaxBlockSize(size);
    }
  }
}

void zel2_cube::DumpState() {
  std::cout << "== Cube" << std::endl;
  for (unsigned q = 0; q < cfg.NUM_QUADS; ++q) quads[q]->DumpState();
}

void zel2_cube::setCorrections(const Corrections& corrections) {
  if (sc_core::sc_is_running()) {
    std::cout << "== ERROR - Corrections can only be chosen before the simulation starts" << std::endl;
    FatalAbort();
  }
  mutableConfig().corrections = corrections;
}

void zel2_cube::start_of_simulation() {
  if (cfg.corrections.Any()) std::cout << "*** CORRECTIONS ON: " << cfg.corrections.Names() << std::endl;
}

void zel2_cube::DumpStats() { stats.DumpStats(sc_core::sc_time_stamp()); }

void zel2_cube::PrintBanner() {
  const std::string rule(80, '=');
  std::cout << rule << std::endl;
  std::cout << "Sornak ZEL2 SystemC simulator built from revision: " << ZELSIM_REVISION << std::endl;
  std::cout << rule << std::endl;
}

sc_vector<sc_core::sc_in<Flit_P>>& zel2_cube::GetRequestLinks() { return requestLinks; }

sc_vector<sc_core::sc_out<Flit_P>>& zel2_cube::GetResponseLinks() { return responseLinks; }

sc_core::sc_time zel2_cube::GetLinkRate(unsigned link) {
  const unsigned widths[4] = {cfg.LINK_0_WIDTH, cfg.LINK_1_WIDTH, cfg.LINK_2_WIDTH, cfg.LINK_3_WIDTH};
  if (link > 3) {
    std::cout << "== ERROR - Please pink a link value between 0 and 3" << std::endl;
    FatalAbort();
  }
  return FlitTimeOnLink(cfg.FLIT_SIZE, widths[link], cfg.LINK_SPEED);
}

// ---- Entry points

zel2_cube& CreateCube(const char* configFile) {
  Config* config = new Config();
  if (configFile == nullptr) {
    const char* fileName = std::getenv("LIBZEL_CONFIG_FILE");
    if (fileName != nullptr) {
      IniReader reader{{}, true, false};
      reader.readFile(fileName, *config);
      reader.finish(*config);
    } else {
      std::cout << "No config file specified for SystemC; using compiled defaults (use LIBZEL_CONFIG_FILE to "
                   "specify a config file)"
                << std::endl;
    }
  }

  unsigned numTokens = 0;
  if (TokensFromEnvironment("LIBZEL_NUM_TOKENS", numTokens)) {
    config->TOKENS_PER_LINK = numTokens;
    std::cout << "*** OVERWROTE TOKENS_PER_LINK TO " << numTokens << std::endl;
  }
  if (TokensFromEnvironment("ZEL_BFM_NUM_TOKENS", numTokens)) {
    config->BFM_TOKENS_PER_LINK = numTokens;
    std::cout << "*** OVERWROTE BFM_TOKENS_PER_LINK TO " << numTokens << std::endl;
  } else {
    config->BFM_TOKENS_PER_LINK = config->TOKENS_PER_LINK;
    std::cout << "*** ASSUMING BFM_TOKENS_PER_LINK=" << config->BFM_TOKENS_PER_LINK
              << " (same as TOKENS_PER_LINK)" << std::endl;
  }

  if (const char* list = std::getenv("LIBZEL_CORRECTIONS")) {
    std::string unknown;
    if (!config->corrections.EnableList(list, unknown)) {
      std::cout << "== ERROR - LIBZEL_CORRECTIONS names no known correction: " << unknown << std::endl;
      FatalAbort();
    }
  }

  StatsKeeper* stats = new StatsKeeper(*config);
  return *new zel2_cube("zelsim_cube", *config, *stats);
}

Config& GetConfig(std::string* fileName) {
  Config* config = new Config();
  IniReader reader{{}, true, false};
  if (fileName != nullptr) reader.readFile(*fileName, *config);
  reader.finish(*config);
  return *config;
}

Config& GetConfig(std::string fileName) { return GetConfig(&fileName); }

zel2_cube& GetCube(const Config& cfg) {
  StatsKeeper* stats = new StatsKeeper(cfg);
  return *new zel2_cube("zelsim_cube", cfg, *stats);
}

zel2_cube& GetCube(std::string* fileName) { return GetCube(GetConfig(fileName)); }

sc_vector<sc_core::sc_in<Flit_P>>& GetRequestLinks(zel2_cube* cube) { return cube->GetRequestLinks(); }

sc_vector<sc_core::sc_out<Flit_P>>& GetResponseLinks(zel2_cube* cube) { return cube->GetResponseLinks(); }

sc_core::sc_time GetLinkRate(zel2_cube* cube, unsigned link) { return cube->GetLinkRate(link); }

void DumpStats(zel2_cube* cube) { cube->DumpStats(); }

}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak
