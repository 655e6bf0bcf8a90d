#include <gtest/gtest.h>

#include <cctype>
#include <string>
#include <vector>

#include "value/kxvalue.h"
#include "value/tests/value_test_util.h"

namespace KX {
namespace {

using testing_util::errorText;
using testing_util::valueError;
using Bytes = KXValue::TKXValueBinary;

KXValue blobOf(const Bytes& bytes) {
  KXValue value;
  value = bytes;
  return value;
}

Bytes sequence(size_t size, unsigned seed = 0) {
  Bytes bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<unsigned char>(i * 37 + seed);
  return bytes;
}

Bytes decode(const std::string& text) {
  KXValue value(123);
  EXPECT_TRUE(value.decodeBase64(text));
  EXPECT_EQ(value.getType(), KXValue::TypeBinary);
  return value.getBinary();
}

TEST(KXValueBase64Test, KnownVectors) {
  EXPECT_EQ(blobOf({}).encodeBase64(), "");
  EXPECT_EQ(blobOf({0xFF}).encodeBase64(), "/w==");
  EXPECT_EQ(blobOf({'f', 'o'}).encodeBase64(), "Zm8=");
  EXPECT_EQ(blobOf({'f', 'o', 'o'}).encodeBase64(), "Zm9v");
  EXPECT_EQ(blobOf({'f', 'o', 'o', 'b'}).encodeBase64(), "Zm9vYg==");
  EXPECT_EQ(blobOf({0xFB, 0xFF, 0xBF}).encodeBase64(), "+/+/");
  EXPECT_EQ(blobOf({0, 0, 0}).encodeBase64(), "AAAA");
}

TEST(KXValueBase64Test, LineEndAfterSeventyTwoCharacters) {
  const std::string text = blobOf(sequence(54)).encodeBase64();
  ASSERT_EQ(text.size(), 73u);
  EXPECT_EQ(text[72], '\n');
  EXPECT_EQ(text.find('\n'), 72u);
  EXPECT_EQ(text.find('='), std::string::npos);

  const std::string longer = blobOf(sequence(55)).encodeBase64();
  ASSERT_EQ(longer.size(), 77u);
  EXPECT_EQ(longer.substr(0, 73), text);
  EXPECT_EQ(longer.substr(75), "==");

  EXPECT_EQ(blobOf(sequence(53)).encodeBase64().find('\n'), std::string::npos);
  const std::string twoLines = blobOf(sequence(108)).encodeBase64();
  EXPECT_EQ(twoLines.size(), 146u);
  EXPECT_EQ(twoLines[72], '\n');
  EXPECT_EQ(twoLines[145], '\n');
}

TEST(KXValueBase64Test, EncodeAppends) {
  std::string out = "prefix:";
  blobOf({'f', 'o'}).encodeBase64(out);
  EXPECT_EQ(out, "prefix:Zm8=");
}

TEST(KXValueBase64Test, EncodeObject) {
  KXValue object;
  object.decodeBase64Object("Zm9vYg==");
  EXPECT_EQ(object.getType(), KXValue::TypeObject);
  EXPECT_EQ(object.getBinary(), (Bytes{'f', 'o', 'o', 'b'}));
  EXPECT_EQ(object.encodeBase64(), "Zm9vYg==");
}

TEST(KXValueBase64Test, EncodeNonBlobRaises) {
  const KXValue text("abc");
  EXPECT_EQ(errorText([&] { text.encodeBase64(); }),
            valueError("xAssertType: type error",
                       "Expected a Binary but received a String (kxvalue contents: \"abc\" )"));
}

TEST(KXValueBase64Test, DecodePadding) {
  EXPECT_EQ(decode("/w=="), (Bytes{0xFF}));
  EXPECT_EQ(decode("/w="), (Bytes{0xFF}));
  EXPECT_EQ(decode("Zm8="), (Bytes{'f', 'o'}));
  EXPECT_EQ(decode("Zm9v"), (Bytes{'f', 'o', 'o'}));
  EXPECT_EQ(decode(""), Bytes{});
  EXPECT_EQ(decode("="), Bytes{});
  EXPECT_EQ(decode("Z="), Bytes{});  // one character cannot make a byte
}

TEST(KXValueBase64Test, EqualsEndsTheData) {
  EXPECT_EQ(decode("Zm8=Zm9v"), (Bytes{'f', 'o'}));
  EXPECT_EQ(decode("Zm9v=Zm9v"), (Bytes{'f', 'o', 'o'}));
  // '=' inside a run long enough for whole-run conversion.
  EXPECT_EQ(decode("Zm9vYmFyZm8=Zm9vYmFy"), (Bytes{'f', 'o', 'o', 'b', 'a', 'r', 'f', 'o'}));
  EXPECT_EQ(decode("Zm9vYmFyZg==Zm9vYmFy"), (Bytes{'f', 'o', 'o', 'b', 'a', 'r', 'f'}));
}

TEST(KXValueBase64Test, GroupCutShortGivesNothing) {
  EXPECT_EQ(decode("Zm9vYg"), (Bytes{'f', 'o', 'o'}));
  EXPECT_EQ(decode("Zm9vYmF"), (Bytes{'f', 'o', 'o'}));
  EXPECT_EQ(decode("Z"), Bytes{});
}

TEST(KXValueBase64Test, DecodeSkipsLineBreaksAndBlanks) {
  EXPECT_EQ(decode("Zm9v\nYmFy"), (Bytes{'f', 'o', 'o', 'b', 'a', 'r'}));
  EXPECT_EQ(decode(" Z m\t9\r\nv Y m F y "), (Bytes{'f', 'o', 'o', 'b', 'a', 'r'}));
  EXPECT_EQ(decode("Zm9v*YmFy!"), (Bytes{'f', 'o', 'o', 'b', 'a', 'r'}));
  EXPECT_EQ(decode(std::string("Zm\0"
                               "9v",
                               5)),
            (Bytes{'f', 'o', 'o'}));
  const Bytes bytes = sequence(200);
  std::string text = blobOf(bytes).encodeBase64();
  std::string spaced;
  for (char c : text) {
    spaced += c;
    if (c != '\n') spaced += ' ';
  }
  EXPECT_EQ(decode(spaced), bytes);
}

TEST(KXValueBase64Test, RoundTripEverySizeUpTo300) {
  for (size_t size = 0; size <= 300; ++size) {
    const Bytes bytes = sequence(size, static_cast<unsigned>(size));
    const std::string text = blobOf(bytes).encodeBase64();
    const size_t groups = size / 3;
    ASSERT_EQ(text.size(), groups * 4 + (size % 3 ? 4 : 0) + groups / 18) << size;
    ASSERT_EQ(decode(text), bytes) << size;
  }
}

TEST(KXValueBase64Test, AllByteValues) {
  Bytes bytes(256);
  for (int i = 0; i < 256; ++i) bytes[i] = static_cast<unsigned char>(i);
  const std::string text = blobOf(bytes).encodeBase64();
  for (char c : text) {
    EXPECT_TRUE(std::isalnum(static_cast<unsigned char>(c)) || c == '+' || c == '/' || c == '=' ||
                c == '\n')
        << c;
  }
  EXPECT_EQ(decode(text), bytes);
}

TEST(KXValueBase64Test, DecodeReplacesAnyPreviousValue) {
  KXValue value;
  value.arrayPush(KXValue(1));
  value.decodeBase64("AQID");
  EXPECT_EQ(value.getType(), KXValue::TypeBinary);
  EXPECT_EQ(value.getBinary(), (Bytes{1, 2, 3}));
  value.decodeBase64Object("BA==");
  EXPECT_EQ(value.getType(), KXValue::TypeObject);
  EXPECT_EQ(value.getBinary(), (Bytes{4}));
}

TEST(KXValueBase64Test, DecodeItsOwnString) {
  KXValue value("Zm9v");
  value.decodeBase64(static_cast<const std::string&>(static_cast<const KXValue&>(value)));
  EXPECT_EQ(value.getBinary(), (Bytes{'f', 'o', 'o'}));
}

}  // namespace
}  // namespace KX
