// SPDX-License-Identifier: Apache-2.0
#include "host/tlm_target.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <string>

#include "host/generator.h"
#include "zel2/zel2_atomics_extension.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Host {

using sc_core::sc_time;
using sc_core::SC_ZERO_TIME;
using tlm::tlm_generic_payload;
using tlm::tlm_phase;
using tlm::tlm_response_status;

namespace {

const char* const kMessageType = "zelsim/tlm_target";
constexpr uint64_t kUnit = 16;  // bytes of a flit's payload: the cube's unit of data

}  // namespace

CubeTarget::CubeTarget(sc_core::sc_module_name name, Cube2in1Wrapper& cube, const TargetOptions& options)
    : sc_module(name), socket("socket"), options_(options), arrivals_(this, &CubeTarget::Arrive) {
  if (options_.backingStore) store_.reset(new BackingStore);
  HostSetup setup = options_.host;
  setup.stopWhenDrained = false;
  setup.pauseWhenDrained = false;
  host_ = new LegalHost("engine", cube, *this, setup);
  host_->observers.push_back(this);
  sending_.resize(host_->links.size());

  socket.register_b_transport(this, &CubeTarget::b_transport);
  socket.register_nb_transport_fw(this, &CubeTarget::nb_transport_fw);
  socket.register_transport_dbg(this, &CubeTarget::transport_dbg);
  socket.register_get_direct_mem_ptr(this, &CubeTarget::get_direct_mem_ptr);

  SC_METHOD(Dispatch);
  sensitive << dispatch_;
  dont_initialize();
}

CubeTarget::~CubeTarget() { delete host_; }

void CubeTarget::end_of_elaboration() {
  ports_.resize(socket.size());
  const unsigned capacity = options_.queueCapacity != 0 ? options_.queueCapacity : cfg().REQUEST_BUFFER_SIZE;
  const unsigned links = static_cast<unsigned>(host_->links.size());
  for (unsigned i = 0; i < ports_.size(); ++i) {
    ports_[i].queue = host_->AddQueue(capacity);
    ports_[i].nextLink = links == 0 ? 0 : i % links;
  }
}

uint64_t CubeTarget::Capacity() const { return Bench::AddressSpace(cfg()); }

// ---- From payload to packets ------------------------------------------------

tlm_response_status CubeTarget::Examine(const tlm_generic_payload& payload, Plan& plan) const {
  const uint64_t address = payload.get_address();
  const uint64_t length = payload.get_data_length();
  const bool enables = payload.get_byte_enable_ptr() != nullptr && payload.get_byte_enable_length() > 0;
  // A streaming width of 0 is taken as none: many initiators leave it so.
  const uint64_t streaming = payload.get_streaming_width();
  const bool streamed = streaming != 0 && streaming < length;
  const bool posted = payload.get_extension<PostedWriteExtension>() != nullptr;
  const auto* atomic = payload.get_extension<zel2_atomics_extension>();
  const uint64_t capacity = Capacity();
  const bool outside = address >= capacity || length > capacity - address;

  if (atomic != nullptr) {
    // An atomic is a write of its 16-byte operand; its command says
    // whether it is posted.
    if (!payload.is_write() || !Bench::IsAtomic(atomic->command) || posted) return tlm::TLM_COMMAND_ERROR_RESPONSE;
    if (outside || address % kUnit != 0) return tlm::TLM_ADDRESS_ERROR_RESPONSE;
    if (length != kUnit || streamed) return tlm::TLM_BURST_ERROR_RESPONSE;
    if (enables) return tlm::TLM_BYTE_ENABLE_ERROR_RESPONSE;
    plan.command = atomic->command;
    plan.first = address;
    plan.bytes = kUnit;
    plan.posted = Bench::IsPosted(atomic->command);
    return tlm::TLM_OK_RESPONSE;
  }
  if (payload.is_read() && posted) return tlm::TLM_COMMAND_ERROR_RESPONSE;
  if (outside) return tlm::TLM_ADDRESS_ERROR_RESPONSE;
  if (length == 0 || streamed) return tlm::TLM_BURST_ERROR_RESPONSE;
  if (options_.partial == PartialAccess::Refuse) {
    if (address % kUnit != 0) return tlm::TLM_ADDRESS_ERROR_RESPONSE;
    if (length % kUnit != 0) return tlm::TLM_BURST_ERROR_RESPONSE;
    if (enables) return tlm::TLM_BYTE_ENABLE_ERROR_RESPONSE;
  }
  plan.first = address / kUnit * kUnit;
  plan.bytes = (address + length + kUnit - 1) / kUnit * kUnit - plan.first;
  plan.posted = posted;
  plan.command = payload.is_read() ? RD : posted ? P_WR : WR;
  return tlm::TLM_OK_RESPONSE;
}

void CubeTarget::MoveData(tlm_generic_payload& payload, const Plan& plan) {
  unsigned char* data = payload.get_data_ptr();
  const uint64_t address = payload.get_address();
  const uint64_t length = payload.get_data_length();
  const unsigned char* enables = payload.get_byte_enable_ptr();
  const uint64_t enableLength = enables == nullptr ? 0 : payload.get_byte_enable_length();
  if (Bench::IsAtomic(plan.command)) {
    if (store_) store_->Atomic(plan.command, address, data);
  } else if (payload.is_write()) {
    if (store_) store_->Write(address, data, length, enables, enableLength);
  } else if (enableLength == 0) {
    if (store_) {
      store_->Read(address, data, length);
    } else {
      std::memset(data, 0, length);
    }
  } else {
    // Bytes whose enable is 0 are left as they are.
    std::vector<unsigned char> bytes(length, 0);
    if (store_) store_->Read(address, bytes.data(), length);
    for (uint64_t i = 0; i < length; ++i) {
      if (enables[i % enableLength] != 0) data[i] = bytes[i];
    }
  }
}

unsigned CubeTarget::LinkOf(Port& port, unsigned initiator, uint64_t address) {
  const unsigned links = std::max<unsigned>(1, static_cast<unsigned>(host_->links.size()));
  switch (options_.mapping) {
    case LinkMapping::ByInitiator:
      return initiator % links;
    case LinkMapping::RoundRobin: {
      const unsigned link = port.nextLink;
      port.nextLink = (link + 1) % links;
      return link;
    }
    case LinkMapping::ByVaultQuad:
      break;
  }
  const unsigned vault = Bench::VaultOf(address, cfg().MAX_BLOCK_SIZE, cfg().NUM_VAULTS);
  return vault / std::max(1u, cfg().VAULTS_PER_QUAD) % links;
}

uint64_t CubeTarget::Accept(tlm_generic_payload& payload, unsigned initiator, const Plan& plan, bool blocking,
                            sc_core::sc_event* done) {
  // Data moves as the transaction is taken in: the store sees transactions
  // in the order they arrive, whatever order the cube answers them in.
  MoveData(payload, plan);
  const uint64_t id = nextId_++;
  Transaction& transaction = transactions_[id];
  transaction.payload = &payload;
  transaction.initiator = initiator;
  transaction.blocking = blocking;
  transaction.posted = plan.posted;
  transaction.done = done;

  // Packets of up to 128 bytes, or of the largest request the vaults take.
  const uint64_t largest = std::max<uint64_t>(kUnit, std::min<uint64_t>(128, cfg().MAX_REQUEST_SIZE) / kUnit * kUnit);
  Port& port = ports_[initiator];
  unsigned packets = 0;
  for (uint64_t offset = 0; offset < plan.bytes; offset += largest) {
    Request request;
    request.command = plan.command;
    request.address = plan.first + offset;
    request.length = static_cast<unsigned>(std::min(largest, plan.bytes - offset));
    request.link = LinkOf(port, initiator, request.address);
    request.generator = initiator;
    request.serial = id;
    port.waiting.push_back(request);
    ++packets;
  }
  transaction.packetsUnsent = packets;
  transaction.responsesDue = plan.posted ? 0 : packets;
  ++counts_.transactions;
  ++counts_.inFlight;
  counts_.packets += packets;
  return id;
}

// ---- The engine's side -----------------------------------------------------------

void CubeTarget::Refill(LegalHost& host, uint64_t cycle) {
  for (Port& port : ports_) {
    while (!port.waiting.empty() && host.QueueSpace(port.queue) > 0) {
      Request& request = port.waiting.front();
      request.cycle = cycle;
      host.Enqueue(port.queue, request);
      port.waiting.pop_front();
    }
  }
}

void CubeTarget::RequestIssued(unsigned link, const Request& request) { sending_[link].push_back(request.serial); }

void CubeTarget::FlitSent(unsigned link, const Flit& flit) {
  // The flits of a link's packets go out in the order the packets started.
  if (flit.command == TOKEN_RETURN || !flit.tail) return;
  const uint64_t id = sending_[link].front();
  sending_[link].pop_front();
  Transaction& transaction = transactions_.at(id);
  if (--transaction.packetsUnsent == 0) AllSent(id);
}

void CubeTarget::RequestAnswered(unsigned, const Request& request, bool matched, const sc_time&) {
  Transaction& transaction = transactions_.at(request.serial);
  if (!matched) transaction.status = tlm::TLM_GENERIC_ERROR_RESPONSE;
  if (--transaction.responsesDue == 0) Answered(request.serial);
}

void CubeTarget::AllSent(uint64_t id) {
  Transaction& transaction = transactions_.at(id);
  if (transaction.blocking) {
    if (transaction.posted) transaction.done->notify(SC_ZERO_TIME);
    return;
  }
  ports_[transaction.initiator].endRequests.push_back(id);
  dispatch_.notify(SC_ZERO_TIME);
}

void CubeTarget::Answered(uint64_t id) {
  Transaction& transaction = transactions_.at(id);
  if (transaction.blocking) {
    transaction.done->notify(SC_ZERO_TIME);
    return;
  }
  ports_[transaction.initiator].responses.push_back(id);
  dispatch_.notify(SC_ZERO_TIME);
}

void CubeTarget::Finish(uint64_t id) {
  const auto found = transactions_.find(id);
  if (found->second.status == tlm::TLM_OK_RESPONSE) {
    ++counts_.completed;
  } else {
    ++counts_.failed;
  }
  --counts_.inFlight;
  transactions_.erase(found);
}

// An ignored command is answered OK, and a payload the cube can't take is
// refused with its error, both at once: neither reaches the cube.
bool CubeTarget::AnsweredAtOnce(tlm_generic_payload& payload, Plan& plan) {
  if (payload.get_command() == tlm::TLM_IGNORE_COMMAND) {
    payload.set_response_status(tlm::TLM_OK_RESPONSE);
    return true;
  }
  const tlm_response_status status = Examine(payload, plan);
  if (status == tlm::TLM_OK_RESPONSE) return false;
  payload.set_response_status(status);
  ++counts_.transactions;
  ++counts_.refused;
  return true;
}

// ---- Blocking ---------------------------------------------------------------------

void CubeTarget::b_transport(int initiator, tlm_generic_payload& payload, sc_time& delay) {
  Plan plan;
  if (AnsweredAtOnce(payload, plan)) return;
  // The annotated time is spent first, so that the request reaches the
  // cube when the initiator meant it to; the delay given back is then zero,
  // and the call takes exactly the time it waited.
  if (delay != SC_ZERO_TIME) {
    wait(delay);
    delay = SC_ZERO_TIME;
  }
  sc_core::sc_event done;
  const uint64_t id = Accept(payload, static_cast<unsigned>(initiator), plan, true, &done);
  wait(done);
  payload.set_response_status(transactions_.at(id).status);
  Finish(id);
}

// ---- Non-blocking -----------------------------------------------------------------

tlm::tlm_sync_enum CubeTarget::nb_transport_fw(int initiator, tlm_generic_payload& payload, tlm_phase& phase,
                                               sc_time& delay) {
  Port& port = ports_[static_cast<unsigned>(initiator)];
  if (phase == tlm::BEGIN_REQ) {
    if (port.inRequest != nullptr) {
      SC_REPORT_ERROR(kMessageType, ("BEGIN_REQ on initiator " + std::to_string(initiator) +
                                     " before the END_REQ of its previous request")
                                        .c_str());
    }
    Plan plan;
    if (AnsweredAtOnce(payload, plan)) return tlm::TLM_COMPLETED;
    port.inRequest = &payload;
    port.requestArrived = false;
    port.arriving = plan;
    arrivals_.notify(payload, phase, delay);
    return tlm::TLM_ACCEPTED;
  }
  if (phase == tlm::END_RESP) {
    if (!port.responding || transactions_.at(port.inResponse).payload != &payload) {
      SC_REPORT_ERROR(kMessageType, ("END_RESP on initiator " + std::to_string(initiator) +
                                     " for a transaction not in its response phase")
                                        .c_str());
      return tlm::TLM_COMPLETED;
    }
    EndResponse(static_cast<unsigned>(initiator), delay);
    return tlm::TLM_COMPLETED;
  }
  SC_REPORT_ERROR(kMessageType, ("phase " + std::string(phase.get_name()) + " from initiator " +
                                 std::to_string(initiator) + ", which only sends BEGIN_REQ and END_RESP")
                                    .c_str());
  return tlm::TLM_COMPLETED;
}

void CubeTarget::Arrive(tlm_generic_payload& payload, const tlm_phase&) {
  // At most one request per initiator is in its request phase.
  for (unsigned i = 0; i < ports_.size(); ++i) {
    Port& port = ports_[i];
    if (port.inRequest != &payload || port.requestArrived) continue;
    port.requestArrived = true;
    Accept(payload, i, port.arriving, false, nullptr);
    return;
  }
}

void CubeTarget::Dispatch() {
  const sc_time now = sc_core::sc_time_stamp();
  for (unsigned i = 0; i < ports_.size(); ++i) {
    Port& port = ports_[i];
    while (!port.endRequests.empty()) {
      const uint64_t id = port.endRequests.front();
      port.endRequests.pop_front();
      Transaction& transaction = transactions_.at(id);
      // Cleared before the call: the initiator may send its next request
      // from inside it.
      port.inRequest = nullptr;
      port.requestArrived = false;
      tlm_phase phase = tlm::END_REQ;
      sc_time delay = SC_ZERO_TIME;
      socket[i]->nb_transport_bw(*transaction.payload, phase, delay);
      if (transaction.posted) port.responses.push_back(id);
    }
    if (port.responding || port.responses.empty()) continue;
    if (now < port.responseFreeAt) {
      dispatch_.notify(port.responseFreeAt - now);
      continue;
    }
    const uint64_t id = port.responses.front();
    port.responses.pop_front();
    Transaction& transaction = transactions_.at(id);
    transaction.payload->set_response_status(transaction.status);
    port.responding = true;
    port.inResponse = id;
    tlm_phase phase = tlm::BEGIN_RESP;
    sc_time delay = SC_ZERO_TIME;
    const tlm::tlm_sync_enum reply = socket[i]->nb_transport_bw(*transaction.payload, phase, delay);
    if (reply == tlm::TLM_COMPLETED || (reply == tlm::TLM_UPDATED && phase == tlm::END_RESP))
      EndResponse(i, delay);
  }
}

void CubeTarget::EndResponse(unsigned initiator, const sc_time& delay) {
  Port& port = ports_[initiator];
  port.responding = false;
  Finish(port.inResponse);
  // The next response may begin once the annotated end of this one is reached.
  port.responseFreeAt = sc_core::sc_time_stamp() + delay;
  if (!port.responses.empty()) dispatch_.notify(delay);
}

// ---- Debug and DMI -----------------------------------------------------------------

unsigned CubeTarget::transport_dbg(int, tlm_generic_payload& payload) {
  const uint64_t address = payload.get_address();
  const uint64_t capacity = Capacity();
  const uint64_t length =
      address >= capacity ? 0 : std::min<uint64_t>(payload.get_data_length(), capacity - address);
  unsigned moved = static_cast<unsigned>(length);
  if (payload.is_read()) {
    if (store_) {
      store_->Read(address, payload.get_data_ptr(), length);
    } else {
      std::memset(payload.get_data_ptr(), 0, length);
    }
  } else if (payload.is_write()) {
    if (store_) {
      store_->Write(address, payload.get_data_ptr(), length);
    } else {
      moved = 0;
    }
  } else {
    moved = 0;
  }
  payload.set_response_status(tlm::TLM_OK_RESPONSE);
  return moved;
}

bool CubeTarget::get_direct_mem_ptr(int, tlm_generic_payload&, tlm::tlm_dmi& dmi) {
  dmi.set_start_address(0);
  dmi.set_end_address(std::numeric_limits<sc_dt::uint64>::max());
  dmi.allow_read_write();
  return false;
}

}  // namespace Host
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak
