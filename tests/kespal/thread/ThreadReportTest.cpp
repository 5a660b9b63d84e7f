// What is said about a thread that dies by an exception, whatever stands in the way.
#include <cerrno>
#include <functional>
#include <iostream>
#include <stdexcept>

#include "kespal/error/OsError.h"
#include "kespal/thread/Thread.h"
#include "support/Calls.h"
#include "support/ForkedChild.h"
#include "support/Throwing.h"

namespace kes::thread {
namespace {

using namespace test;

using Body = std::function<void()>;

/// What a child prints in which a thread with this body, and the number 42, dies; it exits with 0 when the
/// thread can be joined then.
ChildResult whoseThread(const Body& body) {
  return inChild([&] {
    ::alarm(120);
    const Instead<Call::gettid> numbered([] { return 42; });
    struct User : CppThread::IThread {
      explicit User(const Body& action) : act(action) {}
      void thread(CppThread&) override { act(); }
      const Body& act;
    } user(body);
    CppThread thread("a name that is too long to be kept without memory", &user);
    thread.run();
    thread.join();
    std::cerr.exceptions(std::ios::goodbit);
    return thread.state() == BasicThread::BURIED ? 0 : 1;
  });
}

const std::string headline = "Thread a name that is too long to be kept without memory (42) died with ";

TEST(ThreadReportTest, ALibraryErrorIsReportedByItsHeadlineWhenMemoryIsOut) {
  const ChildResult child = whoseThread([] { throwAndStarve([] { raiseAt(KES_HERE, OsError(EIO)); }); });
  EXPECT_EQ(child.exitCode(), 0) << "signal " << child.signal();
  EXPECT_EQ(child.err, headline + "KES exception:\n(no memory left for the rest of this report)\n");
}

TEST(ThreadReportTest, AStandardExceptionIsReportedWholeWhenMemoryIsOut) {
  const ChildResult child = whoseThread([] { throwAndStarve([] { throw std::bad_alloc(); }); });
  EXPECT_EQ(child.exitCode(), 0) << "signal " << child.signal();
  EXPECT_EQ(child.err, headline + "std::exception: std::bad_alloc\n");
}

TEST(ThreadReportTest, AStandardExceptionWithoutATextIsReportedByItsHeadline) {
  const ChildResult child = whoseThread([] { throw Speechless(); });
  EXPECT_EQ(child.exitCode(), 0) << "signal " << child.signal();
  EXPECT_EQ(child.err, headline + "std::exception: \n");
}

TEST(ThreadReportTest, AStreamThatThrowsKeepsNoReportBack) {
  const ChildResult child = whoseThread(throwAndSpoilTheStream);
  EXPECT_EQ(child.exitCode(), 0) << "signal " << child.signal();
  EXPECT_EQ(child.err, headline + "an unknown exception\n");
}

}  // namespace
}  // namespace kes::thread
