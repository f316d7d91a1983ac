// A login as its caller leads it: the dialogue of cloud/include/cloud_auth.h with a person at the keyboard.
#pragma once

#include <chrono>
#include <string>

#include "cloud/include/cloud_auth.h"
#include "terminal.h"

struct LoginOptions {
  std::string platform;  // URL with a slash at its end; empty: the platform of the connectors
  std::string user;
  std::string uuid;
  int profile = PROFILE_LOGIN;
  CloudAuth::Payload payload;
  std::chrono::milliseconds pollInterval{2'000};
  std::chrono::milliseconds pollLimit{120'000};
};

// The CloudAuthStatus that the login ended with. AUTH_PENDING: no answer came within `pollLimit`. AUTH_NEXT_CHALLENGE:
// the platform wants something more that cannot be given at a terminal. Throws what the client and the terminal throw.
int login(const LoginOptions& options, Terminal& terminal);
