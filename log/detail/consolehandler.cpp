#include "log/detail/consolehandler.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace tu {
namespace log {

namespace {

constexpr std::size_t kCategoryColumnWidth = 16;
constexpr std::size_t kCategoryTailWidth = 13;  // leaves room for "..." in the column

LogLevel clampLevel(LogLevel level) {
  if (level < silent) {
    return silent;
  }
  if (level > debug) {
    return debug;
  }
  return level;
}

}  // namespace

const char* levelTag(LogLevel level) {
  static const char* const kTags[] = {"[SILENT]", "[FATAL]", "[ERROR]", "[WARN ]",
                                      "[INFO ]",  "[VERB ]", "[DEBUG]"};
  return kTags[clampLevel(level)];
}

ConsoleColour levelColour(LogLevel level) {
  switch (clampLevel(level)) {
    case fatal:
      return kColourLightMagenta;
    case error:
      return kColourLightRed;
    case warning:
      return kColourYellow;
    default:
      return kColourGrey;
  }
}

const char* colourEscape(ConsoleColour colour) {
  switch (colour) {
    case kColourLightRed:
      return "\033[1;31m";
    case kColourLightMagenta:
      return "\033[1;35m";
    case kColourYellow:
      return "\033[1;33m";
    case kColourGrey:
      break;
  }
  return "\033[0m";
}

std::string categoryColumn(const char* category) {
  std::string column = category != nullptr ? category : "(null)";
  if (column.size() < kCategoryColumnWidth) {
    column.resize(kCategoryColumnWidth, ' ');
  } else if (column.size() > kCategoryColumnWidth) {
    column = "..." + column.substr(column.size() - kCategoryTailWidth);
  }
  return column;
}

std::string formatTime(const LogTime& time) {
  return std::to_string(time.seconds) + "." + std::to_string(time.microseconds);
}

std::string formatHeader(int context, const LogTime& time, const char* category, const char* file,
                         const char* function, int line) {
  const std::string fileText = file != nullptr ? file : "(null)";
  const std::string functionText = function != nullptr ? function : "(null)";
  const std::string fileLine = fileText + "(" + std::to_string(line) + ")";
  switch (context) {
    case 1:
      return categoryColumn(category) + ": ";
    case 2:
      return formatTime(time) + " ";
    case 3:
      return fileLine + " ";
    case 4:
      return formatTime(time) + " " + categoryColumn(category) + ": ";
    case 5:
      if (line == 0) {
        return formatTime(time) + " ";
      }
      return formatTime(time) + " " + fileLine + " ";
    case 6:
      if (line == 0) {
        return categoryColumn(category) + ": ";
      }
      return categoryColumn(category) + ": " + fileLine + " ";
    case 7:
      if (line == 0) {
        return formatTime(time) + " " + categoryColumn(category) + ": " + functionText + " ";
      }
      return formatTime(time) + " " + categoryColumn(category) + ": " + fileLine + " " +
             functionText + " ";
    default:
      return std::string();
  }
}

std::string formatConsoleRecord(LogLevel level, const LogTime& time, const char* category,
                                const char* message, const char* file, const char* function,
                                int line, int verbosity, int context, bool colour) {
  if (level > verbosity) {
    return std::string();
  }
  std::string text;
  if (colour) {
    text += colourEscape(kColourGrey);
    text += colourEscape(levelColour(level));
  }
  text += levelTag(level);
  text += ' ';
  if (colour) {
    text += colourEscape(kColourGrey);
  }
  text += formatHeader(context, time, category, file, function, line);
  text += message != nullptr ? message : "(null)";
  return text;
}

bool shouldUseColour(bool isTerminal, const char* clicolor) {
  if (!isTerminal) {
    return false;
  }
  return clicolor == nullptr || std::atoi(clicolor) > 0;
}

bool stdoutWantsColour() {
  return shouldUseColour(isatty(STDOUT_FILENO) != 0, std::getenv("CLICOLOR"));
}

void ConsoleHandler::operator()(LogLevel level, const LogTime& time, const char* category,
                                const char* message, const char* file, const char* function,
                                int line) const {
  const std::string text = formatConsoleRecord(level, time, category, message, file, function, line,
                                               getVerbosity(), getContext(), colour_);
  if (text.empty()) {
    return;
  }
  // One write per record, so that another writer of the stream cannot split the line.
  std::fwrite(text.data(), 1, text.size(), out_);
  std::fflush(out_);
}

}  // namespace log
}  // namespace tu
