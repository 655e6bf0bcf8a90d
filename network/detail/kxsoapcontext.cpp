#include "network/detail/kxsoapcontext.h"

#include <sys/socket.h>

#include <utility>

#include "network/detail/kxdimerecords.h"
#include "value/kxerror.h"

// The gSOAP runtime refers to this global table when it initialises a context; every
// context of ours is then given it explicitly too. Our own table rather than the one that
// soapcpp2 writes: the generated one lists the prefixes alphabetically and also accepts the
// SOAP 1.2 envelope and encoding namespaces on input, which the protocol does not.
SOAP_NMAC struct Namespace namespaces[] = {
    {"SOAP-ENV", "http://schemas.xmlsoap.org/soap/envelope/", nullptr, nullptr},
    {"SOAP-ENC", "http://schemas.xmlsoap.org/soap/encoding/", nullptr, nullptr},
    {"xsi", "http://www.w3.org/2001/XMLSchema-instance", "http://www.w3.org/*/XMLSchema-instance",
     nullptr},
    {"xsd", "http://www.w3.org/2001/XMLSchema", "http://www.w3.org/*/XMLSchema", nullptr},
    {"kxbroker", "urn:kxbroker", nullptr, nullptr},
    {"kx", "urn:korvane", nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr},
};

namespace KX {

const struct Namespace* kxBrokerNamespaces() { return namespaces; }

namespace {

constexpr soap_mode kInputMode = SOAP_IO_KEEPALIVE | SOAP_XML_TREE | SOAP_C_UTFSTRING;
// Buffered output: a message's HTTP header and body leave in one send (up to the buffer's
// 64 KiB), which both saves system calls and keeps small calls out of TCP's way.
constexpr soap_mode kOutputMode =
    SOAP_IO_KEEPALIVE | SOAP_IO_BUFFER | SOAP_XML_TREE | SOAP_C_UTFSTRING;

}  // namespace

KXSoapContext::KXSoapContext() : soap_(soap_new2(kInputMode, kOutputMode)) {
  if (soap_ == nullptr) {
    KX_THROW("KXNetwork", "KXSoapContext", "out of memory");
  }
  soap_set_namespaces(soap_, namespaces);
  // A peer that goes away mid-message is an error to report, never a signal that ends the
  // process.
  soap_->socket_flags = MSG_NOSIGNAL;
  // Let the kernel size the socket buffers: large values go faster that way.
  soap_->sndbuf = 0;
  soap_->rcvbuf = 0;
  installDimeRecords(soap_);
}

KXSoapContext::KXSoapContext(struct soap* adopted) : soap_(adopted) {}

KXSoapContext KXSoapContext::copyOf(const KXSoapContext& other) {
  struct soap* copy = soap_copy(other.soap_);
  if (copy == nullptr) {
    KX_THROW("KXNetwork", "copyOf", "out of memory");
  }
  return KXSoapContext(copy);
}

KXSoapContext::KXSoapContext(KXSoapContext&& other) noexcept
    : soap_(std::exchange(other.soap_, nullptr)) {}

KXSoapContext& KXSoapContext::operator=(KXSoapContext&& other) noexcept {
  if (this != &other) {
    release();
    soap_ = std::exchange(other.soap_, nullptr);
  }
  return *this;
}

KXSoapContext::~KXSoapContext() { release(); }

void KXSoapContext::freeMessageData() {
  clearDimeAttachments(soap_);
  soap_destroy(soap_);
  soap_end(soap_);
}

void KXSoapContext::release() {
  if (soap_ != nullptr) {
    soap_destroy(soap_);
    soap_end(soap_);
    soap_free(soap_);
    soap_ = nullptr;
  }
}

}  // namespace KX
