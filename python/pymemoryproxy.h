#ifndef VELMO_PYTHON_PYMEMORYPROXY_H_
#define VELMO_PYTHON_PYMEMORYPROXY_H_

#include "proxies/kxmemoryproxy.h"

namespace KX {

// A memory proxy through the current broker of Python's world, or, without one (or when
// that fails), one built without arguments. Never throws: a proxy that could not be
// bound throws its error from every method instead ("There is no current broker defined
// in BrokerManager." when there is no broker at all).
KXMemoryProxy getMemoryProxy();

}  // namespace KX

#endif  // VELMO_PYTHON_PYMEMORYPROXY_H_
