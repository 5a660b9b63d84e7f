#include "error/Report.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "kespal/error/FsError.h"
#include "support/ForkedChild.h"
#include "support/Gate.h"
#include "support/NoMemory.h"
#include "support/Throwing.h"

namespace kes {
namespace {

using test::inChild;
using test::NoMemory;
using testing::HasSubstr;
using testing::StartsWith;

/// Sends what std::cerr gets to a text while it lives.
class Captured {
 public:
  explicit Captured(std::streambuf* buffer) : before_(std::cerr.rdbuf(buffer)) {}
  ~Captured() { std::cerr.rdbuf(before_); }
  Captured(const Captured&) = delete;
  Captured& operator=(const Captured&) = delete;

 private:
  std::streambuf* before_;
};

/// A buffer that throws whatever it is given.
struct Refusing : std::streambuf {
  std::streamsize xsputn(const char*, std::streamsize) override { throw std::runtime_error("no"); }
};

TEST(ReportTest, AReportIsItsPiecesInOneWrite) {
  struct Counting : std::stringbuf {
    int writes = 0;
    std::streamsize xsputn(const char* text, std::streamsize size) override {
      ++writes;
      return std::stringbuf::xsputn(text, size);
    }
  } buffer;
  {
    const Captured captured(&buffer);
    report({"Thread ", "t", " (", Decimal(42), ")\n"});
  }
  EXPECT_EQ(buffer.str(), "Thread t (42)\n");
  EXPECT_EQ(buffer.writes, 1);
}

TEST(ReportTest, TheStackOfAnErrorStandsBehindTheHeadline) {
  FsError error("/x", ENOENT);
  std::ostringstream text;
  {
    const Captured captured(text.rdbuf());
    reportStack({"Headline:\n"}, error);
    reportStack({"Again:\n"}, error, /*end=*/"");
  }
  EXPECT_EQ(text.str(), "Headline:\n" + error.exStack() + "\nAgain:\n" + error.exStack());
}

TEST(ReportTest, TheTextOfALibraryErrorIsItsWholeExplanation) {
  const FsError error("/x", ENOENT);
  std::ostringstream text;
  {
    const Captured captured(text.rdbuf());
    reportWhat({"WARNING: "}, error);
  }
  EXPECT_EQ(text.str(), std::string("WARNING: ") + error.what() + '\n');
}

TEST(ReportTest, AnErrorWithoutATextIsReportedByItsHeadline) {
  std::ostringstream text;
  {
    const Captured captured(text.rdbuf());
    reportWhat({"died: "}, test::Speechless());
  }
  EXPECT_EQ(text.str(), "died: \n");
}

TEST(ReportTest, AStreamThatIsInAnyStateOrMayThrowKeepsNothingBack) {
  const test::ChildResult child = inChild([] {
    std::cerr.setstate(std::ios::badbit | std::ios::failbit | std::ios::eofbit);
    report({"one\n"});
    std::cerr.clear();
    std::cerr.exceptions(std::ios::badbit | std::ios::failbit);
    EXPECT_THROW(std::cerr.rdbuf(nullptr), std::ios::failure);
    report({"two\n"});
    return 0;
  });
  EXPECT_EQ(child.exitCode(), 0);
  EXPECT_EQ(child.err, "one\ntwo\n");
}

TEST(ReportTest, ABufferThatThrowsIsPassedBy) {
  const test::ChildResult child = inChild([] {
    Refusing refusing;
    const Captured captured(&refusing);
    report({"still ", "said\n"});
    return 0;
  });
  EXPECT_EQ(child.err, "still said\n");
}

TEST(ReportTest, ABufferThatTakesATextAndThenThrowsGetsItOnce) {
  struct Unsynced : std::stringbuf {
    int sync() override { throw std::runtime_error("no"); }
  };
  const test::ChildResult child = inChild([] {
    Unsynced buffer;
    const Captured captured(&buffer);
    report({"said\n"});
    return buffer.str() == "said\n" ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode(), 0);
  EXPECT_EQ(child.err, "");
}

TEST(ReportTest, ABufferIsUsedByOneThreadAtATime) {
  struct Watching : std::streambuf {
    std::streamsize xsputn(const char*, std::streamsize size) override {
      if (++inside != 1) overlaps = true;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      --inside;
      return size;
    }
    std::atomic<int> inside{0};
    std::atomic<bool> overlaps{false};
  } buffer;
  const Captured captured(&buffer);
  std::vector<std::thread> threads(8);
  for (std::thread& each : threads) {
    each = std::thread([] {
      for (int i = 0; i < 10; ++i) report({"one line\n"});
    });
  }
  for (std::thread& each : threads) each.join();
  EXPECT_FALSE(buffer.overlaps);
}

TEST(ReportTest, ABufferMayHaveSomethingToReportItself) {
  struct Complaining : std::streambuf {
    std::streamsize xsputn(const char* text, std::streamsize size) override {
      if (complaints++ == 0) report({"inner\n"});
      said.append(text, static_cast<std::size_t>(size));
      return size;
    }
    int complaints = 0;
    std::string said;
  } buffer;
  const Captured captured(&buffer);
  report({"outer\n"});
  EXPECT_EQ(buffer.said, "inner\nouter\n");
}

TEST(ReportTest, AForkedChildWaitsForNoThreadThatStayedWithItsParent) {
  const test::ChildResult child = inChild([] {
    struct Holding : std::streambuf {
      std::streamsize xsputn(const char*, std::streamsize size) override {
        entered.open();
        if (::getpid() == parent) leave.pass();
        return size;
      }
      const pid_t parent = ::getpid();
      test::Gate entered, leave;
    } buffer;
    const Captured captured(&buffer);
    std::thread reporter([] { report({"held up\n"}); });
    buffer.entered.pass();
    const pid_t fork = ::fork();
    if (fork == 0) {
      ::alarm(60);
      report({"of the child\n"});
      ::_exit(7);
    }
    int status = 0;
    ::waitpid(fork, &status, 0);
    buffer.leave.open();
    reporter.join();
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  });
  EXPECT_EQ(child.exitCode(), 7);
}

TEST(ReportTest, WithoutMemoryAReportOfPiecesIsWhole) {
  const test::ChildResult child = inChild([] {
    const std::string name(100, 'n');
    const std::runtime_error error(name);
    const NoMemory starving;
    report({"Thread ", name, " died\n"});
    reportWhat({"Thread ", name, " died with "}, error);
    return 0;
  });
  EXPECT_EQ(child.exitCode(), 0);
  const std::string name(100, 'n');
  EXPECT_EQ(child.err, "Thread " + name + " died\nThread " + name + " died with " + name + '\n');
}

TEST(ReportTest, WithoutMemoryAnErrorIsReportedByAShorterText) {
  const test::ChildResult child = inChild([] {
    const FsError error("/some/where", ENOENT);
    const NoMemory starving;
    reportStack({"Headline of a report that is long enough to need memory:\n"}, error);
    reportWhat({"Another:\n"}, error);
    return 0;
  });
  EXPECT_EQ(child.exitCode(), 0);
  EXPECT_EQ(child.err,
            "Headline of a report that is long enough to need memory:\n"
            "(no memory left for the rest of this report)\n"
            "Another:\n(no memory left for the rest of this report)\n");
}

TEST(ReportTest, WhatIsTiedToTheStreamIsFlushedFirst) {
  const test::ChildResult child = inChild([] {
    ::dup2(STDOUT_FILENO, STDERR_FILENO);
    std::cout << "before ";
    report({"after\n"});
    return 0;
  });
  EXPECT_EQ(child.out, "before after\n");
}

TEST(ReportTest, ADestructorsErrorIsReportedAndGoesNoFurther) {
  const test::ChildResult child = inChild([] {
    doReporting({"Cannot:\n"}, [] { raiseAt(KES_HERE, FsError("/x", EIO)); });
    doReporting({"Cannot: "}, [] { throw std::bad_alloc(); });
    return 0;
  });
  EXPECT_EQ(child.exitCode(), 0);
  EXPECT_THAT(child.err, StartsWith("Cannot:\n\n#1)\n"));
  EXPECT_THAT(child.err, HasSubstr("\nCannot: std::bad_alloc\n"));
}

TEST(ReportTest, NumbersTakeNoMemory) {
  const NoMemory starving;
  EXPECT_EQ(std::string_view(Decimal(0)), "0");
  EXPECT_EQ(std::string_view(Decimal(18446744073709551615U)), "18446744073709551615");
}

}  // namespace
}  // namespace kes
