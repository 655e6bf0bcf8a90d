#include "brokerprogram/accessoptions.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include "network/kxaccesssettings.h"
#include "value/textcoding.h"

namespace velmo {
namespace {

std::string modeText(std::filesystem::perms mode) {
  char text[16];
  std::snprintf(text, sizeof(text), "%04o",
                static_cast<unsigned>(mode & std::filesystem::perms::mask));
  return text;
}

}  // namespace

std::string readTokenFile(const std::string& path) {
  namespace fs = std::filesystem;
  const std::string named = "the token file " + path;
  std::error_code error;
  const fs::file_status status = fs::status(path, error);
  if (error) throw std::runtime_error(named + " cannot be read: " + error.message());
  if (!fs::is_regular_file(status)) throw std::runtime_error(named + " is not a file");
  const fs::perms mode = status.permissions();
  if ((mode & (fs::perms::group_read | fs::perms::others_read)) != fs::perms::none) {
    throw std::runtime_error(named + " can be read by other users (mode " + modeText(mode) +
                             "); make it private: chmod 600 " + path);
  }
  std::ifstream file(path);
  std::string line;
  if (!file) throw std::runtime_error(named + " cannot be read");
  std::getline(file, line);
  if (!line.empty() && line.back() == '\r') line.pop_back();
  const std::string token(KX::trimBlanks(line));
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
                           portText + KX::kTokenQuery + token +
                           " in a browser; programs send the token of VELMO_TOKEN");
  }
  return notice;
}

}  // namespace velmo
