#include "python/pymodule.h"

#include <cstdio>

#include "broker/kxbroker.h"
#include "python/kxpythonmodule.h"
#include "python/pycurrentbroker.h"
#include "python/pygil.h"
#include "value/kxerror.h"

namespace KX {
namespace {

constexpr char kNullArguments[] = "NULL values were passed as arguments";

}  // namespace

baseModule::baseModule() = default;

baseModule::~baseModule() = default;

KXModuleCore& baseModule::target(const char* operation) const {
  if (!module_) KX_THROW("baseModule", operation, "This object was built without a module");
  return *module_;
}

KXPythonMethodBinder& baseModule::binder(const char* operation) const {
  target(operation);
  return *binder_;
}

void baseModule::BIND_PYTHON(char* moduleName, char* methodName) {
  if (moduleName == nullptr || methodName == nullptr) {
    KX_THROW("baseModule", "BIND_PYTHON", kNullArguments);
  }
  KXPythonMethodBinder& module = binder("BIND_PYTHON");
  python::ScopedGILRelease release;
  module.bindPythonMethod(moduleName, methodName, -1);
}

void baseModule::_bindWithParam(char* moduleName, char* methodName, int count) {
  if (moduleName == nullptr || methodName == nullptr) {
    KX_THROW("baseModule", "_bindWithParam", kNullArguments);
  }
  KXPythonMethodBinder& module = binder("_bindWithParam");
  python::ScopedGILRelease release;
  module.bindPythonMethod(moduleName, methodName, count);
}

void baseModule::autoBind(const std::string& moduleName, const std::string& methodName, int count) {
  binder("autoBind").bindPythonMethod(moduleName, methodName, count);
}

void baseModule::functionName(char* name, char* moduleName, char* description) {
  if (name == nullptr || moduleName == nullptr || description == nullptr) {
    KX_THROW("baseModule", "functionName", kNullArguments);
  }
  KXPythonMethodBinder& module = binder("functionName");
  python::ScopedGILRelease release;
  module.describePythonMethod(name, moduleName, description);
}

void baseModule::addParam(char* name) {
  if (name == nullptr) KX_THROW("baseModule", "addParam", kNullArguments);
  KXModuleCore& module = target("addParam");
  python::ScopedGILRelease release;
  module.addParam(name, "Python's parameter");
}

void baseModule::setModuleDescription(char* text) {
  target("setModuleDescription").setModuleDescription(text != nullptr ? text : "");
}

void baseModule::exit() {
  KXModuleCore& module = target("exit");
  python::ScopedGILRelease release;
  module.exit();
}

std::string baseModule::getName() { return target("getName").getName(); }

std::string baseModule::getBrokerName() {
  KXModuleCore& module = target("getBrokerName");
  python::ScopedGILRelease release;
  return module.getBrokerName();
}

std::string baseModule::version() { return "PythonModule"; }

void baseModule::_methodMissing() {
  std::printf("\nreceive method missing\n");
  std::fflush(stdout);
  KX_THROW("module(python)", "methodMissing", "Function does not exist or not implemented");
}

std::string baseModule::_methodMissing0() { return std::string(); }
std::string baseModule::_methodMissing1(int) { return std::string(); }
std::string baseModule::_methodMissing2(int, int) { return std::string(); }
std::string baseModule::_methodMissing3(int, int, int) { return std::string(); }
std::string baseModule::_methodMissing4(int, int, int, int) { return std::string(); }
std::string baseModule::_methodMissing5(int, int, int, int, int) { return std::string(); }
std::string baseModule::_methodMissing6(int, int, int, int, int, int) { return std::string(); }

module::module(char* name) {
  const std::shared_ptr<KXBroker> current = python::currentBroker();
  if (!current) {
    KX_THROW("module", "module",
             "Could not create a module, as there is no current broker in Python's world.");
  }
  if (name == nullptr) KX_THROW("module", "module", "NULL value was passed as argument");
  python::ScopedGILRelease release;
  setTarget(createModule<KXPythonModule>(current, name));
}

module::~module() = default;

}  // namespace KX
