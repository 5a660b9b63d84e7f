#pragma once

#include <string>

namespace kes::test {

/// For a forked child: gives it a file system in memory at `path` that no other process sees, of a size as
/// mount(8) takes it, such as "64k". False where that is not permitted. A user other than root becomes root
/// in a world of its own for it.
bool mountPrivately(const std::string& path, const std::string& size);

}  // namespace kes::test
