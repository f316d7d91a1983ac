// Text helpers of libcurl for the units that do not know its header.
#pragma once

#include <string>

// Percent-encoded by curl_escape: all but letters, digits and "-._~". Empty where libcurl has no memory. Any thread.
std::string percentEncoded(const std::string& text);
