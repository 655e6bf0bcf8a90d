// A 1 GiB file PUT to a broker's port, as a tool uploads one: the time it takes, and the
// server's resident memory (KiB) before it and at its peak during it (VmHWM, reset first),
// which stays far below the body's size since the body goes to the file as it arrives. The
// server is peer_bench_network_server, in a process of its own, with its user data folder
// in a fresh temporary folder.
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>

#include "bench/benchserver.h"

namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t kBodyBytes = 1ull << 30;
constexpr std::size_t kPiece = 1 << 20;

// Bytes i % 251 from `offset` on: no piece repeats the one before.
const std::string& pattern() {
  static const std::string bytes = [] {
    std::string text(kPiece + 251, '\0');
    for (std::size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>(i % 251);
    return text;
  }();
  return bytes;
}

// A folder of its own, removed with this.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string name = (fs::temp_directory_path() / "velmo-put-bench-XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = name;
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  const fs::path& path() const { return path_; }

 private:
  fs::path path_;
};

// The server, its user data folder being `data`: the environment it inherits says so.
std::unique_ptr<bench::ServerProcess> serverWithDataIn(const fs::path& data) {
  ::unsetenv("APPDATA");
  ::setenv("XDG_DATA_HOME", data.c_str(), 1);
  auto server = std::make_unique<bench::ServerProcess>(bench::serverPath());
  ::unsetenv("XDG_DATA_HOME");
  return server;
}

// One HTTP connection to 127.0.0.1:port, closed with this.
class HttpConnection {
 public:
  explicit HttpConnection(int port) : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd_ < 0 || ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
      throw std::runtime_error("connect: " + std::string(std::strerror(errno)));
    }
  }
  ~HttpConnection() { ::close(fd_); }
  HttpConnection(const HttpConnection&) = delete;
  HttpConnection& operator=(const HttpConnection&) = delete;

  bool send(const char* data, std::size_t size) {
    while (size > 0) {
      const ssize_t n = ::send(fd_, data, size, MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      data += n;
      size -= static_cast<std::size_t>(n);
    }
    return true;
  }

  // The answer's status line, once its head has come; empty when the connection ends first.
  std::string statusLine() {
    std::string head;
    char buffer[4096];
    while (head.find("\r\n\r\n") == std::string::npos) {
      const ssize_t n = ::recv(fd_, buffer, sizeof(buffer), 0);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return std::string();
      head.append(buffer, static_cast<std::size_t>(n));
    }
    return head.substr(0, head.find("\r\n"));
  }

 private:
  const int fd_;
};

// The body, sent in pieces: this process never holds it whole either.
bool putFile(int port, const std::string& path) {
  HttpConnection connection(port);
  const std::string head = "PUT " + path + " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) +
                           "\r\nContent-Length: " + std::to_string(kBodyBytes) + "\r\n\r\n";
  if (!connection.send(head.data(), head.size())) return false;
  for (std::uint64_t sent = 0; sent < kBodyBytes;) {
    const std::size_t piece =
        static_cast<std::size_t>(std::min<std::uint64_t>(kPiece, kBodyBytes - sent));
    if (!connection.send(pattern().data() + sent % 251, piece)) return false;
    sent += piece;
  }
  return connection.statusLine() == "HTTP/1.1 200 OK";
}

// Whether `file` holds the body, byte for byte.
bool holdsBody(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::string piece(kPiece, '\0');
  std::uint64_t offset = 0;
  while (in.read(piece.data(), kPiece) || in.gcount() > 0) {
    const auto read = static_cast<std::size_t>(in.gcount());
    if (piece.compare(0, read, pattern(), offset % 251, read) != 0) return false;
    offset += read;
  }
  return offset == kBodyBytes;
}

void BM_PutFile(benchmark::State& state) {
  const TemporaryFolder data;
  const std::unique_ptr<bench::ServerProcess> server = serverWithDataIn(data.path());
  const std::string clearRefs = "/proc/" + std::to_string(server->pid()) + "/clear_refs";
  const double before = bench::statusKib(server->pid(), "VmRSS");
  // "5" starts the peak again from the current resident memory.
  if (!(std::ofstream(clearRefs) << "5" << std::flush)) {
    state.SkipWithError("cannot reset the server's peak memory");
    return;
  }
  bool stored = true;
  for (auto _ : state) stored = stored && putFile(server->port(), "/tmp/put.bin");
  state.counters["server_rss_before"] = before;
  state.counters["server_rss_peak"] = bench::statusKib(server->pid(), "VmHWM");
  if (!stored || !holdsBody(data.path() / "Korvane" / "velmo" / "tmp" / "put.bin")) {
    state.SkipWithError("the file stored differs from the body sent");
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBodyBytes));
}
BENCHMARK(BM_PutFile)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
