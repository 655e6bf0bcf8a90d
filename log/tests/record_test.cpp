#include "log/detail/record.h"

#include <gtest/gtest.h>
#include <sys/time.h>

#include <string>

namespace tu {
namespace log {
namespace detail {
namespace {

TEST(RecordTest, FieldsKeepTextsThatFit) {
  Record record;
  fillRecord(record, warning, LogTime{12, 34}, "core.thread", "hello\n", "thread/kxthread.cpp",
             "KX::KXThread::launch", 42);
  EXPECT_EQ(record.level, warning);
  EXPECT_EQ(record.time.seconds, 12);
  EXPECT_EQ(record.time.microseconds, 34);
  EXPECT_STREQ(record.category, "core.thread");
  EXPECT_STREQ(record.message, "hello\n");
  EXPECT_STREQ(record.file, "thread/kxthread.cpp");
  EXPECT_STREQ(record.function, "KX::KXThread::launch");
  EXPECT_EQ(record.line, 42);
}

TEST(RecordTest, LongTextsAreCutToTheirFields) {
  std::string message;
  for (int i = 0; i < 3000; ++i) {
    message += static_cast<char>('a' + i % 26);
  }
  const std::string category(100, 'c');
  const std::string file(200, 'f');
  const std::string function(100, 'g');

  Record record;
  fillRecord(record, info, LogTime{}, category.c_str(), message.c_str(), file.c_str(),
             function.c_str(), 1);
  EXPECT_EQ(std::string(record.message), message.substr(0, 2047));
  EXPECT_EQ(std::string(record.category), category.substr(0, 63));
  EXPECT_EQ(std::string(record.file), file.substr(0, 127));
  EXPECT_EQ(std::string(record.function), function.substr(0, 63));
}

TEST(RecordTest, TextsAtTheLimitAreKeptWhole) {
  const std::string message(2047, 'm');
  const std::string category(63, 'c');
  Record record;
  fillRecord(record, info, LogTime{}, category.c_str(), message.c_str(), "", "", 0);
  EXPECT_EQ(std::string(record.message), message);
  EXPECT_EQ(std::string(record.category), category);
}

TEST(RecordTest, ReusedSlotHoldsOnlyTheNewTexts) {
  Record record;
  fillRecord(record, info, LogTime{}, "a.long.category", "a long message", "file.cpp", "f", 1);
  fillRecord(record, info, LogTime{}, "b", "m", "", "g", 2);
  EXPECT_STREQ(record.category, "b");
  EXPECT_STREQ(record.message, "m");
  EXPECT_STREQ(record.file, "");
  EXPECT_STREQ(record.function, "g");
}

TEST(RecordTest, NullTextsAreStoredAsNull) {
  Record record;
  fillRecord(record, info, LogTime{}, nullptr, nullptr, nullptr, nullptr, 0);
  EXPECT_STREQ(record.category, "(null)");
  EXPECT_STREQ(record.message, "(null)");
  EXPECT_STREQ(record.file, "(null)");
  EXPECT_STREQ(record.function, "(null)");
}

TEST(RecordTest, NullIsCutLikeAnyText) {
  char field[4];
  copyField(field, sizeof(field), nullptr);
  EXPECT_STREQ(field, "(nu");
}

TEST(RecordTest, CurrentTimeIsTheTimeOfDay) {
  timeval before{};
  gettimeofday(&before, nullptr);
  const LogTime now = currentTime();
  timeval after{};
  gettimeofday(&after, nullptr);

  const auto micros = [](long seconds, long microseconds) {
    return static_cast<long long>(seconds) * 1000000 + microseconds;
  };
  EXPECT_GE(now.microseconds, 0);
  EXPECT_LT(now.microseconds, 1000000);
  EXPECT_LE(micros(before.tv_sec, before.tv_usec), micros(now.seconds, now.microseconds));
  EXPECT_LE(micros(now.seconds, now.microseconds), micros(after.tv_sec, after.tv_usec));
}

}  // namespace
}  // namespace detail
}  // namespace log
}  // namespace tu
