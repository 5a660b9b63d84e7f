#pragma once

#include <optional>
#include <string>
#include <vector>

#include "kespal/NoCopy.h"
#include "sys/Owner.h"

namespace kes::extcap {

/// What the analyser says when a control is used, or at the start.
struct ControlMessage {
  unsigned char control;
  unsigned char command;
  std::string payload;
};

/// Commands of the messages, in either direction.
enum Command : unsigned char { Initialized, Set, Add, StatusMessage = 6, WarningMessage = 8 };

/// The bytes of a message.
std::string encode(const ControlMessage& message);
/// Takes the first message out of what was read; nothing while it is not whole. What is no message is
/// dropped.
std::optional<ControlMessage> takeMessage(std::string& bytes);

/// The two pipes to the toolbar of the analyser's window. Neither ever keeps a capture waiting: what the
/// toolbar does not take is kept back up to a limit, and then dropped. Used by one thread. Without pipes
/// there is no toolbar, and nothing happens.
class Toolbar : public NoCopy {
 public:
  Toolbar(const std::string& in, const std::string& out);

  bool isThere() const { return !outPath_.empty(); }
  /// What to wait on for messages; -1 without a toolbar.
  int fd() const { return in_.get(); }
  /// The messages that have come.
  std::vector<ControlMessage> read();

  /// Shows a text in a control: the value of a field, the next lines of a log.
  void show(unsigned char control, Command command, const std::string& text);
  /// A text in the window's status line, or in a window of its own.
  void say(Command command, const std::string& text);
  /// Sends what was kept back.
  void flush();

 private:
  std::string outPath_;
  sys::Descriptor in_, out_;
  std::string received_, unsent_;
};

}  // namespace kes::extcap
