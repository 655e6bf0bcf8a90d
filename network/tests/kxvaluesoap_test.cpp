#include "network/kxvaluesoap.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tinyxml2.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "value/kxerror.h"
#include "value/kxvalue.h"

namespace KX {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

// Runs `action` and returns the text of the KXError it raises.
template <typename Action>
std::string errorText(Action&& action) {
  try {
    action();
  } catch (const KXError& error) {
    return error.what();
  }
  ADD_FAILURE() << "expected a KXError";
  return "<no error>";
}

std::string valueError(const std::string& method, const std::string& description) {
  return "\tKXValue::" + method + "\n\t" + description;
}

template <typename... T>
KXValue arrayOf(const T&... values) {
  KXValue array;
  array.arraySetSize(0);
  (array.arrayPush(KXValue(values)), ...);
  return array;
}

KXValue binaryOf(const std::vector<unsigned char>& bytes) {
  KXValue value;
  value = bytes;
  return value;
}

KXValue objectOf(const std::string& base64) {
  KXValue value;
  value.decodeBase64Object(base64);
  return value;
}

std::string written(const KXValue& value, bool nested = false) {
  std::string out;
  writeKXValue(value, out, nested);
  return out;
}

KXValue readXml(const std::string& xml) {
  KXValue value;
  readKXValueFromXml(xml, value);
  return value;
}

KXValue roundTrip(const KXValue& value) { return readXml(written(value)); }

// `depth` arrays nested in one another, the innermost holding the Int 7.
KXValue nestedArrays(int depth) {
  KXValue value(7);
  for (int i = 0; i < depth; ++i) {
    KXValue outer;
    outer.arrayPush(value);
    value = outer;
  }
  return value;
}

std::string nestedItems(int depth) {
  std::string xml;
  for (int i = 0; i < depth; ++i) xml += "<item xsi:type=\"Array\">";
  for (int i = 0; i < depth; ++i) xml += "</item>";
  return xml;
}

// ---------------------------------------------------------------- writing

TEST(WriteKXValue, IntAtTopLevel) {
  EXPECT_EQ(written(KXValue(42)), "<item xsi:type=\"xsd:int\">42</item>");
  EXPECT_EQ(written(KXValue(std::numeric_limits<int>::min())),
            "<item xsi:type=\"xsd:int\">-2147483648</item>");
}

TEST(WriteKXValue, InvalidWritesNothingAtTopLevelAndTheNilItemInsideArrays) {
  std::string out = "before";
  writeKXValue(KXValue(), out, false);
  EXPECT_EQ(out, "before");
  EXPECT_EQ(written(KXValue(), true), "<item xsi:nil=\"true\" xsi:type=\"nil\">nil</item>");
  KXValue array;
  array.arraySetSize(2);
  array[1] = 3;
  EXPECT_EQ(written(array),
            "<item xsi:type=\"Array\"><item xsi:nil=\"true\" xsi:type=\"nil\">nil</item>"
            "<item xsi:type=\"xsd:int\">3</item></item>");
}

TEST(WriteKXValue, ArrayHoldsItsElementsInOrder) {
  EXPECT_EQ(written(arrayOf(1, "a")),
            "<item xsi:type=\"Array\"><item xsi:type=\"xsd:int\">1</item>"
            "<item xsi:type=\"xsd:string\">a</item></item>");
  KXValue empty;
  empty.arraySetSize(0);
  EXPECT_EQ(written(empty), "<item xsi:type=\"Array\"></item>");
}

TEST(WriteKXValue, AppendsToTheCallersText) {
  std::string out = "<p>";
  writeKXValue(KXValue(true), out, false);
  writeKXValue(KXValue(false), out, true);
  EXPECT_EQ(out,
            "<p><item xsi:type=\"xsd:boolean\">true</item>"
            "<item xsi:type=\"xsd:boolean\">false</item>");
}

TEST(WriteKXValue, FloatHasEightSignificantDigits) {
  EXPECT_EQ(written(KXValue(0.1f)), "<item xsi:type=\"xsd:float\">0.1</item>");
  EXPECT_EQ(written(KXValue(1.0f / 3.0f)), "<item xsi:type=\"xsd:float\">0.33333334</item>");
  EXPECT_EQ(written(KXValue(-2.5f)), "<item xsi:type=\"xsd:float\">-2.5</item>");
  EXPECT_EQ(written(KXValue(1e20f)), "<item xsi:type=\"xsd:float\">1e+20</item>");
}

TEST(WriteKXValue, FloatMatchesPrintfOfTheWidenedValue) {
  const float samples[] = {0.0f,
                           -0.0f,
                           1.0f,
                           0.1f,
                           123456789.0f,
                           1e-5f,
                           1e-45f,
                           3.4028235e38f,
                           -1.17549435e-38f,
                           16777217.0f,
                           2.7182817f,
                           std::numeric_limits<float>::infinity(),
                           -std::numeric_limits<float>::infinity(),
                           std::numeric_limits<float>::quiet_NaN()};
  for (float sample : samples) {
    char expected[64];
    std::snprintf(expected, sizeof expected, "%.8g", static_cast<double>(sample));
    EXPECT_EQ(written(KXValue(sample)),
              std::string("<item xsi:type=\"xsd:float\">") + expected + "</item>")
        << sample;
  }
}

TEST(WriteKXValue, ObjectIsBase64WithLineEnds) {
  KXValue object = objectOf(std::string(72, 'A'));  // 54 zero bytes
  ASSERT_EQ(object.getSize(), 54);
  EXPECT_EQ(written(object),
            "<item xsi:type=\"xsd:base64Object\">" + std::string(72, 'A') + "\n</item>");
  EXPECT_EQ(written(objectOf("/w==")), "<item xsi:type=\"xsd:base64Object\">/w==</item>");
}

TEST(WriteKXValue, BinaryIsAPlaceholderWhateverItHolds) {
  EXPECT_EQ(written(binaryOf(std::vector<unsigned char>(100, 0xAB))),
            "<item xsi:type=\"xsd:base64Binary\">MQ==</item>");
  EXPECT_EQ(written(binaryOf({})), "<item xsi:type=\"xsd:base64Binary\">MQ==</item>");
}

TEST(WriteKXValue, StringEscapesMarkupCharacters) {
  EXPECT_EQ(written(KXValue("a<b>&\"c'd")),
            "<item xsi:type=\"xsd:string\">a&lt;b&gt;&amp;&quot;c&apos;d</item>");
  EXPECT_EQ(written(KXValue("")), "<item xsi:type=\"xsd:string\"></item>");
}

TEST(WriteKXValue, StringWritesControlCharactersAsReferences) {
  EXPECT_EQ(written(KXValue(std::string("a\x01\x1f\rb\x0b"))),
            "<item xsi:type=\"xsd:string\">a&#x1;&#x1F;&#xD;b&#xB;</item>");
  // TAB and LF are plain text; bytes from 0x80 up pass unchanged.
  EXPECT_EQ(written(KXValue(std::string("x\ty\nz\xc3\xa9\xff\x7f"))),
            "<item xsi:type=\"xsd:string\">x\ty\nz\xc3\xa9\xff\x7f</item>");
}

TEST(WriteKXValue, BlankOnlyStringKeepsItsFirstCharacterAsAReference) {
  EXPECT_EQ(written(KXValue(" ")), "<item xsi:type=\"xsd:string\">&#x20;</item>");
  EXPECT_EQ(written(KXValue("\t\n ")), "<item xsi:type=\"xsd:string\">&#x9;\n </item>");
  EXPECT_EQ(written(KXValue(" a ")), "<item xsi:type=\"xsd:string\"> a </item>");
}

TEST(WriteKXValue, TrailingNulsAreDroppedAndInnerOnesRefused) {
  EXPECT_EQ(written(KXValue(std::string("abc\0\0", 5))),
            "<item xsi:type=\"xsd:string\">abc</item>");
  EXPECT_EQ(written(KXValue(std::string("\0", 1))), "<item xsi:type=\"xsd:string\"></item>");
  EXPECT_EQ(
      errorText([] { written(KXValue(std::string("ab\0c", 4))); }),
      valueError("writeKXValue", "String holds a NUL character at byte 2, which XML cannot carry"));
}

TEST(WriteKXValue, BinaryReadAsStringTravelsWithoutItsTerminator) {
  KXValue value = binaryOf({'h', 'i'});
  testing::internal::CaptureStdout();
  const std::string& text = static_cast<const KXValue::TKXValueString&>(value);
  testing::internal::GetCapturedStdout();
  ASSERT_EQ(text.size(), 3u);
  EXPECT_EQ(written(value), "<item xsi:type=\"xsd:string\">hi</item>");
}

TEST(WriteKXValue, FailureLeavesTheCallersTextAsItWas) {
  KXValue array = arrayOf(1, 2);
  array.arrayPush(arrayOf(std::string("x\0y", 3)));
  std::string out = "<kxbroker:p>";
  EXPECT_THROW(writeKXValue(array, out, false), KXError);
  EXPECT_EQ(out, "<kxbroker:p>");
}

TEST(WriteKXValue, NestingIsLimited) {
  EXPECT_NO_THROW(written(nestedArrays(kKXValueMaxDepth - 1)));
  const std::string tooDeep =
      valueError("writeKXValue", "value too deeply nested (more than 64 levels)");
  EXPECT_EQ(errorText([] { written(nestedArrays(kKXValueMaxDepth)); }), tooDeep);
  std::string out = "keep";
  EXPECT_THROW(writeKXValue(nestedArrays(kKXValueMaxDepth + 10), out, false), KXError);
  EXPECT_EQ(out, "keep");
}

// ---------------------------------------------------------------- type names

TEST(XsdTypeToType, FirstMatchWins) {
  EXPECT_EQ(xsdTypeToType("xsd:string"), KXValue::TypeString);
  EXPECT_EQ(xsdTypeToType("xsd:int"), KXValue::TypeInt);
  EXPECT_EQ(xsdTypeToType("xsd:double"), KXValue::TypeFloat);
  EXPECT_EQ(xsdTypeToType("xsd:float"), KXValue::TypeFloat);
  EXPECT_EQ(xsdTypeToType("xsd:boolean"), KXValue::TypeBool);
  EXPECT_EQ(xsdTypeToType("xsd:bool"), KXValue::TypeBool);
  EXPECT_EQ(xsdTypeToType("boolArray"), KXValue::TypeBool);  // "bool" is tested before "Array"
  EXPECT_EQ(xsdTypeToType("xsd:base64Object"), KXValue::TypeObject);
  EXPECT_EQ(xsdTypeToType("xsd:base64Binary"), KXValue::TypeBinary);
  EXPECT_EQ(xsdTypeToType("Array"), KXValue::TypeArray);
  EXPECT_EQ(xsdTypeToType("SOAP-ENC:Array"), KXValue::TypeArray);
  EXPECT_EQ(xsdTypeToType("nil"), KXValue::TypeInvalid);
  EXPECT_EQ(xsdTypeToType("xsd:anyType"), KXValue::TypeInvalid);
  EXPECT_EQ(xsdTypeToType("XSD:INT"), KXValue::TypeInvalid);
  EXPECT_EQ(xsdTypeToType("xsd:int "), KXValue::TypeInvalid);
  EXPECT_EQ(xsdTypeToType(""), KXValue::TypeInvalid);
  EXPECT_EQ(xsdTypeToType(nullptr), KXValue::TypeInvalid);
}

// ---------------------------------------------------------------- reading scalars

TEST(ReadKXValue, BoolTexts) {
  EXPECT_TRUE(static_cast<bool>(readXml("<item xsi:type=\"xsd:boolean\">TRUE</item>")));
  EXPECT_FALSE(static_cast<bool>(readXml("<item xsi:type=\"xsd:boolean\">False</item>")));
  EXPECT_TRUE(static_cast<bool>(readXml("<item xsi:type=\"xsd:boolean\">1</item>")));
  EXPECT_FALSE(static_cast<bool>(readXml("<item xsi:type=\"xsd:boolean\">0</item>")));
  EXPECT_FALSE(static_cast<bool>(readXml("<item xsi:type=\"xsd:boolean\"></item>")));
  EXPECT_TRUE(static_cast<bool>(readXml("<item xsi:type=\"xsd:boolean\">yes</item>")));
  EXPECT_TRUE(static_cast<bool>(readXml("<item xsi:type=\"xsd:boolean\">00</item>")));
  KXValue value = readXml("<item xsi:type=\"xsd:bool\">FALSE</item>");
  EXPECT_EQ(value.getType(), KXValue::TypeBool);
}

TEST(ReadKXValue, IntTextsReadLikeAtoi) {
  EXPECT_EQ(static_cast<int>(readXml("<item xsi:type=\"xsd:int\">-17</item>")), -17);
  EXPECT_EQ(static_cast<int>(readXml("<item xsi:type=\"xsd:int\"> 12ab</item>")), 12);
  EXPECT_EQ(static_cast<int>(readXml("<item xsi:type=\"xsd:int\">abc</item>")), 0);
  KXValue empty = readXml("<item xsi:type=\"xsd:int\"/>");
  EXPECT_EQ(empty.getType(), KXValue::TypeInt);
  EXPECT_EQ(static_cast<int>(empty), 0);
  EXPECT_EQ(readXml("<item xsi:type=\"xsd:int\">99999999999999999999</item>").getType(),
            KXValue::TypeInt);
}

TEST(ReadKXValue, DoubleGivesASinglePrecisionFloat) {
  KXValue value = readXml("<item xsi:type=\"xsd:double\">0.1</item>");
  ASSERT_EQ(value.getType(), KXValue::TypeFloat);
  EXPECT_EQ(static_cast<float>(value), 0.1f);
  KXValue empty = readXml("<item xsi:type=\"xsd:float\"></item>");
  ASSERT_EQ(empty.getType(), KXValue::TypeFloat);
  EXPECT_EQ(static_cast<float>(empty), 0.0f);
}

// The float text must read as a standard input stream reads it.
TEST(ReadKXValue, FloatTextsReadAsAStreamReadsThem) {
  const char* texts[] = {"1.5",   " 2.5e3",  "\n-7",  "1e",    "1e+",       "abc",          ".",
                         "-",     "+.5",     "0x1p3", "-0x1",  "inf",       "nan",          "1e39",
                         "-1e39", "1e-50",   "1e-40", "1.5.3", "1e5e3",     "3.4028235e38", "  -0",
                         "12ab",  "5.",      "1E2",   "+-1",   "0000012.5", "1e-",          "e5",
                         ".e5",   "1.25e-2x"};
  for (const char* text : texts) {
    float expected = -1.0f;
    std::istringstream stream(text);
    stream >> expected;
    const std::string xml = std::string("<item xsi:type=\"xsd:float\">") + text + "</item>";
    const float got = static_cast<float>(readXml(xml));
    EXPECT_EQ(std::memcmp(&got, &expected, sizeof got), 0)
        << "text '" << text << "': read " << got << ", stream " << expected;
  }
}

TEST(ReadKXValue, LongFloatTextReadsAsAStreamReadsIt) {
  const std::string text = " " + std::string(100, '0') + "1.25e1" + std::string(80, '9') + "x";
  float expected = -1.0f;
  std::istringstream stream(text);
  stream >> expected;
  ASSERT_NE(expected, 0.0f);
  EXPECT_EQ(static_cast<float>(readXml("<item xsi:type=\"xsd:float\">" + text + "</item>")),
            expected);
}

TEST(ReadKXValue, StringTextHasEntitiesResolved) {
  KXValue value =
      readXml("<item xsi:type=\"xsd:string\"> a&lt;&amp;&gt;&quot;&apos;&#x1;&#xD;b </item>");
  EXPECT_EQ(static_cast<const std::string&>(value), std::string(" a<&>\"'\x01\rb "));
  KXValue empty = readXml("<item xsi:type=\"xsd:string\"/>");
  ASSERT_EQ(empty.getType(), KXValue::TypeString);
  EXPECT_EQ(empty.getSize(), 0);
}

TEST(ReadKXValue, ObjectDecodesBase64AcrossLineEnds) {
  KXValue value = readXml("<item xsi:type=\"xsd:base64Object\">aGVs\nbG8=</item>");
  ASSERT_EQ(value.getType(), KXValue::TypeObject);
  const auto& bytes = value.getBinary();
  EXPECT_EQ(std::string(bytes.begin(), bytes.end()), "hello");
  KXValue empty = readXml("<item xsi:type=\"xsd:base64Object\"></item>");
  ASSERT_EQ(empty.getType(), KXValue::TypeObject);
  EXPECT_EQ(empty.getSize(), 0);
}

TEST(ReadKXValue, BinaryPlaceholderReadsAsTheByteOne) {
  KXValue value = roundTrip(binaryOf(std::vector<unsigned char>(100, 7)));
  ASSERT_EQ(value.getType(), KXValue::TypeBinary);
  EXPECT_EQ(value.getBinary(), std::vector<unsigned char>{'1'});
}

TEST(ReadKXValue, EmptyBinaryPrintsErrorAndAsserts) {
  testing::internal::CaptureStdout();
  const std::string text = errorText([] { readXml("<item xsi:type=\"xsd:base64Binary\"/>"); });
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "error");
  EXPECT_THAT(text, StartsWith("\tKXValue::Assert failed\n\tnetwork/kxvaluesoap.cpp:"));
}

TEST(ReadKXValue, UnknownOrMissingTypeIsInvalid) {
  EXPECT_FALSE(readXml("<item xsi:type=\"xsd:date\">2020-01-01</item>").isValid());
  EXPECT_FALSE(readXml("<item xsi:type=\"\">1</item>").isValid());
  EXPECT_FALSE(readXml("<item>5</item>").isValid());
  EXPECT_FALSE(readXml("<item xsi:nil=\"true\" xsi:type=\"nil\">nil</item>").isValid());
  EXPECT_FALSE(readXml("").isValid());
  EXPECT_FALSE(readXml("  <!-- nothing -->  ").isValid());
}

TEST(ReadKXValue, ReplacesWhatTheValueHeld) {
  tinyxml2::XMLDocument document;
  ASSERT_EQ(document.Parse("<item xsi:type=\"xsd:date\">x</item>"), tinyxml2::XML_SUCCESS);
  KXValue value = arrayOf(1, 2);
  readKXValue(*document.RootElement(), value, 0);
  EXPECT_FALSE(value.isValid());
  value = "text";
  ASSERT_EQ(document.Parse("<item xsi:type=\"Array\"><item xsi:type=\"xsd:int\">4</item></item>"),
            tinyxml2::XML_SUCCESS);
  readKXValue(*document.RootElement(), value, 0);
  EXPECT_EQ(value, arrayOf(4));
}

TEST(ReadKXValue, TypeHintAppliesOnlyWithoutXsiType) {
  tinyxml2::XMLDocument document;
  ASSERT_EQ(document.Parse("<item>12</item>"), tinyxml2::XML_SUCCESS);
  KXValue value;
  readKXValue(*document.RootElement(), value, KXValue::TypeString);
  EXPECT_EQ(value, KXValue("12"));
  readKXValue(*document.RootElement(), value, KXValue::TypeInt);
  EXPECT_EQ(value, KXValue(12));
  ASSERT_EQ(document.Parse("<item xsi:type=\"xsd:boolean\">true</item>"), tinyxml2::XML_SUCCESS);
  readKXValue(*document.RootElement(), value, KXValue::TypeInt);
  EXPECT_EQ(value, KXValue(true));
}

TEST(ReadKXValue, ImpossibleTypeHintAsserts) {
  tinyxml2::XMLDocument document;
  ASSERT_EQ(document.Parse("<item>12</item>"), tinyxml2::XML_SUCCESS);
  KXValue value;
  EXPECT_THAT(errorText([&] { readKXValue(*document.RootElement(), value, 8); }),
              StartsWith("\tKXValue::Assert failed\n\tnetwork/kxvaluesoap.cpp:"));
  EXPECT_THAT(errorText([&] { readKXValue(*document.RootElement(), value, -1); }),
              StartsWith("\tKXValue::Assert failed\n\tnetwork/kxvaluesoap.cpp:"));
}

// ---------------------------------------------------------------- faults

TEST(ReadKXValue, FaultElementRaisesItsChildren) {
  const std::string fault =
      "<SOAP-ENV:Fault><faultcode>SOAP-ENV:Client</faultcode>"
      "<faultstring>boom &amp; bust</faultstring><detail/>"
      "<detail2><mod>ALMemory</mod></detail2></SOAP-ENV:Fault>";
  EXPECT_EQ(errorText([&] { readXml(fault); }),
            valueError("Receving Fault response: ",
                       "Fault: 'SOAP-ENV:Fault': faultcode: SOAP-ENV:Client, "
                       "faultstring: boom & bust, detail: detail2: "));
  EXPECT_EQ(errorText([] { readXml("<MyFault/>"); }),
            valueError("Receving Fault response: ", "Fault: 'MyFault': "));
}

TEST(ReadKXValue, FaultInsideAnArrayIsRaisedToo) {
  EXPECT_EQ(errorText([] {
              readXml(
                  "<item xsi:type=\"Array\"><item xsi:type=\"xsd:int\">1</item>"
                  "<Fault><faultstring>x</faultstring></Fault></item>");
            }),
            valueError("Receving Fault response: ", "Fault: 'Fault': faultstring: x, "));
}

TEST(ReadKXValue, TypedElementNamedFaultIsAValue) {
  EXPECT_EQ(readXml("<Fault xsi:type=\"xsd:int\">3</Fault>"), KXValue(3));
}

// ---------------------------------------------------------------- arrays

TEST(ReadKXValue, ArrayTypeGivesTheElementType) {
  KXValue value = readXml(
      "<item xsi:type=\"Array\" SOAP-ENC:arrayType=\"xsd:int[2]\"><item>4</item>"
      "<item>5</item></item>");
  ASSERT_EQ(value.getType(), KXValue::TypeArray);
  ASSERT_EQ(value.getSize(), 2);
  EXPECT_EQ(value[0].getType(), KXValue::TypeInt);
  EXPECT_EQ(value, arrayOf(4, 5));
}

TEST(ReadKXValue, ChildTypeOverridesTheArrayType) {
  KXValue value = readXml(
      "<item xsi:type=\"Array\" SOAP-ENC:arrayType=\"xsd:string[3]\"><item>a</item>"
      "<item xsi:type=\"xsd:int\">2</item><item/></item>");
  EXPECT_EQ(value, arrayOf("a", 2, ""));
}

TEST(ReadKXValue, SecondArrayTypeAttributeIsUsedWhenTheFirstIsAbsent) {
  EXPECT_EQ(readXml("<item xsi:type=\"Array\" n2:arrayType=\"xsd:boolean[1]\"><item>true</item>"
                    "</item>"),
            arrayOf(true));
  EXPECT_EQ(readXml("<item xsi:type=\"Array\" SOAP-ENC:arrayType=\"xsd:int[1]\" "
                    "n2:arrayType=\"xsd:string[1]\"><item>8</item></item>"),
            arrayOf(8));
}

TEST(ReadKXValue, AnyTypeArrayLeavesUntypedChildrenInvalid) {
  KXValue value = readXml(
      "<item xsi:type=\"Array\" SOAP-ENC:arrayType=\"xsd:anyType[2]\"><item>1</item>"
      "<item xsi:type=\"xsd:float\">2.5</item></item>");
  ASSERT_EQ(value.getSize(), 2);
  EXPECT_FALSE(value[0].isValid());
  EXPECT_EQ(value[1], KXValue(2.5f));
}

TEST(ReadKXValue, ArrayWithoutArrayTypeReadsUntypedChildrenAsArrays) {
  KXValue value = readXml("<item xsi:type=\"Array\"><item>1</item><x><item>2</item></x></item>");
  ASSERT_EQ(value.getSize(), 2);
  EXPECT_EQ(value[0].getType(), KXValue::TypeArray);
  EXPECT_EQ(value[0].getSize(), 0);
  ASSERT_EQ(value[1].getType(), KXValue::TypeArray);
  ASSERT_EQ(value[1].getSize(), 1);
  EXPECT_EQ(value[1][0].getType(), KXValue::TypeArray);
}

TEST(ReadKXValue, KorvaneArrayNamespaceMakesAnArray) {
  KXValue value = readXml(
      "<return xmlns=\"http://Korvane.Broker.ARRAY/\" SOAP-ENC:arrayType=\"xsd:anyType[2]\">"
      "<item xsi:type=\"xsd:int\">1</item><item xsi:type=\"xsd:string\">b</item></return>");
  EXPECT_EQ(value, arrayOf(1, "b"));
  EXPECT_FALSE(readXml("<return xmlns=\"urn:other\"><item xsi:type=\"xsd:int\">1</item></return>")
                   .isValid());
}

TEST(ReadKXValue, KorvaneNamespaceYieldsToATypeHint) {
  tinyxml2::XMLDocument document;
  ASSERT_EQ(document.Parse("<r xmlns=\"korvane.broker.array\">6</r>"), tinyxml2::XML_SUCCESS);
  KXValue value;
  readKXValue(*document.RootElement(), value, KXValue::TypeInt);
  EXPECT_EQ(value, KXValue(6));
  readKXValue(*document.RootElement(), value, 0);
  EXPECT_EQ(value.getType(), KXValue::TypeArray);
}

TEST(ReadKXValue, ArrayTypePrefixIsLimitedTo511Characters) {
  const std::string longest(511, 'x');
  KXValue value = readXml("<item xsi:type=\"Array\" SOAP-ENC:arrayType=\"" + longest +
                          "[1]\"><item>1</item></item>");
  ASSERT_EQ(value.getSize(), 1);
  EXPECT_FALSE(value[0].isValid());
  EXPECT_THAT(errorText([&] {
                readXml("<item xsi:type=\"Array\" SOAP-ENC:arrayType=\"" + longest +
                        "x[1]\"><item>1</item></item>");
              }),
              StartsWith("\tKXValue::Assert failed\n\tnetwork/kxvaluesoap.cpp:"));
  // Without a '[' the whole attribute is the prefix.
  EXPECT_THROW(
      readXml("<item xsi:type=\"Array\" SOAP-ENC:arrayType=\"" + std::string(600, 'y') + "\"/>"),
      KXError);
}

TEST(ReadKXValue, HostileArrayCountsReadOnlyTheChildrenPresent) {
  const char* counts[] = {"2147483647", "-5", "99999999999999999999", "abc", "", "-2147483648"};
  for (const char* count : counts) {
    KXValue value = readXml(std::string("<item xsi:type=\"Array\" SOAP-ENC:arrayType=\"xsd:int[") +
                            count + "]\"><item>1</item><item>2</item></item>");
    EXPECT_EQ(value, arrayOf(1, 2)) << count;
  }
  const char* garbage[] = {"[[[", "]", "[", "xsd:int[", "xsd:int]3[", ""};
  for (const char* arrayType : garbage) {
    KXValue value = readXml(std::string("<item xsi:type=\"Array\" SOAP-ENC:arrayType=\"") +
                            arrayType + "\"><item xsi:type=\"xsd:int\">1</item></item>");
    EXPECT_EQ(value, arrayOf(1)) << arrayType;
  }
  // A count below the number of children does not drop any.
  EXPECT_EQ(readXml("<item xsi:type=\"Array\" SOAP-ENC:arrayType=\"xsd:int[1]\"><item>1</item>"
                    "<item>2</item><item>3</item></item>"),
            arrayOf(1, 2, 3));
}

TEST(ReadKXValue, NestingIsLimited) {
  tinyxml2::XMLDocument document;
  ASSERT_EQ(document.Parse(nestedItems(kKXValueMaxDepth).c_str()), tinyxml2::XML_SUCCESS);
  KXValue value;
  EXPECT_NO_THROW(readKXValue(*document.RootElement(), value, 0));
  ASSERT_EQ(document.Parse(nestedItems(kKXValueMaxDepth + 1).c_str()), tinyxml2::XML_SUCCESS);
  EXPECT_EQ(errorText([&] { readKXValue(*document.RootElement(), value, 0); }),
            valueError("readKXValue", "value too deeply nested (more than 64 levels)"));
}

TEST(ReadKXValueFromXml, HostileDeepNestingIsAnError) {
  const std::string text = errorText([] { readXml(nestedItems(100000)); });
  EXPECT_THAT(text, StartsWith("\tKXValue::readKXValueFromXml\n\tXML parse error: "));
}

TEST(ReadKXValueFromXml, MalformedXmlIsAnError) {
  EXPECT_THAT(errorText([] { readXml("<item xsi:type=\"xsd:int\">1"); }),
              StartsWith("\tKXValue::readKXValueFromXml\n\tXML parse error: "));
  EXPECT_THAT(errorText([] { readXml("<item xsi:type=\"xsd:int\">1</itme>"); }),
              HasSubstr("XML parse error: "));
}

// ---------------------------------------------------------------- round trips

TEST(RoundTrip, EveryScalarType) {
  const KXValue samples[] = {
      KXValue(true),
      KXValue(false),
      KXValue(0),
      KXValue(-1),
      KXValue(std::numeric_limits<int>::max()),
      KXValue(std::numeric_limits<int>::min()),
      KXValue(0.0f),
      KXValue(-3.75f),
      KXValue(1.0f / 3.0f),
      KXValue(3.4028235e38f),
      KXValue(1e-30f),
      KXValue(""),
      KXValue("plain text"),
      KXValue("<&>\"'"),
      KXValue(" "),
      KXValue("\n\t \n"),
      KXValue(" lead and trail \n"),
      KXValue("line\r\nends\rand\n"),
      objectOf(""),
      objectOf("AAECAwQFBgcICQoLDA0ODxAREhMUFRYXGBkaGxwdHh8gISIjJCUmJygpKissLS4vMDEyMzQ1Njc4OTo7PD0"
               "+P0BBQkNERUZHSElKS0xNTk9QUVJTVFVWV1hZWltcXV5fYGFiY2RlZmdoaWprbG1ub3BxcnN0dXZ3eHl6e3"
               "x9fn+AgYKDhIWGh4iJiouMjY6PkJGSk5SVlpeYmZqbnJ2en6ChoqOkpaanqKmqq6ytrq+"
               "wsbKztLW2t7i5uru8vb6/wMHCw8TFxsfIycrLzM3Oz9DR0tPU1dbX2Nna29zd3t/"
               "g4eLj5OXm5+jp6uvs7e7v8PHy8/T19vf4+fr7/P3+/w==")};
  for (const KXValue& sample : samples) {
    KXValue back = roundTrip(sample);
    EXPECT_EQ(back.getType(), sample.getType()) << sample.toString();
    EXPECT_EQ(back, sample) << sample.toString() << " came back as " << back.toString();
  }
}

TEST(RoundTrip, EveryNonNulByteOfAString) {
  std::string all;
  for (int c = 1; c < 256; ++c) all += static_cast<char>(c);
  EXPECT_EQ(roundTrip(KXValue(all)), KXValue(all));
}

TEST(RoundTrip, ObjectBytesSurviveTheirBase64Lines) {
  std::vector<unsigned char> bytes;
  for (int i = 0; i < 200; ++i) bytes.push_back(static_cast<unsigned char>(i * 7));
  KXValue object = binaryOf(bytes);
  std::string base64 = object.encodeBase64();
  KXValue back = roundTrip(objectOf(base64));
  ASSERT_EQ(back.getType(), KXValue::TypeObject);
  EXPECT_EQ(back.getBinary(), bytes);
}

TEST(RoundTrip, NestedArraysWithInvalidElements) {
  KXValue inner = arrayOf(2, "two", 2.5f);
  inner.arrayPush(KXValue());
  KXValue value = arrayOf(1, false);
  value.arrayPush(inner);
  KXValue empty;
  empty.arraySetSize(0);
  value.arrayPush(empty);
  value.arrayPush(objectOf("AQID"));
  value.arrayPush(nestedArrays(5));
  KXValue back = roundTrip(value);
  EXPECT_EQ(back, value) << back.toString();
  EXPECT_EQ(back.toString(), "[1, false, [2, \"two\", 2.5, ], [], \x01\x02\x03, [[[[[7]]]]]]");
}

TEST(RoundTrip, DeepestNestingThatIsWrittenIsRead) {
  KXValue value = nestedArrays(kKXValueMaxDepth - 1);
  EXPECT_EQ(roundTrip(value), value);
}

TEST(RoundTrip, InsideAnEnclosingElementThatDeclaresThePrefixes) {
  KXValue value = arrayOf(1, "a&b", 0.5f);
  std::string xml =
      "<kxbroker:p xmlns:kxbroker=\"urn:kxbroker\" "
      "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
      "xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\" xsi:type=\"xsd:anyType\">";
  writeKXValue(value, xml, false);
  xml += "</kxbroker:p>";
  tinyxml2::XMLDocument document;
  ASSERT_EQ(document.Parse(xml.c_str()), tinyxml2::XML_SUCCESS);
  const tinyxml2::XMLElement* item = document.RootElement()->FirstChildElement();
  ASSERT_NE(item, nullptr);
  KXValue back;
  readKXValue(*item, back, 0);
  EXPECT_EQ(back, value);
}

// ---------------------------------------------------------------- Binary leaves

// [bin a, [1, bin b, [bin c]], object, bin d]
KXValue valueWithFourBinaries() {
  KXValue innermost;
  innermost.arrayPush(binaryOf({'c'}));
  KXValue middle = arrayOf(1);
  middle.arrayPush(binaryOf({'b', 'b'}));
  middle.arrayPush(innermost);
  KXValue value;
  value.arrayPush(binaryOf({'a'}));
  value.arrayPush(middle);
  value.arrayPush(objectOf("AQID"));
  value.arrayPush(binaryOf({'d', 'd', 'd', 'd'}));
  return value;
}

TEST(BinaryLeaves, CollectedDepthFirstInIndexOrder) {
  const KXValue value = valueWithFourBinaries();
  std::vector<const KXValue*> leaves;
  collectBinaryLeaves(value, leaves);
  ASSERT_EQ(leaves.size(), 4u);
  EXPECT_EQ(leaves[0], &value[0]);
  EXPECT_EQ(leaves[1], &value[1][1]);
  EXPECT_EQ(leaves[2], &value[1][2][0]);
  EXPECT_EQ(leaves[3], &value[3]);
}

TEST(BinaryLeaves, ScalarsHaveNoneAndATopLevelBinaryIsOne) {
  std::vector<const KXValue*> leaves;
  collectBinaryLeaves(KXValue(3), leaves);
  collectBinaryLeaves(objectOf("AQID"), leaves);
  EXPECT_TRUE(leaves.empty());
  const KXValue binary = binaryOf({1});
  collectBinaryLeaves(binary, leaves);
  ASSERT_EQ(leaves.size(), 1u);
  EXPECT_EQ(leaves[0], &binary);
}

TEST(BinaryLeaves, AttachmentsMoveIntoTheLeavesReadBack) {
  const KXValue sent = valueWithFourBinaries();
  std::vector<const KXValue*> leaves;
  collectBinaryLeaves(sent, leaves);
  std::vector<KXValue::TKXValueBinary> attachments;
  for (const KXValue* leaf : leaves) attachments.push_back(leaf->getBinary());

  KXValue received = roundTrip(sent);
  std::vector<const unsigned char*> buffers;
  for (const auto& attachment : attachments) buffers.push_back(attachment.data());
  attachBinaryLeaves(received, std::move(attachments));

  EXPECT_EQ(received, sent);
  // The buffers were moved, not copied.
  EXPECT_EQ(received[0].getBinary().data(), buffers[0]);
  EXPECT_EQ(received[1][1].getBinary().data(), buffers[1]);
  EXPECT_EQ(received[1][2][0].getBinary().data(), buffers[2]);
  EXPECT_EQ(received[3].getBinary().data(), buffers[3]);
}

TEST(BinaryLeaves, CountMismatchIsAnErrorAndChangesNothing) {
  KXValue received = roundTrip(valueWithFourBinaries());
  const KXValue before = received;
  EXPECT_EQ(errorText([&] {
              attachBinaryLeaves(received, std::vector<KXValue::TKXValueBinary>(3, {9}));
            }),
            valueError("attachBinaryLeaves",
                       "expected 4 attachment(s) for the Binary values, received 3"));
  EXPECT_EQ(errorText([&] {
              attachBinaryLeaves(received, std::vector<KXValue::TKXValueBinary>(5, {9}));
            }),
            valueError("attachBinaryLeaves",
                       "expected 4 attachment(s) for the Binary values, received 5"));
  EXPECT_EQ(received, before);
  EXPECT_EQ(received[3].getBinary(), std::vector<unsigned char>{'1'});

  KXValue scalar(1);
  EXPECT_NO_THROW(attachBinaryLeaves(scalar, {}));
  EXPECT_EQ(errorText([&] {
              attachBinaryLeaves(scalar, {{1, 2}});
            }),
            valueError("attachBinaryLeaves",
                       "expected 0 attachment(s) for the Binary values, received 1"));
}

TEST(BinaryLeaves, NestingIsLimited) {
  KXValue value = nestedArrays(kKXValueMaxDepth);
  std::vector<const KXValue*> leaves;
  EXPECT_EQ(errorText([&] { collectBinaryLeaves(value, leaves); }),
            valueError("collectBinaryLeaves", "value too deeply nested (more than 64 levels)"));
}

}  // namespace
}  // namespace KX
