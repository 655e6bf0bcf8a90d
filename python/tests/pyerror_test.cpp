#include "python/pyerror.h"

#include <gtest/gtest.h>

#include <string>

#include "embedded_python.h"
#include "value/kxerror.h"

namespace KX {
namespace python {
namespace {

using testing::takeError;

TEST(SetPythonError, RaisesRuntimeErrorWithTheErrorText) {
  setPythonError(KXError("proxy", "pythonCall", "method not found", __FILE__, __LINE__));
  ASSERT_NE(PyErr_Occurred(), nullptr);
  auto [type, text] = takeError();
  EXPECT_EQ(type.get(), PyExc_RuntimeError);
  EXPECT_EQ(text, "\tproxy::pythonCall\n\tmethod not found");
  EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST(SetPythonError, KeepsPartialFirstLines) {
  setPythonError(KXError("", "", "x", __FILE__, __LINE__));
  EXPECT_EQ(takeError().second, "\n\tx");
  setPythonError(KXError("M", "", "x", __FILE__, __LINE__));
  EXPECT_EQ(takeError().second, "\tM\n\tx");
}

TEST(SetPythonError, NetworkErrorIsARuntimeErrorToo) {
  setPythonError(
      KXNetworkError("KXNetwork", "callMethod", "connection not initialized", __FILE__, __LINE__));
  auto [type, text] = takeError();
  EXPECT_EQ(type.get(), PyExc_RuntimeError);
  EXPECT_EQ(text, "\tKXNetwork::callMethod\n\tconnection not initialized");
}

TEST(SetPythonError, KeepsBytesThatAreNotUtf8) {
  setPythonError(KXError("M", "f", "bad \xff byte \xc3\xa9", __FILE__, __LINE__));
  auto [type, text] = takeError();
  EXPECT_EQ(type.get(), PyExc_RuntimeError);
  EXPECT_EQ(text, "\tM::f\n\tbad \xff byte \xc3\xa9");
}

}  // namespace
}  // namespace python
}  // namespace KX
