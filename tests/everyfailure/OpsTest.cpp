#include "kespal/fs/Ops.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "kespal/fs/Access.h"
#include "kespal/fs/Path.h"
#include "support/EveryFailure.h"
#include "support/FileStatus.h"
#include "support/TempDir.h"

namespace kes::fs {
namespace {

using test::Call;
using test::expectSurvival;
using test::modeOf;
using test::Raises;
using test::raises;
using test::readFile;
using test::Stage;
using test::writeFile;

namespace stdfs = std::filesystem;

bool isThere(const std::string& path) { return stdfs::exists(stdfs::symlink_status(path)); }

/// The errors of a copy by name, its rights included.
const std::vector<Raises> copyErrors = {
    raises("kes::FsError"),         raises("kes::OsError"),           raises("kes::FileAccessError"),
    raises("kes::FileBusyError"),   raises("kes::NoSuchFileError"),   raises("kes::ReadOnlyFileSystemError"),
    raises("kes::IsASymlinkError"), raises("kes::NoSuchProcessError")};

TEST(EveryFailureOfOps, TheWorkingDirectoryIsAskedFor) {
  expectSurvival({.operations = {"kes::fs::Ops::cwd"},
                  .raises = {raises("kes::OsError", {ENAMETOOLONG}, "cwd")},
                  .play = [](Stage& stage) {
                    const std::string place = stdfs::current_path(), before = "before";
                    std::string found = before;
                    stage.act([&] { found = Ops::cwd(); });
                    stage.check(found == (stage.succeeded() ? place : before), "the directory");
                  }});
}

TEST(EveryFailureOfOps, TheWorkingDirectoryIsChanged) {
  expectSurvival({.operations = {"kes::fs::Ops::setCWD"},
                  .raises = {raises("kes::FsError", {}, "setCWD")},
                  .play = [](Stage& stage) {
                    const std::string folder = stage / "folder", before = stdfs::current_path();
                    stdfs::create_directory(folder);
                    stage.act([&] { Ops::setCWD(folder.c_str()); });
                    stage.check(stdfs::current_path() == (stage.succeeded() ? folder : before), "the place");
                  }});
}

TEST(EveryFailureOfOps, AFileIsLookedFor) {
  expectSurvival({.operations = {"kes::fs::Ops::exists"},
                  .raises = {raises("kes::FsError", {}, "exists")},
                  .play = [](Stage& stage) {
                    const std::string path = stage / "it";
                    writeFile(path, "");
                    bool followed = false, itself = false;
                    stage.act([&] {
                      followed = Ops::exists(path.c_str(), true);
                      itself = Ops::exists(path.c_str(), false);
                    });
                    if (!stage.succeeded()) return;
                    stage.check(followed == !stage.isRefused(Call::stat), "only ENOENT means that it is not");
                    stage.check(itself == !stage.isRefused(Call::lstat), "nor the link");
                  }});
}

TEST(EveryFailureOfOps, ALinkIsMadeAndRead) {
  expectSurvival({.operations = {"kes::fs::Ops::symlink", "kes::fs::Ops::readlink"},
                  .raises = {raises("kes::FsError"), raises("kes::FileExistsError", {}, "symlink"),
                             raises("kes::NoSuchFileError", {}, "readlink"),
                             raises("kes::NotASymlinkError", {}, "readlink")},
                  .play = [](Stage& stage) {
                    const std::string link = stage / "link", long_target(300, 't');
                    std::string target = "before";
                    stage.act([&] { Ops::symlink(link.c_str(), long_target.c_str()); });
                    stage.check(isThere(link) == stage.succeeded(), "the link is there if that was said");
                    if (!stage.succeeded()) Ops::symlink(link.c_str(), long_target.c_str());
                    stage.act([&] { Ops::readlink(link.c_str(), target); });
                    stage.check(target == (stage.succeeded() ? long_target : "before"), "the target");
                  }});
}

TEST(EveryFailureOfOps, AFileIsRenamed) {
  expectSurvival({.operations = {"kes::fs::Ops::rawMove"},
                  .raises = {raises("kes::FsError"), raises("kes::NotSameDeviceError", {}, "rawMove"),
                             raises("kes::ReadOnlyFileSystemError", {}, "rawMove")},
                  .play = [](Stage& stage) {
                    const std::string from = stage / "from", to = stage / "to";
                    writeFile(from, "text");
                    stage.act([&] { Ops::rawMove(from.c_str(), to.c_str()); });
                    stage.check(isThere(from) != stage.succeeded(), "it is where it was, or not");
                    stage.check(readFile(stage.succeeded() ? to : from) == "text", "it is whole");
                  }});
}

void expectMoved(Stage& stage, const std::string& from, const std::string& to) {
  const std::string text(3000, 'x');
  writeFile(from, text);
  stage.act([&] { Ops::move(from.c_str(), to.c_str()); });
  stage.check(isThere(from) != stage.succeeded(), "the source stays if the move failed, and only then");
  stage.check(readFile(stage.succeeded() ? to : from) == text, "one of the two is whole");
}

TEST(EveryFailureOfOps, AFileIsMoved) {
  auto errors = copyErrors;
  errors.push_back(raises("kes::NoSuchFileError", {}, "get"));
  expectSurvival({.operations = {"kes::fs::Ops::move"}, .raises = errors, .play = [](Stage& stage) {
                    expectMoved(stage, stage / "from", stage / "to");
                  }});
}

TEST(EveryFailureOfOps, AFileIsMovedToAnotherDevice) {
  expectSurvival({.operations = {"kes::fs::Ops::move"},
                  .raises = copyErrors,
                  .play =
                      [](Stage& stage) {
                        const test::TempDir elsewhere;
                        expectMoved(stage, elsewhere / "from", stage / "to");
                      },
                  .mayLeaveFiles = true});
}

TEST(EveryFailureOfOps, AFileADirectoryAndEitherAreRemoved) {
  expectSurvival(
      {.operations = {"kes::fs::Ops::removeFile", "kes::fs::Ops::removeDir", "kes::fs::Ops::remove"},
       .raises = {raises("kes::FsError"), raises("kes::FileAccessError", {}, "removeFile"),
                  raises("kes::NoSuchFileError", {}, "get")},
       .play = [](Stage& stage) {
         const std::string file = stage / "file", folder = stage / "folder", link = stage / "link";
         writeFile(file, "");
         stdfs::create_directory(folder);
         stdfs::create_symlink(folder, link);
         stage.act([&] { Ops::removeFile(file.c_str()); });
         stage.check(isThere(file) != stage.succeeded(), "the file");
         stage.act([&] { Ops::remove(link.c_str()); });
         stage.check(isThere(link) != stage.succeeded() && isThere(folder), "the link, and not its folder");
         stage.act([&] { Ops::removeDir(folder.c_str()); });
         stage.check(isThere(folder) != stage.succeeded(), "the folder");
         stdfs::create_directories(folder);
         stage.act([&] { Ops::remove(folder.c_str()); });
         stage.check(isThere(folder) != stage.succeeded(), "the folder, as either");
       }});
}

TEST(EveryFailureOfOps, WhatMayBeThereIsRemoved) {
  expectSurvival({.operations = {"kes::fs::Ops::tryRemove"},
                  .raises = {raises("kes::FsError"), raises("kes::FileAccessError", {}, "removeFile")},
                  .play = [](Stage& stage) {
                    const std::string file = stage / "file";
                    writeFile(file, "");
                    bool removed = false;
                    stage.act([&] { removed = Ops::tryRemove(file); });
                    stage.check(removed != isThere(file), "it says whether it has removed it");
                    const bool toldMissing =
                        stage.isRefused(Call::lstat, ENOENT) || stage.isRefused(Call::unlink, ENOENT);
                    if (stage.succeeded()) stage.check(removed != toldMissing, "false if it was missing");
                  }});
}

void plant(const std::string& tree) {
  std::string path = tree;
  for (int level = 0; level < 12; ++level) {
    stdfs::create_directories(path + "/empty");
    writeFile(path + "/file", "");
    path += "/deeper";
  }
  stdfs::create_symlink(tree + "/file", tree + "/link");
}

TEST(EveryFailureOfOps, ATreeIsRemoved) {
  expectSurvival(
      {.operations = {"kes::fs::Ops::removeTree", "kes::fs::at::get", "kes::fs::at::nextEntry",
                      "kes::fs::at::removeDir", "kes::fs::at::removeFile"},
       .raises = {raises("kes::FsError"), raises("kes::NoSuchFileError"),
                  raises("kes::FileAccessError", {}, "removeFile"), raises("kes::OsError", {}, "nextEntry")},
       .play = [](Stage& stage) {
         const std::string tree = stage / "tree";
         plant(tree);
         stage.act([&] { Ops::removeTree(tree.c_str()); });
         stage.check(isThere(tree) != stage.succeeded(), "all of it is gone if that was said");
         if (!stage.succeeded()) Ops::removeTree(tree.c_str());
         stage.check(!isThere(tree), "a second try takes the rest");
       }});
}

TEST(EveryFailureOfOps, DirectoriesAreMade) {
  expectSurvival({.operations = {"kes::fs::Ops::mkdir"},
                  .raises = {raises("kes::FsError"), raises("kes::FileExistsError", {}, "mkdir"),
                             raises("kes::NoSuchFileError", {}, "mkdir")},
                  .play =
                      [](Stage& stage) {
                        const std::string folder = stage / "folder";
                        const Access access(::geteuid(), ::getegid(), 0750);
                        stage.act([&] { Ops::mkdir(folder.c_str(), &access); });
                        stage.check(isThere(folder) || stage.isRefused(Call::mkdir) || !stage.succeeded(),
                                    "it is there if that was said");
                        if (stage.succeeded()) stage.check(modeOf(folder) == 0750, "with its rights");
                      },
                  .mayLeaveFiles = true});
  expectSurvival({.operations = {"kes::fs::Ops::makedirs"},
                  .raises = {raises("kes::FsError"), raises("kes::FileExistsError", {EEXIST}, "mkdir"),
                             raises("kes::NoSuchFileError", {}, "mkdir")},
                  .play =
                      [](Stage& stage) {
                        const std::string folder = stage / "a/b//c/";
                        stage.act([&] { Ops::makedirs(folder.c_str()); });
                        if (stage.succeeded()) stage.check(isThere(folder), "all levels");
                        Ops::tryMakedirs(folder.c_str());
                        stage.check(isThere(folder), "a second try makes the rest");
                      },
                  .mayLeaveFiles = true});
  expectSurvival({.operations = {"kes::fs::Ops::tryMakedirs"},
                  .raises = {raises("kes::FsError"), raises("kes::FileExistsError", {EEXIST}, "mkdir"),
                             raises("kes::NoSuchFileError", {}, "mkdir")},
                  .play =
                      [](Stage& stage) {
                        const std::string folder = stage / "a/b";
                        bool first = false, second = true;
                        if (stage.act([&] { first = Ops::tryMakedirs(folder.c_str()); })) {
                          stage.check(first && isThere(folder), "made");
                        }
                        Ops::tryMakedirs(folder.c_str());
                        if (stage.act([&] { second = Ops::tryMakedirs(folder.c_str()); })) {
                          stage.check(!second, "not made again");
                        }
                      },
                  .mayLeaveFiles = true});
}

TEST(EveryFailureOfOps, ATemporaryDirectoryIsMade) {
  expectSurvival({.operations = {"kes::fs::Ops::tempdir"},
                  .raises = {raises("kes::FsError", {}, "tempdir")},
                  .play = [](Stage& stage) {
                    const std::string given = stage / "it";
                    std::string name = given;
                    stage.act([&] { Ops::tempdir(name); });
                    stage.check(stage.succeeded() ? isThere(name) : name == given, "the name");
                  }});
  expectSurvival({.operations = {"kes::fs::Ops::tempdir"},
                  .raises = {raises("kes::FsError", {}, "tempdir")},
                  .play = [](Stage& stage) {
                    ::setenv("TMPDIR", (stage / "").c_str(), 1);
                    std::string name = "it";
                    stage.act([&] { Ops::tempdir(name); });
                    const bool isElsewhere = name.starts_with("/tmp/");
                    stage.check(isElsewhere == (stage.succeeded() && stage.isRefused(Call::stat)),
                                "what cannot be examined is not used");
                    if (isElsewhere) ::rmdir(name.c_str());
                  }});
}

TEST(EveryFailureOfOps, APipeIsMade) {
  expectSurvival({.operations = {"kes::fs::Ops::makeFifo"},
                  .raises = {raises("kes::FsError", {}, "makeFifo")},
                  .play = [](Stage& stage) {
                    const std::string pipe = stage / "pipe";
                    stage.act([&] { Ops::makeFifo(pipe, Access(0600)); });
                    stage.check(isThere(pipe) == stage.succeeded(), "it is there if that was said");
                  }});
}

TEST(EveryFailureOfOps, RightsAreChanged) {
  expectSurvival(
      {.operations = {"kes::fs::Ops::setAccess", "kes::fs::Ops::setAccessPriv", "kes::fs::setOwnership",
                      "kes::fs::at::setAccessPriv", "kes::fs::at::setOwnership"},
       .raises = {raises("kes::FsError"), raises("kes::OsError", {}, "setAccessPriv")},
       .play = [](Stage& stage) {
         const std::string file = stage / "file";
         writeFile(file, "");
         const Access access(::geteuid(), ::getegid(), 04755);
         const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
         stage.act([&] { Ops::setAccess(file.c_str(), access); });
         if (stage.succeeded()) stage.check(modeOf(file) == 04755, "by path");
         ::chmod(file.c_str(), 0600);
         stage.act([&] { Ops::setAccess(fd, access); });
         if (stage.succeeded()) stage.check(modeOf(file) == 04755, "by descriptor");
         ::close(fd);
       }});
}

TEST(EveryFailureOfOps, AProgramIsSearchedFor) {
  expectSurvival({.operations = {"kes::fs::Ops::which"}, .play = [](Stage& stage) {
                    const std::string program = stage / "program";
                    writeFile(program, "");
                    ::chmod(program.c_str(), 0755);
                    ::setenv("PATH", ("/a-rather-long-name-of-nothing-at-all:" + stage / "").c_str(), 1);
                    std::string found, folder;
                    stage.act([&] {
                      found = Ops::which("program");
                      folder = Ops::which(program.c_str(), true);
                    });
                    if (!stage.succeeded() || stage.isRefused(Call::stat)) return;
                    stage.check(Path(found).basename() == "program" && program == folder + "/program", "it");
                  }});
}

TEST(EveryFailureOfOps, NamesAreExpanded) {
  expectSurvival({.operations = {"kes::fs::Ops::glob"},
                  .raises = {raises("kes::RuntimeError", {}, "glob")},
                  .play = [](Stage& stage) {
                    const std::string pattern = (stage / "name-*");
                    for (const char* name : {"name-1", "name-2", "name-3"}) writeFile(stage / name, "");
                    std::list<std::string> names;
                    stage.act([&] { names = Ops::glob(pattern); });
                    const bool isNone = !stage.succeeded() || stage.isRefused(Call::glob);
                    stage.check(names.size() == (isNone ? 0 : 3), "all or none");
                  }});
  expectSurvival({.operations = {"kes::fs::Ops::glob"},
                  .raises = {raises("kes::RuntimeError", {}, "glob")},
                  .play = [](Stage& stage) {
                    ::unsetenv("HOME");
                    std::list<std::string> names;
                    stage.act([&] { names = Ops::glob("~"); });
                    if (stage.succeeded()) stage.check(names.size() <= 1, "one home, or none");
                  }});
}

}  // namespace
}  // namespace kes::fs
