#include "log/detail/dispatcher.h"

#include <utility>

namespace tu {
namespace log {
namespace detail {

std::shared_ptr<Dispatcher> Dispatcher::create(bool synchronous) {
  // The constructor is private (a threaded dispatcher must be started once it is owned),
  // so make_shared cannot reach it; this derived type only opens the door.
  struct Constructible : Dispatcher {
    explicit Constructible(bool sync) : Dispatcher(sync) {}
  };
  std::shared_ptr<Dispatcher> dispatcher = std::make_shared<Constructible>(synchronous);
  if (!synchronous) {
    dispatcher->start();
  }
  return dispatcher;
}

Dispatcher::Dispatcher(bool synchronous)
    : synchronous_(synchronous), handlers_(std::make_shared<const HandlerMap>()) {}

Dispatcher::~Dispatcher() {
  // The log thread holds a reference while it runs, so a thread still attached here means
  // the log thread itself dropped the last reference on its way out.
  if (thread_.joinable()) {
    thread_.detach();
  }
}

void Dispatcher::start() {
  // The thread keeps the dispatcher alive, so that a shutdown() requested by a handler
  // running on the log thread itself can detach it and let it finish on its own.
  std::shared_ptr<Dispatcher> self = shared_from_this();
  thread_ = std::thread([self] { self->run(); });
  logThreadId_ = thread_.get_id();
}

void Dispatcher::submit(LogLevel level, const char* category, const char* message, const char* file,
                        const char* function, int line) {
  const LogTime now = currentTime();

  if (synchronous_) {
    std::lock_guard<std::recursive_mutex> lock(handlerMutex_);
    if (closed_) {
      return;
    }
    Record& record = slots_[nextSlot_++ % kSlotCount];
    fillRecord(record, level, now, category, message, file, function, line);
    deliver(record);
    return;
  }

  if (onLogThread()) {
    // A handler that logs: waiting for a slot here would wait for ourselves.
    Record record;
    fillRecord(record, level, now, category, message, file, function, line);
    deliver(record);
    return;
  }

  {
    std::unique_lock<std::mutex> lock(queueMutex_);
    if (tail_ - head_ == kSlotCount) {
      // Every slot is pending: wait for the log thread rather than overwrite a record.
      ++waitingCallers_;
      progress_.wait(lock, [this] { return stopping_ || tail_ - head_ < kSlotCount; });
      --waitingCallers_;
    }
    if (stopping_) {
      return;
    }
    fillRecord(slots_[tail_ % kSlotCount], level, now, category, message, file, function, line);
    ++tail_;
  }
  wake_.notify_one();
}

void Dispatcher::run() {
  std::unique_lock<std::mutex> lock(queueMutex_);
  for (;;) {
    wake_.wait(lock, [this] { return stopping_ || head_ != tail_; });
    if (head_ == tail_) {
      break;  // stopping, and everything pending has been delivered
    }
    const Record& record = slots_[head_ % kSlotCount];
    lock.unlock();
    deliver(record);
    lock.lock();
    ++head_;
    progress_.notify_all();
  }
}

void Dispatcher::deliver(const Record& record) {
  std::lock_guard<std::recursive_mutex> lock(handlerMutex_);
  if (closed_) {
    return;
  }
  const std::shared_ptr<const HandlerMap> handlers = handlers_;
  for (const auto& entry : *handlers) {
    try {
      entry.second(record.level, record.time, record.category, record.message, record.file,
                   record.function, record.line);
    } catch (...) {
      // A failing handler must not take the others, or the log thread, down with it, and
      // the log facility has nowhere left to report its own failure.
    }
  }
}

void Dispatcher::addHandler(const std::string& name, LogHandler handler) {
  std::shared_ptr<const HandlerMap> previous;  // released after the lock, see removeHandler
  std::lock_guard<std::recursive_mutex> lock(handlerMutex_);
  if (closed_) {
    return;
  }
  auto next = std::make_shared<HandlerMap>(*handlers_);
  (*next)[name] = std::move(handler);
  previous = std::exchange(handlers_, std::move(next));
}

void Dispatcher::removeHandler(const std::string& name) {
  // The replaced map is destroyed once the lock is released (declared first), so a
  // handler's captured state is never destroyed while a handler call is running.
  std::shared_ptr<const HandlerMap> previous;
  std::lock_guard<std::recursive_mutex> lock(handlerMutex_);
  if (closed_ || handlers_->count(name) == 0) {
    return;
  }
  auto next = std::make_shared<HandlerMap>(*handlers_);
  next->erase(name);
  previous = std::exchange(handlers_, std::move(next));
}

void Dispatcher::flush() {
  if (synchronous_) {
    // Records of other threads are delivered under the handler lock: once we hold it,
    // every record logged before this call has been handled.
    std::lock_guard<std::recursive_mutex> lock(handlerMutex_);
    return;
  }
  if (onLogThread()) {
    return;  // called by a handler: the records after this one cannot be waited for here
  }
  std::unique_lock<std::mutex> lock(queueMutex_);
  const std::uint64_t target = tail_;
  progress_.wait(lock, [this, target] { return head_ >= target; });
}

std::size_t Dispatcher::waitingCallers() {
  std::lock_guard<std::mutex> lock(queueMutex_);
  return waitingCallers_;
}

void Dispatcher::shutdown() {
  if (!synchronous_) {
    {
      std::lock_guard<std::mutex> lock(queueMutex_);
      stopping_ = true;
    }
    wake_.notify_all();
    progress_.notify_all();  // callers waiting for a slot give up
    if (thread_.joinable()) {
      if (onLogThread()) {
        thread_.detach();  // a handler tore the facility down; the thread ends by itself
      } else {
        thread_.join();
      }
    }
  }

  std::shared_ptr<const HandlerMap> previous;  // handlers are destroyed outside the lock
  std::lock_guard<std::recursive_mutex> lock(handlerMutex_);
  closed_ = true;
  previous = std::exchange(handlers_, std::make_shared<const HandlerMap>());
}

}  // namespace detail
}  // namespace log
}  // namespace tu
