#include "MoFile.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace kes {

namespace {

constexpr std::uint32_t magic = 0x950412DE;
constexpr std::size_t headerSize = 28, rowSize = 8;

std::uint32_t swapped(std::uint32_t number) {
  return number >> 24 | (number >> 8 & 0xFF00) | (number << 8 & 0xFF0000) | number << 24;
}

}  // namespace

MoFile::MoFile(std::string bytes) : bytes_(std::move(bytes)) {
  isRight_ = hasMagic() && readEntries();
  const auto isBefore = [](const Entry& one, const Entry& other) { return one.text < other.text; };
  // The file promises this order, and a search would trust it.
  if (isRight_) std::stable_sort(entries_.begin(), entries_.end(), isBefore);
}

std::uint32_t MoFile::numberAt(std::size_t at) const noexcept {
  std::uint32_t number = 0;
  std::memcpy(&number, bytes_.data() + at, sizeof number);
  return isSwapped_ ? swapped(number) : number;
}

bool MoFile::hasMagic() noexcept {
  if (bytes_.size() < headerSize) return false;
  isSwapped_ = numberAt(0) == swapped(magic);
  const std::uint32_t majorVersion = numberAt(4) >> 16;
  return numberAt(0) == magic && majorVersion <= 1;
}

bool MoFile::readEntries() {
  const std::size_t count = numberAt(8), texts = numberAt(12), translations = numberAt(16);
  const std::size_t most = bytes_.size() / rowSize;
  if (count > most) return false;
  for (const std::size_t table : {texts, translations}) {
    if (table > bytes_.size() || count > (bytes_.size() - table) / rowSize) return false;
  }
  entries_.resize(count);
  for (std::size_t row = 0; row < count; ++row) {
    Entry& entry = entries_[row];
    if (!readText(texts + row * rowSize, entry.text)) return false;
    if (!readText(translations + row * rowSize, entry.translation)) return false;
    entry.text = entry.text.substr(0, entry.text.find('\0'));
  }
  return true;
}

bool MoFile::readText(std::size_t at, std::string_view& text) const noexcept {
  const std::size_t length = numberAt(at), place = numberAt(at + 4);
  if (place >= bytes_.size() || length >= bytes_.size() - place || bytes_[place + length] != '\0')
    return false;
  text = std::string_view(bytes_).substr(place, length);
  return true;
}

std::string_view MoFile::find(std::string_view text) const noexcept {
  const auto isBefore = [](const Entry& entry, std::string_view wanted) { return entry.text < wanted; };
  const auto found = std::lower_bound(entries_.begin(), entries_.end(), text, isBefore);
  return found != entries_.end() && found->text == text ? found->translation : std::string_view();
}

}  // namespace kes
