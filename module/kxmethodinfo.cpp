#include "module/kxmethodinfo.h"

#include "module/kxfunctor.h"

namespace KX {

const char* typeName(int code) {
  switch (code) {
    case kTypeUnset:
      return "???";
    case kTypeVoid:
      return "void";
    case kTypeBool:
      return "bool";
    case kTypeInt:
      return "int";
    case kTypeFloat:
      return "float";
    case kTypeString:
      return "string";
    case kTypeValue:
      return "array";
    case kTypeIntVector:
      return "vector<int>";
    case kTypeFloatVector:
      return "vector<float>";
    case kTypeStringVector:
      return "vector<string>";
    case kTypeVoidPointer:
      return "void *";
    default:
      return "unknown";
  }
}

KXMethodInfo::KXMethodInfo() = default;
KXMethodInfo::KXMethodInfo(const KXMethodInfo&) = default;
KXMethodInfo& KXMethodInfo::operator=(const KXMethodInfo&) = default;
KXMethodInfo::~KXMethodInfo() = default;

void KXMethodInfo::reset() { *this = KXMethodInfo(); }

std::string KXMethodInfo::signature() const { return signatureText(methodName, parameterTypes()); }

std::vector<std::string> KXMethodInfo::parameterTypes() const {
  std::vector<std::string> types;
  types.reserve(parameters.size());
  for (const ParameterInfo& parameter : parameters) types.push_back(parameter.type);
  return types;
}

std::string signatureText(const std::string& method, const std::vector<std::string>& types) {
  std::string text = method + "(";
  if (types.empty()) {
    text += "Void";
  } else {
    for (std::size_t i = 0; i < types.size(); ++i) {
      if (i > 0) text += ", ";
      text += types[i];
    }
  }
  return text + ")";
}

}  // namespace KX
