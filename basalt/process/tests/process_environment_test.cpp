#include "basalt/process/process_environment.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Variables = std::vector<std::string>;

// What stays of the variables, in memory that can be written to, as the kernel gives it.
Variables cleaned(Variables variables, const char* const* also = nullptr) {
  std::vector<char*> pointers;
  for (auto& variable : variables) pointers.push_back(variable.data());
  pointers.push_back(nullptr);
  lumo::cleanEnvironment(pointers.data(), also);
  Variables left;
  for (char** one = pointers.data(); *one != nullptr; ++one) left.emplace_back(*one);
  return left;
}

TEST(CleanEnvironment, KeepsWhatIsHarmlessInItsOrder) {
  const Variables all{"TZ=Europe/Berlin", "PATH=/sbin:/bin", "LANG=de_DE.UTF-8", "LC_ALL=C",     "LC_TIME=en_GB",
                      "TERM=xterm",       "SUDO_USER=alice", "SUDO_UID=1000",    "SUDO_GID=100", "PATH="};
  EXPECT_EQ(cleaned(all), all);
}

TEST(CleanEnvironment, DropsEverythingElse) {
  EXPECT_THAT(cleaned({"OPENSSL_CONF=/tmp/x",
                       "SASL_PATH=/tmp",
                       "GSS_MECH_CONFIG=/tmp/x",
                       "KRB5_TRACE=/tmp/x",
                       "SSLKEYLOGFILE=/tmp/x",
                       "LDAPCONF=/tmp/x",
                       "LDAPRC=x",
                       "LDAPSASL_SECPROPS=none",
                       "HOME=/tmp",
                       "LD_PRELOAD=/tmp/x.so",
                       "http_proxy=http://h/",
                       "POSIXLY_CORRECT=1",
                       "USER=x",
                       "LANGUAGE=de",
                       "PATHS=x",
                       "XPATH=x",
                       "LC=x",
                       "SUDO_EDITOR=vi",
                       "GNUTLS_DEBUG_LEVEL=9",
                       "",
                       "noequals",
                       "=x",
                       "path=/bin"}),
              IsEmpty());
  EXPECT_THAT(cleaned({}), IsEmpty());
  lumo::cleanEnvironment(nullptr);
}

TEST(CleanEnvironment, DropsLocalesTerminalsAndZonesThatNameFilesOfTheCallers) {
  EXPECT_THAT(cleaned({"LANG=../../tmp/x", "LANG=/tmp/x", "LC_ALL=de%s", "LC_TIME=a b", "TERM=/tmp/x", "TERM=x\n",
                       "LANG=\xc3\xa4", "LC_ALL=x\x7f"}),
              IsEmpty());
  EXPECT_THAT(cleaned({"TZ=/tmp/x", "TZ=:/tmp/x", "TZ=../tmp/x", "TZ=:Europe/../../x", "TZ=/usr/share/zoneinfo/../x",
                       "TZ=Europe/Berlin x", "TZ=x\n"}),
              IsEmpty());
  const Variables zones{"TZ=:Europe/Berlin", "TZ=CET-1CEST,M3.5.0,M10.5.0/3", "TZ=<-03>3", "TZ=/usr/share/zoneinfo/UTC",
                        "TZ="};
  EXPECT_EQ(cleaned(zones), zones);
  EXPECT_THAT(cleaned({"SUDO_UID=0x1", "SUDO_UID=", "SUDO_GID=-1"}), IsEmpty());
}

TEST(CleanEnvironment, WipesTheArgumentsOfSudosCommand) {
  std::string sudo = "SUDO_COMMAND=/usr/sbin/ferrogate --set -p s3cret";
  const std::size_t size = sudo.size();
  char* variables[] = {sudo.data(), nullptr};
  lumo::cleanEnvironment(variables);
  EXPECT_STREQ(variables[0], "SUDO_COMMAND=/usr/sbin/ferrogate");
  EXPECT_EQ(sudo, std::string("SUDO_COMMAND=/usr/sbin/ferrogate").append(size - 32, '\0'));
}

TEST(CleanEnvironment, KeepsWhatTheProgramNames) {
  const char* const also[] = {"NOTIFY_SOCKET", "LISTEN_*", nullptr};
  EXPECT_THAT(cleaned({"NOTIFY_SOCKET=/run/n", "LISTEN_FDS=1", "LISTEN_PID=2", "LISTEN=3", "NOTIFY_SOCKETS=4"}, also),
              ElementsAre("NOTIFY_SOCKET=/run/n", "LISTEN_FDS=1", "LISTEN_PID=2"));
  const char* const known[] = {"TZ", nullptr};
  EXPECT_THAT(cleaned({"TZ=/tmp/x"}, known), IsEmpty()) << "a value is judged all the same";
}

TEST(ChildEnvironment, HasASafePathAndNothingThatIsNotKept) {
  setenv("PATH", "/tmp/of-the-caller", 1);
  setenv("KRB5_TRACE", "/tmp/x", 1);
  setenv("SUDO_USER", "alice", 1);
  setenv("SUDO_COMMAND", "/bin/x -p s3cret", 1);
  const Variables child = lumo::childEnvironment();
  EXPECT_EQ(child.front(), "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin");
  EXPECT_THAT(child, testing::IsSupersetOf({"SUDO_USER=alice", "SUDO_COMMAND=/bin/x"}));
  for (std::size_t i = 1; i < child.size(); ++i) EXPECT_EQ(child[i].rfind("PATH=", 0), std::string::npos);
  for (const auto& variable : child) EXPECT_EQ(variable.rfind("KRB5", 0), std::string::npos) << variable;
  EXPECT_STREQ(getenv("SUDO_COMMAND"), "/bin/x -p s3cret") << "this process's own is left as it is";
  for (const char* name : {"KRB5_TRACE", "SUDO_USER", "SUDO_COMMAND"}) unsetenv(name);
}

}  // namespace
