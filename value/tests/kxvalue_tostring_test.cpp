#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "value/kxvalue.h"

namespace KX {
namespace {

// "0x" + at least eight upper-case hexadecimal digits, as the dump prints addresses.
std::string hexWord(uintptr_t word) {
  char buffer[32];
  snprintf(buffer, sizeof buffer, "0x%08" PRIXPTR, word);
  return buffer;
}

std::string header(const KXValue& value, const std::string& type, uintptr_t word) {
  return "KxValue at " + hexWord(reinterpret_cast<uintptr_t>(&value)) + ", Type: " + type +
         ", Value: " + hexWord(word) + ", ";
}

KXValue sampleArray() {
  KXValue inner;
  inner.arrayPush(KXValue(2));
  inner.arrayPush(KXValue(3));
  KXValue array;
  array.arrayPush(KXValue(1));
  array.arrayPush(inner);
  array.arrayPush(KXValue("a"));
  return array;
}

TEST(KXValueToStringTest, VerbosityZeroIsEmpty) {
  EXPECT_EQ(KXValue(5).toString(0), "");
  EXPECT_EQ(sampleArray().toString(0), "");
  EXPECT_EQ(KXValue("x").toString(-1), "");
}

TEST(KXValueToStringTest, DefaultVerbosityIsCompact) {
  EXPECT_EQ(sampleArray().toString(), sampleArray().toString(1));
}

TEST(KXValueToStringTest, CompactScalars) {
  EXPECT_EQ(KXValue().toString(1), "");
  EXPECT_EQ(KXValue(true).toString(1), "true");
  EXPECT_EQ(KXValue(false).toString(1), "false");
  EXPECT_EQ(KXValue(-42).toString(1), "-42");
  EXPECT_EQ(KXValue(2.5f).toString(1), "2.5");
  EXPECT_EQ(KXValue(3.0f).toString(1), "3");
  EXPECT_EQ(KXValue(0.1f).toString(1), "0.1");
  EXPECT_EQ(KXValue(1234567.0f).toString(1), "1.23457e+06");
  EXPECT_EQ(KXValue("say \"hi\"").toString(1), "\"say \"hi\"\"");  // no escaping
  EXPECT_EQ(KXValue("").toString(1), "\"\"");
}

TEST(KXValueToStringTest, CompactArrays) {
  KXValue mixed;
  mixed.arrayPush(KXValue(1));
  mixed.arrayPush(KXValue(2.5f));
  mixed.arrayPush(KXValue("abc"));
  mixed.arrayPush(KXValue(true));
  EXPECT_EQ(mixed.toString(1), "[1, 2.5, \"abc\", true]");
  EXPECT_EQ(sampleArray().toString(1), "[1, [2, 3], \"a\"]");
  KXValue empty;
  empty.arraySetSize(0);
  EXPECT_EQ(empty.toString(1), "[]");
  KXValue holes;
  holes.arraySetSize(2);
  EXPECT_EQ(holes.toString(1), "[, ]");
}

TEST(KXValueToStringTest, BinaryAndObject) {
  KXValue blob;
  blob.setBinary("\x01\xFF\x00", 3);
  EXPECT_EQ(blob.toString(1), "\\1\\255\\0");
  KXValue object;
  object.decodeBase64Object("aGk=");  // "hi"
  EXPECT_EQ(object.toString(1), "hi");
  EXPECT_EQ(object.toString(3).find("<Binary>"), std::string::npos);
}

TEST(KXValueToStringTest, VerbosityTwoInt) {
  const KXValue value(42);
  const std::string text = value.toString(2);
  EXPECT_NE(text.find("Int: 0x0000002A (42)"), std::string::npos);
  EXPECT_EQ(text, header(value, "Int", 42) + "Int: 0x0000002A (42)");
  const KXValue negative(-1);
  EXPECT_EQ(negative.toString(2), header(negative, "Int", 0xFFFFFFFFu) + "Int: 0xFFFFFFFF (-1)");
}

TEST(KXValueToStringTest, VerbosityTwoScalars) {
  const KXValue flag(true);
  EXPECT_EQ(flag.toString(2), header(flag, "Bool", 1) + "Bool:true");
  const KXValue real(1.0f);
  EXPECT_EQ(real.toString(2), header(real, "Float", 0x3F800000u) + "Float: 1");
  const KXValue invalid;
  EXPECT_EQ(invalid.toString(2), header(invalid, "Invalid", 0));
}

TEST(KXValueToStringTest, VerbosityTwoContainersShowTheirAddress) {
  KXValue text("abc");
  const std::string dump = text.toString(2);
  const std::string prefix =
      "KxValue at " + hexWord(reinterpret_cast<uintptr_t>(&text)) + ", Type: String, Value: 0x";
  ASSERT_EQ(dump.rfind(prefix, 0), 0u) << dump;
  const std::string stored = hexWord(reinterpret_cast<uintptr_t>(
      &static_cast<const std::string&>(static_cast<const KXValue&>(text))));
  EXPECT_EQ(dump, prefix + stored.substr(2) + ", String of size 3: \"abc\"");
}

TEST(KXValueToStringTest, VerbosityTwoArrayAndBinary) {
  const KXValue array = sampleArray();
  const std::string dump = array.toString(2);
  EXPECT_NE(dump.find(", Type: Array, "), std::string::npos);
  EXPECT_NE(dump.find("[Vector of 3 elem(s):KxValue at "), std::string::npos);
  EXPECT_NE(dump.find("Int: 0x00000001 (1), KxValue at "), std::string::npos);
  EXPECT_NE(dump.find("[Vector of 2 elem(s):"), std::string::npos);
  EXPECT_NE(dump.find("String of size 1: \"a\"]"), std::string::npos);
  EXPECT_EQ(dump.back(), ']');

  KXValue blob;
  blob.setBinary("\x07\x08", 2);
  const std::string binaryDump = blob.toString(2);
  EXPECT_EQ(binaryDump.substr(binaryDump.size() - 6), ", \\7\\8");
  EXPECT_EQ(binaryDump.find("Binary>"), std::string::npos);
}

TEST(KXValueToStringTest, VerbosityThreeScalars) {
  const KXValue value(7);
  EXPECT_EQ(value.toString(3),
            "\n<KxValue>" + header(value, "Int", 7) + "Int: 0x00000007 (7)\n\n</KxValue>\n");
  const KXValue text("s");
  const std::string dump = text.toString(3);
  EXPECT_EQ(dump.rfind("\n<KxValue>KxValue at ", 0), 0u);
  const std::string tail = "String of size 1: \"s\"\n\n</KxValue>\n";
  ASSERT_GE(dump.size(), tail.size());
  EXPECT_EQ(dump.substr(dump.size() - tail.size()), tail);
  const KXValue real(0.5f);
  EXPECT_EQ(real.toString(4),
            "\n<KxValue>" + header(real, "Float", 0x3F000000u) + "Float: 0.5\n\n</KxValue>\n");
  const KXValue flag(false);
  EXPECT_EQ(flag.toString(3), "\n<KxValue>" + header(flag, "Bool", 0) + "Bool:false\n</KxValue>\n");
}

TEST(KXValueToStringTest, VerbosityThreeBinary) {
  KXValue blob;
  blob.setBinary("\x01\x02", 2);
  const std::string dump = blob.toString(3);
  const std::string tail = "\n<Binary>Binary: 2 bytes(s):\n\\1\\2</Binary>\n\n</KxValue>\n";
  ASSERT_GE(dump.size(), tail.size());
  EXPECT_EQ(dump.substr(dump.size() - tail.size()), tail);
}

TEST(KXValueToStringTest, VerbosityThreeArray) {
  KXValue array;
  array.arrayPush(KXValue(true));
  const KXValue& element = array[0];
  const std::string dump = array.toString(3);
  const std::string start = "\n<KxValue>KxValue at " +
                            hexWord(reinterpret_cast<uintptr_t>(&array)) +
                            ", Type: Array, Value: 0x";
  ASSERT_EQ(dump.rfind(start, 0), 0u) << dump;
  const size_t wordEnd = dump.find(", ", start.size());
  ASSERT_NE(wordEnd, std::string::npos);
  EXPECT_GE(wordEnd - start.size(), 8u);
  EXPECT_EQ(dump.substr(wordEnd), ", \n<Vector>Vector of 1 elem(s):\n<elem>\n\n<KxValue>" +
                                      header(element, "Bool", 1) +
                                      "Bool:true\n</KxValue>\n\n</elem>\n</Vector>\n</KxValue>\n");
}

}  // namespace
}  // namespace KX
