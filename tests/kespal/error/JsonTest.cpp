#include "kespal/error/Json.h"

#include <cerrno>

#include "ErrorKinds.h"
#include "support/ForkedChild.h"
#include "support/NoMemory.h"

namespace kes {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

/// The value of "text" in the line of an error with this text.
std::string encoded(const std::string& text) {
  const std::string line = json(DynError(text, nullptr));
  const std::string before = R"({"type":"kes::DynError","text":")";
  EXPECT_THAT(line, AllOf(StartsWith(before), EndsWith("\"}")));
  return line.substr(before.size(), line.size() - before.size() - 2);
}

TEST(JsonTest, AnErrorIsOneLineWithTypeTextNumberPathAndSite) {
  NoSuchFileError error("/no/such", ENOENT);
  error.setSite({"src/os/posix/fs/File", 12, "open"});
  EXPECT_EQ(json(error), R"({"type":"kes::NoSuchFileError","text":")" + error.text() +
                             R"(","errno":2,"path":"/no/such",)"
                             R"("site":{"file":"src/os/posix/fs/File","line":12,"function":"open"}})");
}

TEST(JsonTest, WhatAnErrorDoesNotHaveIsNotInItsLine) {
  EXPECT_EQ(json(RuntimeError("text")), R"({"type":"kes::RuntimeError","text":"text"})");
  RuntimeError error("text");
  error.setSite({"src/File", 3, nullptr});
  EXPECT_EQ(json(error), R"({"type":"kes::RuntimeError","text":"text","site":{"file":"src/File","line":3}})");
}

TEST(JsonTest, CausesAreObjectsWithinTheirErrors) {
  RuntimeError middle("middle");
  middle.setNext(UsageError("inner"));
  RuntimeError outer("outer");
  outer.setNext(middle);
  EXPECT_EQ(json(outer), R"({"type":"kes::RuntimeError","text":"outer","cause":)"
                         R"({"type":"kes::RuntimeError","text":"middle","cause":)"
                         R"({"type":"kes::UsageError","text":"inner"}}})");
}

TEST(JsonTest, FramesStandInnermostFirst) {
  RuntimeError error("text");
  error.setBacktrace({"main", "a \"quoted\" frame", "inner"});
  EXPECT_THAT(json(error), EndsWith(R"("frames":["inner","a \"quoted\" frame","main"]})"));
}

TEST(JsonTest, WhatWouldBreakTheLineOrTheStringIsEscaped) {
  EXPECT_EQ(encoded("a\nb\tc\"d\\e"), R"(a\nb\tc\"d\\e)");
  EXPECT_EQ(encoded(std::string("\0\x1b\x7f", 3)), R"(\u0000\u001b\u007f)");
}

TEST(JsonTest, TextsOfEveryScriptStayAsTheyAre) {
  const std::string text = "\xC3\xA4 \xE2\x82\xAC \xF0\x9F\x90\xA6 \xF4\x8F\xBF\xBF \xED\x9F\xBF";
  EXPECT_EQ(encoded(text), text);
}

TEST(JsonTest, EachByteThatIsNoUtf8BecomesTheReplacementCharacter) {
  EXPECT_EQ(encoded("\xE4"), R"(\ufffd)");                      // Latin-1
  EXPECT_EQ(encoded("a\x80z"), R"(a\ufffdz)");                  // a byte in the middle of nothing
  EXPECT_EQ(encoded("\xE2\x82"), R"(\ufffd\ufffd)");            // cut short
  EXPECT_EQ(encoded("\xC0\xAF"), R"(\ufffd\ufffd)");            // longer than needed
  EXPECT_EQ(encoded("\xE0\x80\xAF"), R"(\ufffd\ufffd\ufffd)");  // the same
  EXPECT_EQ(encoded("\xED\xA0\x80"), R"(\ufffd\ufffd\ufffd)");  // half of a surrogate pair
  EXPECT_EQ(encoded("\xF0\x80\x80\xAF"), R"(\ufffd\ufffd\ufffd\ufffd)");
  EXPECT_EQ(encoded("\xF4\x90\x80\x80"), R"(\ufffd\ufffd\ufffd\ufffd)");  // beyond the last character
  EXPECT_EQ(encoded("\xC3\"x"), R"(\ufffd\"x)");                          // and never eats a quote
}

TEST(JsonTest, AClassOfAProgramIsNamedByItsOwnName) {
  class DiskFull : public Raisable<DiskFull, FsError> {
    using Raisable::Raisable;
  };
  EXPECT_THAT(json(DiskFull("/disk", ENOSPC)), AllOf(HasSubstr("DiskFull"), HasSubstr(R"("errno":28)")));
}

TEST(JsonTest, ALineIsWholeOrNotThereAtAllWithoutMemory) {
  for (const auto& error : test::oneOfEachKind()) {
    error->setSite({"src/some/File/whose/path/is/rather/long", 42, "function"});
    error->setNext(NoSuchFileError("/a/path/that/is/rather/long", ENOENT));
    const std::string wanted = json(*error);
    std::string given;
    EXPECT_GT(test::starve([&] { given = json(*error); }), 0U);
    EXPECT_EQ(given, wanted);
  }
}

TEST(JsonTest, AForkedChildWritesTheSameLine) {
  NoSuchFileError error("/no/such", ENOENT);
  error.setBacktrace({"outer", "inner"});
  const std::string wanted = json(error);
  EXPECT_EQ(test::inChild([&] { return json(error) == wanted ? 0 : 1; }).exitCode(), 0);
}

}  // namespace
}  // namespace kes
