#include "brokerprogram/watchcommand.h"

#include <signal.h>
#include <unistd.h>

#include <iostream>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>

#include "broker/kxbroker.h"
#include "module/kxmodulecore.h"
#include "module/kxproxy.h"
#include "value/kxerror.h"
#include "value/kxvalue.h"
#include "value/kxvaluejson.h"

namespace velmo {
namespace {

// The module "KXMemory" calls back with each new value; one call at a time, in order.
class Watcher : public KX::KXModule {
 public:
  Watcher(const std::shared_ptr<KX::KXBroker>& broker, const std::string& name, std::ostream& out,
          bool json)
      : KXModule(broker, name), out_(out), json_(json) {
    functionName("onChange", "Watcher", "Prints the new value.");
    addParam("name", "the data name");
    addParam("value", "its new value");
    addParam("message", "the subscription's message");
    bindMethod(&Watcher::onChange);
  }

  void onChange(const std::string&, const KX::KXValue& value, const std::string&) {
    std::lock_guard<std::mutex> lock(mutex_);
    out_ << (json_ ? KX::toJson(value) : value.toString()) << std::endl;
  }

 private:
  std::mutex mutex_;
  std::ostream& out_;
  const bool json_;
};

}  // namespace

int watch(const CommandOptions& options, const std::string& ownIp, std::ostream& out) {
  const std::string name = "velmo-watch-" + std::to_string(getpid());
  const std::shared_ptr<KX::KXBroker> broker = KX::KXBroker::createBroker(
      name, ownIp, 0, options.brokerIp, options.brokerPort, KX::KXBroker::kKeepAlive);
  try {
    KX::createModule<Watcher>(broker, name, out, options.json);
    KX::KXProxy memory(broker, "KXMemory");
    memory.call<void>("subscribeToEvent", options.arguments[0], name, std::string(),
                      std::string("onChange"));
    // On the error stream: what a script reads from the output stays values only.
    std::cerr << "Watching " << options.arguments[0] << " (Ctrl-C to stop)" << std::endl;
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    int received = 0;
    sigwait(&stopSignals, &received);
    memory.call<void>("unsubscribeToEvent", options.arguments[0], name);
  } catch (const KX::KXError&) {
    broker->shutdown();
    throw;
  }
  broker->shutdown();
  return 0;
}

}  // namespace velmo
