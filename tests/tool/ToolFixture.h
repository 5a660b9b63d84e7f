#pragma once

#include <stdlib.h>

#include <functional>

#include "support/DriverProcess.h"
#include "support/Process.h"
#include "support/TempDir.h"

namespace kes::test {

/// Starts kestrace with these arguments, or what KES_TEST_KESTRACE names in its place. The driver it finds
/// is the one that KES_IOREGISTRY names.
inline std::vector<std::string> kestrace(std::vector<std::string> arguments) {
  const char* const other = ::getenv("KES_TEST_KESTRACE");
  arguments.insert(arguments.begin(), other != nullptr ? other : KESTRACE);
  return arguments;
}

/// A test of the tool: a private directory, and the driver when the test has started it.
class ToolTest : public testing::Test {
 protected:
  /// Starts a driver that plays this script.
  DriverProcess& play(const std::string& script, std::vector<std::string> options = {}) {
    writeFile(dir_ / "script", script);
    options.insert(options.end(), {"--verbose", "--script", dir_ / "script"});
    driver_.reset();  // first: the environment names one driver
    driver_ = std::make_unique<DriverProcess>(options);
    return *driver_;
  }
  DriverProcess& driver() { return *driver_; }

  /// The requests that have arrived at the driver so far, by their names.
  std::vector<std::string> requests() const {
    std::vector<std::string> names;
    const std::string log = driver_->output();
    const std::string mark = " request ";
    for (std::size_t at = log.find(mark); at != log.npos; at = log.find(mark, at)) {
      at += mark.size();
      names.push_back(log.substr(at, log.find(' ', at) - at));
    }
    return names;
  }

  std::size_t count(const std::string& request) const {
    const auto all = requests();
    return static_cast<std::size_t>(std::count(all.begin(), all.end(), request));
  }

  /// Waits until the driver has had so many requests of a kind.
  bool waitForRequests(const std::string& request, std::size_t wanted) {
    return driver_->waitForOutput([&](const std::string&) { return count(request) >= wanted; });
  }

  TempDir dir_;

 private:
  std::unique_ptr<DriverProcess> driver_;
};

inline constexpr char deviceFound[] = "Found a device of class kes_vpn_driver_keslbmac.\n";

}  // namespace kes::test
