#include "log/log.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <utility>

#include "log/detail/consolehandler.h"
#include "log/detail/dispatcher.h"
#include "log/processwide.h"

namespace tu {
namespace log {

namespace {

// Process-wide state of the facility. Settings live here; everything tied to one
// initialisation (handlers, ring, log thread) lives in the current dispatcher.
struct Facility {
  std::atomic<int> verbosity{info};
  std::atomic<int> context{0};

  // Serialises init and tear-down, so two of them never interleave.
  std::mutex lifecycleMutex;

  // Guards `dispatcher`. Callers copy the handle and release the lock before dispatching,
  // so a tear-down never waits on a running handler while holding it.
  std::mutex dispatcherMutex;
  std::shared_ptr<detail::Dispatcher> dispatcher;  // null: not initialised
};

Facility& facility() {
  // Objects torn down at process exit, in any order, may still log; after the tear-down
  // below their records are simply dropped.
  static tu::ProcessWide<Facility> instance;
  return instance.get();
}

std::shared_ptr<detail::Dispatcher> currentDispatcher() {
  Facility& state = facility();
  std::lock_guard<std::mutex> lock(state.dispatcherMutex);
  return state.dispatcher;
}

// Requires lifecycleMutex. Delivers what is pending and joins the log thread.
void tearDownLocked(Facility& state) {
  std::shared_ptr<detail::Dispatcher> previous;
  {
    std::lock_guard<std::mutex> lock(state.dispatcherMutex);
    previous = std::exchange(state.dispatcher, nullptr);
  }
  if (previous) {
    previous->shutdown();
  }
}

// Reads an integer override from the environment.
bool environmentOverride(const char* name, int& value) {
  const char* text = std::getenv(name);
  if (text == nullptr) {
    return false;
  }
  value = std::atoi(text);
  return true;
}

// Initialises the facility when the library is loaded and tears it down at process exit.
struct LoadTimeInitialiser {
  LoadTimeInitialiser() { init(info, 0, true); }
  ~LoadTimeInitialiser() {
    Facility& state = facility();
    std::lock_guard<std::mutex> lock(state.lifecycleMutex);
    tearDownLocked(state);
  }
  LoadTimeInitialiser(const LoadTimeInitialiser&) = delete;
  LoadTimeInitialiser& operator=(const LoadTimeInitialiser&) = delete;
};

const LoadTimeInitialiser loadTimeInitialiser;

}  // namespace

void init(int verbosity, int context, bool synchronous) {
  setVerbosity(verbosity);
  setContext(context);

  Facility& state = facility();
  std::lock_guard<std::mutex> lock(state.lifecycleMutex);
  tearDownLocked(state);

  std::shared_ptr<detail::Dispatcher> dispatcher = detail::Dispatcher::create(synchronous);
  dispatcher->addHandler("consoleloghandler", ConsoleHandler(stdout, stdoutWantsColour()));

  std::lock_guard<std::mutex> publish(state.dispatcherMutex);
  state.dispatcher = std::move(dispatcher);
}

void setVerbosity(int verbosity) {
  environmentOverride("VERBOSE", verbosity);
  facility().verbosity.store(verbosity);
  LogStream(info, "", "tu::log::setVerbosity", 0, "tu.log")
      << "Verbosity set to " << verbosity << std::endl;
}

void setContext(int context) {
  environmentOverride("CONTEXT", context);
  facility().context.store(context);
  LogStream(info, "", "tu::log::setContext", 0, "tu.log")
      << "Context set to " << context << std::endl;
}

int getVerbosity() { return facility().verbosity.load(); }

int getContext() { return facility().context.load(); }

void log(LogLevel level, const char* category, const char* message, const char* file,
         const char* function, int line) {
  if (std::shared_ptr<detail::Dispatcher> dispatcher = currentDispatcher()) {
    dispatcher->submit(level, category, message, file, function, line);
  }
}

void addLogHandler(const std::string& name, LogHandler handler) {
  if (std::shared_ptr<detail::Dispatcher> dispatcher = currentDispatcher()) {
    dispatcher->addHandler(name, std::move(handler));
  }
}

void removeLogHandler(const std::string& name) {
  if (std::shared_ptr<detail::Dispatcher> dispatcher = currentDispatcher()) {
    dispatcher->removeHandler(name);
  }
}

void flush() {
  if (std::shared_ptr<detail::Dispatcher> dispatcher = currentDispatcher()) {
    dispatcher->flush();
  }
}

}  // namespace log
}  // namespace tu
