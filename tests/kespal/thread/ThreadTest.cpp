#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <limits>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "kespal/ForkPending.h"
#include "kespal/error/FsError.h"
#include "kespal/thread/Thread.h"
#include "support/Calls.h"
#include "support/Eventually.h"
#include "support/ForkedChild.h"
#include "support/Gate.h"
#include "support/Raised.h"
#include "support/Sanitizer.h"
#include "support/TempDir.h"

namespace kes::thread {
namespace {

using namespace test;

constexpr const char* source = "src/thread/Thread";
constexpr const char* osSource = "src/os/posix/thread/Thread";

using Body = std::function<void()>;

/// A thread that runs a function object.
class TestThread : public BasicThread {
 public:
  explicit TestThread(Body& body, const std::string& name = "test", bool detached = false,
                      unsigned long stackSize = 0)
      : BasicThread([](void* argument) { (*static_cast<Body*>(argument))(); }, name, &body, detached,
                    stackSize) {}
};

void runAndJoin(Body body, const std::string& name = "test", unsigned long stackSize = 0) {
  TestThread thread(body, name, /*detached=*/false, stackSize);
  thread.run();
  thread.join();
}

TEST(ThreadTest, AThreadIsMadeBuriedRunsItsBodyOnceAndIsBuriedByJoin) {
  int ran = 0;
  Body body = [&] { ++ran; };
  TestThread thread(body);
  EXPECT_EQ(thread.state(), BasicThread::BURIED);
  thread.run();
  thread.join();
  EXPECT_EQ(thread.state(), BasicThread::BURIED);
  EXPECT_EQ(ran, 1);
}

TEST(ThreadTest, TheStatesHaveTheirNumbers) {
  EXPECT_EQ(int{BasicThread::CREATED}, 0);
  EXPECT_EQ(int{BasicThread::STARTING}, 1);
  EXPECT_EQ(int{BasicThread::RUNNING}, 2);
  EXPECT_EQ(int{BasicThread::FINISHED}, 3);
  EXPECT_EQ(int{BasicThread::BURIED}, 4);
  EXPECT_EQ(int{BasicThread::RUNNING_DETACHED}, 5);
  EXPECT_EQ(int{CoopThread::Running}, 0);
  EXPECT_EQ(int{CoopThread::Returned}, 1);
  EXPECT_EQ(int{CoopThread::Paused}, 2);
  EXPECT_EQ(int{CoopThread::Run}, 0);
  EXPECT_EQ(int{CoopThread::Return}, 1);
  EXPECT_EQ(int{CoopThread::Pause}, 2);
}

TEST(ThreadTest, ABuriedThreadCanBeRunAgain) {
  int ran = 0;
  Body body = [&] { ++ran; };
  TestThread thread(body);
  for (int i = 0; i < 100; ++i) {
    thread.run();
    thread.join();
  }
  EXPECT_EQ(ran, 100);
}

TEST(ThreadTest, RunningTwiceFailsInCreate) {
  Gate gate;
  Body body = [&] { gate.pass(); };
  TestThread thread(body);
  thread.run();
  EXPECT_EQ(raisedBy([&] { thread.run(); }),
            usageError("Tried to start a thread that is not BURIED", osSource, 154, "create"));
  gate.open();
  thread.join();
}

TEST(ThreadTest, AThreadThatIsBuriedBetweenItsCreationAndTheGoCannotStart) {
  int ran = 0;
  Body body = [&] { ++ran; };
  TestThread thread(body);
  std::optional<After> unlocked;
  const After created(Call::pthread_create,
                      [&] { unlocked.emplace(Call::pthread_mutex_unlock, [&] { thread.join(); }); });
  EXPECT_EQ(raisedBy([&] { thread.run(); }),
            usageError("Tried to start a thread that has already been started", source, 175, "run"));
  EXPECT_EQ(thread.state(), BasicThread::BURIED);
  EXPECT_EQ(ran, 0);
  EXPECT_NO_THROW(thread.run());
  thread.join();
  EXPECT_EQ(ran, 1);
}

TEST(ThreadTest, AThreadThatTheSystemRefusesStaysBuriedAndCanBeTriedAgain) {
  int ran = 0;
  Body body = [&] { ++ran; };
  TestThread thread(body);
  {
    const Refuse fault(Call::pthread_create, EAGAIN, once);
    EXPECT_EQ(raisedBy([&] { thread.run(); }), osError(EAGAIN, osSource, 173, "create"));
  }
  EXPECT_EQ(thread.state(), BasicThread::BURIED);
  thread.run();
  thread.join();
  EXPECT_EQ(ran, 1);
}

TEST(ThreadTest, AProcessLimitRefusesAThreadWithEagain) {
  const ChildResult child = asNobody([] {
    const rlimit none{0, 0};
    if (::getuid() == 0 || ::setrlimit(RLIMIT_NPROC, &none) != 0) return 77;
    Body body = [] {};
    TestThread thread(body);
    const Raised raised = raisedBy([&] { thread.run(); });
    return raised == osError(EAGAIN, osSource, 173, "create") && thread.state() == BasicThread::BURIED ? 0
                                                                                                       : 1;
  });
  if (child.exitCode() == 77) GTEST_SKIP() << "no process limit can be set here";
  EXPECT_EQ(child.exitCode(), 0) << child.err;
}

TEST(ThreadTest, NoThreadIsCreatedWhileAForkIsPending) {
  int ran = 0;
  Body body = [&] { ++ran; };
  TestThread thread(body);
  ForkPending::m_pending = true;
  EXPECT_EQ(raisedBy([&] { thread.run(); }),
            runtimeError("Tried to create a thread before forking!", osSource, 161, "create"));
  EXPECT_EQ(thread.state(), BasicThread::BURIED);
  ForkPending::m_pending = false;
  thread.run();
  thread.join();
  EXPECT_EQ(ran, 1);
}

TEST(ThreadTest, AThreadWithoutABodyCannotBeRun) {
  BasicThread plain(nullptr, "plain", nullptr, false, 0);
  CppThread cpp("cpp");
  CoopThread coop("coop");
  for (BasicThread* thread : {&plain, static_cast<BasicThread*>(&cpp), static_cast<BasicThread*>(&coop)}) {
    EXPECT_EQ(raisedBy([&] { thread->run(); }).type, "kes::UsageError");
    EXPECT_EQ(thread->state(), BasicThread::BURIED);
  }
}

TEST(ThreadTest, AJoinThatTheSystemRefusesLeavesTheThreadToBeJoinedAgain) {
  Body body = [] {};
  TestThread thread(body);
  thread.run();
  {
    const Refuse fault(Call::pthread_join, EINVAL, once);
    EXPECT_EQ(raisedBy([&] { thread.join(); }), osError(EINVAL, osSource, 190, "join"));
  }
  EXPECT_NE(thread.state(), BasicThread::BURIED);
  thread.join();
  EXPECT_EQ(thread.state(), BasicThread::BURIED);
}

TEST(ThreadTest, AThreadThatJoinsItselfIsToldSo) {
  Raised raised;
  TestThread* self = nullptr;
  Body body = [&] { raised = raisedBy([&] { self->join(); }); };
  TestThread thread(body);
  self = &thread;
  thread.run();
  thread.join();
  EXPECT_EQ(raised, osError(EDEADLK, osSource, 190, "join"));
}

TEST(ThreadTest, AThreadThatJoinsItselfWhileAnotherJoinsItIsToldSo) {
  Raised raised;
  TestThread* self = nullptr;
  Gate joining;
  Body body = [&] {
    joining.pass();
    raised = raisedBy([&] { self->join(); });
  };
  TestThread thread(body);
  self = &thread;
  thread.run();
  std::thread other([&] { thread.join(); });
  ASSERT_TRUE(eventually([] { return made(Call::pthread_join) > 0; }));
  joining.open();
  other.join();
  EXPECT_EQ(raised, osError(EDEADLK, osSource, 190, "join"));
  EXPECT_EQ(thread.state(), BasicThread::BURIED);
}

TEST(ThreadTest, YieldReportsErrno) {
  EXPECT_NO_THROW(BasicThread::yield());
  const Refuse fault(Call::sched_yield, ENOSYS, once);
  EXPECT_EQ(raisedBy([] { BasicThread::yield(); }), osError(ENOSYS, osSource, 236, "yield"));
}

TEST(ThreadTest, TheNativeIdIsTheSystemsNumberOfTheThread) {
  EXPECT_EQ(getNativeThreadId(), static_cast<std::uint64_t>(::gettid()));
  const Refuse fault(Call::gettid, EPERM, once);
  EXPECT_EQ(raisedBy([] { getNativeThreadId(); }), osError(EPERM, osSource, 248, "getNativeThreadId"));
}

TEST(ThreadTest, TheIdHoldsHandleAndNumber) {
  Gate gate;
  ::pthread_t handle{};
  std::uint64_t number = 0;
  Body body = [&] {
    handle = ::pthread_self();
    number = getNativeThreadId();
    gate.pass();
  };
  TestThread thread(body);
  thread.run();
  const BasicThread::Id id = thread.id();
  gate.open();
  thread.join();
  EXPECT_TRUE(::pthread_equal(id.handle, handle));
  EXPECT_EQ(id.nativeId, number);
}

TEST(ThreadTest, TheFriendlyFormOfAnIdIsItsNumberInDecimal) {
  const BasicThread::Id id(::pthread_self(), 42);
  EXPECT_EQ(id.friendly(), "42");
  std::ostringstream stream;
  stream << std::hex << id << ' ' << BasicThread::Id("18446744073709551615");
  EXPECT_EQ(stream.str(), "42 18446744073709551615");
}

TEST(ThreadTest, AnIdIsReadFromALeadingDecimalNumber) {
  EXPECT_EQ(BasicThread::Id("42").nativeId, 42u);
  EXPECT_EQ(BasicThread::Id("0").nativeId, 0u);
  EXPECT_EQ(BasicThread::Id("0042").nativeId, 42u);
  EXPECT_EQ(BasicThread::Id(" \t\n42").nativeId, 42u);
  EXPECT_EQ(BasicThread::Id("42x").nativeId, 42u);
  EXPECT_EQ(BasicThread::Id("0x10").nativeId, 0u);
  EXPECT_EQ(BasicThread::Id("18446744073709551615").nativeId, std::numeric_limits<std::uint64_t>::max());
}

TEST(ThreadTest, ATextThatIsNoNumberIsNoId) {
  for (const char* text :
       {"", " ", "x", "x42", "-1", "+1", "- 1", "18446744073709551616", "99999999999999999999"}) {
    EXPECT_EQ(raisedBy([&] { BasicThread::Id id{std::string(text)}; }),
              runtimeError("non-numeric friendly thread ID", osSource, 266, "Id"))
        << '"' << text << '"';
  }
}

TEST(ThreadTest, ThereIsNoIdWithoutARunningThread) {
  Body body = [] {};
  TestThread thread(body);
  const Raised expected =
      runtimeError("Can't get ID for non-existing thread", source, 145, "throwGetIdError");
  EXPECT_EQ(raisedBy([&] { thread.id(); }), expected);
  EXPECT_EQ(raisedBy([&] { thread.throwGetIdError(); }), expected);
  thread.create();
  EXPECT_EQ(raisedBy([&] { thread.id(); }), expected);
}

class ThreadNameTest : public testing::TestWithParam<std::size_t> {};

TEST_P(ThreadNameTest, TheNativeThreadGetsAsMuchOfTheNameAsTheSystemTakes) {
  std::string name;
  for (std::size_t i = 0; i < GetParam(); ++i) name += static_cast<char>('a' + i % 26);
  std::string native;
  Body body = [&] { native = readFile("/proc/thread-self/comm"); };
  TestThread thread(body, name);
  EXPECT_EQ(thread.name(), name);
  thread.run();
  thread.join();
  EXPECT_EQ(native, name.substr(0, 15) + '\n');
}

INSTANTIATE_TEST_SUITE_P(From0To200Bytes, ThreadNameTest, testing::Values(0, 1, 14, 15, 16, 17, 63, 64, 200));

TEST(ThreadTest, AThreadThatCannotBeNamedRunsAllTheSame) {
  int ran = 0;
  const Refuse fault(Call::pthread_setname_np, ERANGE, once);
  runAndJoin([&] { ++ran; });
  EXPECT_TRUE(fault.struck());
  EXPECT_EQ(ran, 1);
}

std::size_t stackSize() {
  ::pthread_attr_t attributes;
  ::pthread_getattr_np(::pthread_self(), &attributes);
  std::size_t size = 0;
  void* address = nullptr;
  ::pthread_attr_getstack(&attributes, &address, &size);
  ::pthread_attr_destroy(&attributes);
  return size;
}

TEST(ThreadTest, TheDefaultStackIs512KiB) {
  KES_SKIP_UNDER_THREAD_SANITIZER("gives threads stacks of its own size");
  std::size_t size = 0;
  runAndJoin([&] { size = stackSize(); });
  EXPECT_EQ(size, 524288u);
}

class StackSizeTest : public testing::TestWithParam<unsigned long> {};

TEST_P(StackSizeTest, AnySizeIsBroughtToWholePagesAndTheSystemsMinimum) {
  KES_SKIP_UNDER_THREAD_SANITIZER("gives threads stacks of its own size");
  std::size_t size = 0;
  runAndJoin([&] { size = stackSize(); }, "stack", GetParam());
  EXPECT_GE(size, GetParam());
  EXPECT_GE(size, static_cast<std::size_t>(::sysconf(_SC_THREAD_STACK_MIN)));
  EXPECT_EQ(size % static_cast<std::size_t>(::sysconf(_SC_PAGESIZE)), 0u);
}

INSTANTIATE_TEST_SUITE_P(BelowTheMinimumAndBeyond, StackSizeTest,
                         testing::Values(1, 4095, 4096, 16383, 16384, 20001, 65536, 524287, 3000000));

TEST(ThreadTest, AStackLargerThanTheAddressSpaceIsRefusedWhenTheThreadIsCreated) {
  Body body = [] {};
  TestThread thread(body, "huge", /*detached=*/false, std::numeric_limits<unsigned long>::max());
  const Raised raised = raisedBy([&] { thread.run(); });
  EXPECT_EQ(raised.type, "kes::OsError");
  EXPECT_EQ(raised.line, 173);
  EXPECT_EQ(thread.state(), BasicThread::BURIED);
}

TEST(ThreadTest, AttributesThatCannotBePreparedAreReportedByTheConstructorAndReleased) {
  Body body = [] {};
  for (const Call call :
       {Call::pthread_attr_init, Call::pthread_attr_setdetachstate, Call::pthread_attr_setstacksize}) {
    const int destroyed = made(Call::pthread_attr_destroy), conditions = made(Call::pthread_cond_destroy);
    const Refuse fault(call, ENOMEM, once);
    const Raised raised = raisedBy([&] { TestThread thread(body, "test", /*detached=*/true); });
    EXPECT_EQ(raised.type, "kes::OsError");
    EXPECT_EQ(raised.errnum, ENOMEM);
    EXPECT_EQ(raised.file, osSource);
    EXPECT_EQ(made(Call::pthread_attr_destroy), destroyed + (call == Call::pthread_attr_init ? 0 : 1));
    EXPECT_EQ(made(Call::pthread_cond_destroy), conditions + 1);
  }
}

std::string reportOf(Body body) {
  testing::internal::CaptureStderr();
  const Instead<Call::gettid> numbered([] { return 42; });
  runAndJoin(std::move(body), "t");
  return testing::internal::GetCapturedStderr();
}

TEST(ThreadTest, ABodyThatThrowsAStandardExceptionIsReportedInOneLine) {
  EXPECT_EQ(reportOf([] { throw std::runtime_error("x"); }), "Thread t (42) died with std::exception: x\n");
}

TEST(ThreadTest, ABodyThatThrowsALibraryErrorIsReportedWithItsStackText) {
  const FsError error("/x", ENOENT);
  EXPECT_EQ(reportOf([&] { error.raise(); }),
            "Thread t (42) died with KES exception:\n" + error.exStack() + "\n");
}

TEST(ThreadTest, ABodyThatThrowsAnythingElseIsReported) {
  EXPECT_EQ(reportOf([] { throw 7; }), "Thread t (42) died with an unknown exception\n");
}

TEST(ThreadTest, AThreadThatDiedOfAnExceptionIsJoinedAndRunLikeAnyOther) {
  testing::internal::CaptureStderr();
  Body body = [] { throw 7; };
  TestThread thread(body);
  for (int i = 0; i < 3; ++i) {
    thread.run();
    thread.join();
  }
  EXPECT_EQ(thread.state(), BasicThread::BURIED);
  EXPECT_EQ(BasicThread::activeThreads(), 0);
  testing::internal::GetCapturedStderr();
}

TEST(ThreadTest, ReportsOfSeveralThreadsDoNotMix) {
  testing::internal::CaptureStderr();
  const Instead<Call::gettid> numbered([] { return 42; });
  Gate gate;
  Body body = [&] {
    gate.pass();
    throw std::runtime_error("x");
  };
  std::vector<std::unique_ptr<TestThread>> threads;
  for (int i = 0; i < 20; ++i) {
    threads.push_back(std::make_unique<TestThread>(body, "t"));
    threads.back()->run();
  }
  gate.open();
  for (auto& thread : threads) thread->join();
  std::string expected;
  for (int i = 0; i < 20; ++i) expected += "Thread t (42) died with std::exception: x\n";
  EXPECT_EQ(testing::internal::GetCapturedStderr(), expected);
}

TEST(ThreadTest, AThreadWithoutANumberSaysSoAndHasAllOnes) {
  testing::internal::CaptureStderr();
  std::uint64_t number = 0;
  {
    TestThread* self = nullptr;
    Body body = [&] {
      number = self->id().nativeId;
      throw 7;
    };
    TestThread thread(body, "t");
    self = &thread;
    const Refuse fault(Call::gettid, EPERM, once);
    thread.run();
    thread.join();
  }
  EXPECT_EQ(number, std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Failed to get native thread ID\n"
            "Thread t (18446744073709551615) died with an unknown exception\n");
}

TEST(ThreadTest, ActiveThreadsCountsNativeThreadsFromCreationToTheirLastStep) {
  EXPECT_EQ(BasicThread::activeThreads(), 0);
  Gate gate;
  Body body = [&] { gate.pass(); };
  TestThread running(body), held(body), detached(body, "detached", /*detached=*/true);
  running.run();
  held.create();
  detached.run();
  EXPECT_TRUE(eventually([] { return BasicThread::activeThreads() == 3; }));
  gate.open();
  running.join();
  held.join();
  EXPECT_TRUE(eventually([] { return BasicThread::activeThreads() == 0; }));
}

TEST(ThreadTest, AThreadThatExitsFromWithinIsFinishedLikeOneThatReturns) {
  Body body = [] { ::pthread_exit(nullptr); };
  TestThread thread(body);
  thread.run();
  thread.join();
  EXPECT_EQ(thread.state(), BasicThread::BURIED);
  EXPECT_EQ(BasicThread::activeThreads(), 0);
}

TEST(ThreadTest, ACppThreadRunsItsUserAndPassesItself) {
  struct Object : CppThread::IThread {
    void thread(CppThread& thread) override { seen = &thread; }
    CppThread* seen = nullptr;
  } object;
  CppThread thread("cpp", &object);
  EXPECT_FALSE(thread.isCoopThread());
  thread.run();
  thread.join();
  EXPECT_EQ(object.seen, &thread);
}

TEST(ThreadTest, ADerivedThreadRunsItselfUnlessItHasAUser) {
  struct Object : CppThread::IThread {
    void thread(CppThread&) override { ++ran; }
    int ran = 0;
  };
  struct Derived : CppThread, Object {
    explicit Derived(CppThread::IThread* user) : CppThread("derived", user, this) {}
  };
  Object user;
  Derived alone(nullptr), helped(&user);
  for (Derived* thread : {&alone, &helped}) {
    thread->run();
    thread->join();
  }
  EXPECT_EQ(alone.ran, 1);
  EXPECT_EQ(helped.ran, 0);
  EXPECT_EQ(user.ran, 1);
}

TEST(ThreadTest, OnlyACoopThreadSaysThatItIsOne) {
  const CoopThread coop("coop");
  const CppThread& thread = coop;
  EXPECT_TRUE(thread.isCoopThread());
}

}  // namespace
}  // namespace kes::thread
