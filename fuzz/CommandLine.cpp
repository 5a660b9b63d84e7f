#include <algorithm>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "State.h"
#include "Target.h"

namespace {

/// The words between the NULs.
std::vector<std::string> wordsOf(const std::uint8_t* data, std::size_t size) {
  std::vector<std::string> words{"kestrace"};
  std::string word;
  for (std::size_t i = 0; i < size; ++i) {
    if (data[i] != 0) {
      word += static_cast<char>(data[i]);
      continue;
    }
    words.push_back(word);
    word.clear();
  }
  return words;
}

}  // namespace

/// Any words as arguments: the walk stays inside them, and a name is one of them.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::vector<std::string> words = wordsOf(data, size);
  std::vector<char*> pointers;
  pointers.reserve(words.size() + 1);
  for (std::string& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  cmdTrace = cmdPacketDump = 0;
  _dumpFilename = "";
  const bool accepted = ProcessArguments(static_cast<int>(words.size()), pointers.data());
  const std::string name = _dumpFilename;
  if (!name.empty()) require(std::find(words.begin(), words.end(), name) != words.end());
  if (accepted && words.size() > 1 && cmdTrace == 0 && cmdPacketDump == 0) require(words.size() % 2 == 1);
  _dumpFilename = "";  // the words are about to go
  return 0;
}
