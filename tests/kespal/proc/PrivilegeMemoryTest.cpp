// A change of privileges while memory runs out: what it had dropped is known, or nothing was dropped.
#include <iostream>

#include "kespal/proc/Identities.h"
#include "support/NoMemory.h"

namespace kes::proc {
namespace {

using test::NoMemory;

/// Changes for a while with so many allocations; then tells whose the process is, and goes back if it can.
void changeWith(std::size_t allocations, Privilege& privilege, bool& refused) {
  const UserInfo user = ids(nobody(), 0);
  bool changed = false;
  {
    const NoMemory starving(allocations);
    try {
      privilege.changePrivilege(user, /*permanent=*/false, /*changeGroups=*/true);
      changed = true;
    } catch (const std::bad_alloc&) {
    }
    refused = NoMemory::refused();
  }
  if (!changed) return;
  privilege.restorePrivilege();
}

TEST_F(PrivilegeTest, AChangeThatFindsNoMemoryLeavesEveryIdAndEveryGroup) {
  for (std::size_t allocations = 0;; ++allocations) {
    const std::string told = asRoot([&](Privilege& privilege) {
      bool refused = true;
      changeWith(allocations, privilege, refused);
      std::cout << (refused ? "refused " : "enough ") << identity() << '\n';
    });
    EXPECT_THAT(told, testing::EndsWith(" 0 0 0/0 0 0/4 27\n")) << "with " << allocations << " allocations";
    if (!told.starts_with("refused")) break;
  }
}

}  // namespace
}  // namespace kes::proc
