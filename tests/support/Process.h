#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace kes::test {

/// A program that runs beside the test: its output is collected while the test waits for something, and it
/// is killed at the latest with the object. Every wait has a generous limit, after which it fails.
class Process {
 public:
  static constexpr int collected = -1;  ///< a pipe that this object reads
  static constexpr int nothing = -2;    ///< /dev/null
  static constexpr int closed = -3;     ///< no such descriptor at all

  struct Setup {
    int in = nothing;
    int out = collected;
    int err = collected;
    bool isSessionLeader = false;  ///< of a session of its own, `in` being its terminal
    bool isMerged = false;         ///< what goes to standard error is collected with the output, in order
    std::vector<std::string> environment{};  ///< NAME=value, added to this process's own
  };

  explicit Process(const std::vector<std::string>& command) : Process(command, Setup()) {}
  Process(const std::vector<std::string>& command, const Setup& setup);
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  pid_t pid() const { return pid_; }
  void signal(int number) const;

  /// Waits until the text was written; false when the process ended or closed its end without it.
  bool waitForOut(const std::string& text) { return waitFor(out_, text); }
  bool waitForErr(const std::string& text) { return waitFor(err_, text); }
  /// Waits for the end and for all output; the exit code, or minus the number of the signal that ended it.
  int wait();

  const std::string& out() const { return out_.text; }
  const std::string& err() const { return err_.text; }

 private:
  struct Stream {
    int fd = -1;
    std::string text{};
  };

  bool waitFor(const Stream& stream, const std::string& text);
  /// Takes what can be read within a moment; false when all streams have ended.
  bool collect();

  pid_t pid_ = -1;
  Stream out_, err_;
};

/// A pipe whose ends the test gives away or closes by itself; what is left open is closed with it.
struct TestPipe {
  TestPipe();
  ~TestPipe();
  TestPipe(const TestPipe&) = delete;
  TestPipe& operator=(const TestPipe&) = delete;

  void write(const std::string& text) const;
  void closeReader();
  void closeWriter();

  int reader = -1;
  int writer = -1;
};

}  // namespace kes::test
