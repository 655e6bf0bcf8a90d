#include "network/detail/kxsoapio.h"

#include <algorithm>
#include <vector>

#include "network/detail/kxbrokermessage.h"
#include "network/detail/kxdimebuffers.h"
#include "network/detail/kxvaluesoap.h"

namespace KX {

namespace {

constexpr const char* kAttachmentType = "application/octet-stream";
constexpr const char* kAttachmentId = "image";

}  // namespace

bool readSoapEnvelope(struct soap* soap, std::string& envelope) {
  const std::size_t limit = kBrokerMessageMaxBytes + 1;
  std::size_t expected = limit;  // a chunked body ends with its last chunk
  if ((soap->mode & SOAP_ENC_DIME) != 0) {
    expected = soap->dime.size;
  } else if ((soap->mode & SOAP_IO) != SOAP_IO_CHUNK) {
    expected = static_cast<std::size_t>(std::min<ULONG64>(soap->length, limit));
  }
  if (expected > limit) {
    expected = limit;
  }
  envelope.clear();
  // The runtime may have looked one character ahead while reading the HTTP header.
  if (soap->ahead != 0 && expected > 0) {
    envelope.push_back(static_cast<char>(soap->ahead));
    soap->ahead = 0;
  }
  while (envelope.size() < expected) {
    if (soap->bufidx >= soap->buflen) {
      if (soap_recv(soap) != SOAP_OK) {
        // Chunked or unframed bodies end here; a framed body cut short is a failure.
        return expected == limit;
      }
      continue;
    }
    const std::size_t available = soap->buflen - soap->bufidx;
    const std::size_t take = std::min(available, expected - envelope.size());
    envelope.append(soap->buf + soap->bufidx, take);
    soap->bufidx += take;
  }
  return true;
}

int attachBinaries(struct soap* soap, const KXValue* value) {
  if (value == nullptr) {
    return SOAP_OK;
  }
  std::vector<const KXValue*> leaves;
  collectBinaryLeaves(*value, leaves);
  if (leaves.empty()) {
    return SOAP_OK;
  }
  soap_set_dime(soap);
  static const char kNoBytes[1] = {0};
  for (const KXValue* leaf : leaves) {
    const KXValue::TKXValueBinary& bytes = leaf->getBinary();
    const char* data = bytes.empty() ? kNoBytes : reinterpret_cast<const char*>(bytes.data());
    if (soap_set_dime_attachment(soap, data, bytes.size(), kAttachmentType, kAttachmentId, 0,
                                 nullptr) != SOAP_OK) {
      return soap->error;
    }
  }
  return SOAP_OK;
}

void takeAttachments(struct soap* soap, KXValue& value) {
  std::vector<KXValue*> leaves;
  collectBinaryLeaves(value, leaves);
  std::size_t k = 0;
  for (const soap_multipart* part = soap->dime.list; part != nullptr && k < leaves.size();
       part = part->next, ++k) {
    if (std::vector<unsigned char>* buffer = receivedDimeBuffer(soap, *part)) {
      leaves[k]->getBinary().swap(*buffer);
    } else {
      leaves[k]->setBinary(part->ptr, part->size);
    }
  }
}

namespace {

// The runtime frames a message of known length (Content-Length) and buffers it, so that
// the HTTP header and the envelope leave in one send.
void prepareKnownLength(struct soap* soap, std::size_t length) {
  // Plain XML, whatever the message received was (a DIME request leaves the runtime set
  // to answer in DIME).
  soap_clr_dime(soap);
  soap_clr_mime(soap);
  // Attachments received with the request have been taken: none is to go out.
  soap->dime.list = nullptr;
  soap->mime.list = nullptr;
  soap->error = SOAP_OK;
  soap->count = length;
}

}  // namespace

int sendRequestEnvelope(struct soap* soap, const char* endpoint, const std::string& envelope) {
  prepareKnownLength(soap, envelope.size());
  if (soap_connect(soap, endpoint, "") != SOAP_OK ||
      soap_send_raw(soap, envelope.data(), envelope.size()) != SOAP_OK ||
      soap_end_send(soap) != SOAP_OK) {
    return soap_closesock(soap);
  }
  return SOAP_OK;
}

int sendResponseEnvelope(struct soap* soap, const std::string& envelope) {
  prepareKnownLength(soap, envelope.size());
  if (soap_response(soap, SOAP_OK) != SOAP_OK ||
      soap_send_raw(soap, envelope.data(), envelope.size()) != SOAP_OK ||
      soap_end_send(soap) != SOAP_OK) {
    return soap->error;
  }
  return SOAP_OK;
}

int finishSoapReceive(struct soap* soap) {
  // Chunked and MIME bodies have trailers the runtime must read itself.
  if ((soap->mode & SOAP_IO) == SOAP_IO_CHUNK || (soap->mode & SOAP_ENC_MIME) != 0) {
    return soap_end_recv(soap);
  }
  // The envelope was read whole by readSoapEnvelope and parsed by us: there are no
  // id/href references for the runtime to resolve, only the DIME attachments to read.
  soap->part = SOAP_END;
  if ((soap->mode & SOAP_ENC_DIME) != 0) {
    if (soap_getdime(soap) != SOAP_OK) {
      return soap->error;
    }
    soap->dime.list = soap->dime.first;
    soap->dime.first = nullptr;
    soap->dime.last = nullptr;
  }
  return SOAP_OK;
}

void endSoapMessage(struct soap* soap) {
  clearDimeBuffers(soap);
  soap_clr_dime(soap);
  // The attachment records go with the message's memory below.
  soap->dime.list = nullptr;
  soap->mime.list = nullptr;
  soap_destroy(soap);
  // The next message clears the runtime's tables anyway: only the memory is freed here.
  soap_dealloc(soap, nullptr);
}

}  // namespace KX
