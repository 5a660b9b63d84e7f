// Prints a directory and all below it, with owner, group and rights of every entry:
//   example_tree [directory]

#include <algorithm>
#include <iostream>
#include <string>
#include <vector>

#include "kespal/error/FsError.h"
#include "kespal/fs/Dir.h"
#include "kespal/fs/Info.h"
#include "kespal/fs/Path.h"

using kes::fs::Dir;
using kes::fs::Info;
using kes::fs::Path;

namespace {

struct Entry {
  std::string name;
  Info info;
};

/// All entries, sorted by name. One that vanishes between the two questions is left out.
std::vector<Entry> entriesOf(const Path& directory) {
  std::vector<Entry> entries;
  for (Dir dir(directory.c_str()); dir.nextEntry();) {
    try {
      Entry entry{dir.entryName(), {}};
      dir.entryInfo(entry.info, /*follow=*/false);
      entries.push_back(entry);
    } catch (const kes::NoSuchFileError&) {
      continue;
    }
  }
  std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) { return a.name < b.name; });
  return entries;
}

void printBelow(const Path& directory, const std::string& indent) {
  for (const auto& [name, info] : entriesOf(directory)) {
    std::cout << info.access() << "  " << indent << name;
    std::cout << (info.isDir() ? "/" : info.isLink() ? "@" : "") << '\n';
    if (!info.isDir()) continue;
    try {
      printBelow(directory + name, indent + "  ");
    } catch (const kes::FsError& error) {
      std::cout << "  (not read: " << error.osError().text() << ")\n";
    }
  }
}

}  // namespace

int main(int argc, char** argv) try {
  const Path top(argc > 1 ? argv[1] : ".");
  std::cout << Info::get(top.c_str(), /*follow=*/true).access() << "  " << top << '\n';
  printBelow(top, "  ");
} catch (const kes::Exception& error) {
  std::cerr << error.exStack();
  return 1;
}
