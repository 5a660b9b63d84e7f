#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <functional>
#include <future>
#include <sstream>
#include <string>

#include "kespal/proc/Child.h"
#include "kespal/time/Clock.h"
#include "support/TempDir.h"

namespace kes::proc {

class ChildTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { time::ClockBase::init(); }
  void TearDown() override { Child::exit(); }
};

/// Runs a shell command to its end with its output in a file; the file's content.
inline std::string outputOf(
    const std::string& command, const std::function<void(Child&)>& setUp = [](Child&) {}) {
  const test::TempDir dir;
  const int out = ::open((dir / "out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  Child child({"/bin/sh", "-c", command});
  child.setStdout(out);
  setUp(child);
  child.create(false);
  child.wait(false, {});
  ::close(out);
  return test::readFile(dir / "out");
}

inline std::string text(const Child::ExitState& state) {
  std::ostringstream stream;
  stream << state;
  return stream.str();
}

/// The text and the site of the error that an operation raises, which has to be of this class.
template <typename Error>
std::string errorOf(const std::function<void()>& operation) {
  try {
    operation();
  } catch (const Error& error) {
    return error.text() + " @ " + error.file() + ':' + std::to_string(error.line()) + ' ' + error.function();
  }
  return "nothing was raised";
}

/// Waits until it is told of a child's end.
struct Notified : Child::Notification {
  void exited(Child& child) override { ended.set_value(&child); }
  std::promise<Child*> ended;
};

}  // namespace kes::proc
