#include <glob.h>

#include <cerrno>
#include <list>
#include <string>
#include <string_view>
#include <vector>

#include "kespal/Helper.h"
#include "kespal/error/StaticError.h"
#include "kespal/fs/Ops.h"
#include "kespal/fs/Path.h"
#include "kespal/proc/Env.h"
#include "os/HomeDir.h"
#include "os/posix/fs/Executable.h"
#include "sys/NoCancel.h"
#include "sys/Owner.h"

namespace kes::fs {

namespace {

std::string foundAt(const std::string& program, bool dirOnly) {
  if (!isExecutable(program.c_str())) return {};
  return dirOnly ? Path(program).assignDirname() : program;
}

std::string escaped(const std::string& text) {
  std::string result;
  for (char c : text) {
    if (std::string_view("\\*?[]{},~").find(c) != std::string_view::npos) result += '\\';
    result += c;
  }
  return result;
}

/// Without $HOME one C library looks "~" up in the user database; the other asks for the name that was
/// used to log in, and leaves the character alone in a process without a terminal.
std::string withHome(const std::string& pattern) {
  std::string home;
  const bool ownHome = pattern == "~" || pattern.starts_with("~/");
  if (!ownHome || (proc::Env::get("HOME", home) && !home.empty())) return pattern;
  home = os::databaseHome();
  return home.empty() ? pattern : escaped(home) + pattern.substr(1);
}

/// A directory that nobody may read has no matches, and the search goes on. One that could not be read for
/// want of something may have some: the list without them would be taken for the whole one.
int endsSearch(const char* /*directory*/, int errnum) noexcept {
  return errnum == EMFILE || errnum == ENFILE || errnum == ENOMEM || errnum == EIO ? 1 : 0;
}

}  // namespace

std::string Ops::which(const char* program, bool dirOnly) {
  const std::string name = program != nullptr ? program : "";
  if (name.starts_with('/')) return foundAt(name, dirOnly);
  std::string path;
  if (!proc::Env::get("PATH", path)) return {};
  std::vector<std::string> directories;
  helper::split(path, ':', directories, /*strip=*/false, /*keepEmpty=*/false);
  for (const std::string& directory : directories) {
    std::string candidate = directory;
    candidate.append(1, '/').append(name);
    if (isExecutable(candidate.c_str())) return dirOnly ? directory : candidate;
  }
  return {};
}

std::list<std::string> Ops::glob(const std::string& pattern) {
  const sys::NoCancel noCancel;  // the C library would leave its files open
  glob_t matches{};
  const sys::GlobMatches freeing(&matches);
  const int result =
      ::glob(withHome(pattern).c_str(), GLOB_TILDE | GLOB_BRACE | GLOB_NOSORT, endsSearch, &matches);
  if (result == GLOB_NOMATCH) return {};
  if (result != 0) raiseAt(KES_HERE, RuntimeError("read error or out of memory"));
  return {matches.gl_pathv, matches.gl_pathv + matches.gl_pathc};
}

}  // namespace kes::fs
