#include "cloud/login/cloud_auth_mechanisms.h"

#include <array>
#include <string_view>
#include <utility>

#include "cloud/login/lookup.h"

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

std::int32_t usualAnswerType(std::string_view mechanismName) {
  return lookedUp(USUAL_ANSWERS, mechanismName, ANSWER_UNKNOWN);
}
