#include "network/detail/kxdimebuffers.h"

#include <algorithm>
#include <memory>

#include "network/detail/kxsoapstate.h"

namespace KX {

namespace {

struct DimeBuffers {
  static constexpr char kPluginId[] = "velmo-dime-buffers";
  std::vector<std::unique_ptr<std::vector<unsigned char>>> received;
  std::size_t total = 0;
};

DimeBuffers* buffersOf(struct soap* soap) { return KXSoapState<DimeBuffers>::of(soap); }

void* openAttachment(struct soap* soap, const char* /*id*/, const char* /*type*/,
                     const char* /*options*/) {
  DimeBuffers* buffers = buffersOf(soap);
  if (buffers == nullptr) {
    return nullptr;  // the runtime keeps the attachment itself
  }
  auto buffer = std::make_unique<std::vector<unsigned char>>();
  buffer->reserve(std::min(soap->dime.size, kMaxAttachmentBytes - buffers->total));
  buffers->received.push_back(std::move(buffer));
  return buffers->received.back().get();
}

int writeAttachment(struct soap* soap, void* handle, const char* data, std::size_t size) {
  DimeBuffers* buffers = buffersOf(soap);
  if (buffers == nullptr || size > kMaxAttachmentBytes - buffers->total) {
    return soap->error = SOAP_EOM;
  }
  buffers->total += size;
  if (size == 0) {
    return SOAP_OK;  // an empty attachment: nothing to copy (and no block to copy into)
  }
  auto* buffer = static_cast<std::vector<unsigned char>*>(handle);
  // One block copy, and no zeroing first (chars inserted into unsigned chars, or a resize
  // before the copy, would cost a pass over the bytes each).
  const auto* bytes = reinterpret_cast<const unsigned char*>(data);
  buffer->insert(buffer->end(), bytes, bytes + size);
  return SOAP_OK;
}

void closeAttachment(struct soap* /*soap*/, void* /*handle*/) {}

}  // namespace

void installDimeBuffers(struct soap* soap) {
  KXSoapState<DimeBuffers>::install(soap);
  soap->fdimewriteopen = openAttachment;
  soap->fdimewrite = writeAttachment;
  soap->fdimewriteclose = closeAttachment;
}

std::vector<unsigned char>* receivedDimeBuffer(struct soap* soap, const soap_multipart& part) {
  DimeBuffers* buffers = buffersOf(soap);
  if (buffers == nullptr) {
    return nullptr;
  }
  for (const auto& buffer : buffers->received) {
    if (static_cast<const void*>(buffer.get()) == static_cast<const void*>(part.ptr)) {
      return buffer.get();
    }
  }
  return nullptr;
}

void clearDimeBuffers(struct soap* soap) {
  if (DimeBuffers* buffers = buffersOf(soap)) {
    buffers->received.clear();
    buffers->total = 0;
  }
}

}  // namespace KX
