#include "base/include/kerberos_data.h"

#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

void KerberosData::release() noexcept {
  if (data != nullptr && !foreign) {
    if (wipeOnFree) explicit_bzero(data, length);
    std::free(data);
  }
  data = nullptr;
  length = 0;
  foreign = false;
  wipeOnFree = false;
}

void KerberosData::assign(const void* bytes, std::size_t size, bool wipe) {
  if (size > std::numeric_limits<unsigned int>::max()) throw std::bad_alloc();
  char* copy = nullptr;
  if (size != 0) {
    copy = static_cast<char*>(std::malloc(size));
    if (copy == nullptr) throw std::bad_alloc();
    std::memcpy(copy, bytes, size);
  }
  release();
  data = copy;
  length = static_cast<unsigned int>(size);
  wipeOnFree = wipe;
}

void KerberosData::borrow(char* bytes, unsigned int size) noexcept {
  release();
  data = bytes;
  length = size;
  foreign = true;
}
