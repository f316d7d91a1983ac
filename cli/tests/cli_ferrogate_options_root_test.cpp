// Every row of the option tables through the built tool: what is refused, with which words, in which order.
#include "basalt/settings/settings_store.h"
#include "base/include/exceptions.h"
#include "base/include/string_helpers.h"
#include "cli/tests/tool_host.h"
#include "quill/local_rpc_server.h"

namespace {

using namespace tooltest;

struct Refusal {
  Arguments arguments;
  Outcome outcome;
};

class Options : public JoinedHost {
 protected:
  // Nothing is touched before an option is refused.
  void expect(const std::vector<Refusal>& rows) {
    for (const auto& row : rows) {
      EXPECT_EQ(tool(row.arguments), row.outcome) << joined(row.arguments);
      EXPECT_FALSE(testsupport::exists(CONFIGURATION)) << joined(row.arguments);
      EXPECT_FALSE(testsupport::exists(CREDENTIAL)) << joined(row.arguments);
    }
  }
};

constexpr char EMPTY_USER[] = "Username should not be empty.";
constexpr char BAD_SERVER[] = "Invalid server's name format specified in --server option.";
constexpr char BAD_AUTHREQ[] = "Invalid value specified to --authreq option.";
constexpr char BAD_AUTHTYPE[] = "Invalid value specified to --authtype option.";

TEST_F(Options, OfSetAreRefusedInTheirOwnWords) {
  const char* const user = "Cannot use --username option with --machine option.";
  const char* const password = "Cannot use --password option with --machine option.";
  const char* const type = "Cannot use --authtype option with --machine option.";
  const char* const machine = "Cannot use --machine option with --username/--password/--authtype option.";
  expect({
      {{"-S", "-u", ""}, refused(EMPTY_USER)},
      {{"-S", "--username="}, refused(EMPTY_USER)},
      {{"-S", "-m", "-u", ""}, refused(EMPTY_USER)},
      {{"-S", "-m", "-u", "x"}, refused(user)},
      {{"--set", "--machine", "--username", "x"}, refused(user)},
      {{"-S", "-u", "S-1-5-18", "-u", "x"}, refused(user)},
      {{"-S", "-m", "-p", "x"}, refused(password)},
      {{"-S", "-m", "-p", ""}, refused(password)},
      {{"-S", "-mpx"}, refused(password)},
      {{"-S", "-u", "x", "-m"}, refused(machine)},
      {{"-S", "-p", "x", "-m"}, refused(machine)},
      {{"-S", "-t", "basic", "-m"}, refused(machine)},
      {{"-S", "-t", "", "-m"}, refused(machine)},
      {{"-S", "-m", "-m"}, refused(machine)},
      {{"-S", "-s", "host:"}, refused(BAD_SERVER)},
      {{"-S", "-s", ":8080"}, refused(BAD_SERVER)},
      {{"-S", "-s", "host"}, refused(BAD_SERVER)},
      {{"-S", "--server", ":"}, refused(BAD_SERVER)},
      {{"-S", "-r", "yes"}, refused(BAD_AUTHREQ)},
      {{"-S", "-r", "1"}, refused(BAD_AUTHREQ)},
      {{"-S", "-r", " true"}, refused(BAD_AUTHREQ)},
      {{"-S", "-t", "kerberos"}, refused(BAD_AUTHTYPE)},
      {{"-S", "-t", "basic "}, refused(BAD_AUTHTYPE)},
      {{"-S", "-m", "-t", ""}, refused(type)},
      {{"-S", "-m", "-t", "NTLM"}, refused(type)},
      {{"-S", "-m", "-t", "nonsense"}, refused(type)},
      // The first refusal ends the run.
      {{"-S", "-s", "host", "-r", "yes", "-X"}, refused(BAD_SERVER)},
  });
}

TEST_F(Options, OfTestAreRefusedInTheirOwnWords) {
  const char* const user = "Cannot provide --username option with --machine option.";
  const char* const password = "Cannot provide --password option with --machine option.";
  const char* const machine = "Cannot provide --machine option with --username/--password option.";
  const char* const url = "Morvane Identity Platform should not be empty.";
  expect({
      {{"-T", "-c", ""}, refused(url)},
      {{"--test", "--opx="}, refused(url)},
      {{"-T", "-u", "x", "-m"}, refused(machine)},
      {{"-T", "-p", "x", "-m"}, refused(machine)},
      {{"-T", "-m", "-m"}, refused(machine)},
      {{"-T", "-m", "-p", "x"}, refused(password)},
      {{"-T", "-m", "-u", "x"}, refused(user)},
      {{"-T", "-m", "-u", ""}, refused(EMPTY_USER)},
      {{"-T", "-u", ""}, refused(EMPTY_USER)},
      {{"-T", "-s", "host"}, refused(BAD_SERVER)},
      {{"-T", "-s", "host:"}, refused(BAD_SERVER)},
      {{"-T", "-s", ":1"}, refused(BAD_SERVER)},
  });
}

TEST_F(Options, UnknownAndIncompleteOnesAreNamedByTheParserFirst) {
  expect({
      {{"-S", "-c", "http://h/"}, badOption("invalid option -- 'c'")},
      {{"-S", "--opx=x"}, badOption("unrecognized option '--opx=x'")},
      {{"-S", "-u"}, badOption("option requires an argument -- 'u'")},
      {{"-S", "-p"}, badOption("option requires an argument -- 'p'")},
      {{"-S", "--password"}, badOption("option '--password' requires an argument")},
      {{"-S", "-s"}, badOption("option requires an argument -- 's'")},
      {{"-S", "-r"}, badOption("option requires an argument -- 'r'")},
      {{"-S", "-t"}, badOption("option requires an argument -- 't'")},
      {{"-S", "--machine=yes"}, badOption("option '--machine' doesn't allow an argument")},
      {{"-S", "--auth=basic"},
       badOption("option '--auth=basic' is ambiguous; possibilities: '--authreq' '--authtype'")},
      {{"-T", "-r", "true"}, badOption("invalid option -- 'r'")},
      {{"-T", "-t", "basic"}, badOption("invalid option -- 't'")},
      {{"-T", "--authtype=basic"}, badOption("unrecognized option '--authtype=basic'")},
      {{"-T", "-c"}, badOption("option requires an argument -- 'c'")},
      {{"-D", "-u"}, badOption("invalid option -- 'u'")},
      {{"-L", "--username"}, badOption("unrecognized option '--username'")},
      {{"-L", "-?"}, badOption("invalid option -- '?'")},
  });
}

TEST_F(Options, AreMissingWhereACommandNeedsThem) {
  const Outcome nothing = refused("Must provide either of --username, --machine, --server or --authreq option.");
  expect({
      {{"-S"}, nothing},
      {{"-S", "-V"}, nothing},
      {{"-S", "-p", "x"}, nothing},
      {{"-S", "-p", ""}, nothing},
      {{"-T"}, refused("Must provide --opx option.")},
      {{"-T", "-V", "-m", "-s", "h:1"}, refused("Must provide --opx option.")},
      {{"-T", "-c", "https://h/"},
       {163, "",
        "HTTP proxy server is required for testing HTTP proxy credential.\nERROR: No proxy server available.\n\n"}},
      {{"-T", "-c", "https://h/", "-s", ""},
       {163, "",
        "HTTP proxy server is required for testing HTTP proxy credential.\nERROR: No proxy server available.\n\n"}},
  });
}

TEST_F(Options, OfSetEndInTheConfiguration) {
  struct Row {
    Arguments arguments;
    std::string configuration;
  };
  const Row rows[] = {
      {{"-S", "-s", "host:abc"}, "ferrod.cloud.proxy.server: host:abc\n"},
      {{"-S", "-s", "a:b:c"}, "ferrod.cloud.proxy.server: a:b:c\n"},
      {{"--set", "--server=h:1", "--authreq=TRUE", "--authtype=BASIC"},
       "ferrod.cloud.proxy.auth.required: true\nferrod.cloud.proxy.auth.type: basic\nferrod.cloud.proxy.server: h:1\n"},
      {{"-S", "-r", "False"}, "ferrod.cloud.proxy.auth.required: false\n"},
      {{"-S", "-t", "Negotiate"}, "ferrod.cloud.proxy.auth.type: negotiate\n"},
      {{"-S", "-t", "AnyAuth"}, "ferrod.cloud.proxy.auth.type: anyauth\n"},
      {{"-S", "-t", "ntlm", "-t", "digest"}, "ferrod.cloud.proxy.auth.type: digest\n"},
      {{"-S", "-s", "h:1", "-s", "h:2"}, "ferrod.cloud.proxy.server: h:2\n"},
      {{"-S", "-s", "", "-s", "h:2"}, ""},
      {{"-S", "-r", "", "-t", ""}, ""},
  };
  for (const auto& row : rows) {
    unlink(CONFIGURATION);
    EXPECT_EQ(tool(row.arguments), (Outcome{0, "", SET_DONE})) << joined(row.arguments);
    EXPECT_EQ(testsupport::exists(CONFIGURATION) ? configuration() : "", row.configuration) << joined(row.arguments);
  }
}

// An agent that has its own opinion of FIPS mode.
class Agent : public lumo::LocalRpcHandler {
 public:
  explicit Agent(int mode) : m_mode(mode) {
    lumo::saveSetting(SETTING_HOSTSID, "S-1-5-21-1-2-3-1001");
    m_server = std::make_unique<lumo::LocalRpcServer>(*this);
  }
  void authenticateProcess(const lumo::RpcCaller&) override {}
  ADObjectPtr getUserObj(const lumo::RpcCaller&, const std::string&, lumo::UserLookup) override { return {}; }
  ADObjectPtr ldapFetch(const lumo::RpcCaller&, const std::string&, const std::string&, const std::vector<std::string>*,
                        int) override {
    return {};
  }
  int getFipsMode(const lumo::RpcCaller&) override {
    if (m_mode < 0) throw lumo::IOException(__FILE__, __LINE__, "The mode is not known");
    return m_mode;
  }

 private:
  int m_mode;
  std::unique_ptr<lumo::LocalRpcServer> m_server;
};

constexpr char FIPS_WARNING[] =
    "Did you restart ferrod after change fips.mode.enable in morvand.conf?\n"
    "You may need to restart ferrod, or else ferrod would not be able to connect to proxy server.\n\n";

TEST_F(Options, WeakTypesAreRefusedInFipsMode) {
  for (const std::string type : {"ntlm", "digest"}) {
    configure("fips.mode.enable: true\n");
    EXPECT_EQ(tool({"-S", "-t", type}), refused("Auth Type '" + type + "' is not allowed when FIPS mode is enabled."));
    EXPECT_EQ(configuration(), "fips.mode.enable: true\n");
    configure("fips.mode.enable: true\nferrod.cloud.proxy.auth.type: " + upper(type) + "\n");
    EXPECT_EQ(tool({"-T", "-c", "https://h/", "-s", "h:1"}),
              (Outcome{164, "",
                       "Auth type '" + type +
                           "' is configured, which is not allowed when FIPS mode is enabled.\n\n"
                           "ERROR: Proxy authtype configuration invalid.\n\n"}));
  }
  for (const char* type : {"basic", "negotiate", "anyauth"}) {
    EXPECT_EQ(tool({"-S", "-t", type}), (Outcome{0, "", SET_DONE})) << type;
  }
}

TEST_F(Options, AgentThatThinksOtherwiseOfFipsModeIsWarnedOf) {
  {
    const Agent agent(1);
    configureLog();
    EXPECT_EQ(tool({"-S", "-t", "ntlm"}), (Outcome{0, "", std::string(FIPS_WARNING) + SET_DONE}));
    EXPECT_EQ(records().front(),
              "WARN Did you restart ferrod after change fips.mode.enable in morvand.conf?\\n"
              "You may need to restart ferrod, or else ferrod would not be able to connect to proxy server.");
    EXPECT_EQ(tool({"-S", "-t", "basic"}), (Outcome{0, "", SET_DONE}));
  }
  {
    const Agent agent(0);
    EXPECT_EQ(tool({"-S", "-t", "digest"}), (Outcome{0, "", SET_DONE}));
    configure("fips.mode.enable: true\nferrod.cloud.proxy.auth.type: digest\n");
    EXPECT_EQ(
        tool({"-S", "-t", "ntlm"}),
        (Outcome{7, "",
                 std::string(FIPS_WARNING) + "Auth Type 'ntlm' is not allowed when FIPS mode is enabled.\n\n" + HINT}));
    EXPECT_EQ(tool({"-T", "-c", "https://h/", "-s", "h:1"}),
              (Outcome{164, "",
                       std::string(FIPS_WARNING) +
                           "Auth type 'digest' is configured, which is not allowed when FIPS mode is enabled.\n\n"
                           "ERROR: Proxy authtype configuration invalid.\n\n"}));
  }
  const Agent agreeing(1);
  EXPECT_EQ(tool({"-S", "-t", "ntlm"}), refused("Auth Type 'ntlm' is not allowed when FIPS mode is enabled."));
}

TEST_F(Options, MachineIsAskedBeforeFipsMode) {
  const Agent agent(0);  // of another opinion: whoever asked it would warn
  configure("fips.mode.enable: true\n");
  for (const char* type : {"ntlm", "digest"}) {
    EXPECT_EQ(tool({"-S", "-m", "-t", type}), refused("Cannot use --authtype option with --machine option.")) << type;
  }
}

TEST_F(Options, AgentThatCannotSayItsFipsModeEndsTheRun) {
  const Agent agent(-1);
  const Outcome outcome = tool({"-S", "-t", "ntlm"});
  EXPECT_EQ(outcome.status, 6);
  EXPECT_EQ(outcome.err.rfind("Error: ", 0), 0U) << outcome;
  EXPECT_NE(outcome.err.find("The mode is not known"), std::string::npos) << outcome;
  EXPECT_FALSE(testsupport::exists(CONFIGURATION));
}

}  // namespace
