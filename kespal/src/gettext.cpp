#include "kespal/gettext.h"

#include "kespal/Locale.h"
#include "kespal/error/Exception.h"
#include "kespal/fs/Info.h"
#include "kespal/fs/Path.h"
#include "kespal/proc/Env.h"
#include "kespal/proc/Info.h"

namespace kes {

namespace {

/// Most folders on the way up hold none, and to ask first costs far less than to catch an error.
bool isDirectory(const fs::Path& path) {
  try {
    return path.exists() && fs::Info::get(path.c_str(), /*follow=*/true).isDir();
  } catch (const Exception&) {
    return false;
  }
}

fs::Path executable() {
  try {
    return proc::Info::exe();
  } catch (const Exception&) {
    return "";
  }
}

}  // namespace

void findLocaleDir(std::string& dir) {
  Locale::makeTexts();
  if (proc::Env::get(Locale::m_locale_env.c_str(), dir)) return;
  fs::Path place = executable();
  for (fs::Path below; !place.empty() && place != below;) {
    below = place;
    place.assignDirname();
    const fs::Path candidate = place + "i18n";
    // The folder of a path without "/" is ".", and that one's is "." again: the climb ends there.
    if (place != below && isDirectory(candidate)) {
      dir = candidate;
      return;
    }
  }
}

}  // namespace kes
