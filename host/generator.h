// SPDX-License-Identifier: Apache-2.0
// Request generation of the host library: the request record, the
// generator's random source, the traffic settings drawn from the carried
// keys, the host-side link mapping, and trace replay. Nothing here needs the
// simulation kernel.
#ifndef ZELSIM_HOST_GENERATOR_H
#define ZELSIM_HOST_GENERATOR_H

#include <cstdint>
#include <string>
#include <vector>

#include "zel2/Config.h"
#include "zel2/zel2_flit.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Bench {

// One request as a generator makes it and the host sends it.
struct Request {
  ZELCommand command = RD;
  uint64_t address = 0;
  unsigned length = 0;     // payload in bytes; 16 for atomics
  unsigned link = 0;       // link chosen by the host mapping
  unsigned generator = 0;  // the generator that made it
  uint64_t serial = 0;     // its number within that generator, from 0
  uint64_t cycle = 0;      // core cycle at which it entered the host queue
};

bool IsPosted(ZELCommand command);  // P_WR and the posted atomics
bool IsAtomic(ZELCommand command);  // the six atomic commands
bool IsRequestCommand(ZELCommand command);
// Name of a command as traces write it ("RD", "P_WR", ...); nullptr for none.
const char* CommandName(ZELCommand command);
// Flits of a request packet: one for a read, length / flitSize + 1 for a
// write, two for an atomic.
unsigned RequestFlitCount(ZELCommand command, unsigned length, unsigned flitSize);
// Flits of the response to a request: length / flitSize + 1 for a read, one
// WR_RSP for a write or atomic, none for a posted request.
unsigned ResponseFlitCount(ZELCommand command, unsigned length, unsigned flitSize);

// A small, portable random source (splitmix64), so that a seed gives the same
// requests with every compiler and library.
class Rng {
 public:
  explicit Rng(uint64_t seed) : state_(seed) {}
  uint64_t Next();
  // Uniform in [0, bound); 0 when bound is 0.
  uint64_t Below(uint64_t bound);

 private:
  uint64_t state_;
};

// Seed of generator `generator` for a run seed: distinct streams per generator.
uint64_t GeneratorSeed(uint64_t runSeed, unsigned generator);

// Request stream selectors (REQUEST_STREAM).
enum RequestStream : unsigned {
  STREAM_RANDOM = 0,      // uniform random addresses over the cube
  STREAM_SEQUENTIAL = 1,  // each generator walks its own slice of the cube upward
  STREAM_STRIDED = 2,     // each generator hits one vault, block after block of it
};

// Host mapping selectors (HOST_MAPPING).
enum HostMapping : unsigned {
  MAP_GENERATOR = 0,    // generator g sends on link g mod links
  MAP_ROUND_ROBIN = 1,  // each generator turns over all links, request by request
  MAP_VAULT_QUAD = 2,   // the link of the quad that holds the target vault
};

// What the generators read from the configuration, in one place.
struct TrafficSettings {
  unsigned percentRead = 50;
  unsigned readWeights[8] = {0, 0, 0, 100, 0, 0, 0, 0};  // 16, 32, ... 128 bytes
  unsigned writeWeights[8] = {0, 0, 0, 100, 0, 0, 0, 0};
  bool aligned32 = true;
  bool postedWrites = false;
  bool atomics = false;
  unsigned atomicsPercent = 0;
  unsigned stream = STREAM_RANDOM;
  unsigned mapping = MAP_VAULT_QUAD;
  unsigned links = 4;
  unsigned generators = 4;
  uint64_t capacity = 0;     // bytes of the cube's address space
  unsigned blockSize = 128;  // MAX_BLOCK_SIZE
  unsigned numVaults = 16;
  unsigned vaultsPerQuad = 4;
  uint64_t spacing = 0;  // REQUEST_SPACING, in cycles

  static TrafficSettings FromConfig(const Config& cfg, unsigned links);
  unsigned Alignment() const { return aligned32 ? 32 : 16; }
};

// Bytes of the address space that the vault controllers map: vaults x
// partitions x banks x rows x columns x BYTE_OFFSET.
uint64_t AddressSpace(const Config& cfg);
// The cube-wide vault of an address, as the link computes it.
unsigned VaultOf(uint64_t address, unsigned blockSize, unsigned numVaults);

// One line of a trace file.
struct TraceEntry {
  uint64_t cycle = 0;
  ZELCommand command = RD;
  uint64_t address = 0;
  unsigned length = 0;
  unsigned line = 0;  // line number in the file, for messages
};

// Reads a trace file (format in docs/usage.md). On failure returns false
// with a one-line message naming the file.
bool ReadTrace(const std::string& path, std::vector<TraceEntry>& entries, std::string& error);
// Parses one line; blank and comment lines give false with an empty error.
bool ParseTraceLine(const std::string& line, TraceEntry& entry, std::string& error);

// One request generator: NUM_REQUESTS requests from the random mix, or the
// entries of a trace, each mapped to a link.
class RequestGenerator {
 public:
  RequestGenerator(unsigned id, const TrafficSettings& settings, uint64_t runSeed, uint64_t numRequests);
  // Replays `trace`, at most `numRequests` of its entries.
  RequestGenerator(unsigned id, const TrafficSettings& settings, std::vector<TraceEntry> trace,
                   uint64_t numRequests);

  unsigned Id() const { return id_; }
  bool Done() const { return issued_ >= limit_; }
  uint64_t Issued() const { return issued_; }
  bool Replaying() const { return replay_; }
  // Earliest cycle of the next request: its trace cycle, 0 for the random mix.
  uint64_t NextCycle() const;
  // The trace line of the next request (0 for the random mix).
  unsigned NextTraceLine() const;
  // Makes the next request; `cycle` is the cycle it enters the host queue.
  Request Next(uint64_t cycle);

 private:
  ZELCommand PickCommand(unsigned& length);
  uint64_t PickAddress(unsigned length);
  unsigned PickLink(uint64_t address);
  unsigned PickSize(const unsigned (&weights)[8]);

  unsigned id_;
  TrafficSettings settings_;
  Rng rng_;
  bool replay_ = false;
  std::vector<TraceEntry> trace_;
  uint64_t limit_ = 0;
  uint64_t issued_ = 0;
  uint64_t streamOffset_ = 0;  // bytes advanced by the sequential and strided streams
  unsigned nextLink_ = 0;      // round-robin position
};

}  // namespace Bench
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak

#endif  // ZELSIM_HOST_GENERATOR_H
