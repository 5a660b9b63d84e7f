#include "kespal/proc/WhichChildren.h"

#include <cstdlib>
#include <string_view>

#include "kespal/proc/Child.h"

namespace kes::test {
namespace {

struct Told : testing::Environment {
  // What happens to who says nothing is tried by saying nothing.
  void SetUp() override {
    if (whichChildren() == proc::Reaping::Registered) proc::Child::setReaping(proc::Reaping::Registered);
  }
};
const auto* const told = testing::AddGlobalTestEnvironment(new Told);

}  // namespace

proc::Reaping whichChildren() {
  const char* const wanted = std::getenv("KES_TEST_REAPING");
  return wanted != nullptr && std::string_view(wanted) == "registered" ? proc::Reaping::Registered
                                                                       : proc::Reaping::EveryChild;
}

}  // namespace kes::test
