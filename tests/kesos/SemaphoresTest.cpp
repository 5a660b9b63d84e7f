#include "semaphores.h"

#include <sys/sem.h>

#include "kesos/Ipc.h"
#include "kesos/ipc.h"
#include "usage_table.h"

// The functions below mutexes and events, called as those call them, and the defaults of what they create.
extern "C" {
extern int ipc_default_mode;
extern unsigned int ipc_default_uid, ipc_default_gid;
}

namespace {

using namespace kes::test;
using testing::IsEmpty;

class SemaphoresTest : public IpcTest {
 protected:
  int semid_ = 7;
};

TEST_F(SemaphoresTest, ANewOneHasTheInitialValueAndAnExistingOneKeepsIts) {
  const auto key = static_cast<key_t>(freshKey());
  ASSERT_EQ(KesOsCreate(&semid_, key, 3, 'M'), 1);
  EXPECT_EQ(KesOsSemaphoreVal(semid_), 3);
  int second = 7;
  ASSERT_EQ(KesOsCreate(&second, key, 1, 'M'), 1);
  EXPECT_EQ(second, semid_);
  EXPECT_EQ(KesOsSemaphoreVal(semid_), 3);
  EXPECT_EQ(KesOsClose(semid_), 1);
  EXPECT_EQ(KesOsSemaphoreVal(semid_), 3) << "one user is left";
  EXPECT_EQ(KesOsClose(semid_), 1);
  EXPECT_EQ(KesOsSemaphoreVal(semid_), -1);
}

TEST_F(SemaphoresTest, WithKeyZeroItIsPrivateAndOnlyItsHandleIsCounted) {
  int second = 7;
  ASSERT_EQ(KesOsCreate(&semid_, 0, 1, 'M'), 1);
  ASSERT_EQ(KesOsCreate(&second, 0, 1, 'M'), 1);
  EXPECT_NE(second, semid_);
  EXPECT_EQ(usage(), (Usage{1, 2, 0, 0}));
  EXPECT_EQ(shell("ipcs -s | awk '$2 == \"" + std::to_string(semid_) + "\" {print $1, $4}'"),
            "0x00000000 666");
  EXPECT_EQ(KesOsClose(semid_), 1);
  EXPECT_EQ(usage(), (Usage{1, 1, 0, 0}));
  EXPECT_EQ(KesOsClose(second), 1);
  EXPECT_EQ(KesOsSemaphoreVal(second), -1);
  EXPECT_THAT(usageTable(), IsEmpty());
}

TEST_F(SemaphoresTest, WithKeyZeroNothingIsOpened) {
  EXPECT_EQ(KesOsOpen(&semid_, 0, 'E'), 0);
  EXPECT_EQ(KesOsOpen(&semid_, static_cast<key_t>(freshKey()), 'E'), 0);
  EXPECT_THAT(usageTable(), IsEmpty());
}

TEST_F(SemaphoresTest, TheIdWithAllBitsSetIsClosedAlready) {
  EXPECT_EQ(KesOsClose(-1), 1);
  EXPECT_THAT(usageTable(), IsEmpty());
}

TEST_F(SemaphoresTest, WithoutATableASemaphoreIsRemovedAllTheSame) {
  const int foreign = ::semget(IPC_PRIVATE, 1, 0600);
  ASSERT_NE(foreign, -1);
  EXPECT_EQ(KesOsClose(foreign), 1);
  EXPECT_EQ(KesOsSemaphoreVal(foreign), -1);
  EXPECT_EQ(KesOsClose(foreign), 0) << "it is gone";
}

TEST_F(SemaphoresTest, TheLastReferenceIsTakenBackAlsoWhenTheSemaphoreIsGone) {
  ASSERT_EQ(KesOsCreate(&semid_, static_cast<key_t>(freshKey()), 1, 'M'), 1);
  ASSERT_EQ(::semctl(semid_, 0, IPC_RMID), 0);
  EXPECT_EQ(KesOsClose(semid_), 1);
  EXPECT_THAT(usageTable(), IsEmpty());
}

TEST_F(SemaphoresTest, ThisProcessHoldsItsPartOfTheTableUntilItsLastClose) {
  EXPECT_EQ(sem_counter, nullptr);
  EXPECT_EQ(kesos_shm, nullptr);
  int second = 7;
  ASSERT_EQ(KesOsCreate(&semid_, static_cast<key_t>(freshKey()), 1, 'M'), 1);
  ASSERT_EQ(KesOsCreate(&second, 0, 1, 'E'), 1);
  ASSERT_NE(sem_counter, nullptr);
  EXPECT_EQ(sem_counter->references, 2U);
  EXPECT_EQ(sem_counter->memory.address, kesos_shm);
  EXPECT_EQ(sem_counter->memory.size, 500U);
  EXPECT_EQ(KesOsClose(semid_), 1);
  EXPECT_EQ(sem_counter->references, 1U);
  EXPECT_EQ(KesOsClose(second), 1);
  EXPECT_EQ(sem_counter, nullptr);
  EXPECT_EQ(kesos_shm, nullptr);
}

TEST_F(SemaphoresTest, AFreshTableCountsThisProcessAndNoHandle) {
  ASSERT_EQ(initSemCounter(), 1);
  EXPECT_EQ(usage(), (Usage{1, 0, 0, 0}));
  ASSERT_EQ(KesOsCreate(&semid_, static_cast<key_t>(freshKey()), 1, 'M'), 1);
  EXPECT_EQ(KesOsClose(semid_), 1);
  EXPECT_THAT(usageTable(), IsEmpty());
}

TEST_F(SemaphoresTest, TheDefaultsOfNewObjectsAreThoseThatWereSet) {
  const auto defaults = [] { return std::tuple(ipc_default_mode, ipc_default_uid, ipc_default_gid); };
  EXPECT_EQ(defaults(), std::tuple(0666, 0xFFFFFFFFU, 0xFFFFFFFFU));
  KesOsSetIpcPerms(0640, 11, 12);
  EXPECT_EQ(defaults(), std::tuple(0640, 11U, 12U));
}

}  // namespace
