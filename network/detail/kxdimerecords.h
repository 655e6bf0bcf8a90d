#ifndef VELMO_NETWORK_DETAIL_KXDIMERECORDS_H_
#define VELMO_NETWORK_DETAIL_KXDIMERECORDS_H_

#include <stdsoap2.h>
#include <sys/uio.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "value/kxvalue.h"

namespace KX {

// DIME messages of ours are framed here rather than by the runtime, so that a Binary
// value's bytes are never copied on their way: they leave by a gathering send straight
// from the value's buffer, and arrive by receives straight into the buffer the value then
// takes over.

// At most this many attachment bytes are taken in one message: a bound on the memory one
// peer can make us spend (the message fails beyond it).
constexpr std::size_t kMaxAttachmentBytes = 512u * 1024u * 1024u;

// Attachment bytes are given room this many at a time as they come: a record that claims
// more than its peer sends costs memory for what was sent only.
constexpr std::size_t kAttachmentReadStep = 1024u * 1024u;

// How every attachment of ours is typed and named.
constexpr char kAttachmentType[] = "application/octet-stream";
constexpr char kAttachmentId[] = "image";

// The records of a message to send: the envelope (id "cid:id0"), then one attachment per
// Binary leaf (kAttachmentType, kAttachmentId), as the runtime writes them.
// The envelope and the leaves are referenced, not copied: they must outlive the sending.
class DimeMessage {
 public:
  DimeMessage(const std::string& envelope, const std::vector<const KXValue*>& leaves);

  // The length of all records: the HTTP Content-Length.
  std::size_t size() const { return size_; }

  // The pieces to send, in order: `head`, then the records.
  std::vector<iovec> pieces(std::string_view head) const;

 private:
  // Record headers and paddings: framing_[k] goes before payloads_[k], the last one after
  // the last payload.
  std::vector<std::string> framing_;
  std::vector<std::string_view> payloads_;
  std::size_t size_ = 0;
};

void installDimeRecords(struct soap* soap);

// Reads the attachment records of a DIME message whose envelope record readSoapEnvelope
// has read (chunked records joined into one attachment), each into a buffer of its own.
// SOAP_OK, or the runtime's error code (SOAP_EOF when the message ends early, SOAP_EOM
// beyond kMaxAttachmentBytes, SOAP_DIME_MISMATCH for a record of another DIME version,
// SOAP_DIME_ERROR for an envelope in chunks).
int receiveDimeAttachments(struct soap* soap);

// Gives the k-th Binary leaf of `value` the k-th attachment received (its buffer, not a
// copy); leaves beyond the attachments keep the bytes of their XML form.
void takeAttachments(struct soap* soap, KXValue& value);

// Drops the attachments of the last message received.
void clearDimeAttachments(struct soap* soap);

}  // namespace KX

#endif  // VELMO_NETWORK_DETAIL_KXDIMERECORDS_H_
