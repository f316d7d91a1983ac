// What all login versions know of the platform's mechanisms.
#pragma once

#include <cstdint>
#include <string_view>

#include "cloud/include/cloud_auth.h"

// The CloudAnswerType of a mechanism that the platform says nothing more about, by its name. Any thread.
std::int32_t usualAnswerType(std::string_view mechanismName);
