#ifndef VELMO_PYTHON_PYBEHAVIOR_H_
#define VELMO_PYTHON_PYBEHAVIOR_H_

#ifndef PY_SSIZE_T_CLEAN
#define PY_SSIZE_T_CLEAN
#endif
#include <Python.h>

#include <string>
#include <vector>

#include "python/pymodule.h"
#include "python/pytimeline.h"

namespace KX {

class KXPythonBehavior;

// Python's `behavior`: creates a KXPythonBehavior named `name` in the current broker,
// whose inputs are methods of the Python object (bound with BIND_PYTHON or autoBind)
// and whose outputs, parameters, resources and timelines the operations below reach.
// Errors of the constructor: KXError("behavior", "behavior", "NULL value was passed as
// argument"), then KXError("behavior", "behavior", "Could not create a behavior, as
// there is no current broker in Python's world.").
//
// Called by Python with the interpreter lock held. Operations that only touch the
// box's own data keep it, even when they log (no log handler takes the interpreter
// lock); those that may wait or call another module release it around their framework
// work. Deprecated operations log a warning (category "ivelmo").
class behavior : public baseModule {
 public:
  explicit behavior(char* name);
  ~behavior() override;

  // Deprecated: the enabled flag.
  void setEnabled(bool enabled);
  bool isEnabled();

  // ---- Resources
  // Deprecated: the box's resources and how long waitResources waits (seconds, 0: no
  // limit).
  void setResources(const std::vector<std::string>& resourceNames, int timeoutSeconds);
  // Deprecated: takes `resourceNames` with `callbackName` as the conflict callback,
  // waiting at most `timeoutSeconds`. The last integer is accepted for scripts written
  // for the graphical tool and has no effect: the resource manager has no priorities.
  void waitFor(const std::vector<std::string>& resourceNames, const char* callbackName,
               int timeoutSeconds, int priority);
  void waitResourcesCallback(const char* callbackName);
  bool isResourceFree(const std::vector<std::string>& resourceNames);
  void waitResourceFree();
  void waitResources();
  void releaseResource();

  // ---- Inputs, outputs and parameters (values converted as everywhere in Python)
  void addInput(char* name);
  void addOutput(char* name, bool isBang);
  void addParameter(char* name, PyObject* value, bool inheritedFromParent);
  PyObject* getParameter(char* name);
  PyObject* getParametersList();  // a list of str
  void setParameter(char* name, PyObject* value);
  void stimulateIO(char* name, PyObject* value);

  using baseModule::_methodMissing;
  using baseModule::addParam;
  using baseModule::BIND_PYTHON;
  using baseModule::getName;
  using baseModule::setModuleDescription;
  // Deprecated: as baseModule's, after a warning.
  void exit();
  std::string getBrokerName();
  std::string version();

  // ---- Timelines (a `timeline` on a vanished timeline does nothing)
  bool hasTimeline();
  bool hasParentTimeline();
  timeline getTimeline();
  timeline getParentTimeline();

 private:
  KXPythonBehavior* box_;  // owned through baseModule's handle
};

}  // namespace KX

#endif  // VELMO_PYTHON_PYBEHAVIOR_H_
