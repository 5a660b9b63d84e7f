// What the system tells in texts, as the libraries read it: the account files, user-dirs.dirs, the names and
// states of processes, the path of the program, the environment. While the target asks, the calls below
// answer from the input.
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>

#include "Input.h"
#include "Target.h"
#include "kespal/GroupInfo.h"
#include "kespal/UserInfo.h"
#include "kespal/error/Exception.h"
#include "kespal/fs/StandardPaths.h"
#include "kespal/proc/Info.h"
#include "lives.h"
#include "os/HomeDir.h"

namespace {

struct System {
  std::vector<std::string> environment;
  std::string users, groups;              ///< as /etc/passwd and /etc/group
  std::string userDirs;                   ///< user-dirs.dirs
  std::vector<std::string> commandNames;  ///< of the processes 1, 2, ...
  std::string state;                      ///< of a process, as /proc/PID/stat
  std::string program;                    ///< what /proc/self/exe points to
};

System takeSystem(Input input) {
  System system{.environment = std::vector<std::string>(input.number() % 6)};
  for (std::string& variable : system.environment) variable = input.text();
  for (std::string* text : {&system.users, &system.groups, &system.userDirs}) *text = input.text();
  system.commandNames.resize(input.number() % 16);
  for (std::string& name : system.commandNames) name = input.text().substr(0, 64);
  system.state = input.text();
  system.program = input.rest();
  return system;
}

const System* g_system = nullptr;  // null while the target does not ask
std::size_t g_listed = 0;          // processes that readdir() has given

using Stream = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

Stream streamOf(const std::string& text) {
  // A text of no bytes makes no stream.
  static char nothing[] = "\n";
  char* bytes = text.empty() ? nothing : const_cast<char*>(text.data());
  return {::fmemopen(bytes, std::max<std::size_t>(text.size(), 1), "r"), &std::fclose};
}

/// Looks through a text for an entry that is wanted, as the C library does through the file.
template <typename Entry, typename Read, typename Wanted>
int lookUp(const std::string& text, Read read, Wanted wanted, Entry* entry, char* buffer, std::size_t size,
           Entry** found) {
  const Stream stream = streamOf(text);
  int code = 0;
  do {
    code = read(stream.get(), entry, buffer, size, found);
  } while (code == 0 && !wanted(*entry));
  if (code != 0) *found = nullptr;
  return code == ENOENT ? 0 : code;
}

template <typename Wanted>
int findUser(Wanted wanted, passwd* entry, char* buffer, std::size_t size, passwd** found) {
  return lookUp(g_system->users, &::fgetpwent_r, wanted, entry, buffer, size, found);
}

template <typename Wanted>
int findGroup(Wanted wanted, group* entry, char* buffer, std::size_t size, group** found) {
  return lookUp(g_system->groups, &::fgetgrent_r, wanted, entry, buffer, size, found);
}

int fileOf(const std::string& text) {
  const int fd = ::memfd_create("text", MFD_CLOEXEC);
  require(::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()));
  ::lseek(fd, 0, SEEK_SET);
  return fd;
}

}  // namespace

extern "C" {

int __wrap_getpwnam_r(const char* name, passwd* entry, char* buffer, std::size_t size, passwd** found) {
  return findUser([name](const passwd& user) { return std::strcmp(user.pw_name, name) == 0; }, entry, buffer,
                  size, found);
}
int __wrap_getpwuid_r(uid_t uid, passwd* entry, char* buffer, std::size_t size, passwd** found) {
  return findUser([uid](const passwd& user) { return user.pw_uid == uid; }, entry, buffer, size, found);
}
int __wrap_getgrnam_r(const char* name, group* entry, char* buffer, std::size_t size, group** found) {
  return findGroup([name](const group& group) { return std::strcmp(group.gr_name, name) == 0; }, entry,
                   buffer, size, found);
}
int __wrap_getgrgid_r(gid_t gid, group* entry, char* buffer, std::size_t size, group** found) {
  return findGroup([gid](const group& group) { return group.gr_gid == gid; }, entry, buffer, size, found);
}

int __real_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, mode_t mode) {
  if (g_system == nullptr) return __real_open(path, flags, mode);
  int process = 0;
  char kind = 0;
  if (std::sscanf(path, "/proc/%d/%c", &process, &kind) != 2) return fileOf(g_system->userDirs);
  if (kind == 's') return fileOf(g_system->state);
  return fileOf(g_system->commandNames.at(static_cast<std::size_t>(process) - 1) + '\n');
}

dirent* __real_readdir(DIR* directory);
dirent* __wrap_readdir(DIR* directory) {
  static dirent entry;
  if (g_system == nullptr) return __real_readdir(directory);
  if (g_listed == g_system->commandNames.size()) return nullptr;
  std::snprintf(entry.d_name, sizeof entry.d_name, "%zu", ++g_listed);
  return &entry;
}

ssize_t __real_readlink(const char* path, char* buffer, std::size_t size);
ssize_t __wrap_readlink(const char* path, char* buffer, std::size_t size) {
  if (g_system == nullptr) return __real_readlink(path, buffer, size);
  const std::size_t count = std::min(size, g_system->program.size());
  std::memcpy(buffer, g_system->program.data(), count);
  return static_cast<ssize_t>(count);
}

}  // extern "C"

namespace {

using namespace kes;

/// The system of an input, while this lives.
class Asking {
 public:
  explicit Asking(System& system) : environment_(::environ) {
    for (std::string& variable : system.environment) variables_.push_back(variable.data());
    variables_.push_back(nullptr);
    ::environ = variables_.data();
    g_system = &system;
  }
  ~Asking() {
    g_system = nullptr;
    ::environ = environment_;
  }
  Asking(const Asking&) = delete;
  Asking& operator=(const Asking&) = delete;

 private:
  char** environment_;
  std::vector<char*> variables_;
};

/// Nothing when there is no such account, or an error that the declaration names.
template <typename Account, typename Key>
std::optional<Account> find(const Key& key) {
  try {
    return Account(key);
  } catch (const Exception&) {
    return std::nullopt;
  }
}

/// Asks for every user and group of the text, by name and by number.
void requireAccounts(const System& system) {
  std::set<uid_t> seen;  // the first of several counts
  const Stream users = streamOf(system.users);
  while (const passwd* entry = ::fgetpwent(users.get())) {
    const std::string name = entry->pw_name, home = entry->pw_dir != nullptr ? entry->pw_dir : "";
    const auto byNumber = find<UserInfo>(entry->pw_uid);
    const auto byName = find<UserInfo>(name);
    if (byName) require(byName->name == name && byName->uid != unsigned(-1));
    if (byNumber && seen.insert(entry->pw_uid).second)
      require(byNumber->name == name && byNumber->home == home);
  }
  const Stream groups = streamOf(system.groups);
  while (const group* entry = ::fgetgrent(groups.get())) {
    const auto group = find<GroupInfo>(std::string(entry->gr_name));
    if (group && *entry->gr_name != '\0') require(group->name() == entry->gr_name);
    find<GroupInfo>(entry->gr_gid);
  }
}

/// The last usable line counts, whatever stands before and behind it.
void requireDirectories(System& system) {
  const fs::Path documents = fs::StandardPaths::documentsDir();
  const std::string text = system.userDirs;
  system.userDirs = text + "\n#XDG_DOCUMENTS_DIR=\"/else\"\nXDG_DOCUMENTS_DIR=relative";
  require(fs::StandardPaths::documentsDir() == documents);
  system.userDirs = text + "\n XDG_DOCUMENTS_DIR\t= \"/the\\\"last\"one";
  require(fs::StandardPaths::documentsDir() == fs::Path("/the\"last"));
  system.userDirs = text + "\nXDG_DOCUMENTS_DIR=\"$HOME/last\"";
  require(fs::StandardPaths::documentsDir() == fs::Path(os::homeDir() + "/last"));
  fs::StandardPaths::userDataDir();
  fs::StandardPaths::userTempDir();
  fs::StandardPaths::userLogDir();
}

void requireProcesses(const System& system) {
  for (const std::string& name : system.commandNames) {
    g_listed = 0;
    const std::set<int> running = proc::Info::running(name);
    for (std::size_t i = 0; i < system.commandNames.size(); ++i) {
      const bool isNamed = !name.empty() && system.commandNames[i].substr(0, 15) == name.substr(0, 15);
      require(running.contains(static_cast<int>(i) + 1) == isNamed);
    }
  }
}

/// A name in parentheses may hold anything; the fields count from behind it, between single blanks. A number
/// may have more of them in front.
void requireLife(const System& system) {
  const std::string line = system.state.substr(0, 1023);
  std::vector<std::string> fields;  // each with what is behind it
  for (std::size_t at = line.rfind(')'); at != line.npos;) {
    fields.push_back(line.substr(at));
    const std::size_t end = line.find(' ', at);
    at = end == line.npos ? end : end + 1;
  }
  const os::Life life = os::lifeOf(::getpid());
  if (fields.size() <= 20) return require(!life.isOver && life.start == 0);
  const bool isDead = fields[1].starts_with('Z') || fields[1].starts_with('X');
  require(life.isOver == (isDead && std::atol(fields[18].c_str()) <= 1));
  require(life.start == std::strtoull(fields[20].c_str(), nullptr, 10));
}

void requireProgram(const System& system) {
  try {
    require(proc::Info::exe() == fs::Path(system.program.c_str()));
  } catch (const Exception&) {
    require(system.program.size() > 1023);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  System system = takeSystem({data, size});
  const Asking untilAsked(system);
  requireAccounts(system);
  requireDirectories(system);
  requireProcesses(system);
  requireLife(system);
  requireProgram(system);
  return 0;
}
