// A runtime object of namespace scope, made before the library's own static objects: the linker initialises
// what stands first on its command line first. Prints what is left of what it did.
#include <csignal>
#include <cstdlib>
#include <iostream>

#include "kespal/kespal.h"
#include "kespal/signal/Mask.h"

namespace {

const bool prepared =
    ::setenv("KES_I18N_DIR", "/a/path/that/is/too/long/to/lie/within/a/text/object", 1) == 0;
kes::KesPal runtime(true, true, kes::Locale::System, nullptr);

struct Watcher : kes::IForkHandler {
  Watcher() { runtime.addForkHandler(*this); }
  void afterFork() override { std::cout << "forked "; }
} watcher;

}  // namespace

int main() {
  const auto& original = kes::signal::Set::m_original;
  std::cout << prepared << original.contains(SIGTERM) << kes::signal::Mask::get().contains(SIGTERM)
            << runtime.forkPending() << ' ' << kes::Locale::m_locale_dir << ' ' << kes::Locale::m_locale_env
            << ' ';
  runtime.forkDone();
  std::cout << runtime.forkPending() << std::flush;
}
