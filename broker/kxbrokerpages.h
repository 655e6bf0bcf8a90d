#ifndef VELMO_BROKER_KXBROKERPAGES_H_
#define VELMO_BROKER_KXBROKERPAGES_H_

#include <string>

#include "value/kxvalue.h"

namespace KX {

class KXBroker;

namespace detail {

// The broker's HTTP pages: the whole response (status line, headers, body) that answers a
// GET of `path` on `broker`'s port.
//   "/favicon.ico"              an empty answer
//   "/?eval<mod>.<meth>(<args>)" a URL call; <args> is an Array in compact text form
//                              ("/?eval=<mod>..." too)
//   "/?json<mod>.<meth>(<args>)" the same call answered as JSON (application/json):
//                              {"result": value} or {"error": text}
//   "/index.html", "/full.html" the broker page for a person (HTML; its script draws it
//                              from the XML page's data)
//   "/<module>.html"            the module page for a person (for "KXMemory" with a live
//                              view of the data)
//   "/full"                     the broker page with every module's methods
//   "/index.xml", "/"           the broker page
//   "/<module>.xml"             the module page
//   "/<module>Content.html"     the module's own content page
//   any other path             the file of that path in the SDK's "web/doc" folder, after a
//                              header naming its type (scripts, stylesheets, CSS; no header
//                              for other kinds); the broker page when there is no such file
// %XX escapes in the path are decoded first.
// Reads the broker's state, and runs what the page needs: a module's own content page
// and URL calls (methodCall below); safe from any thread.
std::string answerPage(KXBroker& broker, const std::string& path);

// Makes the URL call "<module>.<method>(<args>)": its result, or Invalid with the reason
// it could not be made in `error` (empty on success).
KXValue callFromUrl(KXBroker& broker, const std::string& call, std::string& error);
// The body of a URL call: the result's compact text, or the reason the call could not be
// made.
std::string evaluateUrlCall(KXBroker& broker, const std::string& call);
// The body of a JSON URL call: {"result": value} or {"error": text}.
std::string evaluateUrlCallAsJson(KXBroker& broker, const std::string& call);

}  // namespace detail
}  // namespace KX

#endif  // VELMO_BROKER_KXBROKERPAGES_H_
