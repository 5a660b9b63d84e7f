#pragma once

#include <string>

namespace kes::os {

/// The home directory that the user database has for the real user; empty when it has none.
std::string databaseHome();

/// The user's home directory: $HOME when it is an absolute path, else the user database's answer.
std::string homeDir();

}  // namespace kes::os
