// A libcurl whose memory comes to an end when a test says so.
#pragma once

#include <curl/curl.h>

#include <cstdlib>
#include <cstring>

#include "cloud/include/curl_object.h"

// For a process of the test's own (EXPECT_EXIT), before it has a CurlObject.
class CurlMemory {
 public:
  CurlMemory() {
    { const CurlObject initialisesLibcurl; }
    curl_global_cleanup();
    curl_global_init_mem(CURL_GLOBAL_DEFAULT, &allocate, &std::free, &reallocate, &duplicate, &allocateZeros);
  }
  static inline bool isGone = false;

 private:
  static void* allocate(size_t size) { return isGone ? nullptr : std::malloc(size); }
  static void* allocateZeros(size_t count, size_t size) { return isGone ? nullptr : std::calloc(count, size); }
  static void* reallocate(void* block, size_t size) { return isGone ? nullptr : std::realloc(block, size); }
  static char* duplicate(const char* text) { return isGone ? nullptr : strdup(text); }
};
