#include "kespal/UnhandledException.h"

#include <exception>
#include <iostream>
#include <string>

#include "kespal/error/Exception.h"

namespace kes {

namespace {
void log(const std::string& text) { std::cerr << text + '\n' << std::flush; }
}  // namespace

void kespal_unhandled_exception() {
  log(">>> unhandled iOS exception occured <<<");
  // Null for what C++ did not throw, and in the middle of unwinding: `throw;` would terminate once more.
  const std::exception_ptr unhandled = std::current_exception();
  if (!unhandled) {
    log("unknown exception type");
    return;
  }
  try {
    std::rethrow_exception(unhandled);
  } catch (const Exception& error) {
    log("kes::Exception:\n" + error.exStack());
  } catch (const std::exception& error) {
    log(std::string("std::exception:\n\n") + error.what());
  } catch (...) {
    log("unknown exception type");
  }
}

}  // namespace kes
