#include "support/NoMemory.h"

#include <array>
#include <cerrno>
#include <functional>
#include <iostream>

#include "kesos/Ipc.h"
#include "kesos/kesos.h"
#include "support/Calls.h"
#include "support/ForkedChild.h"
#include "support/TempDir.h"

// What the flat functions do when there is no memory: they fail, and let no exception out.
namespace {

using namespace kes::test;

class NoMemoryTest : public IpcTest {};

struct Operation {
  const char* name;
  std::function<void()> call;
};

/// Starves each call at every allocation it makes; the number of those that let an exception out.
int offenders(const std::vector<Operation>& calls) {
  int count = 0;
  for (const auto& [name, call] : calls) {
    bool thrown = false;
    starve([&thrown, &starved = call] {
      try {
        starved();
      } catch (...) {
        thrown = true;
      }
    });
    if (thrown) std::cout << name << " let an exception out\n";
    count += thrown ? 1 : 0;
  }
  return count;
}

TEST_F(NoMemoryTest, AFailedSettingOfAnEventIsReportedInFull) {
  const unsigned int key = freshKey();
  KesOsEvent* event = eventOf(key);
  removeSemaphore(key);
  const ChildResult result = inChild([event] { return offenders({{"Set", [&] { KesOsEventSet(event); }}}); });
  EXPECT_EQ(result.exitCode(), 0) << result.out;
  EXPECT_THAT(result.err, testing::HasSubstr("semctl failed (22=Invalid argument pid="));
  EXPECT_EQ(KesOsEventClose(event), 1);
}

TEST_F(NoMemoryTest, TheFirstLookAtTheUpTimeLetsNothingOut) {
  const ChildResult result = inChild([] { return offenders({{"UpTime", [] { KesOsGetUpTime(); }}}); });
  EXPECT_EQ(result.exitCode(), 0) << result.out;
}

TEST_F(NoMemoryTest, MutexesEventsAndMappingsLetNothingOut) {
  const unsigned int key = freshKey();
  const ChildResult result = inChild([key] {
    return offenders({{"mutex",
                       [key] {
                         KesOsMutex* mutex = nullptr;
                         if (KesOsMutexCreate(&mutex, key) == 1) KesOsMutexClose(mutex);
                         if (KesOsMutexCreate(&mutex, 0) == 1) KesOsMutexClose(mutex);
                       }},
                      {"event",
                       [key] {
                         KesOsEvent* event = nullptr;
                         if (KesOsEventCreate(&event, key) == 1) KesOsEventClose(event);
                         if (KesOsEventCreate(&event, 0) == 1) KesOsEventClose(event);
                       }},
                      {"mapping", [key] {
                         KesOsMmf mapping;
                         const int made = KesOsMmfCreate(&mapping, 10, nullptr, static_cast<key_t>(key));
                         if (made == 1) KesOsMmfClose(&mapping);
                       }}});
  });
  EXPECT_EQ(result.exitCode(), 0) << result.out;
  EXPECT_FALSE(tableExists());
  EXPECT_EQ(semaphoreOf(key), -1);
}

TEST_F(NoMemoryTest, FilesLetNothingOut) {
  const TempDir dir;
  writeFile(dir / "file", "content");
  const ChildResult result = inChild([&dir] {
    const std::string top = dir / "t", below = dir / "t/a/b", from = dir / "file", to = dir / "to",
                      inTree = top + "/a/file";
    std::array<char, KESOS_PATH_SIZE> name{}, path{};
    return offenders(
        {{"copy", [&] { KesOsCopyFile(from.c_str(), to.c_str(), 0); }},
         {"tree",
          [&] {
            KesOsChkAndCreateDir(below.c_str());
            KesOsCopyFile(from.c_str(), inTree.c_str(), 0);
            KesOsDeleteDirTree(top.c_str());
          }},
         {"search",
          [&] {
            KesOsFind find;
            if (KesOsFindFirst(&find, dir.path().c_str(), name.data(), nullptr, nullptr, nullptr) == 1) {
              KesOsFindClose(&find);
            }
          }},
         {"module", [&] { KesOsGetModuleFileName(path.data(), path.size(), nullptr, 0, nullptr); }}});
  });
  EXPECT_EQ(result.exitCode(), 0) << result.out;
  EXPECT_EQ(KesOsFileExists((dir / "t").c_str()), 0);
}

TEST_F(NoMemoryTest, CommandLinesAndProgramsLetNothingOut) {
  const ChildResult result = inChild([] {
    const auto start = [] {
      KesOsProcess* process = nullptr;
      if (KesOsCreateProcessAsyn("true \"a long argument that needs memory\"", 0, &process) == 1) {
        KesOsProcessWait(process, nullptr);
      }
    };
    return offenders({{"start", start}});
  });
  EXPECT_EQ(result.exitCode(), 0) << result.out;
}

TEST_F(NoMemoryTest, ACommandLineThatCannotBeTakenApartGivesItsErrorNumber) {
  const NoMemory starving;
  EXPECT_EQ(parseProcessCommandline("a program with arguments"), nullptr);
  EXPECT_EQ(errno, ENOMEM);
}

TEST_F(NoMemoryTest, ACommandLineThatCannotBeTakenApartStartsNothing) {
  char other = 0;
  auto* process = reinterpret_cast<KesOsProcess*>(&other);
  const Refuse noText(Call::strdup, ENOMEM);
  EXPECT_EQ(KesOsCreateProcessAsyn("true", 0, &process), 0);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(process, nullptr);
  EXPECT_EQ(KesOsCreateProcessAsyn("true", 0, nullptr), 0);
  EXPECT_EQ(errno, ENOMEM);
}

}  // namespace
