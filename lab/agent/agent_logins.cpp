#include "lab/agent/agent_logins.h"

#include "base/include/exceptions.h"
#include "cloud/include/cloud_auth_handler.h"
#include "cloud/include/curl_object.h"

using Guard = std::lock_guard<std::mutex>;

namespace {

// Where a transfer fails the connector in use is given up: whoever comes next takes the next one.
template <class Step>
int attempt(CloudAuth& client, Step step) try {
  return step();
} catch (const lumo::CurlException&) {
  client.resetProxy();
  throw;
}

}  // namespace

LoginStep AgentLogins::begin(const std::string& user, const std::string& uuid, int profile,
                             const CloudAuth::Payload& payload) {
  const auto made = std::make_shared<Login>();
  const Guard working(made->mutex);
  int login = 0;
  {
    const Guard guard(m_mutex);
    if (m_open.size() >= MOST) {
      LUMO_THROW(lumo::Base_Exception, -1, "There are %zu logins open already; end one.", m_open.size());
    }
    m_open.emplace(login = ++m_last, made);
  }
  try {
    made->client.reset(getHandler("", user, uuid, &profile));
    made->client->getCurl(user, "lab_agent");
    CloudAuth& client = *made->client;
    return reached(login, *made, attempt(client, [&] { return client.startAuthentication(&payload); }));
  } catch (...) {
    made->client.reset();
    forget(login);
    throw;
  }
}

LoginStep AgentLogins::answer(int login, const std::string& mechanism, int action, const std::string& text) {
  const Handle found = find(login);
  const Guard working(found->mutex);
  if (!found->client) LUMO_THROW(lumo::Base_Exception, -1, "There is no login %d.", login);
  CloudAuth& client = *found->client;
  return reached(login, *found, attempt(client, [&] { return client.advanceAuthentication(mechanism, action, text); }));
}

void AgentLogins::end(int login) {
  const Handle found = find(login);
  const Guard working(found->mutex);
  found->client.reset();
  forget(login);
}

AgentLogins::Handle AgentLogins::find(int login) {
  const Guard guard(m_mutex);
  const auto found = m_open.find(login);
  if (found == m_open.end()) LUMO_THROW(lumo::Base_Exception, -1, "There is no login %d.", login);
  return found->second;
}

LoginStep AgentLogins::reached(int login, Login& open, int status) {
  LoginStep step{login, status, std::nullopt};
  CloudAuthChallenge challenge;
  if (status == AUTH_NEXT_CHALLENGE && open.client->nextChallenge(challenge) != 0) step.challenge = challenge;
  if (!step.challenge && status != AUTH_PENDING) {
    open.client.reset();
    forget(login);
  }
  return step;
}

void AgentLogins::forget(int login) {
  const Guard guard(m_mutex);
  m_open.erase(login);
}
