// The start of a server: takes as root what only root can get, gives root up for good, and proves it.

#include <unistd.h>

#include <iostream>
#include <stdexcept>
#include <string>

#include "kespal/ScopeGuard.h"
#include "kespal/UserInfo.h"
#include "kespal/error/FsError.h"
#include "kespal/fs/File.h"
#include "kespal/fs/Info.h"
#include "kespal/fs/Ops.h"
#include "kespal/fs/Path.h"
#include "kespal/proc/Privilege.h"

using kes::UserInfo;
using kes::fs::Access;
using kes::fs::File;
using kes::fs::Ops;
using kes::fs::Path;
using kes::proc::Privilege;

namespace {

/// A directory of the server's user with a file in it that is root's alone.
class Home {
 public:
  explicit Home(const UserInfo& user) {
    Ops::tempdir(path_);
    setOwnership(path_.c_str(), -1, Access(user.uid, user.gid, 0));
    const Access secret(0600);
    File().open(key().c_str(), File::WRITE, File::CREATE | File::EXCLUSIVE, &secret);
  }
  void remove() {
    Ops::removeFile(key().c_str());
    Ops::removeDir(path_.c_str());
  }

  Path key() const { return Path(path_) + "key"; }

 private:
  std::string path_ = "drop-root-";
};

void check(bool held, const char* claim) {
  if (!held) throw std::runtime_error(std::string("not true: ") + claim);
  std::cout << "proved: " << claim << '\n';
}

bool canOpen(const Path& path) {
  try {
    File().open(path.c_str(), File::READ);
    return true;
  } catch (const kes::FileAccessError&) {
    return false;
  }
}

void serve(const UserInfo& user) {
  Home home(user);
  const kes::ObjScopeGuard0 guard(home, &Home::remove);
  File key;
  key.open(home.key().c_str(), File::READ);

  Privilege privilege;
  privilege.changePrivilege(user, /*permanent=*/true, /*changeGroups=*/true);
  std::cout << privilege.effectiveProcUser();

  check(kes::fs::Info::get(key.fd()).isRegular(), "what was opened as root is still open");
  check(!canOpen(home.key()), "it cannot be opened again");
  check(privilege.supplementaryGroups().empty(), "no group is left over");
  check(!Privilege::haveRootPrivilege(), "root cannot be taken back");
  check(::setuid(0) != 0 && ::setgid(0) != 0, "not with the plain calls either");
}

}  // namespace

int main() try {
  if (::getuid() != 0) {
    std::cout << "only root can give root up\n";
    return 0;
  }
  serve(UserInfo(std::string("nobody")));
} catch (const kes::Exception& error) {
  std::cerr << error.exStack();
  return 1;
} catch (const std::exception& error) {
  std::cerr << error.what() << '\n';
  return 1;
}
