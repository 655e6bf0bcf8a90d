#include "module/kxfunctor.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "module/kxfunctorconvert.h"
#include "value/kxerror.h"
#include "value/kxvalue.h"

namespace KX {
namespace {

using detail::KXFunctor;

// A plain class whose members record what they received.
class Target {
 public:
  int takeInt(const int& value) {
    ++calls;
    lastInt = value;
    return value * 2;
  }
  bool takeBool(const bool& value) {
    ++calls;
    lastBool = value;
    return !value;
  }
  float takeFloat(const float& value) {
    ++calls;
    return value + 0.5f;
  }
  std::string takeString(const std::string& value) {
    ++calls;
    return value + "!";
  }
  void takeNothing() { ++calls; }
  void setInt(const int& value) {
    ++calls;
    lastInt = value;
  }
  std::vector<std::string> takeStrings(const std::vector<std::string>& values) {
    ++calls;
    return values;
  }
  std::vector<int> takeInts(const std::vector<int>& values) {
    ++calls;
    return values;
  }
  std::vector<float> takeFloats(const std::vector<float>& values) {
    ++calls;
    return values;
  }
  KXValue takeValue(const KXValue& value) {
    ++calls;
    return value;
  }
  std::string joinTwo(const std::string& a, const int& b) {
    ++calls;
    return a + std::to_string(b);
  }
  int sixSum(const int& a, const int& b, const int& c, const int& d, const int& e, const int& f) {
    ++calls;
    return a + 10 * b + 100 * c + 1000 * d + 10000 * e + 100000 * f;
  }
  int fail() {
    ++calls;
    KX_THROW("Target", "fail", "own failure");
  }
  int failPlain() { throw std::runtime_error("plain"); }

  int calls = 0;
  int lastInt = 0;
  bool lastBool = false;
};

KXValue args() {
  KXValue array;
  array.arraySetSize(0);
  return array;
}

template <typename... T>
KXValue args(const T&... values) {
  KXValue array = args();
  (array.arrayPush(KXValue(values)), ...);
  return array;
}

// Runs `body` and returns the text of the KXError it throws ("" when it throws nothing).
template <typename F>
std::string errorText(F body) {
  try {
    body();
  } catch (const KXError& error) {
    return error.what();
  }
  return "";
}

std::string conversionError(const std::string& description) {
  return "\tconvertFromKXValue::convertFromKXValue\n\t" + description;
}

class FunctorTest : public ::testing::Test {
 protected:
  template <typename R, typename... P>
  std::shared_ptr<KXFunctorBase> bind(R (Target::*method)(const P&...)) {
    return std::make_shared<KXFunctor<Target, R, P...>>(&target, method);
  }
  template <typename R>
  std::shared_ptr<KXFunctorBase> bind(R (Target::*method)()) {
    return std::make_shared<KXFunctor<Target, R>>(&target, method);
  }

  Target target;
};

TEST_F(FunctorTest, IntParameterRefusesAString) {
  auto functor = bind(&Target::takeInt);
  KXValue result = "before";
  EXPECT_EQ(errorText([&] { functor->call(args("3"), result); }),
            conversionError("Parameter type is String instead of int"));
  EXPECT_EQ(target.calls, 0);
  EXPECT_EQ(result, KXValue("before"));
}

TEST_F(FunctorTest, IntParameterRefusesAFloatAndABool) {
  auto functor = bind(&Target::takeInt);
  KXValue result;
  EXPECT_EQ(errorText([&] { functor->call(args(3.0f), result); }),
            conversionError("Parameter type is Float instead of int"));
  EXPECT_EQ(errorText([&] { functor->call(args(true), result); }),
            conversionError("Parameter type is Bool instead of int"));
  EXPECT_EQ(target.calls, 0);
}

TEST_F(FunctorTest, IntParameterTakesAnInt) {
  auto functor = bind(&Target::takeInt);
  KXValue result;
  functor->call(args(21), result);
  EXPECT_EQ(target.lastInt, 21);
  EXPECT_EQ(result.getType(), KXValue::TypeInt);
  EXPECT_EQ(static_cast<int>(result), 42);
}

TEST_F(FunctorTest, BoolParameterTakesAnIntAsAFlag) {
  auto functor = bind(&Target::takeBool);
  KXValue result;
  functor->call(args(2), result);
  EXPECT_TRUE(target.lastBool);
  EXPECT_EQ(result.getType(), KXValue::TypeBool);
  EXPECT_FALSE(static_cast<bool>(result));

  functor->call(args(0), result);
  EXPECT_FALSE(target.lastBool);
  functor->call(args(-1), result);
  EXPECT_TRUE(target.lastBool);
  functor->call(args(false), result);
  EXPECT_FALSE(target.lastBool);
}

TEST_F(FunctorTest, BoolParameterRefusesOtherTypes) {
  auto functor = bind(&Target::takeBool);
  KXValue result;
  EXPECT_EQ(errorText([&] { functor->call(args(1.0f), result); }),
            conversionError("Parameter type is Float instead of bool"));
  EXPECT_EQ(errorText([&] { functor->call(args("true"), result); }),
            conversionError("Parameter type is String instead of bool"));
  EXPECT_EQ(target.calls, 0);
}

TEST_F(FunctorTest, FloatParameterTakesFloatAndInt) {
  auto functor = bind(&Target::takeFloat);
  KXValue result;
  functor->call(args(1.25f), result);
  EXPECT_EQ(result.getType(), KXValue::TypeFloat);
  EXPECT_FLOAT_EQ(static_cast<float>(result), 1.75f);
  functor->call(args(3), result);
  EXPECT_FLOAT_EQ(static_cast<float>(result), 3.5f);
  EXPECT_EQ(errorText([&] { functor->call(args("1.5"), result); }),
            conversionError("Parameter type is String instead of float"));
  EXPECT_EQ(target.calls, 2);
}

TEST_F(FunctorTest, StringParameterTakesOnlyAString) {
  auto functor = bind(&Target::takeString);
  KXValue result;
  functor->call(args("hi"), result);
  EXPECT_EQ(result, KXValue("hi!"));
  EXPECT_EQ(errorText([&] { functor->call(args(5), result); }),
            conversionError("Parameter type is Int instead of string"));
  KXValue invalid;
  KXValue params = args();
  params.arrayPush(invalid);
  EXPECT_EQ(errorText([&] { functor->call(params, result); }),
            conversionError("Parameter type is Invalid instead of string"));
  EXPECT_EQ(target.calls, 1);
}

TEST_F(FunctorTest, OneParameterWithAnEmptyArrayRaisesTheSizeAssertion) {
  auto functor = bind(&Target::takeInt);
  KXValue result = 7;
  EXPECT_EQ(errorText([&] { functor->call(args(), result); }),
            "\tKXValue::xAssertArraySize\n\tThe array has a size of 0 and you want it to be of "
            "size 1");
  EXPECT_EQ(target.calls, 0);
  EXPECT_EQ(result, KXValue(7));
}

TEST_F(FunctorTest, ShortArrayNamesTheMissingPosition) {
  auto functor = bind(&Target::joinTwo);
  KXValue result;
  EXPECT_EQ(errorText([&] { functor->call(args("a"), result); }),
            "\tKXValue::xAssertArraySize\n\tThe array has a size of 1 and you want it to be of "
            "size 2");
  EXPECT_EQ(target.calls, 0);
}

TEST_F(FunctorTest, NonArrayParamsRaiseTheTypeAssertion) {
  auto functor = bind(&Target::takeInt);
  KXValue result;
  const std::string text = errorText([&] { functor->call(KXValue(3), result); });
  EXPECT_NE(text.find("Expected a Array but received a Int"), std::string::npos) << text;
  EXPECT_EQ(target.calls, 0);
}

TEST_F(FunctorTest, ExtraElementsAreIgnored) {
  auto functor = bind(&Target::takeInt);
  KXValue result;
  functor->call(args(4, "extra", 2.5f), result);
  EXPECT_EQ(static_cast<int>(result), 8);
}

TEST_F(FunctorTest, ArgumentsAreReadInOrder) {
  auto functor = bind(&Target::joinTwo);
  KXValue result;
  functor->call(args("n", 12), result);
  EXPECT_EQ(result, KXValue("n12"));
  // The second argument fails: the first converted fine, yet nothing is called.
  EXPECT_EQ(errorText([&] { functor->call(args("n", "12"), result); }),
            conversionError("Parameter type is String instead of int"));
  EXPECT_EQ(target.calls, 1);
}

TEST_F(FunctorTest, SixParametersArriveInPosition) {
  auto functor = std::make_shared<detail::KXFunctor_6<Target, int, int, int, int, int, int, int>>(
      &target, &Target::sixSum);
  KXValue result;
  functor->call(args(1, 2, 3, 4, 5, 6), result);
  EXPECT_EQ(static_cast<int>(result), 654321);
}

TEST_F(FunctorTest, VoidMethodLeavesTheResultUntouched) {
  KXValue result = "kept";
  bind(&Target::takeNothing)->call(args(), result);
  EXPECT_EQ(target.calls, 1);
  EXPECT_EQ(result, KXValue("kept"));

  bind(&Target::setInt)->call(args(9), result);
  EXPECT_EQ(target.lastInt, 9);
  EXPECT_EQ(result, KXValue("kept"));
}

TEST_F(FunctorTest, NoParameterMethodDoesNotReadParams) {
  KXValue result;
  bind(&Target::takeNothing)->call(KXValue(), result);
  EXPECT_EQ(target.calls, 1);
}

TEST_F(FunctorTest, StringVectorSkipsNonStrings) {
  auto functor = bind(&Target::takeStrings);
  KXValue list = args("a", 1, "b");
  KXValue result;
  ::testing::internal::CaptureStdout();
  functor->call(args(list), result);
  const std::string printed = ::testing::internal::GetCapturedStdout();
  EXPECT_NE(printed.find("WARNING: "), std::string::npos) << printed;
  ASSERT_EQ(result.getType(), KXValue::TypeArray);
  ASSERT_EQ(result.getSize(), 2);
  EXPECT_EQ(result[0], KXValue("a"));
  EXPECT_EQ(result[1], KXValue("b"));
}

TEST_F(FunctorTest, VectorParametersRefuseNonArrays) {
  KXValue result;
  EXPECT_EQ(errorText([&] { bind(&Target::takeStrings)->call(args("a"), result); }),
            conversionError("Parameter type is String instead of vector"));
  EXPECT_EQ(errorText([&] { bind(&Target::takeInts)->call(args(1), result); }),
            conversionError("Parameter type is Int instead of vector"));
  EXPECT_EQ(errorText([&] { bind(&Target::takeFloats)->call(args(1.0f), result); }),
            conversionError("Parameter type is Float instead of vector"));
  EXPECT_EQ(target.calls, 0);
}

TEST_F(FunctorTest, IntVectorTakesIntsAndNamesABadElement) {
  auto functor = bind(&Target::takeInts);
  KXValue result;
  functor->call(args(args(3, -1, 7)), result);
  ASSERT_EQ(result.getSize(), 3);
  EXPECT_EQ(result[0], KXValue(3));
  EXPECT_EQ(result[1], KXValue(-1));
  EXPECT_EQ(result[2], KXValue(7));
  EXPECT_EQ(errorText([&] { functor->call(args(args(3, "x")), result); }),
            conversionError("Parameter type is String instead of vector"));
  EXPECT_EQ(errorText([&] { functor->call(args(args(1.5f)), result); }),
            conversionError("Parameter type is Float instead of vector"));
  EXPECT_EQ(target.calls, 1);
}

TEST_F(FunctorTest, FloatVectorTakesFloatsAndInts) {
  auto functor = bind(&Target::takeFloats);
  KXValue result;
  functor->call(args(args(1.5f, 2)), result);
  ASSERT_EQ(result.getSize(), 2);
  EXPECT_EQ(result[0].getType(), KXValue::TypeFloat);
  EXPECT_FLOAT_EQ(static_cast<float>(result[0]), 1.5f);
  EXPECT_EQ(result[1].getType(), KXValue::TypeFloat);
  EXPECT_FLOAT_EQ(static_cast<float>(result[1]), 2.0f);
  EXPECT_EQ(errorText([&] { functor->call(args(args(true)), result); }),
            conversionError("Parameter type is Bool instead of vector"));
}

TEST_F(FunctorTest, EmptyVectorsRoundTrip) {
  KXValue result;
  bind(&Target::takeInts)->call(args(args()), result);
  EXPECT_EQ(result.getType(), KXValue::TypeArray);
  EXPECT_EQ(result.getSize(), 0);
}

TEST_F(FunctorTest, ValueParameterTakesAnything) {
  auto functor = bind(&Target::takeValue);
  KXValue result;
  for (const KXValue& argument : {KXValue(), KXValue(1), KXValue("s"), args(1, "two")}) {
    functor->call(args(argument), result);
    EXPECT_EQ(result, argument) << argument.toString();
    EXPECT_EQ(result.getType(), argument.getType());
  }
}

TEST_F(FunctorTest, ErrorsOfTheMethodPassThroughUnchanged) {
  KXValue result = 1;
  EXPECT_EQ(errorText([&] { bind(&Target::fail)->call(args(), result); }),
            "\tTarget::fail\n\town failure");
  EXPECT_EQ(result, KXValue(1));
  EXPECT_THROW(bind(&Target::failPlain)->call(args(), result), std::runtime_error);
}

TEST_F(FunctorTest, TypedFaceCallsWithoutConversion) {
  std::shared_ptr<KXFunctorBase> functor = bind(&Target::joinTwo);
  auto typed =
      std::dynamic_pointer_cast<detail::KXTypedFunctor<std::string, std::string, int>>(functor);
  ASSERT_NE(typed, nullptr);
  EXPECT_EQ(typed->invoke("x", 5), "x5");
  EXPECT_EQ(target.calls, 1);
  EXPECT_EQ(
      (std::dynamic_pointer_cast<detail::KXTypedFunctor<std::string, std::string, float>>(functor)),
      nullptr);
}

TEST_F(FunctorTest, FamilyNamesAreTheSameTemplates) {
  EXPECT_TRUE((std::is_same<detail::KXFunctor_0<Target, int>, KXFunctor<Target, int>>::value));
  EXPECT_TRUE((std::is_same<detail::KXFunctor_2<Target, std::string, int, std::string>,
                            KXFunctor<Target, std::string, std::string, int>>::value));
}

// ---------------------------------------------------------------- result conversions

TEST(ConvertToKXValueTest, ScalarsTakeTheirKind) {
  KXValue out = "old";
  detail::convertToKXValue(true, out);
  EXPECT_EQ(out.getType(), KXValue::TypeBool);
  EXPECT_TRUE(static_cast<bool>(out));
  detail::convertToKXValue(-5, out);
  EXPECT_EQ(out.getType(), KXValue::TypeInt);
  EXPECT_EQ(static_cast<int>(out), -5);
  detail::convertToKXValue(2.5f, out);
  EXPECT_EQ(out.getType(), KXValue::TypeFloat);
  EXPECT_FLOAT_EQ(static_cast<float>(out), 2.5f);
  detail::convertToKXValue(std::string("text"), out);
  EXPECT_EQ(out, KXValue("text"));
}

TEST(ConvertToKXValueTest, StringVectorBecomesAnArrayOfStringsInOrder) {
  KXValue out = 3;
  detail::convertToKXValue(std::vector<std::string>{"b", "a", ""}, out);
  ASSERT_EQ(out.getType(), KXValue::TypeArray);
  ASSERT_EQ(out.getSize(), 3);
  EXPECT_EQ(out[0], KXValue("b"));
  EXPECT_EQ(out[1], KXValue("a"));
  EXPECT_EQ(out[2], KXValue(""));
}

TEST(ConvertToKXValueTest, ValueIsCopied) {
  KXValue out;
  KXValue in = args(1, "x");
  detail::convertToKXValue(in, out);
  EXPECT_EQ(out, in);
  out[0] = 2;
  EXPECT_EQ(in[0], KXValue(1));
}

TEST(ConvertFromKXValueTest, ValueIsTheArgumentItself) {
  const KXValue in = args(1, 2.5f, "s");
  EXPECT_EQ(detail::convertFromKXValue<KXValue>(in), in);
}

}  // namespace
}  // namespace KX
