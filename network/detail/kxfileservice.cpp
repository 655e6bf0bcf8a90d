#include "network/detail/kxfileservice.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include "broker/kxbrokerpages.h"
#include "log/log.h"
#include "log/sdklayout.h"
#include "network/detail/kxsoapstate.h"
#include "value/textcoding.h"

namespace fs = std::filesystem;

namespace KX {
namespace {

constexpr const char* kCategory = "core.common.network";
constexpr const char* kGetFunction = "KX::KXNetwork::httpGet";
constexpr const char* kPutFunction = "KX::KXNetwork::httpPut";
constexpr const char* kDeleteFunction = "KX::KXNetwork::httpDelete";
constexpr const char* kEvalPrefix = "/?eval";
// Files go out in pieces of this size.
constexpr std::size_t kPieceBytes = 64 * 1024;

// What the runtime does not keep of the request whose header a connection is reading:
// whether it carried a Content-Length (the runtime leaves `length` at 0 without one),
// whether it accepts HTML (a browser navigating) and the headers that the access policy
// reads. Kept with each connection's context, reset when a new request begins.
struct HeaderWatch {
  static constexpr char kPluginId[] = "velmo-header-watch";
  bool contentLength = false;
  bool acceptsHtml = false;
  KXRequestHeaders access;
};

// The watch of the request being read on `soap`; an empty one when nothing watches it.
const HeaderWatch& watchOf(struct soap* soap) {
  static const HeaderWatch kUnwatched;
  const HeaderWatch* watch = KXSoapState<HeaderWatch>::of(soap);
  return watch != nullptr ? *watch : kUnwatched;
}

// Where a header that the access policy reads is kept; null for the others.
std::optional<std::string>* accessHeader(KXRequestHeaders& headers, const char* key) {
  const std::pair<const char*, std::optional<std::string> KXRequestHeaders::*> fields[] = {
      {"Host", &KXRequestHeaders::host},
      {"Origin", &KXRequestHeaders::origin},
      {"Referer", &KXRequestHeaders::referer},
      {"Sec-Fetch-Site", &KXRequestHeaders::secFetchSite},
      {"Sec-Fetch-Mode", &KXRequestHeaders::secFetchMode},
      {"Authorization", &KXRequestHeaders::authorization},
      {"Cookie", &KXRequestHeaders::cookie},
  };
  for (const auto& field : fields) {
    if (soap_tag_cmp(key, field.first) == 0) return &(headers.*field.second);
  }
  return nullptr;
}

KXHttpMethod methodOf(const struct soap* soap) {
  switch (soap->status) {
    case SOAP_GET:
      return KXHttpMethod::get;
    case SOAP_HEAD:
      return KXHttpMethod::head;
    case SOAP_POST:
      return KXHttpMethod::post;
    case SOAP_PUT:
      return KXHttpMethod::put;
    case SOAP_DEL:
      return KXHttpMethod::del;
    case SOAP_OPTIONS:
      return KXHttpMethod::options;
    default:
      return KXHttpMethod::other;
  }
}

const KXFileService* serviceOf(const struct soap* soap) {
  return static_cast<const KXFileService*>(soap->user);
}

// ---- Files

class FileDescriptor {
 public:
  explicit FileDescriptor(int fd) : fd_(fd) {}
  ~FileDescriptor() { reset(); }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  // Closes now; false when the close reports an error (a write that did not make it).
  bool reset() {
    if (fd_ < 0) return true;
    const int result = ::close(fd_);
    fd_ = -1;
    return result == 0;
  }

 private:
  int fd_;
};

bool writeAll(int fd, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t n = ::write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

// A file being uploaded: removed unless kept.
class UploadFile {
 public:
  explicit UploadFile(std::string path) : path_(std::move(path)) {}
  ~UploadFile() {
    if (!path_.empty()) ::unlink(path_.c_str());
  }
  UploadFile(const UploadFile&) = delete;
  UploadFile& operator=(const UploadFile&) = delete;

  const std::string& path() const { return path_; }
  void keep() { path_.clear(); }

 private:
  std::string path_;
};

// ---- Request paths

// What a request path names.
struct Target {
  enum class Kind { page, refused, rooted };
  Kind kind = Kind::page;
  std::string root;   // rooted: the root's name
  fs::path folder;    // rooted: the root's folder (empty: none)
  fs::path relative;  // rooted: below the folder; no "", "." or ".." components
};

// The lexical half of the mapping: the query is dropped, the rest %XX-decoded once, then
// split at '/'. Anything that could name a place outside a root once it reaches the file
// system is refused here, before any file is looked at.
Target mapPath(const std::string& rawPath, const std::map<std::string, fs::path>& roots) {
  Target target;
  const std::string path = percentDecode(rawPath.substr(0, rawPath.find('?')));
  // "//etc/passwd" would be an absolute path once the leading '/' is dropped.
  if (path.empty() || path[0] != '/' || (path.size() > 1 && path[1] == '/') ||
      path.find('\0') != std::string::npos) {
    target.kind = Target::Kind::refused;
    return target;
  }
  std::vector<std::string> parts;
  std::size_t start = 1;
  while (start <= path.size()) {
    std::size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    std::string part = path.substr(start, end - start);
    // Refused rather than normalised: no client needs to climb.
    if (part == "..") {
      target.kind = Target::Kind::refused;
      return target;
    }
    if (!part.empty() && part != ".") parts.push_back(std::move(part));
    start = end + 1;
  }
  if (parts.empty()) return target;
  const auto root = roots.find(parts[0]);
  if (root == roots.end()) return target;
  target.kind = Target::Kind::rooted;
  target.root = root->first;
  target.folder = root->second;
  for (std::size_t i = 1; i < parts.size(); ++i) target.relative /= parts[i];
  return target;
}

bool isReadOnlyRoot(const std::string& root) { return root == "System" || root == "share"; }

std::optional<fs::path> canonicalFolder(const fs::path& folder) {
  if (folder.empty()) return std::nullopt;
  std::error_code error;
  fs::path real = fs::canonical(folder, error);
  if (error || !fs::is_directory(real, error)) return std::nullopt;
  return real;
}

std::string contentTypeOf(const fs::path& file) {
  std::string extension = file.extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  if (extension == ".jpg") return "image/jpeg";
  if (extension == ".png") return "image/png";
  if (extension == ".gif") return "image/gif";
  if (extension == ".mp3") return "audio/mp3";
  if (extension == ".wav") return "audio/x-wav";
  if (extension == ".xar" || extension == ".xml" || extension == ".txt") return "text/plain";
  return "application/octet-stream";
}

// ---- Answers

// The head of an answer: the status line in the request's HTTP version, "Server: Velmo"
// (not for the broker's pages, which are passed on as the broker framed them), then the
// fields in the order they are added, then the blank line.
class HttpHead {
 public:
  HttpHead(const struct soap* soap, int code, const std::string& reason, bool named = true) {
    text_ = "HTTP/";
    text_ += soap->http_version != nullptr ? soap->http_version : "1.1";
    text_ += ' ';
    text_ += std::to_string(code);
    if (!reason.empty()) {
      text_ += ' ';
      text_ += reason;
    }
    text_ += "\r\n";
    if (named) text_ += "Server: Velmo\r\n";
  }

  HttpHead& field(const char* name, const std::string& value) {
    text_ += name;
    text_ += ": ";
    text_ += value;
    text_ += "\r\n";
    return *this;
  }
  HttpHead& length(std::uint64_t bytes) { return field("Content-Length", std::to_string(bytes)); }
  // Whether the connection stays open: the runtime ends it after this request when the
  // client asked for that (or spoke HTTP/1.0 without keep-alive). `sayKeepAlive`: name an
  // open connection too.
  HttpHead& connection(const struct soap* soap, bool sayKeepAlive = true) {
    if (soap->keep_alive == 0) return field("Connection", "close");
    return sayKeepAlive ? field("Connection", "keep-alive") : *this;
  }
  // The answers of the access policy end their connection.
  HttpHead& closing() { return field("Connection", "close"); }

  std::string text() const { return text_ + "\r\n"; }

 private:
  std::string text_;
};

// Writes straight to the socket: the runtime's output buffer is also its input buffer,
// which may already hold the client's next request.
bool sendBytes(struct soap* soap, const char* data, std::size_t size) {
  return size == 0 || soap->fsend(soap, data, size) == SOAP_OK;
}

bool sendBytes(struct soap* soap, const std::string& bytes) {
  return sendBytes(soap, bytes.data(), bytes.size());
}

// What a callback returns: SOAP_OK lets the connection carry the next request (unless the
// client asked to close it), SOAP_EOF ends it.
int answered(struct soap* soap, bool sent) {
  if (sent) return SOAP_OK;
  soap->keep_alive = 0;
  return SOAP_EOF;
}

std::string reasonOf(int code) {
  switch (code) {
    case 200:
      return "OK";
    case 201:
      return "Created";
    case 204:
      return "No Content";
    case 301:
      return "Moved Permanently";
    case 302:
      return "Found";
    case 303:
      return "See Other";
    case 304:
      return "Not Modified";
    case 400:
      return "Bad Request";
    case 401:
      return "Unauthorized";
    case 403:
      return "Forbidden";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 409:
      return "Conflict";
    case 411:
      return "Length Required";
    case 413:
      return "Payload Too Large";
    case 500:
      return "Internal Server Error";
    case 501:
      return "Not Implemented";
    case 503:
      return "Service Unavailable";
    default:
      return std::string();
  }
}

// "404 Not Found" and its kin: the code and reason again as a plain-text body.
int sendError(struct soap* soap, int code) {
  const std::string reason = reasonOf(code);
  const std::string body = std::to_string(code) + " - " + reason;
  const std::string header = HttpHead(soap, code, reason)
                                 .field("Content-Type", "text/plain")
                                 .length(body.size())
                                 .connection(soap, false)
                                 .text();
  return answered(soap, sendBytes(soap, header + body));
}

// The answers of the access policy end their connection: the request's body, if any, is
// not read.

// A refusal: its reason as the body.
// `challenge`: the WWW-Authenticate field of a 401.
void sendRefusal(struct soap* soap, int code, const std::string& reason,
                 const char* challenge = nullptr) {
  const std::string body = reason + "\n";
  HttpHead head(soap, code, reasonOf(code));
  head.field("Content-Type", "text/plain; charset=utf-8");
  if (challenge) head.field("WWW-Authenticate", challenge);
  sendBytes(soap, head.length(body.size()).closing().text() + body);
}

// A URL call that a link on another site led to: shown, not run, with a link that runs it
// from the broker's own page (a same-origin navigation). The page may not be framed, so
// that no other site can lay it under a person's click.
void sendCallConfirmation(struct soap* soap, const std::string& rawPath) {
  std::string call = rawPath.substr(2);  // without "/?"
  for (const char* form : {"eval=", "eval", "json"}) {
    if (call.rfind(form, 0) == 0) {
      call.erase(0, std::strlen(form));
      break;
    }
  }
  call = percentDecode(call);
  const std::string body =
      "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
      "<title>Run this call?</title>\n<link rel=\"stylesheet\" href=\"/css/velmo.css\">\n"
      "</head>\n<body>\n<main>\n<h1>Run this call?</h1>\n"
      "<p>A page of another site sent you to this call. It has not been run.</p>\n"
      "<pre class=\"call\">" +
      escapeXml(call) + "</pre>\n<p><a class=\"button\" id=\"run\" href=\"" + escapeXml(rawPath) +
      "\">Run it</a> <a href=\"/index.html\">Go to the broker&#39;s page</a></p>\n"
      "</main>\n</body>\n</html>\n";
  const std::string header = HttpHead(soap, 403, "Forbidden")
                                 .field("Content-Type", "text/html; charset=utf-8")
                                 .field("X-Frame-Options", "DENY")
                                 .field("Content-Security-Policy", "frame-ancestors 'none'")
                                 .field("Cache-Control", "no-store")
                                 .length(body.size())
                                 .closing()
                                 .text();
  sendBytes(soap, header + body);
}

// The link "/?token=TOKEN": the cookie that carries the token from now on, then the
// broker's page. HttpOnly keeps it from scripts, SameSite=Strict from other sites' requests.
void sendTokenCookie(struct soap* soap, const std::string& cookieName, const std::string& token) {
  sendBytes(soap, HttpHead(soap, 303, "See Other")
                      .field("Location", "/")
                      .field("Set-Cookie",
                             cookieName + "=" + token + "; Path=/; HttpOnly; SameSite=Strict")
                      .field("Cache-Control", "no-store")
                      .length(0)
                      .closing()
                      .text());
}

int sendOk(struct soap* soap) {
  const std::string header = HttpHead(soap, 200, "OK")
                                 .length(2)
                                 .field("Content-Type", "text/plain")
                                 .connection(soap)
                                 .text();
  return answered(soap, sendBytes(soap, header + "ok"));
}

void logRefused(const char* function, const char* method, const std::string& rawPath) {
  TU_LOG(tu::log::warning, kCategory, function)
      << "Refused HTTP " << method << " of \"" << rawPath
      << "\": the path leads out of the served folders" << std::endl;
}

int refuse(struct soap* soap, const char* function, const std::string& rawPath,
           const char* method) {
  logRefused(function, method, rawPath);
  return sendError(soap, 404);
}

// A page answer taken apart: status, reason, content type and where its body starts.
struct PageAnswer {
  int code = 200;
  std::string reason;
  std::optional<std::string> contentType;
  std::size_t bodyStart = 0;
};

// Pages come as "HTTP/1.0 200\r\nContent-Type: text/xml\r\n\r\n<body>", or as a bare
// body. Their own framing (no length, HTTP/1.0) would end the connection; only the status
// and the content type are kept.
PageAnswer parsePageAnswer(const std::string& answer) {
  PageAnswer page;
  if (answer.compare(0, 5, "HTTP/") != 0) {
    page.reason = "OK";
    return page;
  }
  std::size_t headerEnd = answer.size();
  page.bodyStart = answer.size();
  const std::size_t crlf = answer.find("\r\n\r\n");
  const std::size_t lf = answer.find("\n\n");
  if (crlf != std::string::npos && (lf == std::string::npos || crlf < lf)) {
    headerEnd = crlf;
    page.bodyStart = crlf + 4;
  } else if (lf != std::string::npos) {
    headerEnd = lf;
    page.bodyStart = lf + 2;
  }
  std::size_t lineStart = 0;
  bool first = true;
  while (lineStart < headerEnd) {
    std::size_t lineEnd = answer.find('\n', lineStart);
    if (lineEnd == std::string::npos || lineEnd > headerEnd) lineEnd = headerEnd;
    std::string line = answer.substr(lineStart, lineEnd - lineStart);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (first) {
      // "HTTP/1.0 200" or "HTTP/1.0 404 Not Found"
      const std::size_t space = line.find(' ');
      if (space != std::string::npos && line.size() >= space + 4 &&
          std::isdigit(static_cast<unsigned char>(line[space + 1])) &&
          std::isdigit(static_cast<unsigned char>(line[space + 2])) &&
          std::isdigit(static_cast<unsigned char>(line[space + 3])) &&
          (line.size() == space + 4 || line[space + 4] == ' ')) {
        page.code = std::stoi(line.substr(space + 1, 3));
        if (line.size() > space + 4) page.reason = trimBlanks(line.substr(space + 5));
      }
      first = false;
    } else {
      const std::size_t colon = line.find(':');
      if (colon != std::string::npos && sameLetters(line.substr(0, colon), "Content-Type")) {
        page.contentType = trimBlanks(line.substr(colon + 1));
      }
    }
    lineStart = lineEnd + 1;
  }
  if (page.reason.empty()) page.reason = reasonOf(page.code);
  return page;
}

// ---- Bodies

enum class BodyResult { complete, peerClosed, sinkFailed };

// Hands the `length` bytes of the request body to `sink` as they arrive, never holding more
// than the runtime's buffer; bytes of a following request stay in the buffer.
template <typename Sink>
BodyResult receiveBody(struct soap* soap, std::uint64_t length, Sink&& sink) {
  std::uint64_t left = length;
  // The runtime may have looked one character ahead while reading the header.
  if (soap->ahead != 0 && left > 0) {
    const char c = static_cast<char>(soap->ahead);
    soap->ahead = 0;
    if (!sink(&c, 1)) return BodyResult::sinkFailed;
    --left;
  }
  while (left > 0) {
    if (soap->bufidx >= soap->buflen) {
      if (soap_recv(soap) != SOAP_OK) return BodyResult::peerClosed;
      continue;
    }
    const std::size_t take =
        static_cast<std::size_t>(std::min<std::uint64_t>(soap->buflen - soap->bufidx, left));
    if (!sink(soap->buf + soap->bufidx, take)) return BodyResult::sinkFailed;
    soap->bufidx += take;
    left -= take;
  }
  return BodyResult::complete;
}

// Exceptions must not cross the runtime's C frames: a failure we did not foresee ends the
// connection, since part of an answer may have gone out already.
template <typename Serve>
int serveGuarded(struct soap* soap, const char* function, Serve&& serve) {
  if (const KXFileService* service = serviceOf(soap)) {
    try {
      return serve(*service);
    } catch (const std::exception& error) {
      TU_LOG(tu::log::error, kCategory, function)
          << "HTTP request failed: " << error.what() << std::endl;
    } catch (...) {
      TU_LOG(tu::log::error, kCategory, function) << "HTTP request failed" << std::endl;
    }
  }
  soap->keep_alive = 0;
  return SOAP_EOF;
}

// The user data folder: $APPDATA, else $XDG_DATA_HOME, else ~/.local/share.
fs::path userDataBase() {
  for (const char* variable : {"APPDATA", "XDG_DATA_HOME"}) {
    const char* value = std::getenv(variable);
    if (value != nullptr && value[0] != '\0') return fs::path(value);
  }
  const char* home = std::getenv("HOME");
  std::string homeDir = home != nullptr ? home : "";
  if (homeDir.empty()) {
    passwd entry{};
    passwd* found = nullptr;
    std::vector<char> buffer(16384);
    if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 &&
        found != nullptr && found->pw_dir != nullptr) {
      homeDir = found->pw_dir;
    }
  }
  // Without a home there is no user data folder: a relative one would follow the process's
  // working directory.
  if (homeDir.empty()) return fs::path();
  return fs::path(homeDir) / ".local" / "share";
}

}  // namespace

KXFileService::KXFileService(std::map<std::string, fs::path> roots, PageRenderer pages,
                             std::shared_ptr<const KXAccessPolicy> access,
                             std::uint64_t maxPutBytes)
    : roots_(std::move(roots)),
      pages_(std::move(pages)),
      access_(std::move(access)),
      maxPutBytes_(maxPutBytes) {}

std::map<std::string, fs::path> KXFileService::defaultRoots() {
  const fs::path base = userDataBase();
  const fs::path user = base.empty() ? fs::path() : base / "Korvane" / "velmo";
  const auto below = [&user](const char* name) { return user.empty() ? user : user / name; };
  const fs::path system = tu::path::sdkDataDir().value_or(fs::path());
  return {
      {"User", user},
      {"behaviors", below("behaviors")},
      {"boxlibraries", below("boxlibraries")},
      {"tmp", below("tmp")},
      {"System", system},
      {"share", system},
  };
}

void KXFileService::install(struct soap* server) const {
  server->user = const_cast<KXFileService*>(this);
  KXSoapState<HeaderWatch>::install(server);
  server->fget = &KXFileService::httpGet;
  server->fput = &KXFileService::httpPut;
  server->fdel = &KXFileService::httpDelete;
  server->fopt = &KXFileService::httpRefused;
  server->fhead = &KXFileService::httpRefused;
  // The runtime would answer a request with an Origin "Access-Control-Allow-Origin: *":
  // any page could then read what the broker answers.
  server->cors_allow = nullptr;
  if (server->fparse != &KXFileService::parseRequest) {
    parse_ = server->fparse;
    server->fparse = &KXFileService::parseRequest;
  }
  if (server->fparsehdr != &KXFileService::parseHeader) {
    parseHeader_ = server->fparsehdr;
    server->fparsehdr = &KXFileService::parseHeader;
  }
  server->socket_flags |= MSG_NOSIGNAL;
}

int KXFileService::parseRequest(struct soap* soap) {
  if (HeaderWatch* watch = KXSoapState<HeaderWatch>::of(soap)) *watch = HeaderWatch();
  const KXFileService* service = serviceOf(soap);
  const ParseFunction parse = service != nullptr ? service->parse_.load() : nullptr;
  if (parse == nullptr) return soap->error = SOAP_EOF;
  // The header is read, the method is known and nothing has been served yet.
  if (parse(soap) != SOAP_OK) return soap->error;
  return service->admit(soap);
}

int KXFileService::admit(struct soap* soap) const {
  if (!access_) return SOAP_OK;
  const std::string rawPath = soap->path;
  const KXAccessDecision decision = access_->decide(methodOf(soap), rawPath, watchOf(soap).access);
  // Whether the answer made it or not, the connection ends after it.
  switch (decision.kind) {
    case KXAccessDecision::Kind::allow:
      return SOAP_OK;
    case KXAccessDecision::Kind::forbidden:
      sendRefusal(soap, 403, decision.reason);
      break;
    case KXAccessDecision::Kind::unauthorized:
      sendRefusal(soap, 401, decision.reason, "Bearer");
      break;
    case KXAccessDecision::Kind::confirmCall:
      sendCallConfirmation(soap, rawPath);
      break;
    case KXAccessDecision::Kind::acceptToken:
      sendTokenCookie(soap, access_->cookieName(), access_->token());
      break;
  }
  if (decision.kind != KXAccessDecision::Kind::acceptToken) {
    TU_LOG(tu::log::verbose, kCategory, "KX::KXNetwork::admit")
        << "Refused " << rawPath.substr(0, 200) << ": " << decision.reason << std::endl;
  }
  // The runtime would go on to serve the request after any other answer: to it, the peer
  // has gone.
  soap->keep_alive = 0;
  return soap->error = SOAP_EOF;
}

int KXFileService::parseHeader(struct soap* soap, const char* key, const char* value) {
  HeaderWatch* watch = KXSoapState<HeaderWatch>::of(soap);
  if (watch != nullptr && key != nullptr) {
    if (std::optional<std::string>* field = accessHeader(watch->access, key)) {
      *field = value != nullptr ? value : "";
    }
    if (soap_tag_cmp(key, "Content-Length") == 0) watch->contentLength = true;
    if (soap_tag_cmp(key, "Accept") == 0 && value != nullptr &&
        std::strstr(value, "text/html") != nullptr) {
      watch->acceptsHtml = true;
    }
  }
  const KXFileService* service = serviceOf(soap);
  const ParseHeaderFunction parse = service != nullptr ? service->parseHeader_.load() : nullptr;
  return parse != nullptr ? parse(soap, key, value) : SOAP_OK;
}

int KXFileService::httpRefused(struct soap* soap) {
  return answered(soap, sendBytes(soap, HttpHead(soap, 405, "Method Not Allowed")
                                            .field("Allow", "GET, POST, PUT, DELETE")
                                            .length(0)
                                            .connection(soap)
                                            .text()));
}

int KXFileService::httpGet(struct soap* soap) {
  return serveGuarded(soap, kGetFunction,
                      [soap](const KXFileService& service) { return service.serveGet(soap); });
}

int KXFileService::httpPut(struct soap* soap) {
  return serveGuarded(soap, kPutFunction,
                      [soap](const KXFileService& service) { return service.servePut(soap); });
}

int KXFileService::httpDelete(struct soap* soap) {
  return serveGuarded(soap, kDeleteFunction,
                      [soap](const KXFileService& service) { return service.serveDelete(soap); });
}

int KXFileService::serveGet(struct soap* soap) const {
  const std::string rawPath = soap->path;
  Target target;
  // URL calls carry their arguments after the '?': they go to the pages as they came.
  if (rawPath.compare(0, std::char_traits<char>::length(kEvalPrefix), kEvalPrefix) != 0) {
    target = mapPath(rawPath, roots_);
  }
  if (target.kind == Target::Kind::refused) {
    return refuse(soap, kGetFunction, rawPath, "GET");
  }
  if (target.kind == Target::Kind::page) {
    std::string answer;
    try {
      // A browser opening the broker's address gets the page for a person; tools keep
      // getting the XML page there.
      const bool person = rawPath == "/" && watchOf(soap).acceptsHtml;
      if (pages_) answer = pages_(soap->endpoint, person ? "/index.html" : rawPath);
    } catch (const std::exception& error) {
      TU_LOG(tu::log::error, kCategory, kGetFunction)
          << "Page " << rawPath << " failed: " << error.what() << std::endl;
      return sendError(soap, 500);
    }
    const PageAnswer page = parsePageAnswer(answer);
    HttpHead head(soap, page.code, page.reason, false);
    if (page.contentType) head.field("Content-Type", *page.contentType);
    const std::string header = head.length(answer.size() - page.bodyStart).connection(soap).text();
    return answered(soap, sendBytes(soap, header) && sendBytes(soap, answer.data() + page.bodyStart,
                                                               answer.size() - page.bodyStart));
  }

  const std::optional<fs::path> root = canonicalFolder(target.folder);
  if (!root) return sendError(soap, 404);
  std::error_code error;
  const fs::path real = fs::canonical(*root / target.relative, error);
  if (error) return sendError(soap, 404);
  // Following the links is what tells a link inside the root that leads out of it.
  if (!tu::path::isWithin(*root, real, false)) return refuse(soap, kGetFunction, rawPath, "GET");

  if (fs::is_directory(real, error)) {
    std::vector<std::string> names;
    fs::directory_iterator entry(real, error);
    if (error) return sendError(soap, 500);
    for (; entry != fs::directory_iterator(); entry.increment(error)) {
      if (error) return sendError(soap, 500);
      std::string name = entry->path().filename().string();
      std::error_code typeError;
      if (entry->is_directory(typeError)) name += '/';
      names.push_back(std::move(name));
    }
    std::sort(names.begin(), names.end());
    std::string body;
    for (const std::string& name : names) {
      body += name;
      body += '\n';
    }
    const std::string header = HttpHead(soap, 200, "OK")
                                   .field("Velmo-File-Type", "directory")
                                   .field("Content-Type", "text/plain")
                                   .length(body.size())
                                   .connection(soap, false)
                                   .text();
    return answered(soap, sendBytes(soap, header + body));
  }

  // O_NONBLOCK: a FIFO put in place of the file must not hold the connection's thread.
  FileDescriptor file(::open(real.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  struct stat info {};
  if (!file.valid() || ::fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode)) {
    return sendError(soap, 404);
  }
  const std::uint64_t size = static_cast<std::uint64_t>(info.st_size);
  const std::string header = HttpHead(soap, 200, "OK")
                                 .field("Velmo-File-Type", "regular-file")
                                 .length(size)
                                 .field("Content-Type", contentTypeOf(real))
                                 .connection(soap)
                                 .text();
  if (!sendBytes(soap, header)) return answered(soap, false);
  std::vector<char> piece(kPieceBytes);
  std::uint64_t left = size;
  while (left > 0) {
    const ssize_t n = ::read(file.get(), piece.data(),
                             static_cast<std::size_t>(std::min<std::uint64_t>(left, piece.size())));
    if (n < 0 && errno == EINTR) continue;
    // A file cut short while being sent leaves the client waiting for bytes that will not
    // come: only closing the connection tells it.
    if (n <= 0) return answered(soap, false);
    if (!sendBytes(soap, piece.data(), static_cast<std::size_t>(n))) return answered(soap, false);
    left -= static_cast<std::uint64_t>(n);
  }
  return SOAP_OK;
}

int KXFileService::servePut(struct soap* soap) const {
  const std::string rawPath = soap->path;
  const bool lengthKnown = watchOf(soap).contentLength;
  const std::uint64_t length = lengthKnown ? soap->length : 0;

  // An answer given before the body was stored. A body of known, acceptable length is read
  // and dropped first, so that the connection carries the next request; any other ends it.
  const auto reject = [this, soap, lengthKnown, length](int code) {
    if (lengthKnown && length <= maxPutBytes_) {
      const BodyResult drained =
          receiveBody(soap, length, [](const char*, std::size_t) { return true; });
      if (drained != BodyResult::complete) return answered(soap, false);
    } else if (lengthKnown || (soap->mode & SOAP_IO) == SOAP_IO_CHUNK) {
      soap->keep_alive = 0;
    }
    return sendError(soap, code);
  };

  const Target target = mapPath(rawPath, roots_);
  if (target.kind == Target::Kind::refused) {
    logRefused(kPutFunction, "PUT", rawPath);
    return reject(404);
  }
  if (target.kind == Target::Kind::page || isReadOnlyRoot(target.root)) return reject(403);
  if (!lengthKnown) return reject(411);
  if (length > maxPutBytes_) return reject(413);
  if (target.relative.empty()) return reject(409);  // the root's folder itself

  std::error_code error;
  fs::create_directories(target.folder, error);
  const std::optional<fs::path> root = canonicalFolder(target.folder);
  if (!root) return reject(500);
  const fs::path wanted = fs::weakly_canonical(*root / target.relative, error);
  if (error) return reject(404);
  if (!tu::path::isWithin(*root, wanted, true)) {
    logRefused(kPutFunction, "PUT", rawPath);
    return reject(404);
  }
  fs::create_directories(wanted.parent_path(), error);
  if (error) {
    return reject(error == std::errc::file_exists || error == std::errc::not_a_directory ? 409
                                                                                         : 500);
  }
  // Checked again now that the folders exist: one of them may have been a link made since.
  const fs::path folder = fs::canonical(wanted.parent_path(), error);
  if (error || !tu::path::isWithin(*root, folder, false)) {
    logRefused(kPutFunction, "PUT", rawPath);
    return reject(404);
  }
  const fs::path destination = folder / wanted.filename();
  if (fs::is_directory(destination, error)) return reject(409);

  // Written beside the destination, then renamed over it: a client never sees half a file,
  // and an upload that fails leaves the old one.
  std::string pattern = (folder / ".velmo-upload-XXXXXX").string();
  FileDescriptor file(::mkstemp(pattern.data()));
  if (!file.valid()) return reject(500);
  UploadFile upload(pattern);
  ::fchmod(file.get(), 0644);
  const BodyResult received = receiveBody(
      soap, length,
      [&file](const char* data, std::size_t size) { return writeAll(file.get(), data, size); });
  if (received == BodyResult::peerClosed) return answered(soap, false);
  if (received == BodyResult::sinkFailed) {
    // The rest of the body is still on its way: the connection cannot go on.
    soap->keep_alive = 0;
    return sendError(soap, 500);
  }
  if (!file.reset() || ::rename(upload.path().c_str(), destination.c_str()) != 0) {
    return sendError(soap, 500);
  }
  upload.keep();
  return sendOk(soap);
}

int KXFileService::serveDelete(struct soap* soap) const {
  const std::string rawPath = soap->path;
  const Target target = mapPath(rawPath, roots_);
  if (target.kind == Target::Kind::refused) {
    return refuse(soap, kDeleteFunction, rawPath, "DELETE");
  }
  if (target.kind == Target::Kind::page || isReadOnlyRoot(target.root) || target.relative.empty()) {
    return sendError(soap, 403);
  }
  const std::optional<fs::path> root = canonicalFolder(target.folder);
  if (!root) return sendError(soap, 404);
  const fs::path lexical = *root / target.relative;
  std::error_code error;
  const fs::path folder = fs::canonical(lexical.parent_path(), error);
  if (error) return sendError(soap, 404);
  if (!tu::path::isWithin(*root, folder, false))
    return refuse(soap, kDeleteFunction, rawPath, "DELETE");
  // The entry itself, not what a link points to: removing a link leaves its target alone.
  const fs::path entry = folder / lexical.filename();
  const fs::file_status status = fs::symlink_status(entry, error);
  if (error || !fs::exists(status)) return sendError(soap, 404);
  if (fs::is_symlink(status)) {
    const fs::path pointed = fs::weakly_canonical(entry, error);
    if (error || !tu::path::isWithin(*root, pointed, false)) {
      return refuse(soap, kDeleteFunction, rawPath, "DELETE");
    }
  }
  // Neither a root's folder nor a folder holding one goes (a root may lie inside another).
  for (const auto& other : roots_) {
    const std::optional<fs::path> otherRoot = canonicalFolder(other.second);
    if (otherRoot && tu::path::isWithin(entry, *otherRoot, false)) return sendError(soap, 403);
  }
  fs::remove_all(entry, error);
  if (error) return sendError(soap, 500);
  return sendOk(soap);
}

}  // namespace KX
