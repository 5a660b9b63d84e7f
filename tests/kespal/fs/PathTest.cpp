#include "kespal/fs/Path.h"

#include <list>

namespace kes::fs {
namespace {

TEST(PathTest, AnEmptyPathIsNotAbsoluteAndHasNoRootAndNoBasename) {
  Path path("");
  EXPECT_TRUE(path.empty());
  EXPECT_FALSE(path.isAbsolute());
  EXPECT_EQ(path.root(), "");
  EXPECT_EQ(path.basename(), "");
  EXPECT_EQ(path.assignDirname(), ".");
}

}  // namespace
}  // namespace kes::fs
