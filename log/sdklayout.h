#ifndef VELMO_LOG_SDKLAYOUT_H_
#define VELMO_LOG_SDKLAYOUT_H_

#include <filesystem>
#include <optional>
#include <string>

namespace tu {
namespace path {

// Where the SDK keeps its data. The data folder "velmo" sits in share/ beside the lib/ that
// holds the loaded libvelmo.so, in the build tree (<build>/lib, <build>/share/velmo) as where
// it is installed (<prefix>/lib, <prefix>/share/velmo), so no setting is needed to find it.
// Every function here is thread-safe; none caches a negative answer.

// Whether `inner` is `outer` or lies below it (`strictly`: below only), both canonical:
// the one containment check of every path taken from a request.
bool isWithin(const std::filesystem::path& outer, const std::filesystem::path& inner,
              bool strictly);

// The directory of the loaded libvelmo.so, absolute; nullopt when the loader cannot say.
std::optional<std::filesystem::path> libraryDir();

// The data folder "velmo": "../share/velmo" from libraryDir(); nullopt when it does not
// exist. When the library was reached through a symbolic link and the folder is not beside
// the link, the folder beside the library's real file is taken.
std::optional<std::filesystem::path> sdkDataDir();

// The root of the pages the broker serves: "web/doc" in the data folder; nullopt when absent.
std::optional<std::filesystem::path> docRoot();

// The one mapping from an HTTP request path (already %XX-decoded, without a query) to a file
// under `root`. One or more leading '/' are dropped, so "/xsl/broker.xsl" and
// "xsl/broker.xsl" are the same file. Gives nothing for a path with a ".." component or a
// NUL byte, for a path that does not name a regular file, and for one that leaves `root`
// once symbolic links are followed. The answer is the file's canonical path.
std::optional<std::filesystem::path> resolveDocPath(const std::filesystem::path& root,
                                                    const std::string& requestPath);

// resolveDocPath under docRoot(); nothing when there is no data folder.
std::optional<std::filesystem::path> resolveDocPath(const std::string& requestPath);

// The Content-Type a page file is served with: "application/javascript" when the path
// contains ".js", else "text/xml" when it contains ".xsl", else "text/css" when it contains
// ".css"; nullopt otherwise (such a file is sent without a header).
std::optional<std::string> docContentType(const std::string& requestPath);

}  // namespace path
}  // namespace tu

#endif  // VELMO_LOG_SDKLAYOUT_H_
