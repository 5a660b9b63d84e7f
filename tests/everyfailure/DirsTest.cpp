#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>

#include "kespal/fs/Access.h"
#include "kespal/fs/Dir.h"
#include "kespal/fs/Info.h"
#include "kespal/fs/StandardPaths.h"
#include "support/EveryFailure.h"
#include "support/FileStatus.h"
#include "support/TempDir.h"

namespace kes::fs {
namespace {

using test::Call;
using test::expectSurvival;
using test::modeOf;
using test::raises;
using test::Stage;
using test::writeFile;

namespace stdfs = std::filesystem;

const std::vector<test::Raises> openErrors = {raises("kes::FsError", {}, "open"),
                                              raises("kes::NoSuchFileError", {}, "open"),
                                              raises("kes::OsError", {}, "close")};

TEST(EveryFailureOfDirs, ADirectoryIsOpenedAndClosed) {
  expectSurvival({.operations = {"kes::fs::Dir::open", "kes::fs::Dir::close"},
                  .raises = openErrors,
                  .play = [](Stage& stage) {
                    const std::string first = stage / "first", second = stage / "second";
                    stdfs::create_directory(first);
                    stdfs::create_directory(second);
                    Dir dir;
                    stage.act([&] { dir.open(first.c_str()); });
                    stage.check(dir.isOpen() == stage.succeeded(), "it is open if that was said");
                    if (!dir.isOpen()) dir.open(first.c_str());
                    stage.act([&] { dir.open(second.c_str()); });
                    stage.check(dir.isOpen() || stage.isRefused(Call::closedir), "the former one stays");
                    stage.act([&] { dir.close(); });
                    stage.check(!dir.isOpen() && dir.fd() == -1, "it counts as closed then");
                    dir.open(first.c_str());
                    stage.check(!dir.nextEntry(), "it can be used afterwards");
                  }});
}

TEST(EveryFailureOfDirs, ADirectoryIsWalkedThrough) {
  auto errors = openErrors;
  errors.insert(errors.end(), {raises("kes::OsError", {}, "nextEntry"), raises("kes::FsError"),
                               raises("kes::NoSuchFileError"), raises("kes::OsError", {}, "get")});
  expectSurvival(
      {.operations = {"kes::fs::Dir::nextEntry", "kes::fs::Dir::entryInfo", "kes::fs::Dir::entryDir",
                      "kes::fs::Dir::dirInfo", "kes::fs::Dir::entryName", "kes::fs::Dir::entryType"},
       .raises = errors,
       .play = [](Stage& stage) {
         const std::string top = stage / "top";
         stdfs::create_directories(top + "/below/further-down");
         Dir dir(top.c_str()), below;
         Info info;
         stage.act([&] { return dir.nextEntry(); });
         if (!stage.succeeded()) return;
         stage.check(std::string(dir.entryName()) == "below", "the name");
         stage.check(dir.entryType() == Dir::EntryType::Directory, "the type");
         stage.act([&] { dir.entryInfo(info, false); });
         stage.check(info.isDir() == stage.succeeded(), "the entry's status, or none");
         stage.act([&] { dir.entryDir(below); });
         stage.check(below.isOpen() == stage.succeeded(), "the directory below is open if that was said");
         info = {};
         stage.act([&] { dir.dirInfo(info); });
         stage.check(info.isDir() == stage.succeeded(), "its own status, or none");
         stage.act([&] { dir.entryDir(dir); });
         stage.check(dir.isOpen() || stage.isRefused(Call::closedir), "it stays on if it cannot go down");
       }});
}

TEST(EveryFailureOfDirs, ADirectoryIsFoundEmpty) {
  auto errors = openErrors;
  errors.push_back(raises("kes::OsError", {}, "nextEntry"));
  expectSurvival({.operations = {"kes::fs::Dir::isEmpty", "kes::fs::Dir::~Dir", "kes::fs::Dir::Dir"},
                  .raises = errors,
                  .play = [](Stage& stage) {
                    const std::string empty = stage / "empty", full = stage / "full";
                    stdfs::create_directory(empty);
                    stdfs::create_directories(full + "/entry");
                    bool isEmpty = false, isFullEmpty = true;
                    stage.act([&] { isEmpty = Dir::isEmpty(empty.c_str()); });
                    stage.check(isEmpty == stage.succeeded(), "empty");
                    stage.act([&] { isFullEmpty = Dir::isEmpty(full.c_str()); });
                    stage.check(isFullEmpty != stage.succeeded(), "full");
                  }});
}

TEST(EveryFailureOfDirs, AStatusIsRead) {
  expectSurvival({.operations = {"kes::fs::Info::get"},
                  .raises = {raises("kes::FsError", {}, "get"), raises("kes::NoSuchFileError", {}, "get"),
                             raises("kes::OsError", {}, "get")},
                  .play = [](Stage& stage) {
                    const std::string file = stage / "file";
                    writeFile(file, "four");
                    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
                    Info followed, itself, open;
                    stage.act([&] { followed = Info::get(file.c_str(), true); });
                    stage.check(followed.size() == (stage.succeeded() ? 4 : 0), "followed");
                    stage.act([&] { itself = Info::get(file.c_str(), false); });
                    stage.check(itself.size() == (stage.succeeded() ? 4 : 0), "itself");
                    stage.act([&] { open = Info::get(fd); });
                    stage.check(open.size() == (stage.succeeded() ? 4 : 0), "open");
                    ::close(fd);
                  }});
}

TEST(EveryFailureOfDirs, HandsAreChanged) {
  expectSurvival({.operations = {"kes::fs::setOwnership"},
                  .raises = {raises("kes::FsError", {}, "setOwnership")},
                  .play = [](Stage& stage) {
                    const std::string file = stage / "file";
                    writeFile(file, "");
                    ::chmod(file.c_str(), 06755);
                    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
                    const Access access(::geteuid(), ::getegid(), 06755);
                    stage.act([&] { setOwnership(file.c_str(), -1, access); });
                    if (stage.succeeded()) stage.check(modeOf(file) == 06755, "by path");
                    ::chmod(file.c_str(), 06755);
                    stage.act([&] { setOwnership(nullptr, fd, access); });
                    if (stage.succeeded()) stage.check(modeOf(file) == 06755, "by descriptor");
                    ::close(fd);
                  }});
}

TEST(EveryFailureOfDirs, RightsAreReadAndWritten) {
  expectSurvival(
      {.operations = {"kes::fs::Access::setMode", "kes::fs::Access::isSafe", "kes::fs::Access::setUmask",
                      "kes::fs::operator<<"},
       .raises = {raises("std::invalid_argument")},
       .play = [](Stage& stage) {
         Access access(1, 2, 0);
         const std::string good = "u=rwx,g=rx", bad = "u=rwx,g=rx and then something else altogether";
         stage.act([&] { access.setMode(good); });
         stage.check(access.mode() == (stage.succeeded() ? 0750 : 0), "the mode, or as before");
         const unsigned short before = access.mode();
         bool isRefused = false;
         stage.act([&] {
           try {
             access.setMode(bad);
           } catch (const std::invalid_argument&) {
             isRefused = true;
           }
         });
         stage.check(access.mode() == before && isRefused == stage.succeeded(), "it stays then");
         std::ostringstream text;
         text.exceptions(std::ios::badbit);
         stage.act([&] { text << Access(0, 80, 0750); });
         if (stage.succeeded()) stage.check(text.str() == "0:80 rwxr-x---", "the text");
         stage.act([&] { Access::setUmask(Access::setUmask(Access(077))); });
         stage.check(stage.succeeded() && Access(1, 2, 0660).isSafe(false, 1, 2), "these cannot fail");
       }});
}

TEST(EveryFailureOfDirs, StandardDirectoriesAreNamed) {
  expectSurvival(
      {.operations = {"kes::fs::StandardPaths::documentsDir", "kes::fs::StandardPaths::userDataDir",
                      "kes::fs::StandardPaths::userLogDir", "kes::fs::StandardPaths::logDir"},
       .play = [](Stage& stage) {
         const std::string home = stage / "";
         ::clearenv();
         ::setenv("HOME", home.c_str(), 1);
         stdfs::create_directory(stage / ".config");
         writeFile(stage / ".config/user-dirs.dirs",
                   std::string(5000, '#') + "\nXDG_DOCUMENTS_DIR=\"$HOME/a-longer-name-of-documents\"\n");
         std::string documents, data, logs, systemLogs;
         stage.act([&] {
           documents = StandardPaths::documentsDir();
           data = StandardPaths::userDataDir();
           logs = StandardPaths::userLogDir();
           systemLogs = StandardPaths::logDir();
         });
         if (!stage.succeeded()) return;
         const bool isUnread = (stage.isRefused(Call::open) && !stage.isRefused(Call::open, EINTR)) ||
                               (stage.isRefused(Call::read) && !stage.isRefused(Call::read, EINTR));
         stage.check(documents.ends_with(isUnread ? "/Documents" : "/a-longer-name-of-documents"),
                     "documents");
         stage.check(data.ends_with("/.local/share") && logs.ends_with("/Logs"), "the others");
       }});
  expectSurvival({.operations = {"kes::fs::StandardPaths::userDataDir"}, .play = [](Stage& stage) {
                    ::clearenv();
                    std::string data;
                    stage.act([&] { data = StandardPaths::userDataDir(); });
                    if (stage.succeeded()) stage.check(data.ends_with("/.local/share"), "below no home");
                  }});
}

TEST(EveryFailureOfDirs, TemporaryDirectoriesAreNamed) {
  expectSurvival({.operations = {"kes::fs::StandardPaths::tempDir", "kes::fs::StandardPaths::userTempDir"},
                  .play = [](Stage& stage) {
                    const std::string own = stage / "a-runtime-directory-of-our-own",
                                      shared = stage / "shared-by-everybody";
                    stdfs::create_directory(own);
                    stdfs::create_directory(shared);
                    ::setenv("TMPDIR", shared.c_str(), 1);
                    ::setenv("XDG_RUNTIME_DIR", own.c_str(), 1);
                    std::string temp, userTemp;
                    stage.act([&] { temp = StandardPaths::tempDir(); });
                    if (stage.succeeded()) {
                      stage.check(temp == (stage.isRefused(Call::stat) ? "/tmp" : shared), "one that exists");
                    }
                    stage.act([&] { userTemp = StandardPaths::userTempDir(); });
                    if (stage.succeeded() && !stage.isRefused(Call::stat))
                      stage.check(userTemp == own, "our own");
                  }});
}

}  // namespace
}  // namespace kes::fs
