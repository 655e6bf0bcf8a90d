#ifndef VELMO_VALUE_KXVALUE_H_
#define VELMO_VALUE_KXVALUE_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace KX {

namespace detail {
class KXValueText;
}  // namespace detail

// The dynamic value of the framework: every method argument and result, every
// value kept in memory and every value that crosses the network is a KXValue.
//
// A value is one of eight kinds, each with a fixed type code (the codes travel
// on the wire). Scalars are held in place; containers are owned through a
// pointer that is never null for a container type. There is no sharing: every
// copy is deep. A KXValue is not thread-safe; guard shared values yourself
// (note that reading a Binary as a string converts it in place, see below).
//
// Failures raise KXError with the module name "KXValue".
class KXValue {
 public:
  enum Type : int32_t {
    TypeInvalid = 0,
    TypeArray = 1,
    TypeBool = 2,
    TypeInt = 3,
    TypeFloat = 4,
    TypeString = 5,
    TypeObject = 6,
    TypeBinary = 7,
  };

  using TKXValueArray = std::vector<KXValue>;
  using TKXValueString = std::string;
  using TKXValueBinary = std::vector<unsigned char>;

  KXValue();
  KXValue(bool value);
  KXValue(int value);
  KXValue(float value);
  KXValue(double value);  // stored as single precision
  KXValue(const std::string& value);
  KXValue(const char* value);  // null raises "Assert failed"
  KXValue(const std::vector<std::string>& strings);
  KXValue(const KXValue& other);
  KXValue(KXValue&& other) noexcept;  // leaves `other` Invalid
  virtual ~KXValue();

  KXValue& operator=(const KXValue& other);
  KXValue& operator=(KXValue&& other) noexcept;
  KXValue& operator=(bool value);
  KXValue& operator=(int value);
  KXValue& operator=(float value);
  KXValue& operator=(double value);
  KXValue& operator=(const std::string& value);
  KXValue& operator=(const char* value);  // null raises "Assert failed"
  KXValue& operator=(const TKXValueBinary& bytes);

  // Becomes a Binary holding a copy of `length` bytes at `data`.
  void setBinary(const void* data, size_t length);
  // Frees the payload; the value becomes Invalid.
  void clear();

  // ---- Inspection
  Type getType() const { return static_cast<Type>(payload_.index()); }
  bool isValid() const { return getType() != TypeInvalid; }
  bool isBool() const { return getType() == TypeBool; }
  bool isObject() const { return getType() == TypeObject; }
  // Array: elements; String: bytes; Object and Binary: bytes; scalars and Invalid: 0.
  int getSize() const;
  // "Invalid", "Array", ... for codes 0..7; any other code raises "Unknown type: <code>".
  static std::string TypeToString(int type);

  // ---- Read-only casts. Conversion rules:
  //   bool:  Array/String/Object/Binary non-empty, Int != 0, Float != 0 (NaN is true),
  //          Bool itself; Invalid raises "Cannot cast to bool an KXValue of invalid type."
  //   int:   Int; Bool as 0/1; Float truncated toward zero (saturated at the int range,
  //          NaN gives 0); anything else raises the type assertion.
  //   float: Float; Int converted; anything else raises the type assertion.
  //   const string&: String; a Binary below 100000 bytes is converted in place into a
  //          String holding its bytes and one trailing NUL (with a printed warning);
  //          anything else raises the type assertion.
  explicit operator bool() const;
  explicit operator int() const;
  explicit operator float() const;
  explicit operator const TKXValueString&() const;
  const TKXValueBinary& getBinary() const;  // Binary or Object bytes, else type assertion

  // The same read-only casts on a non-const value. Without them the mutable-reference
  // conversions below would win overload resolution for a non-const value, so that
  // `if (v)` or static_cast<int>(v) would adopt or convert types instead of reading.
  explicit operator bool() { return static_cast<bool>(std::as_const(*this)); }
  explicit operator int() { return static_cast<int>(std::as_const(*this)); }
  explicit operator float() { return static_cast<float>(std::as_const(*this)); }
  explicit operator const TKXValueString&() {
    return static_cast<const TKXValueString&>(std::as_const(*this));
  }

  // ---- Mutable references: static_cast<int&>(v), static_cast<bool&>(v),
  // static_cast<float&>(v), static_cast<TKXValueString&>(v). An Invalid value first adopts
  // the requested type; another type raises the compatible-type assertion. A bool
  // reference on an Int value turns it into the Bool (value != 0) so the reference is a
  // real flag. (A template, so that a cast to a plain value type prefers the read-only
  // casts above.)
  template <typename T,
            typename std::enable_if<std::is_same<T, int>::value || std::is_same<T, bool>::value ||
                                        std::is_same<T, float>::value ||
                                        std::is_same<T, TKXValueString>::value,
                                    int>::type = 0>
  explicit operator T&() {
    return mutableRef(static_cast<T*>(nullptr));
  }
  TKXValueBinary& getBinary();

  // ---- Arrays. Indexing checks the size and never grows the array.
  const KXValue& operator[](int index) const;
  KXValue& operator[](int index);  // an Invalid value becomes an empty array first
  void arraySetSize(int size);     // new elements are Invalid
  void arrayReserve(int capacity);
  void arrayPush(const KXValue& value);
  void arrayPush(KXValue&& value);  // takes the value over without copying it
  // Copies the String elements into `out`; other elements print a warning and are
  // skipped, or replaced by "" when `insertEmpty` is true.
  void ToStringArray(std::vector<std::string>& out, bool insertEmpty) const;

  // Floats compare relative to the left operand (see the implementation): not symmetric.
  bool operator==(const KXValue& other) const;
  bool operator!=(const KXValue& other) const { return !(*this == other); }

  // ---- Text forms.
  // Debug dump; verbosity 1 is the compact text form that unSerializeFromText reads:
  // [1, 2.5, "abc", true]. Verbosity 0 gives "".
  std::string toString(int verbosity = 1) const;
  // Type code of a compact text, reading at most `length` characters (stops at NUL).
  static int deduceType(const char* text, size_t length);
  static int deduceType(const std::string& text) { return deduceType(text.c_str(), text.size()); }
  // Replaces the value by the one the compact text describes.
  void unSerializeFromText(const char* text, size_t length);
  void unSerializeFromText(const std::string& text) {
    unSerializeFromText(text.c_str(), text.size());
  }
  // Value of the hexadecimal digits after the first 'x' (blanks skipped, 32-bit wrap).
  static int hexaAsciiToInt(const char* text);

  // ---- Base64 of Binary/Object bytes (standard alphabet, '=' padding, a line end
  // after every 72 characters).
  std::string encodeBase64() const;
  void encodeBase64(std::string& out) const;         // appends to `out`
  bool decodeBase64(const std::string& text);        // becomes Binary
  bool decodeBase64Object(const std::string& text);  // becomes Object

  // ---- Assertions (public: the functors and the wire code use them).
  void xAssertArraySize(int size) const;
  void xAssertCompatibleType(Type type);  // an Invalid value adopts `type`
  void xAssertType(Type type) const;      // strict: every mismatch raises

 private:
  // The variant's index is the type code, so the alternatives follow the code order.
  using Payload = std::variant<std::monostate,                   // TypeInvalid
                               std::unique_ptr<TKXValueArray>,   // TypeArray
                               bool,                             // TypeBool
                               int32_t,                          // TypeInt
                               float,                            // TypeFloat
                               std::unique_ptr<TKXValueString>,  // TypeString
                               std::unique_ptr<TKXValueBinary>,  // TypeObject
                               std::unique_ptr<TKXValueBinary>   // TypeBinary
                               >;

  // The text dump and parser work on the payload directly.
  friend class detail::KXValueText;

  // The mutable references behind operator T&(), selected by the pointer's type.
  int& mutableRef(int*);
  bool& mutableRef(bool*);
  float& mutableRef(float*);
  TKXValueString& mutableRef(TKXValueString*);

  // Deep copy of a payload (arrays recursively).
  static Payload clonePayload(const Payload& payload);
  // The payload word as the debug dump shows it: the scalar's bit pattern, or the
  // address of the container, or 0 for Invalid.
  uintptr_t payloadWord() const;

  // Mutable only for the in-place Binary-to-String conversion of the const string cast.
  mutable Payload payload_;
};

}  // namespace KX

#endif  // VELMO_VALUE_KXVALUE_H_
