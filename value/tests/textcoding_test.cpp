#include "value/textcoding.h"

#include <gtest/gtest.h>

#include <string>

namespace KX {
namespace {

TEST(TextCodingTest, PercentDecodingReplacesEachEscapeOnce) {
  const struct {
    const char* text;
    const char* decoded;
  } kCases[] = {
      {"%5B1,%202%5D", "[1, 2]"},
      {"%4a%4A", "JJ"},
      {"a+b", "a+b"},
      {"100%", "100%"},
      {"%4", "%4"},
      {"%zz%2", "%zz%2"},
      {"%25", "%"},
      {"%252E", "%2E"},
  };
  for (const auto& c : kCases) EXPECT_EQ(percentDecode(c.text), c.decoded) << c.text;
  EXPECT_EQ(percentDecode("%00x"), std::string("\0x", 2));
}

TEST(TextCodingTest, XmlEscapingWritesWhatItIsToldTo) {
  const std::string text = "a&b<c>d\"e'f\tg\nh\x01i\x1Fj\x7Fk";
  EXPECT_EQ(escapeXml(text), "a&amp;b&lt;c&gt;d&quot;e&apos;f\tg\nh\x01i\x1Fj\x7Fk");
  std::string soapText;
  appendXmlEscaped(soapText, text, kEscapeControls);
  EXPECT_EQ(soapText, "a&amp;b&lt;c&gt;d\"e'f\tg\nh&#x1;i&#x1F;j&#x7F;k");
}

TEST(TextCodingTest, HexDigitsAndBlanks) {
  EXPECT_EQ(hexDigitValue('0'), 0);
  EXPECT_EQ(hexDigitValue('a'), 10);
  EXPECT_EQ(hexDigitValue('F'), 15);
  EXPECT_EQ(hexDigitValue('g'), -1);
  EXPECT_EQ(trimBlanks(" \t a b \t"), "a b");
  EXPECT_EQ(trimBlanks(" \t "), "");
}

}  // namespace
}  // namespace KX
