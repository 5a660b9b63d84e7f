#pragma once

#include <unistd.h>

#include <functional>
#include <string>

#include "kespal/proc/Privilege.h"
#include "support/ForkedChild.h"

/// Every test of privileges changes identity in a forked child and compares what /proc says about it.
namespace kes::proc {

constexpr unsigned root = 0;
/// Nobody has this account; it is small enough for containers, which know few ids.
constexpr unsigned stranger = 64444;
unsigned nobody();
unsigned nogroup();

/// A record that names an account by its ids alone.
UserInfo ids(unsigned uid, unsigned gid);
/// The real, effective and saved id, all the same.
std::string three(unsigned id);

/// "real effective saved/real effective saved/supplementary ..." of this process, or of a thread of it.
std::string identity(const std::string& task = "self");

/// Does something and prints "ok", or where and why it failed; then the identity.
void attempt(const std::function<void()>& change);
/// What attempt() prints about a system call that failed.
std::string refused(const std::string& function, int code);

extern const std::string notPermanent;
extern const std::string silentlyFailed;

/// What a child prints that starts as root with the supplementary groups 4 and 27.
std::string asRoot(const std::function<void(Privilege&)>& body);
/// What a child prints that starts as nobody without supplementary groups.
std::string asNobody(const std::function<void(Privilege&)>& body);

class PrivilegeTest : public testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != root) GTEST_SKIP() << "only root can change its identity";
  }
};

}  // namespace kes::proc
