// Hexadecimal texts, and the string functions, of 1 MiB each.
//
// Goals, as ratios of medians of one run:
//   hexBare            at most 1.3 x copyHexBare on x86-64, 2.6 x elsewhere
//   hexSeparated       at most 1.8 x copyHexSeparated
//   fromHexBare        at most 2.3 x copyHexBare on x86-64
//   fromHexSeparated   at most 5.2 x copyHexSeparated
//   dump               at most 1/25 of naiveDump, 1/10 of xxd
//   split              at most 1.0 x abslSplit, with a vector used again at most 1/1.35
//   replace            at most 1.0 x abslReplace
//   deleteChars        at most 1/5 of eraseIf
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "kespal/Helper.h"
#include "kespal/Hexdump.h"

#ifdef KES_BENCH_ABSL
#include <absl/strings/escaping.h>
#include <absl/strings/str_replace.h>
#include <absl/strings/str_split.h>
#endif
#ifdef KES_BENCH_BOOST
#include <boost/algorithm/hex.hpp>
#include <boost/algorithm/string.hpp>
#endif

namespace {

constexpr std::size_t mebibyte = 1 << 20;

std::string randomBytes(std::size_t size) {
  std::mt19937 random(1);
  std::string bytes(size, 0);
  for (char& byte : bytes) byte = static_cast<char>(random());
  return bytes;
}

const std::string bytes = randomBytes(mebibyte);
const std::string bare = kes::hex(bytes.data(), bytes.size(), 0, false);
const std::string separated = kes::hex(bytes.data(), bytes.size(), ':', false);

/// Measures an operation that gives a result.
template <typename Work>
void run(benchmark::State& state, const Work& work) {
  for (auto _ : state) {
    auto result = work();
    benchmark::DoNotOptimize(result);
  }
}

// --- hex

void copyHexBare(benchmark::State& state) {
  run(state, [] { return std::string(bare.data(), bare.size()); });
}
void hexBare(benchmark::State& state) {
  run(state, [] { return kes::hex(bytes.data(), bytes.size(), 0, false); });
}
void fromHexBare(benchmark::State& state) {
  run(state, [] { return kes::from_hex(bare); });
}
void copyHexSeparated(benchmark::State& state) {
  run(state, [] { return std::string(separated.data(), separated.size()); });
}
void hexSeparated(benchmark::State& state) {
  run(state, [] { return kes::hex(bytes.data(), bytes.size(), ':', false); });
}
void fromHexSeparated(benchmark::State& state) {
  run(state, [] { return kes::from_hex(separated); });
}
BENCHMARK(copyHexBare);
BENCHMARK(hexBare);
BENCHMARK(fromHexBare);
BENCHMARK(copyHexSeparated);
BENCHMARK(hexSeparated);
BENCHMARK(fromHexSeparated);

// --- hex dump

const kes::Hexdump hexdump{reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), 16, " "};

// Into a stream that has its memory already.
void dump(benchmark::State& state) {
  std::ostringstream stream;
  for (auto _ : state) {
    stream.seekp(0);
    stream << hexdump;
  }
}
void naiveDump(benchmark::State& state) {
  std::ostringstream stream;
  stream << std::setfill('0') << std::hex;
  for (auto _ : state) {
    stream.seekp(0);
    for (std::size_t at = 0; at < hexdump.size; ++at) {
      if (at != 0) stream << (at % 16 == 0 ? "\n" : " ");
      stream << std::setw(2) << static_cast<unsigned>(hexdump.data[at]);
    }
  }
}
BENCHMARK(dump);
BENCHMARK(naiveDump);

#ifdef KES_BENCH_XXD
void xxd(benchmark::State& state) {
  const char* const file = "bench-xxd.tmp";
  std::ofstream(file, std::ios::binary) << bytes;
  run(state,
      [file] { return std::system((KES_BENCH_XXD " " + std::string(file) + " > /dev/null").c_str()); });
  std::remove(file);
}
BENCHMARK(xxd)->UseRealTime();
#endif

// --- split, by the mean length of a field

std::string fields(std::size_t mean) {
  std::mt19937 random(1);
  std::string text;
  while (text.size() < mebibyte) {
    text.append(random() % (2 * mean), static_cast<char>('a' + random() % 26)) += ',';
  }
  return text;
}

void split(benchmark::State& state) {
  const std::string text = fields(static_cast<std::size_t>(state.range(0)));
  run(state, [&text] {
    std::vector<std::string> parts;
    kes::helper::split(text, ',', parts, false, true);
    return parts;
  });
}
void splitIntoUsed(benchmark::State& state) {
  const std::string text = fields(static_cast<std::size_t>(state.range(0)));
  std::vector<std::string> parts;
  for (auto _ : state) {
    kes::helper::split(text, ',', parts, false, true);
    benchmark::DoNotOptimize(parts);
  }
}
BENCHMARK(split)->Arg(8)->Arg(40);
BENCHMARK(splitIntoUsed)->Arg(8)->Arg(40);

// --- replace

std::string textWithPatterns() {
  std::mt19937 random(2);
  std::string text;
  while (text.size() < mebibyte) {
    for (std::size_t count = 20 + random() % 80; count != 0; --count) {
      text += static_cast<char>('a' + random() % 26);
    }
    text += "#pat";
  }
  return text;
}

const std::string patterns = textWithPatterns();

void replace(benchmark::State& state) {
  run(state, [] {
    std::string text = patterns;
    kes::helper::replace(text, "#pat", "<longer>");
    return text;
  });
}
void deleteChars(benchmark::State& state) {
  run(state, [] {
    std::string text = separated;
    kes::helper::replace_chars(text, ": \t\n", "");
    return text;
  });
}
void eraseIf(benchmark::State& state) {
  run(state, [] {
    std::string text = separated;
    std::erase_if(text, [](char c) { return c != 0 && std::strchr(": \t\n", c) != nullptr; });
    return text;
  });
}
BENCHMARK(replace);
BENCHMARK(deleteChars);
BENCHMARK(eraseIf);

// --- what else there is

#ifdef KES_BENCH_ABSL
void abslHex(benchmark::State& state) {
  run(state, [] { return absl::BytesToHexString(bytes); });
}
void abslFromHex(benchmark::State& state) {
  run(state, [] { return absl::HexStringToBytes(bare); });
}
void abslSplit(benchmark::State& state) {
  const std::string text = fields(static_cast<std::size_t>(state.range(0)));
  run(state, [&text] { return std::vector<std::string>(absl::StrSplit(text, ',')); });
}
void abslReplace(benchmark::State& state) {
  run(state, [] {
    std::string text = patterns;
    absl::StrReplaceAll({{"#pat", "<longer>"}}, &text);
    return text;
  });
}
BENCHMARK(abslHex);
BENCHMARK(abslFromHex);
BENCHMARK(abslSplit)->Arg(8)->Arg(40);
BENCHMARK(abslReplace);
#endif

#ifdef KES_BENCH_BOOST
void boostHex(benchmark::State& state) {
  run(state, [] { return boost::algorithm::hex(bytes); });
}
void boostFromHex(benchmark::State& state) {
  run(state, [] { return boost::algorithm::unhex(bare); });
}
void boostSplit(benchmark::State& state) {
  const std::string text = fields(static_cast<std::size_t>(state.range(0)));
  run(state, [&text] {
    std::vector<std::string> parts;
    boost::split(parts, text, [](char c) { return c == ','; });
    return parts;
  });
}
void boostReplace(benchmark::State& state) {
  run(state, [] {
    std::string text = patterns;
    boost::replace_all(text, "#pat", "<longer>");
    return text;
  });
}
BENCHMARK(boostHex);
BENCHMARK(boostFromHex);
BENCHMARK(boostSplit)->Arg(8)->Arg(40);
BENCHMARK(boostReplace);
#endif

}  // namespace
