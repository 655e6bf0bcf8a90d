#include "log/detail/record.h"

#include <sys/time.h>

#include <cstring>

namespace tu {
namespace log {
namespace detail {

LogTime currentTime() {
  timeval now{};
  gettimeofday(&now, nullptr);
  LogTime time;
  time.seconds = static_cast<long>(now.tv_sec);
  time.microseconds = static_cast<long>(now.tv_usec);
  return time;
}

void copyField(char* field, std::size_t size, const char* text) {
  if (text == nullptr) {
    text = "(null)";
  }
  // strnlen stops at the field's capacity, so an overlong text is never read past what
  // is kept.
  const std::size_t length = strnlen(text, size - 1);
  std::memcpy(field, text, length);
  field[length] = '\0';
}

void fillRecord(Record& record, LogLevel level, const LogTime& time, const char* category,
                const char* message, const char* file, const char* function, int line) {
  record.level = level;
  record.time = time;
  record.line = line;
  copyField(record.category, sizeof(record.category), category);
  copyField(record.file, sizeof(record.file), file);
  copyField(record.function, sizeof(record.function), function);
  copyField(record.message, sizeof(record.message), message);
}

}  // namespace detail
}  // namespace log
}  // namespace tu
