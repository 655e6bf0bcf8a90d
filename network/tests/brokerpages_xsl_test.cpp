// The broker's XML pages as a browser that applies XSLT shows them: each page through the
// stylesheet its processing instruction names, found where the file service looks for it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <regex>
#include <string>

#include "broker/kxbroker.h"
#include "log/sdklayout.h"
#include "module/kxmodulecore.h"

namespace KX {
namespace testing {
namespace {

// Descriptions with markup characters.
class Gearbox : public KXModule {
 public:
  Gearbox(const std::shared_ptr<KXBroker>& broker, const std::string& name)
      : KXModule(broker, name) {
    setModuleDescription("Shifts gears <fast> & \"smooth\"");
    functionName("shift", "Gearbox", "Moves to another gear");
    addParam("gear", "the gear to engage");
    addParam("mode", "how: 'soft' or \"hard\"");
    setReturn("engaged", "true once the gear is in");
    bindMethod(&Gearbox::shift);
  }
  bool shift(const int& gear, const std::string& mode) { return gear > 0 && !mode.empty(); }
};

std::size_t count(const std::string& text, const std::string& part) {
  std::size_t found = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++found;
  }
  return found;
}

// The page at `path` as xsltproc renders it with the stylesheet the page names (where the
// file service finds it); its messages, if any, come first and fail the test.
std::string render(KXBroker& broker, const std::string& path) {
  const std::string page = broker.getPage(path);
  std::smatch named;
  if (!std::regex_search(page, named,
                         std::regex("<\\?xml-stylesheet type=\"text/xsl\" href=\"([^\"]+)\""))) {
    return "no stylesheet named in " + page;
  }
  const auto stylesheet = tu::path::resolveDocPath("/" + named[1].str());
  if (!stylesheet) return "no file for " + named[1].str();
  const std::string input = ::testing::TempDir() + "velmo-page-" + std::to_string(getpid());
  std::ofstream(input) << page.substr(page.find("\r\n\r\n") + 4);
  FILE* pipe =
      popen(("xsltproc --nonet '" + stylesheet->string() + "' '" + input + "' 2>&1").c_str(), "r");
  std::string html;
  char buffer[4096];
  for (std::size_t n = 0; pipe != nullptr && (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) {
    html.append(buffer, n);
  }
  EXPECT_EQ(pipe != nullptr ? pclose(pipe) : -1, 0)
      << "xsltproc (Debian package xsltproc) failed on " << path << ":\n"
      << html;
  std::remove(input.c_str());
  EXPECT_EQ(html.rfind("<!DOCTYPE html", 0), 0u) << html;
  EXPECT_EQ(count(html, "</html>"), 1u) << html;
  return html;
}

TEST(BrokerPagesXslTest, EachPageShowsWhatItsXmlHolds) {
  // Offline: the pages need no listening network.
  const auto broker =
      KXBroker::createBroker("xsltest", "127.0.0.1", 0, "", 0, KXBroker::kKeepAlive, "", false);
  createModule<Gearbox>(broker, "Alpha");
  createModule<Gearbox>(broker, "Gearbox");
  const struct {
    const char* path;
    std::string part;
    std::size_t times;
  } cases[] = {
      {"/index.xml", "<title>Velmo Broker : xsltest</title>", 1},
      {"/index.xml", "href=\"css/velmo.css\"", 1},  // served from the same root
      {"/index.xml", "<a class=\"module\" href=\"Gearbox.xml\">Gearbox</a>", 1},
      {"/index.xml", "shift", 0},  // methods are on the modules' pages
      {"/full", "<code>shift</code>", 2},
      // Markup in descriptions arrives as text, never as tags.
      {"/Gearbox.xml", "Shifts gears &lt;fast&gt; &amp; \"smooth\"", 1},
      {"/Gearbox.xml", "<h3><code>shift</code></h3>", 1},
      {"/Gearbox.xml",
       "<td><code>mode</code></td>\n<td class=\"type\">string</td>\n<td>how: 'soft' or "
       "\"hard\"</td>",
       1},
      // URL calls are links from the root, whatever the page's own path.
      {"/Gearbox.xml", "<a href=\"/?evalGearbox.shift(", 1},
      {"/Gearbox.xml", "rel=\"prev\" href=\"Alpha.xml\"", 2},
      {"/Alpha.xml", "rel=\"next\" href=\"Gearbox.xml\"", 2},
      {"/Alpha.xml", "rel=\"prev\" href", 0},
  };
  std::map<std::string, std::string> pages;
  for (const auto& c : cases) {
    if (pages.count(c.path) == 0) pages[c.path] = render(*broker, c.path);
    EXPECT_EQ(count(pages[c.path], c.part), c.times) << c.path << ": " << c.part;
  }
  // Every method the page describes gets its entry.
  EXPECT_EQ(count(pages["/Gearbox.xml"], "<article class=\"method\""),
            count(broker->getPage("/Gearbox.xml"), "<method>"));
  broker->shutdown();
}

}  // namespace
}  // namespace testing
}  // namespace KX
