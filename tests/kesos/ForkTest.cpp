#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>

#include "kesos/Ipc.h"
#include "kesos/events.h"
#include "kesos/mutexes.h"
#include "support/Calls.h"

// Keyed objects in a process that forks.
namespace {

using namespace kes::test;

class ForkTest : public IpcTest {};

bool opensLocksAndCloses(unsigned int key) {
  KesOsMutex* mutex = nullptr;
  unsigned int state = 0;
  return KesOsMutexCreate(&mutex, key) == 1 && KesOsMutexWait(mutex, infinite, &state) == 1 && state == 1 &&
         KesOsMutexRelease(mutex) == 1 && KesOsMutexClose(mutex) == 1;
}

TEST_F(ForkTest, AChildThatIsForkedWhileAnotherThreadOpensAndClosesCanUseKeys) {
  const unsigned int keys[] = {freshKey(), freshKey()};
  std::atomic<bool> stop = false;
  std::thread other([&] {
    while (!stop) opensLocksAndCloses(keys[0]);
  });
  int failures = 0;
  for (int round = 0; round < 300 && failures == 0; ++round) {
    const pid_t child = startProcess([&keys] {
      ::alarm(120);  // ends a child that hangs
      return opensLocksAndCloses(keys[1]) ? 0 : 1;
    });
    failures += waitForProcess(child) == 0 ? 0 : 1;
  }
  stop = true;
  other.join();
  EXPECT_EQ(failures, 0);
  EXPECT_FALSE(tableExists());
}

/// How many processes have the table attached.
int attachments() { return std::stoi(shell("ipcs -m | awk '$1 == \"0x00008009\" {print $6}'")); }

/// A child that lives until the object goes.
class LivingChild {
 public:
  LivingChild()
      : pid_(startProcess([this] { return eventually([this] { return leave_->load(); }) ? 0 : 1; })) {}
  ~LivingChild() {
    *leave_ = true;
    EXPECT_EQ(waitForProcess(pid_), 0);
  }
  LivingChild(const LivingChild&) = delete;
  LivingChild& operator=(const LivingChild&) = delete;

 private:
  Shared<std::atomic<bool>> leave_;
  pid_t pid_;
};

TEST_F(ForkTest, AChildDoesNotHoldTheTableOfItsParent) {
  KesOsMutex* mutex = mutexOf(freshKey());
  const LivingChild child;
  EXPECT_EQ(usage(), (Usage{1, 1, 1, 1})) << "the child counts for nothing";
  EXPECT_EQ(KesOsMutexClose(mutex), 1);
  EXPECT_FALSE(tableExists());
}

/// Opens an object, forks, and closes it before the child lets go of the table, if it has it.
void leaveBeforeTheChildBegins() {
  KesOsMutex* mutex = mutexOf(freshKey());
  const Shared<std::atomic<bool>> left;
  const Before letsGo(Call::shmdt, [&left, parent = ::getpid()] {
    if (::getpid() != parent) eventually([&left] { return left->load(); });
  });
  const pid_t child = startProcess([] { return 0; });
  EXPECT_EQ(KesOsMutexClose(mutex), 1);
  *left = true;
  EXPECT_EQ(waitForProcess(child), 0);
}

TEST_F(ForkTest, AChildThatBeginsAfterItsParentHasLeftLeavesNoTable) {
  leaveBeforeTheChildBegins();
  EXPECT_FALSE(tableExists());
}

TEST_F(ForkTest, AChildThatGetsTheTableAllTheSameRemovesItAfterItsParent) {
  const Refuse refused(Call::madvise, EINVAL, {.times = 1, .option = MADV_DONTFORK});
  leaveBeforeTheChildBegins();
  EXPECT_FALSE(tableExists());
}

TEST_F(ForkTest, AChildThatGetsTheTableAllTheSameDoesNotHoldIt) {
  const Refuse refused(Call::madvise, EINVAL, {.times = 1, .option = MADV_DONTFORK});
  KesOsMutex* mutex = mutexOf(freshKey());
  const LivingChild child;
  EXPECT_TRUE(eventually([] { return attachments() == 1; }));
  EXPECT_EQ(KesOsMutexClose(mutex), 1);
  EXPECT_FALSE(tableExists());
}

TEST_F(ForkTest, AChildCountsAnewFromItsFirstUse) {
  const unsigned int key = freshKey();
  KesOsMutex* mutex = mutexOf(key);
  const pid_t child = startProcess([key] {
    KesOsMutex* own = nullptr;
    if (KesOsMutexOpen(&own, key) != 1 || !(usage() == Usage{2, 2, 2, 1})) return 1;
    KesOsEvent* event = eventOf(freshKey());
    if (!(usage() == Usage{2, 3, 3, 2})) return 2;
    if (KesOsMutexClose(own) != 1 || !(usage() == Usage{2, 2, 2, 2})) return 3;
    return KesOsEventClose(event) == 1 ? 0 : 4;
  });
  EXPECT_EQ(waitForProcess(child), 0);
  EXPECT_EQ(usage(), (Usage{1, 1, 1, 2}));
  EXPECT_NE(semaphoreOf(key), -1);
  EXPECT_EQ(KesOsMutexClose(mutex), 1);
  EXPECT_FALSE(tableExists());
}

TEST_F(ForkTest, WhatAChildInheritedIsItsParentsToGiveBack) {
  const unsigned int key = freshKey(), eventKey = freshKey();
  KesOsMutex* mutex = mutexOf(key);
  KesOsEvent* event = eventOf(eventKey);
  const pid_t child = startProcess([=] {
    unsigned int state = 0;
    if (KesOsMutexWait(mutex, 0, &state) != 1 || state != 1) return 1;  // it can be used all the same
    KesOsMutex* own = mutexOf(key);
    return KesOsMutexClose(mutex) == 1 && KesOsEventClose(event) == 1 && KesOsMutexClose(own) == 1 ? 0 : 2;
  });
  EXPECT_EQ(waitForProcess(child), 0);
  EXPECT_EQ(usage(), (Usage{1, 2, 2, 2}));
  EXPECT_EQ(valueOf(key), 0) << "the child went with the lock";
  EXPECT_NE(semaphoreOf(eventKey), -1);
  EXPECT_EQ(KesOsMutexClose(mutex), 1);
  EXPECT_EQ(KesOsEventClose(event), 1);
  EXPECT_FALSE(tableExists());
}

TEST_F(ForkTest, AGrandchildCountsForItselfToo) {
  const unsigned int key = freshKey();
  KesOsMutex* mutex = mutexOf(key);
  const pid_t child = startProcess([=] {
    KesOsMutex* own = mutexOf(key);
    const pid_t grandchild = startProcess([=] {
      if (KesOsMutexClose(own) != 1 || KesOsMutexClose(mutex) != 1) return 1;
      KesOsMutex* third = mutexOf(key);
      return usage() == Usage{3, 3, 3, 1} && KesOsMutexClose(third) == 1 ? 0 : 2;
    });
    if (waitForProcess(grandchild) != 0) return 1;
    return usage() == Usage{2, 2, 2, 1} && KesOsMutexClose(own) == 1 ? 0 : 2;
  });
  EXPECT_EQ(waitForProcess(child), 0);
  EXPECT_EQ(usage(), (Usage{1, 1, 1, 1}));
  EXPECT_EQ(KesOsMutexClose(mutex), 1);
  EXPECT_FALSE(tableExists());
}

}  // namespace
