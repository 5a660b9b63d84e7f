#include "TraceBuffer.h"

#include <gtest/gtest.h>

namespace kes::driver {
namespace {

TEST(TraceBufferTest, TextComesOutInOrderAndInPiecesOfTheAskedSize) {
  TraceBuffer buffer;
  buffer.append("one\n");
  buffer.append("two\n");
  EXPECT_EQ(buffer.size(), 8u);
  EXPECT_EQ(buffer.take(5), "one\nt");
  EXPECT_EQ(buffer.take(100), "wo\n");
  EXPECT_EQ(buffer.take(100), "");
  EXPECT_EQ(buffer.lost(), 0u);
}

TEST(TraceBufferTest, NulsAreLeftOut) {
  TraceBuffer buffer;
  buffer.append(std::string_view("a\0b\n\0", 5));
  EXPECT_EQ(buffer.take(100), "ab\n");
}

TEST(TraceBufferTest, WhatDoesNotFitIsLostInWholeLinesAndSaidInItsPlace) {
  TraceBuffer buffer(10);
  buffer.append("12345\n");
  buffer.append("678\nabcdef\n");  // four of these fit
  EXPECT_EQ(buffer.take(100), "12345\n678\n");
  EXPECT_EQ(buffer.lost(), 7u);
  buffer.append("new\n");
  EXPECT_EQ(buffer.take(100), "*** 7 bytes of trace lost ***\nnew\n");
}

TEST(TraceBufferTest, ALossIsSaidAlsoWhenNothingFollows) {
  TraceBuffer buffer(4);
  buffer.append("123\n");
  buffer.append("lost\n");
  EXPECT_EQ(buffer.take(100), "123\n");
  EXPECT_EQ(buffer.take(100), "*** 5 bytes of trace lost ***\n");
  EXPECT_EQ(buffer.take(100), "");
}

TEST(TraceBufferTest, AFullBufferLosesOneGapAndNotEveryOtherLine) {
  TraceBuffer buffer(100);
  for (int i = 0; i < 20; ++i) buffer.append("0123456789\n");
  EXPECT_EQ(buffer.lost(), 11u * 11u);
  buffer.take(11);
  buffer.append("early\n");
  EXPECT_EQ(buffer.lost(), 11u * 11u + 6u) << "the gap lasts until half is free again";
  buffer.take(44);
  buffer.append("late\n");
  const std::string rest = buffer.take(1000);
  EXPECT_NE(rest.find("*** 127 bytes of trace lost ***\nlate\n"), std::string::npos) << rest;
}

TEST(TraceBufferTest, MemoryStaysBoundedOverAnyAmountOfText) {
  TraceBuffer buffer(1000);
  for (int i = 0; i < 100000; ++i) {
    buffer.append("some text of a line\n");
    if (i % 3 == 0) buffer.take(30);
    ASSERT_LE(buffer.size(), 1000u + 40u);
  }
  EXPECT_GT(buffer.lost(), 0u);
}

}  // namespace
}  // namespace kes::driver
