#include "brokerprogram/commands.h"

#include <memory>
#include <ostream>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "broker/kxbroker.h"
#include "broker/kxbrokerproxy.h"
#include "brokerprogram/watchcommand.h"
#include "module/kxmoduleinfo.h"
#include "module/kxproxy.h"
#include "value/kxerror.h"
#include "value/kxvalue.h"
#include "value/kxvaluejson.h"

namespace velmo {
namespace {

using KX::KXModuleInfo;
using KX::KXValue;

std::string address(const KXModuleInfo& info) { return info.ip + ":" + std::to_string(info.port); }

// What a command reaches the tree through: a broker of this process that serves nothing
// (no port to open, no start-up pause), it only connects.
class Client {
 public:
  explicit Client(const CommandOptions& options)
      : options(options),
        broker_(KX::KXBroker::createBroker("velmo-cli", "127.0.0.1", 0, "", 0,
                                           KX::KXBroker::kKeepAlive | KX::KXBroker::kCreateNetwork,
                                           "", false)) {}
  ~Client() { broker_->shutdown(); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  KX::KXBrokerProxy brokerAt(const std::string& ip, int port) const {
    return KX::KXBrokerProxy(broker_, ip, port);
  }
  // The module, found from the broker asked.
  KX::KXProxy module(const std::string& name) const {
    return KX::KXProxy(broker_, name, options.brokerIp, options.brokerPort);
  }

  const CommandOptions& options;

 private:
  std::shared_ptr<KX::KXBroker> broker_;
};

// The root of the tree: the broker that hosts "KXMemory" (every root does); the broker
// asked when no memory module is found from it.
KXModuleInfo rootOf(const Client& client) {
  const CommandOptions& options = client.options;
  KXModuleInfo root;
  root.ip = options.brokerIp;
  root.port = options.brokerPort;
  try {
    const KXModuleInfo memory = client.module("KXMemory").getModuleInfo();
    root.ip = memory.ip;
    root.port = memory.port;
  } catch (const KX::KXError&) {
    // A tree without a memory module: what lies below the given broker is shown.
  }
  return root;
}

// An Array of `items`, in order (empty without any).
KXValue arrayOf(std::vector<KXValue> items = {}) {
  KXValue array;
  array.arraySetSize(0);
  for (KXValue& item : items) array.arrayPush(std::move(item));
  return array;
}

// "module.method" split at the first point; KXError when either part is missing.
std::pair<std::string, std::string> splitTarget(const std::string& target) {
  const std::size_t dot = target.find('.');
  if (dot == std::string::npos || dot == 0 || dot + 1 == target.size()) {
    KX_THROW("velmo", "call", "\"" + target + "\" is not MODULE.METHOD");
  }
  return {target.substr(0, dot), target.substr(dot + 1)};
}

// An argument in the compact text form: a number (12, -0.5, 0x1F), true, false, a quoted
// text or a bracketed array; any other word is the text itself, as people type it.
KXValue argumentOf(const std::string& text) {
  static const std::regex kTextForm(
      R"(-?(\d+\.?\d*|\.\d+)|-?0[xX][0-9a-fA-F]+|true|false|["\[].*)");
  if (!std::regex_match(text, kTextForm)) return KXValue(text);
  KXValue value;
  value.unSerializeFromText(text);
  return value;
}

std::vector<std::string> textsOf(const KXValue& array) {
  std::vector<std::string> texts;
  if (array.getType() != KXValue::TypeArray) return texts;
  for (int i = 0; i < array.getSize(); ++i) {
    texts.push_back(array[i].getType() == KXValue::TypeString
                        ? static_cast<const std::string&>(array[i])
                        : array[i].toString());
  }
  return texts;
}

void printValue(std::ostream& out, const KXValue& value, bool json) {
  if (json) {
    out << KX::toJson(value) << "\n";
  } else if (value.isValid()) {
    out << value.toString() << "\n";
  }
}

int tree(const Client& client, std::ostream& out) {
  const CommandOptions& options = client.options;
  const KXModuleInfo root = rootOf(client);
  std::vector<KXModuleInfo> brokers;
  client.brokerAt(root.ip, root.port).getBrokerList(brokers);
  KXValue all = arrayOf();
  for (const KXModuleInfo& broker : brokers) {
    std::vector<KXModuleInfo> modules;
    try {
      client.brokerAt(broker.ip, broker.port).getModuleList(modules);
    } catch (const KX::KXError&) {
      // Registered but silent: listed without modules.
    }
    KXValue names = arrayOf();
    for (const KXModuleInfo& module : modules) names.arrayPush(KXValue(module.name));
    if (options.json) {
      all.arrayPush(arrayOf({KXValue(broker.name), KXValue(address(broker)), names}));
      continue;
    }
    out << broker.name << " " << address(broker) << "\n";
    for (const std::string& name : textsOf(names)) out << "  " << name << "\n";
  }
  if (options.json) out << KX::toJson(all) << "\n";
  return 0;
}

int list(const Client& client, std::ostream& out) {
  const CommandOptions& options = client.options;
  if (!options.arguments.empty()) {
    KX::KXProxy module = client.module(options.arguments[0]);
    const KXValue methods = module.genericCall("getMethodList", KXValue());
    if (options.json) {
      printValue(out, methods, true);
    } else {
      for (const std::string& name : textsOf(methods)) out << name << "\n";
    }
    return 0;
  }
  const KXModuleInfo root = rootOf(client);
  std::vector<KXModuleInfo> modules;
  client.brokerAt(root.ip, root.port).getGlobalModuleList(modules);
  KXValue all = arrayOf();
  for (const KXModuleInfo& module : modules) {
    if (options.json) {
      all.arrayPush(arrayOf({KXValue(module.name), KXValue(address(module))}));
    } else {
      out << module.name << " " << address(module) << "\n";
    }
  }
  if (options.json) out << KX::toJson(all) << "\n";
  return 0;
}

int help(const Client& client, std::ostream& out) {
  const CommandOptions& options = client.options;
  const std::string& target = options.arguments[0];
  const std::size_t dot = target.find('.');
  KX::KXProxy module = client.module(target.substr(0, dot));
  KXValue arguments = arrayOf();
  if (dot != std::string::npos) arguments.arrayPush(KXValue(target.substr(dot + 1)));
  const KXValue help =
      module.genericCall(dot == std::string::npos ? "getModuleHelp" : "getMethodHelp", arguments);
  if (options.json) {
    printValue(out, help, true);
    return 0;
  }
  if (dot == std::string::npos) {
    for (const std::string& line : textsOf(help)) out << line << "\n";
    out << "\nMethods:\n";
    for (const std::string& name : textsOf(module.genericCall("getMethodList", arrayOf()))) {
      out << "  " << name << "\n";
    }
    return 0;
  }
  // [name, description, [p1, d1, p2, d2, ...] or Invalid, result name, result description]
  const std::vector<std::string> fields = textsOf(help);
  const std::vector<std::string> parameters = textsOf(help[2]);
  out << target << "(";
  for (std::size_t i = 0; i < parameters.size(); i += 2)
    out << (i > 0 ? ", " : "") << parameters[i];
  out << ")\n  " << fields.at(1) << "\n";
  for (std::size_t i = 0; i + 1 < parameters.size(); i += 2) {
    out << "  " << parameters[i] << ": " << parameters[i + 1] << "\n";
  }
  if (fields.size() > 4 && !fields[3].empty()) {
    out << "  returns " << fields[3] << ": " << fields[4] << "\n";
  }
  return 0;
}

int call(const Client& client, std::ostream& out) {
  const CommandOptions& options = client.options;
  const auto target = splitTarget(options.arguments[0]);
  KXValue arguments = arrayOf();
  for (std::size_t i = 1; i < options.arguments.size(); ++i) {
    arguments.arrayPush(argumentOf(options.arguments[i]));
  }
  KX::KXProxy module = client.module(target.first);
  printValue(out, module.genericCall(target.second, arguments), options.json);
  return 0;
}

}  // namespace

int runCommand(const CommandOptions& options, std::ostream& out, std::ostream& err) {
  try {
    const Client client(options);
    if (options.command == "watch") {
      // The memory module calls back over the network: the address it sees this process at.
      return watch(options, client.brokerAt(options.brokerIp, options.brokerPort).sendBackIP(),
                   out);
    }
    if (options.command == "tree") return tree(client, out);
    if (options.command == "list") return list(client, out);
    if (options.command == "help") return help(client, out);
    return call(client, out);
  } catch (const KX::KXError& error) {
    err << error.what() << std::endl;
    return 1;
  }
}

}  // namespace velmo
