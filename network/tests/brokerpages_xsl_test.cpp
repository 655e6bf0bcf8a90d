// The broker's pages as a browser shows them: each page through the stylesheet its
// processing instruction names, found where the file service looks for it.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>

#include "broker/kxbroker.h"
#include "log/sdklayout.h"
#include "module/kxmodulecore.h"
#include "module/kxtaskmonitor.h"
#include "thread/tests/thread_test_support.h"
#include "value/kxvalue.h"

namespace KX {
namespace testing {
namespace {

namespace fs = std::filesystem;

// A module whose descriptions carry markup characters, and a method that blocks until
// released so that it shows as a running task.
class Gearbox : public KXModule {
 public:
  Gearbox(const std::shared_ptr<KXBroker>& broker, const std::string& name)
      : KXModule(broker, name) {
    setModuleDescription("Shifts gears <fast> & \"smooth\"");

    functionName("shift", "Gearbox", "Moves to another gear <now> & later");
    addParam("gear", "the gear to engage");
    addParam("mode", "how: 'soft' or \"hard\"");
    setReturn("engaged", "true once the gear is in");
    bindMethod(&Gearbox::shift);

    functionName("hold", "Gearbox", "Holds the box until released");
    bindMethod(&Gearbox::hold);
  }

  bool shift(const int& gear, const std::string& mode) { return gear > 0 && !mode.empty(); }
  void hold() {
    started_.countDown();
    release_.wait();
  }

  Latch& started() { return started_; }
  void release() { release_.countDown(); }

 private:
  Latch started_{1};
  Latch release_{1};
};

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

size_t count(const std::string& text, const std::string& part) {
  size_t found = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++found;
  }
  return found;
}

std::string readFile(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// `text` as one shell word.
std::string shellQuoted(const std::string& text) {
  std::string quoted = "'";
  for (char c : text) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

// The first executable `name` on PATH; empty when there is none.
fs::path findOnPath(const std::string& name) {
  const char* path = getenv("PATH");
  std::istringstream dirs(path != nullptr ? path : "");
  std::string dir;
  while (std::getline(dirs, dir, ':')) {
    if (dir.empty()) continue;
    const fs::path candidate = fs::path(dir) / name;
    if (access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return fs::path();
}

struct PipeCloser {
  void operator()(FILE* pipe) const { pclose(pipe); }
};

struct Transform {
  bool exitedCleanly = false;
  std::string html;
  std::string errors;
};

class BrokerPagesXslTest : public ::testing::Test {
 protected:
  void SetUp() override {
    xsltproc_ = findOnPath("xsltproc");
    ASSERT_FALSE(xsltproc_.empty())
        << "xsltproc is not installed: the stylesheets cannot be checked. Install the Debian "
           "package xsltproc (tools/install-deps.sh lists it).";
    std::string pattern = (fs::temp_directory_path() / "brokerpages_xsl.XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    work_ = pattern;

    // Offline: the pages need no listening network.
    broker_ =
        KXBroker::createBroker("xsltest", "127.0.0.1", 0, "", 0, KXBroker::kKeepAlive, "", false);
    alpha_ = createModule<Gearbox>(broker_, "Alpha");
    gearbox_ = createModule<Gearbox>(broker_, "Gearbox");
  }

  void TearDown() override {
    if (gearbox_) gearbox_->release();
    if (broker_) broker_->shutdown();
    std::error_code ignored;
    if (!work_.empty()) fs::remove_all(work_, ignored);
  }

  // The XML body of the page at `path`, its HTTP header checked and removed.
  std::string pageBody(const std::string& path) {
    const std::string page = broker_->getPage(path);
    const std::string header = "HTTP/1.0 200\r\nContent-Type: text/xml\r\n\r\n";
    EXPECT_EQ(page.compare(0, header.size(), header), 0) << page;
    return page.substr(std::min(header.size(), page.size()));
  }

  // The stylesheet that the page's processing instruction names, as the file service maps it.
  static std::optional<fs::path> stylesheetOf(const std::string& body) {
    const std::string start = "<?xml-stylesheet type=\"text/xsl\" href=\"";
    const size_t at = body.find(start);
    if (at == std::string::npos) return std::nullopt;
    const size_t end = body.find('"', at + start.size());
    if (end == std::string::npos) return std::nullopt;
    return tu::path::resolveDocPath("/" + body.substr(at + start.size(), end - at - start.size()));
  }

  Transform transform(const fs::path& stylesheet, const std::string& body) {
    const fs::path input = work_ / "page.xml";
    const fs::path errors = work_ / "errors.txt";
    {
      std::ofstream out(input, std::ios::binary);
      out << body;
    }
    const std::string command = shellQuoted(xsltproc_.string()) + " --nonet " +
                                shellQuoted(stylesheet.string()) + " " +
                                shellQuoted(input.string()) + " 2>" + shellQuoted(errors.string());
    Transform result;
    std::unique_ptr<FILE, PipeCloser> pipe(popen(command.c_str(), "r"));
    if (!pipe) {
      result.errors = "popen failed: " + command;
      return result;
    }
    char buffer[4096];
    size_t read = 0;
    while ((read = fread(buffer, 1, sizeof buffer, pipe.get())) > 0) {
      result.html.append(buffer, read);
    }
    const int status = pclose(pipe.release());
    result.exitedCleanly = status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    result.errors = readFile(errors);
    return result;
  }

  // The page at `path` rendered with its own stylesheet; fails the test on any error.
  std::string render(const std::string& path) {
    const std::string body = pageBody(path);
    const std::optional<fs::path> stylesheet = stylesheetOf(body);
    if (!stylesheet) {
      ADD_FAILURE() << "no stylesheet found for " << path << " under "
                    << tu::path::docRoot().value_or("(no data folder)") << "\n"
                    << body;
      return std::string();
    }
    const Transform result = transform(*stylesheet, body);
    EXPECT_TRUE(result.exitedCleanly) << "xsltproc failed on " << path << ": " << result.errors;
    EXPECT_EQ(result.errors, "") << path;
    EXPECT_EQ(result.html.rfind("<!DOCTYPE html", 0), 0u) << result.html;
    EXPECT_TRUE(contains(result.html, "</html>")) << result.html;
    // The look comes from a file the service serves from the same root.
    EXPECT_TRUE(contains(result.html, "href=\"css/velmo.css\"")) << result.html;
    EXPECT_TRUE(tu::path::resolveDocPath("/css/velmo.css").has_value());
    return result.html;
  }

  fs::path xsltproc_;
  fs::path work_;
  std::shared_ptr<KXBroker> broker_;
  std::shared_ptr<Gearbox> alpha_;
  std::shared_ptr<Gearbox> gearbox_;
};

TEST_F(BrokerPagesXslTest, BrokerPageLinksEachModuleToItsPage) {
  const std::string html = render("/index.xml");
  EXPECT_TRUE(contains(html, "<title>Velmo Broker : xsltest</title>")) << html;
  EXPECT_TRUE(contains(html, "<a class=\"module\" href=\"Alpha.xml\">Alpha</a>")) << html;
  EXPECT_TRUE(contains(html, "<a class=\"module\" href=\"Gearbox.xml\">Gearbox</a>")) << html;
  EXPECT_TRUE(contains(html, "href=\"http://127.0.0.1:0/index.xml\"")) << html;
  EXPECT_TRUE(contains(html, "This broker has no parent.")) << html;
  EXPECT_TRUE(contains(html, "No child broker is registered.")) << html;
  EXPECT_TRUE(contains(html, "No task is running.")) << html;
  EXPECT_TRUE(contains(html, "href=\"GearboxContent.html\"")) << html;
  // The index lists modules only; their methods are on their own pages.
  EXPECT_FALSE(contains(html, "shift")) << html;
}

TEST_F(BrokerPagesXslTest, FullPageListsTheMethodsUnderEachModule) {
  const std::string html = render("/full");
  EXPECT_EQ(count(html, "<code>shift</code>"), 2u) << html;
  EXPECT_TRUE(contains(html, "Moves to another gear &lt;now&gt; &amp; later")) << html;
}

TEST_F(BrokerPagesXslTest, ModulePageShowsEachMethodWithParametersAndExample) {
  const std::string body = pageBody("/Gearbox.xml");
  const std::string html = render("/Gearbox.xml");
  EXPECT_TRUE(contains(html, "<title>Velmo Module Page : Gearbox</title>")) << html;
  EXPECT_TRUE(contains(html, "<h1>Gearbox</h1>")) << html;
  // Markup characters in descriptions arrive as text, never as tags.
  EXPECT_TRUE(contains(html, "Shifts gears &lt;fast&gt; &amp; \"smooth\"")) << html;
  EXPECT_FALSE(contains(html, "<fast>")) << html;
  EXPECT_FALSE(contains(html, "<now>")) << html;

  // Every method the page describes gets its own entry.
  const size_t methods = count(body, "<method>");
  ASSERT_GE(methods, 2u) << body;
  EXPECT_EQ(count(html, "<article class=\"method\""), methods) << html;

  EXPECT_TRUE(contains(html, "<article class=\"method\" id=\"method-shift\">")) << html;
  EXPECT_TRUE(contains(html, "<h3><code>shift</code></h3>")) << html;
  EXPECT_TRUE(contains(html, "Moves to another gear &lt;now&gt; &amp; later")) << html;
  EXPECT_TRUE(contains(html, "<td><code>gear</code></td>")) << html;
  EXPECT_TRUE(contains(html, "<td>the gear to engage</td>")) << html;
  EXPECT_TRUE(contains(html, "<td class=\"type\">int</td>")) << html;
  EXPECT_TRUE(contains(html, "<td><code>mode</code></td>")) << html;
  EXPECT_TRUE(contains(html, "<td class=\"type\">string</td>")) << html;
  EXPECT_TRUE(contains(html, "<td>how: 'soft' or \"hard\"</td>")) << html;
  EXPECT_TRUE(contains(html, "<code>engaged</code>")) << html;
  EXPECT_TRUE(contains(html, "true once the gear is in")) << html;

  EXPECT_TRUE(contains(html, "<h3><code>hold</code></h3>")) << html;
  EXPECT_TRUE(contains(html, "Holds the box until released")) << html;

  // The URL call is a link from the root, whatever the page's own path.
  EXPECT_TRUE(contains(html, "<a href=\"/?evalGearbox.shift(")) << html;
  EXPECT_TRUE(contains(html, "<code>/?evalGearbox.shift(")) << html;
  EXPECT_TRUE(contains(html, "<a href=\"/?evalGearbox.hold()\"><code>/?evalGearbox.hold()</code>"))
      << html;
}

TEST_F(BrokerPagesXslTest, ModulePageNavigatesToItsNeighboursAndTheIndex) {
  const std::string gearbox = render("/Gearbox.xml");
  EXPECT_EQ(count(gearbox, "rel=\"prev\" href=\"Alpha.xml\""), 2u) << gearbox;
  EXPECT_EQ(count(gearbox, "<a class=\"index\" href=\"index.xml\">Index</a>"), 2u) << gearbox;
  EXPECT_TRUE(contains(gearbox, "last module")) << gearbox;
  EXPECT_TRUE(contains(gearbox, "<a href=\"index.xml\">xsltest</a>")) << gearbox;
  EXPECT_TRUE(contains(gearbox, "<a href=\"GearboxContent.html\">")) << gearbox;

  const std::string alpha = render("/Alpha.xml");
  EXPECT_EQ(count(alpha, "rel=\"next\" href=\"Gearbox.xml\""), 2u) << alpha;
  EXPECT_TRUE(contains(alpha, "first module")) << alpha;
  EXPECT_FALSE(contains(alpha, "rel=\"prev\" href")) << alpha;
}

TEST_F(BrokerPagesXslTest, RunningTaskShowsOnTheBrokerPage) {
  KXValue none;
  none.arraySetSize(0);
  const int id = broker_->post("Gearbox", "hold", none);
  ASSERT_TRUE(gearbox_->started().wait());

  const std::string html = render("/index.xml");
  gearbox_->release();
  EXPECT_FALSE(broker_->getTaskMonitor()->wait(id, 20000)) << "the held call did not end";

  EXPECT_FALSE(contains(html, "No task is running.")) << html;
  EXPECT_TRUE(contains(html, "<td><a href=\"Gearbox.xml\">Gearbox</a></td>")) << html;
  EXPECT_TRUE(contains(html, "<code>hold(Void)</code>")) << html;
  EXPECT_TRUE(contains(html, "<td>Holds the box until released</td>")) << html;
}

}  // namespace
}  // namespace testing
}  // namespace KX
