#include "python/pyproxy.h"

#include <string>
#include <utility>

#include "broker/kxbroker.h"
#include "broker/kxbrokermanager.h"
#include "module/kxproxy.h"
#include "python/pycurrentbroker.h"
#include "python/pygil.h"
#include "python/pyvalue.h"
#include "value/kxerror.h"

namespace KX {
namespace {

std::shared_ptr<KXBroker> currentBrokerForProxy(const char* name) {
  if (name == nullptr) KX_THROW("proxy", "proxy", "NULL value was passed as argument");
  std::shared_ptr<KXBroker> current = python::currentBroker();
  if (!current) {
    KX_THROW("proxy", "proxy",
             "Could not create a proxy, as there is no current broker in Python's world.");
  }
  return current;
}

// A request split into the method name and the argument Array (Invalid without
// arguments). Runs with the interpreter lock held.
struct Request {
  std::string method;
  KXValue params;
};

Request splitRequest(PyObject* request) {
  Request split;
  if (!PyList_Check(request)) return split;
  const Py_ssize_t count = PyList_GET_SIZE(request);
  for (Py_ssize_t i = 0; i < count; ++i) {
    KXValue item = python::pyToValue(PyList_GET_ITEM(request, i));
    if (i == 0) {
      // A name of another type is read the way a value reads as a string: bytes
      // become text, anything else is the value's type error.
      split.method = static_cast<const std::string&>(item);
    } else {
      split.params.arrayPush(std::move(item));
    }
  }
  return split;
}

}  // namespace

proxy::proxy(char* name) {
  const std::shared_ptr<KXBroker> current = currentBrokerForProxy(name);
  python::ScopedGILRelease release;
  proxy_ = current->getProxy(name);
}

proxy::proxy(char* name, bool separate) {
  const std::shared_ptr<KXBroker> current = currentBrokerForProxy(name);
  python::ScopedGILRelease release;
  proxy_ = separate ? std::make_shared<KXProxy>(current, name, 0) : current->getProxy(name);
}

proxy::proxy(char* name, char* ip, int port) {
  if (name == nullptr || ip == nullptr) {
    KX_THROW("proxy", "proxy", "NULL values were passed as arguments");
  }
  python::ScopedGILRelease release;
  proxy_ =
      std::make_shared<KXProxy>(KXBrokerManager::getInstance()->getEmptyBroker(), name, ip, port);
}

proxy::~proxy() {
  // Closing a remote proxy's connection may wait on the network; a call still using the
  // connection keeps it open until that call ends.
  python::ScopedGILRelease release;
  proxy_.reset();
}

PyObject* proxy::pythonCall(PyObject* request) {
  const Request split = splitRequest(request);
  KXValue result;
  {
    python::ScopedGILRelease release;
    result = proxy_->genericCall(split.method, split.params);
  }
  return python::valueToPy(result);
}

int proxy::pythonPCall(PyObject* request) {
  const Request split = splitRequest(request);
  python::ScopedGILRelease release;
  return proxy_->genericPCall(split.method, split.params);
}

bool proxy::wait(int id, int timeout) {
  python::ScopedGILRelease release;
  return proxy_->wait(id, timeout);
}

void proxy::stop(int id) {
  python::ScopedGILRelease release;
  proxy_->stop(id);
}

bool proxy::isRunning(int id) {
  python::ScopedGILRelease release;
  return proxy_->isRunning(id);
}

}  // namespace KX
