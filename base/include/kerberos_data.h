// A byte buffer with the fields of a krb5_data that knows whether it owns its bytes and whether they are secret.
#pragma once

#include <cstddef>

// Not copyable. Memory owned here comes from malloc.
class KerberosData {
 public:
  KerberosData() = default;
  KerberosData(const KerberosData&) = delete;
  KerberosData& operator=(const KerberosData&) = delete;
  ~KerberosData() { release(); }

  // Unless the bytes are somebody else's: wipes them when so flagged and frees them. Null and zero afterwards in every
  // case.
  void release() noexcept;

  // Replaces the content by a copy of the bytes, owned, wiped on release when `wipe` is set. Throws std::bad_alloc; the
  // old content is then unchanged.
  void assign(const void* bytes, std::size_t size, bool wipe);

  // Replaces the content by bytes that stay somebody else's.
  void borrow(char* bytes, unsigned int size) noexcept;

  const char* bytes() const noexcept { return data; }
  unsigned int size() const noexcept { return length; }

 private:
  // There so that the fields are those of a krb5_data; nobody reads it.
  [[maybe_unused]] int magic = 0;
  unsigned int length = 0;
  char* data = nullptr;
  bool foreign = false;
  bool wipeOnFree = false;
};
