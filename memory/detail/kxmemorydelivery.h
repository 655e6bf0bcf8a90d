#ifndef VELMO_MEMORY_DETAIL_KXMEMORYDELIVERY_H_
#define VELMO_MEMORY_DETAIL_KXMEMORYDELIVERY_H_

// How "KXMemory" calls its subscribers back: one FIFO queue per subscription and a
// serial executor over the broker's thread pool (at most one delivery task in flight per
// subscription), so that a subscriber sees its notifications in the order the values
// were set while a slow or failing one holds up nobody else.

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "value/kxvalue.h"

namespace KX {

class KXBroker;

namespace detail {

// One value set under a name, as its subscribers receive it. The value is a snapshot
// taken when it was set, shared by every subscriber of that set.
struct KXMemoryNotification {
  std::string name;
  std::shared_ptr<const KXValue> value;
};

// Whether a subscription was made to an event or to a micro event.
enum class KXSubscriptionKind { kEvent, kMicroEvent };

class KXMemoryDelivery;

// The subscription of one module to one name, with its queue of notifications not yet
// delivered. Owned by the memory's subscription table and, while a delivery task is
// queued or running, by that task. Thread-safe.
class KXMemorySubscriber : public std::enable_shared_from_this<KXMemorySubscriber> {
 public:
  KXMemorySubscriber(std::string name, std::string module, KXSubscriptionKind kind,
                     std::string message, std::string callback);

  const std::string& name() const { return name_; }
  const std::string& module() const { return module_; }
  KXSubscriptionKind kind() const;
  std::string callback() const;
  std::string message() const;

  // Subscribing again: later deliveries, queued ones included, use the new message and
  // callback; the queue keeps its order.
  void replace(KXSubscriptionKind kind, const std::string& message, const std::string& callback);

  // Appends a notification. True when the caller must start a delivery task (none is in
  // flight); false when one already runs or the subscription was cancelled.
  bool push(KXMemoryNotification notification);

  // Drops the queued notifications; nothing is delivered any more (a delivery already
  // under way completes).
  void cancel();

  // The body of a delivery task: delivers queued notifications in order, a bounded
  // batch at a time, then hands over to a fresh task when more are waiting (so that a
  // busy subscriber does not keep a worker to itself).
  void drain(KXMemoryDelivery& delivery);

 private:
  // Constant after construction
  const std::string name_;
  const std::string module_;

  // Guards everything below.
  mutable std::mutex mutex_;
  KXSubscriptionKind kind_;
  std::string message_;
  std::string callback_;
  std::deque<KXMemoryNotification> queue_;
  bool inFlight_ = false;  // a delivery task is queued or running
  bool cancelled_ = false;
};

// What every subscription of one memory module shares: the broker whose pool runs the
// deliveries and through whose proxies the callbacks are called, and the exit switch.
// Held by the module and, for their duration, by the delivery tasks.
class KXMemoryDelivery : public std::enable_shared_from_this<KXMemoryDelivery> {
 public:
  // `dropGone` removes a subscriber whose module no longer exists from the table.
  using DropGone = std::function<void(const std::shared_ptr<KXMemorySubscriber>&)>;

  KXMemoryDelivery(std::weak_ptr<KXBroker> broker, DropGone dropGone);

  // Queues a delivery task for `subscriber` on the broker's pool. When the pool refuses
  // it (broker shut down) or the delivery is closed, the subscriber's queue is dropped.
  void start(const std::shared_ptr<KXMemorySubscriber>& subscriber);

  // From now on no delivery starts (the one under way, if any, completes).
  void close();
  bool isClosed() const;

  // Calls the subscriber's callback with (name, value, message) through the broker's
  // proxy to its module. A failure is logged; a subscriber whose module is no longer
  // found in the broker tree is then dropped.
  void deliver(const std::shared_ptr<KXMemorySubscriber>& subscriber,
               const KXMemoryNotification& notification, const std::string& callback,
               const std::string& message);

 private:
  // Constant after construction
  const std::weak_ptr<KXBroker> broker_;
  const DropGone dropGone_;

  std::atomic<bool> closed_{false};
};

}  // namespace detail
}  // namespace KX

#endif  // VELMO_MEMORY_DETAIL_KXMEMORYDELIVERY_H_
