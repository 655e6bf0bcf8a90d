#include "log/consolehandler.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <ostream>
#include <string>

#include "log/tests/logtestsupport.h"

namespace tu {
namespace log {
namespace {

const LogTime kTime{1700000000, 5};  // printed "1700000000.5": microseconds are not padded

TEST(ConsoleFormatTest, LevelTags) {
  EXPECT_STREQ(levelTag(silent), "[SILENT]");
  EXPECT_STREQ(levelTag(fatal), "[FATAL]");
  EXPECT_STREQ(levelTag(error), "[ERROR]");
  EXPECT_STREQ(levelTag(warning), "[WARN ]");
  EXPECT_STREQ(levelTag(info), "[INFO ]");
  EXPECT_STREQ(levelTag(verbose), "[VERB ]");
  EXPECT_STREQ(levelTag(debug), "[DEBUG]");
}

TEST(ConsoleFormatTest, LevelColours) {
  EXPECT_EQ(levelColour(silent), 0x07);
  EXPECT_EQ(levelColour(fatal), 0x0D);
  EXPECT_EQ(levelColour(error), 0x0C);
  EXPECT_EQ(levelColour(warning), 0x0E);
  EXPECT_EQ(levelColour(info), 0x07);
  EXPECT_EQ(levelColour(verbose), 0x07);
  EXPECT_EQ(levelColour(debug), 0x07);
}

TEST(ConsoleFormatTest, CategoryColumn) {
  EXPECT_EQ(categoryColumn("core.thread"), "core.thread     ");
  EXPECT_EQ(categoryColumn(""), std::string(16, ' '));
  EXPECT_EQ(categoryColumn("abcdefghijklmno"), "abcdefghijklmno ");       // 15
  EXPECT_EQ(categoryColumn("abcdefghijklmnop"), "abcdefghijklmnop");      // exactly 16
  EXPECT_EQ(categoryColumn("abcdefghijklmnopq"), "...efghijklmnopq");     // 17
  EXPECT_EQ(categoryColumn("core.common.broker"), "...common.broker");    // 18
  EXPECT_EQ(categoryColumn("abcdefghijklmnopqrst"), "...hijklmnopqrst");  // 20
  EXPECT_EQ(categoryColumn("abcdefghijklmnopqrst").size(), 16u);
}

TEST(ConsoleFormatTest, TimeIsSecondsPointMicroseconds) {
  EXPECT_EQ(formatTime(kTime), "1700000000.5");
  EXPECT_EQ(formatTime(LogTime{3, 999999}), "3.999999");
  EXPECT_EQ(formatTime(LogTime{0, 0}), "0.0");
}

struct HeaderCase {
  int context;
  int line;
  const char* header;
};

void PrintTo(const HeaderCase& c, std::ostream* out) {
  *out << "context " << c.context << ", line " << c.line;
}

class ConsoleHeaderTest : public ::testing::TestWithParam<HeaderCase> {};

TEST_P(ConsoleHeaderTest, HeaderOfContext) {
  const HeaderCase& c = GetParam();
  EXPECT_EQ(formatHeader(c.context, kTime, "core.thread", "thread/kxthread.cpp",
                         "KX::KXThread::launch", c.line),
            c.header);
}

INSTANTIATE_TEST_SUITE_P(
    AllContexts, ConsoleHeaderTest,
    ::testing::Values(
        HeaderCase{0, 0, ""}, HeaderCase{0, 42, ""}, HeaderCase{1, 0, "core.thread     : "},
        HeaderCase{1, 42, "core.thread     : "}, HeaderCase{2, 0, "1700000000.5 "},
        HeaderCase{2, 42, "1700000000.5 "}, HeaderCase{3, 0, "thread/kxthread.cpp(0) "},
        HeaderCase{3, 42, "thread/kxthread.cpp(42) "},
        HeaderCase{4, 0, "1700000000.5 core.thread     : "},
        HeaderCase{4, 42, "1700000000.5 core.thread     : "}, HeaderCase{5, 0, "1700000000.5 "},
        HeaderCase{5, 42, "1700000000.5 thread/kxthread.cpp(42) "},
        HeaderCase{6, 0, "core.thread     : "},
        HeaderCase{6, 42, "core.thread     : thread/kxthread.cpp(42) "},
        HeaderCase{7, 0, "1700000000.5 core.thread     : KX::KXThread::launch "},
        HeaderCase{7, 42,
                   "1700000000.5 core.thread     : thread/kxthread.cpp(42) KX::KXThread::launch "},
        HeaderCase{8, 42, ""}, HeaderCase{-1, 42, ""}),
    [](const ::testing::TestParamInfo<HeaderCase>& info) {
      const int context = info.param.context;
      return (context < 0 ? "Minus" + std::to_string(-context) : std::to_string(context)) + "Line" +
             std::to_string(info.param.line);
    });

TEST(ConsoleFormatTest, LineWithoutColour) {
  EXPECT_EQ(formatConsoleRecord(error, kTime, "core.thread", "boom\n", "thread/kxthread.cpp",
                                "KX::f", 42, info, 6, false),
            "[ERROR] core.thread     : thread/kxthread.cpp(42) boom\n");
  EXPECT_EQ(formatConsoleRecord(info, kTime, "c", "hello\n", "", "f", 0, info, 0, false),
            "[INFO ] hello\n");
  EXPECT_EQ(formatConsoleRecord(silent, kTime, "c", "x", "", "f", 0, info, 0, false), "[SILENT] x");
}

TEST(ConsoleFormatTest, MessageIsPrintedUnchanged) {
  const std::string message = "a %s %d\tb\n\nc";
  EXPECT_EQ(formatConsoleRecord(info, kTime, "c", message.c_str(), "", "f", 0, info, 0, false),
            "[INFO ] " + message);
}

TEST(ConsoleFormatTest, VerbosityFilter) {
  EXPECT_EQ(formatConsoleRecord(verbose, kTime, "c", "m\n", "", "f", 0, info, 0, false), "");
  EXPECT_EQ(formatConsoleRecord(debug, kTime, "c", "m\n", "", "f", 0, info, 0, false), "");
  EXPECT_EQ(formatConsoleRecord(info, kTime, "c", "m\n", "", "f", 0, info, 0, false),
            "[INFO ] m\n");
  EXPECT_EQ(formatConsoleRecord(debug, kTime, "c", "m\n", "", "f", 0, debug, 0, false),
            "[DEBUG] m\n");
  EXPECT_EQ(formatConsoleRecord(error, kTime, "c", "m\n", "", "f", 0, warning, 0, false),
            "[ERROR] m\n");
  EXPECT_EQ(formatConsoleRecord(error, kTime, "c", "m\n", "", "f", 0, fatal, 0, false), "");
  EXPECT_EQ(formatConsoleRecord(fatal, kTime, "c", "m\n", "", "f", 0, silent, 0, false), "");
}

TEST(ConsoleFormatTest, ColourEscapes) {
  EXPECT_STREQ(colourEscape(kColourGrey), "\x1b[0m");
  EXPECT_STREQ(colourEscape(kColourLightRed), "\x1b[1;31m");
  EXPECT_STREQ(colourEscape(kColourLightMagenta), "\x1b[1;35m");
  EXPECT_STREQ(colourEscape(kColourYellow), "\x1b[1;33m");
}

TEST(ConsoleFormatTest, ColouredLinesResetSetTagAndResetAgain) {
  EXPECT_EQ(formatConsoleRecord(error, kTime, "core.thread", "boom\n", "", "f", 0, info, 1, true),
            "\x1b[0m\x1b[1;31m[ERROR] \x1b[0mcore.thread     : boom\n");
  EXPECT_EQ(formatConsoleRecord(fatal, kTime, "c", "m\n", "", "f", 0, info, 0, true),
            "\x1b[0m\x1b[1;35m[FATAL] \x1b[0mm\n");
  EXPECT_EQ(formatConsoleRecord(warning, kTime, "c", "m\n", "", "f", 0, info, 0, true),
            "\x1b[0m\x1b[1;33m[WARN ] \x1b[0mm\n");
  EXPECT_EQ(formatConsoleRecord(info, kTime, "c", "m\n", "", "f", 0, info, 0, true),
            "\x1b[0m\x1b[0m[INFO ] \x1b[0mm\n");
  EXPECT_EQ(formatConsoleRecord(verbose, kTime, "c", "m\n", "", "f", 0, info, 0, true), "");
}

TEST(ConsoleFormatTest, ColourDecision) {
  EXPECT_FALSE(shouldUseColour(false, nullptr));
  EXPECT_FALSE(shouldUseColour(false, "1"));
  EXPECT_TRUE(shouldUseColour(true, nullptr));
  EXPECT_TRUE(shouldUseColour(true, "1"));
  EXPECT_TRUE(shouldUseColour(true, "2"));
  EXPECT_FALSE(shouldUseColour(true, "0"));
  EXPECT_FALSE(shouldUseColour(true, "-1"));
  EXPECT_FALSE(shouldUseColour(true, "yes"));
  EXPECT_FALSE(shouldUseColour(true, ""));
}

TEST(ConsoleFormatTest, CapturedStdoutIsNotATerminal) {
  testing::EnvironmentGuard clicolor("CLICOLOR");
  unsetenv("CLICOLOR");
  ::testing::internal::CaptureStdout();
  const bool colour = stdoutWantsColour();
  ::testing::internal::GetCapturedStdout();
  EXPECT_FALSE(colour);
}

// The handler writes whole lines to its stream and reads the current settings.
class ConsoleHandlerTest : public testing::LogFacilityTest {};

std::string readAll(std::FILE* file) {
  std::rewind(file);
  std::string text;
  char buffer[256];
  std::size_t count = 0;
  while ((count = std::fread(buffer, 1, sizeof(buffer), file)) > 0) {
    text.append(buffer, count);
  }
  return text;
}

TEST_F(ConsoleHandlerTest, WritesTheFormattedLine) {
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::tmpfile(), &std::fclose);
  ASSERT_NE(file, nullptr);
  const ConsoleHandler handler(file.get(), true);
  setContext(6);
  handler(error, kTime, "core.thread", "boom\n", "thread/kxthread.cpp", "KX::f", 42);
  handler(verbose, kTime, "core.thread", "hidden\n", "", "KX::f", 0);
  EXPECT_EQ(readAll(file.get()),
            "\x1b[0m\x1b[1;31m[ERROR] \x1b[0mcore.thread     : thread/kxthread.cpp(42) boom\n");
}

TEST_F(ConsoleHandlerTest, FollowsVerbosityChanges) {
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::tmpfile(), &std::fclose);
  ASSERT_NE(file, nullptr);
  const ConsoleHandler handler(file.get(), false);
  setVerbosity(debug);
  handler(debug, kTime, "c", "shown\n", "", "f", 0);
  setVerbosity(warning);
  handler(info, kTime, "c", "hidden\n", "", "f", 0);
  handler(warning, kTime, "c", "warned\n", "", "f", 0);
  EXPECT_EQ(readAll(file.get()), "[DEBUG] shown\n[WARN ] warned\n");
}

}  // namespace
}  // namespace log
}  // namespace tu
