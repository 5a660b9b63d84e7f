#pragma once

#include <string>

namespace kes::proc {

/// The process's environment: variables by name, and the whole array of NAME=value texts as it stood when
/// the object was made. The environment is process-wide; changing it while other threads read it is a race
/// that no lock here can prevent.
class Env {
 public:
  Env() noexcept;

  /// Reads a variable. Absent: clears `value` and returns false.
  static bool get(const char* name, std::string& value);
  /// Sets a variable, replacing an older value. OsError (EINVAL for an empty name or one with '=', ENOMEM).
  static void set(const char* name, const char* value);
  /// Removes a variable; one that does not exist is no error.
  static void del(const char* name);

  /// Iterates the NAME=value texts of the array that this object holds, up to its terminating null.
  const char* const* begin() const noexcept { return variables_; }
  const char* const* end() const noexcept;

 private:
  const char* const* variables_;
};

}  // namespace kes::proc
