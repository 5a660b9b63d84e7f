#include "PluralRule.h"

#include <charconv>
#include <cstddef>
#include <system_error>

namespace kes {

namespace {

bool isBlank(char c) { return c == ' ' || c == '\t'; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

/// Computes an expression while it reads it. Both sides of an operator are always computed: nothing in the
/// language has an effect, and what cannot be divided counts as 0.
class Expression {
 public:
  Expression(std::string_view text, unsigned long number) : text_(text), number_(number) {}

  /// False where the text is no expression.
  bool compute(unsigned long& result) {
    result = choice();
    skipBlanks();
    return isRight_ && text_.empty();
  }

 private:
  using Level = unsigned long (Expression::*)();

  /// Deeper than any language needs, and no danger to the stack.
  static constexpr int deepest = 50;

  void skipBlanks() {
    while (!text_.empty() && isBlank(text_.front())) text_.remove_prefix(1);
  }

  bool take(std::string_view sign) {
    skipBlanks();
    if (!text_.starts_with(sign)) return false;
    text_.remove_prefix(sign.size());
    return true;
  }

  unsigned long fail() {
    isRight_ = false;
    text_ = {};
    return 0;
  }

  unsigned long choice() {
    if (++depth_ > deepest) return fail();
    unsigned long value = either();
    if (take("?")) {
      const unsigned long yes = choice();
      if (!take(":")) return fail();
      const unsigned long no = choice();
      value = value != 0 ? yes : no;
    }
    --depth_;
    return value;
  }

  unsigned long either() {
    unsigned long value = both();
    while (take("||")) value = static_cast<unsigned long>((both() != 0) | (value != 0));
    return value;
  }

  unsigned long both() {
    unsigned long value = equality();
    while (take("&&")) value = static_cast<unsigned long>((equality() != 0) & (value != 0));
    return value;
  }

  unsigned long equality() {
    unsigned long value = order();
    for (;;) {
      if (take("==")) {
        value = static_cast<unsigned long>(value == order());
      } else if (take("!=")) {
        value = static_cast<unsigned long>(value != order());
      } else {
        return value;
      }
    }
  }

  unsigned long order() {
    unsigned long value = sum();
    for (;;) {
      if (take("<=")) {
        value = static_cast<unsigned long>(value <= sum());
      } else if (take(">=")) {
        value = static_cast<unsigned long>(value >= sum());
      } else if (take("<")) {
        value = static_cast<unsigned long>(value < sum());
      } else if (take(">")) {
        value = static_cast<unsigned long>(value > sum());
      } else {
        return value;
      }
    }
  }

  unsigned long sum() {
    unsigned long value = product();
    for (;;) {
      if (take("+")) {
        value += product();
      } else if (take("-")) {
        value -= product();
      } else {
        return value;
      }
    }
  }

  unsigned long product() {
    unsigned long value = operand();
    for (;;) {
      if (take("*")) {
        value *= operand();
      } else if (take("/")) {
        const unsigned long by = operand();
        value = by != 0 ? value / by : 0;
      } else if (take("%")) {
        const unsigned long by = operand();
        value = by != 0 ? value % by : 0;
      } else {
        return value;
      }
    }
  }

  unsigned long operand() {
    bool isNegated = false, negates = false;
    while (!startsWith("!=") && take("!")) {
      negates = true;
      isNegated = !isNegated;
    }
    const unsigned long value = primary();
    if (!negates) return value;
    return static_cast<unsigned long>((value != 0) != isNegated);
  }

  bool startsWith(std::string_view sign) {
    skipBlanks();
    return text_.starts_with(sign);
  }

  unsigned long primary() {
    if (take("n")) return number_;
    if (take("(")) {
      const unsigned long value = choice();
      return take(")") ? value : fail();
    }
    unsigned long value = 0;
    const auto [end, error] = std::from_chars(text_.data(), text_.data() + text_.size(), value);
    if (error != std::errc() || text_.empty() || !isDigit(text_.front())) return fail();
    text_.remove_prefix(static_cast<std::size_t>(end - text_.data()));
    return value;
  }

  std::string_view text_;
  unsigned long number_;
  int depth_ = 0;
  bool isRight_ = true;
};

/// What stands behind `name` and blanks in a text, up to one of the characters `ends`; empty where it does
/// not occur.
std::string_view behind(std::string_view text, std::string_view name, std::string_view ends) {
  const std::size_t at = text.find(name);
  if (at == text.npos) return {};
  text.remove_prefix(at + name.size());
  while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
  return text.substr(0, text.find_first_of(ends));
}

}  // namespace

PluralRule::PluralRule(std::string_view header) noexcept {
  const std::string_view line = behind(header, "Plural-Forms:", "\n");
  const std::string_view count = behind(line, "nplurals=", ";");
  const std::string_view expression = behind(line, "plural=", ";");
  unsigned long forms = 0, ignored = 0;
  std::from_chars(count.data(), count.data() + count.size(), forms);
  if (forms == 0 || !Expression(expression, 1).compute(ignored)) return;
  forms_ = forms;
  expression_ = expression;
}

unsigned long PluralRule::formOf(unsigned long number) const noexcept {
  unsigned long form = 0;
  Expression(expression_, number).compute(form);
  return form < forms_ ? form : 0;
}

}  // namespace kes
