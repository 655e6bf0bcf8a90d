#include "network/detail/kxbrokerwriter.h"

#include <cstring>

#include "network/detail/kxvaluesoap.h"
#include "value/textcoding.h"

namespace KX {

namespace {

constexpr char kEnvelopeStart[] =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<SOAP-ENV:Envelope xmlns:SOAP-ENV=\"http://schemas.xmlsoap.org/soap/envelope/\" "
    "xmlns:SOAP-ENC=\"http://schemas.xmlsoap.org/soap/encoding/\" "
    "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" "
    "xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\" xmlns:kxbroker=\"urn:kxbroker\" "
    "xmlns:kx=\"urn:korvane\"><SOAP-ENV:Body "
    "SOAP-ENV:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\">";
constexpr char kEnvelopeEnd[] = "</SOAP-ENV:Body></SOAP-ENV:Envelope>\r\n";

void appendTag(std::string& out, const char* opening, const char* prefix, const char* name,
               const char* suffix) {
  out += opening;
  out += prefix;
  out += name;
  out += suffix;
  out += '>';
}

// <prefix name>text</prefix name>, or <prefix name/> for an empty text.
void appendText(std::string& out, const char* prefix, const char* name, std::string_view text) {
  if (text.empty()) {
    appendTag(out, "<", prefix, name, "/");
    return;
  }
  appendTag(out, "<", prefix, name, "");
  out += text;
  appendTag(out, "</", prefix, name, "");
}

void appendEscaped(std::string& out, const char* prefix, const char* name,
                   const std::string& text) {
  if (text.empty()) {
    appendText(out, prefix, name, text);
    return;
  }
  appendTag(out, "<", prefix, name, "");
  appendXmlEscaped(out, text, kEscapeControls);
  appendTag(out, "</", prefix, name, "");
}

std::string_view boolText(bool value) { return value ? "true" : "false"; }

}  // namespace

void openBrokerMessage(std::string& out, const char* prefix, const char* name, const char* suffix) {
  out.assign(kEnvelopeStart);
  appendTag(out, "<", prefix, name, suffix);
}

void closeBrokerMessage(std::string& out, const char* prefix, const char* name,
                        const char* suffix) {
  appendTag(out, "</", prefix, name, suffix);
  out += kEnvelopeEnd;
}

std::string_view brokerMessageBody(const std::string& envelope) {
  constexpr std::size_t start = sizeof(kEnvelopeStart) - 1;
  constexpr std::size_t framing = start + sizeof(kEnvelopeEnd) - 1;
  if (envelope.size() < framing) {
    return std::string_view();
  }
  return std::string_view(envelope).substr(start, envelope.size() - framing);
}

void appendBrokerChild(std::string& out, const char* name, const std::string& value) {
  appendEscaped(out, "kxbroker:", name, value);
}

void appendBrokerChild(std::string& out, const char* name, int value) {
  appendText(out, "kxbroker:", name, std::to_string(value));
}

void appendBrokerChild(std::string& out, const char* name, bool value) {
  appendText(out, "kxbroker:", name, boolText(value));
}

void appendBrokerChild(std::string& out, const char* name, const KXValue& value) {
  appendTag(out, "<", "kxbroker:", name, " xsi:type=\"xsd:anyType\"");
  writeKXValue(value, out, false);
  appendTag(out, "</", "kxbroker:", name, "");
}

void appendBrokerChild(std::string& out, const char* name, const KXModuleInfo& value) {
  appendTag(out, "<", "kxbroker:", name, "");
  appendRecordFields(out, value);
  appendTag(out, "</", "kxbroker:", name, "");
}

void appendBrokerChild(std::string& out, const char* name, const std::optional<int>& value) {
  if (value) {
    appendBrokerChild(out, name, *value);
  }
}

void appendRecordFields(std::string& out, const KXModuleInfo& record) {
  appendEscaped(out, "", "name", record.name);
  appendText(out, "", "architecture", std::to_string(record.architecture));
  appendEscaped(out, "", "ip", record.ip);
  appendText(out, "", "port", std::to_string(record.port));
  appendText(out, "", "processId", std::to_string(record.processId));
  appendText(out, "", "modulePointer", "0");
  appendText(out, "", "isABroker", boolText(record.isABroker));
  appendText(out, "", "keepAlive", boolText(record.keepAlive));
}

}  // namespace KX
