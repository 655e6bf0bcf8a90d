#include "brokerprogram/accessoptions.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "network/kxaccesspolicy.h"

namespace velmo {
namespace {

constexpr std::size_t kMaxTokenFileBytes = 4096;

class ReadOnlyFile {
 public:
  explicit ReadOnlyFile(const std::string& path)
      : fd_(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {}
  ~ReadOnlyFile() {
    if (fd_ >= 0) ::close(fd_);
  }
  ReadOnlyFile(const ReadOnlyFile&) = delete;
  ReadOnlyFile& operator=(const ReadOnlyFile&) = delete;
  int get() const { return fd_; }

 private:
  const int fd_;
};

std::string modeText(mode_t mode) {
  char text[8];
  std::snprintf(text, sizeof(text), "%04o", static_cast<unsigned>(mode & 07777));
  return text;
}

}  // namespace

std::string readTokenFile(const std::string& path) {
  const std::string named = "the token file " + path;
  ReadOnlyFile file(path);
  struct stat info {};
  if (file.get() < 0 || ::fstat(file.get(), &info) != 0) {
    throw std::runtime_error(named + " cannot be read: " + std::strerror(errno));
  }
  if (!S_ISREG(info.st_mode)) throw std::runtime_error(named + " is not a file");
  if ((info.st_mode & (S_IRGRP | S_IROTH)) != 0) {
    throw std::runtime_error(named + " can be read by other users (mode " + modeText(info.st_mode) +
                             "); make it private: chmod 600 " + path);
  }
  std::string content(kMaxTokenFileBytes, '\0');
  const ssize_t size = ::read(file.get(), content.data(), content.size());
  if (size < 0) throw std::runtime_error(named + " cannot be read: " + std::strerror(errno));
  content.resize(static_cast<std::size_t>(size));
  std::string token = content.substr(0, content.find_first_of("\r\n"));
  const std::size_t first = token.find_first_not_of(" \t");
  token = first == std::string::npos
              ? std::string()
              : token.substr(first, token.find_last_not_of(" \t") - first + 1);
  const std::string problem = KX::tokenProblem(token);
  if (!problem.empty()) throw std::runtime_error(named + ": " + problem);
  return token;
}

AccessNotice accessNotice(const std::string& ip, int port, const std::string& token) {
  AccessNotice notice;
  const bool everywhere = ip.empty() || ip == "0.0.0.0";
  const std::string portText = std::to_string(port);
  notice.lines.push_back(everywhere ? "Listening on every interface, port " + portText
                                    : "Listening on " + ip + ":" + portText);
  if (token.empty()) {
    notice.lines.push_back("No token is required");
    if (everywhere) {
      notice.warning =
          "Anyone who can reach this machine can use this broker: listen on one address "
          "(--ip 127.0.0.1), or require a token (VELMO_TOKEN or --token-file)";
    }
  } else {
    const std::string host = everywhere ? "127.0.0.1" : ip;
    notice.lines.push_back("A token is required for every request; open http://" + host + ":" +
                           portText + KX::KXAccessPolicy::kTokenQuery + token +
                           " in a browser; programs send the token of VELMO_TOKEN");
  }
  return notice;
}

}  // namespace velmo
