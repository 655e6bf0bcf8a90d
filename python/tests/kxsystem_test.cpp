#include "python/kxsystem.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <vector>

#include "log/log.h"
#include "log/tests/logtestsupport.h"

namespace KX {
namespace python {
namespace {

namespace fs = std::filesystem;

// A fresh directory under the system's temporary folder, removed with its content.
class TempDir {
 public:
  TempDir() {
    std::string pattern = (fs::temp_directory_path() / "kxsystem_test.XXXXXX").string();
    path_ = mkdtemp(pattern.data()) ? fs::path(pattern) : fs::path();
  }
  ~TempDir() {
    std::error_code ignored;
    if (!path_.empty()) fs::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const fs::path& path() const { return path_; }

 private:
  fs::path path_;
};

using tu::log::testing::LogCapture;
using Record = tu::log::testing::CapturedRecord;

// "touch <dir>/f1 ... <dir>/f<n>": a command of n + 1 words.
std::string touchCommand(const fs::path& dir, int files) {
  std::string command = "touch";
  for (int i = 1; i <= files; ++i) command += " " + (dir / ("f" + std::to_string(i))).string();
  return command;
}

std::string contentOf(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TEST(KXSystem, NullCommandRunsNothing) {
  LogCapture capture;
  EXPECT_FALSE(kxSystem(nullptr));
  EXPECT_TRUE(capture.records().empty());
}

TEST(KXSystem, TwentyWordsRun) {
  TempDir dir;
  ASSERT_FALSE(dir.path().empty());
  LogCapture capture;
  EXPECT_TRUE(kxSystem(touchCommand(dir.path(), 19).c_str()));
  for (int i = 1; i <= 19; ++i) EXPECT_TRUE(fs::exists(dir.path() / ("f" + std::to_string(i))));
  EXPECT_TRUE(capture.records().empty());
}

TEST(KXSystem, TwentyOneWordsAreRefusedAndLogged) {
  TempDir dir;
  ASSERT_FALSE(dir.path().empty());
  LogCapture capture;
  EXPECT_FALSE(kxSystem(touchCommand(dir.path(), 20).c_str()));
  EXPECT_FALSE(fs::exists(dir.path() / "f1"));
  const std::vector<Record> records = capture.records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].level, tu::log::error);
  EXPECT_EQ(records[0].category, "behavior.ivelmo");
  EXPECT_EQ(records[0].message, "Too much parameters in command\n");
  EXPECT_EQ(records[0].function, "_KXSystem");
}

TEST(KXSystem, WordsAreJoinedWithSingleBlanks) {
  TempDir dir;
  ASSERT_FALSE(dir.path().empty());
  const fs::path out = dir.path() / "out";
  // The quoted blanks and tabs would survive a shell; the word split folds them.
  const std::string command = "  printf\t'%s' \t 'a     b\t\tc'  >  " + out.string() + "\n";
  EXPECT_TRUE(kxSystem(command.c_str()));
  EXPECT_EQ(contentOf(out), "a b c");
}

TEST(KXSystem, FailingCommandStillCountsAsStarted) {
  EXPECT_TRUE(kxSystem("false"));
  EXPECT_TRUE(kxSystem("exit 3"));
}

}  // namespace
}  // namespace python
}  // namespace KX
