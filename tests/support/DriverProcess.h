#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "support/TempDir.h"

namespace kes::test {

/// A running kesdriver with a registry directory of its own, which KES_IOREGISTRY names while the object
/// lives. Ended with it, at the latest.
class DriverProcess {
 public:
  /// Starts the driver with these options and --dir; returns when its socket is there. Throws with the
  /// driver's output when it ends instead.
  explicit DriverProcess(const std::vector<std::string>& options = {}, int standardInput = -1);
  ~DriverProcess();
  DriverProcess(const DriverProcess&) = delete;
  DriverProcess& operator=(const DriverProcess&) = delete;

  pid_t pid() const { return pid_; }
  const std::string& directory() const { return directory_.path(); }
  std::string socket() const { return directory_ / "kes_vpn_driver_keslbmac.sock"; }
  /// What it wrote so far to its standard output and error, in order.
  std::string output() const { return readFile(log_); }

  void signal(int number) const;
  /// Waits for its end; the status as waitpid() reports it.
  int wait();
  /// SIGTERM, wait(), and its exit code.
  int stop();
  /// Waits until the output satisfies the condition or the driver ends; whether it did.
  bool waitForOutput(const std::function<bool(const std::string&)>& condition);
  bool waitForOutput(const std::string& part);

 private:
  bool ended();

  TempDir directory_;
  std::string log_;
  pid_t pid_ = -1;
  int status_ = 0;
};

/// Runs kesdriver to its end; its exit code and what it wrote.
struct DriverRun {
  int exitCode = -1;
  std::string output;
};
DriverRun runDriver(const std::vector<std::string>& options);

/// A file with this content, in a directory.
std::string writeScript(const TempDir& directory, const std::string& text);

}  // namespace kes::test
