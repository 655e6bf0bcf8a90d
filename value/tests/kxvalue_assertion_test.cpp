#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include "value/kxvalue.h"
#include "value/tests/value_test_util.h"

namespace KX {
namespace {

using testing_util::errorText;
using testing_util::valueError;

std::string typeError(const std::string& expected, const std::string& actual,
                      const std::string& contents) {
  return valueError("xAssertType: type error", "Expected a " + expected + " but received a " +
                                                   actual + " (kxvalue contents: " + contents +
                                                   " )");
}

std::string compatibleError(const std::string& expected, const std::string& actual,
                            const std::string& contents) {
  return valueError("xAssertCompatibleType: type error",
                    "Expected a " + expected + " but received a " + actual +
                        " (kxvalue contents: " + contents + " )");
}

TEST(KXValueAssertionTest, TypeToStringNames) {
  const std::vector<std::string> names = {"Invalid", "Array",  "Bool",   "Int",
                                          "Float",   "String", "Object", "Binary"};
  for (int code = 0; code < 8; ++code) EXPECT_EQ(KXValue::TypeToString(code), names[code]);
}

TEST(KXValueAssertionTest, TypeToStringUnknownCode) {
  EXPECT_EQ(errorText([] { KXValue::TypeToString(8); }),
            valueError("TypeToString", "Unknown type: 8"));
  EXPECT_EQ(errorText([] { KXValue::TypeToString(-1); }),
            valueError("TypeToString", "Unknown type: -1"));
}

TEST(KXValueAssertionTest, XAssertTypeIsStrict) {
  const KXValue number(5);
  EXPECT_NO_THROW(number.xAssertType(KXValue::TypeInt));
  EXPECT_EQ(errorText([&] { number.xAssertType(KXValue::TypeFloat); }),
            typeError("Float", "Int", "5"));
  const KXValue real(1.5f);
  EXPECT_EQ(errorText([&] { real.xAssertType(KXValue::TypeInt); }),
            typeError("Int", "Float", "1.5"));
  const KXValue invalid;
  EXPECT_EQ(errorText([&] { invalid.xAssertType(KXValue::TypeArray); }),
            typeError("Array", "Invalid", ""));
  EXPECT_EQ(invalid.getType(), KXValue::TypeInvalid);  // never adopts
}

TEST(KXValueAssertionTest, IntCastOfNonNumbersRaises) {
  const KXValue text("abc");
  EXPECT_EQ(errorText([&] { (void)static_cast<int>(text); }),
            typeError("Int", "String", "\"abc\""));
  KXValue array;
  array.arrayPush(KXValue(1));
  const KXValue& constArray = array;
  EXPECT_EQ(errorText([&] { (void)static_cast<int>(constArray); }),
            typeError("Int", "Array", "[1]"));
  const KXValue invalid;
  EXPECT_EQ(errorText([&] { (void)static_cast<int>(invalid); }), typeError("Int", "Invalid", ""));
  KXValue blob;
  blob.setBinary("\x01\x02", 2);
  const KXValue& constBlob = blob;
  EXPECT_EQ(errorText([&] { (void)static_cast<int>(constBlob); }),
            typeError("Int", "Binary", "\\1\\2"));
  KXValue object;
  object.decodeBase64Object("QUI=");  // "AB"
  const KXValue& constObject = object;
  EXPECT_EQ(errorText([&] { (void)static_cast<int>(constObject); }),
            typeError("Int", "Object", "AB"));
}

TEST(KXValueAssertionTest, FloatCastOfNonNumbersRaises) {
  const KXValue flag(true);
  EXPECT_EQ(errorText([&] { (void)static_cast<float>(flag); }), typeError("Float", "Bool", "true"));
  const KXValue text("x");
  EXPECT_EQ(errorText([&] { (void)static_cast<float>(text); }),
            typeError("Float", "String", "\"x\""));
  const KXValue invalid;
  EXPECT_EQ(errorText([&] { (void)static_cast<float>(invalid); }),
            typeError("Float", "Invalid", ""));
}

TEST(KXValueAssertionTest, StringCastOfNonStringsRaises) {
  const KXValue number(7);
  EXPECT_EQ(errorText([&] { (void)static_cast<const std::string&>(number); }),
            typeError("String", "Int", "7"));
  const KXValue invalid;
  EXPECT_EQ(errorText([&] { (void)static_cast<const std::string&>(invalid); }),
            typeError("String", "Invalid", ""));
}

TEST(KXValueAssertionTest, CompatibleTypeAdoptsInvalid) {
  for (auto type : {KXValue::TypeArray, KXValue::TypeBool, KXValue::TypeInt, KXValue::TypeFloat,
                    KXValue::TypeString, KXValue::TypeObject, KXValue::TypeBinary}) {
    KXValue value;
    value.xAssertCompatibleType(type);
    EXPECT_EQ(value.getType(), type);
    EXPECT_EQ(value.getSize(), 0);
  }
  KXValue adoptedBool;
  adoptedBool.xAssertCompatibleType(KXValue::TypeBool);
  EXPECT_FALSE(static_cast<bool>(adoptedBool));
  KXValue adoptedInt;
  adoptedInt.xAssertCompatibleType(KXValue::TypeInt);
  EXPECT_EQ(static_cast<int>(adoptedInt), 0);
  KXValue adoptedFloat;
  adoptedFloat.xAssertCompatibleType(KXValue::TypeFloat);
  EXPECT_EQ(static_cast<float>(adoptedFloat), 0.0f);
  KXValue invalid;
  invalid.xAssertCompatibleType(KXValue::TypeInvalid);
  EXPECT_EQ(invalid.getType(), KXValue::TypeInvalid);
}

TEST(KXValueAssertionTest, CompatibleTypeKeepsSameType) {
  KXValue text("keep");
  text.xAssertCompatibleType(KXValue::TypeString);
  EXPECT_EQ(text.toString(1), "\"keep\"");
}

TEST(KXValueAssertionTest, CompatibleTypeMismatchRaises) {
  KXValue text("abc");
  EXPECT_EQ(errorText([&] { text.xAssertCompatibleType(KXValue::TypeInt); }),
            compatibleError("Int", "String", "\"abc\""));
  EXPECT_EQ(text.toString(1), "\"abc\"");
}

TEST(KXValueAssertionTest, ArraySizeOnNonArray) {
  const KXValue number(1);
  EXPECT_EQ(errorText([&] { number.xAssertArraySize(1); }),
            valueError("xAssertArraySize", "try to use a Int like an array"));
  const KXValue invalid;
  EXPECT_EQ(errorText([&] { invalid.xAssertArraySize(0); }),
            valueError("xAssertArraySize", "try to use a Invalid like an array"));
}

TEST(KXValueAssertionTest, ArraySizeBoundary) {
  KXValue array;
  array.arraySetSize(3);
  EXPECT_NO_THROW(array.xAssertArraySize(0));
  EXPECT_NO_THROW(array.xAssertArraySize(3));
  EXPECT_EQ(
      errorText([&] { array.xAssertArraySize(4); }),
      valueError("xAssertArraySize", "The array has a size of 3 and you want it to be of size 4"));
}

TEST(KXValueAssertionTest, ErrorContentsEmbedTheCompactForm) {
  KXValue array;
  array.arrayPush(KXValue(1));
  array.arrayPush(KXValue("two"));
  EXPECT_EQ(errorText([&] { array.xAssertCompatibleType(KXValue::TypeBool); }),
            compatibleError("Bool", "Array", "[1, \"two\"]"));
}

}  // namespace
}  // namespace KX
