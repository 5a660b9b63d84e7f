#include "support/Calls.h"

#include <sys/mman.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <type_traits>
#include <utility>

#include "support/CallBoard.h"
#include "support/NoMemory.h"

namespace kes::test {

namespace {

constexpr std::size_t count = static_cast<std::size_t>(Call::Last);

constexpr int outOfMemory[] = {ENOMEM, 0};
constexpr CallInfo infos[] = {
#define CALL(name, ...) {#name, Row<Call::name>::tells, Row<Call::name>::traits, Row<Call::name>::errors},
#define VARIADIC(name, ...) {#name, Row<Call::name>::tells, Row<Call::name>::traits, Row<Call::name>::errors},
#include "support/Calls.def"
#undef CALL
#undef VARIADIC
    {"operator new", Tells::Null, Plain, outOfMemory}};

/// What is to happen at a moment of a call, and at which.
struct Slot {
  std::atomic<const Interlude::Part*> part{nullptr};
  std::atomic<int> left{0};
};

constinit CallBoard ownBoard{};
constinit std::atomic<CallBoard*> currentBoard{&ownBoard};
constinit std::array<std::array<Slot, 2>, count> slots{};
constinit std::array<const void*, count> answers{};
thread_local constinit int t_aside = 0;

Slot& slotOf(Call call, Interlude::Moment moment) { return slots[static_cast<std::size_t>(call)][moment]; }

/// One of those that are let through, or one of those that are meant.
bool isMeant(std::atomic<int>& skip, std::atomic<int>& times) {
  if (times.load(std::memory_order_relaxed) == 0) return false;
  for (int left = skip; left > 0;) {
    if (skip.compare_exchange_weak(left, left - 1)) return false;
  }
  for (int left = times; left != 0;) {
    if (left < 0 || times.compare_exchange_weak(left, left - 1)) return true;
  }
  return false;
}

void arrive(Call call) {
  CallBoard& at = board();
  at[call].made.fetch_add(1);
  if (!at.tracing) return;
  const std::uint32_t place = at.traced.fetch_add(1);
  if (place < at.trace.size()) at.trace[place] = call;
}

void play(Interlude::Moment moment, Call call) {
  Slot& slot = slotOf(call, moment);
  if (slot.part.load(std::memory_order_relaxed) == nullptr || slot.left.fetch_sub(1) != 1) return;
  const Interlude::Part* const part = slot.part.exchange(nullptr);
  if (part == nullptr) return;
  const int before = errno;
  const Aside fromHere;
  part->play();
  errno = before;
}

template <typename... Arguments>
int lastNumber(Arguments... arguments) {
  int last = Which::any;
  [[maybe_unused]] const auto look = [&last](auto argument) {
    if constexpr (std::is_same_v<decltype(argument), int>) last = argument;
  };
  (look(arguments), ...);
  return last;
}

/// Whether this call is refused, and with what.
template <typename... Arguments>
bool isStruck(Call call, int& error, Arguments... arguments) {
  CallRecord& record = board()[call];
  if (record.option != Which::any && record.option != lastNumber(arguments...)) return false;
  if (!isMeant(record.skip, record.times)) return false;
  error = record.error;
  record.struck.fetch_add(1);
  return true;
}

std::size_t limited(std::size_t size, std::size_t most) {
  if (size == 0) return 0;
  if (most == Shorten::half) return std::max<std::size_t>(size / 2, 1);
  if (most == Shorten::allButOne) return std::max<std::size_t>(size - 1, 1);
  return std::min(size, most);
}

/// How much this call may move, if that is less than it asks for.
bool isShort(Call call, std::size_t& most) {
  CallRecord& record = board()[call];
  if (!isMeant(record.shortSkip, record.shortTimes)) return false;
  most = record.most;
  record.struck.fetch_add(1);
  return true;
}

ssize_t writePieces(int fd, const iovec* pieces, int number, std::size_t most) {
  std::array<iovec, 64> taken{};
  const auto used = std::min(static_cast<std::size_t>(number), taken.size());
  std::size_t size = 0;
  for (std::size_t i = 0; i < used; ++i) size += pieces[i].iov_len;
  std::size_t left = limited(size, most);
  for (std::size_t i = 0; i < used; ++i) {
    taken[i] = {pieces[i].iov_base, std::min(pieces[i].iov_len, left)};
    left -= taken[i].iov_len;
  }
  return real<Call::writev>(fd, static_cast<const iovec*>(taken.data()), static_cast<int>(used));
}

template <Call call, typename... Arguments>
auto moved(Arguments... arguments) {
  std::size_t most = 0;
  if constexpr ((Row<call>::traits & Short) != 0) {
    if (isShort(call, most)) {
      if constexpr (call == Call::writev) {
        return writePieces(arguments..., most);
      } else {
        return [most](int fd, auto* buffer, std::size_t size, auto... place) {
          return real<call>(fd, buffer, limited(size, most), place...);
        }(arguments...);
      }
    }
  }
  if constexpr ((Row<call>::traits & SharesMemory) != 0) {
    // The child has this thread's count, and may become another program with it.
    const int before = t_aside;
    const auto result = real<call>(arguments...);
    t_aside = before;
    return result;
  }
  return real<call>(arguments...);
}

/// What a refused call gives.
template <Call call, typename... Arguments>
auto refusal(int error, Arguments... arguments) {
  using Result = decltype(real<call>(arguments...));
  constexpr Tells tells = Row<call>::tells;
  if constexpr (tells == Tells::MinusOneDone || tells == Tells::CodeDone) real<call>(arguments...);
  if constexpr (tells == Tells::Code || tells == Tells::CodeDone) {
    return static_cast<Result>(error);
  } else if constexpr (!std::is_void_v<Result>) {
    if (error != 0) errno = error;
    if (error == 0 || tells == Tells::Null || tells == Tells::Nothing) return Result{};
    return (Result)-1;  // NOLINT: MAP_FAILED, SIG_ERR or a number
  }
}

template <Call call, typename... Arguments>
auto answer(Arguments... arguments) {
  using Function = typename Instead<call>::Function;
  const void* const at = __atomic_load_n(&answerOf(call), __ATOMIC_SEQ_CST);
  if (at == nullptr) return moved<call>(arguments...);
  const Aside fromHere;
  return (*static_cast<const Function*>(at))(arguments...);
}

/// The way of every call.
template <Call call, typename... Arguments>
auto pass(Arguments... arguments) {
  if (t_aside != 0 || board().suspended) return real<call>(arguments...);
  arrive(call);
  play(Interlude::Before, call);
  int error = 0;
  if (isStruck(call, error, arguments...)) return refusal<call>(error, arguments...);
  if constexpr (std::is_void_v<decltype(real<call>(arguments...))>) {
    answer<call>(arguments...);
    play(Interlude::After, call);
  } else {
    const auto result = answer<call>(arguments...);
    play(Interlude::After, call);
    return result;
  }
}

bool refusesNew() {
  if (t_aside != 0 || board().suspended) return false;
  arrive(Call::operatorNew);
  int error = 0;
  return isStruck(Call::operatorNew, error);
}

[[maybe_unused]] const bool isAskedForMemory = (NoMemory::ask(refusesNew), true);

}  // namespace

const CallInfo& infoOf(Call call) { return infos[static_cast<std::size_t>(call)]; }

Call callNamed(const std::string& name) {
  const auto* const found = std::find_if(std::begin(infos), std::end(infos),
                                         [&](const CallInfo& info) { return name == info.name; });
  return static_cast<Call>(found - std::begin(infos));
}

const void*& answerOf(Call call) { return answers[static_cast<std::size_t>(call)]; }

CallBoard& board(CallBoard* another) {
  if (another != nullptr) currentBoard = another;
  return *currentBoard.load(std::memory_order_relaxed);
}

Aside::Aside() noexcept { ++t_aside; }
Aside::~Aside() { --t_aside; }

int made(Call call) { return board()[call].made; }

Refuse::Refuse(Call call, int error, Which which) : call_(call) {
  CallRecord& record = board()[call];
  record.times = 0;
  record.struck = 0;
  record.error = error;
  record.option = which.option;
  record.skip = which.skip;
  record.times = which.times;
}
Refuse::~Refuse() { board()[call_].times = 0; }
int Refuse::struck() const { return board()[call_].struck; }

Shorten::Shorten(Call call, std::size_t most, Which which) : call_(call) {
  CallRecord& record = board()[call];
  record.shortTimes = 0;
  record.struck = 0;
  record.most = most;
  record.shortSkip = which.skip;
  record.shortTimes = which.times;
}
Shorten::~Shorten() { board()[call_].shortTimes = 0; }

Interlude::Interlude(Moment moment, Call call, std::function<void()> play, int number)
    : call_(call), part_{moment, std::move(play), number} {
  Slot& slot = slotOf(call, moment);
  slot.left = number;
  slot.part = &part_;
}
Interlude::~Interlude() { slotOf(call_, part_.moment).part = nullptr; }

CallTrace::CallTrace() {
  board().traced = 0;
  board().tracing = true;
}
CallTrace::~CallTrace() { board().tracing = false; }

std::vector<std::string> CallTrace::calls() const {
  const CallBoard& at = board();
  std::vector<std::string> names;
  const std::size_t end = std::min<std::size_t>(at.traced, at.trace.size());
  for (std::size_t i = 0; i < end; ++i) {
    if (at.trace[i] != Call::operatorNew) names.emplace_back(infoOf(at.trace[i]).name);
  }
  return names;
}

}  // namespace kes::test

// NOLINTBEGIN(bugprone-macro-parentheses, bugprone-reserved-identifier)
#define BARE(...) __VA_ARGS__
#define CALL(name, result, parameters, arguments, ...) \
  extern "C" result __wrap_##name parameters;          \
  extern "C" result __wrap_##name parameters { return kes::test::pass<kes::test::Call::name> arguments; }
// The optional argument is fetched as a word, there or not: where it is passed, that is in a register.
#define VARIADIC(name, result, parameters, last, arguments, ...)         \
  extern "C" result __wrap_##name(BARE parameters, ...);                 \
  extern "C" result __wrap_##name(BARE parameters, ...) {                \
    std::va_list rest;                                                   \
    va_start(rest, last);                                                \
    void* const more = va_arg(rest, void*);                              \
    va_end(rest);                                                        \
    return kes::test::pass<kes::test::Call::name>(BARE arguments, more); \
  }
#include "support/Calls.def"
// NOLINTEND(bugprone-macro-parentheses, bugprone-reserved-identifier)
