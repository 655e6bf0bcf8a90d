#include "thread/kxconditionmanager.h"

namespace KX {

KXConditionManager::KXConditionManager() = default;

KXConditionManager::~KXConditionManager() = default;

void KXConditionManager::add(const std::string& name) {
  if (name.empty()) return;
  Entry entry{KXCondition::create(), KXMutex::create(), std::make_shared<std::uint64_t>(0)};
  std::lock_guard<std::mutex> guard(mutex_);
  entries_[name] = std::move(entry);
}

bool KXConditionManager::find(const std::string& name, Entry& entry) {
  std::lock_guard<std::mutex> guard(mutex_);
  auto found = entries_.find(name);
  if (found == entries_.end()) return false;
  entry = found->second;
  return true;
}

void KXConditionManager::wait(const std::string& name) {
  Entry entry;
  if (!find(name, entry)) return;
  KXScopedLock guard(entry.mutex);
  const std::uint64_t seen = *entry.triggers;
  while (*entry.triggers == seen) entry.condition->wait(*entry.mutex);
}

void KXConditionManager::trigger(const std::string& name) {
  Entry entry;
  if (!find(name, entry)) return;
  KXScopedLock guard(entry.mutex);
  ++*entry.triggers;
  entry.condition->broadcast();
}

}  // namespace KX
