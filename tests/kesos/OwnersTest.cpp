#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <set>
#include <string>
#include <type_traits>

#include "kesos/Ipc.h"
#include "kesos/kesos.hpp"
#include "support/Descriptors.h"
#include "support/TempDir.h"

namespace {

using namespace kes::test;

class OwnersTest : public IpcTest {};

template <typename Thing>
constexpr bool movesOnly = std::is_nothrow_move_constructible_v<Thing>&& std::is_move_assignable_v<Thing> &&
                           !std::is_copy_constructible_v<Thing> && !std::is_copy_assignable_v<Thing> &&
                           !std::is_convertible_v<Thing, bool> && std::is_constructible_v<bool, Thing>;
static_assert(movesOnly<kesos::Mutex> && movesOnly<kesos::Event> && movesOnly<kesos::Thread> &&
              movesOnly<kesos::Process> && movesOnly<kesos::Library> && movesOnly<kesos::File> &&
              movesOnly<kesos::Mapping> && movesOnly<kesos::Search>);

TEST_F(OwnersTest, AMutexIsGivenBackWithItsOwner) {
  const unsigned int key = freshKey();
  {
    kesos::Mutex mutex;
    EXPECT_FALSE(mutex);
    EXPECT_EQ(mutex.get(), nullptr);
    ASSERT_EQ(KesOsMutexCreate(mutex.put(), key), 1);
    EXPECT_TRUE(mutex);
    EXPECT_EQ(KesOsMutexWaitEx(mutex.get(), 0, nullptr), 1);
    EXPECT_EQ(KesOsMutexRelease(mutex.get()), 1);
    EXPECT_NE(semaphoreOf(key), -1);
  }
  EXPECT_EQ(semaphoreOf(key), -1);
}

TEST_F(OwnersTest, AnOwnerThatIsMovedFromHasNothing) {
  const unsigned int key = freshKey(), otherKey = freshKey();
  kesos::Mutex first, other;
  ASSERT_EQ(KesOsMutexCreate(first.put(), key), 1);
  ASSERT_EQ(KesOsMutexCreate(other.put(), otherKey), 1);
  kesos::Mutex second(std::move(first));
  EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move): that is what is asked
  EXPECT_TRUE(second);
  second = std::move(other);
  EXPECT_EQ(semaphoreOf(key), -1) << "what it had is given back";
  EXPECT_NE(semaphoreOf(otherKey), -1);
  kesos::Mutex& itself = second;
  second = std::move(itself);
  EXPECT_TRUE(second);
}

TEST_F(OwnersTest, WhatIsReleasedIsTheCallersToGiveBack) {
  const unsigned int key = freshKey();
  KesOsEvent* handle = nullptr;
  {
    kesos::Event event;
    ASSERT_EQ(KesOsEventCreate(event.put(), key), 1);
    handle = event.release();
    EXPECT_FALSE(event);
  }
  EXPECT_EQ(KesOsEventSet(handle), 1);
  kesos::Event again(handle);
  EXPECT_EQ(again.get(), handle);
  EXPECT_EQ(KesOsEventWaitEx(again.get(), 0, nullptr), 1);
  again.reset();
  EXPECT_FALSE(again);
  EXPECT_EQ(semaphoreOf(key), -1);
}

TEST_F(OwnersTest, AnOwnerThatIsFilledAgainGivesBackWhatItHad) {
  const unsigned int first = freshKey(), second = freshKey();
  kesos::Mutex mutex;
  ASSERT_EQ(KesOsMutexCreate(mutex.put(), first), 1);
  ASSERT_EQ(KesOsMutexCreate(mutex.put(), second), 1);
  EXPECT_EQ(semaphoreOf(first), -1);
  EXPECT_NE(semaphoreOf(second), -1);
}

TEST_F(OwnersTest, AFileIsClosed) {
  const auto before = openDescriptors();
  {
    kesos::File file(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    EXPECT_TRUE(file);
    EXPECT_NE(openDescriptors(), before);
    const kesos::File none(::open("/no/such/file", O_RDONLY | O_CLOEXEC));
    EXPECT_FALSE(none);
    EXPECT_EQ(none.get(), -1);
  }
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(OwnersTest, AMappingIsClosedAndItsRecordCanBeRead) {
  const auto key = static_cast<key_t>(freshKey());
  const auto before = listedKeys();
  {
    kesos::Mapping mapping;
    EXPECT_FALSE(mapping);
    ASSERT_EQ(KesOsMmfCreate(mapping.put(), 100, nullptr, key), 1);
    ASSERT_TRUE(mapping);
    EXPECT_EQ(mapping.get().created, 1);
    *static_cast<int*>(mapping.get().address) = 5;
    const kesos::Mapping moved(std::move(mapping));
    EXPECT_EQ(*static_cast<int*>(moved.get().address), 5);
    EXPECT_NE(listedKeys(), before);
  }
  EXPECT_EQ(listedKeys(), before);
  kesos::Mapping none;
  EXPECT_EQ(KesOsMmfOpen(none.put(), 0, key), 0);
  EXPECT_FALSE(none);
  EXPECT_EQ(none.get().error, ENOENT);
}

TEST_F(OwnersTest, ASearchIsMovedWhileItGoesOn) {
  const TempDir dir;
  for (const char* name : {"one", "two", "three"}) writeFile(dir / name, "");
  const auto before = openDescriptors();
  {
    char name[KESOS_PATH_SIZE];
    std::set<std::string> found;
    kesos::Search first;
    ASSERT_EQ(KesOsFindFirst(first.put(), dir.path().c_str(), name, nullptr, nullptr, nullptr), 1);
    found.insert(name);
    kesos::Search search(std::move(first));
    EXPECT_FALSE(first);  // NOLINT(bugprone-use-after-move): that is what is asked
    while (KesOsFindNext(search.use(), name, nullptr, nullptr, nullptr) == 1) found.insert(name);
    EXPECT_EQ(found, (std::set<std::string>{"one", "two", "three"}));
    EXPECT_TRUE(search);
  }
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(OwnersTest, ALibraryIsGivenBack) {
  const kesos::Library library(KesOsDlLoad("libm.so.6"));
  ASSERT_TRUE(library);
  EXPECT_NE(KesOsDlGetAddr(library.get(), "cos"), nullptr);
  EXPECT_FALSE(kesos::Library(KesOsDlLoad("libkes-no-such-library.so")));
}

TEST_F(OwnersTest, AChildRunsOnWithoutItsOwner) {
  pid_t id = 0;
  {
    kesos::Process process;
    ASSERT_EQ(KesOsCreateProcessAsynEx("sleep 1000", nullptr, process.put()), 1);
    id = KesOsProcessId(process.get());
  }
  EXPECT_EQ(::kill(id, SIGKILL), 0);
  EXPECT_EQ(::waitpid(id, nullptr, 0), id);
}

TEST_F(OwnersTest, AThreadIsAskedToStopAndWaitedFor) {
  std::atomic<bool> isRunning = false, hasEnded = false;
  {
    kesos::Thread thread;
    EXPECT_FALSE(thread);
    ASSERT_TRUE(thread.start([&](const kesos::Thread::Stop& stop) {
      isRunning = true;
      while (!stop.requested()) KesOsSleep(1);
      hasEnded = true;
    }));
    EXPECT_TRUE(thread);
    EXPECT_NE(thread.get(), pthread_t{});
    ASSERT_TRUE(eventually([&] { return isRunning.load(); }));
    EXPECT_TRUE(thread.isRunning());
    kesos::Thread moved(std::move(thread));
    EXPECT_FALSE(thread);  // NOLINT(bugprone-use-after-move): that is what is asked
    EXPECT_FALSE(hasEnded);
    thread = std::move(moved);
    EXPECT_TRUE(thread.isRunning());
  }
  EXPECT_TRUE(hasEnded);
}

TEST_F(OwnersTest, AThreadThatIsReleasedIsLeftToItself) {
  std::atomic<bool> isToEnd = false;
  const auto alive = std::make_shared<int>(0);
  {
    kesos::Thread thread;
    ASSERT_TRUE(thread.start([&isToEnd, alive](const kesos::Thread::Stop& stop) {
      while (!isToEnd) KesOsSleep(1);
      EXPECT_FALSE(stop.requested());
    }));
    EXPECT_NE(thread.release(), pthread_t{});
    EXPECT_FALSE(thread);
    EXPECT_FALSE(thread.isRunning());
  }
  isToEnd = true;
  EXPECT_TRUE(eventually([&] { return alive.use_count() == 1; }));
}

TEST_F(OwnersTest, AThreadThatEndedByItselfIsStartedAnew) {
  kesos::Thread thread;
  std::atomic<int> runs = 0;
  for (int round = 1; round <= 3; ++round) {
    ASSERT_TRUE(thread.start([&](const kesos::Thread::Stop&) { ++runs; }));
    ASSERT_TRUE(eventually([&] { return !thread.isRunning(); }));
    EXPECT_TRUE(thread) << "until it is given back";
  }
  EXPECT_EQ(runs, 3);
}

}  // namespace
