#pragma once

#include <string>
#include <vector>

namespace kes::extcap {

/// Where the analyser looks for programs like this one in the home of its user: since version 4.2, and
/// before.
std::vector<std::string> foldersOfUser();

/// Links this program into those folders, which are made where they are missing, and says what leads where.
/// What is there under the program's name is replaced if it is a link. Raises kes::FsError and its kin, and
/// kes::RuntimeError without a home.
std::string installForUser();

}  // namespace kes::extcap
