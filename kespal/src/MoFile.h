#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kes {

/// The texts of a message catalogue in the format of GNU gettext: a header of seven numbers, two tables of
/// lengths and places, one for the texts and one for their translations, and the texts, each with a 0 behind
/// it. The table of hashes is not needed. No number of the file is believed without a look.
class MoFile {
 public:
  /// Takes the bytes of a file.
  explicit MoFile(std::string bytes);
  MoFile(const MoFile&) = delete;
  MoFile& operator=(const MoFile&) = delete;

  /// Whether it is such a catalogue, all of it.
  bool isRight() const noexcept { return isRight_; }

  /// The translation of a text, with its forms behind each other, a 0 behind each, in the file's own memory.
  /// No data where there is none. A text that has a plural is found by its singular.
  std::string_view find(std::string_view text) const noexcept;

 private:
  struct Entry {
    std::string_view text;
    std::string_view translation;
  };

  std::uint32_t numberAt(std::size_t at) const noexcept;
  bool hasMagic() noexcept;
  bool readEntries();
  bool readText(std::size_t at, std::string_view& text) const noexcept;

  std::string bytes_;
  bool isSwapped_ = false;
  std::vector<Entry> entries_;  // in order of texts
  bool isRight_ = false;
};

}  // namespace kes
