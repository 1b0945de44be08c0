// SPDX-License-Identifier: Apache-2.0
#include "apps/soak/matrix.h"

#include <algorithm>
#include <random>
#include <set>
#include <utility>

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Soak {

namespace {

Setting Keys(const std::string& label, const std::vector<std::string>& assignments) {
  Setting s{label, {}};
  for (const std::string& a : assignments) {
    s.args.push_back("--set");
    s.args.push_back(a);
  }
  return s;
}

// Size weights that give every request size the same chance.
std::vector<std::string> AllSizes() {
  std::vector<std::string> keys;
  for (const char* kind : {"RD", "WR"}) {
    for (unsigned size = 16; size <= 128; size += 16) {
      keys.push_back(std::string("PERCENTAGE_") + kind + "_" + std::to_string(size) + "B=1");
    }
  }
  return keys;
}

Setting Mix(const std::string& label, std::vector<std::string> keys) {
  std::vector<std::string> all = AllSizes();
  all.insert(all.end(), keys.begin(), keys.end());
  return Keys(label, all);
}

// Small buffers and credit pools. Each value is the smallest, or close to the
// smallest, that the blocks still work with:
// - a host needs tokens for a whole packet (9 flits for a 128-byte write)
//   and response tokens for a whole read response (9 flits);
// - a link master stores a whole response packet before it sends it;
// - a link switch asks for 2 write credits before every flit of a write, so a
//   128-byte write needs 10 places in the controller's data queue;
// - a controller takes a request only with credits for the largest read
//   response (9) free, and the vault switch keeps some of those credits back
//   until flits move again, so its response buffer needs room beyond that.
const std::vector<std::string> kFewTokens = {
    "TOKENS_PER_LINK=9",     "BFM_TOKENS_PER_LINK=9",    "MAX_TOKEN_RETURN=2",          "TAGS_PER_LINK=6",
    "REQUEST_BUFFER_SIZE=3", "LSW_INPUT_BUFFER_SIZE=24", "LSW_INPUT_BUFFER_THRESHOLD=4"};
const std::vector<std::string> kSmallVault = {
    "TRANSACTION_Q_CAPACITY=1", "REQUEST_Q_CAPACITY=1",        "DATA_Q_CAPACITY=10",
    "CREDITS_FOR_PROCESSING=9", "VSW_RESPONSE_BUFFER_SIZE=18", "VSW_RESPONSE_BUFFER_THRESHOLD=4",
    "CREDIT_THROTTLE_VC=2",     "WRITE_CREDITS_PER_CYCLE=1"};
const std::vector<std::string> kSmallSwitch = {
    "LSW_INTERQUAD_BUFFER_SIZE=2",      "CREDIT_THROTTLE_LSW=1",
    "LINK_MASTER_BUFFER_SIZE=16",       "VSW_INTERQUAD_BUFFER_SIZE=19",
    "VSW_INTERQUAD_BUFFER_THRESHOLD=3", "SMOOTHING_BUFFER_LM_SIZE=2",
    "SMOOTHING_BUFFER_Q_SIZE=2",        "BUFFER_PRIORITY_TIME=32",
    "BUFFER_PRIORITY_WAIT=16"};

std::vector<std::string> Join(std::initializer_list<std::vector<std::string>> parts) {
  std::vector<std::string> all;
  for (const auto& p : parts) all.insert(all.end(), p.begin(), p.end());
  return all;
}

}  // namespace

std::vector<Dimension> SoakMatrix() {
  std::vector<Dimension> dims;
  dims.push_back({"cube",
                  "partitions per vault, through setCubeSize (2, 4 or 8 GB)",
                  {{"2", {"--cube-size", "0"}}, {"4", {"--cube-size", "1"}}, {"8", {"--cube-size", "2"}}}});
  Dimension link{"link", "setLinkParams: rate 40, 50 or 60 (10, 12.5, 15 Gb/s per lane) x lanes", {}};
  for (const char* rate : {"40", "50", "60"}) {
    for (const char* lanes : {"8", "16"}) {
      link.settings.push_back({std::string(rate) + "x" + lanes, {"--link-rate", rate, "--lanes", lanes}});
    }
  }
  dims.push_back(link);
  dims.push_back({"refresh",
                  "refresh off, or on at a junction temperature of 85 or 95 degrees",
                  {Keys("off", {"REFRESH_ENABLED=false"}), Keys("85", {"REFRESH_ENABLED=true", "Tj=85"}),
                   Keys("95", {"REFRESH_ENABLED=true", "Tj=95"})}});
  dims.push_back(
      {"mix",
       "request kinds; every size from 16 to 128 bytes with the same weight",
       {Mix("rw", {"PERCENTAGE_READ=50"}), Mix("reads", {"PERCENTAGE_READ=100", "ALIGNED_32B=false"}),
        Mix("posted", {"PERCENTAGE_READ=40", "POSTED_WRITES=true", "ALIGNED_32B=false"}),
        Mix("atomics", {"PERCENTAGE_READ=50", "USE_ATOMICS=1", "ATOMICS_PERCENTAGE=50"}),
        Mix("all", {"PERCENTAGE_READ=50", "POSTED_WRITES=true", "USE_ATOMICS=1", "ATOMICS_PERCENTAGE=25",
                    "ALIGNED_32B=false"})}});
  dims.push_back(
      {"pack", "PACK_INTERQUAD", {Keys("0", {"PACK_INTERQUAD=0"}), Keys("1", {"PACK_INTERQUAD=1"})}});
  dims.push_back({"openloop",
                  "RESPONSE_OPEN_LOOP",
                  {Keys("off", {"RESPONSE_OPEN_LOOP=false"}), Keys("on", {"RESPONSE_OPEN_LOOP=true"})}});
  dims.push_back(
      {"stream",
       "REQUEST_STREAM: random, sequential, strided",
       {Keys("0", {"REQUEST_STREAM=0"}), Keys("1", {"REQUEST_STREAM=1"}), Keys("2", {"REQUEST_STREAM=2"})}});
  dims.push_back(
      {"mapping",
       "HOST_MAPPING: by generator, round robin, quad of the vault",
       {Keys("0", {"HOST_MAPPING=0"}), Keys("1", {"HOST_MAPPING=1"}), Keys("2", {"HOST_MAPPING=2"})}});
  dims.push_back({"spacing",
                  "REQUEST_SPACING: queues kept full, or a request every 6 cycles per generator",
                  {Keys("0", {"REQUEST_SPACING=0"}), Keys("6", {"REQUEST_SPACING=6"})}});
  dims.push_back(
      {"buffers",
       "buffer and credit sizes: defaults, or small ones that press the loops",
       {Keys("default", {}), Keys("tokens", kFewTokens), Keys("vault", kSmallVault),
        Keys("switch", kSmallSwitch), Keys("tight", Join({kFewTokens, kSmallVault, kSmallSwitch}))}});
  dims.push_back({"host",
                  "token returns of the host: at once, or batched (freed response space waits up to 500 "
                  "cycles for a request tail)",
                  {{"eager", {}}, {"batching", {"--token-return-wait", "500"}}}});
  return dims;
}

uint64_t ProductSize(const std::vector<Dimension>& dims) {
  uint64_t n = 1;
  for (const Dimension& d : dims) n *= d.settings.size();
  return n;
}

Case NthCase(const std::vector<Dimension>& dims, uint64_t n) {
  Case c(dims.size(), 0);
  for (std::size_t i = dims.size(); i-- > 0;) {
    const uint64_t size = dims[i].settings.size();
    c[i] = static_cast<unsigned>(n % size);
    n /= size;
  }
  return c;
}

namespace {

// A pair of settings of two dimensions: (dimension a, setting x) and
// (dimension b, setting y), with a below b.
using Pair = std::pair<std::pair<std::size_t, unsigned>, std::pair<std::size_t, unsigned>>;
using PairSet = std::set<Pair>;

Pair MakePair(std::size_t a, unsigned x, std::size_t b, unsigned y) {
  return a < b ? Pair{{a, x}, {b, y}} : Pair{{b, y}, {a, x}};
}

PairSet AllPairs(const std::vector<Dimension>& dims) {
  PairSet pairs;
  for (std::size_t a = 0; a < dims.size(); ++a) {
    for (std::size_t b = a + 1; b < dims.size(); ++b) {
      for (unsigned x = 0; x < dims[a].settings.size(); ++x) {
        for (unsigned y = 0; y < dims[b].settings.size(); ++y) pairs.insert(MakePair(a, x, b, y));
      }
    }
  }
  return pairs;
}

void ErasePairsOf(PairSet& pairs, const Case& c) {
  for (std::size_t a = 0; a < c.size(); ++a) {
    for (std::size_t b = a + 1; b < c.size(); ++b) pairs.erase(MakePair(a, c[a], b, c[b]));
  }
}

// Pairs of `c` that `uncovered` still holds.
unsigned NewPairs(const PairSet& uncovered, const Case& c) {
  unsigned n = 0;
  for (std::size_t a = 0; a < c.size(); ++a) {
    for (std::size_t b = a + 1; b < c.size(); ++b) n += uncovered.count(MakePair(a, c[a], b, c[b]));
  }
  return n;
}

}  // namespace

std::vector<Case> PairwiseCases(const std::vector<Dimension>& dims) {
  if (dims.size() < 2) return SampleCases(dims, ProductSize(dims), 0);
  PairSet uncovered = AllPairs(dims);
  std::mt19937_64 rng(20240611);
  std::vector<Case> cases;
  constexpr int kCandidates = 30;
  while (!uncovered.empty()) {
    // Each candidate starts from one uncovered pair and fills the other
    // dimensions, in a shuffled order, with the setting that covers most new
    // pairs; the best candidate is kept.
    Case best;
    unsigned bestGain = 0;
    const auto& seed = *uncovered.begin();
    for (int k = 0; k < kCandidates; ++k) {
      Case c(dims.size(), 0);
      std::vector<bool> fixed(dims.size(), false);
      c[seed.first.first] = seed.first.second;
      c[seed.second.first] = seed.second.second;
      fixed[seed.first.first] = fixed[seed.second.first] = true;
      std::vector<std::size_t> order;
      for (std::size_t i = 0; i < dims.size(); ++i) {
        if (!fixed[i]) order.push_back(i);
      }
      std::shuffle(order.begin(), order.end(), rng);
      for (std::size_t i : order) {
        unsigned bestValue = 0, bestCount = 0;
        std::vector<unsigned> values(dims[i].settings.size());
        for (unsigned v = 0; v < values.size(); ++v) values[v] = v;
        std::shuffle(values.begin(), values.end(), rng);
        bool first = true;
        for (unsigned v : values) {
          unsigned count = 0;
          for (std::size_t j = 0; j < dims.size(); ++j) {
            if (j == i || !fixed[j]) continue;
            count += uncovered.count(MakePair(i, v, j, c[j]));
          }
          if (first || count > bestCount) {
            bestValue = v;
            bestCount = count;
            first = false;
          }
        }
        c[i] = bestValue;
        fixed[i] = true;
      }
      const unsigned gain = NewPairs(uncovered, c);
      if (gain > bestGain) {
        best = c;
        bestGain = gain;
      }
    }
    ErasePairsOf(uncovered, best);
    cases.push_back(best);
  }
  return cases;
}

bool CoversAllPairs(const std::vector<Dimension>& dims, const std::vector<Case>& cases) {
  PairSet uncovered = AllPairs(dims);
  for (const Case& c : cases) ErasePairsOf(uncovered, c);
  return uncovered.empty();
}

std::vector<Case> SampleCases(const std::vector<Dimension>& dims, uint64_t count, uint64_t seed) {
  const uint64_t size = ProductSize(dims);
  std::vector<Case> cases;
  if (count >= size) {
    for (uint64_t n = 0; n < size; ++n) cases.push_back(NthCase(dims, n));
    return cases;
  }
  std::mt19937_64 rng(seed);
  std::uniform_int_distribution<uint64_t> pick(0, size - 1);
  std::set<uint64_t> taken;
  while (taken.size() < count) {
    const uint64_t n = pick(rng);
    if (taken.insert(n).second) cases.push_back(NthCase(dims, n));
  }
  return cases;
}

bool Restrict(std::vector<Dimension>& dims, const std::string& name, const std::string& label) {
  for (Dimension& d : dims) {
    if (d.name != name) continue;
    for (const Setting& s : d.settings) {
      if (s.label == label) {
        d.settings = {s};
        return true;
      }
    }
    return false;
  }
  return false;
}

std::string CaseLabel(const std::vector<Dimension>& dims, const Case& c) {
  std::string text;
  for (std::size_t i = 0; i < dims.size(); ++i) {
    if (i != 0) text += ' ';
    text += dims[i].name + "=" + dims[i].settings[c[i]].label;
  }
  return text;
}

std::vector<std::string> CaseArguments(const std::vector<Dimension>& dims, const Case& c) {
  std::vector<std::string> args;
  for (std::size_t i = 0; i < dims.size(); ++i) {
    const auto& a = dims[i].settings[c[i]].args;
    args.insert(args.end(), a.begin(), a.end());
  }
  return args;
}

}  // namespace Soak
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak
