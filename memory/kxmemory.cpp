#include "memory/kxmemory.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <utility>

#include "broker/kxbroker.h"
#include "log/log.h"
#include "memory/detail/kxmemorydelivery.h"
#include "memory/detail/kxmemoryfunctors.h"
#include "memory/detail/kxmemorystore.h"
#include "module/kxfunctorconvert.h"
#include "value/kxerror.h"

namespace KX {

namespace {

constexpr char kModule[] = "KXMemory";
constexpr char kClass[] = "KXMemory";
constexpr char kCategory[] = "core.memory";

using detail::convertFromKXValue;
using detail::KXMemoryStore;
using detail::KXSubscriptionKind;

// Parameter descriptions shared by several methods.
constexpr char kNameHelp[] = "The name of the data.";
constexpr char kEventHelp[] = "The name of the event.";
constexpr char kMicroEventHelp[] = "The name of the micro event.";
constexpr char kValueHelp[] = "The value to store: any value (Int, Float, String, Array, ...).";
constexpr char kModuleHelp[] =
    "The name of the subscribing module: its callback method is called through a proxy to it.";
constexpr char kMessageHelp[] =
    "A text handed back unchanged as the third argument of every notification.";
constexpr char kCallbackHelp[] =
    "The name of the subscriber's method that is called with (name, value, message) "
    "whenever the value is set.";

std::string notSubscribed(const std::string& module, const char* what, const std::string& name) {
  return "Module \"" + module + "\" is not subscribed to " + what + " \"" + name + "\".";
}

void checkSubscription(const char* method, const std::string& name, const std::string& module,
                       const std::string& callback) {
  if (module.empty() || callback.empty()) {
    KX_THROW(kModule, method,
             "A subscription to \"" + name + "\" needs a module name and a callback name.");
  }
}

}  // namespace

struct KXMemory::Impl {
  explicit Impl(const std::shared_ptr<KXBroker>& broker)
      : store(std::make_shared<KXMemoryStore>()),
        delivery(std::make_shared<detail::KXMemoryDelivery>(
            broker, [weakStore = std::weak_ptr<KXMemoryStore>(store)](
                        const std::shared_ptr<detail::KXMemorySubscriber>& subscriber) {
              if (const auto live = weakStore.lock()) live->drop(subscriber);
            })) {}

  // Stores, then starts the deliveries that are not under way yet (outside the store's
  // lock: the pool takes locks of its own).
  void set(const std::string& name, const KXValue& value, KXMemoryStore::Declare declare) {
    for (const auto& subscriber : store->set(name, value, declare)) delivery->start(subscriber);
  }

  // Constant after construction; both thread-safe.
  const std::shared_ptr<KXMemoryStore> store;
  const std::shared_ptr<detail::KXMemoryDelivery> delivery;
};

KXMemory::KXMemory(const std::shared_ptr<KXBroker>& broker, const std::string& name)
    : KXModule(broker, name), impl_(std::make_unique<Impl>(broker)) {
  describeAndBind();
}

KXMemory::~KXMemory() {
  // Tasks still queued on the pool hold the delivery state, not this object: close it
  // so that they end without calling anyone.
  impl_->delivery->close();
  impl_->store->close();
}

void KXMemory::exit() {
  impl_->delivery->close();
  impl_->store->close();
  KXModule::exit();
}

// ---------------------------------------------------------------- data

void KXMemory::insertData(const std::string& name, const KXValue& value) {
  impl_->set(name, value, KXMemoryStore::Declare::kNothing);
}

void KXMemory::insertListData(const KXValue& list) {
  const char* expected = "Expected an Array of [name, value] pairs";
  if (list.getType() != KXValue::TypeArray) {
    KX_THROW(
        kModule, "insertListData",
        std::string(expected) + " but received a " + KXValue::TypeToString(list.getType()) + ".");
  }
  for (int i = 0; i < list.getSize(); ++i) {
    const KXValue& pair = list[i];
    if (pair.getType() != KXValue::TypeArray || pair.getSize() != 2 ||
        pair[0].getType() != KXValue::TypeString) {
      KX_THROW(kModule, "insertListData",
               std::string(expected) + ", but element " + std::to_string(i) + " is " +
                   pair.toString(1) + ".");
    }
  }
  for (int i = 0; i < list.getSize(); ++i) {
    insertData(static_cast<const std::string&>(list[i][0]), list[i][1]);
  }
}

KXValue KXMemory::getData(const std::string& name) { return impl_->store->get(name, "getData"); }

KXValue KXMemory::getListData(const KXValue& names) {
  if (names.getType() != KXValue::TypeArray) {
    KX_THROW(kModule, "getListData",
             "Expected an Array of names but received a " + KXValue::TypeToString(names.getType()) +
                 ".");
  }
  KXValue values;
  values.arraySetSize(names.getSize());
  for (int i = 0; i < names.getSize(); ++i) {
    // A name that is no String names no data: Invalid, like an unknown name.
    if (names[i].getType() == KXValue::TypeString) {
      values[i] = impl_->store->getOrInvalid(static_cast<const std::string&>(names[i]));
    }
  }
  return values;
}

KXValue KXMemory::getDataOnChange(const std::string& name, const int& timeoutMs) {
  if (timeoutMs < 0) {
    KX_THROW(kModule, "getDataOnChange",
             "The timeout must be 0 (no limit) or a positive number of milliseconds, not " +
                 std::to_string(timeoutMs) + ".");
  }
  const std::shared_ptr<detail::KXChangeWaiter> waiter = impl_->store->addWaiter(name);
  {
    // Only the waiter's own mutex is held while waiting, never the store's.
    std::unique_lock<std::mutex> lock(waiter->mutex);
    if (timeoutMs == 0) {
      waiter->changed.wait(lock, [&] { return waiter->done; });
    } else {
      waiter->changed.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                               [&] { return waiter->done; });
    }
  }
  // Unregistered before the final look: a set racing with the timeout either reached
  // the waiter before this or will not find it any more.
  impl_->store->removeWaiter(name, waiter);
  std::lock_guard<std::mutex> lock(waiter->mutex);
  if (waiter->aborted) {
    KX_THROW(kModule, "getDataOnChange",
             "The module is exiting: stopped waiting for data \"" + name + "\" to change.");
  }
  if (!waiter->done) {
    KX_THROW(kModule, "getDataOnChange",
             "Timed out after " + std::to_string(timeoutMs) + " ms waiting for data \"" + name +
                 "\" to change.");
  }
  return *waiter->value;
}

void* KXMemory::getDataPtr(const std::string& name) {
  return impl_->store->getPointer(name, "getDataPtr");
}

void KXMemory::removeData(const std::string& name) { impl_->store->remove(name); }

std::vector<std::string> KXMemory::getDataList(const std::string& filter) {
  return impl_->store->names(filter);
}

std::vector<std::string> KXMemory::getDataListName() { return impl_->store->names(""); }

std::string KXMemory::getType(const std::string& name) {
  return impl_->store->typeName(name, "getType");
}

KXValue KXMemory::getTimestamp(const std::string& name) {
  return impl_->store->timestamp(name, "getTimestamp");
}

void KXMemory::setDescription(const std::string& name, const std::string& description) {
  impl_->store->setDescription(name, description, "setDescription");
}

KXValue KXMemory::getDescriptionList(const std::vector<std::string>& names) {
  const std::vector<std::string> listed = names.empty() ? impl_->store->names("") : names;
  KXValue descriptions;
  descriptions.arraySetSize(0);
  for (const std::string& name : listed) descriptions.arrayPush(impl_->store->describe(name));
  return descriptions;
}

KXValue KXMemory::getEventHistory(const std::string& name) {
  return impl_->store->history(name, "getEventHistory");
}

// ---------------------------------------------------------------- events

void KXMemory::declareEvent(const std::string& name) { impl_->store->declareEvent(name, ""); }

void KXMemory::declareEvent(const std::string& name, const std::string& extractorName) {
  impl_->store->declareEvent(name, extractorName);
}

void KXMemory::raiseEvent(const std::string& name, const KXValue& value) {
  impl_->set(name, value, KXMemoryStore::Declare::kEvent);
}

void KXMemory::raiseMicroEvent(const std::string& name, const KXValue& value) {
  impl_->set(name, value, KXMemoryStore::Declare::kMicroEvent);
}

void KXMemory::removeMicroEvent(const std::string& name) { impl_->store->removeMicroEvent(name); }

std::vector<std::string> KXMemory::getEventList() { return impl_->store->events(); }

std::vector<std::string> KXMemory::getMicroEventList() { return impl_->store->microEvents(); }

std::vector<std::string> KXMemory::getExtractorEvent(const std::string& extractorName) {
  return impl_->store->eventsOfExtractor(extractorName);
}

// ---------------------------------------------------------------- subscriptions

void KXMemory::subscribeToEvent(const std::string& name, const std::string& module,
                                const std::string& callback) {
  subscribeToEvent(name, module, "", callback);
}

void KXMemory::subscribeToEvent(const std::string& name, const std::string& module,
                                const std::string& message, const std::string& callback) {
  checkSubscription("subscribeToEvent", name, module, callback);
  impl_->store->subscribe(name, module, KXSubscriptionKind::kEvent, message, callback);
}

void KXMemory::subscribeToMicroEvent(const std::string& name, const std::string& module,
                                     const std::string& message, const std::string& callback) {
  checkSubscription("subscribeToMicroEvent", name, module, callback);
  impl_->store->subscribe(name, module, KXSubscriptionKind::kMicroEvent, message, callback);
}

void KXMemory::unsubscribeToEvent(const std::string& name, const std::string& module) {
  if (!impl_->store->unsubscribe(name, module, KXSubscriptionKind::kEvent)) {
    KX_THROW(kModule, "unsubscribeToEvent", notSubscribed(module, "event", name));
  }
}

void KXMemory::unsubscribeToMicroEvent(const std::string& name, const std::string& module) {
  if (!impl_->store->unsubscribe(name, module, KXSubscriptionKind::kMicroEvent)) {
    KX_THROW(kModule, "unsubscribeToMicroEvent", notSubscribed(module, "micro event", name));
  }
}

std::vector<std::string> KXMemory::getSubscribers(const std::string& name) {
  return impl_->store->subscribers(name);
}

void KXMemory::unregisterModuleReference(const std::string& module) {
  impl_->store->unsubscribeModule(module);
}

// ---------------------------------------------------------------- description

void KXMemory::describeAndBind() {
  setModuleDescription(
      "Shared memory of the broker tree. Programs store values under names, read them, "
      "wait for their changes, and subscribe to be called back whenever a name's value is "
      "set. Events and micro events are names that are raised (stored and notified); "
      "behaviour boxes are wired through micro events.");

  functionName("declareEvent", kClass,
               "Declares an event, so that it appears in the event list. "
               "declareEvent(name) declares it; declareEvent(name, extractorName) also "
               "records the extractor that raises it (see getExtractorEvent).");
  addParam("name", kEventHelp);
  addParam("extractorName", "Optional: the name of the extractor (module) that raises the event.",
           true);
  bindMethod(std::make_shared<detail::KXMemoryOverloadFunctor<void, std::string>>(
                 [this](const std::string& name) { declareEvent(name); },
                 [this](const KXValue& params, KXValue&) {
                   const int count = detail::memoryArgumentCount(params, "declareEvent", 1, 2);
                   const std::string name = convertFromKXValue<std::string>(params[0]);
                   if (count == 1) {
                     declareEvent(name);
                   } else {
                     declareEvent(name, convertFromKXValue<std::string>(params[1]));
                   }
                 }),
             {"string", "string"}, "void");

  functionName("getData", kClass,
               "Gets the value stored under a name. getData(name) is the form to use; "
               "getData(name, deprecatedParameter) is deprecated and ignores its second "
               "argument. An unknown name is an error.");
  addParam("name", kNameHelp);
  addParam("deprecatedParameter", "Optional and deprecated: ignored.", true);
  setReturn("value", "The value stored under the name.");
  bindMethod(std::make_shared<detail::KXMemoryOverloadFunctor<KXValue, std::string>>(
                 [this](const std::string& name) { return getData(name); },
                 [this](const KXValue& params, KXValue& result) {
                   const int count = detail::memoryArgumentCount(params, "getData", 1, 2);
                   const std::string name = convertFromKXValue<std::string>(params[0]);
                   if (count == 2) {
                     convertFromKXValue<int>(params[1]);
                     TU_LOG(tu::log::warning, kCategory, "KX::KXMemory::getData")
                         << "getData(name, int) is deprecated. You should use getData(name)."
                         << std::endl;
                   }
                   result = getData(name);
                 }),
             {"string", "int"}, "array");

  functionName("getDataList", kClass, "Gets the names of the data whose name contains a text.");
  addParam("filter", "The text to look for in the names (an empty text matches every name).");
  setReturn("names", "The matching names, sorted.");
  bindMethod(&KXMemory::getDataList);

  functionName("getDataListName", kClass, "Gets the names of all the data.");
  setReturn("names", "Every name holding a value, sorted.");
  bindMethod(&KXMemory::getDataListName);

  functionName("getDataOnChange", kClass,
               "Waits for the next change of a value and returns the new value. The name "
               "need not exist yet. A timeout, or the module exiting, ends the wait with an "
               "error.");
  addParam("name", kNameHelp);
  addParam("timeoutMs", "The longest wait in milliseconds; 0 waits without limit.");
  setReturn("value", "The value set under the name.");
  bindMethod(&KXMemory::getDataOnChange);

  functionName("getDataPtr", kClass,
               "Gets the address of the stored value, for callers in the same process only "
               "(a call from another process is refused). The address stays valid until the "
               "name is removed.");
  addParam("name", kNameHelp);
  setReturn("pointer", "The address of the stored KXValue.");
  bindMethod(std::make_shared<detail::KXDataPointerFunctor>(
                 [this](const std::string& name) { return getDataPtr(name); }),
             {"string"}, "void *");

  functionName("getDescriptionList", kClass, "Gets the type and the description of named data.");
  addParam("names",
           "The names to describe; an empty list describes every name. An unknown name "
           "reads as type \"Invalid\" with an empty description.");
  setReturn("descriptions", "[[name, type name, description], ...] in the order asked.");
  bindMethod(&KXMemory::getDescriptionList);

  functionName("getEventHistory", kClass,
               "Gets the last values set under a name (at most 32) with their times.");
  addParam("name", kNameHelp);
  setReturn("history", "[[value, seconds, microseconds], ...], oldest first.");
  bindMethod(&KXMemory::getEventHistory);

  functionName("getEventList", kClass, "Gets the names of the declared events.");
  setReturn("events", "The event names, sorted.");
  bindMethod(&KXMemory::getEventList);

  functionName("getExtractorEvent", kClass, "Gets the events that an extractor raises.");
  addParam("extractorName", "The extractor named when its events were declared.");
  setReturn("events", "The names of its events, sorted.");
  bindMethod(&KXMemory::getExtractorEvent);

  functionName("getListData", kClass, "Gets several values at once.");
  addParam("names", "An Array of names.");
  setReturn("values", "One value per name, in order; Invalid for an unknown name.");
  bindMethod(&KXMemory::getListData);

  functionName("getMicroEventList", kClass, "Gets the names of the micro events.");
  setReturn("microEvents", "The micro event names, sorted.");
  bindMethod(&KXMemory::getMicroEventList);

  functionName("getSubscribers", kClass, "Gets the modules subscribed to a name.");
  addParam("name", "The name of the event, micro event or data.");
  setReturn("modules", "The subscribed module names, sorted.");
  bindMethod(&KXMemory::getSubscribers);

  functionName("getTimestamp", kClass, "Gets a value with the time it was last set.");
  addParam("name", kNameHelp);
  setReturn("timestamp", "[value, seconds, microseconds]");
  bindMethod(&KXMemory::getTimestamp);

  functionName("getType", kClass, "Gets the type of the value stored under a name.");
  addParam("name", kNameHelp);
  setReturn("type", "The type name: Invalid, Array, Bool, Int, Float, String, Object or Binary.");
  bindMethod(&KXMemory::getType);

  functionName("insertData", kClass,
               "Stores a copy of a value under a name, stamps it with the current time and "
               "notifies the name's subscribers. The value may be of any type (int, float, "
               "string or array forms alike).");
  addParam("name", kNameHelp);
  addParam("value", kValueHelp);
  bindMethod(std::make_shared<detail::KXMemoryOverloadFunctor<void, std::string, KXValue>>(
                 [this](const std::string& name, const KXValue& value) { insertData(name, value); },
                 [this](const KXValue& params, KXValue&) {
                   detail::memoryArgumentCount(params, "insertData", 2, 2);
                   insertData(convertFromKXValue<std::string>(params[0]), params[1]);
                 }),
             {"string", "array"}, "void");

  functionName("insertListData", kClass,
               "Stores several values at once, as insertData does for each, in order.");
  addParam("list", "An Array of [name, value] pairs; any other shape is refused whole.");
  bindMethod(&KXMemory::insertListData);

  functionName("raiseEvent", kClass,
               "Raises an event: declares it when needed, stores the value and notifies the "
               "subscribers.");
  addParam("name", kEventHelp);
  addParam("value", kValueHelp);
  bindMethod(&KXMemory::raiseEvent);

  functionName("raiseMicroEvent", kClass,
               "Raises a micro event: adds it to the micro event list when needed, stores the "
               "value and notifies the subscribers.");
  addParam("name", kMicroEventHelp);
  addParam("value", kValueHelp);
  bindMethod(&KXMemory::raiseMicroEvent);

  functionName("removeData", kClass,
               "Removes the value stored under a name (an unknown name is ignored). Its "
               "subscriptions stay.");
  addParam("name", kNameHelp);
  bindMethod(&KXMemory::removeData);

  functionName("removeMicroEvent", kClass,
               "Removes a micro event, its value and its subscriptions (queued notifications "
               "are dropped). An unknown name is ignored.");
  addParam("name", kMicroEventHelp);
  bindMethod(&KXMemory::removeMicroEvent);

  functionName("setDescription", kClass, "Sets the description text of existing data.");
  addParam("name", kNameHelp);
  addParam("description", "The text that describes the data.");
  bindMethod(&KXMemory::setDescription);

  functionName("subscribeToEvent", kClass,
               "Subscribes a module to an event (declared when needed): whenever the event's "
               "value is set, the module's callback method is called with (name, value, "
               "message). subscribeToEvent(name, module, callback) subscribes with an empty "
               "message; subscribeToEvent(name, module, message, callback) with the message. "
               "One subscription per module and name: subscribing again replaces it.");
  addParam("name", kEventHelp);
  addParam("module", kModuleHelp);
  addParam("message",
           "Optional (the three-argument form leaves it out): " + std::string(kMessageHelp), true);
  addParam("callback", kCallbackHelp);
  bindMethod(std::make_shared<detail::KXMemoryOverloadFunctor<void, std::string, std::string,
                                                              std::string, std::string>>(
                 [this](const std::string& name, const std::string& module,
                        const std::string& message, const std::string& callback) {
                   subscribeToEvent(name, module, message, callback);
                 },
                 [this](const KXValue& params, KXValue&) {
                   // The argument count, not the position, tells the forms apart: the callback
                   // is always the last argument.
                   const int count = detail::memoryArgumentCount(params, "subscribeToEvent", 3, 4);
                   const std::string name = convertFromKXValue<std::string>(params[0]);
                   const std::string module = convertFromKXValue<std::string>(params[1]);
                   if (count == 3) {
                     subscribeToEvent(name, module, convertFromKXValue<std::string>(params[2]));
                   } else {
                     const std::string message = convertFromKXValue<std::string>(params[2]);
                     subscribeToEvent(name, module, message,
                                      convertFromKXValue<std::string>(params[3]));
                   }
                 }),
             {"string", "string", "string", "string"}, "void");

  functionName("subscribeToMicroEvent", kClass,
               "Subscribes a module to a micro event (added to the micro event list when "
               "needed): whenever its value is set, the module's callback method is called "
               "with (name, value, message). One subscription per module and name: "
               "subscribing again replaces it.");
  addParam("name", kMicroEventHelp);
  addParam("module", kModuleHelp);
  addParam("message", kMessageHelp);
  addParam("callback", kCallbackHelp);
  bindMethod(&KXMemory::subscribeToMicroEvent);

  functionName("unregisterModuleReference", kClass,
               "Drops every subscription of a module (its queued notifications too).");
  addParam("module", "The name of the module.");
  bindMethod(&KXMemory::unregisterModuleReference);

  functionName("unsubscribeToEvent", kClass,
               "Ends a module's subscription to an event; an unknown subscription is an "
               "error.");
  addParam("name", kEventHelp);
  addParam("module", "The name of the subscribed module.");
  bindMethod(&KXMemory::unsubscribeToEvent);

  functionName("unsubscribeToMicroEvent", kClass,
               "Ends a module's subscription to a micro event; an unknown subscription is an "
               "error.");
  addParam("name", kMicroEventHelp);
  addParam("module", "The name of the subscribed module.");
  bindMethod(&KXMemory::unsubscribeToMicroEvent);
}

}  // namespace KX
