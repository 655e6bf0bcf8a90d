#include "log/sdklayout.h"

#include <dlfcn.h>

#include <algorithm>
#include <system_error>

namespace fs = std::filesystem;

namespace tu {
namespace path {

namespace {

// The loaded libvelmo.so as the loader knows it (absolute, links not followed). Any
// function of this file serves to ask, since it is linked into the library.
std::optional<fs::path> libraryFile() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&libraryFile), &info) == 0 || info.dli_fname == nullptr ||
      info.dli_fname[0] == '\0') {
    return std::nullopt;
  }
  std::error_code error;
  fs::path file = fs::absolute(info.dli_fname, error);
  if (error) return std::nullopt;
  return file;
}

// The data folder beside the lib/ that holds `library`, canonical; nullopt when absent.
std::optional<fs::path> dataDirBeside(const fs::path& library) {
  std::error_code error;
  const fs::path candidate = library.parent_path() / ".." / "share" / "velmo";
  if (!fs::is_directory(candidate, error)) return std::nullopt;
  fs::path found = fs::canonical(candidate, error);
  if (error) return std::nullopt;
  return found;
}

}  // namespace

bool isWithin(const fs::path& outer, const fs::path& inner, bool strictly) {
  const auto ends = std::mismatch(outer.begin(), outer.end(), inner.begin(), inner.end());
  return ends.first == outer.end() && (!strictly || ends.second != inner.end());
}

std::optional<fs::path> libraryDir() {
  const std::optional<fs::path> file = libraryFile();
  if (!file) return std::nullopt;
  return file->parent_path();
}

std::optional<fs::path> sdkDataDir() {
  const std::optional<fs::path> file = libraryFile();
  if (!file) return std::nullopt;
  if (std::optional<fs::path> found = dataDirBeside(*file)) return found;
  // A library reached through a link (lib/libvelmo.so -> /opt/velmo/lib/libvelmo.so.1)
  // keeps its data beside its real file.
  std::error_code error;
  const fs::path real = fs::canonical(*file, error);
  if (error || real == *file) return std::nullopt;
  return dataDirBeside(real);
}

std::optional<fs::path> docRoot() {
  const std::optional<fs::path> data = sdkDataDir();
  if (!data) return std::nullopt;
  std::error_code error;
  const fs::path root = *data / "web" / "doc";
  if (!fs::is_directory(root, error)) return std::nullopt;
  return root;
}

std::optional<fs::path> resolveDocPath(const fs::path& root, const std::string& requestPath) {
  // A NUL would cut the name short at the system call, naming another file than checked.
  if (requestPath.find('\0') != std::string::npos) return std::nullopt;
  const size_t start = requestPath.find_first_not_of('/');
  if (start == std::string::npos) return std::nullopt;
  const fs::path relative(requestPath.substr(start));
  // Refused outright rather than normalised: no page needs to climb.
  for (const fs::path& part : relative) {
    if (part == "..") return std::nullopt;
  }

  std::error_code error;
  const fs::path realRoot = fs::canonical(root, error);
  if (error) return std::nullopt;
  // Following the links is what tells a link inside the root that leads out of it.
  fs::path file = fs::canonical(realRoot / relative, error);
  if (error || !isWithin(realRoot, file, true)) return std::nullopt;
  if (!fs::is_regular_file(file, error)) return std::nullopt;
  return file;
}

std::optional<fs::path> resolveDocPath(const std::string& requestPath) {
  const std::optional<fs::path> root = docRoot();
  if (!root) return std::nullopt;
  return resolveDocPath(*root, requestPath);
}

std::optional<std::string> docContentType(const std::string& requestPath) {
  // Tested in this order on the whole path, so "a.json" and "a.js.css" are scripts.
  if (requestPath.find(".js") != std::string::npos) return std::string("application/javascript");
  if (requestPath.find(".xsl") != std::string::npos) return std::string("text/xml");
  if (requestPath.find(".css") != std::string::npos) return std::string("text/css");
  return std::nullopt;
}

}  // namespace path
}  // namespace tu
