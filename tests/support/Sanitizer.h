#pragma once

namespace kes::test {

#ifdef __has_feature
#define KES_TEST_HAS_FEATURE(feature) __has_feature(feature)
#else
#define KES_TEST_HAS_FEATURE(feature) 0
#endif

/// Whether the program is built with the thread sanitizer.
#if defined(__SANITIZE_THREAD__) || KES_TEST_HAS_FEATURE(thread_sanitizer)
inline constexpr bool threadSanitizer = true;
#else
inline constexpr bool threadSanitizer = false;
#endif

/// Whether the program is built with a sanitizer, which is slow and makes system calls of its own.
#if defined(__SANITIZE_ADDRESS__) || KES_TEST_HAS_FEATURE(address_sanitizer)
inline constexpr bool isSanitized = true;
#else
inline constexpr bool isSanitized = threadSanitizer;
#endif

#undef KES_TEST_HAS_FEATURE

}  // namespace kes::test

/// For tests of what no sanitizer leaves as it is.
#define KES_SKIP_UNDER_SANITIZERS(reason) \
  if (::kes::test::isSanitized) GTEST_SKIP() << "a sanitizer " << (reason)

/// For tests of what the thread sanitizer cannot watch, or changes, or reports though it is meant.
#define KES_SKIP_UNDER_THREAD_SANITIZER(reason) \
  if (::kes::test::threadSanitizer) GTEST_SKIP() << "the thread sanitizer " << (reason)
