#include "support/Pty.h"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <utility>

namespace kes::test {

namespace {

constexpr std::chrono::seconds patience(60);

void closeEnd(int& fd) {
  if (const int closing = std::exchange(fd, -1); closing >= 0) ::close(closing);
}

}  // namespace

Pty::Pty() : master_(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)), slave_(-1) {
  if (master_ < 0 || ::grantpt(master_) != 0 || ::unlockpt(master_) != 0) {
    throw std::runtime_error("no pseudo-terminal");
  }
  slave_ = ::open(::ptsname(master_), O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (slave_ < 0) throw std::runtime_error("no terminal end");
}

Pty::~Pty() {
  closeTerminal();
  closeKeyboard();
}

void Pty::closeKeyboard() { closeEnd(master_); }
void Pty::closeTerminal() { closeEnd(slave_); }

void Pty::type(const std::string& keys) const {
  if (::write(master_, keys.data(), keys.size()) != static_cast<ssize_t>(keys.size())) {
    throw std::runtime_error("cannot type");
  }
}

std::string Pty::screen(const std::string& text) {
  const auto end = std::chrono::steady_clock::now() + patience;
  while (screen_.find(text) == std::string::npos && std::chrono::steady_clock::now() < end) {
    pollfd ready{master_, POLLIN, 0};
    if (::poll(&ready, 1, 1000) <= 0) continue;
    std::array<char, 4096> buffer;
    const ssize_t count = ::read(master_, buffer.data(), buffer.size());
    if (count <= 0) break;
    screen_.append(buffer.data(), static_cast<std::size_t>(count));
  }
  return screen_;
}

termios Pty::attributes() const {
  termios attributes{};
  if (::tcgetattr(master_, &attributes) != 0) throw std::runtime_error("no attributes");
  return attributes;
}

bool Pty::becomes(const std::function<bool(const termios&)>& wanted) const {
  const auto end = std::chrono::steady_clock::now() + patience;
  while (std::chrono::steady_clock::now() < end) {
    if (wanted(attributes())) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return false;
}

}  // namespace kes::test
