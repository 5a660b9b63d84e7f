#include <sched.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>

#include "kesos/Ipc.h"
#include "kesos/events.h"
#include "kesos/ipc.h"
#include "kesos/mutexes.h"
#include "support/Calls.h"
#include "support/ForkedChild.h"

namespace {

using namespace kes::test;
using testing::Each;
using testing::IsEmpty;

constexpr std::uint32_t freeSlot = 0xFFFFFFFF;

class UsageTableTest : public IpcTest {
 protected:
  void TearDown() override { KesOsSetIpcPerms(0666, 0xFFFFFFFF, 0xFFFFFFFF); }
};

/// What the table has to look like: the four counts, then the slots, all others free.
std::vector<std::uint32_t> table(std::initializer_list<std::uint32_t> head,
                                 std::initializer_list<std::pair<int, std::uint32_t>> slots) {
  std::vector<std::uint32_t> words{0};
  words.insert(words.end(), head);
  for (const auto& [id, count] : slots) {
    words.push_back(static_cast<std::uint32_t>(id));
    words.push_back(count);
  }
  while (words.size() < 125) {
    words.push_back(freeSlot);
    words.push_back(0);
  }
  return words;
}

TEST_F(UsageTableTest, EveryWordIsAsEachStepLeavesIt) {
  const unsigned int key = freshKey(), other = freshKey();
  EXPECT_THAT(usageTable(), IsEmpty());
  KesOsMutex* first = mutexOf(key);
  const int id = semaphoreOf(key);
  EXPECT_EQ(usageTable(), table({1, 1, 1, 1}, {{id, 1}}));
  KesOsMutex* second = mutexOf(key);
  EXPECT_EQ(usageTable(), table({1, 2, 2, 1}, {{id, 2}}));
  EXPECT_EQ(semaphoreOf(key), id) << "the second create opened the first one's semaphore";
  KesOsEvent* event = nullptr;
  ASSERT_EQ(KesOsEventCreate(&event, other), 1);
  const int otherId = semaphoreOf(other);
  EXPECT_EQ(usageTable(), table({1, 3, 3, 2}, {{id, 2}, {otherId, 1}}));
  KesOsMutex* third = nullptr;
  ASSERT_EQ(KesOsMutexOpen(&third, key), 1);
  EXPECT_EQ(usageTable(), table({1, 4, 4, 2}, {{id, 3}, {otherId, 1}}));
  EXPECT_EQ(KesOsMutexClose(third), 1);
  EXPECT_EQ(KesOsMutexClose(second), 1);
  EXPECT_EQ(usageTable(), table({1, 2, 2, 2}, {{id, 1}, {otherId, 1}}));
  EXPECT_EQ(KesOsMutexClose(first), 1);
  EXPECT_EQ(semaphoreOf(key), -1);
  EXPECT_EQ(usageTable(), table({1, 1, 1, 2}, {{-1, 0}, {otherId, 1}}));
  EXPECT_EQ(KesOsEventClose(event), 1);
  EXPECT_EQ(semaphoreOf(other), -1);
  EXPECT_THAT(usageTable(), IsEmpty());
}

TEST_F(UsageTableTest, AFreedSlotIsUsedAgainBeforeAHigherOne) {
  const unsigned int keys[] = {freshKey(), freshKey(), freshKey()};
  KesOsMutex* first = mutexOf(keys[0]);
  KesOsMutex* second = mutexOf(keys[1]);
  KesOsMutexClose(first);
  first = mutexOf(keys[2]);
  EXPECT_EQ(usageTable(), table({1, 2, 2, 2}, {{semaphoreOf(keys[2]), 1}, {semaphoreOf(keys[1]), 1}}));
  KesOsMutexClose(first);
  KesOsMutexClose(second);
}

TEST_F(UsageTableTest, EveryProcessIsCountedAndCountsItsOwnUse) {
  const unsigned int key = freshKey();
  const Shared<std::atomic<int>> stage;
  const pid_t other = startProcess([&] {
    if (!eventually([&] { return *stage == 1; })) return 1;
    KesOsMutex* mutex = mutexOf(key);
    *stage = 2;
    if (!eventually([&] { return *stage == 3; })) return 2;
    return KesOsMutexClose(mutex) == 1 ? 0 : 3;
  });
  KesOsMutex* mutex = mutexOf(key);
  *stage = 1;
  ASSERT_TRUE(eventually([&] { return *stage == 2; }));
  const int id = semaphoreOf(key);
  EXPECT_EQ(usageTable(), table({2, 2, 2, 1}, {{id, 2}}));
  EXPECT_EQ(KesOsMutexClose(mutex), 1);
  EXPECT_EQ(usageTable(), table({1, 1, 1, 1}, {{id, 1}})) << "the other process goes on";
  EXPECT_EQ(semaphoreOf(key), id);
  *stage = 3;
  EXPECT_EQ(waitForProcess(other), 0);
  EXPECT_EQ(semaphoreOf(key), -1);
  EXPECT_THAT(usageTable(), IsEmpty());
}

TEST_F(UsageTableTest, TheTableIsASegmentOf500BytesUnderItsKey) {
  KesOsMutex* mutex = mutexOf(freshKey());
  EXPECT_EQ(shell("ipcs -m | awk '$1 == \"0x00008009\" {print $4, $5, $6}'"), "666 500 1");
  KesOsMutexClose(mutex);
  EXPECT_EQ(shell("ipcs -m | awk '$1 == \"0x00008009\"'"), "");
}

TEST_F(UsageTableTest, The61stSemaphoreWorksUntracked) {
  std::vector<KesOsMutex*> mutexes;
  std::vector<unsigned int> keys;
  for (int index = 0; index < 61; ++index) {
    keys.push_back(freshKey());
    mutexes.push_back(mutexOf(keys.back()));
  }
  EXPECT_EQ(usage(), (Usage{1, 61, 61, 60}));
  EXPECT_EQ(slotCount(semaphoreOf(keys[59])), 1U);
  EXPECT_EQ(slotCount(semaphoreOf(keys[60])), 0U);
  unsigned int state = 0;
  EXPECT_EQ(KesOsMutexWait(mutexes[60], 0, &state), 1);
  EXPECT_EQ(state, 1U);
  EXPECT_EQ(valueOf(keys[60]), 0);
  EXPECT_EQ(KesOsMutexRelease(mutexes[60]), 1);
  EXPECT_EQ(KesOsMutexClose(mutexes[60]), 1);
  EXPECT_EQ(semaphoreOf(keys[60]), -1) << "nobody counts its users, so the first close removes it";
  EXPECT_EQ(usage(), (Usage{1, 60, 61, 60})) << "its reference was counted and is not taken back";
  mutexes.pop_back();
  for (KesOsMutex* mutex : mutexes) EXPECT_EQ(KesOsMutexClose(mutex), 1);
  EXPECT_THAT(usageTable(), IsEmpty());
  for (const unsigned int key : keys) EXPECT_EQ(semaphoreOf(key), -1);
}

TEST_F(UsageTableTest, ASemaphoreThatTheTableLostIsRemovedByItsClose) {
  const unsigned int key = freshKey();
  KesOsMutex* mutex = mutexOf(key);
  perl("my $id = shmget(32777, 0, 0); shmwrite($id, pack(\"L2\", 0xFFFFFFFF, 0), 20, 8) or die;");
  EXPECT_EQ(KesOsMutexClose(mutex), 1);
  EXPECT_EQ(semaphoreOf(key), -1);
  EXPECT_THAT(usageTable(), IsEmpty());
}

TEST_F(UsageTableTest, AnUntrackedSemaphoreThatIsGoneMakesItsCloseFail) {
  const unsigned int key = freshKey();
  const ChildResult result = inChild([key] {
    KesOsMutex* mutex = mutexOf(key);
    perl(
        "my $id = shmget(32777, 0, 0); shmwrite($id, pack(\"L2\", 0xFFFFFFFF, 0), 20, 8) or die;"
        "semctl(semget(" +
        std::to_string(key) + ", 0, 0), 0, IPC_RMID, 0) or die;");
    return KesOsMutexClose(mutex);
  });
  EXPECT_EQ(result.exitCode(), 0);
  EXPECT_EQ(usage(), (Usage{1, 1, 1, 1})) << "the close took nothing back";
  perl("shmctl(shmget(32777, 0, 0), IPC_RMID, 0) or die;");
}

TEST_F(UsageTableTest, AStaleTableWithoutHandlesIsClearedByTheNextUser) {
  perl("my $id = shmget(32777, 500, 0666 | " + std::to_string(IPC_CREAT) +
       ");"
       "shmwrite($id, pack(\"L9\", 0, 4, 0, 9, 2, 77, 3, 78, 1), 0, 36) or die;");
  const unsigned int key = freshKey();
  KesOsMutex* mutex = mutexOf(key);
  EXPECT_EQ(usageTable(), table({5, 1, 1, 2}, {{semaphoreOf(key), 1}}));
  KesOsMutexClose(mutex);
  EXPECT_THAT(usageTable(), IsEmpty()) << "attachments count, not the word";
}

TEST_F(UsageTableTest, AStaleTableWithHandlesIsKept) {
  perl("my $id = shmget(32777, 500, 0666 | " + std::to_string(IPC_CREAT) +
       ");"
       "shmwrite($id, pack(\"L7\", 0, 1, 1, 1, 1, 0x7ffffff0, 1), 0, 28) or die;");
  const unsigned int key = freshKey();
  KesOsMutex* mutex = mutexOf(key);
  const auto words = usageTable();
  EXPECT_EQ(usage(), (Usage{2, 2, 2, 1}));
  EXPECT_EQ(words[5], 0x7ffffff0U);
  EXPECT_EQ(words[7], 0U) << "never marked free, so the semaphore is not tracked";
  KesOsMutexClose(mutex);
}

TEST_F(UsageTableTest, ATableOfAnotherSizeIsRefused) {
  perl("shmget(32777, 64, 0666 | " + std::to_string(IPC_CREAT) + ") // die;");
  const unsigned int key = freshKey();
  KesOsMutex* mutex = nullptr;
  EXPECT_EQ(KesOsMutexCreate(&mutex, key), 0);
  EXPECT_EQ(mutex, nullptr);
  EXPECT_EQ(semaphoreOf(key), -1) << "what was created is removed again";
  EXPECT_EQ(shell("ipcs -m | awk '$1 == \"0x00008009\" {print $5, $6}'"), "64 0") << "not ours to remove";
  perl("shmctl(shmget(32777, 0, 0), IPC_RMID, 0) or die;");
}

TEST_F(UsageTableTest, ACreateThatFailsHalfWayLeavesNothing) {
  const auto tryCreate = [](Call call, int error, const Which& which = once) {
    const unsigned int key = freshKey();
    KesOsMutex* mutex = nullptr;
    {
      const Refuse refused(call, error, which);
      EXPECT_EQ(KesOsMutexCreate(&mutex, key), 0);
    }
    EXPECT_EQ(mutex, nullptr);
    EXPECT_EQ(semaphoreOf(key), -1);
    EXPECT_FALSE(tableExists());
  };
  tryCreate(Call::semget, ENOSPC);
  tryCreate(Call::semget, EACCES);
  tryCreate(Call::semctl, EPERM, {.times = 1, .option = SETVAL});
  tryCreate(Call::shmget, ENOSPC);
  tryCreate(Call::shmat, ENOMEM);
  tryCreate(Call::shmctl, EPERM, {.times = 1, .option = IPC_STAT});
  KesOsSetIpcPerms(0600, 0, 0xFFFFFFFF);
  tryCreate(Call::semctl, EPERM, {.times = 1, .option = IPC_SET});
  tryCreate(Call::shmctl, EPERM, {.times = 1, .option = IPC_SET});
}

TEST_F(UsageTableTest, AnOpenWithoutATableSaysSoAndFails) {
  const unsigned int key = freshKey();
  perl("semget(" + std::to_string(key) + ", 1, 0666 | " + std::to_string(IPC_CREAT) + ") // die;");
  const int id = semaphoreOf(key);
  for (const char tag : {'M', 'E'}) {
    const ChildResult result = inChild([=] {
      std::printf("FATAL KesOsOpen%c(%d): pstLog is not created (pid=%d tid=%llu)\n", tag, id, ::getpid(),
                  static_cast<unsigned long long>(::gettid()));
      KesOsMutex* mutex = nullptr;
      KesOsEvent* event = nullptr;
      const Refuse refused(Call::shmget, ENOSPC, once);
      return tag == 'M' ? KesOsMutexOpen(&mutex, key) : KesOsEventOpen(&event, key);
    });
    EXPECT_EQ(result.exitCode(), 0);
    EXPECT_EQ(result.err, result.out);
  }
  EXPECT_EQ(semaphoreOf(key), id) << "another one's semaphore is left alone";
  perl("semctl(" + std::to_string(id) + ", 0, IPC_RMID, 0) or die;");
}

TEST_F(UsageTableTest, AnOpenWithoutATableSaysWhyAlthoughItsMessageIsLost) {
  const unsigned int key = freshKey();
  KesOsMutex* mutex = mutexOf(key);
  const ChildResult result = inChild([key] {
    KesOsMutex* opened = nullptr;
    ::close(STDERR_FILENO);
    const Refuse refused(Call::shmget, ENOSPC, once);
    return KesOsMutexOpen(&opened, key) == 0 && errno == ENOSPC ? 0 : 1;
  });
  EXPECT_EQ(result.exitCode(), 0);
  EXPECT_EQ(KesOsMutexClose(mutex), 1);
}

TEST_F(UsageTableTest, NewObjectsGetTheModeAndOwnerThatWereSet) {
  const auto listed = [](const std::string& what, const std::string& key) {
    const std::string id = shell("ipcs " + what + " | awk '$1 == \"" + key + "\" {print $2}'");
    return shell("ipcs " + what + " -c | awk '$1 == \"" + id + "\" {print $2, $5, $6}'");
  };
  if (::geteuid() != 0) GTEST_SKIP() << "only root gives objects away";
  KesOsSetIpcPerms(0640, 65534, 0xFFFFFFFE);
  KesOsMutex* mutex = mutexOf(0x4b4b4b4b);
  EXPECT_EQ(listed("-s", "0x4b4b4b4b"), "640 nobody root");
  EXPECT_EQ(listed("-m", "0x00008009"), "640 nobody root");
  KesOsMutexClose(mutex);
  KesOsSetIpcPerms(0604, 0xFFFFFFFF, 65534);
  mutex = mutexOf(0x4b4b4b4b);
  EXPECT_EQ(listed("-s", "0x4b4b4b4b"), "604 root nogroup");
  KesOsMutexClose(mutex);
}

TEST_F(UsageTableTest, ATableThatWeMayNotAttachMakesAnOpenFail) {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to have two users";
  const unsigned int key = freshKey();
  const Shared<std::atomic<bool>> done;
  const pid_t owner = startProcess([&] {
    KesOsSetIpcPerms(0600, 0xFFFFFFFF, 0xFFFFFFFF);
    KesOsMutex* mutex = mutexOf(key);
    if (!eventually([&] { return done->load(); })) return 1;
    if (!(usage() == Usage{1, 1, 1, 1})) return 2;
    return KesOsMutexClose(mutex) == 1 ? 0 : 3;
  });
  ASSERT_TRUE(eventually([key] { return slotCount(semaphoreOf(key)) == 1; }));
  const ChildResult result = asNobody([key] {
    KesOsMutex* opened = nullptr;
    return KesOsMutexOpen(&opened, key) == 0 && opened == nullptr ? 0 : 1;
  });
  EXPECT_EQ(result.exitCode(), 0);
  EXPECT_THAT(result.err, testing::StartsWith("FATAL KesOsOpenM("));
  *done = true;
  EXPECT_EQ(waitForProcess(owner), 0);
  EXPECT_FALSE(tableExists());
}

TEST_F(UsageTableTest, AnExhaustedSystemMakesCreatesFailAndNothingElse) {
  const ChildResult result = inChild([] {
    const bool own = ::unshare(CLONE_NEWIPC) == 0;  // whose limits are nobody else's
    std::ofstream limits(own ? "/proc/sys/kernel/sem" : "");
    limits << "32000 1024000000 500 3" << std::flush;
    if (!limits) {
      std::cout << "cannot lower the limits here";
      return 77;
    }
    std::vector<KesOsMutex*> mutexes;
    KesOsMutex* mutex = nullptr;
    while (mutexes.size() < 10 && KesOsMutexCreate(&mutex, freshKey()) == 1) mutexes.push_back(mutex);
    if (mutexes.size() != 3 || mutex != nullptr || errno != ENOSPC) return 1;
    if (!(usage() == Usage{1, 3, 3, 3})) return 2;
    for (KesOsMutex* each : mutexes) {
      if (KesOsMutexClose(each) != 1) return 3;
    }
    return tableExists() ? 4 : 0;
  });
  if (result.exitCode() == 77) GTEST_SKIP() << result.out;
  EXPECT_EQ(result.exitCode(), 0) << result.err;
}

TEST_F(UsageTableTest, AStormOfCreatesAndClosesInOneProcessEndsClean) {
  const unsigned int keys[] = {freshKey(), freshKey(), freshKey()};
  const auto storm = [&keys](int index) {
    for (int round = 0; round < 300; ++round) {
      KesOsMutex* mutex = mutexOf(keys[(round + index) % 3]);
      if (KesOsMutexClose(mutex) != 1) return 1;
    }
    return 0;
  };
  EXPECT_THAT(runProcesses(1, storm), Each(0));
  EXPECT_THAT(usageTable(), IsEmpty());
  for (const unsigned int key : keys) EXPECT_EQ(semaphoreOf(key), -1);
}

TEST_F(UsageTableTest, AStormOfOpensAndClosesInSixteenProcessesLosesNoCount) {
  const unsigned int keys[] = {freshKey(), freshKey(), freshKey(), freshKey()};
  const Shared<std::atomic<bool>> ready;
  std::vector<pid_t> pids;
  for (int index = 0; index < 16; ++index) {
    pids.push_back(startProcess([&, index] {
      if (!eventually([&] { return ready->load(); })) return 1;
      for (int round = 0; round < 500; ++round) {
        KesOsMutex* mutex = nullptr;
        if (KesOsMutexOpen(&mutex, keys[(round + index) % 4]) != 1) return 2;
        if (KesOsMutexClose(mutex) != 1) return 3;
      }
      return 0;
    }));
  }
  std::vector<KesOsMutex*> mutexes;
  for (const unsigned int key : keys) mutexes.push_back(mutexOf(key));
  *ready = true;
  for (const pid_t pid : pids) EXPECT_EQ(waitForProcess(pid), 0);
  EXPECT_EQ(usage(), (Usage{1, 4, 4, 4}));
  for (const unsigned int key : keys) EXPECT_EQ(slotCount(semaphoreOf(key)), 1U);
  for (KesOsMutex* mutex : mutexes) EXPECT_EQ(KesOsMutexClose(mutex), 1);
  EXPECT_THAT(usageTable(), IsEmpty());
}

// Creating and closing at once may lose a race by design: then a create fails, a semaphore goes too soon, or
// a count stays too high and something outlives its last user. What must hold all the same: nobody crashes or
// hangs, and those who come later can use the keys and leave nothing. The first to come may have to take away
// the table, and only who starts with a new one takes away what it miscounted.
TEST_F(UsageTableTest, AStormOfCreatesAndClosesInSixteenProcessesLeavesNothingThatTheNextUsersCannotClear) {
  const unsigned int keys[] = {freshKey(), freshKey()};
  const auto storm = [&keys](int index) {
    for (int round = 0; round < 300; ++round) {
      KesOsMutex* mutex = nullptr;
      if (KesOsMutexCreate(&mutex, keys[(round + index) % 2]) == 1) KesOsMutexClose(mutex);
    }
    return 0;
  };
  EXPECT_THAT(runProcesses(16, storm), Each(0));
  for (int visit = 0; visit < 2; ++visit) {
    for (const unsigned int key : keys) {
      KesOsMutex* mutex = mutexOf(key);
      unsigned int state = 0;
      EXPECT_EQ(KesOsMutexWait(mutex, 0, &state), 1);
      EXPECT_EQ(state, 1U);
      EXPECT_EQ(KesOsMutexRelease(mutex), 1);
      EXPECT_EQ(KesOsMutexClose(mutex), 1);
    }
  }
  EXPECT_THAT(usageTable(), IsEmpty());
  for (const unsigned int key : keys) EXPECT_EQ(semaphoreOf(key), -1);
}

}  // namespace
