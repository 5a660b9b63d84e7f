#include "tool/FakeDriver.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "kespal/Helper.h"

namespace kes::test {

FakeDriver fakeDriver;

}  // namespace kes::test

namespace {

using kes::test::fakeDriver;
using kes::test::FakeDriver;

template <typename T>
std::string given(const T* pointer) {
  return pointer == nullptr ? "none" : std::to_string(*pointer);
}

void note(const std::string& line) { fakeDriver.journal.push_back(line); }

FakeDriver::Answer nextAnswer() {
  if (fakeDriver.answers.empty()) return {};
  FakeDriver::Answer answer = fakeDriver.answers.front();
  fakeDriver.answers.pop_front();
  return answer;
}

}  // namespace

extern "C" {

/// The description of a class is its name.
CFMutableDictionaryRef __wrap_IOServiceMatching(const char* name) {
  return reinterpret_cast<CFMutableDictionaryRef>(const_cast<char*>(name));
}

io_service_t __wrap_IOServiceGetMatchingService(mach_port_t port, CFDictionaryRef matching) {
  note(std::string("match ") + (port == kIOMasterPortDefault ? "default " : "other ") +
       reinterpret_cast<const char*>(matching));
  return fakeDriver.matched;
}

kern_return_t __wrap_IOServiceOpen(io_service_t service, task_port_t task, std::uint32_t type,
                                   io_connect_t* connect) {
  note("open " + std::to_string(service) + (task == mach_task_self() ? " self " : " other ") +
       std::to_string(type));
  *connect = fakeDriver.openResult == KERN_SUCCESS ? 77 : 0;
  return fakeDriver.openResult;
}

kern_return_t __wrap_IOServiceClose(io_connect_t connect) {
  note("close " + std::to_string(connect));
  return KERN_SUCCESS;
}

kern_return_t __wrap_IOObjectRelease(io_object_t object) {
  note("release " + std::to_string(object));
  return KERN_SUCCESS;
}

kern_return_t __wrap_IOConnectCallScalarMethod(mach_port_t connection, std::uint32_t selector,
                                               const std::uint64_t* input, std::uint32_t inputCount,
                                               std::uint64_t* output, std::uint32_t* outputCount) {
  note("scalar " + std::to_string(connection) + " selector " + std::to_string(selector) + " in " +
       std::to_string(inputCount) + ": " + given(input) + " out " + given(output) + ' ' + given(outputCount));
  return fakeDriver.scalarResult;
}

kern_return_t __wrap_IOConnectCallMethod(mach_port_t connection, std::uint32_t selector,
                                         const std::uint64_t* input, std::uint32_t inputCount,
                                         const void* structure, std::size_t size, std::uint64_t* output,
                                         std::uint32_t* outputCount, void* reply, std::size_t* capacity) {
  note("call " + std::to_string(connection) + " selector " + std::to_string(selector) + " scalars " +
       given(input) + ' ' + std::to_string(inputCount) + " structure " + std::to_string(size) + ": " +
       kes::hex(structure, size, '\0', /*upper=*/true) + " out " + given(output) + ' ' + given(outputCount) +
       " capacity " + given(capacity));
  const FakeDriver::Answer answer = nextAnswer();
  if (capacity != nullptr && answer.result == KERN_SUCCESS) {
    std::memcpy(reply, answer.bytes.data(), std::min(*capacity, answer.bytes.size()));
    *capacity = answer.claimed != 0 ? answer.claimed : answer.bytes.size();
  }
  return answer.result;
}

}  // extern "C"
