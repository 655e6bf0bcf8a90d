#include "network/detail/kxdimerecords.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>

#include "network/detail/kxsoapio.h"
#include "network/detail/kxsoapstate.h"
#include "network/detail/kxvaluesoap.h"

namespace KX {

namespace {

constexpr char kEnvelopeId[] = "cid:id0";
constexpr char kEnvelopeType[] = "http://schemas.xmlsoap.org/soap/envelope/";
constexpr std::size_t kHeaderBytes = 12;

std::size_t paddingOf(std::size_t size) { return (4 - size % 4) % 4; }

// A record's 12-byte header, then its id and type, each padded to 4 bytes (a record
// carries no options here).
void appendRecordStart(std::string& out, unsigned char flags, unsigned char typeFormat,
                       std::string_view id, std::string_view type, std::size_t dataSize) {
  const auto put16 = [&out](std::size_t v) {
    out.push_back(static_cast<char>(v >> 8));
    out.push_back(static_cast<char>(v));
  };
  out.push_back(static_cast<char>(SOAP_DIME_VERSION | flags));
  out.push_back(static_cast<char>(typeFormat));
  put16(0);
  put16(id.size());
  put16(type.size());
  put16(dataSize >> 16);
  put16(dataSize & 0xFFFF);
  for (const std::string_view field : {id, type}) {
    out.append(field).append(paddingOf(field.size()), '\0');
  }
}

}  // namespace

DimeMessage::DimeMessage(const std::string& envelope, const std::vector<const KXValue*>& leaves) {
  framing_.emplace_back();
  appendRecordStart(framing_.back(), SOAP_DIME_MB | (leaves.empty() ? SOAP_DIME_ME : 0),
                    SOAP_DIME_ABSURI, kEnvelopeId, kEnvelopeType, envelope.size());
  payloads_.emplace_back(envelope);
  for (std::size_t k = 0; k < leaves.size(); ++k) {
    const KXValue::TKXValueBinary& bytes = leaves[k]->getBinary();
    framing_.emplace_back(paddingOf(payloads_.back().size()), '\0');
    appendRecordStart(framing_.back(), k + 1 == leaves.size() ? SOAP_DIME_ME : 0, SOAP_DIME_MEDIA,
                      kAttachmentId, kAttachmentType, bytes.size());
    payloads_.emplace_back(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  }
  framing_.emplace_back(paddingOf(payloads_.back().size()), '\0');
  for (std::size_t k = 0; k < payloads_.size(); ++k) {
    size_ += framing_[k].size() + payloads_[k].size();
  }
  size_ += framing_.back().size();
}

std::vector<iovec> DimeMessage::pieces(std::string_view head) const {
  std::vector<iovec> out;
  out.reserve(2 * payloads_.size() + 2);
  const auto add = [&out](std::string_view bytes) {
    if (!bytes.empty()) out.push_back({const_cast<char*>(bytes.data()), bytes.size()});
  };
  add(head);
  for (std::size_t k = 0; k < payloads_.size(); ++k) {
    add(framing_[k]);
    add(payloads_[k]);
  }
  add(framing_.back());
  return out;
}

namespace {

struct ReceivedAttachments {
  static constexpr char kPluginId[] = "velmo-dime-attachments";
  std::vector<KXValue::TKXValueBinary> buffers;
};

ReceivedAttachments* receivedOf(struct soap* soap) {
  return KXSoapState<ReceivedAttachments>::of(soap);
}

// Takes the next `size` bytes of the message through the context's buffer, copying them to
// `out` unless it is null: for record headers, fields and paddings, which are small (data
// goes through readMessageBytes).
bool takeBuffered(struct soap* soap, unsigned char* out, std::size_t size) {
  while (size > 0) {
    if (soap->bufidx == soap->buflen) {
      soap->bufidx = 0;
      soap->buflen = soap->frecv(soap, soap->buf, sizeof(soap->buf));
      if (soap->buflen == 0) return false;
    }
    const std::size_t taken = std::min(size, soap->buflen - soap->bufidx);
    if (out != nullptr) {
      std::memcpy(out, soap->buf + soap->bufidx, taken);
      out += taken;
    }
    soap->bufidx += taken;
    size -= taken;
  }
  return true;
}

bool skip(struct soap* soap, std::size_t size) { return takeBuffered(soap, nullptr, size); }

std::size_t field16(const unsigned char* at) { return std::size_t{at[0]} << 8 | at[1]; }

int failWith(struct soap* soap, int error) { return soap->error = error; }

// Makes room in `buffer` for it to grow to `wanted` bytes, without touching the room: at once
// for up to kReserveAhead bytes beyond what it holds, further by doubling as it fills (a
// record's header may claim far more than its peer ever sends). A large buffer is fresh
// memory that its first writes fault in page by page; asking for large pages there makes
// that one fault per 2 MiB.
void reserveForAttachment(KXValue::TKXValueBinary& buffer, std::size_t wanted) {
  constexpr std::uintptr_t kLargePage = 2u * 1024u * 1024u;
  constexpr std::size_t kReserveAhead = 64u * 1024u * 1024u;
  const std::size_t size =
      std::min(wanted, std::max(buffer.size() + kReserveAhead, 2 * buffer.capacity()));
  if (buffer.capacity() >= size) return;
  buffer.reserve(size);
  if (size >= 2 * kLargePage) {
    const auto first = reinterpret_cast<std::uintptr_t>(buffer.data() + buffer.size());
    const std::uintptr_t begin = (first + kLargePage - 1) & ~(kLargePage - 1);
    const std::uintptr_t end =
        (reinterpret_cast<std::uintptr_t>(buffer.data()) + size) & ~(kLargePage - 1);
    if (begin < end) {
      ::madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
    }
  }
}

// Reads the `size` data bytes of a record onto the end of `buffer`, which grows by
// kAttachmentReadStep at a time as the bytes come.
bool receiveRecordData(struct soap* soap, KXValue::TKXValueBinary& buffer, std::size_t size) {
  for (std::size_t left = size; left > 0;) {
    const std::size_t at = buffer.size();
    const std::size_t step = std::min(left, kAttachmentReadStep);
    reserveForAttachment(buffer, at + left);
    buffer.resize(at + step);
    if (!readMessageBytes(soap, reinterpret_cast<char*>(buffer.data()) + at, step)) return false;
    left -= step;
  }
  return true;
}

}  // namespace

void installDimeRecords(struct soap* soap) { KXSoapState<ReceivedAttachments>::install(soap); }

int receiveDimeAttachments(struct soap* soap) {
  // The envelope record was read whole; one in chunks would have been read in part.
  if ((soap->dime.flags & SOAP_DIME_CF) != 0) {
    return failWith(soap, SOAP_DIME_ERROR);
  }
  if (!skip(soap, paddingOf(soap->dime.size))) {
    return failWith(soap, SOAP_EOF);
  }
  std::vector<KXValue::TKXValueBinary>& buffers = receivedOf(soap)->buffers;
  std::size_t total = 0;
  bool last = (soap->dime.flags & SOAP_DIME_ME) != 0;
  bool continued = false;  // the record goes on the chunk before it
  while (!last) {
    unsigned char header[kHeaderBytes];
    if (!takeBuffered(soap, header, kHeaderBytes)) {
      return failWith(soap, SOAP_EOF);
    }
    if ((header[0] & 0xF8) != SOAP_DIME_VERSION) {
      return failWith(soap, SOAP_DIME_MISMATCH);
    }
    const std::size_t options = field16(header + 2);
    const std::size_t id = field16(header + 4);
    const std::size_t type = field16(header + 6);
    const std::size_t size = field16(header + 8) << 16 | field16(header + 10);
    if (size > kMaxAttachmentBytes - total) {
      return failWith(soap, SOAP_EOM);
    }
    total += size;
    if (!skip(soap, options + paddingOf(options) + id + paddingOf(id) + type + paddingOf(type))) {
      return failWith(soap, SOAP_EOF);
    }
    if (!continued) buffers.emplace_back();
    if (!receiveRecordData(soap, buffers.back(), size) || !skip(soap, paddingOf(size))) {
      return failWith(soap, SOAP_EOF);
    }
    continued = (header[0] & SOAP_DIME_CF) != 0;
    last = (header[0] & SOAP_DIME_ME) != 0;
  }
  return SOAP_OK;
}

void takeAttachments(struct soap* soap, KXValue& value) {
  ReceivedAttachments* received = receivedOf(soap);
  if (received == nullptr || received->buffers.empty()) {
    return;
  }
  std::vector<KXValue*> leaves;
  collectBinaryLeaves(value, leaves);
  const std::size_t taken = std::min(leaves.size(), received->buffers.size());
  for (std::size_t k = 0; k < taken; ++k) {
    leaves[k]->getBinary().swap(received->buffers[k]);
  }
}

void clearDimeAttachments(struct soap* soap) {
  if (ReceivedAttachments* received = receivedOf(soap)) {
    received->buffers.clear();
  }
}

}  // namespace KX
