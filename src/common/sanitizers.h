// Which sanitizer a build runs under, as the compilers say it: TAVRIX_ASAN
// for AddressSanitizer, TAVRIX_TSAN for ThreadSanitizer. Code and tests that
// must behave otherwise there (a slower run, stacks the sanitizer cannot
// follow) ask these rather than each compiler's own words.
#pragma once

#if defined(__SANITIZE_ADDRESS__)
#define TAVRIX_ASAN 1
#endif
#if defined(__SANITIZE_THREAD__)
#define TAVRIX_TSAN 1
#endif
#if defined(__has_feature)
#if __has_feature(address_sanitizer) && !defined(TAVRIX_ASAN)
#define TAVRIX_ASAN 1
#endif
#if __has_feature(thread_sanitizer) && !defined(TAVRIX_TSAN)
#define TAVRIX_TSAN 1
#endif
#endif
