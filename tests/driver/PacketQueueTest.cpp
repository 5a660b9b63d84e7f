#include "PacketQueue.h"

#include <gtest/gtest.h>

namespace kes::driver {
namespace {

TEST(PacketQueueTest, PacketsComeOutInOrder) {
  PacketQueue queue;
  for (std::uint8_t i = 1; i <= 3; ++i) EXPECT_TRUE(queue.push({i}));
  for (std::uint8_t i = 1; i <= 3; ++i) EXPECT_EQ(queue.pop(), Frame{i});
  EXPECT_EQ(queue.pop(), std::nullopt);
}

TEST(PacketQueueTest, APacketThatComesWhenItIsFullIsDroppedAndCounted) {
  PacketQueue queue(2);
  EXPECT_TRUE(queue.push({1}));
  EXPECT_TRUE(queue.push({2}));
  EXPECT_FALSE(queue.push({3}));
  EXPECT_FALSE(queue.push({4}));
  EXPECT_EQ(queue.dropped(), 2u);
  EXPECT_EQ(queue.pop(), Frame{1});
  EXPECT_TRUE(queue.push({5}));
  EXPECT_EQ(queue.pop(), Frame{2});
  EXPECT_EQ(queue.pop(), Frame{5});
  EXPECT_EQ(queue.dropped(), 2u);
}

}  // namespace
}  // namespace kes::driver
