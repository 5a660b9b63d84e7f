#include "kespal/proc/Env.h"

#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <utility>

#include "kespal/error/OsError.h"
#include "support/ForkedChild.h"

namespace kes::proc {
namespace {

using test::inChild;

TEST(EnvTest, GetReadsAVariableThatIsSet) {
  const auto child = inChild([] {
    ::setenv("KES_TEST_VARIABLE", "some value", 1);
    std::string value;
    std::cout << Env::get("KES_TEST_VARIABLE", value) << value;
    ::setenv("KES_TEST_VARIABLE", "", 1);
    std::cout << Env::get("KES_TEST_VARIABLE", value) << '<' << value << '>';
    return 0;
  });
  EXPECT_EQ(child.out, "1some value1<>");
}

TEST(EnvTest, GetOfAnAbsentVariableClearsTheValueAndGivesFalse) {
  std::string value = "left from before";
  EXPECT_FALSE(Env::get("KES_TEST_NO_SUCH_VARIABLE", value));
  EXPECT_EQ(value, "");
}

TEST(EnvTest, ANullNameIsThatOfNoVariable) {
  std::string value = "left from before";
  EXPECT_FALSE(Env::get(nullptr, value));
  EXPECT_EQ(value, "");
  EXPECT_NO_THROW(Env::del(nullptr));
}

TEST(EnvTest, SetReplacesAnOlderValue) {
  const auto child = inChild([] {
    Env::set("KES_TEST_VARIABLE", "first");
    Env::set("KES_TEST_VARIABLE", "second");
    std::cout << ::getenv("KES_TEST_VARIABLE");
    return 0;
  });
  EXPECT_EQ(child.out, "second");
}

TEST(EnvTest, SetOfAnImpossibleNameOrValueRaisesOsErrorFromItsSite) {
  const std::pair<const char*, const char*> impossible[] = {
      {"", "value"}, {"with=sign", "value"}, {nullptr, "value"}, {"KES_TEST_VARIABLE", nullptr}};
  for (const auto& [name, value] : impossible) {
    try {
      Env::set(name, value);
      ADD_FAILURE() << testing::PrintToString(name);
    } catch (const OsError& error) {
      EXPECT_EQ(error.errnum(), EINVAL);
      EXPECT_STREQ(error.file(), "src/os/posix/proc/Env");
      EXPECT_EQ(error.line(), 61);
      EXPECT_STREQ(error.function(), "set");
    }
  }
}

TEST(EnvTest, DelRemovesAVariableAndAcceptsOneThatDoesNotExist) {
  const auto child = inChild([] {
    std::string value;
    Env::set("KES_TEST_VARIABLE", "value");
    Env::del("KES_TEST_VARIABLE");
    Env::del("KES_TEST_VARIABLE");
    return Env::get("KES_TEST_VARIABLE", value) ? 1 : 0;
  });
  EXPECT_EQ(child.exitCode(), 0);
}

TEST(EnvTest, IterationGivesEveryVariableAsNameAndValue) {
  const auto child = inChild([] {
    ::clearenv();
    Env::set("ONE", "1");
    Env::set("TWO", "a=b");
    for (const char* variable : Env()) std::cout << variable << '\n';
    return 0;
  });
  EXPECT_EQ(child.out, "ONE=1\nTWO=a=b\n");
}

TEST(EnvTest, AnIterationSeesTheVariablesThatWereSetSinceTheObjectWasMade) {
  const auto child = inChild([] {
    const Env env;
    for (int number = 0; number < 200; ++number) {
      Env::set(("KES_TEST_" + std::to_string(number)).c_str(), "value");
    }
    int count = 0;
    for (const char* variable : env) count += std::string(variable).starts_with("KES_TEST_") ? 1 : 0;
    std::cout << count;
    ::clearenv();
    for (const char* variable : env) std::cout << variable;
    return 0;
  });
  EXPECT_EQ(child.out, "200");
}

TEST(EnvTest, IterationOfAClearedEnvironmentIsEmpty) {
  const auto child = inChild([] {
    ::clearenv();
    const Env none;
    return none.begin() == none.end() ? 0 : 1;
  });
  EXPECT_EQ(child.exitCode(), 0);
}

}  // namespace
}  // namespace kes::proc
