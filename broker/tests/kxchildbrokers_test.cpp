#include "broker/kxchildbrokers.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace KX {
namespace {

using Clock = KXChildBrokers::Clock;
using Names = std::vector<std::string>;

KXBrokerInfo brokerNamed(const std::string& name) {
  KXBrokerInfo info;
  info.name = name;
  info.ip = "127.0.0.1";
  info.isABroker = true;
  return info;
}

TEST(ChildBrokersTest, ASilentChildIsNotRespondingFiveTimesThenLost) {
  KXChildBrokers children;
  children.add(brokerNamed("arm"), nullptr);
  ASSERT_TRUE(children.heartBeat("arm"));
  const Clock::time_point beat = Clock::now();
  // Within ten seconds of its beat a child is fine.
  EXPECT_TRUE(children.check(beat + std::chrono::seconds(10)).notResponding.empty());
  const Clock::time_point silent = beat + std::chrono::seconds(12);
  for (int check = 1; check <= KXChildBrokers::kMaxMissedChecks; ++check) {
    const auto result = children.check(silent);
    EXPECT_EQ(result.notResponding, Names{"arm"}) << "check " << check;
    EXPECT_TRUE(result.lost.empty());
  }
  const auto last = children.check(silent);
  EXPECT_TRUE(last.notResponding.empty());
  EXPECT_EQ(last.lost, Names{"arm"});
}

TEST(ChildBrokersTest, ABeatClearsTheMissedChecks) {
  KXChildBrokers children;
  children.add(brokerNamed("leg"), nullptr);
  children.heartBeat("leg");
  for (int check = 0; check < KXChildBrokers::kMaxMissedChecks; ++check) {
    children.check(Clock::now() + std::chrono::seconds(11));
  }
  children.heartBeat("leg");
  EXPECT_TRUE(children.check(Clock::now()).notResponding.empty());
  // The count starts again from zero.
  EXPECT_EQ(children.check(Clock::now() + std::chrono::seconds(11)).notResponding, Names{"leg"});
}

TEST(ChildBrokersTest, ChildrenThatNeverBeatAreNotWatched) {
  KXChildBrokers children;
  children.add(brokerNamed("quiet"), nullptr);
  const auto result = children.check(Clock::now() + std::chrono::hours(1));
  EXPECT_TRUE(result.notResponding.empty());
  EXPECT_TRUE(result.lost.empty());
  EXPECT_FALSE(children.heartBeat("stranger"));
}

TEST(ChildBrokersTest, ARegistrationUnderATakenNameReplacesTheChild) {
  KXChildBrokers children;
  EXPECT_EQ(children.add(brokerNamed("head"), nullptr), nullptr);
  KXBrokerInfo again = brokerNamed("head");
  again.port = 9600;
  auto replaced = children.add(again, nullptr);
  ASSERT_NE(replaced, nullptr);
  EXPECT_EQ(replaced->info.port, 0);
  ASSERT_EQ(children.infos().size(), 1u);
  EXPECT_EQ(children.infos()[0].port, 9600);
  EXPECT_NE(children.remove("head"), nullptr);
  EXPECT_EQ(children.remove("head"), nullptr);
  EXPECT_TRUE(children.empty());
}

}  // namespace
}  // namespace KX
