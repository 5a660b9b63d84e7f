// Errors while there is no memory: each operation is tried with none, with one allocation, with two, ...
#include <csignal>
#include <cstring>
#include <functional>
#include <new>
#include <typeinfo>

#include "ErrorKinds.h"
#include "support/ForkedChild.h"
#include "support/NoMemory.h"

namespace kes {
namespace {

using test::NoMemory;
using test::oneOfEachKind;
using test::starve;
using testing::EndsWith;
using testing::StartsWith;

const std::string longText = ", a text that is much longer than what a string keeps within itself";

/// One error of every class, each with a site, a backtrace and a cause, and with streamed detail where it has
/// a stream.
std::vector<std::unique_ptr<Exception>> errors() {
  auto all = oneOfEachKind();
  for (const auto& error : all) {
    error->setSite({"src/some/File/whose/path/is/rather/long", 42, "function"});
    error->setBacktrace({"an outer frame with a long line", "an inner frame with a long line"});
    error->setNext(NoSuchFileError("/a/path/that/is/rather/long", ENOENT));
    if (auto* dyn = dynamic_cast<DynError*>(error.get())) dyn->stream() << longText;
  }
  return all;
}

/// Holds what an operation gives after it was starved again and again to what it gives with memory.
template <typename Operation>
void expectWhole(Operation operation) {
  for (const auto& error : errors()) {
    const std::unique_ptr<Exception> twin(error->clone());
    const auto wanted = operation(*twin);
    decltype(operation(*error)) given;
    const std::size_t refused = starve([&] { given = operation(*error); });
    EXPECT_EQ(given, wanted);
    EXPECT_GT(refused, 0U);
    EXPECT_EQ(error->exStack(), twin->exStack());
  }
}

TEST(ErrorMemoryTest, ATextIsWholeOrNotThereAtAll) {
  for (const auto& error : errors()) {
    const std::string wanted = error->text();
    std::string given;
    starve([&] { given = error->text(); });
    EXPECT_EQ(given, wanted);
  }
}

TEST(ErrorMemoryTest, TheTextsOfAChainAreWholeOrNotThereAtAll) {
  expectWhole([](const Exception& error) { return error.allTexts(); });
  expectWhole([](const Exception& error) { return error.textList(); });
}

TEST(ErrorMemoryTest, AnExplanationIsWholeOrNotThereAtAll) {
  expectWhole([](const Exception& error) { return error.exStack(); });
  expectWhole([](const Exception& error) { return error.Exception::text(); });
}

TEST(ErrorMemoryTest, ACloneIsWholeOrNotThereAtAll) {
  expectWhole([](const Exception& error) { return std::shared_ptr<Exception>(error.clone()) != nullptr; });
  for (const auto& error : errors()) {
    std::unique_ptr<Exception> clone;
    starve([&] { clone.reset(error->clone()); });
    EXPECT_EQ(clone->exStack(), error->exStack());
  }
}

TEST(ErrorMemoryTest, RaisingThrowsTheErrorOrTheWantOfMemoryAndNothingElse) {
  for (const auto& error : errors()) {
    std::string given;
    starve([&] {
      try {
        error->raise();
      } catch (const Exception& caught) {
        const Exception& raised = *error;
        if (typeid(caught) == typeid(raised)) given = caught.exStack();
      }
    });
    EXPECT_EQ(given, error->exStack());
  }
}

TEST(ErrorMemoryTest, ACauseIsTakenOverOrTheFormerOneStays) {
  UsageError error("text");
  error.setNext(RuntimeError("former"));
  const NoSuchFileError cause("/a/path/that/is/rather/long", ENOENT);
  for (std::size_t before = 0;; ++before) {
    bool refused = false;
    {
      const NoMemory starving(before);
      try {
        error.setNext(cause);
      } catch (const std::bad_alloc&) {
        refused = true;
      }
    }
    EXPECT_EQ(error.next()->text(), refused ? "former" : cause.text());
    if (!refused) break;
  }
}

TEST(ErrorMemoryTest, WhatGivesTheWholeTextOrEndsTheProgram) {
  for (const auto& error : errors()) {
    const std::string wanted = std::unique_ptr<Exception>(error->clone())->what();
    bool whole = false;
    for (std::size_t before = 0; !whole; ++before) {
      const test::ChildResult child = test::inChild([&] {
        const NoMemory starving(before);
        return error->what() == wanted ? 0 : 1;
      });
      whole = child.exitCode() == 0;
      ASSERT_TRUE(whole || child.signal() == SIGABRT) << child.status;
      ASSERT_TRUE(whole || before < 1000);
    }
  }
}

// --- the stream of an error

TEST(ErrorMemoryTest, AStreamThatCannotBeMadeLosesNothing) {
  DynError error("given" + longText, "Some");
  EXPECT_GT(starve([&] { (void)error.stream(); }), 0U);
  EXPECT_EQ(error.text(), "given" + longText);
  error.stream() << ", streamed";
  EXPECT_EQ(error.text(), "given" + longText + ", streamed");
}

TEST(ErrorMemoryTest, AWriteThatFailsIsToldAndTheErrorTakesMore) {
  const std::string huge(100000, 'x');
  DynError error("given", "Some");
  error.stream() << ", streamed";
  bool told = false;
  {
    const NoMemory starving;
    try {
      error.stream() << huge;
    } catch (const std::bad_alloc&) {
      told = true;
    }
  }
  EXPECT_TRUE(told);
  EXPECT_THAT(error.text(), StartsWith("given, streamed"));
  error.stream() << ", once more";
  EXPECT_THAT(error.text(), StartsWith("given, streamed"));
  EXPECT_THAT(error.text(), EndsWith(", once more"));
  try {
    error.raise();
  } catch (const DynError& caught) {
    EXPECT_EQ(caught.what(), "Some error occured. " + error.text());
  }
}

TEST(ErrorMemoryTest, AnErrorThatIsMadeOfAStreamIsWholeOrNotThereAtAll) {
  std::string given;
  EXPECT_GT(
      starve([&] {
        given =
            BadPermissionsError("/a/path/that/is/rather/long", fs::Access(0, 80, 0750), longText).exStack();
      }),
      0U);
  EXPECT_THAT(given, testing::HasSubstr(longText + "\n\tPermissions of file are: 0:80 rwxr-x---\n"));
}

}  // namespace
}  // namespace kes
