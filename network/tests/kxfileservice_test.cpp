#include "network/kxfileservice.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "log/log.h"
#include "log/sdklayout.h"
#include "network/kxbrokerserve.h"
#include "network/kxsoapcontext.h"
#include "network/tests/socket_test_support.h"

namespace KX {
namespace {

namespace fs = std::filesystem;

// ---- Test scaffolding

class TempFolder {
 public:
  TempFolder() {
    std::string pattern = (fs::temp_directory_path() / "kxfileservice-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
      ADD_FAILURE() << "mkdtemp failed";
      return;
    }
    path_ = fs::canonical(pattern);
  }
  ~TempFolder() {
    std::error_code error;
    if (!path_.empty()) fs::remove_all(path_, error);
  }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  const fs::path& path() const { return path_; }

 private:
  fs::path path_;
};

void writeFile(const fs::path& file, const std::string& bytes) {
  fs::create_directories(file.parent_path());
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::optional<std::string> readFile(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) return std::nullopt;
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::vector<std::string> namesIn(const fs::path& folder) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(folder)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

// Bytes that no text-mode mangling, truncation or reordering would leave intact.
std::string patternBytes(std::size_t size) {
  std::string bytes(size, '\0');
  std::uint32_t state = 12345;
  for (char& byte : bytes) {
    state = state * 1103515245u + 12345u;
    byte = static_cast<char>(state >> 24);
  }
  return bytes;
}

// Records what the pages were asked and answers with the text set last.
class FakePages {
 public:
  PageRenderer renderer() {
    return [this](const std::string& endpoint, const std::string& path) {
      std::lock_guard<std::mutex> lock(mutex_);
      calls_.emplace_back(endpoint, path);
      if (failure_) throw std::runtime_error(*failure_);
      return answer_;
    };
  }
  void answerWith(std::string answer) {
    std::lock_guard<std::mutex> lock(mutex_);
    answer_ = std::move(answer);
  }
  void failWith(std::string message) {
    std::lock_guard<std::mutex> lock(mutex_);
    failure_ = std::move(message);
  }
  std::vector<std::pair<std::string, std::string>> calls() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }

 private:
  mutable std::mutex mutex_;
  std::string answer_ = "HTTP/1.0 200\r\nContent-Type: text/xml\r\n\r\n<page/>";
  std::optional<std::string> failure_;
  std::vector<std::pair<std::string, std::string>> calls_;
};

struct LogRecord {
  tu::log::LogLevel level;
  std::string category;
  std::string function;
  std::string message;
};

class LogCapture {
 public:
  LogCapture() {
    tu::log::addLogHandler(
        kName, [this](tu::log::LogLevel level, const tu::log::LogTime&, const char* category,
                      const char* message, const char*, const char* function, int) {
          std::lock_guard<std::mutex> lock(mutex_);
          records_.push_back(LogRecord{level, category, function, message});
        });
  }
  ~LogCapture() { tu::log::removeLogHandler(kName); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // Whether a warning of the network category, logged by `function`, contains `text`.
  bool hasWarning(const std::string& function, const std::string& text) const {
    tu::log::flush();
    std::lock_guard<std::mutex> lock(mutex_);
    for (const LogRecord& record : records_) {
      if (record.level == tu::log::warning && record.category == "core.common.network" &&
          record.function == function && record.message.find(text) != std::string::npos) {
        return true;
      }
    }
    return false;
  }

 private:
  static constexpr const char* kName = "kxfileservice_test";
  mutable std::mutex mutex_;
  std::vector<LogRecord> records_;
};

// A server on 127.0.0.1 (port chosen by the system) with the service installed, serving
// each connection on its own thread as the broker does.
class FileServer {
 public:
  explicit FileServer(const KXFileService& service) {
    service.install(server_.get());
    server_->accept_timeout = 1;
    // A connection the test forgets is dropped after this, rather than hanging the test.
    server_->recv_timeout = 10;
    server_->send_timeout = 10;
    port_ = testing::bindLoopback(server_.get());
    if (port_ == 0) {
      return;
    }
    acceptor_ = std::thread([this] { run(); });
  }
  ~FileServer() {
    stop_ = true;
    wake();
    if (acceptor_.joinable()) acceptor_.join();
    std::lock_guard<std::mutex> lock(mutex_);
    for (std::thread& connection : connections_) connection.join();
  }
  FileServer(const FileServer&) = delete;
  FileServer& operator=(const FileServer&) = delete;

  int port() const { return port_; }
  int accepted() const { return accepted_; }

 private:
  void run() {
    // Each round waits at most the 1 s accept timeout; the bound only guards a test that
    // never stops the server.
    for (int round = 0; round < 300 && !stop_; ++round) {
      if (!soap_valid_socket(soap_accept(server_.get()))) {
        if (server_->errnum == 0) continue;  // accept timeout
        ADD_FAILURE() << "accept failed, gSOAP error " << server_->error;
        return;
      }
      if (stop_) {
        soap_closesock(server_.get());
        return;
      }
      ++accepted_;
      auto connection = std::make_shared<KXSoapContext>(KXSoapContext::copyOf(server_));
      server_->socket = SOAP_INVALID_SOCKET;  // the copy owns it now
      std::lock_guard<std::mutex> lock(mutex_);
      connections_.emplace_back([connection] {
        serveBrokerConnection(connection->get(),
                              [](BrokerRequest&, const BrokerPeer&) { return BrokerResponse{}; });
      });
    }
  }

  // Ends the accept wait at once rather than at its timeout.
  void wake() const {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    testing::connectLoopback(fd, port_, 0);
    close(fd);
  }

  KXSoapContext server_;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::atomic<int> accepted_{0};
  std::thread acceptor_;
  std::mutex mutex_;
  std::vector<std::thread> connections_;
};

// One HTTP response as read off the wire: the header block up to and including its empty
// line, and the Content-Length bytes after it.
struct Response {
  std::string header;
  std::string body;
};

// A plain TCP client speaking HTTP by hand. Reads are bounded by a 10 s receive timeout.
class RawClient {
 public:
  explicit RawClient(int port)
      : port_(port),
        fd_(socket(AF_INET, SOCK_STREAM, 0)),
        connected_(testing::connectLoopback(fd_, port, 10)) {}
  ~RawClient() {
    if (fd_ >= 0) close(fd_);
  }
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  bool connected() const { return connected_; }

  bool sendAll(const std::string& bytes) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
      const ssize_t n = send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (n <= 0) return false;
      sent += static_cast<std::size_t>(n);
    }
    return true;
  }

  // The request line and Host header of an HTTP/1.1 request, as browsers write them.
  std::string start(const std::string& method, const std::string& path) const {
    return method + " " + path + " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port_) +
           "\r\nUser-Agent: raw\r\n";
  }

  bool get(const std::string& path) { return sendAll(start("GET", path) + "\r\n"); }
  bool put(const std::string& path, const std::string& body) {
    return sendAll(start("PUT", path) + "Content-Length: " + std::to_string(body.size()) +
                   "\r\n\r\n" + body);
  }
  bool del(const std::string& path) { return sendAll(start("DELETE", path) + "\r\n"); }

  // Reads one response. Nothing when the connection closes or times out first.
  std::optional<Response> read() {
    std::size_t end = std::string::npos;
    while ((end = pending_.find("\r\n\r\n")) == std::string::npos) {
      if (!receiveMore()) return std::nullopt;
    }
    Response response;
    response.header = pending_.substr(0, end + 4);
    pending_.erase(0, end + 4);
    const std::string lengthField = "Content-Length: ";
    const std::size_t at = response.header.find(lengthField);
    if (at == std::string::npos) return std::nullopt;
    const std::size_t length =
        std::strtoul(response.header.c_str() + at + lengthField.size(), nullptr, 10);
    while (pending_.size() < length) {
      if (!receiveMore()) return std::nullopt;
    }
    response.body = pending_.substr(0, length);
    pending_.erase(0, length);
    return response;
  }

  // The header block of an interim answer ("100 Continue"), which has no body.
  std::optional<std::string> readInterim() {
    std::size_t end = std::string::npos;
    while ((end = pending_.find("\r\n\r\n")) == std::string::npos) {
      if (!receiveMore()) return std::nullopt;
    }
    std::string header = pending_.substr(0, end + 4);
    pending_.erase(0, end + 4);
    return header;
  }

  // Every byte until the peer closes; nothing when the receive times out first.
  std::optional<std::string> readUntilClose() {
    for (int i = 0; i < 100000; ++i) {
      char buffer[4096];
      const ssize_t n = recv(fd_, buffer, sizeof(buffer), 0);
      if (n == 0) {
        std::string rest = std::move(pending_);
        pending_.clear();
        return rest;
      }
      if (n < 0) return std::nullopt;
      pending_.append(buffer, static_cast<std::size_t>(n));
    }
    return std::nullopt;
  }

  void shutdownSending() { shutdown(fd_, SHUT_WR); }

 private:
  bool receiveMore() {
    char buffer[65536];
    const ssize_t n = recv(fd_, buffer, sizeof(buffer), 0);
    if (n <= 0) return false;
    pending_.append(buffer, static_cast<std::size_t>(n));
    return true;
  }

  int port_;
  int fd_;
  bool connected_ = false;
  std::string pending_;
};

// ---- Expected answers

std::string fileHeader(std::size_t length, const std::string& type) {
  return "HTTP/1.1 200 OK\r\nServer: Velmo\r\nVelmo-File-Type: regular-file\r\nContent-Length: " +
         std::to_string(length) + "\r\nContent-Type: " + type +
         "\r\nConnection: keep-alive\r\n\r\n";
}

std::string directoryHeader(std::size_t length) {
  return "HTTP/1.1 200 OK\r\nServer: Velmo\r\nVelmo-File-Type: directory\r\nContent-Type: "
         "text/plain\r\nContent-Length: " +
         std::to_string(length) + "\r\n\r\n";
}

constexpr const char* kNotFoundHeader =
    "HTTP/1.1 404 Not Found\r\nServer: Velmo\r\nContent-Type: text/plain\r\n"
    "Content-Length: 15\r\n\r\n";
constexpr const char* kNotFoundBody = "404 - Not Found";
constexpr const char* kForbiddenHeader =
    "HTTP/1.1 403 Forbidden\r\nServer: Velmo\r\nContent-Type: text/plain\r\n"
    "Content-Length: 15\r\n\r\n";
constexpr const char* kForbiddenBody = "403 - Forbidden";
constexpr const char* kOkHeader =
    "HTTP/1.1 200 OK\r\nServer: Velmo\r\nContent-Length: 2\r\nContent-Type: text/plain\r\n"
    "Connection: keep-alive\r\n\r\n";

// ---- The fixture: roots in a fresh folder, and a folder beside them that no request may
// reach.
//   <temp>/user            User
//   <temp>/user/behaviors  behaviors
//   <temp>/user/boxlibraries, <temp>/user/tmp (not created)
//   <temp>/system          System and share
//   <temp>/outside/secret.txt
//   <temp>/user/link -> <temp>/outside, <temp>/user/filelink -> <temp>/outside/secret.txt
class KXFileServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(temp_.path().empty());
    user_ = temp_.path() / "user";
    system_ = temp_.path() / "system";
    outside_ = temp_.path() / "outside";
    fs::create_directories(user_ / "behaviors");
    fs::create_directories(system_);
    writeFile(outside_ / "secret.txt", kSecret);
    writeFile(user_ / "notes.txt", "hello notes");
    fs::create_directory_symlink(outside_, user_ / "link");
    fs::create_symlink(outside_ / "secret.txt", user_ / "filelink");
    std::map<std::string, fs::path> roots = {
        {"User", user_},
        {"behaviors", user_ / "behaviors"},
        {"boxlibraries", user_ / "boxlibraries"},
        {"tmp", user_ / "tmp"},
        {"System", system_},
        {"share", system_},
    };
    service_ = std::make_unique<KXFileService>(std::move(roots), pages_.renderer());
    server_ = std::make_unique<FileServer>(*service_);
    ASSERT_NE(server_->port(), 0);
  }

  void TearDown() override {
    server_.reset();
    service_.reset();
  }

  int port() const { return server_->port(); }

  // One request on a fresh connection, and its answer.
  Response ask(const std::string& request) {
    RawClient client(port());
    EXPECT_TRUE(client.connected());
    EXPECT_TRUE(client.sendAll(request));
    std::optional<Response> response = client.read();
    EXPECT_TRUE(response.has_value()) << request;
    return response.value_or(Response{});
  }
  std::string request(const std::string& method, const std::string& path,
                      const std::optional<std::string>& body = std::nullopt) const {
    std::string text =
        method + " " + path + " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port()) + "\r\n";
    if (body) text += "Content-Length: " + std::to_string(body->size()) + "\r\n";
    text += "\r\n";
    if (body) text += *body;
    return text;
  }

  // Nothing outside the roots changed: the secret is intact, nothing was added beside it,
  // and the links still lead to it.
  void expectOutsideUntouched() const {
    EXPECT_EQ(readFile(outside_ / "secret.txt"), std::string(kSecret));
    EXPECT_EQ(namesIn(outside_), std::vector<std::string>{"secret.txt"});
    EXPECT_TRUE(fs::is_symlink(user_ / "link"));
    EXPECT_TRUE(fs::is_symlink(user_ / "filelink"));
  }

  static constexpr const char* kSecret = "top secret";

  TempFolder temp_;
  fs::path user_;
  fs::path system_;
  fs::path outside_;
  FakePages pages_;
  LogCapture logs_;
  std::unique_ptr<KXFileService> service_;
  std::unique_ptr<FileServer> server_;
};

// ---- GET

TEST_F(KXFileServiceTest, GetServesAFileWithItsHeadersAndRawBody) {
  const Response response = ask(request("GET", "/User/notes.txt"));
  EXPECT_EQ(response.header, fileHeader(11, "text/plain"));
  EXPECT_EQ(response.body, "hello notes");
  EXPECT_TRUE(pages_.calls().empty());
}

TEST_F(KXFileServiceTest, GetNamesTheContentTypeByExtension) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"a.jpg", "image/jpeg"},
      {"b.png", "image/png"},
      {"c.gif", "image/gif"},
      {"d.mp3", "audio/mp3"},
      {"e.wav", "audio/x-wav"},
      {"f.xar", "text/plain"},
      {"g.xml", "text/plain"},
      {"h.txt", "text/plain"},
      {"i.cpr", "application/octet-stream"},
      {"j.jpeg", "application/octet-stream"},
      {"k.py", "application/octet-stream"},
      {"noextension", "application/octet-stream"},
      {"UPPER.PNG", "image/png"},
      {"archive.txt.gz", "application/octet-stream"},
  };
  for (const auto& [name, type] : cases) {
    writeFile(user_ / "types" / name, "<" + name + ">");
  }
  RawClient client(port());
  ASSERT_TRUE(client.connected());
  for (const auto& [name, type] : cases) {
    SCOPED_TRACE(name);
    ASSERT_TRUE(client.get("/User/types/" + name));
    const std::optional<Response> response = client.read();
    ASSERT_TRUE(response.has_value());
    EXPECT_EQ(response->header, fileHeader(name.size() + 2, type));
    EXPECT_EQ(response->body, "<" + name + ">");
  }
}

TEST_F(KXFileServiceTest, GetDecodesThePathOnceAndDropsTheQuery) {
  writeFile(user_ / "with space.txt", "spaced");
  writeFile(user_ / "%41.txt", "literal percent");
  Response response = ask(request("GET", "/User/with%20space.txt?version=2"));
  EXPECT_EQ(response.header, fileHeader(6, "text/plain"));
  EXPECT_EQ(response.body, "spaced");
  // "%2541" decodes to "%41" and no further.
  response = ask(request("GET", "/User/%2541.txt"));
  EXPECT_EQ(response.body, "literal percent");
  // "%2E" is a dot.
  response = ask(request("GET", "/User/notes%2Etxt"));
  EXPECT_EQ(response.body, "hello notes");
}

TEST_F(KXFileServiceTest, GetListsADirectorySortedWithFoldersMarked) {
  const fs::path folder = user_ / "listing";
  fs::create_directories(folder / "b");
  fs::create_directories(folder / "z" / "deeper");
  writeFile(folder / "c.bin", "c");
  writeFile(folder / "a.txt", "a");
  writeFile(folder / ".hidden", "h");
  fs::create_directories(user_ / "empty");

  const std::string expected = ".hidden\na.txt\nb/\nc.bin\nz/\n";
  Response response = ask(request("GET", "/User/listing"));
  EXPECT_EQ(response.header, directoryHeader(expected.size()));
  EXPECT_EQ(response.body, expected);
  response = ask(request("GET", "/User/listing/"));
  EXPECT_EQ(response.body, expected);

  response = ask(request("GET", "/User/empty"));
  EXPECT_EQ(response.header, directoryHeader(0));
  EXPECT_EQ(response.body, "");

  // A root's own folder lists too.
  response = ask(request("GET", "/behaviors"));
  EXPECT_EQ(response.header, directoryHeader(0));
  EXPECT_TRUE(pages_.calls().empty());
}

TEST_F(KXFileServiceTest, GetOfNothingUnderARootAnswersNotFound) {
  for (const std::string path :
       {"/User/missing.txt", "/User/notes.txt/below", "/behaviors/none/deeper.xml",
        // The folder of this root does not exist.
        "/boxlibraries/lib.xml", "/tmp", "/System/anything"}) {
    SCOPED_TRACE(path);
    const Response response = ask(request("GET", path));
    EXPECT_EQ(response.header, kNotFoundHeader);
    EXPECT_EQ(response.body, kNotFoundBody);
  }
  EXPECT_TRUE(pages_.calls().empty());
}

TEST_F(KXFileServiceTest, GetOfAnythingElseSendsTheRenderedPageReframed) {
  const std::string endpoint = "http://127.0.0.1:" + std::to_string(port());
  Response response = ask(request("GET", "/index.xml"));
  EXPECT_EQ(response.header,
            "HTTP/1.1 200 OK\r\nContent-Type: text/xml\r\nContent-Length: 7\r\n"
            "Connection: keep-alive\r\n\r\n");
  EXPECT_EQ(response.body, "<page/>");

  // The path reaches the pages as it came: encoded, query and all.
  ask(request("GET", "/?evalKXMemory.getData(%5B%22key%22%5D)"));
  ask(request("GET", "/KXMemory.xml?x=%41"));
  ask(request("GET", "/"));
  // A browser opening the address asks for the page for a person; other pages stay.
  const std::string browser = " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port()) +
                              "\r\nAccept: text/html,application/xhtml+xml,*/*;q=0.8\r\n\r\n";
  ask("GET /" + browser);
  ask("GET /index.xml" + browser);
  // Root names are matched exactly.
  ask(request("GET", "/user/notes.txt"));
  const std::vector<std::pair<std::string, std::string>> expected = {
      {endpoint + "/index.xml", "/index.xml"},
      {endpoint + "/?evalKXMemory.getData(%5B%22key%22%5D)",
       "/?evalKXMemory.getData(%5B%22key%22%5D)"},
      {endpoint + "/KXMemory.xml?x=%41", "/KXMemory.xml?x=%41"},
      {endpoint + "/", "/"},
      {endpoint + "/", "/index.html"},
      {endpoint + "/index.xml", "/index.xml"},
      {endpoint + "/user/notes.txt", "/user/notes.txt"},
  };
  EXPECT_EQ(pages_.calls(), expected);
}

TEST_F(KXFileServiceTest, RenderedPagesKeepTheirStatusAndTypeAndBareBodiesBecomeOk) {
  pages_.answerWith("Broker not found");
  Response response = ask(request("GET", "/index.xml"));
  EXPECT_EQ(response.header,
            "HTTP/1.1 200 OK\r\nContent-Length: 16\r\nConnection: keep-alive\r\n\r\n");
  EXPECT_EQ(response.body, "Broker not found");

  pages_.answerWith("HTTP/1.0 200\r\n\r\n");
  response = ask(request("GET", "/favicon.ico"));
  EXPECT_EQ(response.header,
            "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: keep-alive\r\n\r\n");
  EXPECT_EQ(response.body, "");

  pages_.answerWith(
      "HTTP/1.0 404 Not Here\r\nServer: gSOAP/2.8\r\nContent-type: text/html\r\n"
      "Content-Length: 999\r\n\r\n<p>gone</p>\r\n\r\nstill body");
  response = ask(request("GET", "/gone.html"));
  EXPECT_EQ(response.header,
            "HTTP/1.1 404 Not Here\r\nContent-Type: text/html\r\nContent-Length: 25\r\n"
            "Connection: keep-alive\r\n\r\n");
  EXPECT_EQ(response.body, "<p>gone</p>\r\n\r\nstill body");

  pages_.answerWith("HTTP/1.0 500\r\nContent-Type: text/plain\r\n\r\nbroken");
  response = ask(request("GET", "/broken"));
  EXPECT_EQ(response.header.rfind("HTTP/1.1 500 Internal Server Error\r\n", 0), 0u)
      << response.header;
  EXPECT_EQ(response.body, "broken");
}

TEST_F(KXFileServiceTest, AFailingPageAnswersServerErrorAndTheConnectionGoesOn) {
  pages_.failWith("module page failed");
  RawClient client(port());
  ASSERT_TRUE(client.connected());
  ASSERT_TRUE(client.get("/KXMemory.xml"));
  std::optional<Response> response = client.read();
  ASSERT_TRUE(response.has_value());
  EXPECT_EQ(response->header,
            "HTTP/1.1 500 Internal Server Error\r\nServer: Velmo\r\nContent-Type: text/plain\r\n"
            "Content-Length: 27\r\n\r\n");
  EXPECT_EQ(response->body, "500 - Internal Server Error");
  ASSERT_TRUE(client.get("/User/notes.txt"));
  response = client.read();
  ASSERT_TRUE(response.has_value());
  EXPECT_EQ(response->body, "hello notes");
}

TEST_F(KXFileServiceTest, OneConnectionCarriesSeveralRequests) {
  RawClient client(port());
  ASSERT_TRUE(client.connected());
  ASSERT_TRUE(client.get("/User/notes.txt"));
  std::optional<Response> response = client.read();
  ASSERT_TRUE(response.has_value());
  EXPECT_EQ(response->body, "hello notes");

  ASSERT_TRUE(client.get("/index.xml"));
  response = client.read();
  ASSERT_TRUE(response.has_value());
  EXPECT_EQ(response->body, "<page/>");

  ASSERT_TRUE(client.get("/User/missing"));
  response = client.read();
  ASSERT_TRUE(response.has_value());
  EXPECT_EQ(response->body, kNotFoundBody);

  ASSERT_TRUE(client.put("/User/again.txt", "again"));
  response = client.read();
  ASSERT_TRUE(response.has_value());
  EXPECT_EQ(response->body, "ok");

  ASSERT_TRUE(client.get("/User/again.txt"));
  response = client.read();
  ASSERT_TRUE(response.has_value());
  EXPECT_EQ(response->body, "again");
  EXPECT_EQ(server_->accepted(), 1);
}

TEST_F(KXFileServiceTest, TwoRequestsSentTogetherAreBothAnswered) {
  RawClient client(port());
  ASSERT_TRUE(client.connected());
  ASSERT_TRUE(client.sendAll(request("PUT", "/User/pipelined.txt", std::string("first")) +
                             request("GET", "/User/pipelined.txt")));
  std::optional<Response> response = client.read();
  ASSERT_TRUE(response.has_value());
  EXPECT_EQ(response->body, "ok");
  response = client.read();
  ASSERT_TRUE(response.has_value());
  EXPECT_EQ(response->body, "first");
}

TEST_F(KXFileServiceTest, AnHttp10ClientGetsItsAnswerAndTheConnectionCloses) {
  RawClient client(port());
  ASSERT_TRUE(client.connected());
  ASSERT_TRUE(client.sendAll("GET /User/notes.txt HTTP/1.0\r\n\r\n"));
  const std::optional<std::string> all = client.readUntilClose();
  ASSERT_TRUE(all.has_value());
  EXPECT_EQ(*all,
            "HTTP/1.1 200 OK\r\nServer: Velmo\r\nVelmo-File-Type: regular-file\r\n"
            "Content-Length: 11\r\nContent-Type: text/plain\r\nConnection: close\r\n\r\n"
            "hello notes");
}

TEST_F(KXFileServiceTest, ALargeFileIsServedIntact) {
  const std::string bytes = patternBytes(300 * 1024 + 7);
  writeFile(user_ / "big.bin", bytes);
  const Response response = ask(request("GET", "/User/big.bin"));
  EXPECT_EQ(response.header, fileHeader(bytes.size(), "application/octet-stream"));
  ASSERT_EQ(response.body.size(), bytes.size());
  EXPECT_TRUE(response.body == bytes);
}

// ---- PUT

TEST_F(KXFileServiceTest, PutStoresTheBodyMakingMissingFolders) {
  const std::string body = std::string("line one\r\nline two\0three", 24);
  Response response = ask(request("PUT", "/User/new/deeper/file.txt", body));
  EXPECT_EQ(response.header, kOkHeader);
  EXPECT_EQ(response.body, "ok");
  EXPECT_EQ(readFile(user_ / "new" / "deeper" / "file.txt"), body);

  // A root whose folder does not exist yet gets it; "%2E" is a dot.
  response = ask(request("PUT", "/boxlibraries/my%2Ebox/box%2Epy", std::string("print(1)")));
  EXPECT_EQ(response.body, "ok");
  EXPECT_EQ(readFile(user_ / "boxlibraries" / "my.box" / "box.py"), std::string("print(1)"));

  // Nothing is left beside the file but the file.
  EXPECT_EQ(namesIn(user_ / "new" / "deeper"), std::vector<std::string>{"file.txt"});
}

TEST_F(KXFileServiceTest, PutThatWaitsForContinueIsStored) {
  // What curl does for bodies over 1 KiB: the body follows the interim answer.
  const std::string body = patternBytes(5000);
  RawClient client(port());
  ASSERT_TRUE(client.connected());
  ASSERT_TRUE(client.sendAll(client.start("PUT", "/User/continued.bin") +
                             "Content-Length: 5000\r\nExpect: 100-continue\r\n\r\n"));
  const std::optional<std::string> interim = client.readInterim();
  ASSERT_TRUE(interim.has_value());
  EXPECT_EQ(interim->rfind("HTTP/1.1 100 Continue\r\n", 0), 0u) << *interim;
  ASSERT_TRUE(client.sendAll(body));
  const std::optional<Response> response = client.read();
  ASSERT_TRUE(response.has_value());
  EXPECT_EQ(response->header, kOkHeader);
  EXPECT_TRUE(readFile(user_ / "continued.bin") == body);
}

TEST_F(KXFileServiceTest, PutReplacesAFileAndAcceptsAnEmptyBody) {
  Response response = ask(request("PUT", "/User/notes.txt", std::string("replaced")));
  EXPECT_EQ(response.body, "ok");
  EXPECT_EQ(readFile(user_ / "notes.txt"), std::string("replaced"));

  response = ask(request("PUT", "/User/notes.txt", std::string()));
  EXPECT_EQ(response.header, kOkHeader);
  EXPECT_EQ(readFile(user_ / "notes.txt"), std::string());
}

TEST_F(KXFileServiceTest, PutWithoutALengthAnswersLengthRequired) {
  RawClient client(port());
  ASSERT_TRUE(client.connected());
  ASSERT_TRUE(client.sendAll(client.start("PUT", "/User/nolength.txt") + "\r\n"));
  std::optional<Response> response = client.read();
  ASSERT_TRUE(response.has_value());
  EXPECT_EQ(response->header,
            "HTTP/1.1 411 Length Required\r\nServer: Velmo\r\nContent-Type: text/plain\r\n"
            "Content-Length: 21\r\n\r\n");
  EXPECT_EQ(response->body, "411 - Length Required");
  EXPECT_FALSE(fs::exists(user_ / "nolength.txt"));

  // Such a request has no body: the connection goes on.
  ASSERT_TRUE(client.get("/User/notes.txt"));
  response = client.read();
  ASSERT_TRUE(response.has_value());
  EXPECT_EQ(response->body, "hello notes");
}

TEST_F(KXFileServiceTest, ChunkedPutAnswersLengthRequiredAndClosesTheConnection) {
  RawClient client(port());
  ASSERT_TRUE(client.connected());
  ASSERT_TRUE(client.sendAll(client.start("PUT", "/User/chunked.txt") +
                             "Transfer-Encoding: chunked\r\n\r\n"));
  const std::optional<std::string> all = client.readUntilClose();
  ASSERT_TRUE(all.has_value());
  EXPECT_EQ(*all,
            "HTTP/1.1 411 Length Required\r\nServer: Velmo\r\nContent-Type: text/plain\r\n"
            "Content-Length: 21\r\nConnection: close\r\n\r\n411 - Length Required");
  EXPECT_FALSE(fs::exists(user_ / "chunked.txt"));
}

TEST_F(KXFileServiceTest, ReadOnlyRootsAndPagesRefuseWrites) {
  writeFile(system_ / "lib.xml", "system file");
  for (const std::string path : {"/System/new.xml", "/share/new.xml", "/System/lib.xml",
                                 "/index.xml", "/notaroot/file.txt"}) {
    SCOPED_TRACE(path);
    Response response = ask(request("PUT", path, std::string("written")));
    EXPECT_EQ(response.header, kForbiddenHeader);
    EXPECT_EQ(response.body, kForbiddenBody);
    response = ask(request("DELETE", path));
    EXPECT_EQ(response.header, kForbiddenHeader);
    EXPECT_EQ(response.body, kForbiddenBody);
  }
  EXPECT_EQ(namesIn(system_), std::vector<std::string>{"lib.xml"});
  EXPECT_EQ(readFile(system_ / "lib.xml"), std::string("system file"));
  EXPECT_FALSE(fs::exists(user_ / "notaroot"));
  EXPECT_TRUE(pages_.calls().empty());
}

TEST_F(KXFileServiceTest, RefusedPutKeepsTheConnectionUsable) {
  RawClient client(port());
  ASSERT_TRUE(client.connected());
  ASSERT_TRUE(client.put("/System/x.txt", "dropped body"));
  std::optional<Response> response = client.read();
  ASSERT_TRUE(response.has_value());
  EXPECT_EQ(response->header, kForbiddenHeader);
  // The body was read and dropped: the next request is understood.
  ASSERT_TRUE(client.get("/User/notes.txt"));
  response = client.read();
  ASSERT_TRUE(response.has_value());
  EXPECT_EQ(response->body, "hello notes");
}

TEST_F(KXFileServiceTest, PutOntoAFolderIsAConflict) {
  fs::create_directories(user_ / "folder");
  for (const std::string path : {"/User/folder", "/User", "/User/notes.txt/below"}) {
    SCOPED_TRACE(path);
    const Response response = ask(request("PUT", path, std::string("x")));
    EXPECT_EQ(response.header,
              "HTTP/1.1 409 Conflict\r\nServer: Velmo\r\nContent-Type: text/plain\r\n"
              "Content-Length: 14\r\n\r\n");
    EXPECT_EQ(response.body, "409 - Conflict");
  }
  EXPECT_TRUE(fs::is_directory(user_ / "folder"));
  EXPECT_EQ(readFile(user_ / "notes.txt"), std::string("hello notes"));
}

TEST_F(KXFileServiceTest, PutBodiesUpToTheBoundAreStoredAndLongerOnesRefusedUnread) {
  const std::string large = patternBytes(1024 * 1024 + 3);
  Response response = ask(request("PUT", "/tmp/large.bin", large));
  EXPECT_EQ(response.body, "ok");
  EXPECT_TRUE(readFile(user_ / "tmp" / "large.bin") == large);
  response = ask(request("GET", "/tmp/large.bin"));
  EXPECT_TRUE(response.body == large);

  const std::string bound(KXFileService::kMaxPutBytes, 'b');
  response = ask(request("PUT", "/tmp/bound.bin", bound));
  EXPECT_EQ(response.body, "ok");
  EXPECT_EQ(fs::file_size(user_ / "tmp" / "bound.bin"), KXFileService::kMaxPutBytes);

  // Only the header is sent: the answer comes before any body is read.
  RawClient client(port());
  ASSERT_TRUE(client.connected());
  ASSERT_TRUE(client.sendAll(client.start("PUT", "/tmp/huge.bin") + "Content-Length: " +
                             std::to_string(KXFileService::kMaxPutBytes + 1) + "\r\n\r\n"));
  const std::optional<std::string> all = client.readUntilClose();
  ASSERT_TRUE(all.has_value());
  EXPECT_EQ(*all,
            "HTTP/1.1 413 Payload Too Large\r\nServer: Velmo\r\nContent-Type: text/plain\r\n"
            "Content-Length: 23\r\nConnection: close\r\n\r\n413 - Payload Too Large");
  EXPECT_FALSE(fs::exists(user_ / "tmp" / "huge.bin"));
}

TEST_F(KXFileServiceTest, PutCutShortByThePeerEndsTheConnectionAndStoresNothing) {
  writeFile(user_ / "short" / "kept.txt", "old");
  {
    RawClient client(port());
    ASSERT_TRUE(client.connected());
    ASSERT_TRUE(client.sendAll(client.start("PUT", "/User/short/kept.txt") +
                               "Content-Length: 1000\r\n\r\n0123456789"));
    client.shutdownSending();
    const std::optional<std::string> all = client.readUntilClose();
    ASSERT_TRUE(all.has_value());
    EXPECT_EQ(*all, "");
  }
  // The old file stays, and no partial upload is left beside it.
  EXPECT_EQ(readFile(user_ / "short" / "kept.txt"), std::string("old"));
  EXPECT_EQ(namesIn(user_ / "short"), std::vector<std::string>{"kept.txt"});
  // The server goes on serving.
  const Response response = ask(request("GET", "/User/notes.txt"));
  EXPECT_EQ(response.body, "hello notes");
}

// ---- DELETE

TEST_F(KXFileServiceTest, DeleteRemovesAFileOrAFolderWithItsContent) {
  writeFile(user_ / "gone.txt", "x");
  writeFile(user_ / "tree" / "a" / "b.txt", "b");
  writeFile(user_ / "tree" / "c.txt", "c");
  Response response = ask(request("DELETE", "/User/gone.txt"));
  EXPECT_EQ(response.header, kOkHeader);
  EXPECT_EQ(response.body, "ok");
  EXPECT_FALSE(fs::exists(user_ / "gone.txt"));

  response = ask(request("DELETE", "/User/tree"));
  EXPECT_EQ(response.header, kOkHeader);
  EXPECT_EQ(response.body, "ok");
  EXPECT_FALSE(fs::exists(user_ / "tree"));

  response = ask(request("DELETE", "/User/tree"));
  EXPECT_EQ(response.header, kNotFoundHeader);
  EXPECT_EQ(response.body, kNotFoundBody);
  response = ask(request("DELETE", "/boxlibraries/none"));
  EXPECT_EQ(response.header, kNotFoundHeader);
}

TEST_F(KXFileServiceTest, DeleteOfALinkRemovesTheLinkNotItsTarget) {
  writeFile(user_ / "target.txt", "target");
  fs::create_symlink(user_ / "target.txt", user_ / "inlink");
  const Response response = ask(request("DELETE", "/User/inlink"));
  EXPECT_EQ(response.body, "ok");
  EXPECT_FALSE(fs::exists(fs::symlink_status(user_ / "inlink")));
  EXPECT_EQ(readFile(user_ / "target.txt"), std::string("target"));
}

TEST_F(KXFileServiceTest, DeleteNeverRemovesARootsFolder) {
  fs::create_directories(user_ / "tmp");
  for (const std::string path :
       {"/User", "/User/", "/User/.", "/behaviors", "/User/behaviors", "/User/tmp", "/tmp/"}) {
    SCOPED_TRACE(path);
    const Response response = ask(request("DELETE", path));
    EXPECT_EQ(response.header, kForbiddenHeader);
    EXPECT_EQ(response.body, kForbiddenBody);
  }
  EXPECT_TRUE(fs::is_directory(user_ / "behaviors"));
  EXPECT_TRUE(fs::is_directory(user_ / "tmp"));
  EXPECT_EQ(readFile(user_ / "notes.txt"), std::string("hello notes"));
}

// ---- Requests that try to leave the roots

struct Escape {
  std::string method;
  std::string path;
};

TEST_F(KXFileServiceTest, NoRequestReachesOutsideTheRoots) {
  const std::string absoluteOutside = outside_.string();  // starts with '/'
  writeFile(user_ / "sub" / "inner.txt", "inner");
  const std::vector<Escape> escapes = {
      {"GET", "/User/../outside/secret.txt"},
      {"GET", "/User/%2E%2E/outside/secret.txt"},
      {"GET", "/User/%2e%2e/"},
      {"GET", "/User/sub/%2e%2e/%2e%2e/outside/secret.txt"},
      {"GET", "/User/..%2Foutside%2Fsecret.txt"},
      {"GET", "//etc/passwd"},
      {"GET", "/" + absoluteOutside + "/secret.txt"},
      {"GET", "/User/notes.txt%00.png"},
      {"GET", "/User/%00"},
      {"GET", "/User/link/secret.txt"},
      {"GET", "/User/link"},
      {"GET", "/User/filelink"},
      {"GET", "/../outside/secret.txt"},
      {"GET", "/index.xml/../../outside/secret.txt"},
      {"PUT", "/User/../outside/secret.txt"},
      {"PUT", "/User/%2E%2E/outside/secret.txt"},
      {"PUT", "/User/%2e%2e/outside/new.txt"},
      {"PUT", "/User/..%2Foutside%2Fnew.txt"},
      {"PUT", "/" + absoluteOutside + "/secret.txt"},
      {"PUT", "/User/link/secret.txt"},
      {"PUT", "/User/link/new.txt"},
      {"PUT", "/User/link/deeper/new.txt"},
      {"PUT", "/User/filelink"},
      {"PUT", "/User/new%00.txt"},
      {"DELETE", "/User/../outside/secret.txt"},
      {"DELETE", "/User/%2E%2E/outside"},
      {"DELETE", "/User/%2e%2e/"},
      {"DELETE", "/User/..%2Foutside%2Fsecret.txt"},
      {"DELETE", "/" + absoluteOutside},
      {"DELETE", "/" + absoluteOutside + "/secret.txt"},
      {"DELETE", "/User/link/secret.txt"},
      {"DELETE", "/User/link"},
      {"DELETE", "/User/filelink"},
      {"DELETE", "/User/notes.txt%00"},
  };
  for (const Escape& escape : escapes) {
    SCOPED_TRACE(escape.method + " " + escape.path);
    const std::optional<std::string> body =
        escape.method == "PUT" ? std::optional<std::string>("pwned") : std::nullopt;
    const Response response = ask(request(escape.method, escape.path, body));
    EXPECT_EQ(response.header, kNotFoundHeader);
    EXPECT_EQ(response.body, kNotFoundBody);
    EXPECT_TRUE(
        logs_.hasWarning("KX::KXNetwork::http" + std::string(escape.method == "GET"   ? "Get"
                                                             : escape.method == "PUT" ? "Put"
                                                                                      : "Delete"),
                         "Refused HTTP " + escape.method + " of \"" + escape.path + "\""));
    expectOutsideUntouched();
  }
  EXPECT_EQ(readFile(user_ / "notes.txt"), std::string("hello notes"));
  EXPECT_EQ(readFile(user_ / "sub" / "inner.txt"), std::string("inner"));
  EXPECT_FALSE(fs::exists(user_ / "new.txt"));
  EXPECT_TRUE(pages_.calls().empty());
}

TEST_F(KXFileServiceTest, ALinkThatStaysInsideItsRootIsFollowed) {
  writeFile(user_ / "real" / "inside.txt", "inside");
  fs::create_directory_symlink(user_ / "real", user_ / "alias");
  Response response = ask(request("GET", "/User/alias/inside.txt"));
  EXPECT_EQ(response.body, "inside");
  response = ask(request("PUT", "/User/alias/put.txt", std::string("via alias")));
  EXPECT_EQ(response.body, "ok");
  EXPECT_EQ(readFile(user_ / "real" / "put.txt"), std::string("via alias"));
}

// ---- The standard roots

class ScopedEnvironment {
 public:
  explicit ScopedEnvironment(std::vector<std::string> names) : names_(std::move(names)) {
    for (const std::string& name : names_) {
      const char* value = std::getenv(name.c_str());
      saved_.push_back(value != nullptr ? std::optional<std::string>(value) : std::nullopt);
    }
  }
  ~ScopedEnvironment() {
    for (std::size_t i = 0; i < names_.size(); ++i) {
      if (saved_[i]) {
        setenv(names_[i].c_str(), saved_[i]->c_str(), 1);
      } else {
        unsetenv(names_[i].c_str());
      }
    }
  }
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

 private:
  std::vector<std::string> names_;
  std::vector<std::optional<std::string>> saved_;
};

std::map<std::string, fs::path> userRootsBelow(const fs::path& base) {
  const fs::path user = base / "Korvane" / "velmo";
  const fs::path system = tu::path::sdkDataDir().value_or(fs::path());
  return {{"User", user},
          {"behaviors", user / "behaviors"},
          {"boxlibraries", user / "boxlibraries"},
          {"tmp", user / "tmp"},
          {"System", system},
          {"share", system}};
}

TEST(KXFileServiceRootsTest, UserDataFolderComesFromAppDataThenXdgThenHome) {
  ScopedEnvironment saved({"APPDATA", "XDG_DATA_HOME", "HOME"});
  setenv("APPDATA", "/data/app", 1);
  setenv("XDG_DATA_HOME", "/data/xdg", 1);
  setenv("HOME", "/home/someone", 1);
  EXPECT_EQ(KXFileService::defaultRoots(), userRootsBelow("/data/app"));

  unsetenv("APPDATA");
  EXPECT_EQ(KXFileService::defaultRoots(), userRootsBelow("/data/xdg"));

  setenv("XDG_DATA_HOME", "", 1);
  EXPECT_EQ(KXFileService::defaultRoots(), userRootsBelow("/home/someone/.local/share"));
}

}  // namespace
}  // namespace KX
