#include "CommandLine.h"

#include <climits>
#include <optional>
#include <random>

#include "State.h"
#include "support/ForkedChild.h"

namespace {

using kes::test::inChild;

/// Arguments as main() gets them.
class Arguments {
 public:
  explicit Arguments(std::vector<std::string> words) : words_(std::move(words)) {
    words_.insert(words_.begin(), "kestrace");
    for (std::string& word : words_) pointers_.push_back(word.data());
    pointers_.push_back(nullptr);
  }

  int count() const { return static_cast<int>(words_.size()); }
  char** values() { return pointers_.data(); }

 private:
  std::vector<std::string> words_;
  std::vector<char*> pointers_;
};

class CommandLineTest : public testing::Test {
 protected:
  void SetUp() override {
    dbgLvl = {};
    cmdTrace = cmdPacketDump = 0;
    _dumpFilename = "";
  }

  /// The arguments live on, as a program's do.
  bool process(const std::vector<std::string>& words) {
    arguments_.emplace(words);
    return ProcessArguments(arguments_->count(), arguments_->values());
  }

 private:
  std::optional<Arguments> arguments_;
};

void expectLevels(unsigned driver, unsigned ppp, unsigned oid) {
  EXPECT_EQ(dbgLvl.driver, driver);
  EXPECT_EQ(dbgLvl.ppp, ppp);
  EXPECT_EQ(dbgLvl.oid, oid);
}

TEST_F(CommandLineTest, TheStateIsZeroAtTheStart) {
  EXPECT_EQ(cmdTrace, 0);
  EXPECT_EQ(cmdPacketDump, 0);
  EXPECT_EQ(_exitflg, 0);
  EXPECT_STREQ(_dumpFilename, "");
  static_assert(sizeof dbgLvl == 6 && sizeof cmdTrace == 1);
  expectLevels(0, 0, 0);
}

TEST_F(CommandLineTest, EachOptionSetsItsLevelAndMovesTheIndexToTheValue) {
  Arguments arguments({"-d", "3", "-p", "2", "-o", "1"});
  for (int index = 1; index < arguments.count(); ++index) {
    const int before = index;
    ASSERT_TRUE(DoTraceCmdLineProcessing(arguments.count(), arguments.values(), index));
    EXPECT_EQ(index, before + 1);
  }
  expectLevels(3, 2, 1);
}

TEST_F(CommandLineTest, MinusCIsAnotherSpellingOfMinusO) {
  ASSERT_TRUE(process({"-c", "5"}));
  expectLevels(0, 0, 5);
  ASSERT_TRUE(process({"-o", "6"}));
  expectLevels(0, 0, 6);
}

TEST_F(CommandLineTest, AnOptionWithoutAValueIsRefusedAndMovesNothing) {
  for (const char* option : {"-d", "-p", "-c", "-o"}) {
    Arguments arguments({option});
    int index = 1;
    EXPECT_FALSE(DoTraceCmdLineProcessing(arguments.count(), arguments.values(), index)) << option;
    EXPECT_EQ(index, 1);
  }
  expectLevels(0, 0, 0);
}

TEST_F(CommandLineTest, AnyOtherWordIsRefused) {
  for (const char* word : {"", "x", "-", "--", "-D", "-x", "-d3", "-trac", "-traces", "-Trace", "-dump=x",
                           "-h", "--help", " -d", "-trace "}) {
    EXPECT_FALSE(process({word, "1"})) << word;
  }
}

TEST_F(CommandLineTest, AValueIsReadAsANumberAndCutToSixteenBits) {
  const std::pair<const char*, unsigned> values[] = {
      {"0", 0},          {"7", 7},          {"65535", 65535}, {"65536", 0},
      {"65537", 1},      {"-1", 65535},     {"x", 0},         {"", 0},
      {"12abc", 12},     {"  42", 42},      {"+9", 9},        {"0x10", 0},
      {"-trace", 0},     {"010", 10},       {"1.9", 1},       {"2147483647", 65535},
      {"2147483648", 0}, {"4294967299", 3},
  };
  for (const auto& [text, level] : values) {
    ASSERT_TRUE(process({"-d", text}));
    EXPECT_EQ(dbgLvl.driver, level) << text;
  }
}

TEST_F(CommandLineTest, ModesAreFlags) {
  ASSERT_TRUE(process({"-trace"}));
  EXPECT_EQ(cmdTrace, 1);
  EXPECT_EQ(cmdPacketDump, 0);
  ASSERT_TRUE(process({"-dump", "x", "-trace"}));
  EXPECT_EQ(cmdPacketDump, 1);
  EXPECT_STREQ(_dumpFilename, "x");
}

TEST_F(CommandLineTest, TheWordBehindDumpIsTheNameWhateverItLooksLike) {
  ASSERT_TRUE(process({"-dump", "-trace"}));
  EXPECT_EQ(cmdTrace, 0);
  EXPECT_STREQ(_dumpFilename, "-trace");
  ASSERT_TRUE(process({"-dump", "-dump", "-d", "1"}));
  EXPECT_STREQ(_dumpFilename, "-dump");
  expectLevels(1, 0, 0);
}

TEST_F(CommandLineTest, DumpAsTheLastArgumentLeavesTheNameEmpty) {
  ASSERT_TRUE(process({"-dump"}));
  EXPECT_EQ(cmdPacketDump, 1);
  EXPECT_STREQ(_dumpFilename, "");
}

TEST_F(CommandLineTest, OfTwoNamesTheLastCounts) {
  ASSERT_TRUE(process({"-dump", "first", "-dump", "second", "-dump"}));
  EXPECT_STREQ(_dumpFilename, "second");
}

TEST_F(CommandLineTest, ANameIsKeptWholeHoweverLongItIs) {
  ASSERT_TRUE(process({"-dump", std::string(100'000, 'a'), "-dump"}));
  EXPECT_EQ(_dumpFilename, std::string(100'000, 'a'));
}

TEST_F(CommandLineTest, TheFirstUnknownWordEndsTheWalk) {
  EXPECT_FALSE(process({"-d", "1", "what", "-trace"}));
  EXPECT_EQ(cmdTrace, 0);
  expectLevels(1, 0, 0);
}

TEST_F(CommandLineTest, TheUsageTextIsExact) {
  const auto child = inChild([] {
    PrintUsage("/usr/bin/kestrace");
    return 0;
  });
  EXPECT_EQ(child.out,
            "usage: /usr/bin/kestrace [-trace|-dump] <options>\n\n"
            "  -trace   get driver traces\n"
            "   options: [-d <driverDbgLvl> -p <pppDbgLvl> -o <oidDbgLvl>]\n\n"
            "  -dump    write PCAP compatible dump file\n"
            "   options: capture filename\n\n");
  EXPECT_EQ(child.err, "");
}

/// The walk as a table of words: what each does, given the next one.
struct Model {
  bool accepted = true;
  bool trace = false, dump = false;
  std::string name;
  unsigned levels[3] = {};

  explicit Model(const std::vector<std::string>& words) {
    for (std::size_t i = 0; accepted && i < words.size(); ++i) {
      const bool hasNext = i + 1 < words.size();
      const std::size_t which = std::string("-d-p-o-c").find(words[i]);
      if (words[i] == "-trace") {
        trace = true;
      } else if (words[i] == "-dump") {
        dump = true;
        if (hasNext) name = words[++i];
      } else if (words[i].size() == 2 && which != std::string::npos && which % 2 == 0 && hasNext) {
        levels[std::min<std::size_t>(which / 2, 2)] =
            static_cast<unsigned>(std::atoi(words[++i].c_str())) & 0xFFFF;
      } else {
        accepted = false;
      }
    }
  }
};

TEST_F(CommandLineTest, RandomArgumentsDoWhatTheModelDoes) {
  const std::vector<std::string> vocabulary = {"-trace", "-dump", "-d", "-p",   "-o", "-c",
                                               "1",      "65536", "-7", "name", "",   "%s"};
  std::mt19937 random(1234);
  std::uniform_int_distribution<std::size_t> word(0, vocabulary.size() - 1), count(0, 9);
  int accepted = 0;
  for (int round = 0; round < 20'000; ++round) {
    SetUp();
    std::vector<std::string> words;
    for (std::size_t left = count(random); left > 0; --left) words.push_back(vocabulary[word(random)]);
    const Model model(words);
    Arguments arguments(words);
    ASSERT_EQ(ProcessArguments(arguments.count(), arguments.values()), model.accepted);
    accepted += model.accepted ? 1 : 0;
    ASSERT_EQ(cmdTrace != 0, model.trace);
    ASSERT_EQ(cmdPacketDump != 0, model.dump);
    ASSERT_EQ(_dumpFilename, model.name);
    expectLevels(model.levels[0], model.levels[1], model.levels[2]);
  }
  EXPECT_GT(accepted, 1000);
}

}  // namespace
