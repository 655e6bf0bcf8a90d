#include "behavior/kxbehaviormanager.h"

#include <utility>

#include "behavior/detail/kxsimpletimeline.h"
#include "behavior/kxbehavior.h"
#include "broker/kxbroker.h"
#include "log/log.h"
#include "module/kxproxy.h"
#include "value/kxerror.h"
#include "value/kxvalue.h"

namespace KX {
namespace {

constexpr char kModule[] = "KXBehaviorManager";
constexpr char kCategory[] = "behavior.manager";

}  // namespace

KXBehaviorManager::KXBehaviorManager(const std::shared_ptr<KXBroker>& broker,
                                     const std::string& name)
    : KXModule(broker, name) {
  describeAndBind();
}

KXBehaviorManager::~KXBehaviorManager() = default;

void KXBehaviorManager::describeAndBind() {
  setModuleDescription(
      "The behaviour host of this broker: loads and unloads its boxes, links outputs to "
      "inputs and gives boxes timelines.");

  functionName("loadBehavior", kModule,
               "Loads a box of this broker: clears its stop flag, marks it loaded and calls "
               "its onLoad method when it has one.");
  addParam("boxName", "the box's module name");
  bindMethod(&KXBehaviorManager::loadBehavior);

  functionName("unloadBehavior", kModule,
               "Unloads a box: sets its stop flag, calls its onUnload method when it has one, "
               "releases its resources and marks it unloaded.");
  addParam("boxName", "the box's module name");
  bindMethod(&KXBehaviorManager::unloadBehavior);

  functionName("getLoadedBehaviors", kModule, "Returns the names of the loaded boxes.");
  setReturn("names", "the loaded boxes, sorted");
  bindMethod(&KXBehaviorManager::getLoadedBehaviors);

  functionName("linkBehaviors", kModule,
               "Links an output of a box (anywhere in the tree) to an input of a box of this "
               "broker.");
  addParam("fromBox", "the box whose output is linked");
  addParam("outputName", "the output");
  addParam("toBox", "the box of this broker that receives the values");
  addParam("inputName", "the input that receives them");
  bindMethod(&KXBehaviorManager::linkBehaviors);

  functionName("setTimeline", kModule, "Gives a box a new timeline.");
  addParam("boxName", "the box's module name");
  addParam("size", "the number of frames (at least 1)");
  addParam("fps", "the frame rate (at least 1)");
  bindMethod(&KXBehaviorManager::setTimeline);

  functionName("addTimelineLabel", kModule, "Names a frame of a box's timeline.");
  addParam("boxName", "the box's module name");
  addParam("label", "the frame's name");
  addParam("frame", "the frame (1 to the timeline's size)");
  bindMethod(&KXBehaviorManager::addTimelineLabel);

  functionName("removeTimeline", kModule, "Drops a box's timeline.");
  addParam("boxName", "the box's module name");
  bindMethod(&KXBehaviorManager::removeTimeline);

  functionName("getTimelineFrame", kModule, "Returns the current frame of a box's timeline.");
  addParam("boxName", "the box's module name");
  setReturn("frame", "the current frame");
  bindMethod(&KXBehaviorManager::getTimelineFrame);
}

std::shared_ptr<KXBehavior> KXBehaviorManager::box(const char* method, const std::string& boxName) {
  auto found = std::dynamic_pointer_cast<KXBehavior>(getParentBroker()->getModuleCore(boxName));
  if (!found) {
    KX_THROW(
        kModule, method,
        "\"" + boxName + "\" is not a box of the broker " + getParentBroker()->getName() + ".");
  }
  return found;
}

void KXBehaviorManager::callIfPresent(KXBehavior& box, const std::string& method) {
  if (!box.getMethodInfo(method)) return;
  KXValue noArguments;
  noArguments.arraySetSize(0);
  getParentBroker()->getProxy(box.getName())->genericCall(method, noArguments);
}

void KXBehaviorManager::loadBehavior(const std::string& boxName) {
  const std::shared_ptr<KXBehavior> target = box("loadBehavior", boxName);
  target->setBoxStopped(false);
  target->setLoaded(true);
  try {
    callIfPresent(*target, "onLoad");
  } catch (const KXError&) {
    target->setLoaded(false);
    throw;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  loaded_.insert(boxName);
}

void KXBehaviorManager::unloadBehavior(const std::string& boxName) {
  const std::shared_ptr<KXBehavior> target = box("unloadBehavior", boxName);
  target->setBoxStopped(true);
  // Unloading always completes: the box's own failures are only reported.
  try {
    callIfPresent(*target, "onUnload");
  } catch (const KXError& error) {
    TU_LOG(tu::log::error, kCategory, "KX::KXBehaviorManager::unloadBehavior")
        << boxName << ": onUnload failed: " << error.what() << std::endl;
  }
  try {
    target->releaseResource();
  } catch (const KXError& error) {
    TU_LOG(tu::log::error, kCategory, "KX::KXBehaviorManager::unloadBehavior")
        << boxName << ": cannot release resources: " << error.what() << std::endl;
  }
  target->setLoaded(false);
  std::lock_guard<std::mutex> lock(mutex_);
  loaded_.erase(boxName);
}

std::vector<std::string> KXBehaviorManager::getLoadedBehaviors() {
  std::lock_guard<std::mutex> lock(mutex_);
  return std::vector<std::string>(loaded_.begin(), loaded_.end());
}

void KXBehaviorManager::linkBehaviors(const std::string& fromBox, const std::string& outputName,
                                      const std::string& toBox, const std::string& inputName) {
  const std::string event = outputName.empty() ? fromBox : fromBox + "__" + outputName;
  box("linkBehaviors", toBox)->connectInput(inputName, event);
}

void KXBehaviorManager::setTimeline(const std::string& boxName, const int& size, const int& fps) {
  const std::shared_ptr<KXBehavior> target = box("setTimeline", boxName);
  auto timeline = std::make_shared<KXSimpleTimeline>(size, fps);
  std::shared_ptr<KXSimpleTimeline> previous;  // dropped outside the locks
  std::lock_guard<std::mutex> changing(timelineChange_);
  target->setTimeline(timeline);
  std::lock_guard<std::mutex> lock(mutex_);
  previous = std::exchange(timelines_[boxName], std::move(timeline));
}

std::shared_ptr<KXSimpleTimeline> KXBehaviorManager::timelineOf(const std::string& boxName) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto found = timelines_.find(boxName);
  return found != timelines_.end() ? found->second : nullptr;
}

std::shared_ptr<KXSimpleTimeline> KXBehaviorManager::existingTimeline(const char* method,
                                                                      const std::string& boxName) {
  std::shared_ptr<KXSimpleTimeline> timeline = timelineOf(boxName);
  if (!timeline) KX_THROW(kModule, method, "The box \"" + boxName + "\" has no timeline.");
  return timeline;
}

void KXBehaviorManager::addTimelineLabel(const std::string& boxName, const std::string& label,
                                         const int& frame) {
  existingTimeline("addTimelineLabel", boxName)->addLabel(label, frame);
}

void KXBehaviorManager::removeTimeline(const std::string& boxName) {
  std::shared_ptr<KXSimpleTimeline> dropped;  // released outside the locks
  std::lock_guard<std::mutex> changing(timelineChange_);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto found = timelines_.find(boxName);
    if (found == timelines_.end()) return;
    dropped = std::move(found->second);
    timelines_.erase(found);
  }
  if (const auto target =
          std::dynamic_pointer_cast<KXBehavior>(getParentBroker()->getModuleCore(boxName))) {
    if (target->getTimeline() == dropped) target->setTimeline(nullptr);
  }
}

int KXBehaviorManager::getTimelineFrame(const std::string& boxName) {
  return existingTimeline("getTimelineFrame", boxName)->getCurrentFrame();
}

void addBehaviorManager(const std::shared_ptr<KXBroker>& broker) {
  KX_ASSERT("KXBroker", broker != nullptr);
  if (!broker->getModuleCore("KXBehaviorManager")) {
    createModule<KXBehaviorManager>(broker, "KXBehaviorManager");
  }
}

}  // namespace KX
