// KXResourceManager: the resource tree, taking and releasing, conflict callbacks, waits
// ended by a release, a disabling, a deletion or the exit, and owners racing for trees.

#include "memory/kxresourcemanager.h"

#include <future>
#include <map>
#include <set>

#include "memory/tests/memorytestkit.h"

namespace KX {
namespace testing {
namespace {

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
  void take(const Strings& trees, const std::string& owner, const std::string& callback = "") {
    module_->waitForResourcesTree(trees, owner, callback, static_cast<int>(kPatience.count()));
  }
  // "resource:owner" for each held resource, as ownersGet lists them.
  Strings owners() {
    const KXValue list = proxy_->call<KXValue>("ownersGet");
    Strings held;
    for (int i = 0; i < list.getSize(); ++i) {
      held.push_back(static_cast<const std::string&>(list[i][0]) + ":" +
                     static_cast<const std::string&>(list[i][1]));
    }
    return held;
  }
};

TEST_F(ResourceManagerTest, RefusalsNameTheResourceAndTheCause) {
  take({"Legs"}, "Walker");
  take({"Head"}, "Talker");
  const std::string tail = "Resource \"Tail\" does not exist.";
  const std::string noParent = "parent resource \"Tail\" does not exist.";
  const std::string empty = "A resource name must not be empty.";
  const std::string other = "Resource \"Legs\" is owned by \"Walker\", not by \"Talker\".";
  expectRefusals(
      *module_,
      {
          // Every name is checked: an unknown one is reported even after a held one.
          {"areResourcesFree", arrayOf(Strings{"Legs", "Tail"}), tail},
          {"isInGroup", arrayOf("Tail", "Legs"), tail},
          {"isInGroup", arrayOf("Legs", "Tail"), tail},
          {"waitForResourcesTree", arrayOf(Strings{"Arms", "Tail"}, "A", "", 0), tail},
          {"waitForOptionalResourcesTree", arrayOf(Strings{"Arms"}, "A", "", 0, Strings{"Tail"}),
           tail},
          {"createResource", arrayOf("New", "Tail"), "Cannot create resource \"New\": " + noParent},
          {"createResourcesList", arrayOf(Strings{"New"}, "Tail"),
           "Cannot create resources: " + noParent},
          {"createResource", arrayOf("", ""), empty},
          {"createResourcesList", arrayOf(Strings{"New", ""}, ""), empty},
          {"deleteResource", arrayOf("Legs", false),
           "Cannot delete resource \"Legs\": it has children (ask to delete them too)."},
          {"releaseResources", arrayOf(Strings{"Head", "Legs"}, "Talker"), other},
          {"waitForResource", arrayOf("Arms", "", "", 0), "An owner name is required."},
          {"waitForResource", arrayOf("Arms", "A", "", -1),
           "The timeout must be 0 (no limit) or a number of seconds, not -1."},
      });
  // Refused calls took, released and created nothing.
  EXPECT_EQ(owners(), (Strings{"Head:Talker", "LeftLeg:Walker", "Legs:Walker", "RightLeg:Walker"}));
  EXPECT_EQ(errorText([&] { module_->isResourceFree("New"); }),
            errorText("KXResourceManager", "isResourceFree", "Resource \"New\" does not exist."));
}

TEST_F(ResourceManagerTest, TakingReleasingAndTheTree) {
  module_->waitForResource("Legs", "Walker", "", 0);  // that one only
  module_->waitForResource("Legs", "Walker", "", 0);  // held already: at once
  take({"LeftLeg", "Head"}, "Talker");
  module_->createResource("Legs", "Arms");  // exists: neither moved nor freed
  module_->createResourcesList({"Legs", "Tail"}, "");
  EXPECT_EQ(owners(), (Strings{"Head:Talker", "LeftLeg:Talker", "Legs:Walker"}));  // sorted
  EXPECT_FALSE(module_->areResourcesOwnedBy({"Legs", "Head"}, "Walker"));
  EXPECT_FALSE(module_->areResourcesFree({"Arms", "Head"}));
  EXPECT_TRUE(module_->isInGroup("LeftLeg", "Body") && module_->isInGroup("Legs", "Legs") &&
              module_->isInGroup("Head", ""));
  EXPECT_FALSE(module_->isInGroup("LeftLeg", "Arms") || module_->isInGroup("Tail", "Body"));
  module_->releaseResource("Legs", "Walker");  // not Talker's LeftLeg under it
  module_->releaseResource("Legs", "Walker");  // releasing a free one does nothing
  EXPECT_EQ(owners(), (Strings{"Head:Talker", "LeftLeg:Talker"}));
  module_->releaseResources({"Body"}, "Talker");  // with what Talker holds under it
  EXPECT_EQ(owners(), Strings{});
  module_->deleteResource("Legs", true);
  // The parent forgot its deleted children: once the arms are gone too it is a leaf.
  for (const char* name : {"LeftArm", "RightArm", "Arms", "Head", "Body"}) {
    module_->deleteResource(name, false);
  }
  EXPECT_EQ(
      errorText([&] { module_->isResourceFree("LeftLeg"); }),
      errorText("KXResourceManager", "isResourceFree", "Resource \"LeftLeg\" does not exist."));
}

// A wait for Head and Legs while Head's holder, asked once to give it up, does not.
TEST_F(ResourceManagerTest, AWaitEndsWhenItsResourceIsReleasedDisabledDeletedOrTheManagerExits) {
  LogCapture capture;
  const char* failed = "KX::KXResourceManager::conflictCallback";
  auto holder = createModule<Listener>(broker_, "Sitter");
  const struct {
    const char* holder;
    const char* method;
    KXValue params;
    std::string error;  // "" when the waiter gets through
  } cases[] = {
      {"Sitter", "releaseResource", arrayOf("Head", "Sitter"), ""},
      // A disabled resource counts as free, and is never held. A holder without a module is
      // logged.
      {"Ghost", "enableStateResource", arrayOf("Head", false), ""},
      {"Sitter", "deleteResource", arrayOf("Head", false), "Resource \"Head\" does not exist."},
      {"Sitter", "exit", KXValue(),
       "The resource manager exited while \"Walker\" was waiting for resources \"Head\", "
       "\"Legs\"."},
  };
  std::size_t asked = 0;
  for (const auto& c : cases) {
    module_->createResource("Head", "Body");
    module_->enableStateResource("Head", true);
    module_->releaseResources({"Head", "Legs"}, "Walker");
    take({"Head"}, c.holder, "onConflict");
    auto waiter = std::async(std::launch::async, [&] { take({"Head", "Legs"}, "Walker"); });
    ASSERT_TRUE(eventually(
        [&] { return holder->calls().size() + capture.withFunction(failed).size() > asked; }));
    ++asked;
    module_->enableStateResource("Arms", true);  // wakes the waiter: it neither passes nor asks
    proxy_->genericCall(c.method, c.params);
    ASSERT_EQ(waiter.wait_for(kPatience), std::future_status::ready);
    if (c.error.empty()) {
      waiter.get();
      EXPECT_TRUE(module_->areResourcesOwnedBy({"Legs", "LeftLeg"}, "Walker"));
      EXPECT_EQ(module_->areResourcesOwnedBy({"Head"}, "Walker"), c.holder == holder->getName());
    } else {
      EXPECT_EQ(errorText([&] { waiter.get(); }),
                errorText("KXResourceManager", "waitForResourcesTree", c.error));
    }
  }
  EXPECT_EQ(holder->calls().size(), 3u);
  const auto records = capture.withFunction(failed);
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].message,
            "Conflict callback Ghost::onConflict for resource \"Head\" failed: "
            "\tKXProxy::constructor\n\tModule 'Ghost' not found.\n");
}

TEST_F(ResourceManagerTest, OptionalTreesAreTakenWholeWhenFreeAndNeverWaitedFor) {
  auto waver = createModule<Listener>(broker_, "Waver");
  module_->createResource("Tail", "");
  take({"Arms"}, "Waver", "onConflict");
  module_->releaseResource("RightArm", "Waver");
  // With a limit of 1 s, waiting for Arms would end in a timeout.
  module_->waitForOptionalResourcesTree({"Legs"}, "Walker", "", 1, {"Arms", "Head", "Tail"});
  EXPECT_EQ(owners(), (Strings{"Arms:Waver", "Head:Walker", "LeftArm:Waver", "LeftLeg:Walker",
                               "Legs:Walker", "RightLeg:Walker", "Tail:Walker"}));
  // The required trees wait, the holder asked once for the top of what it holds in the way,
  // and time out holding none of them.
  EXPECT_EQ(
      errorText([&] { module_->waitForOptionalResourcesTree({"Body"}, "Grabber", "", 1, {}); }),
      errorText("KXResourceManager", "waitForOptionalResourcesTree",
                "Timeout after 1 s while \"Grabber\" was waiting for resource \"Arms\" "
                "held by \"Waver\"."));
  EXPECT_TRUE(module_->areResourcesFree({"RightArm", "Body"}));
  ASSERT_TRUE(waver->waitFor(1));
  const Call asked = waver->calls().at(0);
  EXPECT_EQ(asked.name + " for " + static_cast<const std::string&>(asked.value),
            "Arms for Grabber");
  EXPECT_EQ(waver->calls().size(), 1u);
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
    for (const std::string& pair : owners()) {
      held[pair.substr(pair.find(':') + 1)].insert(pair.substr(0, pair.find(':')));
    }
    EXPECT_LE(held.size(), 1u);
    for (const auto& [owner, resources] : held) EXPECT_EQ(resources, racers.at(owner).second);
  }
  walker.join();
  looker.join();
  EXPECT_EQ(owners(), Strings{});
}

}  // namespace
}  // namespace testing
}  // namespace KX
