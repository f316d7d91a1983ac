// Bytes as base64 text (RFC 4648, section 4). Any thread.
#pragma once

#include <optional>
#include <string>

// With padding, on one line.
std::string toBase64(const void* bytes, std::size_t length);
// Nothing when the text is not exactly what toBase64 makes of some bytes.
std::optional<std::string> fromBase64(const std::string& text);
