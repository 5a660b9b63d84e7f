#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kes::extcap {

enum class Action { Help, Version, Interfaces, LinkTypes, Options, CheckFilter, Capture, InstallForUser };

/// Debug levels of the three parts of the driver. One call sets them all.
struct Levels {
  std::uint16_t driver = 0;
  std::uint16_t ppp = 0;
  std::uint16_t oid = 0;
};

/// What the analyser, or a person, asks for.
struct Request {
  Action action = Action::Help;
  std::string interface;         ///< empty when none was named
  std::string filter;            ///< a capture filter
  std::string fifo;              ///< where packets go
  std::string controlIn;         ///< the toolbar's pipes; empty where there is no toolbar
  std::string controlOut;        ///< to the toolbar
  std::optional<Levels> levels;  ///< none when no level was named
  bool totals = false;           ///< tell at the end what came of it, whatever that was
};

/// The command line is not understood; what() says what of it.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// The request in the words behind the program's name. An option may have its value as a word of its own or
/// behind "=". Options that newer analysers may have, "--extcap-" and more, are passed over. Raises
/// UsageError.
Request parseRequest(const std::vector<std::string>& words);

/// A level in decimal; nothing when it is no number up to 65,535.
std::optional<std::uint16_t> parseLevel(const std::string& text);

extern const char usage[];

}  // namespace kes::extcap
