// Records, the console format, the facility (synchronous, threaded, torn down), SDK layout.
#include "log/log.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "log/detail/consolehandler.h"
#include "log/detail/dispatcher.h"
#include "log/sdklayout.h"
#include "log/tests/logtestsupport.h"

namespace tu {
namespace log {
namespace {

using testing::LogCapture;

const LogTime kTime{1700000000, 5};  // printed "1700000000.5": microseconds are not padded

// A handler given the category, message and line of each record.
LogHandler handler(std::function<void(const std::string&, const std::string&, int)> body) {
  return [body](LogLevel, const LogTime&, const char* category, const char* message, const char*,
                const char*, int line) { body(category, message, line); };
}

// Logs `count` records from each of four threads: the message names the thread, the line counts.
void logFromThreads(int count, const char* category) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([=] {
      const std::string message = "thread " + std::to_string(t) + std::string(200, 'x') + "\n";
      for (int i = 0; i < count; ++i) log(info, category, message.c_str(), "", "f", i);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST(LogRecordTest, TextsAreCutToTheirFieldsAndNullShownAsNull) {
  detail::Record record;
  const std::string message(3000, 'm'), category(100, 'c'), file(200, 'f');
  detail::fillRecord(record, warning, LogTime{12, 34}, category.c_str(), message.c_str(),
                     file.c_str(), nullptr, 42);
  EXPECT_EQ(std::string(record.message) + record.category + record.file + record.function,
            std::string(2047, 'm') + std::string(63, 'c') + std::string(127, 'f') + "(null)");
  detail::fillRecord(record, info, LogTime{}, "b", "", "", "g", 2);  // a reused slot
  EXPECT_EQ(std::string(record.category) + record.message + record.file + record.function, "bg");
}

// Levels outside silent..debug show as the nearest one; a line is printed only when its
// level is within the verbosity; each context puts its own header before the message.
TEST(ConsoleFormatTest, LevelTagColourVerbosityAndContextHeader) {
  const std::string grey = "\x1b[0m";
  // clang-format off
  const struct { int level; const char* tag; std::string colour; } cases[] = {
      {-1, "[SILENT]", grey},  {fatal, "[FATAL]", "\x1b[1;35m"},  {error, "[ERROR]", "\x1b[1;31m"},
      {warning, "[WARN ]", "\x1b[1;33m"},  {info, "[INFO ]", grey},  {verbose, "[VERB ]", grey},
      {7, "[DEBUG]", grey},
  };
  // clang-format on
  for (const auto& c : cases) {
    const auto level = static_cast<LogLevel>(c.level);
    EXPECT_EQ(formatConsoleRecord(level, kTime, "c", "m", "", "f", 0, 7, 0, true) + "|" +
                  formatConsoleRecord(level, kTime, "c", nullptr, "", "f", 0, c.level, 0, false) +
                  formatConsoleRecord(level, kTime, "c", "m", "", "f", 0, c.level - 1, 0, false),
              grey + c.colour + c.tag + " " + grey + "m|" + c.tag + " (null)");
  }
  // Colour only on a terminal, and only when CLICOLOR is unset or a number above 0.
  std::string colour;
  for (const char* clicolor : {(const char*)nullptr, "2", "0", "x"}) {
    colour += "01"[shouldUseColour(true, clicolor)];
  }
  EXPECT_EQ(colour + "01"[shouldUseColour(false, nullptr)], "11000");

  const std::string time = "1700000000.5 ",
                    column = "core.thread     : ", fileLine = "thread/kxthread.cpp(42) ",
                    function = "KX::f ";
  // clang-format off
  const struct { int context, line; std::string header; } headers[] = {
      {0, 42, ""},  {1, 42, column},  {2, 42, time},  {3, 0, "thread/kxthread.cpp(0) "},
      {3, 42, fileLine},  {4, 42, time + column},  {5, 0, time},  {5, 42, time + fileLine},
      {6, 0, column},  {6, 42, column + fileLine},  {7, 0, time + column + function},
      {7, 42, time + column + fileLine + function},  {8, 42, ""},  {-1, 42, ""},
  };
  // clang-format on
  for (const auto& c : headers) {
    EXPECT_EQ(formatHeader(c.context, kTime, "core.thread", "thread/kxthread.cpp", "KX::f", c.line),
              c.header)
        << c.context << " " << c.line;
  }
  // The category column is cut or padded to 16.
  EXPECT_EQ(categoryColumn("abcdefghijklmno") + categoryColumn("abcdefghijklmnop") +
                categoryColumn("abcdefghijklmnopq") + categoryColumn(""),
            "abcdefghijklmno abcdefghijklmnop...efghijklmnopq                ");
}

// Each test starts from the library's default state, without colour or overrides.
class LogTest : public ::testing::Test {
 protected:
  void SetUp() override { reset(); }
  void TearDown() override { reset(); }
  static void reset() {
    setenv("CLICOLOR", "0", 1);
    unsetenv("VERBOSE");
    unsetenv("CONTEXT");
    init(info, 0, true);
  }
};

// By default info is printed, verbose not; VERBOSE and CONTEXT override init and the setters,
// which log the value they set.
TEST_F(LogTest, TheConsoleFollowsTheSettings) {
  ::testing::internal::CaptureStdout();
  log(info, "core.common.broker", "Exit\n", "", "KX::KXBrokerImpl::shutdown", 0);
  log(verbose, "core.common.broker", "chatter\n", "", "KX::KXBrokerImpl::shutdown", 0);
  setenv("VERBOSE", "6", 1);
  setenv("CONTEXT", "6", 1);
  init(info, 0, true);
  log(debug, "core.thread", "boom\n", "thread/kxthread.cpp", "KX::KXThread::launch", 42);
  unsetenv("VERBOSE");
  setVerbosity(warning);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "[INFO ] Exit\n[INFO ] Verbosity set to 6\n[INFO ] tu.log          : Context set to 6\n"
            "[DEBUG] core.thread     : thread/kxthread.cpp(42) boom\n");
  EXPECT_EQ(getVerbosity() * 10 + getContext(), 36);
}

// In name order; a handler that throws does not keep the others from the record; a handler
// may log (the record is handled inside the current one); init drops every handler but a
// fresh console.
TEST_F(LogTest, HandlersRunInNameOrderAndReplaceByName) {
  std::string calls;
  const auto named = [&calls](const std::string& name) {
    return handler([&calls, name](auto&, auto& message, int) { calls += name + message + "|"; });
  };
  addLogHandler("zeta", named("zeta"));
  addLogHandler("alpha", handler([&](auto&, const std::string& message, int) {
                  calls += "alpha" + message + "|";
                  if (message == "1") log(info, "c", "echo", "", "f", 0);
                }));
  addLogHandler("beta", handler([](auto&, auto&, int) { throw std::runtime_error("failed"); }));
  addLogHandler("consoleloghandler", named("console"));
  ::testing::internal::CaptureStdout();
  log(info, "c", "1", "", "f", 0);
  addLogHandler("alpha", named("ALPHA"));
  removeLogHandler("zeta");
  log(info, "c", "2", "", "f", 0);
  init(info, 0, true);
  log(info, "c", "3\n", "", "f", 0);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "[INFO ] 3\n");
  EXPECT_EQ(
      calls,
      "alpha1|alphaecho|consoleecho|zetaecho|console1|zeta1|ALPHA2|console2|ALPHAVerbosity "
      "set to 4\n|consoleVerbosity set to 4\n|ALPHAContext set to 0\n|consoleContext set to 0\n|");
}

// Synchronous handlers run on the callers' threads one call at a time, so console lines never
// interleave; threaded, each thread's records reach the one log thread in its order.
TEST_F(LogTest, ManyThreadsLogging) {
  for (const bool synchronous : {true, false}) {
    SCOPED_TRACE(synchronous);
    init(info, 0, synchronous);
    LogCapture capture;
    std::atomic<int> inside{0}, overlaps{0};
    addLogHandler("check", handler([&](auto&, auto&, int) {
                    overlaps += inside.fetch_add(1) != 0;
                    std::this_thread::yield();  // slower than the callers
                    inside.fetch_sub(1);
                  }));
    ::testing::internal::CaptureStdout();
    logFromThreads(200, "c");
    const auto records = capture.records();
    std::istringstream printed(::testing::internal::GetCapturedStdout());
    removeLogHandler("check");
    int lines = 0;
    for (std::string line; std::getline(printed, line); ++lines) {
      ASSERT_EQ(line.substr(0, 15) + std::to_string(line.size()), "[INFO ] thread 216") << line;
    }
    EXPECT_EQ(std::to_string(lines) + " lines, " + std::to_string(records.size()) +
                  " records, overlaps: " + std::to_string(overlaps),
              "800 lines, 800 records, overlaps: 0");
    std::vector<int> next(4, 0);
    std::set<std::thread::id> handlerThreads;
    for (const auto& record : records) {
      ASSERT_EQ(record.line, next.at(record.message[7] - '0')++);
      handlerThreads.insert(record.thread);
    }
    EXPECT_EQ(handlerThreads.size(), synchronous ? 4u : 1u);
  }
}

// Replaced again and again while records flow, "count" gets each record exactly once; a
// handler on the log thread may log and flush meanwhile; a later init delivers what is pending.
TEST_F(LogTest, ChangingHandlersWhileRecordsFlow) {
  init(info, 0, false);
  removeLogHandler("consoleloghandler");
  std::atomic<int> count{0}, echoes{0};
  addLogHandler("count", handler([&count](auto&, auto&, int) { ++count; }));
  addLogHandler("echo", handler([&echoes](const std::string& category, auto&, int) {
                  echoes += category == "out";
                  if (category == "c") log(info, "out", "echo\n", "", "f", 0);
                  if (category == "c") flush();  // must not wait for itself
                }));
  std::thread producer([] { logFromThreads(500, "c"); });
  for (int i = 0; i < 200; ++i) {
    addLogHandler("count", handler([&count](auto&, auto&, int) { ++count; }));
    addLogHandler("other", handler([](auto&, auto&, int) {}));
    removeLogHandler("other");
  }
  producer.join();
  init(info, 0, true);  // delivers what is pending (and the two settings lines) first
  // Records logged by a handler while init drains the ring find no facility and are dropped.
  EXPECT_GE(echoes.load(), 2000 - static_cast<int>(detail::kSlotCount));
  EXPECT_EQ(count.load(), 2002 + echoes.load());
}

// A thread logging while the process exits: the facility is torn down under it.
void exitWhileAThreadLogs() {
  init(info, 0, false);
  std::promise<void> started;
  std::thread([&started] {
    log(verbose, "c", "m\n", "", "f", 0);
    started.set_value();
    for (int i = 1; i < 100000000; ++i) log(verbose, "c", "m\n", "", "f", i);
  }).detach();
  started.get_future().wait();
  std::exit(0);
}

TEST(LogExitTest, LoggingDuringProcessExitIsSafe) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(exitWhileAThreadLogs(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace log

namespace path {
namespace {

namespace fs = std::filesystem;

// The data folder sits beside the lib/ of the loaded library: here <build>/share/velmo.
TEST(SdkLayoutTest, DataFolderIsShareVelmoBesideTheLibrary) {
  const fs::path build = fs::read_symlink("/proc/self/exe").parent_path().parent_path();
  EXPECT_EQ(libraryDir(), fs::canonical(build / "lib"));
  const fs::path data = fs::canonical(build / "share" / "velmo");
  EXPECT_EQ(sdkDataDir(), data);
  EXPECT_EQ(docRoot(), data / "web" / "doc");
  EXPECT_EQ(resolveDocPath("/xsl/broker.xsl"), data / "web" / "doc" / "xsl" / "broker.xsl");
  // The content type goes by the first of ".js", ".xsl", ".css" anywhere in the path.
  EXPECT_EQ(docContentType("/a.js.css").value_or("") + docContentType("/a.xsl.css").value_or("") +
                docContentType("/a.css").value_or("") + docContentType("/a.JS").value_or("-"),
            "application/javascripttext/xmltext/css-");
}

// A root with pages, links inside and out, and a secret beside it.
TEST(SdkLayoutTest, ResolveDocPathStaysUnderTheRoot) {
  std::string pattern = (fs::temp_directory_path() / "sdklayout_test.XXXXXX").string();
  ASSERT_NE(mkdtemp(pattern.data()), nullptr);
  const fs::path base = fs::canonical(pattern), root = base / "doc";
  for (const char* dir : {"doc/xsl", "doc/empty", "outside"}) fs::create_directories(base / dir);
  for (const char* file : {"doc/index.txt", "doc/xsl/page.xsl", "outside/secret.txt"}) {
    std::ofstream(base / file) << file;
  }
  fs::create_symlink("../outside/secret.txt", root / "leak.txt");
  fs::create_symlink("xsl/page.xsl", root / "alias.xsl");
  const fs::path index = root / "index.txt";
  const std::optional<fs::path> none;
  // Any climb is refused, even back inside: no page needs one. A NUL would end the name early.
  // clang-format off
  const struct { fs::path root; std::string request; std::optional<fs::path> file; } cases[] = {
      {root, "//index.txt", index},
      {root, "/xsl/../alias.xsl", none},  {root, "/alias.xsl", root / "xsl" / "page.xsl"},
      {root, "/leak.txt", none},  {root, "/empty", none},
      {root, (base / "outside/secret.txt").string(), none},  {base / "no-root", "/index.txt", none},
      {root, "/missing.txt", none},  {root, "", none},
      {root, std::string("/index.txt\0.css", 15), none},
  };
  // clang-format on
  for (const auto& c : cases) EXPECT_EQ(resolveDocPath(c.root, c.request), c.file) << c.request;
  fs::remove_all(base);
}

}  // namespace
}  // namespace path
}  // namespace tu
