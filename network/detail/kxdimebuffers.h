#ifndef VELMO_NETWORK_DETAIL_KXDIMEBUFFERS_H_
#define VELMO_NETWORK_DETAIL_KXDIMEBUFFERS_H_

#include <stdsoap2.h>

#include <cstddef>
#include <vector>

namespace KX {

// Received DIME attachments are written straight into buffers of ours, one per attachment,
// instead of the runtime's own copy made byte by byte; a Binary value then takes its
// buffer over without copying it. Installed on every context of ours as a runtime plugin,
// so that each copy of a server context gets buffers of its own.

// At most this many attachment bytes are taken in one message: a bound on the memory one
// peer can make us spend (the runtime fails the message beyond it).
constexpr std::size_t kMaxAttachmentBytes = 512u * 1024u * 1024u;

void installDimeBuffers(struct soap* soap);

// The buffer holding the bytes of a received attachment; null when the attachment was not
// received into one of ours.
std::vector<unsigned char>* receivedDimeBuffer(struct soap* soap, const soap_multipart& part);

// Drops the buffers of the last message received.
void clearDimeBuffers(struct soap* soap);

}  // namespace KX

#endif  // VELMO_NETWORK_DETAIL_KXDIMEBUFFERS_H_
