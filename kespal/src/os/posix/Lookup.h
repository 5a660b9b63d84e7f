#pragma once

#include <cerrno>
#include <cstddef>
#include <string>
#include <vector>

#include "sys/NoCancel.h"

namespace kes::os {

/// Whether an account can have this name. The C library would take what is before a zero byte for all of it.
inline bool canBeName(const std::string& name) noexcept { return name.find('\0') == name.npos; }

/// Looks something up in a database of accounts: `ask` is given room for the texts of the entry, and answers
/// 0 or an error number. It is asked again when a signal came between, and with more room when that was too
/// little; a database that never has enough is not believed. It is not cancelled meanwhile.
template <typename Ask>
int lookUp(std::vector<char>& room, Ask ask) {
  const sys::NoCancel untilAnswered;  // the C library would leave its files open, and its lock taken
  constexpr std::size_t most = std::size_t{64} << 20;
  for (;;) {
    const int code = ask(room.data(), room.size());
    if (code == EINTR) continue;
    if (code != ERANGE || room.size() > most) return code;
    room.resize(room.size() * 2);
  }
}

}  // namespace kes::os
