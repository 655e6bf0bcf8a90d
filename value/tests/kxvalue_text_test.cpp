// The text forms of KXValue: the debug dump, the compact text and its parser, base64, JSON.
#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdio>
#include <limits>
#include <regex>
#include <string>

#include "value/kxvalue.h"
#include "value/kxvaluejson.h"
#include "value/tests/value_test_util.h"

namespace KX {
namespace {

using namespace testing_util;  // NOLINT(google-build-using-namespace): the value test kit

std::string hex(const void* address) {
  char text[32];
  snprintf(text, sizeof text, "0x%08" PRIXPTR, reinterpret_cast<uintptr_t>(address));
  return text;
}

TEST(KXValueDumpTest, EachVerbosity) {
  // The header names the value's own address and its payload word: a scalar's bits, or the
  // address of a container's storage.
  const KXValue real(1.0f), text("s");
  EXPECT_EQ(real.toString(2),
            "KxValue at " + hex(&real) + ", Type: Float, Value: 0x3F800000, Float: 1");
  EXPECT_EQ(text.toString(2), "KxValue at " + hex(&text) + ", Type: String, Value: " +
                                  hex(&static_cast<const std::string&>(text)) +
                                  ", String of size 1: \"s\"");
  // Below, headers become "{Type}".
  const std::regex header("KxValue at 0x[0-9A-F]{8,}, Type: (\\w+), Value: 0x[0-9A-F]{8,}, ");
  const auto dump = [&](const KXValue& value, int verbosity) {
    return std::regex_replace(value.toString(verbosity), header, "{$1}");
  };
  EXPECT_EQ(dump(arrayOf(1), 0), "");
  EXPECT_EQ(dump(arrayOf(1234567.0f, "say \"hi\""), 1), "[1.23457e+06, \"say \"hi\"\"]");
  EXPECT_EQ(dump(arrayOf(-1, KXValue(), arrayOf(binaryOf("\x07\x08"))), 2),
            "{Array}[Vector of 3 elem(s):{Int}Int: 0xFFFFFFFF (-1), {Invalid}, {Array}[Vector of 1 "
            "elem(s):{Binary}\\7\\8]]");
  EXPECT_EQ(dump(arrayOf(true, 7, 0.5f, "s", objectOf("hi"), binaryOf("\x07")), 4),
            "\n<KxValue>{Array}\n<Vector>Vector of 6 elem(s):"
            "\n<elem>\n\n<KxValue>{Bool}Bool:true\n</KxValue>\n\n</elem>"
            "\n<elem>\n\n<KxValue>{Int}Int: 0x00000007 (7)\n\n</KxValue>\n\n</elem>"
            "\n<elem>\n\n<KxValue>{Float}Float: 0.5\n\n</KxValue>\n\n</elem>"
            "\n<elem>\n\n<KxValue>{String}String of size 1: \"s\"\n\n</KxValue>\n\n</elem>"
            "\n<elem>\n\n<KxValue>{Object}hi\n</KxValue>\n\n</elem>"
            "\n<elem>\n\n<KxValue>{Binary}\n<Binary>Binary: 1 bytes(s):\n\\7</Binary>\n\n"
            "</KxValue>\n\n</elem>\n</Vector>\n</KxValue>\n");
}

// What unSerializeFromText makes of the first `length` characters of a text (all of them
// for 0): the kind and compact form, or the error, after which the value is Invalid.
std::string parsed(const std::string& text, size_t length = 0) {
  KXValue value("previous");
  try {
    value.unSerializeFromText(text.c_str(), length == 0 ? text.size() : length);
  } catch (const KXError& error) {
    EXPECT_FALSE(value.isValid());
    return error.what();
  }
  return describe(value);
}

// "!" starts the description of a deduceType error about the whole text. Hexadecimal digits
// make an Int ("abc" reads 0), a float is read as a standard stream reads it (0 when that
// fails), and a misplaced '.' anywhere wins over an unknown character before it.
TEST(KXValueParserTest, Texts) {
  // clang-format off
  const struct { const char* text; const char* value; } cases[] = {
      {"42", "Int 42"},                   {"  -7", "Int -7"},
      {"12ab", "Int 12"},                 {"abc", "Int 0"},
      {"0x1F", "Int 31"},                 {"0xffffffff", "Int -1"},
      {"2147483647", "Int 2147483647"},   {"99999999999", "Int 2147483647"},
      {"-99999999999", "Int -2147483648"},
      {"2.5", "Float 2.5"},               {"-.5", "Float -0.5"},
      {"1.5e3", "Float 1500"},            {"1.5-3", "Float 1.5"},
      {".", "Float 0"},                   {"1.0e99", "Float 0"},
      {"  tRuE", "Bool true"},            {"falsehood", "Bool false"},
      {"", "Invalid "},                   {" \t\r\n", "Invalid "},
      {"  NoNe", "Invalid "},
      {"'x y'", "String \"x y\""},        {"'say \"hi\"'", "String \"say \"hi\"\""},
      {"'a'b'", "String \"a\""},           {"\"unterminated", "String \"unterminated\""},
      {"[1,", "Array [1]"},               {"[1,]", "Array [1, ]"},
      {"[1] 0x2", "Array [1, 2]"},
      {"1.2.3", "!unexpected character: '.'"},  {"0x1.5", "!unexpected character: '.'"},
      {"0x1x", "!unexpected character: 'x'"},   {"1.5x", "!unexpected character: 'x'"},
      {"hello", "!unknown format"},             {"1 ", "!unknown format"},
      {"none!", "!unknown format"},             {"g1..2", "!unexpected character: '.'"},
  };
  // clang-format on
  for (const auto& c : cases) {
    const std::string value = c.value;
    EXPECT_EQ(parsed(c.text),
              value[0] != '!'
                  ? value
                  : valueError("deduceType", value.substr(1) + " in string: '" + c.text + "'"))
        << c.text;
  }
  EXPECT_EQ(parsed("[1, [2, [3, \"deep\"]], [], 0x10]"), "Array [1, [2, [3, \"deep\"]], [], 16]");
  EXPECT_EQ(parsed(std::string(100, '9')), "Int 2147483647");  // beyond the small buffer
  // Elements are cut at commas whatever the quotes, and errors show the element.
  EXPECT_EQ(parsed("['a,b']"), valueError("deduceType", "unknown format in string: 'b''"));
  EXPECT_EQ(parsed("[1, 2 , 3]"), valueError("deduceType", "unknown format in string: ' 2 '"));
}

TEST(KXValueParserTest, LengthOrNulEndsTheText) {
  const std::string unknownZz = valueError("deduceType", "unknown format in string: 'zz'");
  // clang-format off
  const struct { std::string text; size_t length; std::string value; } cases[] = {
      {"0x1F", 3, "Int 1"},   {"2.75", 3, "Float 2.7"},  {"truex", 4, "Bool true"},
      {"'abcdef'", 4, "String \"abc\""},                  {"[1, 2, 3]", 5, "Array [1, 2]"},
      {std::string("12\0 junk", 8), 8, "Int 12"},          {"zz-tail", 2, unknownZz},
      {std::string("zz\0tail", 7), 7, unknownZz},
  };
  // clang-format on
  for (const auto& c : cases) EXPECT_EQ(parsed(c.text, c.length), c.value) << c.text;
}

TEST(KXValueParserTest, CompactTextReadsBack) {
  const KXValue value = arrayOf(-3, 0.75f, "with blanks", false, arrayOf("p", "q"));
  KXValue back;
  back.unSerializeFromText(value.toString());
  EXPECT_TRUE(back == value) << back.toString();
  back.unSerializeFromText("[]");  // unlike the empty array: one Invalid element
  EXPECT_EQ(back.getSize(), 1);
}

// The old payload outlives the parse of a text that lies inside it.
TEST(KXValueParserTest, ParsesItsOwnText) {
  KXValue value("'inner text'");
  value.unSerializeFromText(static_cast<const std::string&>(value));
  EXPECT_EQ(describe(value), "String \"inner text\"");
  KXValue array = arrayOf("[1, 2]");
  array.unSerializeFromText(static_cast<const std::string&>(array[0]).c_str(), 6);
  EXPECT_EQ(describe(array), "Array [1, 2]");
}

// Blanks are skipped, the first other character stops, and the number wraps at 32 bits.
TEST(KXValueParserTest, HexadecimalDigitsAfterTheFirstX) {
  EXPECT_EQ(KXValue::hexaAsciiToInt("junk 0x 1 \taBc\r\n9g1"), 0x1ABC9);
  EXPECT_EQ(KXValue::hexaAsciiToInt("x123456789"), 0x23456789);
  EXPECT_EQ(KXValue::hexaAsciiToInt("0x"), 0);
  testing::internal::CaptureStdout();
  EXPECT_EQ(KXValue::hexaAsciiToInt("0X1F"), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "WARNING: hexaAsciiToInt called without 0x, returning 0 (string was: '0X1F')\n");
}

std::string bytesOf(const KXValue& value) {
  return std::string(value.getBinary().begin(), value.getBinary().end());
}

std::string repeated(const std::string& text, int times) {
  std::string out;
  for (int i = 0; i < times; ++i) out += text;
  return out;
}

TEST(KXValueBase64Test, Encode) {
  const std::string line = repeated("YWFh", 18) + "\n";  // 54 bytes "a" fill one line
  // clang-format off
  const struct { std::string bytes, text; } cases[] = {
      {"", ""}, {"\xFF", "/w=="}, {"fo", "Zm8="}, {"foob", "Zm9vYg=="}, {"\xFB\xFF\xBF", "+/+/"},
      {std::string(3, '\0'), "AAAA"},  {std::string(53, 'a'), repeated("YWFh", 17) + "YWE="},
      {std::string(54, 'a'), line},  // even at the end
      {std::string(55, 'a'), line + "YQ=="},       {std::string(108, 'a'), line + line},
  };
  // clang-format on
  for (const auto& c : cases) EXPECT_EQ(binaryOf(c.bytes).encodeBase64(), c.text) << c.bytes;
  std::string out = "prefix:";
  objectOf("fo").encodeBase64(out);
  EXPECT_EQ(out, "prefix:Zm8=");
  EXPECT_EQ(errorText([] { KXValue("abc").encodeBase64(); }),
            typeError("xAssertType", "Binary", "String", "\"abc\""));
}

// '=' ends the data (also inside a run of whole groups), a group cut short by the end of the
// text gives nothing, and characters outside the alphabet are skipped.
TEST(KXValueBase64Test, Decode) {
  // clang-format off
  const struct { std::string text, bytes; } cases[] = {
      {"/w==", "\xFF"},              {"/w=", "\xFF"},              {"Zm8=", "fo"},
      {"Zm9v", "foo"},               {"", ""},                     {"=", ""},
      {"Z=", ""},                    {"Zm8=Zm9v", "fo"},           {"Zm9v=Zm9v", "foo"},
      {"Zm9vYmFyZm8=Zm9vYmFy", "foobarfo"},  {"Zm9vYmFyZg==Zm9vYmFy", "foobarf"},
      {"Zm9vYg", "foo"},             {"Zm9vYmF", "foo"},           {"Z", ""},
      {"Zm9v\nYmFy", "foobar"},      {" Z m\t9\r\nv Y m F y ", "foobar"},
      {"Zm9v*YmFy!", "foobar"},      {std::string("Zm\0" "9v", 5), "foo"},
  };
  // clang-format on
  for (const auto& c : cases) {
    KXValue blob(123);
    KXValue object = arrayOf(1);
    EXPECT_TRUE(blob.decodeBase64(c.text));
    EXPECT_TRUE(object.decodeBase64Object(c.text));
    EXPECT_EQ(describe(blob), describe(binaryOf(c.bytes))) << c.text;
    EXPECT_EQ(describe(object), "Object " + c.bytes) << c.text;
  }
  KXValue own("Zm9v");  // decoded aside before the value changes
  own.decodeBase64(static_cast<const std::string&>(own));
  EXPECT_EQ(bytesOf(own), "foo");
}

TEST(KXValueBase64Test, EverySizeReadsBack) {
  for (size_t size = 0; size <= 300; ++size) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 37 + size);
    const std::string text = binaryOf(bytes).encodeBase64();
    const size_t groups = size / 3;
    ASSERT_EQ(text.size(), groups * 4 + (size % 3 ? 4 : 0) + groups / 18) << size;
    std::string spaced;  // without any whole group of clean characters
    for (char c : text) spaced += std::string(1, c) + " ";
    for (const std::string& form : {text, spaced}) {
      KXValue back;
      back.decodeBase64(form);
      ASSERT_EQ(bytesOf(back), bytes) << size << ": " << form;
    }
  }
}

// Each kind has its row in the kind table; these are the texts and numbers. Bytes that are
// not UTF-8 are escaped one by one.
TEST(KXValueJsonTest, StringsAndNumbers) {
  const float kNaN = std::numeric_limits<float>::quiet_NaN();
  const float kInf = std::numeric_limits<float>::infinity();
  // clang-format off
  const struct { KXValue value; std::string json; } cases[] = {
      {KXValue("a\"b\\c\n\t\r\x01\x7f"), "\"a\\\"b\\\\c\\n\\t\\r\\u0001\\u007f\""},
      {KXValue("\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80"), "\"\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\""},
      {KXValue("\xff"), "\"\\u00ff\""},                        {KXValue("\xc3("), "\"\\u00c3(\""},
      {KXValue("a\xc3"), "\"a\\u00c3\""},  {KXValue("\xe2\x82("), "\"\\u00e2\\u0082(\""},
      {KXValue("\xe0\x80\x80"), "\"\\u00e0\\u0080\\u0080\""},
      {KXValue("\xed\xa0\x80"), "\"\\u00ed\\u00a0\\u0080\""},
      {KXValue("\xf0\x80\x80\x80"), "\"\\u00f0\\u0080\\u0080\\u0080\""},
      {KXValue("\xf4\x90\x80\x80"), "\"\\u00f4\\u0090\\u0080\\u0080\""},  // past U+10FFFF
      {KXValue(0.1f), "0.100000001"},  {KXValue(kNaN), "null"},  {KXValue(-kInf), "null"},
      // Longer than a line of base64: still one line.
      {binaryOf(std::string(60, 'x')), "{\"binary\":\"" + repeated("eHh4", 20) + "\"}"},
  };
  // clang-format on
  for (const auto& c : cases) EXPECT_EQ(toJson(c.value), c.json) << c.value.toString();
}

}  // namespace
}  // namespace KX
