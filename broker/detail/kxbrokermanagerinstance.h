#ifndef VELMO_BROKER_DETAIL_KXBROKERMANAGERINSTANCE_H_
#define VELMO_BROKER_DETAIL_KXBROKERMANAGERINSTANCE_H_

#include <memory>

namespace KX {

class KXBrokerManager;

namespace detail {

// The process-wide broker manager when there is one, without creating it. A broker that
// shuts down leaves the manager through this: at process exit the manager is being
// destroyed and must not be created again.
std::shared_ptr<KXBrokerManager> existingBrokerManager();

}  // namespace detail
}  // namespace KX

#endif  // VELMO_BROKER_DETAIL_KXBROKERMANAGERINSTANCE_H_
