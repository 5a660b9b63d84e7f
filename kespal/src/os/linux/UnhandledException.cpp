#include "kespal/UnhandledException.h"

#include <exception>

#include "error/Report.h"

namespace kes {

void kespal_unhandled_exception() {
  report({">>> unhandled iOS exception occured <<<\n"});
  // Null for what C++ did not throw, and in the middle of unwinding: `throw;` would terminate once more.
  const std::exception_ptr unhandled = std::current_exception();
  if (!unhandled) {
    report({"unknown exception type\n"});
    return;
  }
  try {
    std::rethrow_exception(unhandled);
  } catch (const Exception& error) {
    reportStack({"kes::Exception:\n"}, error);
  } catch (const std::exception& error) {
    reportWhat({"std::exception:\n\n"}, error);
  } catch (...) {
    report({"unknown exception type\n"});
  }
}

}  // namespace kes
