#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <set>

#include "kespal/fs/Tree.h"
#include "kespal/fs/TreeCopier.h"
#include "kespal/fs/UnknownTypes.h"
#include "support/EveryFailure.h"
#include "support/FileStatus.h"
#include "support/TempDir.h"
#include "sys/AtEnd.h"

// Whole trees.

namespace kes::fs {
namespace {

using test::Call;
using test::expectSurvival;
using test::isThere;
using test::modeOf;
using test::raises;
using test::readFile;
using test::Stage;
using test::writeFile;

namespace stdfs = std::filesystem;

using Names = std::set<std::string>;

/// Deeper than descriptors are kept for.
Names plant(const std::string& tree) {
  Names names;
  std::string path;
  for (int level = 0; level < 11; ++level) {
    stdfs::create_directories(tree + path);
    writeFile(tree + path + "/file", "");
    names.insert((path + "/file").substr(1));
    path += "/deeper";
    if (level < 10) names.insert(path.substr(1));
  }
  stdfs::create_symlink("file", tree + "/link");
  names.insert("link");
  return names;
}

/// Whether a directory counts as gone, or as something else by now.
bool isPassedOver(const Stage& stage) {
  return stage.isRefused(Call::openat, ENOENT) || stage.isRefused(Call::openat, ENOTDIR) ||
         stage.isRefused(Call::openat, ELOOP);
}

void lookAt(Stage& stage, const TreeWalk& walk, const std::string& tree) {
  const std::string name = walk.relativePath();
  stage.check(walk.path() == tree + '/' + name && walk.directory() != -1, "where it is");
  stage.check(walk.depth() == static_cast<std::size_t>(std::count(name.begin(), name.end(), '/')),
              "how deep");
  stage.check(name.ends_with(walk.entryName()), "its name");
  const auto type = walk.entryType();
  const bool isUnknown = type == Dir::EntryType::Unknown;
  stage.check(!isUnknown || stage.isRefused(Call::fstatat), "what it is");
  if (!isUnknown) stage.check(walk.entryInfo().isDir() == (type == Dir::EntryType::Directory), "the same");
}

void expectWalk(Stage& stage) {
  const std::string tree = stage / "tree";
  const Names planted = plant(tree);
  Names found;
  std::optional<TreeWalk> walk;
  stage.act([&] {
    walk.emplace(tree.c_str());
    while (walk->nextEntry()) {
      found.insert(walk->relativePath());
      lookAt(stage, *walk, tree);
    }
  });
  if (stage.succeeded()) stage.check(found == planted || isPassedOver(stage), "all of it");
  stage.check(std::includes(planted.begin(), planted.end(), found.begin(), found.end()), "nothing else");
  while (walk && walk->nextEntry()) found.insert(walk->relativePath());
  stage.check(std::includes(planted.begin(), planted.end(), found.begin(), found.end()),
              "nor behind an error");
}

TEST(EveryFailureOfTrees, ATreeIsWalkedThrough) {
  expectSurvival({.operations = {"kes::fs::TreeWalk::TreeWalk", "kes::fs::TreeWalk::~TreeWalk",
                                 "kes::fs::TreeWalk::nextEntry", "kes::fs::TreeWalk::path",
                                 "kes::fs::TreeWalk::relativePath", "kes::fs::TreeWalk::depth",
                                 "kes::fs::TreeWalk::directory", "kes::fs::TreeWalk::entryName",
                                 "kes::fs::TreeWalk::entryType", "kes::fs::TreeWalk::entryInfo"},
                  .raises = {raises("kes::FsError", {ESTALE}), raises("kes::NoSuchFileError")},
                  .play = [](Stage& stage) { expectWalk(stage); }});
}

TEST(EveryFailureOfTrees, ATreeIsWalkedThroughWhereDirectoriesTellNoTypes) {
  expectSurvival({.operations = {"kes::fs::TreeWalk::nextEntry", "kes::fs::TreeWalk::entryType"},
                  .raises = {raises("kes::FsError", {ESTALE}), raises("kes::NoSuchFileError")},
                  .play = [](Stage& stage) {
                    const test::UnknownTypes untold;
                    expectWalk(stage);
                  }});
}

TEST(EveryFailureOfTrees, ATreeIsRemoved) {
  expectSurvival(
      {.operations = {"kes::fs::removeAll"},
       .raises = {raises("kes::FsError", {EISDIR, ENOTEMPTY, ESTALE}),
                  raises("kes::FileAccessError", {}, "remove"), raises("kes::FileAccessError", {}, "leave")},
       .play = [](Stage& stage) {
         const std::string tree = stage / "tree";
         const auto entries = plant(tree).size() + 1;
         std::uintmax_t removed = 0;
         stage.act([&] { removed = removeAll(tree.c_str()); });
         const bool isToldGone =
             stage.isRefused(Call::openat, ENOENT) || stage.isRefused(Call::unlinkat, ENOENT);
         if (stage.succeeded()) {
           stage.check((!isThere(tree) && removed == entries) || isToldGone, "all of it");
         }
         removed += removeAll(tree.c_str());
         stage.check(!isThere(tree), "a second try takes the rest");
       }});
}

const std::string text(3000, 't');

/// A tree of everything that is copied in a way of its own.
void plantToCopy(const std::string& from) {
  stdfs::create_directories(from + "/sub");
  writeFile(from + "/file", text);
  writeFile(from + "/sub/file", text);
  ::chmod((from + "/sub/file").c_str(), 0640);
  stdfs::create_hard_link(from + "/file", from + "/sub/same");
  stdfs::create_symlink("file", from + "/link");
}

/// Nothing is there in part, and nothing that the source has not.
void expectWholeFiles(Stage& stage, const std::string& to) {
  // What the system says is a hole is one.
  const bool isHole = stage.isRefused(Call::lseek, ENXIO);
  const Names names = {"sub", "file", "same", "link"};
  for (const auto& entry : stdfs::recursive_directory_iterator(to)) {
    stage.check(names.count(entry.path().filename()) != 0, "left behind: " + entry.path().string());
    if (!entry.is_regular_file() || entry.is_symlink()) continue;
    const std::string content = readFile(entry.path());
    stage.check(content == text || content == "former" || isHole, "a file in part");
  }
}

TEST(EveryFailureOfTrees, ATreeIsCopiedOverAnother) {
  // What the system says is missing is made, and is in the way (EEXIST), or is not there to be entered
  // (ENOENT).
  expectSurvival(
      {.operations = {"kes::fs::TreeCopier::copy"},
       .raises = {raises("kes::FsError", {ESTALE}), raises("kes::FileAccessError"),
                  raises("kes::NoSuchFileError", {ENOENT}), raises("kes::FileExistsError", {EEXIST})},
       .play =
           [](Stage& stage) {
             const std::string from = stage / "from", to = stage / "to";
             plantToCopy(from);
             stdfs::create_directories(to);
             writeFile(to + "/file", "former");
             stdfs::create_symlink("former", to + "/link");
             const sys::AtEnd whateverHappens([&] { expectWholeFiles(stage, to); });
             TreeCopier copier(Flags::OVERWRITE);
             stage.act([&] { return copier.copy(from.c_str(), to.c_str()); });
             stage.check(isThere(to + "/file"), "what is replaced is never missing");
             if (stage.succeeded()) {
               stage.check(modeOf(to + "/sub/file") == 0640, "with the rights");
               stage.check(stdfs::read_symlink(to + "/link") == "file", "the link");
               stage.check(isThere(to + "/sub/same"), "and the other name");
             }
             expectWholeFiles(stage, to);
             copier.copy(from.c_str(), to.c_str());
             stage.check(readFile(to + "/file") == text, "it can be used again");
             stage.check(readFile(to + "/sub/same") == text, "and copies the rest");
           },
       .mayLeaveFiles = true});
}

TEST(EveryFailureOfTrees, ATreeIsCopiedPastItsErrors) {
  expectSurvival({.operations = {"kes::fs::TreeCopier::copy"},
                  .raises = {raises("kes::FsError", {ESTALE}), raises("kes::FileAccessError"),
                             raises("kes::NoSuchFileError")},
                  .play =
                      [](Stage& stage) {
                        const std::string from = stage / "from", to = stage / "to";
                        plantToCopy(from);
                        int errors = 0;
                        TreeCopier copier;
                        copier.onError([&errors](const Exception&) { return ++errors != 0; });
                        stage.act([&] { return copier.copy(from.c_str(), to.c_str()); });
                        if (!isThere(to)) return stage.check(errors > 0 || !stage.succeeded(), "it says so");
                        expectWholeFiles(stage, to);
                        const bool isAllThere = isThere(to + "/file") && isThere(to + "/link") &&
                                                isThere(to + "/sub/file") && isThere(to + "/sub/same");
                        stage.check(isAllThere || errors > 0 || !stage.succeeded(),
                                    "nothing is passed over silently");
                      },
                  .mayLeaveFiles = true});
}

}  // namespace
}  // namespace kes::fs
