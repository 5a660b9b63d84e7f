#pragma once

#include <IOKit/IOKitLib.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace kes::test {

constexpr char driverClass[] = "kes_vpn_driver_keslbmac";

inline io_service_t matchService(const char* name = driverClass) {
  return IOServiceGetMatchingService(kIOMasterPortDefault, IOServiceMatching(name));
}

/// A user client as the tool opens it; 0 and a failed expectation when it cannot.
inline io_connect_t openClient(std::uint64_t type) {
  const io_service_t service = matchService();
  io_connect_t connect = 0;
  EXPECT_EQ(IOServiceOpen(service, mach_task_self(), 0, &connect), kIOReturnSuccess);
  EXPECT_EQ(IOConnectCallScalarMethod(connect, 0, &type, 1, nullptr, nullptr), kIOReturnSuccess);
  EXPECT_EQ(IOObjectRelease(service), KERN_SUCCESS);
  return connect;
}

struct CallResult {
  kern_return_t code = 0;
  std::vector<std::uint8_t> bytes;
};

/// A call with a structure in and a structure out.
inline CallResult callMethod(io_connect_t connect, std::uint32_t selector,
                             const std::vector<std::uint8_t>& in, std::size_t capacity) {
  CallResult result;
  result.bytes.resize(capacity);
  std::size_t count = capacity;
  result.code = IOConnectCallMethod(connect, selector, nullptr, 0, in.empty() ? nullptr : in.data(),
                                    in.size(), nullptr, nullptr, result.bytes.data(), &count);
  result.bytes.resize(result.code == kIOReturnSuccess ? count : 0);
  return result;
}

inline CallResult getPacket(io_connect_t connect, std::size_t capacity = 4096) {
  return callMethod(connect, 2, {}, capacity);
}

inline CallResult getTrace(io_connect_t connect, std::size_t capacity = 2047) {
  std::vector<std::uint8_t> request(16);
  request[0] = 0x10;
  request[3] = 0x01;
  return callMethod(connect, 3, request, capacity);
}

/// The text of a trace reply.
inline std::string textOf(const CallResult& reply) {
  if (reply.bytes.size() < 2) return "<no trace reply>";
  return {reply.bytes.begin() + 2, reply.bytes.end()};
}

inline kern_return_t setLevels(io_connect_t connect, std::uint8_t driver, std::uint8_t ppp,
                               std::uint8_t oid) {
  std::vector<std::uint8_t> record{0x0e, 0, 2, 0, 0x0a, 0, 0, 1, driver, 0, ppp, 0, oid, 0};
  record.resize(32);
  return IOConnectCallMethod(connect, 3, nullptr, 0, record.data(), record.size(), nullptr, nullptr, nullptr,
                             nullptr);
}

}  // namespace kes::test
