#include "kespal/Catalogue.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <cstdlib>
#include <filesystem>
#include <utility>

#include "MoFile.h"
#include "PluralRule.h"
#include "kespal/Locale.h"
#include "kespal/error/FsError.h"
#include "support/Descriptors.h"
#include "support/ForkedChild.h"
#include "support/NoMemory.h"
#include "support/Raised.h"
#include "support/TempDir.h"

namespace kes {
namespace {

using test::inChild;
using test::raisedBy;
using test::TempDir;
using test::writeFile;
using testing::ElementsAre;

using Texts = std::vector<std::pair<std::string, std::string>>;

std::string number(std::size_t value, bool swapped) {
  std::string bytes;
  for (int byte = 0; byte < 4; ++byte) bytes += static_cast<char>(value >> 8 * byte & 0xFF);
  if (swapped) std::reverse(bytes.begin(), bytes.end());
  return bytes;
}

/// A catalogue as msgfmt makes it, without the table of hashes; or for a machine of the other byte order.
std::string catalogue(Texts texts, bool swapped = false) {
  std::sort(texts.begin(), texts.end());
  const std::size_t tables = 28, size = texts.size() * 8;
  std::string originals, translations, content;
  const auto add = [&](std::string& table, const std::string& text) {
    table += number(text.size(), swapped) + number(tables + 2 * size + content.size(), swapped);
    content += text + '\0';
  };
  for (const auto& [text, translation] : texts) {
    add(originals, text);
    add(translations, translation);
  }
  std::string file;
  for (const std::size_t field : {std::size_t{0x950412DE}, std::size_t{0}, texts.size(), tables,
                                  tables + size, std::size_t{0}, std::size_t{0}}) {
    file += number(field, swapped);
  }
  return file + originals + translations + content;
}

using namespace std::string_literals;

const std::string germanHeader =
    "Content-Type: text/plain; charset=UTF-8\nPlural-Forms: nplurals=2; plural=n != 1;\n";

const Texts german = {{"", germanHeader},
                      {"Yes", "Ja"},
                      {"Abort", "Abbrechen"},
                      {"%d file\0%d files"s, "%d Datei\0%d Dateien"s},
                      {"untranslated", ""}};

struct CatalogueTest : testing::Test {
  TempDir dir;
  std::string path = dir / "program.mo";

  Catalogue load(const Texts& texts) {
    writeFile(path, catalogue(texts));
    return Catalogue::load(path.c_str());
  }
};

TEST_F(CatalogueTest, ATextIsTranslatedAndWithoutTranslationComesBackAsItIs) {
  const Catalogue catalogue = load(german);
  EXPECT_FALSE(catalogue.isEmpty());
  EXPECT_STREQ(catalogue.translate("Yes"), "Ja");
  EXPECT_STREQ(catalogue.translate("Abort"), "Abbrechen");
  for (const char* text : {"No", "Ye", "Yes ", "untranslated", ""}) {
    EXPECT_EQ(catalogue.translate(text), text);
  }
}

TEST_F(CatalogueTest, ANumberChoosesTheForm) {
  const Catalogue catalogue = load(german);
  EXPECT_STREQ(catalogue.translate("%d file", "%d files", 1), "%d Datei");
  for (const unsigned long many : {0UL, 2UL, 100UL}) {
    EXPECT_STREQ(catalogue.translate("%d file", "%d files", many), "%d Dateien");
  }
  EXPECT_STREQ(catalogue.translate("%d file"), "%d Datei");
  EXPECT_STREQ(catalogue.translate("%d dog", "%d dogs", 1), "%d dog");
  EXPECT_STREQ(catalogue.translate("%d dog", "%d dogs", 0), "%d dogs");
}

TEST_F(CatalogueTest, AFormThatIsMissingIsTheFirstOne) {
  const Catalogue catalogue = load({{"", germanHeader}, {"a\0b"s, "only"}});
  EXPECT_STREQ(catalogue.translate("a", "b", 7), "only");
}

TEST_F(CatalogueTest, AnEmptyOneTranslatesNothing) {
  const Catalogue none;
  EXPECT_TRUE(none.isEmpty());
  EXPECT_STREQ(none.translate("Yes"), "Yes");
  EXPECT_STREQ(none.translate("one", "many", 1), "one");
  EXPECT_STREQ(none.translate("one", "many", 2), "many");
}

TEST_F(CatalogueTest, CopiesShareTheTextsWhichLiveAsLongAsOneOfThem) {
  Catalogue kept;
  const char* text = nullptr;
  {
    const Catalogue catalogue = load(german);
    kept = catalogue;
    text = catalogue.translate("Yes");
  }
  EXPECT_STREQ(text, "Ja");
  EXPECT_EQ(kept.translate("Yes"), text);
}

TEST_F(CatalogueTest, ACatalogueOfTheOtherByteOrderIsReadToo) {
  writeFile(path, catalogue(german, /*swapped=*/true));
  EXPECT_STREQ(Catalogue::load(path.c_str()).translate("Yes"), "Ja");
}

TEST_F(CatalogueTest, WhatIsNoCatalogueIsRefusedWithItsPath) {
  ::mkfifo((dir / "fifo").c_str(), 0600);
  EXPECT_EQ(raisedBy([&] { Catalogue::load(path.c_str()); }).type, "kes::NoSuchFileError");
  EXPECT_EQ(raisedBy([&] { Catalogue::load(nullptr); }).errnum, EFAULT);
  for (const std::string& name : {dir / "fifo", dir.path()}) {
    EXPECT_EQ(raisedBy([&] { Catalogue::load(name.c_str()); }).errnum, EINVAL);
  }
  for (const std::string& content : {""s, "msgid"s, std::string(28, '\0'), catalogue(german).substr(0, 60)}) {
    writeFile(path, content);
    const auto raised = raisedBy([&] { Catalogue::load(path.c_str()); });
    EXPECT_EQ(raised.type, "kes::FsError");
    EXPECT_EQ(raised.errnum, EINVAL);
    EXPECT_EQ(raised.text, path);
  }
}

TEST_F(CatalogueTest, NoDamageInAFileIsBelieved) {
  const std::string whole = catalogue(german);
  for (std::size_t at = 0; at < whole.size(); ++at) {
    for (const char byte : {'\0', '\x01', '\x7F', '\xFF'}) {
      std::string damaged = whole;
      damaged[at] = byte;
      const MoFile file(damaged);
      if (!file.isRight()) continue;
      for (const char* text : {"", "Yes", "%d file", "no such"}) {
        const std::string_view found = file.find(text);
        EXPECT_TRUE(found.data() == nullptr || found.data()[found.size()] == '\0') << at;
      }
    }
    EXPECT_FALSE(MoFile(whole.substr(0, at)).isRight()) << at;
  }
  EXPECT_TRUE(MoFile(whole).isRight());
}

TEST_F(CatalogueTest, TextsInTheWrongOrderAreFound) {
  std::string file = catalogue({{"a", "1"}, {"b", "2"}, {"c", "3"}});
  for (const std::size_t table : {28U, 52U})
    std::swap_ranges(&file[table], &file[table + 8], &file[table + 16]);
  const MoFile shuffled(file);
  EXPECT_EQ(shuffled.find("a"), "1");
  EXPECT_EQ(shuffled.find("c"), "3");
}

/// The forms of 0, 1, 2 and so on.
std::vector<unsigned long> forms(const std::string& rule, std::vector<unsigned long> numbers) {
  const std::string header = "Language: xx\nPlural-Forms: " + rule + "\nX: y\n";
  for (unsigned long& number : numbers) number = PluralRule(header).formOf(number);
  return numbers;
}

TEST(PluralRuleTest, TheRulesOfManyLanguagesAreComputed) {
  EXPECT_THAT(forms("nplurals=1; plural=0;", {0, 1, 2}), ElementsAre(0, 0, 0));
  EXPECT_THAT(forms("nplurals=2; plural=(n > 1);", {0, 1, 2}), ElementsAre(0, 0, 1));
  EXPECT_THAT(forms("nplurals=3; plural=(n%10==1 && n%100!=11 ? 0 : n%10>=2 && n%10<=4 && (n%100<10 || "
                    "n%100>=20) ? 1 : 2);",
                    {1, 2, 5, 11, 12, 21, 22, 25, 111, 112}),
              ElementsAre(0, 1, 2, 2, 2, 0, 1, 2, 2, 2));  // Russian
  EXPECT_THAT(forms("nplurals=6; plural=n==0 ? 0 : n==1 ? 1 : n==2 ? 2 : n%100>=3 && n%100<=10 ? 3 : "
                    "n%100>=11 ? 4 : 5;",
                    {0, 1, 2, 3, 10, 11, 99, 100, 103}),
              ElementsAre(0, 1, 2, 3, 3, 4, 4, 5, 3));  // Arabic
  EXPECT_THAT(forms("nplurals=4; plural=n%100==1 ? 0 : n%100==2 ? 1 : n%100==3 || n%100==4 ? 2 : 3;",
                    {1, 2, 3, 4, 5, 101, 104}),
              ElementsAre(0, 1, 2, 2, 3, 0, 2));  // Slovenian
}

TEST(PluralRuleTest, OperatorsBindAsInC) {
  EXPECT_THAT(forms("nplurals=100; plural=2+3*4-10/5%3;", {0}), ElementsAre(12));
  EXPECT_THAT(forms("nplurals=100; plural=!n+!!n*2;", {0, 5}), ElementsAre(1, 2));
  EXPECT_THAT(forms("nplurals=100; plural=n!=1;", {0, 1}), ElementsAre(1, 0));
  EXPECT_THAT(forms("nplurals=100; plural=1||0&&0;", {0}), ElementsAre(1));
  EXPECT_THAT(forms("nplurals=100; plural=3>2==1;", {0}), ElementsAre(1));
  EXPECT_THAT(forms("nplurals= 100; plural= n ? n == 1 ? 7 : 8 : 9 ;", {0, 1, 2}), ElementsAre(9, 7, 8));
}

TEST(PluralRuleTest, WhatIsNoRuleIsThatOfEnglish) {
  const std::string tooDeep = std::string(5000, '(') + "n" + std::string(5000, ')');
  for (const std::string& rule :
       {""s, "nplurals=2;"s, "nplurals=2; plural=;"s, "nplurals=2; plural=m;"s, "nplurals=2; plural=(n;"s,
        "nplurals=2; plural=n ? 1;"s, "nplurals=2; plural=n n;"s, "nplurals=0; plural=n;"s,
        "nplurals=2; plural=99999999999999999999999;"s, "nplurals=2; plural=" + tooDeep + ";",
        "nplurals=2; plural=" + std::string(100'000, '!')}) {
    EXPECT_THAT(forms(rule, {0, 1, 2}), ElementsAre(1, 0, 1)) << rule.substr(0, 60);
  }
}

TEST(PluralRuleTest, AFormThatALanguageDoesNotHaveAndADivisionByNothingAreTheFirst) {
  EXPECT_THAT(forms("nplurals=2; plural=n;", {0, 1, 2, 7}), ElementsAre(0, 1, 0, 0));
  EXPECT_THAT(forms("nplurals=9; plural=5/n+5%n;", {0, 3}), ElementsAre(0, 3));
}

TEST_F(CatalogueTest, TheClosestNameOfTheLocaleIsTakenBelowTheDirectory) {
  if (!std::filesystem::exists(std::string(KES_TEST_LOCALES) + "/de_DE.utf8")) {
    GTEST_SKIP() << "the sources of the system's locales are not installed";
  }
  const auto put = [&](const std::string& locale, const std::string& yes) {
    const std::string folder = dir.path() + '/' + locale + "/LC_MESSAGES";
    std::filesystem::create_directories(folder);
    writeFile(folder + "/program.mo", catalogue({{"", germanHeader}, {"Yes", yes}}));
  };
  const auto yes = [&](Locale::Language language) {
    const auto result = inChild([&] {
      ::setenv("LOCPATH", KES_TEST_LOCALES, 1);
      ::setenv("KES_I18N_DIR", dir.path().c_str(), 1);
      ::setenv("LANGUAGE", "fr", 1);
      Locale::init(language);
      const Catalogue program("program"), other("other");
      std::fputs(program.translate("Yes"), stdout);
      return other.isEmpty() ? 0 : 1;
    });
    EXPECT_EQ(result.exitCode(), 0) << result.err;
    return result.out;
  };
  EXPECT_EQ(yes(Locale::German), "Yes");
  put("de", "de");
  put("fr", "fr");
  EXPECT_EQ(yes(Locale::German), "de");
  put("de_DE", "de_DE");
  EXPECT_EQ(yes(Locale::German), "de_DE");
  put("de_DE.utf8", "de_DE.utf8");
  EXPECT_EQ(yes(Locale::German), "de_DE.utf8");
  EXPECT_EQ(yes(Locale::GermanAustria), "de");
  EXPECT_EQ(yes(Locale::English), "Yes");
  writeFile(dir / "de_DE.utf8/LC_MESSAGES/program.mo", "damaged");
  EXPECT_EQ(yes(Locale::German), "de_DE");
}

TEST_F(CatalogueTest, InTheLocaleOfCAndWithoutADirectoryNothingIsTranslated) {
  std::filesystem::create_directories(dir / "C/LC_MESSAGES");
  writeFile(dir / "C/LC_MESSAGES/program.mo", catalogue(german));
  Locale::m_locale_dir = dir.path();
  EXPECT_TRUE(Catalogue("program").isEmpty());
  Locale::m_locale_dir.clear();
  EXPECT_TRUE(Catalogue("program").isEmpty());
}

TEST_F(CatalogueTest, WithoutMemoryItIsBadAllocAndALookUpNeedsNone) {
  writeFile(path, catalogue(german));
  const auto before = test::openDescriptors();
  Catalogue loaded;
  EXPECT_GT(test::starve([&] { loaded = Catalogue::load(path.c_str()); }), 0U);
  EXPECT_EQ(test::openDescriptors(), before);
  const char* text = nullptr;
  bool refused = true;
  {
    const test::NoMemory none;
    text = loaded.translate("%d file", "%d files", 2);
    refused = test::NoMemory::refused();
  }
  EXPECT_FALSE(refused);
  EXPECT_STREQ(text, "%d Dateien");
}

}  // namespace
}  // namespace kes
