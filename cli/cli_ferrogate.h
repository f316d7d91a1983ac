// The command-line tool: options, commands and their handlers.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "base/include/logger.h"
#include "base/include/parameter_names.h"
#include "base/include/shredder.h"

// The logger of the whole tool.
inline constexpr char LOGGER_NAME[] = "cli.ferrogate";

// The proxy user where only a password is given.
inline constexpr char DEFAULT_USER[] = "Administrator";

// The parsed options of one run. An empty string means not given; the clear flags say that an option was given with an
// empty argument.
struct CommandOptions {
  int command = -1;  // the last letter from the command table
  bool verbose = false;
  std::string username;  // or MACHINE_MARKER
  lumo::Shredder2 password;
  std::string server;  // host:port
  bool clearServer = false;
  std::string authRequired;  // "true" or "false"
  bool clearAuthRequired = false;
  std::string authType;  // a name of proxyAuthTypes
  bool clearAuthType = false;
  int keyVersion = 0;
  int encType = 0;
  std::string opxUrl;
};

// cli_ferrogate_guard.cpp: the first and the last steps of main.
// The whole run: makes the process safe for secrets, takes the passwords out of argv, calls main2 inside the exception
// guard, writes the audit record. Returns the exit status.
int guardedMain(int argc, char** argv);
// The exception guard: what `body` returns, or 6 after a report of what it threw, whatever its type. Tests give it
// another body than main2.
int guarded(const std::function<int()>& body);
// The last step of main: returns the status, or ends the process with it at once, streams flushed, when a thread is
// still inside the Kerberos library, which exit handlers would tear down under it.
int leaveWith(int status);

// cli_ferrogate.cpp: dispatch.
// Returns the exit status. argv is writable: a password in it is overwritten once read.
int main2(int argc, char** argv);
void printUsage();
// The first letter that the run will read: of the command table, '?', or -1. Changes nothing.
int firstCommand(int argc, char** argv);
// The word of argv that getopt will not know as a long option, and will therefore print whole; null where none is.
const char* unknownLongOption(int argc, char** argv);
// The options behind one of the letters S, D, L and T, from getopt's present place on. 0, or 7 after a report.
int readCommandOptions(int letter, int argc, char** argv, CommandOptions& record);

// cli_ferrogate_report.cpp: logs the text at the level with the place of the call, then writes it and one newline to
// standard error. Of what these three write, control characters and the like come out escaped, but for line feeds:
// foreign parts of a text go through lumo::printable before they come here.
void reportAt(int level, const char* file, int line, const char* function, const std::string& text);
#define FERRO_REPORT(level, text) reportAt((level), __FILE__, __LINE__, __func__, (text))
// Logs the text at level 1; where `console` is set, also writes it and one newline to standard error.
void noteAt(bool console, const char* file, int line, const char* function, const std::string& text);
#define FERRO_NOTE(console, text) noteAt((console), __FILE__, __LINE__, __func__, (text))
// Writes the text to standard output at once, so that it keeps its place among the lines of standard error. A stream
// that takes nothing is no failure.
void printOut(const std::string& text);

// cli_ferrogate_options.cpp: each takes one result of getopt_long (and optarg). 0 taken, 7 refused, -1 not mine. A
// password is overwritten in optarg once it is read, also one inside a URL.
int parseCommonOption(int ch, CommandOptions& record);
int parseSetCommandOption(int ch, CommandOptions& record);
int parseTestCommandOption(int ch, CommandOptions& record);
// 0 for HOST:PORT with both non-empty, else 7 after a report.
int checkServerNameSyntax(const std::string& value);
// Does this process believe the same of FIPS mode as the running agent? True when no agent runs.
bool fipsModeConsistent();
// The warning for a false answer.
inline constexpr char FIPS_INCONSISTENT[] =
    "Did you restart ferrod after change fips.mode.enable in morvand.conf?\nYou may need to restart ferrod, or else "
    "ferrod would not be able to connect to proxy server.\n";

// cli_ferrogate_credential.cpp: the credential file's two doors. Mask bits of getCredential: what is copied into the
// record.
inline constexpr int CredentialUser = 1;
inline constexpr int CredentialPassword = 2;
inline constexpr int CredentialKey = 4;
int getCredential(CommandOptions& record, int mask);  // 0, 158 or 159
int storeCredential(const CommandOptions& record);    // 0 or 160
// Whose credential is stored, for an audit record: a user's name between apostrophes, "the machine account",
// "an unreadable file", or NO_USER.
std::string storedUser();
inline constexpr char NO_USER[] = "none";
// Asks for the password at the terminal; an empty answer is an answer. False, after a report, when nobody can be asked.
bool promptPassword(CommandOptions& record);

// cli_ferrogate_sasl.cpp: leaves out the plug-ins of SASL that are for other mechanisms than the directory's. To be
// called before anything of the process uses SASL, by one thread; the first call alone has an effect.
void restrictSaslPlugins();
// By the file's name; one that is not known is of use.
bool isSaslPluginOfUse(std::string_view path);

// The commands; each returns a result code.
int handleSetCommand(CommandOptions& record);
int handleDeleteCommand(CommandOptions& record);
int handleListCommand(CommandOptions& record);
int handleTestCommand(CommandOptions& record);
int handleCredentialCommand(int ch);

// cli_ferrogate_settings.cpp: the name of a Kerberos encryption type as --list shows it, "0x%04x" for a nameless one.
std::string encTypeText(int encType);
