#ifndef VELMO_MEMORY_KXRESOURCEMANAGER_H_
#define VELMO_MEMORY_KXRESOURCEMANAGER_H_

#include <memory>
#include <string>
#include <vector>

#include "module/kxmodulecore.h"
#include "value/kxvalue.h"

namespace KX {

class KXBroker;

// The module "KXResourceManager": shared resources (a robot's legs, its speaker) that
// owners take and release without fighting.
//
// A resource has a name, a parent group ("" at the top), an owner ("" when free) and an
// enabled flag. Resources form a tree: a group is an ordinary resource with children.
// An owner is a name; by convention the name of the owner's module, since a conflict
// callback named by an owner is called as a method of the module of that name.
//
// Taking: waitForResource takes one resource; the tree variants take the named resources
// and all their descendants at once or not at all, so owners waiting for overlapping
// trees never hold part of what they want and never deadlock. When a wanted resource is
// held by another owner, that owner's callback (named when it took the resource) is
// called once per wait with (resource, requester) on the broker's thread pool, so that it
// can release (for a tree, only for the topmost resource it holds in the way: releasing
// a resource also releases the descendants the same owner holds). A disabled resource
// counts as free and is never held.
//
// Resources of an owner whose module goes away stay held until released through
// releaseResource/releaseResources: the manager does not watch modules.
//
// Thread-safety: every method may be called concurrently. Waiting never holds the
// module's lock; exit ends every wait with a KXError.
class KXResourceManager : public KXModule {
 public:
  KXResourceManager(const std::shared_ptr<KXBroker>& broker, const std::string& name);
  ~KXResourceManager() override;

  // Ends every wait with a KXError, then exits as every module does.
  void exit() override;

  // ---- Queries
  // True when every named resource is free (or disabled).
  bool areResourcesFree(const std::vector<std::string>& resourceNames);
  // True when every named resource is held by `owner`.
  bool areResourcesOwnedBy(const std::vector<std::string>& resourceNames, const std::string& owner);
  // True when `resourceName` is `groupName` or one of its descendants.
  bool isInGroup(const std::string& resourceName, const std::string& groupName);
  bool isResourceFree(const std::string& resourceName);
  // [[resource, owner], ...] for every held resource, sorted by resource name.
  KXValue ownersGet();

  // ---- The resource tree
  // Creating an existing resource changes nothing; the parent ("" for the top) must exist.
  void createResource(const std::string& resourceName, const std::string& parentName);
  void createResourcesList(const std::vector<std::string>& resourceNames,
                           const std::string& parentName);
  // A resource with children is deleted only with `deleteChildren` (the whole subtree).
  void deleteResource(const std::string& resourceName, const bool& deleteChildren);
  // Disabling frees the resource (its owner loses it) and keeps it free until enabled.
  void enableStateResource(const std::string& resourceName, const bool& enabled);

  // ---- Taking and releasing
  // Releasing a free resource does nothing; a resource held by another owner is an error.
  void releaseResource(const std::string& resourceName, const std::string& owner);
  void releaseResources(const std::vector<std::string>& resourceNames, const std::string& owner);
  // `callbackName` ("" for none) is the method of module `owner` called with
  // (resource, requester) when someone else wants what `owner` holds. `timeoutSeconds`
  // 0 waits without limit.
  void waitForResource(const std::string& resourceName, const std::string& owner,
                       const std::string& callbackName, const int& timeoutSeconds);
  void waitForResourcesTree(const std::vector<std::string>& resourceNames, const std::string& owner,
                            const std::string& callbackName, const int& timeoutSeconds);
  // As waitForResourcesTree, and also takes those trees of `optionalResourceNames` that
  // are free at the moment the required ones are taken (never waiting for them).
  void waitForOptionalResourcesTree(const std::vector<std::string>& resourceNames,
                                    const std::string& owner, const std::string& callbackName,
                                    const int& timeoutSeconds,
                                    const std::vector<std::string>& optionalResourceNames);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace KX

#endif  // VELMO_MEMORY_KXRESOURCEMANAGER_H_
