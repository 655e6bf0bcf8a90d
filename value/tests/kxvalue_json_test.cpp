// The JSON form of each kind of value, the escapes of strings, bytes that are not UTF-8.
#include "value/kxvaluejson.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "value/tests/value_test_util.h"

namespace KX {
namespace {

using testing_util::arrayOf;

KXValue binaryOf(const std::string& bytes) {
  KXValue value;
  value.setBinary(bytes.data(), bytes.size());
  return value;
}

std::string repeated(const std::string& text, int times) {
  std::string out;
  for (int i = 0; i < times; ++i) out += text;
  return out;
}

TEST(KXValueJson, EachKindOfValue) {
  const struct {
    KXValue value;
    std::string json;
  } cases[] = {
      {KXValue(), "null"},
      {KXValue(true), "true"},
      {KXValue(-7), "-7"},
      {KXValue(0.1f), "0.100000001"},
      {KXValue(std::nanf("")), "null"},
      {KXValue(std::string("a\"b\\c\n\t\x01\x7f")), "\"a\\\"b\\\\c\\n\\t\\u0001\\u007f\""},
      {KXValue(std::string("\xc3\xa9\xe2\x82\xac")), "\"\xc3\xa9\xe2\x82\xac\""},  // é€
      {KXValue(std::string("\xff\xc3(\xed\xa0\x80")), "\"\\u00ff\\u00c3(\\u00ed\\u00a0\\u0080\""},
      {binaryOf(std::string("\x00\x01\xfe", 3)), "{\"binary\":\"AAH+\"}"},
      // Longer than one line of the text form's base64: no line end in JSON.
      {binaryOf(std::string(60, 'x')), "{\"binary\":\"" + repeated("eHh4", 20) + "\"}"},
      {arrayOf(1, "x", arrayOf()), "[1,\"x\",[]]"},
  };
  for (const auto& c : cases) EXPECT_EQ(toJson(c.value), c.json) << c.value.toString();
}

}  // namespace
}  // namespace KX
