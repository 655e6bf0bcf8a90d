// The HTTP side of a broker's port, spoken to byte by byte: files under the roots, pages for
// every other path, the answers of the access rules, and no way out of the roots.
#include "network/detail/kxfileservice.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <mutex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <vector>

#include "log/sdklayout.h"
#include "log/tests/logtestsupport.h"
#include "network/detail/kxbrokerserve.h"
#include "network/detail/kxsoapcontext.h"
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

std::string readFile(const fs::path& file) {  // "" for a missing file
  std::ostringstream bytes;
  bytes << std::ifstream(file, std::ios::binary).rdbuf();
  return bytes.str();
}

long entriesIn(const fs::path& folder) {
  return std::distance(fs::directory_iterator(folder), fs::directory_iterator());
}

// Bytes that no text-mode mangling, truncation or reordering of pieces would leave intact.
std::string patternBytes(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i % 251);
  return bytes;
}

// The pattern of patternBytes from byte `from` to `to`, sent in pieces, so that the sender
// never holds the whole.
bool sendPattern(WireConnection& connection, std::uint64_t from, std::uint64_t to) {
  constexpr std::size_t kPiece = 1 << 20;
  const std::string pattern = patternBytes(kPiece + 251);
  for (std::uint64_t sent = from; sent < to;) {
    const std::size_t piece = static_cast<std::size_t>(std::min<std::uint64_t>(kPiece, to - sent));
    if (!connection.sendAll(pattern.substr(sent % 251, piece))) return false;
    sent += piece;
  }
  return true;
}

// Whether `file` holds exactly `size` bytes of the pattern, read in pieces.
bool holdsPattern(const fs::path& file, std::uint64_t size) {
  constexpr std::size_t kPiece = 1 << 20;
  const std::string pattern = patternBytes(kPiece + 251);
  std::ifstream in(file, std::ios::binary);
  std::string piece(kPiece, '\0');
  std::uint64_t offset = 0;
  while (in.read(piece.data(), kPiece) || in.gcount() > 0) {
    const auto read = static_cast<std::size_t>(in.gcount());
    if (offset + read > size || piece.compare(0, read, pattern, offset % 251, read) != 0) {
      return false;
    }
    offset += read;
  }
  return offset == size;
}

// True once a file directly in `folder` holds `size` bytes or more (waits 20 s at most).
bool eventuallyAFileHolds(const fs::path& folder, std::uintmax_t size) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  do {
    for (const auto& entry : fs::directory_iterator(folder)) {
      std::error_code ignored;
      if (entry.is_regular_file(ignored) && entry.file_size(ignored) >= size) return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  } while (std::chrono::steady_clock::now() < deadline);
  return false;
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

// The service's PUT limit here: large enough to show that bodies are not held in memory.
constexpr std::uint64_t kPutLimit = 128ull << 20;

// Roots in a fresh folder, beside outside/ that no request may reach; user/link and
// user/filelink lead there. The port has a token, as a broker's may: raw() sends it.
class KXFileServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "kxfileservice-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    temp_ = fs::canonical(pattern);
    user_ = temp_ / "user";
    fs::create_directories(user_ / "behaviors");
    writeFile(temp_ / "system" / "lib.xml", "system file");
    writeFile(temp_ / "outside" / "secret.txt", "top secret");
    writeFile(user_ / "notes.txt", "hello notes");
    fs::create_directory_symlink(temp_ / "outside", user_ / "link");
    fs::create_symlink(temp_ / "outside" / "secret.txt", user_ / "filelink");
    const auto pages = [this](const std::string& endpoint, const std::string& path) {
      std::lock_guard<std::mutex> lock(pagesMutex_);
      asked_.push_back(endpoint + " " + path);
      if (page_ == "throw") throw std::runtime_error("module page failed");
      return page_;
    };
    const std::map<std::string, fs::path> roots = {{"User", user_},
                                                   {"behaviors", user_ / "behaviors"},
                                                   {"boxlibraries", user_ / "boxlibraries"},
                                                   {"tmp", user_ / "tmp"},
                                                   {"System", temp_ / "system"},
                                                   {"share", temp_ / "system"}};
    service_.emplace(roots, pages,
                     std::make_shared<const KXAccessPolicy>(std::set<std::string>(), "t0k", 9559),
                     kPutLimit);
    service_->install(server_.get());
    server_->accept_timeout = 1;
    server_->recv_timeout = server_->send_timeout = wire::kSocketTimeoutSeconds;
    port_ = bindLoopback(server_.get());
    ASSERT_NE(port_, 0);
    // One connection after the other, as a pool thread of a broker serves one; the broker
    // protocol behind the service only counts the requests that reach it.
    serving_ = std::thread([this] {
      while (!stop_) {
        if (!soap_valid_socket(soap_accept(server_.get()))) continue;  // the accept timeout
        KXSoapContext connection = KXSoapContext::copyOf(server_);
        server_->socket = SOAP_INVALID_SOCKET;  // the copy owns it now
        BrokerConnection(connection.get())
            .serve(
                [this](BrokerRequest&, const BrokerPeer&) {
                  ++handled_;
                  return BrokerAnswer{std::string("served")};  // the answer of getBrokerName
                },
                BrokerConnection::Rounds::UntilClosed);
      }
    });
  }
  void TearDown() override {
    stop_ = true;
    { WireConnection wake(port_); }
    if (serving_.joinable()) serving_.join();
    std::error_code ignored;
    fs::remove_all(temp_, ignored);
  }

  // "GET /path" as a request with the token: `headers` follow, a body brings its length.
  std::string raw(const std::string& start, const std::string& headers = "",
                  const std::optional<std::string>& body = std::nullopt) const {
    return start + " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port_) +
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

  fs::path temp_, user_;
  std::mutex pagesMutex_;
  std::string page_ = "HTTP/1.0 200\r\nContent-Type: text/xml\r\n\r\n<page/>";  // "throw": fails
  std::vector<std::string> asked_;  // endpoint + " " + path, as the pages were asked
  tu::log::testing::LogCapture logs_;
  std::optional<KXFileService> service_;  // outlives the context and its copies
  KXSoapContext server_;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::atomic<int> handled_{0};
  std::thread serving_;
};

TEST_F(KXFileServiceTest, FilesAreServedStoredAndRemovedOnlyBelowTheirRoots) {
  const std::string octets = "application/octet-stream";
  WireConnection connection(port_);
  // The type follows the extension, in any case.
  const std::pair<std::string, std::string> types[] = {
      {"a.jpg", "image/jpeg"}, {"UPPER.PNG", "image/png"}, {"c.gif", "image/gif"},
      {"d.mp3", "audio/mp3"},  {"e.wav", "audio/x-wav"},   {"f.xar", "text/plain"},
      {"g.xml", "text/plain"}, {"noextension", octets}};
  for (const auto& [name, type] : types) {
    writeFile(user_ / "types" / name, name);
    SCOPED_TRACE(name);
    expectReply(ask(connection, raw("GET /User/types/" + name)), file(type, name));
  }
  writeFile(user_ / "with space.txt", "spaced");
  writeFile(user_ / "%41.txt", "literal percent");
  writeFile(user_ / "big.bin", patternBytes(300 * 1024 + 7));
  fs::create_directories(user_ / "tree" / "b");
  fs::create_directories(user_ / "tree" / "z" / "deeper");
  writeFile(user_ / "tree" / "c.bin", "c");
  writeFile(user_ / "tree" / ".hidden", "h");
  writeFile(user_ / "real" / "inside.txt", "inside");
  fs::create_directory_symlink(user_ / "real", user_ / "alias");
  fs::create_symlink(user_ / "real" / "inside.txt", user_ / "inlink");
  fs::create_directories(user_ / "tmp");
  const std::string sorted = ".hidden\nb/\nc.bin\nz/\n", binary("line one\r\n\0two", 14);
  const HttpReply notFound = error("404 Not Found"), forbidden = error("403 Forbidden");
  const HttpReply conflict = error("409 Conflict");
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
      {"GET /User/big.bin", none, file(octets, patternBytes(300 * 1024 + 7))},
      // Decoded once, the query dropped: "%2541" names "%41".
      {"GET /User/with%20space.txt?version=2", none, file("text/plain", "spaced")},
      {"GET /User/%2541.txt", none, file("text/plain", "literal percent")},
      {"GET /User/tree", none, listing(sorted)},
      {"GET /behaviors", none, listing("")},
      {"GET /User/alias/inside.txt", none, file("text/plain", "inside")},  // a link kept inside
      {"GET /User/missing.txt", none, notFound},
      {"GET /boxlibraries/lib.xml", none, notFound},  // a root whose folder is not made
      {"PUT /User/new/deeper/file.txt", binary, kOk},
      {"PUT /boxlibraries/my%2Ebox/box%2Epy", "print(1)", kOk},  // the root's folder is made
      {"PUT /User/alias/put.txt", "via alias", kOk},
      {"PUT /User/notes.txt", "", kOk},
      // Refused bodies are read and dropped: the connection goes on.
      {"PUT /tmp/nolength.bin", none, error("411 Length Required")},
      {"PUT /System/new.xml", "x", forbidden},
      {"PUT /notaroot/file.txt", "x", forbidden},
      {"PUT /User", "x", conflict},
      {"DELETE /User/tree", none, kOk},
      {"DELETE /boxlibraries/none", none, notFound},
      {"DELETE /User/inlink", none, kOk},
      {"DELETE /System/lib.xml", none, forbidden},
      // No root's folder goes, nor a folder holding one.
      {"DELETE /User", none, forbidden},
      // No preflight succeeds: no other site may read what the broker answers.
      {"OPTIONS /", none, notAllowed},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.request);
    expectReply(ask(connection, raw(c.request, "", c.body)), c.expected);
  }
  EXPECT_EQ(readFile(user_ / "new" / "deeper" / "file.txt"), binary);
  EXPECT_EQ(entriesIn(user_ / "new" / "deeper"), 1);  // no upload left beside it
  EXPECT_EQ(readFile(user_ / "boxlibraries" / "my.box" / "box.py"), "print(1)");
  EXPECT_EQ(readFile(user_ / "real" / "put.txt"), "via alias");
  EXPECT_FALSE(fs::exists(user_ / "tmp" / "nolength.bin") || fs::exists(user_ / "tree"));
  EXPECT_FALSE(fs::exists(fs::symlink_status(user_ / "inlink")));
  EXPECT_EQ(readFile(user_ / "real" / "inside.txt"), "inside");  // the link went, not its target
  EXPECT_EQ(fs::file_size(user_ / "notes.txt"), 0u);
  EXPECT_EQ(readFile(temp_ / "system" / "lib.xml"), "system file");
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
      {"/?evalKXMemory.getData(%5B%22k%22%5D)", "", "Broker not found",
       page("200 OK", "", "Broker not found"), "/?evalKXMemory.getData(%5B%22k%22%5D)"},
      {"/", "",
       "HTTP/1.0 404 Not Here\r\nServer: gSOAP/2.8\r\nContent-type: text/html\r\nContent-Length: "
       "999\r\n\r\n<p>gone</p>\r\n\r\nstill body",
       page("404 Not Here", "Content-Type: text/html\r\n", "<p>gone</p>\r\n\r\nstill body"), "/"},
      // A browser opening the broker's address gets the page for a person; other pages stay.
      {"/", browser, "HTTP/1.0 500\r\nContent-Type: text/plain\r\n\r\nbroken",
       page("500 Internal Server Error", "Content-Type: text/plain\r\n", "broken"), "/index.html"},
      {"/user/notes.txt?x=%41", "", "HTTP/1.0 20x\r\n\r\n", page("200 OK", "", ""),
       "/user/notes.txt?x=%41"},  // root names are matched exactly
      {"/?eval/../User", "", "throw", error("500 Internal Server Error"), "/?eval/../User"},
  };
  WireConnection connection(port_);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.answer);
    {
      std::lock_guard<std::mutex> lock(pagesMutex_);
      page_ = c.answer;
    }
    expectReply(ask(connection, raw("GET " + c.path, c.headers)), c.expected);
    EXPECT_EQ(asked().back(), "http://127.0.0.1:" + std::to_string(port_) + c.path + " " + c.asked);
  }
  const auto failed = logs_.withFunction("KX::KXNetwork::httpGet");
  ASSERT_EQ(failed.size(), 1u);
  EXPECT_EQ(failed[0].message, "Page /?eval/../User failed: module page failed\n");
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
      {raw("PUT /tmp/x.bin", "Content-Length: " + std::to_string(kPutLimit + 1) + "\r\n"),
       "413 Payload Too Large", "Server: Velmo\r\nContent-Type: text/plain\r\n" + closed,
       "413 - Payload Too Large"},
      {"POST / HTTP/1.1\r\nContent-Length: " + std::to_string(soap.size()) + "\r\n\r\n" + soap,
       "401 Unauthorized", refusal + "WWW-Authenticate: Bearer\r\n" + closed,
       "Unauthorized: this broker requires its token (send \"Authorization: Bearer TOKEN\", or "
       "open the link with ?token= that the broker printed at start).\n"},
      // A link on another site: the call is shown as a person wrote it, not run.
      {raw("GET /?evalKXMemory.getData(%22k%3C%22)", navigate), "403 Forbidden", confirmation,
       "<pre class=\"call\">KXMemory.getData(&quot;k&lt;&quot;)</pre>\n<p><a class=\"button\" "
       "id=\"run\" href=\"/?evalKXMemory.getData(%22k%3C%22)\">Run it</a>"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.request);
    WireConnection connection(port_);
    const HttpReply reply = ask(connection, c.request);
    EXPECT_EQ(reply.header, answer(c.status, c.fields, reply.body).header);
    EXPECT_NE(reply.body.find(c.body), std::string::npos) << reply.body;
    EXPECT_TRUE(connection.waitForClose());
  }
  EXPECT_FALSE(fs::exists(user_ / "tmp" / "x.bin"));
  EXPECT_TRUE(asked().empty());
  // The broker protocol was reached by none of them, but is by a request let in.
  EXPECT_EQ(handled_, 0);
  WireConnection connection(port_);
  EXPECT_EQ(ask(connection, raw("POST /", "", soap)).status(), 200);
  EXPECT_EQ(handled_, 1);
}

TEST_F(KXFileServiceTest, BodiesAreReadToTheirLastByteAndNoFurther) {
  // curl waits for the interim "100 Continue" before a body over 1 KiB; that answer has no
  // length: read() takes it and gives nothing.
  const std::string body = patternBytes(5000);
  WireConnection connection(port_);
  ASSERT_TRUE(connection.sendAll(
      raw("PUT /User/continued.bin", "Content-Length: 5000\r\nExpect: 100-continue\r\n")));
  EXPECT_FALSE(connection.read().has_value());
  expectReply(ask(connection, body), kOk);
  EXPECT_TRUE(readFile(user_ / "continued.bin") == body);
  // The next request's bytes, read with the body, stay for it.
  expectReply(ask(connection, raw("PUT /User/p.txt", "", "first") + raw("GET /User/p.txt")), kOk);
  expectReply(connection.read().value_or(HttpReply{}), file("text/plain", "first"));
  EXPECT_EQ(entriesIn(user_), 6);  // behaviors, continued.bin, filelink, link, notes.txt, p.txt
}

// A body goes to disk as it arrives: half of one at the limit sent, a good part of it is
// there before the rest is sent. One cut short, after many pieces have gone to disk, leaves the old file as it was
// and nothing beside it.
TEST_F(KXFileServiceTest, LargeBodiesGoStraightToTheirFile) {
  const std::string head = "Content-Length: " + std::to_string(kPutLimit) + "\r\n";
  {
    WireConnection cut(port_);
    ASSERT_TRUE(cut.sendAll(raw("PUT /User/notes.txt", head)));
    ASSERT_TRUE(sendPattern(cut, 0, kPutLimit / 2));
  }
  WireConnection connection(port_);
  // Connections are served in turn: once the next one is answered, the cut one is done.
  EXPECT_EQ(ask(connection, raw("GET /User/notes.txt")).body, "hello notes");
  EXPECT_EQ(entriesIn(user_), 4);  // behaviors, filelink, link, notes.txt
  ASSERT_TRUE(connection.sendAll(raw("PUT /User/large.bin", head)));
  ASSERT_TRUE(sendPattern(connection, 0, kPutLimit / 2));
  EXPECT_TRUE(eventuallyAFileHolds(user_, kPutLimit / 4));
  ASSERT_TRUE(sendPattern(connection, kPutLimit / 2, kPutLimit));
  expectReply(connection.read().value_or(HttpReply{}), kOk);
  EXPECT_TRUE(holdsPattern(user_ / "large.bin", kPutLimit));
}

TEST_F(KXFileServiceTest, NoRequestReachesOutsideTheRoots) {
  const char* const cases[] = {
      "GET /User/sub/%2e%2e/%2E%2E/outside/secret.txt",
      "GET //etc/passwd",  // an absolute path once the first '/' is dropped
      "GET /User/link/secret.txt",
      "PUT /User/%2e%2e/outside/new.txt",
      "PUT /User/link/deeper/new.txt",
      "DELETE /User/notes.txt%00",
      "DELETE /User/link",
  };
  WireConnection connection(port_);
  std::vector<std::string> expected;
  for (std::string request : cases) {
    SCOPED_TRACE(request);
    const std::string method = request.substr(0, request.find(' '));
    const auto body = method == "PUT" ? std::optional<std::string>("pwned") : std::nullopt;
    expectReply(ask(connection, raw(request, "", body)), error("404 Not Found"));
    const std::string function = method == "GET" ? "Get" : method == "PUT" ? "Put" : "Delete";
    expected.push_back("KX::KXNetwork::http" + function + ": Refused HTTP " +
                       request.insert(method.size() + 1, "of \"") +
                       "\": the path leads out of the served folders\n");
  }
  std::vector<std::string> warnings;
  for (const auto& record : logs_.records())
    warnings.push_back(record.function + ": " + record.message);
  EXPECT_EQ(warnings, expected);
  EXPECT_EQ(readFile(temp_ / "outside" / "secret.txt"), "top secret");
  EXPECT_EQ(entriesIn(temp_ / "outside"), 1);
  EXPECT_TRUE(fs::is_symlink(user_ / "link") && fs::is_symlink(user_ / "filelink"));
  EXPECT_EQ(readFile(user_ / "notes.txt"), "hello notes");
  EXPECT_TRUE(asked().empty());
}

TEST(KXFileServiceRootsTest, TheUserDataFolderComesFromAppDataThenXdgThenHome) {
  tu::log::testing::EnvironmentGuard appData("APPDATA"), xdg("XDG_DATA_HOME"), home("HOME");
  setenv("APPDATA", "/data/app", 1);
  setenv("XDG_DATA_HOME", "/data/xdg", 1);
  setenv("HOME", "/home/someone", 1);
  const auto roots = KXFileService::defaultRoots();
  EXPECT_EQ(roots.at("boxlibraries"), "/data/app/Korvane/velmo/boxlibraries");
  EXPECT_EQ(roots.at("share"), tu::path::sdkDataDir().value_or(""));
  EXPECT_EQ(roots.at("System"), roots.at("share"));
  unsetenv("APPDATA");
  EXPECT_EQ(KXFileService::defaultRoots().at("tmp"), "/data/xdg/Korvane/velmo/tmp");
  setenv("XDG_DATA_HOME", "", 1);
  EXPECT_EQ(KXFileService::defaultRoots().at("User"), "/home/someone/.local/share/Korvane/velmo");
}

}  // namespace
}  // namespace testing
}  // namespace KX
