#include <filesystem>

#include "kespal/fs/Ops.h"
#include "kespal/fs/Path.h"
#include "support/EveryFailure.h"
#include "support/TempDir.h"

namespace kes::fs {
namespace {

using test::Call;
using test::expectSurvival;
using test::raises;
using test::Stage;

namespace stdfs = std::filesystem;

const std::string part = "a-component-that-needs-memory";

TEST(EveryFailureOfPaths, TextIsMadeOfText) {
  expectSurvival(
      {.operations = {"kes::fs::Path::components", "kes::fs::Path::join", "kes::fs::Path::operator+",
                      "kes::fs::Path::joined", "kes::fs::Path::basename", "kes::fs::Path::extension",
                      "kes::fs::Path::extensions", "kes::fs::Path::strippedBasename",
                      "kes::fs::Path::intersection", "kes::fs::Path::assignBasename",
                      "kes::fs::Path::assignDirname", "kes::fs::Path::strip"},
       .play = [](Stage& stage) {
         const Path path("/" + part + "/" + part + "." + part), other("/" + part + "/x");
         std::vector<std::string> parts;
         std::string text;
         stage.act([&] { path.components(parts); });
         if (stage.succeeded()) stage.check(parts.size() == 2, "components");
         stage.act([&] { path.extensions(parts); });
         if (stage.succeeded()) stage.check(parts.size() == 2, "extensions");
         Path joined("before");
         const std::vector<std::string> pieces{part, part};
         stage.act([&] { joined.join(pieces, true); });
         stage.check(joined == (stage.succeeded() ? "/" + part + "/" + part : "before"),
                     "joined, or as before");
         stage.act([&] {
           text = path + part.c_str() + part + 'c' + Path(part);
           text = path.basename() + path.extension() + path.strippedBasename();
         });
         if (stage.succeeded()) stage.check(text == part + "." + part + part + part, "pieces");
         stage.act([&] { text = path.intersection(other); });
         if (stage.succeeded()) stage.check(text == "/" + part, "what both have");
         Path cut = path;
         stage.act([&] { cut.assignBasename().strip(0).assignDirname(); });
         stage.check(stage.succeeded() && cut == ".", "cutting takes no memory");
       }});
}

TEST(EveryFailureOfPaths, APathIsMadeAbsolute) {
  expectSurvival({.operations = {"kes::fs::Path::assignAbsolute"},
                  .raises = {raises("kes::RuntimeError", {}, "assignAbsolute")},
                  .play = [](Stage& stage) {
                    Ops::setCWD((stage / "").c_str());
                    const std::string place = Ops::cwd();
                    Path path = part + "/x";
                    stage.act([&] { path.assignAbsolute(); });
                    stage.check(path == (stage.succeeded() ? place + "/" + part + "/x" : part + "/x"),
                                "absolute, or as before");
                  }});
}

TEST(EveryFailureOfPaths, ALinkIsResolved) {
  expectSurvival({.operations = {"kes::fs::Path::assignResolved", "kes::fs::Path::exists"},
                  .raises = {raises("kes::FsError"), raises("kes::NoSuchFileError", {}, "readlink")},
                  .play = [](Stage& stage) {
                    const Path link(stage / "link");
                    stdfs::create_symlink(part, link.c_str());
                    Path path = link;
                    stage.act([&] { path.assignResolved(); });
                    const bool isNoLink = stage.isRefused(Call::readlink, EINVAL);
                    const bool isResolved = stage.succeeded() && !isNoLink;
                    stage.check(path == (isResolved ? stage / part : std::string(link)),
                                "resolved, or as before");
                    bool exists = true;
                    stage.act([&] { exists = link.exists(); });
                    stage.check(exists != stage.succeeded(), "it leads nowhere");
                  }});
}

TEST(EveryFailureOfPaths, APathIsMadeCanonical) {
  expectSurvival({.operations = {"kes::fs::Path::assignCanonical"},
                  .raises = {raises("kes::FsError", {}, "assignCanonical")},
                  .play = [](Stage& stage) {
                    const std::string folder = stage / part;
                    stdfs::create_directory(folder);
                    const std::string roundabout = folder + "/../" + part;
                    Path path = roundabout;
                    stage.act([&] { path.assignCanonical(); });
                    stage.check(path == (stage.succeeded() ? stdfs::canonical(folder).string() : roundabout),
                                "canonical, or as before");
                  }});
}

}  // namespace
}  // namespace kes::fs
