#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <optional>

#include "kespal/fs/Access.h"
#include "kespal/fs/SaveFile.h"
#include "support/EveryFailure.h"
#include "support/FileStatus.h"
#include "support/TempDir.h"
#include "sys/AtEnd.h"

// A file that takes the place of another one.

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

const std::string former = "former", text(3000, 't');

const std::vector<Raises> saveErrors = {raises("kes::FsError"), raises("kes::FileAccessError"),
                                        raises("kes::NoSuchFileError")};

/// How many entries a directory has.
std::ptrdiff_t entriesIn(const std::string& folder) {
  return std::distance(stdfs::directory_iterator(folder), stdfs::directory_iterator());
}

void save(const std::string& path, const Access* access = nullptr) {
  SaveFile file(path.c_str(), access);
  file.write(text.data(), text.size());
  file.commit();
}

TEST(EveryFailureOfSaves, AFileIsReplacedInOneStep) {
  expectSurvival({.operations = {"kes::fs::SaveFile::SaveFile", "kes::fs::SaveFile::write",
                                 "kes::fs::SaveFile::commit", "kes::fs::SaveFile::~SaveFile"},
                  .raises = saveErrors,
                  .play = [](Stage& stage) {
                    const std::string path = stage / "it";
                    writeFile(path, former);
                    ::chmod(path.c_str(), 0640);
                    const sys::AtEnd whateverHappens([&] {
                      const std::string content = readFile(path);
                      stage.check(content == former || content == text, "the one or the other, whole");
                      stage.check(entriesIn(stage / "") == 1, "nothing is left beside it");
                    });
                    stage.act([&] { save(path); });
                    // What the device has not been told of is in its place all the same.
                    const bool isOld = readFile(path) == former;
                    stage.check(isOld != stage.succeeded() || stage.isRefused(Call::fsync), "it was said");
                    const bool isTakenForNew = stage.isRefused(Call::fstatat, ENOENT);
                    stage.check(modeOf(path) == 0640 || isTakenForNew, "the rights");
                    stage.check(entriesIn(stage / "") == 1, "nothing beside it");
                    save(path);
                    stage.check(readFile(path) == text, "a second try");
                  }});
}

TEST(EveryFailureOfSaves, WhatALinkLeadsToIsReplacedWithOtherRights) {
  // What the system says is missing is taken for a new file at first, and is a link.
  auto errors = saveErrors;
  errors.push_back(raises("kes::FsError", {EINVAL}, "chooseRights"));
  expectSurvival({.operations = {"kes::fs::SaveFile::SaveFile"}, .raises = errors, .play = [](Stage& stage) {
                    const std::string path = stage / "it", link = stage / "link";
                    writeFile(path, former);
                    stdfs::create_symlink(path, link);
                    const Access access(::geteuid(), ::getegid(), 04750);
                    stage.act([&] { save(link, &access); });
                    const bool isOld = readFile(path) == former;
                    stage.check(isOld != stage.succeeded() || stage.isRefused(Call::fsync),
                                "the old or the new one");
                    if (stage.succeeded()) stage.check(modeOf(path) == 04750, "the rights");
                    stage.check(stdfs::is_symlink(link), "the link stays");
                    stage.check(entriesIn(stage / "") == 2, "nothing beside them");
                  }});
}

TEST(EveryFailureOfSaves, WhatIsGivenUpIsGone) {
  expectSurvival({.operations = {"kes::fs::SaveFile::cancel", "kes::fs::SaveFile::~SaveFile"},
                  .raises = saveErrors,
                  .play =
                      [](Stage& stage) {
                        const std::string path = stage / "it", other = stage / "other";
                        std::optional<SaveFile> file(std::in_place, path.c_str()),
                            unfinished(std::in_place, other.c_str());
                        stage.act([&] { file->write(text.data(), text.size()); });
                        stage.act([&] { file->cancel(); });
                        stage.check(stage.succeeded() && file->fd() == -1, "this raises nothing");
                        stage.act([&] { unfinished.reset(); });
                        stage.check(stage.succeeded(), "nor does this");
                        const bool isLeft = stage.isRefused(Call::unlinkat);
                        stage.check(isLeft || entriesIn(stage / "") == 0, "no file was made");
                      },
                  .mayLeaveFiles = true});
}

}  // namespace
}  // namespace kes::fs
