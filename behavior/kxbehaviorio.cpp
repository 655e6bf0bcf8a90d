#include <algorithm>
#include <exception>
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

std::string quoted(const std::string& text) { return "\"" + text + "\""; }

std::string eventNameOf(const std::string& box, const std::string& io) {
  return io.empty() ? box : box + "__" + io;
}

KXValue oneArgument(const KXValue& value) {
  KXValue params;
  params.arraySetSize(0);
  params.arrayPush(value);
  return params;
}

}  // namespace

bool KXBehavior::addInput(const std::string& name) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->inputs.push_back(detail::KXBehaviorInput{name, {}});
  return true;
}

void KXBehavior::addOutput(const std::string& name, const bool& isBang) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->outputs[name].isBang = isBang;
}

std::vector<std::string> KXBehavior::getInputNames() {
  std::vector<std::string> names;
  std::lock_guard<std::mutex> lock(impl_->mutex);
  for (const auto& input : impl_->inputs) names.push_back(input.name);
  return names;
}

std::vector<std::string> KXBehavior::getOutputNames() {
  std::vector<std::string> names;
  std::lock_guard<std::mutex> lock(impl_->mutex);
  for (const auto& output : impl_->outputs) names.push_back(output.first);
  return names;
}

void KXBehavior::connectInput(const std::string& inputName, const std::string& eventName) {
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    auto input = std::find_if(impl_->inputs.begin(), impl_->inputs.end(),
                              [&](const auto& entry) { return entry.name == inputName; });
    if (input == impl_->inputs.end()) {
      KX_THROW(kBehaviorModule, "connectInput", "Input " + quoted(inputName) + " does not exist.");
    }
    if (std::find(input->events.begin(), input->events.end(), eventName) == input->events.end()) {
      input->events.push_back(eventName);
    }
  }
  _connectOutput(eventName);
}

void KXBehavior::stimulateIO(const std::string& name, const KXValue& value) {
  if (!impl_->memory) {
    KX_THROW(kBehaviorModule, "stimulateIO",
             "Cannot raise event, as there is no proxy to KXMemory");
  }
  impl_->memory->raiseMicroEvent(eventNameOf(getName(), name), value);
}

void KXBehavior::_connectOutput(const std::string& eventName) {
  if (!impl_->memory) {
    KX_THROW(kBehaviorModule, "connectOutput",
             "Cannot add output link, as there is no proxy to KXMemory");
  }
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    if (!impl_->subscriptions.insert(eventName).second) return;
  }
  try {
    impl_->memory->subscribeToMicroEvent(eventName, getName(), "", "_dataChanged");
  } catch (const KXError& error) {
    TU_LOG(tu::log::error, "behavior", "KX::KXBehavior::_connectOutput")
        << getName() << " : cannot subscribe to " << eventName << " e=" << error.what()
        << std::endl;
    // Forgotten, so that linking again retries the subscription.
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->subscriptions.erase(eventName);
  }
}

void KXBehavior::dataChanged(const std::string& eventName, const KXValue& value,
                             const std::string& /*message*/) {
  notify(eventName, value);
}

void KXBehavior::_dataChanged(const std::string& eventName, const KXValue& value,
                              const std::string& /*message*/) {
  notify(eventName, value);
}

void KXBehavior::notify(const std::string& eventName, const KXValue& value) {
  const std::shared_ptr<KXProxy> self = Impl::proxyToSelf(*this);
  // Collected under the lock, called without it: an input method may use the box.
  std::vector<detail::KXBehaviorCall> calls;
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    for (const auto& input : impl_->inputs) {
      if (std::find(input.events.begin(), input.events.end(), eventName) != input.events.end()) {
        calls.push_back({"", "onInput_" + input.name + "__", true});
      }
    }
    for (const auto& output : impl_->outputs) {
      if (eventNameOf(getName(), output.first) != eventName) continue;
      for (const auto& link : output.second.links)
        calls.push_back({link.module, link.method, false});
    }
  }
  const KXValue params = oneArgument(value);
  for (const auto& call : calls) {
    try {
      if (call.isInput) {
        self->genericCall(call.method, params);
      } else {
        getParentBroker()->getProxy(call.module)->genericCall(call.method, params);
      }
    } catch (const std::exception& error) {
      TU_LOG(tu::log::error, kBoxCategory, "KX::KXBehavior::dataChanged")
          << getName() << (call.isInput ? " Failed to call input: " : ": Failed to call output: \"")
          << error.what() << std::endl;
    }
  }
}

void KXBehavior::addOutputLink(const std::string& outputName, const std::string& moduleName,
                               const std::string& methodName) {
  TU_LOG(tu::log::warning, kBoxCategory, "KX::KXBehavior::addOutputLink")
      << getName() << "::addOutputLink is deprecated. You should rather create a link with Ordavia."
      << std::endl;
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    auto output = impl_->outputs.find(outputName);
    if (output == impl_->outputs.end()) {
      KX_THROW(kBehaviorModule, "addOutputLink",
               "Output " + quoted(outputName) + " does not exist.");
    }
    const detail::KXBehaviorOutputLink link{moduleName, methodName};
    auto& links = output->second.links;
    if (std::find(links.begin(), links.end(), link) == links.end()) links.push_back(link);
  }
  // The box hears its own output through "KXMemory" and forwards it from dataChanged.
  _connectOutput(eventNameOf(getName(), outputName));
}

void KXBehavior::removeOutputLink(const std::string& outputName, const std::string& moduleName,
                                  const std::string& methodName) {
  TU_LOG(tu::log::warning, kBoxCategory, "KX::KXBehavior::removeOutputLink")
      << getName()
      << "::removeOutputLink is deprecated. You should rather create a link with Ordavia."
      << std::endl;
  std::lock_guard<std::mutex> lock(impl_->mutex);
  auto output = impl_->outputs.find(outputName);
  if (output == impl_->outputs.end()) return;
  auto& links = output->second.links;
  links.erase(
      std::remove(links.begin(), links.end(), detail::KXBehaviorOutputLink{moduleName, methodName}),
      links.end());
}

void KXBehavior::removeOwnEvents() {
  if (!impl_->memory) return;
  std::vector<std::string> names{getName() + "__onLoad"};
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    for (const auto& input : impl_->inputs) names.push_back(eventNameOf(getName(), input.name));
    for (const auto& output : impl_->outputs) {
      names.push_back(eventNameOf(getName(), output.first));
    }
  }
  try {
    for (const auto& name : names) impl_->memory->removeMicroEvent(name);
    // Its subscriptions would otherwise linger until a delivery failed.
    impl_->memory->unregisterModuleReference(getName());
  } catch (const KXError& error) {
    // Usual once the broker has shut down: "KXMemory" went first, and its events with it.
    TU_LOG(tu::log::verbose, kBoxCategory, "KX::KXBehavior::~KXBehavior")
        << getName() << ": cannot remove events e=" << error.what() << std::endl;
  }
}

}  // namespace KX
