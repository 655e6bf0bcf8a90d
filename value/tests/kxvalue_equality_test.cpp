#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include "value/kxvalue.h"

namespace KX {
namespace {

bool equal(const KXValue& left, const KXValue& right) { return left == right; }

TEST(KXValueEqualityTest, DifferentTypesDiffer) {
  EXPECT_FALSE(equal(KXValue(1), KXValue(1.0f)));
  EXPECT_FALSE(equal(KXValue(1), KXValue(true)));
  EXPECT_FALSE(equal(KXValue(), KXValue(0)));
  KXValue blob;
  blob.setBinary("ab", 2);
  KXValue object;
  object.decodeBase64Object("YWI=");  // "ab"
  EXPECT_FALSE(equal(blob, object));
  EXPECT_FALSE(equal(blob, KXValue("ab")));
}

TEST(KXValueEqualityTest, Scalars) {
  EXPECT_TRUE(equal(KXValue(), KXValue()));
  EXPECT_TRUE(equal(KXValue(true), KXValue(true)));
  EXPECT_TRUE(equal(KXValue(false), KXValue(false)));
  EXPECT_FALSE(equal(KXValue(true), KXValue(false)));
  EXPECT_TRUE(equal(KXValue(-4), KXValue(-4)));
  EXPECT_FALSE(equal(KXValue(4), KXValue(5)));
  EXPECT_TRUE(equal(KXValue(std::string("a\0b", 3)), KXValue(std::string("a\0b", 3))));
  EXPECT_FALSE(equal(KXValue(std::string("a\0b", 3)), KXValue(std::string("a\0c", 3))));
  EXPECT_FALSE(equal(KXValue("ab"), KXValue("abc")));
  EXPECT_TRUE(KXValue(3) != KXValue(4));
  EXPECT_FALSE(KXValue(3) != KXValue(3));
}

TEST(KXValueEqualityTest, BinaryAndObjectCompareBytes) {
  KXValue first;
  first.setBinary("abc", 3);
  KXValue second;
  second.setBinary("abc", 3);
  EXPECT_TRUE(equal(first, second));
  second.setBinary("abd", 3);
  EXPECT_FALSE(equal(first, second));
  second.setBinary("ab", 2);
  EXPECT_FALSE(equal(first, second));

  KXValue objectA;
  objectA.decodeBase64Object("YWJj");  // "abc"
  KXValue objectB;
  objectB.decodeBase64Object("YWJj");
  KXValue objectC;
  objectC.decodeBase64Object("YWJk");  // "abd"
  EXPECT_TRUE(equal(objectA, objectB));
  EXPECT_FALSE(equal(objectA, objectC));
}

TEST(KXValueEqualityTest, ArraysCompareInOrderRecursively) {
  KXValue left;
  left.arrayPush(KXValue(1));
  KXValue inner(std::vector<std::string>{"x", "y"});
  left.arrayPush(inner);
  KXValue right(left);
  EXPECT_TRUE(equal(left, right));
  right[1][1] = "z";
  EXPECT_FALSE(equal(left, right));
  KXValue longer(left);
  longer.arrayPush(KXValue());
  EXPECT_FALSE(equal(left, longer));
  KXValue swapped;
  swapped.arrayPush(inner);
  swapped.arrayPush(KXValue(1));
  EXPECT_FALSE(equal(left, swapped));
  KXValue emptyA;
  emptyA.arraySetSize(0);
  KXValue emptyB;
  emptyB.arraySetSize(0);
  EXPECT_TRUE(equal(emptyA, emptyB));
}

TEST(KXValueEqualityTest, FloatRelativeRule) {
  EXPECT_TRUE(equal(KXValue(1.0f), KXValue(1.00001f)));
  EXPECT_TRUE(equal(KXValue(2.0f), KXValue(1.9999f)));
  EXPECT_TRUE(equal(KXValue(-1000.0f), KXValue(-1000.05f)));
  EXPECT_FALSE(equal(KXValue(1.0f), KXValue(1.001f)));
  EXPECT_FALSE(equal(KXValue(1.0f), KXValue(-1.0f)));
  // Above the absolute band the error is relative: 1.5e-16 apart is equal at 2e-12...
  EXPECT_TRUE(equal(KXValue(2e-12f), KXValue(2.00015e-12f)));
  // ...while 1e-12 apart is not, inside the band.
  EXPECT_FALSE(equal(KXValue(1e-12f), KXValue(2e-12f)));
}

TEST(KXValueEqualityTest, FloatAbsoluteRuleNearZero) {
  EXPECT_TRUE(equal(KXValue(0.0f), KXValue(1e-17f)));
  EXPECT_TRUE(equal(KXValue(0.0f), KXValue(-5e-17f)));
  EXPECT_TRUE(equal(KXValue(0.0f), KXValue(0.0f)));
  EXPECT_FALSE(equal(KXValue(0.0f), KXValue(2e-16f)));
  EXPECT_FALSE(equal(KXValue(-1e-12f), KXValue(-2e-12f)));
  // The band includes its bounds.
  EXPECT_TRUE(equal(KXValue(1e-12f), KXValue(1e-12f)));
  EXPECT_TRUE(equal(KXValue(-1e-12f), KXValue(-1e-12f)));
}

TEST(KXValueEqualityTest, FloatRuleIsAsymmetric) {
  // The divisor is the left operand: the difference is just under 1e-4 of the larger
  // value and just over 1e-4 of the smaller one.
  const KXValue larger(0x1.000ae2p+0f);   // 1.00016606
  const KXValue smaller(0x1.000454p+0f);  // 1.00006604
  EXPECT_TRUE(larger == smaller);
  EXPECT_FALSE(smaller == larger);
  EXPECT_TRUE(smaller != larger);
}

TEST(KXValueEqualityTest, FloatNaNNeverEqual) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  EXPECT_FALSE(equal(KXValue(nan), KXValue(nan)));
  EXPECT_FALSE(equal(KXValue(1.0f), KXValue(nan)));
}

TEST(KXValueEqualityTest, ArraysUseTheLeftElementAsDivisor) {
  KXValue left;
  left.arrayPush(KXValue(0x1.000ae2p+0f));
  KXValue right;
  right.arrayPush(KXValue(0x1.000454p+0f));
  EXPECT_TRUE(left == right);
  EXPECT_FALSE(right == left);
}

}  // namespace
}  // namespace KX
