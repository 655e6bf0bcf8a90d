// KXValue and KXError: the eight kinds, casts, references, arrays, assignment, equality, the
// debug dump, the compact text and its parser, base64 and JSON.
#include "value/kxvalue.h"

#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdio>
#include <functional>
#include <limits>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "value/kxvaluejson.h"
#include "value/tests/value_test_util.h"

namespace KX {
namespace {

using namespace testing_util;  // NOLINT(google-build-using-namespace): the value test kit
using Bytes = KXValue::TKXValueBinary;

const float kNaN = std::numeric_limits<float>::quiet_NaN();
const std::string kInvalidToBool =
    valueError("const bool() const", "Cannot cast to bool an KXValue of invalid type.");

// One row per type code, in code order, with what the read-only casts to bool, int and
// float give ("!": the strict type assertion) and the value an Invalid one adopts.
const struct {
  const char* name;
  KXValue value;
  int size;
  std::string text, json, asBool, asInt, asFloat, adopted;
} kKinds[] = {
    {"Invalid", KXValue(), 0, "", "null", kInvalidToBool, "!", "!", "Invalid "},
    {"Array", arrayOf(1, "x"), 2, "[1, \"x\"]", "[1,\"x\"]", "1", "!", "!", "Array []"},
    {"Bool", KXValue(true), 0, "true", "true", "1", "1", "!", "Bool false"},
    {"Int", KXValue(-7), 0, "-7", "-7", "1", "-7", "-7", "Int 0"},
    {"Float", KXValue(2.5f), 0, "2.5", "2.5", "1", "2", "2.5", "Float 0"},
    {"String", KXValue("ab"), 2, "\"ab\"", "\"ab\"", "1", "!", "!", "String \"\""},
    {"Object", objectOf("hi"), 2, "hi", "{\"object\":\"aGk=\"}", "1", "!", "!", "Object "},
    {"Binary", binaryOf({"\x01\xFF\0", 3}), 3, "\\1\\255\\0", "{\"binary\":\"Af8A\"}", "1", "!",
     "!", "Binary "},
};

// What `read` returns, printed, or the text of the KXError it raises.
template <typename Read>
std::string readOrError(Read&& read) {
  try {
    std::ostringstream out;
    out << read();
    return out.str();
  } catch (const KXError& error) {
    return error.what();
  }
}

TEST(KXValueTest, EachKind) {
  for (int code = 0; code < 8; ++code) {
    const auto& c = kKinds[code];
    SCOPED_TRACE(c.name);
    const KXValue& value = c.value;
    EXPECT_EQ(value.getType(), code);
    EXPECT_EQ(KXValue::TypeToString(code), c.name);
    EXPECT_EQ(value.isValid() + 2 * value.isBool() + 4 * value.isObject(),
              (code != 0) + 2 * (code == KXValue::TypeBool) + 4 * (code == KXValue::TypeObject));
    EXPECT_EQ(value.getSize(), c.size);
    EXPECT_EQ(value.toString(), c.text);
    EXPECT_EQ(toJson(value), c.json);
    const auto strict = [&](const char* type, const std::string& column) {
      return column == "!" ? typeError("xAssertType", type, c.name, c.text) : column;
    };
    EXPECT_EQ(readOrError([&] { return static_cast<bool>(value); }), c.asBool);
    EXPECT_EQ(readOrError([&] { return static_cast<int>(value); }), strict("Int", c.asInt));
    EXPECT_EQ(readOrError([&] { return static_cast<float>(value); }), strict("Float", c.asFloat));
    KXValue copy(value);
    KXValue moved(std::move(copy));
    EXPECT_EQ(describe(copy) + "/" + describe(moved), "Invalid /" + describe(value));
    KXValue adopted;
    adopted.xAssertCompatibleType(static_cast<KXValue::Type>(code));
    EXPECT_EQ(describe(adopted), c.adopted);
    for (int other = 0; other < 8; ++other) {
      EXPECT_EQ(value == kKinds[other].value, other == code) << kKinds[other].name;
    }
  }
  EXPECT_EQ(
      errorText([] { KXValue::TypeToString(8); }) + errorText([] { KXValue::TypeToString(-1); }),
      valueError("TypeToString", "Unknown type: 8") +
          valueError("TypeToString", "Unknown type: -1"));
}

// Truncated toward zero, saturated at the int range; NaN reads as 0.
TEST(KXValueTest, NumericCasts) {
  const int kMax = std::numeric_limits<int>::max(), kMin = std::numeric_limits<int>::min();
  // clang-format off
  const struct { float number; int truncated; } cases[] = {
      {2.9f, 2},  {-2.9f, -2},  {-0.5f, 0},  {kNaN, 0},  {2147483520.0f, 2147483520},
      {2147483648.0f, kMax},  {3e9f, kMax},  {-2147483648.0f, kMin},  {-1e20f, kMin},
  };
  // clang-format on
  for (const auto& c : cases) EXPECT_EQ(int(KXValue(c.number)), c.truncated) << c.number;
  EXPECT_TRUE(static_cast<bool>(KXValue(kNaN)));
  EXPECT_EQ(float(KXValue(16777217)), 16777216.0f);  // rounded to single
  EXPECT_EQ(float(KXValue(0.1)), 0.1f);              // a double is kept as single
}

// Without the non-const read-only casts, these reads would pick the mutable references and
// change the value's type.
TEST(KXValueTest, ReadingANonConstValueNeverChangesIt) {
  KXValue number(5), flag(true), invalid;
  EXPECT_TRUE(static_cast<bool>(number));
  EXPECT_EQ(static_cast<float>(number), 5.0f);
  EXPECT_EQ(static_cast<int>(flag), 1);
  EXPECT_EQ(errorText([&] { return invalid ? 1 : 0; }), kInvalidToBool);
  EXPECT_EQ(describe(number) + describe(flag) + describe(invalid), "Int 5Bool trueInvalid ");
}

// Below 100000 bytes, with a printed warning.
TEST(KXValueTest, BinaryReadAsStringBecomesAStringWithANul) {
  KXValue value = binaryOf(std::string("hi\0x", 4));
  KXValue justBelow = binaryOf(std::string(99999, 'a')), large = binaryOf(std::string(100000, 'a'));
  testing::internal::CaptureStdout();
  EXPECT_EQ(static_cast<const std::string&>(value), std::string("hi\0x\0", 5));
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "WARNING: KXValue::operator const TKXValueString&: creating a string on the fly to "
            "patch possible ruby encoding problem (size of binary: 4)\n");
  testing::internal::CaptureStdout();
  EXPECT_EQ(static_cast<const std::string&>(justBelow).size(), 100000u);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(errorText([&] { return static_cast<const std::string&>(large); }),
            typeError("xAssertType", "String", "Binary", large.toString()));
  EXPECT_EQ(describe(value).substr(0, 6) + describe(large).substr(0, 6), "StringBinary");
}

std::string sizeError(int size, int wanted) {
  return valueError("xAssertArraySize", "The array has a size of " + std::to_string(size) +
                                            " and you want it to be of size " +
                                            std::to_string(wanted));
}

std::string adopting(const char* expected, const char* actual, const char* contents) {
  return typeError("xAssertCompatibleType", expected, actual, contents);
}

const unsigned char kRaw[] = {9, 8, 7, 6};
const std::string kNegative = valueError("operator[]", "negative index: -1");

// An operation on the value `v`.
#define OP(...) [](KXValue& v) { __VA_ARGS__; }

// What an operation makes of a value: its kind and compact text, or the error it raised.
// clang-format off
const struct { KXValue start; std::function<void(KXValue&)> apply; std::string outcome; }
kMutations[] = {
    // References: an Invalid value adopts the type; an Int becomes a real flag.
    {KXValue(), OP(static_cast<int&>(v) = 17), "Int 17"},
    {KXValue(5), OP((void)static_cast<bool&>(v)), "Bool true"},
    {KXValue(), OP(static_cast<std::string&>(v) += "s"), "String \"s\""},
    {KXValue(), OP(v.getBinary().push_back(3)), "Binary \\3"},
    {objectOf("hi"), OP(v.getBinary().push_back('!')), "Object hi!"},
    {KXValue(true), OP((void)static_cast<int&>(v)), adopting("Int", "Bool", "true")},
    {KXValue("t"), OP((void)static_cast<bool&>(v)), adopting("Bool", "String", "\"t\"")},
    {KXValue(1), OP((void)static_cast<float&>(v)), adopting("Float", "Int", "1")},
    {KXValue(2), OP(v.getBinary()), adopting("Binary", "Int", "2")},
    // Assignment replaces the type; a String or Binary target is assigned in place.
    {KXValue(3), OP(v = 2.25), "Float 2.25"},     {KXValue(3), OP(v.clear()), "Invalid "},
    {KXValue(3), OP(v = std::string("s")), "String \"s\""},
    {KXValue("s"), OP(v = std::string("t")), "String \"t\""},
    {KXValue("s"), OP(v = "t"), "String \"t\""},  {binaryOf("ab"), OP(v = Bytes()), "Binary "},
    {KXValue(1), OP(v = Bytes({0, 255, 7})), "Binary \\0\\255\\7"},
    {binaryOf("ab"), OP(v = v.getBinary()), "Binary \\97\\98"},
    {KXValue("x"), OP(v.setBinary(kRaw, 4)), "Binary \\9\\8\\7\\6"},
    {binaryOf("abcd"), OP(v.setBinary(kRaw, 2)), "Binary \\9\\8"},
    {binaryOf("abcd"), OP(v.setBinary(v.getBinary().data() + 2, 2)), "Binary \\99\\100"},
    {KXValue(3), OP(v.setBinary(nullptr, 0)), "Binary "},
    // From the value's own parts, or itself; pushing its own element while the array grows.
    {arrayOf(1, arrayOf(2, "two")), OP(v = v[1]), "Array [2, \"two\"]"},
    {arrayOf(1, arrayOf(2, "two")), OP(v = std::move(v[1])), "Array [2, \"two\"]"},
    {arrayOf(arrayOf("two")), OP(v = static_cast<const std::string&>(v[0][0])), "String \"two\""},
    {arrayOf(1), OP(v = *&v), "Array [1]"},  {arrayOf(1), OP(v = std::move(*&v)), "Array [1]"},
    {arrayOf(1), OP(v.arrayPush(v)), "Array [1, [1]]"},
    {arrayOf("a"), OP(for (int i = 0; i < 40; ++i) v.arrayPush(v[0]); v = v[40]), "String \"a\""},
    // Copies are deep; a pushed temporary is taken over, storage and all.
    {arrayOf(arrayOf(2)), OP(KXValue copy(v); static_cast<int&>(copy[0][0]) = 9), "Array [[2]]"},
    {KXValue(), OP(KXValue blob = binaryOf("b"); const auto* bytes = &blob.getBinary();
                   v.arrayPush(std::move(blob)); v = (&v[0].getBinary() == bytes)), "Bool true"},
    // Indexing checks the bounds and never grows the array.
    {KXValue(), OP(v[0]), sizeError(0, 1)},
    {arrayOf(1, 2), OP(std::as_const(v)[2]), sizeError(2, 3)},
    {arrayOf(1), OP(v[-1]), kNegative},  {arrayOf(1), OP(std::as_const(v)[-1]), kNegative},
    {KXValue(5), OP(v[0]), adopting("Array", "Int", "5")},
    {KXValue(), OP(std::as_const(v)[0]), typeError("xAssertType", "Array", "Invalid", "")},
    {KXValue(), OP(v.arraySetSize(3)), "Array [, , ]"},
    {arrayOf(1, "a", "b"), OP(v.arraySetSize(1)), "Array [1]"},
    {KXValue("t"), OP(v.arraySetSize(1)), adopting("Array", "String", "\"t\"")},
    {arrayOf(), OP(v.arraySetSize(-1)), valueError("arraySetSize", "negative size: -1")},
    {KXValue(1), OP(v.arrayReserve(4)), adopting("Array", "Int", "1")},
    {arrayOf(), OP(v.arrayReserve(-1)), valueError("arrayReserve", "negative capacity: -1")},
    {KXValue(), OP(v.arrayPush(KXValue("a"))), "Array [\"a\"]"},
    {KXValue(5), OP(v.arrayPush(KXValue(1))), adopting("Array", "Int", "5")},
    {arrayOf(1, 2), OP(v.xAssertArraySize(3)), sizeError(2, 3)},
    {KXValue(1), OP(v.xAssertArraySize(1)),
     valueError("xAssertArraySize", "try to use a Int like an array")},
    {arrayOf(1, "two"), OP(v.xAssertCompatibleType(KXValue::TypeBool)),
     adopting("Bool", "Array", "[1, \"two\"]")},
};
// clang-format on
#undef OP

TEST(KXValueTest, Mutations) {
  for (const auto& c : kMutations) {
    SCOPED_TRACE(describe(c.start) + " -> " + c.outcome);
    KXValue value = c.start;
    try {
      c.apply(value);
      EXPECT_EQ(describe(value), c.outcome);
    } catch (const KXError& error) {
      EXPECT_EQ(error.what(), c.outcome);
      // A failure leaves the value as it was, though an Invalid one has adopted the type.
      EXPECT_TRUE(value == c.start || describe(value) == "Array []") << describe(value);
    }
  }
}

// Non-strings are skipped with a warning, or replaced by "" when asked.
TEST(KXValueTest, StringArrayOfElements) {
  const KXValue array = arrayOf("a", 2);
  std::vector<std::string> skipped = {"stale"}, filled;
  testing::internal::CaptureStdout();
  array.ToStringArray(skipped, false);
  array.ToStringArray(filled, true);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "WARNING: KXValue::ToStringArray: elem 1 is not a string...\n"
            "WARNING: KXValue::ToStringArray: elem 1 is not a string...\n"
            "...inserting an empty string.\n");
  EXPECT_EQ(skipped, std::vector<std::string>{"a"});
  EXPECT_EQ(KXValue(filled).toString(), "[\"a\", \"\"]");
  EXPECT_EQ(errorText([&] { KXValue("x").ToStringArray(filled, true); }),
            typeError("xAssertType", "Array", "String", "\"x\""));
  EXPECT_TRUE(filled.empty());
}

// Floats compare relative to the left operand (1e-4), or absolutely (1e-16) when the left
// one lies within 1e-12 of zero: the rule is not symmetric, also inside arrays.
TEST(KXValueTest, Equality) {
  const KXValue xy = arrayOf("x", "y"), nested = arrayOf(1, xy);
  const std::string nul("a\0b", 3), nul2("a\0c", 3);
  const float larger = 0x1.000ae2p+0f;   // 1.00016606: the difference is under 1e-4 of it
  const float smaller = 0x1.000454p+0f;  // 1.00006604: and over 1e-4 of this one
  // clang-format off
  const struct { KXValue left, right; bool equal; } cases[] = {
      {KXValue(4), KXValue(5), false},                {KXValue(true), KXValue(false), false},
      {KXValue(nul), KXValue(nul), true},             {KXValue(nul), KXValue(nul2), false},
      {KXValue("ab"), KXValue("abc"), false},         {binaryOf("abc"), binaryOf("abd"), false},
      {binaryOf("abc"), binaryOf("ab"), false},       {objectOf("abc"), objectOf("abd"), false},
      {nested, arrayOf(1, xy), true},                 {nested, arrayOf(1, arrayOf("x", 2)), false},
      {nested, arrayOf(xy, 1), false},                {nested, arrayOf(1, xy, 2), false},
      {KXValue(1.0f), KXValue(1.00001f), true},       {KXValue(1.0f), KXValue(1.001f), false},
      {KXValue(1.0f), KXValue(-1.0f), false},         {KXValue(-1000.0f), KXValue(-1000.05f), true},
      {KXValue(2e-12f), KXValue(2.00015e-12f), true}, {KXValue(1e-12f), KXValue(2e-12f), false},
      {KXValue(-1e-12f), KXValue(-2e-12f), false},    {KXValue(0.0f), KXValue(-5e-17f), true},
      {KXValue(0.0f), KXValue(2e-16f), false},        {KXValue(kNaN), KXValue(kNaN), false},
      {KXValue(larger), KXValue(smaller), true},      {KXValue(smaller), KXValue(larger), false},
      {arrayOf(larger), arrayOf(smaller), true},      {arrayOf(smaller), arrayOf(larger), false},
  };
  // clang-format on
  for (const auto& c : cases) {
    EXPECT_EQ(c.left == c.right, c.equal) << describe(c.left) << " vs " << describe(c.right);
    EXPECT_EQ(c.left != c.right, !c.equal);
  }
}

TEST(KXErrorTest, TextAndDescription) {
  // clang-format off
  const struct { KXError error; const char* what; const char* description; } cases[] = {
      {KXError("KXBroker", "init", "twice.", "a.cpp", 1), "\tKXBroker::init\n\ttwice.", "twice."},
      {KXError("", "", "x", "a.cpp", 1), "\n\tx", "x"},    {KXError(), "KXError", "KXError"},
      {KXError("M", "", "x", "a.cpp", 1), "\tM\n\tx", "x"},
      {KXError("", "m", "x", "a.cpp", 1), "::m\n\tx", "x"},
      {KXNetworkError(KXError("N", "call", "a\n\tb", "b.cpp", 2)), "\tN::call\n\ta\n\tb", "a\n\tb"},
  };
  // clang-format on
  for (const auto& c : cases) {
    EXPECT_STREQ(c.error.what(), c.what);
    EXPECT_EQ(c.error.description(), c.description);
  }
  // Callers tell refusals and network trouble apart from other failures by their type.
  EXPECT_THROW(throw KXAccessRefused("N", "call", "wrong token", "c.cpp", 3), KXNetworkError);
  const auto failing = [] { KX_ASSERT("KXValue", 1 + 1 == 3); };
  const int line = __LINE__ - 1;
  EXPECT_EQ(errorText(failing),
            valueError("Assert failed", std::string(__FILE__) + ":" + std::to_string(line)));
  EXPECT_NO_THROW(KX_ASSERT("KXValue", 1 + 1 == 2));
}

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
      {"  -7", "Int -7"}, {"12ab", "Int 12"}, {"abc", "Int 0"}, {"0x1F", "Int 31"},
      {"0xffffffff", "Int -1"}, {"2147483647", "Int 2147483647"}, {"99999999999", "Int 2147483647"},
      {"-99999999999", "Int -2147483648"}, {"-.5", "Float -0.5"}, {"1.5e3", "Float 1500"},
      {"1.5-3", "Float 1.5"}, {".", "Float 0"}, {"1.0e99", "Float 0"}, {"  tRuE", "Bool true"},
      {"falsehood", "Bool false"}, {"", "Invalid "}, {" \t\r\n", "Invalid "},
      {"  NoNe", "Invalid "}, {"'x y'", "String \"x y\""}, {"'a'b'", "String \"a\""},
      {"'say \"hi\"'", "String \"say \"hi\"\""}, {"\"unterminated", "String \"unterminated\""},
      {"[1,", "Array [1]"}, {"[1,]", "Array [1, ]"}, {"[1] 0x2", "Array [1, 2]"},
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

// As deep as a value travels between brokers and no deeper; far deeper text is refused
// without exhausting the stack.
TEST(KXValueParserTest, NestingStopsAtSixtyFourLevels) {
  const auto nested = [](int arrays) {
    return std::string(static_cast<std::size_t>(arrays), '[') + "7" +
           std::string(static_cast<std::size_t>(arrays), ']');
  };
  const std::string tooDeep =
      valueError("unSerializeFromText", "value too deeply nested (more than 64 levels)");
  const struct {
    int arrays;  // the Int inside them is one level deeper
    std::string expected;
  } cases[] = {{63, "Array " + nested(63)}, {64, tooDeep}, {100000, tooDeep}};
  for (const auto& c : cases) EXPECT_EQ(parsed(nested(c.arrays)), c.expected) << c.arrays;
}

TEST(KXValueParserTest, LengthOrNulEndsTheText) {
  EXPECT_EQ(parsed("2.75", 3) + parsed("'abcdef'", 4) + parsed("[1, 2, 3]", 5),
            "Float 2.7String \"abc\"Array [1, 2]");
  EXPECT_EQ(parsed(std::string("12\0 junk", 8)), "Int 12");
  EXPECT_EQ(parsed("zz-tail", 2), valueError("deduceType", "unknown format in string: 'zz'"));
}

TEST(KXValueParserTest, CompactTextReadsBack) {
  const KXValue value = arrayOf(-3, 0.75f, "with blanks", false, arrayOf("p", "q"));
  KXValue back;
  back.unSerializeFromText(value.toString());
  EXPECT_TRUE(back == value) << back.toString();
  back.unSerializeFromText("[]");  // unlike the empty array: one Invalid element
  EXPECT_EQ(back.getSize(), 1);
}

// A long array comes back whole from a copy and through its compact text.
TEST(KXValueParserTest, AHundredThousandElementsCopyAndReadBack) {
  KXValue value;
  value.arraySetSize(0);
  for (int i = 0; i < 100000; ++i) {
    const KXValue kinds[] = {KXValue(i), KXValue(i % 1000 + 0.25f), KXValue(std::to_string(i)),
                             arrayOf(i % 2 == 0)};
    value.arrayPush(kinds[i % 4]);
  }
  const KXValue copy = value;
  KXValue back;
  back.unSerializeFromText(copy.toString());
  ASSERT_EQ(back.getSize(), 100000);
  EXPECT_EQ(describe(back[99998]), "String \"99998\"");
  EXPECT_TRUE(back == value);
}

// The old payload outlives the parse of a text that lies inside it.
TEST(KXValueParserTest, ParsesItsOwnText) {
  KXValue value("'inner text'");
  value.unSerializeFromText(static_cast<const std::string&>(value));
  EXPECT_EQ(describe(value), "String \"inner text\"");
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
      {std::string(3, '\0'), "AAAA"},  {std::string(54, 'a'), line},  // even at the end
      {std::string(55, 'a'), line + "YQ=="},  {std::string(108, 'a'), line + line},
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
      {"/w==", "\xFF"},  {"/w=", "\xFF"},  {"=", ""},  {"Z=", ""},  {"Zm8=Zm9v", "fo"},
      {"Zm9v=Zm9v", "foo"},  {"Zm9vYmFyZm8=Zm9vYmFy", "foobarfo"},
      {"Zm9vYmFyZg==Zm9vYmFy", "foobarf"},
      {"Zm9vYg", "foo"},  {"Zm9vYmF", "foo"},  {"Z", ""},  {"Zm9v*YmFy!", "foobar"},
      {std::string("Zm\0" "9v", 5), "foo"},
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
    KXValue back;
    back.decodeBase64(text);
    ASSERT_EQ(bytesOf(back), bytes) << size << ": " << text;
  }
}

// Each kind has its row in the kind table; these are the texts and numbers. Bytes that are
// not UTF-8 are escaped one by one; base64 has no line ends here.
TEST(KXValueJsonTest, StringsAndNumbers) {
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
      {KXValue(0.1f), "0.100000001"},  {KXValue(kNaN), "null"},
      {binaryOf(std::string(60, 'x')), "{\"binary\":\"" + repeated("eHh4", 20) + "\"}"},
  };
  // clang-format on
  for (const auto& c : cases) EXPECT_EQ(toJson(c.value), c.json) << c.value.toString();
}

}  // namespace
}  // namespace KX
