#include "module/kxfunctorconvert.h"

#include <utility>

#include "module/kxfunctor.h"
#include "value/kxerror.h"

namespace KX {

// Out of line so that every functor shares one vtable anchor.
KXFunctorBase::~KXFunctorBase() = default;

namespace detail {

namespace {

constexpr char kConvert[] = "convertFromKXValue";

[[noreturn]] void throwWrongType(const KXValue& value, const char* expected) {
  KX_THROW(
      kConvert, kConvert,
      "Parameter type is " + KXValue::TypeToString(value.getType()) + " instead of " + expected);
}

// An Array of `size` Invalid elements, for the vector results to fill.
KXValue arrayOfSize(std::size_t size) {
  KXValue array;
  array.arraySetSize(static_cast<int>(size));
  return array;
}

}  // namespace

template <>
int convertFromKXValue<int>(const KXValue& value) {
  if (value.getType() != KXValue::TypeInt) throwWrongType(value, "int");
  return static_cast<int>(value);
}

template <>
bool convertFromKXValue<bool>(const KXValue& value) {
  // An Int stands for a flag: any value but 0 is true.
  switch (value.getType()) {
    case KXValue::TypeBool:
      return static_cast<bool>(value);
    case KXValue::TypeInt:
      return static_cast<int>(value) != 0;
    default:
      throwWrongType(value, "bool");
  }
}

template <>
float convertFromKXValue<float>(const KXValue& value) {
  // Callers often write whole numbers where a float is expected: an Int is converted.
  switch (value.getType()) {
    case KXValue::TypeFloat:
    case KXValue::TypeInt:
      return static_cast<float>(value);
    default:
      throwWrongType(value, "float");
  }
}

template <>
std::string convertFromKXValue<std::string>(const KXValue& value) {
  if (value.getType() != KXValue::TypeString) throwWrongType(value, "string");
  return static_cast<const std::string&>(value);
}

template <>
std::vector<std::string> convertFromKXValue<std::vector<std::string>>(const KXValue& value) {
  if (value.getType() != KXValue::TypeArray) throwWrongType(value, "vector");
  // Non-string elements are skipped with the value's own warning, not refused.
  std::vector<std::string> strings;
  value.ToStringArray(strings, false);
  return strings;
}

template <>
std::vector<int> convertFromKXValue<std::vector<int>>(const KXValue& value) {
  if (value.getType() != KXValue::TypeArray) throwWrongType(value, "vector");
  std::vector<int> numbers;
  numbers.reserve(static_cast<std::size_t>(value.getSize()));
  for (int i = 0; i < value.getSize(); ++i) {
    const KXValue& element = value[i];
    // A bad element is reported by its own type: that is what the caller got wrong.
    if (element.getType() != KXValue::TypeInt) throwWrongType(element, "vector");
    numbers.push_back(static_cast<int>(element));
  }
  return numbers;
}

template <>
std::vector<float> convertFromKXValue<std::vector<float>>(const KXValue& value) {
  if (value.getType() != KXValue::TypeArray) throwWrongType(value, "vector");
  std::vector<float> numbers;
  numbers.reserve(static_cast<std::size_t>(value.getSize()));
  for (int i = 0; i < value.getSize(); ++i) {
    const KXValue& element = value[i];
    if (element.getType() != KXValue::TypeFloat && element.getType() != KXValue::TypeInt) {
      throwWrongType(element, "vector");
    }
    numbers.push_back(static_cast<float>(element));
  }
  return numbers;
}

template <>
KXValue convertFromKXValue<KXValue>(const KXValue& value) {
  return value;
}

void convertToKXValue(bool in, KXValue& out) { out = in; }
void convertToKXValue(int in, KXValue& out) { out = in; }
void convertToKXValue(float in, KXValue& out) { out = in; }
void convertToKXValue(const std::string& in, KXValue& out) { out = in; }

void convertToKXValue(const std::vector<std::string>& in, KXValue& out) {
  KXValue array = arrayOfSize(in.size());
  for (std::size_t i = 0; i < in.size(); ++i) array[static_cast<int>(i)] = in[i];
  out = std::move(array);
}

void convertToKXValue(const std::vector<int>& in, KXValue& out) {
  KXValue array = arrayOfSize(in.size());
  for (std::size_t i = 0; i < in.size(); ++i) array[static_cast<int>(i)] = in[i];
  out = std::move(array);
}

void convertToKXValue(const std::vector<float>& in, KXValue& out) {
  KXValue array = arrayOfSize(in.size());
  for (std::size_t i = 0; i < in.size(); ++i) array[static_cast<int>(i)] = in[i];
  out = std::move(array);
}

void convertToKXValue(const KXValue& in, KXValue& out) { out = in; }

void convertToKXValue(KXValue&& in, KXValue& out) { out = std::move(in); }

}  // namespace detail
}  // namespace KX
