#ifndef VELMO_LOG_DETAIL_RECORD_H_
#define VELMO_LOG_DETAIL_RECORD_H_

#include <cstddef>

#include "log/log.h"

namespace tu {
namespace log {
namespace detail {

// Number of record slots in the ring; also the most records that can be pending for the
// log thread at once.
constexpr std::size_t kSlotCount = 128;

// One log record with fixed-size texts, so that filling a slot never allocates. Each text
// field holds at most (size - 1) characters plus the terminating NUL.
struct Record {
  LogLevel level = silent;
  LogTime time;
  int line = 0;
  char category[64] = {};
  char file[128] = {};
  char function[64] = {};
  char message[2048] = {};
};

// Wall-clock time of day, as gettimeofday gives it.
LogTime currentTime();

// Copies `text` into `field` (of `size` bytes), cut to size - 1 characters; a null text is
// stored as "(null)".
void copyField(char* field, std::size_t size, const char* text);

// Fills every field of `record`, cutting the texts to their field sizes.
void fillRecord(Record& record, LogLevel level, const LogTime& time, const char* category,
                const char* message, const char* file, const char* function, int line);

}  // namespace detail
}  // namespace log
}  // namespace tu

#endif  // VELMO_LOG_DETAIL_RECORD_H_
