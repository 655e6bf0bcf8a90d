// Reading the attachment records of a DIME message, from bytes fed to the runtime without a
// socket.
#include "network/detail/kxdimerecords.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "network/detail/kxsoapio.h"
#include "network/tests/wire_test_support.h"

namespace KX {
namespace testing {
namespace {

using wire::dimeMessage;
using wire::dimeRecord;
using wire::FedContext;
using wire::kDimeAbsoluteUri;
using wire::kDimeMediaType;

std::string dimeRequest(const std::string& body) {
  return "POST / HTTP/1.1\r\nContent-Type: application/dime\r\nContent-Length: " +
         std::to_string(body.size()) + "\r\n\r\n" + body;
}

// Reads the envelope of the request on `soap`, then its attachments: the reader's result.
int receiveAttachments(struct soap* soap) {
  std::string envelope;
  EXPECT_EQ(beginSoapReceive(soap), SOAP_OK);
  EXPECT_TRUE(readSoapEnvelope(soap, envelope));
  EXPECT_EQ(envelope, "<e/>");
  return receiveDimeAttachments(soap);
}

// The attachments received, given to as many Binary leaves.
std::vector<std::string> takenAttachments(struct soap* soap, int count) {
  KXValue leaves;
  leaves.arraySetSize(count);
  for (int k = 0; k < count; ++k) leaves[k] = binaryOf("");
  takeAttachments(soap, leaves);
  std::vector<std::string> taken;
  for (int k = 0; k < count; ++k) {
    const KXValue::TKXValueBinary& bytes = leaves[k].getBinary();
    taken.emplace_back(bytes.begin(), bytes.end());
  }
  return taken;
}

TEST(DimeRecordsTest, AttachmentsAcrossReadStepsArriveWhole) {
  std::vector<std::string> sent;
  for (const std::size_t size : {std::size_t{0}, std::size_t{1}, kAttachmentReadStep,
                                 kAttachmentReadStep + 1, 2 * kAttachmentReadStep + 3}) {
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i + sent.size()) % 251);
    sent.push_back(std::move(bytes));
  }
  FedContext fed(dimeRequest(dimeMessage("<e/>", sent)));
  ASSERT_EQ(receiveAttachments(fed.get()), SOAP_OK);
  EXPECT_EQ(takenAttachments(fed.get(), static_cast<int>(sent.size())), sent);
  endSoapMessage(fed.get());
}

// A record's header used to be taken at its word: the room it claimed was zeroed before a
// byte of it came, so that 12 bytes from a peer made the server fill up to 512 MiB.
TEST(DimeRecordsTest, ARecordClaimingMoreThanComesTakesRoomForWhatCameOnly) {
  const std::string body =
      dimeRecord(true, false, kDimeAbsoluteUri, "", wire::kEnvelopeUri, "<e/>") +
      dimeRecord(false, true, kDimeMediaType, "image", "application/octet-stream", "tiny",
                 256u * 1024u * 1024u);
  FedContext fed(dimeRequest(body));
  EXPECT_EQ(receiveAttachments(fed.get()), SOAP_EOF);
  const std::string taken = takenAttachments(fed.get(), 1).front();
  EXPECT_EQ(taken.substr(0, 4), "tiny");
  EXPECT_LE(taken.size(), kAttachmentReadStep);
  endSoapMessage(fed.get());
}

}  // namespace
}  // namespace testing
}  // namespace KX
