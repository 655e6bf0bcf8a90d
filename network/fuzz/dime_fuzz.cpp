// DIME messages as the body of a request, read as the server reads one: the HTTP head and
// the first record's header by the runtime, the envelope by readSoapEnvelope, the attachment
// records (in chunks, padded, claiming any size) by receiveDimeAttachments, the attachments
// then given to Binary leaves. The reads come from the input through the context's receive
// callback: this reading touches no socket. Bytes after the message are read as the next
// request, as on a kept-alive connection.
//
// The input's first byte chooses how the body comes: bit 0 framed by its length or in
// chunks, bits 1-2 in reads of 1, 7, 4096 or 65536 bytes; the rest is the body. Whatever
// a message gave (envelope, attachments) is then written again as a DimeMessage, followed
// by a plain request, and read back: it must give the same, then the plain request.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "network/detail/kxdimerecords.h"
#include "network/detail/kxsoapcontext.h"
#include "network/detail/kxsoapio.h"
#include "value/kxvalue.h"

namespace {

// Attachments beyond this many are read but not compared.
constexpr int kLeaves = 64;
constexpr std::size_t kChunkBytes = 512;
constexpr std::size_t kReadSizes[] = {1, 7, 4096, 65536};
constexpr char kPlainEnvelope[] = "<plain/>";

// What a context reads: the rest of the input, at most `piece` bytes a read.
struct Feed {
  std::string_view bytes;
  std::size_t piece;
};

std::size_t readFeed(struct soap* soap, char* out, std::size_t size) {
  Feed& feed = *static_cast<Feed*>(soap->user);
  const std::size_t taken = std::min({size, feed.piece, feed.bytes.size()});
  std::memcpy(out, feed.bytes.data(), taken);
  feed.bytes.remove_prefix(taken);
  return taken;
}

struct Message {
  std::string envelope;
  std::vector<std::string> attachments;  // up to kLeaves, without the empty ones at the end

  bool operator==(const Message& other) const {
    return envelope == other.envelope && attachments == other.attachments;
  }
};

// Reads the next request on `soap` as the server does; nothing when it cannot be read whole.
std::optional<Message> receive(struct soap* soap) {
  std::optional<Message> message;
  soap->error = SOAP_OK;
  std::string envelope;
  if (KX::beginSoapReceive(soap) == SOAP_OK && soap->status == SOAP_POST &&
      KX::readSoapEnvelope(soap, envelope) && KX::finishSoapReceive(soap) == SOAP_OK) {
    KX::KXValue leaves;
    leaves.arraySetSize(kLeaves);
    for (int k = 0; k < kLeaves; ++k) leaves[k] = KX::KXValue::TKXValueBinary();
    KX::takeAttachments(soap, leaves);
    message.emplace();
    message->envelope = std::move(envelope);
    for (int k = 0; k < kLeaves; ++k) {
      const KX::KXValue::TKXValueBinary& bytes = leaves[k].getBinary();
      message->attachments.emplace_back(bytes.begin(), bytes.end());
    }
    while (!message->attachments.empty() && message->attachments.back().empty()) {
      message->attachments.pop_back();
    }
  }
  KX::endSoapMessage(soap);
  return message;
}

// Reads up to `count` requests from `wire` on one context, in reads of `piece` bytes, up to
// the first that cannot be read.
std::vector<Message> receiveAll(std::string_view wire, std::size_t piece, int count) {
  KX::KXSoapContext context;
  Feed feed{wire, piece};
  context->user = &feed;
  context->frecv = readFeed;
  // Kept alive without a limit, as a served connection is: the runtime then keeps the bytes
  // of the next request that a read brought with this one.
  context->keep_alive = -1;
  std::vector<Message> messages;
  while (static_cast<int>(messages.size()) < count) {
    std::optional<Message> message = receive(context.get());
    if (!message) break;
    messages.push_back(std::move(*message));
  }
  return messages;
}

std::string head(const char* contentType, const std::string& framing) {
  return std::string("POST / HTTP/1.1\r\nHost: 127.0.0.1:9559\r\nContent-Type: ") + contentType +
         "\r\n" + framing + "\r\n";
}

std::string framedByLength(const char* contentType, std::string_view body) {
  return head(contentType, "Content-Length: " + std::to_string(body.size()) + "\r\n").append(body);
}

std::string inChunks(const char* contentType, std::string_view body) {
  std::string wire = head(contentType, "Transfer-Encoding: chunked\r\n");
  for (std::size_t at = 0; at < body.size(); at += kChunkBytes) {
    const std::string_view chunk = body.substr(at, kChunkBytes);
    char size[24];
    std::snprintf(size, sizeof(size), "%zx\r\n", chunk.size());
    wire.append(size).append(chunk).append("\r\n");
  }
  return wire.append("0\r\n\r\n");
}

// `message` as we send it, then a plain request.
std::string writtenAgain(const Message& message) {
  std::vector<KX::KXValue> values(message.attachments.size());
  std::vector<const KX::KXValue*> leaves;
  for (std::size_t k = 0; k < values.size(); ++k) {
    values[k].setBinary(message.attachments[k].data(), message.attachments[k].size());
    leaves.push_back(&values[k]);
  }
  const KX::DimeMessage dime(message.envelope, leaves);
  const std::string dimeHead =
      head("application/dime", "Content-Length: " + std::to_string(dime.size()) + "\r\n");
  std::string wire;
  for (const iovec& piece : dime.pieces(dimeHead)) {
    wire.append(static_cast<const char*>(piece.iov_base), piece.iov_len);
  }
  return wire + framedByLength("text/xml", kPlainEnvelope);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return -1;
  const bool chunked = (data[0] & 1) != 0;
  const std::size_t piece = kReadSizes[(data[0] >> 1) & 3];
  const std::string_view body(reinterpret_cast<const char*>(data) + 1, size - 1);
  const std::string wire =
      chunked ? inChunks("application/dime", body) : framedByLength("application/dime", body);
  for (const Message& message : receiveAll(wire, piece, 2)) {
    const std::vector<Message> back = receiveAll(writtenAgain(message), piece, 2);
    if (back.size() != 2 || !(back[0] == message) || back[1].envelope != kPlainEnvelope) {
      std::fprintf(stderr, "a message written again did not read back the same\n");
      std::abort();
    }
  }
  return 0;
}
