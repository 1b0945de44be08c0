// SPDX-License-Identifier: Apache-2.0
#include "zel2/2in1Wrapper.h"

#include <iostream>
#include <string>

#include "zel2/zel2_link.h"
#include "zel2/zel2_quad.h"

using namespace Sornak::Internal::ZEL2;
using sc_core::sc_time_stamp;

Cube2in1Wrapper::Cube2in1Wrapper(sc_core::sc_module_name name)
    : sc_module(name),
      cube(&CreateCube(nullptr)),
      responseSignals("responseSignals"),
      requestSignals("requestSignals"),
      clkSignal("clkSignal") {
  const unsigned links = cube->requestLinks.size();
  responseSignals.init(links);
  requestSignals.init(links);
  for (unsigned i = 0; i < links; ++i) {
    const std::string driverName = "cubeDriver" + std::to_string(i);
    CubeDriver* driver = new CubeDriver(driverName.c_str(), i, 0);
    driver->requestOut(requestSignals[i]);
    driver->responseIn(responseSignals[i]);
    driver->clk(clkSignal);
    drivers.push_back(driver);
  }
  for (unsigned i = 0; i < links; ++i) {
    cube->requestLinks[i](requestSignals[i]);
    cube->responseLinks[i](responseSignals[i]);
  }
  cube->clk(clkSignal);
}

Config& Cube2in1Wrapper::config() { return const_cast<Config&>(cube->cfg); }

void Cube2in1Wrapper::addRequestFlit(unsigned link, Flit& flit) {
  drivers[link]->requestOut.write(Flit_P(&flit));
}

void Cube2in1Wrapper::changeLinkState(unsigned link, unsigned state) {
  if (state != 0) {
    cube->quads[link]->link->TurnOnLink();
  } else {
    std::cout << "WARNING: TURNING OFF SYSTEMC LINKS NOT IMPLEMENTED YET" << std::endl;
  }
}

void Cube2in1Wrapper::setCubeSize(unsigned encoding) {
  unsigned partitions = 0;
  switch (encoding) {
    case 0: partitions = 2; break;
    case 1: partitions = 4; break;
    case 2: partitions = 8; break;
    default:
      std::cout << "Unknown cube size encoding " << encoding << std::endl;
      FatalAbort();
  }
  cube->setCubeSize(partitions);
  const Config& cfg = cube->cfg;
  std::cout << sc_time_stamp() << ": SYSTEMC CONFIG CHANGE: setting cube size=" << encoding << "; ("
            << cfg.NUM_BANKS * cfg.NUM_VAULTS * cfg.NUM_PARTITIONS << " Total Banks)" << std::endl;
}

void Cube2in1Wrapper::setBlockSize(unsigned bits) {
  cube->setMaxBlockSize(bits >> 3);
  std::cout << sc_time_stamp() << ": SYSTEMC CONFIG CHANGE: setting max block size=" << cube->cfg.MAX_BLOCK_SIZE
            << " Bytes" << std::endl;
}

void Cube2in1Wrapper::setCubeTokens(unsigned tokens) {
  if (tokens == 0) return;
  std::cout << sc_time_stamp() << ": SYSTEMC CONFIG CHANGE: setting cube tokens=" << tokens << std::endl;
  cube->setCubeTokens(tokens);
}

void Cube2in1Wrapper::setLinkParams(unsigned rate, unsigned lanes) {
  float speed = 0.0f;
  switch (rate) {
    case 40: speed = 10.0f; break;
    case 50: speed = 12.5f; break;
    case 60: speed = 15.0f; break;
    default:
      std::cout << "ERROR : Unknown Link Rate " << rate << std::endl;
      ZEL_ASSERT(0);
  }
  for (unsigned link = 0; link < drivers.size(); ++link) cube->setLinkParams(link, speed, lanes);
}

void Cube2in1Wrapper::setHostTokens(unsigned tokens) {
  Config& cfg = config();
  cfg.BFM_TOKENS_PER_LINK = tokens != 0 ? tokens : cfg.TOKENS_PER_LINK;
  std::cout << sc_time_stamp() << ": SYSTEMC CONFIG CHANGE: setting host tokens=" << cfg.BFM_TOKENS_PER_LINK
            << std::endl;
}

void Cube2in1Wrapper::setResponseOpenLoopMode(unsigned mode) {
  config().RESPONSE_OPEN_LOOP = mode != 0;
  std::cout << sc_time_stamp() << ": SYSTEMC CONFIG CHANGE: setting response open loop mode="
            << (mode != 0 ? 1 : 0) << std::endl;
}

void Cube2in1Wrapper::setTj(unsigned temperature) { cube->setTj(temperature); }

void Cube2in1Wrapper::setDramTracingEn(unsigned enable) {
  // Opens no file: a trace that was off at construction stays closed.
  config().DRAM_TRACING = enable != 0;
  std::cout << sc_time_stamp() << ": SYSTEMC CONFIG CHANGE: setting DRAM tracing=" << (enable != 0 ? 1 : 0)
            << std::endl;
}

void Cube2in1Wrapper::setCorrections(const Sornak::Internal::ZEL2::Corrections& corrections) {
  cube->setCorrections(corrections);
}

void Cube2in1Wrapper::setRefreshEn(unsigned enable) {
  config().REFRESH_ENABLED = enable != 0;
  std::cout << sc_time_stamp() << ": SYSTEMC CONFIG CHANGE: setting refresh enable=" << enable << std::endl;
}

std::deque<Flit_P>& Cube2in1Wrapper::getPendingResponseQueue(unsigned link) {
  return drivers[link]->pendingResponses;
}

sc_core::sc_event& Cube2in1Wrapper::getResponseWaitingEvent(unsigned link) {
  return drivers[link]->responseWaiting;
}

void Cube2in1Wrapper::tokenAdjustment(unsigned link, int delta) {
  cube->quads[link]->link->adjustTokenCount(delta);
}

void Cube2in1Wrapper::DumpStats() { cube->DumpStats(); }
