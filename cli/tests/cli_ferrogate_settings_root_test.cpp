// --set, --list and --delete: what they leave in the files, what they say, and what a bad file does to them.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "cli/cli_ferrogate.h"
#include "cli/tests/tool_host.h"

namespace {

using namespace tooltest;

class Settings : public JoinedHost {};

const Outcome DONE = {0, "", SET_DONE};

// The tool at a pseudo-terminal: what the person sees, and the status.
testsupport::ProcessResult atTerminal(const Arguments& arguments, const std::string& typed) {
  testsupport::ProcessOptions options;
  options.terminal = true;
  options.typeAfter = "Password:";
  options.input = typed;
  return testsupport::runTool(arguments, options);
}

std::string onTerminal(const std::string& text) {
  std::string shown;
  for (const char c : text) shown += c == '\n' ? "\r\n" : std::string(1, c);
  return shown;
}

TEST_F(Settings, MachineIsStoredWithoutAPromptAndMeansNegotiate) {
  configure("# mine\nferrod.cloud.proxy.auth.type: basic\nother.key:  kept \n");
  EXPECT_EQ(tool({"-S", "-m"}), DONE);
  EXPECT_EQ(configuration(), "# mine\nferrod.cloud.proxy.auth.type: negotiate\nother.key:  kept \n");
  EXPECT_EQ(tool({"-L"}), (Outcome{0,
                                   "Proxy Server: \nProxy Auth Required: false\nProxy Auth Type: negotiate\n"
                                   "Proxy Account: Machine Account\n",
                                   ""}));
  EXPECT_EQ(tool({"-S", "--machine", "--verbose"}),
            (Outcome{0, "",
                     "Using machine credential, set ferrod.cloud.proxy.auth.type to 'negotiate'.\n" +
                         std::string(SET_DONE)}));
}

TEST_F(Settings, EmptyArgumentsTakeSettingsAwayAndLeaveTheCredential) {
  ASSERT_EQ(tool({"-S", "-u", "bob", "-p", "x", "-s", "h:1", "-r", "true", "-t", "basic"}), DONE);
  const std::string credential = testsupport::readFile(CREDENTIAL);
  EXPECT_EQ(tool({"-S", "-s", ""}), DONE);
  EXPECT_EQ(configuration(), "ferrod.cloud.proxy.auth.required: true\nferrod.cloud.proxy.auth.type: basic\n");
  EXPECT_EQ(tool({"-S", "-r", ""}), DONE);
  EXPECT_EQ(configuration(), "ferrod.cloud.proxy.auth.type: basic\n");
  EXPECT_EQ(tool({"-S", "-t", ""}), DONE);
  EXPECT_EQ(configuration(), "");
  EXPECT_EQ(tool({"-S", "-t", ""}), DONE);
  EXPECT_EQ(testsupport::readFile(CREDENTIAL), credential);
}

TEST_F(Settings, MachineMayComeWithTheServerTakenAway) {
  configure("ferrod.cloud.proxy.server: h:1\n");
  EXPECT_EQ(tool({"-S", "-m", "-s", ""}), DONE);
  EXPECT_EQ(configuration(), "ferrod.cloud.proxy.auth.type: negotiate\n");
  EXPECT_EQ(tool({"-C", "-u"}), (Outcome{0, "", "S-1-5-18"}));
}

TEST_F(Settings, TypeGivenEmptyGoesAlsoBesideTheMachinesName) {
  configure("ferrod.cloud.proxy.auth.type: basic\n");
  EXPECT_EQ(tool({"-S", "-t", "", "-u", "S-1-5-18"}), DONE);
  EXPECT_EQ(configuration(), "");
}

TEST_F(Settings, PasswordAloneStoresTheDefaultUserBesideASetting) {
  EXPECT_EQ(tool({"-S", "-p", "x", "-s", "host:3128"}), DONE);
  EXPECT_EQ(tool({"-C", "-u"}), (Outcome{0, "", "Administrator"}));
  EXPECT_EQ(tool({"-S", "-p", "y", "-s", "", "-V"}),
            (Outcome{0, "", "Username is set to 'Administrator' as default\n" + std::string(SET_DONE)}));
  EXPECT_EQ(tool({"-C", "-p"}), (Outcome{0, "", "y"}));
}

TEST_F(Settings, UserWithoutAPasswordIsPromptedAndNothingIsEchoed) {
  for (const Arguments& arguments : {Arguments{"-S", "-u", "bob"}, {"-S", "-u", "bob", "-p", ""}}) {
    const auto result = atTerminal(arguments, "s3cret word\n");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, onTerminal(std::string("Password:\n") + SET_DONE)) << joined(arguments);
    EXPECT_EQ(tool({"-C", "-p"}), (Outcome{0, "", "s3cret word"}));
    unlink(CREDENTIAL);
  }
}

TEST_F(Settings, EmptyAnswerIsAnAnswer) {
  const auto result = atTerminal({"-S", "-u", "bob"}, "\n");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(tool({"-C", "-u"}), (Outcome{0, "", "bob"}));
  EXPECT_EQ(tool({"-C", "-p"}), (Outcome{0, "", ""}));
}

TEST_F(Settings, WhereNobodyCanBeAskedNothingIsStored) {
  const std::string said =
      "Cannot read the password from the terminal. Supply it with the --password option.\n\n"
      "ERROR: Failed to set credential data.\n\n";
  const Outcome outcome = tool({"-S", "-u", "bob", "-s", "h:1"});
  EXPECT_EQ(outcome.status, 160);
  EXPECT_EQ(outcome.out, "");
  EXPECT_NE(outcome.err.find(said), std::string::npos) << outcome;
  EXPECT_FALSE(testsupport::exists(CREDENTIAL));
  EXPECT_FALSE(testsupport::exists(CONFIGURATION));
}

TEST_F(Settings, ListShowsWhatIsConfigured) {
  configure(
      "FERROD.Cloud.Proxy.Server:   proxy.example.test:3128  \nferrod.cloud.proxy.auth.required: Yes\n"
      "ferrod.cloud.proxy.auth.type: NTLM\n");
  EXPECT_EQ(tool({"--list"}), (Outcome{158,
                                       "Proxy Server: proxy.example.test:3128\nProxy Auth Required: Yes\n"
                                       "Proxy Auth Type: ntlm\n",
                                       "ERROR: No credential data available.\n\n"}));
}

TEST_F(Settings, DeleteRemovesTheCredentialAloneAndDoesNotMindThatThereIsNone) {
  ASSERT_EQ(tool({"-S", "-u", "bob", "-p", "x", "-s", "h:1"}), DONE);
  EXPECT_EQ(tool({"-D"}), (Outcome{0, "", ""}));
  EXPECT_FALSE(testsupport::exists(CREDENTIAL));
  EXPECT_EQ(configuration(), "ferrod.cloud.proxy.server: h:1\n");
  EXPECT_EQ(tool({"--delete", "-V"}), (Outcome{0, "", ""}));
}

TEST_F(Settings, DeleteThatFailsSaysWhyToThoseWhoAsk) {
  ASSERT_EQ(mkdir(CREDENTIAL, 0700), 0);
  EXPECT_EQ(tool({"-D"}), error(161, "Failed to clear credential data"));
  EXPECT_EQ(tool({"-D", "-V"}), (Outcome{161, "",
                                         "Cannot remove /var/morvand/httpproxy.cred: Is a directory.\n"
                                         "ERROR: Failed to clear credential data.\n\n"}));
}

TEST_F(Settings, CredentialComesFirstAndItsFailureLeavesTheSettings) {
  configure("ferrod.cloud.proxy.server: old:1\n");
  testsupport::mountReadOnly("/var/morvand");
  EXPECT_EQ(tool({"-S", "-u", "bob", "-p", "x", "-s", "new:2"}), error(160, "Failed to set credential data"));
  const Outcome told = tool({"-S", "-u", "bob", "-p", "x", "-s", "new:2", "-V"});
  EXPECT_EQ(told, (Outcome{160, "",
                           "Cannot write /var/morvand/httpproxy.cred: Read-only file system.\n"
                           "ERROR: Failed to set credential data.\n\n"}));
  EXPECT_EQ(configuration(), "ferrod.cloud.proxy.server: old:1\n");
}

// Status 6 with this text, and everything as it was.
void expectFailed(const Arguments& arguments, const std::string& text) {
  const std::string old = configuration();
  EXPECT_EQ(tool(arguments), (Outcome{6, "", "Error: " + text + "\n"})) << joined(arguments);
  EXPECT_EQ(configuration(), old);
}

TEST_F(Settings, ReadOnlyConfigurationIsAClearErrorAndTheCredentialIsWritten) {
  configure("ferrod.cloud.proxy.server: old:1\n");
  testsupport::mountReadOnly("/etc/morvand");
  expectFailed({"-S", "-s", "new:2"}, "Cannot lock /etc/morvand/.morvand.conf.lock: Read-only file system");
  expectFailed({"-S", "-u", "bob", "-p", "x", "-s", "new:2"},
               "Cannot lock /etc/morvand/.morvand.conf.lock: Read-only file system");
  EXPECT_EQ(tool({"-C", "-u"}), (Outcome{0, "", "bob"}));
}

TEST_F(Settings, ValueThatIsNoLineIsAClearErrorAndSetsNothingElse) {
  configure("ferrod.cloud.proxy.server: old:1\n");
  expectFailed({"-S", "-s", "h:1\nferrod.cloud.skip.cert.verification: true"},
               "The value of 'ferrod.cloud.proxy.server' has a line break or a zero byte in it");
}

TEST_F(Settings, FullFileSystemIsAClearErrorAndTheOldFileStaysWhole) {
  testsupport::mountSmall("/etc/morvand", 16);
  configure("# " + std::string(2000, 'c') + "\nferrod.cloud.proxy.server: old:1\n");
  testsupport::writeFile("/etc/morvand/.morvand.conf.lock", "", 0600);
  {
    // Whatever the size of a page: fill what is left.
    const auto full = testsupport::run({"/bin/sh", "-c", "cat /dev/zero >/etc/morvand/filler 2>/dev/null; true"});
    ASSERT_EQ(full.status, 0);
  }
  expectFailed({"-S", "-s", "new:2"}, "Cannot write /etc/morvand/morvand.conf: No space left on device");
  EXPECT_EQ(testsupport::run({"/bin/ls", "-A", "/etc/morvand"}).out, ".morvand.conf.lock\nfiller\nmorvand.conf\n");
}

TEST_F(Settings, FullFileSystemLeavesTheOldCredentialWhole) {
  testsupport::mountSmall("/var/morvand", 16);
  ASSERT_EQ(tool({"-S", "-u", "bob", "-p", "x"}), DONE);
  testsupport::run({"/bin/sh", "-c", "cat /dev/zero >/var/morvand/filler 2>/dev/null; true"});
  EXPECT_EQ(tool({"-S", "-u", "eve", "-p", "y", "-s", "h:1", "-V"}),
            (Outcome{160, "",
                     "Cannot write /var/morvand/httpproxy.cred: No space left on device.\n"
                     "ERROR: Failed to set credential data.\n\n"}));
  EXPECT_EQ(tool({"-C", "-u"}), (Outcome{0, "", "bob"}));
  EXPECT_EQ(testsupport::run({"/bin/ls", "-A", "/var/morvand"}).out, "filler\nhttpproxy.cred\n");
}

TEST_F(Settings, FolderInTheConfigurationsPlaceIsAClearError) {
  ASSERT_EQ(mkdir(CONFIGURATION, 0755), 0);
  for (const Arguments& arguments : {Arguments{"-L"}, {"-S", "-s", "h:1"}, {"-T", "-c", "https://h/"}}) {
    EXPECT_EQ(tool(arguments),
              (Outcome{6, "", "Error: Cannot read /etc/morvand/morvand.conf: it is not a regular file\n"}))
        << joined(arguments);
  }
}

TEST_F(Settings, BadLinesAreKeptAndNamedInTheLog) {
  const std::string bad =
      "no setting at all\n: no key\nlogging.file: " + std::string(LOG) + "\n\xFF\xFE\x01\n[section]\n";
  configure(bad + "ferrod.cloud.proxy.server: old:1");
  EXPECT_EQ(tool({"-S", "-s", "new:2"}), DONE);
  EXPECT_EQ(configuration(), bad + "ferrod.cloud.proxy.server: new:2");
  const std::string log = testsupport::readFile(LOG);
  for (const char* place : {"line 1 ", "line 2 ", "line 4 ", "line 5 "}) {
    EXPECT_NE(log.find("/etc/morvand/morvand.conf " + std::string(place) + "is not a setting"), std::string::npos)
        << place << " in " << log;
  }
}

TEST_F(Settings, TenMegabytesOfNoiseAreAClearError) {
  std::string noise(10 * 1024 * 1024, '\0');
  unsigned state = 1;
  for (char& c : noise) {
    state = state * 1103515245U + 12345U;
    c = static_cast<char>(state >> 16U);
  }
  configure(noise);
  const Outcome outcome = tool({"-S", "-s", "new:2"});
  EXPECT_EQ(outcome,
            (Outcome{6, "", "Error: Cannot read /etc/morvand/morvand.conf: it is larger than 1048576 bytes\n"}));
  EXPECT_EQ(configuration(), noise);
}

TEST_F(Settings, FileKeepsItsOwnerAndMode) {
  configure("a: b\n");
  ASSERT_EQ(chmod(CONFIGURATION, 0640), 0);
  ASSERT_EQ(chown(CONFIGURATION, 0, 42), 0);
  ASSERT_EQ(tool({"-S", "-s", "h:1"}), DONE);
  struct stat status {};
  ASSERT_EQ(stat(CONFIGURATION, &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0640U);
  EXPECT_EQ(status.st_gid, 42U);
}

TEST_F(Settings, TwoAtATimeBothCount) {
  std::thread other([] {
    for (int i = 0; i < 10; ++i) EXPECT_EQ(tool({"-S", "-s", "h:" + std::to_string(i)}), DONE);
  });
  for (int i = 0; i < 10; ++i) EXPECT_EQ(tool({"-S", "-t", i % 2 == 0 ? "basic" : "negotiate"}), DONE);
  other.join();
  EXPECT_EQ(configuration().size(),
            std::string("ferrod.cloud.proxy.auth.type: negotiate\nferrod.cloud.proxy.server: h:9\n").size());
  EXPECT_NE(configuration().find("ferrod.cloud.proxy.auth.type: negotiate\n"), std::string::npos);
  EXPECT_NE(configuration().find("ferrod.cloud.proxy.server: h:9\n"), std::string::npos);
}

// Starts the tool and kills it after a while; how long it would have run is told by a run that nobody disturbed.
class Killed {
 public:
  explicit Killed(const Arguments& arguments) {
    Arguments words{testsupport::toolPath()};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    m_pid = fork();
    if (m_pid == 0) {
      close(STDERR_FILENO);
      execv(argv[0], argv.data());
      _exit(127);
    }
  }
  int after(std::chrono::microseconds time) {
    std::this_thread::sleep_for(time);
    kill(m_pid, SIGKILL);
    int status = 0;
    waitpid(m_pid, &status, 0);
    return status;
  }

 private:
  pid_t m_pid = -1;
};

TEST_F(Settings, KilledAtAnyMomentLeavesTheOldOrTheNewOfEach) {
  const std::string oldConf = "# kept\nferrod.cloud.proxy.server: old:1\n";
  const std::string newConf = "# kept\nferrod.cloud.proxy.server: new:2\n";
  configure(oldConf);
  const auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(tool({"-S", "-u", "old", "-p", "oldpw", "-s", "old:1"}), DONE);
  const auto whole = std::chrono::steady_clock::now() - start;
  const std::string oldCredential = testsupport::readFile(CREDENTIAL);
  constexpr int rounds = 100;
  int credentials = 0;
  int configurations = 0;
  int killedBefore = 0;
  // On a machine that has become busier since the measured run the moments go on until one is late enough for all.
  for (int round = 0; round < rounds || (configurations == 0 && round < 100 * rounds); ++round) {
    testsupport::writeFile(CREDENTIAL, oldCredential, 0600);
    configure(oldConf);
    Killed({"-S", "-u", "new", "-p", "newpw", "-s", "new:2"})
        .after(std::chrono::duration_cast<std::chrono::microseconds>(whole * round / (rounds * 3 / 4)));
    CommandOptions record;
    ASSERT_EQ(getCredential(record, CredentialUser | CredentialPassword), 0) << "round " << round;
    const bool newCredential = record.username == "new";
    ASSERT_TRUE(newCredential ? record.password == lumo::Shredder2("newpw")
                              : record.username == "old" && record.password == lumo::Shredder2("oldpw"));
    const std::string now = configuration();
    ASSERT_TRUE(now == oldConf || now == newConf) << "round " << round << ": " << now;
    ASSERT_TRUE(now == oldConf || newCredential) << "the settings came before the credential in round " << round;
    credentials += newCredential ? 1 : 0;
    killedBefore += newCredential ? 0 : 1;
    configurations += now == newConf ? 1 : 0;
  }
  // The moments have covered the run: some were too early for anything, some late enough for all.
  EXPECT_GT(credentials, 0);
  EXPECT_GT(killedBefore, 0);
  EXPECT_GT(configurations, 0);
  // What a killed writer left behind is cleared away by the next one.
  ASSERT_EQ(tool({"-S", "-u", "last", "-p", "x", "-s", "last:3"}), DONE);
  EXPECT_EQ(testsupport::run({"/bin/ls", "-A", "/etc/morvand"}).out, ".morvand.conf.lock\nmorvand.conf\n");
  EXPECT_EQ(testsupport::run({"/bin/ls", "-A", "/var/morvand"}).out, "httpproxy.cred\n");
}

TEST_F(Settings, NoSecretReachesTheLog) {
  configure("log: TRACE\nlogging.file: " + std::string(LOG) + "\n");
  ASSERT_EQ(tool({"-S", "-V", "-u", "bob", "-p", "s3cret-word"}).status, 0);
  ASSERT_EQ(tool({"-C", "-p"}), (Outcome{0, "", "s3cret-word"}));
  ASSERT_EQ(atTerminal({"-S", "-V", "-u", "bob"}, "typed-word\n").status, 0);
  const std::string log = testsupport::readFile(LOG);
  EXPECT_NE(log.find("Set the HTTP Proxy configuration successfully."), std::string::npos);
  for (const char* secret : {"s3cret", "typed"}) EXPECT_EQ(log.find(secret), std::string::npos) << log;
}

}  // namespace
