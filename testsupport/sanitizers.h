// FERRO_SANITIZED_ADDRESS, FERRO_SANITIZED_THREAD: which sanitizer the tests are built with, and FERRO_SANITIZED:
// either. g++ and clang++ tell it in different ways.

#pragma once

#if defined(__clang__)
#if __has_feature(address_sanitizer)
#define FERRO_SANITIZED_ADDRESS
#elif __has_feature(thread_sanitizer)
#define FERRO_SANITIZED_THREAD
#endif
#elif defined(__SANITIZE_ADDRESS__)
#define FERRO_SANITIZED_ADDRESS
#elif defined(__SANITIZE_THREAD__)
#define FERRO_SANITIZED_THREAD
#endif

#if defined(FERRO_SANITIZED_ADDRESS) || defined(FERRO_SANITIZED_THREAD)
#define FERRO_SANITIZED
#endif
