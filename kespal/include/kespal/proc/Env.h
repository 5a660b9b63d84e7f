#pragma once  // since 0.1

#include <string>

#include "kespal/Export.h"

KES_EXPORT_BEGIN

namespace kes::proc {

/// The process's environment: variables by name, and the whole array of NAME=value texts. The environment is
/// process-wide; changing it while other threads read it is a race that no lock here can prevent.
class Env {
 public:
  Env() noexcept;

  /// Reads a variable. Absent, as a null name is: clears `value` and returns false. std::bad_alloc.
  static bool get(const char* name, std::string& value);
  /// Sets a variable, replacing an older value. OsError (EINVAL for an empty name or one with '=', and for a
  /// null name or value; ENOMEM).
  static void set(const char* name, const char* value);
  /// Removes a variable; one that does not exist is no error, nor is an impossible name. Raises nothing.
  static void del(const char* name);

  /// Iterates the NAME=value texts, up to the array's terminating null. An iteration sees the array as it is
  /// when it begins, not when the object was made; a change of the environment ends it: the array may be
  /// another one then, and the old one freed.
  const char* const* begin() const noexcept;
  const char* const* end() const noexcept;  ///< see begin()

 private:
  char*** place_;  ///< of the array
};

}  // namespace kes::proc

KES_EXPORT_END
