#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <string>

#include "value/detail/kxvaluetext.h"
#include "value/kxvalue.h"
#include "value/tests/value_test_util.h"

namespace KX {
namespace {

using testing_util::errorText;
using testing_util::valueError;

KXValue parse(const std::string& text) {
  KXValue value;
  value.unSerializeFromText(text);
  return value;
}

const std::string& asString(const KXValue& value) {
  return static_cast<const KXValue::TKXValueString&>(value);
}

// ---- deduceType

TEST(KXValueDeduceTypeTest, Kinds) {
  EXPECT_EQ(KXValue::deduceType(""), KXValue::TypeInvalid);
  EXPECT_EQ(KXValue::deduceType(" \t\r\n"), KXValue::TypeInvalid);
  EXPECT_EQ(KXValue::deduceType("none"), KXValue::TypeInvalid);
  EXPECT_EQ(KXValue::deduceType("  NoNe"), KXValue::TypeInvalid);
  EXPECT_EQ(KXValue::deduceType("\"x"), KXValue::TypeString);
  EXPECT_EQ(KXValue::deduceType(" 'x'"), KXValue::TypeString);
  EXPECT_EQ(KXValue::deduceType("\n[1]"), KXValue::TypeArray);
  EXPECT_EQ(KXValue::deduceType("TRUE"), KXValue::TypeBool);
  EXPECT_EQ(KXValue::deduceType("falsehood"), KXValue::TypeBool);
  EXPECT_EQ(KXValue::deduceType("12"), KXValue::TypeInt);
  EXPECT_EQ(KXValue::deduceType("-12"), KXValue::TypeInt);
  EXPECT_EQ(KXValue::deduceType("0x1F"), KXValue::TypeInt);
  EXPECT_EQ(KXValue::deduceType("1e5"), KXValue::TypeInt);
  EXPECT_EQ(KXValue::deduceType("abc"), KXValue::TypeInt);
  EXPECT_EQ(KXValue::deduceType("1.5"), KXValue::TypeFloat);
  EXPECT_EQ(KXValue::deduceType("-.5"), KXValue::TypeFloat);
}

TEST(KXValueDeduceTypeTest, LengthAndNulBoundTheText) {
  EXPECT_EQ(KXValue::deduceType("1.5", 1), KXValue::TypeInt);
  EXPECT_EQ(KXValue::deduceType("12 junk", 2), KXValue::TypeInt);
  EXPECT_EQ(KXValue::deduceType(std::string("12\0 junk", 8)), KXValue::TypeInt);
  EXPECT_EQ(KXValue::deduceType("truex", 4), KXValue::TypeBool);
  EXPECT_EQ(KXValue::deduceType("nonesuch", 4), KXValue::TypeInvalid);
}

TEST(KXValueDeduceTypeTest, SecondDotRaises) {
  EXPECT_EQ(errorText([] { KXValue::deduceType("1.2.3"); }),
            valueError("deduceType", "unexpected character: '.' in string: '1.2.3'"));
  EXPECT_EQ(errorText([] { KXValue::deduceType("0x1.5"); }),
            valueError("deduceType", "unexpected character: '.' in string: '0x1.5'"));
}

TEST(KXValueDeduceTypeTest, UnexpectedXRaises) {
  EXPECT_EQ(errorText([] { KXValue::deduceType("0x1x"); }),
            valueError("deduceType", "unexpected character: 'x' in string: '0x1x'"));
  EXPECT_EQ(errorText([] { KXValue::deduceType("1.5x"); }),
            valueError("deduceType", "unexpected character: 'x' in string: '1.5x'"));
}

TEST(KXValueDeduceTypeTest, UnknownFormatRaisesAfterTheScan) {
  EXPECT_EQ(errorText([] { KXValue::deduceType("hello"); }),
            valueError("deduceType", "unknown format in string: 'hello'"));
  EXPECT_EQ(errorText([] { KXValue::deduceType("1 "); }),
            valueError("deduceType", "unknown format in string: '1 '"));
  EXPECT_EQ(errorText([] { KXValue::deduceType("none!"); }),
            valueError("deduceType", "unknown format in string: 'none!'"));
  // A misplaced '.' later in the text wins over an earlier unknown character.
  EXPECT_EQ(errorText([] { KXValue::deduceType("g1..2"); }),
            valueError("deduceType", "unexpected character: '.' in string: 'g1..2'"));
}

TEST(KXValueDeduceTypeTest, ErrorShowsTextUpToLengthOrNul) {
  EXPECT_EQ(errorText([] { KXValue::deduceType("zz-tail", 2); }),
            valueError("deduceType", "unknown format in string: 'zz'"));
  EXPECT_EQ(errorText([] { KXValue::deduceType("zz\0tail", 7); }),
            valueError("deduceType", "unknown format in string: 'zz'"));
}

// ---- unSerializeFromText

TEST(KXValueParserTest, Scalars) {
  EXPECT_EQ(parse("42").toString(1), "42");
  EXPECT_EQ(parse("  -7").toString(1), "-7");
  EXPECT_EQ(parse("12ab").getType(), KXValue::TypeInt);
  EXPECT_EQ(static_cast<int>(parse("12ab")), 12);
  EXPECT_EQ(static_cast<int>(parse("0x1F")), 31);
  EXPECT_EQ(static_cast<int>(parse("0xffffffff")), -1);
  EXPECT_EQ(static_cast<float>(parse("2.5")), 2.5f);
  EXPECT_EQ(static_cast<float>(parse("-0.25")), -0.25f);
  EXPECT_EQ(static_cast<float>(parse("1.5e3")), 1500.0f);
  EXPECT_EQ(static_cast<float>(parse(".")), 0.0f);      // a failed read
  EXPECT_EQ(static_cast<float>(parse("1.5e")), 0.0f);   // not a complete number
  EXPECT_EQ(static_cast<float>(parse("1.5-3")), 1.5f);  // the read stops at the '-'
  EXPECT_EQ(static_cast<float>(parse("1.5e-2")), 0.015f);
  EXPECT_EQ(static_cast<float>(parse("0.1")), 0.1f);  // correctly rounded
  EXPECT_EQ(parse("True").getType(), KXValue::TypeBool);
  EXPECT_TRUE(static_cast<bool>(parse("  tRuE")));
  EXPECT_FALSE(static_cast<bool>(parse("false")));
  EXPECT_EQ(parse("none").getType(), KXValue::TypeInvalid);
  EXPECT_EQ(parse("").getType(), KXValue::TypeInvalid);
}

TEST(KXValueParserTest, IntOutOfRangeSaturates) {
  EXPECT_EQ(static_cast<int>(parse("99999999999")), std::numeric_limits<int>::max());
  EXPECT_EQ(static_cast<int>(parse("-99999999999")), std::numeric_limits<int>::min());
  EXPECT_EQ(static_cast<int>(parse("2147483647")), std::numeric_limits<int>::max());
  EXPECT_EQ(static_cast<int>(parse("-2147483648")), std::numeric_limits<int>::min());
  EXPECT_EQ(static_cast<int>(parse(std::string(100, '9'))), std::numeric_limits<int>::max());
}

TEST(KXValueParserTest, FloatOverflowReadsAsZero) {
  EXPECT_EQ(static_cast<float>(parse("1.0e99")), 0.0f);
}

TEST(KXValueParserTest, Strings) {
  EXPECT_EQ(asString(parse("\"abc\"")), "abc");
  EXPECT_EQ(asString(parse("'x y'")), "x y");
  EXPECT_EQ(asString(parse("  \"it's\"")), "it's");
  EXPECT_EQ(asString(parse("'say \"hi\"'")), "say \"hi\"");
  EXPECT_EQ(asString(parse("\"unterminated")), "unterminated");
  EXPECT_EQ(asString(parse("\"\"")), "");
  EXPECT_EQ(asString(parse("'a'b'")), "a");
}

TEST(KXValueParserTest, MixedArray) {
  const KXValue value = parse("[1, 2.5, 'x y', true]");
  ASSERT_EQ(value.getType(), KXValue::TypeArray);
  ASSERT_EQ(value.getSize(), 4);
  EXPECT_EQ(value[0].getType(), KXValue::TypeInt);
  EXPECT_EQ(static_cast<int>(value[0]), 1);
  EXPECT_EQ(value[1].getType(), KXValue::TypeFloat);
  EXPECT_EQ(static_cast<float>(value[1]), 2.5f);
  EXPECT_EQ(asString(value[2]), "x y");
  EXPECT_EQ(value[3].getType(), KXValue::TypeBool);
  EXPECT_TRUE(static_cast<bool>(value[3]));
}

TEST(KXValueParserTest, NestedArrays) {
  const KXValue value = parse("[1, [2, [3, \"deep\"]], [], 0x10]");
  EXPECT_EQ(value.getSize(), 4);
  EXPECT_EQ(value.toString(1), "[1, [2, [3, \"deep\"]], [], 16]");
  EXPECT_EQ(value[1][1].getSize(), 2);
  EXPECT_EQ(value[2].getSize(), 1);  // "[]" holds one Invalid element
  EXPECT_EQ(value[2][0].getType(), KXValue::TypeInvalid);
}

TEST(KXValueParserTest, EmptyBrackets) {
  const KXValue value = parse("[]");
  ASSERT_EQ(value.getType(), KXValue::TypeArray);
  ASSERT_EQ(value.getSize(), 1);
  EXPECT_EQ(value[0].getType(), KXValue::TypeInvalid);
}

TEST(KXValueParserTest, ArrayEdges) {
  EXPECT_EQ(parse("[1,").toString(1), "[1]");
  EXPECT_EQ(parse("[1,]").getSize(), 2);
  EXPECT_EQ(parse("[").getSize(), 1);
  const KXValue trailing = parse("[1] 0x2");  // text after ']' starts another element
  EXPECT_EQ(trailing.toString(1), "[1, 2]");
  // Quotes are not special: the comma cuts the string.
  EXPECT_EQ(errorText([] { parse("['a,b']"); }),
            valueError("deduceType", "unknown format in string: 'b''"));
}

TEST(KXValueParserTest, ArrayRoundTrip) {
  KXValue value;
  value.arrayPush(KXValue(-3));
  value.arrayPush(KXValue(0.75f));
  value.arrayPush(KXValue("with blanks"));
  value.arrayPush(KXValue(false));
  KXValue inner(std::vector<std::string>{"p", "q"});
  value.arrayPush(inner);
  const KXValue back = parse(value.toString(1));
  EXPECT_TRUE(back == value);
  EXPECT_EQ(back.toString(1), value.toString(1));
}

TEST(KXValueParserTest, ElementErrorsShowTheElement) {
  EXPECT_EQ(errorText([] { parse("[1, 2 , 3]"); }),
            valueError("deduceType", "unknown format in string: ' 2 '"));
  EXPECT_EQ(errorText([] { parse("[1, 1.2.3]"); }),
            valueError("deduceType", "unexpected character: '.' in string: ' 1.2.3'"));
}

TEST(KXValueParserTest, GarbageRaises) {
  EXPECT_EQ(errorText([] { parse("1.2.3"); }),
            valueError("deduceType", "unexpected character: '.' in string: '1.2.3'"));
  EXPECT_EQ(errorText([] { parse("0xx"); }),
            valueError("deduceType", "unexpected character: 'x' in string: '0xx'"));
  EXPECT_EQ(errorText([] { parse("#!"); }),
            valueError("deduceType", "unknown format in string: '#!'"));
}

TEST(KXValueParserTest, ClearsFirst) {
  KXValue value("old");
  EXPECT_THROW(value.unSerializeFromText("bad text"), KXError);
  EXPECT_EQ(value.getType(), KXValue::TypeInvalid);
  value = 5;
  value.unSerializeFromText("none");
  EXPECT_EQ(value.getType(), KXValue::TypeInvalid);
}

TEST(KXValueParserTest, ParsesItsOwnText) {
  KXValue value("'inner text'");
  value.unSerializeFromText(asString(value));
  EXPECT_EQ(asString(value), "inner text");
  KXValue array = parse("['[1, 2]']");
  array.unSerializeFromText(asString(array[0]).c_str(), 6);
  EXPECT_EQ(array.toString(1), "[1, 2]");
}

TEST(KXValueParserTest, LengthBoundsEveryKind) {
  KXValue value;
  value.unSerializeFromText("0x1F", 3);
  EXPECT_EQ(static_cast<int>(value), 1);
  value.unSerializeFromText("1234", 2);
  EXPECT_EQ(static_cast<int>(value), 12);
  value.unSerializeFromText("2.75", 3);
  EXPECT_EQ(static_cast<float>(value), 2.7f);
  value.unSerializeFromText("'abcdef'", 4);
  EXPECT_EQ(asString(value), "abc");
  value.unSerializeFromText("[1, 2, 3]", 5);
  EXPECT_EQ(value.toString(1), "[1, 2]");
}

// The compact form has no syntax for Object or Binary and deduceType never answers String
// without a quote; the parser still guards both cases.
TEST(KXValueParserTest, UnknownTypeRaises) {
  KXValue value;
  EXPECT_EQ(
      errorText([&] { detail::KXValueText::parseAs(value, KXValue::TypeBinary, "\\1\\2", 4); }),
      valueError("unSerializeFromText", "unknown type in string: '\\1\\2'"));
  EXPECT_EQ(errorText([&] { detail::KXValueText::parseAs(value, 9, "x", 1); }),
            valueError("unSerializeFromText", "unknown type in string: 'x'"));
}

TEST(KXValueParserTest, UnknownStringBeginRaises) {
  KXValue value;
  EXPECT_EQ(errorText([&] { detail::KXValueText::parseAs(value, KXValue::TypeString, " abc", 4); }),
            valueError("unSerializeFromText", "unknown string begin in string: ' abc'"));
  EXPECT_EQ(errorText([&] { detail::KXValueText::parseAs(value, KXValue::TypeString, "", 0); }),
            valueError("unSerializeFromText", "unknown string begin in string: ''"));
}

// ---- hexaAsciiToInt

TEST(KXValueHexTest, Digits) {
  EXPECT_EQ(KXValue::hexaAsciiToInt("0x1F"), 31);
  EXPECT_EQ(KXValue::hexaAsciiToInt("0xaBcD"), 0xABCD);
  EXPECT_EQ(KXValue::hexaAsciiToInt("x7fffffff"), 0x7FFFFFFF);
  EXPECT_EQ(KXValue::hexaAsciiToInt("0xFFFFFFFF"), -1);
  EXPECT_EQ(KXValue::hexaAsciiToInt("0x1FFFFFFFF"), -1);  // wraps at 32 bits
  EXPECT_EQ(KXValue::hexaAsciiToInt("0x123456789"), 0x23456789);
  EXPECT_EQ(KXValue::hexaAsciiToInt("0x"), 0);
}

TEST(KXValueHexTest, BlanksAreSkippedAndOtherCharactersStop) {
  EXPECT_EQ(KXValue::hexaAsciiToInt("0x 1 \t2\r\n3"), 0x123);
  EXPECT_EQ(KXValue::hexaAsciiToInt("0x12g34"), 0x12);
  EXPECT_EQ(KXValue::hexaAsciiToInt("junk x10"), 16);
  EXPECT_EQ(KXValue::hexaAsciiToInt("0x10x20"), 16);
}

TEST(KXValueHexTest, WithoutXWarnsAndReturnsZero) {
  testing::internal::CaptureStdout();
  const int value = KXValue::hexaAsciiToInt("0X1F");
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "WARNING: hexaAsciiToInt called without 0x, returning 0 (string was: '0X1F')\n");
  EXPECT_EQ(value, 0);
}

}  // namespace
}  // namespace KX
