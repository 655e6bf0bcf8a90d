// The broker's XML pages as a browser that applies XSLT shows them: each page through the
// stylesheet its processing instruction names, found where the file service looks for it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <regex>

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
    addParam("mode", "how: 'soft' or \"hard\"");
    bindMethod(&Gearbox::shift);
  }
  bool shift(const std::string& mode) { return !mode.empty(); }
};

std::size_t count(const std::string& text, const std::string& part) {
  std::size_t found = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++found;
  }
  return found;
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
      {"/Gearbox.xml", "<td><code>mode</code></td>\n<td class=\"type\">string</td>", 1},
      {"/Gearbox.xml", "<td>how: 'soft' or \"hard\"</td>", 1},
      {"/Gearbox.xml", "<a href=\"/?evalGearbox.shift(", 1},  // from the root, whatever the page
      {"/Gearbox.xml", "rel=\"prev\" href=\"Alpha.xml\"", 2},
      {"/Alpha.xml", "rel=\"next\" href=\"Gearbox.xml\"", 2},
      {"/Alpha.xml", "rel=\"prev\" href", 0},
  };
  const std::string input = ::testing::TempDir() + "velmo-page-" + std::to_string(getpid());
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.path) + ": " + c.part);
    const std::string page = broker->getPage(c.path);
    std::smatch named;
    ASSERT_TRUE(std::regex_search(
        page, named, std::regex("<\\?xml-stylesheet type=\"text/xsl\" href=\"([^\"]+)\"")));
    const auto stylesheet = tu::path::resolveDocPath("/" + named[1].str());
    ASSERT_TRUE(stylesheet.has_value()) << named[1];
    std::ofstream(input) << page.substr(page.find("\r\n\r\n") + 4);
    // Messages of xsltproc (Debian package xsltproc), if any, come first and fail the test.
    FILE* pipe = popen(
        ("xsltproc --nonet '" + stylesheet->string() + "' '" + input + "' 2>&1").c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    std::string html;
    char buffer[4096];
    for (std::size_t n; (n = fread(buffer, 1, sizeof buffer, pipe)) > 0;) html.append(buffer, n);
    ASSERT_EQ(pclose(pipe), 0) << html;
    EXPECT_EQ(html.rfind("<!DOCTYPE html", 0), 0u) << html;
    EXPECT_EQ(count(html, "</html>"), 1u) << html;
    EXPECT_EQ(count(html, c.part), c.times);
    if (c.path != std::string("/full")) {  // each method a module's page describes
      EXPECT_EQ(count(html, "<article class=\"method\""), count(page, "<method>"));
    }
  }
  std::remove(input.c_str());
  broker->shutdown();
}

}  // namespace
}  // namespace testing
}  // namespace KX
