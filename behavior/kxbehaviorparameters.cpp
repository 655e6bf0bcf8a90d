#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "behavior/detail/kxbehaviorimpl.h"
#include "behavior/kxbehavior.h"
#include "broker/kxbroker.h"
#include "log/log.h"
#include "value/kxerror.h"

namespace KX {

using detail::kBehaviorModule;
using detail::kBoxCategory;

namespace {

std::string doesNotExist(const std::string& name) {
  return "Parameter \"" + name + "\" does not exist.";
}

bool isNameValuePairs(const KXValue& pairs) {
  if (pairs.getType() != KXValue::TypeArray) return false;
  for (int i = 0; i < pairs.getSize(); ++i) {
    const KXValue& pair = pairs[i];
    if (pair.getType() != KXValue::TypeArray || pair.getSize() != 2 ||
        pair[0].getType() != KXValue::TypeString) {
      return false;
    }
  }
  return true;
}

}  // namespace

void KXBehavior::addParameter(const std::string& name, const KXValue& value,
                              const bool& inheritedFromParent) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->parameters[name] = detail::KXBehaviorParameter{value, inheritedFromParent};
}

KXValue KXBehavior::lookupParameter(const std::string& name, bool& found, bool& fromParent) {
  std::shared_ptr<KXBehavior> parent;
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    auto entry = impl_->parameters.find(name);
    parent = impl_->parent.lock();
    if (entry != impl_->parameters.end() && !(entry->second.inheritedFromParent && parent)) {
      found = true;
      fromParent = false;
      return entry->second.value;
    }
  }
  // Asked without this box's lock: one box's lock is never held while another's is taken.
  if (!parent) {
    found = false;
    return KXValue();
  }
  bool unusedFromParent = false;
  KXValue value = parent->lookupParameter(name, found, unusedFromParent);
  fromParent = true;
  return value;
}

KXValue KXBehavior::getParameter(const std::string& name) {
  if (!isLoaded()) {
    TU_LOG(tu::log::warning, kBoxCategory, "KX::KXBehavior::getParameter")
        << getName() << "::getParameter(" << name
        << ")  shall not be called when the box is unloaded. You should call it in onLoad method."
        << std::endl;
  }
  bool found = false;
  bool fromParent = false;
  KXValue value = lookupParameter(name, found, fromParent);
  if (!found) KX_THROW(kBehaviorModule, "getParameter", doesNotExist(name));
  if (fromParent) {
    bool redefined = false;
    {
      std::lock_guard<std::mutex> lock(impl_->mutex);
      redefined = impl_->parameters.count(name) != 0;
    }
    if (!redefined) {
      TU_LOG(tu::log::warning, kBoxCategory, "KX::KXBehavior::getParameter")
          << getName() << ": getParameter(" << name
          << ") of a parentBox without redefining it, is deprecated. You should define it in the "
             "box which uses it and set it as inherit from parent"
          << std::endl;
    }
  }
  return value;
}

std::vector<std::string> KXBehavior::getParametersList() {
  std::vector<std::string> names;
  std::lock_guard<std::mutex> lock(impl_->mutex);
  for (const auto& entry : impl_->parameters) names.push_back(entry.first);
  return names;
}

void KXBehavior::setParameter(const std::string& name, const KXValue& value) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  auto entry = impl_->parameters.find(name);
  if (entry == impl_->parameters.end()) {
    KX_THROW(kBehaviorModule, "setParameter", doesNotExist(name));
  }
  if (!value.isValid()) {
    KX_THROW(kBehaviorModule, "setParameter", "Cannot set parameter to invalid value.");
  }
  if (entry->second.inheritedFromParent) {
    TU_LOG(tu::log::warning, kBoxCategory, "KX::KXBehavior::setParameter")
        << getName()
        << ": setParameter: The parameter you are trying to set is inherited from parent."
        << std::endl;
    return;
  }
  entry->second.value = value;
}

void KXBehavior::setParameters(const KXValue& pairs) {
  TU_LOG(tu::log::warning, kBoxCategory, "KX::KXBehavior::setParameters")
      << getName() << "::setParameters is deprecated. You should iterate on setParameter instead."
      << std::endl;
  if (!isNameValuePairs(pairs)) {
    KX_THROW(kBehaviorModule, "setParameters",
             "KXValue is not at the expected format : [[name, value]]");
  }
  for (int i = 0; i < pairs.getSize(); ++i) {
    setParameter(static_cast<const std::string&>(pairs[i][0]), pairs[i][1]);
  }
}

void KXBehavior::setParentFromName(const std::string& parentName) {
  const std::shared_ptr<KXModuleCore> module = getParentBroker()->getModuleCore(parentName);
  const std::string prefix = "Could not define a parent of" + getName();
  if (!module) {
    KX_THROW(kBehaviorModule, "setParentFromName", prefix + ": parent does not exist.");
  }
  const auto parent = std::dynamic_pointer_cast<KXBehavior>(module);
  if (!parent) {
    KX_THROW(kBehaviorModule, "setParentFromName", prefix + ": parent is not a valid KXBehavior.");
  }
  {
    // A cycle would send parameter look-ups round it for ever. Looking for one and linking
    // are one step for every box of the process: two boxes made each other's parent at
    // once would each find no cycle. Taken before any box's lock, which are taken one at a
    // time inside it.
    static std::mutex parenting;
    std::lock_guard<std::mutex> linking(parenting);
    for (std::shared_ptr<KXBehavior> ancestor = parent; ancestor;
         ancestor = ancestor->parentBox()) {
      if (ancestor.get() == this) {
        KX_THROW(kBehaviorModule, "setParentFromName", prefix + ": parent would make a cycle.");
      }
    }
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->parent = parent;
  }
  setParentTimeline(parent->getTimeline());
}

std::shared_ptr<KXBehavior> KXBehavior::parentBox() {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->parent.lock();
}

}  // namespace KX
