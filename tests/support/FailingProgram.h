#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "support/ProgramCalls.h"
#include "support/TempDir.h"

namespace kes::test {

/// What a run of a program is to suffer; nothing at first.
struct Suffering {
  Call call = Call::Last;
  int number = 0;
  int error = 0;
  bool isForGood = false;
  bool isShort = false;

  bool isOf(Call other) const { return call == other; }
};
std::string described(const Suffering& what);

/// A program that runs with a call of its refused (ProgramCalls.h). Its output goes to files.
class FailingProgram {
 public:
  /// `in` becomes its standard input, and its terminal if it is one.
  FailingProgram(const std::vector<std::string>& command, const Suffering& what, int in = -1);
  ~FailingProgram();
  FailingProgram(const FailingProgram&) = delete;
  FailingProgram& operator=(const FailingProgram&) = delete;

  /// Whether it has ended, within so many milliseconds.
  bool endsWithin(int ms);
  void signal(int number) const;
  /// Its exit code, or minus the signal that ended it; once it has ended.
  int code() const;
  std::string out() const { return readFile(dir_ / "out"); }
  std::string err() const { return readFile(dir_ / "err"); }

  int made(Call call) const { return calls_->made[static_cast<std::size_t>(call)]; }
  bool wasStruck() const { return calls_->struck > 0; }

 private:
  TempDir dir_;
  ProgramCalls* calls_;
  pid_t pid_ = -1;
  int status_ = 0;
};

/// Runs a program again and again, with each of its calls refused in turn: `run` starts it, judges it, and
/// says what is wrong, if anything; each complaint fails the test.
void sufferEverything(const std::function<std::string(FailingProgram&, const Suffering&)>& judge,
                      const std::function<std::unique_ptr<FailingProgram>(const Suffering&)>& start,
                      const std::vector<Call>& spared = {});

}  // namespace kes::test
