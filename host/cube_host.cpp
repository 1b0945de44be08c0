// SPDX-License-Identifier: Apache-2.0
#include "host/cube_host.h"

#include <string>

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Host {

CubeHost::CubeHost(sc_core::sc_module_name name, Cube2in1Wrapper& cube, const HostSetup& setup)
    : sc_module(name), completed_("completed") {
  engine_ = new LegalHost("engine", cube, *this, setup);
  engine_->observers.push_back(this);
  // One engine queue per link, so that a link waiting for tokens holds up
  // no other link's requests.
  const unsigned capacity = engine_->cfg.REQUEST_BUFFER_SIZE;
  waiting_.resize(engine_->links.size());
  for (std::size_t link = 0; link < waiting_.size(); ++link) queues_.push_back(engine_->AddQueue(capacity));
}

CubeHost::~CubeHost() { delete engine_; }

uint64_t CubeHost::Send(Request request) {
  if (request.link >= waiting_.size()) {
    SC_REPORT_ERROR("zelsim/host", ("request on link " + std::to_string(request.link) + " of a cube with " +
                                    std::to_string(waiting_.size()) + " links")
                                       .c_str());
    return kRefused;
  }
  request.serial = nextSerial_++;
  request.generator = queues_[request.link];
  waiting_[request.link].push_back(request);
  return request.serial;
}

uint64_t CubeHost::Read(unsigned link, uint64_t address, unsigned length) {
  Request request;
  request.command = RD;
  request.address = address;
  request.length = length;
  request.link = link;
  return Send(request);
}

uint64_t CubeHost::Write(unsigned link, uint64_t address, unsigned length, bool posted) {
  Request request;
  request.command = posted ? P_WR : WR;
  request.address = address;
  request.length = length;
  request.link = link;
  return Send(request);
}

void CubeHost::Refill(LegalHost& host, uint64_t cycle) {
  for (std::size_t link = 0; link < waiting_.size(); ++link) {
    std::deque<Request>& waiting = waiting_[link];
    while (!waiting.empty() && host.QueueSpace(queues_[link]) > 0) {
      waiting.front().cycle = cycle;
      host.Enqueue(queues_[link], waiting.front());
      waiting.pop_front();
    }
  }
}

bool CubeHost::Exhausted() const {
  if (!closed_) return false;
  for (const std::deque<Request>& waiting : waiting_)
    if (!waiting.empty()) return false;
  return true;
}

void CubeHost::RequestAnswered(unsigned, const Request& request, bool matched, const sc_core::sc_time& latency) {
  Completion completion;
  completion.request = request;
  completion.sentAt = sc_core::sc_time_stamp() - latency;
  completion.latency = latency;
  completion.matched = matched;
  if (onCompletion) {
    onCompletion(completion);
  } else {
    completions_.push_back(completion);
  }
  completed_.notify(sc_core::SC_ZERO_TIME);
}

std::vector<Completion> CubeHost::TakeCompletions() {
  std::vector<Completion> taken(completions_.begin(), completions_.end());
  completions_.clear();
  return taken;
}

uint64_t CubeHost::Pending() const {
  uint64_t pending = engine_->RequestsOutstanding();
  for (const std::deque<Request>& waiting : waiting_) pending += waiting.size();
  return pending;
}

HostResults CubeHost::Results() const {
  HostResults results;
  engine_->CollectResults(results);
  return results;
}

}  // namespace Host
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak
