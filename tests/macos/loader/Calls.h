#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "Image.h"

namespace loader {

template <typename T>
constexpr bool isVariadicEntry = false;
template <typename Result>
constexpr bool isVariadicEntry<Result(std::uint64_t, ...)> = true;

/// A function or variable of the system under its macOS name, without the leading underscore. Functions
/// with variable arguments come from variadic<> (Variadic.h), never from this system.
struct Call {
  template <typename T>
  Call(const char* callName, T& callee)
      : name(callName),
        address(const_cast<void*>(reinterpret_cast<const void*>(&callee))),
        isVariadic(isVariadicEntry<T>) {}

  const char* name;
  void* address;
  bool isVariadic;
};

// What differs between the systems, a group each: names that macOS programs use, and what answers here.
std::span<const Call> accountCalls();
std::span<const Call> backtraceCalls();
std::span<const Call> childCalls();
std::span<const Call> errorCalls();
std::span<const Call> eventCalls();
std::span<const Call> fileCalls();
std::span<const Call> formatCalls();
std::span<const Call> globCalls();
std::span<const Call> ioKitCalls();
std::span<const Call> libraryCalls();
std::span<const Call> lockCalls();
std::span<const Call> machClockCalls();
std::span<const Call> processCalls();
std::span<const Call> processTableCalls();
std::span<const Call> regexCalls();
std::span<const Call> signalCalls();
std::span<const Call> systemVCalls();
std::span<const Call> terminalCalls();
std::span<const Call> textCalls();
std::span<const Call> threadCalls();
std::span<const Call> unwindCalls();

/// What answers for a system symbol: a call of the groups above, or this system's own function if it is one
/// that agrees; else a stub that ends the program and says its name.
void* systemSymbol(const std::string& name);

/// The program that runs, and everything that was loaded, in order.
struct Program {
  int argc = 0;
  char** argv = nullptr;
  std::vector<Image*> images;
  /// The command line up to the program, for who starts another.
  std::vector<char*> loader;
};
extern Program program;

/// Loads a file and binds it to the system and to what was loaded before. A weak symbol, which several
/// images may define, goes to the first that does; its own definition serves when it is alone. Throws
/// std::runtime_error.
Image* load(const std::string& path);

/// The number under which macOS knows an error, and back.
int macError(int hostError);
int hostError(int macError);
/// This system's number of a signal that macOS has; 0 for 0, and -1 for what is no signal there.
int hostSignal(int macSignal);
/// The number under which macOS knows a signal of this system.
int macSignal(int hostSignal);

}  // namespace loader
