// A host process that embeds the interpreter and runs its own broker hands it to Python
// with setInstance; Python modules then answer the host's calls.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "broker/kxbroker.h"
#include "embedded_python.h"
#include "module/kxproxy.h"
#include "module/tests/proxy_test_support.h"
#include "python/pygil.h"

namespace KX {
namespace python {
namespace {

using KX::testing::args;

// Runs `code` in __main__ and returns the text of the exception it raised (class name,
// ": ", message), or "" when it raised none.
std::string raisedBy(const std::string& code) {
  PyObjectPtr result(
      PyRun_String(code.c_str(), Py_file_input, testing::mainDict(), testing::mainDict()));
  if (result) return "";
  auto error = testing::takeError();
  PyObjectPtr name(PyObject_GetAttrString(error.first.get(), "__name__"));
  return std::string(PyUnicode_AsUTF8(name.get())) + ": " + error.second;
}

std::string addressOf(const std::shared_ptr<KXBroker>& broker) {
  return std::to_string(reinterpret_cast<long>(broker.get()));
}

class SetInstanceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    host_ = KXBroker::createBroker("host", "127.0.0.1", 0, "", 0, KXBroker::kKeepAlive, "", false);
    ASSERT_TRUE(testing::run("import sys\nsys.path.insert(0, '" VELMO_EXTENSION_DIR "')\n"
                             "import ivelmo"));
  }
  void TearDown() override {
    ScopedGILRelease release;
    host_->shutdown();
  }

  std::shared_ptr<KXBroker> host_;
};

TEST_F(SetInstanceTest, APythonModuleAnswersTheHost) {
  ASSERT_EQ(raisedBy("ivelmo.setInstance(" + addressOf(host_) + ")\n" + R"(
class Doubler(ivelmo.module):
    def __init__(self, name):
        ivelmo.module.__init__(self, name)
        self.BIND_PYTHON(name, "double")
    def double(self, value):
        return [value, value]
Doubler("Doubler")
)"),
            "");
  KXProxy proxy(host_, "Doubler");
  EXPECT_TRUE(proxy.isLocal());
  EXPECT_EQ(proxy.genericCall("double", args({"ab"})), args({"ab", "ab"}));
  {
    // From a framework thread, while Python's own thread waits outside the interpreter.
    ScopedGILRelease release;
    const int id = proxy.genericPCall("double", args({3}));
    EXPECT_FALSE(proxy.wait(id, 0));
  }
  // Python sees the host's broker as its own.
  EXPECT_EQ(raisedBy("assert ivelmo.proxy('Doubler').pythonCall(['double', 1]) == [1, 1]"), "");
}

TEST_F(SetInstanceTest, AnAddressThatIsNoLiveBrokerIsRefused) {
  const std::shared_ptr<KXBroker> gone =
      KXBroker::createBroker("gone", "127.0.0.1", 0, "", 0, KXBroker::kKeepAlive, "", false);
  const std::string goneAddress = addressOf(gone);
  gone->shutdown();
  struct Case {
    std::string argument;
    std::string raised;
  };
  const Case cases[] = {
      {"0",
       "RuntimeError: \tbroker::setInstance\n\tNo broker of this process lives at address 0x0"},
      {goneAddress,
       "RuntimeError: \tbroker::setInstance\n\tNo broker of this process lives at "
       "address 0x"},
      {"'x'", "TypeError: in method 'setInstance', argument 1 of type 'long'"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.argument);
    const std::string raised = raisedBy("ivelmo.setInstance(" + c.argument + ")");
    EXPECT_EQ(raised.substr(0, c.raised.size()), c.raised);
    EXPECT_FALSE(raised.empty());
  }
}

}  // namespace
}  // namespace python
}  // namespace KX
