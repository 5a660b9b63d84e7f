#include <IOKit/IOKitLib.h>

#include <algorithm>
#include <memory>
#include <new>
#include <string>
#include <type_traits>

#include "Connection.h"
#include "Handles.h"
#include "Service.h"

using kes::iokit::Connection;
using kes::iokit::Handles;
using kes::iokit::Input;
using kes::iokit::Kind;
using kes::iokit::maxScalars;
using kes::iokit::maxStructure;
using kes::iokit::Output;
using kes::iokit::Service;
using kes::sys::Descriptor;

struct __CFDictionary {
  std::string serviceClass;
};

const mach_port_t kIOMasterPortDefault = MACH_PORT_NULL;
mach_port_t mach_task_self_ = 0x103;

namespace {

// Never destroyed: a program may release its handles from exit handlers.
Handles<Service>& services() {
  static auto& table = *new Handles<Service>;
  return table;
}

Handles<Connection>& connections() {
  static auto& table = *new Handles<Connection>;
  return table;
}

template <typename Item>
std::span<Item> spanOf(Item* items, std::size_t count) {
  return {items, items == nullptr ? 0 : count};
}

IOReturn call(mach_port_t handle, const Input& input, Output& output) {
  const auto connection = connections().find(handle);
  return connection ? connection->exchange(input, output) : MACH_SEND_INVALID_DEST;
}

// Memory that runs out is a result here: no exception leaves a C function. (A thread's cancellation does.)
template <typename Function>
std::invoke_result_t<Function> orOutOfMemory(std::invoke_result_t<Function> result, Function function) {
  try {
    return function();
  } catch (const std::bad_alloc&) {
    return result;
  }
}

io_service_t match(const std::string& serviceClass) {
  auto socket = Service::find(serviceClass);
  if (!socket) return IO_OBJECT_NULL;
  return services().add(std::make_shared<Service>(serviceClass, std::move(*socket)));
}

IOReturn open(io_service_t service, uint32_t type, io_connect_t& connect) {
  const auto found = services().find(service);
  Descriptor socket = found ? found->connect() : Descriptor();
  if (!socket) return MACH_SEND_INVALID_DEST;
  auto connection = std::make_shared<Connection>(std::move(socket));
  Output nothing;
  const IOReturn result = connection->exchange({Kind::Open, type, {}, {}}, nothing);
  if (result == kIOReturnSuccess) connect = connections().add(std::move(connection));
  return result;
}

}  // namespace

CFMutableDictionaryRef IOServiceMatching(const char* name) {
  if (name == nullptr) return nullptr;
  return orOutOfMemory(nullptr, [&] { return new __CFDictionary{name}; });
}

io_service_t IOServiceGetMatchingService(mach_port_t, CFDictionaryRef matching) {
  const std::unique_ptr<const __CFDictionary> consumed(matching);
  if (!consumed) return IO_OBJECT_NULL;
  return orOutOfMemory(IO_OBJECT_NULL, [&] { return match(consumed->serviceClass); });
}

kern_return_t IOServiceOpen(io_service_t service, task_port_t owningTask, uint32_t type,
                            io_connect_t* connect) {
  if (connect == nullptr || owningTask != mach_task_self()) return kIOReturnBadArgument;
  *connect = IO_OBJECT_NULL;
  return orOutOfMemory(kIOReturnNoMemory, [&] { return open(service, type, *connect); });
}

kern_return_t IOServiceClose(io_connect_t connect) {
  return connections().remove(connect) ? kIOReturnSuccess : MACH_SEND_INVALID_DEST;
}

kern_return_t IOObjectRelease(io_object_t object) {
  if (object == IO_OBJECT_NULL) return KERN_SUCCESS;
  return services().remove(object) || connections().remove(object) ? KERN_SUCCESS : KERN_INVALID_NAME;
}

kern_return_t IOConnectCallMethod(mach_port_t connection, uint32_t selector, const uint64_t* input,
                                  uint32_t inputCnt, const void* inputStruct, size_t inputStructCnt,
                                  uint64_t* output, uint32_t* outputCnt, void* outputStruct,
                                  size_t* outputStructCnt) {
  if (inputCnt > maxScalars || inputStructCnt > maxStructure) return kIOReturnBadArgument;
  if ((input == nullptr && inputCnt > 0) || (inputStruct == nullptr && inputStructCnt > 0)) {
    return kIOReturnBadArgument;
  }
  const std::size_t scalars = outputCnt == nullptr ? 0 : std::min<std::size_t>(*outputCnt, maxScalars);
  const std::size_t bytes = outputStructCnt == nullptr ? 0 : std::min(*outputStructCnt, maxStructure);
  Output results{spanOf(output, scalars), spanOf(static_cast<std::uint8_t*>(outputStruct), bytes)};
  const Input request{Kind::Call, selector, spanOf(input, inputCnt),
                      spanOf(static_cast<const std::uint8_t*>(inputStruct), inputStructCnt)};
  const IOReturn result = call(connection, request, results);
  if (result != kIOReturnSuccess) return result;
  if (outputCnt != nullptr) *outputCnt = static_cast<std::uint32_t>(results.scalars.size());
  if (outputStructCnt != nullptr) *outputStructCnt = results.structure.size();
  return kIOReturnSuccess;
}

kern_return_t IOConnectCallScalarMethod(mach_port_t connection, uint32_t selector, const uint64_t* input,
                                        uint32_t inputCnt, uint64_t* output, uint32_t* outputCnt) {
  return IOConnectCallMethod(connection, selector, input, inputCnt, nullptr, 0, output, outputCnt, nullptr,
                             nullptr);
}
