#include <benchmark/benchmark.h>

#include <filesystem>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "kespal/fs/Path.h"

// Path beside std::filesystem::path, on ten thousand paths as programs have them.

namespace {

using kes::fs::Path;

/// Absolute paths of three to nine components of two to fifteen letters, with an extension.
const std::vector<std::string>& texts() {
  static const std::vector<std::string> all = [] {
    std::mt19937 random(10);
    std::vector<std::string> paths(10000);
    for (std::string& path : paths) {
      for (auto parts = 3 + random() % 7; parts > 0; --parts) {
        path += '/';
        for (auto letters = 2 + random() % 14; letters > 0; --letters) {
          path += static_cast<char>('a' + random() % 26);
        }
      }
      path += ".cpp";
    }
    return paths;
  }();
  return all;
}

template <typename P>
const std::vector<P>& paths() {
  static const std::vector<P> all(texts().begin(), texts().end());
  return all;
}

/// The same operations in the words of each library.
struct Ours {
  using P = Path;
  static std::string baseName(const P& path) { return path.basename(); }
  static std::string directoryName(const P& path) { return std::move(P(path).assignDirname()); }
  static std::string extension(const P& path) { return path.extension(false); }
  static P join(const P& path, const std::string& more) { return path + more; }
};

struct Standard {
  using P = std::filesystem::path;
  static std::string baseName(const P& path) { return path.filename().string(); }
  static std::string directoryName(const P& path) { return path.parent_path().string(); }
  static std::string extension(const P& path) { return path.extension().string(); }
  static P join(const P& path, const std::string& more) { return path / more; }
};

/// Measures an operation on every path.
template <typename P, typename Operation>
void onEach(benchmark::State& state, const std::vector<P>& all, Operation operation) {
  for (auto _ : state) {
    for (const P& each : all) benchmark::DoNotOptimize(operation(each));
  }
}

template <typename Library>
void BaseName(benchmark::State& state) {
  onEach(state, paths<typename Library::P>(), Library::baseName);
}

template <typename Library>
void DirectoryName(benchmark::State& state) {
  onEach(state, paths<typename Library::P>(), Library::directoryName);
}

template <typename Library>
void Extension(benchmark::State& state) {
  onEach(state, paths<typename Library::P>(), Library::extension);
}

template <typename Library>
void Join(benchmark::State& state) {
  const std::string more = "component";
  onEach(state, paths<typename Library::P>(), [&](const auto& path) { return Library::join(path, more); });
}

template <typename Library>
void Construction(benchmark::State& state) {
  onEach(state, texts(), [](const std::string& text) { return typename Library::P(text); });
}

/// Ours fills the same vector again and again, which is what its form is for; iterators have no such use.
void ComponentsOurs(benchmark::State& state) {
  std::vector<std::string> parts;
  onEach(state, paths<Path>(), [&](const Path& path) {
    path.components(parts);
    return parts.size();
  });
}

void ComponentsStandard(benchmark::State& state) {
  onEach(state, paths<std::filesystem::path>(), [&](const std::filesystem::path& path) {
    std::vector<std::string> parts;
    for (const std::filesystem::path& part : path) parts.push_back(part.string());
    return parts.size();
  });
}

BENCHMARK(BaseName<Ours>);
BENCHMARK(BaseName<Standard>);
BENCHMARK(DirectoryName<Ours>);
BENCHMARK(DirectoryName<Standard>);
BENCHMARK(Extension<Ours>);
BENCHMARK(Extension<Standard>);
BENCHMARK(Join<Ours>);
BENCHMARK(Join<Standard>);
BENCHMARK(Construction<Ours>);
BENCHMARK(Construction<Standard>);
BENCHMARK(ComponentsOurs);
BENCHMARK(ComponentsStandard);

}  // namespace
