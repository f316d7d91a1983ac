// The dialogue's records: which challenge is open, which is done.
#include <algorithm>

#include "base/include/printable.h"
#include "cloud/include/cloud_auth.h"

CloudAuth::CloudAuth(const std::string& url, std::string restVersion, const std::string& user)
    : CloudBase(url), version(std::move(restVersion)), versionUrl(url + "sysinfo/version") {
  setUserName(user);
}

void CloudAuth::setCookie(const int&, const std::string&) {}

std::string CloudAuth::getCookie(const int&) { return std::string(); }

void CloudAuth::setUserName(const std::string& user) {
  userName = user;
  params["user"] = user;
  params["elevate"] = "undefined";
}

int CloudAuth::nextChallenge(CloudAuthChallenge& out) {
  const auto next = std::find_if(challenges.begin(), challenges.end(),
                                 [](const CloudAuthChallenge& challenge) { return !challenge.done; });
  if (next == challenges.end()) {
    currentChallenge.clear();
    return 0;
  }
  currentChallenge = next->name;
  out = *next;
  return 1;
}

CloudAuthChallenge* CloudAuth::findCurrentChallenge() {
  const auto open = std::find_if(challenges.begin(), challenges.end(), [this](const CloudAuthChallenge& challenge) {
    return challenge.name == currentChallenge;
  });
  if (open == challenges.end()) {
    LUMO_THROW(lumo::CloudException, -1, "Failed to locate the current challenge in challenge list.");
  }
  return &*open;
}

CloudAuthMechanism* CloudAuth::findMechanism(const std::string& mechanismId, CloudAuthChallenge& challenge) {
  const auto found = std::find_if(
      challenge.mechanisms.begin(), challenge.mechanisms.end(),
      [&mechanismId](const CloudAuthMechanism& mechanism) { return mechanism.mechanismId == mechanismId; });
  if (found == challenge.mechanisms.end()) {
    LUMO_THROW(lumo::CloudException, -1, "Failed to locate the mechanism '%s' in current challenge.",
               lumo::printable(mechanismId).c_str());
  }
  return &*found;
}

void CloudAuth::markChallengeDone(const std::string& mechanismId, bool done) {
  for (CloudAuthChallenge& challenge : challenges) {
    if (challenge.name != currentChallenge) continue;
    challenge.done = done;
    challenge.selectedMechanism = mechanismId;
    return;
  }
}
