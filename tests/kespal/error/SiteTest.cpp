#include "kespal/error/Site.h"

#include <string_view>

namespace kes {
namespace {

template <detail::SitePath Path>
constexpr std::string_view pathOf = detail::sitePath<Path>;

TEST(SiteTest, APathBelowALibrarysSourcesBeginsWithSrcAndHasNoExtension) {
  EXPECT_EQ(pathOf<"/home/x/kes/kespal/src/fs/Path.cpp">, "src/fs/Path");
  EXPECT_EQ(pathOf<"kespal/src/os/posix/thread/Lock.cpp">, "src/os/posix/thread/Lock");
  EXPECT_EQ(pathOf<"kespal/src/os/darwin/fs/StandardPaths.mm">, "src/os/darwin/fs/StandardPaths");
}

TEST(SiteTest, APublicHeaderLosesTheLibrarysFolder) {
  EXPECT_EQ(pathOf<"kespal/include/kespal/fs/Path.h">, "include/fs/Path");
  EXPECT_EQ(pathOf<"/usr/include/kespal/os/posix/thread/Lock.h">, "include/os/posix/thread/Lock");
}

TEST(SiteTest, AFileOfAnotherProgramKeepsItsFolders) {
  EXPECT_EQ(pathOf<"app/main.cpp">, "app/main");
  EXPECT_EQ(pathOf<"main.mm">, "main");
  EXPECT_EQ(pathOf<"some.folder/file">, "some.folder/file");
  EXPECT_EQ(pathOf<"a.b.cpp">, "a.b");
  EXPECT_EQ(pathOf<"../../app/main.cpp">, "app/main");
}

TEST(SiteTest, AFileBelowTheFolderOfItsProgramIsNamedFromThere) {
  EXPECT_EQ(pathOf<detail::SitePath("/home/x/app/src/main.cpp", "/home/x/app")>, "src/main");
  EXPECT_EQ(pathOf<detail::SitePath("/home/x/app/src/main.cpp", "/home/x/app/")>, "src/main");
  EXPECT_EQ(pathOf<detail::SitePath("/app/main.cpp", "/")>, "app/main");
}

TEST(SiteTest, AFileElsewhereKeepsItsPath) {
  EXPECT_EQ(pathOf<detail::SitePath("/home/x/apple/main.cpp", "/home/x/app")>, "/home/x/apple/main");
  EXPECT_EQ(pathOf<detail::SitePath("/opt/other/main.cpp", "/home/x/app")>, "/opt/other/main");
  EXPECT_EQ(pathOf<detail::SitePath("main.cpp", "/home/x/app")>, "main");
}

TEST(SiteTest, AFileOfTheLibraryIsNamedTheSameWayInEveryProgram) {
  EXPECT_EQ(pathOf<detail::SitePath("/home/x/app/kes/include/kespal/fs/Path.h", "/home/x/app")>,
            "include/fs/Path");
}

Site here() { return KES_HERE; }

TEST(SiteTest, HereIsThePlaceWhereItStands) {
  const Site site = here();
  EXPECT_THAT(site.file, testing::EndsWith("tests/kespal/error/SiteTest"));
  EXPECT_EQ(site.line, __LINE__ - 5);
  EXPECT_STREQ(site.function, "here");
}

}  // namespace
}  // namespace kes
