#include "kespal/Backtrace.h"

#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <thread>

#include "kespal/error/StaticError.h"
#include "support/Calls.h"
#include "support/ForkedChild.h"
#include "support/NoMemory.h"
#include "support/Sanitizer.h"

// What the library asks the platform for; tests say what comes back.
namespace {

using kes::test::Call;
using kes::test::Instead;
using kes::test::real;

int (*fakeBacktrace)(void** frames, int size) = nullptr;
char** (*fakeSymbols)(void* const* frames, int count) = nullptr;

bool isWhereTestsComeIn(void* frame) {
  Dl_info info{};
  return ::dladdr(frame, &info) != 0 && info.dli_sname != nullptr &&
         std::strcmp(info.dli_sname, "__wrap_backtrace") == 0;
}

// As if the library had called the platform itself: the frames that stand between are taken out.
const Instead<Call::backtrace> backtraceHere([](void** frames, int size) {
  if (fakeBacktrace != nullptr) return fakeBacktrace(frames, size);
  std::array<void*, 200> all;
  const auto end = all.begin() + real<Call::backtrace>(all.data(), 200);
  const auto begin = std::find_if(all.begin(), end, isWhereTestsComeIn) + 1;
  const auto count = std::min<std::ptrdiff_t>(size, end - begin);
  std::copy_n(begin, count, frames);
  return static_cast<int>(count);
});
const Instead<Call::backtrace_symbols> symbolsHere([](void* const* frames, int size) {
  return fakeSymbols != nullptr ? fakeSymbols(frames, size) : real<Call::backtrace_symbols>(frames, size);
});

}  // namespace

namespace kes::test {

// Not in an unnamed namespace: a frame has a name only where the program exports it.

[[gnu::noinline]] void raiseAnError(int depth) {
  if (depth > 0) {
    raiseAnError(depth - 1);
  } else {
    raiseAt(KES_HERE, UsageError("deep inside"));
  }
  asm volatile("");  // no tail call, or the frame is gone
}

[[gnu::noinline]] Backtrace captureBelow(int depth) {
  Backtrace trace = depth > 0 ? captureBelow(depth - 1) : Backtrace::get();
  asm volatile("" : : "r"(&trace));
  return trace;
}

}  // namespace kes::test

namespace kes {
namespace {

using test::captureBelow;
using test::inChild;
using testing::HasSubstr;

class BacktraceTest : public testing::Test {
 protected:
  ~BacktraceTest() override {
    fakeBacktrace = nullptr;
    fakeSymbols = nullptr;
    Exception::m_gen_backtraces = false;
  }
};

TEST_F(BacktraceTest, ItIsStoredOutermostFirstAndPrintedInnermostFirst) {
  const Backtrace trace{"main", "middle", "inner"};
  std::ostringstream stream;
  stream << trace;
  EXPECT_EQ(stream.str(), "inner\nmiddle\nmain\n");
}

TEST_F(BacktraceTest, AnEmptyOnePrintsNothing) {
  std::ostringstream stream;
  stream << Backtrace();
  EXPECT_EQ(stream.str(), "");
}

TEST_F(BacktraceTest, TheInnermostFrameIsTheCallersAndTheCaptureItselfIsNotStored) {
  const Backtrace trace = captureBelow(2);
  ASSERT_GE(trace.size(), 4U);
  for (std::size_t fromEnd = 1; fromEnd <= 3; ++fromEnd) {
    EXPECT_THAT(trace[trace.size() - fromEnd], HasSubstr("(kes::test::captureBelow(int)+0x"));
  }
  EXPECT_THAT(trace[trace.size() - 4], testing::Not(HasSubstr("captureBelow")));
  for (const std::string& line : trace) EXPECT_THAT(line, testing::Not(HasSubstr("Backtrace::get")));
}

TEST_F(BacktraceTest, AtMost127FramesAreStored) {
  const Backtrace trace = captureBelow(500);
  EXPECT_EQ(trace.size(), 127U);
  EXPECT_THAT(trace.back(), HasSubstr("captureBelow"));
  EXPECT_THAT(trace.front(), HasSubstr("captureBelow"));
}

TEST_F(BacktraceTest, AnErrorCarriesTheStackOfItsThrowSiteWithReadableNames) {
  Exception::m_gen_backtraces = true;
  try {
    test::raiseAnError(1);
  } catch (const UsageError& error) {
    const Backtrace& trace = error.backtrace();
    ASSERT_GE(trace.size(), 3U);
    EXPECT_THAT(trace.back(), HasSubstr("(kes::test::raiseAnError(int)+0x"));
    EXPECT_THAT(trace[trace.size() - 2], HasSubstr("(kes::test::raiseAnError(int)+0x"));
    EXPECT_THAT(trace[trace.size() - 3], testing::Not(HasSubstr("raise")));
    EXPECT_THAT(error.what(), HasSubstr("(raiseAnError)\"\n\nFunction call backtrace:\n\n" + trace.back()));
  }
}

// --- lines as the platform writes them

constexpr std::array platformLines = {
    "./prog(_ZN3kes8demangleERi+0x1d) [0x401101]",
    "./prog(main+0x1d) [0x401102]",
    "./prog(+0x1103) [0x401103]",
    "./prog() [0x401104]",
    "[0x401105]",
    "/opt/c++/prog() [0x401106]",
    "/opt/a(b)/prog(_ZN3kes8demangleERi+0x1d) [0x401107]",
    "./prog(_ZN3kes3addEN1AplE+0x1+0x2) [0x401108]",
    "2   prog    0x0000000000401109 _ZN3kes8demangleERi + 29",
    "",
};

/// The address of a frame that does not exist.
void* address(std::uintptr_t number) {
  return reinterpret_cast<void*>(number);  // NOLINT(performance-no-int-to-ptr): nothing lies there
}

/// As many frames as there are lines, after that of the capture; elsewhere than any other test's.
int framesForTheLines(void** frames, int) {
  for (std::size_t at = 0; at <= platformLines.size(); ++at) {
    frames[at] = address(0x1000 + at);
  }
  return static_cast<int>(platformLines.size()) + 1;
}

/// The platform's array: one block of memory that its caller frees.
char** symbolsFromTheLines(void* const* frames, int count) {
  auto** lines = static_cast<char**>(std::malloc(static_cast<std::size_t>(count) * (sizeof(char*) + 80)));
  char* text = reinterpret_cast<char*>(lines + count);
  for (int at = 0; at < count; ++at, text += 80) {
    const std::size_t number = reinterpret_cast<std::uintptr_t>(frames[at]) - 0x1000;
    lines[at] = std::strcpy(text, number == 0 ? "the capture" : platformLines[number - 1]);
  }
  return lines;
}

TEST_F(BacktraceTest, OnlyTheSymbolBetweenParenthesisAndPlusIsMadeReadable) {
  fakeBacktrace = framesForTheLines;
  fakeSymbols = symbolsFromTheLines;
  Backtrace trace = Backtrace::get();
  std::reverse(trace.begin(), trace.end());
  EXPECT_EQ(trace, (Backtrace{"./prog(kes::demangle(int&)+0x1d) [0x401101]", platformLines[1],
                              platformLines[2], platformLines[3], platformLines[4], platformLines[5],
                              platformLines[6], platformLines[7], platformLines[8], ""}));
}

TEST_F(BacktraceTest, TheSecondCaptureOfAStackIsTheSameWithoutAskingForNames) {
  fakeBacktrace = framesForTheLines;
  fakeSymbols = symbolsFromTheLines;
  const Backtrace first = Backtrace::get();
  const int calls = test::made(Call::backtrace_symbols);
  EXPECT_EQ(Backtrace::get(), first);
  EXPECT_EQ(test::made(Call::backtrace_symbols), calls);
}

TEST_F(BacktraceTest, AtMost128AddressesAreAskedForAndASingleOneIsNoStack) {
  static int size = 0;
  fakeBacktrace = [](void** frames, int room) {
    size = room;
    frames[0] = reinterpret_cast<void*>(0x1000);
    return 1;
  };
  EXPECT_TRUE(Backtrace::get().empty());
  EXPECT_EQ(size, 128);
}

TEST_F(BacktraceTest, ThePlatformGetsAllFramesInItsOwnOrderSinceItMayNumberThem) {
  static std::vector<void*> asked;
  fakeBacktrace = [](void** frames, int) {
    for (std::uintptr_t at = 0; at < 4; ++at) frames[at] = reinterpret_cast<void*>(0x2000 + at);
    return 4;
  };
  fakeSymbols = [](void* const* frames, int count) -> char** {
    asked.assign(frames, frames + count);
    return nullptr;
  };
  EXPECT_TRUE(Backtrace::get().empty());
  EXPECT_EQ(asked, (std::vector<void*>{reinterpret_cast<void*>(0x2000), reinterpret_cast<void*>(0x2001),
                                       reinterpret_cast<void*>(0x2002), reinterpret_cast<void*>(0x2003)}));
}

TEST_F(BacktraceTest, AStackThatCannotBeNamedIsEmptyAndNamedLaterAllTheSame) {
  fakeSymbols = [](void* const*, int) -> char** { return nullptr; };
  for (int attempt = 0; attempt < 2; ++attempt) {
    const Backtrace trace = captureBelow(0);
    if (attempt == 0) {
      EXPECT_TRUE(trace.empty());
    } else {
      EXPECT_THAT(trace.back(), HasSubstr("captureBelow"));
    }
    fakeSymbols = nullptr;
  }
}

TEST_F(BacktraceTest, ALineIsNotGivenToTheSameFrameInAnotherPlace) {
  static std::uintptr_t skipped = 0;
  fakeBacktrace = [](void** frames, int) {
    for (std::uintptr_t at = 0; at < 4; ++at) frames[at] = address(0x3000 + at + skipped);
    return 4;
  };
  // As macOS writes them: with the number that the frame has on its stack.
  fakeSymbols = [](void* const* frames, int count) {
    auto** lines = static_cast<char**>(std::malloc(static_cast<std::size_t>(count) * (sizeof(char*) + 32)));
    char* text = reinterpret_cast<char*>(lines + count);
    for (int at = 0; at < count; ++at, text += 32) {
      lines[at] = text;
      std::snprintf(text, 32, "%d %zx", at, reinterpret_cast<std::uintptr_t>(frames[at]));
    }
    return lines;
  };
  EXPECT_EQ(Backtrace::get(), (Backtrace{"3 3003", "2 3002", "1 3001"}));
  skipped = 1;
  EXPECT_EQ(Backtrace::get(), (Backtrace{"3 3004", "2 3003", "1 3002"}));
  skipped = 0;
  EXPECT_EQ(Backtrace::get(), (Backtrace{"3 3003", "2 3002", "1 3001"}));
}

TEST_F(BacktraceTest, WithoutMemoryItSaysSoAndTheNextOneIsWhole) {
  static std::uintptr_t place = 0x5000;
  fakeBacktrace = [](void** frames, int) {
    for (std::uintptr_t at = 0; at < 4; ++at) frames[at] = address(place + at);
    return 4;
  };
  fakeSymbols = [](void* const* frames, int count) {
    auto** lines = static_cast<char**>(std::malloc(static_cast<std::size_t>(count) * (sizeof(char*) + 80)));
    char* text = reinterpret_cast<char*>(lines + count);
    for (int at = 0; at < count; ++at, text += 80) {
      lines[at] = text;
      std::snprintf(text, 80, "/a/program/with/a/rather/long/path(+0x1) [0x%zx]",
                    reinterpret_cast<std::uintptr_t>(frames[at]));
    }
    return lines;
  };
  Backtrace trace;
  EXPECT_GT(test::starve([&] { trace = Backtrace::get(); }), 0U);
  EXPECT_EQ(trace, Backtrace::get());
  EXPECT_EQ(trace.back(), "/a/program/with/a/rather/long/path(+0x1) [0x5001]");
  EXPECT_EQ(trace.size(), 3U);
}

TEST_F(BacktraceTest, MoreStacksThanAreRememberedAreNamedAllTheSame) {
  static std::uintptr_t next = 0;
  fakeBacktrace = [](void** frames, int) {
    for (std::uintptr_t at = 0; at < 3; ++at) frames[at] = address(0x1000000 + next + at);
    return 3;
  };
  fakeSymbols = [](void* const* frames, int count) {
    auto** lines = static_cast<char**>(std::malloc(static_cast<std::size_t>(count) * (sizeof(char*) + 32)));
    char* text = reinterpret_cast<char*>(lines + count);
    for (int at = 0; at < count; ++at, text += 32) {
      lines[at] = text;
      std::snprintf(text, 32, "[0x%zx]", reinterpret_cast<std::uintptr_t>(frames[at]));
    }
    return lines;
  };
  for (next = 0; next < 40000; next += 2) {
    std::ostringstream outer;
    outer << "[0x" << std::hex << 0x1000000 + next + 2 << ']';
    ASSERT_EQ(Backtrace::get().front(), outer.str());
  }
}

// --- libraries that come and go

/// A library whose one function calls back; two of them differ in nothing but its name.
class Plugin {
 public:
  using Function = void (*)(void (*)(void*), void*);

  Plugin(const char* path, const char* name) : handle_(::dlopen(path, RTLD_NOW)) {
    if (handle_ != nullptr) function_ = reinterpret_cast<Function>(::dlsym(handle_, name));
  }
  ~Plugin() {
    if (handle_ != nullptr) ::dlclose(handle_);
  }
  Plugin(const Plugin&) = delete;
  Plugin& operator=(const Plugin&) = delete;

  Function function() const { return function_; }

  Backtrace capture() const {
    Backtrace trace;
    function_([](void* to) { *static_cast<Backtrace*>(to) = Backtrace::get(); }, &trace);
    return trace;
  }

 private:
  void* handle_;
  Function function_ = nullptr;
};

TEST_F(BacktraceTest, ALibraryInThePlaceOfAnUnloadedOneIsSeenUnderItsOwnName) {
  Plugin::Function place = nullptr;
  {
    const Plugin alpha(KES_PLUGIN_ALPHA, "kes_plugin_alpha");
    place = alpha.function();
    ASSERT_NE(place, nullptr);
    EXPECT_THAT(alpha.capture(), testing::Contains(HasSubstr("kes_plugin_alpha")));
    EXPECT_THAT(alpha.capture(), testing::Contains(HasSubstr("kes_plugin_alpha")));
  }
  const Plugin bravo(KES_PLUGIN_BRAVO, "kes_plugin_bravo");
  ASSERT_NE(bravo.function(), nullptr);
  const Backtrace trace = bravo.capture();
  EXPECT_THAT(trace, testing::Contains(HasSubstr("kes_plugin_bravo")));
  EXPECT_THAT(trace, testing::Not(testing::Contains(HasSubstr("kes_plugin_alpha"))));
  if (bravo.function() != place) GTEST_SKIP() << "the loader put the second library elsewhere";
}

// --- threads and forked children

/// Captures stacks in several threads as long as it lives.
class Capturers {
 public:
  Capturers() {
    for (std::thread& thread : threads_) {
      thread = std::thread([this] {
        for (int depth = 0; !stop_; depth = (depth + 1) % 40) {
          const Backtrace trace = captureBelow(depth);
          const auto own = std::count_if(trace.begin(), trace.end(), [](const std::string& line) {
            return line.find("captureBelow(int)") != line.npos;
          });
          if (own != depth + 1) wrong_ = true;
          ++captured_;
        }
      });
    }
  }
  ~Capturers() {
    stop_ = true;
    for (std::thread& thread : threads_) thread.join();
  }
  Capturers(const Capturers&) = delete;
  Capturers& operator=(const Capturers&) = delete;

  bool wrong() const { return wrong_; }
  int captured() const { return captured_; }

 private:
  std::atomic<bool> stop_{false}, wrong_{false};
  std::atomic<int> captured_{0};
  std::array<std::thread, 3> threads_;
};

TEST_F(BacktraceTest, ThreadsCaptureTheirStacksWhileLibrariesComeAndGo) {
  const Capturers capturers;
  for (int round = 0; round < 50 || capturers.captured() < 1000; ++round) {
    const Plugin alpha(KES_PLUGIN_ALPHA, "kes_plugin_alpha");
    ASSERT_THAT(alpha.capture(), testing::Contains(HasSubstr("kes_plugin_alpha")));
  }
  EXPECT_FALSE(capturers.wrong());
}

TEST_F(BacktraceTest, AChildForkedWhileOtherThreadsCaptureCanCaptureToo) {
  KES_SKIP_UNDER_SANITIZERS("allocates under locks that another thread of the parent may have held");
  const Capturers capturers;
  for (int round = 0; round < 100; ++round) {
    const test::ChildResult result = inChild([round] {
      ::alarm(120);
      return captureBelow(round % 40).empty() ? 1 : 0;
    });
    ASSERT_EQ(result.signal(), 0);
    ASSERT_EQ(result.exitCode(), 0);
  }
}

/// Loads and unloads a library in a thread as long as it lives.
class Loader {
 public:
  Loader() {
    thread_ = std::thread([this] {
      while (!stop_) {
        const Plugin alpha(KES_PLUGIN_ALPHA, "kes_plugin_alpha");
        ++loaded_;
      }
    });
    while (loaded_ == 0) std::this_thread::yield();
  }
  ~Loader() {
    stop_ = true;
    thread_.join();
  }
  Loader(const Loader&) = delete;
  Loader& operator=(const Loader&) = delete;

 private:
  std::atomic<bool> stop_{false};
  std::atomic<int> loaded_{0};
  std::thread thread_;
};

TEST_F(BacktraceTest, AChildForkedWhileAnotherThreadLoadsLibrariesCanCaptureToo) {
  KES_SKIP_UNDER_SANITIZERS("allocates under locks that another thread of the parent may have held");
  ASSERT_FALSE(captureBelow(3).empty());
  const Loader loader;
  for (int round = 0; round < 300; ++round) {
    const test::ChildResult result = inChild([] {
      ::alarm(120);
      for (int again = 0; again < 3; ++again) {
        const Backtrace trace = captureBelow(3);
        if (trace.empty() || trace.back().find("captureBelow(int)") == std::string::npos) return 1;
      }
      return 0;
    });
    ASSERT_EQ(result.signal(), 0) << round;
    ASSERT_EQ(result.exitCode(), 0) << round;
  }
}

int captureAndFork(int generations) {
  ::alarm(120);
  if (captureBelow(3).empty()) return 1;
  if (generations == 0) return 0;
  const test::ChildResult result = inChild([generations] { return captureAndFork(generations - 1); });
  return result.signal() != 0 ? 2 : result.exitCode();
}

TEST_F(BacktraceTest, TheChildrenOfForkedChildrenCanForkAndCaptureToo) {
  const test::ChildResult result = inChild([] { return captureAndFork(3); });
  EXPECT_EQ(result.signal(), 0);
  EXPECT_EQ(result.exitCode(), 0);
}

}  // namespace
}  // namespace kes
