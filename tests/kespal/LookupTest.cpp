// Lookups in databases of accounts that are interrupted, or never have enough room.
#include <cerrno>
#include <cstdlib>

#include "kespal/GroupInfo.h"
#include "kespal/error/OsError.h"
#include "kespal/fs/StandardPaths.h"
#include "support/FakeAccounts.h"
#include "support/ForkedChild.h"
#include "support/Raised.h"

namespace kes {
namespace {

using test::accounts;

TEST(LookupTest, ADatabaseThatNeverHasEnoughRoomIsNotAskedForEver) {
  const test::FakeAccounts fake;
  accounts().groupCodes.assign(60, ERANGE);
  EXPECT_EQ(test::raisedAs<OsError>([] { GroupInfo(0U); }).errnum(), ERANGE);
}

TEST(LookupTest, AnInterruptedSearchForTheHomeDirectoryIsTriedAgain) {
  const auto result = test::inChild([] {
    const test::FakeAccounts fake;
    ::unsetenv("HOME");
    ::unsetenv("XDG_DATA_HOME");
    const std::string home = fs::StandardPaths::userDataDir().c_str();
    accounts().passwordCodes = {EINTR, ERANGE, EINTR};
    return home == fs::StandardPaths::userDataDir().c_str() ? 0 : 1;
  });
  EXPECT_EQ(result.exitCode(), 0) << result.err;
}

}  // namespace
}  // namespace kes
