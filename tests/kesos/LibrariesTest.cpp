#include "kesos/libraries.h"

#include <dlfcn.h>

#include <cstring>

namespace {

constexpr char library[] = "libc.so.6";

TEST(LibrariesTest, ASymbolOfALibraryIsFoundAndUsed) {
  const char* error = "untouched";
  void* handle = KesOsDlLoadEx(library, &error);
  ASSERT_NE(handle, nullptr);
  EXPECT_STREQ(error, "untouched");
  void* address = KesOsDlGetAddrEx(handle, "strlen", &error);
  ASSERT_NE(address, nullptr);
  EXPECT_STREQ(error, "untouched");
  EXPECT_EQ(reinterpret_cast<std::size_t (*)(const char*)>(address)("four"), 4U);
  EXPECT_EQ(KesOsDlGetAddr(handle, "strlen"), address);
  EXPECT_EQ(KesOsDlFree(handle), 1);
}

TEST(LibrariesTest, ALibraryIsLoadedWithItsSymbolsUnboundAndGivenBack) {
  EXPECT_EQ(::dlopen(KES_PLUGIN, RTLD_NOW), nullptr) << "it has a symbol that nobody defines";
  void* handle = KesOsDlLoad(KES_PLUGIN);
  ASSERT_NE(handle, nullptr);
  const auto answer = reinterpret_cast<int (*)()>(KesOsDlGetAddr(handle, "kes_plugin_answer"));
  ASSERT_NE(answer, nullptr);
  EXPECT_EQ(answer(), 42);
  const auto noteEnd = reinterpret_cast<void (*)(int*)>(KesOsDlGetAddr(handle, "kes_plugin_note_end"));
  ASSERT_NE(noteEnd, nullptr);
  int ended = 0;
  noteEnd(&ended);
  EXPECT_EQ(KesOsDlLoad(KES_PLUGIN), handle) << "the same one, loaded twice";
  EXPECT_EQ(KesOsDlFree(handle), 1);
  EXPECT_EQ(ended, 0);
  EXPECT_EQ(KesOsDlFree(handle), 1);
  EXPECT_EQ(ended, 1);
}

TEST(LibrariesTest, WhatIsNoLibraryGivesTheLoadersMessage) {
  const char* error = nullptr;
  EXPECT_EQ(KesOsDlLoadEx("/dev/null", &error), nullptr);
  ASSERT_NE(error, nullptr);
  EXPECT_NE(std::strstr(error, "/dev/null"), nullptr);
}

TEST(LibrariesTest, WhatIsMissingGivesNullAndTheLoadersMessage) {
  const char* error = nullptr;
  EXPECT_EQ(KesOsDlLoadEx("libkes-no-such.so", &error), nullptr);
  ASSERT_NE(error, nullptr);
  EXPECT_NE(std::strstr(error, "libkes-no-such.so"), nullptr);
  EXPECT_EQ(KesOsDlLoad("libkes-no-such.so"), nullptr);
  void* handle = KesOsDlLoad(library);
  error = nullptr;
  EXPECT_EQ(KesOsDlGetAddrEx(handle, "kes_no_such_symbol", &error), nullptr);
  ASSERT_NE(error, nullptr);
  EXPECT_NE(std::strstr(error, "kes_no_such_symbol"), nullptr);
  EXPECT_EQ(KesOsDlGetAddrEx(handle, "kes_no_such_symbol", nullptr), nullptr);
  EXPECT_EQ(KesOsDlFree(handle), 1);
}

TEST(LibrariesTest, NullAndEmptyNamesGiveNull) {
  const char* error = nullptr;
  for (const char* name : {static_cast<const char*>(nullptr), ""}) {
    EXPECT_EQ(KesOsDlLoad(name), nullptr);
    EXPECT_EQ(KesOsDlLoadEx(name, &error), nullptr);
    EXPECT_EQ(KesOsDlLoadEx(name, nullptr), nullptr);
    void* handle = KesOsDlLoad(library);
    EXPECT_EQ(KesOsDlGetAddr(handle, name), nullptr);
    EXPECT_EQ(KesOsDlFree(handle), 1);
  }
  EXPECT_EQ(KesOsDlGetAddr(nullptr, "strlen"), nullptr);
  EXPECT_EQ(KesOsDlFree(nullptr), 1);
}

TEST(LibrariesTest, AnEmptyNameStoresTheLoadersLastMessage) {
  const char* error = nullptr;
  KesOsDlLoad("libkes-no-such.so");
  EXPECT_EQ(KesOsDlLoadEx("", &error), nullptr);
  ASSERT_NE(error, nullptr);
  EXPECT_NE(std::strstr(error, "libkes-no-such.so"), nullptr);
}

}  // namespace
