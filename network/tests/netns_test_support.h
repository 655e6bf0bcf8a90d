#ifndef VELMO_NETWORK_TESTS_NETNS_TEST_SUPPORT_H_
#define VELMO_NETWORK_TESTS_NETNS_TEST_SUPPORT_H_

// A little network of its own for the fault tests: one network namespace per host, each
// linked by a veth pair to a bridge in a "switch" namespace, where the test itself runs
// while the network lives. Every address lives inside these namespaces, so each test
// process can use the same subnet; only the namespace names, which are global, carry the
// process id. The links can be cut and healed, made lossy (nftables) or slow (a token
// bucket); everything made is removed again, whatever the test did.

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "network/tests/process_test_support.h"

namespace KX {
namespace testing {

// The absolute path of a system tool, or "" when this machine has none.
inline std::string toolPath(const std::string& name) {
  for (const char* folder : {"/usr/sbin/", "/sbin/", "/usr/bin/", "/bin/"}) {
    const std::string path = folder + name;
    if (access(path.c_str(), X_OK) == 0) return path;
  }
  return std::string();
}

// Runs a tool to its end: its output, and whether it exited with status 0.
struct ToolRun {
  bool ok = false;
  std::string output;
};

inline ToolRun runTool(const std::vector<std::string>& command) {
  ChildProcess tool(command);
  const std::optional<int> status = tool.waitExit(std::chrono::seconds(20));
  return ToolRun{status == 0, tool.output()};
}

// An open file descriptor, closed when it goes.
class ScopedFd {
 public:
  explicit ScopedFd(int fd = -1) : fd_(fd) {}
  ~ScopedFd() {
    if (fd_ >= 0) close(fd_);
  }
  ScopedFd(const ScopedFd&) = delete;
  ScopedFd& operator=(const ScopedFd&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

class TestNetwork {
 public:
  static constexpr char kSubnet[] = "10.77.0.";
  static constexpr int kLossPercent = 20;
  // Slow enough that a call of a few kilobytes waits for tokens, fast enough for a test.
  static constexpr char kSlowRate[] = "2mbit";

  // `hosts`: their names, given 10.77.0.2, .3, ... in that order; the test is at .1.
  explicit TestNetwork(std::vector<std::string> hosts)
      : hosts_(std::move(hosts)), ip_(toolPath("ip")) {
    static std::atomic<int> made{0};
    prefix_ = kPrefix + std::to_string(getpid()) + "-" + std::to_string(made++) + "-";
    if (ip_.empty()) {
      unavailable_ = "no `ip` tool (iproute2)";
      return;
    }
    removeLeftovers();
    build();
  }

  ~TestNetwork() {
    leaveSwitch();
    for (const std::string& host : faulty_) clearFaults(host);
    for (const std::string& name : made_) runTool({ip_, "netns", "delete", name});
  }

  TestNetwork(const TestNetwork&) = delete;
  TestNetwork& operator=(const TestNetwork&) = delete;

  // Why the network could not be made; "" once it is up and the test runs on its switch.
  const std::string& unavailable() const { return unavailable_; }

  std::string address(const std::string& host) const {
    return kSubnet + std::to_string(2 + index(host));
  }
  static std::string ownAddress() { return std::string(kSubnet) + "1"; }

  // `command` as run inside the host's namespace.
  std::vector<std::string> inside(const std::string& host,
                                  const std::vector<std::string>& command) const {
    std::vector<std::string> wrapped{ip_, "netns", "exec", namespaceOf(host)};
    wrapped.insert(wrapped.end(), command.begin(), command.end());
    return wrapped;
  }

  // The host's cable out and back in: nothing passes until it is healed.
  void cut(const std::string& host) {
    must({ip_, "-n", switch_, "link", "set", portOf(host), "down"});
  }
  void heal(const std::string& host) {
    must({ip_, "-n", switch_, "link", "set", portOf(host), "up"});
  }

  // Drops kLossPercent of the packets in and out of the host, at random.
  void addLoss(const std::string& host) {
    faulty_.push_back(host);
    std::ostringstream rules;
    rules << "table inet " << kTable << " {\n";
    for (const char* way : {"input", "output"}) {
      rules << " chain " << way << " {\n  type filter hook " << way
            << " priority 0; policy accept;\n  " << (way[0] == 'i' ? "iifname" : "oifname")
            << " \"eth0\" numgen random mod 100 < " << kLossPercent << " counter drop\n }\n";
    }
    rules << "}\n";
    must(inside(host, {nft(), rules.str()}));
  }
  // The packets dropped so far by addLoss.
  long droppedPackets(const std::string& host) const {
    return sumAfter(must(inside(host, {nft(), "list", "table", "inet", kTable})).output,
                    "packets ");
  }

  // Limits both ways of the host's link to kSlowRate.
  void addSlowness(const std::string& host) {
    faulty_.push_back(host);
    for (const auto& device : devicesOf(host)) {
      must(tc(device.first, {"qdisc", "replace", "dev", device.second, "root", "tbf", "rate",
                             kSlowRate, "burst", "8kb", "latency", "2s"}));
    }
  }
  // How often each way of the link held a packet back for want of tokens, the fewer of two.
  long throttledPackets(const std::string& host) const {
    long fewest = -1;
    for (const auto& device : devicesOf(host)) {
      const long held =
          sumAfter(must(tc(device.first, {"-s", "qdisc", "show", "dev", device.second})).output,
                   "overlimits ");
      fewest = fewest < 0 ? held : std::min(fewest, held);
    }
    return fewest;
  }

  // Whether nftables can be used here (it may not be installed).
  static bool hasNft() { return !toolPath("nft").empty(); }

 private:
  // Namespaces are named kPrefix + <process id> + "-" + <network count> + "-" + <host>.
  static constexpr char kPrefix[] = "velmo-faults-";
  static constexpr char kTable[] = "velmo_faults";

  int index(const std::string& host) const {
    for (std::size_t i = 0; i < hosts_.size(); ++i) {
      if (hosts_[i] == host) return static_cast<int>(i);
    }
    ADD_FAILURE() << "no host " << host << " in the test network";
    return 0;
  }
  std::string namespaceOf(const std::string& host) const { return prefix_ + host; }
  static std::string portOf(const std::string& host) { return "p-" + host; }
  // Both ends of the host's link: (namespace, device) on the host and on the switch.
  std::vector<std::pair<std::string, std::string>> devicesOf(const std::string& host) const {
    return {{namespaceOf(host), "eth0"}, {switch_, portOf(host)}};
  }
  static std::string nft() { return toolPath("nft"); }
  static std::vector<std::string> tc(const std::string& space, std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {toolPath("tc"), "-n", space});
    return arguments;
  }

  // Namespaces left by a test process that was killed before it could remove them.
  void removeLeftovers() const {
    std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir("/run/netns"), closedir);
    if (!folder) return;
    while (const dirent* entry = readdir(folder.get())) {
      const std::string name = entry->d_name;
      if (name.rfind(kPrefix, 0) != 0) continue;
      const pid_t owner = std::atoi(name.c_str() + std::strlen(kPrefix));
      if (owner > 0 && kill(owner, 0) != 0 && errno == ESRCH) {
        runTool({ip_, "netns", "delete", name});
      }
    }
  }

  void build() {
    switch_ = prefix_ + "switch";
    for (const std::string& space : [&] {
           std::vector<std::string> all{switch_};
           for (const auto& host : hosts_) all.push_back(namespaceOf(host));
           return all;
         }()) {
      if (!attempt({ip_, "netns", "add", space})) return;
      made_.push_back(space);
      if (!attempt({ip_, "-n", space, "link", "set", "lo", "up"})) return;
    }
    if (!attempt({ip_, "-n", switch_, "link", "add", "br0", "type", "bridge"}) ||
        !attempt({ip_, "-n", switch_, "addr", "add", ownAddress() + "/24", "dev", "br0"}) ||
        !attempt({ip_, "-n", switch_, "link", "set", "br0", "up"})) {
      return;
    }
    for (const std::string& host : hosts_) {
      const std::string space = namespaceOf(host);
      if (!attempt({ip_, "-n", switch_, "link", "add", portOf(host), "type", "veth", "peer", "name",
                    "eth0", "netns", space}) ||
          !attempt({ip_, "-n", switch_, "link", "set", portOf(host), "master", "br0", "up"}) ||
          !attempt({ip_, "-n", space, "addr", "add", address(host) + "/24", "dev", "eth0"}) ||
          !attempt({ip_, "-n", space, "link", "set", "eth0", "up"})) {
        return;
      }
    }
    enterSwitch();
  }

  // The test's own thread joins the switch: brokers it creates now listen there, and their
  // threads stay there.
  void enterSwitch() {
    home_ = std::make_unique<ScopedFd>(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
    const ScopedFd target(open(("/run/netns/" + switch_).c_str(), O_RDONLY | O_CLOEXEC));
    if (home_->get() < 0 || target.get() < 0 || setns(target.get(), CLONE_NEWNET) != 0) {
      unavailable_ = "cannot enter namespace " + switch_ + ": " + std::strerror(errno);
      home_.reset();
    }
  }
  void leaveSwitch() {
    if (home_ && setns(home_->get(), CLONE_NEWNET) != 0) {
      ADD_FAILURE() << "cannot leave namespace " << switch_ << ": " << std::strerror(errno);
    }
  }

  void clearFaults(const std::string& host) const {
    runTool(inside(host, {nft(), "delete", "table", "inet", kTable}));
    for (const auto& device : devicesOf(host)) {
      runTool(tc(device.first, {"qdisc", "del", "dev", device.second, "root"}));
    }
  }

  // A setup step: false, and the reason kept, when it fails.
  bool attempt(const std::vector<std::string>& command) {
    const ToolRun run = runTool(command);
    if (!run.ok) unavailable_ = "`" + joined(command) + "` failed: " + run.output;
    return run.ok;
  }
  // A step of a test: a failure of the test when it fails.
  static ToolRun must(const std::vector<std::string>& command) {
    ToolRun run = runTool(command);
    if (!run.ok) ADD_FAILURE() << "`" << joined(command) << "` failed: " << run.output;
    return run;
  }

  // The sum of the numbers that follow each `label` in `text`.
  static long sumAfter(const std::string& text, const std::string& label) {
    long sum = 0;
    for (std::size_t at = text.find(label); at != std::string::npos;
         at = text.find(label, at + 1)) {
      sum += std::atol(text.c_str() + at + label.size());
    }
    return sum;
  }
  static std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const auto& word : words) text += (text.empty() ? "" : " ") + word;
    return text;
  }

  const std::vector<std::string> hosts_;
  const std::string ip_;
  std::string prefix_;
  std::string switch_;
  std::string unavailable_;
  std::vector<std::string> made_;
  std::vector<std::string> faulty_;
  std::unique_ptr<ScopedFd> home_;
};

}  // namespace testing
}  // namespace KX

#endif  // VELMO_NETWORK_TESTS_NETNS_TEST_SUPPORT_H_
