#include "network/detail/kxaccesspolicy.h"
#include "value/textcoding.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <utility>

namespace KX {
namespace {

constexpr std::size_t kMaxEchoedLength = 100;

std::string lowercase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

bool isAllDigits(const std::string& text) {
  return !text.empty() &&
         std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c); });
}

std::optional<int> parsePort(const std::string& text) {
  if (!isAllDigits(text) || text.size() > 5) return std::nullopt;
  const int port = std::stoi(text);
  if (port > 65535) return std::nullopt;
  return port;
}

bool isNameCharacter(unsigned char c) {
  return std::isalnum(c) || c == '-' || c == '.' || c == '_';
}

// "host" or "host:port" as a Host header or the authority of an origin writes it.
std::optional<KXHostPort> parseAuthority(const std::string& text, int defaultPort) {
  KXHostPort result;
  result.port = defaultPort;
  std::string host;
  std::string port;
  if (!text.empty() && text[0] == '[') {
    const std::size_t close = text.find(']');
    if (close == std::string::npos) return std::nullopt;
    const std::string address = text.substr(1, close - 1);
    in6_addr bytes{};
    if (inet_pton(AF_INET6, address.c_str(), &bytes) != 1) return std::nullopt;
    host = "[" + lowercase(address) + "]";
    result.isAddress = true;
    const std::string rest = text.substr(close + 1);
    if (!rest.empty()) {
      if (rest[0] != ':') return std::nullopt;
      port = rest.substr(1);
      if (port.empty()) return std::nullopt;
    }
  } else {
    const std::size_t colon = text.find(':');
    host = text.substr(0, colon);
    if (colon != std::string::npos) {
      port = text.substr(colon + 1);
      if (port.empty()) return std::nullopt;
    }
    if (!host.empty() && host.back() == '.') host.pop_back();
    if (host.empty() || !std::all_of(host.begin(), host.end(), isNameCharacter)) {
      return std::nullopt;
    }
    host = lowercase(host);
    in_addr bytes{};
    result.isAddress = inet_pton(AF_INET, host.c_str(), &bytes) == 1;
  }
  if (!port.empty()) {
    const std::optional<int> number = parsePort(port);
    if (!number) return std::nullopt;
    result.port = *number;
  }
  result.host = std::move(host);
  return result;
}

bool sameOrigin(const KXHostPort& a, const KXHostPort& b) {
  return a.host == b.host && a.port == b.port;
}

// Header text echoed in a reason: printable, one line, short.
std::string echoed(const std::string& text) {
  std::string clean;
  for (const char c : text.substr(0, kMaxEchoedLength)) {
    clean.push_back(c >= 0x20 && c < 0x7f ? c : '?');
  }
  if (text.size() > kMaxEchoedLength) clean += "...";
  return clean;
}

std::optional<std::string> bearerToken(const std::optional<std::string>& authorization) {
  if (!authorization) return std::nullopt;
  const std::string value(trimBlanks(*authorization));
  constexpr std::size_t kSchemeLength = 7;  // "Bearer "
  if (value.size() <= kSchemeLength || lowercase(value.substr(0, kSchemeLength)) != "bearer ") {
    return std::nullopt;
  }
  return std::string(trimBlanks(value.substr(kSchemeLength)));
}

bool startsWith(const std::string& text, const char* prefix) { return text.rfind(prefix, 0) == 0; }

}  // namespace

std::optional<KXHostPort> parseHostHeader(const std::string& text) {
  return parseAuthority(std::string(trimBlanks(text)), 80);
}

std::optional<KXHostPort> parseHttpOrigin(const std::string& text) {
  const std::string value(trimBlanks(text));
  constexpr const char* kScheme = "http://";
  if (lowercase(value.substr(0, 7)) != kScheme) return std::nullopt;
  const std::string rest = value.substr(7);
  const std::size_t end = rest.find_first_of("/?#");
  const std::string authority = rest.substr(0, end);
  // Credentials in an origin would hide its host: "http://localhost@evil.example".
  if (authority.find('@') != std::string::npos) return std::nullopt;
  return parseAuthority(authority, 80);
}

std::optional<std::string> cookieValue(const std::string& header, const std::string& name) {
  std::size_t start = 0;
  while (start <= header.size()) {
    std::size_t end = header.find(';', start);
    if (end == std::string::npos) end = header.size();
    const std::string pair(trimBlanks(header.substr(start, end - start)));
    const std::size_t equals = pair.find('=');
    if (equals != std::string::npos && trimBlanks(pair.substr(0, equals)) == name) {
      std::string value(trimBlanks(pair.substr(equals + 1)));
      if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
        value = value.substr(1, value.size() - 2);
      }
      return value;
    }
    start = end + 1;
  }
  return std::nullopt;
}

bool constantTimeEquals(const std::string& a, const std::string& b) {
  // Every byte of the longer text is looked at, whatever the texts hold.
  const std::size_t length = std::max(a.size(), b.size());
  unsigned char difference = a.size() == b.size() ? 0 : 1;
  for (std::size_t i = 0; i < length; ++i) {
    const unsigned char x = i < a.size() ? static_cast<unsigned char>(a[i]) : 0;
    const unsigned char y = i < b.size() ? static_cast<unsigned char>(b[i]) : 0;
    difference |= static_cast<unsigned char>(x ^ y);
  }
  return difference == 0;
}

bool changesState(KXHttpMethod method, const std::string& path) {
  switch (method) {
    case KXHttpMethod::get:
    case KXHttpMethod::head:
      return startsWith(path, "/?eval") || startsWith(path, "/?json");
    case KXHttpMethod::options:
      return false;
    case KXHttpMethod::post:
    case KXHttpMethod::put:
    case KXHttpMethod::del:
    case KXHttpMethod::other:
      return true;
  }
  return true;
}

KXAccessPolicy::KXAccessPolicy(const std::set<std::string>& hostNames, std::string token, int port)
    : token_(std::move(token)), cookieName_("velmo-token-" + std::to_string(port)) {
  hostNames_.insert("localhost");
  for (const std::string& name : hostNames) {
    if (const std::optional<KXHostPort> host = parseHostHeader(name)) {
      hostNames_.insert(host->host);
    }
  }
}

KXAccessDecision KXAccessPolicy::decide(KXHttpMethod method, const std::string& path,
                                        const KXRequestHeaders& headers) const {
  using Kind = KXAccessDecision::Kind;
  std::string reason;
  // Read once: the host rule and the origin rule both compare with it.
  const std::optional<KXHostPort> host =
      headers.host ? parseHostHeader(*headers.host) : std::nullopt;
  if (!allowsHost(headers, host, reason)) return {Kind::forbidden, reason};
  if (requiresToken() && method == KXHttpMethod::get && startsWith(path, kTokenQuery)) {
    // Tokens hold no character that a link would have to escape.
    const std::string given = path.substr(std::string(kTokenQuery).size());
    if (constantTimeEquals(given, token_)) return {Kind::acceptToken, std::string()};
    return {Kind::unauthorized, "Unauthorized: this is not the broker's token."};
  }
  if (requiresToken()) {
    switch (checkToken(headers)) {
      case TokenCheck::right:
        break;
      case TokenCheck::missing:
        return {Kind::unauthorized,
                "Unauthorized: this broker requires its token (send \"Authorization: Bearer "
                "TOKEN\", or open the link with ?token= that the broker printed at start)."};
      case TokenCheck::wrong:
        return {Kind::unauthorized, "Unauthorized: the token sent is not this broker's."};
    }
  }
  if (changesState(method, path) && comesFromElsewhere(headers, host, reason)) {
    const bool navigating =
        method == KXHttpMethod::get && headers.secFetchMode && *headers.secFetchMode == "navigate";
    return {navigating ? Kind::confirmCall : Kind::forbidden, reason};
  }
  return {Kind::allow, std::string()};
}

bool KXAccessPolicy::allowsHost(const KXRequestHeaders& headers,
                                const std::optional<KXHostPort>& host, std::string& reason) const {
  // Tools of HTTP/1.0 may send none; a browser always does.
  if (!headers.host) return true;
  if (!host) {
    reason = "Forbidden: the Host header \"" + echoed(*headers.host) + "\" names no host.";
    return false;
  }
  if (host->isAddress || hostNames_.count(host->host) != 0) return true;
  reason = "Forbidden: the host name \"" + host->host +
           "\" is not this broker's (allow it with velmo --allow-host " + host->host +
           " or VELMO_ALLOWED_HOSTS).";
  return false;
}

KXAccessPolicy::TokenCheck KXAccessPolicy::checkToken(const KXRequestHeaders& headers) const {
  std::optional<std::string> given = bearerToken(headers.authorization);
  if (!given && headers.cookie) given = cookieValue(*headers.cookie, cookieName_);
  if (!given) return TokenCheck::missing;
  return constantTimeEquals(*given, token_) ? TokenCheck::right : TokenCheck::wrong;
}

bool KXAccessPolicy::comesFromElsewhere(const KXRequestHeaders& headers,
                                        const std::optional<KXHostPort>& own,
                                        std::string& reason) const {
  const std::string refusal =
      "Forbidden: a request from another site may not change this broker's state (";
  const auto foreign = [&own](const std::string& value) {
    const std::optional<KXHostPort> origin = parseHttpOrigin(value);
    return !origin || !own || !sameOrigin(*origin, *own);
  };
  if (headers.origin && foreign(*headers.origin)) {
    reason = refusal + "Origin: " + echoed(*headers.origin) + ").";
    return true;
  }
  if (headers.secFetchSite && *headers.secFetchSite != "same-origin" &&
      *headers.secFetchSite != "none") {
    reason = refusal + "Sec-Fetch-Site: " + echoed(*headers.secFetchSite) + ").";
    return true;
  }
  // Browsers that send neither of the above still name the page a request came from.
  if (headers.referer && foreign(*headers.referer)) {
    reason = refusal + "Referer: " + echoed(*headers.referer) + ").";
    return true;
  }
  return false;
}

}  // namespace KX
