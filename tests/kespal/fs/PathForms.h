#pragma once

#include <string>
#include <vector>

#include "kespal/fs/Path.h"

/// The operations of a path as functions that give their result.
namespace kes::fs {

using Strings = std::vector<std::string>;

inline Strings componentsOf(const Path& path) {
  Strings parts{"left over"};
  path.components(parts);
  return parts;
}

inline Strings extensionsOf(const Path& path) {
  Strings parts{"left over"};
  path.extensions(parts);
  return parts;
}

/// A path with exactly this text, trailing slashes included.
inline Path exactly(const std::string& text) {
  Path path;
  path.assign(text);
  return path;
}

inline std::string dirname(Path path) { return path.assignDirname(); }
inline std::string stripped(Path path, std::size_t n) { return path.strip(n); }

}  // namespace kes::fs
