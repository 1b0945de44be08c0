// SPDX-License-Identifier: Apache-2.0
// Text and file helpers for configuration readers and test benches, and the
// few timing and reporting mechanisms that every block of the model shares.
#ifndef ZEL2_UTILS_H
#define ZEL2_UTILS_H

// The library's own sources report fatal model errors through assert() and
// must keep it live; a host that includes these headers may define NDEBUG.
#if defined(NDEBUG) && defined(ZELSIM_BUILDING_LIBRARY)
#error "libzelsim reports its fatal model errors through assert(); never build it with NDEBUG"
#endif

#include <cassert>
#include <cstdint>
#include <functional>
#include <iostream>
#include <list>
#include <string>
#include <utility>
#include <vector>

#include <systemc>

#include "zel2/Config.h"

// Runs assert(cond) with the condition's own text, after flushing std::cout so
// that the model's message printed before the failure is not lost.
#define ZEL_ASSERT(cond)    \
  do {                      \
    if (!(cond)) {          \
      std::cout.flush();    \
      assert(cond);         \
    }                       \
  } while (0)

namespace Sornak {
namespace Internal {
namespace ZEL2 {

// ---- Text and file utilities -------------------------------------------

// `text` without the leading and trailing characters that occur in `chars`.
std::string strip(std::string text, std::string chars);

// Pieces of `text` separated by any character of `delimiters`; a run of
// delimiters counts as one separator. At most `maxPieces` pieces (0 means 1);
// the last piece keeps the rest of the text, delimiters and all.
std::list<std::string> split(std::string text, std::string delimiters, unsigned long maxPieces);

// Parses a decimal text into `result`; a character that is not a digit
// prints a message naming `name` and aborts.
void convert_uint64_t(unsigned long& result, std::string text, std::string name);

// Makes sure that `path` exists, creating a directory when it doesn't.
void confirm_directory_exists(std::string path);

// ---- Time ----------------------------------------------------------------

// `cycles` periods of CORE_CLK: the clock's tick value as a double times
// `cycles`, plus 0.5, truncated to whole ticks. Computed at each use so that
// a run-time change of CORE_CLK is obeyed. sc_time's own scaling by a double
// is this very computation; being inline, it spares every block's delays a
// call into the kernel.
inline sc_core::sc_time CycleDelay(const Config& cfg, double cycles) {
  sc_core::sc_time delay = cfg.CORE_CLK;
  delay *= cycles;
  return delay;
}

// Half a period of CORE_CLK, rounded as CycleDelay rounds.
inline sc_core::sc_time HalfCycle(const Config& cfg) { return CycleDelay(cfg, 0.5); }

// Time from now to the next multiple of `period`; one whole period on an
// exact multiple. Whole picoseconds: the tick count is divided by
// `ticksPerPs` with truncation. A zero period gives zero.
sc_core::sc_time NextEdgeDelay(const sc_core::sc_time& period, unsigned ticksPerPs);

// Time in which a flit crosses a link: FLIT_SIZE * 8 / lanes bit times
// (integer division), as a float times the float 1 / gigabitsPerLane, taken
// as nanoseconds. Zero when the product is zero.
sc_core::sc_time FlitTimeOnLink(unsigned flitSize, unsigned lanes, float gigabitsPerLane);

// ---- Fatal errors ------------------------------------------------------

// Starts a timed model error on std::cout: "=[<now>]= ERROR - ".
std::ostream& TimedError();

// Starts a plain model error on std::cout: "== ERROR - ".
std::ostream& PlainError();

// Flushes std::cout and aborts.
[[noreturn]] void FatalAbort();

// Flushes std::cout and ends the program with status 0, which is how the
// model ends on most protocol errors.
[[noreturn]] void FatalExit0();

// ---- Delay queue --------------------------------------------------------

// Timed wakes of one consumer: every notify(delay) wakes it once, `delay`
// from now; notifications for the same time wake it in successive delta
// cycles, the earliest pending one first. The queue arms a single event for
// its earliest pending time and, after each wake, for the next one, with the
// very event notifications, in the very order, that the kernel's own event
// queue makes, so the kernel schedules the same as with that queue. It
// keeps its pending times in a sorted vector rather than a heap of allocated
// times.
//
// After each wake the next time must be armed. A queue made for a method
// consumer leaves that to the consumer, which puts a FiringScope at the top
// of its function: the re-arming then happens at the end of the method's
// run, which is just where the kernel queue's own process would have run it
// (the kernel wakes the processes of an event in the reverse order of their
// registration, so the consumer ran first and the queue's process right
// after it), and the kernel runs one process fewer. A queue for a thread
// consumer, or for any other use, re-arms in a method process of its own,
// registered before the consumer as the kernel queue's was.
class DelayQueue {
 public:
  enum Consumer { kOwnProcess, kMethodConsumer };

  explicit DelayQueue(const char* name, Consumer consumer = kOwnProcess);
  DelayQueue(const DelayQueue&) = delete;
  DelayQueue& operator=(const DelayQueue&) = delete;

  // One more wake, `delay` from now.
  void notify(const sc_core::sc_time& delay) {
    const sc_core::sc_time::value_type when = sc_core::sc_time_stamp().value() + delay.value();
    if (head_ == times_.size() || when < times_[head_]) event_.notify(delay);
    // Usually the latest time yet: scan from the back.
    std::size_t at = times_.size();
    while (at > head_ && times_[at - 1] > when) --at;
    times_.insert(times_.begin() + static_cast<std::ptrdiff_t>(at), when);
  }
  // Drops the time that has just woken the consumer and arms the event for
  // the next pending one.
  void Fired();
  // Notifications not yet fired.
  std::size_t pending() const { return times_.size() - head_; }

  // The event a consumer is sensitive to, for `sensitive <<` and wait().
  const sc_core::sc_event& default_event() const { return event_; }
  operator const sc_core::sc_event&() const { return event_; }  // NOLINT(google-explicit-constructor)

 private:
  sc_core::sc_event event_;
  std::vector<sc_core::sc_time::value_type> times_;  // pending times in ticks, ascending from head_
  std::size_t head_ = 0;
};

// Re-arms a method consumer's delay queue when the method's run ends,
// whichever way it returns.
class FiringScope {
 public:
  explicit FiringScope(DelayQueue& queue) : queue_(queue) {}
  ~FiringScope() { queue_.Fired(); }
  FiringScope(const FiringScope&) = delete;
  FiringScope& operator=(const FiringScope&) = delete;

 private:
  DelayQueue& queue_;
};

// ---- Delay FIFO ----------------------------------------------------------

// A value that travels with a delay: the values wait in a plain vector used
// as a FIFO, and `queue` fires once per value after its delay. A process
// that is sensitive to `queue` takes one value per firing with Pop().
template <class T>
struct DelayFifo {
  std::vector<T> items;
  DelayQueue queue;

  DelayFifo() : queue(sc_core::sc_gen_unique_name("delayFifo")) {}
  explicit DelayFifo(const char* name, DelayQueue::Consumer consumer = DelayQueue::kOwnProcess)
      : queue(name, consumer) {}

  void Push(const T& value, const sc_core::sc_time& delay) {
    items.push_back(value);
    queue.notify(delay);
  }
  // The same for a value the caller gives up, which spares a copy when T is
  // itself a container.
  void Push(T&& value, const sc_core::sc_time& delay) {
    items.push_back(std::move(value));
    queue.notify(delay);
  }
  T Pop() {
    T value = std::move(items.front());
    items.erase(items.begin());
    return value;
  }
  const T& front() const { return items.front(); }
  std::size_t size() const { return items.size(); }
  bool empty() const { return items.empty(); }
};

// ---- Pulse writer -------------------------------------------------------

// Registers `action` as a method process of the module under construction,
// sensitive to `trigger` and not run at start.
void SpawnMethod(std::function<void()> action, sc_core::sc_event& trigger, const char* name);

// Writes a value to a port for half a core cycle and then the zero value
// T(). A write while a pulse is still up replaces its value; the return to
// zero keeps the earliest pending time, as an sc_event does.
template <class T>
class PulseWriter {
 public:
  PulseWriter(sc_core::sc_out<T>& port, const Config& cfg) : port_(port), cfg_(cfg) {
    SpawnMethod([this]() { port_.write(T()); }, clearEvent_, "pulseClear");
  }
  void Write(const T& value) {
    port_.write(value);
    clearEvent_.notify(HalfCycle(cfg_));
  }

 private:
  sc_core::sc_out<T>& port_;
  const Config& cfg_;
  sc_core::sc_event clearEvent_;
};

// ---- Quad peers -----------------------------------------------------------

// A quad's peers are the other quads in ascending order, with itself left
// out. Every inter-quad vector is indexed by peer.
inline unsigned PeerIndex(unsigned self, unsigned otherQuad) {
  return otherQuad < self ? otherQuad : otherQuad - 1;
}
inline unsigned PeerQuad(unsigned self, unsigned peer) { return peer < self ? peer : peer + 1; }

// ---- Inter-quad trace ---------------------------------------------------

// The axis between quad `id` and `otherQuad` of a four-quad cube:
// "SWITCHX", "SWITCHY" or "SWITCHZ"; nullptr when there is none (the same
// quad, or a quad outside 0 to 3).
const char* InterquadAxis(unsigned id, unsigned otherQuad);

// The time column of the inter-quad trace: the tick count in single
// precision divided by 1000 in single precision (nanoseconds at 1 ps).
float TraceTimeNs();

}  // namespace ZEL2
}  // namespace Internal
}  // namespace Sornak

#endif  // ZEL2_UTILS_H
