#ifndef VELMO_NETWORK_DETAIL_KXACCESSPOLICY_H_
#define VELMO_NETWORK_DETAIL_KXACCESSPOLICY_H_

// Who may use a broker's port. A broker's port is reachable from the network and, through
// any web page a person opens, from the browsers on it; brokers, scripts and tools send
// none of the headers a browser adds, and are let in as before. Three rules, in order:
//   1. the Host header names an IP address, "localhost", this machine or an allowed name
//      (else a page served under a name that resolves here, a DNS rebinding, could read
//      and drive the broker as if it were its own origin);
//   2. when the broker has a token, the request carries it (a bearer token or the cookie
//      that the link "/?token=TOKEN" sets);
//   3. a request that can change state (URL calls, SOAP POSTs, PUT, DELETE) does not come
//      from another site: no foreign Origin or Referer, and Sec-Fetch-Site, when sent, is
//      "same-origin" or "none" (an address typed or bookmarked).

#include <optional>
#include <set>
#include <string>

#include "network/kxaccesssettings.h"

namespace KX {

// The headers of a request that the policy reads; absent ones are empty optionals.
struct KXRequestHeaders {
  std::optional<std::string> host;
  std::optional<std::string> origin;
  std::optional<std::string> referer;
  std::optional<std::string> secFetchSite;
  std::optional<std::string> secFetchMode;
  std::optional<std::string> authorization;
  std::optional<std::string> cookie;
};

enum class KXHttpMethod { get, head, post, put, del, options, other };

struct KXAccessDecision {
  enum class Kind {
    allow,
    // 403 with `reason`.
    forbidden,
    // 401 with `reason`.
    unauthorized,
    // 403: a link on another site led a person here to a URL call; they are shown the
    // call and may run it from the broker's own page.
    confirmCall,
    // The link "/?token=TOKEN" with the right token: set the cookie, go to "/".
    acceptToken,
  };
  Kind kind = Kind::allow;
  std::string reason;  // one line, for forbidden and unauthorized
};

// A host named in a Host header or an origin, lowercase, without a trailing dot; IPv6
// addresses keep their brackets.
struct KXHostPort {
  std::string host;
  int port = 80;
  bool isAddress = false;  // an IPv4 or IPv6 address rather than a name
};

// Reads a Host header ("name", "name:port", "1.2.3.4:80", "[::1]:80"). Empty when it is not
// one (bad characters, a bad port, an empty name).
std::optional<KXHostPort> parseHostHeader(const std::string& text);

// The http origin of an Origin or Referer value ("http://host[:port][/...]"). Empty for
// "null", other schemes and anything unreadable.
std::optional<KXHostPort> parseHttpOrigin(const std::string& text);

// The value of cookie `name` in a Cookie header ("a=1; b=2"), empty when absent.
std::optional<std::string> cookieValue(const std::string& header, const std::string& name);

// Compares in a time that depends on the lengths only, not on where the texts differ.
bool constantTimeEquals(const std::string& a, const std::string& b);

// Whether a request of this method and path can change the broker's state.
bool changesState(KXHttpMethod method, const std::string& path);

// Immutable; decides for any number of threads at once.
class KXAccessPolicy {
 public:
  // hostNames: the names let in besides addresses and "localhost" (this machine's and the
  // allowed ones, any case, a trailing dot ignored). token: empty for none. port: the
  // broker's port, which names its cookie (browsers share cookies between the ports of a
  // host).
  KXAccessPolicy(const std::set<std::string>& hostNames, std::string token, int port);

  KXAccessDecision decide(KXHttpMethod method, const std::string& path,
                          const KXRequestHeaders& headers) const;

  bool requiresToken() const { return !token_.empty(); }
  const std::string& token() const { return token_; }
  // "velmo-token-" + port.
  const std::string& cookieName() const { return cookieName_; }

 private:
  // host: the Host header as read (empty when absent or unreadable).
  bool allowsHost(const KXRequestHeaders& headers, const std::optional<KXHostPort>& host,
                  std::string& reason) const;
  enum class TokenCheck { missing, wrong, right };
  // The bearer token, else the cookie.
  TokenCheck checkToken(const KXRequestHeaders& headers) const;
  bool comesFromElsewhere(const KXRequestHeaders& headers, const std::optional<KXHostPort>& own,
                          std::string& reason) const;

  std::set<std::string> hostNames_;
  std::string token_;
  std::string cookieName_;
};

}  // namespace KX

#endif  // VELMO_NETWORK_DETAIL_KXACCESSPOLICY_H_
