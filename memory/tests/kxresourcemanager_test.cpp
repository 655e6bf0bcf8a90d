// KXResourceManager: the resource tree, taking and releasing, conflict callbacks, waits
// ended by a release, a disabling, a deletion or the exit, and owners racing for trees.

#include "memory/kxresourcemanager.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <map>
#include <set>
#include <string>
#include <thread>

#include "memory/tests/memorytestkit.h"

namespace KX {
namespace testing {
namespace {

using Owners = std::map<std::string, std::string>;

// Body > {Legs > {LeftLeg, RightLeg}, Arms > {LeftArm, RightArm}, Head}
class ResourceManagerTest : public ModuleTest<KXResourceManager> {
 protected:
  ResourceManagerTest() : ModuleTest("KXResourceManager") {}
  void SetUp() override {
    ModuleTest::SetUp();
    module_->createResource("Body", "");
    module_->createResourcesList({"Legs", "Arms", "Head"}, "Body");
    module_->createResourcesList({"LeftLeg", "RightLeg"}, "Legs");
    module_->createResourcesList({"LeftArm", "RightArm"}, "Arms");
  }
  // Bounded: a fault ends in a timeout error, not in a hang.
  void take(const Strings& tree, const std::string& owner, const std::string& callback = "") {
    proxy_->call<void>("waitForResourcesTree", tree, owner, callback,
                       static_cast<int>(kPatience.count()));
  }
  Owners owners() {
    const KXValue list = proxy_->call<KXValue>("ownersGet");
    Owners result;
    for (int i = 0; i < list.getSize(); ++i) {
      EXPECT_EQ(list[i].getSize(), 2);
      result[static_cast<const std::string&>(list[i][0])] =
          static_cast<const std::string&>(list[i][1]);
    }
    return result;
  }
};

TEST_F(ResourceManagerTest, RefusalsNameTheResourceAndTheCause) {
  take({"Legs"}, "Walker");
  take({"Head"}, "Talker");
  const std::string tail = "Resource \"Tail\" does not exist.";
  const std::string noParent = "parent resource \"Tail\" does not exist.";
  const std::string empty = "A resource name must not be empty.";
  const std::string other = "Resource \"Legs\" is owned by \"Walker\", not by \"Talker\".";
  const struct {
    std::string method;
    KXValue params;
    std::string text;
  } cases[] = {
      // Every name is checked: an unknown one is reported even after a held one.
      {"areResourcesFree", arrayOf(Strings{"Legs", "Tail"}), tail},
      {"areResourcesOwnedBy", arrayOf(Strings{"Tail"}, "A"), tail},
      {"deleteResource", arrayOf("Tail", true), tail},
      {"enableStateResource", arrayOf("Tail", false), tail},
      {"isInGroup", arrayOf("Tail", "Legs"), tail},
      {"isInGroup", arrayOf("Legs", "Tail"), tail},
      {"isResourceFree", arrayOf("Tail"), tail},
      {"releaseResource", arrayOf("Tail", "A"), tail},
      {"releaseResources", arrayOf(Strings{"Head", "Tail"}, "Talker"), tail},
      {"waitForResource", arrayOf("Tail", "A", "", 0), tail},
      {"waitForResourcesTree", arrayOf(Strings{"Arms", "Tail"}, "A", "", 0), tail},
      {"waitForOptionalResourcesTree", arrayOf(Strings{"Arms"}, "A", "", 0, Strings{"Tail"}), tail},
      {"createResource", arrayOf("New", "Tail"), "Cannot create resource \"New\": " + noParent},
      {"createResourcesList", arrayOf(Strings{"New"}, "Tail"),
       "Cannot create resources: " + noParent},
      {"createResource", arrayOf("", ""), empty},
      {"createResourcesList", arrayOf(Strings{"New", ""}, ""), empty},
      {"deleteResource", arrayOf("Legs", false),
       "Cannot delete resource \"Legs\": it has children (ask to delete them too)."},
      {"releaseResource", arrayOf("Legs", "Talker"), other},
      {"releaseResources", arrayOf(Strings{"Head", "Legs"}, "Talker"), other},
      {"waitForResource", arrayOf("Arms", "", "", 0), "An owner name is required."},
      {"waitForResource", arrayOf("Arms", "A", "", -1),
       "The timeout must be 0 (no limit) or a number of seconds, not -1."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.method + c.params.toString());
    EXPECT_EQ(errorText([&] { generic(c.method, c.params); }), managerError(c.method, c.text));
  }
  // Refused calls took, released and created nothing.
  EXPECT_EQ(
      owners(),
      (Owners{
          {"Head", "Talker"}, {"LeftLeg", "Walker"}, {"Legs", "Walker"}, {"RightLeg", "Walker"}}));
  EXPECT_EQ(errorText([&] { module_->createResource("Child", "New"); }),
            managerError("createResource",
                         "Cannot create resource \"Child\": parent resource \"New\" does not "
                         "exist."));
}

TEST_F(ResourceManagerTest, TheTreeKeepsWhatExistsAndDeletesWholeSubtrees) {
  take({"Legs"}, "Walker");
  module_->createResource("Legs", "Arms");  // neither moved nor freed
  module_->createResourcesList({"Legs", "Tail"}, "");
  EXPECT_EQ(owners().size(), 3u);
  EXPECT_TRUE(module_->isInGroup("LeftLeg", "Body") && module_->isInGroup("Legs", "Legs") &&
              module_->isInGroup("Head", ""));
  EXPECT_FALSE(module_->isInGroup("LeftLeg", "Arms") || module_->isInGroup("Body", "Legs") ||
               module_->isInGroup("Tail", "Body"));
  module_->deleteResource("Legs", true);
  EXPECT_EQ(owners(), Owners{});
  // The parent forgot its deleted children: once the arms are gone too it is a leaf.
  for (const char* name : {"LeftArm", "RightArm", "Arms", "Head", "Body"}) {
    module_->deleteResource(name, false);
  }
  EXPECT_EQ(errorText([&] { module_->isResourceFree("LeftLeg"); }),
            managerError("isResourceFree", "Resource \"LeftLeg\" does not exist."));
}

TEST_F(ResourceManagerTest, TakingAndReleasing) {
  proxy_->call<void>("waitForResource", "Legs", "Walker", "", 0);  // that one only
  proxy_->call<void>("waitForResource", "Legs", "Walker", "", 0);  // held already: at once
  take({"LeftLeg"}, "Talker");
  take({"Head"}, "Talker");
  EXPECT_EQ(
      proxy_->call<KXValue>("ownersGet"),  // sorted by resource
      arrayOf(arrayOf("Head", "Talker"), arrayOf("LeftLeg", "Talker"), arrayOf("Legs", "Walker")));
  EXPECT_FALSE(module_->areResourcesOwnedBy({"Legs", "Head"}, "Walker"));
  EXPECT_TRUE(module_->areResourcesOwnedBy({"Legs"}, "Walker"));
  EXPECT_FALSE(module_->areResourcesFree({"Arms", "Head"}));
  EXPECT_TRUE(module_->areResourcesFree({"Arms", "RightLeg"}));
  module_->releaseResource("Legs", "Walker");  // not Talker's LeftLeg under it
  module_->releaseResource("Legs", "Walker");  // releasing a free one does nothing
  EXPECT_EQ(owners(), (Owners{{"Head", "Talker"}, {"LeftLeg", "Talker"}}));
  module_->releaseResources({"Body"}, "Talker");  // with what Talker holds under it
  EXPECT_EQ(owners(), Owners{});
}

// A wait for Head and Legs, with Head held by an owner that is asked once to give it up.
TEST_F(ResourceManagerTest, AWaitEndsWhenItsResourceIsReleasedDisabledDeletedOrTheManagerExits) {
  LogCapture capture;
  const char* failed = "KX::KXResourceManager::conflictCallback";
  auto holder = addListener("Sitter");
  const struct {
    const char* holder;
    const char* method;
    KXValue params;
    std::string error;  // "" when the waiter gets through
  } cases[] = {
      {"Sitter", "releaseResource", arrayOf("Head", "Sitter"), ""},
      // A disabled resource counts as free and is never held. A holder without a module is
      // logged.
      {"Ghost", "enableStateResource", arrayOf("Head", false), ""},
      {"Sitter", "deleteResource", arrayOf("Head", false), "Resource \"Head\" does not exist."},
      {"Sitter", "exit", KXValue(),
       "The resource manager exited while \"Walker\" was waiting for resources \"Head\", "
       "\"Legs\"."},
  };
  std::size_t asked = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.method);
    module_->createResource("Head", "Body");
    module_->enableStateResource("Head", true);
    module_->releaseResources({"Head", "Legs"}, "Walker");
    take({"Head"}, c.holder, "onConflict");
    auto waiter = std::async(std::launch::async, [&] { take({"Head", "Legs"}, "Walker"); });
    ASSERT_TRUE(eventually(
        [&] { return holder->calls().size() + capture.withFunction(failed).size() > asked; }));
    ++asked;
    // Another change wakes the waiter: it neither gets through nor asks again.
    module_->enableStateResource("Arms", true);
    EXPECT_TRUE(module_->areResourcesOwnedBy({"Head"}, c.holder));
    generic(c.method, c.params);
    ASSERT_EQ(waiter.wait_for(kPatience), std::future_status::ready);
    if (c.error.empty()) {
      waiter.get();
      EXPECT_TRUE(module_->areResourcesOwnedBy({"Legs", "LeftLeg"}, "Walker"));
      EXPECT_EQ(module_->areResourcesOwnedBy({"Head"}, "Walker"), c.holder == holder->getName());
    } else {
      EXPECT_EQ(errorText([&] { waiter.get(); }), managerError("waitForResourcesTree", c.error));
    }
  }
  ASSERT_EQ(holder->calls().size(), 3u);
  for (const Call& call : holder->calls()) {
    EXPECT_EQ(call.name + " for " + static_cast<const std::string&>(call.value), "Head for Walker");
  }
  const auto records = capture.withFunction(failed);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].level, tu::log::warning);
  EXPECT_EQ(records[0].message,
            "Conflict callback Ghost::onConflict for resource \"Head\" failed: "
            "\tKXProxy::constructor\n\tModule 'Ghost' not found.\n");
}

TEST_F(ResourceManagerTest, ATreeHolderIsAskedForTheTopOfWhatItHoldsAndMayReleaseAtOnce) {
  auto holder = addListener("Walker");
  holder->releases = true;
  take({"Legs"}, "Walker", "onConflict");
  take({"Body"}, "Dancer");  // releasing Legs releases the legs under it too
  EXPECT_EQ(owners().size(), 8u);
  ASSERT_TRUE(holder->waitFor(1));  // it records the call after releasing
  EXPECT_EQ(holder->calls()[0].name, "Legs");
  EXPECT_EQ(holder->calls()[0].value, KXValue("Dancer"));
}

TEST_F(ResourceManagerTest, OptionalTreesAreTakenWholeWhenFreeAndNeverWaitedFor) {
  module_->createResource("Tail", "");
  take({"LeftArm"}, "Waver");
  // With a limit of 1 s, waiting for Arms (held in part) would end in a timeout.
  proxy_->call<void>("waitForOptionalResourcesTree", Strings{"Legs"}, "Walker", "", 1,
                     Strings{"Arms", "Head", "Tail"});
  EXPECT_EQ(owners(), (Owners{{"Head", "Walker"},
                              {"LeftArm", "Waver"},
                              {"LeftLeg", "Walker"},
                              {"Legs", "Walker"},
                              {"RightLeg", "Walker"},
                              {"Tail", "Walker"}}));
  // The required trees wait, and time out holding none of them.
  EXPECT_EQ(errorText([&] {
              proxy_->call<void>("waitForOptionalResourcesTree", Strings{"Arms"}, "Grabber", "", 1,
                                 Strings{"Body"});
            }),
            managerError("waitForOptionalResourcesTree",
                         "Timeout after 1 s while \"Grabber\" was waiting for resource "
                         "\"LeftArm\" held by \"Waver\"."));
  EXPECT_TRUE(module_->areResourcesFree({"Arms", "RightArm", "Body"}));
}

// Two owners take overlapping trees again and again while this thread watches the
// owners: nobody ever holds part of a tree, nothing is held by both, nobody deadlocks.
TEST_F(ResourceManagerTest, OwnersRacingForOverlappingTreesNeverHoldPartOfThem) {
  const std::map<std::string, std::pair<Strings, std::set<std::string>>> racers{
      {"Walker",
       {{"Legs", "Arms"}, {"Legs", "LeftLeg", "RightLeg", "Arms", "LeftArm", "RightArm"}}},
      {"Looker", {{"Head", "Arms"}, {"Head", "Arms", "LeftArm", "RightArm"}}}};
  std::atomic<int> racing{2};
  auto race = [&](const std::string& owner) {
    const auto& [wanted, tree] = racers.at(owner);
    for (int round = 0; round < 1000; ++round) {
      module_->waitForResourcesTree(wanted, owner, "", 0);
      EXPECT_TRUE(module_->areResourcesOwnedBy(Strings(tree.begin(), tree.end()), owner));
      module_->releaseResources(wanted, owner);
    }
    racing.fetch_sub(1);
  };
  std::thread walker(race, "Walker");
  std::thread looker(race, "Looker");
  for (int i = 0; i < 100000 && racing.load() > 0; ++i) {
    std::map<std::string, std::set<std::string>> held;
    for (const auto& [resource, owner] : owners()) held[owner].insert(resource);
    EXPECT_LE(held.size(), 1u);
    for (const auto& [owner, resources] : held) EXPECT_EQ(resources, racers.at(owner).second);
  }
  walker.join();
  looker.join();
  EXPECT_EQ(owners(), Owners{});
}

}  // namespace
}  // namespace testing
}  // namespace KX
