#include "kespal/fs/Access.h"

#include <algorithm>
#include <iterator>
#include <ostream>
#include <stdexcept>

namespace kes::fs {

namespace {

std::string idText(unsigned id) { return id == Access::Unchanged ? "-" : std::to_string(id); }

std::string modeText(unsigned mode) {
  std::string text = "rwxrwxrwx";
  for (unsigned bit = 0400, at = 0; bit != 0; bit >>= 1, ++at) {
    if ((mode & bit) == 0) text[at] = '-';
  }
  return text;
}

/// Reads a mode text from left to right and applies it to a mode.
class ModeText {
 public:
  ModeText(const std::string& text, unsigned mode) : text_(text), mode_(mode) {}

  unsigned apply() {
    if (isOctal(peek())) {
      number();
    } else {
      do clause();
      while (take(','));
    }
    if (at_ != text_.size()) refuse("unexpected");
    return mode_;
  }

 private:
  struct Letter {
    char letter;
    unsigned bits;
  };
  static constexpr unsigned everybody = 07777;
  /// To a class belong all its permissions and its set-id or sticky bit.
  static constexpr Letter classes[] = {{'u', 04700}, {'g', 02070}, {'o', 01007}, {'a', everybody}};
  static constexpr Letter permissions[] = {{'r', 0444}, {'w', 0222}, {'x', 0111}};

  static bool isOctal(int c) { return c >= '0' && c <= '7'; }

  /// The next character, or -1 at the end.
  int peek() const { return at_ < text_.size() ? static_cast<unsigned char>(text_[at_]) : -1; }

  bool take(char c) {
    const bool taken = peek() == static_cast<unsigned char>(c);
    if (taken) ++at_;
    return taken;
  }

  /// Takes letters as long as they are of the given ones; all their bits.
  template <std::size_t Size>
  unsigned takeAll(const Letter (&letters)[Size]) {
    for (unsigned taken = 0;; ++at_) {
      const auto* found = std::find_if(std::begin(letters), std::end(letters),
                                       [this](const Letter& each) { return each.letter == peek(); });
      if (found == std::end(letters)) return taken;
      taken |= found->bits;
    }
  }

  void number() {
    mode_ = 0;
    for (; isOctal(peek()); ++at_) {
      mode_ = mode_ * 8 + static_cast<unsigned>(peek() - '0');
      if (mode_ > 07777) refuse("octal number above 7777 with");
    }
  }

  void clause() {
    const unsigned named = takeAll(classes);
    const unsigned who = named != 0 ? named : everybody;
    if (peek() != '+' && peek() != '-' && peek() != '=') {
      refuse(named != 0 ? "expected +, - or = instead of" : "expected u, g, o, a, +, - or = instead of");
    }
    for (;;) {
      const bool add = take('+'), remove = !add && take('-');
      if (!add && !remove && !take('=')) return;
      const unsigned bits = takeAll(permissions) & who;
      if (!add && !remove) mode_ &= ~who;
      mode_ = remove ? mode_ & ~bits : mode_ | bits;
    }
  }

  [[noreturn]] void refuse(const char* what) const {
    const int c = peek();
    std::string found = "the end";
    if (c >= ' ' && c <= '~') {
      found = std::string("'") + static_cast<char>(c) + '\'';
    } else if (c != -1) {
      found = "byte " + std::to_string(c);
    }
    throw std::invalid_argument("bad mode \"" + text_ + "\": " + what + ' ' + found + " at position " +
                                std::to_string(at_ + 1));
  }

  const std::string& text_;
  std::size_t at_ = 0;
  unsigned mode_;
};

}  // namespace

void Access::setMode(const std::string& text) { mode_ = bits(ModeText(text, mode_).apply()); }

bool Access::isSafe(bool allowOthersRead, unsigned owner, unsigned group) const noexcept {
  constexpr unsigned othersRead = 0004, othersWrite = 0002;
  const unsigned forbidden = allowOthersRead ? othersWrite : othersWrite | othersRead;
  return owner_ == owner && group_ == group && (mode_ & forbidden) == 0;
}

std::ostream& operator<<(std::ostream& stream, const Access& access) {
  return stream << idText(access.owner()) + ':' + idText(access.group()) + ' ' + modeText(access.mode());
}

}  // namespace kes::fs
