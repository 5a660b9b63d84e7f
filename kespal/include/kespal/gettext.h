#pragma once  // since 0.1

#include <string>

#include "kespal/Export.h"

KES_EXPORT_BEGIN

namespace kes {

/// A light handle on a text that a message catalogue may translate. It keeps a reference: the string must
/// outlive it. A small value; any thread may read it.
class Gettext {
 public:
  explicit Gettext(const std::string& text) noexcept : text_(text) {}  ///< refers to the caller's string

  const std::string& text() const noexcept { return text_; }  ///< untranslated

 private:
  const std::string& text_;
};

/// Finds the directory of the message catalogues: the value of KES_I18N_DIR, untested, when that variable
/// exists; else the first directory "i18n" beside the executable or in a folder above it; else `dir` is
/// empty. Raises nothing but std::bad_alloc. Other threads must not change the environment meanwhile.
void findLocaleDir(std::string& dir);

}  // namespace kes

KES_EXPORT_END
