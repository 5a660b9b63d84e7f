#include "kespal/fs/StandardPaths.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <string_view>

#include "kespal/proc/Env.h"
#include "os/HomeDir.h"
#include "sys/NoCancel.h"
#include "sys/Owner.h"
#include "sys/Retry.h"

// The directories that the desktop convention names by XDG variables. A relative value counts as unset.

namespace kes::fs {

namespace {

std::string absoluteVariable(const char* name) {
  std::string value;
  proc::Env::get(name, value);
  return value.starts_with('/') ? value : std::string();
}

Path belowHome(const char* below) { return Path(os::homeDir()) + below; }

Path variableOrInHome(const char* name, const char* below) {
  const std::string value = absoluteVariable(name);
  return !value.empty() ? Path(value) : belowHome(below);
}

void skipBlanks(std::string_view& text) {
  text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
}

bool skip(std::string_view& text, std::string_view expected) {
  skipBlanks(text);
  if (!text.starts_with(expected)) return false;
  text.remove_prefix(expected.size());
  return true;
}

/// The text up to the closing quote; a backslash protects the character after it.
std::string unquoted(std::string_view text) {
  std::string value;
  for (std::size_t at = 0; at < text.size() && text[at] != '"'; ++at) {
    if (text[at] == '\\' && at + 1 < text.size()) ++at;
    value += text[at];
  }
  return value;
}

/// Reads a line of the form NAME="$HOME/below" or NAME="/absolute"; empty when it is anything else.
std::string userDirOfLine(std::string_view line, std::string_view name) {
  if (!skip(line, name) || !skip(line, "=") || !skip(line, "\"")) return {};
  constexpr std::string_view home = "$HOME";
  const bool inHome = line.starts_with(home);
  const std::string value = unquoted(line.substr(inHome ? home.size() : 0));
  if (!value.starts_with('/') && !(inHome && value.empty())) return {};
  return inHome ? os::homeDir() + value : value;
}

/// What cannot be read says nothing, and neither does what would have to be waited for.
std::string contentOf(const Path& path) {
  constexpr int flags = O_RDONLY | O_NONBLOCK | O_CLOEXEC;
  const sys::NoCancel untilRead;  // one while the file is opened would lose the descriptor
  const sys::Descriptor file(sys::retry([&] { return ::open(path.c_str(), flags); }));
  std::string content;
  char buffer[4096];
  for (;;) {
    const ssize_t count = sys::retry([&] { return ::read(file.get(), buffer, sizeof buffer); });
    if (count <= 0) return count == 0 ? content : "";
    content.append(buffer, static_cast<std::size_t>(count));
  }
}

/// The last usable line counts, as in the shell that the file is written for.
std::string userDir(std::string_view name) {
  const std::string file = contentOf(variableOrInHome("XDG_CONFIG_HOME", ".config") + "user-dirs.dirs");
  std::string result;
  for (std::string_view rest = file; !rest.empty();) {
    std::string value = userDirOfLine(rest.substr(0, rest.find('\n')), name);
    if (!value.empty()) result = std::move(value);
    rest.remove_prefix(std::min(rest.find('\n'), rest.size() - 1) + 1);
  }
  return result;
}

bool isOurDirectory(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == ::geteuid();
}

}  // namespace

Path StandardPaths::userDataDir() { return variableOrInHome("XDG_DATA_HOME", ".local/share"); }

Path StandardPaths::documentsDir() {
  const std::string configured = userDir("XDG_DOCUMENTS_DIR");
  return !configured.empty() ? Path(configured) : belowHome("Documents");
}

Path StandardPaths::userTempDir() {
  const std::string own = absoluteVariable("XDG_RUNTIME_DIR");
  return !own.empty() && isOurDirectory(own) ? Path(own) : tempDir();
}

Path StandardPaths::userLogDir() { return variableOrInHome("XDG_STATE_HOME", ".local/state") + "Logs"; }

Path StandardPaths::logDir() { return "/var/log"; }

}  // namespace kes::fs
