#pragma once

#include "support/Calls.h"

// What Calls.h needs of each call, and nobody else. The linker's option --wrap=NAME sends each undefined
// reference to NAME to __wrap_NAME, and gives the system's own as __real_NAME. A program that does not wrap a
// name has no
// __real_NAME, so that these are weak.

// NOLINTBEGIN(bugprone-macro-parentheses, bugprone-reserved-identifier)
#define BARE(...) __VA_ARGS__
#define CALL(name, result, parameters, ...) extern "C" [[gnu::weak]] result __real_##name parameters;
#define VARIADIC(name, result, parameters, ...) \
  extern "C" [[gnu::weak]] result __real_##name(BARE parameters, ...);
#include "support/Calls.def"
#undef CALL
#undef VARIADIC

namespace kes::test {

#define CALL(NAME, result, parameters, arguments, how, what, ...)     \
  template <>                                                         \
  struct Row<Call::NAME> {                                            \
    using Function = result parameters;                               \
    static constexpr Tells tells = Tells::how;                        \
    static constexpr unsigned traits = what;                          \
    static constexpr int errors[] = {__VA_ARGS__ __VA_OPT__(, ) 0};   \
    static result real parameters { return __real_##NAME arguments; } \
  };
#define VARIADIC(NAME, result, parameters, last, arguments, how, what, ...)                         \
  template <>                                                                                       \
  struct Row<Call::NAME> {                                                                          \
    using Function = result(BARE parameters, void*);                                                \
    static constexpr Tells tells = Tells::how;                                                      \
    static constexpr unsigned traits = what;                                                        \
    static constexpr int errors[] = {__VA_ARGS__ __VA_OPT__(, ) 0};                                 \
    static result real(BARE parameters, void* more) { return __real_##NAME(BARE arguments, more); } \
  };
#include "support/Calls.def"
#undef CALL
#undef VARIADIC
#undef BARE
// NOLINTEND(bugprone-macro-parentheses, bugprone-reserved-identifier)

/// Where an Instead of this call stands, or null.
const void*& answerOf(Call call);

template <Call call>
Instead<call>::Instead(Function answer) : answer_(std::move(answer)) {
  __atomic_store_n(&answerOf(call), static_cast<const void*>(&answer_), __ATOMIC_SEQ_CST);
}

template <Call call>
Instead<call>::~Instead() {
  __atomic_store_n(&answerOf(call), static_cast<const void*>(nullptr), __ATOMIC_SEQ_CST);
}

}  // namespace kes::test
