#include <algorithm>
#include <clocale>
#include <cstdint>
#include <filesystem>

#include "kespal/Catalogue.h"
#include "kespal/Locale.h"
#include "support/EveryFailure.h"
#include "support/TempDir.h"

namespace kes {
namespace {

using test::Call;
using test::expectSurvival;
using test::raises;
using test::Stage;
using test::writeFile;

using namespace std::string_literals;

/// A catalogue of these originals and translations in turn, which are in their order already.
std::string catalogueOf(const std::vector<std::string>& texts) {
  constexpr std::uint32_t tables = 28;
  const auto count = static_cast<std::uint32_t>(texts.size() / 2);
  std::vector<std::uint32_t> head = {0x950412DE, 0, count, tables, tables + 8 * count, 0, 0};
  std::string content;
  for (const std::size_t first : {0U, 1U}) {
    for (std::size_t at = first; at < texts.size(); at += 2) {
      head.push_back(static_cast<std::uint32_t>(texts[at].size()));
      head.push_back(static_cast<std::uint32_t>(tables + 16 * count + content.size()));
      content += texts[at] + '\0';
    }
  }
  return std::string(reinterpret_cast<const char*>(head.data()), head.size() * sizeof head[0]) + content;
}

const std::string bytes = catalogueOf({"", "Plural-Forms: nplurals=2; plural=n != 1;\n", "%d file\0%d files"s,
                                       "%d Datei\0%d Dateien"s, "Yes", "Ja"});

void expectGerman(Stage& stage, const Catalogue& catalogue, bool isThere) {
  std::string yes, files;
  stage.act([&] {
    yes = catalogue.translate("Yes");
    files = catalogue.translate("%d file", "%d files", 2);
  });
  if (!stage.succeeded()) return stage.check(stage.isStarved(), "a look-up needs nothing");
  stage.check(yes == (isThere ? "Ja" : "Yes"), "translated, or as it was");
  stage.check(files == (isThere ? "%d Dateien" : "%d files"), "in the right form");
}

TEST(EveryFailureOfCatalogues, ACatalogueIsLoadedAndLookedUp) {
  expectSurvival({.operations = {"kes::Catalogue::load", "kes::Catalogue::translate"},
                  .raises = {raises("kes::FsError"), raises("kes::FileAccessError", {}, "open"),
                             raises("kes::FileBusyError", {}, "open"), raises("kes::NoSuchFileError"),
                             raises("kes::OsError", {}, "get")},
                  .play = [](Stage& stage) {
                    const std::string path = stage / "program.mo";
                    writeFile(path, bytes);
                    Catalogue catalogue;
                    stage.act([&] { catalogue = Catalogue::load(path.c_str()); });
                    stage.check(catalogue.isEmpty() != stage.succeeded(), "it is there if that was said");
                    expectGerman(stage, catalogue, !catalogue.isEmpty());
                    expectGerman(stage, Catalogue::load(path.c_str()), true);
                  }});
}

TEST(EveryFailureOfCatalogues, TheCatalogueOfALanguageIsFound) {
  expectSurvival({.operations = {"kes::Catalogue::Catalogue"}, .play = [](Stage& stage) {
                    const test::Instead<Call::setlocale> german([](int, const char*) {
                      static char name[] = "de_DE.UTF-8";
                      return name;
                    });
                    Locale::m_locale_dir = stage / "";
                    for (const char* name : {"de", "de_DE"}) {
                      const std::string folder = stage / name + "/LC_MESSAGES/";
                      std::filesystem::create_directories(folder);
                      writeFile(folder + "program.mo", bytes);
                    }
                    Catalogue catalogue;
                    stage.act([&] { catalogue = Catalogue("program"); });
                    // Where one cannot be read, the next one may be.
                    const Call reading[] = {Call::setlocale, Call::stat, Call::open, Call::fstat, Call::read};
                    const bool mayBeNone = !stage.succeeded() || std::ranges::any_of(reading, [&](Call call) {
                      return stage.isRefused(call);
                    });
                    stage.check(!catalogue.isEmpty() || mayBeNone, "it is found");
                    expectGerman(stage, catalogue, !catalogue.isEmpty());
                  }});
}

}  // namespace
}  // namespace kes
