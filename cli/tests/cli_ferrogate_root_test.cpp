// The entry: caller checks, dispatch of the command letters, help, version.
#include <fcntl.h>
#include <unistd.h>

#include "cli/tests/tool_host.h"

namespace {

using namespace tooltest;

// A copy of its own, to be compared with what the tool prints.
constexpr char HELP[] = R"help(usage:
 ferrogate -S [optional params]
 ferrogate -T [optional params] -c <opx url>
 ferrogate -D
 ferrogate -L
Commands:
  --set, -S             Set the HTTP Proxy Credential and HTTP Proxy 
                        Server locally.
                          optional params: username password machine server authreq authtype

  --test, -T            Test the HTTP Proxy Credential using 
                        the configured or supplied settings.
                          required params: opx
                          optional params: username password machine server

  --delete, -D          Delete HTTP Proxy Credential from local machine.

  --list, -L            List out the HTTP Proxy username and the 
                        HTTP Proxy Server configured locally. 

Parameters:
  --username,-u <username>          Proxy username.
                                    When use with -S and -T commands, if username 
                                    is not supplied but --password is supplied,
                                    username will be default to Administrator.
                                    When use with -T command, if username and 
                                    password are not supplied, will get the username
                                    and password from proxy credential file.
  --password,-p <password>          Proxy user's password.
                                    When use with -S command, will be prompted 
                                    if none is supplied.
                                    When use with -T command, will be prompted if
                                    none is supplied but username is provided.
                                    If both username and password are not supplied, 
                                    get it from proxy credential file.
  --machine,-m                      Use local machine account for proxy 
                                    authentication, and negotiate auth type is 
                                    used. Cannot used this option along with -u/-p/-t.
  --server,-s <servername:port|"">  Specify HTTP Proxy Server.
                                    When use with -S command, the value will be set
                                    to morvand.conf. Empty string unsets the value.
                                    Can use individually or with other options.
                                    When use with -T command, get the value from 
                                    morvand.conf if none is supplied.
  --authreq,-r <true|false|"">      Specify if HTTP Proxy authentication 
                                    is required in morvand.conf. 
  --authtype,-t <basic|digest       Specify HTTP Proxy authentication type in 
                |ntlm|negotiate     morvand.conf.
                |anyauth|"">        The ntlm|digest are not allowed in FIPS mode.
  --opx,-c <opx url>                Specify the URL of the Cloud Identity Platform.
  --version,-v                      Print version information and exit.
  --help,-h,                        Shows this help text and exit.
  --verbose,-V                      When use with above commands, print debug 
                                    information for each operation.

)help";

class Entry : public JoinedHost {};

const Outcome SECOND_COMMAND = refused("Only one command may be given.");
const Outcome INVALID_COMMAND = refused("Invalid command.");

testsupport::ProcessOptions asNobody() {
  testsupport::ProcessOptions options;
  options.uid = 65534;
  return options;
}

TEST_F(Entry, CallerWhoIsNotRootIsRefusedBeforeAnythingElse) {
  for (const Arguments& arguments : {Arguments{}, {"-h"}, {"-v"}, {"-L"}, {"-X"}, {"-C", "-p"}}) {
    EXPECT_EQ(tool(arguments, asNobody()), (Outcome{9, "", "Error: ferrogate may only be run by root.\n"}))
        << joined(arguments);
  }
}

TEST_F(Entry, MachineThatIsNotJoinedGetsNothingButTheStatus) {
  unlink(KEYTAB);
  for (const Arguments& arguments : {Arguments{}, {"-h"}, {"-v"}, {"-L"}, {"-X"}}) {
    EXPECT_EQ(tool(arguments), (Outcome{10, "", ""})) << joined(arguments);
  }
  configure("logging.file: " + std::string(LOG) + "\n");
  tool({"-h"});
  EXPECT_NE(testsupport::readFile(LOG).find("Machine is not joined to any domain."), std::string::npos);
}

TEST_F(Entry, PipeInTheKeytabsPlaceIsNotWaitedForAndNoMembership) {
  unlink(KEYTAB);
  ASSERT_EQ(mkfifo(KEYTAB, 0600), 0);
  EXPECT_EQ(tool({"-L"}), (Outcome{10, "", ""}));
}

TEST_F(Entry, WithoutArgumentsHelpComesWithTheUsageStatus) { EXPECT_EQ(tool({}), (Outcome{7, HELP, ""})); }

TEST_F(Entry, HelpIsPrintedWhole) {
  for (const Arguments& arguments : {Arguments{"-h"}, {"--help"}, {"--he"}, {"foo", "-h"}}) {
    EXPECT_EQ(tool(arguments), (Outcome{0, HELP, ""})) << joined(arguments);
  }
}

TEST_F(Entry, VersionIsPrintedAndEndsTheRun) {
  for (const Arguments& arguments :
       {Arguments{"-v"}, {"--version"}, {"-v", "-L"}, {"-vL"}, {"-v", "-X"}, {"-v", "-h"}}) {
    EXPECT_EQ(tool(arguments), (Outcome{0, "Morvand 5.5.0-200\n", ""})) << joined(arguments);
  }
  EXPECT_EQ(tool({"-h", "-L"}), (Outcome{0, HELP, ""}));
}

TEST_F(Entry, WithoutACommandLetterNothingIsDone) {
  for (const Arguments& arguments : {Arguments{"foo"}, {"foo", "bar"}, {"--"}, {"--", "-L"}, {""}, {"-"}}) {
    EXPECT_EQ(tool(arguments), (Outcome{0, "", ""})) << joined(arguments);
  }
}

TEST_F(Entry, InvalidCommandsAreNamedByTheParserAndRefused) {
  EXPECT_EQ(tool({"-X"}), badOption("invalid option -- 'X'", "Invalid command."));
  EXPECT_EQ(tool({"-p", "secret"}), badOption("invalid option -- 'p'", "Invalid command."));
  EXPECT_EQ(tool({"--frob"}), badOption("unrecognized option '--frob'", "Invalid command."));
  EXPECT_EQ(tool({"--list=x"}), badOption("option '--list' doesn't allow an argument", "Invalid command."));
  EXPECT_EQ(tool({"--verbose"}), badOption("unrecognized option '--verbose'", "Invalid command."));
  EXPECT_EQ(tool({"--ve=1"}), badOption("option '--version' doesn't allow an argument", "Invalid command."));
}

const std::string SETTINGS = "Proxy Server: \nProxy Auth Required: false\nProxy Auth Type: anyauth\n";

TEST_F(Entry, SurplusCommandIsRefusedOnceTheFirstHasDoneItsWork) {
  ASSERT_EQ(tool({"-S", "-u", "bob", "-p", "x"}).status, 0);
  const std::string listed = SETTINGS +
                             "Proxy Account: bob\nCredential Encrypted with Key Version: 3\n"
                             "Credential Encryption Type: AES-256 CTS mode with 96-bit SHA-1 HMAC\n";
  EXPECT_EQ(tool({"-L"}), (Outcome{0, listed, ""}));
  for (const char* second : {"-S", "-D", "-L", "-T", "-v", "-h", "-C"}) {
    EXPECT_EQ(tool({"-L", "-V", second}), (Outcome{7, listed, SECOND_COMMAND.err})) << second;
  }
  EXPECT_EQ(tool({"-L", "-V", "-V"}),
            (Outcome{7, listed, testsupport::toolPath() + ": invalid option -- 'V'\n" + INVALID_COMMAND.err}));
  EXPECT_EQ(tool({"-D", "-V", "-D"}), SECOND_COMMAND);
  EXPECT_FALSE(testsupport::exists(CREDENTIAL));
  EXPECT_EQ(tool({"-S", "-s", "h:1", "--", "-L"}), (Outcome{7, "", SET_DONE + SECOND_COMMAND.err}));
  EXPECT_EQ(configuration(), "ferrod.cloud.proxy.server: h:1\n");
}

TEST_F(Entry, SurplusCommandInsideACommandsOptionsIsAWrongOption) {
  for (const Arguments& arguments : {Arguments{"-L", "-S"}, {"-LS"}, {"-D", "-S"}}) {
    EXPECT_EQ(tool(arguments), badOption("invalid option -- 'S'")) << joined(arguments);
  }
  EXPECT_EQ(tool({"-S", "-s", "h:1", "-L"}), badOption("invalid option -- 'L'"));
  EXPECT_EQ(tool({"-T", "-c", "http://h/", "-D"}), badOption("invalid option -- 'D'"));
  EXPECT_EQ(tool({"-L", "--set"}), badOption("unrecognized option '--set'"));
  EXPECT_FALSE(testsupport::exists(CONFIGURATION));
}

TEST_F(Entry, WordsThatAreNoOptionsArePassedOver) {
  EXPECT_EQ(tool({"foo", "-L", "bar"}), (Outcome{158, SETTINGS, "ERROR: No credential data available.\n\n"}));
  EXPECT_EQ(tool({"-S", "foo", "-s", "h:1", "bar"}), (Outcome{0, "", SET_DONE}));
}

TEST_F(Entry, LettersMayStandTogether) {
  EXPECT_EQ(tool({"-Ss", "h:1"}), (Outcome{0, "", SET_DONE}));
  EXPECT_EQ(tool({"-Sub", "-px"}).status, 0);
  EXPECT_EQ(tool({"-Cp"}), (Outcome{0, "", "x"}));
  EXPECT_EQ(tool({"-DV"}), (Outcome{0, "", ""}));
}

TEST_F(Entry, CredentialCommandShowsTheBareTextOnStandardError) {
  ASSERT_EQ(tool({"-S", "-u", "bob", "-p", "s3cret %s"}).status, 0);
  EXPECT_EQ(tool({"-C", "-u"}), (Outcome{0, "", "bob"}));
  EXPECT_EQ(tool({"--credential", "--username"}), (Outcome{0, "", "bob"}));
  EXPECT_EQ(tool({"-C", "-p"}), (Outcome{0, "", "s3cret %s"}));
  EXPECT_EQ(tool({"-C", "--password", "-u"}), (Outcome{0, "", "s3cret %s"}));
}

TEST_F(Entry, CredentialCommandFailsWithTheStatusAlone) {
  EXPECT_EQ(tool({"-C", "-u"}), (Outcome{158, "", ""}));
  EXPECT_EQ(tool({"-C", "-p"}), (Outcome{158, "", ""}));
  testsupport::writeFile(CREDENTIAL, "rubbish", 0600);
  EXPECT_EQ(tool({"-C", "-u"}), (Outcome{159, "", ""}));
  chmod(CREDENTIAL, 0666);
  EXPECT_EQ(tool({"-C", "-p"}), (Outcome{158, "", ""}));
}

TEST_F(Entry, CredentialCommandNeedsToBeToldWhat) {
  EXPECT_EQ(tool({"-C"}), (Outcome{7, "", HINT}));
  EXPECT_EQ(tool({"-C", "word"}), (Outcome{7, "", HINT}));
  EXPECT_EQ(tool({"-C", "-V"}), (Outcome{7, "", testsupport::toolPath() + ": invalid option -- 'V'\n" + HINT}));
  EXPECT_EQ(tool({"-C", "--username=bob"}),
            (Outcome{7, "", testsupport::toolPath() + ": option '--username' doesn't allow an argument\n" + HINT}));
}

TEST_F(Entry, WhatEscapesAHandlerEndsInStatusSix) {
  mkdir(CONFIGURATION, 0755);
  const Outcome outcome = tool({"-L"});
  EXPECT_EQ(outcome.status, 6);
  EXPECT_EQ(outcome.out, "");
  EXPECT_EQ(outcome.err.rfind("Error: ", 0), 0U) << outcome;
  EXPECT_NE(outcome.err.find(CONFIGURATION), std::string::npos) << outcome;
}

// Runs the tool by the shell, which closes streams for it.
Outcome shell(const std::string& line) {
  const auto result = testsupport::run({"/bin/sh", "-c", "T=" + testsupport::toolPath() + "; " + line});
  EXPECT_FALSE(result.timedOut);
  return {result.status, result.out, result.err};
}

TEST_F(Entry, ClosedStreamsChangeNothingButWhatIsSeen) {
  EXPECT_EQ(shell("$T -S -s h:1 >&-"), (Outcome{0, "", SET_DONE}));
  EXPECT_EQ(shell("$T -S -s h:2 <&- >&- 2>&-"), (Outcome{0, "", ""}));
  EXPECT_EQ(configuration(), "ferrod.cloud.proxy.server: h:2\n");
  EXPECT_EQ(shell("$T -S -u bob -p x <&- >&- 2>&-"), (Outcome{0, "", ""}));
  EXPECT_EQ(shell("$T -C -p 2>&1"), (Outcome{0, "x", ""}));
  EXPECT_EQ(shell("$T -h >&-"), (Outcome{0, "", ""}));
  EXPECT_EQ(shell("$T -X 2>&-"), (Outcome{7, "", ""}));
  EXPECT_EQ(shell("$T -h >/dev/full"), (Outcome{0, "", ""}));
}

TEST_F(Entry, TextForAClosedStreamGoesIntoNoFileOfOurs) {
  configure("log: DEBUG\nlogging.file: " + std::string(LOG) + "\n");
  EXPECT_EQ(shell("$T -h >&-"), (Outcome{0, "", ""}));
  EXPECT_EQ(shell("$T -X 2>&-"), (Outcome{7, "", ""}));
  const std::string log = testsupport::readFile(LOG);
  EXPECT_EQ(log.find("usage:"), std::string::npos) << log;
  EXPECT_EQ(log.find("invalid option"), std::string::npos) << log;
}

TEST_F(Entry, ReaderThatWentAwayDoesNotKillTheTool) {
  // The reader is gone before the tool starts: its end of the pipe is closed first.
  const std::string pipe = "mkfifo /run/p; exec 3<>/run/p; exec 4>/run/p; exec 3<&-; ";
  EXPECT_EQ(shell(pipe + "$T -h >&4").status, 0);
  EXPECT_EQ(shell("rm /run/p; " + pipe + "$T -S -s h:3 2>&4").status, 0);
  EXPECT_EQ(configuration(), "ferrod.cloud.proxy.server: h:3\n");
}

TEST_F(Entry, LimitOfFileSizesIsAClearErrorAndTheOldFilesStay) {
  ASSERT_EQ(tool({"-S", "-s", "h:1", "-u", "bob", "-p", "x"}).status, 0);
  EXPECT_EQ(shell("ulimit -f 0; $T -S -s h:2"),
            (Outcome{6, "", "Error: Cannot write /etc/morvand/morvand.conf: File too large\n"}));
  EXPECT_EQ(shell("ulimit -f 0; $T -S -u eve -p y"), error(160, "Failed to set credential data"));
  EXPECT_EQ(configuration(), "ferrod.cloud.proxy.server: h:1\n");
  EXPECT_EQ(tool({"-C", "-u"}), (Outcome{0, "", "bob"}));
  EXPECT_EQ(shell("ls -A /etc/morvand /var/morvand").out,
            "/etc/morvand:\n.morvand.conf.lock\nmorvand.conf\n\n/var/morvand:\nhttpproxy.cred\n");
}

TEST_F(Entry, StreamsKeepTheirOrderInOneFile) {
  EXPECT_EQ(shell("$T -L 2>&1"), (Outcome{158, SETTINGS + "ERROR: No credential data available.\n\n", ""}));
}

}  // namespace
