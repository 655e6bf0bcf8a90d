#include "python/pyvalue.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <string>
#include <utility>

#include "embedded_python.h"
#include "python/pyref.h"

namespace KX {
namespace python {
namespace {

using testing::check;
using testing::eval;
using testing::run;

KXValue convert(const char* expression) {
  PyObjectPtr object = eval(expression);
  EXPECT_TRUE(object) << expression;
  if (!object) return KXValue();
  KXValue value = pyToValue(object.get());
  EXPECT_EQ(PyErr_Occurred(), nullptr) << expression;
  PyErr_Clear();
  return value;
}

KXValue emptyArray() {
  KXValue array;
  array.xAssertCompatibleType(KXValue::TypeArray);
  return array;
}

std::string bytesOf(const KXValue& value) {
  const KXValue::TKXValueBinary& bytes = value.getBinary();
  return std::string(bytes.begin(), bytes.end());
}

std::string stringOf(const KXValue& value) {
  EXPECT_EQ(value.getType(), KXValue::TypeString);
  if (value.getType() != KXValue::TypeString) return "";
  return static_cast<const std::string&>(value);
}

// ---- Python to value

TEST(PyToValue, MixedListBecomesArrayOfEachKind) {
  KXValue value = convert("[1, True, 2.5, 'a']");
  ASSERT_EQ(value.getType(), KXValue::TypeArray);
  ASSERT_EQ(value.getSize(), 4);
  EXPECT_EQ(value[0].getType(), KXValue::TypeInt);
  EXPECT_EQ(static_cast<int>(value[0]), 1);
  EXPECT_EQ(value[1].getType(), KXValue::TypeBool);
  EXPECT_TRUE(static_cast<bool>(value[1]));
  EXPECT_EQ(value[2].getType(), KXValue::TypeFloat);
  EXPECT_EQ(static_cast<float>(value[2]), 2.5f);
  EXPECT_EQ(stringOf(value[3]), "a");

  PyObjectPtr back(valueToPy(value));
  EXPECT_TRUE(check(
      back.get(), "r == [1, True, 2.5, 'a'] and [type(x) for x in r] == [int, bool, float, str]"));
}

TEST(PyToValue, EmptyListIsEmptyArray) {
  KXValue value = convert("[]");
  EXPECT_EQ(value.getType(), KXValue::TypeArray);
  EXPECT_EQ(value.getSize(), 0);
}

TEST(PyToValue, BoolIsNeverInt) {
  KXValue yes = convert("True");
  EXPECT_EQ(yes.getType(), KXValue::TypeBool);
  EXPECT_TRUE(static_cast<bool>(yes));
  KXValue no = convert("False");
  EXPECT_EQ(no.getType(), KXValue::TypeBool);
  EXPECT_FALSE(static_cast<bool>(no));
}

TEST(PyToValue, IntSubclassIsInt) {
  ASSERT_TRUE(run("class MyInt(int): pass\n"));
  KXValue value = convert("MyInt(-7)");
  EXPECT_EQ(value.getType(), KXValue::TypeInt);
  EXPECT_EQ(static_cast<int>(value), -7);
}

TEST(PyToValue, IntsWithin32BitsAreInts) {
  KXValue top = convert("2147483647");
  EXPECT_EQ(top.getType(), KXValue::TypeInt);
  EXPECT_EQ(static_cast<int>(top), 2147483647);
  KXValue bottom = convert("-2147483648");
  EXPECT_EQ(bottom.getType(), KXValue::TypeInt);
  EXPECT_EQ(static_cast<int>(bottom), -2147483647 - 1);
  KXValue minusOne = convert("-1");
  EXPECT_EQ(minusOne.getType(), KXValue::TypeInt);
  EXPECT_EQ(static_cast<int>(minusOne), -1);
}

TEST(PyToValue, IntsBeyond32BitsAreInvalidWithoutError) {
  // convert() also fails the test when a Python error is left set.
  EXPECT_EQ(convert("2147483648").getType(), KXValue::TypeInvalid);
  EXPECT_EQ(convert("-2147483649").getType(), KXValue::TypeInvalid);
  EXPECT_EQ(convert("10 ** 30").getType(), KXValue::TypeInvalid);
  EXPECT_EQ(convert("-(10 ** 30)").getType(), KXValue::TypeInvalid);
  ASSERT_TRUE(run("class MyInt(int): pass\n"));
  EXPECT_EQ(convert("MyInt(2 ** 40)").getType(), KXValue::TypeInvalid);
}

TEST(PyToValue, FloatAndSubclassAreNarrowedFloats) {
  KXValue value = convert("2.5");
  EXPECT_EQ(value.getType(), KXValue::TypeFloat);
  EXPECT_EQ(static_cast<float>(value), 2.5f);

  ASSERT_TRUE(run("class MyFloat(float): pass\n"));
  KXValue sub = convert("MyFloat(0.1)");
  EXPECT_EQ(sub.getType(), KXValue::TypeFloat);
  EXPECT_EQ(static_cast<float>(sub), 0.1f);
}

TEST(PyToValue, PointOneComesBackAsNearestSinglePrecision) {
  PyObjectPtr back(valueToPy(convert("0.1")));
  ASSERT_TRUE(PyFloat_CheckExact(back.get()));
  EXPECT_EQ(PyFloat_AsDouble(back.get()), 0.10000000149011612);
  EXPECT_TRUE(check(back.get(), "repr(r) == '0.10000000149011612'"));
}

TEST(PyToValue, FloatsBeyondSinglePrecisionRangeRoundLikeIeee) {
  EXPECT_EQ(static_cast<float>(convert("1e300")), INFINITY);
  EXPECT_EQ(static_cast<float>(convert("-1e300")), -INFINITY);
  EXPECT_EQ(static_cast<float>(convert("3.4028234663852886e38")), FLT_MAX);
  // Just below half an ulp past FLT_MAX still rounds down to it; the half-way
  // point itself rounds to even, which is infinity.
  EXPECT_EQ(static_cast<float>(convert("(2 - 2**-24) * 2.0**127 - 2.0**80")), FLT_MAX);
  EXPECT_EQ(static_cast<float>(convert("(2 - 2**-24) * 2.0**127")), INFINITY);
  EXPECT_EQ(static_cast<float>(convert("-(2 - 2**-24) * 2.0**127")), -INFINITY);
  EXPECT_TRUE(std::isnan(static_cast<float>(convert("float('nan')"))));
  EXPECT_EQ(static_cast<float>(convert("float('-inf')")), -INFINITY);
}

TEST(PyToValue, ListSubclassIsArray) {
  ASSERT_TRUE(run("class MyList(list): pass\n"));
  KXValue value = convert("MyList([3, 'x'])");
  ASSERT_EQ(value.getType(), KXValue::TypeArray);
  ASSERT_EQ(value.getSize(), 2);
  EXPECT_EQ(static_cast<int>(value[0]), 3);
  EXPECT_EQ(stringOf(value[1]), "x");
}

TEST(PyToValue, NestedListsKeepTheirShape) {
  KXValue value = convert("[[1, [2, []]], [], 'z']");
  ASSERT_EQ(value.getType(), KXValue::TypeArray);
  ASSERT_EQ(value.getSize(), 3);
  ASSERT_EQ(value[0].getType(), KXValue::TypeArray);
  ASSERT_EQ(value[0].getSize(), 2);
  EXPECT_EQ(static_cast<int>(value[0][0]), 1);
  ASSERT_EQ(value[0][1].getType(), KXValue::TypeArray);
  ASSERT_EQ(value[0][1].getSize(), 2);
  EXPECT_EQ(static_cast<int>(value[0][1][0]), 2);
  EXPECT_EQ(value[0][1][1].getType(), KXValue::TypeArray);
  EXPECT_EQ(value[0][1][1].getSize(), 0);
  EXPECT_EQ(value[1].getType(), KXValue::TypeArray);
  EXPECT_EQ(value[1].getSize(), 0);
  EXPECT_EQ(stringOf(value[2]), "z");

  PyObjectPtr back(valueToPy(value));
  EXPECT_TRUE(check(back.get(), "r == [[1, [2, []]], [], 'z']"));
}

TEST(PyToValue, StringKeepsEmbeddedNul) {
  KXValue value = convert("'a\\x00b\\x00'");
  EXPECT_EQ(stringOf(value), std::string("a\0b\0", 4));
  EXPECT_EQ(value.getSize(), 4);
}

TEST(PyToValue, NonAsciiStringBecomesUtf8Bytes) {
  EXPECT_EQ(stringOf(convert("'\\u00e9\\u20ac\\U0001F600'")),
            "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80");
}

TEST(PyToValue, StringSubclassIsString) {
  ASSERT_TRUE(run("class MyStr(str): pass\n"));
  EXPECT_EQ(stringOf(convert("MyStr('sub')")), "sub");
}

TEST(PyToValue, BytesAreBinaryAndStrIsString) {
  KXValue binary = convert("b'a\\x00\\xff'");
  ASSERT_EQ(binary.getType(), KXValue::TypeBinary);
  EXPECT_EQ(bytesOf(binary), std::string("a\0\xff", 3));

  KXValue text = convert("'a'");
  EXPECT_EQ(text.getType(), KXValue::TypeString);

  KXValue empty = convert("b''");
  ASSERT_EQ(empty.getType(), KXValue::TypeBinary);
  EXPECT_EQ(empty.getSize(), 0);
}

TEST(PyToValue, BytearrayIsBinary) {
  KXValue value = convert("bytearray(b'\\x01\\x00\\x02')");
  ASSERT_EQ(value.getType(), KXValue::TypeBinary);
  EXPECT_EQ(bytesOf(value), std::string("\x01\0\x02", 3));
}

TEST(PyToValue, LoneSurrogateIsInvalidWithoutError) {
  EXPECT_EQ(convert("'\\ud800'").getType(), KXValue::TypeInvalid);
  EXPECT_EQ(convert("'ok\\ud800'").getType(), KXValue::TypeInvalid);
}

TEST(PyToValue, OtherObjectsAreInvalidWithoutError) {
  for (const char* expression :
       {"(1, 2)", "()", "{}", "{'a': 1}", "None", "object()", "{1}", "1j", "len", "int"}) {
    EXPECT_EQ(convert(expression).getType(), KXValue::TypeInvalid) << expression;
  }
}

TEST(PyToValue, InvalidElementsStayInPlace) {
  KXValue value = convert("[None, 1, (2,)]");
  ASSERT_EQ(value.getSize(), 3);
  EXPECT_EQ(value[0].getType(), KXValue::TypeInvalid);
  EXPECT_EQ(static_cast<int>(value[1]), 1);
  EXPECT_EQ(value[2].getType(), KXValue::TypeInvalid);
  PyObjectPtr back(valueToPy(value));
  EXPECT_TRUE(check(back.get(), "r == [None, 1, None]"));
}

TEST(PyToValue, ListContainingItselfIsCut) {
  ASSERT_TRUE(run("loop = [1]\nloop.append(loop)\n"));
  KXValue value = convert("loop");
  ASSERT_EQ(value.getType(), KXValue::TypeArray);
  ASSERT_EQ(value.getSize(), 2);
  EXPECT_EQ(static_cast<int>(value[0]), 1);
  EXPECT_EQ(value[1].getType(), KXValue::TypeInvalid);
}

TEST(PyToValue, NestingPastTheRecursionLimitStopsWithoutError) {
  ASSERT_TRUE(run("deep = []\nfor _ in range(100000):\n    deep = [deep]\n"));
  KXValue value = convert("deep");
  EXPECT_EQ(value.getType(), KXValue::TypeArray);
  // Somewhere below the top the conversion stopped at an Invalid leaf.
  const KXValue* level = &value;
  int depth = 0;
  while (level->getType() == KXValue::TypeArray && level->getSize() == 1 && depth < 100001) {
    level = &(*level)[0];
    ++depth;
  }
  EXPECT_EQ(level->getType(), KXValue::TypeInvalid);
  EXPECT_GT(depth, 10);
  EXPECT_LT(depth, 100000);
  ASSERT_TRUE(run("del deep\n"));
}

TEST(PyToValue, NullIsInvalid) { EXPECT_EQ(pyToValue(nullptr).getType(), KXValue::TypeInvalid); }

TEST(PyToValue, LeavesReferenceCountsUnchanged) {
  ASSERT_TRUE(
      run("big = [[str(i) * 3, [str(i), float(i), b'x' + bytes([i % 256])], 10 ** 12 + i]"
          " for i in range(2000)]\n"
          "sample = big[1234]\n"));
  PyObjectPtr big = eval("big");
  PyObjectPtr sample = eval("sample");
  PyObjectPtr inner = eval("sample[1]");
  PyObjectPtr leaf = eval("sample[1][0]");
  const Py_ssize_t bigCount = Py_REFCNT(big.get());
  const Py_ssize_t sampleCount = Py_REFCNT(sample.get());
  const Py_ssize_t innerCount = Py_REFCNT(inner.get());
  const Py_ssize_t leafCount = Py_REFCNT(leaf.get());

  KXValue value = pyToValue(big.get());
  ASSERT_EQ(value.getSize(), 2000);
  EXPECT_EQ(stringOf(value[1234][0]), "123412341234");
  EXPECT_EQ(value[1234][2].getType(), KXValue::TypeInvalid);

  EXPECT_EQ(Py_REFCNT(big.get()), bigCount);
  EXPECT_EQ(Py_REFCNT(sample.get()), sampleCount);
  EXPECT_EQ(Py_REFCNT(inner.get()), innerCount);
  EXPECT_EQ(Py_REFCNT(leaf.get()), leafCount);
  ASSERT_TRUE(run("del big, sample\n"));
}

// ---- Value to Python

TEST(ValueToPy, ArrayBecomesList) {
  KXValue value = emptyArray();
  value.arrayPush(KXValue(4));
  value.arrayPush(KXValue("x"));
  PyObjectPtr list(valueToPy(value));
  ASSERT_TRUE(PyList_CheckExact(list.get()));
  EXPECT_TRUE(check(list.get(), "r == [4, 'x']"));
}

TEST(ValueToPy, BoolBecomesBool) {
  PyObjectPtr yes(valueToPy(KXValue(true)));
  PyObjectPtr no(valueToPy(KXValue(false)));
  EXPECT_EQ(yes.get(), Py_True);
  EXPECT_EQ(no.get(), Py_False);
}

TEST(ValueToPy, IntBecomesInt) {
  PyObjectPtr low(valueToPy(KXValue(-2147483647 - 1)));
  ASSERT_TRUE(PyLong_CheckExact(low.get()));
  EXPECT_EQ(PyLong_AsLong(low.get()), -2147483648L);
  PyObjectPtr high(valueToPy(KXValue(2147483647)));
  EXPECT_EQ(PyLong_AsLong(high.get()), 2147483647L);
}

TEST(ValueToPy, FloatIsWidened) {
  PyObjectPtr number(valueToPy(KXValue(0.1f)));
  ASSERT_TRUE(PyFloat_CheckExact(number.get()));
  EXPECT_EQ(PyFloat_AsDouble(number.get()), static_cast<double>(0.1f));
}

TEST(ValueToPy, StringBecomesStrOfAllBytes) {
  PyObjectPtr text(valueToPy(KXValue(std::string("a\0\xc3\xa9", 4))));
  ASSERT_TRUE(PyUnicode_CheckExact(text.get()));
  EXPECT_TRUE(check(text.get(), "r == 'a\\x00\\u00e9'"));
}

TEST(ValueToPy, UndecodableStringBytesRoundTripThroughSurrogates) {
  const std::string raw(
      "\xff\xfe"
      "A\x80",
      4);
  PyObjectPtr text(valueToPy(KXValue(raw)));
  ASSERT_TRUE(PyUnicode_CheckExact(text.get()));
  EXPECT_TRUE(check(text.get(), "r == b'\\xff\\xfeA\\x80'.decode('utf-8', 'surrogateescape')"));
  KXValue back = pyToValue(text.get());
  EXPECT_EQ(PyErr_Occurred(), nullptr);
  EXPECT_EQ(stringOf(back), raw);
}

TEST(ValueToPy, BinaryBecomesBytes) {
  KXValue value;
  value.setBinary("\x00z\xff", 3);
  PyObjectPtr bytes(valueToPy(value));
  ASSERT_TRUE(PyBytes_CheckExact(bytes.get()));
  EXPECT_TRUE(check(bytes.get(), "r == b'\\x00z\\xff'"));
}

TEST(ValueToPy, ObjectBecomesNoneAndPrintsObj) {
  KXValue value;
  value.xAssertCompatibleType(KXValue::TypeObject);
  ASSERT_EQ(value.getType(), KXValue::TypeObject);
  ::testing::internal::CaptureStdout();
  PyObjectPtr result(valueToPy(value));
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "obj\n");
  EXPECT_EQ(result.get(), Py_None);
}

TEST(ValueToPy, InvalidBecomesNoneAsNewReference) {
  const Py_ssize_t before = Py_REFCNT(Py_None);
  PyObject* result = valueToPy(KXValue());
  EXPECT_EQ(result, Py_None);
  EXPECT_EQ(Py_REFCNT(Py_None), before + 1);
  Py_DECREF(result);
  EXPECT_EQ(Py_REFCNT(Py_None), before);
}

TEST(ValueToPy, BoolIsANewReference) {
  const Py_ssize_t before = Py_REFCNT(Py_True);
  PyObject* result = valueToPy(KXValue(true));
  EXPECT_EQ(Py_REFCNT(Py_True), before + 1);
  Py_DECREF(result);
  EXPECT_EQ(Py_REFCNT(Py_True), before);
}

TEST(ValueToPy, EveryObjectOfABigNestedResultHasOneReference) {
  KXValue value = emptyArray();
  for (int i = 0; i < 1000; ++i) {
    KXValue row = emptyArray();
    row.arrayPush(KXValue(std::to_string(i) + "-row"));
    row.arrayPush(KXValue(1.5f + static_cast<float>(i)));
    KXValue inner = emptyArray();
    inner.arrayPush(KXValue(std::string(50, 'a') + std::to_string(i)));
    row.arrayPush(inner);
    value.arrayPush(row);
  }
  PyObjectPtr list(valueToPy(value));
  ASSERT_TRUE(list);
  EXPECT_EQ(Py_REFCNT(list.get()), 1);
  ASSERT_EQ(PyList_GET_SIZE(list.get()), 1000);
  for (Py_ssize_t i = 0; i < 1000; ++i) {
    PyObject* row = PyList_GET_ITEM(list.get(), i);
    ASSERT_EQ(Py_REFCNT(row), 1);
    ASSERT_EQ(Py_REFCNT(PyList_GET_ITEM(row, 0)), 1);
    ASSERT_EQ(Py_REFCNT(PyList_GET_ITEM(row, 1)), 1);
    PyObject* inner = PyList_GET_ITEM(row, 2);
    ASSERT_EQ(Py_REFCNT(inner), 1);
    ASSERT_EQ(Py_REFCNT(PyList_GET_ITEM(inner, 0)), 1);
  }
  EXPECT_TRUE(check(list.get(), "r[999] == ['999-row', 1000.5, ['a' * 50 + '999']]"));
}

TEST(ValueToPy, NestingPastTheRecursionLimitEndsInNone) {
  KXValue value(7);
  for (int i = 0; i < 5000; ++i) {
    KXValue outer = emptyArray();
    outer.arraySetSize(1);
    outer[0] = std::move(value);
    value = std::move(outer);
  }
  PyObjectPtr list(valueToPy(value));
  EXPECT_EQ(PyErr_Occurred(), nullptr);
  ASSERT_TRUE(PyList_CheckExact(list.get()));
  ASSERT_TRUE(
      run("def leaf(x):\n"
          "    depth = 0\n"
          "    while type(x) is list and len(x) == 1 and depth < 10000:\n"
          "        x, depth = x[0], depth + 1\n"
          "    return x, depth\n"));
  EXPECT_TRUE(check(list.get(), "leaf(r)[0] is None and 10 < leaf(r)[1] < 5000"));
}

}  // namespace
}  // namespace python
}  // namespace KX
