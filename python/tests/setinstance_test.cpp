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

std::shared_ptr<KXBroker> hostBroker(const std::string& name) {
  return KXBroker::createBroker(name, "127.0.0.1", 0, "", 0, KXBroker::kKeepAlive, "", false);
}

// Runs `code` in __main__ after importing the binding of this build and adopting the
// broker at `address`; false (traceback printed) when it raised.
bool runAdopting(const KXBroker* address, const std::string& code) {
  const std::string adopt = "import sys\nsys.path.insert(0, '" VELMO_EXTENSION_DIR
                            "')\nimport ivelmo\nADDRESS = " +
                            std::to_string(reinterpret_cast<long>(address)) + "\n";
  return testing::run((adopt + code).c_str());
}

TEST(SetInstanceTest, APythonModuleAnswersTheHost) {
  const std::shared_ptr<KXBroker> host = hostBroker("host");
  ASSERT_TRUE(runAdopting(host.get(), R"(
ivelmo.setInstance(ADDRESS)
class Doubler(ivelmo.module):
    def __init__(self, name):
        ivelmo.module.__init__(self, name)
        self.BIND_PYTHON(name, "double")
    def double(self, value):
        return [value, value]
Doubler("Doubler")
assert ivelmo.proxy('Doubler').pythonCall(['double', 1]) == [1, 1]
)"));
  KXProxy proxy(host, "Doubler");
  EXPECT_TRUE(proxy.isLocal());
  EXPECT_EQ(proxy.genericCall("double", args({"ab"})), args({"ab", "ab"}));
  ScopedGILRelease release;  // from a pool thread, while this thread waits outside Python
  EXPECT_FALSE(proxy.wait(proxy.genericPCall("double", args({3})), 0));
  host->shutdown();
}

TEST(SetInstanceTest, AnAddressThatIsNoLiveBrokerIsRefusedWithoutBeingRead) {
  const std::shared_ptr<KXBroker> gone = hostBroker("gone");
  gone->shutdown();  // no longer listed, still allocated: refused by address alone
  EXPECT_TRUE(runAdopting(gone.get(), R"(
try:
    ivelmo.setInstance(ADDRESS)
except RuntimeError as e:
    assert str(e).startswith('\tbroker::setInstance\n\tNo broker of this process lives at address 0x'), e
else:
    raise AssertionError('accepted')
)"));
}

}  // namespace
}  // namespace python
}  // namespace KX
