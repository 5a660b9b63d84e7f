#pragma once

#include <cstddef>
#include <string>

namespace kes::fs {

/// A name that nobody can guess for a temporary file beside `name`: hidden, and with eight generated
/// characters at its end. `name` is cut where the result would have more than `most` bytes. FsError with
/// `path` when the system gives no random numbers.
std::string randomName(const std::string& name, std::size_t most, const std::string& path);

}  // namespace kes::fs
