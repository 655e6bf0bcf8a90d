#include "broker/detail/kxproxycache.h"

#include <mutex>
#include <utility>

namespace KX {

std::shared_ptr<KXProxy> KXProxyCache::get(const std::string& name, const Build& build) {
  std::uint64_t forgetsBefore = 0;
  {
    std::shared_lock<std::shared_mutex> guard(lock_);
    auto found = proxies_.find(name);
    if (found != proxies_.end()) return found->second;
    forgetsBefore = forgets_;
  }
  std::shared_ptr<KXProxy> built;
  for (int attempt = 0; attempt < kBuildsRaced; ++attempt) {
    built = build();
    std::unique_lock<std::shared_mutex> guard(lock_);
    if (forgets_ == forgetsBefore) {
      // A proxy kept by a racing build of the same name wins: one shared proxy per name.
      return proxies_.try_emplace(name, std::move(built)).first->second;
    }
    forgetsBefore = forgets_;
  }
  return built;
}

void KXProxyCache::forget(const std::string& name) {
  std::shared_ptr<KXProxy> stale;
  std::unique_lock<std::shared_mutex> guard(lock_);
  ++forgets_;
  auto found = proxies_.find(name);
  if (found == proxies_.end()) return;
  stale = std::move(found->second);
  proxies_.erase(found);
}

void KXProxyCache::clear() {
  std::map<std::string, std::shared_ptr<KXProxy>> stale;
  std::unique_lock<std::shared_mutex> guard(lock_);
  ++forgets_;
  stale.swap(proxies_);
}

}  // namespace KX
