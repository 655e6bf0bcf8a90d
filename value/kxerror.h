#ifndef VELMO_VALUE_KXERROR_H_
#define VELMO_VALUE_KXERROR_H_

#include <stdexcept>
#include <string>

namespace KX {

// The one exception type of the framework. Its whole state is its text:
//   "\t" module "::" method "\n\t" description
// where the module part and the "::" method part appear only when not empty.
// The source file and line are accepted for the thrower's convenience and
// deliberately not shown, so equal failures have equal texts.
class KXError : public std::runtime_error {
 public:
  KXError();
  KXError(const KXError& other) = default;
  KXError& operator=(const KXError& other) = default;
  KXError(const std::string& module, const std::string& method, const std::string& description,
          const char* file, int line);
  ~KXError() override;

  // What follows the module and method line: the description alone.
  std::string description() const;

 protected:
  explicit KXError(const std::string& message);
};

// Raised by the network service for connection and remote-call failures, so that
// callers can catch network trouble apart from other errors.
class KXNetworkError : public KXError {
 public:
  KXNetworkError(std::string module, std::string method, std::string description, const char* file,
                 int line);
  explicit KXNetworkError(const KXError& other);
  ~KXNetworkError() override;
};

// Raised when a broker refuses a request: a wrong or missing token, or a host name or
// origin that it does not accept. Asking again the same way cannot succeed.
class KXAccessRefused : public KXNetworkError {
 public:
  using KXNetworkError::KXNetworkError;
  ~KXAccessRefused() override;
};

// Internal consistency check: throws KXError(module, "Assert failed", "<file>:<line>").
[[noreturn]] void throwAssertFailed(const std::string& module, const char* file, int line);

}  // namespace KX

#define KX_THROW(module, method, description) \
  throw ::KX::KXError((module), (method), (description), __FILE__, __LINE__)

#define KX_ASSERT(module, condition)                                         \
  do {                                                                       \
    if (!(condition)) ::KX::throwAssertFailed((module), __FILE__, __LINE__); \
  } while (false)

#endif  // VELMO_VALUE_KXERROR_H_
