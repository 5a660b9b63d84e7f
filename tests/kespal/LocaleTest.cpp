#include "kespal/Locale.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <map>
#include <string_view>

#include "kespal/gettext.h"
#include "support/Calls.h"
#include "support/ForkedChild.h"
#include "support/NoMemory.h"
#include "support/TempDir.h"

// A search through folders that only exist in a test: the linker sends the library's questions here.
namespace {

using kes::test::Call;
using kes::test::Instead;
using kes::test::real;

struct Search {
  const char* executable;                ///< null: the system does not tell
  std::map<std::string, int> answers{};  ///< errno by path; 0 for a directory, without an entry ENOENT
  std::vector<std::string> asked{};      ///< the places looked at, however often each
};
Search* search = nullptr;

const Instead<Call::readlink> readlinkHere([](const char* path, char* text, std::size_t size) -> ssize_t {
  if (search == nullptr || std::string_view(path) != "/proc/self/exe")
    return real<Call::readlink>(path, text, size);
  errno = EACCES;
  if (search->executable == nullptr) return -1;
  const std::size_t length = std::min(std::strlen(search->executable), size);
  std::memcpy(text, search->executable, length);
  return static_cast<ssize_t>(length);
});

const Instead<Call::stat> statHere([](const char* path, struct stat* status) {
  if (search == nullptr) return real<Call::stat>(path, status);
  if (search->asked.empty() || search->asked.back() != path) search->asked.emplace_back(path);
  const auto answer = search->answers.find(path);
  errno = answer != search->answers.end() ? answer->second : ENOENT;
  status->st_mode = S_IFDIR | 0755;
  return errno == 0 ? 0 : -1;
});

}  // namespace

namespace kes {
namespace {

using test::inChild;
using test::TempDir;

/// A child that sees the locales made for the tests, and no variable that chooses one.
test::ChildResult withLocales(const std::function<void()>& body) {
  return inChild([&body] {
    for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG", "KES_I18N_DIR"}) ::unsetenv(variable);
    ::setenv("LOCPATH", KES_TEST_LOCALES, 1);
    body();
    return 0;
  });
}

bool localesAreThere() { return std::filesystem::exists(std::string(KES_TEST_LOCALES) + "/de_DE.utf8"); }

#define NEED_LOCALES() \
  if (!localesAreThere()) GTEST_SKIP() << "the sources of the system's locales are not installed"

std::string variable(const char* name) {
  const char* value = ::getenv(name);
  return value != nullptr ? value : "unset";
}

std::string languageOf(const char* locale) {
  return withLocales([locale] {
           if (std::setlocale(LC_ALL, locale) == nullptr) std::cout << "no such locale ";
           std::cout << static_cast<int>(Locale::language());
         })
      .out;
}

TEST(LocaleTest, SelectingALanguageTakesItsLocaleAndTellsTheChildren) {
  NEED_LOCALES();
  const auto selected = [](Locale::Language language) {
    return withLocales([language] {
             Locale::init(language);
             std::cout << std::setlocale(LC_MESSAGES, nullptr) << ' ' << variable("LC_ALL");
           })
        .out;
  };
  EXPECT_EQ(selected(Locale::English), "en_US.utf8 en_US.utf8");
  EXPECT_EQ(selected(Locale::German), "de_DE.utf8 de_DE.utf8");
  EXPECT_EQ(selected(Locale::French), "fr_FR.utf8 fr_FR.utf8");
  EXPECT_EQ(selected(Locale::GermanAustria), "de_AT.utf8 de_AT.utf8");
}

TEST(LocaleTest, TheSystemsLanguageComesFromTheEnvironmentAndLeavesLcAllAlone) {
  NEED_LOCALES();
  const auto child = withLocales([] {
    ::setenv("LANG", "fr_FR.utf8", 1);
    Locale::init(Locale::System);
    std::cout << std::setlocale(LC_MESSAGES, nullptr) << ' ' << variable("LC_ALL");
  });
  EXPECT_EQ(child.out, "fr_FR.utf8 unset");
}

TEST(LocaleTest, AnyOtherValueTakesTheEnvironmentsLocaleAndTellsTheChildren) {
  NEED_LOCALES();
  const auto child = withLocales([] {
    ::setenv("LANG", "fr_FR.utf8", 1);
    Locale::init(static_cast<Locale::Language>(99));
    std::cout << variable("LC_ALL");
  });
  EXPECT_EQ(child.out, "fr_FR.utf8");
}

TEST(LocaleTest, ALocaleThatTheSystemDoesNotHaveLeavesTheDefaultInForce) {
  const auto child = inChild([] {
    const TempDir empty;
    ::unsetenv("LC_ALL");
    ::setenv("LOCPATH", empty.path().c_str(), 1);
    Locale::init(Locale::German);
    std::cout << std::setlocale(LC_ALL, nullptr) << ' ' << variable("LC_ALL");
    return 0;
  });
  EXPECT_EQ(child.out, "C unset");
}

TEST(LocaleTest, TheLanguageIsToldByTheNameOfTheMessageLocale) {
  NEED_LOCALES();
  EXPECT_EQ(languageOf("de_AT.utf8"), "3");
  EXPECT_EQ(languageOf("de_AT.iso885915"), "3");
  EXPECT_EQ(languageOf("DE_AT.utf8"), "3");
  EXPECT_EQ(languageOf("de_DE.utf8"), "1");
  EXPECT_EQ(languageOf("de_CH.utf8"), "1");
  EXPECT_EQ(languageOf("fr_FR.utf8"), "2");
  EXPECT_EQ(languageOf("en_US.utf8"), "4");
  EXPECT_EQ(languageOf("en_GB.utf8"), "4");
}

TEST(LocaleTest, TheDefaultLocaleIsEnglish) {
  EXPECT_EQ(languageOf("C"), "0");
  EXPECT_EQ(languageOf("POSIX"), "0");
}

TEST(LocaleTest, OnlyTheMessageLocaleCounts) {
  NEED_LOCALES();
  const auto child = withLocales([] {
    std::setlocale(LC_ALL, "de_DE.utf8");
    std::setlocale(LC_MESSAGES, "fr_FR.utf8");
    std::cout << static_cast<int>(Locale::language());
  });
  EXPECT_EQ(child.out, "2");
}

TEST(LocaleTest, TheVariableForTheCataloguesHasItsName) { EXPECT_EQ(Locale::m_locale_env, "KES_I18N_DIR"); }

TEST(LocaleTest, TheVariableIsTakenWithoutATest) {
  const auto child = withLocales([] {
    ::setenv("KES_I18N_DIR", "/no/such/directory", 1);
    Locale::init(Locale::System);
    std::cout << Locale::m_locale_dir;
  });
  EXPECT_EQ(child.out, "/no/such/directory");
}

TEST(LocaleTest, WithoutMemoryThereAreNoCataloguesAndNothingIsRaised) {
  const auto child = withLocales([] {
    ::setenv("KES_I18N_DIR", "/a/path/that/is/too/long/to/lie/within/a/text/object", 1);
    std::size_t refused = 0;
    for (const auto language : {Locale::System, Locale::German}) {
      refused += test::starve([language] {
        try {
          Locale::init(language);
        } catch (const std::bad_alloc&) {
          std::cout << "raised ";
        }
      });
      std::cout << '<' << Locale::m_locale_dir << '>';
      Locale::m_locale_dir = std::string();
    }
    std::cout << (refused > 0);
  });
  EXPECT_EQ(child.out,
            "</a/path/that/is/too/long/to/lie/within/a/text/object></a/path/that/is/too/long/to/lie/within/a/"
            "text/object>1");
}

TEST(LocaleTest, ARuntimeObjectOfNamespaceScopeFindsWhatItNeedsMade) {
  const auto child = inChild([] { return ::execl(KES_STATIC_RUNTIME_PROBE, "probe", nullptr); });
  EXPECT_EQ(child.out, "1011 /a/path/that/is/too/long/to/lie/within/a/text/object KES_I18N_DIR forked 0");
  EXPECT_EQ(child.exitCode(), 0) << "signal " << child.signal() << child.err;
}

TEST(LocaleTest, AnEmptyVariableEndsTheSearchToo) {
  const auto child = withLocales([] {
    ::setenv("KES_I18N_DIR", "", 1);
    std::string dir = "before";
    findLocaleDir(dir);
    std::cout << '<' << dir << '>';
  });
  EXPECT_EQ(child.out, "<>");
}

/// What a program in `folder` finds: a copy of the probe, started by `command` there.
std::string foundBy(const std::string& folder, const std::string& command) {
  std::filesystem::create_directories(folder);
  std::filesystem::copy_file(KES_LOCALE_PROBE, folder + "/probe",
                             std::filesystem::copy_options::skip_existing);
  return inChild([&] {
           ::unsetenv("KES_I18N_DIR");
           if (::chdir(folder.c_str()) != 0) return 1;
           return ::execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
         })
      .out;
}

TEST(LocaleTest, TheCataloguesAreFoundBesideAFolderAboveTheProgram) {
  const TempDir dir;
  std::filesystem::create_directory(dir / "i18n");
  EXPECT_EQ(foundBy(dir / "bin", "./probe"), dir / "i18n");
  EXPECT_EQ(foundBy(dir / "a/b/c", "./probe"), dir / "i18n");
}

TEST(LocaleTest, TheNearestCataloguesAreTaken) {
  const TempDir dir;
  std::filesystem::create_directory(dir / "i18n");
  std::filesystem::create_directories(dir / "bin/i18n");
  EXPECT_EQ(foundBy(dir / "bin", "./probe"), dir / "bin/i18n");
}

TEST(LocaleTest, AFileOfThatNameIsPassedBy) {
  const TempDir dir;
  std::filesystem::create_directories(dir / "bin");
  std::filesystem::create_directory(dir / "i18n");
  test::writeFile(dir / "bin/i18n", "no directory");
  EXPECT_EQ(foundBy(dir / "bin", "./probe"), dir / "i18n");
}

TEST(LocaleTest, AProgramStartedThroughALinkFindsItsOwnCatalogues) {
  const TempDir dir;
  std::filesystem::create_directories(dir / "real/bin");
  std::filesystem::create_directory(dir / "real/i18n");
  EXPECT_EQ(foundBy(dir / "real/bin", "ln -s \"$PWD/probe\" ../../link && ../../link"), dir / "real/i18n");
}

using Places = std::vector<std::string>;

/// The search that an executable of this path makes; what it finds comes last.
Places placesSearched(const char* executable, const std::map<std::string, int>& answers = {}) {
  Search scripted{executable, answers};
  std::string dir = "before";
  ::unsetenv("KES_I18N_DIR");
  search = &scripted;
  findLocaleDir(dir);
  search = nullptr;
  scripted.asked.push_back(dir);
  return scripted.asked;
}

TEST(LocaleTest, TheSearchClimbsFromTheProgramsFolderToTheRoot) {
  EXPECT_EQ(placesSearched("/a/b/bin/tool"), (Places{"/a/b/bin/i18n", "/a/b/i18n", "/a/i18n", "/i18n", ""}));
  EXPECT_EQ(placesSearched("/tool"), (Places{"/i18n", ""}));
  EXPECT_EQ(placesSearched("/tool", {{"/i18n", 0}}), (Places{"/i18n", "/i18n"}));
}

TEST(LocaleTest, TheSearchFromARelativePathEndsInTheWorkingDirectory) {
  EXPECT_EQ(placesSearched("tool"), (Places{"./i18n", ""}));
  EXPECT_EQ(placesSearched("./tool"), (Places{"./i18n", ""}));
  EXPECT_EQ(placesSearched("a/bin/tool"), (Places{"a/bin/i18n", "a/i18n", "./i18n", ""}));
}

TEST(LocaleTest, APlaceThatCannotBeExaminedIsPassedBy) {
  EXPECT_EQ(placesSearched("/a/bin/tool", {{"/a/bin/i18n", EACCES}, {"/a/i18n", 0}}),
            (Places{"/a/bin/i18n", "/a/i18n", "/a/i18n"}));
}

TEST(LocaleTest, AProgramThatDoesNotKnowItsPathHasNoCatalogues) {
  EXPECT_EQ(placesSearched(nullptr), (Places{""}));
}

TEST(LocaleTest, WithoutCataloguesTheDirectoryIsEmpty) {
  const TempDir dir;
  EXPECT_EQ(foundBy(dir / "a/b", "./probe"), "");
}

TEST(GettextTest, AHandleKeepsAReferenceToItsText) {
  std::string text = "before";
  const Gettext handle(text);
  text = "after";
  EXPECT_EQ(handle.text(), "after");
}

}  // namespace
}  // namespace kes
