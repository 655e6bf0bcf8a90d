#include "value/kxerror.h"

namespace KX {
namespace {

std::string composeMessage(const std::string& module, const std::string& method,
                           const std::string& description) {
  std::string message;
  message.reserve(module.size() + method.size() + description.size() + 5);
  if (!module.empty()) {
    message += '\t';
    message += module;
  }
  if (!method.empty()) {
    message += "::";
    message += method;
  }
  message += "\n\t";
  message += description;
  return message;
}

}  // namespace

KXError::KXError() : std::runtime_error("KXError") {}

KXError::KXError(const std::string& module, const std::string& method,
                 const std::string& description, const char* /*file*/, int /*line*/)
    : std::runtime_error(composeMessage(module, method, description)) {}

KXError::KXError(const std::string& message) : std::runtime_error(message) {}

KXError::~KXError() = default;

std::string KXError::description() const {
  const std::string text = what();
  const std::size_t separator = text.find("\n\t");
  return separator == std::string::npos ? text : text.substr(separator + 2);
}

KXNetworkError::KXNetworkError(std::string module, std::string method, std::string description,
                               const char* file, int line)
    : KXError(module, method, description, file, line) {}

KXNetworkError::KXNetworkError(const KXError& other) : KXError(std::string(other.what())) {}

KXNetworkError::~KXNetworkError() = default;

KXAccessRefused::~KXAccessRefused() = default;

void throwAssertFailed(const std::string& module, const char* file, int line) {
  throw KXError(module, "Assert failed",
                std::string(file ? file : "(unknown)") + ":" + std::to_string(line), file, line);
}

}  // namespace KX
