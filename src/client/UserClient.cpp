#include "client/UserClient.h"

#include <algorithm>

namespace kes::client {

namespace {

constexpr std::uint32_t openSelector = 0;
constexpr std::uint32_t packetSelector = 2;
constexpr std::uint32_t controlSelector = 3;

/// A call without scalars. A driver that reports more than it was offered is not believed.
kern_return_t call(io_connect_t connection, std::uint32_t selector, const void* input, std::size_t inputSize,
                   void* output, std::size_t& count) {
  const std::size_t capacity = count;
  const kern_return_t result = ::IOConnectCallMethod(connection, selector, nullptr, 0, input, inputSize,
                                                     nullptr, nullptr, output, &count);
  count = std::min(count, capacity);
  return result;
}

}  // namespace

io_service_t findService() {
  return ::IOServiceGetMatchingService(kIOMasterPortDefault, ::IOServiceMatching(serviceClass));
}

kern_return_t openService(io_service_t service, io_connect_t& connection) {
  return ::IOServiceOpen(service, mach_task_self(), 0, &connection);
}

kern_return_t takeRole(io_connect_t connection, std::uint64_t role) {
  return ::IOConnectCallScalarMethod(connection, openSelector, &role, 1, nullptr, nullptr);
}

kern_return_t setLevels(io_connect_t connection, const SetDebugLevelsRecord& levels) {
  return ::IOConnectCallMethod(connection, controlSelector, nullptr, 0, &levels, sizeof levels, nullptr,
                               nullptr, nullptr, nullptr);
}

kern_return_t getTrace(io_connect_t connection, char* reply, std::size_t& count) {
  constexpr GetTraceRequest request;
  return call(connection, controlSelector, &request, sizeof request, reply, count);
}

kern_return_t getPacket(io_connect_t connection, unsigned char* packet, std::size_t& count) {
  return call(connection, packetSelector, nullptr, 0, packet, count);
}

}  // namespace kes::client
