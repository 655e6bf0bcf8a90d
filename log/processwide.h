#ifndef VELMO_LOG_PROCESSWIDE_H_
#define VELMO_LOG_PROCESSWIDE_H_

#include <new>
#include <utility>

namespace tu {

// Storage for a process-wide object that lives from its first use until the process ends
// and is never destroyed: threads still running while the process exits (the log thread,
// brokers' workers, an interpreter finalising) may use it after static destruction has
// begun. The process reclaims its memory. Declare it as a function-local static:
//   static tu::ProcessWide<Registry> registry;
//   return registry.get();
template <typename T>
class ProcessWide {
 public:
  template <typename... Args>
  explicit ProcessWide(Args&&... args) {
    ::new (static_cast<void*>(storage_)) T(std::forward<Args>(args)...);
  }
  ProcessWide(const ProcessWide&) = delete;
  ProcessWide& operator=(const ProcessWide&) = delete;

  T& get() { return *std::launder(reinterpret_cast<T*>(storage_)); }

 private:
  alignas(T) unsigned char storage_[sizeof(T)];
};

}  // namespace tu

#endif  // VELMO_LOG_PROCESSWIDE_H_
