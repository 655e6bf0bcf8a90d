#include "network/detail/kxvaluesoap.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "network/tests/wire_test_support.h"
#include "value/tests/value_test_util.h"

namespace KX {
namespace testing {
namespace {

using ::testing::StartsWith;
using testing_util::arrayOf;
using testing_util::errorText;
using testing_util::valueError;

KXValue objectOf(const std::string& base64) {
  KXValue value;
  value.decodeBase64Object(base64);
  return value;
}

std::string written(const KXValue& value) {
  std::string out;
  writeKXValue(value, out, false);
  return out;
}

KXValue readXml(const std::string& xml) {
  KXValue value;
  readKXValueFromXml(xml, value);
  return value;
}

// `depth` arrays nested in one another, the innermost holding the Int 7.
KXValue nestedArrays(int depth) {
  KXValue value(7);
  for (int i = 0; i < depth; ++i) value = arrayOf(value);
  return value;
}

std::string item(const std::string& type, const std::string& text) {
  return "<item xsi:type=\"" + type + "\">" + text + "</item>";
}

std::string array(const std::string& items, const std::string& attributes = "") {
  return "<item xsi:type=\"Array\"" + attributes + ">" + items + "</item>";
}

const std::string kNil = "<item xsi:nil=\"true\" xsi:type=\"nil\">nil</item>";
const std::string kAssert = "\tKXValue::Assert failed\n\tnetwork/detail/kxvaluesoap.cpp:";
const std::string kTooDeep = "value too deeply nested (more than 64 levels)";

TEST(WriteKXValue, EachKindHasItsItemAndRefusalsLeaveTheTextAsItWas) {
  KXValue withHole;  // an Invalid element is the nil item
  withHole.arraySetSize(2);
  withHole[1] = true;
  const auto text = [](const std::string& xml) { return item("xsd:string", xml); };
  const struct {
    KXValue value;
    std::string xml;  // or the error raised
  } cases[] = {
      {KXValue(), ""},  // a top-level Invalid writes nothing
      {arrayOf(), array("")},
      {withHole, array(kNil + item("xsd:boolean", "true"))},
      {arrayOf(std::numeric_limits<int>::min(), false),
       array(item("xsd:int", "-2147483648") + item("xsd:boolean", "false"))},
      {objectOf(std::string(72, 'A')), item("xsd:base64Object", std::string(72, 'A') + "\n")},
      // A Binary's bytes go as an attachment: its XML only holds a placeholder.
      {binaryOf(""), item("xsd:base64Binary", "MQ==")},
      {KXValue("a<b>&\"c'd"), text("a&lt;b&gt;&amp;&quot;c&apos;d")},
      {KXValue("a\x01\x1f\rb\x0b"), text("a&#x1;&#x1F;&#xD;b&#xB;")},
      // TAB and LF are plain text; bytes from 0x80 up pass unchanged.
      {KXValue("x\ty\nz\xc3\xa9\xff\x7f"), text("x\ty\nz\xc3\xa9\xff\x7f")},
      // The parser drops text made only of white space: its first character is a reference.
      {arrayOf(" ", "\t\n ", " a ", ""),
       array(text("&#x20;") + text("&#x9;\n ") + text(" a ") + text(""))},
      // NULs that end a string are dropped; one inside it is refused.
      {arrayOf(std::string("abc\0\0", 5), std::string("\0", 1)), array(text("abc") + text(""))},
      {arrayOf(1, arrayOf(std::string("ab\0c", 4))),
       valueError("writeKXValue",
                  "String holds a NUL character at byte 2, which XML cannot carry")},
      {nestedArrays(kKXValueMaxDepth), valueError("writeKXValue", kTooDeep)},
      // Floats as printf writes them widened ("%.8g").
      {arrayOf(-0.0f, 1e-45f, -std::numeric_limits<float>::infinity(), std::nanf("")),
       array(item("xsd:float", "-0") + item("xsd:float", "1.4012985e-45") +
             item("xsd:float", "-inf") + item("xsd:float", "nan"))}};
  for (const auto& c : cases) {
    std::string out = "<p>";
    try {
      writeKXValue(c.value, out, false);
      EXPECT_EQ(out, "<p>" + c.xml);
    } catch (const KXError& error) {
      EXPECT_EQ(error.what(), c.xml);
      EXPECT_EQ(out, "<p>");
    }
  }
  std::string nested;
  writeKXValue(KXValue(), nested, true);
  EXPECT_EQ(nested, kNil);
}

TEST(ReadKXValue, EachFormGivesItsValue) {
  const auto items = [](const std::string& type, std::initializer_list<const char*> texts) {
    std::string xml;
    for (const char* text : texts) {
      xml += text != nullptr ? item(type, text) : "<item xsi:type=\"" + type + "\"/>";
    }
    return array(xml);
  };
  const struct {
    std::string xml;
    KXValue value;
  } cases[] = {
      {items("xsd:boolean", {"TRUE", "False", "1", "0", "", "yes", "00"}),
       arrayOf(true, false, true, false, false, true, true)},
      // Ints read like atoi; malformed numbers read as 0.
      {items("xsd:int", {" 12ab", "abc", nullptr}), arrayOf(12, 0, 0)},
      {items("xsd:double", {"0.1", nullptr}), arrayOf(0.1f, 0.0f)},
      {items("xsd:string", {" a&lt;&amp;&gt;&quot;&apos;&#x1;&#xD;b ", nullptr}),
       arrayOf(" a<&>\"'\x01\rb ", "")},
      {items("xsd:base64Object", {"aGVs\nbG8=", ""}), arrayOf(objectOf("aGVsbG8="), objectOf(""))},
      // The placeholder of a Binary reads as the byte '1'.
      {item("xsd:base64Binary", "MQ=="), binaryOf("1")},
      {items("xsd:date", {"2020-01-01"}), arrayOf(KXValue())},
      {kNil, KXValue()},
      {"  <!-- nothing -->  ", KXValue()},
      {"", KXValue()},
      {"<Fault xsi:type=\"xsd:int\">3</Fault>", KXValue(3)},
      // The declared element type applies to children without their own; the first of the two
      // attributes wins.
      {array("<item>a</item>" + item("xsd:int", "2") + "<item/>",
             " SOAP-ENC:arrayType=\"xsd:string[3]\" n2:arrayType=\"xsd:int[3]\""),
       arrayOf("a", 2, "")},
      // Type names match by their first fitting rule: "bool" anywhere before "Array".
      {array("<item>true</item>", " n2:arrayType=\"boolArray[1]\""), arrayOf(true)},
      {array("<item>1</item>", " SOAP-ENC:arrayType=\"XSD:INT[2]\""), arrayOf(KXValue())},
      {array("<item>1</item>", " SOAP-ENC:arrayType=\"" + std::string(511, 'x') + "[1]\""),
       arrayOf(KXValue())},
      // Without a declared type, untyped children are arrays.
      {array("<item>1</item><x><item>2</item></x>"), arrayOf(arrayOf(), arrayOf(arrayOf()))},
      {"<r xmlns=\"http://Korvane.Broker.ARRAY/\">" + item("xsd:int", "1") + "</r>", arrayOf(1)},
      // The declared count only reserves room: the children present make the array.
      {array("<item>1</item><item>2</item>", " SOAP-ENC:arrayType=\"xsd:int[-5]\""), arrayOf(1, 2)},
      // A declared element type outranks the array namespace, not an xsi:type.
      {array("<r xmlns=\"korvane.broker.array\">6</r>" + item("SOAP-ENC:Array", ""),
             " SOAP-ENC:arrayType=\"xsd:double[2]\""),
       arrayOf(6.0f, arrayOf())}};
  for (const auto& c : cases) EXPECT_EQ(readXml(c.xml), c.value) << c.xml;
}

// The float text must read as a standard input stream reads it.
TEST(ReadKXValue, FloatTextsReadAsAStreamReadsThem) {
  const std::string longText = " " + std::string(100, '0') + "1.25e1" + std::string(80, '9') + "x";
  for (const std::string text :
       {" 2.5e3", "1e+", "abc", "+.5", "0x1p3", "inf", "1e39", "-1e39", "1e-40", "1.5.3", "  -0",
        "5.", "+-1", "1.25e-2x", longText.c_str()}) {
    float expected = -1.0f;
    std::istringstream(text) >> expected;
    const float got = static_cast<float>(readXml(item("xsd:float", text)));
    EXPECT_EQ(std::memcmp(&got, &expected, sizeof got), 0)
        << "text '" << text << "': read " << got << ", stream " << expected;
  }
}

TEST(ReadKXValue, UnreadableFormsRaiseTheirTexts) {
  const std::string fault = "\tKXValue::Receving Fault response: \n\tFault: '";
  const std::string parse = "\tKXValue::readKXValueFromXml\n\tXML parse error: ";
  std::string tooDeep;
  for (int i = 0; i <= kKXValueMaxDepth; ++i) tooDeep = array(tooDeep);
  std::string hostile;  // deeper than the parser goes
  for (int i = 0; i < 100000; ++i) hostile += "<a>";
  const struct {
    std::string xml;
    std::string error;  // the start of the error's text
    const char* printed = "";
  } cases[] = {
      {"<SOAP-ENV:Fault><faultcode>SOAP-ENV:Client</faultcode><faultstring>boom &amp; bust"
       "</faultstring><detail/><detail2><mod>ALMemory</mod></detail2></SOAP-ENV:Fault>",
       fault + "SOAP-ENV:Fault': faultcode: SOAP-ENV:Client, faultstring: boom & bust, detail: "
               "detail2: "},
      {array(item("xsd:int", "1") + "<Fault><faultstring>x</faultstring></Fault>"),
       fault + "Fault': faultstring: x, "},
      {"<item xsi:type=\"xsd:base64Binary\"/>", kAssert, "error"},
      {array("", " SOAP-ENC:arrayType=\"" + std::string(512, 'x') + "[1]\""), kAssert},
      {array("", " SOAP-ENC:arrayType=\"" + std::string(600, 'y') + "\""), kAssert},
      {tooDeep, valueError("readKXValue", kTooDeep)},
      {hostile, parse},
      {"<item xsi:type=\"xsd:int\">1</itme>", parse}};
  for (const auto& c : cases) {
    ::testing::internal::CaptureStdout();
    EXPECT_THAT(errorText([&] { readXml(c.xml); }), StartsWith(c.error));
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), c.printed);
  }
}

TEST(BinaryLeaves, AttachmentsMoveIntoTheLeavesInWalkOrder) {
  std::string everyByte;
  for (int c = 1; c < 256; ++c) everyByte += static_cast<char>(c);
  // [bin a, [1, bin bb, [bin c]], object, bin dddd], then forms that must come back equal
  const KXValue sent =
      arrayOf(binaryOf("a"), arrayOf(1, binaryOf("bb"), arrayOf(binaryOf("c"))), objectOf("AQID"),
              binaryOf("dddd"), everyByte, "\n\t \n", "line\r\nends\rand\n", -3.75f, 1e-30f,
              std::numeric_limits<int>::max(), objectOf(binaryOf(everyByte).encodeBase64()),
              nestedArrays(kKXValueMaxDepth - 2));
  std::vector<const KXValue*> leaves;
  collectBinaryLeaves(sent, leaves);
  EXPECT_EQ(leaves, (std::vector<const KXValue*>{&sent[0], &sent[1][1], &sent[1][2][0], &sent[3]}));

  KXValue received = readXml(written(sent));
  const KXValue before = received;
  for (const std::size_t count : {3, 5}) {
    EXPECT_EQ(errorText([&] {
                attachBinaryLeaves(received, std::vector<KXValue::TKXValueBinary>(count, {9}));
              }),
              valueError("attachBinaryLeaves",
                         "expected 4 attachment(s) for the Binary values, "
                         "received " +
                             std::to_string(count)));
    EXPECT_EQ(received, before);
  }
  std::vector<KXValue::TKXValueBinary> attachments;
  for (const KXValue* leaf : leaves) attachments.push_back(leaf->getBinary());
  const unsigned char* third = attachments[2].data();
  attachBinaryLeaves(received, std::move(attachments));
  EXPECT_EQ(received, sent);
  EXPECT_EQ(received[1][2][0].getBinary().data(), third);  // moved, not copied

  const KXValue deep = nestedArrays(kKXValueMaxDepth);
  EXPECT_EQ(errorText([&] { collectBinaryLeaves(deep, leaves); }),
            valueError("collectBinaryLeaves", kTooDeep));
}

}  // namespace
}  // namespace testing
}  // namespace KX
