#include "memory/detail/kxmemorydelivery.h"

#include <exception>
#include <utility>

#include "broker/kxbroker.h"
#include "log/log.h"
#include "module/kxmoduleinfo.h"
#include "module/kxproxy.h"
#include "thread/kxtask.h"
#include "thread/kxthreadpool.h"
#include "value/kxerror.h"

namespace KX {
namespace detail {

namespace {

constexpr char kCategory[] = "core.memory";
constexpr char kNotifyFunction[] = "KX::KXMemory::notify";

// Notifications one task delivers before it hands over to a fresh task: large enough to
// keep the per-task cost low under bursts, small enough that other queued work gets a
// worker in between.
constexpr int kBatch = 16;

// One turn of a subscriber's serial executor.
class KXMemoryDeliveryTask : public KXTask {
 public:
  KXMemoryDeliveryTask(std::shared_ptr<KXMemorySubscriber> subscriber,
                       std::weak_ptr<KXMemoryDelivery> delivery)
      : subscriber_(std::move(subscriber)), delivery_(std::move(delivery)) {}

  void run() override {
    if (const std::shared_ptr<KXMemoryDelivery> delivery = delivery_.lock()) {
      subscriber_->drain(*delivery);
    } else {
      // The memory module is gone: nobody is left to deliver for.
      subscriber_->cancel();
    }
  }

 private:
  const std::shared_ptr<KXMemorySubscriber> subscriber_;
  const std::weak_ptr<KXMemoryDelivery> delivery_;
};

}  // namespace

// ---------------------------------------------------------------- subscriber

KXMemorySubscriber::KXMemorySubscriber(std::string name, std::string module,
                                       KXSubscriptionKind kind, std::string message,
                                       std::string callback)
    : name_(std::move(name)),
      module_(std::move(module)),
      kind_(kind),
      message_(std::move(message)),
      callback_(std::move(callback)) {}

KXSubscriptionKind KXMemorySubscriber::kind() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return kind_;
}

std::string KXMemorySubscriber::callback() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return callback_;
}

std::string KXMemorySubscriber::message() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return message_;
}

void KXMemorySubscriber::replace(KXSubscriptionKind kind, const std::string& message,
                                 const std::string& callback) {
  std::lock_guard<std::mutex> lock(mutex_);
  kind_ = kind;
  message_ = message;
  callback_ = callback;
}

bool KXMemorySubscriber::push(KXMemoryNotification notification) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (cancelled_) return false;
  queue_.push_back(std::move(notification));
  if (inFlight_) return false;
  inFlight_ = true;
  return true;
}

void KXMemorySubscriber::cancel() {
  std::deque<KXMemoryNotification> dropped;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    cancelled_ = true;
    inFlight_ = false;
    dropped.swap(queue_);
  }
  // The snapshots are released here, outside the lock.
}

void KXMemorySubscriber::drain(KXMemoryDelivery& delivery) {
  for (int delivered = 0; delivered < kBatch; ++delivered) {
    KXMemoryNotification next;
    std::string callback;
    std::string message;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      // Checked under the lock that push takes: a notification queued after this
      // check starts a task of its own.
      if (cancelled_ || queue_.empty() || delivery.isClosed()) {
        inFlight_ = false;
        if (delivery.isClosed()) queue_.clear();
        return;
      }
      next = std::move(queue_.front());
      queue_.pop_front();
      callback = callback_;
      message = message_;
    }
    delivery.deliver(shared_from_this(), next, callback, message);
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (cancelled_ || queue_.empty()) {
      inFlight_ = false;
      return;
    }
  }
  // Still in flight: the next turn continues in queue order.
  delivery.start(shared_from_this());
}

// ---------------------------------------------------------------- delivery

KXMemoryDelivery::KXMemoryDelivery(std::weak_ptr<KXBroker> broker, DropGone dropGone)
    : broker_(std::move(broker)), dropGone_(std::move(dropGone)) {}

void KXMemoryDelivery::start(const std::shared_ptr<KXMemorySubscriber>& subscriber) {
  if (!closed_.load()) {
    if (const std::shared_ptr<KXBroker> broker = broker_.lock()) {
      if (const std::shared_ptr<KXThreadPool> pool = broker->getThreadPool()) {
        auto task = std::make_shared<KXMemoryDeliveryTask>(subscriber, weak_from_this());
        task->setName("notify: " + subscriber->module() + " of " + subscriber->name());
        if (pool->enqueue(task)) return;
      }
    }
  }
  // No pool will ever run it: the queue would only grow.
  subscriber->cancel();
}

void KXMemoryDelivery::close() { closed_.store(true); }

bool KXMemoryDelivery::isClosed() const { return closed_.load(); }

void KXMemoryDelivery::deliver(const std::shared_ptr<KXMemorySubscriber>& subscriber,
                               const KXMemoryNotification& notification,
                               const std::string& callback, const std::string& message) {
  const std::shared_ptr<KXBroker> broker = broker_.lock();
  if (!broker) {
    subscriber->cancel();
    return;
  }
  std::string failure;
  try {
    KXValue params;
    params.arraySetSize(3);
    params[0] = notification.name;
    params[1] = *notification.value;
    params[2] = message;
    broker->getProxy(subscriber->module())->genericCall(callback, params);
    return;
  } catch (const std::exception& error) {
    failure = error.what();
  } catch (...) {
    failure = "unknown error";
  }

  TU_LOG(tu::log::warning, kCategory, kNotifyFunction)
      << "Cannot notify module \"" << subscriber->module() << "\" (callback \"" << callback
      << "\") of a change of \"" << notification.name << "\": " << failure << std::endl;

  KXModuleInfo found;
  if (broker->getModuleByName(subscriber->module(), false, found) != 0) {
    subscriber->cancel();
    if (dropGone_) dropGone_(subscriber);
    TU_LOG(tu::log::warning, kCategory, kNotifyFunction)
        << "Module \"" << subscriber->module() << "\" no longer exists: its subscription to \""
        << subscriber->name() << "\" is dropped." << std::endl;
  }
}

}  // namespace detail
}  // namespace KX
