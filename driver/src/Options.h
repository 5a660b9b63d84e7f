#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Driver.h"

namespace kes::driver {

struct Options {
  std::string directory;
  std::vector<std::string> replays;
  std::optional<std::string> live;
  std::optional<double> rate;  ///< packets per second; without it a replay waits for who fetches
  bool pace = false;           ///< a replay keeps the time of its capture
  bool loop = false;
  std::optional<std::string> trace;
  Oversize oversize = Oversize::Cut;
  bool once = false;
  std::optional<std::string> script;
  bool verbose = false;
  std::optional<std::string> journal;  ///< where what happens is written as JSON
  bool help = false;
};

/// The command line is not understood; what() says what of it.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// The options in the words after the program's name. Throws UsageError.
Options parseOptions(const std::vector<std::string>& words);

extern const char usage[];

}  // namespace kes::driver
