#pragma once  // since 0.1

#include <concepts>
#include <cstddef>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kespal/Export.h"

KES_EXPORT_BEGIN

namespace kes::fs {

/// A path as text: a byte string that knows about the pieces between '/' characters. A plain value. It can do
/// all that a string can; what the string's own operations make of it is not cleansed. Text operations never
/// look at the file system and throw only std::bad_alloc. Those that ask the system name their errors.
/// Components are the non-empty pieces between slashes. '.' and '..' are ordinary pieces.
class Path : public std::string {
 public:
  /// The type of CANONICAL.
  struct canonical_t {};  // NOLINT(readability-identifier-naming): as the standard library names its tags
  /// Says that the caller's text needs no resolution. Paths are never resolved when they are made, with this
  /// tag or without it.
  static constexpr canonical_t CANONICAL{};

  /// What can be viewed as text, but is no string and no pointer, as the standard string tells them apart.
  template <typename Text>
  static constexpr bool isView =
      std::convertible_to<const Text&, std::string_view> && !std::convertible_to<const Text&, const char*> &&
      !std::derived_from<Text, std::string>;

  Path() noexcept = default;
  Path(const Path&) = default;
  Path(Path&&) noexcept = default;
  ~Path() = default;
  // A path is wanted wherever a text is given: the conversions are implicit.
  // NOLINTBEGIN(google-explicit-constructor)
  /// A copy of the text, cleansed. A null pointer counts as the empty text.
  Path(const char* text) : std::string(text != nullptr ? text : "") { cleanse(); }
  Path(const std::string& text) : std::string(text) { cleanse(); }
  Path(std::string&& text) noexcept : std::string(std::move(text)) { cleanse(); }
  Path(std::initializer_list<char> text) : std::string(text) { cleanse(); }
  // NOLINTEND(google-explicit-constructor)
  /// Not implicit, as that of a string is not: a path is a view as well, and each would become the other.
  template <typename Text>
  requires isView<Text>
  explicit Path(const Text& text) : std::string(text) { cleanse(); }
  /// With the tag CANONICAL, as without it.
  Path(const std::string& text, const canonical_t&) : Path(text) {}
  Path(const char* text, const canonical_t&) : Path(text) {}

  Path& operator=(const Path&) = default;
  Path& operator=(Path&&) noexcept = default;
  /// Becomes a copy of the text, cleansed as by the constructors.
  Path& operator=(const std::string& text) { return cleansed(assign(text)); }
  Path& operator=(std::string&& text) noexcept { return cleansed(assign(std::move(text))); }
  Path& operator=(const char* text) { return cleansed(assign(text != nullptr ? text : "")); }
  template <std::same_as<char> Char>  // so that a 0 is a null pointer
  Path& operator=(Char text) {
    return cleansed(assign(1, text));
  }
  Path& operator=(std::initializer_list<char> text) { return cleansed(assign(text)); }
  template <typename Text>
  requires isView<Text> Path& operator=(const Text& text) { return cleansed(assign(text)); }

  /// Removes trailing slashes, but never the only character. "//" inside, "." and ".." stay.
  void cleanse() noexcept {
    while (size() >= 2 && back() == '/') pop_back();
  }

  /// Whether it begins with a slash.
  bool isAbsolute() const noexcept { return !empty() && front() == '/'; }
  /// "/" for an absolute path, else empty.
  std::string root() const { return isAbsolute() ? "/" : ""; }
  /// Fills the vector with the components. What it held before is dropped.
  void components(std::vector<std::string>& parts) const;
  /// Becomes the elements, with a '/' between each two of them, and one in front if `absolute`.
  Path& join(const std::vector<std::string>& parts, bool absolute);

  /// This text, a slash, and the other. The slash is always inserted, and nothing is cleansed: "a/" + "/b" is
  /// "a///b". `+=` and `append()` are those of a string, and insert none. One form for each kind of text:
  /// where one is missing, the compiler prefers the string's own addition, which inserts no slash.
  Path operator+(const std::string& tail) const { return joined(tail.data(), tail.size()); }
  Path operator+(std::string&& tail) const { return joined(tail.data(), tail.size()); }
  Path operator+(const Path& tail) const { return joined(tail.data(), tail.size()); }
  Path operator+(Path&& tail) const { return joined(tail.data(), tail.size()); }
  Path operator+(const char* tail) const;
  Path operator+(char tail) const { return joined(&tail, 1); }
  template <typename Text>
  requires isView<Text> Path operator+(const Text& tail) const {
    const std::string_view view = tail;
    return joined(view.data(), view.size());
  }

  /// What follows the last '/': the whole text if there is none, nothing if the text ends with it.
  std::string basename() const;
  Path& assignBasename();  ///< becomes its basename()
  /// Cuts at the last '/': "a/b" becomes "a", and "/a" becomes empty. "a" becomes ".", and "/" stays.
  Path& assignDirname();
  /// Cuts at the last '/', n times. Empty when there are fewer.
  Path& strip(std::size_t n);

  /// What follows the last '.' of the base name, or its first one. Empty if there is none.
  std::string extension(bool first = false) const;
  /// The non-empty pieces of the base name between '.' characters: the stem, then the extensions.
  void extensions(std::vector<std::string>& parts) const;
  /// The stem. Empty if there is none.
  std::string strippedBasename() const;
  /// The leading components that both have, byte for byte. Empty if only one of the two is absolute.
  Path intersection(const Path& other) const;

  /// Whether the file exists, links followed. FsError as of Ops::exists().
  bool exists() const;
  /// Makes a relative path absolute: the working directory goes before it. In an absolute path it replaces a
  /// first ".", and its directory name a first ".."; the slash before them stays, so that "/./x" becomes
  /// "//w/x". Nothing else changes but that doubled slashes go: "a/../b" keeps its dots. RuntimeError when
  /// the working directory is needed and unknown.
  Path& assignAbsolute();
  /// If this is a symbolic link, it becomes the link's directory, a slash, and what the link holds, though
  /// that be absolute. One level only. Anything else stays. NoSuchFileError and FsError as of
  /// Ops::readlink().
  Path& assignResolved();
  /// Becomes the system's canonical path: absolute, and every link resolved. FsError, with the path as it was
  /// given, and it stays so.
  Path& assignCanonical();

 private:
  Path& cleansed(std::string&) noexcept {
    cleanse();
    return *this;
  }
  Path joined(const char* tail, std::size_t length) const;
};

}  // namespace kes::fs

KES_EXPORT_END

/// A path has the hash of its text.
template <>
struct std::hash<kes::fs::Path> : std::hash<std::string> {};
