#ifndef VELMO_PYTHON_PYPROXY_H_
#define VELMO_PYTHON_PYPROXY_H_

#ifndef PY_SSIZE_T_CLEAN
#define PY_SSIZE_T_CLEAN
#endif
#include <Python.h>

#include <memory>

namespace KX {

class KXProxy;

// Python's `proxy`: calls the methods of one module, wherever it lives in the tree.
// Owns its KXProxy (shared with other users of the same name when it comes from the
// broker's shared proxies). Called by Python with the interpreter lock held; every
// operation releases it around its framework work.
class proxy {
 public:
  // The current broker's shared proxy to the module. Errors: KXError("proxy", "proxy",
  // "NULL value was passed as argument") and KXError("proxy", "proxy", "Could not create
  // a proxy, as there is no current broker in Python's world.").
  explicit proxy(char* name);
  // With `separate`, a proxy of this object's own instead of the shared one.
  proxy(char* name, bool separate);
  // The module as found through the broker at ip:port; needs no current broker.
  // KXError("proxy", "proxy", "NULL values were passed as arguments") for a null name
  // or IP.
  proxy(char* name, char* ip, int port);
  ~proxy();
  proxy(const proxy&) = delete;
  proxy& operator=(const proxy&) = delete;

  // `request` is a list: its first item names the method, the others are the
  // arguments. Anything else calls the empty method name without arguments. Returns
  // the converted result (a new reference).
  PyObject* pythonCall(PyObject* request);
  // The same as a parallel call; returns its task id.
  int pythonPCall(PyObject* request);
  bool wait(int id, int timeout);
  void stop(int id);
  bool isRunning(int id);

 private:
  std::shared_ptr<KXProxy> proxy_;
};

}  // namespace KX

#endif  // VELMO_PYTHON_PYPROXY_H_
