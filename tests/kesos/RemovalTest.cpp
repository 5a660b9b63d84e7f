#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <cerrno>
#include <string>

#include "kesos/Ipc.h"
#include "kesos/mappings.h"
#include "kesos/mutexes.h"
#include "support/Calls.h"
#include "support/ForkedChild.h"

// Creates that meet the removal of what has their key.
namespace {

using namespace kes::test;
using testing::Each;

class RemovalTest : public IpcTest {};

TEST_F(RemovalTest, ASemaphoreThatGoesBetweenTheTwoLooksForItIsCreatedAfterAll) {
  const unsigned int key = freshKey();
  KesOsMutex* first = mutexOf(key);
  for (const int errnum : {ENOENT, EIDRM, EINVAL}) {
    KesOsMutex* mutex = nullptr;
    const Refuse refused(Call::semget, errnum, nth(2));
    EXPECT_EQ(KesOsMutexCreate(&mutex, key), 1) << errnum;
    EXPECT_EQ(slotCount(semaphoreOf(key)), 2U) << errnum;
    EXPECT_EQ(KesOsMutexClose(mutex), 1);
  }
  KesOsMutex* mutex = nullptr;
  const Refuse forbidden(Call::semget, EACCES, nth(2));
  EXPECT_EQ(KesOsMutexCreate(&mutex, key), 0) << "that is no removal";
  const Refuse gone(Call::semget, ENOENT, once);
  EXPECT_EQ(KesOsMutexOpen(&mutex, key), 0) << "an open does not wait for somebody to create it";
  EXPECT_EQ(KesOsMutexClose(first), 1);
}

TEST_F(RemovalTest, ANewSemaphoreThatSomebodyElseHasOpenedAndClosedIsCreatedAgain) {
  const unsigned int key = freshKey();
  KesOsMutex* mutex = nullptr;
  const Refuse refused(Call::semctl, EIDRM, {.times = 1, .option = SETVAL});
  EXPECT_EQ(KesOsMutexCreate(&mutex, key), 1);
  EXPECT_EQ(valueOf(key), 1);
  EXPECT_EQ(usage(), (Usage{1, 1, 1, 1}));
  EXPECT_EQ(KesOsMutexClose(mutex), 1);
  EXPECT_FALSE(tableExists());
}

void removeNow(unsigned int key) { ::semctl(::semget(static_cast<key_t>(key), 0, 0), 0, IPC_RMID); }

/// Another process's close, in the middle of a create of this one.
struct RemovedBeforeTheTableIsSought : Before {
  explicit RemovedBeforeTheTableIsSought(unsigned int key)
      : Before(Call::shmget, [key] { removeNow(key); }) {}
};

void makeSemaphore(unsigned int key) {
  perl("semget(" + std::to_string(key) + ", 1, 0666 | " + std::to_string(IPC_CREAT) + ") // die;");
}

TEST_F(RemovalTest, ASemaphoreThatGoesBeforeItIsCountedIsCreatedAgain) {
  for (const bool exists : {false, true}) {
    const unsigned int key = freshKey();
    if (exists) makeSemaphore(key);
    const RemovedBeforeTheTableIsSought removed(key);
    KesOsMutex* mutex = nullptr;
    EXPECT_EQ(KesOsMutexCreate(&mutex, key), 1);
    EXPECT_EQ(valueOf(key), 1);
    EXPECT_EQ(usage(), (Usage{1, 1, 1, 1}));
    EXPECT_EQ(slotCount(semaphoreOf(key)), 1U);
    EXPECT_EQ(KesOsMutexClose(mutex), 1);
    EXPECT_EQ(semaphoreOf(key), -1);
    EXPECT_FALSE(tableExists());
  }
}

TEST_F(RemovalTest, ARepeatedCreateSeeksTheTableOnlyOnceMore) {
  const unsigned int key = freshKey();
  const Instead<Call::shmget> removed([key](key_t table, std::size_t size, int flags) {
    removeNow(key);
    return real<Call::shmget>(table, size, flags);
  });
  KesOsMutex* mutex = nullptr;
  EXPECT_EQ(KesOsMutexCreate(&mutex, key), 1);
  EXPECT_EQ(usage(), (Usage{1, 1, 1, 1}));
  EXPECT_EQ(KesOsMutexClose(mutex), 1);
  EXPECT_FALSE(tableExists());
}

TEST_F(RemovalTest, AnOpenOfASemaphoreThatGoesBeforeItIsCountedFailsAndCountsNothing) {
  const unsigned int key = freshKey();
  KesOsMutex* mutex = nullptr;
  makeSemaphore(key);
  const RemovedBeforeTheTableIsSought removed(key);
  EXPECT_EQ(KesOsMutexOpen(&mutex, key), 0);
  EXPECT_EQ(errno, EIDRM);
  EXPECT_EQ(mutex, nullptr);
  EXPECT_FALSE(tableExists());
}

TEST_F(RemovalTest, ASemaphoreThatMayNotBeReadIsNotTakenForARemovedOne) {
  const unsigned int key = freshKey();
  KesOsMutex* mutex = nullptr;
  const Refuse refused(Call::semctl, EACCES, {.times = 1, .option = GETVAL});
  EXPECT_EQ(KesOsMutexCreate(&mutex, key), 1);
  EXPECT_EQ(usage(), (Usage{1, 1, 1, 1}));
  EXPECT_EQ(KesOsMutexClose(mutex), 1);
}

TEST_F(RemovalTest, ASegmentThatGoesBeforeItIsAttachedIsCreatedAfterAll) {
  const auto key = static_cast<key_t>(freshKey());
  KesOsMmf first, mapping;
  ASSERT_EQ(KesOsMmfCreate(&first, 100, nullptr, key), 1);
  const Refuse gone(Call::shmget, ENOENT, nth(2));
  EXPECT_EQ(KesOsMmfCreate(&mapping, 100, nullptr, key), 1);
  EXPECT_EQ(mapping.created, 0);
  EXPECT_EQ(mapping.error, EEXIST);
  EXPECT_EQ(KesOsMmfClose(&mapping), 1);
  EXPECT_EQ(KesOsMmfClose(&first), 1);
  for (const int errnum : {EINVAL, EIDRM}) {
    const Refuse refused(Call::shmat, errnum, once);
    EXPECT_EQ(KesOsMmfCreate(&mapping, 100, nullptr, key), 1) << errnum;
    EXPECT_EQ(mapping.created, 1) << errnum;
    EXPECT_EQ(mapping.error, 0) << errnum;
    EXPECT_EQ(KesOsMmfClose(&mapping), 1);
  }
}

struct RemovedBeforeItIsAttached : Before {
  explicit RemovedBeforeItIsAttached(int segment)
      : Before(Call::shmat, [segment] { ::shmctl(segment, IPC_RMID, nullptr); }) {}
};

TEST_F(RemovalTest, ASegmentThatIsRemovedJustBeforeItIsAttachedIsCreatedAnewForAll) {
  const auto key = static_cast<key_t>(freshKey());
  KesOsMmf first, mapping, third;
  ASSERT_EQ(KesOsMmfCreate(&first, 100, nullptr, key), 1);
  {
    // It is still there for the first, and for whom the system lets in.
    const RemovedBeforeItIsAttached removed(first.shmid);
    EXPECT_EQ(KesOsMmfCreate(&mapping, 100, nullptr, key), 1);
  }
  EXPECT_NE(mapping.shmid, first.shmid);
  EXPECT_EQ(mapping.shmid, ::shmget(key, 0, 0)) << "where the next one finds it";
  EXPECT_EQ(mapping.created, 1);
  const RemovedBeforeItIsAttached removed(mapping.shmid);
  EXPECT_EQ(KesOsMmfOpen(&third, 0, key), 0);
  EXPECT_EQ(third.error, EIDRM);
  EXPECT_EQ(third.address, nullptr);
  EXPECT_EQ(KesOsMmfClose(&mapping), 1);
  EXPECT_EQ(KesOsMmfClose(&first), 1);
}

TEST_F(RemovalTest, TheUsageTableThatItsLastUserRemovesIsNotJoined) {
  const unsigned int key = freshKey(), other = freshKey();
  KesOsMutex* last = mutexOf(other);
  const int table = ::shmget(32777, 0, 0);
  const ChildResult result = inChild([key, table] {
    const RemovedBeforeItIsAttached removed(table);
    KesOsMutex* mutex = nullptr;
    if (KesOsMutexCreate(&mutex, key) != 1) return 1;
    if (::shmget(32777, 0, 0) == table || slotCount(semaphoreOf(key)) != 1) return 2;
    return KesOsMutexClose(mutex) == 1 ? 0 : 3;
  });
  EXPECT_EQ(result.exitCode(), 0);
  EXPECT_EQ(KesOsMutexClose(last), 1);
}

TEST_F(RemovalTest, WhatFailsAfterTheAttachingDoesNotHideWhyThatFailed) {
  const auto key = static_cast<key_t>(freshKey());
  KesOsMmf first, mapping;
  ASSERT_EQ(KesOsMmfCreate(&first, 100, nullptr, key), 1);
  const Refuse refused(Call::shmat, EACCES, once);
  const Before removed(Call::shmctl, [id = first.shmid] { ::shmctl(id, IPC_RMID, nullptr); });
  ::shmdt(first.address);  // with the removal before it, the second removal finds nothing
  EXPECT_EQ(KesOsMmfOpen(&mapping, 0, key), 0);
  EXPECT_EQ(errno, EACCES);
  EXPECT_EQ(mapping.error, EACCES);
}

TEST_F(RemovalTest, ASegmentThatCannotBeMadeIsTriedOnce) {
  KesOsMmf mapping;
  const int tries = made(Call::shmget);
  EXPECT_EQ(KesOsMmfCreate(&mapping, 0, nullptr, static_cast<key_t>(freshKey())), 0);
  EXPECT_EQ(mapping.error, EINVAL);
  EXPECT_EQ(made(Call::shmget), tries + 1);
}

TEST_F(RemovalTest, ProcessesWithKeysOfTheirOwnNeverFailAlthoughTheirTableComesAndGoes) {
  const unsigned int keys[] = {freshKey(), freshKey(), freshKey(), freshKey()};
  const auto storm = [&keys](int index) {
    for (int round = 0; round < 3000; ++round) {
      KesOsMutex* mutex = nullptr;
      if (KesOsMutexCreate(&mutex, keys[index]) != 1) return 1;
      if (KesOsMutexClose(mutex) != 1) return 2;
    }
    return 0;
  };
  EXPECT_THAT(runProcesses(4, storm), Each(0));
  for (const unsigned int key : keys) EXPECT_EQ(semaphoreOf(key), -1);
}

}  // namespace
