// Forks of other threads while the library is in a call of the C library that keeps a lock to itself.
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <optional>
#include <string>
#include <thread>

#include "kespal/Locale.h"
#include "kespal/kespal.h"
#include "kespal/proc/Env.h"
#include "support/Calls.h"
#include "support/Eventually.h"
#include "support/ForkedChild.h"
#include "support/Sanitizer.h"

namespace kes {
namespace {

using test::Before;
using test::Call;

bool isAsleep(pid_t thread) {
  std::ifstream stat("/proc/self/task/" + std::to_string(thread) + "/stat");
  std::string line;
  return std::getline(stat, line) && line.compare(line.rfind(')') + 1, 3, " S ") == 0;
}

/// A thread that forks; the child uses the library once more.
class Forking {
 public:
  explicit Forking(const std::function<void()>& use)
      : thread_([this, use] {
          number_ = ::gettid();
          const pid_t child = ::fork();
          if (child == 0) {
            ::alarm(120);
            use();
            ::_exit(0);
          }
          hasForked_ = true;
          ::waitpid(child, &status_, 0);
        }) {}
  ~Forking() { end(); }
  Forking(const Forking&) = delete;
  Forking& operator=(const Forking&) = delete;

  bool waits() const {
    test::eventually([this] { return hasForked_ || (number_ != 0 && isAsleep(number_)); });
    return !hasForked_;
  }
  int end() {
    if (thread_.joinable()) thread_.join();
    return status_;
  }

 private:
  std::atomic<pid_t> number_{0};
  std::atomic<bool> hasForked_{false};
  int status_ = -1;
  std::thread thread_;
};

class NoForkTest : public testing::Test {
 protected:
  void SetUp() override {
    KES_SKIP_UNDER_SANITIZERS("has locks of its own, which a fork leaves to the child");
  }

  /// In a child, as it changes locale and environment.
  static void expectForksToWait(Call call, const std::function<void()>& use) {
    const auto result = test::inChild([&] {
      std::optional<Forking> other;
      bool waited = false;
      {
        const Before inside(call, [&] {
          other.emplace(use);
          waited = other->waits();
        });
        use();
      }
      if (!other) return 1;
      return other->end() != 0 ? 2 : waited ? 0 : 3;
    });
    EXPECT_EQ(result.exitCode(), 0) << result.err;
  }
};

TEST_F(NoForkTest, AForkWaitsUntilTheLocaleIsChosen) {
  expectForksToWait(Call::setlocale, [] { Locale::init(Locale::English); });
}

TEST_F(NoForkTest, AForkWaitsUntilTheTimeZoneIsRead) {
  expectForksToWait(Call::tzset, [] { const KesPal runtime(false, false, Locale::System, nullptr); });
}

TEST_F(NoForkTest, AForkWaitsUntilAVariableIsSet) {
  expectForksToWait(Call::setenv, [] { proc::Env::set("KES_TEST_FORK", "value"); });
}

TEST_F(NoForkTest, AForkWaitsUntilAVariableIsDeleted) {
  expectForksToWait(Call::unsetenv, [] { proc::Env::del("KES_TEST_FORK"); });
}

TEST_F(NoForkTest, AForkInTheMiddleOfTheCallByItsOwnThreadDoesNotWaitForItself) {
  const auto result = test::inChild([] {
    int status = -1;
    {
      const Before inside(Call::setenv, [&status] {
        const pid_t child = ::fork();
        if (child == 0) ::_exit(0);
        ::waitpid(child, &status, 0);
      });
      ::alarm(120);
      proc::Env::set("KES_TEST_FORK", "value");
    }
    return status;
  });
  EXPECT_EQ(result.exitCode(), 0) << result.err;
}

}  // namespace
}  // namespace kes
