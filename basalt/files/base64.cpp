#include "basalt/files/base64.h"

#include <sodium.h>

std::string toBase64(const void* bytes, std::size_t length) {
  std::string text(sodium_base64_encoded_len(length, sodium_base64_VARIANT_ORIGINAL), '\0');
  sodium_bin2base64(text.data(), text.size(), static_cast<const unsigned char*>(bytes), length,
                    sodium_base64_VARIANT_ORIGINAL);
  text.pop_back();  // the terminating zero
  return text;
}

std::optional<std::string> fromBase64(const std::string& text) {
  std::string bytes(text.size() / 4 * 3, '\0');
  std::size_t length = 0;
  if (sodium_base642bin(reinterpret_cast<unsigned char*>(bytes.data()), bytes.size(), text.data(), text.size(), nullptr,
                        &length, nullptr, sodium_base64_VARIANT_ORIGINAL) != 0) {
    return std::nullopt;
  }
  bytes.resize(length);
  return bytes;
}
