// SPDX-License-Identifier: Apache-2.0
// sc_spawn is only declared when dynamic processes are asked for, before the
// first SystemC header of this file.
#define SC_INCLUDE_DYNAMIC_PROCESSES
#include "zel2/zel2_utils.h"

#include <cstdlib>
#include <sstream>

#include "zel2/Config.h"

namespace Sornak {
namespace Internal {
namespace ZEL2 {

std::string strip(std::string text, std::string chars) {
  text.erase(0, text.find_first_not_of(chars));
  const std::size_t last = text.find_last_not_of(chars);
  text.erase(last == std::string::npos ? 0 : last + 1);
  return text;
}

std::list<std::string> split(std::string text, std::string delimiters, unsigned long maxPieces) {
  if (maxPieces == 0) maxPieces = 1;
  std::list<std::string> pieces;
  if (text.empty()) {
    pieces.push_back("");
    return pieces;
  }
  std::size_t pos = 0;
  bool endedOnDelimiter = false;
  while (pieces.size() < maxPieces - 1 && pos < text.size()) {
    const std::size_t found = text.find_first_of(delimiters, pos);
    if (found == std::string::npos) {
      pieces.push_back(text.substr(pos));
      pos = text.size();
      endedOnDelimiter = false;
      break;
    }
    pieces.push_back(text.substr(pos, found - pos));
    // A run of delimiters is one separator.
    const std::size_t next = text.find_first_not_of(delimiters, found);
    pos = next == std::string::npos ? text.size() : next;
    endedOnDelimiter = true;
  }
  if (pos >= text.size()) {
    if (endedOnDelimiter) pieces.push_back("");
  } else {
    pieces.push_back(text.substr(pos));
  }
  return pieces;
}

void convert_uint64_t(unsigned long& result, std::string text, std::string name) {
  for (char c : text) {
    if (c < '0' || c > '9') {
      std::cout << "ERROR: Non-digit character found: " << name << " : " << text << std::endl;
      FatalAbort();
    }
  }
  std::stringstream stream(text);
  stream >> result;
}

void confirm_directory_exists(std::string path) {
  const std::string command = "test -e " + path + " || mkdir " + path;
  if (std::system(command.c_str()) != 0) {
    std::cout << "system command to confirm directory " << path << " exists has failed.";
    FatalAbort();
  }
}

sc_core::sc_time NextEdgeDelay(const sc_core::sc_time& period, unsigned ticksPerPs) {
  const sc_dt::uint64 periodTicks = period.value();
  if (periodTicks == 0) return sc_core::SC_ZERO_TIME;
  const sc_dt::uint64 now = sc_core::sc_time_stamp().value();
  const sc_dt::uint64 ticks = periodTicks - now % periodTicks;
  const sc_dt::uint64 ps = ticks / ticksPerPs;
  // The same value as sc_time(ps, SC_PS), without the floating-point unit
  // conversion: the resolution is a power of ten of at most 1 ps, so that
  // ticksPerPs is exact.
  return sc_core::sc_time::from_value(ps * ticksPerPs);
}

sc_core::sc_time FlitTimeOnLink(unsigned flitSize, unsigned lanes, float gigabitsPerLane) {
  const unsigned bitTimes = flitSize * 8 / lanes;
  const float ns = static_cast<float>(bitTimes) * (1.0f / gigabitsPerLane);
  if (ns == 0.0f) return sc_core::SC_ZERO_TIME;
  return sc_core::sc_time(static_cast<double>(ns), sc_core::SC_NS);
}

void SpawnMethod(std::function<void()> action, sc_core::sc_event& trigger, const char* name) {
  sc_core::sc_spawn_options options;
  options.spawn_method();
  options.set_sensitivity(&trigger);
  options.dont_initialize();
  sc_core::sc_spawn(std::move(action), sc_core::sc_gen_unique_name(name), &options);
}

DelayQueue::DelayQueue(const char* name, Consumer consumer) : event_(name) {
  if (consumer == kOwnProcess) SpawnMethod([this]() { Fired(); }, event_, "delayQueue");
}

void DelayQueue::Fired() {
  if (head_ == times_.size()) return;
  ++head_;
  if (head_ == times_.size()) {
    times_.clear();
    head_ = 0;
    return;
  }
  // The fired times are dropped in batches, not one by one.
  if (head_ >= 64 && head_ * 2 >= times_.size()) {
    times_.erase(times_.begin(), times_.begin() + static_cast<std::ptrdiff_t>(head_));
    head_ = 0;
  }
  event_.notify(sc_core::sc_time::from_value(times_[head_] - sc_core::sc_time_stamp().value()));
}

std::ostream& TimedError() { return std::cout << "=[" << sc_core::sc_time_stamp() << "]= ERROR - "; }

std::ostream& PlainError() { return std::cout << "== ERROR - "; }

void FatalAbort() {
  std::cout.flush();
  std::abort();
}

void FatalExit0() {
  std::cout.flush();
  std::exit(0);
}

const char* InterquadAxis(unsigned id, unsigned otherQuad) {
  static const char* const axes[4][4] = {
      {nullptr, "SWITCHY", "SWITCHX", "SWITCHZ"},
      {"SWITCHY", nullptr, "SWITCHZ", "SWITCHX"},
      {"SWITCHX", "SWITCHZ", nullptr, "SWITCHY"},
      {"SWITCHZ", "SWITCHX", "SWITCHY", nullptr},
  };
  if (id > 3 || otherQuad > 3) return nullptr;
  return axes[id][otherQuad];
}

float TraceTimeNs() {
  return static_cast<float>(sc_core::sc_time_stamp().value()) / 1000.0f;
}

}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak
