#ifndef VELMO_MODULE_KXTASKMONITOR_H_
#define VELMO_MODULE_KXTASKMONITOR_H_

#include <pthread.h>

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace KX {

class KXTaskMonitor;

namespace detail {

// One parallel call: its id, the module and method it runs, the worker running it.
// Its fields are read and written only through the task monitor, under its mutex.
class KXTaskInfo {
 public:
  KXTaskInfo(int id, const std::string& moduleName, const std::string& methodName);

  // "<module>::<method>"
  std::string toString() const;

  const int id;  // -1 for a task that got no id
  const std::string moduleName;
  const std::string methodName;

 private:
  friend class ::KX::KXTaskMonitor;
  bool hasThread_ = false;
  pthread_t thread_{};
  bool stopRequested_ = false;
};

}  // namespace detail

// The table of a broker's parallel calls in progress, by id. An entry exists from
// posting until the method ends; "wait", "isRunning" and "stop" of every module answer
// from it. Thread-safe.
class KXTaskMonitor {
 public:
  // What the broker page shows of one entry.
  struct TaskEntry {
    int id;
    std::string moduleName;
    std::string methodName;
  };

  KXTaskMonitor();
  virtual ~KXTaskMonitor();
  KXTaskMonitor(const KXTaskMonitor&) = delete;
  KXTaskMonitor& operator=(const KXTaskMonitor&) = delete;

  // Inserts under its id, replacing an entry with that id.
  void add(const std::shared_ptr<detail::KXTaskInfo>& info);
  // Erases the entry if present and wakes its waiters.
  void remove(int id);
  std::shared_ptr<detail::KXTaskInfo> find(int id);
  // Records the calling thread in the entry for info's id, if present.
  void setThread(const std::shared_ptr<detail::KXTaskInfo>& info);
  bool isRunning(int id);
  // Waits for the entry to go: false as soon as it has gone (or never existed), true
  // when `timeoutMs` (> 0) expired first. The timeout counts in steps of 40 ms: a
  // timeout of 50 gives up after 80 ms. 0 or below waits without limit.
  bool wait(int id, int timeoutMs);
  // Sets the stop-requested flag; an unknown id throws KXError("KXTaskMonitor", "stop",
  // "The method 'stop' has not been implement in your module. ...").
  void stop(int id);
  bool isStopRequested(int id);
  // The id of the first entry (by id) run by the calling thread for `moduleName`, or -1.
  int getTaskIdForCurrentThread(const std::string& moduleName);
  // The entries, by id.
  std::vector<TaskEntry> getTaskList();

 private:
  std::mutex mutex_;
  std::condition_variable removed_;                           // notified on every remove
  std::map<int, std::shared_ptr<detail::KXTaskInfo>> tasks_;  // guarded by mutex_
};

}  // namespace KX

#endif  // VELMO_MODULE_KXTASKMONITOR_H_
