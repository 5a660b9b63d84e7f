#include "kespal/EnumBitset.h"

namespace kes {
namespace {

enum class Flag : std::uint32_t { A = 1, B = 2, C = 4, Last = 0x80000000, AandB = 3 };
enum Plain { X = 1, Y = 2 };
using Flags = EnumBitset<Flag>;

TEST(EnumBitsetTest, ANewSetIsEmpty) {
  constexpr Flags none;
  EXPECT_EQ(none.mask(), 0U);
  EXPECT_FALSE(none.test(Flag::A));
}

TEST(EnumBitsetTest, OneFlagConvertsToItsSet) {
  const Flags one = Flag::B;
  EXPECT_EQ(one.mask(), 2U);
  EXPECT_TRUE(one.test(Flag::B));
  EXPECT_FALSE(one.test(Flag::A));
}

TEST(EnumBitsetTest, AListOfFlagsIsTheirUnion) {
  EXPECT_EQ((Flags{Flag::A, Flag::C, Flag::A}).mask(), 5U);
  EXPECT_EQ(Flags({}).mask(), 0U);
}

TEST(EnumBitsetTest, OrUnitesSetsAndFlags) {
  const Flags a = Flag::A;
  EXPECT_EQ((a | Flag::C).mask(), 5U);
  EXPECT_EQ((a | Flags{Flag::B, Flag::C}).mask(), 7U);
  EXPECT_EQ(a.mask(), 1U);
}

TEST(EnumBitsetTest, SetAddsAFlag) {
  Flags flags = Flag::A;
  flags.set(Flag::Last);
  EXPECT_EQ(flags.mask(), 0x80000001U);
  EXPECT_TRUE(flags.test(Flag::Last));
}

TEST(EnumBitsetTest, AFlagOfSeveralBitsIsInTheSetWhenAllOfThemAre) {
  EXPECT_FALSE(Flags(Flag::A).test(Flag::AandB));
  EXPECT_TRUE((Flags{Flag::A, Flag::B}).test(Flag::AandB));
}

TEST(EnumBitsetTest, ItIsOneMaskOf32Bits) {
  EXPECT_EQ(sizeof(Flags), 4U);
  EXPECT_TRUE(std::is_trivially_copyable_v<Flags>);
}

TEST(EnumBitsetTest, SetsWithTheSameFlagsAreEqual) {
  EXPECT_EQ((Flags{Flag::A, Flag::B}), Flags(Flag::B) | Flag::A);
  EXPECT_NE(Flags(Flag::A), Flags(Flag::B));
}

TEST(EnumBitsetTest, PlainEnumerationsWorkToo) {
  EnumBitset<Plain> set{X, Y};
  EXPECT_EQ(set.mask(), 3U);
}

}  // namespace
}  // namespace kes
