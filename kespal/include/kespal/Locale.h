#pragma once  // since 0.1

#include <string>

#include "kespal/Export.h"
#include "kespal/gettext.h"

KES_EXPORT_BEGIN

namespace kes {

/// The process's locale, chosen once at start-up from a few languages. Selecting one changes the whole
/// process (setlocale) and must not run while other threads use the locale.
class Locale {
 public:
  /// The languages to choose from; System is the one that the environment names.
  enum Language : int { English, German, French, GermanAustria, System };

  /// Selects a language's locale; System, and any other value, takes the locale from the environment. A
  /// language that was selected is passed on to child processes in LC_ALL (not for System). Then fills
  /// m_locale_dir. A locale that the system does not have is no error: the one in force stays. Raises
  /// nothing: without memory there are no catalogues.
  static void init(Language language);

  /// The language now in force, by the name of the message locale. System means that the untranslated
  /// texts apply, as they do for every English locale. std::bad_alloc.
  static Language language();

  // Good at any time, also before and after the life of a program's own static objects.
  static std::string& m_locale_dir;  ///< where the message catalogues lie; empty when there are none
  static std::string& m_locale_env;  ///< the environment variable that names that directory

  /// Makes the two texts, if they are not there yet, and gives true. For this library. std::bad_alloc.
  static bool makeTexts();
};

}  // namespace kes

KES_EXPORT_END
