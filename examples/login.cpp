// Asks for a password that nobody sees, in the language of the user where there is a catalogue for it: three
// attempts, counted in words that fit the number.
//
//   login PASSWORD     status 0 when PASSWORD was typed
//   login              shows it with answers of its own
//
// A catalogue is made with the tools of GNU gettext: its texts are those of translate(), and the domain is
// "login". It lies in i18n/LANGUAGE/LC_MESSAGES/login.mo beside the program, or where KES_I18N_DIR says.
#include <cstdio>
#include <iostream>
#include <sstream>
#include <string>

#include "kespal/Catalogue.h"
#include "kespal/EchoGuard.h"
#include "kespal/Terminal.h"
#include "kespal/kespal.h"

namespace {

using kes::term::Color;
using kes::term::ColorGuard;

/// False at the end of the input.
bool ask(const char* question, std::istream& input, std::string& answer) {
  const kes::term::EchoGuard hidden;
  std::cout << question << std::flush;
  const bool isThere = static_cast<bool>(std::getline(input, answer));
  std::cout << std::endl;
  return isThere;
}

void tellHowManyAreLeft(const kes::Catalogue& texts, unsigned attempts) {
  char line[200];
  // The form of a text with its place for the number comes from the catalogue, hence not a literal.
  const std::string form = texts.translate("%u attempt is left.", "%u attempts are left.", attempts);
  const std::size_t place = form.find("%u");
  std::snprintf(line, sizeof line, "%s%u%s", form.substr(0, place).c_str(), attempts,
                place != std::string::npos ? form.substr(place + 2).c_str() : "");
  const ColorGuard red(std::cout, {.foreground = Color::Red});
  std::cout << line << std::endl;
}

bool login(const kes::Catalogue& texts, const std::string& password, std::istream& input) {
  std::string answer;
  for (unsigned attempts = 3; attempts != 0;) {
    if (!ask(texts.translate("Password: "), input, answer)) break;
    if (answer == password) {
      std::cout << texts.translate("Welcome.") << std::endl;
      return true;
    }
    tellHowManyAreLeft(texts, --attempts);
  }
  std::cout << texts.translate("Good-bye.") << std::endl;
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  const kes::KesPal runtime(/*quitHandling=*/false, /*forkPending=*/false, kes::Locale::System);
  kes::term::Terminal::heedNoColor();
  const kes::Catalogue texts("login");
  if (argc == 2) return login(texts, argv[1], std::cin) ? 0 : 1;
  std::istringstream typed("guess\nanother guess\nsecret\n");
  return login(texts, "secret", typed) ? 0 : 1;
}
