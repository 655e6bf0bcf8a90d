#ifndef VELMO_PYTHON_PYBROKER_H_
#define VELMO_PYTHON_PYBROKER_H_

#include "value/kxvalue.h"

namespace KX {

// Python's `broker`: creating one makes this process a member of a broker tree, as its
// root (empty parent IP) or as a child of the broker at the parent's address. The new
// broker becomes the current broker of Python's world; the object itself holds nothing,
// so dropping it leaves the broker running until shutdown(). Every operation acts on
// the current broker. Called by Python with the interpreter lock held; each one
// releases it around its framework work.
class broker {
 public:
  // Prints "ivelmo-broker: construct at <ip>:<port>, parent : <parentIp>:<parentPort>",
  // creates the broker (keep-alive, network launched; a root also hosts KXMemory and
  // KXResourceManager). Null arguments: KXError("broker", "broker", "NULL values were
  // passed as arguments"); creation errors pass through.
  broker(char* name, char* ip, int port, char* parentIp, int parentPort);
  // Leaves the broker running: it stops on shutdown() or at interpreter exit.
  ~broker();
  broker(const broker&) = delete;
  broker& operator=(const broker&) = delete;

  // Shuts the current broker down (nothing without one).
  void shutdown();
  // False without a current broker.
  bool isModulePresent(char* name);
  // [[name], [name], ...] for every module of the tree below the current broker;
  // Invalid (None) without one.
  KXValue getGlobalModuleList();
};

// Makes the broker that a host process created, at `address`, the current broker of
// Python's world. The address must be that of a broker listed by this process's broker
// manager: anything else is refused with KXError("broker", "setInstance", ...) without
// being read.
void setInstance(long address);

}  // namespace KX

#endif  // VELMO_PYTHON_PYBROKER_H_
