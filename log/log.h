#ifndef VELMO_LOG_LOG_H_
#define VELMO_LOG_LOG_H_

#include <functional>
#include <sstream>
#include <string>

// The process-wide log facility. Records carry a level, a category (a dotted name
// such as "core.thread"), a message, and the source file, function and line. They
// go to every registered handler, in name order, either at once on the caller's
// thread (synchronous) or through one log thread. The library installs the console
// handler "consoleloghandler" when it is loaded (verbosity 4, context 0,
// synchronous). Every function here may be called from any thread.
namespace tu {
namespace log {

enum LogLevel : int {
  silent = 0,
  fatal = 1,
  error = 2,
  warning = 3,
  info = 4,
  verbose = 5,
  debug = 6,
};

// Time of a record: seconds and microseconds of the wall clock.
struct LogTime {
  long seconds = 0;
  long microseconds = 0;
};

using LogHandler =
    std::function<void(LogLevel level, const LogTime& time, const char* category,
                       const char* message, const char* file, const char* function, int line)>;

// (Re)initialises the facility: applies setVerbosity and setContext, tears down any
// earlier state (pending records are delivered, then every handler is dropped), creates
// the console handler and, when not synchronous, the log thread.
void init(int verbosity, int context, bool synchronous);

// The environment variables "VERBOSE" and "CONTEXT", when set, override the argument.
void setVerbosity(int verbosity);
void setContext(int context);
int getVerbosity();
int getContext();

// Records one message. Does nothing before init. Null texts are recorded as "(null)".
void log(LogLevel level, const char* category, const char* message, const char* file,
         const char* function, int line);

// Registers `handler` under `name`, replacing an earlier handler of that name. Safe while
// records are being dispatched. Handlers are called one at a time; a handler may log (in
// asynchronous mode such a record is handled at once, ahead of the pending ones) and add or
// remove handlers, but must not call init. Once removeLogHandler (or a later init) returns,
// the removed handler is not called again (except, when a handler removes another, for the
// record being handled).
void addLogHandler(const std::string& name, LogHandler handler);
void removeLogHandler(const std::string& name);

// Waits until every record logged so far has reached the handlers. In asynchronous mode a
// caller that finds 128 records pending waits for a free slot, so no record is lost.
void flush();

// A string stream whose text becomes one record when the stream is destroyed:
//   tu::log::LogStream(tu::log::info, "", "KX::KXBrokerImpl::shutdown", 0,
//                      "core.common.broker") << "Exit" << std::endl;
class LogStream : public std::ostringstream {
 public:
  LogStream(LogLevel level, const char* file, const char* function, int line, const char* category);
  ~LogStream() override;

  LogStream(const LogStream&) = delete;
  LogStream& operator=(const LogStream&) = delete;

 private:
  LogLevel level_;
  std::string file_;
  std::string function_;
  int line_;
  std::string category_;
};

}  // namespace log
}  // namespace tu

// The one-line form used across the code base (empty file, line 0, as every record of the
// framework carries):
//   TU_LOG(tu::log::error, "core.thread", "KX::KXThread::launch") << "text" << std::endl;
#define TU_LOG(level, category, function) \
  ::tu::log::LogStream((level), "", (function), 0, (category))

#endif  // VELMO_LOG_LOG_H_
