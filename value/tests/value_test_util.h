// The value test kit: helpers that every subsystem's tests may include.
#ifndef VELMO_VALUE_TESTS_VALUE_TEST_UTIL_H_
#define VELMO_VALUE_TESTS_VALUE_TEST_UTIL_H_

#include <gtest/gtest.h>

#include <string>

#include "value/kxerror.h"
#include "value/kxvalue.h"

namespace KX {
namespace testing_util {

// The text of the KXError that `action` raises; a test failure when it raises nothing.
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

// A Binary holding `bytes` (which may contain NULs).
inline KXValue binaryOf(const std::string& bytes) {
  KXValue value;
  value.setBinary(bytes.data(), bytes.size());
  return value;
}

inline KXValue objectOf(const std::string& bytes) {
  KXValue value;
  value.xAssertCompatibleType(KXValue::TypeObject);
  value.getBinary().assign(bytes.begin(), bytes.end());
  return value;
}

// The kind and compact text of a value: "Int 3", "Array [1, \"x\"]", "Invalid ".
inline std::string describe(const KXValue& value) {
  return KXValue::TypeToString(value.getType()) + " " + value.toString();
}

// The full text of a KXValue error, and of a failed "xAssertType" or "xAssertCompatibleType".
inline std::string valueError(const std::string& method, const std::string& description) {
  return "\tKXValue::" + method + "\n\t" + description;
}
inline std::string typeError(const std::string& check, const std::string& expected,
                             const std::string& actual, const std::string& contents) {
  return valueError(check + ": type error", "Expected a " + expected + " but received a " + actual +
                                                " (kxvalue contents: " + contents + " )");
}

}  // namespace testing_util
}  // namespace KX

#endif  // VELMO_VALUE_TESTS_VALUE_TEST_UTIL_H_
