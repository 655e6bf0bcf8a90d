#ifndef VELMO_MODULE_KXMETHODINFO_H_
#define VELMO_MODULE_KXMETHODINFO_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace KX {

class KXFunctorBase;

// Type codes of parameter and result types, and their names ("int", "array", ...).
enum KXTypeCode {
  kTypeUnset = 0,
  kTypeVoid = 1,
  kTypeBool = 2,
  kTypeInt = 3,
  kTypeFloat = 4,
  kTypeString = 5,
  kTypeValue = 6,  // KXValue, named "array"
  kTypeIntVector = 23,
  kTypeFloatVector = 24,
  kTypeStringVector = 25,
  kTypeVoidPointer = 27,
};

// "???", "void", "bool", "int", "float", "string", "array", "vector<int>",
// "vector<float>", "vector<string>", "void *"; "unknown" for any other code.
const char* typeName(int code);

struct ParameterInfo {
  std::string name;
  std::string description;
  std::string type;  // a typeName()
  bool optional = false;
};

// The description of one published method, and the functor that calls it. Copied by
// value; the functor is shared between copies (the module owns the object it calls).
class KXMethodInfo {
 public:
  KXMethodInfo();
  KXMethodInfo(const KXMethodInfo&);
  KXMethodInfo& operator=(const KXMethodInfo&);
  virtual ~KXMethodInfo();

  // Back to the empty description (no name, no parameters, no functor, mask 0).
  void reset();

  // "name(int, string)", or "name(Void)" without parameters.
  std::string signature() const;
  // The parameter type names, in order.
  std::vector<std::string> parameterTypes() const;

  std::string className;
  std::string methodName;
  std::string methodDescription;
  std::vector<ParameterInfo> parameters;
  std::shared_ptr<KXFunctorBase> functor;
  ParameterInfo returnValue;
  // Bit 0 (kNativeMethod) is set for every method described through the module core;
  // modules written in another language clear it on the methods that they answer
  // themselves.
  std::uint16_t mask = 0;
  static constexpr std::uint16_t kNativeMethod = 0x0001;
};

// "name(" + types joined by ", " (or "Void") + ")".
std::string signatureText(const std::string& method, const std::vector<std::string>& types);

}  // namespace KX

#endif  // VELMO_MODULE_KXMETHODINFO_H_
