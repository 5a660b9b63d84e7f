// Paths against a plain model: every rule as a loop over single characters.
#include <random>
#include <string_view>

#include "kespal/fs/PathForms.h"

namespace kes::fs {
namespace {

namespace model {

std::size_t lastSlash(const std::string& text) {
  for (std::size_t at = text.size(); at-- > 0;) {
    if (text[at] == '/') return at;
  }
  return std::string::npos;
}

std::string cleansed(std::string text) {
  while (text.size() >= 2 && text[text.size() - 1] == '/') text.erase(text.size() - 1);
  return text;
}

Strings pieces(const std::string& text, char delimiter) {
  Strings all;
  std::string piece;
  for (char c : text + delimiter) {
    if (c != delimiter) {
      piece += c;
    } else if (!piece.empty()) {
      all.push_back(piece);
      piece.clear();
    }
  }
  return all;
}

std::string basename(const std::string& text) {
  std::string base;
  for (char c : text) {
    if (c == '/') {
      base.clear();
    } else {
      base += c;
    }
  }
  return base;
}

std::string dirname(const std::string& text) {
  if (text == "/") return "/";
  const std::size_t slash = lastSlash(text);
  return slash == std::string::npos ? "." : text.substr(0, slash);
}

std::string strip(std::string text, std::size_t n) {
  for (std::size_t done = 0; done < n; ++done) {
    const std::size_t slash = lastSlash(text);
    if (slash == std::string::npos) return "";
    text = text.substr(0, slash);
  }
  return text;
}

std::string extension(const std::string& text, bool first) {
  const std::string base = basename(text);
  std::string result;
  bool seen = false;
  for (char c : base) {
    if (c == '.' && !(first && seen)) {
      result.clear();
      seen = true;
    } else if (seen) {
      result += c;
    }
  }
  return result;
}

std::string join(const Strings& parts, bool absolute) {
  std::string text = absolute ? "/" : "";
  for (std::size_t at = 0; at < parts.size(); ++at) text += (at == 0 ? "" : "/") + parts[at];
  return text;
}

std::string intersection(const std::string& left, const std::string& right) {
  const bool absolute = !left.empty() && left[0] == '/';
  if (absolute != (!right.empty() && right[0] == '/')) return "";
  const Strings a = pieces(left, '/'), b = pieces(right, '/');
  Strings common;
  for (std::size_t at = 0; at < a.size() && at < b.size() && a[at] == b[at]; ++at) common.push_back(a[at]);
  return join(common, absolute);
}

}  // namespace model

/// Random texts that are mostly slashes and dots; every byte value occurs.
class Texts {
 public:
  explicit Texts(unsigned seed) : random_(seed) {}

  std::string next() {
    std::string text;
    for (std::size_t left = random_() % 24; left > 0; --left) text += character();
    return text;
  }

 private:
  char character() {
    constexpr std::string_view usual = "///...aab";
    const auto pick = random_() % 10;
    return pick < usual.size() ? usual[pick] : static_cast<char>(random_() % 256);
  }

  std::mt19937 random_;
};

class PathModelTest : public testing::TestWithParam<unsigned> {
 protected:
  static constexpr int rounds = 5000;
  Texts texts_{GetParam()};
};

TEST_P(PathModelTest, ConstructionAgrees) {
  for (int round = 0; round < rounds; ++round) {
    const std::string text = texts_.next();
    ASSERT_EQ(Path(text), model::cleansed(text));
    ASSERT_EQ(Path(text, Path::CANONICAL), model::cleansed(text));
    ASSERT_EQ(Path(text.c_str()), model::cleansed(text.c_str()));
  }
}

TEST_P(PathModelTest, EveryOperationOnOnePathAgrees) {
  for (int round = 0; round < rounds; ++round) {
    const std::string text = texts_.next();
    const Path path = exactly(text);
    ASSERT_EQ(path.isAbsolute(), text.substr(0, 1) == "/") << text;
    ASSERT_EQ(path.root(), text.substr(0, 1) == "/" ? "/" : "") << text;
    ASSERT_EQ(componentsOf(path), model::pieces(text, '/')) << text;
    ASSERT_EQ(path.basename(), model::basename(text)) << text;
    ASSERT_EQ(Path(path).assignBasename(), model::basename(text)) << text;
    ASSERT_EQ(Path(path).assignDirname(), model::dirname(text)) << text;
    ASSERT_EQ(path.extension(false), model::extension(text, false)) << text;
    ASSERT_EQ(path.extension(true), model::extension(text, true)) << text;
    const Strings pieces = model::pieces(model::basename(text), '.');
    ASSERT_EQ(extensionsOf(path), pieces) << text;
    ASSERT_EQ(path.strippedBasename(), pieces.empty() ? "" : pieces.front()) << text;
    for (std::size_t n = 0; n < 6; ++n)
      ASSERT_EQ(stripped(path, n), model::strip(text, n)) << text << ' ' << n;
  }
}

TEST_P(PathModelTest, EveryOperationOnTwoPathsAgrees) {
  for (int round = 0; round < rounds; ++round) {
    const std::string left = texts_.next(), right = texts_.next();
    const Path path = exactly(left), other = exactly(right);
    ASSERT_EQ(path + right, left + '/' + right);
    ASSERT_EQ(path + other, left + '/' + right);
    ASSERT_EQ(path + right.c_str(), left + '/' + right.c_str());
    ASSERT_EQ(path.intersection(other), model::intersection(left, right)) << left << ' ' << right;
    ASSERT_EQ(path.intersection(path), model::join(componentsOf(path), path.isAbsolute())) << left;
  }
}

TEST_P(PathModelTest, JoinAgreesAlsoWithEmptyElements) {
  std::mt19937 random(GetParam());
  for (int round = 0; round < rounds; ++round) {
    Strings parts(random() % 5);
    for (std::string& part : parts) part = random() % 3 == 0 ? "" : texts_.next();
    for (bool absolute : {false, true})
      ASSERT_EQ(Path("x").join(parts, absolute), model::join(parts, absolute));
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, PathModelTest, testing::Values(1U, 20201U, 4242424242U));

}  // namespace
}  // namespace kes::fs
