#pragma once

namespace kes::os {

/// The process's array of NAME=value texts, ending with a null; null when there is no array.
char** environment() noexcept;

}  // namespace kes::os
