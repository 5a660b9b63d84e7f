#pragma once  // since 0.1

/// What a public header declares between these two is seen by who links the shared library; all else of the
/// library is hidden. Includes stay outside.
#define PCAPLIB_EXPORT_BEGIN _Pragma("GCC visibility push(default)")
#define PCAPLIB_EXPORT_END _Pragma("GCC visibility pop")
