#pragma once  // since 0.1

#include "kespal/Export.h"
#include "kespal/fs/Path.h"

KES_EXPORT_BEGIN

namespace kes::fs {

/// Where the platform keeps things: asked anew by every call, never created, existing or not. The answers
/// depend on the environment, which other threads must not change meanwhile. On macOS, where the system names
/// no such directory, RuntimeError: userDataDir(), documentsDir(), userLogDir() and logDir(). Nothing else is
/// raised: what cannot be examined or read counts as missing.
class StandardPaths {
 public:
  /// The user's application data. macOS: ~/Library/Application Support. Linux: $XDG_DATA_HOME, else
  /// ~/.local/share.
  static Path userDataDir();
  /// The user's documents. Linux: what user-dirs.dirs in $XDG_CONFIG_HOME or ~/.config says, else
  /// ~/Documents.
  static Path documentsDir();
  /// $TMPDIR when it names something that exists, else /tmp.
  static Path tempDir();
  /// The user's own temporary directory. macOS: below /var/folders; empty if the system has none. Linux:
  /// $XDG_RUNTIME_DIR when it is a directory that we own, else tempDir().
  static Path userTempDir();
  /// The user's logs. macOS: ~/Library/Logs. Linux: "Logs" in $XDG_STATE_HOME, else in ~/.local/state.
  static Path userLogDir();
  /// The system's logs. macOS: /Library/Logs. Linux: /var/log.
  static Path logDir();
};

}  // namespace kes::fs

KES_EXPORT_END
