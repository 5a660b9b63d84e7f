#include "support/FakeAccounts.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "support/Calls.h"

namespace kes::test {

Accounts& accounts() {
  static Accounts answers;
  return answers;
}

namespace {

/// Takes the next scripted result; 0 when there is none.
int nextOf(std::deque<int>& codes) {
  if (codes.empty()) return 0;
  const int code = codes.front();
  codes.pop_front();
  return code;
}

/// Hands out pieces of the caller's buffer.
class Room {
 public:
  Room(char* buffer, std::size_t size) : next_(buffer), end_(buffer + size) {}

  char* text(const std::string& text) {
    char* start = bytes(text.size() + 1, 1);
    if (start != nullptr) std::memcpy(start, text.c_str(), text.size() + 1);
    return start;
  }
  char** pointers(std::size_t count) {
    return reinterpret_cast<char**>(bytes(count * sizeof(char*), alignof(char*)));
  }

 private:
  char* bytes(std::size_t count, std::size_t alignment) {
    const auto skew = reinterpret_cast<std::size_t>(next_) % alignment;
    char* start = skew == 0 ? next_ : next_ + (alignment - skew);
    if (start > end_ || static_cast<std::size_t>(end_ - start) < count) return nullptr;
    next_ = start + count;
    return start;
  }

  char* next_;
  char* end_;
};

int fill(const Accounts::Group& from, group* entry, char* buffer, std::size_t size, group** found) {
  *found = nullptr;
  Room room(buffer, size);
  entry->gr_name = room.text(from.name);
  entry->gr_gid = from.gid;
  entry->gr_mem = room.pointers(from.members.size() + 1);
  if (entry->gr_name == nullptr || entry->gr_mem == nullptr) return ERANGE;
  char** member = entry->gr_mem;
  for (const std::string& name : from.members) {
    *member = room.text(name);
    if (*member++ == nullptr) return ERANGE;
  }
  *member = nullptr;
  *found = entry;
  return 0;
}

int fill(const Accounts::Password& from, passwd* entry, passwd** found) {
  *entry = {};
  entry->pw_name = const_cast<char*>(from.name);
  entry->pw_uid = from.uid;
  entry->pw_gid = from.gid;
  entry->pw_dir = const_cast<char*>(from.home);
  entry->pw_shell = const_cast<char*>(from.shell);
  *found = entry;
  return 0;
}

template <typename Key>
int user(int (*real)(Key, passwd*, char*, size_t, passwd**), Key key, passwd* entry, char* buffer,
         size_t size, passwd** found) {
  *found = nullptr;
  if (const int code = nextOf(accounts().passwordCodes)) return code;
  if (accounts().password) return fill(*accounts().password, entry, found);
  return real(key, entry, buffer, size, found);
}

template <typename Key>
int lookUp(int (*real)(Key, group*, char*, size_t, group**), Key key, group* entry, char* buffer, size_t size,
           group** found) {
  *found = nullptr;
  accounts().groupBuffers.push_back(size);
  if (const int code = nextOf(accounts().groupCodes)) return code;
  if (accounts().group) return fill(*accounts().group, entry, buffer, size, found);
  return real(key, entry, buffer, size, found);
}

const Instead<Call::getpwnam_r> userByName([](const char* name, passwd* entry, char* buffer, size_t size,
                                              passwd** found) {
  return user(Row<Call::getpwnam_r>::real, name, entry, buffer, size, found);
});
const Instead<Call::getpwuid_r> userById([](uid_t uid, passwd* entry, char* buffer, size_t size,
                                            passwd** found) {
  return user(Row<Call::getpwuid_r>::real, uid, entry, buffer, size, found);
});
const Instead<Call::getgrnam_r> groupByName([](const char* name, group* entry, char* buffer, size_t size,
                                               group** found) {
  return lookUp(Row<Call::getgrnam_r>::real, name, entry, buffer, size, found);
});
const Instead<Call::getgrgid_r> groupById([](gid_t gid, group* entry, char* buffer, size_t size,
                                             group** found) {
  return lookUp(Row<Call::getgrgid_r>::real, gid, entry, buffer, size, found);
});
const Instead<Call::getlogin_r> loginName([](char* buffer, size_t size) {
  if (accounts().loginCode != 0) return accounts().loginCode;
  if (!accounts().login) return real<Call::getlogin_r>(buffer, size);
  if (accounts().login->size() >= size) return ERANGE;
  std::memcpy(buffer, accounts().login->c_str(), accounts().login->size() + 1);
  return 0;
});

}  // namespace
}  // namespace kes::test
