#include "kespal/fs/File.h"
#include "support/EveryFailure.h"
#include "support/TempDir.h"

namespace kes::fs {
namespace {

using test::Call;
using test::expectSurvival;
using test::raises;
using test::readFile;
using test::Stage;
using test::writeFile;

TEST(EveryFailureOfFiles, AFileIsOpenedForWritingAndClosed) {
  expectSurvival({.operations = {"kes::fs::File::open", "kes::fs::File::close"},
                  .raises = {raises("kes::FsError"), raises("kes::OsError"), raises("kes::FileAccessError"),
                             raises("kes::NoSuchFileError"), raises("kes::FileBusyError")},
                  .play = [](Stage& stage) {
                    const std::string path = stage / "it";
                    writeFile(path, "text");
                    File file;
                    stage.act([&] { file.open(path.c_str(), File::WRITE, File::TRUNCATE); });
                    stage.check(stage.succeeded() == (file.fd() >= 0), "it is held if that was said");
                    stage.check(readFile(path) == (stage.succeeded() ? "" : "text"),
                                "it was emptied, or not touched");
                    stage.act([&] { file.close(); });
                    stage.check(file.fd() == -1, "nothing is held once close() was called");
                    file.open(path.c_str(), File::READ);
                  }});
}

TEST(EveryFailureOfFiles, ATemporaryFileIsCreated) {
  expectSurvival({.operations = {"kes::fs::File::open", "kes::fs::File::~File"},
                  .raises = {raises("kes::FsError")},
                  .play = [](Stage& stage) {
                    std::string name = stage / "it";
                    File file;
                    stage.act([&] { file.open(File::TempType(), name); });
                    stage.check(stage.succeeded() == (file.fd() >= 0), "it is held if that was said");
                    stage.check(stage.succeeded() || name == stage / "it",
                                "the name is left alone by a failure");
                  }});
}

}  // namespace
}  // namespace kes::fs
