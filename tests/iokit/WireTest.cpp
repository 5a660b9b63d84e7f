#include "wire/Wire.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

namespace kes::iokit {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using ByteVector = std::vector<std::uint8_t>;

// A call of selector 3 with the sequence 0x01020304, one scalar and three bytes.
const ByteVector anyRequest{
    'K',  'E',  'S',  'U',                           // magic
    0x01, 0x00,                                      // version
    0x02, 0x00,                                      // kind: call
    0x04, 0x03, 0x02, 0x01,                          // sequence
    0x03, 0x00, 0x00, 0x00,                          // selector
    0x01, 0x00, 0x00, 0x00,                          // scalars
    0x03, 0x00, 0x00, 0x00,                          // structure bytes
    0x10, 0x00, 0x00, 0x00,                          // room for scalars
    0xff, 0x07, 0x00, 0x00,                          // room for structure bytes
    0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11,  // the scalar
    0xaa, 0xbb, 0xcc,                                // the structure
};

const ByteVector anyReply{
    'K',  'E',  'S',  'U',                           // magic
    0x01, 0x00,                                      // version
    0x02, 0x80,                                      // kind: reply to a call
    0x04, 0x03, 0x02, 0x01,                          // sequence
    0xdb, 0x02, 0x00, 0xe0,                          // result
    0x01, 0x00, 0x00, 0x00,                          // scalars
    0x02, 0x00, 0x00, 0x00,                          // structure bytes
    0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x80,  // the scalar
    0xde, 0xad,                                      // the structure
};

ByteVector with(ByteVector datagram, std::size_t offset, std::uint8_t value) {
  datagram[offset] = value;
  return datagram;
}

const Expectation expectedBytes{Kind::Call, 0x01020304, 0, 1, 2};

Verdict judge(const ByteVector& datagram, const Expectation& expected = expectedBytes) {
  Reply reply;
  return judgeReply(datagram, datagram.size(), expected, reply);
}

TEST(WireTest, ARequestHasTheseBytes) {
  RequestHeader header;
  header.kind = static_cast<std::uint16_t>(Kind::Call);
  header.sequence = 0x01020304;
  header.selector = 3;
  header.scalarCount = 1;
  header.structureSize = 3;
  header.scalarCapacity = 16;
  header.structureCapacity = 2047;
  ByteVector bytes(requestHeaderSize + 8);
  std::uint8_t* end = encode64(0x1122334455667788, encode(header, bytes.data()));
  EXPECT_EQ(end, bytes.data() + bytes.size());
  bytes.insert(bytes.end(), {0xaa, 0xbb, 0xcc});
  EXPECT_THAT(bytes, ElementsAreArray(anyRequest));
}

TEST(WireTest, AReplyHasTheseBytes) {
  RequestHeader request;
  request.kind = static_cast<std::uint16_t>(Kind::Call);
  request.sequence = 0x01020304;
  ReplyHeader header = replyTo(request);
  header.result = 0xe00002db;
  const std::vector<std::uint64_t> scalars{0x8000000000000001};
  ByteVector bytes(1000, 0xee);
  makeReply(bytes, header, scalars, ByteVector{0xde, 0xad});
  EXPECT_THAT(bytes, ElementsAreArray(anyReply));
}

TEST(WireTest, AParsedRequestGivesBackWhatWasSent) {
  const auto request = parseRequest(anyRequest);
  ASSERT_TRUE(request);
  EXPECT_EQ(request->header.kind, 2);
  EXPECT_EQ(request->header.sequence, 0x01020304u);
  EXPECT_EQ(request->header.selector, 3u);
  EXPECT_EQ(request->header.scalarCapacity, 16u);
  EXPECT_EQ(request->header.structureCapacity, 2047u);
  EXPECT_EQ(request->scalar(0), 0x1122334455667788u);
  EXPECT_THAT(request->structure, ElementsAre(0xaa, 0xbb, 0xcc));
}

TEST(WireTest, WhatLiesAtAnOddAddressIsReadAndWrittenAsElsewhere) {
  for (std::size_t offset = 1; offset < 8; ++offset) {  // from one that is fit for every type
    ByteVector bytes(offset);
    bytes.insert(bytes.end(), anyRequest.begin(), anyRequest.end());
    const auto request = parseRequest(Bytes(bytes).subspan(offset));
    ASSERT_TRUE(request) << offset;
    EXPECT_EQ(request->header.sequence, 0x01020304u) << offset;
    ByteVector written(bytes.size());
    encode64(request->scalar(0), encode(request->header, written.data() + offset));
    std::copy(request->structure.begin(), request->structure.end(), written.end() - 3);
    EXPECT_EQ(written, bytes) << offset;

    bytes.resize(offset);
    bytes.insert(bytes.end(), anyReply.begin(), anyReply.end());
    Reply reply;
    ASSERT_EQ(judgeReply(Bytes(bytes).subspan(offset), anyReply.size(), expectedBytes, reply),
              Verdict::Accepted);
    EXPECT_EQ(reply.header.result, 0xe00002dbu) << offset;
    EXPECT_EQ(reply.scalar(0), 0x8000000000000001u) << offset;
  }
}

TEST(WireTest, ARequestOfAnotherMagicVersionOrKindIsNone) {
  EXPECT_FALSE(parseRequest(with(anyRequest, 0, 'k')));
  EXPECT_FALSE(parseRequest(with(anyRequest, 4, 2)));
  EXPECT_FALSE(parseRequest(with(anyRequest, 5, 1)));
  EXPECT_FALSE(parseRequest(with(anyRequest, 6, 0)));
  EXPECT_FALSE(parseRequest(with(anyRequest, 6, 3)));
  EXPECT_FALSE(parseRequest(with(anyRequest, 7, 0x80)));
}

TEST(WireTest, ARequestThatIsNotAsLongAsItSaysIsNone) {
  for (std::size_t length = 0; length < anyRequest.size(); ++length) {
    EXPECT_FALSE(parseRequest(Bytes(anyRequest).first(length))) << length;
  }
  ByteVector longer = anyRequest;
  longer.push_back(0);
  EXPECT_FALSE(parseRequest(longer));
}

TEST(WireTest, CountsAboveTheLimitsAreRefusedWhateverTheLength) {
  ByteVector many(requestHeaderSize + std::size_t{8} * 17);
  std::copy_n(anyRequest.begin(), requestHeaderSize, many.begin());
  many[16] = 17;
  many[20] = 0;
  EXPECT_FALSE(parseRequest(many));
  many[16] = 16;
  many.resize(requestHeaderSize + std::size_t{8} * 16);
  EXPECT_TRUE(parseRequest(many));

  ByteVector large(requestHeaderSize + 4097);
  std::copy_n(anyRequest.begin(), requestHeaderSize, large.begin());
  large[16] = 0;
  large[20] = 0x01;
  large[21] = 0x10;
  EXPECT_FALSE(parseRequest(large));
  large[20] = 0x00;
  large.resize(requestHeaderSize + 4096);
  EXPECT_TRUE(parseRequest(large));
}

TEST(WireTest, CountsThatOverflowALengthAreRefused) {
  ByteVector huge = anyRequest;
  for (std::size_t i = 16; i < 24; ++i) huge[i] = 0xff;
  EXPECT_FALSE(parseRequest(huge));
  ByteVector reply = anyReply;
  for (std::size_t i = 16; i < 24; ++i) reply[i] = 0xff;
  EXPECT_EQ(judge(reply), Verdict::Foreign);
}

TEST(WireTest, TheExpectedReplyIsAccepted) {
  Reply reply;
  ASSERT_EQ(judgeReply(anyReply, anyReply.size(), expectedBytes, reply), Verdict::Accepted);
  EXPECT_EQ(reply.header.result, 0xe00002dbu);
  EXPECT_EQ(reply.scalar(0), 0x8000000000000001u);
  EXPECT_THAT(reply.structure, ElementsAre(0xde, 0xad));
}

TEST(WireTest, AReplyOfAnotherMagicVersionKindOrSequenceIsForeign) {
  EXPECT_EQ(judge(with(anyReply, 3, 'u')), Verdict::Foreign);
  EXPECT_EQ(judge(with(anyReply, 4, 0)), Verdict::Foreign);
  EXPECT_EQ(judge(with(anyReply, 6, 1)), Verdict::Foreign);
  EXPECT_EQ(judge(with(anyReply, 7, 0)), Verdict::Foreign);
  EXPECT_EQ(judge(with(anyReply, 8, 3)), Verdict::Foreign);
  EXPECT_EQ(judge(with(anyReply, 11, 0)), Verdict::Foreign);
}

TEST(WireTest, AReplyThatIsNotAsLongAsItSaysIsForeign) {
  for (std::size_t length = 0; length < anyReply.size(); ++length) {
    EXPECT_EQ(judge({anyReply.begin(), anyReply.begin() + static_cast<std::ptrdiff_t>(length)}),
              Verdict::Foreign);
  }
  ByteVector longer = anyReply;
  longer.push_back(0);
  EXPECT_EQ(judge(longer), Verdict::Foreign);
}

TEST(WireTest, AReplyAboveACapacityIsTooLarge) {
  EXPECT_EQ(judge(anyReply, {Kind::Call, 0x01020304, 0, 1, 1}), Verdict::TooLarge);
  EXPECT_EQ(judge(anyReply, {Kind::Call, 0x01020304, 0, 0, 2}), Verdict::TooLarge);
  EXPECT_EQ(judge(anyReply, {Kind::Call, 0x01020304, 0, 16, 4096}), Verdict::Accepted);
}

TEST(WireTest, OnlyTheReplyToAnAbandonedCallIsLate) {
  EXPECT_EQ(judge(anyReply, {Kind::Call, 0x01020305, 1, 1, 2}), Verdict::Late);
  EXPECT_EQ(judge(anyReply, {Kind::Call, 0x01020307, 3, 0, 0}), Verdict::Late);
  EXPECT_EQ(judge(anyReply, {Kind::Call, 0x01020307, 2, 1, 2}), Verdict::Foreign);
  EXPECT_EQ(judge(anyReply, {Kind::Call, 0x01020303, 9, 1, 2}), Verdict::Foreign);
}

TEST(WireTest, AReplyThatArrivedCutIsNeverAccepted) {
  Reply reply;
  const Bytes cut = Bytes(anyReply).first(anyReply.size() - 1);
  EXPECT_EQ(judgeReply(cut, anyReply.size(), expectedBytes, reply), Verdict::TooLarge);
}

}  // namespace
}  // namespace kes::iokit
