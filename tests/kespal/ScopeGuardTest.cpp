#include "kespal/ScopeGuard.h"

#include <stdexcept>

#include "kespal/error/StaticError.h"
#include "support/ForkedChild.h"

namespace kes {
namespace {

/// Something that is released when a scope is left.
struct Resource {
  int released = 0;

  void release() { ++released; }
  void releaseBadly() {
    ++released;
    raiseAt({"src/Resource", 7, "releaseBadly"}, RuntimeError("cannot release"));
  }
  void releaseVeryBadly() { throw std::logic_error("not one of ours"); }
  void lock() const { locked = true; }
  void unlock() const { locked = false; }
  mutable bool locked = false;
};

using Guard = ObjScopeGuard0<Resource, void (Resource::*)()>;

const std::string report =
    "Exception caught while destroying scope guard:\n"
    "\n#1)\n"
    "\tException occured at \"src/Resource:7 (releaseBadly)\"\n"
    "\t\n"
    "\tRuntime error occured. cannot release\n"
    "\n";

TEST(ScopeGuardTest, TheMemberFunctionIsCalledWhenTheScopeIsLeft) {
  Resource resource;
  {
    const Guard guard(resource, &Resource::release);
    EXPECT_EQ(resource.released, 0);
  }
  EXPECT_EQ(resource.released, 1);
}

TEST(ScopeGuardTest, ItIsCalledWhenAnExceptionLeavesTheScope) {
  Resource resource;
  try {
    const Guard guard(resource, &Resource::release);
    throw 1;
  } catch (int) {
  }
  EXPECT_EQ(resource.released, 1);
}

TEST(ScopeGuardTest, ADismissedGuardDoesNothing) {
  Resource resource;
  {
    Guard guard(resource, &Resource::release);
    EXPECT_FALSE(guard.dismissed());
    guard.dismiss();
    EXPECT_TRUE(guard.dismissed());
    guard.shoot();
  }
  EXPECT_EQ(resource.released, 0);
}

TEST(ScopeGuardTest, ShootActsAtOnceAndOnlyOnce) {
  Resource resource;
  {
    Guard guard(resource, &Resource::release);
    guard.shoot();
    EXPECT_EQ(resource.released, 1);
    EXPECT_TRUE(guard.dismissed());
    guard.shoot();
  }
  EXPECT_EQ(resource.released, 1);
}

TEST(ScopeGuardTest, AConstantObjectIsGuardedByAConstantMemberFunction) {
  const Resource resource;
  {
    resource.lock();
    const ObjScopeGuard0<Resource const, void (Resource::*)() const> guard(resource, &Resource::unlock);
    EXPECT_TRUE(resource.locked);
  }
  EXPECT_FALSE(resource.locked);
}

TEST(ScopeGuardTest, ALibraryErrorIsReportedOnStandardErrorAndGoesNoFurther) {
  const test::ChildResult result = test::inChild([] {
    Resource resource;
    { const Guard guard(resource, &Resource::releaseBadly); }
    return resource.released;
  });
  EXPECT_EQ(result.exitCode(), 1);
  EXPECT_EQ(result.err, report);
  EXPECT_EQ(result.out, "");
}

TEST(ScopeGuardTest, AGuardWhoseActionFailedIsNotDismissedAndActsAgain) {
  const test::ChildResult result = test::inChild([] {
    Resource resource;
    {
      Guard guard(resource, &Resource::releaseBadly);
      guard.shoot();
      if (guard.dismissed()) return -1;
    }
    return resource.released;
  });
  EXPECT_EQ(result.exitCode(), 2);
  EXPECT_EQ(result.err, report + report);
}

TEST(ScopeGuardTest, ALibraryErrorIsReportedEvenWhileAnotherExceptionIsOnItsWay) {
  const test::ChildResult result = test::inChild([] {
    Resource resource;
    try {
      const Guard guard(resource, &Resource::releaseBadly);
      throw std::runtime_error("on its way");
    } catch (const std::runtime_error&) {
      return resource.released;
    }
    return 0;
  });
  EXPECT_EQ(result.exitCode(), 1);
  EXPECT_EQ(result.err, report);
}

TEST(ScopeGuardTest, AnyOtherExceptionPropagates) {
  Resource resource;
  Guard guard(resource, &Resource::releaseVeryBadly);
  EXPECT_THROW(guard.shoot(), std::logic_error);
  EXPECT_FALSE(guard.dismissed());
  guard.dismiss();
  EXPECT_THROW({ const Guard inScope(resource, &Resource::releaseVeryBadly); }, std::logic_error);
}

TEST(ScopeGuardTest, TheHandlerWritesTheWholeChainOfAnError) {
  const test::ChildResult result = test::inChild([] {
    UsageError error("second");
    error.setNext(RuntimeError("first"));
    ScopeGuardBase::handleEx(error);
    return 0;
  });
  EXPECT_EQ(result.err,
            "Exception caught while destroying scope guard:\n"
            "\n#1)\n\tUsage error occured. second\n"
            "\n#2)\n\tRuntime error occured. first\n"
            "\n");
}

}  // namespace
}  // namespace kes
