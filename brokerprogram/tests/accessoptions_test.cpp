#include "brokerprogram/accessoptions.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace velmo {
namespace {

// A file of its own name in the test's temporary folder, removed with it.
class TokenFile {
 public:
  TokenFile(const std::string& content, unsigned mode)
      : path_(::testing::TempDir() + "velmo-token-" + std::to_string(getpid()) + "-" +
              std::to_string(++count_)) {
    std::ofstream(path_) << content;
    std::filesystem::permissions(path_, static_cast<std::filesystem::perms>(mode));
  }
  ~TokenFile() { std::filesystem::remove(path_); }
  const std::string& path() const { return path_; }

 private:
  static inline int count_ = 0;
  const std::string path_;
};

std::string refusal(const std::string& path) {
  try {
    return "read " + readTokenFile(path);
  } catch (const std::runtime_error& error) {
    return error.what();
  }
}

TEST(TokenFileTest, APrivateFileGivesItsFirstLineAndOthersAreRefusedWithTheirReason) {
  const TokenFile good("  s3cret-1 \nsecond line\n", 0600);
  EXPECT_EQ(refusal(good.path()), "read s3cret-1");
  const TokenFile shared("s3cret", 0640);
  EXPECT_EQ(refusal(shared.path()), "the token file " + shared.path() +
                                        " can be read by other users (mode 0640); make it "
                                        "private: chmod 600 " +
                                        shared.path());
  const TokenFile empty("\n", 0600);
  EXPECT_EQ(refusal(empty.path()), "the token file " + empty.path() + ": the token is empty");
  const TokenFile spaced("a b", 0400);
  EXPECT_EQ(refusal(spaced.path()), "the token file " + spaced.path() +
                                        ": the token may hold only letters, digits and "
                                        "\"-._~+/=\"");
  EXPECT_EQ(refusal("/nonexistent/token"),
            "the token file /nonexistent/token cannot be read: No such file or directory");
  EXPECT_EQ(refusal("/tmp"), "the token file /tmp is not a file");
}

TEST(AccessNoticeTest, WarnsOnlyWhenEveryInterfaceListensWithoutAToken) {
  EXPECT_NE(accessNotice("", 9559, "").warning, "");
  EXPECT_NE(accessNotice("0.0.0.0", 9559, "").warning, "");
  EXPECT_EQ(accessNotice("127.0.0.1", 9559, "").warning, "");
  const AccessNotice guarded = accessNotice("0.0.0.0", 9559, "t0k");
  EXPECT_EQ(guarded.warning, "");
  // The link a person opens reaches this machine whatever the interfaces listened on.
  EXPECT_NE(guarded.lines.back().find("http://127.0.0.1:9559/?token=t0k"), std::string::npos);
}

}  // namespace
}  // namespace velmo
