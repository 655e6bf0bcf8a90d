#ifndef VELMO_PYTHON_KXPYTHONMODULE_H_
#define VELMO_PYTHON_KXPYTHONMODULE_H_

#include <cstddef>
#include <memory>
#include <string>
#include <utility>

#include "module/kxmodulecore.h"
#include "value/kxvalue.h"

namespace KX {

class KXBroker;

// A module whose methods a Python object answers: the object that the namespace of
// `__main__` holds under the module's name at the time of each call. The name is the
// only link; the module holds no Python object.
//
// Methods described from Python have the native bit of their flags cleared and a
// placeholder functor of as many int parameters; execute hands them to Python. The
// built-in methods of every module keep the bit and are answered natively. Typed calls
// take the generic path, so nothing ever reaches a placeholder.
//
// Thread-safety: calls arrive on any framework thread; each takes the interpreter lock
// for the Python part only, and never while holding a lock of the framework.
class KXPythonModule : public KXModule {
 public:
  // The most parameters a method answered by Python takes.
  static constexpr int kMaxParameters = 6;

  KXPythonModule(const std::shared_ptr<KXBroker>& broker, const std::string& name);
  ~KXPythonModule() override;

  // A method without the native bit goes to Python: a Python exception becomes
  // KXError("KXPythonModule", "execute", <type>\n<value>).
  void execute(const std::string& method, const KXValue& params, KXValue& result) override;
  std::string version() override;  // "unused"

  // Starts the description of a method answered by Python (the core's functionName,
  // then the native bit cleared).
  void describePythonMethod(const std::string& method, const std::string& className,
                            const std::string& description);
  // Binds `method` to Python. `parameterCount` -1 describes it anew ("python method",
  // one parameter "empty param"); 0 to 6 completes the description being built to that
  // many parameters (arg1, arg2, ...), or, when none is being built, starts one as -1
  // does; any other count is taken as 0.
  void bindPythonMethod(const std::string& className, const std::string& method,
                        int parameterCount);

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
    bindMethod(&KXPythonModule::holdPlace<IntParameter<I>...>);
  }
  void bindPlaceholder(int count);
};

}  // namespace KX

#endif  // VELMO_PYTHON_KXPYTHONMODULE_H_
