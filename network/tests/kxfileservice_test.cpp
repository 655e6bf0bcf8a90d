// The HTTP side of a broker's port, spoken to byte by byte: files under the roots, pages for
// every other path, the answers of the access rules, and no way out of the roots.
#include "network/kxfileservice.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <fstream>
#include <mutex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "log/sdklayout.h"
#include "log/tests/logtestsupport.h"
#include "network/kxbrokerserve.h"
#include "network/kxsoapcontext.h"
#include "network/tests/wire_test_support.h"

namespace KX {
namespace testing {
namespace {

namespace fs = std::filesystem;
using wire::HttpReply;
using wire::WireConnection;

void writeFile(const fs::path& file, const std::string& bytes) {
  fs::create_directories(file.parent_path());
  std::ofstream(file, std::ios::binary) << bytes;
}

std::optional<std::string> readFile(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) return std::nullopt;
  std::ostringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

long entriesIn(const fs::path& folder) {
  return std::distance(fs::directory_iterator(folder), fs::directory_iterator());
}

// Bytes that no text-mode mangling, truncation or reordering would leave intact.
std::string patternBytes(std::size_t size) {
  std::string bytes(size, '\0');
  std::uint32_t state = 12345;
  for (char& byte : bytes) byte = static_cast<char>((state = state * 1103515245u + 12345u) >> 24);
  return bytes;
}

// An answer as the service writes it, "#" in `fields` standing for the body's length
// (HttpReply::header ends before the empty line).
HttpReply answer(const std::string& status, std::string fields, const std::string& body) {
  fields.replace(fields.find('#'), 1, std::to_string(body.size()));
  return {"", "HTTP/1.1 " + status + "\r\n" + fields, body};
}
HttpReply file(const std::string& type, const std::string& body) {
  return answer("200 OK",
                "Server: Velmo\r\nVelmo-File-Type: regular-file\r\nContent-Length: #\r\n"
                "Content-Type: " +
                    type + "\r\nConnection: keep-alive\r\n",
                body);
}
HttpReply listing(const std::string& body) {
  return answer("200 OK",
                "Server: Velmo\r\nVelmo-File-Type: directory\r\nContent-Type: text/plain\r\n"
                "Content-Length: #\r\n",
                body);
}
// status: "404 Not Found", answered with the body "404 - Not Found".
HttpReply error(const std::string& status) {
  return answer(status, "Server: Velmo\r\nContent-Type: text/plain\r\nContent-Length: #\r\n",
                status.substr(0, 3) + " -" + status.substr(3));
}
const HttpReply kOk = answer(
    "200 OK",
    "Server: Velmo\r\nContent-Length: #\r\nContent-Type: text/plain\r\nConnection: keep-alive\r\n",
    "ok");
void expectReply(const HttpReply& reply, const HttpReply& expected) {
  EXPECT_EQ(reply.header, expected.header);
  EXPECT_TRUE(reply.body == expected.body) << reply.body.substr(0, 300);
}

// The service on 127.0.0.1, each connection served on its own thread as the broker does; the
// broker protocol behind it only counts the requests that reach it.
class FileServer {
 public:
  explicit FileServer(const KXFileService& service) {
    service.install(server_.get());
    server_->accept_timeout = 1;
    server_->recv_timeout = server_->send_timeout = wire::kSocketTimeoutSeconds;
    port_ = bindLoopback(server_.get());
    if (port_ != 0) acceptor_ = std::thread([this] { run(); });
  }
  ~FileServer() {
    stop_ = true;
    { WireConnection wake(port_); }
    if (acceptor_.joinable()) acceptor_.join();
    for (std::thread& connection : connections_) connection.join();
  }

  int port() const { return port_; }
  int handled() const { return *handled_; }

 private:
  void run() {
    while (!stop_) {
      if (!soap_valid_socket(soap_accept(server_.get()))) {
        if (server_->errnum != 0) return;
        continue;  // the accept timeout
      }
      if (stop_) return;
      auto connection = std::make_shared<KXSoapContext>(KXSoapContext::copyOf(server_));
      server_->socket = SOAP_INVALID_SOCKET;  // the copy owns it now
      connections_.emplace_back([connection, handled = handled_] {
        serveBrokerConnection(connection->get(), [handled](BrokerRequest&, const BrokerPeer&) {
          ++*handled;
          return BrokerResponse{};
        });
      });
    }
  }

  KXSoapContext server_;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::shared_ptr<std::atomic<int>> handled_ = std::make_shared<std::atomic<int>>(0);
  std::thread acceptor_;
  std::vector<std::thread> connections_;  // the acceptor's until it is joined
};

// Roots in a fresh folder, and a folder beside them that no request may reach:
//   user/ (User), user/behaviors/ (behaviors), user/boxlibraries, user/tmp (not made),
//   system/lib.xml (System and share), outside/secret.txt,
//   user/notes.txt, user/link -> outside/, user/filelink -> outside/secret.txt
// The port has a token, as a broker's may: raw() sends it.
class KXFileServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "kxfileservice-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    temp_ = fs::canonical(pattern);
    user_ = temp_ / "user";
    system_ = temp_ / "system";
    outside_ = temp_ / "outside";
    fs::create_directories(user_ / "behaviors");
    writeFile(system_ / "lib.xml", "system file");
    writeFile(outside_ / "secret.txt", "top secret");
    writeFile(user_ / "notes.txt", "hello notes");
    fs::create_directory_symlink(outside_, user_ / "link");
    fs::create_symlink(outside_ / "secret.txt", user_ / "filelink");
    const auto pages = [this](const std::string& endpoint, const std::string& path) {
      std::lock_guard<std::mutex> lock(pagesMutex_);
      asked_.push_back(endpoint + " " + path);
      if (page_ == "throw") throw std::runtime_error("module page failed");
      return page_;
    };
    service_ = std::make_unique<KXFileService>(
        std::map<std::string, fs::path>{{"User", user_},
                                        {"behaviors", user_ / "behaviors"},
                                        {"boxlibraries", user_ / "boxlibraries"},
                                        {"tmp", user_ / "tmp"},
                                        {"System", system_},
                                        {"share", system_}},
        pages, std::make_shared<const KXAccessPolicy>(std::set<std::string>(), "t0k", 9559));
    server_ = std::make_unique<FileServer>(*service_);
    ASSERT_NE(server_->port(), 0);
  }
  void TearDown() override {
    server_.reset();
    std::error_code ignored;
    fs::remove_all(temp_, ignored);
  }

  // "GET /path" as a request with the token: `headers` follow, a body brings its length.
  std::string raw(const std::string& start, const std::string& headers = "",
                  const std::optional<std::string>& body = std::nullopt) const {
    return start + " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(server_->port()) +
           "\r\nAuthorization: Bearer t0k\r\n" + headers +
           (body ? "Content-Length: " + std::to_string(body->size()) + "\r\n\r\n" + *body : "\r\n");
  }
  static HttpReply ask(WireConnection& connection, const std::string& request) {
    EXPECT_TRUE(connection.sendAll(request));
    return connection.read().value_or(HttpReply{"", "(no answer)", ""});
  }
  std::vector<std::string> asked() {
    std::lock_guard<std::mutex> lock(pagesMutex_);
    return asked_;
  }

  fs::path temp_, user_, system_, outside_;
  std::mutex pagesMutex_;
  std::string page_ = "HTTP/1.0 200\r\nContent-Type: text/xml\r\n\r\n<page/>";  // "throw": fails
  std::vector<std::string> asked_;  // endpoint + " " + path, as the pages were asked
  tu::log::testing::LogCapture logs_;
  std::unique_ptr<KXFileService> service_;
  std::unique_ptr<FileServer> server_;
};

TEST_F(KXFileServiceTest, GetAnswersFilesAndListingsOnOneConnection) {
  for (const char* name : {"a.jpg", "b.png", "c.gif", "d.mp3", "e.wav", "f.xar", "g.xml",
                           "UPPER.PNG", "i.jpeg", "noextension", "archive.txt.gz"}) {
    writeFile(user_ / "types" / name, name);
  }
  writeFile(user_ / "with space.txt", "spaced");
  writeFile(user_ / "%41.txt", "literal percent");
  writeFile(user_ / "big.bin", patternBytes(300 * 1024 + 7));
  fs::create_directories(user_ / "listing" / "b");
  fs::create_directories(user_ / "listing" / "z" / "deeper");
  writeFile(user_ / "listing" / "c.bin", "c");
  writeFile(user_ / "listing" / ".hidden", "h");
  writeFile(user_ / "real" / "inside.txt", "inside");
  fs::create_directory_symlink(user_ / "real", user_ / "alias");
  const std::string sorted = ".hidden\nb/\nc.bin\nz/\n";
  const std::string octets = "application/octet-stream";
  const struct {
    const char* path;
    HttpReply expected;
  } cases[] = {
      {"/User/notes.txt", file("text/plain", "hello notes")},
      {"/User/types/a.jpg", file("image/jpeg", "a.jpg")},
      {"/User/types/b.png", file("image/png", "b.png")},
      {"/User/types/c.gif", file("image/gif", "c.gif")},
      {"/User/types/d.mp3", file("audio/mp3", "d.mp3")},
      {"/User/types/e.wav", file("audio/x-wav", "e.wav")},
      {"/User/types/f.xar", file("text/plain", "f.xar")},
      {"/User/types/g.xml", file("text/plain", "g.xml")},
      {"/User/types/UPPER.PNG", file("image/png", "UPPER.PNG")},
      {"/User/types/i.jpeg", file(octets, "i.jpeg")},
      {"/User/types/noextension", file(octets, "noextension")},
      {"/User/types/archive.txt.gz", file(octets, "archive.txt.gz")},
      {"/User/big.bin", file(octets, patternBytes(300 * 1024 + 7))},
      // Decoded once, the query dropped: "%2541" names "%41".
      {"/User/with%20space.txt?version=2", file("text/plain", "spaced")},
      {"/User/%2541.txt", file("text/plain", "literal percent")},
      {"/User/notes%2etxt", file("text/plain", "hello notes")},
      {"/User/listing", listing(sorted)},
      {"/User/listing/", listing(sorted)},
      {"/behaviors", listing("")},
      {"/User/alias/inside.txt", file("text/plain", "inside")},  // a link inside its root
      {"/User/missing.txt", error("404 Not Found")},
      {"/User/notes.txt/below", error("404 Not Found")},
      {"/boxlibraries/lib.xml", error("404 Not Found")},  // a root whose folder is not made
      {"/tmp", error("404 Not Found")},
  };
  WireConnection connection(server_->port());
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    expectReply(ask(connection, raw(std::string("GET ") + c.path)), c.expected);
  }
  EXPECT_TRUE(asked().empty());
}

TEST_F(KXFileServiceTest, PagesGetEveryOtherPathAsItCameAndTheirAnswersALength) {
  const std::string browser = "Accept: text/html,application/xhtml+xml,*/*;q=0.8\r\n";
  const auto page = [](const std::string& status, const std::string& type,
                       const std::string& body) {
    return answer(status, type + "Content-Length: #\r\nConnection: keep-alive\r\n", body);
  };
  const struct {
    std::string path;
    std::string headers;
    const char* answer;
    HttpReply expected;
    const char* asked;
  } cases[] = {
      {"/index.xml", "", "HTTP/1.0 200\r\nContent-Type: text/xml\r\n\r\n<page/>",
       page("200 OK", "Content-Type: text/xml\r\n", "<page/>"), "/index.xml"},
      {"/?evalKXMemory.getData(%5B%22k%22%5D)", "", "Broker not found",
       page("200 OK", "", "Broker not found"), "/?evalKXMemory.getData(%5B%22k%22%5D)"},
      {"/KXMemory.xml?x=%41", "", "HTTP/1.0 200\r\n\r\n", page("200 OK", "", ""),
       "/KXMemory.xml?x=%41"},
      {"/", "",
       "HTTP/1.0 404 Not Here\r\nServer: gSOAP/2.8\r\nContent-type: text/html\r\nContent-Length: "
       "999\r\n\r\n<p>gone</p>\r\n\r\nstill body",
       page("404 Not Here", "Content-Type: text/html\r\n", "<p>gone</p>\r\n\r\nstill body"), "/"},
      // A browser opening the broker's address gets the page for a person; other pages stay.
      {"/", browser, "HTTP/1.0 500\r\nContent-Type: text/plain\r\n\r\nbroken",
       page("500 Internal Server Error", "Content-Type: text/plain\r\n", "broken"), "/index.html"},
      {"/index.xml", browser, "HTTP/1.0 201\nContent-Type: a/b\n\nbody",
       page("201 Created", "Content-Type: a/b\r\n", "body"), "/index.xml"},
      {"/user/notes.txt", "", "HTTP/1.0 20x\r\n\r\nodd", page("200 OK", "", "odd"),
       "/user/notes.txt"},  // root names are matched exactly
      {"/?eval/../User", "", "throw", error("500 Internal Server Error"), "/?eval/../User"},
  };
  WireConnection connection(server_->port());
  for (const auto& c : cases) {
    SCOPED_TRACE(c.answer);
    {
      std::lock_guard<std::mutex> lock(pagesMutex_);
      page_ = c.answer;
    }
    expectReply(ask(connection, raw("GET " + c.path, c.headers)), c.expected);
    EXPECT_EQ(asked().back(),
              "http://127.0.0.1:" + std::to_string(server_->port()) + c.path + " " + c.asked);
  }
  const auto failed = logs_.withFunction("KX::KXNetwork::httpGet");
  ASSERT_EQ(failed.size(), 1u);
  EXPECT_EQ(failed[0].message, "Page /?eval/../User failed: module page failed\n");
}

TEST_F(KXFileServiceTest, WritesChangeOnlyWhatLiesBelowAWritableRoot) {
  writeFile(user_ / "tree" / "a" / "b.txt", "b");
  writeFile(user_ / "real" / "inside.txt", "inside");
  fs::create_directory_symlink(user_ / "real", user_ / "alias");
  fs::create_symlink(user_ / "notes.txt", user_ / "inlink");
  fs::create_directories(user_ / "tmp");
  const std::string binary("line one\r\nline two\0three", 24);
  const std::string bound = patternBytes(KXFileService::kMaxPutBytes);
  const HttpReply notAllowed = answer("405 Method Not Allowed",
                                      "Server: Velmo\r\nAllow: GET, POST, PUT, "
                                      "DELETE\r\nContent-Length: #\r\nConnection: keep-alive\r\n",
                                      "");
  const std::optional<std::string> none;
  const struct {
    const char* request;
    std::optional<std::string> body;
    HttpReply expected;
  } cases[] = {
      {"PUT /User/new/deeper/file.txt", binary, kOk},
      {"PUT /boxlibraries/my%2Ebox/box%2Epy", "print(1)", kOk},  // the root's folder is made
      {"PUT /User/alias/put.txt", "via alias", kOk},
      {"PUT /User/notes.txt", "", kOk},
      {"PUT /tmp/bound.bin", bound, kOk},
      {"PUT /tmp/nolength.bin", none, error("411 Length Required")},
      {"PUT /System/new.xml", "x", error("403 Forbidden")},
      {"PUT /share/lib.xml", "x", error("403 Forbidden")},
      {"PUT /index.xml", "x", error("403 Forbidden")},
      {"PUT /notaroot/file.txt", "x", error("403 Forbidden")},
      {"PUT /User", "x", error("409 Conflict")},
      {"PUT /User/tree", "x", error("409 Conflict")},
      {"PUT /User/notes.txt/below", "x", error("409 Conflict")},
      {"DELETE /User/tree", none, kOk},
      {"DELETE /User/tree", none, error("404 Not Found")},
      {"DELETE /boxlibraries/none", none, error("404 Not Found")},
      {"DELETE /User/inlink", none, kOk},
      {"DELETE /System/lib.xml", none, error("403 Forbidden")},
      {"DELETE /share", none, error("403 Forbidden")},
      {"DELETE /index.xml", none, error("403 Forbidden")},
      // No root's folder goes, nor a folder holding one.
      {"DELETE /User", none, error("403 Forbidden")},
      {"DELETE /User/.", none, error("403 Forbidden")},
      {"DELETE /tmp/", none, error("403 Forbidden")},
      {"DELETE /User/behaviors", none, error("403 Forbidden")},
      {"DELETE /User/tmp", none, error("403 Forbidden")},
      // No preflight succeeds: no other site may read what the broker answers.
      {"OPTIONS /", none, notAllowed},
      {"HEAD /User/notes.txt", none, notAllowed},
  };
  // Refused bodies are read and dropped: every request is understood on one connection.
  WireConnection connection(server_->port());
  for (const auto& c : cases) {
    SCOPED_TRACE(c.request);
    expectReply(ask(connection, raw(c.request, "", c.body)), c.expected);
  }
  EXPECT_EQ(readFile(user_ / "new" / "deeper" / "file.txt"), binary);
  EXPECT_EQ(entriesIn(user_ / "new" / "deeper"), 1);  // no upload left beside it
  EXPECT_EQ(readFile(user_ / "boxlibraries" / "my.box" / "box.py"), "print(1)");
  EXPECT_EQ(readFile(user_ / "real" / "put.txt"), "via alias");
  EXPECT_TRUE(readFile(user_ / "tmp" / "bound.bin") == bound);
  EXPECT_FALSE(fs::exists(user_ / "tmp" / "nolength.bin"));
  EXPECT_FALSE(fs::exists(user_ / "tree"));
  EXPECT_FALSE(fs::exists(fs::symlink_status(user_ / "inlink")));
  EXPECT_EQ(readFile(user_ / "notes.txt"), "");  // the link went, not its target
  EXPECT_EQ(readFile(system_ / "lib.xml"), "system file");
  EXPECT_EQ(entriesIn(system_), 1);
  EXPECT_TRUE(fs::is_directory(user_ / "behaviors") && fs::is_directory(user_ / "tmp"));
  EXPECT_TRUE(asked().empty());
}

// Refusals of the access rules among them: they come before anything is read or served.
TEST_F(KXFileServiceTest, AnswersThatEndTheirConnection) {
  const std::string soap = wire::envelope(wire::operation("getBrokerName"));
  const std::string navigate = "Sec-Fetch-Site: cross-site\r\nSec-Fetch-Mode: navigate\r\n";
  const std::string refusal = "Server: Velmo\r\nContent-Type: text/plain; charset=utf-8\r\n";
  const std::string closed = "Content-Length: #\r\nConnection: close\r\n";
  const std::string confirmation =
      "Server: Velmo\r\nContent-Type: text/html; charset=utf-8\r\nX-Frame-Options: DENY\r\n"
      "Content-Security-Policy: frame-ancestors 'none'\r\nCache-Control: no-store\r\n" +
      closed;
  const struct {
    std::string request;
    std::string status;
    std::string fields;  // "#" for the body's length
    std::string body;    // a part of it
  } cases[] = {
      {"GET /User/notes.txt HTTP/1.0\r\nAuthorization: Bearer t0k\r\n\r\n", "200 OK",
       "Server: Velmo\r\nVelmo-File-Type: regular-file\r\nContent-Length: #\r\nContent-Type: "
       "text/plain\r\nConnection: close\r\n",
       "hello notes"},
      // Bodies of unknown or excessive length are not read.
      {raw("PUT /tmp/x.bin", "Transfer-Encoding: chunked\r\n"), "411 Length Required",
       "Server: Velmo\r\nContent-Type: text/plain\r\n" + closed, "411 - Length Required"},
      {raw("PUT /tmp/x.bin",
           "Content-Length: " + std::to_string(KXFileService::kMaxPutBytes + 1) + "\r\n"),
       "413 Payload Too Large", "Server: Velmo\r\nContent-Type: text/plain\r\n" + closed,
       "413 - Payload Too Large"},
      {raw("PUT /tmp/x.bin", "Origin: http://127.0.0.1:1\r\n", "evil"), "403 Forbidden",
       refusal + closed,
       "Forbidden: a request from another site may not change this broker's state (Origin: "
       "http://127.0.0.1:1).\n"},
      {"POST / HTTP/1.1\r\nContent-Length: " + std::to_string(soap.size()) + "\r\n\r\n" + soap,
       "401 Unauthorized", refusal + "WWW-Authenticate: Bearer\r\n" + closed,
       "Unauthorized: this broker requires its token (send \"Authorization: Bearer TOKEN\", or "
       "open the link with ?token= that the broker printed at start).\n"},
      {raw("GET /?token=t0k"), "303 See Other",
       "Server: Velmo\r\nLocation: /\r\nSet-Cookie: velmo-token-9559=t0k; Path=/; HttpOnly; "
       "SameSite=Strict\r\nCache-Control: no-store\r\n" +
           closed,
       ""},
      // A link on another site: the call is shown as a person wrote it, not run.
      {raw("GET /?evalKXMemory.getData(%22k%3C%22)", navigate), "403 Forbidden", confirmation,
       "<pre class=\"call\">KXMemory.getData(&quot;k&lt;&quot;)</pre>\n<p><a class=\"button\" "
       "id=\"run\" href=\"/?evalKXMemory.getData(%22k%3C%22)\">Run it</a>"},
      {raw("GET /?jsonKXMemory.ping()", navigate), "403 Forbidden", confirmation,
       "<pre class=\"call\">KXMemory.ping()</pre>"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.request);
    WireConnection connection(server_->port());
    const HttpReply reply = ask(connection, c.request);
    EXPECT_EQ(reply.header, answer(c.status, c.fields, reply.body).header);
    EXPECT_NE(reply.body.find(c.body), std::string::npos) << reply.body;
    EXPECT_TRUE(connection.waitForClose());
  }
  EXPECT_FALSE(fs::exists(user_ / "tmp" / "x.bin"));
  EXPECT_TRUE(asked().empty());
  // The broker protocol was reached by none of them, but is by a request let in.
  EXPECT_EQ(server_->handled(), 0);
  WireConnection connection(server_->port());
  EXPECT_EQ(ask(connection, raw("POST /", "", soap)).status(), 200);
  EXPECT_EQ(server_->handled(), 1);
}

TEST_F(KXFileServiceTest, APutCutShortLeavesTheOldFileAndNothingBesideIt) {
  WireConnection cut(server_->port());
  ASSERT_TRUE(cut.sendAll(raw("PUT /User/notes.txt", "Content-Length: 1000\r\n") + "0123456789"));
  cut.close();
  // Accepted after the cut one: the server has taken that one too, and goes on.
  WireConnection next(server_->port());
  EXPECT_EQ(ask(next, raw("GET /User/notes.txt")).body, "hello notes");
  next.close();
  server_.reset();  // waits for both connections to end
  EXPECT_EQ(readFile(user_ / "notes.txt"), "hello notes");
  EXPECT_EQ(entriesIn(user_), 4);  // behaviors, filelink, link, notes.txt
}

TEST_F(KXFileServiceTest, ABodyAfterContinueOrWithTheNextRequestIsReadExactly) {
  // What curl does for bodies over 1 KiB: it waits for the interim "100 Continue" (which
  // has no length: read() takes it and gives nothing).
  const std::string body = patternBytes(5000);
  WireConnection connection(server_->port());
  ASSERT_TRUE(connection.sendAll(
      raw("PUT /User/continued.bin", "Content-Length: 5000\r\nExpect: 100-continue\r\n")));
  EXPECT_FALSE(connection.read().has_value());
  expectReply(ask(connection, body), kOk);
  EXPECT_TRUE(readFile(user_ / "continued.bin") == body);
  // The next request's bytes, read with the body, stay for it.
  expectReply(ask(connection, raw("PUT /User/p.txt", "", "first") + raw("GET /User/p.txt")), kOk);
  expectReply(connection.read().value_or(HttpReply{}), file("text/plain", "first"));
}

TEST_F(KXFileServiceTest, NoRequestReachesOutsideTheRoots) {
  const std::string outside = "/" + outside_.string();  // starts with "//"
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"GET", "/User/../outside/secret.txt"},
      {"GET", "/User/%2E%2E/outside/secret.txt"},
      {"GET", "/User/sub/%2e%2e/%2e%2e/outside/secret.txt"},
      {"GET", "/User/..%2Foutside%2Fsecret.txt"},
      {"GET", "/../outside/secret.txt"},
      {"GET", "/index.xml/../../outside/secret.txt"},
      {"GET", "//etc/passwd"},
      {"GET", "/User/notes.txt%00.png"},
      {"GET", "/User/link/secret.txt"},
      {"GET", "/User/link"},
      {"GET", "/User/filelink"},
      {"PUT", "/User/%2e%2e/outside/new.txt"},
      {"PUT", outside + "/secret.txt"},
      {"PUT", "/User/new%00.txt"},
      {"PUT", "/User/link/secret.txt"},
      {"PUT", "/User/link/new.txt"},
      {"PUT", "/User/link/deeper/new.txt"},
      {"PUT", "/User/filelink"},
      {"DELETE", "/User/..%2Foutside%2Fsecret.txt"},
      {"DELETE", outside},
      {"DELETE", "/User/notes.txt%00"},
      {"DELETE", "/User/link/secret.txt"},
      {"DELETE", "/User/link"},
      {"DELETE", "/User/filelink"},
  };
  WireConnection connection(server_->port());
  for (const auto& [method, path] : cases) {
    SCOPED_TRACE(method + " " + path);
    const auto body = method == "PUT" ? std::optional<std::string>("pwned") : std::nullopt;
    expectReply(ask(connection, raw(method + " " + path, "", body)), error("404 Not Found"));
    const std::string function = method == "GET"   ? "KX::KXNetwork::httpGet"
                                 : method == "PUT" ? "KX::KXNetwork::httpPut"
                                                   : "KX::KXNetwork::httpDelete";
    const auto records = logs_.withFunction(function);
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(records.back().level, tu::log::warning);
    EXPECT_EQ(records.back().message, "Refused HTTP " + method + " of \"" + path +
                                          "\": the path leads out of the served folders\n");
  }
  EXPECT_EQ(readFile(outside_ / "secret.txt"), "top secret");
  EXPECT_EQ(entriesIn(outside_), 1);
  EXPECT_TRUE(fs::is_symlink(user_ / "link") && fs::is_symlink(user_ / "filelink"));
  EXPECT_EQ(readFile(user_ / "notes.txt"), "hello notes");
  EXPECT_TRUE(asked().empty());
}

TEST(KXFileServiceRootsTest, TheUserDataFolderComesFromAppDataThenXdgThenHome) {
  tu::log::testing::EnvironmentGuard appData("APPDATA"), xdg("XDG_DATA_HOME"), home("HOME");
  setenv("APPDATA", "/data/app", 1);
  setenv("XDG_DATA_HOME", "/data/xdg", 1);
  setenv("HOME", "/home/someone", 1);
  const fs::path user = "/data/app/Korvane/velmo";
  const fs::path system = tu::path::sdkDataDir().value_or(fs::path());
  EXPECT_EQ(KXFileService::defaultRoots(),
            (std::map<std::string, fs::path>{{"User", user},
                                             {"behaviors", user / "behaviors"},
                                             {"boxlibraries", user / "boxlibraries"},
                                             {"tmp", user / "tmp"},
                                             {"System", system},
                                             {"share", system}}));
  unsetenv("APPDATA");
  EXPECT_EQ(KXFileService::defaultRoots().at("tmp"), "/data/xdg/Korvane/velmo/tmp");
  setenv("XDG_DATA_HOME", "", 1);
  EXPECT_EQ(KXFileService::defaultRoots().at("User"), "/home/someone/.local/share/Korvane/velmo");
}

}  // namespace
}  // namespace testing
}  // namespace KX
