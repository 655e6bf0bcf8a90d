#include "memory/kxresourcemanager.h"

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "broker/kxbroker.h"
#include "log/log.h"
#include "module/kxproxy.h"
#include "thread/kxtask.h"
#include "thread/kxthreadpool.h"
#include "value/kxerror.h"
#include "value/kxvalue.h"

namespace KX {

namespace {

constexpr char kModule[] = "KXResourceManager";
constexpr char kCategory[] = "core.common.resourcemanager";

std::string quoted(const std::string& text) { return "\"" + text + "\""; }

// Asks a holder to give a resource up: calls method `callback` of module `owner` with
// (resource, requester). Runs on the broker's pool so that a slow or blocking holder
// never delays the manager or the waiter's bookkeeping.
class ConflictCallbackTask : public KXTask {
 public:
  ConflictCallbackTask(std::weak_ptr<KXBroker> broker, std::string owner, std::string callback,
                       std::string resource, std::string requester)
      : broker_(std::move(broker)),
        owner_(std::move(owner)),
        callback_(std::move(callback)),
        resource_(std::move(resource)),
        requester_(std::move(requester)) {}

  void run() override {
    try {
      const std::shared_ptr<KXBroker> broker = broker_.lock();
      if (!broker) return;
      KXValue params;
      params.arraySetSize(0);
      params.arrayPush(KXValue(resource_));
      params.arrayPush(KXValue(requester_));
      broker->getProxy(owner_)->genericCall(callback_, params);
    } catch (const std::exception& error) {
      TU_LOG(tu::log::warning, kCategory, "KX::KXResourceManager::conflictCallback")
          << "Conflict callback " << owner_ << "::" << callback_ << " for resource "
          << quoted(resource_) << " failed: " << error.what() << std::endl;
    }
  }

 private:
  const std::weak_ptr<KXBroker> broker_;
  const std::string owner_;
  const std::string callback_;
  const std::string resource_;
  const std::string requester_;
};

struct Resource {
  std::string parent;
  std::string owner;     // "" when free
  std::string callback;  // the owner's conflict callback, "" for none
  bool enabled = true;
  std::set<std::string> children;
};

// One holder to ask, once per wait.
struct Conflict {
  std::string resource;
  std::string owner;
  std::string callback;
};

}  // namespace

struct KXResourceManager::Impl {
  std::weak_ptr<KXBroker> broker;

  // Guards everything below; waiters sleep on `changed`, which releases it.
  std::mutex mutex;
  std::condition_variable changed;
  std::map<std::string, Resource> resources;
  bool exiting = false;

  // ---- Helpers; `mutex` held.

  Resource& find(const std::string& method, const std::string& name) {
    auto found = resources.find(name);
    if (found == resources.end()) {
      KX_THROW(kModule, method, "Resource " + quoted(name) + " does not exist.");
    }
    return found->second;
  }

  // `name` and all its descendants.
  void collectTree(const std::string& method, const std::string& name, std::set<std::string>& out) {
    const Resource& resource = find(method, name);
    if (!out.insert(name).second) return;
    for (const std::string& child : resource.children) collectTree(method, child, out);
  }

  // A disabled resource is never held, so only enabled ones can stand in the way.
  bool heldByOther(const Resource& resource, const std::string& owner) const {
    return resource.enabled && !resource.owner.empty() && resource.owner != owner;
  }

  bool isFree(const Resource& resource) const {
    return !resource.enabled || resource.owner.empty();
  }

  void take(const std::set<std::string>& names, const std::string& owner,
            const std::string& callback) {
    for (const std::string& name : names) {
      Resource& resource = resources.at(name);
      if (!resource.enabled) continue;
      resource.owner = owner;
      resource.callback = callback;
    }
  }

  void checkRelease(const std::string& method, const std::string& name, const std::string& owner) {
    const Resource& resource = find(method, name);
    if (heldByOther(resource, owner)) {
      KX_THROW(kModule, method,
               "Resource " + quoted(name) + " is owned by " + quoted(resource.owner) + ", not by " +
                   quoted(owner) + ".");
    }
  }

  // Frees `name` and the descendants `owner` holds (what a tree wait took).
  void release(const std::string& name, const std::string& owner) {
    Resource& resource = resources.at(name);
    if (resource.owner == owner) {
      resource.owner.clear();
      resource.callback.clear();
    }
    for (const std::string& child : resource.children) release(child, owner);
  }

  void eraseTree(const std::string& name) {
    const std::set<std::string> children = resources.at(name).children;
    for (const std::string& child : children) eraseTree(child);
    resources.erase(name);
  }

  void createOne(const std::string& method, const std::string& name, const std::string& parent) {
    if (name.empty()) KX_THROW(kModule, method, "A resource name must not be empty.");
    if (resources.count(name) != 0) return;
    if (!parent.empty()) {
      auto found = resources.find(parent);
      if (found == resources.end()) {
        KX_THROW(kModule, method,
                 "Cannot create resource " + quoted(name) + ": parent resource " + quoted(parent) +
                     " does not exist.");
      }
      found->second.children.insert(name);
    }
    resources[name].parent = parent;
  }

  // Takes every resource of the trees of `required` at once, waiting while another owner
  // holds any of them; then the trees of `optional` that are free at that moment. Each
  // holder in the way is asked once per resource to give it up.
  void acquire(const std::string& method, const std::vector<std::string>& required,
               const std::string& owner, const std::string& callback, int timeoutSeconds,
               const std::vector<std::string>& optional, bool withDescendants) {
    if (owner.empty()) KX_THROW(kModule, method, "An owner name is required.");
    if (timeoutSeconds < 0) {
      KX_THROW(kModule, method,
               "The timeout must be 0 (no limit) or a number of seconds, not " +
                   std::to_string(timeoutSeconds) + ".");
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeoutSeconds);
    std::set<std::pair<std::string, std::string>> asked;

    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
      if (exiting) {
        KX_THROW(kModule, method,
                 "The resource manager exited while " + quoted(owner) + " was waiting for " +
                     describe(required) + ".");
      }
      // Recomputed each turn: the tree may have changed (and a deleted resource ends the
      // wait with its error).
      std::set<std::string> needed;
      for (const std::string& name : required) {
        if (withDescendants) {
          collectTree(method, name, needed);
        } else {
          find(method, name);
          needed.insert(name);
        }
      }
      // Looked up before anything is taken, so that an unknown optional resource takes
      // nothing either.
      std::vector<std::set<std::string>> optionalTrees(optional.size());
      for (std::size_t i = 0; i < optional.size(); ++i) {
        collectTree(method, optional[i], optionalTrees[i]);
      }
      std::vector<Conflict> toAsk;
      std::string blockingName;  // the first resource in the way, "" when none
      for (const std::string& name : needed) {
        const Resource& resource = resources.at(name);
        if (!heldByOther(resource, owner)) continue;
        if (blockingName.empty()) blockingName = name;
        // A holder is asked for the top of what it holds in the way: releasing a
        // resource releases the descendants it holds too.
        const bool underSameHolder = !resource.parent.empty() && needed.count(resource.parent) &&
                                     resources.at(resource.parent).enabled &&
                                     resources.at(resource.parent).owner == resource.owner;
        if (!resource.callback.empty() && !underSameHolder &&
            asked.emplace(name, resource.owner).second) {
          toAsk.push_back({name, resource.owner, resource.callback});
        }
      }
      if (blockingName.empty()) {
        // Taking lets no other waiter through: nobody to wake.
        take(needed, owner, callback);
        takeOptional(optionalTrees, owner, callback);
        return;
      }
      if (!toAsk.empty()) {
        // The callbacks may call back into this module: ask outside the lock, then look
        // again, since anything may have changed meanwhile.
        lock.unlock();
        for (const Conflict& conflict : toAsk) askToRelease(conflict, owner);
        lock.lock();
        continue;
      }
      if (timeoutSeconds == 0) {
        changed.wait(lock);
      } else if (changed.wait_until(lock, deadline) == std::cv_status::timeout) {
        // One last look: a release may have come with the deadline.
        bool stillBlocked = false;
        for (const std::string& name : needed) {
          auto found = resources.find(name);
          if (found != resources.end() && heldByOther(found->second, owner)) {
            stillBlocked = true;
            blockingName = name;
            break;
          }
        }
        if (stillBlocked && !exiting) {
          KX_THROW(kModule, method,
                   "Timeout after " + std::to_string(timeoutSeconds) + " s while " + quoted(owner) +
                       " was waiting for resource " + quoted(blockingName) + " held by " +
                       quoted(resources.at(blockingName).owner) + ".");
        }
      }
    }
  }

  // Each optional tree is taken whole when nothing of it is held by another owner.
  void takeOptional(const std::vector<std::set<std::string>>& optionalTrees,
                    const std::string& owner, const std::string& callback) {
    for (const std::set<std::string>& tree : optionalTrees) {
      bool free = true;
      for (const std::string& member : tree) {
        if (heldByOther(resources.at(member), owner)) {
          free = false;
          break;
        }
      }
      if (free) take(tree, owner, callback);
    }
  }

  static std::string describe(const std::vector<std::string>& names) {
    if (names.size() == 1) return "resource " + quoted(names.front());
    std::string text = "resources";
    for (std::size_t i = 0; i < names.size(); ++i) text += (i == 0 ? " " : ", ") + quoted(names[i]);
    return text;
  }

  void askToRelease(const Conflict& conflict, const std::string& requester) {
    const std::shared_ptr<KXBroker> strongBroker = broker.lock();
    std::shared_ptr<KXThreadPool> pool = strongBroker ? strongBroker->getThreadPool() : nullptr;
    auto task = std::make_shared<ConflictCallbackTask>(broker, conflict.owner, conflict.callback,
                                                       conflict.resource, requester);
    task->setName("resource conflict: " + conflict.owner + "::" + conflict.callback);
    if (!pool || !pool->enqueue(task)) {
      TU_LOG(tu::log::warning, kCategory, "KX::KXResourceManager::askToRelease")
          << "Cannot call " << conflict.owner << "::" << conflict.callback << " for resource "
          << quoted(conflict.resource) << ": the broker's thread pool is gone." << std::endl;
    }
  }
};

KXResourceManager::KXResourceManager(const std::shared_ptr<KXBroker>& broker,
                                     const std::string& name)
    : KXModule(broker, name), impl_(std::make_unique<Impl>()) {
  impl_->broker = broker;
  const std::string cls = "KXResourceManager";
  setModuleDescription(
      "Manages shared resources (a robot's legs, its speaker...) so that modules and "
      "behaviours take and release them without fighting. Resources form a tree of groups; "
      "an owner is the name of the module that holds a resource. When a resource is "
      "wanted by someone else, its owner's callback is called so that it can release it. A "
      "disabled resource counts as free and is never held.");

  functionName("areResourcesFree", cls,
               "Tells whether every given resource is free (disabled resources count as free).");
  addParam("resourceNames", "The names of the resources to check.");
  setReturn("free", "True when no given resource is held.");
  bindMethod(&KXResourceManager::areResourcesFree);

  functionName("areResourcesOwnedBy", cls,
               "Tells whether every given resource is held by the given owner.");
  addParam("resourceNames", "The names of the resources to check.");
  addParam("owner", "The owner's name (usually the name of its module).");
  setReturn("owned", "True when the owner holds every given resource.");
  bindMethod(&KXResourceManager::areResourcesOwnedBy);

  functionName("createResource", cls,
               "Creates a free, enabled resource under a parent group. Creating a resource "
               "that already exists changes nothing.");
  addParam("resourceName", "The name of the new resource (unique among all resources).");
  addParam("parentName", "The group it belongs to: an existing resource, or \"\" for the top.");
  bindMethod(&KXResourceManager::createResource);

  functionName("createResourcesList", cls,
               "Creates several resources under the same parent group. Resources that "
               "already exist are left as they are.");
  addParam("resourceNames", "The names of the new resources.");
  addParam("parentName", "The group they belong to: an existing resource, or \"\" for the top.");
  bindMethod(&KXResourceManager::createResourcesList);

  functionName("deleteResource", cls,
               "Deletes a resource. A resource that has children is deleted only when asked "
               "to delete them too.");
  addParam("resourceName", "The name of the resource to delete.");
  addParam("deleteChildren", "True to delete the resource together with all its descendants.");
  bindMethod(&KXResourceManager::deleteResource);

  functionName("enableStateResource", cls,
               "Enables or disables a resource. Disabling frees it: a disabled resource counts "
               "as free and is never held until it is enabled again.");
  addParam("resourceName", "The name of the resource.");
  addParam("enabled", "True to enable the resource, false to disable it.");
  bindMethod(&KXResourceManager::enableStateResource);

  functionName("isInGroup", cls,
               "Tells whether a resource belongs to a group: it is the group itself or one of "
               "its descendants (every resource belongs to the top group \"\").");
  addParam("resourceName", "The name of the resource.");
  addParam("groupName", "The name of the group.");
  setReturn("inGroup", "True when the resource is the group or lies under it.");
  bindMethod(&KXResourceManager::isInGroup);

  functionName("isResourceFree", cls,
               "Tells whether a resource is free (a disabled resource counts as free).");
  addParam("resourceName", "The name of the resource.");
  setReturn("free", "True when nobody holds the resource.");
  bindMethod(&KXResourceManager::isResourceFree);

  functionName("ownersGet", cls, "Lists the held resources with their owners.");
  setReturn("owners", "[[resource, owner], ...] for every held resource, sorted by resource.");
  bindMethod(&KXResourceManager::ownersGet);

  functionName("releaseResource", cls,
               "Releases a resource and those of its descendants the owner holds. Releasing "
               "a free resource does nothing; a resource held by someone else is not "
               "released (error).");
  addParam("resourceName", "The name of the resource to release.");
  addParam("owner", "The owner's name, as given when the resource was taken.");
  bindMethod(&KXResourceManager::releaseResource);

  functionName("releaseResources", cls,
               "Releases several resources (with the descendants the owner holds). Nothing is "
               "released when one of them is unknown or held by someone else.");
  addParam("resourceNames", "The names of the resources to release.");
  addParam("owner", "The owner's name, as given when the resources were taken.");
  bindMethod(&KXResourceManager::releaseResources);

  const std::string waitingNote =
      " While another owner holds what is wanted, that owner's callback (the one it named "
      "when it took the resource) is called once with (resource, requester) so that it can "
      "release, and the call waits until the resource is free. Taking a resource one "
      "already holds succeeds at once.";
  const std::string callbackText =
      "The name of a method of the owner's module, called with (resource, requester) when "
      "someone else wants a resource the owner holds; \"\" for none.";
  const std::string ownerText =
      "The owner's name: the name of the module that takes the resources (its callback is "
      "a method of that module).";
  const std::string timeoutText =
      "How long to wait, in seconds; 0 waits without limit. Waiting longer is an error.";

  functionName("waitForResource", cls, "Takes a resource, waiting for it if needed." + waitingNote);
  addParam("resourceName", "The name of the resource to take.");
  addParam("owner", ownerText);
  addParam("callbackName", callbackText);
  addParam("timeoutSeconds", timeoutText);
  bindMethod(&KXResourceManager::waitForResource);

  functionName("waitForResourcesTree", cls,
               "Takes resources together with all their descendants, all at once or not at "
               "all: nothing is held while waiting, so owners waiting for overlapping trees "
               "never deadlock." +
                   waitingNote);
  addParam("resourceNames", "The names of the resources whose trees to take.");
  addParam("owner", ownerText);
  addParam("callbackName", callbackText);
  addParam("timeoutSeconds", timeoutText);
  bindMethod(&KXResourceManager::waitForResourcesTree);

  functionName("waitForOptionalResourcesTree", cls,
               "As waitForResourcesTree, and when the required trees are taken also takes each "
               "optional tree that is free at that moment (whole, never waiting for it)." +
                   waitingNote);
  addParam("resourceNames", "The names of the required resources whose trees to take.");
  addParam("owner", ownerText);
  addParam("callbackName", callbackText);
  addParam("timeoutSeconds", timeoutText);
  addParam("optionalResourceNames",
           "The names of optional resources: each tree is taken only if it is free.");
  bindMethod(&KXResourceManager::waitForOptionalResourcesTree);
}

KXResourceManager::~KXResourceManager() = default;

void KXResourceManager::exit() {
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->exiting = true;
  }
  impl_->changed.notify_all();
  KXModule::exit();
}

bool KXResourceManager::areResourcesFree(const std::vector<std::string>& resourceNames) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  bool free = true;
  // Every name is checked, so that an unknown one is reported even after a held one.
  for (const std::string& name : resourceNames) {
    if (!impl_->isFree(impl_->find("areResourcesFree", name))) free = false;
  }
  return free;
}

bool KXResourceManager::areResourcesOwnedBy(const std::vector<std::string>& resourceNames,
                                            const std::string& owner) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  bool owned = true;
  for (const std::string& name : resourceNames) {
    const Resource& resource = impl_->find("areResourcesOwnedBy", name);
    if (!resource.enabled || resource.owner.empty() || resource.owner != owner) owned = false;
  }
  return owned;
}

bool KXResourceManager::isInGroup(const std::string& resourceName, const std::string& groupName) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  const Resource* resource = &impl_->find("isInGroup", resourceName);
  if (groupName.empty()) return true;
  impl_->find("isInGroup", groupName);
  if (resourceName == groupName) return true;
  while (!resource->parent.empty()) {
    if (resource->parent == groupName) return true;
    resource = &impl_->resources.at(resource->parent);
  }
  return false;
}

bool KXResourceManager::isResourceFree(const std::string& resourceName) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  return impl_->isFree(impl_->find("isResourceFree", resourceName));
}

KXValue KXResourceManager::ownersGet() {
  KXValue owners;
  owners.arraySetSize(0);
  std::lock_guard<std::mutex> lock(impl_->mutex);
  for (const auto& entry : impl_->resources) {
    if (impl_->isFree(entry.second)) continue;
    KXValue pair;
    pair.arraySetSize(0);
    pair.arrayPush(KXValue(entry.first));
    pair.arrayPush(KXValue(entry.second.owner));
    owners.arrayPush(pair);
  }
  return owners;
}

void KXResourceManager::createResource(const std::string& resourceName,
                                       const std::string& parentName) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  impl_->createOne("createResource", resourceName, parentName);
}

void KXResourceManager::createResourcesList(const std::vector<std::string>& resourceNames,
                                            const std::string& parentName) {
  std::lock_guard<std::mutex> lock(impl_->mutex);
  // All or nothing: a bad parent is reported before anything is created.
  if (!parentName.empty() && impl_->resources.count(parentName) == 0) {
    KX_THROW(kModule, "createResourcesList",
             "Cannot create resources: parent resource " + quoted(parentName) + " does not exist.");
  }
  for (const std::string& name : resourceNames) {
    if (name.empty()) {
      KX_THROW(kModule, "createResourcesList", "A resource name must not be empty.");
    }
  }
  for (const std::string& name : resourceNames) {
    impl_->createOne("createResourcesList", name, parentName);
  }
}

void KXResourceManager::deleteResource(const std::string& resourceName,
                                       const bool& deleteChildren) {
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    const Resource& resource = impl_->find("deleteResource", resourceName);
    if (!resource.children.empty() && !deleteChildren) {
      KX_THROW(kModule, "deleteResource",
               "Cannot delete resource " + quoted(resourceName) +
                   ": it has children (ask to delete them too).");
    }
    const std::string parent = resource.parent;
    impl_->eraseTree(resourceName);
    if (!parent.empty()) impl_->resources.at(parent).children.erase(resourceName);
  }
  // Waiters for a deleted resource end with its error.
  impl_->changed.notify_all();
}

void KXResourceManager::enableStateResource(const std::string& resourceName, const bool& enabled) {
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    Resource& resource = impl_->find("enableStateResource", resourceName);
    resource.enabled = enabled;
    if (!enabled) {
      resource.owner.clear();
      resource.callback.clear();
    }
  }
  impl_->changed.notify_all();
}

void KXResourceManager::releaseResource(const std::string& resourceName, const std::string& owner) {
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->checkRelease("releaseResource", resourceName, owner);
    impl_->release(resourceName, owner);
  }
  impl_->changed.notify_all();
}

void KXResourceManager::releaseResources(const std::vector<std::string>& resourceNames,
                                         const std::string& owner) {
  {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    for (const std::string& name : resourceNames) {
      impl_->checkRelease("releaseResources", name, owner);
    }
    for (const std::string& name : resourceNames) impl_->release(name, owner);
  }
  impl_->changed.notify_all();
}

void KXResourceManager::waitForResource(const std::string& resourceName, const std::string& owner,
                                        const std::string& callbackName,
                                        const int& timeoutSeconds) {
  impl_->acquire("waitForResource", {resourceName}, owner, callbackName, timeoutSeconds, {}, false);
}

void KXResourceManager::waitForResourcesTree(const std::vector<std::string>& resourceNames,
                                             const std::string& owner,
                                             const std::string& callbackName,
                                             const int& timeoutSeconds) {
  impl_->acquire("waitForResourcesTree", resourceNames, owner, callbackName, timeoutSeconds, {},
                 true);
}

void KXResourceManager::waitForOptionalResourcesTree(
    const std::vector<std::string>& resourceNames, const std::string& owner,
    const std::string& callbackName, const int& timeoutSeconds,
    const std::vector<std::string>& optionalResourceNames) {
  impl_->acquire("waitForOptionalResourcesTree", resourceNames, owner, callbackName, timeoutSeconds,
                 optionalResourceNames, true);
}

}  // namespace KX
