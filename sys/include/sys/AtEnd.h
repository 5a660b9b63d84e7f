#pragma once

#include <utility>

namespace kes::sys {

/// Does something when the scope is left, however that happens, unless it was dismissed before:
/// `const AtEnd leaving([this] { leave(); });`. An action that throws ends the program.
template <typename Action>
class [[nodiscard]] AtEnd {
 public:
  explicit AtEnd(Action action) : action_(std::move(action)) {}
  ~AtEnd() {  // NOLINT(bugprone-exception-escape): ends the program then
    if (armed_) action_();
  }
  AtEnd(const AtEnd&) = delete;
  AtEnd& operator=(const AtEnd&) = delete;

  void dismiss() noexcept { armed_ = false; }

 private:
  Action action_;
  bool armed_ = true;
};

}  // namespace kes::sys
