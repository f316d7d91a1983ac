// A process with an agent, over a directory in memory.
#pragma once

#include <string>

#include "basalt/ad_agent.h"
#include "testsupport/fake_credential_source.h"
#include "testsupport/memory_directory.h"

namespace testsupport {

// Puts the directory in the real one's place, gives tickets without a KDC and starts the process's agent, for the
// scope. Site and failures that the agent is to find at its start are set before.
class AgentInForce {
 public:
  explicit AgentInForce(DirectoryConnector& directory, const std::string& domain = "corp.test")
      : m_directory(directory) {
    ADAgent::Options options;
    options.domain = domain;
    ADAgent::start(options);
  }
  ~AgentInForce() { ADAgent::stop(); }
  AgentInForce(const AgentInForce&) = delete;
  AgentInForce& operator=(const AgentInForce&) = delete;

  ADAgent& agent() { return *ADAgent::GetADAgent(false, true); }
  ADAgent* operator->() { return &agent(); }
  FakeCredentialSource& credentials() { return m_credentials; }

 private:
  DirectoryInForce m_directory;
  FakeCredentialSource m_credentials;
};

}  // namespace testsupport
