// HTTP requests into the files and pages of a broker's port: GET, PUT, DELETE (or any other
// method) of fuzzed paths, headers and bodies, served by the file service over roots in a
// folder of the target's own, and by the broker's pages and URL calls for the paths that
// name no root. Aborts when a request changed anything outside the roots' folders.
//
// An input is one or more requests on one connection, separated by a line "---", each
//   METHOD PATH
//   Header: value
//   (an empty line)
//   body
// with its lines ending in "\n" (sent as "\r\n"), and its body, when it has one, framed by
// a Content-Length that the target adds. The broker requires the token "fuzz-token".
#include <stdlib.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "network/fuzz/fuzz_server_support.h"

namespace {

namespace fs = std::filesystem;

constexpr char kKeptText[] = "kept";

[[noreturn]] void escaped(const fs::path& where, const char* what) {
  std::fprintf(stderr, "a request %s %s, outside the served folders\n", what, where.c_str());
  std::abort();
}

// Where the target makes its folder: $TMPDIR when set, else /dev/shm when there is one (the
// roots are laid out afresh for every input, which a disk's journal makes several times
// slower), else the system's temporary folder.
fs::path temporaryFolder() {
  if (std::getenv("TMPDIR") == nullptr && fs::is_directory("/dev/shm")) return "/dev/shm";
  return fs::temp_directory_path();
}

// A folder of its own in the temporary folder, removed at exit. The roots lie
// four levels below it, so that a request climbing out of them by up to five levels, or
// following one of the links that lead out, still lands inside it and is seen:
//   <top>/1/keep.txt                 a file outside the roots that must stay as it is
//   <top>/1/2/3/served/User          root "User": note.txt, sub/deep.txt, the link "out"
//                                    to <top>/1, and the folder of root "behaviors"
//   <top>/1/2/3/served/System        roots "System" and "share" (read-only): index.txt, the
//                                    link "up" to <top>
//   <top>/1/2/3/served/tmp           root "tmp", whose folder does not exist yet
class Sandbox {
 public:
  Sandbox() {
    std::string pattern = (temporaryFolder() / "velmo-fuzz-http-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
      std::perror("mkdtemp");
      std::abort();
    }
    top_ = pattern;
    outside_ = top_ / "1";
    served_ = outside_ / "2" / "3" / "served";
    fs::create_directories(served_.parent_path());
    write(outside_ / "keep.txt", kKeptText);
  }
  ~Sandbox() {
    std::error_code error;
    fs::remove_all(top_, error);
  }
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;

  std::map<std::string, fs::path> roots() const {
    return {{"User", served_ / "User"},
            {"behaviors", served_ / "User" / "behaviors"},
            {"tmp", served_ / "tmp"},
            {"System", served_ / "System"},
            {"share", served_ / "System"}};
  }

  // Lays the roots' folders out afresh: every input starts from the same files.
  void reset() const {
    fs::remove_all(served_);
    fs::create_directories(served_ / "User" / "sub");
    fs::create_directories(served_ / "User" / "behaviors");
    fs::create_directories(served_ / "System");
    write(served_ / "User" / "note.txt", "a note");
    write(served_ / "User" / "sub" / "deep.txt", "deep");
    write(served_ / "System" / "index.txt", "index");
    fs::create_directory_symlink(outside_, served_ / "User" / "out");
    fs::create_directory_symlink(top_, served_ / "System" / "up");
  }

  // Aborts unless everything outside the roots' folders is as reset() left it.
  void check() const {
    const fs::path kept = outside_ / "keep.txt";
    std::ifstream in(kept, std::ios::binary);
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (text != kKeptText || !fs::is_regular_file(fs::symlink_status(kept))) {
      escaped(kept, "changed or removed");
    }
    const std::vector<fs::path> fixed = {outside_, kept, outside_ / "2", outside_ / "2" / "3"};
    for (fs::recursive_directory_iterator entry(top_), end; entry != end; ++entry) {
      const fs::path& path = entry->path();
      if (isBelow(served_, path)) {
        entry.disable_recursion_pending();
      } else if (std::find(fixed.begin(), fixed.end(), path) == fixed.end()) {
        escaped(path, "created");
      }
    }
  }

 private:
  static void write(const fs::path& file, const std::string& text) {
    std::ofstream(file, std::ios::binary) << text;
  }
  // Compared as the names given, without resolving anything: what matters is where the
  // entry is, not where it leads.
  static bool isBelow(const fs::path& folder, const fs::path& path) {
    auto inside = path.begin();
    for (auto part = folder.begin(); part != folder.end(); ++part, ++inside) {
      if (inside == path.end() || *inside != *part) return false;
    }
    return true;
  }

  fs::path top_;
  fs::path outside_;
  fs::path served_;
};

// The bytes a client sends for the requests of an input (see above); empty when there are
// more than a connection carries.
std::string requestsOf(std::string_view input) {
  std::string wire;
  constexpr std::string_view kSeparator = "\n---\n";
  for (std::size_t start = 0; start <= input.size();) {
    std::size_t end = input.find(kSeparator, start);
    if (end == std::string_view::npos) end = input.size();
    const std::string_view request = input.substr(start, end - start);
    start = end + kSeparator.size();

    const std::size_t headEnd = request.find("\n\n");
    std::string_view head = request.substr(0, headEnd);
    const std::string_view body =
        headEnd == std::string_view::npos ? std::string_view() : request.substr(headEnd + 2);
    const std::size_t lineEnd = head.find('\n');
    wire.append(head.substr(0, lineEnd)).append(" HTTP/1.1\r\n");
    head.remove_prefix(lineEnd == std::string_view::npos ? head.size() : lineEnd + 1);
    while (!head.empty()) {
      const std::size_t next = head.find('\n');
      wire.append(head.substr(0, next)).append("\r\n");
      head.remove_prefix(next == std::string_view::npos ? head.size() : next + 1);
    }
    if (!body.empty()) wire.append("Content-Length: ").append(std::to_string(body.size()));
    wire.append(body.empty() ? "\r\n" : "\r\n\r\n").append(body);
    if (wire.size() > KX::fuzzing::kMaxConnectionBytes) return std::string();
  }
  return wire;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Sandbox sandbox;
  static const std::shared_ptr<KX::KXNetworkServer> server =
      KX::fuzzing::makeServer(sandbox.roots(), "fuzz-token");
  const std::string wire = requestsOf(std::string_view(reinterpret_cast<const char*>(data), size));
  if (wire.empty()) return -1;
  sandbox.reset();
  KX::fuzzing::serveBytes(*server, wire);
  sandbox.check();
  return 0;
}
