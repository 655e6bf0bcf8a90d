#include "memory/detail/kxmemorystore.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "value/kxerror.h"

namespace KX {
namespace detail {

namespace {

constexpr char kModule[] = "KXMemory";

KXMemoryTime now() {
  const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
  const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(sinceEpoch).count();
  KXMemoryTime time;
  time.seconds = static_cast<int>(micros / 1000000);
  time.microseconds = static_cast<int>(micros % 1000000);
  return time;
}

KXValue stamped(const KXValue& value, const KXMemoryTime& time) {
  KXValue triple;
  triple.arraySetSize(3);
  triple[0] = value;
  triple[1] = time.seconds;
  triple[2] = time.microseconds;
  return triple;
}

template <typename Map>
std::vector<std::string> keysOf(const Map& map) {
  std::vector<std::string> keys;
  keys.reserve(map.size());
  for (const auto& entry : map) keys.push_back(entry.first);
  return keys;
}

void wake(const std::vector<std::shared_ptr<KXChangeWaiter>>& waiters,
          const std::shared_ptr<const KXValue>& value) {
  for (const auto& waiter : waiters) {
    {
      std::lock_guard<std::mutex> lock(waiter->mutex);
      waiter->done = true;
      if (value) {
        waiter->value = value;
      } else {
        waiter->aborted = true;
      }
    }
    waiter->changed.notify_all();
  }
}

}  // namespace

std::vector<std::shared_ptr<KXMemorySubscriber>> KXMemoryStore::set(const std::string& name,
                                                                    const KXValue& value,
                                                                    Declare declare) {
  // One snapshot per set, shared by the history, the waiters and every subscriber.
  auto snapshot = std::make_shared<const KXValue>(value);
  std::vector<std::shared_ptr<KXMemorySubscriber>> toStart;
  std::vector<std::shared_ptr<KXChangeWaiter>> waiters;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (declare == Declare::kEvent) events_.emplace(name, std::string());
    if (declare == Declare::kMicroEvent) microEvents_.insert(name);

    Entry& entry = data_[name];
    *entry.value = value;
    entry.time = now();
    entry.history.push_back(Stamped{snapshot, entry.time});
    if (entry.history.size() > kHistoryLength) entry.history.pop_front();

    waiters = takeWaiters(name);

    // Queued under the store's lock: every subscriber's queue follows the order in which
    // concurrent sets took this lock.
    const auto subscribed = subscriptions_.find(name);
    if (subscribed != subscriptions_.end()) {
      for (const auto& subscription : subscribed->second) {
        if (subscription.second->push(KXMemoryNotification{name, snapshot})) {
          toStart.push_back(subscription.second);
        }
      }
    }
  }
  wake(waiters, snapshot);
  return toStart;
}

const KXMemoryStore::Entry& KXMemoryStore::find(const std::string& name, const char* method) const {
  const auto found = data_.find(name);
  if (found == data_.end()) KX_THROW(kModule, method, "Data \"" + name + "\" does not exist.");
  return found->second;
}

KXValue KXMemoryStore::get(const std::string& name, const char* method) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return *find(name, method).value;
}

KXValue KXMemoryStore::getOrInvalid(const std::string& name) const {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto found = data_.find(name);
  return found == data_.end() ? KXValue() : *found->second.value;
}

KXValue* KXMemoryStore::getPointer(const std::string& name, const char* method) {
  std::lock_guard<std::mutex> lock(mutex_);
  return find(name, method).value.get();
}

bool KXMemoryStore::remove(const std::string& name) {
  std::lock_guard<std::mutex> lock(mutex_);
  return data_.erase(name) != 0;
}

std::vector<std::string> KXMemoryStore::names(const std::string& filter) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> found;
  for (const auto& entry : data_) {
    if (entry.first.find(filter) != std::string::npos) found.push_back(entry.first);
  }
  return found;  // sorted: the map is
}

std::string KXMemoryStore::typeName(const std::string& name, const char* method) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return KXValue::TypeToString(find(name, method).value->getType());
}

KXValue KXMemoryStore::timestamp(const std::string& name, const char* method) const {
  std::lock_guard<std::mutex> lock(mutex_);
  const Entry& entry = find(name, method);
  return stamped(*entry.value, entry.time);
}

void KXMemoryStore::setDescription(const std::string& name, const std::string& description,
                                   const char* method) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto found = data_.find(name);
  if (found == data_.end()) KX_THROW(kModule, method, "Data \"" + name + "\" does not exist.");
  found->second.description = description;
}

KXValue KXMemoryStore::describe(const std::string& name) const {
  KXValue line;
  line.arraySetSize(3);
  line[0] = name;
  std::lock_guard<std::mutex> lock(mutex_);
  const auto found = data_.find(name);
  if (found == data_.end()) {
    line[1] = KXValue::TypeToString(KXValue::TypeInvalid);
    line[2] = std::string();
  } else {
    line[1] = KXValue::TypeToString(found->second.value->getType());
    line[2] = found->second.description;
  }
  return line;
}

KXValue KXMemoryStore::history(const std::string& name, const char* method) const {
  KXValue list;
  list.arraySetSize(0);
  std::lock_guard<std::mutex> lock(mutex_);
  for (const Stamped& item : find(name, method).history) {
    list.arrayPush(stamped(*item.value, item.time));
  }
  return list;
}

// ---------------------------------------------------------------- events

void KXMemoryStore::declareEvent(const std::string& name, const std::string& extractor) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::string& recorded = events_[name];
  if (!extractor.empty()) recorded = extractor;
}

std::vector<std::string> KXMemoryStore::events() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return keysOf(events_);
}

std::vector<std::string> KXMemoryStore::microEvents() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return std::vector<std::string>(microEvents_.begin(), microEvents_.end());
}

std::vector<std::string> KXMemoryStore::eventsOfExtractor(const std::string& extractor) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> found;
  for (const auto& event : events_) {
    if (event.second == extractor) found.push_back(event.first);
  }
  return found;
}

void KXMemoryStore::removeMicroEvent(const std::string& name) {
  Subscribers removed;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    microEvents_.erase(name);
    data_.erase(name);
    const auto subscribed = subscriptions_.find(name);
    if (subscribed != subscriptions_.end()) {
      removed.swap(subscribed->second);
      subscriptions_.erase(subscribed);
    }
  }
  for (const auto& entry : removed) entry.second->cancel();
}

// ---------------------------------------------------------------- subscriptions

void KXMemoryStore::subscribe(const std::string& name, const std::string& module,
                              KXSubscriptionKind kind, const std::string& message,
                              const std::string& callback) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (kind == KXSubscriptionKind::kEvent) {
    events_.emplace(name, std::string());
  } else {
    microEvents_.insert(name);
  }
  std::shared_ptr<KXMemorySubscriber>& subscriber = subscriptions_[name][module];
  if (subscriber) {
    subscriber->replace(kind, message, callback);
  } else {
    subscriber = std::make_shared<KXMemorySubscriber>(name, module, kind, message, callback);
  }
}

bool KXMemoryStore::unsubscribe(const std::string& name, const std::string& module,
                                KXSubscriptionKind kind) {
  std::shared_ptr<KXMemorySubscriber> removed;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto subscribed = subscriptions_.find(name);
    if (subscribed == subscriptions_.end()) return false;
    const auto found = subscribed->second.find(module);
    if (found == subscribed->second.end() || found->second->kind() != kind) return false;
    removed = std::move(found->second);
    subscribed->second.erase(found);
    if (subscribed->second.empty()) subscriptions_.erase(subscribed);
  }
  removed->cancel();
  return true;
}

std::vector<std::string> KXMemoryStore::subscribers(const std::string& name) const {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto subscribed = subscriptions_.find(name);
  if (subscribed == subscriptions_.end()) return {};
  return keysOf(subscribed->second);
}

void KXMemoryStore::unsubscribeModule(const std::string& module) {
  std::vector<std::shared_ptr<KXMemorySubscriber>> removed;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto subscribed = subscriptions_.begin(); subscribed != subscriptions_.end();) {
      const auto found = subscribed->second.find(module);
      if (found != subscribed->second.end()) {
        removed.push_back(std::move(found->second));
        subscribed->second.erase(found);
      }
      if (subscribed->second.empty()) {
        subscribed = subscriptions_.erase(subscribed);
      } else {
        ++subscribed;
      }
    }
  }
  for (const auto& subscriber : removed) subscriber->cancel();
}

void KXMemoryStore::drop(const std::shared_ptr<KXMemorySubscriber>& subscriber) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto subscribed = subscriptions_.find(subscriber->name());
  if (subscribed == subscriptions_.end()) return;
  const auto found = subscribed->second.find(subscriber->module());
  // A new subscription made since then by a module of that name stays.
  if (found == subscribed->second.end() || found->second != subscriber) return;
  subscribed->second.erase(found);
  if (subscribed->second.empty()) subscriptions_.erase(subscribed);
}

// ---------------------------------------------------------------- waiting

std::shared_ptr<KXChangeWaiter> KXMemoryStore::addWaiter(const std::string& name) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (closed_) {
    KX_THROW(kModule, "getDataOnChange",
             "The module is exiting: stopped waiting for data \"" + name + "\" to change.");
  }
  auto waiter = std::make_shared<KXChangeWaiter>();
  waiters_.emplace(name, waiter);
  return waiter;
}

void KXMemoryStore::removeWaiter(const std::string& name,
                                 const std::shared_ptr<KXChangeWaiter>& waiter) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto range = waiters_.equal_range(name);
  for (auto it = range.first; it != range.second; ++it) {
    if (it->second == waiter) {
      waiters_.erase(it);
      return;
    }
  }
}

std::vector<std::shared_ptr<KXChangeWaiter>> KXMemoryStore::takeWaiters(const std::string& name) {
  std::vector<std::shared_ptr<KXChangeWaiter>> taken;
  const auto range = waiters_.equal_range(name);
  for (auto it = range.first; it != range.second; ++it) taken.push_back(std::move(it->second));
  waiters_.erase(range.first, range.second);
  return taken;
}

void KXMemoryStore::close() {
  std::vector<std::shared_ptr<KXChangeWaiter>> waiters;
  std::vector<std::shared_ptr<KXMemorySubscriber>> subscribers;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    closed_ = true;
    for (auto& entry : waiters_) waiters.push_back(std::move(entry.second));
    waiters_.clear();
    for (const auto& subscribed : subscriptions_) {
      for (const auto& entry : subscribed.second) subscribers.push_back(entry.second);
    }
  }
  wake(waiters, nullptr);
  for (const auto& subscriber : subscribers) subscriber->cancel();
}

}  // namespace detail
}  // namespace KX
