#include "kespal/UnhandledException.h"

#include <exception>

#include "error/Report.h"

namespace kes {

void kespal_unhandled_exception() {
  report({">>> unhandled iOS exception occured <<<\n"});
  // Null for what C++ did not throw, and in the middle of unwinding: to throw on would end it all once more.
  if (!std::current_exception()) {
    report({"unknown exception type\n"});
    return;
  }
  try {
    throw;  // takes no memory, as std::rethrow_exception() would
  } catch (const Exception& error) {
    reportStack({"kes::Exception:\n"}, error);
  } catch (const std::exception& error) {
    reportWhat({"std::exception:\n\n"}, error);
  } catch (...) {
    report({"unknown exception type\n"});
  }
}

}  // namespace kes
