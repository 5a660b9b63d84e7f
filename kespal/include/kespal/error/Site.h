#pragma once

#include <cstddef>
#include <string_view>

namespace kes {

/// Where an error is raised. Plain data; the texts are static strings, never owned.
struct Site {
  const char* file;  ///< path below the library's root without extension, such as "src/fs/Path"
  int line;
  const char* function;  ///< unqualified name of the raising function
};

namespace detail {

/// The path that an error reports, cut from __FILE__ at compile time: ".../kespal/src/fs/Path.cpp" is
/// "src/fs/Path", and the public header ".../include/kespal/fs/Path.h" is "include/fs/Path". A file
/// of another program keeps the folders below where it was built, and loses its extension.
template <std::size_t Size>
struct SitePath {
  char text[Size]{};

  consteval SitePath(const char (&path)[Size]) {  // NOLINT(google-explicit-constructor)
    std::string_view full(path, Size - 1);
    constexpr std::string_view header = "include/kespal/", source = "kespal/src/";
    std::string_view prefix;
    if (auto at = full.rfind(header); at != full.npos) {
      prefix = "include/";
      full.remove_prefix(at + header.size());
    } else if (at = full.rfind(source); at != full.npos) {
      prefix = "src/";
      full.remove_prefix(at + source.size());
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

template <SitePath Path>
inline constexpr const char* sitePath = Path.text;

}  // namespace detail
}  // namespace kes

/// The place where it stands, as a kes::Site.
#define KES_HERE (::kes::Site{::kes::detail::sitePath<__FILE__>, __LINE__, __func__})
