#include "kespal/Locale.h"

#include <clocale>
#include <new>

#include "Lasting.h"
#include "kespal/error/Exception.h"
#include "kespal/gettext.h"
#include "kespal/proc/Env.h"
#include "os/NoFork.h"

namespace kes {

namespace {

constinit Lasting<std::string> g_localeDir, g_localeEnv;

const char* localeName(Locale::Language language) {
  switch (language) {
    case Locale::English:
      return "en_US.utf8";
    case Locale::German:
      return "de_DE.utf8";
    case Locale::French:
      return "fr_FR.utf8";
    case Locale::GermanAustria:
      return "de_AT.utf8";
    case Locale::System:
      break;
  }
  return "";
}

const char* choose(const char* name) {
  const os::NoFork untilChosen;
  return std::setlocale(LC_ALL, name);
}

void exportToChildren(const char* name) {
  try {
    proc::Env::set("LC_ALL", name);
  } catch (const Exception&) {
    // Without memory for the variable the children take their locale from elsewhere; ours is set.
  }
}

std::string lowerCase(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

}  // namespace

constinit std::string& Locale::m_locale_dir = g_localeDir.value;
constinit std::string& Locale::m_locale_env = g_localeEnv.value;

bool Locale::makeTexts() { return g_localeDir.make() && g_localeEnv.make(std::string("KES_I18N") + "_DIR"); }

[[maybe_unused]] static const bool g_madeAtTheStart = Locale::makeTexts();

void Locale::init(Language language) {
  const char* selected = choose(localeName(language));
  if (selected != nullptr && language != System) exportToChildren(selected);
  try {
    findLocaleDir(m_locale_dir);
  } catch (const std::bad_alloc&) {
    m_locale_dir.clear();  // without memory there are no catalogues
  }
}

Locale::Language Locale::language() {
  const char* current = std::setlocale(LC_MESSAGES, nullptr);
  const std::string name = lowerCase(current != nullptr ? current : "");
  const auto contains = [&name](const char* part) { return name.find(part) != name.npos; };
  if (contains("de_at")) return GermanAustria;
  if (contains("de_")) return German;
  if (name == "c" || name == "posix") return English;
  if (contains("fr_")) return French;
  return System;
}

}  // namespace kes
