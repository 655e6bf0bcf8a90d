#ifndef VELMO_LOG_DETAIL_CONSOLEHANDLER_H_
#define VELMO_LOG_DETAIL_CONSOLEHANDLER_H_

#include <cstdio>
#include <string>

#include "log/log.h"

namespace tu {
namespace log {

// Console text attributes in which the levels are shown; they are written out as ANSI
// escape sequences.
enum ConsoleColour : int {
  kColourGrey = 0x07,  // the console's normal colour
  kColourLightRed = 0x0C,
  kColourLightMagenta = 0x0D,
  kColourYellow = 0x0E,
};

// "[INFO ]" and the like; levels outside silent..debug are shown as the nearest one.
const char* levelTag(LogLevel level);
ConsoleColour levelColour(LogLevel level);
// The escape sequence that switches the terminal to `colour` (grey is a reset).
const char* colourEscape(ConsoleColour colour);

// The category cut or padded to a 16-character column.
std::string categoryColumn(const char* category);
// Seconds, ".", microseconds, both without padding.
std::string formatTime(const LogTime& time);
// The header that `context` (0 to 7) puts before the message; other contexts add none.
std::string formatHeader(int context, const LogTime& time, const char* category, const char* file,
                         const char* function, int line);
// The whole console line for one record, or "" when `level` is above `verbosity`.
std::string formatConsoleRecord(LogLevel level, const LogTime& time, const char* category,
                                const char* message, const char* file, const char* function,
                                int line, int verbosity, int context, bool colour);

// Colour is used only on a terminal, and only when "CLICOLOR" is unset or a number above 0.
bool shouldUseColour(bool isTerminal, const char* clicolor);
// The decision above for the process's standard output and environment.
bool stdoutWantsColour();

// The handler installed as "consoleloghandler": prints each record whose level is within
// the current verbosity to `out`, with the header of the current context, and flushes.
// Copyable; the stream is not owned and must outlive every copy.
class ConsoleHandler {
 public:
  ConsoleHandler(std::FILE* out, bool colour) : out_(out), colour_(colour) {}

  void operator()(LogLevel level, const LogTime& time, const char* category, const char* message,
                  const char* file, const char* function, int line) const;

 private:
  std::FILE* out_;
  bool colour_;
};

}  // namespace log
}  // namespace tu

#endif  // VELMO_LOG_DETAIL_CONSOLEHANDLER_H_
