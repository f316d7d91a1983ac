// A KDC of the test's own: MIT krb5kdc on 127.0.0.1:88 of the private host.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

#include "testsupport/temp_folder.h"

namespace testsupport {

// Makes a realm with its database, writes /etc/krb5.conf and starts the KDC; all goes with the object. Only in a
// private host (private_host.h). Throws std::runtime_error.
class MitKdc {
 public:
  explicit MitKdc(std::string realm = "CORP.EXAMPLE.TEST");
  ~MitKdc();
  MitKdc(const MitKdc&) = delete;
  MitKdc& operator=(const MitKdc&) = delete;

  const std::string& realm() const { return m_realm; }

  // Runs when nobody else does; `timeOffset` in seconds is added to the KDC's clock. Returns when it answers.
  void start(int timeOffset = 0);
  void stop();

  // A principal with a password, e.g. addUser("alice", "pw"); options as kadmin's addprinc takes them.
  void addUser(const std::string& name, const std::string& password, const std::vector<std::string>& options = {});
  // A principal with random keys, which stand in the keytab afterwards, e.g. a service or "HOST1$".
  void addWithKeytab(const std::string& name, const std::string& keytab);
  // New random keys under the next version; the keytab, where one is named, gets them beside the old ones.
  void rotateKey(const std::string& name, const std::string& keytab = {});
  // One query of kadmin.local.
  void admin(const std::vector<std::string>& query);
  // What the KDC wrote to its log.
  std::string log() const;

 private:
  void writeConfiguration() const;

  std::string m_realm;
  TempFolder m_folder;
  std::map<std::string, std::string> m_environment;
  pid_t m_pid = -1;
};

}  // namespace testsupport
