#pragma once

#include <deque>
#include <optional>
#include <string>
#include <vector>

namespace kes::test {

/// What the account databases answer in a test program that compiles FakeAccounts.cpp in. Nothing set: what
/// the system says.
struct Accounts {
  struct Password {
    const char* name;
    unsigned uid;
    unsigned gid;
    const char* home;
    const char* shell;
  };
  struct Group {
    std::string name;
    unsigned gid = 0;
    std::vector<std::string> members;
  };

  std::deque<int> passwordCodes;  ///< results of the next lookups of a user; then as below
  std::optional<Password> password;
  std::deque<int> groupCodes;  ///< results of the next lookups of a group; then as below
  std::optional<Group> group;
  std::vector<std::size_t> groupBuffers;  ///< the size that each lookup of a group came with
  std::optional<std::string> login;
  int loginCode = 0;
};

Accounts& accounts();

/// Nothing stays set beyond the life of this object.
struct FakeAccounts {
  FakeAccounts() { accounts() = {}; }
  ~FakeAccounts() { accounts() = {}; }
  FakeAccounts(const FakeAccounts&) = delete;
  FakeAccounts& operator=(const FakeAccounts&) = delete;
};

}  // namespace kes::test
