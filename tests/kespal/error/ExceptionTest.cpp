#include "kespal/error/Exception.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <locale>
#include <new>
#include <typeinfo>
#include <utility>

#include "ErrorKinds.h"
#include "support/ForkedChild.h"

namespace kes {
namespace {

using test::oneOfEachKind;

/// An error that says little and counts what is asked of it.
class Probe : public Raisable<Probe, Exception> {
 public:
  explicit Probe(std::string said = "") : said_(std::move(said)) { ++m_alive; }
  Probe(const Probe& other) : Raisable(other), said_(other.said_) { ++m_alive; }
  ~Probe() override { --m_alive; }

  void moreWhat() const override {
    ++explained;
    appendWhat(said_);
  }

  static inline int m_alive = 0;
  mutable int explained = 0;

 private:
  std::string said_;
};

Site site() { return {"src/some/File", 42, "function"}; }

/// The most derived type of an error.
const std::type_info& kindOf(const Exception& error) { return typeid(error); }

// --- what()

TEST(ExceptionTest, TheLocationLineNamesPathLineAndFunctionInQuotes) {
  Probe error("more");
  error.setSite({"src/thread/Thread", 123456, "throwGetIdError"});
  EXPECT_STREQ(error.what(), "Exception occured at \"src/thread/Thread:123456 (throwGetIdError)\"\n\nmore");
}

TEST(ExceptionTest, AnErrorWithoutLocationHasNoLocationLineAndNoBacktraceBlock) {
  EXPECT_STREQ(Probe("more").what(), "more");
}

TEST(ExceptionTest, ABacktraceIsPrintedInnermostFrameFirst) {
  Probe error("more");
  error.setSite(site());
  error.setBacktrace({"main", "middle", "innermost"});
  EXPECT_STREQ(error.what(),
               "Exception occured at \"src/some/File:42 (function)\"\n\n"
               "Function call backtrace:\n\n"
               "innermost\nmiddle\nmain\n\n\n"
               "more");
}

TEST(ExceptionTest, ABacktraceIsPrintedWithoutLocationToo) {
  Probe error("more");
  error.setBacktrace({"main"});
  EXPECT_STREQ(error.what(), "Function call backtrace:\n\nmain\n\n\nmore");
}

TEST(ExceptionTest, AnEmptyBacktraceIsNotMentioned) {
  Probe error("more");
  error.setBacktrace({});
  EXPECT_STREQ(error.what(), "more");
}

TEST(ExceptionTest, WhatIsBuiltOnce) {
  const Probe error("more");
  const char* first = error.what();
  EXPECT_EQ(error.what(), first);
  EXPECT_STREQ(first, "more");
  EXPECT_EQ(error.explained, 1);
}

/// An error whose explanation can run out of memory half way.
class Starved : public Raisable<Starved, Exception> {
 public:
  void moreWhat() const override {
    appendWhat("half ");
    if (starved) throw std::bad_alloc();
    appendWhat("whole");
  }
  bool starved = true;
};

TEST(ExceptionTest, MemoryThatRunsOutIsToldAndTheNextAttemptExplainsItInFull) {
  Starved error;
  EXPECT_THROW((void)error.text(), std::bad_alloc);
  EXPECT_THROW((void)error.allTexts(), std::bad_alloc);
  EXPECT_THROW((void)error.textList(), std::bad_alloc);
  EXPECT_THROW((void)error.exStack(), std::bad_alloc);
  error.starved = false;
  EXPECT_EQ(error.exStack(), "\n#1)\n\thalf whole\n");
  EXPECT_STREQ(error.what(), "half whole");
}

TEST(ExceptionTest, WhatCannotTellThatMemoryRanOutAndEndsTheProgram) {
  EXPECT_EQ(test::inChild([] { return Starved().what() != nullptr ? 1 : 2; }).signal(), SIGABRT);
}

TEST(ExceptionTest, ACopyBuildsItsOwnText) {
  Probe error("more");
  EXPECT_STREQ(error.what(), "more");
  Probe copy(error);
  copy.setSite(site());
  EXPECT_STREQ(copy.what(), "Exception occured at \"src/some/File:42 (function)\"\n\nmore");
  EXPECT_STREQ(error.what(), "more");
}

TEST(ExceptionTest, TheTextOfTheRootIsItsWholeExplanation) {
  Probe error("more");
  error.setSite(site());
  EXPECT_EQ(error.text(), error.what());
}

TEST(ExceptionTest, NumbersAreNotGroupedWhateverTheGlobalLocaleSays) {
  struct Grouping : std::numpunct<char> {
    std::string do_grouping() const override { return "\3"; }
    char do_thousands_sep() const override { return '.'; }
  };
  const test::ChildResult result = test::inChild([] {
    std::locale::global(std::locale(std::locale::classic(), new Grouping));
    OsError error(123456);
    error.setSite({"src/File", 1234567, "function"});
    const std::string what = error.what();
    return what.find(":1234567 (") != what.npos && error.errnumLabel() == "123456" ? 0 : 1;
  });
  EXPECT_EQ(result.exitCode(), 0);
}

// --- raising and copying

TEST(ExceptionTest, RaiseThrowsACopyOfTheMostDerivedType) {
  for (const auto& error : oneOfEachKind()) {
    error->setSite(site());
    try {
      error->raise();
    } catch (const Exception& caught) {
      EXPECT_EQ(kindOf(caught), kindOf(*error));
      EXPECT_NE(&caught, error.get());
      EXPECT_STREQ(caught.what(), error->what());
      EXPECT_EQ(caught.text(), error->text());
    }
  }
}

TEST(ExceptionTest, CloneIsACopyOfTheMostDerivedType) {
  for (const auto& error : oneOfEachKind()) {
    error->setSite(site());
    error->setNext(UsageError("cause"));
    const std::unique_ptr<Exception> clone(error->clone());
    EXPECT_EQ(kindOf(*clone), kindOf(*error));
    EXPECT_STREQ(clone->file(), "src/some/File");
    EXPECT_EQ(clone->line(), 42);
    EXPECT_STREQ(clone->function(), "function");
    EXPECT_EQ(clone->text(), error->text());
    EXPECT_EQ(clone->exStack(), error->exStack());
    EXPECT_NE(clone->next(), error->next());
  }
}

TEST(ExceptionTest, AnErrorCaughtByItsBaseIsRaisedOnWithItsOwnType) {
  try {
    try {
      raiseAt(site(), NoSuchFileError("/x", ENOENT));
    } catch (const Exception& error) {
      error.raise();
    }
  } catch (const NoSuchFileError& error) {
    EXPECT_STREQ(error.function(), "function");
  }
}

TEST(ExceptionTest, EveryErrorIsAStandardException) {
  for (const auto& error : oneOfEachKind()) {
    EXPECT_THROW(error->raise(), std::exception);
  }
}

TEST(ExceptionTest, TheTreeHasItsThreeBranches) {
  EXPECT_TRUE((std::is_base_of_v<std::exception, Exception>));
  EXPECT_TRUE((std::is_base_of_v<OsError, NoSuchProcessError>));
  EXPECT_TRUE((std::is_base_of_v<StaticError, RuntimeError>));
  EXPECT_TRUE((std::is_base_of_v<StaticError, UsageError>));
  EXPECT_TRUE((std::is_base_of_v<DynError, FsError>));
  EXPECT_TRUE((std::is_base_of_v<FsError, BadPermissionsError>));
  EXPECT_TRUE((std::is_base_of_v<FsError, ReadOnlyFileSystemError>));
  EXPECT_TRUE((std::is_base_of_v<FsError, NotSameDeviceError>));
  EXPECT_TRUE((std::is_base_of_v<FsError, FileAccessError>));
  EXPECT_TRUE((std::is_base_of_v<FsError, NotASymlinkError>));
  EXPECT_TRUE((std::is_base_of_v<FsError, FileExistsError>));
  EXPECT_TRUE((std::is_base_of_v<FsError, IsASymlinkError>));
  EXPECT_TRUE((std::is_base_of_v<FsError, FileBusyError>));
  EXPECT_TRUE((std::is_base_of_v<FsError, NoSuchFileError>));
  EXPECT_TRUE(std::is_abstract_v<Exception>);
  EXPECT_FALSE(std::is_copy_assignable_v<OsError>);
}

// --- the chain of causes

UsageError chainOfThree() {
  OsError first(ENOENT);
  RuntimeError second("second");
  second.setNext(first);
  UsageError third("third");
  third.setNext(second);
  return third;
}

TEST(ExceptionTest, AllTextsAreThoseOfTheChainFromTheOutermost) {
  const std::string missing = std::strerror(ENOENT);
  EXPECT_EQ(chainOfThree().allTexts(), (std::vector<std::string>{"third", "second", missing + " (2)"}));
}

TEST(ExceptionTest, TheTextListNumbersAChainOfThreeFromOne) {
  const std::string missing = std::strerror(ENOENT);
  EXPECT_EQ(chainOfThree().textList(), "#1) third\n#2) second\n#3) " + missing + " (2)\n");
}

TEST(ExceptionTest, TheStackTextHasThreeNumberedBlocksEveryLineIndentedByATab) {
  const std::string missing = std::strerror(ENOENT);
  UsageError chain = chainOfThree();
  chain.setSite(site());
  EXPECT_EQ(chain.exStack(),
            "\n#1)\n"
            "\tException occured at \"src/some/File:42 (function)\"\n"
            "\t\n"
            "\tUsage error occured. third\n"
            "\n#2)\n"
            "\tRuntime error occured. second\n"
            "\n#3)\n"
            "\tSystem/Library call error: " +
                missing + " (2)\n");
}

TEST(ExceptionTest, AnErrorWithoutCauseIsItsOwnStack) {
  const RuntimeError alone("alone");
  EXPECT_EQ(alone.next(), nullptr);
  EXPECT_EQ(alone.textList(), "#1) alone\n");
  EXPECT_EQ(alone.exStack(), "\n#1)\n\tRuntime error occured. alone\n");
}

TEST(ExceptionTest, ACauseIsKeptAsAClone) {
  Probe error;
  {
    NoSuchFileError cause("/x", ENOENT);
    error.setNext(cause);
    EXPECT_NE(error.next(), &cause);
  }
  EXPECT_EQ(kindOf(*error.next()), typeid(NoSuchFileError));
  EXPECT_EQ(error.next()->text(), std::string("/x: ") + std::strerror(ENOENT) + " (2)");
}

TEST(ExceptionTest, ANewCauseReplacesTheOldOneWhichMayBeItsOwn) {
  ASSERT_EQ(Probe::m_alive, 0);
  Probe error;
  error.setNext(Probe());
  error.setNext(Probe("b"));
  EXPECT_EQ(Probe::m_alive, 2);
  error.setNext(*error.next());
  EXPECT_EQ(Probe::m_alive, 2);
  EXPECT_EQ(error.textList(), "#1) \n#2) b\n");
  error.setNext(error);
  EXPECT_EQ(error.textList(), "#1) \n#2) \n#3) b\n");
}

TEST(ExceptionTest, ACopyOwnsACopyOfTheWholeChain) {
  ASSERT_EQ(Probe::m_alive, 0);
  Probe error("1");
  {
    Probe second("2"), third("3");
    second.setNext(third);
    error.setNext(second);
  }
  EXPECT_EQ(Probe::m_alive, 3);
  {
    const Probe copy(error);  // NOLINT(performance-unnecessary-copy-initialization): the copy is the test
    EXPECT_EQ(Probe::m_alive, 6);
    EXPECT_NE(copy.next(), error.next());
    EXPECT_NE(copy.next()->next(), error.next()->next());
    EXPECT_EQ(copy.textList(), "#1) 1\n#2) 2\n#3) 3\n");
  }
  EXPECT_EQ(Probe::m_alive, 3);
  EXPECT_EQ(error.textList(), "#1) 1\n#2) 2\n#3) 3\n");
}

TEST(ExceptionTest, AMovedErrorTakesItsSiteAndItsCauseAlong) {
  UsageError error("text");
  error.setSite(site());
  error.setNext(RuntimeError("cause"));
  const Exception* const cause = error.next();
  const std::string stack = error.exStack();
  const UsageError moved(std::move(error));
  EXPECT_EQ(moved.next(), cause);
  EXPECT_EQ(moved.exStack(), stack);
}

TEST(ExceptionTest, NothingIsLeftOfAnErrorThatWasThrown) {
  ASSERT_EQ(Probe::m_alive, 0);
  try {
    Probe error;
    error.setNext(Probe());
    raiseAt(site(), error);
  } catch (const Probe&) {
    EXPECT_EQ(Probe::m_alive, 2);
  }
  EXPECT_EQ(Probe::m_alive, 0);
}

// --- throw sites

TEST(ExceptionTest, AThrowSiteFillsInItsPathLineAndFunction) {
  const int line = __LINE__ + 2;
  try {
    raiseAt(KES_HERE, NoSuchFileError("/x", ENOENT));
  } catch (const FsError& error) {
    EXPECT_THAT(error.file(), testing::EndsWith("tests/kespal/error/ExceptionTest"));
    EXPECT_EQ(error.line(), line);
    EXPECT_STREQ(error.function(), "TestBody");
  }
}

TEST(ExceptionTest, AnObjectOfTheCallerIsRaisedFromASiteToo) {
  NoSuchFileError error("/x", ENOENT);
  Exception& base = error;
  EXPECT_THROW(raiseAt(site(), base), NoSuchFileError);
  EXPECT_THROW(raiseAt(site(), error), NoSuchFileError);
  EXPECT_EQ(error.line(), 42);
}

TEST(ExceptionTest, LocatingAnErrorDoesNotThrowIt) {
  OsError error(ENOENT);
  locateAt(site(), error);
  EXPECT_STREQ(error.file(), "src/some/File");
  EXPECT_TRUE(error.backtrace().empty());
}

// --- backtraces

TEST(ExceptionTest, BacktracesAreOffAtFirst) {
  EXPECT_FALSE(Exception::m_gen_backtraces);
  try {
    raiseAt(KES_HERE, UsageError("x"));
  } catch (const Exception& error) {
    EXPECT_TRUE(error.backtrace().empty());
    EXPECT_EQ(std::string(error.what()).find("Function call backtrace:"), std::string::npos);
  }
}

/// What init() makes of an environment variable: 1 for on.
int initWith(const char* value) {
  return test::inChild([value] {
           Exception::m_gen_backtraces = value == nullptr;  // init() has to switch off as well
           ::unsetenv("KES_BACKTRACE");
           if (value != nullptr) ::setenv("KES_BACKTRACE", value, 1);
           Exception::init();
           return Exception::m_gen_backtraces ? 1 : 0;
         })
      .exitCode();
}

TEST(ExceptionTest, InitSwitchesBacktracesOnWhenTheVariableExistsWhateverItsValue) {
  EXPECT_EQ(initWith("1"), 1);
  EXPECT_EQ(initWith("0"), 1);
  EXPECT_EQ(initWith(""), 1);
  EXPECT_EQ(initWith(nullptr), 0);
}

TEST(ExceptionTest, CopiesShareTheBacktraceOfAnError) {
  Probe error;
  error.setBacktrace({"outer", "inner"});
  const std::unique_ptr<Exception> clone(error.clone());
  EXPECT_EQ(clone->backtrace(), (Backtrace{"outer", "inner"}));
  error.setBacktrace({"another"});
  EXPECT_EQ(clone->backtrace(), (Backtrace{"outer", "inner"}));
}

// --- the table of virtual functions

/// The place of a virtual function in its class's table, as a pointer to member holds it.
template <typename Function>
std::size_t slotOf(Function function) {
  std::size_t parts[2];
  static_assert(sizeof function == sizeof parts);
  std::memcpy(parts, &function, sizeof parts);
  return parts[0] / sizeof(void*);
}

/// Adds one virtual function to an error class, to see where it lands.
template <typename Error>
struct OneMore : Error {
  virtual void oneMore() {}
};

template <typename Error>
void expectTheSlotsOf() {
  // Two slots hold the two forms of the virtual destructor.
  EXPECT_EQ(slotOf(static_cast<const char* (Error::*)() const noexcept>(&Error::what)), 2U);
  EXPECT_EQ(slotOf(static_cast<std::string (Error::*)() const>(&Error::text)), 3U);
  EXPECT_EQ(slotOf(static_cast<void (Error::*)() const>(&Error::raise)), 4U);
  EXPECT_EQ(slotOf(static_cast<Exception* (Error::*)() const>(&Error::clone)), 5U);
  EXPECT_EQ(slotOf(static_cast<void (Error::*)() const>(&Error::moreWhat)), 6U);
  EXPECT_EQ(slotOf(&OneMore<Error>::oneMore), 7U) << typeid(Error).name();
}

TEST(ExceptionTest, TheVirtualFunctionsKeepTheirOrderAndNoSubclassAddsOne) {
  expectTheSlotsOf<Exception>();
  expectTheSlotsOf<OsError>();
  expectTheSlotsOf<NoSuchProcessError>();
  expectTheSlotsOf<StaticError>();
  expectTheSlotsOf<RuntimeError>();
  expectTheSlotsOf<UsageError>();
  expectTheSlotsOf<DynError>();
  expectTheSlotsOf<FsError>();
  expectTheSlotsOf<BadPermissionsError>();
  expectTheSlotsOf<ReadOnlyFileSystemError>();
  expectTheSlotsOf<NotSameDeviceError>();
  expectTheSlotsOf<FileAccessError>();
  expectTheSlotsOf<NotASymlinkError>();
  expectTheSlotsOf<FileExistsError>();
  expectTheSlotsOf<IsASymlinkError>();
  expectTheSlotsOf<FileBusyError>();
  expectTheSlotsOf<NoSuchFileError>();
}

}  // namespace
}  // namespace kes
