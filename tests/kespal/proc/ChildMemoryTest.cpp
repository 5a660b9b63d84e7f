#include "kespal/proc/ChildFixture.h"
#include "support/NoMemory.h"

namespace kes::proc {
namespace {

TEST_F(ChildTest, AnOrderThatThereIsNoMemoryForLeavesTheFormerOneWhole) {
  const std::string longText(100, 'x');
  const std::list<std::string> other = {"/bin/false", longText, longText, longText};
  Child child({"/bin/sh", "-c", "test \"$kept\" = yes"});
  child.setEnvironment({"kept=yes", "long=" + longText, "longer=" + longText});
  for (std::size_t before = 0; before != other.size(); ++before) {
    const test::NoMemory starving(before);
    EXPECT_THROW(child.setArguments(other), std::bad_alloc);
    EXPECT_THROW(child.setEnvironment(other), std::bad_alloc);
  }
  child.create();
  EXPECT_EQ(child.wait().status, 0);
}

}  // namespace
}  // namespace kes::proc
