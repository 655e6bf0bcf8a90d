#include "python/pygil.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "embedded_python.h"
#include "value/kxerror.h"

namespace KX {
namespace python {
namespace {

using testing::eval;

TEST(ScopedGILRelease, ReleasesForTheScopeAndTakesBackOnEveryWayOut) {
  {
    ScopedGILRelease release;
    EXPECT_EQ(PyGILState_Check(), 0);
  }
  EXPECT_EQ(PyGILState_Check(), 1);
  // The handler touches Python objects: the lock must be back before it runs.
  try {
    ScopedGILRelease release;
    KX_THROW("broker", "shutdown", "failed");
  } catch (const KXError&) {
    EXPECT_EQ(PyGILState_Check(), 1);
  }
}

TEST(ScopedGILAcquire, LetsANativeThreadRunPythonAndNests) {
  long sum = 0;
  std::string held;  // whether the lock is held: in a nested scope, after it, after the outer one
  {
    ScopedGILRelease release;
    std::thread native([&] {
      {
        ScopedGILAcquire acquire;
        PyObjectPtr result = eval("sum(range(10))");
        sum = result ? PyLong_AsLong(result.get()) : -1;
        {
          ScopedGILAcquire nested;
          held += PyGILState_Check() ? '1' : '0';
        }
        held += PyGILState_Check() ? '1' : '0';
      }
      held += PyGILState_Check() ? '1' : '0';
    });
    native.join();
  }
  EXPECT_EQ(sum, 45);
  EXPECT_EQ(held, "110");
}

}  // namespace
}  // namespace python
}  // namespace KX
