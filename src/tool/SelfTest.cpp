#include "SelfTest.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>

#include "Console.h"
#include "DriverCalls.h"
#include "client/Records.h"
#include "kesos/kesos.h"

unsigned char t1running = 0;
unsigned char t1stop = 0;

namespace {

constexpr std::size_t bufferSize = 40960;

bool isSet(const unsigned char& flag) { return __atomic_load_n(&flag, __ATOMIC_ACQUIRE) != 0; }
void set(unsigned char& flag, unsigned char value) { __atomic_store_n(&flag, value, __ATOMIC_RELEASE); }

void awaitRunning(bool wanted) {
  while (isSet(t1running) != wanted) KesOsSleep(1);
}

void readOnce(unsigned int connect) {
  const auto buffer = std::make_unique<unsigned char[]>(bufferSize);
  std::size_t count = kes::client::packetCapacity;
  const kern_return_t result = CallGetPacket(connect, buffer.get(), count);
  if (result != KERN_SUCCESS) {
    std::fprintf(stderr, "Read returned 0x%08x.\n\n", static_cast<unsigned>(result));
  } else {
    Print("Read was successful, outSize=%ld.\n", static_cast<long>(count));
  }
}

}  // namespace

void* tfunc1(void* connect) {
  std::fputs("   thread running\n", stderr);
  set(t1running, 1);
  while (!isSet(t1stop)) readOnce(static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(connect)));
  std::fputs("   thread terminated\n", stderr);
  set(t1running, 0);
  return nullptr;
}

void DoTesting(unsigned int connect) {
  pthread_t thread;
  set(t1stop, 0);
  // NOLINTNEXTLINE(performance-no-int-to-ptr): the value of the argument is the connection
  if (KesOsThreadBegin(&thread, tfunc1, 0, reinterpret_cast<void*>(std::uintptr_t{connect})) == 0) return;
  std::fputs("waiting for threads to start\n", stderr);
  awaitRunning(true);
  std::fputs("ok threads running\n", stderr);
  for (const unsigned int pause : {2000U, 500U, 500U}) KesOsSleep(pause);
  std::fputs("waiting for threads to stop\n", stderr);
  set(t1stop, 1);
  awaitRunning(false);
  std::fputs("threads stopped\n", stderr);
}
