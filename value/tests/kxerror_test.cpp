#include "value/kxerror.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace KX {
namespace {

TEST(KXErrorTest, DefaultMessage) { EXPECT_STREQ(KXError().what(), "KXError"); }

TEST(KXErrorTest, FullMessage) {
  KXError error("KXValue", "const bool() const", "Cannot cast to bool an KXValue of invalid type.",
                "file.cpp", 12);
  EXPECT_STREQ(error.what(),
               "\tKXValue::const bool() const\n\tCannot cast to bool an KXValue of invalid type.");
}

TEST(KXErrorTest, OnlyDescription) {
  EXPECT_STREQ(KXError("", "", "x", "f.cpp", 1).what(), "\n\tx");
}

TEST(KXErrorTest, ModuleWithoutMethod) {
  EXPECT_STREQ(KXError("M", "", "x", "f.cpp", 1).what(), "\tM\n\tx");
}

TEST(KXErrorTest, MethodWithoutModule) {
  EXPECT_STREQ(KXError("", "m", "x", "f.cpp", 1).what(), "::m\n\tx");
}

TEST(KXErrorTest, SourcePositionIsNotPartOfTheText) {
  KXError first("KXProxy", "constructor", "Module 'a' not found.", "a.cpp", 1);
  KXError second("KXProxy", "constructor", "Module 'a' not found.", "other/b.cpp", 999);
  EXPECT_STREQ(first.what(), second.what());
  EXPECT_EQ(std::string(first.what()).find("a.cpp"), std::string::npos);
}

TEST(KXErrorTest, CopyKeepsTheText) {
  KXError original("A", "b", "c", "f.cpp", 3);
  KXError copy(original);
  EXPECT_STREQ(copy.what(), "\tA::b\n\tc");
  KXError assigned;
  assigned = original;
  EXPECT_STREQ(assigned.what(), "\tA::b\n\tc");
}

TEST(KXErrorTest, NetworkErrorCaughtAsKXError) {
  std::string caught;
  try {
    throw KXNetworkError("KXNetwork", "callMethod", "connection not initialized", "n.cpp", 7);
  } catch (const KXError& error) {
    caught = error.what();
  }
  EXPECT_EQ(caught, "\tKXNetwork::callMethod\n\tconnection not initialized");
}

TEST(KXErrorTest, NetworkErrorCaughtAsRuntimeError) {
  std::string caught;
  try {
    throw KXNetworkError("KXNetwork", "callMethod", "connection not initialized", "n.cpp", 7);
  } catch (const std::runtime_error& error) {
    caught = error.what();
  }
  EXPECT_EQ(caught, "\tKXNetwork::callMethod\n\tconnection not initialized");
}

TEST(KXErrorTest, NetworkErrorFromAnError) {
  KXError error("KXNetwork", "getModuleList", "bad answer", "f.cpp", 1);
  KXNetworkError network(error);
  EXPECT_STREQ(network.what(), error.what());
}

TEST(KXErrorTest, ThrowMacroBuildsTheText) {
  try {
    KX_THROW("KXBroker", "init", "could not initialize KXBroker twice.");
    FAIL() << "KX_THROW did not throw";
  } catch (const KXError& error) {
    EXPECT_STREQ(error.what(), "\tKXBroker::init\n\tcould not initialize KXBroker twice.");
  }
}

TEST(KXErrorTest, AssertMacroNamesTheSourcePosition) {
  const int line = __LINE__ + 2;
  try {
    KX_ASSERT("KXValue", 1 + 1 == 3);
    FAIL() << "KX_ASSERT did not throw";
  } catch (const KXError& error) {
    EXPECT_EQ(std::string(error.what()),
              std::string("\tKXValue::Assert failed\n\t") + __FILE__ + ":" + std::to_string(line));
  }
  EXPECT_NO_THROW(KX_ASSERT("KXValue", 1 + 1 == 2));
}

}  // namespace
}  // namespace KX
