#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace kes::fs {

/// A path as text: a byte string with operations on pieces between '/' characters. A plain value. Text
/// operations never look at the file system and throw only std::bad_alloc; those that ask the system name
/// their errors. Components are the non-empty pieces between slashes. '.' and '..' are ordinary pieces.
class Path : public std::string {
 public:
  struct canonical_t {};  // NOLINT(readability-identifier-naming): as the standard library names its tags
  /// Says that the text needs no resolution; none is made with it or without it.
  static constexpr canonical_t CANONICAL{};

  Path() noexcept = default;
  // A path is wanted wherever a text is given: the conversions are implicit.
  // NOLINTBEGIN(google-explicit-constructor)
  /// A copy of the text, cleansed. A null pointer counts as the empty text.
  Path(const char* text) : std::string(text != nullptr ? text : "") { cleanse(); }
  Path(const std::string& text) : std::string(text) { cleanse(); }
  Path(std::string&& text) noexcept : std::string(std::move(text)) { cleanse(); }
  // NOLINTEND(google-explicit-constructor)
  Path(const std::string& text, const canonical_t&) : Path(text) {}

  /// Removes trailing slashes, but never the only character. Inner "//", "." and ".." stay.
  void cleanse() noexcept {
    while (size() >= 2 && back() == '/') pop_back();
  }

  bool isAbsolute() const noexcept { return !empty() && front() == '/'; }
  /// "/" for an absolute path, else empty.
  std::string root() const { return isAbsolute() ? "/" : ""; }
  /// Fills the vector with the components; earlier content is dropped.
  void components(std::vector<std::string>& parts) const;
  /// Becomes the elements with one '/' between two of them, and one in front if `absolute`.
  Path& join(const std::vector<std::string>& parts, bool absolute);

  /// This text, '/', and the other; the slash is always inserted and nothing is cleansed. Spelled out for
  /// whatever can be added to a string, or plain concatenation would be the better match.
  Path operator+(const std::string& tail) const { return joined(tail.data(), tail.size()); }
  Path operator+(std::string&& tail) const { return joined(tail.data(), tail.size()); }
  Path operator+(const Path& tail) const { return joined(tail.data(), tail.size()); }
  Path operator+(Path&& tail) const { return joined(tail.data(), tail.size()); }
  Path operator+(const char* tail) const;
  Path operator+(char tail) const { return joined(&tail, 1); }

  /// What follows the last '/': the whole text without one, empty if the text ends with it.
  std::string basename() const;
  Path& assignBasename();
  /// Cut at the last '/': "a/b" becomes "a", "a" becomes ".", "/" stays, and "/a" becomes empty.
  Path& assignDirname();
  /// Cuts at the last '/' n times; empty when there are fewer.
  Path& strip(std::size_t n);

  /// The base name behind its last '.', or behind its first one; empty without any.
  std::string extension(bool first = false) const;
  /// The non-empty pieces of the base name between '.' characters: stem first, then the extensions.
  void extensions(std::vector<std::string>& parts) const;
  /// The first of these pieces; empty if there is none.
  std::string strippedBasename() const;
  /// The leading components that both have, byte for byte; empty if only one of the two is absolute.
  Path intersection(const Path& other) const;

  /// Whether the file exists, links followed. FsError as of Ops::exists().
  bool exists() const;
  /// Puts the working directory before a relative path, and in place of a first "." of an absolute one (its
  /// directory name for ".."), behind the slash that is there. Joins only: "a/../b" keeps its dots.
  /// RuntimeError when the working directory is needed and unknown.
  Path& assignAbsolute();
  /// Replaces a symbolic link by its directory, '/', and its target as read, one level, absolute targets
  /// too; anything else stays. NoSuchFileError, FsError as of Ops::readlink().
  Path& assignResolved();
  /// Becomes the system's canonical path: absolute, every link resolved. FsError; the text stays then.
  Path& assignCanonical();

 private:
  Path joined(const char* tail, std::size_t length) const;
};

}  // namespace kes::fs

template <>
struct std::hash<kes::fs::Path> : std::hash<std::string> {};
