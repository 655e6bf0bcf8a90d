#ifndef VELMO_VALUE_TESTS_VALUE_TEST_UTIL_H_
#define VELMO_VALUE_TESTS_VALUE_TEST_UTIL_H_

#include <gtest/gtest.h>

#include <string>

#include "value/kxerror.h"
#include "value/kxvalue.h"

namespace KX {
namespace testing_util {

// Runs `action` and returns the text of the KXError it raises; records a failure (and
// returns "<no error>") when it raises nothing.
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

// An Array holding the given values, in order (an empty Array without any).
template <typename... T>
KXValue arrayOf(const T&... values) {
  KXValue array;
  array.arraySetSize(0);
  (array.arrayPush(KXValue(values)), ...);
  return array;
}

// The full text of a KXValue error.
inline std::string valueError(const std::string& method, const std::string& description) {
  return "\tKXValue::" + method + "\n\t" + description;
}

}  // namespace testing_util
}  // namespace KX

#endif  // VELMO_VALUE_TESTS_VALUE_TEST_UTIL_H_
