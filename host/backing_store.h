// SPDX-License-Identifier: Apache-2.0
// The data behind the cube's timing: a sparse byte store that pages come
// into on their first write. Unwritten memory reads as zeros. The cube
// itself stores nothing, so whoever wants reads to return what was written
// keeps the bytes here.
#ifndef ZELSIM_HOST_BACKING_STORE_H
#define ZELSIM_HOST_BACKING_STORE_H

#include <cstdint>
#include <memory>
#include <unordered_map>

#include "zel2/zel2_flit.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Host {

class BackingStore {
 public:
  static constexpr uint64_t kPageBytes = 4096;

  // Copies `length` bytes from `address` on into `data`.
  void Read(uint64_t address, unsigned char* data, uint64_t length) const;
  // Stores `length` bytes of `data` from `address` on. With byte enables,
  // byte i is stored only when enables[i % enableLength] is non-zero, as a
  // generic payload's enables repeat.
  void Write(uint64_t address, const unsigned char* data, uint64_t length,
             const unsigned char* enables = nullptr, uint64_t enableLength = 0);
  // Applies an atomic command (posted or not) to the 16 bytes at `address`
  // with its 16-byte operand; words are little-endian:
  //   BWR:   the first 8 bytes become (memory & ~mask) | (data & mask), with
  //          the operand's first 8 bytes as data and its last 8 as mask;
  //   DADD8: two independent 8-byte additions, modulo 2^64 each;
  //   ADD16: one 16-byte addition, modulo 2^128.
  // Returns false, changing nothing, for any other command.
  bool Atomic(ZELCommand command, uint64_t address, const unsigned char* operand);

  // Pages holding written data.
  std::size_t Pages() const { return pages_.size(); }

 private:
  using Page = std::unique_ptr<unsigned char[]>;
  unsigned char* PageFor(uint64_t address);  // made, zeroed, when missing
  std::unordered_map<uint64_t, Page> pages_;  // by page number
};

}  // namespace Host
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak

#endif  // ZELSIM_HOST_BACKING_STORE_H
