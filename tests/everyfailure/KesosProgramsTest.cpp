#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <string>

#include "everyfailure/Flat.h"
#include "kesos/libraries.h"
#include "kesos/processes.h"
#include "sys/AtEnd.h"

// Processes and libraries of the flat layer.

namespace kes::test {
namespace {

void freeWords(char** words) {
  if (words == nullptr) return;
  for (char** word = words; *word != nullptr; ++word) std::free(*word);
  std::free(words);
}

TEST(EveryFailureOfFlatPrograms, ACommandLineIsTakenApartOrNot) {
  expectSurvival({.operations = {"parseProcessCommandline"}, .play = [](Stage& stage) {
                    char** words = nullptr;
                    int errnum = 0;
                    stage.act([&] {
                      words =
                          parseProcessCommandline("a program with \"a long argument in quotes, and more\"");
                      errnum = errno;
                      return words != nullptr;
                    });
                    stage.check(stage.succeeded() || errnum == ENOMEM, "it says why not");
                    freeWords(words);
                  }});
}

/// A handle whose child is ended when the play is left.
struct Waited {
  KesOsProcess* process = nullptr;
  Waited() = default;
  ~Waited() {
    if (process == nullptr) return;
    KesOsTerminateProcess(process);
    KesOsProcessWait(process, nullptr);
  }
  Waited(const Waited&) = delete;
  Waited& operator=(const Waited&) = delete;
};

TEST(EveryFailureOfFlatPrograms, AProgramIsStartedAskedForAndWaitedFor) {
  expectSurvival(
      {.operations = {"KesOsCreateProcessAsyn", "KesOsProcessIsRunning", "KesOsTerminateProcess",
                      "KesOsProcessWait"},
       .play = [](Stage& stage) {
         Waited waited;
         stage.act([&] { return KesOsCreateProcessAsyn("/bin/sleep 1000", 0, &waited.process) == 1; });
         stage.check(stage.succeeded() == (waited.process != nullptr), "there is a handle with a child");
         if (waited.process == nullptr) return;
         stage.act([&] { return KesOsProcessIsRunning(waited.process) == 1; });
         stage.act([&] { return KesOsTerminateProcess(waited.process) == 1; });
         KesOsTerminateProcess(waited.process);
         unsigned int code = 77;
         stage.act([&] { return KesOsProcessWait(waited.process, &code) == 1; });
         waited.process = nullptr;
         // Who could not wait has lost the handle, and with it the child.
         if (!stage.succeeded()) ::waitpid(-1, nullptr, 0);
       }});
}

TEST(EveryFailureOfFlatPrograms, AProgramThatIsNobodysIsStarted) {
  expectSurvival({.operations = {"KesOsCreateProcessAsyn"}, .play = [](Stage& stage) {
                    stage.act([] { return KesOsCreateProcessAsyn("true", 0, nullptr) == 1; });
                    if (stage.isRefused(Call::waitpid)) ::waitpid(-1, nullptr, 0);
                  }});
}

/// A child that ends by itself, and is waited for when the play is left; its handle is closed.
struct Held {
  KesOsProcess* process = nullptr;
  pid_t id = 0;
  Held() = default;
  ~Held() {
    const pid_t child = process != nullptr ? KesOsProcessId(process) : id;
    if (child > 0) ::waitpid(child, nullptr, 0);
    KesOsProcessClose(process);
  }
  Held(const Held&) = delete;
  Held& operator=(const Held&) = delete;
};

TEST(EveryFailureOfFlatPrograms, AProgramIsStartedWithOptionsOrSaysWhyNot) {
  expectSurvival(
      {.operations = {"KesOsCreateProcessAsynEx", "KesOsProcessWaitEx", "KesOsProcessId",
                      "KesOsProcessClose"},
       .play =
           [](Stage& stage) {
             const std::string folder = stage / "";
             const char* const environment[] = {"NAME=value", nullptr};
             KesOsProcessOptions options = KESOS_PROCESS_OPTIONS;
             options.environment = environment;
             options.directory = folder.c_str();
             options.standardOutput = options.standardError = STDERR_FILENO;
             Held held;
             flat(stage, [&] { return KesOsCreateProcessAsynEx("true", &options, &held.process); });
             stage.check(stage.succeeded() == (held.process != nullptr), "there is a handle with a child");
             if (held.process == nullptr) return;
             held.id = KesOsProcessId(held.process);
             unsigned int code = 77;
             int signal = 77;
             flat(stage, [&] { return KesOsProcessWaitEx(held.process, 10'000, &code, &signal); });
             // A file that the system takes for no program is given to the shell, which makes nothing of this
             // one.
             const bool isScript = stage.isRefused(Call::execve, ENOEXEC);
             stage.check(!stage.succeeded() || isScript || (code == 0 && signal == 0), "it has ended well");
             stage.act([&] { return KesOsProcessClose(held.process) == 1; });
             if (stage.succeeded()) held.process = nullptr;
           },
       .spared = {Call::stat}});  // a program that cannot be looked at is not found
}

TEST(EveryFailureOfFlatPrograms, AShellRunsOrDoesNot) {
  expectSurvival({.operations = {"KesOsCreateProcess", "KesOsCreateProcessSw", "KesOsCreateProcessEx"},
                  .play =
                      [](Stage& stage) {
                        KesOsCreateProcess("true");
                        stage.settle();  // with the collector
                        int code = 77;
                        stage.act([&] { return KesOsCreateProcessEx("true", 0, &code) == 1; });
                        stage.check(stage.succeeded() == (code == 0), "the code says so, too");
                      },
                  // That the system knows of no child while there is one is the collector's to be tried with.
                  .spared = {Call::waitid, Call::waitpid}});
}

TEST(EveryFailureOfFlatPrograms, ADescriptorIsClosed) {
  expectSurvival({.operations = {"KesOsCloseHdl"}, .play = [](Stage& stage) {
                    const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
                    const sys::AtEnd closing([fd] { ::close(fd); });
                    flat(stage, [fd] { return KesOsCloseHdl(fd); });
                  }});
}

TEST(EveryFailureOfFlatPrograms, ALibraryIsLoadedAndGivenBack) {
  expectSurvival(
      {.operations = {"KesOsDlLoad", "KesOsDlLoadEx", "KesOsDlGetAddr", "KesOsDlGetAddrEx", "KesOsDlFree"},
       .play = [](Stage& stage) {
         void* library = nullptr;
         const char* error = nullptr;
         stage.act([&] {
           library = KesOsDlLoadEx("libm.so.6", &error);
           return library != nullptr;
         });
         if (library == nullptr) return;
         void* address = nullptr;
         stage.act([&] {
           address = KesOsDlGetAddrEx(library, "cos", &error);
           return address != nullptr;
         });
         stage.act([&] { return KesOsDlFree(library) == 1; });
       }});
}

}  // namespace
}  // namespace kes::test
