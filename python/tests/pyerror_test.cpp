#include "python/pyerror.h"

#include <gtest/gtest.h>

#include <string>

#include "embedded_python.h"
#include "value/kxerror.h"

namespace KX {
namespace python {
namespace {

using testing::takeError;

TEST(PythonErrors, AFrameworkErrorIsARuntimeErrorWithEveryByteOfItsText) {
  const struct {
    KXError error;
    std::string text;
  } cases[] = {
      {KXError("proxy", "pythonCall", "not found", __FILE__, __LINE__),
       "\tproxy::pythonCall\n\tnot found"},
      {KXError("", "", "x", __FILE__, __LINE__), "\n\tx"},
      {KXError("M", "", "x", __FILE__, __LINE__), "\tM\n\tx"},
      {KXError("M", "f", "bad \xff byte \xc3\xa9", __FILE__, __LINE__),
       "\tM::f\n\tbad \xff byte \xc3\xa9"},  // not UTF-8: escaped, not lost
  };
  for (const auto& c : cases) {
    setPythonError(c.error);
    auto [type, text] = takeError();
    EXPECT_EQ(type.get(), PyExc_RuntimeError) << c.text;
    EXPECT_EQ(text, c.text);
  }
}

TEST(PythonErrors, AnOverloadErrorReplacesThePendingTypeError) {
  PyErr_SetString(PyExc_TypeError, "too many arguments");
  setOverloadError("Wrong number or type of arguments for overloaded function 'f'.");
  auto [type, text] = takeError();
  EXPECT_EQ(type.get(), PyExc_NotImplementedError);
  EXPECT_EQ(text, "Wrong number or type of arguments for overloaded function 'f'.");
}

}  // namespace
}  // namespace python
}  // namespace KX
