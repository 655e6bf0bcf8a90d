#ifndef VELMO_PYTHON_KXPYTHONDISPATCH_H_
#define VELMO_PYTHON_KXPYTHONDISPATCH_H_

#include <cstddef>
#include <memory>
#include <string>
#include <utility>

#include "broker/kxbroker.h"
#include "module/kxmethodinfo.h"
#include "python/kxpythontools.h"
#include "value/kxerror.h"
#include "value/kxvalue.h"

namespace KX {

class KXBroker;

// What Python's module classes ask of the module they drive: describing and binding
// methods that Python answers.
class KXPythonMethodBinder {
 public:
  // The most parameters a method answered by Python takes.
  static constexpr int kMaxParameters = 6;

  // Starts the description of a method answered by Python (the core's functionName,
  // then the native bit cleared).
  virtual void describePythonMethod(const std::string& method, const std::string& className,
                                    const std::string& description) = 0;
  // Binds `method` to Python. `parameterCount` -1 describes it anew ("python method",
  // one parameter "empty param"); 0 to 6 completes the description being built to that
  // many parameters (arg1, arg2, ...), or, when none is being built, starts one as -1
  // does; any other count is taken as 0.
  virtual void bindPythonMethod(const std::string& className, const std::string& method,
                                int parameterCount) = 0;

 protected:
  ~KXPythonMethodBinder() = default;
};

// Adds Python's method dispatch to a module class `Base` (KXModule or a subclass): the
// methods answered by Python are those of the object that the namespace of `__main__`
// holds under the module's name at the time of each call. The name is the only link;
// the module holds no Python object.
//
// Methods described from Python have the native bit of their flags cleared and a
// placeholder functor of as many int parameters; execute hands them to Python. Methods
// bound natively (every module's built-ins, a box's own) keep the bit and are answered
// by `Base`. Typed calls take the generic path, so nothing ever reaches a placeholder.
//
// Thread-safety: calls arrive on any framework thread; each takes the interpreter lock
// for the Python part only, and never while holding a lock of the framework.
template <class Base>
class KXPythonDispatch : public Base, public KXPythonMethodBinder {
 public:
  KXPythonDispatch(const std::shared_ptr<KXBroker>& broker, const std::string& name)
      : Base(broker, name) {
    this->setRequiresGenericDispatch(true);
  }

  // A method without the native bit goes to Python: a Python exception becomes
  // KXError("KXPythonModule", "execute", <type>\n<value>).
  void execute(const std::string& method, const KXValue& params, KXValue& result) override {
    const std::shared_ptr<const KXMethodInfo> info = this->getMethodInfo(method);
    // Unknown names get the core's own error; native methods Base's dispatch.
    if (!info || (info->mask & KXMethodInfo::kNativeMethod) != 0) {
      Base::execute(method, params, result);
      return;
    }
    // No lock of the module is held while Python runs: the interpreter lock is waited
    // for here, and a framework lock held meanwhile could close a cycle with a Python
    // thread that waits for the framework.
    if (!this->admitCall()) return;
    const std::string error = python::callPython(this->getName(), method, params, result);
    if (!error.empty()) KX_THROW("KXPythonModule", "execute", error);
  }

  void describePythonMethod(const std::string& method, const std::string& className,
                            const std::string& description) override {
    this->functionName(method, className, description);
    this->clearDescriptionFlags(KXMethodInfo::kNativeMethod);
  }

  void bindPythonMethod(const std::string& className, const std::string& method,
                        int parameterCount) override {
    if (parameterCount == -1 || this->describedMethodName().empty()) {
      describePythonMethod(method, className, "python method");
      if (parameterCount == -1) {
        this->addParam("empty param", "avoid exception");
        bindPlaceholder(std::make_index_sequence<0>());
        return;
      }
    }
    const int count = parameterCount >= 0 && parameterCount <= kMaxParameters ? parameterCount : 0;
    this->completeParameters(static_cast<std::size_t>(count));
    bindPlaceholder(count);
  }

 private:
  template <std::size_t>
  using IntParameter = int;

  // Holds a Python method's place in the method table; never called.
  template <typename... P>
  std::string holdPlace(const P&...) {
    return std::string();
  }
  // Binds the description being built on the placeholder of `count` int parameters.
  template <std::size_t... I>
  void bindPlaceholder(std::index_sequence<I...>) {
    this->bindMethod(&KXPythonDispatch::holdPlace<IntParameter<I>...>);
  }
  void bindPlaceholder(int count) {
    switch (count) {
      case 0:
        return bindPlaceholder(std::make_index_sequence<0>());
      case 1:
        return bindPlaceholder(std::make_index_sequence<1>());
      case 2:
        return bindPlaceholder(std::make_index_sequence<2>());
      case 3:
        return bindPlaceholder(std::make_index_sequence<3>());
      case 4:
        return bindPlaceholder(std::make_index_sequence<4>());
      case 5:
        return bindPlaceholder(std::make_index_sequence<5>());
      default:
        return bindPlaceholder(std::make_index_sequence<kMaxParameters>());
    }
  }
};

}  // namespace KX

#endif  // VELMO_PYTHON_KXPYTHONDISPATCH_H_
