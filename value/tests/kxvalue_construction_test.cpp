#include "value/kxvalue.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "value/tests/value_test_util.h"

namespace KX {
namespace {

using testing_util::errorText;
using testing_util::valueError;
using Bytes = KXValue::TKXValueBinary;

const std::string& asString(const KXValue& value) {
  return static_cast<const KXValue::TKXValueString&>(value);
}

TEST(KXValueConstructionTest, DefaultIsInvalid) {
  KXValue value;
  EXPECT_EQ(value.getType(), KXValue::TypeInvalid);
  EXPECT_FALSE(value.isValid());
  EXPECT_EQ(value.getSize(), 0);
  EXPECT_EQ(value.toString(1), "");
}

TEST(KXValueConstructionTest, Scalars) {
  KXValue flag(true);
  KXValue number(-7);
  KXValue real(2.5f);
  KXValue narrowed(0.1);
  EXPECT_EQ(flag.getType(), KXValue::TypeBool);
  EXPECT_TRUE(flag.isBool());
  EXPECT_TRUE(static_cast<bool>(flag));
  EXPECT_EQ(number.getType(), KXValue::TypeInt);
  EXPECT_EQ(static_cast<int>(number), -7);
  EXPECT_EQ(real.getType(), KXValue::TypeFloat);
  EXPECT_EQ(static_cast<float>(real), 2.5f);
  EXPECT_EQ(narrowed.getType(), KXValue::TypeFloat);
  EXPECT_EQ(static_cast<float>(narrowed), 0.1f);  // single precision, not 0.1
  for (const KXValue* scalar : {&flag, &number, &real}) EXPECT_EQ(scalar->getSize(), 0);
}

TEST(KXValueConstructionTest, Strings) {
  KXValue fromString(std::string("ab\0c", 4));
  KXValue fromCString("hello");
  EXPECT_EQ(fromString.getType(), KXValue::TypeString);
  EXPECT_EQ(fromString.getSize(), 4);
  EXPECT_EQ(asString(fromString), std::string("ab\0c", 4));
  EXPECT_EQ(asString(fromCString), "hello");
  EXPECT_EQ(fromCString.getSize(), 5);
}

TEST(KXValueConstructionTest, NullCStringIsAnAssertion) {
  const char* none = nullptr;
  const std::string text = errorText([&] { KXValue value(none); });
  EXPECT_EQ(text.rfind("\tKXValue::Assert failed\n\tvalue/kxvalue.cpp:", 0), 0u) << text;
  KXValue value(3);
  EXPECT_EQ(errorText([&] { value = none; }).rfind("\tKXValue::Assert failed\n\t", 0), 0u);
  EXPECT_EQ(static_cast<int>(value), 3);
}

TEST(KXValueConstructionTest, VectorOfStringsIsAnArrayOfStrings) {
  KXValue value(std::vector<std::string>{"a", "", "ccc"});
  ASSERT_EQ(value.getType(), KXValue::TypeArray);
  ASSERT_EQ(value.getSize(), 3);
  EXPECT_EQ(asString(value[0]), "a");
  EXPECT_EQ(asString(value[1]), "");
  EXPECT_EQ(asString(value[2]), "ccc");
  EXPECT_EQ(KXValue(std::vector<std::string>{}).getSize(), 0);
  EXPECT_EQ(KXValue(std::vector<std::string>{}).getType(), KXValue::TypeArray);
}

KXValue nestedSample() {
  KXValue inner;
  inner.arrayPush(KXValue(2));
  inner.arrayPush(KXValue("two"));
  KXValue outer;
  outer.arrayPush(KXValue(1));
  outer.arrayPush(inner);
  Bytes bytes = {1, 2, 3};
  KXValue blob;
  blob = bytes;
  outer.arrayPush(blob);
  return outer;
}

TEST(KXValueConstructionTest, CopyIsDeep) {
  KXValue original = nestedSample();
  KXValue copy(original);
  EXPECT_TRUE(copy == original);
  static_cast<int&>(copy[1][0]) = 99;
  static_cast<std::string&>(copy[1][1]) = "changed";
  copy[2].getBinary()[0] = 42;
  EXPECT_EQ(static_cast<int>(original[1][0]), 2);
  EXPECT_EQ(asString(original[1][1]), "two");
  EXPECT_EQ(original[2].getBinary()[0], 1);
  EXPECT_FALSE(copy == original);

  KXValue assigned;
  assigned = original;
  original[1].arrayPush(KXValue(5));
  EXPECT_EQ(assigned[1].getSize(), 2);
  EXPECT_EQ(original[1].getSize(), 3);
}

TEST(KXValueConstructionTest, SelfAssignmentKeepsTheValue) {
  KXValue value = nestedSample();
  const KXValue expected = value;
  KXValue& alias = value;
  value = alias;
  EXPECT_TRUE(value == expected);
  value = std::move(alias);
  EXPECT_TRUE(value == expected);
}

TEST(KXValueConstructionTest, AssignFromOwnElement) {
  KXValue value = nestedSample();
  value = value[1];  // the element lives in the array being replaced
  ASSERT_EQ(value.getType(), KXValue::TypeArray);
  EXPECT_EQ(value.toString(1), "[2, \"two\"]");

  KXValue holder = nestedSample();
  holder = std::move(holder[1]);
  EXPECT_EQ(holder.toString(1), "[2, \"two\"]");

  KXValue text = nestedSample();
  text = asString(text[1][1]);
  EXPECT_EQ(text.toString(1), "\"two\"");
}

TEST(KXValueConstructionTest, MoveLeavesSourceInvalid) {
  KXValue source = nestedSample();
  KXValue moved(std::move(source));
  EXPECT_EQ(source.getType(), KXValue::TypeInvalid);  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(moved.getSize(), 3);
  KXValue target(5);
  target = std::move(moved);
  EXPECT_EQ(moved.getType(), KXValue::TypeInvalid);  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(target.getSize(), 3);
}

TEST(KXValueConstructionTest, ScalarAssignmentChangesType) {
  KXValue value("text");
  value = 3;
  EXPECT_EQ(value.getType(), KXValue::TypeInt);
  EXPECT_EQ(static_cast<int>(value), 3);
  value = 4;
  EXPECT_EQ(static_cast<int>(value), 4);
  value = false;
  EXPECT_EQ(value.getType(), KXValue::TypeBool);
  EXPECT_FALSE(static_cast<bool>(value));
  value = 1.5f;
  EXPECT_EQ(value.getType(), KXValue::TypeFloat);
  value = 2.25;
  EXPECT_EQ(static_cast<float>(value), 2.25f);
  value = std::string("s");
  EXPECT_EQ(value.getType(), KXValue::TypeString);
  value = "longer";
  EXPECT_EQ(asString(value), "longer");
  value.clear();
  EXPECT_EQ(value.getType(), KXValue::TypeInvalid);
}

TEST(KXValueConstructionTest, ByteVectorAssignment) {
  KXValue value(1);
  value = Bytes{0, 255, 7};
  ASSERT_EQ(value.getType(), KXValue::TypeBinary);
  EXPECT_EQ(value.getBinary(), (Bytes{0, 255, 7}));
  value = Bytes{};
  EXPECT_EQ(value.getType(), KXValue::TypeBinary);
  EXPECT_EQ(value.getSize(), 0);
  value = value.getBinary();  // its own bytes
  EXPECT_EQ(value.getSize(), 0);
}

TEST(KXValueConstructionTest, SetBinary) {
  const unsigned char raw[] = {9, 8, 7, 6};
  KXValue value("x");
  value.setBinary(raw, sizeof raw);
  ASSERT_EQ(value.getType(), KXValue::TypeBinary);
  EXPECT_EQ(value.getBinary(), (Bytes{9, 8, 7, 6}));
  value.setBinary(raw + 2, 2);
  EXPECT_EQ(value.getBinary(), (Bytes{7, 6}));
  value.setBinary(value.getBinary().data() + 1, 1);  // from its own storage
  EXPECT_EQ(value.getBinary(), (Bytes{6}));
}

TEST(KXValueConstructionTest, SetBinaryEmpty) {
  const unsigned char raw[] = {1};
  KXValue value(3);
  value.setBinary(raw, 0);
  EXPECT_EQ(value.getType(), KXValue::TypeBinary);
  EXPECT_EQ(value.getSize(), 0);
  KXValue other;
  other.setBinary(nullptr, 0);
  EXPECT_EQ(other.getType(), KXValue::TypeBinary);
  EXPECT_EQ(other.getSize(), 0);
  EXPECT_FALSE(static_cast<bool>(other));
}

TEST(KXValueConstructionTest, SetBinaryNullWithLengthIsAnAssertion) {
  KXValue value(3);
  EXPECT_EQ(
      errorText([&] { value.setBinary(nullptr, 4); }).rfind("\tKXValue::Assert failed\n\t", 0), 0u);
}

// ---- casts

TEST(KXValueCastTest, ToBool) {
  KXValue emptyArray;
  emptyArray.arraySetSize(0);
  KXValue fullArray;
  fullArray.arraySetSize(1);
  EXPECT_FALSE(static_cast<bool>(emptyArray));
  EXPECT_TRUE(static_cast<bool>(fullArray));
  EXPECT_FALSE(static_cast<bool>(KXValue(0)));
  EXPECT_TRUE(static_cast<bool>(KXValue(-3)));
  EXPECT_FALSE(static_cast<bool>(KXValue(0.0f)));
  EXPECT_TRUE(static_cast<bool>(KXValue(0.001f)));
  EXPECT_TRUE(static_cast<bool>(KXValue(std::numeric_limits<float>::quiet_NaN())));
  EXPECT_FALSE(static_cast<bool>(KXValue("")));
  EXPECT_TRUE(static_cast<bool>(KXValue("a")));
  KXValue blob;
  blob = Bytes{};
  EXPECT_FALSE(static_cast<bool>(blob));
  blob = Bytes{0};
  EXPECT_TRUE(static_cast<bool>(blob));
  KXValue object;
  object.decodeBase64Object("AA==");
  EXPECT_TRUE(static_cast<bool>(object));
}

TEST(KXValueCastTest, InvalidToBoolRaises) {
  KXValue value;
  EXPECT_EQ(errorText([&] { (void)static_cast<bool>(value); }),
            valueError("const bool() const", "Cannot cast to bool an KXValue of invalid type."));
}

TEST(KXValueCastTest, ToInt) {
  EXPECT_EQ(static_cast<int>(KXValue(123)), 123);
  EXPECT_EQ(static_cast<int>(KXValue(true)), 1);
  EXPECT_EQ(static_cast<int>(KXValue(false)), 0);
  EXPECT_EQ(static_cast<int>(KXValue(2.9f)), 2);
  EXPECT_EQ(static_cast<int>(KXValue(-2.9f)), -2);
  EXPECT_EQ(static_cast<int>(KXValue(-0.5f)), 0);
}

TEST(KXValueCastTest, FloatToIntSaturates) {
  const int maxInt = std::numeric_limits<int>::max();
  const int minInt = std::numeric_limits<int>::min();
  EXPECT_EQ(static_cast<int>(KXValue(3e9f)), maxInt);
  EXPECT_EQ(static_cast<int>(KXValue(2147483648.0f)), maxInt);
  EXPECT_EQ(static_cast<int>(KXValue(-2147483648.0f)), minInt);
  EXPECT_EQ(static_cast<int>(KXValue(-1e20f)), minInt);
  EXPECT_EQ(static_cast<int>(KXValue(std::numeric_limits<float>::infinity())), maxInt);
  EXPECT_EQ(static_cast<int>(KXValue(-std::numeric_limits<float>::infinity())), minInt);
  EXPECT_EQ(static_cast<int>(KXValue(std::numeric_limits<float>::quiet_NaN())), 0);
  EXPECT_EQ(static_cast<int>(KXValue(2147483520.0f)), 2147483520);  // largest float below 2^31
}

TEST(KXValueCastTest, ToFloat) {
  EXPECT_EQ(static_cast<float>(KXValue(1.25f)), 1.25f);
  EXPECT_EQ(static_cast<float>(KXValue(-4)), -4.0f);
  EXPECT_EQ(static_cast<float>(KXValue(16777217)), 16777216.0f);  // rounded to single
}

TEST(KXValueCastTest, ToConstString) {
  const KXValue value("abc");
  EXPECT_EQ(asString(value), "abc");
  EXPECT_EQ(&asString(value), &asString(value));  // a reference to the stored string
}

TEST(KXValueCastTest, SmallBinaryReadAsStringIsConvertedInPlace) {
  KXValue value;
  value = Bytes{'h', 'i', 0, 'x'};
  testing::internal::CaptureStdout();
  const std::string& text = asString(value);
  const std::string printed = testing::internal::GetCapturedStdout();
  EXPECT_EQ(printed,
            "WARNING: KXValue::operator const TKXValueString&: creating a string on the fly to "
            "patch possible ruby encoding problem (size of binary: 4)\n");
  EXPECT_EQ(text, std::string("hi\0x\0", 5));
  EXPECT_EQ(value.getType(), KXValue::TypeString);
  EXPECT_EQ(value.getSize(), 5);
}

TEST(KXValueCastTest, LargeBinaryReadAsStringRaises) {
  KXValue value;
  value = Bytes(100000, 1);
  const std::string text = errorText([&] { (void)asString(value); });
  EXPECT_EQ(text.rfind(valueError("xAssertType: type error",
                                  "Expected a String but received a Binary (kxvalue contents: "),
                       0),
            0u);
  EXPECT_EQ(value.getType(), KXValue::TypeBinary);

  KXValue justBelow;
  justBelow = Bytes(99999, 1);
  testing::internal::CaptureStdout();
  EXPECT_EQ(asString(justBelow).size(), 100000u);
  EXPECT_NE(testing::internal::GetCapturedStdout().find("(size of binary: 99999)"),
            std::string::npos);
}

TEST(KXValueCastTest, ReadingANonConstValueNeverChangesIt) {
  KXValue number(5);
  EXPECT_TRUE(static_cast<bool>(number));
  EXPECT_EQ(number.getType(), KXValue::TypeInt);
  KXValue flag(true);
  EXPECT_EQ(static_cast<int>(flag), 1);
  EXPECT_EQ(flag.getType(), KXValue::TypeBool);
  KXValue invalid;
  EXPECT_EQ(errorText([&] {
              if (invalid) ADD_FAILURE() << "an invalid value read as true";
            }),
            valueError("const bool() const", "Cannot cast to bool an KXValue of invalid type."));
  EXPECT_EQ(invalid.getType(), KXValue::TypeInvalid);
  KXValue array;
  array.arraySetSize(2);
  EXPECT_TRUE(static_cast<bool>(array));
  KXValue number2(2);
  EXPECT_EQ(static_cast<float>(number2), 2.0f);
  EXPECT_EQ(number2.getType(), KXValue::TypeInt);
}

// ---- mutable references

TEST(KXValueReferenceTest, IntReferenceAdoptsInvalid) {
  KXValue value;
  static_cast<int&>(value) = 17;
  EXPECT_EQ(value.getType(), KXValue::TypeInt);
  EXPECT_EQ(static_cast<int>(value), 17);
  static_cast<int&>(value) += 1;
  EXPECT_EQ(static_cast<int>(value), 18);
}

TEST(KXValueReferenceTest, IntReferenceOnOtherTypeRaises) {
  KXValue value(true);
  EXPECT_EQ(errorText([&] { (void)static_cast<int&>(value); }),
            valueError("xAssertCompatibleType: type error",
                       "Expected a Int but received a Bool (kxvalue contents: true )"));
}

TEST(KXValueReferenceTest, BoolReference) {
  KXValue invalid;
  static_cast<bool&>(invalid) = true;
  EXPECT_EQ(invalid.getType(), KXValue::TypeBool);
  EXPECT_TRUE(static_cast<bool>(invalid));

  KXValue number(5);
  bool& flag = static_cast<bool&>(number);
  EXPECT_TRUE(flag);
  EXPECT_EQ(number.getType(), KXValue::TypeBool);
  flag = false;
  EXPECT_FALSE(static_cast<bool>(number));

  KXValue zero(0);
  EXPECT_FALSE(static_cast<bool&>(zero));

  KXValue text("t");
  EXPECT_EQ(errorText([&] { (void)static_cast<bool&>(text); }),
            valueError("xAssertCompatibleType: type error",
                       "Expected a Bool but received a String (kxvalue contents: \"t\" )"));
}

TEST(KXValueReferenceTest, FloatReference) {
  KXValue value;
  static_cast<float&>(value) = 0.5f;
  EXPECT_EQ(value.getType(), KXValue::TypeFloat);
  EXPECT_EQ(static_cast<float>(value), 0.5f);
  KXValue number(1);
  EXPECT_EQ(errorText([&] { (void)static_cast<float&>(number); }),
            valueError("xAssertCompatibleType: type error",
                       "Expected a Float but received a Int (kxvalue contents: 1 )"));
}

TEST(KXValueReferenceTest, StringReference) {
  KXValue value;
  auto& text = static_cast<KXValue::TKXValueString&>(value);
  EXPECT_EQ(value.getType(), KXValue::TypeString);
  EXPECT_GE(text.capacity(), 64u);
  text += "grown";
  EXPECT_EQ(asString(value), "grown");
  EXPECT_EQ(value.getSize(), 5);
}

TEST(KXValueReferenceTest, BinaryReference) {
  KXValue value;
  auto& bytes = value.getBinary();
  EXPECT_EQ(value.getType(), KXValue::TypeBinary);
  EXPECT_GE(bytes.capacity(), 1024u);
  bytes.push_back(3);
  EXPECT_EQ(value.getSize(), 1);

  KXValue object;
  object.decodeBase64Object("AQI=");
  object.getBinary().push_back(3);
  EXPECT_EQ(object.getType(), KXValue::TypeObject);
  EXPECT_EQ(static_cast<const KXValue&>(object).getBinary(), (Bytes{1, 2, 3}));

  KXValue number(2);
  EXPECT_EQ(errorText([&] { (void)number.getBinary(); }),
            valueError("xAssertCompatibleType: type error",
                       "Expected a Binary but received a Int (kxvalue contents: 2 )"));
  const KXValue constNumber(2);
  EXPECT_EQ(errorText([&] { (void)constNumber.getBinary(); }),
            valueError("xAssertType: type error",
                       "Expected a Binary but received a Int (kxvalue contents: 2 )"));
}

}  // namespace
}  // namespace KX
