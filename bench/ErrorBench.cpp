// What an error costs: to throw and catch it, one frame and twenty frames away, and to capture a stack.
//
// Goals, as ratios of medians of one run: OsError at most 1.5 x, FsError at most 1.8 x std::runtime_error at
// depth 1 (FsError at most 1.2 x std::filesystem::filesystem_error), both at most 1.2 x at depth 20; with
// backtraces on and every line seen before, at most 4 x a bare backtrace().
#include <benchmark/benchmark.h>
#include <execinfo.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "kespal/error/FsError.h"
#include "kespal/error/StaticError.h"

#ifdef KES_BENCH_BOOST
#include <boost/stacktrace.hpp>
#include <boost/throw_exception.hpp>
#endif

namespace {

/// Calls `action` below so many frames of its own.
[[gnu::noinline]] void atDepth(long depth, void (*action)()) {
  benchmark::DoNotOptimize(action);
  if (depth > 0) {
    atDepth(depth - 1, action);
  } else {
    action();
  }
  benchmark::ClobberMemory();  // no tail call
}

void throwAndCatch(benchmark::State& state, void (*action)()) {
  for (auto _ : state) {
    try {
      atDepth(state.range(0), action);
    } catch (const std::exception& error) {
      benchmark::DoNotOptimize(&error);
    }
  }
}

void throwRuntimeError(benchmark::State& state) {
  throwAndCatch(state, [] { throw std::runtime_error("it failed"); });
}
void throwFilesystemError(benchmark::State& state) {
  throwAndCatch(state, [] {
    throw std::filesystem::filesystem_error("open", "a/b/c",
                                            std::error_code(ENOENT, std::generic_category()));
  });
}
void raiseOsError(benchmark::State& state) {
  throwAndCatch(state, [] { kes::raiseAt(KES_HERE, kes::OsError(ENOENT)); });
}
void raiseUsageError(benchmark::State& state) {
  throwAndCatch(state, [] { kes::raiseAt(KES_HERE, kes::UsageError("it failed")); });
}
void raiseFsError(benchmark::State& state) {
  throwAndCatch(state, [] { kes::raiseAt(KES_HERE, kes::FsError("a/b/c", ENOENT)); });
}
void raiseNoSuchFileError(benchmark::State& state) {
  throwAndCatch(state, [] { kes::raiseAt(KES_HERE, kes::NoSuchFileError("a/b/c", ENOENT)); });
}
BENCHMARK(throwRuntimeError)->Arg(1)->Arg(20);
BENCHMARK(throwFilesystemError)->Arg(1)->Arg(20);
BENCHMARK(raiseOsError)->Arg(1)->Arg(20);
BENCHMARK(raiseUsageError)->Arg(1)->Arg(20);
BENCHMARK(raiseFsError)->Arg(1)->Arg(20);
BENCHMARK(raiseNoSuchFileError)->Arg(1)->Arg(20);

void capture(benchmark::State& state, void (*action)()) {
  for (auto _ : state) atDepth(state.range(0), action);
}

void bareBacktrace(benchmark::State& state) {
  capture(state, [] {
    std::array<void*, 128> frames;
    benchmark::DoNotOptimize(::backtrace(frames.data(), static_cast<int>(frames.size())));
  });
}
void getBacktrace(benchmark::State& state) {
  capture(state, [] { benchmark::DoNotOptimize(kes::Backtrace::get()); });
}
void raiseWithBacktrace(benchmark::State& state) {
  kes::Exception::m_gen_backtraces = true;
  throwAndCatch(state, [] { kes::raiseAt(KES_HERE, kes::OsError(ENOENT)); });
  kes::Exception::m_gen_backtraces = false;
}
BENCHMARK(bareBacktrace)->Arg(20);
BENCHMARK(getBacktrace)->Arg(20);
BENCHMARK(raiseWithBacktrace)->Arg(20);

#ifdef KES_BENCH_BOOST
void boostThrow(benchmark::State& state) {
  throwAndCatch(state, [] { BOOST_THROW_EXCEPTION(std::runtime_error("it failed")); });
}
void boostStacktraceText(benchmark::State& state) {
  capture(state, [] {
    std::ostringstream text;
    text << boost::stacktrace::stacktrace();
    benchmark::DoNotOptimize(text);
  });
}
BENCHMARK(boostThrow)->Arg(1)->Arg(20);
BENCHMARK(boostStacktraceText)->Arg(20);
#endif

}  // namespace
