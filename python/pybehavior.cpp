#include "python/pybehavior.h"

#include <memory>

#include "behavior/kxbehavior.h"
#include "broker/kxbroker.h"
#include "log/log.h"
#include "python/kxpythonbehavior.h"
#include "python/pycurrentbroker.h"
#include "python/pygil.h"
#include "python/pyvalue.h"
#include "value/kxerror.h"

namespace KX {
namespace {

constexpr char kCategory[] = "ivelmo";

// The warning every deprecated Python operation logs, from "KX::behavior::<operation>".
tu::log::LogStream deprecation(const std::string& operation) {
  return TU_LOG(tu::log::warning, kCategory, ("KX::behavior::" + operation).c_str());
}

std::string text(const char* name, const char* operation) {
  if (name == nullptr) KX_THROW("behavior", operation, "NULL value was passed as argument");
  return name;
}

}  // namespace

behavior::behavior(char* name) : box_(nullptr) {
  if (name == nullptr) KX_THROW("behavior", "behavior", "NULL value was passed as argument");
  const std::shared_ptr<KXBroker> current = python::currentBroker();
  if (!current) {
    KX_THROW("behavior", "behavior",
             "Could not create a behavior, as there is no current broker in Python's world.");
  }
  std::shared_ptr<KXPythonBehavior> box;
  {
    python::ScopedGILRelease release;
    box = createModule<KXPythonBehavior>(current, name);
  }
  box_ = box.get();
  setTarget(box);
}

behavior::~behavior() = default;

void behavior::setEnabled(bool enabled) {
  deprecation("setEnabled") << "behavior::setEnabled"
                            << "(" << (enabled ? 1 : 0) << ")"
                            << " is deprecated ! " << std::endl;
  box_->setEnabled(enabled);
}

bool behavior::isEnabled() {
  deprecation("isEnabled") << "behavior::isEnabled is deprecated." << std::endl;
  return box_->isEnabled();
}

void behavior::setResources(const std::vector<std::string>& resourceNames, int timeoutSeconds) {
  deprecation("setResources")
      << "behavior::setResources is deprecated. You should use Ordavia to set Resources"
      << std::endl;
  python::ScopedGILRelease release;
  box_->setResources(resourceNames, timeoutSeconds);
}

void behavior::waitFor(const std::vector<std::string>& resourceNames, const char* callbackName,
                       int timeoutSeconds, int /*priority*/) {
  const std::string callback = text(callbackName, "waitFor");
  python::ScopedGILRelease release;
  box_->waitFor(resourceNames, callback, timeoutSeconds);
}

void behavior::waitResourcesCallback(const char* callbackName) {
  const std::string callback = text(callbackName, "waitResourcesCallback");
  python::ScopedGILRelease release;
  box_->waitResourcesCallback(callback);
}

bool behavior::isResourceFree(const std::vector<std::string>& resourceNames) {
  python::ScopedGILRelease release;
  return box_->isResourceFree(resourceNames);
}

void behavior::waitResourceFree() {
  python::ScopedGILRelease release;
  box_->waitResourceFree();
}

void behavior::waitResources() {
  python::ScopedGILRelease release;
  box_->waitResources();
}

void behavior::releaseResource() {
  python::ScopedGILRelease release;
  box_->releaseResource();
}

void behavior::addInput(char* name) { box_->addInput(text(name, "addInput")); }

void behavior::addOutput(char* name, bool isBang) {
  box_->addOutput(text(name, "addOutput"), isBang);
}

void behavior::addParameter(char* name, PyObject* value, bool inheritedFromParent) {
  box_->addParameter(text(name, "addParameter"), python::pyToValue(value), inheritedFromParent);
}

PyObject* behavior::getParameter(char* name) {
  const std::string parameter = text(name, "getParameter");
  KXValue value;
  {
    // The parent box may be asked, and a warning may be logged.
    python::ScopedGILRelease release;
    value = box_->getParameter(parameter);
  }
  return python::valueToPy(value);
}

PyObject* behavior::getParametersList() {
  KXValue names;
  names.arraySetSize(0);
  for (const std::string& name : box_->getParametersList()) names.arrayPush(KXValue(name));
  return python::valueToPy(names);
}

void behavior::setParameter(char* name, PyObject* value) {
  box_->setParameter(text(name, "setParameter"), python::pyToValue(value));
}

void behavior::stimulateIO(char* name, PyObject* value) {
  const std::string io = text(name, "stimulateIO");
  const KXValue converted = python::pyToValue(value);
  // Raising the event is a call to "KXMemory", wherever it lives.
  python::ScopedGILRelease release;
  box_->stimulateIO(io, converted);
}

void behavior::exit() {
  deprecation("exit") << "behavior::exit is deprecated. You should call KXBehaviorManager."
                      << std::endl;
  baseModule::exit();
}

std::string behavior::getBrokerName() {
  deprecation("getBrokerName") << "behavior::getBrokerName is deprecated." << std::endl;
  return baseModule::getBrokerName();
}

std::string behavior::version() {
  deprecation("version") << "behavior::version is deprecated. You should call KXMemory.version()"
                         << std::endl;
  return baseModule::version();
}

bool behavior::hasTimeline() { return box_->hasTimeline(); }

bool behavior::hasParentTimeline() { return box_->hasParentTimeline(); }

timeline behavior::getTimeline() { return timeline(box_->getTimeline()); }

timeline behavior::getParentTimeline() { return timeline(box_->getParentTimeline()); }

}  // namespace KX
