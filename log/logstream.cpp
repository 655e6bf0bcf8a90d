#include "log/log.h"

namespace tu {
namespace log {

namespace {

// A null text is kept as the text the record would show for it.
std::string textOrNull(const char* text) { return text != nullptr ? text : "(null)"; }

}  // namespace

LogStream::LogStream(LogLevel level, const char* file, const char* function, int line,
                     const char* category)
    : level_(level),
      file_(textOrNull(file)),
      function_(textOrNull(function)),
      line_(line),
      category_(textOrNull(category)) {}

LogStream::~LogStream() {
  const std::string message = str();
  log(level_, category_.c_str(), message.c_str(), file_.c_str(), function_.c_str(), line_);
}

}  // namespace log
}  // namespace tu
