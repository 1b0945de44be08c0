// SPDX-License-Identifier: Apache-2.0
#include "host/backing_store.h"

#include <algorithm>
#include <cstring>

namespace Sornak {
namespace Internal {
namespace ZEL2 {
namespace Host {

namespace {

uint64_t LoadWord(const unsigned char* bytes) {
  uint64_t value = 0;
  for (int i = 7; i >= 0; --i) value = value << 8 | bytes[i];
  return value;
}

void StoreWord(unsigned char* bytes, uint64_t value) {
  for (int i = 0; i < 8; ++i, value >>= 8) bytes[i] = static_cast<unsigned char>(value);
}

}  // namespace

void BackingStore::Read(uint64_t address, unsigned char* data, uint64_t length) const {
  while (length > 0) {
    const uint64_t offset = address % kPageBytes;
    const uint64_t chunk = std::min(length, kPageBytes - offset);
    const auto page = pages_.find(address / kPageBytes);
    if (page == pages_.end()) {
      std::memset(data, 0, chunk);
    } else {
      std::memcpy(data, page->second.get() + offset, chunk);
    }
    address += chunk;
    data += chunk;
    length -= chunk;
  }
}

unsigned char* BackingStore::PageFor(uint64_t address) {
  Page& page = pages_[address / kPageBytes];
  if (!page) page.reset(new unsigned char[kPageBytes]());
  return page.get();
}

void BackingStore::Write(uint64_t address, const unsigned char* data, uint64_t length,
                         const unsigned char* enables, uint64_t enableLength) {
  const bool masked = enables != nullptr && enableLength > 0;
  uint64_t done = 0;
  while (done < length) {
    const uint64_t at = address + done;
    const uint64_t offset = at % kPageBytes;
    const uint64_t chunk = std::min(length - done, kPageBytes - offset);
    unsigned char* bytes = PageFor(at) + offset;
    if (!masked) {
      std::memcpy(bytes, data + done, chunk);
    } else {
      for (uint64_t i = 0; i < chunk; ++i) {
        if (enables[(done + i) % enableLength] != 0) bytes[i] = data[done + i];
      }
    }
    done += chunk;
  }
}

bool BackingStore::Atomic(ZELCommand command, uint64_t address, const unsigned char* operand) {
  unsigned char memory[16];
  Read(address, memory, 16);
  const uint64_t low = LoadWord(memory), high = LoadWord(memory + 8);
  const uint64_t opLow = LoadWord(operand), opHigh = LoadWord(operand + 8);
  switch (command) {
    case BWR:
    case P_BWR:
      StoreWord(memory, (low & ~opHigh) | (opLow & opHigh));
      break;
    case DADD8:
    case P_DADD8:
      StoreWord(memory, low + opLow);
      StoreWord(memory + 8, high + opHigh);
      break;
    case ADD16:
    case P_ADD16: {
      const uint64_t sum = low + opLow;
      StoreWord(memory, sum);
      StoreWord(memory + 8, high + opHigh + (sum < low ? 1 : 0));
      break;
    }
    default:
      return false;
  }
  Write(address, memory, 16);
  return true;
}

}  // namespace Host
}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak
