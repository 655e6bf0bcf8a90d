#include "network/kxaccesssettings.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <mutex>
#include <optional>

#include "log/processwide.h"
#include "network/detail/kxaccesspolicy.h"
#include "value/kxerror.h"
#include "value/textcoding.h"

namespace KX {
namespace {

constexpr std::size_t kMaxTokenLength = 256;

struct Settings {
  std::mutex mutex;
  bool loaded = false;        // guarded by mutex
  KXAccessSettings settings;  // guarded by mutex
};

// Lives until the process ends: brokers may be created at any time, from any thread, and
// a broker's threads may still ask while the process exits.
Settings& processSettings() {
  static tu::ProcessWide<Settings> settings;
  return settings.get();
}

// `source`: where the value came from, named in the error ("" for a caller's argument).
std::string checkedToken(const std::string& token, const char* method, const std::string& source) {
  const std::string problem = tokenProblem(token);
  if (!problem.empty()) KX_THROW("KXNetwork", method, source + problem + ".");
  return token;
}

std::string checkedHostName(const std::string& name, const char* method,
                            const std::string& source) {
  const std::optional<KXHostPort> host = parseHostHeader(name);
  if (!host || name.find(':') != std::string::npos) {
    KX_THROW("KXNetwork", method, source + "\"" + name + "\" is not a host name.");
  }
  return host->host;
}

void loadEnvironment(KXAccessSettings& settings) {
  if (const char* token = std::getenv("VELMO_TOKEN"); token != nullptr && token[0] != '\0') {
    settings.token = checkedToken(token, "VELMO_TOKEN", "VELMO_TOKEN: ");
  }
  if (const char* names = std::getenv("VELMO_ALLOWED_HOSTS")) {
    const std::string list = names;
    std::size_t start = 0;
    while (start <= list.size()) {
      std::size_t end = list.find(',', start);
      if (end == std::string::npos) end = list.size();
      const std::string name(trimBlanks(list.substr(start, end - start)));
      if (!name.empty()) {
        settings.allowedHosts.insert(
            checkedHostName(name, "VELMO_ALLOWED_HOSTS", "VELMO_ALLOWED_HOSTS: "));
      }
      start = end + 1;
    }
  }
}

// Runs `change` on the settings, loaded from the environment first.
template <typename Change>
auto withSettings(Change&& change) {
  Settings& shared = processSettings();
  std::lock_guard<std::mutex> guard(shared.mutex);
  if (!shared.loaded) {
    KXAccessSettings loaded;
    loadEnvironment(loaded);  // a bad environment is reported on every use, not just once
    shared.settings = std::move(loaded);
    shared.loaded = true;
  }
  return change(shared.settings);
}

}  // namespace

std::string tokenProblem(const std::string& token) {
  if (token.empty()) return "the token is empty";
  if (token.size() > kMaxTokenLength) {
    return "the token is longer than " + std::to_string(kMaxTokenLength) + " characters";
  }
  const bool allowed = std::all_of(token.begin(), token.end(), [](unsigned char c) {
    return std::isalnum(c) ||
           std::string("-._~+/=").find(static_cast<char>(c)) != std::string::npos;
  });
  if (!allowed) return "the token may hold only letters, digits and \"-._~+/=\"";
  return std::string();
}

KXAccessSettings accessSettings() {
  return withSettings([](const KXAccessSettings& settings) { return settings; });
}

void setTreeToken(const std::string& token) {
  const std::string checked = token.empty() ? token : checkedToken(token, "setTreeToken", "");
  withSettings([&checked](KXAccessSettings& settings) { settings.token = checked; });
}

void allowHostName(const std::string& name) {
  const std::string checked = checkedHostName(name, "allowHostName", "");
  withSettings([&checked](KXAccessSettings& settings) { settings.allowedHosts.insert(checked); });
}

std::set<std::string> ownHostNames() {
  char name[256] = {0};
  if (gethostname(name, sizeof(name) - 1) != 0 || name[0] == '\0') return {};
  const std::string full = name;
  const std::string label = full.substr(0, full.find('.'));
  return {full, label, label + ".local"};
}

}  // namespace KX
