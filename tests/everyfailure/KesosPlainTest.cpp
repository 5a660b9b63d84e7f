#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>

#include "everyfailure/Flat.h"
#include "kesos/kesos.h"
#include "support/Pty.h"
#include "sys/AtEnd.h"

// Strings, time, console and threads of the flat layer.

namespace kes::test {
namespace {

TEST(EveryFailureOfTheFlatLayer, StringsNeverFail) {
  expectSurvival({.operations = {"sprintf_kes", "strcpy_kes", "strncpy_kes", "strcat_kes", "strncat_kes",
                                 "strlen_kes", "strclear", "strupr", "strlwr"},
                  .play = [](Stage& stage) {
                    char text[16] = "before";
                    int length = 0;
                    stage.act([&] {
                      length = sprintf_kes(text, sizeof text, "%d of %s", 7, "many and more");
                      return length >= 0;
                    });
                    stage.check(std::memchr(text, '\0', sizeof text) != nullptr, "the text has an end");
                    stage.check(length == 18 || length == static_cast<int>(std::strlen(text)),
                                "the length is of one");
                    stage.act([&] {
                      return strcpy_kes(text, sizeof text, "abc") == text &&
                             strcat_kes(text, sizeof text, "DEF") == text &&
                             strncat_kes(text, sizeof text, "gh", 2) == text && strupr(text) == text &&
                             strlwr(text) == text && strncpy_kes(text, sizeof text, text + 6, 1) == text &&
                             strlen_kes(text, 3) == 1;
                    });
                    stage.check(std::strcmp(text, "g") == 0, "they do what they say");
                    strclear(text);
                  }});
}

TEST(EveryFailureOfTheFlatLayer, TimePassesWithoutAClock) {
  expectSurvival({.operations = {"KesOsInit", "KesOsGetUpTime", "KesOsGetTimeInmSec", "KesOsGetTimeInSec",
                                 "KesOsSetSystemUp", "KesOsSetShutdown", "KesOsGetSystemUp"},
                  .play =
                      [](Stage& stage) {
                        stage.act([] {
                          KesOsInit();
                          static_cast<void>(KesOsGetTimeInmSec());
                          static_cast<void>(KesOsGetTimeInSec());
                          return KesOsGetUpTime() < 100;
                        });
                        stage.act([] {
                          KesOsSetShutdown();
                          const bool isDown = KesOsGetSystemUp() == 0;
                          KesOsSetSystemUp();
                          return isDown && KesOsGetSystemUp() == 1;
                        });
                        stage.check(KesOsGetUpTime() < 100, "the count starts when there is a clock");
                      },
                  .misused = {Call::clock_gettime, Call::gettimeofday}});
}

TEST(EveryFailureOfTheFlatLayer, ASleepIsASleepAcrossSignals) {
  expectSurvival({.operations = {"KesOsSleep"}, .play = [](Stage& stage) {
                    const unsigned int before = KesOsGetTimeInmSec();
                    stage.act([] { KesOsSleep(2); });
                    const bool isCut =
                        stage.isRefused(Call::nanosleep) && !stage.isRefused(Call::nanosleep, EINTR);
                    stage.check(isCut || KesOsGetTimeInmSec() - before >= 1, "the time has passed");
                  }});
}

/// A terminal as standard input, with a key typed.
class Keyboard {
 public:
  Keyboard() {
    std::setvbuf(stdin, nullptr, _IONBF, 0);
    ::dup2(pty_.terminal(), STDIN_FILENO);
    pty_.type("kk");
  }
  bool isAsBefore(const termios& before) const {
    const termios now = pty_.attributes();
    return now.c_lflag == before.c_lflag && now.c_cc[VMIN] == before.c_cc[VMIN];
  }
  termios attributes() const { return pty_.attributes(); }

 private:
  Pty pty_;
};

TEST(EveryFailureOfTheFlatLayer, AKeyIsReadAndTheTerminalIsAsBefore) {
  expectSurvival({.operations = {"KesOsGetCh", "KesOsGetChNoWait"}, .play = [](Stage& stage) {
                    const Keyboard keyboard;
                    const termios before = keyboard.attributes();
                    // Who cannot switch the terminal for good cannot switch it back.
                    const auto check = [&] {
                      const bool isStuck =
                          stage.isRefused(Call::tcsetattr) && !stage.isRefused(Call::tcsetattr, EINTR);
                      stage.check(isStuck || keyboard.isAsBefore(before), "the terminal is as it was");
                    };
                    const sys::AtEnd checking(check);
                    int key = 0;
                    stage.act([&] {
                      key = KesOsGetChNoWait(0);
                      return key == 'k';
                    });
                    stage.check(key == 'k' || key == 0 || key == 1 || key == -1, "no other code is given");
                    check();
                    stage.act([&] {
                      key = KesOsGetCh(0);
                      return key == 'k';
                    });
                    stage.check(key == 'k' || key == -1, "no other code is given");
                    check();
                  }});
}

std::atomic<int> runs{0};

void* countRuns(void*) {
  ++runs;
  return nullptr;
}

void* endWith(void* name) {
  KesOsThreadSetName(static_cast<const char*>(name));
  ++runs;
  KesOsThreadEnd();
  return nullptr;
}

void awaitRuns(Stage& stage, int wanted) {
  for (int tries = 0; runs < wanted && tries < 2000; ++tries) ::usleep(1000);
  stage.check(runs == wanted, "so many threads have run");
}

TEST(EveryFailureOfTheFlatLayer, ThreadsBeginOrSayThatTheyDoNot) {
  expectSurvival(
      {.operations = {"KesOsThreadBegin", "KesOsThreadStart", "KesOsThreadEnd", "KesOsThreadSetName"},
       .play = [](Stage& stage) {
         runs = 0;
         int begun = 0;
         pthread_t thread{};
         char name[] = "flat";
         begun += stage.act([&] { return KesOsThreadBegin(&thread, endWith, 0, name) == 1; }) ? 1 : 0;
         stage.check(stage.succeeded() == (thread != pthread_t{}), "there is a handle with a thread");
         awaitRuns(stage, begun);
         unsigned int state = 0;
         begun +=
             stage.act([&] { return KesOsThreadStart(nullptr, &state, countRuns, nullptr) == 1; }) ? 1 : 0;
         stage.check(state == (stage.succeeded() ? 1U : 0U), "the state word says whether it runs");
         awaitRuns(stage, begun);
       }});
}

void* watchState(void* state) {
  auto* word = static_cast<unsigned int*>(state);
  while (__atomic_load_n(word, __ATOMIC_ACQUIRE) != 3) ::usleep(200);
  __atomic_store_n(word, 0, __ATOMIC_RELEASE);
  return nullptr;
}

void* sleepOn(void*) {
  for (;;) ::usleep(1000);
}

TEST(EveryFailureOfTheFlatLayer, ThreadsAreStoppedOrCancelled) {
  expectSurvival({.operations = {"KesOsThreadStop", "KesOsThreadCancel"}, .play = [](Stage& stage) {
                    static unsigned int state = 0;
                    state = 0;
                    if (KesOsThreadStart(nullptr, &state, watchState, &state) != 1) return;
                    const sys::AtEnd stopping([] { __atomic_store_n(&state, 3U, __ATOMIC_RELEASE); });
                    stage.act([&] { return KesOsThreadStop(nullptr, &state, 100, nullptr, nullptr); });
                    pthread_t sleeper{};
                    if (KesOsThreadBegin(&sleeper, sleepOn, 0, nullptr) != 1) return;
                    const sys::AtEnd cancelling([&] { KesOsThreadCancel(&sleeper); });
                    stage.act([&] {
                      KesOsThreadCancel(&sleeper);
                      return sleeper == pthread_t{};
                    });
                    stage.check(stage.succeeded() == (sleeper == pthread_t{}),
                                "the handle goes with the thread");
                  }});
}

void once() { ++runs; }

TEST(EveryFailureOfTheFlatLayer, OnceIsOnce) {
  expectSurvival({.operations = {"KesOsCallOnce", "KesOsGetDiskDescriptor", "KesOsSetIpcPerms"},
                  .play = [](Stage& stage) {
                    runs = 0;
                    stage.act([] { return KesOsCallOnce(once) == 1; });
                    stage.act([] { return KesOsCallOnce(once) == 1; });
                    stage.check(runs == 1, "it ran once");
                    stage.act([] {
                      KesOsSetIpcPerms(0666, 0xFFFFFFFF, 0xFFFFFFFF);
                      return KesOsGetDiskDescriptor() == 0;
                    });
                  }});
}

}  // namespace
}  // namespace kes::test
