#include "python/kxpythonmodule.h"

#include "module/kxmethodinfo.h"
#include "python/kxpythontools.h"
#include "value/kxerror.h"

namespace KX {

KXPythonModule::KXPythonModule(const std::shared_ptr<KXBroker>& broker, const std::string& name)
    : KXModule(broker, name) {
  setRequiresGenericDispatch(true);
}

KXPythonModule::~KXPythonModule() = default;

std::string KXPythonModule::version() { return "unused"; }

void KXPythonModule::execute(const std::string& method, const KXValue& params, KXValue& result) {
  const std::shared_ptr<const KXMethodInfo> info = getMethodInfo(method);
  // Unknown names get the core's own error; native methods its dispatch.
  if (!info || (info->mask & KXMethodInfo::kNativeMethod) != 0) {
    KXModule::execute(method, params, result);
    return;
  }
  // No lock of the module is held while Python runs: the interpreter lock is waited
  // for here, and a framework lock held meanwhile could close a cycle with a Python
  // thread that waits for the framework.
  const std::string error = python::callPython(getName(), method, params, result);
  if (!error.empty()) KX_THROW("KXPythonModule", "execute", error);
}

void KXPythonModule::describePythonMethod(const std::string& method, const std::string& className,
                                          const std::string& description) {
  functionName(method, className, description);
  clearDescriptionFlags(KXMethodInfo::kNativeMethod);
}

void KXPythonModule::bindPythonMethod(const std::string& className, const std::string& method,
                                      int parameterCount) {
  if (parameterCount == -1 || describedMethodName().empty()) {
    describePythonMethod(method, className, "python method");
    if (parameterCount == -1) {
      addParam("empty param", "avoid exception");
      bindPlaceholder(0);
      return;
    }
  }
  const int count = parameterCount >= 0 && parameterCount <= kMaxParameters ? parameterCount : 0;
  completeParameters(static_cast<std::size_t>(count));
  bindPlaceholder(count);
}

void KXPythonModule::bindPlaceholder(int count) {
  switch (count) {
    case 0:
      bindPlaceholder(std::make_index_sequence<0>());
      break;
    case 1:
      bindPlaceholder(std::make_index_sequence<1>());
      break;
    case 2:
      bindPlaceholder(std::make_index_sequence<2>());
      break;
    case 3:
      bindPlaceholder(std::make_index_sequence<3>());
      break;
    case 4:
      bindPlaceholder(std::make_index_sequence<4>());
      break;
    case 5:
      bindPlaceholder(std::make_index_sequence<5>());
      break;
    default:
      bindPlaceholder(std::make_index_sequence<6>());
      break;
  }
}

}  // namespace KX
