#include "kespal/NoCopy.h"

#include <type_traits>

namespace kes {
namespace {

class Owner : NoCopy {};

TEST(NoCopyTest, AnObjectOfADerivedClassCanBeMadeButNeitherCopiedNorMovedNorAssigned) {
  EXPECT_TRUE(std::is_default_constructible_v<Owner>);
  EXPECT_FALSE(std::is_copy_constructible_v<Owner>);
  EXPECT_FALSE(std::is_move_constructible_v<Owner>);
  EXPECT_FALSE(std::is_copy_assignable_v<Owner>);
  EXPECT_FALSE(std::is_move_assignable_v<Owner>);
}

TEST(NoCopyTest, ItTakesNoRoomAndCannotBeMadeAlone) {
  EXPECT_TRUE(std::is_empty_v<NoCopy>);
  EXPECT_FALSE(std::is_default_constructible_v<NoCopy>);
  EXPECT_FALSE(std::is_destructible_v<NoCopy>);
}

}  // namespace
}  // namespace kes
