#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kesos/events.h"
#include "kesos/mutexes.h"
#include "support/Eventually.h"

namespace kes::test {

/// Gives this process and its children System V objects of their own, once. Where that is not permitted it
/// says so, and the tests share the machine's objects; ctest lets only one of them run at a time then.
void enterPrivateIpc();

/// Tests that begin with enterPrivateIpc().
class IpcTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { enterPrivateIpc(); }
};

/// What another program says, run by the shell: its output without the last newline.
std::string shell(const std::string& command);
/// The same of a Perl program, which makes System V calls of its own. No apostrophes in it.
std::string perl(const std::string& program);

/// The usage table as a reader that shares nothing with it sees it: 125 words, or none without a table.
std::vector<std::uint32_t> usageTable();
/// The words that matter to a test: 1 to 4, and slots as id and count pairs for as many as are in use.
struct Usage {
  std::uint32_t processes, handles, references, slotsUsed;
  bool operator==(const Usage&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Usage& usage);
Usage usage();
bool tableExists();
/// Count of the slot that holds the semaphore; 0 when none does.
std::uint32_t slotCount(int semid);

/// The id of the semaphore with a key, -1 without one; its value.
int semaphoreOf(unsigned int key);
int valueOf(unsigned int key);
/// Another program removes the semaphore with a key.
void removeSemaphore(unsigned int key);
/// A Perl program, run as soon as somebody waits for the semaphore with a key, which it knows as $id.
void perlOnceSomebodyWaits(unsigned int key, const std::string& program);
/// The keys of all semaphores and segments, as ipcs lists them.
std::vector<std::string> listedKeys();

/// A key no other test run on this machine uses.
unsigned int freshKey();

/// A time-out that never comes.
constexpr unsigned int infinite = 0xFFFFFFFF;

/// A new mutex or event with that key.
KesOsMutex* mutexOf(unsigned int key);
KesOsEvent* eventOf(unsigned int key);

/// Runs `body` in that many processes at once; their exit codes, in order (128 and the signal for a killed
/// one).
std::vector<int> runProcesses(int count, const std::function<int(int index)>& body);
pid_t startProcess(const std::function<int()>& body);
int waitForProcess(pid_t pid);

/// While it lives, this process can have no descriptors from that number on.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(int limit);
  ~DescriptorLimit();
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;

 private:
  rlimit before_{};
};

/// Memory that this process and its children share, zero at first.
template <typename T>
class Shared {
 public:
  Shared();
  ~Shared();
  Shared(const Shared&) = delete;
  Shared& operator=(const Shared&) = delete;
  T& operator*() const { return *object_; }
  T* operator->() const { return object_; }

 private:
  T* object_;
};

void* mapShared(std::size_t size);
void unmapShared(void* address, std::size_t size);

template <typename T>
Shared<T>::Shared() : object_(new (mapShared(sizeof(T))) T{}) {}
template <typename T>
Shared<T>::~Shared() {
  unmapShared(object_, sizeof(T));
}

}  // namespace kes::test
