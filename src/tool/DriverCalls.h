#pragma once

#include <IOKit/IOKitLib.h>

#include <cstddef>

/// The tool's way to the driver. A failed call says so with the driver's return code; none is repeated.

// NOLINTNEXTLINE(readability-identifier-naming): an established name
struct CONNECTION_INFO {
  io_service_t service;  ///< the driver's service; 0 when none
  io_connect_t connect;  ///< the opened user client; 0 when none
};

inline constexpr unsigned long long traceConnection = 1;
inline constexpr unsigned long long dumpConnection = 2;

/// Finds the driver and opens a connection of the given type. False, with both handles 0, when there is no
/// driver or it refuses.
bool OpenConnection(CONNECTION_INFO& info, unsigned long long type);
/// Both handles are 0 afterwards.
void CloseConnection(CONNECTION_INFO& info);

/// Sends the three debug levels.
void SetDebugLevels(unsigned int connect);

/// One get-trace call: `count` is the capacity of `buf` and then the length of the reply, its text from byte
/// 2 on. Prints nothing.
kern_return_t CallGetTrace(unsigned int connect, char* buf, std::size_t& count);
/// One get-packet call: `count` is the capacity of `buf` and then the packet's length, 0 when none waits.
/// Prints nothing.
kern_return_t CallGetPacket(unsigned int connect, unsigned char* buf, std::size_t& count);

/// What CallGetTrace() and CallGetPacket() have failed with goes to standard error.
void ReportGetTrace(kern_return_t result);
void ReportGetPacket(kern_return_t result);
/// Announces a packet on standard error.
void ReportPacket(std::size_t length);

/// One get-trace call; the number of text bytes in the reply, terminated when there is room; 0 on failure.
unsigned int GetTrace(unsigned int connect, char* buf, unsigned int size);
/// One get-packet call; the packet's length, 0 when none waits or on failure.
unsigned int GetPacket(unsigned int connect, unsigned char* buf, unsigned int size);
