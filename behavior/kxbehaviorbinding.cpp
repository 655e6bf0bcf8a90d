#include "behavior/detail/kxbehaviorimpl.h"
#include "behavior/kxbehavior.h"

namespace KX {

using detail::kBehaviorModule;
using detail::kDeprecatedSince;

// Published in this order; the deprecated ones stay for older generated scripts.
void KXBehavior::describeAndBind() {
  setModuleDescription(
      "A behaviour box: named inputs, outputs and parameters, wired to other boxes through "
      "micro events of KXMemory.");

  functionName("getInputNames", kBehaviorModule, "Returns the names of the box's inputs.");
  setReturn("names", "the input names, in the order they were added");
  bindMethod(&KXBehavior::getInputNames);

  functionName("getOutputNames", kBehaviorModule, "Returns the names of the box's outputs.");
  setReturn("names", "the output names, sorted");
  bindMethod(&KXBehavior::getOutputNames);

  functionName("getParameter", kBehaviorModule, "Returns the value of a parameter.");
  addParam("name", "the parameter's name");
  setReturn("value", "the parameter's value (the parent box's when inherited)");
  bindMethod(&KXBehavior::getParameter);

  functionName("getParametersList", kBehaviorModule, "Returns the names of the parameters.");
  setReturn("names", "the parameter names, sorted");
  bindMethod(&KXBehavior::getParametersList);

  functionName("setParameter", kBehaviorModule, "Sets the value of an existing parameter.");
  addParam("name", "the parameter's name");
  addParam("value", "its new value (not Invalid)");
  bindMethod(&KXBehavior::setParameter);

  functionName("releaseResource", kBehaviorModule, kDeprecatedSince);
  bindMethod(&KXBehavior::releaseResource);

  functionName("waitResources", kBehaviorModule, kDeprecatedSince);
  bindMethod(&KXBehavior::waitResources);

  functionName("waitResourceFree", kBehaviorModule, kDeprecatedSince);
  bindMethod(&KXBehavior::waitResourceFree);

  functionName("setResources", kBehaviorModule, kDeprecatedSince);
  addParam("resourceNames", "the resources the box uses");
  addParam("timeoutSeconds", "how long waitResources waits (0: no limit)");
  bindMethod(&KXBehavior::setResources);

  functionName("setEnabled", kBehaviorModule, kDeprecatedSince);
  addParam("enabled", "the new enabled flag");
  bindMethod(&KXBehavior::setEnabled);

  functionName("isEnabled", kBehaviorModule, kDeprecatedSince);
  setReturn("enabled", "the enabled flag");
  bindMethod(&KXBehavior::isEnabled);

  functionName("addParameter", kBehaviorModule, kDeprecatedSince);
  addParam("name", "the parameter's name");
  addParam("value", "its value");
  addParam("inheritedFromParent", "whether the parent box's value is used");
  bindMethod(&KXBehavior::addParameter);

  functionName("setParameters", kBehaviorModule, kDeprecatedSince);
  addParam("pairs", "[[name, value], ...]");
  bindMethod(&KXBehavior::setParameters);

  functionName("addOutputLink", kBehaviorModule, kDeprecatedSince);
  addParam("outputName", "the box's output");
  addParam("moduleName", "the module that receives the output's values");
  addParam("methodName", "its method called with each value");
  bindMethod(&KXBehavior::addOutputLink);

  functionName("removeOutputLink", kBehaviorModule, kDeprecatedSince);
  addParam("outputName", "the box's output");
  addParam("moduleName", "the module that received the output's values");
  addParam("methodName", "its method");
  bindMethod(&KXBehavior::removeOutputLink);

  functionName("setParentFromName", kBehaviorModule, kDeprecatedSince);
  addParam("parentName", "the name of the parent box");
  bindMethod(&KXBehavior::setParentFromName);

  functionName("dataChanged", kBehaviorModule, kDeprecatedSince);
  addParam("eventName", "the micro event raised");
  addParam("value", "its value");
  addParam("message", "the subscription's message");
  bindMethod(&KXBehavior::dataChanged);

  functionName("_dataChanged", kBehaviorModule,
               "Runs the inputs linked to a micro event; KXMemory calls it for the box's "
               "subscriptions.");
  addParam("eventName", "the micro event raised");
  addParam("value", "its value");
  addParam("message", "the subscription's message");
  bindMethod(&KXBehavior::_dataChanged);

  functionName("_isEnabled", kBehaviorModule, "Returns the enabled flag.");
  setReturn("enabled", "the enabled flag");
  bindMethod(&KXBehavior::_isEnabled);
}

}  // namespace KX
