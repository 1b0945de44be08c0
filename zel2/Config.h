// SPDX-License-Identifier: Apache-2.0
// The one record of all model parameters ("keys"), with their compiled
// defaults. One Config is made per cube and shared by reference with every
// block, which reads a key at the moment it needs it.
#ifndef ZEL2_CONFIG_H
#define ZEL2_CONFIG_H

#include <cstdint>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include <systemc>

// The key table: X(type word, key, compiled default), in record order. This is
// the only list of keys; the record's fields, the constructor, print() and
// IniReader::finish() all expand it. The type word is the one print() shows.
// Defaults that are formulas use keys listed before them: they are worked out
// once, when the record is made, in the rounding of sc_time scaling, and a
// file that later changes their inputs does not change them.
#define ZEL_CONFIG_KEYS(X) \
  /* Test bench, requests and output */                                                       \
  X(sc_time, SIM_TIME, Ns(100000))                                                            \
  X(unsigned, NUM_GENERATORS, 4)                                                              \
  X(unsigned, NUM_REQUESTS, 1000000)                                                          \
  X(bool, ALIGNED_32B, true)                                                                  \
  X(unsigned, USE_ATOMICS, 0)                                                                 \
  X(unsigned, ATOMICS_PERCENTAGE, 0)                                                          \
  X(bool, USE_TRACE, false)                                                                   \
  X(string, TRACE_FILENAME_0, "traces/test.txt")                                              \
  X(string, TRACE_FILENAME_1, "traces/test.txt")                                              \
  X(string, TRACE_FILENAME_2, "traces/test.txt")                                              \
  X(string, TRACE_FILENAME_3, "traces/test.txt")                                              \
  X(bool, TRACE_DEBUG, false)                                                                 \
  X(bool, DUMP_STATE, true)                                                                   \
  X(bool, DUMP_STATS_FILE, false)                                                             \
  X(string, STATS_FILENAME, "stats.txt")                                                      \
  X(unsigned, REQUEST_STREAM, 0)                                                              \
  X(unsigned, PERCENTAGE_READ, 50)                                                            \
  X(unsigned, PERCENTAGE_RD_16B, 0)                                                           \
  X(unsigned, PERCENTAGE_RD_32B, 0)                                                           \
  X(unsigned, PERCENTAGE_RD_48B, 0)                                                           \
  X(unsigned, PERCENTAGE_RD_64B, 100)                                                         \
  X(unsigned, PERCENTAGE_RD_80B, 0)                                                           \
  X(unsigned, PERCENTAGE_RD_96B, 0)                                                           \
  X(unsigned, PERCENTAGE_RD_112B, 0)                                                          \
  X(unsigned, PERCENTAGE_RD_128B, 0)                                                          \
  X(unsigned, PERCENTAGE_WR_16B, 0)                                                           \
  X(unsigned, PERCENTAGE_WR_32B, 0)                                                           \
  X(unsigned, PERCENTAGE_WR_48B, 0)                                                           \
  X(unsigned, PERCENTAGE_WR_64B, 100)                                                         \
  X(unsigned, PERCENTAGE_WR_80B, 0)                                                           \
  X(unsigned, PERCENTAGE_WR_96B, 0)                                                           \
  X(unsigned, PERCENTAGE_WR_112B, 0)                                                          \
  X(unsigned, PERCENTAGE_WR_128B, 0)                                                          \
  X(unsigned, REQUEST_BUFFER_SIZE, 384)                                                       \
  X(unsigned, TAGS_PER_LINK, 512)                                                             \
  X(unsigned, TOKENS_PER_LINK, 100)                                                           \
  X(unsigned, BFM_TOKENS_PER_LINK, 0)                                                         \
  X(unsigned, REQUEST_SPACING, 0)                                                             \
  X(bool, POSTED_WRITES, false)                                                               \
  X(bool, RESPONSE_OPEN_LOOP, false)                                                          \
  X(unsigned, HOST_MAPPING, 2)                                                                \
  /* Shape and clock */                                                                       \
  X(unsigned, NUM_QUADS, 4)                                                                   \
  X(unsigned, VAULTS_PER_QUAD, 4)                                                             \
  X(unsigned, NUM_LINKS, 4)                                                                   \
  X(unsigned, NUM_VAULTS, 16)                                                                 \
  X(sc_time, CORE_CLK, Ns(1.6))                                                               \
  /* Link */                                                                                  \
  X(unsigned, MAX_TOKEN_RETURN, 31)                                                           \
  X(unsigned, FLIT_SIZE, 16)                                                                  \
  X(unsigned, FLITS_PER_CYCLE_LINK, 3)                                                        \
  X(float, LINK_SPEED, 15.0f)                                                                 \
  X(unsigned, LINK_0_WIDTH, 16)                                                               \
  X(unsigned, LINK_1_WIDTH, 16)                                                               \
  X(unsigned, LINK_2_WIDTH, 16)                                                               \
  X(unsigned, LINK_3_WIDTH, 16)                                                               \
  X(unsigned, LINK_MASTER_BUFFER_SIZE, 32)                                                    \
  X(unsigned, LINK_INPUT_DELAY, 2)                                                            \
  X(unsigned, LINK_OUTPUT_DELAY, 3)                                                           \
  X(unsigned, CREDIT_RETURN_DELAY_LM, 2)                                                      \
  /* Link switch */                                                                           \
  X(unsigned, LSW_INPUT_BUFFER_SIZE, 57)                                                      \
  X(unsigned, LSW_INPUT_BUFFER_THRESHOLD, 33)                                                 \
  X(unsigned, LSW_INTERQUAD_BUFFER_SIZE, 15)                                                  \
  X(unsigned, PACK_INTERQUAD, 0)                                                              \
  X(unsigned, FLITS_PER_CYCLE_LSW, 3)                                                         \
  X(unsigned, FLITS_PER_CYCLE_LSW_REMOTE, 3)                                                  \
  X(unsigned, BUSY_SIGNAL_DELAY, 6)                                                           \
  X(unsigned, LSW_INPUT_DELAY, 4)                                                             \
  X(unsigned, LSW_INTERQUAD_DELAY, 5)                                                         \
  X(unsigned, TOKEN_RETURN_DELAY_LSW, 4)                                                      \
  X(unsigned, CREDIT_RETURN_DELAY_LSW, 6)                                                     \
  X(unsigned, EARLY_CREDIT_RETURN_DELAY_LSW, 2)                                               \
  X(unsigned, THROTTLE_STALL_TIME, 3)                                                         \
  X(unsigned, CREDIT_THROTTLE_VC, 8)                                                          \
  X(unsigned, CREDIT_THROTTLE_LSW, 8)                                                         \
  /* Vault switch */                                                                          \
  X(unsigned, VSW_RESPONSE_BUFFER_SIZE, 61)                                                   \
  X(unsigned, VSW_RESPONSE_BUFFER_THRESHOLD, 32)                                              \
  X(unsigned, VSW_INTERQUAD_BUFFER_SIZE, 42)                                                  \
  X(unsigned, VSW_INTERQUAD_BUFFER_THRESHOLD, 21)                                             \
  X(unsigned, FLITS_PER_CYCLE_VSW, 3)                                                         \
  X(unsigned, SMOOTHING_BUFFER_LM_SIZE, 12)                                                   \
  X(unsigned, SMOOTHING_BUFFER_Q_SIZE, 9)                                                     \
  X(sc_time, BUFFER_PRIORITY_TIME, 256 * CORE_CLK) /* 256 core cycles */                      \
  X(sc_time, BUFFER_PRIORITY_WAIT, 64 * CORE_CLK) /* 64 core cycles */                        \
  X(unsigned, VSW_LATCH_DELAY, 6)                                                             \
  X(unsigned, VSW_INTERQUAD_LATCH_DELAY, 3)                                                   \
  X(unsigned, VSW_INTERQUAD_LATCH_DELAY_Z, 4)                                                 \
  X(unsigned, CREDIT_RETURN_DELAY_VSW_VC, 4)                                                  \
  X(unsigned, CREDIT_RETURN_DELAY_VSW_VSW, 8)                                                 \
  X(unsigned, CREDIT_RETURN_DELAY_VSW_VSW_Z, 9)                                               \
  /* Vault controller */                                                                      \
  X(bool, DRAM_TRACING, false)                                                                \
  X(unsigned, TRANSACTION_Q_CAPACITY, 24)                                                     \
  X(unsigned, REQUEST_Q_CAPACITY, 4)                                                          \
  X(unsigned, DATA_Q_CAPACITY, 53)                                                            \
  X(unsigned, CREDITS_FOR_PROCESSING, 9)                                                      \
  X(unsigned, FLITS_IN_PER_CYCLE_VC, 2)                                                       \
  X(unsigned, FLITS_OUT_PER_CYCLE_VC, 2)                                                      \
  X(unsigned, MAPPING_SCHEME, 0)                                                              \
  X(unsigned, BYTE_OFFSET, 16)                                                                \
  X(unsigned, COLUMN_ACCESS_LENGTH, 32)                                                       \
  X(unsigned, MAX_BLOCK_SIZE, 128)                                                            \
  X(unsigned, MAX_REQUEST_SIZE, 128)                                                          \
  X(unsigned, COMMAND_CREDIT_DELAY, 3)                                                        \
  X(unsigned, WRITE_CREDIT_DELAY, 8)                                                          \
  X(unsigned, WRITE_CREDITS_PER_CYCLE, 2)                                                     \
  X(unsigned, WRITE_RESPONSE_DELAY, 11)                                                       \
  X(unsigned, MI_OUT_DELAY, 3)                                                                \
  X(unsigned, ATOMICS_SPACING, 12)                                                            \
  X(bool, REFRESH_ENABLED, false)                                                             \
  /* DRAM geometry and timing */                                                              \
  X(unsigned, NUM_PARTITIONS, 2)                                                              \
  X(unsigned, NUM_BANKS, 4)                                                                   \
  X(unsigned, TSV_WIDTH, 32)                                                                  \
  X(unsigned, Tj, 85)                                                                         \
  X(unsigned, NUM_ROWS, 8192)                                                                 \
  X(unsigned, NUM_COLS, 64)                                                                   \
  X(sc_time, UI, Ns(0.4))                                                                     \
  X(sc_time, DRAM_tCK, 2 * UI)                                                                \
  X(sc_time, BL, 8 * UI)                                                                      \
  X(sc_time, tCMD, 2 * UI)                                                                    \
  X(sc_time, tRAS, Ns(22.4))                                                                  \
  X(sc_time, tRP, Ns(12.8))                                                                   \
  X(sc_time, tRC, tRAS + tRP)                                                                 \
  X(sc_time, tAA, Ns(10.8))                                                                   \
  X(sc_time, tAC, Ns(1))                                                                      \
  X(sc_time, tWL, Ns(9.6))                                                                    \
  X(sc_time, tRCDr, Ns(13.6))                                                                 \
  X(sc_time, tRCDw, Ns(7.2))                                                                  \
  X(sc_time, tRRD, Ns(3.2))                                                                   \
  X(sc_time, tWR, Ns(14))                                                                     \
  X(sc_time, tRTP, Ns(4))                                                                     \
  X(sc_time, tCCD, 4 * DRAM_tCK)                                                              \
  X(sc_time, tCCDRP, 8 * DRAM_tCK)                                                            \
  X(sc_time, tCCDWP, 6 * DRAM_tCK)                                                            \
  X(sc_time, tWTR, Ns(6.8))                                                                   \
  X(sc_time, tWTR2D, Ns(2.8))                                                                 \
  X(sc_time, tRTW, Ns(3.6))                                                                   \
  X(sc_time, tRTW2D, Ns(3.6))                                                                 \
  X(sc_time, tRTR2D, Ns(1.6))                                                                 \
  X(sc_time, tAPA, Ns(1.6))                                                                   \
  X(sc_time, RD_TO_WR_SAME, tAA + BL - tWL + tRTW)                                            \
  X(sc_time, RD_TO_WR_DIFF, tAA + BL - tWL + tRTW2D)                                          \
  X(sc_time, WR_TO_RD_SAME, tWL + BL - UI + tWTR) /* only this turnaround takes off one UI */ \
  X(sc_time, WR_TO_RD_DIFF, tWL + BL - tAA + tWTR2D)

namespace Sornak {
namespace Internal {
namespace ZEL2 {

// C++ type of each type word of the key table.
using ConfigType_sc_time = sc_core::sc_time;
using ConfigType_unsigned = std::uint32_t;
using ConfigType_bool = bool;
using ConfigType_string = std::string;
using ConfigType_float = float;

#define ZEL_CONFIG_COUNT_KEY(type, name, def) +1
// Number of keys in the record.
inline constexpr unsigned NUM_CONFIG_KEYS = 0 ZEL_CONFIG_KEYS(ZEL_CONFIG_COUNT_KEY);
#undef ZEL_CONFIG_COUNT_KEY
static_assert(NUM_CONFIG_KEYS == 141, "the record holds 141 keys");

// Opt-in corrections of two faults that the model's own rules cause; both
// are off by default, and the model then behaves exactly as its rules say.
// They are not configuration keys: a host chooses them before the simulation
// starts (zel2_cube::setCorrections, Cube2in1Wrapper::setCorrections or the
// LIBZEL_CORRECTIONS variable that CreateCube reads). docs/corrections.md
// tells what each changes.
struct Corrections {
  // "smoothing-stall": the vault switch moves flits into the smoothing
  // buffers again one cycle later whenever any response buffer still holds
  // flits, not only when a scan reached and left a vault that holds some.
  bool smoothingStall = false;
  // "bank-ownership": a DRAM command of the vault controller issues only
  // once no earlier command of another transaction for the same bank is left
  // in the request queue.
  bool bankOwnership = false;

  bool Any() const { return smoothingStall || bankOwnership; }
  // The names of the corrections that are on, in the order of AllNames().
  std::vector<std::string> List() const;
  // The same, ", " between them.
  std::string Names() const;
  // Turns on the correction of that name, or all of them for "all"; false,
  // and nothing changed, for an unknown name.
  bool Enable(const std::string& name);
  // The same for a list of names separated by commas (blanks ignored); on an
  // unknown name `unknown` holds it and false is returned.
  bool EnableList(const std::string& list, std::string& unknown);
  // Every correction's name, in the order Names() prints them.
  static const char* const* AllNames();
  static constexpr unsigned kCount = 2;
};

class Config {
 public:
  // Simulator ticks in one picosecond; 0 when the time resolution is coarser
  // than 1 ps (a warning is printed, and edge computations then fail).
  std::uint32_t ticksPerPs;
  // How many times a configuration file supplied each key; every key is
  // entered with 0. A key with a count above 0 is marked by print().
  std::map<std::string, unsigned long> keyCounts;

  // Not a key: the corrections the host chose (all off by default).
  Corrections corrections;

#define ZEL_CONFIG_FIELD(type, name, def) ConfigType_##type name = def;
  ZEL_CONFIG_KEYS(ZEL_CONFIG_FIELD)
#undef ZEL_CONFIG_FIELD

  // Fills in the defaults, enters every key in keyCounts and checks the
  // simulator's time resolution.
  Config();

  // One line per key in record order: "[*] " when a file set the key, then
  // "[type]: 'KEY'=value". With onlySetKeys, keys no file set are left out.
  void print(std::ostream& out, bool onlySetKeys) const;

  // Time from now to the next edge of CORE_CLK, in whole picoseconds; a full
  // period when now is exactly on an edge.
  sc_core::sc_time NextCoreEdgeDelay() const;

  // Lanes of a link: LINK_0_WIDTH to LINK_3_WIDTH; links above 3 have the
  // lanes of link 3.
  unsigned LinkWidth(unsigned link) const;

 private:
  static sc_core::sc_time Ns(double value) { return sc_core::sc_time(value, sc_core::SC_NS); }
};

}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak

#endif  // ZEL2_CONFIG_H
