// Part of a test program in which the collector reaps only children that were registered.
#include "kespal/proc/Child.h"
#include "kespal/proc/Shepherd.h"

namespace kes::proc {
namespace {

struct RegisteredOnly : testing::Environment {
  void SetUp() override { Child::setReaping(Reaping::Registered); }
};
const auto* const registeredOnly = testing::AddGlobalTestEnvironment(new RegisteredOnly);

}  // namespace
}  // namespace kes::proc
