#pragma once  // since 0.1

#include <set>
#include <string>

#include "kespal/Export.h"
#include "kespal/fs/Path.h"

KES_EXPORT_BEGIN

namespace kes::proc {

/// Questions about this process's executable and about other processes. Any thread may ask.
class Info {
 public:
  /// The running executable's path. macOS gives the path that started the program, links and all; Linux
  /// the file itself, with " (deleted)" behind it once that file is gone. DynError when it takes more than
  /// 1,024 bytes with its end; OsError when the system does not tell.
  static fs::Path exe();

  /// The ids of all processes whose command name is `name`, of which the system keeps a part only: the
  /// first 15 bytes on Linux, 16 on macOS; more are not compared. Empty when the system does not tell.
  /// std::bad_alloc.
  static std::set<int> running(const std::string& name);
};

}  // namespace kes::proc

KES_EXPORT_END
