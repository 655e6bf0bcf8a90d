#ifndef VELMO_NETWORK_DETAIL_KXFILESERVICE_H_
#define VELMO_NETWORK_DETAIL_KXFILESERVICE_H_

// The plain HTTP side of a broker's port: GET serves files, directory listings and the
// broker's pages; PUT stores files; DELETE removes files and folders.

#include <stdsoap2.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "network/detail/kxaccesspolicy.h"

namespace KX {

// The full HTTP answer (status line, headers, body) for a GET whose path names no file,
// given the request's endpoint text "http://" + Host header + path, and the path as it
// came (still %XX-encoded, query included). A bare body without a status line is answered
// as 200 without a Content-Type. Called from the threads that serve connections, possibly
// several at once.
using PageRenderer =
    std::function<std::string(const std::string& endpoint, const std::string& path)>;

// Maps request paths to files under a few named folders, the roots: the first component of
// a path names the root ("/User/a/b.txt" is "a/b.txt" under the root "User"), paths whose
// first component names no root are pages (GET only, through the PageRenderer).
//
// The roots "System" and "share" are read-only (PUT and DELETE answer 403); the others
// accept PUT and DELETE. A root's folder need not exist: GET answers 404 below it, PUT
// creates it. No request reads, writes or deletes anything outside the roots' folders:
// a path with a ".." component or a NUL byte (once %XX-decoded), one starting with "//",
// or one that leaves its root through a symbolic link is refused with 404 and a warning in
// the log. A root's folder itself is never deleted.
//
// Every request on the port, SOAP POSTs included, first passes the access policy (when
// there is one): a request it refuses is answered here (403 or 401 and a one-line reason,
// the connection then closed) and reaches neither the files, the pages nor the broker
// protocol. No answer allows other origins to read it (no CORS headers); OPTIONS and HEAD
// are answered 405.
//
// Immutable once built; its callbacks serve any number of connections at once.
class KXFileService {
 public:
  // The largest PUT body stored unless told otherwise. Bodies go to the file as they
  // arrive, never whole into memory: the limit is one of disk space.
  static constexpr std::uint64_t kMaxPutBytes = 1ull << 30;

  // roots: first path component -> folder (an empty path: a root without a folder).
  // access: null lets every request in. maxPutBytes: a longer PUT body is answered 413
  // without being read.
  KXFileService(std::map<std::string, std::filesystem::path> roots, PageRenderer pages,
                std::shared_ptr<const KXAccessPolicy> access = nullptr,
                std::uint64_t maxPutBytes = kMaxPutBytes);

  KXFileService(const KXFileService&) = delete;
  KXFileService& operator=(const KXFileService&) = delete;

  // The standard roots. The user data folder is $APPDATA, else $XDG_DATA_HOME, else
  // ~/.local/share, followed by "Korvane/velmo": "User" is that folder, "behaviors",
  // "boxlibraries" and "tmp" are its subfolders of those names; "System" and "share" are
  // the SDK data folder. A folder that cannot be found (no SDK data folder, no home for
  // ~/.local/share) is an empty path. Reads the environment when called.
  static std::map<std::string, std::filesystem::path> defaultRoots();

  // Installs the GET, PUT and DELETE callbacks on a server context and points soap->user at
  // this service. Also makes the context's sends never raise SIGPIPE (a peer that leaves
  // in the middle of an answer must not end the process), and watches the request headers
  // for a Content-Length (gSOAP reads an absent one as 0). Copies made with soap_copy
  // inherit all of it: the service must outlive the context and every copy of it.
  void install(struct soap* server) const;

 private:
  using ParseFunction = int (*)(struct soap*);
  using ParseHeaderFunction = int (*)(struct soap*, const char*, const char*);

  static int httpGet(struct soap* soap);
  static int httpPut(struct soap* soap);
  static int httpDelete(struct soap* soap);
  static int httpRefused(struct soap* soap);
  static int parseRequest(struct soap* soap);
  static int parseHeader(struct soap* soap, const char* key, const char* value);

  int serveGet(struct soap* soap) const;
  int servePut(struct soap* soap) const;
  int serveDelete(struct soap* soap) const;
  // Answers a request that the access policy does not let in; SOAP_OK when it may go on.
  int admit(struct soap* soap) const;

  // Constant after construction.
  std::map<std::string, std::filesystem::path> roots_;
  PageRenderer pages_;
  std::shared_ptr<const KXAccessPolicy> access_;
  std::uint64_t maxPutBytes_;
  // The runtime's own request and header parsers, which ours wrap. Set by install, before
  // the context serves anything.
  mutable std::atomic<ParseFunction> parse_{nullptr};
  mutable std::atomic<ParseHeaderFunction> parseHeader_{nullptr};
};

}  // namespace KX

#endif  // VELMO_NETWORK_DETAIL_KXFILESERVICE_H_
