#include "network/kxbrokersoap.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "network/kxsoapcontext.h"
#include "value/kxvalue.h"

namespace KX {
namespace {

constexpr const char* kEnvelopeStart =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<SOAP-ENV:Envelope xmlns:SOAP-ENV=\"http://schemas.xmlsoap.org/soap/envelope/\" "
    "xmlns:SOAP-ENC=\"http://schemas.xmlsoap.org/soap/encoding/\" "
    "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
    "xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\" xmlns:kxbroker=\"urn:kxbroker\" "
    "xmlns:kx=\"urn:korvane\">";

// Writes one message body into memory, the way the generated client calls and skeleton frame it.
std::string messageOf(KXSoapContext& context, const std::function<int(struct soap*)>& putBody) {
  std::ostringstream out;
  struct soap* soap = context.get();
  soap_begin(soap);
  soap_set_version(soap, 1);
  soap->encodingStyle = "";
  soap->os = &out;
  const bool written = soap_begin_send(soap) == SOAP_OK &&
                       soap_envelope_begin_out(soap) == SOAP_OK &&
                       soap_body_begin_out(soap) == SOAP_OK && putBody(soap) == SOAP_OK &&
                       soap_body_end_out(soap) == SOAP_OK &&
                       soap_envelope_end_out(soap) == SOAP_OK && soap_end_send(soap) == SOAP_OK;
  soap->os = nullptr;
  EXPECT_TRUE(written) << "gSOAP error " << soap->error;
  context.freeMessageData();
  return out.str();
}

KXValue arrayOf(const std::vector<KXValue>& items) {
  KXValue array;
  array.arraySetSize(0);
  for (const KXValue& item : items) {
    array.arrayPush(item);
  }
  return array;
}

constexpr const char* kBodyStart =
    "<SOAP-ENV:Body SOAP-ENV:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\">";
constexpr const char* kEnvelopeEnd = "</SOAP-ENV:Body></SOAP-ENV:Envelope>";

std::string envelope(const std::string& body) {
  return std::string(kEnvelopeStart) + kBodyStart + body + kEnvelopeEnd + "\r\n";
}

TEST(KXBrokerSoapTest, CallVelmoRequestCarriesTheParameterAsRawXmlTypedAnyType) {
  KXSoapContext context;
  const std::string xml = messageOf(context, [](struct soap* soap) {
    struct kxbroker__callVelmo request;
    soap_default_kxbroker__callVelmo(soap, &request);
    request.kxbroker__mod = soap_strdup(soap, "KXMemory");
    request.kxbroker__meth = soap_strdup(soap, "getData");
    request.kxbroker__p = kxValueToSoap(soap, arrayOf({KXValue("key"), KXValue(42)}));
    return soap_put_kxbroker__callVelmo(soap, &request, "kxbroker:callVelmo", "");
  });
  EXPECT_EQ(xml, envelope("<kxbroker:callVelmo><kxbroker:mod>KXMemory</kxbroker:mod>"
                          "<kxbroker:meth>getData</kxbroker:meth>"
                          "<kxbroker:p xsi:type=\"xsd:anyType\"><item xsi:type=\"Array\">"
                          "<item xsi:type=\"xsd:string\">key</item>"
                          "<item xsi:type=\"xsd:int\">42</item></item></kxbroker:p>"
                          "</kxbroker:callVelmo>"));
}

TEST(KXBrokerSoapTest, GetInfoIsAnsweredByTheRecordWithoutResponseWrapper) {
  KXSoapContext context;
  const std::string xml = messageOf(context, [](struct soap* soap) {
    struct kx__KXModuleInfo info;
    soap_default_kx__KXModuleInfo(soap, &info);
    info.name = soap_strdup(soap, "KXMemory");
    info.architecture = 3;
    info.ip = soap_strdup(soap, "10.0.0.7");
    info.port = 9559;
    info.processId = 1234;
    info.isABroker = true;
    info.keepAlive = false;
    return soap_put_kx__KXModuleInfo(soap, &info, "kx:KXModuleInfo", "");
  });
  EXPECT_EQ(xml, envelope("<kx:KXModuleInfo><name>KXMemory</name><architecture>3</architecture>"
                          "<ip>10.0.0.7</ip><port>9559</port><processId>1234</processId>"
                          "<modulePointer>0</modulePointer><isABroker>true</isABroker>"
                          "<keepAlive>false</keepAlive></kx:KXModuleInfo>"));
}

TEST(KXBrokerSoapTest, EmptyModuleListIsAnEmptyResponseElement) {
  KXSoapContext context;
  const std::string xml = messageOf(context, [](struct soap* soap) {
    struct kxbroker__getModuleListResponse response;
    soap_default_kxbroker__getModuleListResponse(soap, &response);
    return soap_put_kxbroker__getModuleListResponse(soap, &response,
                                                    "kxbroker:getModuleListResponse", "");
  });
  EXPECT_EQ(xml, envelope("<kxbroker:getModuleListResponse></kxbroker:getModuleListResponse>"));
}

TEST(KXBrokerSoapTest, ModuleListRepeatsTheReturnElementWithoutWrapper) {
  KXSoapContext context;
  const std::string xml = messageOf(context, [](struct soap* soap) {
    struct kxbroker__getModuleListResponse response;
    soap_default_kxbroker__getModuleListResponse(soap, &response);
    response.__size = 2;
    response.kxbroker__return = soap_new_kx__KXModuleInfo(soap, 2);
    response.kxbroker__return[0].name = soap_strdup(soap, "a");
    response.kxbroker__return[1].name = soap_strdup(soap, "b");
    response.kxbroker__return[0].ip = soap_strdup(soap, "1.2.3.4");
    response.kxbroker__return[1].ip = soap_strdup(soap, "1.2.3.4");
    return soap_put_kxbroker__getModuleListResponse(soap, &response,
                                                    "kxbroker:getModuleListResponse", "");
  });
  const std::string record =
      "<architecture>0</architecture><ip>1.2.3.4</ip>"
      "<port>0</port><processId>0</processId>"
      "<modulePointer>0</modulePointer><isABroker>false</isABroker>"
      "<keepAlive>false</keepAlive>";
  EXPECT_EQ(xml, envelope("<kxbroker:getModuleListResponse><kxbroker:return><name>a</name>" +
                          record + "</kxbroker:return><kxbroker:return><name>b</name>" + record +
                          "</kxbroker:return></kxbroker:getModuleListResponse>"));
}

TEST(KXBrokerSoapTest, FaultCarriesClientCodeStringAndDetail) {
  KXSoapContext context;
  std::ostringstream out;
  struct soap* soap = context.get();
  soap_begin(soap);
  soap_set_version(soap, 1);
  soap->os = &out;
  EXPECT_EQ(soap_sender_fault(soap, "division by zero", "Calculator"), SOAP_FAULT);
  soap_send_fault(soap);
  soap->os = nullptr;
  const std::string message = out.str();
  const std::size_t bodyStart = message.find("\r\n\r\n");
  ASSERT_NE(bodyStart, std::string::npos) << message;
  EXPECT_EQ(message.rfind("HTTP/1.1 500 Internal Server Error\r\n", 0), 0u) << message;
  EXPECT_EQ(message.substr(bodyStart + 4),
            std::string(kEnvelopeStart) +
                "<SOAP-ENV:Body><SOAP-ENV:Fault><faultcode>SOAP-ENV:Client</faultcode>"
                "<faultstring>division by zero</faultstring><detail>Calculator</detail>"
                "</SOAP-ENV:Fault>" +
                kEnvelopeEnd + "\r\n");
}

// A server on 127.0.0.1 (port chosen by the system) serving one connection at a time on
// its own thread, with a handler that echoes callVelmo and answers getInfo.
class EchoHandler : public KXBrokerSoapHandler {
 public:
  int callVelmo(struct soap* soap, char* mod, char* meth, char* p, char*& result) override {
    KXValue reply;
    reply.arraySetSize(0);
    reply.arrayPush(KXValue(mod == nullptr ? "" : mod));
    reply.arrayPush(KXValue(meth == nullptr ? "" : meth));
    reply.arrayPush(kxValueFromSoap(p));
    result = kxValueToSoap(soap, reply);
    return SOAP_OK;
  }
  int getInfo(struct soap* soap, char* moduleName, kx__KXModuleInfo& info) override {
    info.name = soap_strdup(soap, moduleName);
    info.architecture = 2;
    info.ip = soap_strdup(soap, "127.0.0.1");
    info.port = 9559;
    info.processId = 77;
    info.isABroker = false;
    info.keepAlive = true;
    return SOAP_OK;
  }
  int unregisterModuleReference(struct soap* /*soap*/, char* moduleName) override {
    std::lock_guard<std::mutex> lock(mutex_);
    unregistered_.push_back(moduleName == nullptr ? "" : moduleName);
    return SOAP_OK;
  }
  std::vector<std::string> unregistered() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return unregistered_;
  }

  // Operations that these tests do not send.
  int callVelmo2(struct soap* soap, char*, char*, char*, char*&) override { return unused(soap); }
  int pCallVelmoN(struct soap* soap, char*, int, char*, char*, char*, char*, char*,
                  char*&) override {
    return unused(soap);
  }
  int pCallVelmo(struct soap* soap, char*, char*, char*) override { return unused(soap); }
  int getModuleByName(struct soap* soap, char*, kxbroker__getModuleByNameResponse&) override {
    return unused(soap);
  }
  int exploreToGetModuleByName(struct soap* soap, char*, bool, bool, char*, bool,
                               kxbroker__exploreToGetModuleByNameResponse&) override {
    return unused(soap);
  }
  int getModuleList(struct soap* soap, kxbroker__getModuleListResponse&) override {
    return unused(soap);
  }
  int getGlobalModuleList(struct soap* soap, kxbroker__getGlobalModuleListResponse&) override {
    return unused(soap);
  }
  int getBrokerList(struct soap* soap, kxbroker__getBrokerListResponse&) override {
    return unused(soap);
  }
  int registerBroker(struct soap* soap, kx__KXModuleInfo, int&) override { return unused(soap); }
  int unregisterBroker(struct soap* soap, kx__KXModuleInfo, int&) override { return unused(soap); }
  int getBrokerInfo(struct soap* soap, kxbroker__getBrokerInfoResponse&) override {
    return unused(soap);
  }
  int exit(struct soap* soap) override { return unused(soap); }
  int getMethodList(struct soap* soap, char*, kxbroker__getMethodListResponse&) override {
    return unused(soap);
  }
  int init(struct soap* soap, char*, char*, int, char*, int, bool,
           kxbroker__initResponse&) override {
    return unused(soap);
  }
  int version(struct soap* soap, char*&) override { return unused(soap); }
  int sendBackIP(struct soap* soap, char*&) override { return unused(soap); }
  int getBrokerName(struct soap* soap, char*&) override { return unused(soap); }
  int stopTask(struct soap* soap, int, int&) override { return unused(soap); }
  int stopTaskName(struct soap* soap, char*, int&) override { return unused(soap); }
  int getDebugTaskList(struct soap* soap, char*&) override { return unused(soap); }

 private:
  static int unused(struct soap* soap) {
    return soap_sender_fault(soap, "not served by this test", nullptr);
  }

  mutable std::mutex mutex_;
  std::vector<std::string> unregistered_;
};

class LoopbackServer {
 public:
  explicit LoopbackServer(KXBrokerSoapHandler& handler) : handler_(handler) {
    server_->accept_timeout = 1;
    if (!soap_valid_socket(soap_bind(server_.get(), "127.0.0.1", 0, 10))) {
      ADD_FAILURE() << "bind failed, gSOAP error " << server_->error;
      return;
    }
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    if (getsockname(server_->master, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      ADD_FAILURE() << "getsockname failed";
      return;
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { run(); });
  }
  ~LoopbackServer() {
    stop_ = true;
    if (thread_.joinable()) {
      thread_.join();
    }
  }
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  std::string endpoint() const { return "http://127.0.0.1:" + std::to_string(port_); }
  int accepted() const { return accepted_; }

 private:
  void run() {
    // Each round waits at most the 1 s accept timeout; the bound only guards a test that
    // forgets to stop the server.
    for (int round = 0; round < 120 && !stop_; ++round) {
      if (!soap_valid_socket(soap_accept(server_.get()))) {
        if (server_->errnum == 0) {
          continue;  // accept timeout
        }
        ADD_FAILURE() << "accept failed, gSOAP error " << server_->error;
        return;
      }
      ++accepted_;
      KXSoapContext connection = KXSoapContext::copyOf(server_);
      serveBrokerRequests(connection.get(), handler_);
    }
  }

  KXBrokerSoapHandler& handler_;
  KXSoapContext server_;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::atomic<int> accepted_{0};
  std::thread thread_;
};

TEST(KXBrokerSoapTest, LoopbackCallsShareOneKeptAliveConnection) {
  EchoHandler handler;
  LoopbackServer server(handler);
  const std::string endpoint = server.endpoint();
  KXSoapContext client;

  char* result = nullptr;
  const KXValue parameter = arrayOf({KXValue("k\xC3\xA9y & <x>"), KXValue(7), KXValue(true)});
  ASSERT_EQ(soap_call_kxbroker__callVelmo(client.get(), endpoint.c_str(), "",
                                          soap_strdup(client.get(), "KXMemory"),
                                          soap_strdup(client.get(), "getData"),
                                          kxValueToSoap(client.get(), parameter), result),
            SOAP_OK);
  EXPECT_EQ(kxValueFromSoap(result), arrayOf({KXValue("KXMemory"), KXValue("getData"), parameter}));
  client.freeMessageData();

  kx__KXModuleInfo info;
  ASSERT_EQ(soap_call_kxbroker__getInfo(client.get(), endpoint.c_str(), "",
                                        soap_strdup(client.get(), "KXMemory"), info),
            SOAP_OK);
  EXPECT_STREQ(info.name, "KXMemory");
  EXPECT_EQ(info.architecture, 2);
  EXPECT_STREQ(info.ip, "127.0.0.1");
  EXPECT_EQ(info.port, 9559);
  EXPECT_EQ(info.processId, 77);
  EXPECT_EQ(info.modulePointer, 0);
  EXPECT_FALSE(info.isABroker);
  EXPECT_TRUE(info.keepAlive);
  client.freeMessageData();

  // One-way: nothing is read back, and the next request follows on the same connection.
  ASSERT_EQ(soap_send_kxbroker__unregisterModuleReference(client.get(), endpoint.c_str(), "",
                                                          soap_strdup(client.get(), "Gone")),
            SOAP_OK);
  client.freeMessageData();
  ASSERT_EQ(soap_call_kxbroker__callVelmo(
                client.get(), endpoint.c_str(), "", soap_strdup(client.get(), "M"),
                soap_strdup(client.get(), "m"), kxValueToSoap(client.get(), KXValue(1)), result),
            SOAP_OK);
  EXPECT_EQ(kxValueFromSoap(result), arrayOf({KXValue("M"), KXValue("m"), KXValue(1)}));
  client.freeMessageData();

  EXPECT_EQ(handler.unregistered(), std::vector<std::string>{"Gone"});
  EXPECT_EQ(server.accepted(), 1);
}

}  // namespace
}  // namespace KX
