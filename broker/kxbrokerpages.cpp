#include "broker/kxbrokerpages.h"

#include <algorithm>
#include <exception>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <vector>

#include "broker/kxbroker.h"
#include "broker/kxbrokermanager.h"
#include "log/sdklayout.h"
#include "module/kxmethodinfo.h"
#include "module/kxmodulecore.h"
#include "module/kxtaskmonitor.h"
#include "value/kxerror.h"
#include "value/kxvalue.h"
#include "value/kxvaluejson.h"
#include "value/textcoding.h"

namespace KX {
namespace detail {

namespace {

// Every page answer starts with this head: the status line, then the content type when
// there is one.
std::string pageHead(const char* contentType) {
  std::string head = "HTTP/1.0 200\r\n";
  if (contentType != nullptr) {
    head += "Content-Type: ";
    head += contentType;
    head += "\r\n";
  }
  return head + "\r\n";
}

constexpr char kXmlDeclaration[] = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n";
constexpr char kBrokerStylesheet[] =
    "<?xml-stylesheet type=\"text/xsl\" href=\"xsl/broker.xsl\"?>\n";
constexpr char kModuleStylesheet[] =
    "<?xml-stylesheet type=\"text/xsl\" href=\"xsl/module.xsl\"?>\n";

constexpr char kEvalPrefix[] = "/?eval";
constexpr char kJsonCallPrefix[] = "/?json";
constexpr char kContentSuffix[] = "Content.html";
constexpr char kHtmlSuffix[] = ".html";
constexpr char kHtmlShell[] = "/html/page.html";
constexpr char kXmlSuffix[] = ".xml";

constexpr char kUrlCallError[] = "Unable to evaluate url call";

bool startsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

bool endsWith(const std::string& text, const std::string& suffix) {
  return text.size() >= suffix.size() &&
         text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// <tag>escaped text</tag>
void appendElement(std::string& out, const char* tag, const std::string& text) {
  out += '<';
  out += tag;
  out += '>';
  out += escapeXml(text);
  out += "</";
  out += tag;
  out += ">\n";
}

void appendElement(std::string& out, const char* tag, int number) {
  appendElement(out, tag, std::to_string(number));
}

std::string brokerHref(const std::string& ip, int port) {
  return endpointOf(ip, port) + "/index.xml";
}

// The modules the pages show: internal ones are left out. In name order.
std::vector<std::shared_ptr<KXModuleCore>> listedModules(KXBroker& broker) {
  std::vector<std::shared_ptr<KXModuleCore>> modules = broker.getModules();
  modules.erase(std::remove_if(modules.begin(), modules.end(),
                               [](const std::shared_ptr<KXModuleCore>& module) {
                                 return isInternalModuleName(module->getName());
                               }),
                modules.end());
  return modules;
}

// A value of the declared type to show in a URL-call example.
KXValue exampleValue(const std::string& type) {
  if (type == "bool") return KXValue(false);
  if (type == "int") return KXValue(0);
  if (type == "float") return KXValue(0.0f);
  if (type == "string") return KXValue(std::string());
  KXValue empty;
  empty.arraySetSize(0);
  return empty;
}

std::string urlCallExample(const std::string& module, const KXMethodInfo& method) {
  std::string arguments;
  if (!method.parameters.empty()) {
    KXValue values;
    values.arraySetSize(0);
    for (const auto& parameter : method.parameters) {
      values.arrayPush(exampleValue(parameter.type));
    }
    arguments = values.toString(1);
  }
  return std::string(kEvalPrefix) + module + "." + method.methodName + "(" + arguments + ")";
}

void appendParameter(std::string& out, const char* tag, const ParameterInfo& parameter) {
  out += '<';
  out += tag;
  out += ">\n";
  appendElement(out, "name", parameter.name);
  appendElement(out, "description", parameter.description);
  appendElement(out, "type", parameter.type);
  out += "</";
  out += tag;
  out += ">\n";
}

void appendMethods(std::string& out, KXModuleCore& module) {
  out += "<methods>\n";
  std::set<std::string> shown;
  for (const std::string& name : module.getMethodList()) {
    // A name bound twice has one callable entry: show it once.
    if (!shown.insert(name).second) continue;
    std::shared_ptr<const KXMethodInfo> method = module.getMethodInfo(name);
    if (!method) continue;
    out += "<method>\n";
    appendElement(out, "name", method->methodName);
    appendElement(out, "description", method->methodDescription);
    out += "<parameters>\n";
    for (const auto& parameter : method->parameters) {
      appendParameter(out, "parameter", parameter);
    }
    out += "</parameters>\n";
    appendParameter(out, "return", method->returnValue);
    out += "<examples>\n";
    appendElement(out, "example", urlCallExample(module.getName(), *method));
    out += "</examples>\n";
    out += "</method>\n";
  }
  out += "</methods>\n";
}

std::string moduleDescription(KXModuleCore& module) {
  const KXValue help = module.getModuleHelp();
  if (help.getType() == KXValue::TypeArray && help.getSize() > 0 &&
      help[0].getType() == KXValue::TypeString) {
    return static_cast<const std::string&>(help[0]);
  }
  return std::string();
}

void appendTasks(std::string& out, KXBroker& broker) {
  out += "<tasks>\n";
  if (std::shared_ptr<KXTaskMonitor> monitor = broker.getTaskMonitor()) {
    for (const auto& task : monitor->getTaskList()) {
      if (isInternalModuleName(task.moduleName)) continue;
      out += "<task>\n";
      appendElement(out, "moduleName", task.moduleName);
      appendElement(out, "name", task.methodName);
      if (std::shared_ptr<KXModuleCore> module = broker.getModuleCore(task.moduleName)) {
        if (std::shared_ptr<const KXMethodInfo> method = module->getMethodInfo(task.methodName)) {
          appendElement(out, "description", method->methodDescription);
          appendElement(out, "method", method->signature());
        }
      }
      out += "</task>\n";
    }
  }
  out += "</tasks>\n";
}

std::string brokerPage(KXBroker& broker, bool withMethods) {
  const std::vector<std::shared_ptr<KXModuleCore>> modules = listedModules(broker);

  std::string out = pageHead("text/xml") + kXmlDeclaration + kBrokerStylesheet;
  out += "<page>\n";

  out += "<broker>\n";
  appendElement(out, "name", broker.getName());
  appendElement(out, "ip", broker.getIP());
  appendElement(out, "port", broker.getPort());
  appendElement(out, "href", brokerHref(broker.getIP(), broker.getPort()));
  out += "</broker>\n";

  out += "<parentBroker>\n";
  if (broker.hasParent()) {
    appendElement(out, "ip", broker.getParentIP());
    appendElement(out, "port", broker.getParentPort());
    appendElement(out, "href", brokerHref(broker.getParentIP(), broker.getParentPort()));
  }
  out += "</parentBroker>\n";

  out += "<childBrokers>\n";
  for (const auto& child : broker.getChildBrokers()) {
    out += "<broker>\n";
    appendElement(out, "name", child.name);
    appendElement(out, "ip", child.ip);
    appendElement(out, "port", child.port);
    appendElement(out, "href", brokerHref(child.ip, child.port));
    out += "</broker>\n";
  }
  out += "</childBrokers>\n";

  out += "<modules>\n";
  for (const auto& module : modules) {
    out += "<module>\n";
    appendElement(out, "name", module->getName());
    appendElement(out, "href", module->getName() + kXmlSuffix);
    if (withMethods) {
      appendMethods(out, *module);
    }
    out += "</module>\n";
  }
  out += "</modules>\n";

  appendTasks(out, broker);

  out += "<content>\n";
  for (const auto& module : modules) {
    out += "<module>\n";
    appendElement(out, "name", module->getName());
    appendElement(out, "href", module->getName() + kContentSuffix);
    out += "</module>\n";
  }
  out += "</content>\n";

  out += "</page>\n";
  return out;
}

std::string modulePage(KXBroker& broker, KXModuleCore& module) {
  const std::string name = module.getName();
  const std::vector<std::shared_ptr<KXModuleCore>> modules = listedModules(broker);
  std::string previous;
  std::string next;
  auto self = std::find_if(modules.begin(), modules.end(),
                           [&name](const auto& listed) { return listed->getName() == name; });
  if (self != modules.end()) {
    if (self != modules.begin()) previous = (*std::prev(self))->getName() + kXmlSuffix;
    if (std::next(self) != modules.end()) next = (*std::next(self))->getName() + kXmlSuffix;
  }

  std::string out = pageHead("text/xml") + kXmlDeclaration + kModuleStylesheet;
  out += "<page>\n";
  appendElement(out, "pagetitle", "Velmo Module Page : " + name);
  out += "<module>\n";
  appendElement(out, "name", name);
  appendElement(out, "description", moduleDescription(module));
  appendElement(out, "version", module.version());
  appendElement(out, "parentbroker", broker.getName());
  appendMethods(out, module);
  out += "</module>\n";
  appendElement(out, "kxname", name);
  appendElement(out, "kxhref", name + kXmlSuffix);
  appendElement(out, "kxprevious", previous);
  appendElement(out, "kxnext", next);
  appendElement(out, "kxlink", "index.xml");
  appendElement(out, "kxpath", broker.getName() + "/" + name);
  appendElement(out, "kxcontext", name + kContentSuffix);
  out += "</page>\n";
  return out;
}

// The module named by "/<name><suffix>", or null.
std::shared_ptr<KXModuleCore> moduleForPath(KXBroker& broker, const std::string& path,
                                            const std::string& suffix) {
  if (path.size() <= suffix.size() + 1 || path[0] != '/' || !endsWith(path, suffix)) {
    return nullptr;
  }
  return broker.getModuleCore(path.substr(1, path.size() - 1 - suffix.size()));
}

}  // namespace

KXValue callFromUrl(KXBroker& broker, const std::string& call, std::string& error) {
  error.clear();
  if (call.empty()) {
    error = kUrlCallError;
    return KXValue();
  }
  // The module name ends at the first '.', the method name at the first '(' after it,
  // the arguments at the last ')'.
  const size_t dot = call.find('.');
  const size_t open = dot == std::string::npos ? dot : call.find('(', dot + 1);
  const size_t close = call.rfind(')');
  if (dot == std::string::npos || dot == 0) {
    error = std::string(kUrlCallError) + ": No module name";
  } else if (open == std::string::npos) {
    error = std::string(kUrlCallError) + ": No open bracket";
  } else if (close == std::string::npos || close < open) {
    error = std::string(kUrlCallError) + ": No closing bracket";
  } else if (open == dot + 1) {
    error = std::string(kUrlCallError) + ": No method name";
  }
  if (!error.empty()) return KXValue();
  const std::string module = call.substr(0, dot);
  const std::string method = call.substr(dot + 1, open - dot - 1);
  const std::string argumentText = call.substr(open + 1, close - open - 1);

  KXValue arguments;
  if (argumentText.find_first_not_of(" \t") == std::string::npos) {
    arguments.arraySetSize(0);
  } else {
    try {
      arguments.unSerializeFromText(argumentText);
    } catch (const KXError&) {
      error = kUrlCallError;
      return KXValue();
    }
    if (arguments.getType() != KXValue::TypeArray) {
      error = kUrlCallError;
      return KXValue();
    }
  }
  try {
    return broker.methodCall(module, method, arguments);
  } catch (const std::exception& failure) {
    error = failure.what();
    return KXValue();
  }
}

std::string evaluateUrlCall(KXBroker& broker, const std::string& call) {
  std::string error;
  const KXValue result = callFromUrl(broker, call, error);
  if (!error.empty()) return error;
  if (!result.isValid()) return "No return value (void method)";
  return result.toString(1);
}

std::string evaluateUrlCallAsJson(KXBroker& broker, const std::string& call) {
  std::string error;
  const KXValue result = callFromUrl(broker, call, error);
  if (!error.empty()) return "{\"error\":" + toJson(KXValue(error)) + "}";
  return "{\"result\":" + toJson(result) + "}";
}

namespace {

// The bytes of a file of the SDK's "web/doc" folder; nothing when the path names none.
std::optional<std::string> docFileText(const std::string& path) {
  const std::optional<std::filesystem::path> file = tu::path::resolveDocPath(path);
  if (!file) {
    return std::nullopt;
  }
  std::ifstream in(*file, std::ios::binary);
  if (!in) {
    return std::nullopt;
  }
  std::ostringstream body;
  body << in.rdbuf();
  return body.str();
}

// A page file of the SDK's "web/doc" folder (stylesheets, scripts), preceded by the header of
// its kind; nothing when the path names no such file.
std::optional<std::string> docFileAnswer(const std::string& path) {
  std::optional<std::string> body = docFileText(path);
  if (!body) {
    return std::nullopt;
  }
  const std::optional<std::string> type = tu::path::docContentType(path);
  return (type ? pageHead(type->c_str()) : std::string()) + *body;
}

// The pages for a person: HTML shells whose script draws the broker or module page from
// the data of its XML twin (no XSLT needed).
std::optional<std::string> htmlPage(KXBroker& broker, const std::string& path) {
  const bool brokerPage = path == "/index.html" || path == "/full.html";
  if (!brokerPage &&
      (endsWith(path, kContentSuffix) || !moduleForPath(broker, path, kHtmlSuffix))) {
    return std::nullopt;
  }
  // One shell for every page: its script tells them apart by the address.
  const std::optional<std::string> body = docFileText(kHtmlShell);
  return pageHead("text/html; charset=utf-8") +
         (body ? *body
               : std::string("<!DOCTYPE html><p>The SDK data folder has no ") + kHtmlShell +
                     ".</p>");
}

}  // namespace

std::string answerPage(KXBroker& broker, const std::string& rawPath) {
  const std::string path = percentDecode(rawPath);
  try {
    if (path == "/favicon.ico") {
      return pageHead(nullptr);
    }
    for (const char* prefix : {kEvalPrefix, kJsonCallPrefix}) {
      if (!startsWith(path, prefix)) continue;
      std::string call = path.substr(std::char_traits<char>::length(prefix));
      // "/?eval=<call>" is how people write a query by hand.
      if (startsWith(call, "=")) call.erase(0, 1);
      return prefix == kEvalPrefix
                 ? pageHead("text/plain") + evaluateUrlCall(broker, call)
                 : pageHead("application/json") + evaluateUrlCallAsJson(broker, call);
    }
    if (auto page = htmlPage(broker, path)) {
      return *page;
    }
    if (path == "/full") {
      return brokerPage(broker, true);
    }
    if (auto module = moduleForPath(broker, path, kContentSuffix)) {
      return pageHead("text/html") + module->getContentPage();
    }
    if (path != "/index.xml") {
      if (auto module = moduleForPath(broker, path, kXmlSuffix)) {
        return modulePage(broker, *module);
      }
    }
    if (path != "/index.xml" && path != "/") {
      if (auto file = docFileAnswer(path)) {
        return *file;
      }
    }
    // "/", "/index.xml" and every path that names nothing get the broker page.
    return brokerPage(broker, false);
  } catch (const std::exception& error) {
    // A module's description or content page failed: say so rather than drop the answer.
    return pageHead("text/plain") + error.what();
  }
}

}  // namespace detail
}  // namespace KX
