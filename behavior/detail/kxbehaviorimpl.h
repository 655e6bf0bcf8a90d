#ifndef VELMO_BEHAVIOR_DETAIL_KXBEHAVIORIMPL_H_
#define VELMO_BEHAVIOR_DETAIL_KXBEHAVIORIMPL_H_

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <string>
#include <vector>

#include "behavior/kxbehavior.h"
#include "module/kxproxy.h"
#include "proxies/kxmemoryproxy.h"
#include "proxies/kxresourcemanagerproxy.h"
#include "value/kxvalue.h"

namespace KX {

class KXTimeline;

namespace detail {

constexpr char kBehaviorModule[] = "KXBehavior";
constexpr char kBoxCategory[] = "behavior.box";
constexpr char kDeprecatedSince[] = "DEPRECATED since 1.14";

struct KXBehaviorInput {
  std::string name;
  std::vector<std::string> events;  // micro events linked to the input
};

// A forward made by addOutputLink: the output's value goes to module::method.
struct KXBehaviorOutputLink {
  std::string module;
  std::string method;
  bool operator==(const KXBehaviorOutputLink& other) const {
    return module == other.module && method == other.method;
  }
};

struct KXBehaviorOutput {
  bool isBang = false;
  std::vector<KXBehaviorOutputLink> links;
};

struct KXBehaviorParameter {
  KXValue value;
  bool inheritedFromParent = false;
};

// One input or output method to call for a notification.
struct KXBehaviorCall {
  std::string module;  // empty: the box itself
  std::string method;
  bool isInput = true;
};

}  // namespace detail

// Lock order: `mutex` and `timelineMutex` are never held together, and
// none is held while the box calls out of itself.
struct KXBehavior::Impl {
  // Null when the module was not found at construction.
  std::unique_ptr<KXMemoryProxy> memory;
  std::unique_ptr<KXResourceManagerProxy> resourceManager;

  std::mutex mutex;
  std::vector<detail::KXBehaviorInput> inputs;
  std::map<std::string, detail::KXBehaviorOutput> outputs;
  std::set<std::string> subscriptions;
  std::map<std::string, detail::KXBehaviorParameter> parameters;
  std::weak_ptr<KXBehavior> parent;
  bool enabled = true;
  bool loaded = false;
  std::vector<std::string> resourceNames;
  int resourceTimeoutSeconds = 0;
  bool stopped = false;
  std::condition_variable stopChanged;  // waited on with `mutex`

  std::shared_mutex timelineMutex;
  std::shared_ptr<KXTimeline> timeline;
  std::weak_ptr<KXTimeline> parentTimeline;

  // The broker's shared proxy to the box (asked at each notification: the box is
  // registered only after its constructor has run, and the broker keeps the proxy).
  // Throws when the box is no longer registered in a living broker.
  static std::shared_ptr<KXProxy> proxyToSelf(KXModuleCore& box);
  // Throws KXError("KXBehavior", method, ...) without a resource manager.
  KXResourceManagerProxy& resources(const std::string& method);
};

}  // namespace KX

#endif  // VELMO_BEHAVIOR_DETAIL_KXBEHAVIORIMPL_H_
