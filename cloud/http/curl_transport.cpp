#include <curl/curl.h>
#include <malloc.h>
#include <string.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "cloud/include/curl_object.h"
#include "cloud/include/transport_start.h"

namespace {

// The size is asked from the allocator instead of being kept in front of the block: so a block that came from plain
// malloc, before libcurl got these functions, is given back correctly too.
void wipeAndFree(void* block) {
  if (block == nullptr) return;
  const int kept = errno;  // libcurl reads errno after it gave memory back
  explicit_bzero(block, malloc_usable_size(block));
  std::free(block);
  errno = kept;
}

void* allocate(size_t size) { return std::malloc(size); }

void* allocateZeros(size_t count, size_t size) { return std::calloc(count, size); }

// std::realloc would leave the old block unwiped where it moves it. As with std::realloc, the old block stays valid
// when there is no memory for the new one.
void* reallocate(void* block, size_t size) {
  if (block == nullptr) return std::malloc(size);
  const size_t usable = malloc_usable_size(block);
  // A block that shrinks a little stays: its rest is wiped with it.
  if (size <= usable && size >= usable / 2) return block;
  void* const moved = std::malloc(size);
  if (moved == nullptr) return nullptr;
  std::memcpy(moved, block, std::min(usable, size));
  wipeAndFree(block);
  return moved;
}

char* duplicate(const char* text) { return strdup(text); }

}  // namespace

void lumo::startTransport() {
  static const CURLcode initialised =
      curl_global_init_mem(CURL_GLOBAL_DEFAULT, &allocate, &wipeAndFree, &reallocate, &duplicate, &allocateZeros);
  if (initialised != CURLE_OK) LUMO_THROW(lumo::CurlException, -1, "Failed to create curl context");
}
