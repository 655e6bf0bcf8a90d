#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "value/kxvalue.h"
#include "value/tests/value_test_util.h"

namespace KX {
namespace {

using testing_util::errorText;
using testing_util::valueError;

TEST(KXValueArrayTest, MutableIndexOnInvalidAdoptsArrayThenRaises) {
  KXValue value;
  EXPECT_EQ(
      errorText([&] { value[0]; }),
      valueError("xAssertArraySize", "The array has a size of 0 and you want it to be of size 1"));
  EXPECT_EQ(value.getType(), KXValue::TypeArray);
  EXPECT_EQ(value.getSize(), 0);
}

TEST(KXValueArrayTest, MutableIndexOnScalarRaises) {
  KXValue value(5);
  EXPECT_EQ(errorText([&] { value[0]; }),
            valueError("xAssertCompatibleType: type error",
                       "Expected a Array but received a Int (kxvalue contents: 5 )"));
}

TEST(KXValueArrayTest, ConstIndex) {
  KXValue array;
  array.arrayPush(KXValue(10));
  array.arrayPush(KXValue(20));
  const KXValue& view = array;
  EXPECT_EQ(static_cast<int>(view[0]), 10);
  EXPECT_EQ(static_cast<int>(view[1]), 20);
  EXPECT_EQ(
      errorText([&] { view[2]; }),
      valueError("xAssertArraySize", "The array has a size of 2 and you want it to be of size 3"));
  const KXValue invalid;
  EXPECT_EQ(errorText([&] { invalid[0]; }),
            valueError("xAssertType: type error",
                       "Expected a Array but received a Invalid (kxvalue contents:  )"));
  EXPECT_EQ(invalid.getType(), KXValue::TypeInvalid);
}

TEST(KXValueArrayTest, IndexingNeverGrows) {
  KXValue array;
  array.arraySetSize(1);
  EXPECT_EQ(
      errorText([&] { array[1]; }),
      valueError("xAssertArraySize", "The array has a size of 1 and you want it to be of size 2"));
  EXPECT_EQ(array.getSize(), 1);
}

TEST(KXValueArrayTest, NegativeIndexRaises) {
  KXValue array;
  array.arraySetSize(2);
  EXPECT_EQ(errorText([&] { array[-1]; }), valueError("operator[]", "negative index: -1"));
  const KXValue& view = array;
  EXPECT_EQ(errorText([&] { view[-1]; }), valueError("operator[]", "negative index: -1"));
}

TEST(KXValueArrayTest, SetSizeGrowsWithInvalidAndShrinks) {
  KXValue array;
  array.arraySetSize(3);
  ASSERT_EQ(array.getType(), KXValue::TypeArray);
  EXPECT_EQ(array.getSize(), 3);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(array[i].getType(), KXValue::TypeInvalid);
  array[0] = 1;
  array[2] = "last";
  array.arraySetSize(1);
  EXPECT_EQ(array.toString(1), "[1]");
  array.arraySetSize(2);
  EXPECT_EQ(array[1].getType(), KXValue::TypeInvalid);
  KXValue text("t");
  EXPECT_EQ(errorText([&] { text.arraySetSize(1); }),
            valueError("xAssertCompatibleType: type error",
                       "Expected a Array but received a String (kxvalue contents: \"t\" )"));
  EXPECT_EQ(errorText([&] { array.arraySetSize(-1); }),
            valueError("arraySetSize", "negative size: -1"));
}

TEST(KXValueArrayTest, Reserve) {
  KXValue array;
  array.arrayReserve(100);
  EXPECT_EQ(array.getType(), KXValue::TypeArray);
  EXPECT_EQ(array.getSize(), 0);
  array.arrayPush(KXValue(1));
  KXValue& first = array[0];
  for (int i = 0; i < 99; ++i) array.arrayPush(KXValue(i));
  EXPECT_EQ(&first, &array[0]);  // the reserved storage did not move
  KXValue number(1);
  EXPECT_EQ(errorText([&] { number.arrayReserve(4); }),
            valueError("xAssertCompatibleType: type error",
                       "Expected a Array but received a Int (kxvalue contents: 1 )"));
}

TEST(KXValueArrayTest, APushedTemporaryIsTakenOverNotCopied) {
  const std::vector<unsigned char> bytes(4096, 7);
  KXValue blob;
  blob.setBinary(bytes.data(), bytes.size());
  const unsigned char* const storage = blob.getBinary().data();
  KXValue array;
  array.arrayPush(std::move(blob));
  EXPECT_EQ(array[0].getBinary().data(), storage);
  EXPECT_EQ(array[0].getBinary(), bytes);
}

TEST(KXValueArrayTest, PushOnInvalidMakesOneElementArray) {
  KXValue value;
  value.arrayPush(KXValue("first"));
  ASSERT_EQ(value.getType(), KXValue::TypeArray);
  EXPECT_EQ(value.getSize(), 1);
  EXPECT_EQ(value.toString(1), "[\"first\"]");
}

TEST(KXValueArrayTest, PushOnIntRaises) {
  KXValue value(5);
  EXPECT_EQ(errorText([&] { value.arrayPush(KXValue(1)); }),
            valueError("xAssertCompatibleType: type error",
                       "Expected a Array but received a Int (kxvalue contents: 5 )"));
  EXPECT_EQ(static_cast<int>(value), 5);
}

TEST(KXValueArrayTest, PushCopiesDeeply) {
  KXValue inner;
  inner.arrayPush(KXValue(1));
  KXValue outer;
  outer.arrayPush(inner);
  inner.arrayPush(KXValue(2));
  EXPECT_EQ(outer.toString(1), "[[1]]");
}

TEST(KXValueArrayTest, PushOwnElementAndItself) {
  KXValue array;
  array.arrayPush(KXValue("a"));
  for (int i = 0; i < 40; ++i) array.arrayPush(array[0]);  // crosses reallocations
  EXPECT_EQ(array.getSize(), 41);
  EXPECT_EQ(array[40].toString(1), "\"a\"");
  KXValue self;
  self.arrayPush(KXValue(1));
  self.arrayPush(self);
  EXPECT_EQ(self.toString(1), "[1, [1]]");
}

TEST(KXValueArrayTest, ToStringArraySkipsNonStrings) {
  KXValue array;
  array.arrayPush(KXValue("a"));
  array.arrayPush(KXValue(2));
  array.arrayPush(KXValue("c"));
  array.arrayPush(KXValue());
  std::vector<std::string> out = {"stale"};
  testing::internal::CaptureStdout();
  array.ToStringArray(out, false);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "WARNING: KXValue::ToStringArray: elem 1 is not a string...\n"
            "WARNING: KXValue::ToStringArray: elem 3 is not a string...\n");
  EXPECT_EQ(out, (std::vector<std::string>{"a", "c"}));
}

TEST(KXValueArrayTest, ToStringArrayInsertsEmpty) {
  KXValue array;
  array.arrayPush(KXValue(1.5f));
  array.arrayPush(KXValue("b"));
  std::vector<std::string> out;
  testing::internal::CaptureStdout();
  array.ToStringArray(out, true);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "WARNING: KXValue::ToStringArray: elem 0 is not a string...\n"
            "...inserting an empty string.\n");
  EXPECT_EQ(out, (std::vector<std::string>{"", "b"}));
}

TEST(KXValueArrayTest, ToStringArrayOfStringsPrintsNothing) {
  const KXValue array(std::vector<std::string>{"x", "y"});
  std::vector<std::string> out;
  testing::internal::CaptureStdout();
  array.ToStringArray(out, true);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(out, (std::vector<std::string>{"x", "y"}));
}

TEST(KXValueArrayTest, ToStringArrayOfNonArrayRaises) {
  const KXValue text("x");
  std::vector<std::string> out = {"stale"};
  EXPECT_EQ(errorText([&] { text.ToStringArray(out, true); }),
            valueError("xAssertType: type error",
                       "Expected a Array but received a String (kxvalue contents: \"x\" )"));
  EXPECT_TRUE(out.empty());
}

TEST(KXValueArrayTest, SizesOfEveryType) {
  KXValue array;
  array.arraySetSize(4);
  EXPECT_EQ(array.getSize(), 4);
  EXPECT_EQ(KXValue("four").getSize(), 4);
  KXValue blob;
  blob.setBinary("12345", 5);
  EXPECT_EQ(blob.getSize(), 5);
  KXValue object;
  object.decodeBase64Object("AAAA");
  EXPECT_EQ(object.getSize(), 3);
  EXPECT_EQ(KXValue(true).getSize(), 0);
  EXPECT_EQ(KXValue(9).getSize(), 0);
  EXPECT_EQ(KXValue(9.5f).getSize(), 0);
}

}  // namespace
}  // namespace KX
