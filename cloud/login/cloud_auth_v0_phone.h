// The telephone lines that the oldest login tells apart; the platform knows them all as the mechanism "PF".
#pragma once

#include <algorithm>
#include <array>
#include <string>
#include <string_view>

struct PhoneLine {
  std::string_view mechanismId;
  std::string_view label;  // the platform's
};

inline constexpr std::string_view PHONE = "PF";

inline constexpr std::array<PhoneLine, 3> PHONE_LINES{{
    {"PF_HOME", "home"},
    {"PF_OFFICE", "office"},
    {"PF_MOBILE", "mobile"},
}};

// The row whose `column` holds the text, null where there is none. Any thread.
inline const PhoneLine* phoneLine(std::string_view PhoneLine::*column, std::string_view text) {
  const auto* const row = std::find_if(PHONE_LINES.begin(), PHONE_LINES.end(),
                                       [column, text](const PhoneLine& one) { return one.*column == text; });
  return row == PHONE_LINES.end() ? nullptr : row;
}
