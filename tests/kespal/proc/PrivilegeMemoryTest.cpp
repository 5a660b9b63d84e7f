// A change of privileges while memory runs out: what it had dropped is known, or nothing was dropped.
#include <iostream>

#include "kespal/proc/Identities.h"
#include "support/NoMemory.h"

namespace kes::proc {
namespace {

using test::NoMemory;

/// Does something with so many allocations. Whether it was done.
template <typename Step>
bool isDoneWith(std::size_t allocations, bool& refused, Step step) {
  const NoMemory starving(allocations);
  bool done = true;
  try {
    step();
  } catch (const std::bad_alloc&) {
    done = false;
  }
  refused = NoMemory::refused();
  return done;
}

TEST_F(PrivilegeTest, AChangeThatFindsNoMemoryLeavesEveryIdAndEveryGroup) {
  for (std::size_t allocations = 0;; ++allocations) {
    const std::string told = asRoot([&](Privilege& privilege) {
      const UserInfo user = ids(nobody(), 0);
      bool refused = true;
      const auto change = [&] {
        privilege.changePrivilege(user, /*permanent=*/false, /*changeGroups=*/true);
      };
      if (isDoneWith(allocations, refused, change)) privilege.restorePrivilege();
      std::cout << (refused ? "refused " : "enough ") << identity() << '\n';
    });
    EXPECT_THAT(told, testing::EndsWith(" 0 0 0/0 0 0/4 27\n")) << "with " << allocations << " allocations";
    if (!told.starts_with("refused")) break;
  }
}

TEST_F(PrivilegeTest, AWayBackThatFindsNoMemoryCanBeTakenAgain) {
  EXPECT_EQ(asRoot([](Privilege& privilege) {
              privilege.changePrivilege(ids(nobody(), 0), /*permanent=*/false, /*changeGroups=*/true);
              bool refused = true;
              for (std::size_t allocations = 0; refused; ++allocations) {
                isDoneWith(allocations, refused, [&] { privilege.restorePrivilege(); });
              }
              std::cout << identity() << '\n';
            }),
            "0 0 0/0 0 0/4 27\n");
}

}  // namespace
}  // namespace kes::proc
