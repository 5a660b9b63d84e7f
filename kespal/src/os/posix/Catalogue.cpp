#include "kespal/Catalogue.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <clocale>
#include <cstring>
#include <string_view>
#include <utility>
#include <vector>

#include "MoFile.h"
#include "PluralRule.h"
#include "kespal/Locale.h"
#include "kespal/error/FsError.h"
#include "kespal/fs/File.h"
#include "kespal/fs/Info.h"
#include "kespal/fs/Path.h"
#include "sys/Retry.h"

namespace kes {

class Catalogue::Content {
 public:
  explicit Content(std::string bytes) : file_(std::move(bytes)) {
    if (file_.isRight()) rule_ = PluralRule(file_.find(""));
  }

  bool isRight() const noexcept { return file_.isRight(); }
  std::string_view find(const char* text) const noexcept { return file_.find(text); }
  unsigned long formOf(unsigned long number) const noexcept { return rule_.formOf(number); }

 private:
  MoFile file_;
  PluralRule rule_;
};

namespace {

/// All of a file, as long as it is now.
std::string contentOf(const fs::File& file, const char* path) {
  std::string bytes(static_cast<std::size_t>(fs::Info::get(file.fd()).size()), '\0');
  std::size_t size = 0;
  while (size < bytes.size()) {
    const std::size_t most = std::min<std::size_t>(bytes.size() - size, INT_MAX);
    const ssize_t got = sys::retry([&] { return ::read(file.fd(), bytes.data() + size, most); });
    if (got == -1) raiseAt(KES_HERE, FsError(path, errno));
    if (got == 0) break;
    size += static_cast<std::size_t>(got);
  }
  bytes.resize(size);
  return bytes;
}

bool isPlain(std::string_view locale) {
  return locale == "C" || locale == "POSIX" || locale.starts_with("C.");
}

/// The names under which the catalogue of a locale may lie, the closest one first: with a character set
/// (".utf8") and a variant ("@euro"), and without.
std::vector<std::string> namesOf(const std::string& locale) {
  const std::string variant = locale.substr(std::min(locale.find('@'), locale.size()));
  const std::string country = locale.substr(0, locale.find_first_of(".@"));
  const std::string language = country.substr(0, country.find('_'));
  return {locale, country + variant, country, language + variant, language};
}

}  // namespace

Catalogue::Catalogue(const std::string& domain) {
  const char* current = std::setlocale(LC_MESSAGES, nullptr);
  const std::string locale = current != nullptr ? current : "C";
  if (isPlain(locale) || Locale::m_locale_dir.empty()) return;
  for (const std::string& name : namesOf(locale)) {
    const fs::Path path = fs::Path(Locale::m_locale_dir) + name + "LC_MESSAGES" + (domain + ".mo");
    try {
      *this = load(path.c_str());
      return;
    } catch (const Exception&) {  // the next one may be better
    }
  }
}

Catalogue Catalogue::load(const char* path) {
  // Not to be opened otherwise: a pipe would wait for somebody who writes.
  if (path != nullptr && !fs::Info::get(path, /*follow=*/true).isRegular())
    raiseAt(KES_HERE, FsError(path, EINVAL));
  fs::File file;
  file.open(path, fs::File::READ);
  auto content = std::make_shared<const Content>(contentOf(file, path));
  if (!content->isRight()) raiseAt(KES_HERE, FsError(path, EINVAL));
  Catalogue catalogue;
  catalogue.content_ = std::move(content);
  return catalogue;
}

const char* Catalogue::translate(const char* text) const noexcept {
  if (content_ == nullptr || *text == '\0') return text;
  const std::string_view found = content_->find(text);
  return found.empty() ? text : found.data();
}

const char* Catalogue::translate(const char* one, const char* many, unsigned long number) const noexcept {
  const char* const untranslated = number == 1 ? one : many;
  if (content_ == nullptr || *one == '\0') return untranslated;
  std::string_view found = content_->find(one);
  if (found.empty()) return untranslated;
  const char* const first = found.data();
  for (unsigned long form = content_->formOf(number); form != 0; --form) {
    const std::size_t end = found.find('\0');
    if (end == found.npos) return first;  // it promised more forms than it has
    found.remove_prefix(end + 1);
  }
  return found.data();
}

}  // namespace kes
