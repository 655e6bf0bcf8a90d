#include "value/kxvalue.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
#include <utility>

#include "value/kxerror.h"

namespace KX {
namespace {

const char kModule[] = "KXValue";

// Capacities of storage created on demand, chosen so that building a value element by
// element rarely reallocates.
constexpr size_t kAdoptedArrayCapacity = 32;
constexpr size_t kStringCapacity = 64;
constexpr size_t kBinaryCapacity = 1024;

// A Binary below this size may still be read as a string (see the const string cast).
constexpr size_t kBinaryAsStringLimit = 100000;

std::unique_ptr<KXValue::TKXValueString> freshString() {
  auto text = std::make_unique<KXValue::TKXValueString>();
  text->reserve(kStringCapacity);
  return text;
}

std::unique_ptr<KXValue::TKXValueBinary> freshBytes(size_t capacity) {
  auto bytes = std::make_unique<KXValue::TKXValueBinary>();
  bytes->reserve(capacity);
  return bytes;
}

// True when [data, data + length) lies inside `bytes`'s buffer, so that writing to
// `bytes` could move or overwrite the source.
bool overlaps(const KXValue::TKXValueBinary& bytes, const void* data, size_t length) {
  if (bytes.empty() || length == 0) return false;
  auto* begin = bytes.data();
  auto* source = static_cast<const unsigned char*>(data);
  std::less<const unsigned char*> before;
  return !before(source, begin) && before(source, begin + bytes.size());
}

}  // namespace

// ---------------------------------------------------------------- construction

KXValue::KXValue() = default;
KXValue::KXValue(bool value) : payload_(std::in_place_index<TypeBool>, value) {}
KXValue::KXValue(int value) : payload_(std::in_place_index<TypeInt>, value) {}
KXValue::KXValue(float value) : payload_(std::in_place_index<TypeFloat>, value) {}
KXValue::KXValue(double value)
    : payload_(std::in_place_index<TypeFloat>, static_cast<float>(value)) {}

KXValue::KXValue(const std::string& value)
    : payload_(std::in_place_index<TypeString>, std::make_unique<TKXValueString>(value)) {}

KXValue::KXValue(const char* value) { *this = value; }

KXValue::KXValue(const std::vector<std::string>& strings) {
  auto elements = std::make_unique<TKXValueArray>();
  elements->reserve(strings.size());
  for (const auto& text : strings) elements->emplace_back(text);
  payload_.emplace<TypeArray>(std::move(elements));
}

KXValue::KXValue(const KXValue& other) : payload_(clonePayload(other.payload_)) {}

KXValue::KXValue(KXValue&& other) noexcept : payload_(std::move(other.payload_)) {
  other.payload_.emplace<TypeInvalid>();
}

KXValue::~KXValue() = default;

KXValue::Payload KXValue::clonePayload(const Payload& payload) {
  switch (payload.index()) {
    case TypeArray: {
      const auto& elements = std::get<TypeArray>(payload);
      KX_ASSERT(kModule, elements != nullptr);
      return Payload(std::in_place_index<TypeArray>, std::make_unique<TKXValueArray>(*elements));
    }
    case TypeString: {
      const auto& text = std::get<TypeString>(payload);
      KX_ASSERT(kModule, text != nullptr);
      return Payload(std::in_place_index<TypeString>, std::make_unique<TKXValueString>(*text));
    }
    case TypeObject: {
      const auto& bytes = std::get<TypeObject>(payload);
      KX_ASSERT(kModule, bytes != nullptr);
      return Payload(std::in_place_index<TypeObject>, std::make_unique<TKXValueBinary>(*bytes));
    }
    case TypeBinary: {
      const auto& bytes = std::get<TypeBinary>(payload);
      KX_ASSERT(kModule, bytes != nullptr);
      return Payload(std::in_place_index<TypeBinary>, std::make_unique<TKXValueBinary>(*bytes));
    }
    case TypeBool:
      return Payload(std::in_place_index<TypeBool>, std::get<TypeBool>(payload));
    case TypeInt:
      return Payload(std::in_place_index<TypeInt>, std::get<TypeInt>(payload));
    case TypeFloat:
      return Payload(std::in_place_index<TypeFloat>, std::get<TypeFloat>(payload));
    default:
      return Payload();
  }
}

// ---------------------------------------------------------------- assignment

KXValue& KXValue::operator=(const KXValue& other) {
  // The copy is made before the old payload goes, so `other` may live inside this value.
  if (this != &other) payload_ = clonePayload(other.payload_);
  return *this;
}

KXValue& KXValue::operator=(KXValue&& other) noexcept {
  if (this != &other) {
    // Detach first: `other` may be owned by this value's own payload.
    Payload moved = std::move(other.payload_);
    other.payload_.emplace<TypeInvalid>();
    payload_ = std::move(moved);
  }
  return *this;
}

KXValue& KXValue::operator=(bool value) {
  payload_.emplace<TypeBool>(value);
  return *this;
}

KXValue& KXValue::operator=(int value) {
  payload_.emplace<TypeInt>(value);
  return *this;
}

KXValue& KXValue::operator=(float value) {
  payload_.emplace<TypeFloat>(value);
  return *this;
}

KXValue& KXValue::operator=(double value) { return *this = static_cast<float>(value); }

KXValue& KXValue::operator=(const std::string& value) {
  if (getType() == TypeString) {
    std::get<TypeString>(payload_)->assign(value);  // assign copes with self-reference
  } else {
    auto text = freshString();
    text->assign(value);
    payload_.emplace<TypeString>(std::move(text));
  }
  return *this;
}

KXValue& KXValue::operator=(const char* value) {
  KX_ASSERT(kModule, value != nullptr);
  if (getType() == TypeString) {
    std::get<TypeString>(payload_)->assign(value);
  } else {
    auto text = freshString();
    text->assign(value);
    payload_.emplace<TypeString>(std::move(text));
  }
  return *this;
}

KXValue& KXValue::operator=(const TKXValueBinary& bytes) {
  if (getType() == TypeBinary && &bytes != std::get<TypeBinary>(payload_).get()) {
    *std::get<TypeBinary>(payload_) = bytes;
  } else if (getType() != TypeBinary) {
    auto copy = freshBytes(kBinaryCapacity);
    copy->assign(bytes.begin(), bytes.end());
    payload_.emplace<TypeBinary>(std::move(copy));
  }
  return *this;
}

void KXValue::setBinary(const void* data, size_t length) {
  KX_ASSERT(kModule, data != nullptr || length == 0);
  auto* source = static_cast<const unsigned char*>(data);
  if (getType() == TypeBinary && !overlaps(*std::get<TypeBinary>(payload_), data, length)) {
    std::get<TypeBinary>(payload_)->assign(source, source + length);
    return;
  }
  auto bytes = freshBytes(length + kBinaryCapacity);
  if (length != 0) bytes->assign(source, source + length);
  payload_.emplace<TypeBinary>(std::move(bytes));
}

void KXValue::clear() { payload_.emplace<TypeInvalid>(); }

// ---------------------------------------------------------------- inspection

int KXValue::getSize() const {
  switch (getType()) {
    case TypeArray: {
      const auto& elements = std::get<TypeArray>(payload_);
      KX_ASSERT(kModule, elements != nullptr);
      return static_cast<int>(elements->size());
    }
    case TypeString: {
      const auto& text = std::get<TypeString>(payload_);
      KX_ASSERT(kModule, text != nullptr);
      return static_cast<int>(text->size());
    }
    case TypeObject:
    case TypeBinary: {
      const auto& bytes =
          getType() == TypeObject ? std::get<TypeObject>(payload_) : std::get<TypeBinary>(payload_);
      KX_ASSERT(kModule, bytes != nullptr);
      return static_cast<int>(bytes->size());
    }
    default:
      return 0;
  }
}

std::string KXValue::TypeToString(int type) {
  static const char* const kNames[] = {"Invalid", "Array",  "Bool",   "Int",
                                       "Float",   "String", "Object", "Binary"};
  if (type < TypeInvalid || type > TypeBinary) {
    KX_THROW(kModule, "TypeToString", "Unknown type: " + std::to_string(type));
  }
  return kNames[type];
}

uintptr_t KXValue::payloadWord() const {
  switch (getType()) {
    case TypeArray:
      return reinterpret_cast<uintptr_t>(std::get<TypeArray>(payload_).get());
    case TypeBool:
      return std::get<TypeBool>(payload_) ? 1 : 0;
    case TypeInt:
      return static_cast<uint32_t>(std::get<TypeInt>(payload_));
    case TypeFloat: {
      uint32_t bits;
      float value = std::get<TypeFloat>(payload_);
      std::memcpy(&bits, &value, sizeof bits);
      return bits;
    }
    case TypeString:
      return reinterpret_cast<uintptr_t>(std::get<TypeString>(payload_).get());
    case TypeObject:
      return reinterpret_cast<uintptr_t>(std::get<TypeObject>(payload_).get());
    case TypeBinary:
      return reinterpret_cast<uintptr_t>(std::get<TypeBinary>(payload_).get());
    default:
      return 0;
  }
}

// ---------------------------------------------------------------- read-only casts

KXValue::operator bool() const {
  switch (getType()) {
    case TypeBool:
      return std::get<TypeBool>(payload_);
    case TypeInt:
      return std::get<TypeInt>(payload_) != 0;
    case TypeFloat:
      return std::get<TypeFloat>(payload_) != 0.0f;  // NaN compares unequal: true
    case TypeArray:
    case TypeString:
    case TypeObject:
    case TypeBinary:
      return getSize() != 0;
    default:
      KX_THROW(kModule, "const bool() const", "Cannot cast to bool an KXValue of invalid type.");
  }
}

KXValue::operator int() const {
  switch (getType()) {
    case TypeInt:
      return std::get<TypeInt>(payload_);
    case TypeBool:
      return std::get<TypeBool>(payload_) ? 1 : 0;
    case TypeFloat: {
      // Truncated toward zero; out-of-range values saturate and NaN reads as 0 rather
      // than leaving the result undefined.
      float value = std::get<TypeFloat>(payload_);
      if (std::isnan(value)) return 0;
      if (value >= 2147483648.0f) return std::numeric_limits<int>::max();
      if (value < -2147483648.0f) return std::numeric_limits<int>::min();
      return static_cast<int>(value);
    }
    default:
      xAssertType(TypeInt);
      return 0;  // not reached: the assertion raises for every other type
  }
}

KXValue::operator float() const {
  switch (getType()) {
    case TypeFloat:
      return std::get<TypeFloat>(payload_);
    case TypeInt:
      return static_cast<float>(std::get<TypeInt>(payload_));
    default:
      xAssertType(TypeFloat);
      return 0.0f;  // not reached
  }
}

KXValue::operator const TKXValueString&() const {
  if (getType() == TypeBinary) {
    const auto& bytes = *std::get<TypeBinary>(payload_);
    if (bytes.size() < kBinaryAsStringLimit) {
      // Callers that read blobs as text (scripting bindings) get the bytes plus a NUL.
      printf(
          "WARNING: KXValue::operator const TKXValueString&: creating a string on the fly to "
          "patch possible ruby encoding problem (size of binary: %d)\n",
          static_cast<int>(bytes.size()));
      auto text = std::make_unique<TKXValueString>(bytes.begin(), bytes.end());
      text->push_back('\0');
      payload_.emplace<TypeString>(std::move(text));
    }
  }
  xAssertType(TypeString);
  return *std::get<TypeString>(payload_);
}

const KXValue::TKXValueBinary& KXValue::getBinary() const {
  if (getType() == TypeObject) return *std::get<TypeObject>(payload_);
  xAssertType(TypeBinary);
  return *std::get<TypeBinary>(payload_);
}

// ---------------------------------------------------------------- mutable references

int& KXValue::mutableRef(int*) {
  xAssertCompatibleType(TypeInt);
  return std::get<TypeInt>(payload_);
}

bool& KXValue::mutableRef(bool*) {
  if (getType() == TypeInt) {
    payload_.emplace<TypeBool>(std::get<TypeInt>(payload_) != 0);
  } else {
    xAssertCompatibleType(TypeBool);
  }
  return std::get<TypeBool>(payload_);
}

float& KXValue::mutableRef(float*) {
  xAssertCompatibleType(TypeFloat);
  return std::get<TypeFloat>(payload_);
}

KXValue::TKXValueString& KXValue::mutableRef(TKXValueString*) {
  xAssertCompatibleType(TypeString);
  return *std::get<TypeString>(payload_);
}

KXValue::TKXValueBinary& KXValue::getBinary() {
  if (getType() == TypeObject) return *std::get<TypeObject>(payload_);
  xAssertCompatibleType(TypeBinary);
  return *std::get<TypeBinary>(payload_);
}

// ---------------------------------------------------------------- arrays

const KXValue& KXValue::operator[](int index) const {
  xAssertType(TypeArray);
  if (index < 0) KX_THROW(kModule, "operator[]", "negative index: " + std::to_string(index));
  xAssertArraySize(index + 1);
  return (*std::get<TypeArray>(payload_))[static_cast<size_t>(index)];
}

KXValue& KXValue::operator[](int index) {
  xAssertCompatibleType(TypeArray);
  if (index < 0) KX_THROW(kModule, "operator[]", "negative index: " + std::to_string(index));
  xAssertArraySize(index + 1);
  return (*std::get<TypeArray>(payload_))[static_cast<size_t>(index)];
}

void KXValue::arraySetSize(int size) {
  xAssertCompatibleType(TypeArray);
  if (size < 0) KX_THROW(kModule, "arraySetSize", "negative size: " + std::to_string(size));
  std::get<TypeArray>(payload_)->resize(static_cast<size_t>(size));
}

void KXValue::arrayReserve(int capacity) {
  xAssertCompatibleType(TypeArray);
  if (capacity < 0) {
    KX_THROW(kModule, "arrayReserve", "negative capacity: " + std::to_string(capacity));
  }
  std::get<TypeArray>(payload_)->reserve(static_cast<size_t>(capacity));
}

void KXValue::arrayPush(const KXValue& value) {
  // Copied first: `value` may be this array or one of its elements, which growing moves.
  arrayPush(KXValue(value));
}

void KXValue::arrayPush(KXValue&& value) {
  // Taken over first, for the same reason.
  KXValue taken(std::move(value));
  const int size = getSize();
  arraySetSize(size + 1);
  (*std::get<TypeArray>(payload_))[static_cast<size_t>(size)] = std::move(taken);
}

void KXValue::ToStringArray(std::vector<std::string>& out, bool insertEmpty) const {
  out.clear();
  xAssertType(TypeArray);
  const auto& elements = *std::get<TypeArray>(payload_);
  out.reserve(elements.size());
  for (size_t i = 0; i < elements.size(); ++i) {
    const KXValue& element = elements[i];
    if (element.getType() == TypeString) {
      out.push_back(*std::get<TypeString>(element.payload_));
      continue;
    }
    printf("WARNING: KXValue::ToStringArray: elem %d is not a string...\n", static_cast<int>(i));
    if (insertEmpty) {
      printf("...inserting an empty string.\n");
      out.emplace_back();
    }
  }
}

// ---------------------------------------------------------------- equality

namespace {

// Floats are compared relative to the left operand, in single precision; near zero,
// where a relative error means nothing, an absolute bound is used instead.
bool floatsEqual(float left, float right) {
  if (left >= -1e-12f && left <= 1e-12f) return std::fabs(left - right) < 1e-16f;
  return std::fabs((left - right) / left) < 1e-4f;
}

}  // namespace

bool KXValue::operator==(const KXValue& other) const {
  if (getType() != other.getType()) return false;
  switch (getType()) {
    case TypeInvalid:
      return true;
    case TypeBool:
      return std::get<TypeBool>(payload_) == std::get<TypeBool>(other.payload_);
    case TypeInt:
      return std::get<TypeInt>(payload_) == std::get<TypeInt>(other.payload_);
    case TypeFloat:
      return floatsEqual(std::get<TypeFloat>(payload_), std::get<TypeFloat>(other.payload_));
    case TypeString:
      return *std::get<TypeString>(payload_) == *std::get<TypeString>(other.payload_);
    case TypeObject:
      return *std::get<TypeObject>(payload_) == *std::get<TypeObject>(other.payload_);
    case TypeBinary:
      return *std::get<TypeBinary>(payload_) == *std::get<TypeBinary>(other.payload_);
    case TypeArray:
      // Element-wise with the same (asymmetric) rule, in order.
      return *std::get<TypeArray>(payload_) == *std::get<TypeArray>(other.payload_);
  }
  return false;
}

// ---------------------------------------------------------------- assertions

void KXValue::xAssertArraySize(int size) const {
  if (getType() != TypeArray) {
    KX_THROW(kModule, "xAssertArraySize",
             "try to use a " + TypeToString(getType()) + " like an array");
  }
  const int actual = getSize();
  if (actual >= size) return;
  KX_THROW(kModule, "xAssertArraySize",
           "The array has a size of " + std::to_string(actual) + " and you want it to be of size " +
               std::to_string(size));
}

void KXValue::xAssertCompatibleType(Type type) {
  if (getType() == type) return;
  if (getType() == TypeInvalid) {
    switch (type) {
      case TypeArray: {
        auto elements = std::make_unique<TKXValueArray>();
        elements->reserve(kAdoptedArrayCapacity);
        payload_.emplace<TypeArray>(std::move(elements));
        break;
      }
      case TypeString:
        payload_.emplace<TypeString>(freshString());
        break;
      case TypeObject:
        payload_.emplace<TypeObject>(freshBytes(kBinaryCapacity));
        break;
      case TypeBinary:
        payload_.emplace<TypeBinary>(freshBytes(kBinaryCapacity));
        break;
      case TypeBool:
        payload_.emplace<TypeBool>(false);
        break;
      case TypeInt:
        payload_.emplace<TypeInt>(0);
        break;
      case TypeFloat:
        payload_.emplace<TypeFloat>(0.0f);
        break;
      case TypeInvalid:
        break;
    }
    return;
  }
  KX_THROW(kModule, "xAssertCompatibleType: type error",
           "Expected a " + TypeToString(type) + " but received a " + TypeToString(getType()) +
               " (kxvalue contents: " + toString(1) + " )");
}

void KXValue::xAssertType(Type type) const {
  if (getType() == type) return;
  KX_THROW(kModule, "xAssertType: type error",
           "Expected a " + TypeToString(type) + " but received a " + TypeToString(getType()) +
               " (kxvalue contents: " + toString(1) + " )");
}

}  // namespace KX
