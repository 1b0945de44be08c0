// SPDX-License-Identifier: Apache-2.0
#include "host/generator.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <utility>

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Bench {

namespace {

const ZELCommand kAtomicKinds[6] = {BWR, P_BWR, DADD8, P_DADD8, ADD16, P_ADD16};

unsigned CeilLog2(uint64_t value) {
  unsigned bits = 0;
  while ((uint64_t{1} << bits) < value) ++bits;
  return bits;
}

uint64_t RoundUp(uint64_t value, uint64_t unit) { return (value + unit - 1) / unit * unit; }

// Whole text as an unsigned number: decimal, or hexadecimal after "0x".
bool ParseNumber(const std::string& text, uint64_t& value) {
  const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  const std::string digits = hex ? text.substr(2) : text;
  if (digits.empty() ||
      digits.find_first_not_of(hex ? "0123456789abcdefABCDEF" : "0123456789") != std::string::npos) {
    return false;
  }
  errno = 0;
  const unsigned long long parsed = std::strtoull(digits.c_str(), nullptr, hex ? 16 : 10);
  if (errno != 0) return false;
  value = parsed;
  return true;
}

}  // namespace

bool IsPosted(ZELCommand command) {
  return command == P_WR || command == P_BWR || command == P_DADD8 || command == P_ADD16;
}

bool IsAtomic(ZELCommand command) { return command >= BWR && command <= P_ADD16; }

bool IsRequestCommand(ZELCommand command) {
  return command == RD || command == WR || command == P_WR || IsAtomic(command);
}

const char* CommandName(ZELCommand command) {
  switch (command) {
    case RD:
      return "RD";
    case RD_RSP:
      return "RD_RSP";
    case P_WR:
      return "P_WR";
    case WR:
      return "WR";
    case WR_RSP:
      return "WR_RSP";
    case TOKEN_RETURN:
      return "TOKEN_RETURN";
    case BWR:
      return "BWR";
    case P_BWR:
      return "P_BWR";
    case DADD8:
      return "DADD8";
    case P_DADD8:
      return "P_DADD8";
    case ADD16:
      return "ADD16";
    case P_ADD16:
      return "P_ADD16";
    case NULL_COMMAND:
      return "NULL_COMMAND";
  }
  return nullptr;
}

unsigned RequestFlitCount(ZELCommand command, unsigned length, unsigned flitSize) {
  if (command == WR || command == P_WR) return length / flitSize + 1;
  if (IsAtomic(command)) return 2;
  return 1;
}

unsigned ResponseFlitCount(ZELCommand command, unsigned length, unsigned flitSize) {
  if (command == RD) return length / flitSize + 1;
  if (IsPosted(command)) return 0;
  return 1;
}

// ---- Random source -------------------------------------------------------

uint64_t Rng::Next() {
  uint64_t z = (state_ += 0x9e3779b97f4a7c15ULL);
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
  return z ^ (z >> 31);
}

uint64_t Rng::Below(uint64_t bound) { return bound == 0 ? 0 : Next() % bound; }

uint64_t GeneratorSeed(uint64_t runSeed, unsigned generator) {
  Rng mix(runSeed ^ (0xd1b54a32d192ed03ULL * (generator + 1)));
  return mix.Next();
}

// ---- Settings --------------------------------------------------------------

uint64_t AddressSpace(const Config& cfg) {
  return uint64_t{cfg.NUM_VAULTS} * cfg.NUM_PARTITIONS * cfg.NUM_BANKS * cfg.NUM_ROWS * cfg.NUM_COLS *
         cfg.BYTE_OFFSET;
}

unsigned VaultOf(uint64_t address, unsigned blockSize, unsigned numVaults) {
  const unsigned shift = blockSize < 2 ? 0 : CeilLog2(blockSize);
  return static_cast<unsigned>((address >> shift) & (numVaults - 1));
}

TrafficSettings TrafficSettings::FromConfig(const Config& cfg, unsigned links) {
  TrafficSettings s;
  s.percentRead = cfg.PERCENTAGE_READ;
  const unsigned rd[8] = {cfg.PERCENTAGE_RD_16B,  cfg.PERCENTAGE_RD_32B, cfg.PERCENTAGE_RD_48B,
                          cfg.PERCENTAGE_RD_64B,  cfg.PERCENTAGE_RD_80B, cfg.PERCENTAGE_RD_96B,
                          cfg.PERCENTAGE_RD_112B, cfg.PERCENTAGE_RD_128B};
  const unsigned wr[8] = {cfg.PERCENTAGE_WR_16B,  cfg.PERCENTAGE_WR_32B, cfg.PERCENTAGE_WR_48B,
                          cfg.PERCENTAGE_WR_64B,  cfg.PERCENTAGE_WR_80B, cfg.PERCENTAGE_WR_96B,
                          cfg.PERCENTAGE_WR_112B, cfg.PERCENTAGE_WR_128B};
  for (unsigned i = 0; i < 8; ++i) {
    s.readWeights[i] = rd[i];
    s.writeWeights[i] = wr[i];
  }
  s.aligned32 = cfg.ALIGNED_32B;
  s.postedWrites = cfg.POSTED_WRITES;
  s.atomics = cfg.USE_ATOMICS != 0;
  s.atomicsPercent = cfg.ATOMICS_PERCENTAGE;
  s.stream = cfg.REQUEST_STREAM;
  s.mapping = cfg.HOST_MAPPING;
  s.links = links;
  s.generators = cfg.NUM_GENERATORS;
  s.capacity = AddressSpace(cfg);
  s.blockSize = cfg.MAX_BLOCK_SIZE;
  s.numVaults = cfg.NUM_VAULTS;
  s.vaultsPerQuad = cfg.VAULTS_PER_QUAD;
  s.spacing = cfg.REQUEST_SPACING;
  return s;
}

// ---- Traces ------------------------------------------------------------------

bool ParseTraceLine(const std::string& rawLine, TraceEntry& entry, std::string& error) {
  error.clear();
  std::string line = rawLine.substr(0, rawLine.find_first_of(";#"));
  std::istringstream in(line);
  std::vector<std::string> fields;
  for (std::string word; in >> word;) fields.push_back(word);
  if (fields.empty()) return false;
  if (fields.size() < 3 || fields.size() > 4) {
    error = "expected 'CYCLE COMMAND ADDRESS [SIZE]'";
    return false;
  }
  uint64_t number = 0;
  if (!ParseNumber(fields[0], number)) {
    error = "bad cycle '" + fields[0] + "'";
    return false;
  }
  entry.cycle = number;
  bool known = false;
  for (unsigned c = 0; c <= NULL_COMMAND; ++c) {
    const ZELCommand command = static_cast<ZELCommand>(c);
    if (IsRequestCommand(command) && fields[1] == CommandName(command)) {
      entry.command = command;
      known = true;
    }
  }
  if (!known) {
    error = "unknown command '" + fields[1] + "'";
    return false;
  }
  if (!ParseNumber(fields[2], number)) {
    error = "bad address '" + fields[2] + "'";
    return false;
  }
  entry.address = number;
  if (IsAtomic(entry.command)) {
    entry.length = 16;
    if (fields.size() == 4 && (!ParseNumber(fields[3], number) || number != 16)) {
      error = "an atomic request has 16 bytes, not '" + fields[3] + "'";
      return false;
    }
    return true;
  }
  if (fields.size() != 4 || !ParseNumber(fields[3], number) || number < 16 || number > 128 ||
      number % 16 != 0) {
    error = std::string("a ") + fields[1] + " needs a size of 16, 32, ... 128 bytes";
    return false;
  }
  entry.length = static_cast<unsigned>(number);
  return true;
}

bool ReadTrace(const std::string& path, std::vector<TraceEntry>& entries, std::string& error) {
  std::ifstream file(path);
  if (!file.is_open()) {
    error = "can't read trace file '" + path + "'";
    return false;
  }
  entries.clear();
  std::string line;
  unsigned lineNumber = 0;
  while (std::getline(file, line)) {
    ++lineNumber;
    TraceEntry entry;
    std::string what;
    if (!ParseTraceLine(line, entry, what)) {
      if (what.empty()) continue;
      error = "trace file '" + path + "' line " + std::to_string(lineNumber) + ": " + what;
      return false;
    }
    if (!entries.empty() && entry.cycle < entries.back().cycle) {
      error = "trace file '" + path + "' line " + std::to_string(lineNumber) + ": cycles must not decrease";
      return false;
    }
    entry.line = lineNumber;
    entries.push_back(entry);
  }
  return true;
}

// ---- Generator ---------------------------------------------------------------

RequestGenerator::RequestGenerator(unsigned id, const TrafficSettings& settings, uint64_t runSeed,
                                   uint64_t numRequests)
    : id_(id),
      settings_(settings),
      rng_(GeneratorSeed(runSeed, id)),
      limit_(numRequests),
      nextLink_(settings.links == 0 ? 0 : id % settings.links) {}

RequestGenerator::RequestGenerator(unsigned id, const TrafficSettings& settings,
                                   std::vector<TraceEntry> trace, uint64_t numRequests)
    : id_(id),
      settings_(settings),
      rng_(GeneratorSeed(0, id)),
      replay_(true),
      trace_(std::move(trace)),
      limit_(numRequests < trace_.size() ? numRequests : trace_.size()),
      nextLink_(settings.links == 0 ? 0 : id % settings.links) {}

uint64_t RequestGenerator::NextCycle() const {
  return replay_ && issued_ < trace_.size() ? trace_[issued_].cycle : 0;
}

unsigned RequestGenerator::NextTraceLine() const {
  return replay_ && issued_ < trace_.size() ? trace_[issued_].line : 0;
}

Request RequestGenerator::Next(uint64_t cycle) {
  Request request;
  request.generator = id_;
  request.serial = issued_;
  request.cycle = cycle;
  if (replay_) {
    const TraceEntry& entry = trace_[issued_];
    request.command = entry.command;
    request.address = entry.address;
    request.length = entry.length;
  } else {
    request.command = PickCommand(request.length);
    request.address = PickAddress(request.length);
  }
  request.link = PickLink(request.address);
  ++issued_;
  return request;
}

unsigned RequestGenerator::PickSize(const unsigned (&weights)[8]) {
  uint64_t total = 0;
  for (unsigned w : weights) total += w;
  uint64_t pick = rng_.Below(total);
  for (unsigned i = 0; i < 8; ++i) {
    if (pick < weights[i]) return 16 * (i + 1);
    pick -= weights[i];
  }
  return 64;  // all weights 0: refused before a run starts
}

ZELCommand RequestGenerator::PickCommand(unsigned& length) {
  if (settings_.atomics && rng_.Below(100) < settings_.atomicsPercent) {
    length = 16;
    return kAtomicKinds[rng_.Below(6)];
  }
  if (rng_.Below(100) < settings_.percentRead) {
    length = PickSize(settings_.readWeights);
    return RD;
  }
  length = PickSize(settings_.writeWeights);
  return settings_.postedWrites ? P_WR : WR;
}

uint64_t RequestGenerator::PickAddress(unsigned length) {
  const uint64_t align = settings_.Alignment();
  const uint64_t capacity = settings_.capacity < align ? align : settings_.capacity;
  switch (settings_.stream) {
    case STREAM_SEQUENTIAL: {
      const unsigned generators = settings_.generators == 0 ? 1 : settings_.generators;
      const uint64_t base = capacity / generators * id_ / align * align;
      const uint64_t address = (base + streamOffset_) % capacity / align * align;
      streamOffset_ += RoundUp(length, align);
      return address;
    }
    case STREAM_STRIDED: {
      // Adding vaults x block size keeps the vault bits and walks the bank,
      // partition, column and row bits above them.
      const uint64_t stride = uint64_t{settings_.blockSize} * settings_.numVaults;
      const uint64_t base = uint64_t{id_ % settings_.numVaults} * settings_.blockSize;
      const uint64_t address = (base + streamOffset_ % capacity) % capacity / align * align;
      streamOffset_ += stride;
      return address;
    }
    default:
      return rng_.Below(capacity / align) * align;
  }
}

unsigned RequestGenerator::PickLink(uint64_t address) {
  const unsigned links = settings_.links == 0 ? 1 : settings_.links;
  switch (settings_.mapping) {
    case MAP_GENERATOR:
      return id_ % links;
    case MAP_ROUND_ROBIN: {
      const unsigned link = nextLink_;
      nextLink_ = (nextLink_ + 1) % links;
      return link;
    }
    default: {
      const unsigned vault = VaultOf(address, settings_.blockSize, settings_.numVaults);
      const unsigned perQuad = settings_.vaultsPerQuad == 0 ? 1 : settings_.vaultsPerQuad;
      return vault / perQuad % links;
    }
  }
}

}  // namespace Bench
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak
