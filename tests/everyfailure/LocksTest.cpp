#include <chrono>
#include <memory>
#include <optional>

#include "kespal/thread/Condition.h"
#include "kespal/thread/LockGuard.h"
#include "kespal/thread/Thread.h"
#include "support/EveryFailure.h"
#include "support/Sanitizer.h"

namespace kes::thread {
namespace {

using namespace std::chrono_literals;
using test::Call;
using test::expectSurvival;
using test::raises;
using test::Stage;

TEST(EveryFailureOfLocks, LocksAreMadeTakenAndGivenBack) {
  expectSurvival({.operations = {"kes::thread::LockBase::LockBase", "kes::thread::LockBase::~LockBase",
                                 "kes::thread::LockBase::lockTimed"},
                  .raises = {raises("kes::OsError")},
                  .play =
                      [](Stage& stage) {
                        for (const LockKind kind : {Recursive, Normal, ErrorCheck}) {
                          std::optional<Lock> lock;
                          stage.act([&] { lock.emplace(kind); });
                          if (!lock) continue;
                          stage.act([&] { const LockGuardT<Lock> guard(*lock); });
                          for (const auto take : {&Lock::tryLock, &Lock::try_lock}) {
                            stage.act([&] { return ((*lock).*take)() && (lock->unlock(), true); });
                          }
                          stage.act([&] { return lock->lockTimed(1h) && (lock->unlock(), true); });
                          lock->lock();
                          lock->unlock();
                        }
                      },
                  .misused = {Call::pthread_mutexattr_settype, Call::pthread_mutexattr_destroy,
                              Call::pthread_mutex_lock, Call::pthread_mutex_unlock}});
}

TEST(EveryFailureOfLocks, AConditionIsMadeWaitedForAndSignalled) {
  expectSurvival({.operations = {"kes::thread::Condition::Condition", "kes::thread::Condition::init",
                                 "kes::thread::Condition::~Condition"},
                  .raises = {raises("kes::OsError")},
                  .play =
                      [](Stage& stage) {
                        time::ClockBase::init();
                        Lock lock(Normal);
                        std::optional<Condition> lent, own;
                        stage.act([&] { lent.emplace(lock); });
                        stage.act([&] { own.emplace(); });
                        if (!own) own.emplace();
                        stage.act([&] { own->signal(); });
                        stage.act([&] { own->signalAll(); });
                        const time::RealtimeClock now;
                        bool woken = true;
                        stage.act([&] {
                          const LockGuardT<Condition> guard(*own);
                          woken = own->waitTimed(now);
                        });
                        stage.check(!stage.succeeded() || !woken, "the moment has come");
                        own->lock();
                        own->unlock();
                      },
                  .misused = {Call::pthread_condattr_destroy, Call::pthread_cond_signal,
                              Call::pthread_cond_broadcast, Call::pthread_cond_timedwait}});
}

TEST(EveryFailureOfLocks, AConditionIsWaitedForByTheMonotonicClockAndWithAPredicate) {
  expectSurvival({.operations = {"kes::thread::Condition::Condition"},
                  .raises = {raises("kes::OsError")},
                  .play =
                      [](Stage& stage) {
                        time::ClockBase::init();
                        const Condition own;
                        const time::MonotonicClock now;
                        bool woken = true;
                        stage.act([&] {
                          const LockGuardT<Condition> guard(own);
                          woken = own.waitTimed(now);
                        });
                        stage.check(!stage.succeeded() || !woken, "the moment has come");
                        bool holds = true;
                        stage.act([&] {
                          const LockGuardT<Condition> guard(own);
                          holds = own.waitFor(1ms, [] { return false; });
                        });
                        stage.check(!stage.succeeded() || !holds, "it does not hold");
                        own.lock();
                        own.unlock();
                      },
                  .misused = {Call::pthread_cond_clockwait}});
}

TEST(EveryFailureOfLocks, WhoIsCancelledInAWaitGivesTheLockBack) {
  expectSurvival({.operations = {"kes::thread::Condition::Condition"},
                  .raises = {raises("kes::OsError"), raises("kes::UsageError", {}, "run")},
                  .play =
                      [](Stage& stage) {
                        const auto own = std::make_shared<Condition>();
                        const auto waited = std::make_shared<bool>(false);

                        struct Waker : CppThread::IThread {
                          void thread(CppThread&) override {
                            {
                              const LockGuardT<Condition> guard(*condition);
                              *over = true;
                            }
                            condition->signalAll();
                          }
                          std::shared_ptr<Condition> condition;
                          std::shared_ptr<bool> over;
                        } waker;
                        waker.condition = own;
                        waker.over = waited;
                        CppThread thread("waker", &waker);
                        stage.act([&] {
                          thread.run();
                          const LockGuardT<Condition> guard(*own);
                          own->wait([&] { return *waited; });
                        });
                        thread.join();
                        own->lock();
                        own->unlock();
                      },
                  .misused = {Call::pthread_cond_wait}});
}

}  // namespace
}  // namespace kes::thread
