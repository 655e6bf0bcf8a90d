#include "broker/detail/kxchildbrokers.h"

#include "broker/kxbrokerproxy.h"

namespace KX {

KXChildBrokers::KXChildBrokers() : lock_(KXMutexRW::create()) {}

std::shared_ptr<KXChildBrokers::Child> KXChildBrokers::add(const KXBrokerInfo& info,
                                                           std::shared_ptr<KXBrokerProxy> proxy) {
  Record record;
  record.child = std::make_shared<Child>(Child{info, std::move(proxy)});
  KXScopedWriteLock guard(lock_);
  Record& slot = children_[info.name];
  std::shared_ptr<Child> previous = std::move(slot.child);
  slot = std::move(record);
  return previous;
}

std::shared_ptr<KXChildBrokers::Child> KXChildBrokers::remove(const std::string& name,
                                                              const Child* only) {
  KXScopedWriteLock guard(lock_);
  auto found = children_.find(name);
  if (found == children_.end() || (only != nullptr && found->second.child.get() != only)) {
    return nullptr;
  }
  std::shared_ptr<Child> removed = std::move(found->second.child);
  children_.erase(found);
  return removed;
}

std::vector<std::shared_ptr<KXChildBrokers::Child>> KXChildBrokers::clear() {
  std::vector<std::shared_ptr<Child>> removed;
  KXScopedWriteLock guard(lock_);
  for (auto& entry : children_) {
    removed.push_back(std::move(entry.second.child));
  }
  children_.clear();
  return removed;
}

bool KXChildBrokers::heartBeat(const std::string& name) {
  KXScopedWriteLock guard(lock_);
  auto found = children_.find(name);
  if (found == children_.end()) {
    return false;
  }
  found->second.beating = true;
  found->second.lastBeat = Clock::now();
  return true;
}

KXChildBrokers::CheckResult KXChildBrokers::check(Clock::time_point now) {
  CheckResult result;
  KXScopedWriteLock guard(lock_);
  for (auto& entry : children_) {
    Record& record = entry.second;
    if (!record.beating) {
      continue;
    }
    // Counted in whole seconds, as beats are.
    if (std::chrono::duration_cast<std::chrono::seconds>(now - record.lastBeat) <=
        kHeartBeatSilence) {
      record.missed = 0;
      continue;
    }
    ++record.missed;
    if (record.missed <= kMaxMissedChecks) {
      result.notResponding.push_back(entry.first);
    } else {
      result.lost.push_back(record.child);
    }
  }
  return result;
}

std::vector<std::shared_ptr<KXChildBrokers::Child>> KXChildBrokers::snapshot() const {
  std::vector<std::shared_ptr<Child>> children;
  KXScopedReadLock guard(lock_);
  children.reserve(children_.size());
  for (const auto& entry : children_) {
    children.push_back(entry.second.child);
  }
  return children;
}

std::vector<KXBrokerInfo> KXChildBrokers::infos() const {
  std::vector<KXBrokerInfo> infos;
  KXScopedReadLock guard(lock_);
  for (const auto& entry : children_) {
    infos.push_back(entry.second.child->info);
  }
  return infos;
}

bool KXChildBrokers::empty() const {
  KXScopedReadLock guard(lock_);
  return children_.empty();
}

}  // namespace KX
