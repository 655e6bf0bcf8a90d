#include "network/kxaccesspolicy.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

namespace KX {
namespace {

using Kind = KXAccessDecision::Kind;

std::string describe(const std::optional<KXHostPort>& host) {
  if (!host) return "refused";
  return host->host + " " + std::to_string(host->port) + (host->isAddress ? " address" : "");
}

TEST(AccessHeaderTest, HostHeadersAreReadIntoNameAndPort) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"localhost", "localhost 80"},
      {"LocalHost:9559", "localhost 9559"},
      {"robot.lan.", "robot.lan 80"},
      {"Robot.Lan.:8080", "robot.lan 8080"},
      {"127.0.0.1:54010", "127.0.0.1 54010 address"},
      {" 10.0.0.2 ", "10.0.0.2 80 address"},
      {"[::1]:9559", "[::1] 9559 address"},
      {"[FE80::1]", "[fe80::1] 80 address"},
      {"127.0.0.1.nip.io", "127.0.0.1.nip.io 80"},
      {"", "refused"},
      {":80", "refused"},
      {"host:", "refused"},
      {"host:65536", "refused"},
      {"host:8o", "refused"},
      {"evil.example:80:80", "refused"},
      {"[::1", "refused"},
      {"[::1]x", "refused"},
      {"[not-v6]:80", "refused"},
      {"a b", "refused"},
      {"user@host", "refused"},
      {".", "refused"},
  };
  for (const auto& [header, expected] : cases) {
    EXPECT_EQ(describe(parseHostHeader(header)), expected) << header;
  }
}

TEST(AccessHeaderTest, OriginsAreHttpSchemeHostAndPort) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"http://127.0.0.1:9559", "127.0.0.1 9559 address"},
      {"HTTP://LocalHost", "localhost 80"},
      {"http://robot.lan:8080/page.html?x#y", "robot.lan 8080"},
      {"http://[::1]:9559", "[::1] 9559 address"},
      {"null", "refused"},
      {"https://127.0.0.1:9559", "refused"},
      {"file:///index.html", "refused"},
      {"http://localhost@evil.example", "refused"},
      {"http://", "refused"},
  };
  for (const auto& [origin, expected] : cases) {
    EXPECT_EQ(describe(parseHttpOrigin(origin)), expected) << origin;
  }
}

TEST(AccessHeaderTest, TokensAreCheckedForWhatTheyMayHold) {
  EXPECT_EQ(tokenProblem("abc-DEF_0.9~+/="), "");
  EXPECT_EQ(tokenProblem(""), "the token is empty");
  EXPECT_EQ(tokenProblem("a b"), "the token may hold only letters, digits and \"-._~+/=\"");
  EXPECT_EQ(tokenProblem("a;b"), "the token may hold only letters, digits and \"-._~+/=\"");
  EXPECT_EQ(tokenProblem(std::string(256, 'a')), "");
  EXPECT_EQ(tokenProblem(std::string(257, 'a')), "the token is longer than 256 characters");
}

// One request and what the policy makes of it.
struct Case {
  const char* what;
  KXHttpMethod method;
  std::string path;
  KXRequestHeaders headers;
  Kind expected;
  std::string reason;  // checked when not empty
};

KXRequestHeaders hostOnly(const char* host) {
  KXRequestHeaders headers;
  headers.host = host;
  return headers;
}

KXRequestHeaders browser(const char* host, std::optional<std::string> origin,
                         std::optional<std::string> site, std::optional<std::string> mode = {}) {
  KXRequestHeaders headers = hostOnly(host);
  headers.origin = std::move(origin);
  headers.secFetchSite = std::move(site);
  headers.secFetchMode = std::move(mode);
  return headers;
}

void expectDecisions(const KXAccessPolicy& policy, const std::vector<Case>& cases) {
  for (const Case& c : cases) {
    const KXAccessDecision decision = policy.decide(c.method, c.path, c.headers);
    EXPECT_EQ(static_cast<int>(decision.kind), static_cast<int>(c.expected)) << c.what;
    if (!c.reason.empty()) {
      EXPECT_EQ(decision.reason, c.reason) << c.what;
    }
  }
}

const char* const kCall = "/?evalKXMemory.insertData([\"k\",1])";

TEST(AccessPolicyTest, WithoutATokenHostsAndOriginsDecide) {
  const KXAccessPolicy policy({"robot", "Robot.Lan."}, "", 9559);
  const std::string crossSite =
      "Forbidden: a request from another site may not change this broker's state (";
  KXRequestHeaders referred = hostOnly("127.0.0.1:9559");
  referred.referer = "http://evil.example/page.html";
  KXRequestHeaders ownReferer = hostOnly("127.0.0.1:9559");
  ownReferer.referer = "http://127.0.0.1:9559/index.html";
  expectDecisions(
      policy,
      {
          {"a tool sends no browser headers", KXHttpMethod::get, kCall, {}, Kind::allow, ""},
          {"curl", KXHttpMethod::put, "/tmp/a", hostOnly("127.0.0.1:9559"), Kind::allow, ""},
          {"an IPv6 literal", KXHttpMethod::post, "/", hostOnly("[::1]:9559"), Kind::allow, ""},
          {"localhost", KXHttpMethod::get, kCall, hostOnly("LOCALHOST:9559"), Kind::allow, ""},
          {"an allowed name", KXHttpMethod::get, "/", hostOnly("robot.lan"), Kind::allow, ""},
          {"a rebound name", KXHttpMethod::get, "/index.xml", hostOnly("evil.example:9559"),
           Kind::forbidden,
           "Forbidden: the host name \"evil.example\" is not this broker's (allow it with velmo "
           "--allow-host evil.example or VELMO_ALLOWED_HOSTS)."},
          {"an unreadable host", KXHttpMethod::get, "/",
           hostOnly("a\x01"
                    "b"),
           Kind::forbidden, "Forbidden: the Host header \"a?b\" names no host."},
          {"the broker's own page", KXHttpMethod::get, kCall,
           browser("127.0.0.1:9559", "http://127.0.0.1:9559", "same-origin"), Kind::allow, ""},
          {"a typed address", KXHttpMethod::get, kCall,
           browser("127.0.0.1:9559", std::nullopt, "none", "navigate"), Kind::allow, ""},
          {"another port is another origin", KXHttpMethod::post, "/",
           browser("127.0.0.1:9559", "http://127.0.0.1:8000", "same-site"), Kind::forbidden,
           crossSite + "Origin: http://127.0.0.1:8000)."},
          {"an opaque origin", KXHttpMethod::put, "/tmp/a",
           browser("127.0.0.1:9559", "null", std::nullopt), Kind::forbidden,
           crossSite + "Origin: null)."},
          {"an image of another site", KXHttpMethod::get, kCall,
           browser("127.0.0.1:9559", std::nullopt, "cross-site"), Kind::forbidden,
           crossSite + "Sec-Fetch-Site: cross-site)."},
          {"a link on another site", KXHttpMethod::get, kCall,
           browser("127.0.0.1:9559", std::nullopt, "cross-site", "navigate"), Kind::confirmCall,
           ""},
          {"an older browser names the page", KXHttpMethod::get, kCall, referred, Kind::forbidden,
           crossSite + "Referer: http://evil.example/page.html)."},
          {"a link on the broker's own page", KXHttpMethod::get, kCall, ownReferer, Kind::allow,
           ""},
          {"an origin without a host to compare", KXHttpMethod::post, "/",
           browser("", "http://127.0.0.1:9559", std::nullopt), Kind::forbidden, ""},
          {"reading stays open to other sites", KXHttpMethod::get, "/index.xml",
           browser("127.0.0.1:9559", "http://evil.example", "cross-site"), Kind::allow, ""},
          {"no token link without a token", KXHttpMethod::get, "/?token=x", hostOnly("127.0.0.1"),
           Kind::allow, ""},
      });
}

TEST(AccessPolicyTest, WithATokenEveryRequestCarriesIt) {
  const KXAccessPolicy policy({}, "t0k", 9559);
  EXPECT_EQ(policy.cookieName(), "velmo-token-9559");
  const auto with = [](std::optional<std::string> authorization,
                       std::optional<std::string> cookie) {
    KXRequestHeaders headers = hostOnly("127.0.0.1:9559");
    headers.authorization = std::move(authorization);
    headers.cookie = std::move(cookie);
    return headers;
  };
  const std::string missing =
      "Unauthorized: this broker requires its token (send \"Authorization: Bearer TOKEN\", or "
      "open the link with ?token= that the broker printed at start).";
  const std::string wrong = "Unauthorized: the token sent is not this broker's.";
  KXRequestHeaders crossWithToken = with("Bearer t0k", std::nullopt);
  crossWithToken.origin = "http://evil.example";
  expectDecisions(
      policy,
      {
          {"nothing", KXHttpMethod::get, "/index.xml", {}, Kind::unauthorized, missing},
          {"a bearer", KXHttpMethod::post, "/", with("Bearer t0k", {}), Kind::allow, ""},
          {"the scheme in any case", KXHttpMethod::post, "/", with("bearer  t0k ", {}), Kind::allow,
           ""},
          {"another scheme", KXHttpMethod::post, "/", with("Basic dDBr", {}), Kind::unauthorized,
           missing},
          {"a wrong bearer", KXHttpMethod::post, "/", with("Bearer t0", {}), Kind::unauthorized,
           wrong},
          {"a longer bearer", KXHttpMethod::post, "/", with("Bearer t0kk", {}), Kind::unauthorized,
           wrong},
          {"the cookie among others", KXHttpMethod::get, "/", with({}, "a=1; velmo-token-9559=t0k"),
           Kind::allow, ""},
          {"another port's cookie", KXHttpMethod::get, "/", with({}, "velmo-token-9560=t0k"),
           Kind::unauthorized, missing},
          {"a wrong cookie", KXHttpMethod::get, "/", with({}, "velmo-token-9559=x"),
           Kind::unauthorized, wrong},
          {"the link with the token", KXHttpMethod::get, "/?token=t0k", {}, Kind::acceptToken, ""},
          {"the link with another",
           KXHttpMethod::get,
           "/?token=t0kk",
           {},
           Kind::unauthorized,
           "Unauthorized: this is not the broker's token."},
          {"the token does not open the door to other sites", KXHttpMethod::get, kCall,
           crossWithToken, Kind::forbidden, ""},
          {"a foreign host is refused before the token is asked for", KXHttpMethod::get, "/",
           hostOnly("evil.example"), Kind::forbidden, ""},
      });
}

}  // namespace
}  // namespace KX
