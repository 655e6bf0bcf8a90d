#include "python/pyvalue.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <string>
#include <utility>

#include "embedded_python.h"
#include "module/tests/proxy_test_support.h"

namespace KX {
namespace python {
namespace {

using KX::testing::args;
using testing::check;
using testing::eval;
using testing::run;

KXValue convert(const std::string& expression) {
  PyObjectPtr object = eval(expression);
  EXPECT_TRUE(object) << expression;
  KXValue value = pyToValue(object.get());
  // Never fails: nothing may be left for the caller's Python code to trip over.
  EXPECT_EQ(PyErr_Occurred(), nullptr) << expression;
  PyErr_Clear();
  return value;
}

KXValue binary(const std::string& bytes) {
  KXValue value;
  value.setBinary(bytes.data(), bytes.size());
  return value;
}

TEST(PyToValue, EachKindBecomesItsValue) {
  ASSERT_TRUE(
      run("class MyInt(int): pass\nclass MyStr(str): pass\nclass MyList(list): pass\n"
          "loop = [1]\nloop.append(loop)\n"));
  const KXValue invalid;
  const struct {
    const char* expression;
    KXValue expected;
  } cases[] = {
      {"[1, True, 'a', [2, []]]", args({1, true, "a", args({2, args({})})})},
      {"MyList([3])", args({3})},
      {"[None, (2,)]", args({invalid, invalid})},  // elements that cannot be kept keep their place
      {"loop", args({1, invalid})},                // a list inside itself is cut
      {"True", true},
      {"False", false},  // bool before int: it is an int subclass
      {"MyInt(-7)", -7},
      {"-1", -1},
      {"2147483647", INT_MAX},
      {"-2147483648", INT_MIN},
      {"2147483648", invalid},
      {"-2147483649", invalid},
      {"10 ** 30", invalid},
      {"'a\\x00b'", std::string("a\0b", 3)},
      {"'\\u00e9\\u20ac\\U0001F600'", "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80"},
      {"b'\\xff\\x80'.decode('utf-8', 'surrogateescape')", "\xff\x80"},
      {"MyStr('sub')", "sub"},
      {"'ok\\ud800'", invalid},  // a lone surrogate cannot be encoded even so
      {"b'a\\x00\\xff'", binary(std::string("a\0\xff", 3))},
      {"b''", binary("")},
      {"bytearray(b'\\x01\\x00')", binary(std::string("\x01\0", 2))},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.expression);
    EXPECT_EQ(convert(c.expression), c.expected) << convert(c.expression).toString(2);
  }
  for (const char* other : {"(1, 2)", "{}", "None", "object()", "{1}", "1j", "len"}) {
    EXPECT_EQ(convert(other).getType(), KXValue::TypeInvalid) << other;
  }
  EXPECT_EQ(pyToValue(nullptr).getType(), KXValue::TypeInvalid);
}

TEST(PyToValue, FloatsAreNarrowedAsIeeeRounds) {
  ASSERT_TRUE(run("class MyFloat(float): pass\nulp_half = (2 - 2**-24) * 2.0**127\n"));
  const struct {
    const char* expression;
    float expected;
  } cases[] = {
      {"MyFloat(0.1)", 0.1f},
      {"3.4028234663852886e38", FLT_MAX},
      {"ulp_half - 2.0**80", FLT_MAX},  // just below half an ulp past FLT_MAX
      {"ulp_half", INFINITY},           // the half-way point rounds to even: infinity
      {"1e300", INFINITY},
      {"float('nan')", NAN},
  };
  for (const auto& c : cases) {
    const KXValue value = convert(c.expression);
    ASSERT_EQ(value.getType(), KXValue::TypeFloat) << c.expression;
    const float got = static_cast<float>(value);
    EXPECT_TRUE(std::isnan(c.expected) ? std::isnan(got) : got == c.expected) << c.expression;
  }
}

TEST(ValueToPy, EachKindBecomesItsObjectAndComesBack) {
  const struct {
    KXValue value;
    const char* predicate;
  } cases[] = {
      {args({4, "x", args({})}), "type(r) is list and r == [4, 'x', []]"},
      {true, "r is True"},
      {INT_MIN, "type(r) is int and r == -2**31"},
      {0.1f, "type(r) is float and repr(r) == '0.10000000149011612'"},  // widened exactly
      {std::string("a\0\xc3\xa9", 4), "r == 'a\\x00\\u00e9'"},
      {"\xff\xfe"
       "A\x80",
       "r == b'\\xff\\xfeA\\x80'.decode('utf-8', 'surrogateescape')"},
      {binary(std::string("\0z\xff", 3)), "type(r) is bytes and r == b'\\x00z\\xff'"},
      {KXValue(), "r is None"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.predicate);
    PyObjectPtr object(valueToPy(c.value));
    EXPECT_TRUE(check(object.get(), c.predicate));
    EXPECT_EQ(pyToValue(object.get()), c.value);
  }
  KXValue object;
  object.xAssertCompatibleType(KXValue::TypeObject);
  ::testing::internal::CaptureStdout();
  PyObjectPtr none(valueToPy(object));
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "obj\n");
  EXPECT_EQ(none.get(), Py_None);
}

// A missing or extra reference is a leak or a crash much later, far from its cause.
TEST(Conversions, KeepReferenceCountsExact) {
  ASSERT_TRUE(run("inner = ['s' * 3, 2.5, b'xy']\nouter = [inner, 10 ** 12, inner]\n"));
  PyObjectPtr outer = eval("outer");
  PyObjectPtr inner = eval("inner");
  PyObjectPtr leaf = eval("inner[0]");
  const Py_ssize_t counts[] = {Py_REFCNT(outer.get()), Py_REFCNT(inner.get()),
                               Py_REFCNT(leaf.get())};
  const KXValue value = pyToValue(outer.get());
  EXPECT_EQ(value[2], args({"sss", 2.5f, binary("xy")}));
  EXPECT_EQ(Py_REFCNT(outer.get()), counts[0]);
  EXPECT_EQ(Py_REFCNT(inner.get()), counts[1]);
  EXPECT_EQ(Py_REFCNT(leaf.get()), counts[2]);

  PyObjectPtr back(valueToPy(value));
  ASSERT_TRUE(check(back.get(), "r == [inner, None, inner] and r[0] is not inner"));
  PyDict_DelItemString(testing::mainDict(), "r");
  EXPECT_EQ(Py_REFCNT(back.get()), 1);
  for (Py_ssize_t i : {0, 2}) {
    PyObject* row = PyList_GET_ITEM(back.get(), i);
    EXPECT_EQ(Py_REFCNT(row), 1);
    for (Py_ssize_t j = 0; j < 3; ++j) EXPECT_EQ(Py_REFCNT(PyList_GET_ITEM(row, j)), 1);
  }
  for (PyObject* shared : {Py_None, Py_True}) {
    const Py_ssize_t before = Py_REFCNT(shared);
    PyObjectPtr result(valueToPy(shared == Py_None ? KXValue() : KXValue(true)));
    EXPECT_EQ(Py_REFCNT(shared), before + 1);
  }
  ASSERT_TRUE(run("del outer, inner\n"));
}

TEST(Conversions, NestingPastTheRecursionLimitStopsAtALeaf) {
  ASSERT_TRUE(
      run("deep = []\nfor _ in range(100000):\n    deep = [deep]\n"
          "def leaf(x):\n    depth = 0\n"
          "    while type(x) is list and len(x) == 1:\n        x, depth = x[0], depth + 1\n"
          "    return x, depth\n"));
  KXValue deep(7);
  for (int i = 0; i < 5000; ++i) {
    KXValue outer;
    outer.arraySetSize(1);
    outer[0] = std::move(deep);
    deep = std::move(outer);
  }
  // Python to value stops at an Invalid leaf, value to Python at None; no error is left.
  for (const KXValue& value : {convert("deep"), deep}) {
    PyObjectPtr list(valueToPy(value));
    EXPECT_EQ(PyErr_Occurred(), nullptr);
    EXPECT_TRUE(check(list.get(), "leaf(r)[0] is None and 10 < leaf(r)[1] < 5000"));
  }
  ASSERT_TRUE(run("del deep, r\n"));
}

}  // namespace
}  // namespace python
}  // namespace KX
