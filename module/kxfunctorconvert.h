#ifndef VELMO_MODULE_KXFUNCTORCONVERT_H_
#define VELMO_MODULE_KXFUNCTORCONVERT_H_

// Conversions between KXValue and the C++ types that published methods take and
// return, and the type code of each such type. A failed conversion raises
// KXError("convertFromKXValue", "convertFromKXValue",
//         "Parameter type is " + <actual type> + " instead of " + <expected word>).
//
//   parameter type         accepted values            expected word
//   int                    Int                        "int"
//   bool                   Bool, Int (value != 0)     "bool"
//   float                  Float, Int                 "float"
//   std::string            String                     "string"
//   std::vector<string>    Array (non-strings skipped with a warning)   "vector"
//   std::vector<int>       Array of Int               "vector"
//   std::vector<float>     Array of Float or Int      "vector"
//   KXValue                anything                   -
// A vector<int> or vector<float> element of the wrong kind is reported with the
// element's type ("Parameter type is String instead of vector").

#include <string>
#include <vector>

#include "module/kxmethodinfo.h"
#include "value/kxvalue.h"

namespace KX {
namespace detail {

// The type code of a parameter or result type (kTypeUnset for unsupported types).
template <typename T>
struct TypeCodeOf {
  static constexpr int value = kTypeUnset;
};
template <>
struct TypeCodeOf<void> {
  static constexpr int value = kTypeVoid;
};
template <>
struct TypeCodeOf<bool> {
  static constexpr int value = kTypeBool;
};
template <>
struct TypeCodeOf<int> {
  static constexpr int value = kTypeInt;
};
template <>
struct TypeCodeOf<float> {
  static constexpr int value = kTypeFloat;
};
template <>
struct TypeCodeOf<std::string> {
  static constexpr int value = kTypeString;
};
template <>
struct TypeCodeOf<KXValue> {
  static constexpr int value = kTypeValue;
};
template <>
struct TypeCodeOf<std::vector<int>> {
  static constexpr int value = kTypeIntVector;
};
template <>
struct TypeCodeOf<std::vector<float>> {
  static constexpr int value = kTypeFloatVector;
};
template <>
struct TypeCodeOf<std::vector<std::string>> {
  static constexpr int value = kTypeStringVector;
};
template <>
struct TypeCodeOf<void*> {
  static constexpr int value = kTypeVoidPointer;
};

template <typename T>
const char* typeNameOf() {
  return typeName(TypeCodeOf<T>::value);
}

template <typename T>
T convertFromKXValue(const KXValue& value);
template <>
int convertFromKXValue<int>(const KXValue& value);
template <>
bool convertFromKXValue<bool>(const KXValue& value);
template <>
float convertFromKXValue<float>(const KXValue& value);
template <>
std::string convertFromKXValue<std::string>(const KXValue& value);
template <>
std::vector<std::string> convertFromKXValue<std::vector<std::string>>(const KXValue& value);
template <>
std::vector<int> convertFromKXValue<std::vector<int>>(const KXValue& value);
template <>
std::vector<float> convertFromKXValue<std::vector<float>>(const KXValue& value);
template <>
KXValue convertFromKXValue<KXValue>(const KXValue& value);

void convertToKXValue(bool in, KXValue& out);
void convertToKXValue(int in, KXValue& out);
void convertToKXValue(float in, KXValue& out);
void convertToKXValue(const std::string& in, KXValue& out);
void convertToKXValue(const std::vector<std::string>& in, KXValue& out);
void convertToKXValue(const std::vector<int>& in, KXValue& out);
void convertToKXValue(const std::vector<float>& in, KXValue& out);
void convertToKXValue(const KXValue& in, KXValue& out);
// A result returned by value is moved, not copied.
void convertToKXValue(KXValue&& in, KXValue& out);

// How a functor holds an argument taken from the argument Array: converted to the
// parameter type, except a KXValue parameter, which refers to the element itself (a
// large value is not copied on its way to the method).
template <typename T>
struct ArgumentOf {
  using type = T;
  static T from(const KXValue& value) { return convertFromKXValue<T>(value); }
};

template <>
struct ArgumentOf<KXValue> {
  using type = const KXValue&;
  static const KXValue& from(const KXValue& value) { return value; }
};

}  // namespace detail
}  // namespace KX

#endif  // VELMO_MODULE_KXFUNCTORCONVERT_H_
