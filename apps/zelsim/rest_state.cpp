// SPDX-License-Identifier: Apache-2.0
#include "apps/zelsim/rest_state.h"

#include <algorithm>
#include <sstream>

#include "zel2/zel2_cube.h"
#include "zel2/zel2_flit.h"
#include "zel2/zel2_link.h"
#include "zel2/zel2_link_switch.h"
#include "zel2/zel2_quad.h"
#include "zel2/zel2_slice.h"
#include "zel2/zel2_vault.h"
#include "zel2/zel2_vault_controller.h"
#include "zel2/zel2_vault_switch.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Bench {

namespace {

// "No packet" in the tag registers of the blocks, and the refresh tag.
constexpr uint32_t kAllOnes = 0xffffffffu;

std::string Describe(const Flit_P& handle) {
  std::ostringstream text;
  text << *handle.flit;
  return text.str();
}
std::string Describe(const Flit* flit) {
  std::ostringstream text;
  text << *flit;
  return text.str();
}
std::string Describe(const DRAMBusPacket& packet) {
  std::ostringstream text;
  text << packet;
  return text.str();
}

// Collects the violations, one line each, in the form "block: what".
class Findings {
 public:
  explicit Findings(std::vector<std::string>& lines) : lines_(lines) {}

  void Add(const std::string& block, const std::string& text) { lines_.push_back(block + ": " + text); }

  // A queue, buffer or delay line that must be empty; `first` shows its
  // oldest entry where that helps.
  void Empty(const std::string& block, const std::string& name, std::size_t size,
             const std::string& first = "") {
    if (size == 0) return;
    std::string text = name + " holds " + std::to_string(size) + (size == 1 ? " entry" : " entries");
    if (!first.empty()) text += ", first " + first;
    Add(block, text);
  }
  void Empty(const std::string& block, const std::string& name, const std::vector<Flit_P>& flits) {
    Empty(block, name, flits.size(), flits.empty() ? "" : Describe(flits.front()));
  }

  // A counter that must stand at `expected`; `meaning` says where that value comes from.
  template <class T, class U>
  void Equal(const std::string& block, const std::string& name, T actual, U expected,
             const std::string& meaning = "") {
    if (static_cast<int64_t>(actual) == static_cast<int64_t>(expected)) return;
    std::string text = name + " is " + std::to_string(static_cast<int64_t>(actual)) + ", expected " +
                       std::to_string(static_cast<int64_t>(expected));
    if (!meaning.empty()) text += " (" + meaning + ")";
    Add(block, text);
  }

 private:
  std::vector<std::string>& lines_;
};

std::string Indexed(const char* name, std::size_t i) {
  return std::string(name) + "[" + std::to_string(i) + "]";
}
std::string Indexed(const char* name, std::size_t i, std::size_t j) {
  return Indexed(name, i) + "[" + std::to_string(j) + "]";
}

// ---- Host ---------------------------------------------------------------------

void CheckHost(const LegalHost& host, Findings& findings) {
  const Config& cfg = host.cfg;
  // Every request the host made has gone into the cube.
  for (std::size_t q = 0; q < host.queues.size(); ++q)
    findings.Empty("host queue " + std::to_string(q), "the request queue", host.queues[q].requests.size());
  for (const LegalHost::HostLink& link : host.links) {
    const std::string block = "host link " + std::to_string(link.number);
    // Every packet went out whole, and every non-posted request has its whole response.
    findings.Empty(block, "the packet being sent", link.sending.size(),
                   link.sending.empty() ? "" : Describe(link.sending.front()));
    findings.Empty(block, "the response packet being received", link.arriving.size(),
                   link.arriving.empty() ? "" : Describe(link.arriving.front()));
    if (!link.outstanding.empty()) {
      const auto& oldest = *link.outstanding.begin();
      std::ostringstream text;
      text << link.outstanding.size() << " non-posted requests have no response, tag " << oldest.first << " "
           << CommandName(oldest.second.request.command) << " 0x" << std::hex << oldest.second.request.address
           << std::dec << " among them";
      findings.Add(block, text.str());
    }
    // The cube has handed back every request token: it holds no request flit.
    findings.Equal(block, "request tokens held", link.requestTokens, cfg.TOKENS_PER_LINK, "TOKENS_PER_LINK");
  }
}

// ---- Link -------------------------------------------------------------------------

void CheckLink(const zel2_link& link, const LegalHost::HostLink* hostLink, bool openLoop,
               Findings& findings) {
  const std::string block = "link" + std::to_string(link.linkNumber);
  // Request half: no flit in the rate matching, the input delay, the input
  // buffer or on its way to the link switch.
  findings.Empty(block, "ringBuffer", link.ringBuffer);
  findings.Empty(block, "the input delay", link.delayedBlocks.size());
  findings.Empty(block, "incomingFlits", link.incomingFlits);
  findings.Empty(block, "inputBuffer", link.inputBuffer);
  findings.Empty(block, "flitsForLSW", link.flitsForLSW);
  // No packet half-way to the link switch, and the switch doesn't hold the link back.
  if (link.midPacket) findings.Add(block, "a request packet to the link switch is under way");
  if (link.busy) findings.Add(block, "the link switch holds the link busy");
  // Response half: no flit for the host, no packet arriving, no credit or
  // token count in its delay.
  findings.Empty(block, "outputBuffer", link.outputBuffer);
  findings.Equal(block, "completePackets", link.completePackets, 0);
  if (link.responseTag != kAllOnes)
    findings.Add(block, "a response packet with tag " + std::to_string(link.responseTag) + " is arriving");
  findings.Empty(block, "the output delay", link.responseLinkFlits.items);
  findings.Empty(block, "credits to the vault switch", link.returnCredits.size());
  findings.Empty(block, "token counts from the link switch", link.tokenDelayQueue.size());
  // Every request token the link owed went to the host.
  findings.Equal(block, "returnTokenCount", link.returnTokenCount, 0);
  // The response tokens the link holds are the host's grants less one per
  // response flit sent (in open loop tokens play no part and only grants count).
  if (hostLink != nullptr) {
    const uint64_t granted = hostLink->stats.responseTokensReturned;
    const uint64_t used = openLoop ? 0 : hostLink->stats.responseFlits;
    findings.Equal(
        block, "tokenCount", link.tokenCount, static_cast<int64_t>(granted - used),
        std::to_string(granted) + " granted by the host less " + std::to_string(used) + " response flits");
  }
}

// ---- Link switch ------------------------------------------------------------------

void CheckLinkSwitch(const zel2_link_switch& lsw, const Config& cfg, Findings& findings) {
  const std::string block = "lsw" + std::to_string(lsw.id);
  const unsigned V = cfg.VAULTS_PER_QUAD;
  // No flit in a source buffer, no line open, no packet owning a destination.
  for (std::size_t s = 0; s < lsw.sourceBuffers.size(); ++s) {
    std::size_t flits = 0;
    for (const auto& line : lsw.sourceBuffers[s]) flits += line.size();
    std::string first;
    for (const auto& line : lsw.sourceBuffers[s])
      if (first.empty() && !line.empty()) first = Describe(line.front());
    findings.Empty(block, Indexed("sourceBuffers", s) + " (" + std::to_string(flits) + " flits)",
                   lsw.sourceBuffers[s].size(), first);
    findings.Empty(block, Indexed("lineTimes", s), lsw.lineTimes[s].size());
    findings.Equal(block, Indexed("completePackets", s), lsw.completePackets[s], 0);
    for (std::size_t d = 0; d < lsw.firstLine[s].size(); ++d)
      findings.Equal(block, Indexed("firstLine", s, d), lsw.firstLine[s][d], -1, "no line");
  }
  for (std::size_t d = 0; d < lsw.destinationOwner.size(); ++d)
    findings.Equal(block, Indexed("destinationOwner", d), lsw.destinationOwner[d], -1, "no packet");
  if (lsw.linkPacketTag != kAllOnes)
    findings.Add(block,
                 "a packet from the link with tag " + std::to_string(lsw.linkPacketTag) + " is arriving");
  for (std::size_t r = 0; r < lsw.interquadPacketTags.size(); ++r)
    if (lsw.interquadPacketTags[r] != kAllOnes)
      findings.Add(block, "a packet from peer " + std::to_string(r) + " with tag " +
                              std::to_string(lsw.interquadPacketTags[r]) + " is arriving");
  // Nothing in the delay lines of tails, busy values and credits.
  findings.Empty(block, "tails in their input delay", lsw.tailIncreaseQueue.size());
  findings.Empty(block, "busy values in their delay", lsw.busyQueue.size());
  findings.Empty(block, "peer credits in their return delay", lsw.creditIncreaseQueue.size());
  findings.Empty(block, "early credits on their way out", lsw.earlyCreditQueue.size());
  // Every credit counter at its start: command credits of a vault, credits
  // for another quad's buffer, write credits, and nothing owed.
  for (std::size_t d = 0; d < lsw.destinationCredits.size(); ++d) {
    if (d < V)
      findings.Equal(block, Indexed("destinationCredits", d), lsw.destinationCredits[d],
                     cfg.TRANSACTION_Q_CAPACITY, "TRANSACTION_Q_CAPACITY");
    else
      findings.Equal(block, Indexed("destinationCredits", d), lsw.destinationCredits[d],
                     cfg.LSW_INTERQUAD_BUFFER_SIZE, "LSW_INTERQUAD_BUFFER_SIZE");
  }
  for (std::size_t v = 0; v < lsw.writeCredits.size(); ++v)
    findings.Equal(block, Indexed("writeCredits", v), lsw.writeCredits[v], cfg.DATA_Q_CAPACITY,
                   "DATA_Q_CAPACITY");
  for (std::size_t s = 0; s < lsw.returnCredits.size(); ++s)
    findings.Equal(block, Indexed("returnCredits", s), lsw.returnCredits[s], 0);
}

// ---- Vault switch -----------------------------------------------------------------

void CheckVaultSwitch(const zel2_vault_switch& vsw, const Config& cfg, bool vaultCreditsReturned,
                      Findings& findings) {
  const std::string block = "vsw" + std::to_string(vsw.id);
  const unsigned V = cfg.VAULTS_PER_QUAD;
  // No flit in a latch or buffer, and no count of flits or tails left over.
  for (std::size_t v = 0; v < vsw.responseBuffers.size(); ++v) {
    findings.Empty(block, Indexed("responseLatches", v), vsw.responseLatches[v]);
    findings.Empty(block, Indexed("responseLatchTimes", v), vsw.responseLatchTimes[v].size());
    findings.Empty(block, Indexed("responseBuffers", v), vsw.responseBuffers[v]);
    findings.Equal(block, Indexed("responseTails", v), vsw.responseTails[v], 0);
    for (std::size_t q = 0; q < vsw.responseFlitsFor[v].size(); ++q)
      findings.Equal(block, Indexed("responseFlitsFor", v, q), vsw.responseFlitsFor[v][q], 0);
  }
  for (std::size_t r = 0; r < vsw.interquadBuffers.size(); ++r) {
    findings.Empty(block, Indexed("interquadLatches", r), vsw.interquadLatches[r]);
    findings.Empty(block, Indexed("interquadLatchTimes", r), vsw.interquadLatchTimes[r].size());
    findings.Empty(block, Indexed("interquadBuffers", r), vsw.interquadBuffers[r]);
  }
  for (std::size_t i = 0; i < vsw.interquadTails.size(); ++i)
    findings.Equal(block, Indexed("interquadTails", i), vsw.interquadTails[i], 0);
  for (std::size_t q = 0; q < vsw.smoothingBuffers.size(); ++q) {
    findings.Empty(block, Indexed("smoothingBuffers", q), vsw.smoothingBuffers[q]);
    findings.Empty(block, Indexed("smoothingTimes", q), vsw.smoothingTimes[q].size());
    findings.Equal(block, Indexed("smoothingOwner", q), vsw.smoothingOwner[q], -1, "no packet");
  }
  if (vsw.lmPacketActive) findings.Add(block, "a packet to the link master is under way");
  // No credit from a peer in its delay.
  findings.Empty(block, "peer credits in their delay", vsw.creditDelayQueue.size());
  findings.Empty(block, "Z peer credits in their delay", vsw.zcreditDelayQueue.size());
  // Credits for the link master's buffer and for each peer's buffer at their start.
  for (std::size_t q = 0; q < vsw.destinationCredits.size(); ++q) {
    if (q == vsw.id)
      findings.Equal(block, Indexed("destinationCredits", q), vsw.destinationCredits[q],
                     cfg.LINK_MASTER_BUFFER_SIZE, "LINK_MASTER_BUFFER_SIZE");
    else
      findings.Equal(block, Indexed("destinationCredits", q), vsw.destinationCredits[q],
                     cfg.VSW_INTERQUAD_BUFFER_SIZE, "VSW_INTERQUAD_BUFFER_SIZE");
  }
  // Nothing owed to a peer; nothing owed to a vault controller either once
  // the flush has carried the parked credits home.
  for (std::size_t i = 0; i < vsw.returnCredits.size(); ++i) {
    if (i < V && !vaultCreditsReturned) continue;
    findings.Equal(block, Indexed("returnCredits", i), vsw.returnCredits[i], 0);
  }
}

// ---- Vault controller and vault --------------------------------------------------

bool IsRefresh(const DRAMBusPacket& packet) { return packet.tag == kAllOnes; }

template <class Container>
std::size_t CountTraffic(const Container& packets) {
  return static_cast<std::size_t>(
      std::count_if(packets.begin(), packets.end(), [](const DRAMBusPacket& p) { return !IsRefresh(p); }));
}

template <class Container>
std::string FirstTraffic(const Container& packets) {
  for (const DRAMBusPacket& p : packets)
    if (!IsRefresh(p)) return Describe(p);
  return "";
}

void CheckVaultController(const zel2_vault_controller& vc, const zel2_vault_switch& vsw, const Config& cfg,
                          Findings& findings) {
  const std::string block = "vaultController" + std::to_string(vc.id);
  const unsigned local = vc.id % cfg.VAULTS_PER_QUAD;
  // Intake: no request packet arriving, waiting or latched.
  if (vc.packetTagInProgress != kAllOnes)
    findings.Add(block, "a packet with tag " + std::to_string(vc.packetTagInProgress) + " is arriving");
  findings.Empty(block, "transactionQueue", vc.transactionQueue);
  const bool refreshLatched =
      vc.transactionQueueLatch != nullptr && (*vc.transactionQueueLatch)->tag == kAllOnes;
  if (vc.transactionQueueLatch != nullptr && !refreshLatched)
    findings.Add(block, "transactionQueueLatch holds " + Describe(*vc.transactionQueueLatch));
  // Issue: no DRAM command of a request left, and the only transactions
  // counted in the request queue are refreshes whose READ hasn't issued.
  findings.Empty(block, "requestQueue", CountTraffic(vc.requestQueue), FirstTraffic(vc.requestQueue));
  const auto refreshReads =
      std::count_if(vc.requestQueue.begin(), vc.requestQueue.end(),
                    [](const DRAMBusPacket& p) { return IsRefresh(p) && p.command == READ; });
  findings.Equal(block, "requestQueueTransactions", vc.requestQueueTransactions, refreshReads,
                 "refreshes still to read");
  findings.Empty(block, "writeBuffer", CountTraffic(vc.writeBuffer), FirstTraffic(vc.writeBuffer));
  // With no refresh under way every row is closed again.
  const bool refreshWork = refreshLatched || refreshReads != 0 || vc.refreshesPending != 0 ||
                           vc.requestQueue.size() != CountTraffic(vc.requestQueue);
  if (!refreshWork) findings.Equal(block, "openBanks", vc.openBanks, 0);
  // Responses: no read waiting for data, no write response waiting, no data
  // beat unsent, no atomic or write credit amount left.
  findings.Empty(block, "pendingReads", vc.pendingReads);
  findings.Empty(block, "pendingWriteResponses", vc.pendingWriteResponses);
  findings.Empty(block, "readyWriteResponses", vc.readyWriteResponses);
  findings.Empty(block, "writeResponseTimes", vc.writeResponseTimes.size());
  findings.Empty(block, "readData", CountTraffic(vc.readData), FirstTraffic(vc.readData));
  findings.Empty(block, "creditsByTag", vc.creditsByTag.size(),
                 vc.creditsByTag.empty() ? "" : "tag " + std::to_string(vc.creditsByTag.begin()->first));
  findings.Empty(block, "atomicTags", vc.atomicTags.size());
  // Every write credit went back to the link switch.
  std::string amounts;
  for (uint32_t amount : vc.writeCreditCounts)
    amounts += (amounts.empty() ? "" : " ") + std::to_string(amount);
  findings.Empty(block, "writeCreditCounts", vc.writeCreditCounts.size(),
                 amounts.empty() ? "" : "amounts " + amounts);
  findings.Empty(block, "writeCreditTimes", vc.writeCreditTimes.size());
  findings.Empty(block, "response credits in their delay", vc.creditDelayQueue.size());
  // The response buffer's places are all with the controller or owed to it
  // by the vault switch: nothing else may hold one.
  const int64_t together = int64_t{vc.responseCredits} + int64_t{vsw.returnCredits[local]};
  if (together != cfg.VSW_RESPONSE_BUFFER_SIZE) {
    findings.Add(block, "responseCredits " + std::to_string(vc.responseCredits) + " + vsw" +
                            std::to_string(vsw.id) + " returnCredits[" + std::to_string(local) + "] " +
                            std::to_string(vsw.returnCredits[local]) + " is " + std::to_string(together) +
                            ", expected " + std::to_string(cfg.VSW_RESPONSE_BUFFER_SIZE) +
                            " (VSW_RESPONSE_BUFFER_SIZE)");
  }
}

void CheckVault(const zel2_vault& vault, Findings& findings) {
  // Every read data beat went to the controller.
  findings.Empty("vault" + std::to_string(vault.id), "readDataQueue", CountTraffic(vault.readDataQueue.items),
                 FirstTraffic(vault.readDataQueue.items));
}

}  // namespace

std::vector<std::string> CheckRestState(const Cube2in1Wrapper& wrapper, const LegalHost& host,
                                        const RestExpectations& expect) {
  std::vector<std::string> lines;
  Findings findings(lines);
  const zel2_cube& cube = *wrapper.cube;
  const Config& cfg = cube.cfg;

  CheckHost(host, findings);
  // A refresh transaction is a read flit of the vault controller's own; one
  // that waits in the latch at the moment of the check is work, not a leak.
  int64_t latchedRefreshFlits = 0;
  for (unsigned q = 0; q < cfg.NUM_QUADS; ++q) {
    const zel2_quad& quad = *cube.quads[q];
    for (unsigned v = 0; v < cfg.VAULTS_PER_QUAD; ++v) {
      const zel2_vault_controller& vc = *quad.slices[v]->vaultController;
      if (vc.transactionQueueLatch != nullptr && (*vc.transactionQueueLatch)->tag == kAllOnes)
        ++latchedRefreshFlits;
    }
  }
  for (unsigned q = 0; q < cfg.NUM_QUADS; ++q) {
    const zel2_quad& quad = *cube.quads[q];
    const LegalHost::HostLink* hostLink = q < host.links.size() ? &host.links[q] : nullptr;
    CheckLink(*quad.link, hostLink, host.openLoop, findings);
    CheckLinkSwitch(*quad.lsw, cfg, findings);
    CheckVaultSwitch(*quad.vsw, cfg, expect.vaultCreditsReturned, findings);
    for (unsigned v = 0; v < cfg.VAULTS_PER_QUAD; ++v) {
      const zel2_slice& slice = *quad.slices[v];
      CheckVaultController(*slice.vaultController, *quad.vsw, cfg, findings);
      CheckVault(*slice.vault, findings);
    }
  }
  // Every request and response flit has been deleted where its road ends.
  findings.Equal("flits", "Flit::liveRequestsAndResponses", Flit::liveRequestsAndResponses - latchedRefreshFlits,
                 expect.liveFlitsAtStart, "its value before the run");
  return lines;
}

// ---- Credit flush ----------------------------------------------------------------

CreditFlush::CreditFlush(const Config& cfg) : cfg_(cfg) {}

unsigned CreditFlush::WritesPerVault() const { return std::max(1u, cfg_.VSW_RESPONSE_BUFFER_SIZE); }

uint64_t CreditFlush::Address(unsigned vault, unsigned k) const {
  // One block of the vault after another: the vault bits stay, the bank,
  // partition and row bits above them change.
  uint64_t block = 1;
  while (block < cfg_.MAX_BLOCK_SIZE) block <<= 1;
  const uint64_t stride = block * cfg_.NUM_VAULTS;
  const uint64_t space = AddressSpace(cfg_);
  const uint64_t steps = space / stride == 0 ? 1 : space / stride;
  return vault * block + (k % steps) * stride;
}

bool CreditFlush::InFlight(const LegalHost& host, unsigned vault) const {
  const VaultFlush& flush = vaults_[vault];
  if (!host.queues[flush.queue].requests.empty()) return true;
  for (const LegalHost::HostLink& link : host.links)
    for (const auto& entry : link.outstanding)
      if (entry.second.request.generator == flush.queue) return true;
  return false;
}

void CreditFlush::Refill(LegalHost& host, uint64_t cycle) {
  if (!built_) {
    vaults_.resize(cfg_.NUM_VAULTS);
    for (VaultFlush& flush : vaults_) flush.queue = host.AddQueue(1);
    built_ = true;
  }
  const unsigned links = static_cast<unsigned>(host.links.size());
  for (unsigned v = 0; v < vaults_.size(); ++v) {
    VaultFlush& flush = vaults_[v];
    if (flush.sent >= WritesPerVault() || InFlight(host, v)) continue;
    Request request;
    request.command = WR;
    request.address = Address(v, flush.sent);
    request.length = 16;
    request.link = cfg_.VAULTS_PER_QUAD == 0 ? 0 : v / cfg_.VAULTS_PER_QUAD % (links == 0 ? 1 : links);
    // The queue number marks the flush's requests among the host's outstanding ones.
    request.generator = flush.queue;
    request.serial = flush.sent;
    request.cycle = cycle;
    host.Enqueue(flush.queue, request);
    ++flush.sent;
  }
}

bool CreditFlush::Exhausted() const {
  if (!built_) return false;
  for (const VaultFlush& flush : vaults_)
    if (flush.sent < WritesPerVault()) return false;
  return true;
}

// ---- Phases ----------------------------------------------------------------------

void RestPhaseSource::Refill(LegalHost& host, uint64_t cycle) {
  switch (phase) {
    case Phase::Traffic:
      traffic_.Refill(host, cycle);
      break;
    case Phase::Quiet:
      break;
    case Phase::Flush:
      flush_.Refill(host, cycle);
      break;
  }
}

bool RestPhaseSource::Exhausted() const {
  switch (phase) {
    case Phase::Traffic:
      return traffic_.Exhausted();
    case Phase::Quiet:
      return true;
    case Phase::Flush:
      return flush_.Exhausted();
  }
  return true;
}

}  // namespace Bench
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak
