#include "memory/kxresourcemanager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "broker/kxbroker.h"
#include "log/tests/logtestsupport.h"
#include "module/kxmodulecore.h"
#include "module/kxproxy.h"
#include "thread/tests/thread_test_support.h"
#include "value/kxerror.h"
#include "value/kxvalue.h"
#include "value/tests/value_test_util.h"

namespace KX {
namespace {

using Names = std::vector<std::string>;
using testing::kPatience;
using testing::Latch;
using testing_util::errorText;

const std::string kManager = "KXResourceManager";

// Polls `condition` (bounded by the patience): for effects with no event to wait on, such
// as a log record written by a pool worker.
template <typename Condition>
bool eventually(Condition condition) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

std::string managerError(const std::string& method, const std::string& description) {
  return "\tKXResourceManager::" + method + "\n\t" + description;
}

// A module that holds resources and answers conflict callbacks: it records each call
// and, when asked to, releases the wanted resource from within the callback.
class Holder : public KXModule {
 public:
  Holder(const std::shared_ptr<KXBroker>& broker, const std::string& name)
      : KXModule(broker, name) {
    setModuleDescription("Holds resources for the resource manager tests");
    functionName("onConflict", "Holder", "Called when someone wants a resource held here");
    addParam("resource", "the wanted resource");
    addParam("requester", "who wants it");
    bindMethod(&Holder::onConflict);
  }

  void onConflict(const std::string& resource, const std::string& requester) {
    if (releaseOnConflict_) {
      KXProxy(getParentBroker(), kManager).call<void>("releaseResource", resource, getName());
    }
    {
      std::lock_guard<std::mutex> lock(mutex_);
      calls_.emplace_back(resource, requester);
    }
    called_.countDown();
  }

  void releaseOnConflict(bool release) { releaseOnConflict_ = release; }
  bool waitForCall() { return called_.wait(); }
  std::vector<std::pair<std::string, std::string>> calls() {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }

 private:
  std::atomic<bool> releaseOnConflict_{false};
  Latch called_{1};
  std::mutex mutex_;
  std::vector<std::pair<std::string, std::string>> calls_;
};

class ResourceManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    broker_ =
        KXBroker::createBroker("test", "127.0.0.1", 0, "", 0, KXBroker::kKeepAlive, "", false);
    module_ = createModule<KXResourceManager>(broker_, kManager);
    rm_ = std::make_unique<KXProxy>(broker_, kManager);
  }

  void TearDown() override {
    rm_.reset();
    module_.reset();
    broker_->shutdown();
  }

  void create(const std::string& name, const std::string& parent) {
    rm_->call<void>("createResource", name, parent);
  }
  // Body > {Legs > {LeftLeg, RightLeg}, Arms > {LeftArm, RightArm}, Head}
  void createBody() {
    create("Body", "");
    rm_->call<void>("createResourcesList", Names{"Legs", "Arms", "Head"}, "Body");
    rm_->call<void>("createResourcesList", Names{"LeftLeg", "RightLeg"}, "Legs");
    rm_->call<void>("createResourcesList", Names{"LeftArm", "RightArm"}, "Arms");
  }
  void take(const std::string& name, const std::string& owner, const std::string& callback = "",
            int timeout = 0) {
    rm_->call<void>("waitForResource", name, owner, callback, timeout);
  }
  void takeTree(const Names& names, const std::string& owner, int timeout = 0) {
    rm_->call<void>("waitForResourcesTree", names, owner, "", timeout);
  }
  bool isFree(const std::string& name) { return rm_->call<bool>("isResourceFree", name); }
  bool ownedBy(const Names& names, const std::string& owner) {
    return rm_->call<bool>("areResourcesOwnedBy", names, owner);
  }
  std::map<std::string, std::string> owners() {
    const KXValue list = rm_->call<KXValue>("ownersGet");
    std::map<std::string, std::string> result;
    for (int i = 0; i < list.getSize(); ++i) {
      EXPECT_EQ(list[i].getSize(), 2);
      result[static_cast<const std::string&>(list[i][0])] =
          static_cast<const std::string&>(list[i][1]);
    }
    return result;
  }

  std::shared_ptr<KXBroker> broker_;
  std::shared_ptr<KXResourceManager> module_;
  std::unique_ptr<KXProxy> rm_;
};

// ---------------------------------------------------------------- description

TEST_F(ResourceManagerTest, EveryMethodIsBoundWithUserHelpAndItsArity) {
  const std::vector<std::pair<std::string, int>> methods = {
      {"areResourcesFree", 1},    {"areResourcesOwnedBy", 2}, {"createResource", 2},
      {"createResourcesList", 2}, {"deleteResource", 2},      {"enableStateResource", 2},
      {"isInGroup", 2},           {"isResourceFree", 1},      {"ownersGet", 0},
      {"releaseResource", 2},     {"releaseResources", 2},    {"waitForOptionalResourcesTree", 5},
      {"waitForResource", 4},     {"waitForResourcesTree", 4}};
  const std::vector<std::string> list = module_->getMethodList();
  for (const auto& method : methods) {
    SCOPED_TRACE(method.first);
    EXPECT_EQ(std::count(list.begin(), list.end(), method.first), 1);
    const KXValue help = rm_->genericCall("getMethodHelp", testing_util::arrayOf(method.first));
    ASSERT_EQ(help.getSize(), 5);
    EXPECT_EQ(static_cast<const std::string&>(help[0]), method.first);
    EXPECT_GT(static_cast<const std::string&>(help[1]).size(), 20u);
    if (method.second == 0) {
      EXPECT_FALSE(help[2].isValid() && help[2].getSize() > 0);
    } else {
      ASSERT_EQ(help[2].getSize(), 2 * method.second);
      for (int i = 0; i < help[2].getSize(); ++i) {
        EXPECT_FALSE(static_cast<const std::string&>(help[2][i]).empty()) << i;
      }
    }
  }
  const KXValue moduleHelp = rm_->genericCall("getModuleHelp", KXValue());
  EXPECT_NE(moduleHelp.toString().find("resources"), std::string::npos);
}

TEST_F(ResourceManagerTest, GenericCallsTakeExactlyTheTableArity) {
  using testing_util::arrayOf;
  EXPECT_TRUE(rm_->genericCall("createResource", arrayOf("Head", "")).getType() ==
              KXValue::TypeInvalid);
  rm_->genericCall("createResourcesList", arrayOf(Names{"Eyes", "Ears"}, "Head"));
  rm_->genericCall("waitForResource", arrayOf("Eyes", "A", "", 0));
  rm_->genericCall("waitForResourcesTree", arrayOf(Names{"Head"}, "A", "", 0));
  rm_->genericCall("waitForOptionalResourcesTree",
                   arrayOf(Names{"Head"}, "A", "", 0, Names{"Eyes"}));
  EXPECT_TRUE(static_cast<bool>(
      rm_->genericCall("areResourcesOwnedBy", arrayOf(Names{"Head", "Eyes", "Ears"}, "A"))));
  EXPECT_FALSE(static_cast<bool>(rm_->genericCall("areResourcesFree", arrayOf(Names{"Ears"}))));
  EXPECT_TRUE(static_cast<bool>(rm_->genericCall("isInGroup", arrayOf("Ears", "Head"))));
  EXPECT_EQ(rm_->genericCall("ownersGet", KXValue()).getSize(), 3);
  rm_->genericCall("releaseResources", arrayOf(Names{"Head"}, "A"));
  EXPECT_TRUE(static_cast<bool>(rm_->genericCall("isResourceFree", arrayOf("Eyes"))));
  rm_->genericCall("waitForResource", arrayOf("Ears", "A", "", 0));
  rm_->genericCall("releaseResource", arrayOf("Ears", "A"));
  rm_->genericCall("enableStateResource", arrayOf("Ears", false));
  rm_->genericCall("deleteResource", arrayOf("Head", true));
  EXPECT_EQ(errorText([&] { rm_->genericCall("isResourceFree", arrayOf("Head")); }),
            managerError("isResourceFree", "Resource \"Head\" does not exist."));
}

// ---------------------------------------------------------------- the tree

TEST_F(ResourceManagerTest, CreatingAnExistingResourceChangesNothing) {
  create("Legs", "");
  create("Arms", "");
  take("Legs", "Walker");
  create("Legs", "Arms");  // neither moved nor freed
  EXPECT_FALSE(isFree("Legs"));
  EXPECT_FALSE(rm_->call<bool>("isInGroup", "Legs", "Arms"));
  rm_->call<void>("createResourcesList", Names{"Legs", "Head"}, "");
  EXPECT_EQ(owners(), (std::map<std::string, std::string>{{"Legs", "Walker"}}));
  EXPECT_TRUE(isFree("Head"));
}

TEST_F(ResourceManagerTest, UnknownParentIsRefusedNamingIt) {
  EXPECT_EQ(errorText([&] { create("Legs", "Body"); }),
            managerError("createResource",
                         "Cannot create resource \"Legs\": parent resource \"Body\" does not "
                         "exist."));
  EXPECT_EQ(errorText([&] {
              rm_->call<void>("createResourcesList", Names{"Legs", "Arms"}, "Body");
            }),
            managerError("createResourcesList",
                         "Cannot create resources: parent resource \"Body\" does not exist."));
  // Nothing was created by the refused list.
  EXPECT_EQ(errorText([&] { isFree("Legs"); }),
            managerError("isResourceFree", "Resource \"Legs\" does not exist."));
  EXPECT_EQ(errorText([&] { create("", ""); }),
            managerError("createResource", "A resource name must not be empty."));
}

TEST_F(ResourceManagerTest, DeletingAResourceWithChildrenNeedsAsking) {
  createBody();
  EXPECT_EQ(errorText([&] { rm_->call<void>("deleteResource", "Legs", false); }),
            managerError("deleteResource",
                         "Cannot delete resource \"Legs\": it has children (ask to delete them "
                         "too)."));
  EXPECT_TRUE(isFree("LeftLeg"));  // still there

  rm_->call<void>("deleteResource", "Head", false);  // a leaf
  rm_->call<void>("deleteResource", "Legs", true);
  for (const std::string name : {"Legs", "LeftLeg", "RightLeg", "Head"}) {
    EXPECT_EQ(errorText([&] { isFree(name); }),
              managerError("isResourceFree", "Resource \"" + name + "\" does not exist."));
  }
  EXPECT_TRUE(isFree("Arms"));
  // The parent forgot the deleted children; the names can be created again elsewhere.
  rm_->call<void>("deleteResource", "LeftArm", false);
  rm_->call<void>("deleteResource", "RightArm", false);
  rm_->call<void>("deleteResource", "Arms", false);
  create("Legs", "");
  EXPECT_FALSE(rm_->call<bool>("isInGroup", "Legs", "Body"));
  rm_->call<void>("deleteResource", "Body", false);
}

TEST_F(ResourceManagerTest, UnknownResourcesAreErrorsNamingThem) {
  create("Legs", "");
  const auto unknown = [](const std::string& method) {
    return managerError(method, "Resource \"Tail\" does not exist.");
  };
  EXPECT_EQ(errorText([&] {
              rm_->call<bool>("areResourcesFree", Names{"Legs", "Tail"});
            }),
            unknown("areResourcesFree"));
  EXPECT_EQ(errorText([&] { ownedBy({"Tail"}, "A"); }), unknown("areResourcesOwnedBy"));
  EXPECT_EQ(errorText([&] { rm_->call<void>("deleteResource", "Tail", true); }),
            unknown("deleteResource"));
  EXPECT_EQ(errorText([&] { rm_->call<void>("enableStateResource", "Tail", false); }),
            unknown("enableStateResource"));
  EXPECT_EQ(errorText([&] { rm_->call<bool>("isInGroup", "Tail", "Legs"); }), unknown("isInGroup"));
  EXPECT_EQ(errorText([&] { rm_->call<bool>("isInGroup", "Legs", "Tail"); }), unknown("isInGroup"));
  EXPECT_EQ(errorText([&] { rm_->call<void>("releaseResource", "Tail", "A"); }),
            unknown("releaseResource"));
  EXPECT_EQ(errorText([&] {
              rm_->call<void>("releaseResources", Names{"Legs", "Tail"}, "A");
            }),
            unknown("releaseResources"));
  EXPECT_EQ(errorText([&] { take("Tail", "A"); }), unknown("waitForResource"));
  EXPECT_EQ(errorText([&] { takeTree({"Legs", "Tail"}, "A"); }), unknown("waitForResourcesTree"));
  EXPECT_EQ(errorText([&] {
              rm_->call<void>("waitForOptionalResourcesTree", Names{"Legs"}, "A", "", 0,
                              Names{"Tail"});
            }),
            unknown("waitForOptionalResourcesTree"));
  // A refused tree wait took nothing.
  EXPECT_TRUE(isFree("Legs"));
}

TEST_F(ResourceManagerTest, IsInGroupMeansTheGroupOrADescendant) {
  createBody();
  EXPECT_TRUE(rm_->call<bool>("isInGroup", "LeftLeg", "Legs"));
  EXPECT_TRUE(rm_->call<bool>("isInGroup", "LeftLeg", "Body"));
  EXPECT_TRUE(rm_->call<bool>("isInGroup", "Legs", "Legs"));
  EXPECT_TRUE(rm_->call<bool>("isInGroup", "Head", ""));
  EXPECT_FALSE(rm_->call<bool>("isInGroup", "LeftLeg", "Arms"));
  EXPECT_FALSE(rm_->call<bool>("isInGroup", "Body", "Legs"));
}

// ---------------------------------------------------------------- taking and releasing

TEST_F(ResourceManagerTest, TakingReleasingAndOwnership) {
  createBody();
  EXPECT_EQ(rm_->call<KXValue>("ownersGet").getSize(), 0);
  take("Legs", "Walker");
  take("Head", "Talker");
  take("Legs", "Walker");  // taking again what one holds succeeds at once
  EXPECT_FALSE(isFree("Legs"));
  EXPECT_TRUE(isFree("LeftLeg"));  // a single wait takes that resource only
  EXPECT_TRUE(ownedBy({"Legs"}, "Walker"));
  EXPECT_FALSE(ownedBy({"Legs", "Head"}, "Walker"));
  EXPECT_FALSE(ownedBy({"Arms"}, "Walker"));
  EXPECT_FALSE(rm_->call<bool>("areResourcesFree", Names{"Arms", "Head"}));
  EXPECT_TRUE(rm_->call<bool>("areResourcesFree", Names{"Arms", "LeftLeg"}));
  // Sorted by resource.
  const KXValue list = rm_->call<KXValue>("ownersGet");
  EXPECT_EQ(list.toString(), testing_util::arrayOf(testing_util::arrayOf("Head", "Talker"),
                                                   testing_util::arrayOf("Legs", "Walker"))
                                 .toString());

  EXPECT_EQ(errorText([&] { rm_->call<void>("releaseResource", "Legs", "Talker"); }),
            managerError("releaseResource",
                         "Resource \"Legs\" is owned by \"Walker\", not by \"Talker\"."));
  // All or nothing: Head is not released because Legs is refused.
  EXPECT_EQ(errorText([&] {
              rm_->call<void>("releaseResources", Names{"Head", "Legs"}, "Talker");
            }),
            managerError("releaseResources",
                         "Resource \"Legs\" is owned by \"Walker\", not by \"Talker\"."));
  EXPECT_TRUE(ownedBy({"Head"}, "Talker"));

  rm_->call<void>("releaseResource", "Legs", "Walker");
  rm_->call<void>("releaseResource", "Legs", "Walker");  // releasing a free one: no-op
  rm_->call<void>("releaseResource", "Arms", "Nobody");
  rm_->call<void>("releaseResources", Names{"Head"}, "Talker");
  EXPECT_EQ(rm_->call<KXValue>("ownersGet").getSize(), 0);
}

TEST_F(ResourceManagerTest, OwnerAndTimeoutAreChecked) {
  create("Legs", "");
  EXPECT_EQ(errorText([&] { take("Legs", ""); }),
            managerError("waitForResource", "An owner name is required."));
  EXPECT_EQ(errorText([&] { take("Legs", "A", "", -1); }),
            managerError("waitForResource",
                         "The timeout must be 0 (no limit) or a number of seconds, not -1."));
  EXPECT_TRUE(isFree("Legs"));
}

TEST_F(ResourceManagerTest, ConflictCallbackIsCalledOnceAndTheWaiterGetsTheResource) {
  create("Legs", "");
  auto holder = createModule<Holder>(broker_, "Sitter");
  holder->releaseOnConflict(true);
  take("Legs", "Sitter", "onConflict");

  take("Legs", "Walker", "", 0);  // returns once the holder has released from its callback

  EXPECT_EQ(owners(), (std::map<std::string, std::string>{{"Legs", "Walker"}}));
  ASSERT_TRUE(holder->waitForCall());
  EXPECT_EQ(holder->calls(),
            (std::vector<std::pair<std::string, std::string>>{{"Legs", "Walker"}}));
}

TEST_F(ResourceManagerTest, ReleaseWakesTheWaiterAndTheCallbackRunsOnce) {
  create("Legs", "");
  auto holder = createModule<Holder>(broker_, "Sitter");
  take("Legs", "Sitter", "onConflict");

  auto waiter = std::async(std::launch::async, [&] { take("Legs", "Walker", "", 0); });
  ASSERT_TRUE(holder->waitForCall());  // the waiter is in its wait now
  EXPECT_TRUE(ownedBy({"Legs"}, "Sitter"));
  // Other changes wake the waiter without letting it through or asking again.
  create("Arms", "");
  rm_->call<void>("enableStateResource", "Arms", false);
  EXPECT_TRUE(ownedBy({"Legs"}, "Sitter"));

  rm_->call<void>("releaseResource", "Legs", "Sitter");
  ASSERT_EQ(waiter.wait_for(kPatience), std::future_status::ready);
  waiter.get();
  EXPECT_TRUE(ownedBy({"Legs"}, "Walker"));
  EXPECT_EQ(holder->calls(),
            (std::vector<std::pair<std::string, std::string>>{{"Legs", "Walker"}}));
}

TEST_F(ResourceManagerTest, WaitingTimesOutWithAnError) {
  create("Legs", "");
  take("Legs", "Sitter");
  EXPECT_EQ(errorText([&] { take("Legs", "Walker", "", 1); }),
            managerError("waitForResource",
                         "Timeout after 1 s while \"Walker\" was waiting for resource \"Legs\" "
                         "held by \"Sitter\"."));
  EXPECT_TRUE(ownedBy({"Legs"}, "Sitter"));
}

TEST_F(ResourceManagerTest, ACallbackOfAMissingModuleIsLoggedAndTheWaitGoesOn) {
  tu::log::testing::LogCapture capture;
  create("Legs", "");
  take("Legs", "Ghost", "onConflict");
  EXPECT_EQ(errorText([&] { take("Legs", "Walker", "", 1); }),
            managerError("waitForResource",
                         "Timeout after 1 s while \"Walker\" was waiting for resource \"Legs\" "
                         "held by \"Ghost\"."));
  ASSERT_TRUE(eventually(
      [&] { return !capture.withFunction("KX::KXResourceManager::conflictCallback").empty(); }));
  const auto records = capture.withFunction("KX::KXResourceManager::conflictCallback");
  EXPECT_EQ(records.front().level, tu::log::warning);
  EXPECT_NE(records.front().message.find("Ghost::onConflict"), std::string::npos);
}

TEST_F(ResourceManagerTest, ExitEndsEveryWaitWithAnError) {
  create("Legs", "");
  create("Arms", "");
  auto legsHolder = createModule<Holder>(broker_, "Sitter");
  auto armsHolder = createModule<Holder>(broker_, "Waver");
  take("Legs", "Sitter", "onConflict");
  take("Arms", "Waver", "onConflict");

  // Each holder's callback tells that its waiter is in its wait.
  auto single = std::async(std::launch::async, [&] { take("Legs", "Walker", "", 0); });
  ASSERT_TRUE(legsHolder->waitForCall());
  auto tree = std::async(std::launch::async, [&] { takeTree({"Arms", "Legs"}, "Grabber", 0); });
  ASSERT_TRUE(armsHolder->waitForCall());

  rm_->genericCall("exit", KXValue());
  ASSERT_EQ(single.wait_for(kPatience), std::future_status::ready);
  EXPECT_EQ(errorText([&] { single.get(); }),
            managerError("waitForResource",
                         "The resource manager exited while \"Walker\" was waiting for "
                         "resource \"Legs\"."));
  ASSERT_EQ(tree.wait_for(kPatience), std::future_status::ready);
  EXPECT_EQ(errorText([&] { tree.get(); }),
            managerError("waitForResourcesTree",
                         "The resource manager exited while \"Grabber\" was waiting for "
                         "resources \"Arms\", \"Legs\"."));
  EXPECT_EQ(broker_->getModuleCore(kManager), nullptr);
}

TEST_F(ResourceManagerTest, DeletingAWantedResourceEndsTheWait) {
  create("Legs", "");
  auto holder = createModule<Holder>(broker_, "Sitter");
  take("Legs", "Sitter", "onConflict");
  auto waiter = std::async(std::launch::async, [&] { take("Legs", "Walker", "", 0); });
  ASSERT_TRUE(holder->waitForCall());
  rm_->call<void>("deleteResource", "Legs", false);
  ASSERT_EQ(waiter.wait_for(kPatience), std::future_status::ready);
  EXPECT_EQ(errorText([&] { waiter.get(); }),
            managerError("waitForResource", "Resource \"Legs\" does not exist."));
}

// ---------------------------------------------------------------- enabled flag

TEST_F(ResourceManagerTest, ADisabledResourceCountsAsFreeAndIsNeverHeld) {
  createBody();
  take("Head", "Talker");
  rm_->call<void>("enableStateResource", "Head", false);
  EXPECT_TRUE(isFree("Head"));
  EXPECT_FALSE(ownedBy({"Head"}, "Talker"));
  EXPECT_EQ(rm_->call<KXValue>("ownersGet").getSize(), 0);

  take("Head", "Singer", "", 1);  // at once, without holding it
  EXPECT_TRUE(isFree("Head"));
  EXPECT_FALSE(ownedBy({"Head"}, "Singer"));
  takeTree({"Body"}, "Dancer", 1);  // the tree is taken except the disabled one
  EXPECT_TRUE(isFree("Head"));
  EXPECT_TRUE(
      ownedBy({"Body", "Legs", "LeftLeg", "RightLeg", "Arms", "LeftArm", "RightArm"}, "Dancer"));
  // Releasing a disabled resource is releasing a free one.
  rm_->call<void>("releaseResource", "Head", "Talker");

  rm_->call<void>("enableStateResource", "Head", true);
  EXPECT_TRUE(isFree("Head"));
  take("Head", "Talker");
  EXPECT_TRUE(ownedBy({"Head"}, "Talker"));
}

TEST_F(ResourceManagerTest, DisablingAWantedResourceLetsTheWaiterThrough) {
  create("Legs", "");
  auto holder = createModule<Holder>(broker_, "Sitter");
  take("Legs", "Sitter", "onConflict");
  auto waiter = std::async(std::launch::async, [&] { take("Legs", "Walker", "", 0); });
  ASSERT_TRUE(holder->waitForCall());
  rm_->call<void>("enableStateResource", "Legs", false);
  ASSERT_EQ(waiter.wait_for(kPatience), std::future_status::ready);
  waiter.get();
  EXPECT_EQ(rm_->call<KXValue>("ownersGet").getSize(), 0);
}

// ---------------------------------------------------------------- trees

TEST_F(ResourceManagerTest, ATreeIsTakenWholeOrNotAtAll) {
  createBody();
  takeTree({"Legs"}, "Walker");
  EXPECT_EQ(owners(), (std::map<std::string, std::string>{
                          {"Legs", "Walker"}, {"LeftLeg", "Walker"}, {"RightLeg", "Walker"}}));

  EXPECT_EQ(errorText([&] {
              takeTree({"Head", "Body"}, "Dancer", 1);
            }),
            managerError("waitForResourcesTree",
                         "Timeout after 1 s while \"Dancer\" was waiting for resource "
                         "\"LeftLeg\" held by \"Walker\"."));
  // No partial hold: nothing free was taken meanwhile.
  EXPECT_TRUE(
      rm_->call<bool>("areResourcesFree", Names{"Body", "Head", "Arms", "LeftArm", "RightArm"}));

  // Releasing a group releases what the owner holds under it.
  rm_->call<void>("releaseResource", "Legs", "Walker");
  EXPECT_EQ(rm_->call<KXValue>("ownersGet").getSize(), 0);
  takeTree({"Head", "Body"}, "Dancer", 1);
  EXPECT_EQ(owners().size(), 8u);
}

TEST_F(ResourceManagerTest, ATreeConflictAsksTheHolderOnce) {
  createBody();
  auto holder = createModule<Holder>(broker_, "Walker");
  holder->releaseOnConflict(true);
  rm_->call<void>("waitForResourcesTree", Names{"Legs"}, "Walker", "onConflict", 0);
  // Asked for Legs only (the top of what it holds in the way), the holder releases Legs
  // and with it the legs under it.
  takeTree({"Body"}, "Dancer", 0);
  EXPECT_EQ(owners().size(), 8u);
  EXPECT_TRUE(ownedBy({"Legs", "LeftLeg", "RightLeg"}, "Dancer"));
  ASSERT_TRUE(holder->waitForCall());  // it records the call after releasing
  EXPECT_EQ(holder->calls(),
            (std::vector<std::pair<std::string, std::string>>{{"Legs", "Dancer"}}));
}

TEST_F(ResourceManagerTest, OptionalTreesAreTakenOnlyWhenFree) {
  createBody();
  create("Tail", "");
  take("LeftArm", "Waver");
  // Arms is in the way through LeftArm; Head and Tail are free. Never waits for optionals:
  // with a 1 s limit a wait would end in a timeout error.
  rm_->call<void>("waitForOptionalResourcesTree", Names{"Legs"}, "Walker", "", 1,
                  Names{"Arms", "Head", "Tail"});
  EXPECT_EQ(owners(), (std::map<std::string, std::string>{{"Head", "Walker"},
                                                          {"LeftArm", "Waver"},
                                                          {"LeftLeg", "Walker"},
                                                          {"Legs", "Walker"},
                                                          {"RightLeg", "Walker"},
                                                          {"Tail", "Walker"}}));
  // The required part still waits.
  EXPECT_EQ(errorText([&] {
              rm_->call<void>("waitForOptionalResourcesTree", Names{"Arms"}, "Grabber", "", 1,
                              Names{"Body"});
            }),
            managerError("waitForOptionalResourcesTree",
                         "Timeout after 1 s while \"Grabber\" was waiting for resource "
                         "\"LeftArm\" held by \"Waver\"."));
  EXPECT_TRUE(rm_->call<bool>("areResourcesFree", Names{"Arms", "RightArm", "Body"}));
}

// Two owners take overlapping trees again and again from two threads while a third
// watches the owners list: nobody ever holds part of a tree, no resource is used by two
// at once, and neither deadlocks.
TEST_F(ResourceManagerTest, OwnersRacingForOverlappingTreesNeverHoldPartOfThem) {
  createBody();
  struct Racer {
    std::string owner;
    Names wanted;
    std::set<std::string> tree;  // everything taking `wanted` holds
  };
  const std::array<Racer, 2> racers = {
      Racer{"Walker",
            {"Legs", "Arms"},
            {"Legs", "LeftLeg", "RightLeg", "Arms", "LeftArm", "RightArm"}},
      Racer{"Looker", {"Head", "Arms"}, {"Head", "Arms", "LeftArm", "RightArm"}}};
  constexpr int kRounds = 1000;
  std::map<std::string, std::atomic<int>> users;
  for (const std::string name :
       {"Body", "Legs", "LeftLeg", "RightLeg", "Arms", "LeftArm", "RightArm", "Head"}) {
    users[name].store(0);
  }
  std::atomic<int> overlaps{0};
  std::atomic<int> racing{2};

  auto race = [&](const Racer& racer) {
    KXProxy proxy(broker_, kManager);
    for (int round = 0; round < kRounds; ++round) {
      proxy.call<void>("waitForResourcesTree", racer.wanted, racer.owner, "", 0);
      for (const std::string& name : racer.tree) {
        if (users.at(name).fetch_add(1) != 0) overlaps.fetch_add(1);
      }
      if (!proxy.call<bool>("areResourcesOwnedBy", Names(racer.tree.begin(), racer.tree.end()),
                            racer.owner)) {
        overlaps.fetch_add(1);
      }
      for (const std::string& name : racer.tree) users.at(name).fetch_sub(1);
      proxy.call<void>("releaseResources", racer.wanted, racer.owner);
    }
    racing.fetch_sub(1);
  };

  std::vector<std::string> partial;
  int snapshots = 0;
  auto watch = [&] {
    KXProxy proxy(broker_, kManager);
    // Bounded: the racers end after kRounds each; the watcher looks at most this often.
    for (int i = 0; i < 100000 && racing.load() > 0; ++i) {
      const KXValue list = proxy.call<KXValue>("ownersGet");
      ++snapshots;
      std::map<std::string, std::set<std::string>> held;
      for (int j = 0; j < list.getSize(); ++j) {
        held[static_cast<const std::string&>(list[j][1])].insert(
            static_cast<const std::string&>(list[j][0]));
      }
      for (const Racer& racer : racers) {
        auto found = held.find(racer.owner);
        if (found != held.end() && found->second != racer.tree) partial.push_back(racer.owner);
      }
      if (held.size() > 1) partial.push_back("both at once");
    }
  };

  std::thread watcher(watch);
  std::thread first(race, std::cref(racers[0]));
  std::thread second(race, std::cref(racers[1]));
  first.join();
  second.join();
  watcher.join();

  EXPECT_EQ(overlaps.load(), 0);
  EXPECT_TRUE(partial.empty()) << partial.front();
  EXPECT_GT(snapshots, 0);
  EXPECT_EQ(rm_->call<KXValue>("ownersGet").getSize(), 0);
}

}  // namespace
}  // namespace KX
