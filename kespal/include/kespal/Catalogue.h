#pragma once  // since 0.1

#include <memory>
#include <string>

#include "kespal/Export.h"

KES_EXPORT_BEGIN

namespace kes {

/// The translations of a program's texts into one language: a catalogue of messages in the binary format of
/// GNU gettext (.mo), as msgfmt(1) makes it, in either byte order. It is read by this library itself,
/// on every system alike. What has no translation is given back as it came, so texts may be looked up
/// whether there is a catalogue or not.
///
/// A value that is copied cheaply; copies share the content, which never changes: any thread may look up. The
/// texts that it gives are good as long as one of the copies lives, and their bytes are those of the
/// catalogue, UTF-8 as a rule: they are not converted to the character set of the locale.
class Catalogue {
 public:
  /// Translates nothing.
  Catalogue() noexcept = default;
  /// The catalogue of a program, or another domain of texts, for the language of the process's messages:
  /// LOCALE/LC_MESSAGES/DOMAIN.mo below Locale::m_locale_dir. LOCALE is the name of the message locale, then
  /// that without its character set, without what stands behind "@", and the language alone, such as "de".
  /// The first one that can be read is taken; without any, or in the locale "C", nothing is translated.
  /// To be made behind Locale::init(), and while no other thread changes the locale. The variable LANGUAGE is
  /// not heard, as the program has chosen its language by then. std::bad_alloc, and nothing else.
  explicit Catalogue(const std::string& domain);
  /// The catalogue in a file. The errors of File::open() and Info::get(); FsError (EINVAL) for what is no
  /// regular file, or no catalogue of this format, or a damaged one; FsError when it cannot be read.
  static Catalogue load(const char* path);

  /// Whether it translates nothing.
  bool isEmpty() const noexcept { return content_ == nullptr; }

  /// The translation of a text, else `text` itself. The empty text is never translated.
  const char* translate(const char* text) const noexcept;
  /// The translation of a text that depends on a number, in the form that the language has for `number`;
  /// which one that is, the catalogue says. Without a translation `one` for 1, else `many`.
  const char* translate(const char* one, const char* many, unsigned long number) const noexcept;

 private:
  class KES_HIDDEN Content;

  std::shared_ptr<const Content> content_;
};

}  // namespace kes

KES_EXPORT_END
