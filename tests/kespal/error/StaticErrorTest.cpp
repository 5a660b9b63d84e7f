#include "kespal/error/StaticError.h"

namespace kes {
namespace {

TEST(StaticErrorTest, WithoutNameAndTextItExplainsItselfAsErrorOccuredAlone) {
  const StaticError error(nullptr, nullptr);
  EXPECT_STREQ(error.what(), "error occured.");
  EXPECT_EQ(error.text(), "");
}

TEST(StaticErrorTest, WithANameOnlyTheNameComesFirst) {
  EXPECT_STREQ(StaticError(nullptr, "Some").what(), "Some error occured.");
}

TEST(StaticErrorTest, WithATextOnlyTheTextComesLast) {
  EXPECT_STREQ(StaticError("the text", nullptr).what(), "error occured. the text");
}

TEST(StaticErrorTest, AnEmptyTextStillHasItsBlank) {
  EXPECT_STREQ(StaticError("", "Some").what(), "Some error occured. ");
}

TEST(StaticErrorTest, ItsTextIsACopyOfTheLiteral) { EXPECT_EQ(StaticError("text", "Some").text(), "text"); }

TEST(StaticErrorTest, ARuntimeErrorIsNamedRuntimeAndAUsageErrorUsage) {
  EXPECT_STREQ(RuntimeError("impossible").what(), "Runtime error occured. impossible");
  EXPECT_STREQ(UsageError("forbidden").what(), "Usage error occured. forbidden");
  EXPECT_EQ(RuntimeError("impossible").text(), "impossible");
  EXPECT_EQ(UsageError("forbidden").text(), "forbidden");
}

}  // namespace
}  // namespace kes
