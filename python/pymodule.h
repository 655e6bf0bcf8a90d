#ifndef VELMO_PYTHON_PYMODULE_H_
#define VELMO_PYTHON_PYMODULE_H_

#include <memory>
#include <string>

namespace KX {

class KXModuleCore;
class KXPythonMethodBinder;

// Python's `baseModule`: the Python face of a module whose methods a Python object
// answers (KXPythonModule, KXPythonBehavior). Holds a shared handle to it, empty after the plain
// constructor (which only subclasses use; the operations then fail with KXError).
// Called by Python with the interpreter lock held; operations that reach the framework
// release it meanwhile, except setModuleDescription and autoBind, which only describe.
class baseModule {
 public:
  baseModule();
  virtual ~baseModule();
  baseModule(const baseModule&) = delete;
  baseModule& operator=(const baseModule&) = delete;

  // Describes and binds `methodName` as answered by Python with any number of
  // parameters. Null names: KXError("baseModule", "BIND_PYTHON", "NULL values were
  // passed as arguments").
  void BIND_PYTHON(char* moduleName, char* methodName);
  // Binds the method described last (or, when none is, `methodName`) for `count`
  // parameters, 0 to 6 (other counts are taken as 0).
  void _bindWithParam(char* moduleName, char* methodName, int count);
  void autoBind(const std::string& moduleName, const std::string& methodName, int count);
  // Starts the description of a method answered by Python. Null arguments:
  // KXError("baseModule", "functionName", "NULL values were passed as arguments").
  void functionName(char* name, char* moduleName, char* description);
  // Adds a parameter described "Python's parameter" to the description being built.
  void addParam(char* name);
  // None gives the empty text.
  void setModuleDescription(char* text);
  // Asks the module to leave its broker.
  void exit();
  std::string getName();
  std::string getBrokerName();
  std::string version();  // "PythonModule"

  // Prints "\nreceive method missing\n" and throws KXError("module(python)",
  // "methodMissing", "Function does not exist or not implemented").
  void _methodMissing();
  // The Python faces of the placeholders that hold Python methods' places: the empty
  // text.
  std::string _methodMissing0();
  std::string _methodMissing1(int);
  std::string _methodMissing2(int, int);
  std::string _methodMissing3(int, int, int);
  std::string _methodMissing4(int, int, int, int);
  std::string _methodMissing5(int, int, int, int, int);
  std::string _methodMissing6(int, int, int, int, int, int);

 protected:
  // The module; KXError("baseModule", `operation`, ...) when the handle is empty.
  KXModuleCore& target(const char* operation) const;
  KXPythonMethodBinder& binder(const char* operation) const;
  template <class M>
  void setTarget(const std::shared_ptr<M>& module) {
    binder_ = module.get();
    module_ = module;
  }

 private:
  std::shared_ptr<KXModuleCore> module_;
  KXPythonMethodBinder* binder_ = nullptr;  // module_ itself, seen as a binder
};

// Python's `module`: creates a KXPythonModule named `name` in the current broker and
// registers it there (callable by name at once; each method once bound). Errors:
// KXError("module", "module", "Could not create a module, as there is no current
// broker in Python's world.") and KXError("module", "module", "NULL value was passed as
// argument").
class module : public baseModule {
 public:
  explicit module(char* name);
  ~module() override;

  using baseModule::_methodMissing;
  using baseModule::BIND_PYTHON;
  using baseModule::exit;
  using baseModule::getBrokerName;
  using baseModule::getName;
  using baseModule::version;
};

}  // namespace KX

#endif  // VELMO_PYTHON_PYMODULE_H_
