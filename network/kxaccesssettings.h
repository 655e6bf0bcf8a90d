#ifndef VELMO_NETWORK_KXACCESSSETTINGS_H_
#define VELMO_NETWORK_KXACCESSSETTINGS_H_

// The process's access settings: the token of the tree its brokers belong to and the host
// names their ports answer besides addresses, "localhost" and this machine's names. Read
// from the environment the first time they are needed (VELMO_TOKEN, VELMO_ALLOWED_HOSTS,
// comma-separated), changed by the program's options; they last until the process ends.
// A broker's network takes them when it is created: its server asks for the token, and
// every message it sends carries it.

#include <set>
#include <string>

namespace KX {

// A browser that opens this path, followed by the token, is given the token as a cookie.
constexpr char kTokenQuery[] = "/?token=";

struct KXAccessSettings {
  std::string token;  // empty: none
  std::set<std::string> allowedHosts;
};

// Why `token` cannot be used as a token (empty: it can). A token travels in a header and a
// cookie: 1 to 256 characters among letters, digits and "-._~+/=".
std::string tokenProblem(const std::string& token);

// A copy of the current settings. Raises KXError ("KXNetwork", "VELMO_TOKEN", why) when
// the environment's token cannot be used, and likewise for VELMO_ALLOWED_HOSTS.
KXAccessSettings accessSettings();

// Sets the tree's token for brokers created from now on ("" for none). Raises KXError
// ("KXNetwork", "setTreeToken", why) for a token that cannot be used.
void setTreeToken(const std::string& token);

// Lets `name` in as a host name of brokers created from now on. Raises KXError
// ("KXNetwork", "allowHostName", why) when it is no host name.
void allowHostName(const std::string& name);

// This machine's names: its host name, the name's first label and that label + ".local".
std::set<std::string> ownHostNames();

}  // namespace KX

#endif  // VELMO_NETWORK_KXACCESSSETTINGS_H_
