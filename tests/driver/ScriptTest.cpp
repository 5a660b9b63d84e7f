#include "Script.h"

#include <IOKit/IOReturn.h>
#include <gmock/gmock.h>

#include <stdexcept>

#include "wire/Wire.h"

namespace kes::driver {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using Fate = Play::Fate;
using ByteVector = std::vector<std::uint8_t>;

/// The first play for a call, of a script of one line.
Play only(CallName call, const std::string& text) {
  Script script = parseScript(text);
  const Play* play = script.next(call);
  return play == nullptr ? Play{} : *play;
}

std::string errorOf(const std::string& text) {
  try {
    parseScript(text);
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "";
}

iokit::RequestHeader request() {
  iokit::RequestHeader header;
  header.kind = static_cast<std::uint16_t>(iokit::Kind::Call);
  header.sequence = 9;
  return header;
}

ByteVector reply(const std::string& words, const Answer& usual = {}) {
  return only(CallName::Packet, "packet " + words).datagram(request(), usual);
}

TEST(ScriptTest, LinesOfOneCallAreUsedInOrderAndThenNoMore) {
  Script script = parseScript("packet bytes 01\ntrace text \"x\"\npacket bytes 02\n");
  EXPECT_EQ(script.unplayed(), 3u);
  EXPECT_THAT(*script.next(CallName::Packet)->structure, ElementsAre(1));
  EXPECT_THAT(*script.next(CallName::Packet)->structure, ElementsAre(2));
  EXPECT_EQ(script.next(CallName::Packet), nullptr);
  EXPECT_EQ(script.next(CallName::Levels), nullptr);
  EXPECT_EQ(script.unplayed(), 1u);
}

TEST(ScriptTest, ALineMayServeSeveralCallsOrAllThatFollow) {
  Script script = parseScript("packet x2 bytes 01\npacket forever bytes 02\n");
  EXPECT_EQ(script.next(CallName::Packet)->line, 1u);
  EXPECT_EQ(script.unplayed(), 1u);
  EXPECT_EQ(script.next(CallName::Packet)->line, 1u);
  for (int i = 0; i < 10; ++i) EXPECT_EQ(script.next(CallName::Packet)->line, 2u);
  EXPECT_EQ(script.unplayed(), 0u);
}

TEST(ScriptTest, CommentsAndEmptyLinesAreNothing) {
  Script script = parseScript("# a comment\n\n   \n\tpacket bytes 01 # another\r\n");
  EXPECT_EQ(script.unplayed(), 1u);
  EXPECT_EQ(script.next(CallName::Packet)->line, 4u);
}

TEST(ScriptTest, EveryCallHasAName) {
  for (const CallName call : {CallName::Connect, CallName::Service, CallName::Open, CallName::Levels,
                              CallName::Trace, CallName::Packet, CallName::Other}) {
    Script script = parseScript(std::string(nameOf(call)) + " pass");
    ASSERT_NE(script.next(call), nullptr) << nameOf(call);
  }
}

TEST(ScriptTest, TextBecomesATraceReplyWithItsEscapes) {
  EXPECT_THAT(*only(CallName::Trace, R"(trace text "a\n\t\"\\\x7f#")").structure,
              ElementsAre(9, 0, 'a', '\n', '\t', '"', '\\', 0x7f, '#'));
  EXPECT_THAT(*only(CallName::Trace, "trace text \"\"").structure, ElementsAre(2, 0));
}

TEST(ScriptTest, ResultsAreNumbersOrNames) {
  EXPECT_EQ(only(CallName::Open, "open return 0xe00002c0").result, 0xe00002c0u);
  EXPECT_EQ(only(CallName::Open, "open return kIOReturnNoDevice").result, 0xe00002c0u);
  EXPECT_EQ(only(CallName::Open, "open return MACH_SEND_INVALID_DEST").result, 0x10000003u);
  EXPECT_EQ(only(CallName::Open, "open return 5").result, 5u);
  EXPECT_EQ(only(CallName::Open, "open return 4294967295").result, 0xffffffffu);
}

TEST(ScriptTest, FatesAreWords) {
  EXPECT_EQ(only(CallName::Trace, "trace pass").fate, Fate::Reply);
  EXPECT_EQ(only(CallName::Trace, "trace twice").fate, Fate::Twice);
  EXPECT_EQ(only(CallName::Trace, "trace silent").fate, Fate::Silent);
  EXPECT_EQ(only(CallName::Trace, "trace hangup").fate, Fate::HangUp);
  EXPECT_EQ(only(CallName::Trace, "trace die").fate, Fate::Die);
  EXPECT_EQ(only(CallName::Trace, "trace then-hangup").fate, Fate::ReplyThenHangUp);
  EXPECT_EQ(only(CallName::Trace, "trace then-die").fate, Fate::ReplyThenDie);
  EXPECT_EQ(only(CallName::Trace, "trace delay 250").delay, std::chrono::milliseconds(250));
}

TEST(ScriptTest, AReplyCarriesExactlyWhatTheLineSays) {
  EXPECT_THAT(reply("return 0x11223344 bytes aabb"),
              ElementsAre('K', 'E', 'S', 'U', 1, 0, 2, 0x80, 9, 0, 0, 0, 0x44, 0x33, 0x22, 0x11, 0, 0, 0, 0,
                          2, 0, 0, 0, 0xaa, 0xbb));
  EXPECT_THAT(reply("magic 0x04030201 version 7 kind 0x0908 sequence -1 length -2 bytes \"\""),
              ElementsAre(1, 2, 3, 4, 7, 0, 8, 9, 8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0));
  EXPECT_EQ(reply("count 4097").size(), 24u + 4097u);
  EXPECT_EQ(reply("scalars 2 count 1").size(), 24u + 16u + 1u);
  EXPECT_EQ(reply("length +3 count 1").size(), 24u + 1u + 3u);
  EXPECT_TRUE(reply("length -1000 count 1").empty());
  EXPECT_THAT(reply("raw 00ff"), ElementsAre(0, 0xff));
}

TEST(ScriptTest, ALineWithoutResultsChangesOnlyHowTheUsualReplyTravels) {
  const Answer usual{kIOReturnBusy, {5, 6}};
  const ByteVector bytes = reply("sequence +1", usual);
  EXPECT_EQ(bytes.size(), 26u);
  EXPECT_EQ(bytes[8], 10);
  EXPECT_EQ(bytes[12], 0xd5);
  EXPECT_EQ(bytes[25], 6);
  EXPECT_TRUE(only(CallName::Packet, "packet delay 1 version 2").leavesAnswer());
  EXPECT_FALSE(only(CallName::Packet, "packet return 0").leavesAnswer());
  EXPECT_FALSE(only(CallName::Packet, "packet bytes \"\"").leavesAnswer());
}

TEST(ScriptTest, AnExpectationHoldsTheWholeStructure) {
  Script script = parseScript("levels x4 expect 0102");
  const auto structureIs = [&](const ByteVector& bytes) {
    const auto failures = script.failures();
    script.check(*script.next(CallName::Levels), {request(), {}, bytes});
    return script.failures() == failures;
  };
  testing::internal::CaptureStderr();
  EXPECT_TRUE(structureIs({1, 2}));
  EXPECT_FALSE(structureIs({1, 3}));
  EXPECT_FALSE(structureIs({1}));
  EXPECT_FALSE(structureIs({1, 2, 0}));
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("script line 1: expected 0102, got 0103\n"));
  EXPECT_EQ(script.failures(), 3u);
}

TEST(ScriptTest, AMistakeIsSaidWithItsLine) {
  EXPECT_EQ(errorOf("packet bytes 01\npaket bytes 01"), "script line 2: no call is named paket");
  EXPECT_EQ(errorOf("packet bites 01"), "script line 1: unknown word bites");
  EXPECT_EQ(errorOf("packet bytes"), "script line 1: bytes needs a value");
  EXPECT_EQ(errorOf("packet bytes 012"), "script line 1: an odd number of hexadecimal digits");
  EXPECT_EQ(errorOf("packet bytes 0g"), "script line 1: no hexadecimal digit: g");
  EXPECT_EQ(errorOf("trace text \"abc"), "script line 1: a quoted text has no end");
  EXPECT_EQ(errorOf("trace text \"\\q\""), "script line 1: unknown escape \\q");
  EXPECT_EQ(errorOf("packet return kIOReturnNothing"),
            "script line 1: not a usable number: kIOReturnNothing");
}

TEST(ScriptTest, AConnectionHasNoReplyToChange) {
  for (const char* words : {"delay 5", "bytes 01", "return 1", "expect 00", "twice", "silent", "then-hangup",
                            "version 2", "scalars 1", "length -1"}) {
    EXPECT_EQ(errorOf(std::string("connect ") + words),
              "script line 1: connect knows pass, hangup and die only");
  }
  EXPECT_EQ(errorOf("connect x3 hangup\nconnect die"), "");
}

TEST(ScriptTest, NumbersOutOfRangeAreRefused) {
  for (const char* words : {"version 65536", "version -1", "return 0x100000000", "scalars 256",
                            "count 1048577", "count -1", "delay -1", "length 2000000", "length 1x",
                            "length +", "sequence 0x", "x0", "return 99999999999999999999"}) {
    EXPECT_THAT(errorOf(std::string("packet ") + words), HasSubstr("not a usable number")) << words;
  }
}

}  // namespace
}  // namespace kes::driver
