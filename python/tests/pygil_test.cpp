#include "python/pygil.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "embedded_python.h"
#include "value/kxerror.h"

namespace KX {
namespace python {
namespace {

using testing::eval;
using testing::run;

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

TEST(ScopedGILRelease, AnotherPythonThreadRunsWhileReleased) {
  // The worker blocks in a read (lock released); once the byte arrives it needs the lock
  // back to write its answer, which it gets only while this thread has released it.
  ASSERT_TRUE(
      run("import os, threading\n"
          "go_r, go_w = os.pipe()\ndone_r, done_w = os.pipe()\n"
          "worker = threading.Thread(target=lambda: os.write(done_w, os.read(go_r, 1)))\n"
          "worker.start()\n"));
  PyObjectPtr go = eval("go_w");
  PyObjectPtr done = eval("done_r");
  pollfd answer = {static_cast<int>(PyLong_AsLong(done.get())), POLLIN, 0};
  int ready = 0;
  {
    ScopedGILRelease release;
    const char byte = 'x';
    if (write(static_cast<int>(PyLong_AsLong(go.get())), &byte, 1) == 1) {
      ready = poll(&answer, 1, 30000);
    }
  }
  EXPECT_EQ(ready, 1);
  ASSERT_TRUE(
      run("worker.join(60)\nassert not worker.is_alive()\n"
          "for fd in (go_r, go_w, done_r, done_w): os.close(fd)\n"));
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
