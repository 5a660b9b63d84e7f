#pragma once  // since 0.1

#include <cstddef>
#include <string_view>

#include "kespal/Export.h"

KES_EXPORT_BEGIN

namespace kes {

/// Where an error is raised. Plain data; the texts are static strings, never owned.
struct Site {
  const char* file;      ///< path below the library's root without extension, such as "src/fs/Path"
  int line;              ///< in that file, from 1; some sites have a fixed number
  const char* function;  ///< unqualified name of the raising function
};

namespace detail {

/// A path from `root` on; the whole of it when it lies elsewhere or there is no root.
constexpr std::string_view below(std::string_view root, std::string_view path) {
  if (root.empty()) return path;
  if (root.ends_with('/')) root.remove_suffix(1);
  const bool within = path.starts_with(root) && path.substr(root.size()).starts_with('/');
  return within ? path.substr(root.size() + 1) : path;
}

/// The path that an error reports, cut from __FILE__ at compile time: ".../kespal/src/fs/Path.cpp" is
/// "src/fs/Path", and the public header ".../include/kespal/fs/Path.h" is "include/fs/Path". Any other file
/// loses its extension and the folder `root`, when it lies there.
template <std::size_t Size>
struct SitePath {
  char text[Size]{};

  consteval SitePath(const char (&path)[Size],  // NOLINT(google-explicit-constructor)
                     std::string_view root = {}) {
    std::string_view full(path, Size - 1);
    constexpr std::string_view header = "include/kespal/", source = "kespal/src/";
    std::string_view prefix;
    if (auto at = full.rfind(header); at != full.npos) {
      prefix = "include/";
      full.remove_prefix(at + header.size());
    } else if (at = full.rfind(source); at != full.npos) {
      prefix = "src/";
      full.remove_prefix(at + source.size());
    } else {
      full = below(root, full);
    }
    while (full.starts_with("../")) full.remove_prefix(3);
    const std::size_t dot = full.rfind('.');
    if (dot != full.npos && full.find('/', dot) == full.npos) full = full.substr(0, dot);
    std::size_t end = 0;
    for (std::string_view part : {prefix, full}) {
      for (char c : part) text[end++] = c;
    }
  }
};

template <std::size_t Size>
SitePath(const char (&)[Size]) -> SitePath<Size>;

template <SitePath Path>
inline constexpr const char* sitePath = Path.text;

}  // namespace detail
}  // namespace kes

KES_EXPORT_END

/// The folder whose files are named by their path below it: the top folder of a program that uses this
/// library, which the CMake package and add_subdirectory() define here. A program that is built in another
/// way defines it itself, or has its compiler shorten __FILE__ (-ffile-prefix-map). Without either, sites
/// name the program's files by the path that the compiler was given, which is often an absolute one of the
/// building machine.
#ifndef KES_SOURCE_ROOT
#define KES_SOURCE_ROOT ""
#endif

/// The place where it stands, as a kes::Site.
#define KES_HERE KES_HERE_IN(__func__)
/// The same with the name of the function, for a place outside of it.
#define KES_HERE_IN(function)                                                                         \
  (::kes::Site{::kes::detail::sitePath<::kes::detail::SitePath(__FILE__, KES_SOURCE_ROOT)>, __LINE__, \
               function})
