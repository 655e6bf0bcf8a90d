#ifndef VELMO_LOG_DETAIL_DISPATCHER_H_
#define VELMO_LOG_DETAIL_DISPATCHER_H_

#include <array>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "log/detail/record.h"
#include "log/log.h"

namespace tu {
namespace log {
namespace detail {

// Carries records to the registered handlers, for one initialisation of the facility.
//
// Synchronous: each record is filled into the next ring slot and handed to the handlers on
// the caller's thread. Threaded: the ring is the queue of the single log thread; a caller
// that finds all 128 slots pending waits for one to free up, so no record is lost.
//
// Handler calls are serialised in both modes, so a handler sees one record at a time and
// lines from different threads never interleave. Handlers may log, add or remove handlers
// from inside a call. All members are thread-safe. After shutdown() no handler is called
// again and later records are dropped.
class Dispatcher : public std::enable_shared_from_this<Dispatcher> {
 public:
  using HandlerMap = std::map<std::string, LogHandler>;

  // A threaded dispatcher has its log thread running when this returns.
  static std::shared_ptr<Dispatcher> create(bool synchronous);
  ~Dispatcher();

  Dispatcher(const Dispatcher&) = delete;
  Dispatcher& operator=(const Dispatcher&) = delete;

  bool synchronous() const { return synchronous_; }

  void submit(LogLevel level, const char* category, const char* message, const char* file,
              const char* function, int line);

  void addHandler(const std::string& name, LogHandler handler);
  void removeHandler(const std::string& name);

  // Returns once every record submitted before the call has reached the handlers.
  void flush();

  // Delivers what is pending, stops the log thread and drops every handler. Idempotent.
  void shutdown();

  // Callers currently waiting for a free slot (threaded mode); for diagnostics and tests.
  std::size_t waitingCallers();

 private:
  explicit Dispatcher(bool synchronous);

  void start();
  void run();
  void deliver(const Record& record);
  bool onLogThread() const { return std::this_thread::get_id() == logThreadId_; }

  // Constant after construction (logThreadId_ after start(), before the dispatcher is
  // published to any other thread).
  const bool synchronous_;
  std::thread::id logThreadId_;

  // Serialises handler calls and guards handlers_, closed_ and, in synchronous mode, the
  // ring and nextSlot_. Recursive so that a handler may log or change the handlers on the
  // thread that is running it.
  std::recursive_mutex handlerMutex_;
  // Copy-on-write: a dispatch in progress keeps iterating its own snapshot (and keeps the
  // handler it is running alive) while a handler replaces or removes entries.
  std::shared_ptr<const HandlerMap> handlers_;
  bool closed_ = false;
  std::uint64_t nextSlot_ = 0;

  // Threaded mode. Guarded by queueMutex_: head_, tail_, stopping_, waitingCallers_ and the
  // filling of a slot. Slots [head_, tail_) are pending; the log thread reads slot head_
  // without the lock, which is safe because no caller writes it until head_ has moved on.
  std::mutex queueMutex_;
  std::condition_variable wake_;      // log thread: a record is pending, or stop
  std::condition_variable progress_;  // callers waiting for a free slot, flush()
  std::uint64_t head_ = 0;
  std::uint64_t tail_ = 0;
  bool stopping_ = false;
  std::size_t waitingCallers_ = 0;
  std::thread thread_;

  std::array<Record, kSlotCount> slots_;
};

}  // namespace detail
}  // namespace log
}  // namespace tu

#endif  // VELMO_LOG_DETAIL_DISPATCHER_H_
