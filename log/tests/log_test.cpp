#include "log/log.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "log/tests/logtestsupport.h"

namespace tu {
namespace log {
namespace {

using testing::CapturedRecord;
using testing::RecordCapture;
using testing::ScopedLogHandler;

class LogTest : public testing::LogFacilityTest {};

std::string timeText(const LogTime& time) {
  return std::to_string(time.seconds) + "." + std::to_string(time.microseconds);
}

TEST_F(LogTest, DefaultsPrintInfoButNotVerbose) {
  EXPECT_EQ(getVerbosity(), 4);
  EXPECT_EQ(getContext(), 0);
  ::testing::internal::CaptureStdout();
  log(info, "core.common.broker", "Exit\n", "", "KX::KXBrokerImpl::shutdown", 0);
  log(verbose, "core.common.broker", "chatter\n", "", "KX::KXBrokerImpl::shutdown", 0);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "[INFO ] Exit\n");
}

TEST_F(LogTest, ContextSixPrintsCategoryFileAndLine) {
  init(info, 6, true);
  ::testing::internal::CaptureStdout();
  log(error, "core.thread", "boom\n", "thread/kxthread.cpp", "KX::KXThread::launch", 42);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "[ERROR] core.thread     : thread/kxthread.cpp(42) boom\n");
}

// Each context's header as printed, for a record with and without a line; the time comes
// from the record itself, as a second handler saw it.
TEST_F(LogTest, EveryContextOnTheConsole) {
  RecordCapture capture;
  const ScopedLogHandler captureHandler("capture", capture.handler());
  const char* const category = "core.thread";
  const char* const file = "thread/kxthread.cpp";
  const char* const function = "KX::KXThread::launch";
  const std::string column = "core.thread     ";

  for (int context = 0; context <= 7; ++context) {
    for (int line : {0, 42}) {
      SCOPED_TRACE("context " + std::to_string(context) + " line " + std::to_string(line));
      setContext(context);
      const std::size_t before = capture.records().size();
      ::testing::internal::CaptureStdout();
      log(warning, category, "text\n", file, function, line);
      const std::string printed = ::testing::internal::GetCapturedStdout();
      const std::vector<CapturedRecord> records = capture.records();
      ASSERT_EQ(records.size(), before + 1);
      const std::string time = timeText(records.back().time);
      const std::string fileLine = std::string(file) + "(" + std::to_string(line) + ")";

      std::string header;
      switch (context) {
        case 1:
          header = column + ": ";
          break;
        case 2:
          header = time + " ";
          break;
        case 3:
          header = fileLine + " ";
          break;
        case 4:
          header = time + " " + column + ": ";
          break;
        case 5:
          header = line == 0 ? time + " " : time + " " + fileLine + " ";
          break;
        case 6:
          header = line == 0 ? column + ": " : column + ": " + fileLine + " ";
          break;
        case 7:
          header = line == 0 ? time + " " + column + ": " + function + " "
                             : time + " " + column + ": " + fileLine + " " + function + " ";
          break;
        default:
          break;
      }
      EXPECT_EQ(printed, "[WARN ] " + header + "text\n");
    }
  }
}

TEST_F(LogTest, LongCategoryIsShownByItsTail) {
  init(info, 1, true);
  ::testing::internal::CaptureStdout();
  log(info, "abcdefghijklmnopqrst", "m\n", "", "f", 0);
  log(info, "abcdefghijklmnop", "m\n", "", "f", 0);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "[INFO ] ...hijklmnopqrst: m\n[INFO ] abcdefghijklmnop: m\n");
}

TEST_F(LogTest, HandlersReceiveEveryField) {
  RecordCapture capture;
  const ScopedLogHandler captureHandler("capture", capture.handler());
  log(debug, "behavior.box", "hidden on the console\n", "log/tests/log_test.cpp", "KX::f", 7);

  const std::vector<CapturedRecord> records = capture.records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].level, debug);
  EXPECT_EQ(records[0].category, "behavior.box");
  EXPECT_EQ(records[0].message, "hidden on the console\n");
  EXPECT_EQ(records[0].file, "log/tests/log_test.cpp");
  EXPECT_EQ(records[0].function, "KX::f");
  EXPECT_EQ(records[0].line, 7);
  EXPECT_EQ(records[0].thread, std::this_thread::get_id());  // synchronous
}

TEST_F(LogTest, FieldsAreCutAndNullTextsShownAsNull) {
  RecordCapture capture;
  const ScopedLogHandler captureHandler("capture", capture.handler());
  const std::string message(3000, 'm');
  const std::string category(100, 'c');
  log(info, category.c_str(), message.c_str(), nullptr, nullptr, 0);
  log(info, nullptr, nullptr, "f.cpp", "g", 1);

  const std::vector<CapturedRecord> records = capture.records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].message, std::string(2047, 'm'));
  EXPECT_EQ(records[0].category, std::string(63, 'c'));
  EXPECT_EQ(records[0].file, "(null)");
  EXPECT_EQ(records[0].function, "(null)");
  EXPECT_EQ(records[1].category, "(null)");
  EXPECT_EQ(records[1].message, "(null)");
}

TEST_F(LogTest, VerboseEnvironmentOverridesInit) {
  RecordCapture capture;
  const ScopedLogHandler captureHandler("capture", capture.handler());
  setenv("VERBOSE", "6", 1);
  ::testing::internal::CaptureStdout();
  init(info, 0, true);
  log(debug, "c", "debugging\n", "", "f", 0);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "[INFO ] Verbosity set to 6\n[INFO ] Context set to 0\n[DEBUG] debugging\n");
  EXPECT_EQ(getVerbosity(), 6);

  // The line goes through the handlers of the state that init then replaces.
  const std::vector<CapturedRecord> records = capture.records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].level, info);
  EXPECT_EQ(records[0].category, "tu.log");
  EXPECT_EQ(records[0].function, "tu::log::setVerbosity");
  EXPECT_EQ(records[0].message, "Verbosity set to 6\n");
  EXPECT_EQ(records[0].file, "");
  EXPECT_EQ(records[0].line, 0);
  EXPECT_EQ(records[1].function, "tu::log::setContext");
  EXPECT_EQ(records[1].message, "Context set to 0\n");
}

TEST_F(LogTest, ContextEnvironmentOverridesInit) {
  RecordCapture capture;
  const ScopedLogHandler captureHandler("capture", capture.handler());
  setenv("CONTEXT", "1", 1);
  init(info, 0, true);
  EXPECT_EQ(getContext(), 1);
  const std::vector<CapturedRecord> records = capture.records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[1].category, "tu.log");
  EXPECT_EQ(records[1].function, "tu::log::setContext");
  EXPECT_EQ(records[1].message, "Context set to 1\n");

  ::testing::internal::CaptureStdout();
  log(info, "core.thread", "m\n", "", "f", 0);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "[INFO ] core.thread     : m\n");
}

TEST_F(LogTest, SettersLogTheirValue) {
  RecordCapture capture;
  const ScopedLogHandler captureHandler("capture", capture.handler());
  setVerbosity(warning);
  setContext(3);
  EXPECT_EQ(getVerbosity(), 3);
  EXPECT_EQ(getContext(), 3);
  const std::vector<CapturedRecord> records = capture.records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].message, "Verbosity set to 3\n");
  EXPECT_EQ(records[1].message, "Context set to 3\n");
}

TEST_F(LogTest, EnvironmentOverridesTheSetters) {
  setenv("VERBOSE", "2", 1);
  setenv("CONTEXT", "7", 1);
  setVerbosity(debug);
  setContext(0);
  EXPECT_EQ(getVerbosity(), 2);
  EXPECT_EQ(getContext(), 7);
}

TEST_F(LogTest, LogStreamBecomesOneRecord) {
  RecordCapture capture;
  const ScopedLogHandler captureHandler("capture", capture.handler());
  {
    LogStream stream(warning, "a.cpp", "KX::KXProxy::call", 12, "core.common.proxy");
    stream << "value " << 42 << ", " << std::string("text") << std::endl;
    EXPECT_TRUE(capture.records().empty());  // nothing until the stream ends
  }
  LogStream(info, "", "KX::KXBrokerImpl::shutdown", 0, "core.common.broker") << "Exit" << std::endl;
  TU_LOG(error, "core.thread", "KX::KXThread::launch") << "failed " << 3 << std::endl;
  LogStream(info, nullptr, nullptr, 0, nullptr) << "x";

  const std::vector<CapturedRecord> records = capture.records();
  ASSERT_EQ(records.size(), 4u);
  EXPECT_EQ(records[0].level, warning);
  EXPECT_EQ(records[0].file, "a.cpp");
  EXPECT_EQ(records[0].function, "KX::KXProxy::call");
  EXPECT_EQ(records[0].line, 12);
  EXPECT_EQ(records[0].category, "core.common.proxy");
  EXPECT_EQ(records[0].message, "value 42, text\n");
  EXPECT_EQ(records[1].message, "Exit\n");
  EXPECT_EQ(records[1].category, "core.common.broker");
  EXPECT_EQ(records[2].level, error);
  EXPECT_EQ(records[2].file, "");
  EXPECT_EQ(records[2].line, 0);
  EXPECT_EQ(records[2].function, "KX::KXThread::launch");
  EXPECT_EQ(records[2].category, "core.thread");
  EXPECT_EQ(records[2].message, "failed 3\n");
  EXPECT_EQ(records[3].file, "(null)");
  EXPECT_EQ(records[3].function, "(null)");
  EXPECT_EQ(records[3].category, "(null)");
}

TEST_F(LogTest, HandlersRunInNameOrder) {
  std::vector<std::string> calls;
  const auto named = [&calls](const std::string& name) {
    return [&calls, name](LogLevel, const LogTime&, const char*, const char*, const char*,
                          const char*, int) { calls.push_back(name); };
  };
  const ScopedLogHandler zeta("zeta", named("zeta"));
  const ScopedLogHandler alpha("alpha", named("alpha"));
  const ScopedLogHandler delta("delta", named("delta"));
  // Replaces the console handler.
  const ScopedLogHandler console("consoleloghandler", named("consoleloghandler"));
  ::testing::internal::CaptureStdout();
  log(info, "c", "m\n", "", "f", 0);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(calls, (std::vector<std::string>{"alpha", "consoleloghandler", "delta", "zeta"}));
}

TEST_F(LogTest, SameNameReplacesAndRemoveStops) {
  int first = 0;
  int second = 0;
  addLogHandler("h", [&first](LogLevel, const LogTime&, const char*, const char*, const char*,
                              const char*, int) { ++first; });
  log(info, "c", "one\n", "", "f", 0);
  addLogHandler("h", [&second](LogLevel, const LogTime&, const char*, const char*, const char*,
                               const char*, int) { ++second; });
  log(info, "c", "two\n", "", "f", 0);
  removeLogHandler("h");
  removeLogHandler("never-added");
  log(info, "c", "three\n", "", "f", 0);
  EXPECT_EQ(first, 1);
  EXPECT_EQ(second, 1);
}

TEST_F(LogTest, RemovingTheConsoleHandlerSilencesTheConsole) {
  removeLogHandler("consoleloghandler");
  ::testing::internal::CaptureStdout();
  log(error, "c", "m\n", "", "f", 0);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
}

TEST_F(LogTest, InitDropsEarlierHandlers) {
  RecordCapture capture;
  const ScopedLogHandler captureHandler("capture", capture.handler());
  init(info, 0, true);
  const std::size_t seen = capture.records().size();  // the two settings lines
  log(info, "c", "after\n", "", "f", 0);
  EXPECT_EQ(seen, 2u);
  EXPECT_EQ(capture.records().size(), seen);
}

TEST_F(LogTest, HandlerMayLogAndChangeHandlers) {
  RecordCapture capture;
  const ScopedLogHandler captureHandler("capture", capture.handler());
  const std::string echoText = "echo\n";
  addLogHandler("echo", [echoText](LogLevel, const LogTime&, const char* category, const char*,
                                   const char*, const char*, int) {
    if (std::string(category) == "in") {
      // Replaces itself while running; its captured text must stay valid for the rest of
      // this call (the sanitizer builds catch it if not).
      addLogHandler("echo", [](LogLevel, const LogTime&, const char*, const char*, const char*,
                               const char*, int) {});
      log(info, "out", echoText.c_str(), "", "f", 0);
    }
  });
  log(info, "in", "m\n", "", "f", 0);
  log(info, "in", "m\n", "", "f", 0);

  const std::vector<CapturedRecord> records = capture.records();
  ASSERT_EQ(records.size(), 3u);
  // "capture" runs before "echo" (name order); the echo is dispatched inside the first
  // record's dispatch, and the second record finds "echo" replaced.
  EXPECT_EQ(records[0].category, "in");
  EXPECT_EQ(records[1].category, "out");
  EXPECT_EQ(records[1].message, "echo\n");
  EXPECT_EQ(records[2].category, "in");
}

// Synchronous handlers run on the callers' threads, but one call at a time.
TEST_F(LogTest, SynchronousHandlerCallsNeverOverlap) {
  removeLogHandler("consoleloghandler");
  std::atomic<int> inside{0};
  std::atomic<int> overlaps{0};
  std::atomic<int> calls{0};
  const ScopedLogHandler check("check", [&](LogLevel, const LogTime&, const char*, const char*,
                                            const char*, const char*, int) {
    if (inside.fetch_add(1) != 0) {
      ++overlaps;
    }
    ++calls;
    inside.fetch_sub(1);
  });
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 500; ++i) {
        log(info, "c", "m\n", "", "f", i);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(calls.load(), 2000);
  EXPECT_EQ(overlaps.load(), 0);
}

TEST_F(LogTest, ConsoleLinesFromManyThreadsStayWhole) {
  ::testing::internal::CaptureStdout();
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      const std::string message =
          "thread " + std::to_string(t) + " " + std::string(200, 'x') + "\n";
      for (int i = 0; i < 200; ++i) {
        log(info, "c", message.c_str(), "", "f", 0);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  std::istringstream printed(::testing::internal::GetCapturedStdout());
  std::string line;
  int lines = 0;
  while (std::getline(printed, line)) {
    ++lines;
    ASSERT_EQ(line.rfind("[INFO ] thread ", 0), 0u) << line;
    ASSERT_EQ(line.size(), std::string("[INFO ] thread 0 ").size() + 200) << line;
  }
  EXPECT_EQ(lines, 800);
}

}  // namespace
}  // namespace log
}  // namespace tu
