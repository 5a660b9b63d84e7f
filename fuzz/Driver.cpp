// The driver's side: what clients may send it. The input is a row of datagrams of two clients, each after a
// byte that says whose it is and its length in two bytes; one that goes wrong is hung up on.
#include <array>
#include <sstream>

#include "Driver.h"
#include "Target.h"

using namespace kes;

namespace {

void answer(driver::Driver& driver, driver::Session& session, iokit::Bytes datagram) {
  const auto request = iokit::parseRequest(datagram);
  if (!request) return driver.closed(session);
  const driver::Answer answer = driver.answer(session, driver::callOf(*request));
  if (answer.structure.size() > request->header.structureCapacity) std::abort();
  if (answer.result != kIOReturnSuccess && !answer.structure.empty()) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  driver::Driver driver({.traceCapacity = 4000, .queueCapacity = 4});
  std::array<driver::Session, 2> sessions{{{.number = 1}, {.number = 2}}};
  iokit::Bytes input(data, size);
  while (input.size() >= 3) {
    driver::Session& session = sessions[input[0] % sessions.size()];
    const std::size_t length = std::min(input[1] + std::size_t{256} * input[2], input.size() - 3);
    answer(driver, session, input.subspan(3, length));
    driver.packetSeen(input.first(3 + length));
    input = input.subspan(3 + length);
  }
  std::ostringstream totals;
  driver.printTotals(totals);
  return 0;
}
