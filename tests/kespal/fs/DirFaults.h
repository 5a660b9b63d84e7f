#pragma once

#include <string>
#include <vector>

#include "kespal/fs/Dir.h"

namespace kes::test {

/// What the system's calls for directories do from now on (linker option --wrap); 0: what they should.
struct DirFaults {
  int readAt = 0;  ///< which call of readdir() fails, counted from 1
  int read = 0;    ///< the errno it fails with
  int fdopendir = 0;
  int close = 0;
};
extern DirFaults dirFaults;

using Names = std::vector<std::string>;

/// The names of all entries that are left, sorted.
Names namesIn(fs::Dir& dir);
/// Goes on to the entry with this name.
void goTo(fs::Dir& dir, const std::string& name);

}  // namespace kes::test
