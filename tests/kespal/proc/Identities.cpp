#include "kespal/proc/Identities.h"

#include <fstream>
#include <iostream>
#include <sstream>

#include "kespal/error/OsError.h"
#include "kespal/error/StaticError.h"

namespace kes::proc {
namespace {

/// Cuts the location line off what() texts in a child's output.
std::string withoutLocations(std::string text) {
  for (std::size_t at; (at = text.find("Exception occured at")) != text.npos;) {
    text.erase(at, text.find("\n\n", at) + 2 - at);
  }
  return text;
}

}  // namespace

unsigned nobody() { return UserInfo(std::string("nobody")).uid; }
unsigned nogroup() { return UserInfo(std::string("nobody")).gid; }

UserInfo ids(unsigned uid, unsigned gid) {
  UserInfo user;
  user.uid = uid;
  user.gid = gid;
  return user;
}

std::string three(unsigned id) {
  const std::string text = std::to_string(id);
  return text + ' ' + text + ' ' + text;
}

std::string identity(const std::string& task) {
  std::ifstream status("/proc/" + task + "/status");
  std::string uid, gid, groups;
  for (std::string line; std::getline(status, line);) {
    std::istringstream fields(line.substr(line.find(':') + 1));
    std::string text;
    int count = 0;
    for (std::string field; fields >> field; ++count) {
      // The fourth id is that of the file system, which follows the effective one.
      if (line.rfind("Groups:", 0) == 0 || count < 3) text += (text.empty() ? "" : " ") + field;
    }
    if (line.rfind("Uid:", 0) == 0) uid = text;
    if (line.rfind("Gid:", 0) == 0) gid = text;
    if (line.rfind("Groups:", 0) == 0) groups = text;
  }
  return uid + '/' + gid + '/' + groups;
}

void attempt(const std::function<void()>& change) {
  try {
    change();
    std::cout << "ok";
  } catch (const OsError& error) {
    std::cout << error.function() << ": " << error.errnum();
  } catch (const StaticError& error) {
    std::cout << error.function() << ": " << error.what();
  }
  std::cout << " -> " << identity() << '\n';
}

std::string refused(const std::string& function, int code) { return function + ": " + std::to_string(code); }

const std::string notPermanent =
    "changePrivilegeIds: Runtime error occured. Permanent privilege change isn't permanent?!";
const std::string silentlyFailed =
    "changePrivilegeIds: Runtime error occured. Privilege change silently failed?!";

std::string asRoot(const std::function<void(Privilege&)>& body) {
  const auto child = test::inChild([&] {
    Privilege privilege;
    privilege.setSupplementaryGroups({4, 27});
    body(privilege);
    return 0;
  });
  EXPECT_EQ(child.exitCode(), 0) << child.err;
  return withoutLocations(child.out);
}

std::string asNobody(const std::function<void(Privilege&)>& body) {
  const auto child = test::asNobody([&] {
    Privilege privilege;
    body(privilege);
    return 0;
  });
  EXPECT_EQ(child.exitCode(), 0) << child.err;
  return withoutLocations(child.out);
}

}  // namespace kes::proc
