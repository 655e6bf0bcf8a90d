#ifndef VELMO_BROKER_DETAIL_KXPROXYCACHE_H_
#define VELMO_BROKER_DETAIL_KXPROXYCACHE_H_

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <shared_mutex>
#include <string>

namespace KX {

class KXProxy;

// A broker's shared proxies, one per module name. A proxy is built outside the lock
// (building one may search the tree); a forget() while it is being built means the module
// it was bound to may already be gone, so the proxy is built again rather than kept. The
// first proxy kept for a name is the one every caller gets until the name is forgotten.
// Thread-safe.
class KXProxyCache {
 public:
  using Build = std::function<std::shared_ptr<KXProxy>()>;

  // The kept proxy to `name`, or the one `build` makes (kept unless a forget() raced it).
  std::shared_ptr<KXProxy> get(const std::string& name, const Build& build);

  // Drops the proxy kept for `name` (its module left or was replaced); builds under way
  // are not kept either.
  void forget(const std::string& name);

  // Forgets every name; the proxies are released outside the lock.
  void clear();

 private:
  // Builds again after this many raced builds, then hands out the last one unkept, so
  // that a name registered over and over cannot hold a caller for ever.
  static constexpr int kBuildsRaced = 4;

  std::shared_mutex lock_;
  std::map<std::string, std::shared_ptr<KXProxy>> proxies_;  // guarded by lock_
  std::uint64_t forgets_ = 0;                                // guarded by lock_
};

}  // namespace KX

#endif  // VELMO_BROKER_DETAIL_KXPROXYCACHE_H_
