// SPDX-License-Identifier: Apache-2.0
// The rest state of a cube and its host. Once traffic has stopped and the
// cube has drained, every queue of every block is empty, every credit counter
// stands at its start value, every token is back with its owner and no
// request or response flit is alive. CheckRestState lists each departure from
// that picture. CreditFlush is the traffic that first brings home the
// response credits that the vault switches keep back (they return at most
// FLITS_OUT_PER_CYCLE_VC credits per vault and pulse and only pulse when a
// flit moves), and RestPhaseSource moves the host from its generators to that
// flush.
#ifndef ZELSIM_REST_STATE_H
#define ZELSIM_REST_STATE_H

#include <cstdint>
#include <string>
#include <vector>

#include "host/legal_host.h"
#include "zel2/2in1Wrapper.h"
#include "zel2/Config.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Bench {

// What the check compares the cube with.
struct RestExpectations {
  // Flit::liveRequestsAndResponses before the cube and the host made any flit.
  int64_t liveFlitsAtStart = 0;
  // True once a CreditFlush has run: the vault switches then owe their vault
  // controllers nothing. False lets returnCredits of a vault hold credits that
  // are parked, as long as they and the controller's make up the buffer.
  bool vaultCreditsReturned = true;
};

// One human-readable line per violated rest-state rule; empty when the cube
// and the host are at rest. Only reads: the model is left as it was. Work of
// the periodic refresh (tag all ones) is not traffic and is passed over.
std::vector<std::string> CheckRestState(const Cube2in1Wrapper& wrapper, const LegalHost& host,
                                        const RestExpectations& expect);

// What a --check-rest run found, for callers of RunZelsim.
struct RestReport {
  bool checked = false;
  std::vector<std::string> violations;
};

// 16-byte writes to every vault, through the link of the vault's quad, one at
// a time per vault: each write's single response flit then leaves its
// response buffer alone, and the vault switch's pulse for it returns that
// credit and one parked credit more. As no vault can have more parked credits
// than VSW_RESPONSE_BUFFER_SIZE, that many writes per vault return them all.
class CreditFlush : public RequestSource {
 public:
  explicit CreditFlush(const Config& cfg);

  void Refill(LegalHost& host, uint64_t cycle) override;
  bool Exhausted() const override;

  unsigned WritesPerVault() const;
  // The address of the k-th flush write to `vault`.
  uint64_t Address(unsigned vault, unsigned k) const;

 private:
  struct VaultFlush {
    unsigned queue = 0;  // the host queue of this vault's writes
    unsigned sent = 0;   // writes put into it
  };
  // A write of this vault is queued, being sent or waiting for its response.
  bool InFlight(const LegalHost& host, unsigned vault) const;

  const Config& cfg_;
  std::vector<VaultFlush> vaults_;
  bool built_ = false;
};

// The host's request source in a --check-rest run: the traffic source until
// its time is up, then nothing while the cube drains, then the flush.
class RestPhaseSource : public RequestSource {
 public:
  enum class Phase { Traffic, Quiet, Flush };

  RestPhaseSource(RequestSource& traffic, RequestSource& flush) : traffic_(traffic), flush_(flush) {}

  void Refill(LegalHost& host, uint64_t cycle) override;
  bool Exhausted() const override;

  Phase phase = Phase::Traffic;

 private:
  RequestSource& traffic_;
  RequestSource& flush_;
};

}  // namespace Bench
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak

#endif  // ZELSIM_REST_STATE_H
