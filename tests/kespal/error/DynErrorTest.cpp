#include "kespal/error/DynError.h"

#include <ios>
#include <utility>

namespace kes {
namespace {

TEST(DynErrorTest, WithANameAndNoTextItExplainsItselfWithATrailingBlank) {
  EXPECT_STREQ(DynError("", "Some").what(), "Some error occured. ");
}

TEST(DynErrorTest, WithoutNameNothingIsSaidAboutAnErrorThatOccured) {
  EXPECT_STREQ(DynError("the text", nullptr).what(), "the text");
  EXPECT_STREQ(DynError("", nullptr).what(), "");
}

TEST(DynErrorTest, NameAndTextAreOneSentence) {
  EXPECT_STREQ(DynError("the text", "Some").what(), "Some error occured. the text");
}

TEST(DynErrorTest, ItsTextIsWhatWasGivenAndStreamed) {
  DynError error("given", "Some");
  EXPECT_EQ(error.text(), "given");
  error.stream() << ", streamed " << 42;
  error.stream() << '!';
  EXPECT_EQ(error.text(), "given, streamed 42!");
  EXPECT_STREQ(error.what(), "Some error occured. given, streamed 42!");
}

TEST(DynErrorTest, ACopyHasAStreamOfItsOwnWithTheSameText) {
  DynError error("given", nullptr);
  error.stream() << ", streamed";
  DynError copy(error);
  copy.stream() << ", copied";
  EXPECT_EQ(copy.text(), "given, streamed, copied");
  EXPECT_EQ(error.text(), "given, streamed");
}

TEST(DynErrorTest, AMovedFromOneHasNoTextLeft) {
  const auto movedFrom = [](DynError& error) { return DynError(std::move(error)); };
  DynError plain("given", "Some"), streamed("given", "Some");
  streamed.stream() << ", streamed";
  EXPECT_EQ(movedFrom(plain).text(), "given");
  EXPECT_EQ(movedFrom(streamed).text(), "given, streamed");
  for (const DynError* error : {&plain, &streamed}) {
    EXPECT_EQ(error->text(), "");
    EXPECT_STREQ(error->what(), "Some error occured. ");
  }
}

TEST(DynErrorTest, WhatWasStreamedTravelsWithTheRaisedError) {
  DynError error("Got: ", "Some");
  error.stream() << 1024 << " bytes";
  try {
    error.raise();
  } catch (const DynError& caught) {
    EXPECT_EQ(caught.text(), "Got: 1024 bytes");
  }
}

TEST(DynErrorTest, ReadingTheStreamDoesNotTakeFromTheText) {
  DynError error("one two", nullptr);
  std::string word;
  error.stream() >> word;
  EXPECT_EQ(word, "one");
  EXPECT_EQ(error.text(), "one two");
}

TEST(DynErrorTest, ReadingToTheEndKeepsNobodyFromWriting) {
  DynError error("one", nullptr);
  std::string word;
  error.stream() >> word;
  EXPECT_TRUE(error.stream().good());
  error.stream() << " two";
  EXPECT_EQ(error.text(), "one two");
}

TEST(DynErrorTest, AWriteThatFailsIsToldAndTheNextOneIsDone) {
  DynError error("given", nullptr);
  EXPECT_THROW(error.stream().setstate(std::ios::badbit), std::ios_base::failure);
  error.stream() << ", streamed";
  EXPECT_EQ(error.text(), "given, streamed");
}

TEST(DynErrorTest, WhatIsStreamedAfterAnExplanationIsInTheTextAndInCopies) {
  DynError error("given", nullptr);
  EXPECT_STREQ(error.what(), "given");
  error.stream() << ", streamed";
  EXPECT_STREQ(error.what(), "given");
  EXPECT_EQ(error.text(), "given, streamed");
  EXPECT_STREQ(DynError(error).what(), "given, streamed");
}

}  // namespace
}  // namespace kes
