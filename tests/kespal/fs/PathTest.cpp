#include "kespal/fs/Path.h"

#include <filesystem>
#include <list>
#include <map>
#include <sstream>
#include <type_traits>
#include <unordered_set>

#include "kespal/fs/PathForms.h"

namespace kes::fs {
namespace {

TEST(PathTest, TrailingSlashesAreRemovedAtConstructionAndNothingElseIs) {
  EXPECT_EQ(Path("a/b///"), "a/b");
  EXPECT_EQ(Path("//"), "/");
  EXPECT_EQ(Path("///"), "/");
  EXPECT_EQ(Path("/"), "/");
  EXPECT_EQ(Path(""), "");
  EXPECT_EQ(Path("a//./..//b/"), "a//./..//b");
  EXPECT_EQ(Path("//a"), "//a");
  EXPECT_EQ(Path("./"), ".");
}

TEST(PathTest, EveryConstructorCleansesTheSameWay) {
  const std::string text = "/x//y//";
  EXPECT_EQ(Path(text.c_str()), "/x//y");
  EXPECT_EQ(Path(text), "/x//y");
  EXPECT_EQ(Path(std::string(text)), "/x//y");
  EXPECT_EQ(Path(text, Path::CANONICAL), "/x//y");
  EXPECT_EQ(Path("../no/such/./file/", Path::CANONICAL), "../no/such/./file");
  EXPECT_EQ(Path(), "");
}

TEST(PathTest, ANullPointerIsTheEmptyPath) {
  const char* nothing = nullptr;
  EXPECT_EQ(Path(nothing), "");
  EXPECT_EQ(Path("a") + nothing, "a/");
}

TEST(PathTest, CleanseWorksOnTextThatCameInByAStringOperation) {
  Path path = exactly("a/b///");
  EXPECT_EQ(path, "a/b///");
  path.cleanse();
  EXPECT_EQ(path, "a/b");
}

TEST(PathTest, OnlyALeadingSlashMakesAPathAbsolute) {
  EXPECT_TRUE(Path("/").isAbsolute());
  EXPECT_TRUE(Path("//a").isAbsolute());
  EXPECT_FALSE(Path("").isAbsolute());
  EXPECT_FALSE(Path("a/").isAbsolute());
  EXPECT_FALSE(Path("./a").isAbsolute());
  EXPECT_FALSE(Path("~/a").isAbsolute());
  EXPECT_FALSE(Path("C:\\a").isAbsolute());
}

TEST(PathTest, TheRootIsASlashForAnAbsolutePathAndEmptyForAnother) {
  EXPECT_EQ(Path("/a/b").root(), "/");
  EXPECT_EQ(Path("//").root(), "/");
  EXPECT_EQ(Path("a").root(), "");
  EXPECT_EQ(Path("").root(), "");
}

TEST(PathTest, AnEmptyPathIsNotAbsoluteAndHasNoRootAndNoBasenameAndDirnameDot) {
  Path path("");
  EXPECT_TRUE(path.empty());
  EXPECT_FALSE(path.isAbsolute());
  EXPECT_EQ(path.root(), "");
  EXPECT_EQ(path.basename(), "");
  EXPECT_EQ(path.assignDirname(), ".");
}

TEST(PathTest, TheSlashAloneHasRootSlashAndNoBasenameAndIsItsOwnDirname) {
  Path path("///");
  EXPECT_EQ(path, "/");
  EXPECT_EQ(path.root(), "/");
  EXPECT_EQ(path.basename(), "");
  EXPECT_EQ(path.assignDirname(), "/");
}

TEST(PathTest, ComponentsAreTheNonEmptyPiecesAndReplaceWhatTheVectorHeld) {
  EXPECT_EQ(componentsOf(exactly("/a//b/")), (Strings{"a", "b"}));
  EXPECT_EQ(componentsOf("/"), Strings{});
  EXPECT_EQ(componentsOf(""), Strings{});
  EXPECT_EQ(componentsOf("./../a b/ c"), (Strings{".", "..", "a b", " c"}));
}

TEST(PathTest, JoinPutsOneSlashBetweenTwoElements) {
  Path path("old");
  EXPECT_EQ(path.join({"a", "b", "c"}, false), "a/b/c");
  EXPECT_EQ(path.join({"a", "b"}, true), "/a/b");
  EXPECT_EQ(path.join({"a"}, true), "/a");
  EXPECT_EQ(&path.join({"a"}, false), &path);
}

TEST(PathTest, JoinOfNothingIsTheRootOrEmpty) {
  EXPECT_EQ(Path("old").join({}, true), "/");
  EXPECT_EQ(Path("old").join({}, false), "");
}

TEST(PathTest, AnEmptyElementStillReceivesItsSeparators) {
  Path path;
  EXPECT_EQ(path.join({"a", "", "b"}, false), "a//b");
  EXPECT_EQ(path.join({"", "a"}, false), "/a");
  EXPECT_EQ(path.join({"", "a"}, true), "//a");
  EXPECT_EQ(path.join({"a", ""}, false), "a/");
  EXPECT_EQ(path.join({""}, true), "/");
  EXPECT_EQ(path.join({"", ""}, false), "/");
}

TEST(PathTest, JoinTakesElementsAsTheyAre) {
  Path path;
  EXPECT_EQ(path.join({"/a/", "b"}, true), "//a//b");
}

TEST(PathTest, AdditionAlwaysInsertsOneSlashAndCleansesNothing) {
  EXPECT_EQ(Path("a") + "b", "a/b");
  EXPECT_EQ(exactly("a/") + "/b/", "a///b/");
  EXPECT_EQ(Path("/") + "x", "//x");
  EXPECT_EQ(Path("") + "", "/");
}

TEST(PathTest, AllSixFormsOfAdditionJoinAndNoneConcatenates) {
  const Path path("a");
  const std::string text("b");
  const Path other("b");
  EXPECT_EQ(path + text, "a/b");
  EXPECT_EQ(path + std::string("b"), "a/b");
  EXPECT_EQ(path + "b", "a/b");
  EXPECT_EQ(path + 'b', "a/b");
  EXPECT_EQ(path + other, "a/b");
  EXPECT_EQ(path + Path("b"), "a/b");
}

TEST(PathTest, AdditionToATemporaryOrAVariableJoinsAsWell) {
  Path variable("a");
  std::string text("b");
  Path other("b");
  EXPECT_EQ(variable + text, "a/b");
  EXPECT_EQ(variable + other, "a/b");
  EXPECT_EQ(variable + std::move(text), "a/b");
  EXPECT_EQ(Path("a") + "b", "a/b");
  EXPECT_EQ(Path("a") + 'b', "a/b");
  EXPECT_EQ(Path("a") + std::string("b"), "a/b");
  EXPECT_EQ(Path("a") + Path("b"), "a/b");
  EXPECT_EQ(Path("a") + std::as_const(other), "a/b");
  EXPECT_EQ(Path("a") + "b" + "c" + 'd', "a/b/c/d");
}

TEST(PathTest, AdditionGivesAPathAndLeavesItsOperandsAlone) {
  const Path path("a");
  const std::string text("b");
  static_assert(std::is_same_v<decltype(path + text), Path>);
  static_assert(std::is_same_v<decltype(path + "b"), Path>);
  static_assert(std::is_same_v<decltype(path + 'b'), Path>);
  static_assert(std::is_same_v<decltype(path + path), Path>);
  EXPECT_EQ((path + text).basename(), "b");
  EXPECT_EQ(path, "a");
  EXPECT_EQ(text, "b");
}

TEST(PathTest, AdditionToAPlainStringStaysConcatenation) {
  EXPECT_EQ(std::string("a") + Path("b"), "ab");
  EXPECT_EQ("a" + Path("b"), "ab");
}

TEST(PathTest, AdditionKeepsZeroBytesOfStrings) {
  const std::string zero("x\0y", 3);
  EXPECT_EQ(Path("a") + zero, std::string("a/x\0y", 5));
  EXPECT_EQ(Path("a") + '\0', std::string("a/\0", 3));
}

TEST(PathTest, TheBasenameIsWhatFollowsTheLastSlash) {
  EXPECT_EQ(Path("/a/b.c").basename(), "b.c");
  EXPECT_EQ(Path("a").basename(), "a");
  EXPECT_EQ(Path("/").basename(), "");
  EXPECT_EQ(exactly("a/b/").basename(), "");
  EXPECT_EQ(Path("a//b").basename(), "b");
}

TEST(PathTest, EveryByteButTheSlashIsACharacterOfANameLikeAnyOther) {
  for (int byte = 1; byte < 256; ++byte) {
    if (byte == '/') continue;
    for (std::size_t length = 1; length < 20; ++length) {
      const std::string name(length, static_cast<char>(byte));
      const Path path("/directory/" + name);
      ASSERT_EQ(path.basename(), name) << byte;
      ASSERT_EQ(Path(path).assignDirname(), "/directory") << byte;
    }
  }
}

TEST(PathTest, AssignBasenameDoesTheSameInPlace) {
  Path path("/a/b");
  EXPECT_EQ(&path.assignBasename(), &path);
  EXPECT_EQ(path, "b");
  EXPECT_EQ(Path("/").assignBasename(), "");
  EXPECT_EQ(exactly("a/").assignBasename(), "");
}

TEST(PathTest, TheDirnameIsCutAtTheLastSlash) {
  EXPECT_EQ(dirname("a/b"), "a");
  EXPECT_EQ(dirname("/a/b"), "/a");
  EXPECT_EQ(dirname("a"), ".");
  EXPECT_EQ(dirname(""), ".");
  EXPECT_EQ(dirname("/"), "/");
  EXPECT_EQ(dirname("a//b"), "a/");
  EXPECT_EQ(dirname(exactly("a/b/")), "a/b");
  EXPECT_EQ(dirname(exactly("//")), "/");
}

TEST(PathTest, TheDirnameOfATopLevelEntryIsEmptyAndNotTheRoot) {
  EXPECT_EQ(dirname("/etc"), "");
  EXPECT_EQ(dirname("/a"), "");
}

TEST(PathTest, StripCutsComponentsFromTheEnd) {
  EXPECT_EQ(stripped("/a/b", 1), "/a");
  EXPECT_EQ(stripped("/a", 1), "");
  EXPECT_EQ(stripped("a", 1), "");
  EXPECT_EQ(stripped("a/b", 2), "");
  EXPECT_EQ(stripped("a/b", 5), "");
  EXPECT_EQ(stripped("/a/b", 2), "");
  EXPECT_EQ(stripped("a/b/c/d", 2), "a/b");
  EXPECT_EQ(stripped("a//b", 1), "a/");
  EXPECT_EQ(stripped("/", 1), "");
  EXPECT_EQ(stripped("", 1), "");
  EXPECT_EQ(stripped("a/b/c", std::string::npos), "");
}

TEST(PathTest, StripOfNothingIsANoOp) {
  EXPECT_EQ(stripped("a/b", 0), "a/b");
  EXPECT_EQ(stripped(exactly("a/"), 0), "a/");
}

TEST(PathTest, TheExtensionFollowsTheLastOrTheFirstDotOfTheBasename) {
  EXPECT_EQ(Path("x.tar.gz").extension(false), "gz");
  EXPECT_EQ(Path("x.tar.gz").extension(true), "tar.gz");
  EXPECT_EQ(Path(".profile").extension(false), "profile");
  EXPECT_EQ(Path(".profile").extension(true), "profile");
  EXPECT_EQ(Path("x").extension(false), "");
  EXPECT_EQ(Path("x.").extension(true), "");
  EXPECT_EQ(Path("x..y").extension(true), ".y");
  EXPECT_EQ(Path("").extension(false), "");
}

TEST(PathTest, OnlyTheBasenameIsSearchedForAnExtension) {
  EXPECT_EQ(Path("dir.d/file").extension(false), "");
  EXPECT_EQ(Path("dir.d/file").extension(true), "");
  EXPECT_EQ(exactly("a.b/").extension(false), "");
}

TEST(PathTest, ExtensionsAreTheStemAndThenWhatFollows) {
  EXPECT_EQ(extensionsOf("x.tar.gz"), (Strings{"x", "tar", "gz"}));
  EXPECT_EQ(extensionsOf("a.b/x"), Strings{"x"});
  EXPECT_EQ(extensionsOf(".profile"), Strings{"profile"});
  EXPECT_EQ(extensionsOf("x..y."), (Strings{"x", "y"}));
  EXPECT_EQ(extensionsOf("..."), Strings{});
  EXPECT_EQ(extensionsOf(""), Strings{});
  EXPECT_EQ(extensionsOf("/"), Strings{});
}

TEST(PathTest, TheStrippedBasenameIsTheStem) {
  EXPECT_EQ(Path("/d/x.tar.gz").strippedBasename(), "x");
  EXPECT_EQ(Path(".profile").strippedBasename(), "profile");
  EXPECT_EQ(Path("x").strippedBasename(), "x");
}

TEST(PathTest, ABasenameWithoutAnyPieceHasAnEmptyStem) {
  for (const char* text : {"", "/", ".", "..", "...", "a/..."}) EXPECT_EQ(Path(text).strippedBasename(), "");
}

TEST(PathTest, TheIntersectionIsTheLongestCommonRunOfLeadingComponents) {
  EXPECT_EQ(Path("/a/b/c").intersection("/a//b/d"), "/a/b");
  EXPECT_EQ(Path("/x").intersection("/y"), "/");
  EXPECT_EQ(Path("a").intersection("/a"), "");
  EXPECT_EQ(Path("/a").intersection("a"), "");
  EXPECT_EQ(Path("a/b").intersection("a/b/c"), "a/b");
  EXPECT_EQ(Path("a/b/c").intersection("a/b"), "a/b");
  EXPECT_EQ(Path("a/bc").intersection("a/b"), "a");
  EXPECT_EQ(Path("x/b").intersection("y/b"), "");
  EXPECT_EQ(Path("a/X").intersection("a/x"), "a");
  EXPECT_EQ(Path("a/b/c").intersection("a/x/c"), "a");
  EXPECT_EQ(Path("").intersection("a"), "");
  EXPECT_EQ(Path("/").intersection("/"), "/");
}

TEST(PathTest, TheIntersectionOfAPathWithItselfIsItsComponentForm) {
  const Path path("/a//b");
  EXPECT_EQ(path.intersection(path), "/a/b");
  EXPECT_EQ(Path("./a//..").intersection("./a//.."), "./a/..");
}

// --- a path is a string

std::size_t lengthOf(const std::string& text) { return text.size(); }
std::string copyOf(std::string text) { return text; }
std::size_t depthOf(const Path& path) { return componentsOf(path).size(); }

TEST(PathTest, APathGoesWhereverAStringGoes) {
  const Path path("/a/b");
  EXPECT_EQ(lengthOf(path), 4u);
  EXPECT_EQ(copyOf(path), "/a/b");
  EXPECT_EQ(std::string_view(path), "/a/b");
  EXPECT_STREQ(path.c_str(), "/a/b");
  EXPECT_EQ(path.substr(1, 1), "a");
  EXPECT_EQ(path.find("/b"), 2u);
  std::string text = path;
  EXPECT_EQ(text, path);
  text += "/c";
  EXPECT_EQ(path, "/a/b");
  EXPECT_LT(path, std::string("/b"));
  EXPECT_EQ((std::map<std::string, int>{{path, 7}}.at("/a/b")), 7);
  std::ostringstream stream;
  stream << path;
  EXPECT_EQ(stream.str(), "/a/b");
}

TEST(PathTest, AStringGoesWhereverAPathGoes) {
  EXPECT_EQ(depthOf("/a/b"), 2u);
  EXPECT_EQ(depthOf(std::string("a/b/c")), 3u);
  Path path;
  path = "x/";
  EXPECT_EQ(path, "x");
  path = std::string("y/");
  EXPECT_EQ(path, "y");
}

TEST(PathTest, EveryKindOfTextMakesAPathAndIsAssignedToOne) {
  const std::string text = "t//";
  const std::string_view view("v/ and more", 2);
  const char* const pointer = "p/";
  const char* const nothing = nullptr;
  const Path other("o");
  EXPECT_EQ(Path(view), "v");
  EXPECT_EQ(Path{view}, "v");
  static_assert(!std::is_convertible_v<std::string_view, Path>, "a path would be one of two equal choices");
  EXPECT_EQ(true ? other : std::string_view("x"), "o");
  EXPECT_EQ((Path{'a', '/', 'b', '/'}), "a/b");
  EXPECT_EQ(Path{'/'}, "/");
  EXPECT_EQ(Path(std::string_view()), "");
  EXPECT_EQ(Path(std::string_view("x\0y/", 4)), std::string("x\0y", 3));

  Path path("former");
  EXPECT_EQ(path = view, "v");
  EXPECT_EQ(path = 'c', "c");
  EXPECT_EQ(path = '/', "/");
  EXPECT_EQ((path = {'a', '/', 'b', '/', '/'}), "a/b");
  EXPECT_EQ(path = text, "t");
  EXPECT_EQ(path = std::string("t/"), "t");
  EXPECT_EQ(path = "l/", "l");
  EXPECT_EQ(path = pointer, "p");
  EXPECT_EQ(path = NULL, "") << "a null pointer, and no character";
  EXPECT_EQ(Path(nothing, Path::CANONICAL), "");
  EXPECT_EQ(path = nothing, "");
  EXPECT_EQ(path = other, "o");
  EXPECT_EQ(path = Path("o/"), "o");
  EXPECT_EQ((path = {"abc", 2}), "ab");
  EXPECT_EQ((path = {text.begin(), text.end()}), "t");
  EXPECT_EQ((path = {text, Path::CANONICAL}), "t");
  EXPECT_EQ((path = std::filesystem::path("/f/")), "/f");
  EXPECT_EQ((path = {}), "");
  static_assert(std::is_same_v<decltype(path = 'c'), Path&>);
  static_assert(std::is_same_v<decltype(path = view), Path&>);
  static_assert(std::is_nothrow_move_assignable_v<Path> && std::is_nothrow_move_constructible_v<Path>);
}

TEST(PathTest, AnAssignmentMayTakeItsTextFromThePathItself) {
  Path path("/a/long enough to be in memory of its own/c");
  path = std::string_view(path).substr(3, 38);
  EXPECT_EQ(path, "long enough to be in memory of its own");
  path = path.c_str() + 5;
  EXPECT_EQ(path, "enough to be in memory of its own");
  path = exactly("a/");
  path = std::as_const(path);
  EXPECT_EQ(path, "a/") << "a copy of a path is not cleansed";
}

TEST(PathTest, AdditionOfAViewJoinsAsWell) {
  const std::string_view view("b and more", 1);
  Path variable("a");
  static_assert(std::is_same_v<decltype(variable + view), Path>);
  EXPECT_EQ(variable + view, "a/b");
  EXPECT_EQ(std::as_const(variable) + view, "a/b");
  EXPECT_EQ(Path("a") + view, "a/b");
  EXPECT_EQ(Path("a") + std::string_view("x\0y", 3), std::string("a/x\0y", 5));
}

TEST(PathTest, AppendingAsAStringInsertsNoSlash) {
  Path path("a");
  path += 'b';
  path += "c";
  path += std::string("d");
  path += std::string_view("e");
  path += {'f', 'g'};
  path += Path("h");
  path.append("i").append(1, '/').append(std::string_view("j/"));
  EXPECT_EQ(path, "abcdefghi/j/");
}

TEST(PathTest, ExpressionsOfStringsMeanWhatTheyMeanForStrings) {
  const std::string text = "/b";
  const std::string_view view = "/b";
  Path path("/a");
  const Path other("/b");
  EXPECT_TRUE(path == "/a" && "/a" == path && path != text && text != path && path != view && view != path);
  EXPECT_TRUE(path < text && path < view && path < "/b" && path < other && !(other < path));
  EXPECT_TRUE((path <=> other) < 0 && (path <=> text) < 0 && (path <=> "/b") < 0);
  EXPECT_LT(path.compare(view), 0);
  EXPECT_TRUE(path.starts_with('/') && path.ends_with("a"));
  EXPECT_EQ(path.find(view), Path::npos);
  EXPECT_EQ(path.insert(0, view).replace(0, 2, text).erase(0, 2), "/a");
  static_assert(std::is_same_v<decltype(true ? path : "x"), Path>);
  static_assert(std::is_same_v<decltype(true ? path : text), const std::string&>);
  static_assert(std::is_same_v<decltype(true ? path : other), const Path&>);
  static_assert(std::is_convertible_v<Path, std::string_view>);
  std::string plain = path;
  plain = other;
  plain += other;
  EXPECT_EQ(plain, "/b/b");
  EXPECT_EQ('x' + other, "x/b");
  EXPECT_EQ(std::string("x") + other, "x/b");
  path.swap(plain);
  EXPECT_EQ(path, "/b/b");
  Path third("t");
  std::swap(path, third);
  EXPECT_EQ(path, "t");
  path.assign(text).resize(1);
  EXPECT_EQ(path, "/");
  EXPECT_EQ((std::map<Path, int>{{"/a/", 1}, {"/b", 2}}.at("/a")), 1);
}

TEST(PathTest, StringOperationsApplyToAPath) {
  Path path("a");
  path += "/b";
  path.append("/c").push_back('/');
  EXPECT_EQ(path, "a/b/c/");
  EXPECT_EQ(std::unordered_set<Path>({"a", "b", "a/"}).size(), 2u);
  std::istringstream("word rest") >> path;
  EXPECT_EQ(path, "word");
}

}  // namespace
}  // namespace kes::fs
