// The methods the "KXNetwork" module publishes, in their published order. Connections are
// named by their id; module and broker records travel as Arrays
// [name, architecture, ip, port, processId, isABroker, keepAlive].
#include <functional>
#include <string>
#include <vector>

#include "broker/kxbroker.h"
#include "module/kxlambdafunctor.h"
#include "network/detail/kxconnection.h"
#include "network/detail/kxnetwork.h"
#include "value/kxerror.h"

namespace KX {

namespace {

constexpr char kClass[] = "KXNetwork";

KXValue recordToValue(const KXModuleInfo& info) {
  KXValue value;
  value.arraySetSize(7);
  value[0] = info.name;
  value[1] = info.architecture;
  value[2] = info.ip;
  value[3] = info.port;
  value[4] = info.processId;
  value[5] = info.isABroker;
  value[6] = info.keepAlive;
  return value;
}

KXModuleInfo recordFromValue(const KXValue& value) {
  if (value.getType() != KXValue::TypeArray || value.getSize() < 7) {
    KX_THROW("KXNetwork", "record",
             "a record is [name, architecture, ip, port, processId, isABroker, keepAlive]");
  }
  KXModuleInfo info;
  info.name = static_cast<const std::string&>(value[0]);
  info.architecture = static_cast<int>(value[1]);
  info.ip = static_cast<const std::string&>(value[2]);
  info.port = static_cast<int>(value[3]);
  info.processId = static_cast<int>(value[4]);
  info.isABroker = static_cast<bool>(value[5]);
  info.keepAlive = static_cast<bool>(value[6]);
  return info;
}

KXValue recordsToValue(const std::vector<KXModuleInfo>& records) {
  KXValue list;
  list.arraySetSize(0);
  for (const auto& record : records) {
    list.arrayPush(recordToValue(record));
  }
  return list;
}

}  // namespace

void KXNetwork::bindNetworkMethods() {
  functionName("setEndPoint", kClass, "");
  addParam("connectionInformation", "internal connection structure");
  addParam("ip", "IP of the new connection");
  addParam("port", "Port of the new connection");
  bindMethod(&KXNetwork::setEndPoint);

  functionName("registerBroker", kClass, "Register to server");
  addParam("connectionInformation", "internal connection structure");
  addParam("broker", "Broker to register");
  bindFunction<void, int, KXValue>(*this, [this](const int& connection, const KXValue& broker) {
    registerBrokerTo(connection, recordFromValue(broker));
  });

  functionName("newServer", kClass, "Create a new server");
  addParam("ip", "server IP");
  addParam("port", "server port");
  bindMethod(&KXNetwork::newServer);

  functionName("configureClient", kClass,
               "optional get an IP address for client (different than 0.0.0.0)");
  addParam("endPoint", "server IP");
  bindFunction<void, std::string>(*this, [this](const std::string& endpoint) {
    configureClient(endpoint, getParentBroker()->getIP());
  });

  functionName("listenRequest", kClass, "Server running");
  bindMethod(&KXNetwork::listenRequest);

  functionName("heartBeat", kClass,
               "Heartbeat server function. Heartbeat check client and server exist. Can be "
               "disactivated at broker creation");
  addParam("brokerName", "Broker that sent heartbeat");
  bindMethod(&KXNetwork::heartBeat);

  functionName("runHeartBeat", kClass, "Checks for client heartbeats.");
  bindMethod(&KXNetwork::runHeartBeat);

  functionName("runHeartBeatCheck", kClass, "Server method that check client heartbeat reception");
  bindMethod(&KXNetwork::runHeartBeatCheck);

  functionName("registerClient", kClass, "Register to server");
  addParam("ip", "server IP");
  addParam("port", "server port");
  addParam("useHeartBeat", "Use heartbeat or not");
  bindMethod(&KXNetwork::registerClient);

  functionName("callMethod", kClass, "Call method remotely");
  addParam("connectionInfo", "Internal connection structure");
  addParam("szMethodName", "method name");
  addParam("param", "parameter");
  bindMethod(&KXNetwork::callMethod);

  functionName("pCallMethod", kClass, "Call method in a thread but wait a thread ID");
  addParam("connectionInfo", "Internal connection structure");
  addParam("szMethodName", "method name");
  addParam("param", "parameter");
  bindMethod(&KXNetwork::pCallMethod);

  functionName("pCallMethodNoID", kClass, "call method in a thread. Doesn't wait a thread ID");
  addParam("connectionInfo", "server IP");
  addParam("szMethodName", "server IP");
  addParam("param", "server IP");
  setReturn("Task ID", "Unique ID for the task");
  bindMethod(&KXNetwork::pCallMethodNoID);

  functionName("getModuleList", kClass, "get module list from connected broker");
  addParam("connectionInfo", "server IP");
  bindFunction<KXValue, int>(
      *this, [this](const int& connection) { return recordsToValue(getModuleList(connection)); });

  functionName("unregisterBroker", kClass, "Unregister broker from server");
  addParam("connectionInfo", "internal connection information");
  addParam("moduleInfo", "broker to unregister");
  bindFunction<void, int, KXValue>(*this, [this](const int& connection, const KXValue& broker) {
    unregisterBroker(connection, recordFromValue(broker));
  });

  functionName("getBrokerInfo", kClass, "get information from remote broker");
  addParam("connectionInfo", "internal connection information");
  setReturn("moduleInfo", "structure to fill with broker information");
  bindFunction<KXValue, int>(
      *this, [this](const int& connection) { return recordToValue(getBrokerInfo(connection)); });

  functionName("getInfo", kClass, "get information from remote module (deprecated)");
  addParam("connectionInfo", "internal connection information");
  addParam("moduleName", "module name");
  setReturn("moduleInfo", "structure to fill with module information");
  bindFunction<KXValue, int, std::string>(*this,
                                          [this](const int& connection, const std::string& name) {
                                            return recordToValue(getInfo(connection, name));
                                          });

  functionName("createClient", kClass, "Initialize client structure");
  addParam("endpoint", "server IP");
  bindFunction<int, std::string>(*this, [this](const std::string& endpoint) {
    KXModuleInfo remote;
    remote.name = "KXNetwork";
    remote.isABroker = true;
    return createConnection(remote, endpoint, kBrokerTimeoutSeconds);
  });

  functionName("getModuleByName", kClass, "get information from remote module");
  addParam("connectionInfo", "internal connection information");
  addParam("moduleName", "module name");
  setReturn("moduleInfo", "structure to fill with module information");
  bindFunction<KXValue, int, std::string>(*this,
                                          [this](const int& connection, const std::string& name) {
                                            return recordToValue(getModuleByName(connection, name));
                                          });

  functionName("getBrokerList", kClass, "get all brokers in distributed tree");
  addParam("connectionInfo", "internal connection information");
  setReturn("brokerList", "internal broker list");
  bindFunction<KXValue, int>(
      *this, [this](const int& connection) { return recordsToValue(getBrokerList(connection)); });

  functionName("getRemoteMethodList", kClass, "A autogenerated dummyFunction.");
  addParam("connectionInfo", "internal connection information");
  addParam("moduleName", "module name");
  setReturn("connectionInfo", "internal method list");
  bindFunction<std::vector<std::string>, int, std::string>(
      *this, [this](const int& connection, const std::string& name) {
        return getRemoteMethodList(connection, name);
      });

  functionName("createConnection", kClass,
               "Create a new connection to server (new proxy mean new connection)");
  addParam("KXModuleInfo", "internal connection information");
  addParam("endPoint", "server adress");
  addParam("timeout", "timeout in second");
  bindFunction<int, KXValue, std::string, int>(
      *this, [this](const KXValue& module, const std::string& endpoint, const int& timeout) {
        return createConnection(recordFromValue(module), endpoint, timeout);
      });

  functionName("disconnectBroker", kClass, "disconnect from server and stop listen");
  bindMethod(&KXNetwork::disconnectBroker);

  functionName("reconnectBroker", kClass, "reconnect broker without destroying it");
  addParam("parentIP", "parent IP");
  addParam("parentport", "parent port");
  addParam("heartbeat", "true to activate heartbeat. False to disactivate heartbeat");
  bindMethod(&KXNetwork::reconnectBroker);

  functionName("remotePCallManager", kClass, "Manages remote pcalls.");
  bindMethod(&KXNetwork::remotePCallManager);

  functionName("unregisterModuleReference", kClass, "A autogenerated dummyFunction.");
  addParam("connectionInfo", "internal connection information");
  addParam("modInfo", "module name");
  bindFunction<void, int, std::string>(*this,
                                       [this](const int& connection, const std::string& name) {
                                         unregisterModuleReference(connection, name);
                                       });

  functionName("getGlobalModuleList", kClass, "get global module list");
  addParam("connectionInfo", "internal connection information");
  setReturn("moduleList", "Internal module list object");
  bindFunction<KXValue, int>(*this, [this](const int& connection) {
    return recordsToValue(getGlobalModuleList(connection));
  });

  functionName("findFreePort", kClass, "Find a free port on specific IP");
  addParam("ip", "findFreePort will return free port on IP");
  addParam("start port", "First port to try");
  bindMethod(&KXNetwork::findFreePort);

  functionName("getLocalIP", kClass, "return computer IP");
  bindMethod(&KXNetwork::getLocalIP);

  functionName("destroyConnection", kClass, "destroy connection");
  addParam("connectionInformation", "internal connection information");
  bindMethod(&KXNetwork::destroyConnection);

  functionName("waitSynchronizer", kClass, "Waits for a condition to be triggered.");
  addParam("name", "Condition name");
  bindMethod(&KXNetwork::waitSynchronizer);
}

}  // namespace KX
