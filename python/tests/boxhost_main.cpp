// Usage: velmo_boxhost PARENT_PORT SCRIPT. A robot's main program in small: a child broker
// with a native box "Relay" (input "in" passed on to "out") and an interpreter that runs SCRIPT
// with the broker's address in ADDRESS, until standard input closes.
#include <Python.h>

#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>

#include "behavior/kxbehavior.h"
#include "behavior/kxbehaviormanager.h"
#include "broker/kxbroker.h"

namespace {

class RelayBox : public KX::KXBehavior {
 public:
  RelayBox(const std::shared_ptr<KX::KXBroker>& broker, const std::string& name)
      : KX::KXBehavior(broker, name) {
    addInput("in");
    addOutput("out", false);
    functionName("onInput_in__", "RelayBox", "Passes the value on to the output \"out\".");
    addParam("value", "the value received");
    bindMethod(&RelayBox::onIn);
  }
  void onIn(const KX::KXValue& value) { stimulateIO("out", value); }
};

int runScript(const std::string& path, const KX::KXBroker* broker) {
  std::ifstream file(path);
  const std::string body((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  if (!file) {
    std::cerr << "cannot read " << path << std::endl;
    return 1;
  }
  const std::string code = "import sys\nsys.path.insert(0, '" VELMO_EXTENSION_DIR "')\nADDRESS = " +
                           std::to_string(reinterpret_cast<long>(broker)) + "\n" + body;
  return PyRun_SimpleString(code.c_str()) == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: " << argv[0] << " PARENT_PORT SCRIPT" << std::endl;
    return 2;
  }
  // A KXError here ends the program with its text, which the test shows.
  std::shared_ptr<KX::KXBroker> broker = KX::KXBroker::createBroker(
      "boxhost", "127.0.0.1", 0, "127.0.0.1", std::stoi(argv[1]), KX::KXBroker::kKeepAlive);
  KX::addBehaviorManager(broker);
  KX::createModule<RelayBox>(broker, "Relay");
  Py_InitializeEx(0);
  int status = runScript(argv[2], broker.get());
  // The framework's threads run the script's boxes meanwhile, each taking the
  // interpreter lock for its own calls.
  PyThreadState* state = PyEval_SaveThread();
  if (status == 0) {
    std::string ignored;
    while (std::getline(std::cin, ignored)) {
    }
  }
  broker->shutdown();
  PyEval_RestoreThread(state);
  if (Py_FinalizeEx() < 0) status = 1;
  return status;
}
