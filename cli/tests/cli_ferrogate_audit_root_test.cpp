// The audit records of the real tool.
#include "cli/tests/tool_host.h"

namespace {

using namespace tooltest;
using Records = std::vector<std::string>;

class Audit : public JoinedHost {
 protected:
  // The record of a run, with its caller cut off.
  static Records after(const Arguments& arguments, const testsupport::ProcessOptions& options = {}) {
    configureLogAlone();
    tool(arguments, options);
    Records found = audits();
    for (auto& record : found) record = record.substr(0, record.find(" Caller: "));
    return found;
  }
  // A log of the run's own; the settings stay.
  static void configureLogAlone() {
    std::filesystem::remove(LOG);
    const std::string log = "logging.file: " + std::string(LOG) + "\n";
    const std::string now = testsupport::exists(CONFIGURATION) ? configuration() : "";
    if (now.find(log) == std::string::npos) configure(log + now);
  }
};

Records changed(const std::string& what) {
  return {"INFO Audit: --set ended with status 0 (Success). Changed: " + what + "."};
}

TEST_F(Audit, OfSettingsTellsWhatBecameOfThem) {
  EXPECT_EQ(after({"-S", "-s", "h:1", "-r", "true"}), changed("ferrod.cloud.proxy.server from none to 'h:1'; "
                                                              "ferrod.cloud.proxy.auth.required from none to 'true'"));
  EXPECT_EQ(after({"-S", "-s", "h:2", "-r", "true"}), changed("ferrod.cloud.proxy.server from 'h:1' to 'h:2'"));
  EXPECT_EQ(after({"-S", "-s", ""}), changed("ferrod.cloud.proxy.server from 'h:2' to none"));
  EXPECT_EQ(after({"-S", "-s", "", "-r", "true"}), Records()) << "nothing changed";
}

TEST_F(Audit, OfACredentialTellsItsUserAndNoPassword) {
  EXPECT_EQ(after({"-S", "-u", "bob", "-p", "s3cret"}),
            changed("credential user from none to 'bob', password changed"));
  EXPECT_EQ(after({"-S", "-u", "eve", "-p", "s3cret"}),
            changed("credential user from 'bob' to 'eve', password changed"));
  EXPECT_EQ(after({"-S", "-m"}), changed("credential user from 'eve' to the machine account; "
                                         "ferrod.cloud.proxy.auth.type from none to 'negotiate'"));
  EXPECT_EQ(after({"-D"}), (Records{"INFO Audit: --delete ended with status 0 (Success). Changed: credential user from "
                                    "the machine account to none."}));
  EXPECT_EQ(after({"-D"}), Records()) << "there was none";
  testsupport::writeFile(CREDENTIAL, "damaged", 0600);
  EXPECT_EQ(after({"-D"}), (Records{"INFO Audit: --delete ended with status 0 (Success). Changed: credential user from "
                                    "an unreadable file to none."}));
  EXPECT_EQ(testsupport::readFile(LOG).find("s3cret"), std::string::npos);
}

TEST_F(Audit, OfARefusedCommandIsAWarning) {
  const auto refused = [](const std::string& command, const std::string& status, const std::string& what = "nothing") {
    return Records{"WARN Audit: --" + command + " ended with status " + status + ". Changed: " + what + "."};
  };
  EXPECT_EQ(after({"-S", "-t", "nonsense"}), refused("set", "7 (Usage error)"));
  EXPECT_EQ(after({"-D", "-X"}), refused("delete", "7 (Usage error)"));
  EXPECT_EQ(after({"-S", "-u", "bob"}), refused("set", "160 (Failed to set credential data)"));
  EXPECT_EQ(after({"-S", "-s", "h:9", "--", "-L"}),
            refused("set", "7 (Usage error)", "ferrod.cloud.proxy.server from none to 'h:9'"))
      << "the second command is refused once the first has done its work";
  testsupport::ProcessOptions other;
  other.uid = 65534;
  chmod("/var/morvand", 0777);
  EXPECT_EQ(after({"-S", "-s", "h:1"}, other), refused("set", "9 (Root privilege is required for the operation)"));
  chmod("/var/morvand", 0755);
  unlink(KEYTAB);
  EXPECT_EQ(after({"--delete"}), refused("delete", "10 (Machine is not joined to any domain)"));
  for (const Arguments& arguments : {Arguments{"-L"}, {"-X"}, {"-h"}, {"word"}, {}}) {
    EXPECT_EQ(after(arguments), Records()) << joined(arguments);
  }
}

TEST_F(Audit, OfAHalfDoneCommandTellsWhatWasDone) {
  configureLogAlone();
  testsupport::mountReadOnly("/etc/morvand");
  tool({"-S", "-u", "bob", "-p", "x", "-s", "h:1"});
  ASSERT_EQ(audits().size(), 1U);
  EXPECT_EQ(
      audits()[0].rfind("WARN Audit: --set ended with status 6 (Other misc errors). Changed: credential user from "
                        "none to 'bob', password changed. Caller: ",
                        0),
      0U)
      << audits()[0];
}

TEST_F(Audit, EscapesForeignTextAndMasksPasswordsOfAddresses) {
  EXPECT_EQ(after({"-S", "-s", "bob:s3cret@h:1'\x1b[m."}),
            changed("ferrod.cloud.proxy.server from none to 'bob:******@h:1\\x27\\x1b[m.'"));
  EXPECT_EQ(after({"-S", "-s", "bob:0ther@h:1"}),
            changed("ferrod.cloud.proxy.server from 'bob:******@h:1\\x27\\x1b[m.' to 'bob:******@h:1'"));
}

TEST_F(Audit, NamesTheCaller) {
  const auto caller = [](testsupport::ProcessOptions options, const Arguments& arguments) {
    configureLogAlone();
    options.environment["TZ"] = "UTC0";
    testsupport::runTool(arguments, options);
    return audits().empty() ? "" : audits()[0].substr(audits()[0].find(" Caller: "));
  };
  std::string login = testsupport::exists("/proc/self/loginuid") ? testsupport::readFile("/proc/self/loginuid") : "";
  if (login.empty() || login == "4294967295") login = "none";
  unsetenv("SUDO_USER");
  EXPECT_EQ(caller({}, {"-S", "-s", "h:1"}), " Caller: uid 0, login uid " + login + ", SUDO_USER none, terminal none.");
  testsupport::ProcessOptions sudo;
  sudo.environment["SUDO_USER"] = "al'ice\n";
  EXPECT_EQ(caller(sudo, {"-S", "-s", "h:2"}),
            " Caller: uid 0, login uid " + login + ", SUDO_USER 'al\\x27ice\\n', terminal none.");
  testsupport::ProcessOptions terminal;
  terminal.terminal = true;
  const std::string seen = caller(terminal, {"-S", "-s", "h:3"});
  EXPECT_NE(seen.find(", terminal /dev/pts/"), std::string::npos) << seen;
}

}  // namespace
