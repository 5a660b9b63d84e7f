#pragma once

#include <IOKit/IOKitLib.h>

#include <cstddef>
#include <cstdint>

#include "client/Records.h"

/// The driver's user-client calls, one function each. None prints, repeats or keeps anything: what a failed
/// call means, and what is said of it, is its caller's. Every result is the driver's or the system's own.
namespace kes::client {

inline constexpr char serviceClass[] = "kes_vpn_driver_keslbmac";

/// What a connection is for.
inline constexpr std::uint64_t traceRole = 1;
inline constexpr std::uint64_t dumpRole = 2;

/// The driver's service, for the caller to release; 0 when there is none.
io_service_t findService();
/// Opens a user client of the service, for the caller to close; `connection` is left alone unless it
/// succeeds.
kern_return_t openService(io_service_t service, io_connect_t& connection);
/// Tells the driver what the connection is for.
kern_return_t takeRole(io_connect_t connection, std::uint64_t role);

/// Over a trace connection.
kern_return_t setLevels(io_connect_t connection, const SetDebugLevelsRecord& levels);
/// `count` is the capacity of `reply`, and then the length of the reply, its text from `traceHeader` on. Over
/// a trace connection.
kern_return_t getTrace(io_connect_t connection, char* reply, std::size_t& count);
/// `count` is the capacity of `packet`, and then the packet's length, 0 when none waits. Over a dump
/// connection.
kern_return_t getPacket(io_connect_t connection, unsigned char* packet, std::size_t& count);

}  // namespace kes::client
