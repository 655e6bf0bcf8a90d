#ifndef VELMO_BROKERPROGRAM_ACCESSOPTIONS_H_
#define VELMO_BROKERPROGRAM_ACCESSOPTIONS_H_

#include <string>
#include <vector>

namespace velmo {

// Reads the token kept in the file at `path`: its first line without surrounding blanks.
// Throws std::runtime_error naming the file when it cannot be read, when users other than
// its owner may read it, or when it holds no usable token.
std::string readTokenFile(const std::string& path);

// What the broker program says at start about who may reach it.
struct AccessNotice {
  std::vector<std::string> lines;
  std::string warning;  // empty: none
};

// ip: the address listened on ("" or "0.0.0.0": every interface); token: "" for none.
AccessNotice accessNotice(const std::string& ip, int port, const std::string& token);

}  // namespace velmo

#endif  // VELMO_BROKERPROGRAM_ACCESSOPTIONS_H_
