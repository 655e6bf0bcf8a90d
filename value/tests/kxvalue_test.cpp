// KXValue and KXError: the eight kinds, casts, references, arrays, assignment, equality.
#include "value/kxvalue.h"

#include <gtest/gtest.h>

#include <functional>
#include <limits>
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
    {"Binary", binaryOf(std::string("\x01\xFF\0", 3)), 3, "\\1\\255\\0", "{\"binary\":\"Af8A\"}",
     "1", "!", "!", "Binary "},
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
  EXPECT_EQ(errorText([] { KXValue::TypeToString(8); }),
            valueError("TypeToString", "Unknown type: 8"));
  EXPECT_EQ(errorText([] { KXValue::TypeToString(-1); }),
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
    {KXValue(), OP(v.arrayReserve(9)), "Array []"},
    {KXValue(1), OP(v.arrayReserve(4)), adopting("Array", "Int", "1")},
    {arrayOf(), OP(v.arrayReserve(-1)), valueError("arrayReserve", "negative capacity: -1")},
    {KXValue(), OP(v.arrayPush(KXValue("a"))), "Array [\"a\"]"},
    {KXValue(5), OP(v.arrayPush(KXValue(1))), adopting("Array", "Int", "5")},
    {arrayOf(1, 2), OP(v.xAssertArraySize(2)), "Array [1, 2]"},
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

TEST(KXValueTest, NullTextsAndBytesAreAssertions) {
  const char* none = nullptr;
  KXValue value(3);
  const std::string failed = valueError("Assert failed", "value/kxvalue.cpp:");
  EXPECT_EQ(errorText([&] { KXValue made(none); }).rfind(failed, 0), 0u);
  EXPECT_EQ(errorText([&] { value = none; }).rfind(failed, 0), 0u);
  EXPECT_EQ(errorText([&] { value.setBinary(nullptr, 4); }).rfind(failed, 0), 0u);
}

TEST(KXValueTest, StringArrayOfElements) {
  const KXValue array = arrayOf("a", 2, "c", KXValue());
  std::vector<std::string> skipped = {"stale"}, filled;
  testing::internal::CaptureStdout();
  array.ToStringArray(skipped, false);
  array.ToStringArray(filled, true);
  const std::string warning = "WARNING: KXValue::ToStringArray: elem ";
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            warning + "1 is not a string...\n" + warning + "3 is not a string...\n" + warning +
                "1 is not a string...\n...inserting an empty string.\n" + warning +
                "3 is not a string...\n...inserting an empty string.\n");
  EXPECT_EQ(skipped, (std::vector<std::string>{"a", "c"}));
  EXPECT_EQ(filled, (std::vector<std::string>{"a", "", "c", ""}));
  EXPECT_EQ(errorText([&] { KXValue("x").ToStringArray(filled, true); }),
            typeError("xAssertType", "Array", "String", "\"x\""));
  EXPECT_TRUE(filled.empty());
  EXPECT_EQ(KXValue(std::vector<std::string>{"p", ""}).toString(), "[\"p\", \"\"]");
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

}  // namespace
}  // namespace KX
