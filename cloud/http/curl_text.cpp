#include "cloud/http/curl_text.h"

#include <curl/curl.h>

#include <limits>
#include <memory>

std::string percentEncoded(const std::string& text) {
  // A length of 0 would mean a text that ends at its zero byte.
  if (text.empty() || text.size() > static_cast<std::size_t>(std::numeric_limits<int>::max())) return {};
  const std::unique_ptr<char, decltype(&curl_free)> encoded(curl_escape(text.data(), static_cast<int>(text.size())),
                                                            curl_free);
  return encoded ? std::string(encoded.get()) : std::string();
}
