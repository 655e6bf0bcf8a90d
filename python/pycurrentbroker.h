#ifndef VELMO_PYTHON_PYCURRENTBROKER_H_
#define VELMO_PYTHON_PYCURRENTBROKER_H_

#include <memory>

namespace KX {

class KXBroker;

namespace python {

// The broker of Python's world: the one that `module(name)`, `proxy(name)` and the
// Python broker's operations act on. A weak handle, set by the broker constructor and
// by setInstance: it never keeps a broker alive (the broker manager holds the brokers),
// and a broker that has been shut down and dropped reads as none. Thread-safe; the
// interpreter lock is never asked for under its lock.
std::shared_ptr<KXBroker> currentBroker();
void setCurrentBroker(const std::shared_ptr<KXBroker>& broker);

// The brokers that Python created, which the exit hook shuts down (most recent first)
// before the interpreter goes away. Brokers adopted from a host are the host's to stop.
void rememberCreatedBroker(const std::shared_ptr<KXBroker>& broker);
void shutdownCreatedBrokers();

}  // namespace python
}  // namespace KX

#endif  // VELMO_PYTHON_PYCURRENTBROKER_H_
