#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <cstring>
#include <string>

#include "everyfailure/Flat.h"
#include "kesos/files.h"
#include "kesos/mappings.h"
#include "support/TempDir.h"
#include "sys/AtEnd.h"

// Files, directories and mapped files of the flat layer.

namespace kes::test {
namespace {

/// The content of a file, which may be missing.
std::string contentOf(const std::string& file) {
  return KesOsFileExists(file.c_str()) == 1 ? readFile(file) : "missing";
}

TEST(EveryFailureOfFlatFiles, WhatIsAskedOfAFileIsAnsweredOrNot) {
  expectSurvival({.operations = {"KesOsFileExists", "KesOsIsDir", "KesOsGetFileSize", "KesOsGetFileTime",
                                 "KesOsSetFileTime"},
                  .play = [](Stage& stage) {
                    const std::string file = stage / "it";
                    writeFile(file, "four");
                    const char* const name = file.c_str();
                    flat(stage, [&] { return KesOsFileExists(name); });
                    flat(stage, [&] { return KesOsIsDir(stage.succeeded() ? "/" : "/."); });
                    unsigned int size = 7;
                    flat(stage, [&] { return KesOsGetFileSize(name, &size); });
                    stage.check(size == (stage.succeeded() ? 4U : 0U), "the size is the file's, or 0");
                    time_t access = 1, modify = 1;
                    flat(stage, [&] { return KesOsSetFileTime(name, 1000); });
                    const bool isSet = stage.succeeded();
                    flat(stage, [&] { return KesOsGetFileTime(name, &access, &modify); });
                    if (stage.succeeded() && isSet) stage.check(modify == 1000, "the time is what was set");
                    if (!stage.succeeded()) stage.check(modify == 1, "no time is made up");
                  }});
}

TEST(EveryFailureOfFlatFiles, DirectoriesAreMadeOrNot) {
  expectSurvival({.operations = {"KesOsChkAndCreateDir"},
                  .play =
                      [](Stage& stage) {
                        const std::string path = stage / "a/b/c";
                        stage.act([&] { return KesOsChkAndCreateDir(path.c_str()) == 1; });
                        stage.check(!stage.succeeded() || KesOsIsDir(path.c_str()) == 1 ||
                                        stage.isRefused(Call::access),
                                    "it is there if that was said");
                        stage.check(KesOsChkAndCreateDir(path.c_str()) == 1, "a second try makes it");
                      },
                  .mayLeaveFiles = true});
}

TEST(EveryFailureOfFlatFiles, FilesAndDirectoriesAreRemovedAndRenamed) {
  expectSurvival(
      {.operations = {"KesOsDeleteFile", "KesOsDeleteDir", "KesOsRenameFile"}, .play = [](Stage& stage) {
         const std::string from = stage / "from", to = stage / "to", dir = stage / "dir";
         writeFile(from, "text");
         ::mkdir(dir.c_str(), 0700);
         const bool isRenamed = flat(stage, [&] { return KesOsRenameFile(from.c_str(), to.c_str()); });
         const std::string file = isRenamed ? to : from;
         stage.check(readFile(file) == "text", "it has one name");
         flat(stage, [&] { return KesOsDeleteFile(file.c_str()); });
         stage.check(stage.succeeded() == (KesOsFileExists(file.c_str()) == 0), "it is gone or not");
         flat(stage, [&] { return KesOsDeleteDir(dir.c_str()); });
         stage.check(stage.succeeded() == (KesOsFileExists(dir.c_str()) == 0), "it is gone or not");
       }});
}

TEST(EveryFailureOfFlatFiles, ACopyIsWholeOrSaysThatItIsNot) {
  const std::string content(10'000, 'x');
  for (const bool exists : {false, true}) {
    expectSurvival(
        {.operations = {"KesOsCopyFile"},
         .play =
             [&content, exists](Stage& stage) {
               const std::string from = stage / "from", to = stage / "to";
               writeFile(from, content);
               ::chmod(from.c_str(), 06755);
               const utimbuf times{1000, 2000};
               ::utime(from.c_str(), &times);
               if (exists) writeFile(to, "before");
               if (exists) ::chmod(to.c_str(), 06700);
               flat(stage, [&] { return KesOsCopyFile(from.c_str(), to.c_str(), 0); });
               struct stat state {};
               ::stat(to.c_str(), &state);
               if (stage.succeeded()) {
                 stage.check(contentOf(to) == content, "the content is the source's");
                 stage.check(state.st_mtime == 2000, "and so are the times");
               } else if (contentOf(to) != content && contentOf(to) != "before" && !contentOf(to).empty()) {
                 stage.check((state.st_mode & 06000) == 0, "half a copy runs with nobody's rights");
               }
               stage.check(contentOf(from) == content, "the source stays as it is");
               stage.check(KesOsCopyFile(from.c_str(), to.c_str(), 0) == 1, "a second try copies it");
             },
         .mayLeaveFiles = true});
  }
}

void makeTree(const std::string& top) {
  for (const char* path : {"", "/empty", "/full", "/full/deep"}) ::mkdir((top + path).c_str(), 0700);
  for (const char* path : {"/file", "/full/one", "/full/two", "/full/deep/three"})
    writeFile(top + path, "text");
}

TEST(EveryFailureOfFlatFiles, ATreeIsGoneOrSaysThatItIsNot) {
  expectSurvival({.operations = {"KesOsDeleteDirTree"}, .play = [](Stage& stage) {
                    const std::string top = stage / "top", beside = stage / "beside";
                    makeTree(top);
                    writeFile(beside, "stays");
                    ::symlink("../beside", (top + "/link").c_str());
                    stage.act([&] { return KesOsDeleteDirTree(top.c_str()) == 1; });
                    stage.check(stage.succeeded() == (KesOsFileExists(top.c_str()) == 0),
                                "it is gone or not");
                    stage.check(readFile(beside) == "stays", "what a link leads to stays");
                    if (!stage.succeeded()) {
                      stage.check(KesOsDeleteDirTree(top.c_str()) == 1, "it goes at a second try");
                    }
                  }});
}

TEST(EveryFailureOfFlatFiles, ASearchFindsWhatThereIsOrEnds) {
  expectSurvival(
      {.operations = {"KesOsFindFirst", "KesOsFindNext", "KesOsFindClose"},
       .play =
           [](Stage& stage) {
             writeFile(stage / "one.txt", "1");
             writeFile(stage / "two.txt", "2");
             KesOsFind find;
             find.dir = nullptr;
             const sys::AtEnd closing([&] { KesOsFindClose(&find); });
             char name[KESOS_PATH_SIZE];
             unsigned int type = 0;
             const std::string pattern = stage / "*.txt";
             flat(stage,
                  [&] { return KesOsFindFirst(&find, pattern.c_str(), name, &type, nullptr, nullptr); });
             stage.check(stage.succeeded() == (find.dir != nullptr), "it is closed when it found nothing");
             if (!stage.succeeded()) return;
             flat(stage, [&] { return KesOsFindNext(&find, name, &type, nullptr, nullptr); });
             if (stage.succeeded()) stage.check(type == KESOS_TYPE_FILE, "the type is the file's");
             flat(stage, [&] { return KesOsFindClose(&find); });
             stage.check(find.dir == nullptr, "it is closed");
           },
       // No cancellation point of this system: it would wait for the next one, which is none of these.
       .isCancelled = false});
}

TEST(EveryFailureOfFlatFiles, PlacesAreFoundOrLeftAlone) {
  expectSurvival(
      {.operations = {"KesOsGetModuleFileName", "KesOsGetModulePath", "KesOsdGetPath", "vSplitFileName"},
       .play =
           [](Stage& stage) {
             char path[KESOS_PATH_SIZE] = "", name[KESOS_PATH_SIZE] = "sh";
             unsigned int error = 77;
             flat(stage,
                  [&] { return KesOsGetModuleFileName(path, sizeof path, name, sizeof name, &error); });
             stage.check(stage.succeeded() == (error == 0), "the error says so, too");
             flat(stage, [&] { return KesOsGetModulePath(path, sizeof path, nullptr); });
             std::strcpy(name, "sh");
             stage.act([&] { return KesOsdGetPath(name) > 0; });
             stage.check(std::string_view(name).ends_with("sh"), "the name is a path or as it was");
             stage.act([&] { vSplitFileName("/a/b", path, name); });
           },
       .spared = {Call::vsnprintf}});  // plain texts can be put together
}

TEST(EveryFailureOfFlatFiles, ATemporaryDirectoryIsMadeOrNot) {
  expectSurvival({.operations = {"KesOsCreateTempdir"},
                  .play =
                      [](Stage& stage) {
                        const std::string base = stage / "base";
                        ::mkdir(base.c_str(), 0700);
                        ::setenv("TMPDIR", base.c_str(), 1);
                        char path[KESOS_PATH_SIZE] = "";
                        flat(stage, [&] { return KesOsCreateTempdir(path, sizeof path); });
                        stage.check(!stage.succeeded() || KesOsIsDir(path) == 1,
                                    "it is there if that was said");
                        if (stage.succeeded()) ::rmdir(path);
                      },
                  // Without TMPDIR it is made in /tmp, and plain texts can be put together.
                  .spared = {Call::getenv, Call::vsnprintf}});
}

TEST(EveryFailureOfFlatFiles, AFileIsMappedOrNotAndNothingIsKept) {
  for (const char* before : {"", "short"}) {
    expectSurvival({.operations = {"KesOsMmfCreate", "KesOsMmfFlush", "KesOsMmfClose"},
                    .play =
                        [before](Stage& stage) {
                          const std::string file = stage / "map";
                          if (*before != '\0') writeFile(file, before);
                          KesOsMmf mapping{-1, -1, 0, nullptr, 0, 0};
                          // Who was cancelled in the middle of the close may close again.
                          const sys::AtEnd closing([&] { KesOsMmfClose(&mapping); });
                          flat(stage, [&] { return KesOsMmfCreate(&mapping, 100'000, file.c_str(), 0); });
                          stage.check(stage.succeeded() == (mapping.address != nullptr),
                                      "it is mapped or not");
                          if (!stage.succeeded()) {
                            stage.check(mapping.error != 0 && mapping.fd == -1, "the record says why");
                            return;
                          }
                          std::memset(mapping.address, 'm', mapping.size);
                          stage.check(readFile(file) == std::string(100'000, 'm'), "it is the file");
                          flat(stage, [&] { return KesOsMmfFlush(&mapping, mapping.address, 10); });
                          flat(stage, [&] { return KesOsMmfClose(&mapping); });
                          stage.check(mapping.fd == -1 && mapping.address == nullptr, "it is closed");
                        },
                    .mayLeaveFiles = true,
                    // What cannot be unmapped stays mapped, and every system knows the size of its pages.
                    .spared = {Call::munmap, Call::sysconf}});
  }
}

}  // namespace
}  // namespace kes::test
