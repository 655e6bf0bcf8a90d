// Runs the bridge tests inside one embedded interpreter. The main thread holds the
// interpreter lock while the tests run, as a Python thread that called into the
// framework would.
#include <Python.h>
#include <gtest/gtest.h>

int main(int argc, char** argv) {
  ::testing::InitGoogleTest(&argc, argv);
  // No signal handlers: the test runner's own handling of SIGINT stays in place.
  Py_InitializeEx(0);
  const int result = RUN_ALL_TESTS();
  if (Py_FinalizeEx() < 0) return 1;
  return result;
}
