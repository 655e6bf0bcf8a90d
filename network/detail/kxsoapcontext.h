#ifndef VELMO_NETWORK_DETAIL_KXSOAPCONTEXT_H_
#define VELMO_NETWORK_DETAIL_KXSOAPCONTEXT_H_

#include <stdsoap2.h>

namespace KX {

// Owns one gSOAP context (`struct soap`) for the broker protocol. A context is used by one
// thread at a time: a server copies its listening context for each accepted connection
// (copyOf) and hands the copy to the thread that serves it.
//
// A new context keeps connections alive in both directions, writes and reads plain XML trees
// (the protocol uses no id/href references), carries strings as UTF-8 bytes unchanged, and
// uses the broker namespace table. Destruction frees the context's data and closes its
// socket.
class KXSoapContext {
 public:
  KXSoapContext();
  ~KXSoapContext();

  KXSoapContext(const KXSoapContext&) = delete;
  KXSoapContext& operator=(const KXSoapContext&) = delete;

  // A copy of `other` (modes, timeouts, callbacks, socket), for another thread. Raises
  // KXError ("KXNetwork", "copyOf", "out of memory") when gSOAP cannot allocate it.
  static KXSoapContext copyOf(const KXSoapContext& other);

  KXSoapContext(KXSoapContext&& other) noexcept;
  KXSoapContext& operator=(KXSoapContext&& other) noexcept;

  // Never null, except in a context that was moved from.
  struct soap* get() const {
    return soap_;
  }
  struct soap* operator->() const {
    return soap_;
  }

  // Frees the data that gSOAP allocated for the last message (strings, arrays, records read
  // or built with the context), keeping the connection.
  void freeMessageData();

 private:
  explicit KXSoapContext(struct soap* adopted);
  void release();

  struct soap* soap_;
};

// The namespace table of the broker protocol, in its registration order: SOAP-ENV (SOAP 1.1
// envelope), SOAP-ENC, xsi and xsd (2001 written, any year accepted), kxbroker
// ("urn:kxbroker"), kx ("urn:korvane").
const struct Namespace* kxBrokerNamespaces();

}  // namespace KX

#endif  // VELMO_NETWORK_DETAIL_KXSOAPCONTEXT_H_
