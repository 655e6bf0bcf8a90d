#include "module/kxmethodinfo.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "module/kxfunctor.h"
#include "module/kxfunctorconvert.h"
#include "value/kxvalue.h"

namespace KX {
namespace {

TEST(TypeNameTest, NamesEveryKnownCode) {
  EXPECT_STREQ(typeName(0), "???");
  EXPECT_STREQ(typeName(1), "void");
  EXPECT_STREQ(typeName(2), "bool");
  EXPECT_STREQ(typeName(3), "int");
  EXPECT_STREQ(typeName(4), "float");
  EXPECT_STREQ(typeName(5), "string");
  EXPECT_STREQ(typeName(6), "array");
  EXPECT_STREQ(typeName(23), "vector<int>");
  EXPECT_STREQ(typeName(24), "vector<float>");
  EXPECT_STREQ(typeName(25), "vector<string>");
  EXPECT_STREQ(typeName(27), "void *");
}

TEST(TypeNameTest, OtherCodesAreUnknown) {
  for (int code : {-1, 7, 8, 22, 26, 28, 1000}) {
    EXPECT_STREQ(typeName(code), "unknown") << code;
  }
}

TEST(TypeNameTest, DeclaredTypesMapToTheirNames) {
  EXPECT_STREQ(detail::typeNameOf<void>(), "void");
  EXPECT_STREQ(detail::typeNameOf<bool>(), "bool");
  EXPECT_STREQ(detail::typeNameOf<int>(), "int");
  EXPECT_STREQ(detail::typeNameOf<float>(), "float");
  EXPECT_STREQ(detail::typeNameOf<std::string>(), "string");
  EXPECT_STREQ(detail::typeNameOf<KXValue>(), "array");
  EXPECT_STREQ(detail::typeNameOf<std::vector<int>>(), "vector<int>");
  EXPECT_STREQ(detail::typeNameOf<std::vector<float>>(), "vector<float>");
  EXPECT_STREQ(detail::typeNameOf<std::vector<std::string>>(), "vector<string>");
  EXPECT_STREQ(detail::typeNameOf<void*>(), "void *");
  EXPECT_STREQ(detail::typeNameOf<double>(), "???");
}

TEST(SignatureTextTest, NoArgumentsReadsVoid) {
  EXPECT_EQ(signatureText("ping", {}), "ping(Void)");
}

TEST(SignatureTextTest, ArgumentsAreCommaSeparated) {
  EXPECT_EQ(signatureText("f", {"int"}), "f(int)");
  EXPECT_EQ(signatureText("f", {"int", "string", "array"}), "f(int, string, array)");
}

ParameterInfo parameter(const std::string& name, const std::string& type) {
  ParameterInfo info;
  info.name = name;
  info.description = name + " described";
  info.type = type;
  return info;
}

class Counter {
 public:
  int next() { return ++count; }
  int count = 0;
};

KXMethodInfo describedMethod() {
  KXMethodInfo info;
  info.className = "Calc";
  info.methodName = "add";
  info.methodDescription = "Adds";
  info.parameters = {parameter("a", "int"), parameter("b", "float")};
  info.returnValue = parameter("sum", "float");
  info.mask = 0x0003;
  return info;
}

TEST(KXMethodInfoTest, StartsEmpty) {
  const KXMethodInfo info;
  EXPECT_EQ(info.className, "");
  EXPECT_EQ(info.methodName, "");
  EXPECT_EQ(info.methodDescription, "");
  EXPECT_TRUE(info.parameters.empty());
  EXPECT_EQ(info.functor, nullptr);
  EXPECT_EQ(info.returnValue.name, "");
  EXPECT_EQ(info.returnValue.type, "");
  EXPECT_FALSE(info.returnValue.optional);
  EXPECT_EQ(info.mask, 0);
}

TEST(KXMethodInfoTest, SignatureAndParameterTypes) {
  const KXMethodInfo info = describedMethod();
  EXPECT_EQ(info.signature(), "add(int, float)");
  EXPECT_EQ(info.parameterTypes(), (std::vector<std::string>{"int", "float"}));
  EXPECT_EQ(KXMethodInfo().signature(), "(Void)");
}

TEST(KXMethodInfoTest, ResetClearsEveryField) {
  Counter counter;
  KXMethodInfo info = describedMethod();
  info.functor = std::make_shared<detail::KXFunctor<Counter, int>>(&counter, &Counter::next);
  info.reset();
  EXPECT_EQ(info.className, "");
  EXPECT_EQ(info.methodName, "");
  EXPECT_EQ(info.methodDescription, "");
  EXPECT_TRUE(info.parameters.empty());
  EXPECT_EQ(info.functor, nullptr);
  EXPECT_EQ(info.returnValue.name, "");
  EXPECT_EQ(info.returnValue.description, "");
  EXPECT_EQ(info.returnValue.type, "");
  EXPECT_EQ(info.mask, 0);
}

TEST(KXMethodInfoTest, CopiesShareTheFunctorAndOwnTheirTexts) {
  Counter counter;
  KXMethodInfo original = describedMethod();
  original.functor = std::make_shared<detail::KXFunctor<Counter, int>>(&counter, &Counter::next);

  KXMethodInfo copy(original);
  EXPECT_EQ(copy.functor, original.functor);
  EXPECT_EQ(copy.signature(), "add(int, float)");
  EXPECT_EQ(copy.parameters[1].description, "b described");

  copy.parameters[0].type = "string";
  copy.methodName = "other";
  EXPECT_EQ(original.signature(), "add(int, float)");

  KXMethodInfo assigned;
  assigned = original;
  EXPECT_EQ(assigned.functor, original.functor);
  EXPECT_EQ(assigned.mask, 0x0003);

  KXValue result;
  assigned.functor->call(KXValue(std::vector<std::string>{}), result);
  EXPECT_EQ(counter.count, 1);
}

TEST(KXMethodInfoTest, IsPolymorphic) {
  EXPECT_TRUE(std::has_virtual_destructor<KXMethodInfo>::value);
}

}  // namespace
}  // namespace KX
