#include "value/textcoding.h"

#include <gtest/gtest.h>

#include <string>

namespace KX {
namespace {

TEST(TextCodingTest, DecodesEscapesOnceAndEscapesWhatItIsToldTo) {
  const std::pair<const char*, const char*> kDecoded[] = {
      {"%5B1,%202%5D", "[1, 2]"}, {"%4a%4A", "JJ"}, {"a+b", "a+b"}, {"100%", "100%"}, {"%4", "%4"},
      {"%zz%2", "%zz%2"},         {"%252E", "%2E"}};
  for (const auto& [text, decoded] : kDecoded) EXPECT_EQ(percentDecode(text), decoded) << text;
  EXPECT_EQ(percentDecode("%00x"), std::string("\0x", 2));
  const std::string text = "a&b<c>d\"e'f\tg\nh\x01i\x1Fj\x7Fk";
  EXPECT_EQ(escapeXml(text), "a&amp;b&lt;c&gt;d&quot;e&apos;f\tg\nh\x01i\x1Fj\x7Fk");
  std::string soapText;
  appendXmlEscaped(soapText, text, kEscapeControls);
  EXPECT_EQ(soapText, "a&amp;b&lt;c&gt;d\"e'f\tg\nh&#x1;i&#x1F;j&#x7F;k");
  EXPECT_EQ(std::to_string(hexDigitValue('a')) + std::to_string(hexDigitValue('F')) +
                std::to_string(hexDigitValue('g')),
            "1015-1");
  EXPECT_EQ(std::string(trimBlanks(" \t a b \t")) + "|" + std::string(trimBlanks(" \t ")), "a b|");
}

}  // namespace
}  // namespace KX
