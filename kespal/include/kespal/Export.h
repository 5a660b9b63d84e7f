#pragma once  // since 0.1

/// What a public header declares between these two is seen by who links the shared library; all else of the
/// library is hidden. Classes are seen whole, with their type: an error that one library throws is caught in
/// another. Includes stay outside. A class may have members of a hidden type, at which GCC would wonder.
#define KES_EXPORT_BEGIN                                                 \
  _Pragma("GCC visibility push(default)") _Pragma("GCC diagnostic push") \
      _Pragma("GCC diagnostic ignored \"-Wattributes\"")
#define KES_EXPORT_END _Pragma("GCC diagnostic pop") _Pragma("GCC visibility pop")

/// A class that a public header names and does not define, and that stays hidden: `class KES_HIDDEN Name;`.
#define KES_HIDDEN __attribute__((visibility("hidden")))
