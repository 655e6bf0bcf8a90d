#include "module/kxmodulecore.h"
#include "module/kxtaskmonitor.h"

namespace KX {

namespace {

constexpr char kBuiltinClass[] = "KXModule";
constexpr char kTaskIdDescription[] =
    "The ID of the method that was returned when calling the method using 'post'";

}  // namespace

KXModule::KXModule(const std::shared_ptr<KXModuleHost>& host, const std::string& name)
    : KXModuleCore(host, name, DeferBuiltins{}) {
  bindBuiltinMethods([this] {
    functionName("wait", kBuiltinClass,
                 "Wait for the end of a long running method that was called using 'post'");
    addParam("id", kTaskIdDescription);
    addParam("timeoutPeriod",
             "The timeout period in ms. To wait indefinately, use a timeoutPeriod of zero.");
    setReturn("timedOut", "True if the timeout period terminated. False if the method returned.");
    bindMethod(&KXModule::wait);

    functionName("isRunning", kBuiltinClass, "Returns true if the method is currently running.");
    addParam("id", kTaskIdDescription);
    setReturn("running", "True if the method is currently running");
    bindMethod(&KXModule::isRunning);

    functionName("stop", kBuiltinClass, "returns true if the method is currently running");
    addParam("id", "the ID of the method to wait for");
    bindMethod(&KXModule::stop);
  });
}

KXModule::~KXModule() = default;

std::string KXModule::getContentPage() { return "<html><body></body></html>"; }

bool KXModule::wait(const int& id, const int& timeoutPeriod) {
  return getTaskMonitor()->wait(id, timeoutPeriod);
}

bool KXModule::isRunning(const int& id) { return getTaskMonitor()->isRunning(id); }

void KXModule::stop(const int& id) { getTaskMonitor()->stop(id); }

}  // namespace KX
