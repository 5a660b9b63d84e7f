#include "kespal/signal/Names.h"

#include <csignal>
#include <cstring>
#include <map>

namespace kes::signal {
namespace {

const std::map<int, std::string> labels = {
    {SIGHUP, "SIGHUP"},   {SIGINT, "SIGINT"},   {SIGQUIT, "SIGQUIT"}, {SIGILL, "SIGILL"},
    {SIGTRAP, "SIGTRAP"}, {SIGABRT, "SIGABRT"}, {SIGFPE, "SIGFPE"},   {SIGKILL, "SIGKILL"},
    {SIGBUS, "SIGBUS"},   {SIGSEGV, "SIGSEGV"}, {SIGSYS, "SIGSYS"},   {SIGPIPE, "SIGPIPE"},
    {SIGALRM, "SIGALRM"}, {SIGTERM, "SIGTERM"}, {SIGURG, "SIGURG"},   {SIGSTOP, "SIGSTOP"},
    {SIGTSTP, "SIGTSTP"}, {SIGCONT, "SIGCONT"}, {SIGCHLD, "SIGCHLD"}, {SIGTTIN, "SIGTTIN"},
    {SIGTTOU, "SIGTTOU"}, {SIGXCPU, "SIGXCPU"}, {SIGXFSZ, "SIGXFSZ"}, {SIGVTALRM, "SIGVTALRM"},
    {SIGPROF, "SIGPROF"}, {SIGUSR1, "SIGUSR1"}, {SIGUSR2, "SIGUSR2"}};

std::string described(int signal) {
  const char* text = ::strsignal(signal);
  return text != nullptr ? text : "";
}

TEST(NamesTest, TheTwentySevenKnownSignalsHaveTheirLabels) {
  ASSERT_EQ(labels.size(), 27u);
  for (const auto& [signal, label] : labels) EXPECT_EQ(siglabel(signal), label);
}

TEST(NamesTest, EveryOtherNumberIsDescribedAsTheSystemDoes) {
  for (int signal = -70; signal <= 200; ++signal) {
    if (!labels.contains(signal)) {
      EXPECT_EQ(siglabel(signal), described(signal)) << signal;
    }
  }
  EXPECT_EQ(siglabel(SIGWINCH), described(SIGWINCH));
  EXPECT_EQ(siglabel(SIGIO), described(SIGIO));
}

TEST(NamesTest, SignameIsTheSystemsDescriptionOfAnyNumber) {
  for (int signal = -70; signal <= 200; ++signal) EXPECT_EQ(signame(signal), described(signal)) << signal;
  EXPECT_EQ(signame(SIGTERM), "Terminated");
}

}  // namespace
}  // namespace kes::signal
