#ifndef VELMO_NETWORK_DETAIL_KXBROKERPROTOCOL_H_
#define VELMO_NETWORK_DETAIL_KXBROKERPROTOCOL_H_

// The broker protocol, one description per operation. Reading, writing, serving and calling
// all follow from these structs, so that an operation is declared once:
//   - kName: the request's element ("kxbroker:<kName>"); a request is the operation's struct,
//     its fields the children, in order;
//   - children(self, visit): calls visit(childName, field) for each child in order; `self`
//     may be any object with the same member names (a call written from where its parts are);
//   - Answer: what a request is answered with: NoAnswer for the one-way operations; one child
//     for KXValue, KXModuleInfo, std::string and int; one child that may be absent for
//     std::optional<int>; the same child once per item for the vectors;
//   - kAnswerChild: the answer's child element (kxbroker:<kAnswerChild> inside
//     kxbroker:<kName>Response); null when the answer is the record itself, written as the
//     body element kx:KXModuleInfo;
//   - kCarriesAttachments: the Binary leaves of the KXValue child and of the answer travel as
//     DIME attachments.
// Children are read by position and type whatever their names; the names are those written.

#include <optional>
#include <string>
#include <type_traits>
#include <variant>
#include <vector>

#include "module/kxmoduleinfo.h"
#include "value/kxvalue.h"

namespace KX {
namespace protocol {

// The answer of a one-way operation: nothing is sent back.
struct NoAnswer {
  bool operator==(const NoAnswer&) const { return true; }
};

// The module calls: `p` is the parameter of method `meth` of module `mod`.
struct ModuleCall {
  static constexpr bool kCarriesAttachments = false;
  std::string mod;
  std::string meth;
  KXValue p;
  template <typename Self, typename Visit>
  static void children(Self& self, Visit&& visit) {
    visit("mod", self.mod);
    visit("meth", self.meth);
    visit("p", self.p);
  }
};

struct CallVelmo : ModuleCall {
  static constexpr const char* kName = "callVelmo";
  static constexpr bool kCarriesAttachments = true;
  using Answer = KXValue;
  static constexpr const char* kAnswerChild = "return";
};

// Started as a task; answered with the task's id.
struct CallVelmo2 : ModuleCall {
  static constexpr const char* kName = "callVelmo2";
  using Answer = KXValue;
  static constexpr const char* kAnswerChild = "return";
};

// Accepted and not acted upon.
struct PCallVelmoN {
  static constexpr const char* kName = "pCallVelmoN";
  using Answer = KXValue;
  static constexpr const char* kAnswerChild = "return";
  std::string arg1;
  int arg2 = 0;
  std::string arg3;
  std::string arg4;
  std::string arg5;
  std::string arg6;
  KXValue arg7;
  template <typename Self, typename Visit>
  static void children(Self& self, Visit&& visit) {
    visit("arg1", self.arg1);
    visit("arg2", self.arg2);
    visit("arg3", self.arg3);
    visit("arg4", self.arg4);
    visit("arg5", self.arg5);
    visit("arg6", self.arg6);
    visit("arg7", self.arg7);
  }
};

// Started as a task, answered by nothing.
struct PCallVelmo : ModuleCall {
  static constexpr const char* kName = "pCallVelmo";
  using Answer = NoAnswer;
  static constexpr const char* kAnswerChild = nullptr;
};

// The operations on one module name.
template <typename Answered>
struct OnModuleName {
  using Answer = Answered;
  std::string pModuleName;
  template <typename Self, typename Visit>
  static void children(Self& self, Visit&& visit) {
    visit("pModuleName", self.pModuleName);
  }
};

struct GetModuleByName : OnModuleName<KXModuleInfo> {
  static constexpr const char* kName = "getModuleByName";
  static constexpr const char* kAnswerChild = "return";
};

struct ExploreToGetModuleByName {
  static constexpr const char* kName = "exploreToGetModuleByName";
  using Answer = KXModuleInfo;
  static constexpr const char* kAnswerChild = "return";
  std::string pModuleName;
  bool pSearchUp = false;
  bool pSearchDown = false;
  std::string pDontLookIntoBrokerName;
  bool pLoadLib = false;
  template <typename Self, typename Visit>
  static void children(Self& self, Visit&& visit) {
    visit("pModuleName", self.pModuleName);
    visit("pSearchUp", self.pSearchUp);
    visit("pSearchDown", self.pSearchDown);
    visit("pDontLookIntoBrokerName", self.pDontLookIntoBrokerName);
    visit("pLoadLib", self.pLoadLib);
  }
};

// The operations without children.
template <typename Answered>
struct WithoutChildren {
  using Answer = Answered;
  template <typename Self, typename Visit>
  static void children(Self&, Visit&&) {}
};

struct GetModuleList : WithoutChildren<std::vector<KXModuleInfo>> {
  static constexpr const char* kName = "getModuleList";
  static constexpr const char* kAnswerChild = "return";
};

struct GetGlobalModuleList : WithoutChildren<std::vector<KXModuleInfo>> {
  static constexpr const char* kName = "getGlobalModuleList";
  static constexpr const char* kAnswerChild = "return";
};

struct GetBrokerList : WithoutChildren<std::vector<KXModuleInfo>> {
  static constexpr const char* kName = "getBrokerList";
  static constexpr const char* kAnswerChild = "return";
};

struct RegisterBroker {
  static constexpr const char* kName = "registerBroker";
  using Answer = int;
  static constexpr const char* kAnswerChild = "unused";
  KXModuleInfo pBrokerToRegister;
  template <typename Self, typename Visit>
  static void children(Self& self, Visit&& visit) {
    visit("pBrokerToRegister", self.pBrokerToRegister);
  }
};

struct UnregisterBroker {
  static constexpr const char* kName = "unregisterBroker";
  using Answer = int;
  static constexpr const char* kAnswerChild = "unused";
  KXModuleInfo pBrokerToUnregister;
  template <typename Self, typename Visit>
  static void children(Self& self, Visit&& visit) {
    visit("pBrokerToUnregister", self.pBrokerToUnregister);
  }
};

struct UnregisterModuleReference {
  static constexpr const char* kName = "unregisterModuleReference";
  using Answer = NoAnswer;
  static constexpr const char* kAnswerChild = nullptr;
  std::string moduleName;
  template <typename Self, typename Visit>
  static void children(Self& self, Visit&& visit) {
    visit("moduleName", self.moduleName);
  }
};

struct GetBrokerInfo : WithoutChildren<KXModuleInfo> {
  static constexpr const char* kName = "getBrokerInfo";
  static constexpr const char* kAnswerChild = "return";
};

struct Exit : WithoutChildren<NoAnswer> {
  static constexpr const char* kName = "exit";
  static constexpr const char* kAnswerChild = nullptr;
};

struct GetMethodList : OnModuleName<std::vector<std::string>> {
  static constexpr const char* kName = "getMethodList";
  static constexpr const char* kAnswerChild = "pMethodListName";
};

// Answered with `unused`, which may be absent.
struct Init {
  static constexpr const char* kName = "init";
  using Answer = std::optional<int>;
  static constexpr const char* kAnswerChild = "unused";
  std::string pName;
  std::string pIP;
  int pPort = 0;
  std::string pParentIP;
  int pParentPort = 0;
  bool pKeepAlive = false;
  template <typename Self, typename Visit>
  static void children(Self& self, Visit&& visit) {
    visit("pName", self.pName);
    visit("pIP", self.pIP);
    visit("pPort", self.pPort);
    visit("pParentIP", self.pParentIP);
    visit("pParentPort", self.pParentPort);
    visit("pKeepAlive", self.pKeepAlive);
  }
};

struct Version : WithoutChildren<std::string> {
  static constexpr const char* kName = "version";
  static constexpr const char* kAnswerChild = "pVersion";
};

struct SendBackIP : WithoutChildren<std::string> {
  static constexpr const char* kName = "sendBackIP";
  static constexpr const char* kAnswerChild = "pIP";
};

struct GetBrokerName : WithoutChildren<std::string> {
  static constexpr const char* kName = "getBrokerName";
  static constexpr const char* kAnswerChild = "pBrokerName";
};

// Answered by the record itself.
struct GetInfo : OnModuleName<KXModuleInfo> {
  static constexpr const char* kName = "getInfo";
  static constexpr const char* kAnswerChild = nullptr;
};

struct StopTask {
  static constexpr const char* kName = "stopTask";
  using Answer = int;
  static constexpr const char* kAnswerChild = "num";
  int pTaskId = 0;
  template <typename Self, typename Visit>
  static void children(Self& self, Visit&& visit) {
    visit("pTaskId", self.pTaskId);
  }
};

struct StopTaskName {
  static constexpr const char* kName = "stopTaskName";
  using Answer = int;
  static constexpr const char* kAnswerChild = "num";
  std::string pTaskName;
  template <typename Self, typename Visit>
  static void children(Self& self, Visit&& visit) {
    visit("pTaskName", self.pTaskName);
  }
};

struct GetDebugTaskList : WithoutChildren<KXValue> {
  static constexpr const char* kName = "getDebugTaskList";
  static constexpr const char* kAnswerChild = "return";
};

}  // namespace protocol

// Any request, the operations in the order in which a request's body element is compared
// with them.
using BrokerRequest = std::variant<
    protocol::CallVelmo, protocol::CallVelmo2, protocol::PCallVelmoN, protocol::PCallVelmo,
    protocol::GetModuleByName, protocol::ExploreToGetModuleByName, protocol::GetModuleList,
    protocol::GetGlobalModuleList, protocol::GetBrokerList, protocol::RegisterBroker,
    protocol::UnregisterBroker, protocol::UnregisterModuleReference, protocol::GetBrokerInfo,
    protocol::Exit, protocol::GetMethodList, protocol::Init, protocol::Version,
    protocol::SendBackIP, protocol::GetBrokerName, protocol::GetInfo, protocol::StopTask,
    protocol::StopTaskName, protocol::GetDebugTaskList>;

// Any answer: the types that the operations' answers take.
using BrokerAnswer =
    std::variant<protocol::NoAnswer, KXValue, KXModuleInfo, std::string, int, std::optional<int>,
                 std::vector<KXModuleInfo>, std::vector<std::string>>;

// A SOAP fault: what a request is answered with when it fails.
struct BrokerFault {
  std::string code;
  std::string string;
  std::string detail;  // the text of the detail element, empty without one
};

// What a caller gets back for a request: the answer, or the fault that replaced it.
template <typename Answer>
struct BrokerReply {
  std::optional<BrokerFault> fault;
  Answer answer{};
};

template <typename Op>
constexpr bool isOneWay() {
  return std::is_same_v<typename Op::Answer, protocol::NoAnswer>;
}

template <typename Op>
constexpr bool carriesAttachments() {
  if constexpr (std::is_base_of_v<protocol::ModuleCall, Op>) {
    return Op::kCarriesAttachments;
  } else {
    return false;
  }
}

}  // namespace KX

#endif  // VELMO_NETWORK_DETAIL_KXBROKERPROTOCOL_H_
