#pragma once

#include <string_view>

namespace kes {

/// How a language chooses the form of a text by a number: an expression of C in the one variable n, as it
/// stands in the header of a message catalogue. It is computed anew for each number, and takes no memory.
class PluralRule {
 public:
  /// The rule of English and many others: form 0 for 1, form 1 for all else.
  PluralRule() noexcept = default;
  /// The rule of a header, whose text must outlive the object; the one above where the header has none, or
  /// one that is no such expression.
  explicit PluralRule(std::string_view header) noexcept;

  /// The number of the form; 0 where the rule gives one that the language does not have.
  unsigned long formOf(unsigned long number) const noexcept;

 private:
  std::string_view expression_ = "n != 1";
  unsigned long forms_ = 2;
};

}  // namespace kes
