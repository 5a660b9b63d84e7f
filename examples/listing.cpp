// Lists a directory, folders in blue and programs in green where the output is a terminal that shows it, or
// where KES_FORCE_COLOR says so; KES_NO_COLOR keeps it plain.
//   listing [DIRECTORY]
#include <iostream>
#include <map>
#include <string>

#include "kespal/Terminal.h"
#include "kespal/error/Exception.h"
#include "kespal/fs/Dir.h"
#include "kespal/fs/Info.h"
#include "kespal/kespal.h"

namespace {

using namespace kes::term;

Paint paintOf(const kes::fs::Info& info) {
  if (info.isDir()) return {.foreground = Color::Blue, .foregroundBright = true};
  if (info.isRegular() && (info.mode() & 0111) != 0) return {.foreground = Color::Green};
  return {};
}

}  // namespace

int main(int argc, char** argv) {
  const kes::KesPal runtime(/*quitHandling=*/false, /*forkPending=*/false, kes::Locale::System);
  try {
    std::map<std::string, kes::fs::Info> entries;
    for (kes::fs::Dir dir(argc > 1 ? argv[1] : "."); dir.nextEntry();) {
      dir.entryInfo(entries[dir.entryName()], /*follow=*/false);
    }
    for (const auto& [name, info] : entries) {
      std::cout << paintOf(info) << name << Command{.flags = Command::Reset} << '\n';
    }
  } catch (const kes::Exception& error) {
    std::cerr << "listing: " << error.text() << '\n';
    return 1;
  }
}
