#include "sys/Owner.h"

#include <fcntl.h>

#include <cerrno>
#include <utility>
#include <vector>

namespace kes::sys {
namespace {

std::vector<int> g_freed;

struct NumberTrait {
  using Value = int;
  static constexpr int none = 0;
  static void free(int number) noexcept { g_freed.push_back(number); }
};
using Number = Owner<NumberTrait>;

using testing::ElementsAre;
using testing::IsEmpty;

class OwnerTest : public testing::Test {
 protected:
  void SetUp() override { g_freed.clear(); }
};

TEST_F(OwnerTest, WhatItOwnsIsGivenBackOnceAtItsEnd) {
  {
    const Number number(7);
    EXPECT_EQ(number.get(), 7);
    EXPECT_TRUE(number);
    EXPECT_THAT(g_freed, IsEmpty());
  }
  EXPECT_THAT(g_freed, ElementsAre(7));
}

TEST_F(OwnerTest, AnEmptyOneGivesNothingBack) {
  {
    const Number made, given(NumberTrait::none);
    EXPECT_FALSE(made);
    EXPECT_FALSE(given);
  }
  EXPECT_THAT(g_freed, IsEmpty());
}

TEST_F(OwnerTest, WhatIsReleasedIsTheCallers) {
  {
    Number number(7);
    EXPECT_EQ(number.release(), 7);
    EXPECT_FALSE(number);
    EXPECT_EQ(number.release(), NumberTrait::none);
  }
  EXPECT_THAT(g_freed, IsEmpty());
}

TEST_F(OwnerTest, AnotherThingTakesThePlaceOfTheOneThatIsGivenBack) {
  Number number(7);
  number.reset(8);
  EXPECT_EQ(number.get(), 8);
  EXPECT_THAT(g_freed, ElementsAre(7));
  number.reset();
  EXPECT_FALSE(number);
  EXPECT_THAT(g_freed, ElementsAre(7, 8));
}

TEST_F(OwnerTest, TheSameThingAgainStaysItsOwn) {
  Number number(7);
  number.reset(7);
  EXPECT_EQ(number.get(), 7);
  EXPECT_THAT(g_freed, IsEmpty());
}

TEST_F(OwnerTest, WhatIsMovedHasOneOwner) {
  {
    Number first(7);
    Number second(std::move(first));
    EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move): it is empty, and that is what is asked
    EXPECT_EQ(second.get(), 7);
    Number third(8);
    third = std::move(second);
    EXPECT_EQ(third.get(), 7);
    EXPECT_THAT(g_freed, ElementsAre(8));
    Number& itself = third;
    third = std::move(itself);
    EXPECT_EQ(third.get(), 7);
  }
  EXPECT_THAT(g_freed, ElementsAre(8, 7));
}

TEST(DescriptorTest, ADescriptorIsClosedAtTheEnd) {
  int fd = -1;
  {
    const Descriptor descriptor(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    fd = descriptor.get();
    ASSERT_TRUE(descriptor);
    EXPECT_NE(::fcntl(fd, F_GETFD), -1);
  }
  EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_FALSE(Descriptor(-1));
  EXPECT_TRUE(Descriptor(::open("/dev/null", O_RDONLY | O_CLOEXEC)));
}

TEST(DescriptorTest, NumberZeroIsADescriptorLikeAnyOther) {
  Descriptor zero(0);
  EXPECT_TRUE(zero);
  EXPECT_EQ(zero.release(), 0);
}

TEST(DirStreamTest, ADirectoryIsClosedAtTheEnd) {
  int fd = -1;
  {
    const DirStream dir(::opendir("/"));
    ASSERT_TRUE(dir);
    fd = ::dirfd(dir.get());
  }
  EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
}

}  // namespace
}  // namespace kes::sys
