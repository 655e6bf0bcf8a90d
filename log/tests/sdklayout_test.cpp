#include "log/sdklayout.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include "broker/kxbrokerpages.h"

namespace tu {
namespace path {
namespace {

namespace fs = std::filesystem;

// The build tree this test runs from: <build>/bin/network_tests.
fs::path buildTree() { return fs::read_symlink("/proc/self/exe").parent_path().parent_path(); }

// The source tree the build tree was configured from, as its CMake cache records it.
fs::path sourceTree() {
  std::ifstream cache(buildTree() / "CMakeCache.txt");
  const std::string key = "CMAKE_HOME_DIRECTORY:INTERNAL=";
  std::string line;
  while (std::getline(cache, line)) {
    if (line.compare(0, key.size(), key) == 0) return line.substr(key.size());
  }
  return fs::path();
}

void writeFile(const fs::path& file, const std::string& text) {
  fs::create_directories(file.parent_path());
  std::ofstream out(file);
  out << text;
  ASSERT_TRUE(out.good()) << file;
}

// A fresh directory, removed with everything in it.
class TempDir {
 public:
  TempDir() {
    std::string pattern = (fs::temp_directory_path() / "sdklayout_test.XXXXXX").string();
    if (mkdtemp(pattern.data()) != nullptr) path_ = pattern;
  }
  ~TempDir() {
    std::error_code ignored;
    if (!path_.empty()) fs::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const fs::path& path() const { return path_; }

 private:
  fs::path path_;
};

TEST(SdkLayoutTest, LibraryDirIsTheBuildTreesLib) {
  const std::optional<fs::path> dir = libraryDir();
  ASSERT_TRUE(dir.has_value());
  EXPECT_TRUE(dir->is_absolute()) << *dir;
  EXPECT_EQ(fs::canonical(*dir), fs::canonical(buildTree() / "lib"));
  EXPECT_TRUE(fs::exists(*dir / "libvelmo.so")) << *dir;
}

TEST(SdkLayoutTest, DataFolderIsShareVelmoBesideLib) {
  const std::optional<fs::path> data = sdkDataDir();
  ASSERT_TRUE(data.has_value()) << "no share/velmo beside " << buildTree() / "lib";
  EXPECT_EQ(*data, fs::canonical(buildTree() / "share" / "velmo"));

  const std::optional<fs::path> root = docRoot();
  ASSERT_TRUE(root.has_value());
  EXPECT_EQ(*root, *data / "web" / "doc");
}

TEST(SdkLayoutTest, ShippedPagesResolveInTheBuildTree) {
  const fs::path doc = fs::canonical(buildTree() / "share" / "velmo" / "web" / "doc");
  EXPECT_EQ(resolveDocPath("xsl/broker.xsl"), doc / "xsl" / "broker.xsl");
  EXPECT_EQ(resolveDocPath("/xsl/broker.xsl"), doc / "xsl" / "broker.xsl");
  EXPECT_EQ(resolveDocPath("/xsl/module.xsl"), doc / "xsl" / "module.xsl");
  EXPECT_EQ(resolveDocPath("/css/velmo.css"), doc / "css" / "velmo.css");
  EXPECT_EQ(resolveDocPath("/xsl/nothing.xsl"), std::nullopt);
  EXPECT_EQ(resolveDocPath("/xsl"), std::nullopt);
  EXPECT_EQ(resolveDocPath("/../velmo/web/doc/xsl/broker.xsl"), std::nullopt);
}

TEST(SdkLayoutTest, ShippedCopyMatchesTheSources) {
  // The build step copies the folder as it is: no stale or missing page.
  const fs::path source = sourceTree() / "share" / "velmo";
  ASSERT_TRUE(fs::is_directory(source)) << source;
  const fs::path copy = buildTree() / "share" / "velmo";
  int files = 0;
  for (const auto& entry : fs::recursive_directory_iterator(source)) {
    if (!entry.is_regular_file()) continue;
    ++files;
    const fs::path copied = copy / fs::relative(entry.path(), source);
    std::ifstream a(entry.path(), std::ios::binary);
    std::ifstream b(copied, std::ios::binary);
    ASSERT_TRUE(b.good()) << copied << " is missing";
    const std::string original((std::istreambuf_iterator<char>(a)), {});
    const std::string copiedText((std::istreambuf_iterator<char>(b)), {});
    EXPECT_EQ(original, copiedText) << copied << " differs from " << entry.path();
  }
  EXPECT_GE(files, 3);
}

// A root with a file, a file below, links inside and out, and a secret beside the root.
class ResolveDocPathTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(temp_.path().empty()) << "mkdtemp failed";
    base_ = fs::canonical(temp_.path());
    root_ = base_ / "doc";
    writeFile(root_ / "index.txt", "index");
    writeFile(root_ / "xsl" / "page.xsl", "<xsl/>");
    writeFile(base_ / "outside" / "secret.txt", "secret");
    fs::create_directories(root_ / "empty");
    fs::create_symlink("../outside/secret.txt", root_ / "leak.txt");
    fs::create_symlink(base_ / "outside", root_ / "leakdir");
    fs::create_symlink("xsl/page.xsl", root_ / "alias.xsl");
    fs::create_symlink("nowhere.txt", root_ / "dangling.txt");
  }

  TempDir temp_;
  fs::path base_;
  fs::path root_;
};

TEST_F(ResolveDocPathTest, FilesUnderTheRootResolveWithOrWithoutLeadingSlash) {
  EXPECT_EQ(resolveDocPath(root_, "index.txt"), root_ / "index.txt");
  EXPECT_EQ(resolveDocPath(root_, "/index.txt"), root_ / "index.txt");
  EXPECT_EQ(resolveDocPath(root_, "//index.txt"), root_ / "index.txt");
  EXPECT_EQ(resolveDocPath(root_, "/xsl/page.xsl"), root_ / "xsl" / "page.xsl");
  EXPECT_EQ(resolveDocPath(root_, "/xsl/./page.xsl"), root_ / "xsl" / "page.xsl");
}

TEST_F(ResolveDocPathTest, ClimbingOutIsRefused) {
  ASSERT_TRUE(fs::exists(root_ / ".." / "outside" / "secret.txt"));
  EXPECT_EQ(resolveDocPath(root_, "../outside/secret.txt"), std::nullopt);
  EXPECT_EQ(resolveDocPath(root_, "/../outside/secret.txt"), std::nullopt);
  EXPECT_EQ(resolveDocPath(root_, "xsl/../../outside/secret.txt"), std::nullopt);
  EXPECT_EQ(resolveDocPath(root_, "../x"), std::nullopt);
  EXPECT_EQ(resolveDocPath(root_, "xsl/../../x"), std::nullopt);
  // Even a climb that would land back inside is refused: no page needs one.
  EXPECT_EQ(resolveDocPath(root_, "xsl/../index.txt"), std::nullopt);
  EXPECT_EQ(resolveDocPath(root_, ".."), std::nullopt);
}

TEST_F(ResolveDocPathTest, DecodedEscapesAreRefusedLikeThePlainForm) {
  // The request path arrives %XX-decoded, as the broker's pages decode it.
  const std::string decoded = KX::detail::decodeUrl("/%2E%2E/outside/secret.txt");
  ASSERT_EQ(decoded, "/../outside/secret.txt");
  EXPECT_EQ(resolveDocPath(root_, decoded), std::nullopt);
  EXPECT_EQ(resolveDocPath(root_, KX::detail::decodeUrl("xsl%2F..%2F..%2Foutside%2Fsecret.txt")),
            std::nullopt);
}

TEST_F(ResolveDocPathTest, AbsolutePathsStayUnderTheRoot) {
  ASSERT_TRUE(fs::exists("/etc/passwd"));
  EXPECT_EQ(resolveDocPath(root_, "/etc/passwd"), std::nullopt);
  const std::string secret = (base_ / "outside" / "secret.txt").string();
  ASSERT_EQ(secret.front(), '/');
  EXPECT_EQ(resolveDocPath(root_, secret), std::nullopt);
}

TEST_F(ResolveDocPathTest, LinksLeavingTheRootAreRefused) {
  ASSERT_TRUE(fs::is_regular_file(root_ / "leak.txt"));
  EXPECT_EQ(resolveDocPath(root_, "/leak.txt"), std::nullopt);
  ASSERT_TRUE(fs::is_regular_file(root_ / "leakdir" / "secret.txt"));
  EXPECT_EQ(resolveDocPath(root_, "/leakdir/secret.txt"), std::nullopt);
}

TEST_F(ResolveDocPathTest, LinksInsideTheRootResolveToTheirTarget) {
  EXPECT_EQ(resolveDocPath(root_, "/alias.xsl"), root_ / "xsl" / "page.xsl");
}

TEST_F(ResolveDocPathTest, RootReachedThroughALinkStillServes) {
  const fs::path linkedRoot = base_ / "linked";
  fs::create_directory_symlink(root_, linkedRoot);
  EXPECT_EQ(resolveDocPath(linkedRoot, "/index.txt"), root_ / "index.txt");
  EXPECT_EQ(resolveDocPath(linkedRoot, "/leak.txt"), std::nullopt);
}

TEST_F(ResolveDocPathTest, MissingFilesDirectoriesAndOddNamesGiveNothing) {
  EXPECT_EQ(resolveDocPath(root_, "/missing.txt"), std::nullopt);
  EXPECT_EQ(resolveDocPath(root_, "/xsl/missing.xsl"), std::nullopt);
  EXPECT_EQ(resolveDocPath(root_, "/dangling.txt"), std::nullopt);
  EXPECT_EQ(resolveDocPath(root_, "/empty"), std::nullopt);
  EXPECT_EQ(resolveDocPath(root_, "/xsl"), std::nullopt);
  EXPECT_EQ(resolveDocPath(root_, "/"), std::nullopt);
  EXPECT_EQ(resolveDocPath(root_, ""), std::nullopt);
  EXPECT_EQ(resolveDocPath(root_, "/."), std::nullopt);
  // A NUL would end the name early at the system call: "index.txt" must not be served.
  EXPECT_EQ(resolveDocPath(root_, std::string("/index.txt\0.css", 15)), std::nullopt);
  EXPECT_EQ(resolveDocPath(base_ / "no-such-root", "/index.txt"), std::nullopt);
}

TEST(DocContentTypeTest, ScriptsStylesheetsAndStyles) {
  EXPECT_EQ(docContentType("/js/page.js"), "application/javascript");
  EXPECT_EQ(docContentType("/xsl/broker.xsl"), "text/xml");
  EXPECT_EQ(docContentType("/css/velmo.css"), "text/css");
}

TEST(DocContentTypeTest, TheFirstMatchingRuleWinsAnywhereInThePath) {
  EXPECT_EQ(docContentType("/data.json"), "application/javascript");
  EXPECT_EQ(docContentType("/css/theme.js.css"), "application/javascript");
  EXPECT_EQ(docContentType("/xsl/old.css.xsl"), "text/xml");
  EXPECT_EQ(docContentType("/a.xslt"), "text/xml");
  EXPECT_EQ(docContentType("/a.xsl.css"), "text/xml");
  EXPECT_EQ(docContentType("/.css/readme"), "text/css");
}

TEST(DocContentTypeTest, OtherFilesHaveNone) {
  EXPECT_EQ(docContentType("/img/logo.png"), std::nullopt);
  EXPECT_EQ(docContentType("/index.html"), std::nullopt);
  EXPECT_EQ(docContentType("/page.JS"), std::nullopt);
  EXPECT_EQ(docContentType("/"), std::nullopt);
  EXPECT_EQ(docContentType(""), std::nullopt);
}

}  // namespace
}  // namespace path
}  // namespace tu
