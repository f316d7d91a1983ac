#include "cloud/cloud_auth_mechanisms.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <string_view>
#include <utility>

namespace {

constexpr std::array<std::pair<std::string_view, CloudAnswerType>, 7> USUAL_ANSWERS{{
    {"UP", ANSWER_TEXT},
    {"SQ", ANSWER_TEXT},
    {"RESET", ANSWER_TEXT},
    {"OTP", ANSWER_TEXT_OOB},
    {"SMS", ANSWER_TEXT_OOB},
    {"PF", ANSWER_OOB},
    {"EMAIL", ANSWER_OOB},
}};

}  // namespace

std::int32_t usualAnswerType(const std::string& mechanismName) {
  const auto* const row = std::find_if(USUAL_ANSWERS.begin(), USUAL_ANSWERS.end(),
                                       [&mechanismName](const auto& one) { return one.first == mechanismName; });
  return row == USUAL_ANSWERS.end() ? ANSWER_UNKNOWN : row->second;
}
