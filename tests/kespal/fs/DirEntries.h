#pragma once

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include "kespal/fs/Dir.h"

namespace kes::test {

using Names = std::vector<std::string>;

/// The names of all entries that are left, sorted.
inline Names namesIn(fs::Dir& dir) {
  Names names;
  while (dir.nextEntry()) names.emplace_back(dir.entryName());
  std::sort(names.begin(), names.end());
  return names;
}

/// Goes on to the entry with this name.
inline void goTo(fs::Dir& dir, const std::string& name) {
  while (dir.nextEntry()) {
    if (name == dir.entryName()) return;
  }
  throw std::runtime_error("no entry " + name);
}

}  // namespace kes::test
