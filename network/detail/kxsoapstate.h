#ifndef VELMO_NETWORK_DETAIL_KXSOAPSTATE_H_
#define VELMO_NETWORK_DETAIL_KXSOAPSTATE_H_

#include <stdsoap2.h>

#include <memory>

namespace KX {

// A record of type T kept with a SOAP context, as a runtime plugin: every copy of the
// context (each served connection) gets a fresh T of its own, destroyed with the copy, so
// the runtime's callbacks can keep state per connection. T names its plugin id in
// `static constexpr char kPluginId[]`.
template <typename T>
class KXSoapState {
 public:
  // Gives `soap` (and every copy made of it later) a T; does nothing when it has one.
  static void install(struct soap* soap) {
    if (of(soap) == nullptr) soap_register_plugin(soap, &create);
  }
  // The context's T; null on a context it was never installed on.
  static T* of(struct soap* soap) {
    return static_cast<T*>(soap_lookup_plugin(soap, T::kPluginId));
  }

 private:
  // The runtime's plugin record holds the T as void* until it calls `destroy`.
  static int create(struct soap* /*soap*/, struct soap_plugin* plugin, void* /*argument*/) {
    plugin->id = T::kPluginId;
    plugin->data = std::make_unique<T>().release();
    plugin->fcopy = &copy;
    plugin->fdelete = &destroy;
    return SOAP_OK;
  }
  static int copy(struct soap* /*soap*/, struct soap_plugin* to, struct soap_plugin* from) {
    *to = *from;
    to->data = std::make_unique<T>().release();
    return SOAP_OK;
  }
  static void destroy(struct soap* /*soap*/, struct soap_plugin* plugin) {
    std::unique_ptr<T> owned(static_cast<T*>(plugin->data));
    plugin->data = nullptr;
  }
};

}  // namespace KX

#endif  // VELMO_NETWORK_DETAIL_KXSOAPSTATE_H_
