// One record in the log for each --set and --delete: what it changed, or that it was refused, and who asked for it.
#pragma once

#include <string>
#include <string_view>

// For one run of the tool, in one thread. No text that is given here may hold a secret.
namespace audit {

// The run is that of this command letter. The first one of S and D counts, all other values are passed over.
void begin(int command);

// Something was changed: for people, e.g. "proxy server from none to 'h:1'". Foreign parts come from quoted.
void changed(const std::string& what);

// The end of the run. Logs the record where the command was --set or --delete, and it changed something or was refused:
// with the tool's logger, as information for status 0 and as a warning otherwise.
//   Audit: --set ended with status 0 (Success). Changed: A; B. Caller: uid 0, login uid 1000, SUDO_USER 'alice',
//   terminal /dev/pts/0.
// "nothing" stands in place of the changes, "none" in place of what is missing of the caller. Never throws.
void end(int status);

// The value between apostrophes, escaped, at most 200 bytes of it, without a password of the form USER:PASSWORD@HOST.
std::string quoted(std::string_view value);

}  // namespace audit
