// Who may use a broker's port: the headers read, then each request's decision and the exact
// reason a refused person reads.
#include "network/detail/kxaccesspolicy.h"

#include <gtest/gtest.h>

#include <optional>
#include <sstream>
#include <string>

namespace KX {
namespace {

using Kind = KXAccessDecision::Kind;

TEST(AccessHeaderTest, HostHeadersAndOriginsAreReadIntoNameAndPort) {
  const auto describe = [](const std::optional<KXHostPort>& host) {
    return host->host + " " + std::to_string(host->port) + (host->isAddress ? " address" : "");
  };
  const std::pair<const char*, const char*> hosts[] = {{"Robot.Lan.:8080", "robot.lan 8080"},
                                                       {" 10.0.0.2 ", "10.0.0.2 80 address"},
                                                       {"[FE80::1]", "[fe80::1] 80 address"},
                                                       {"127.0.0.1.nip.io", "127.0.0.1.nip.io 80"},
                                                       {"host:65535", "host 65535"}};
  for (const auto& [text, expected] : hosts) {
    ASSERT_TRUE(parseHostHeader(text)) << text;
    EXPECT_EQ(describe(parseHostHeader(text)), expected);
  }
  for (const char* text : {"host:65536", "host:8o", "host:", ":80", "", ".", "evil.example:80:80",
                           "[::1", "[::1]x", "[::1]:", "[not-v6]:80", "a b", "user@host"}) {
    EXPECT_FALSE(parseHostHeader(text)) << text;
  }
  const std::pair<const char*, const char*> origins[] = {
      {"http://127.0.0.1:9559", "127.0.0.1 9559 address"},
      {"http://robot.lan:8080/page.html?x#y", "robot.lan 8080"},
      {"http://[::1]:9559", "[::1] 9559 address"}};
  for (const auto& [text, expected] : origins) {
    ASSERT_TRUE(parseHttpOrigin(text)) << text;
    EXPECT_EQ(describe(parseHttpOrigin(text)), expected);
  }
  // Credentials would hide the host: "http://localhost@evil.example".
  for (const char* text : {"null", "https://127.0.0.1:9559", "file:///index.html", "http://",
                           "http://localhost@evil.example"}) {
    EXPECT_FALSE(parseHttpOrigin(text)) << text;
  }
}

TEST(AccessHeaderTest, TokensAreCheckedForWhatTheyMayHold) {
  const std::string characters = "the token may hold only letters, digits and \"-._~+/=\"";
  const std::pair<std::string, std::string> cases[] = {
      {"abc-DEF_0.9~+/=", ""},
      {std::string(256, 'a'), ""},
      {std::string(257, 'a'), "the token is longer than 256 characters"},
      {"", "the token is empty"},
      {"a b", characters},
  };
  for (const auto& [token, problem] : cases) EXPECT_EQ(tokenProblem(token), problem) << token;
}

// "Name: value" lines into the headers the policy reads.
KXRequestHeaders headersOf(const std::string& lines) {
  KXRequestHeaders headers;
  std::istringstream in(lines);
  for (std::string line; std::getline(in, line);) {
    const std::string name = line.substr(0, line.find(':'));
    std::optional<std::string>& field = name == "Host"             ? headers.host
                                        : name == "Origin"         ? headers.origin
                                        : name == "Referer"        ? headers.referer
                                        : name == "Sec-Fetch-Site" ? headers.secFetchSite
                                        : name == "Sec-Fetch-Mode" ? headers.secFetchMode
                                        : name == "Cookie"         ? headers.cookie
                                                                   : headers.authorization;
    field = line.substr(name.size() + 2);
  }
  return headers;
}

TEST(AccessPolicyTest, EachRequestIsDecidedWithTheReasonItsSenderReads) {
  const KXAccessPolicy open({"robot", "Robot.Lan."}, "", 9559);
  const KXAccessPolicy guarded({}, "t0k", 9559);
  EXPECT_EQ(guarded.cookieName(), "velmo-token-9559");
  const std::string call = "/?evalKXMemory.insertData([\"k\",1])";
  const std::string own = "Host: 127.0.0.1:9559\n";
  const std::string crossSite =
      "Forbidden: a request from another site may not change this broker's state (";
  const std::string missing =
      "Unauthorized: this broker requires its token (send \"Authorization: Bearer TOKEN\", or "
      "open the link with ?token= that the broker printed at start).";
  const std::string wrong = "Unauthorized: the token sent is not this broker's.";
  const auto get = KXHttpMethod::get, post = KXHttpMethod::post;
  const struct {
    const KXAccessPolicy& policy;
    KXHttpMethod method;
    std::string path;
    std::string headers;
    Kind expected;
    std::string reason;
  } cases[] = {
      // Tools send no browser headers, and any address or an allowed name is let in.
      {open, get, call, "", Kind::allow, ""},
      {open, post, "/", "Host: [::1]:9559", Kind::allow, ""},
      {open, get, "/", "Host: robot.lan", Kind::allow, ""},
      // A name that resolves here but is not the broker's: a DNS rebinding.
      {open, get, "/index.xml", "Host: evil.example:9559", Kind::forbidden,
       "Forbidden: the host name \"evil.example\" is not this broker's (allow it with velmo "
       "--allow-host evil.example or VELMO_ALLOWED_HOSTS)."},
      {open, get, "/", "Host: a\tb", Kind::forbidden,
       "Forbidden: the Host header \"a?b\" names no host."},
      {open, get, "/", "Host: " + std::string(120, 'x') + ":y", Kind::forbidden,
       "Forbidden: the Host header \"" + std::string(100, 'x') + "...\" names no host."},
      // Browsers: what changes state comes from the broker's own pages or a typed address.
      {open, get, call, own + "Origin: http://127.0.0.1:9559\nSec-Fetch-Site: same-origin",
       Kind::allow, ""},
      {open, get, call, own + "Sec-Fetch-Site: none\nSec-Fetch-Mode: navigate", Kind::allow, ""},
      {open, post, "/", own + "Origin: http://127.0.0.1:8000\nSec-Fetch-Site: same-site",
       Kind::forbidden, crossSite + "Origin: http://127.0.0.1:8000)."},
      {open, get, "/?jsonKXMemory.ping()", own + "Sec-Fetch-Site: cross-site", Kind::forbidden,
       crossSite + "Sec-Fetch-Site: cross-site)."},
      {open, get, call, own + "Sec-Fetch-Site: cross-site\nSec-Fetch-Mode: navigate",
       Kind::confirmCall, crossSite + "Sec-Fetch-Site: cross-site)."},
      {open, KXHttpMethod::del, "/tmp/a", own + "Referer: http://evil.example/page.html",
       Kind::forbidden, crossSite + "Referer: http://evil.example/page.html)."},
      {open, post, "/", "Origin: http://127.0.0.1:9559", Kind::forbidden,
       crossSite + "Origin: http://127.0.0.1:9559)."},  // no Host to compare it with
      // Reading stays open to other sites, and so does a preflight (answered 405 anyway).
      {open, get, "/index.xml", own + "Origin: http://evil.example\nSec-Fetch-Site: cross-site",
       Kind::allow, ""},
      {open, KXHttpMethod::options, "/", own + "Origin: http://evil.example", Kind::allow, ""},
      // With a token, every request carries it: a bearer token, else the port's cookie.
      {guarded, get, "/index.xml", "", Kind::unauthorized, missing},
      {guarded, post, "/", "Authorization: Bearer t0k", Kind::allow, ""},
      {guarded, post, "/", "Authorization: bearer  t0k ", Kind::allow, ""},
      {guarded, post, "/", "Authorization: Basic dDBr", Kind::unauthorized, missing},
      {guarded, post, "/", "Authorization: Bearer t0kk", Kind::unauthorized, wrong},
      {guarded, get, "/", "Cookie: velmo-token-9559=\"t0k\"; b=2", Kind::allow, ""},
      {guarded, get, "/", "Cookie: velmo-token-9560=t0k", Kind::unauthorized, missing},
      {guarded, get, "/?token=t0k", "", Kind::acceptToken, ""},
      {guarded, get, "/?token=t0kk", "", Kind::unauthorized,
       "Unauthorized: this is not the broker's token."},
      {guarded, get, call, "Authorization: Bearer t0k\nOrigin: http://evil.example",
       Kind::forbidden, crossSite + "Origin: http://evil.example)."},
      {guarded, get, "/", "Host: evil.example", Kind::forbidden,
       "Forbidden: the host name \"evil.example\" is not this broker's (allow it with velmo "
       "--allow-host evil.example or VELMO_ALLOWED_HOSTS)."},  // before the token is asked for
  };
  for (const auto& c : cases) {
    const KXAccessDecision decision = c.policy.decide(c.method, c.path, headersOf(c.headers));
    EXPECT_EQ(static_cast<int>(decision.kind), static_cast<int>(c.expected)) << c.headers;
    EXPECT_EQ(decision.reason, c.reason) << c.headers;
  }
}

}  // namespace
}  // namespace KX
