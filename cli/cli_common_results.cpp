#include <map>

#include "base/include/string_helpers.h"
#include "cli/cli_common.h"

namespace {

struct MessageRow {
  int code;
  const char* text;
};

using MessageTable = std::map<int, const char*>;

template <std::size_t Size>
MessageTable messageTable(const MessageRow (&rows)[Size]) {
  MessageTable table;
  for (const auto& row : rows) table.emplace(row.code, row.text);
  return table;
}

// The last code that belongs to all tools of the family; each tool numbers its own from the next one upwards.
constexpr int LAST_COMMON = 155;

constexpr MessageRow COMMON_ROWS[] = {
    {0, "Success"},
    {6, "Other misc errors"},
    {7, "Usage error"},
    {8, "Operation/command aborted by user"},
    {9, "Root privilege is required for the operation"},
    {10, "Machine is not joined to any domain"},
    {11, "Machine has joined"},
    {12, "Machine has joined to another domain"},
    {13, "ferrod is not running/not available"},
    {14, "ferrod is running in disconnected mode"},
    {15, "failed to start ferrod"},
    {16, "DNS Server May be down"},
    {17, "Generic DNS Problem"},
    {18, "Active Directory Domain name is incorrect or not found in DNS"},
    {19, "Username or password is incorrect"},
    {20, "Account has been disabled"},
    {21, "Account has expired"},
    {22, "Account already exists"},
    {23, "Account(user/machine)not found"},
    {24, "Account password has expired"},
    {25, "Unable to find zone."},
    {26, "Invalid container"},
    {27, "Permission denied"},
    {28, "Clock skew error between host and Active Directory"},
    {29, "Invalid computer account"},
    {30, "invalid credentials"},
    {31, "Service ticket not valid"},
    {32, "Policy not matched"},
    {33, "Password change rejected"},
    {34, "Workstation denied"},
    {35, "Active Directory user not found"},
    {36, "Active Directory group not found"},
    {38, "Unable to stop ferrod"},
    {39, "The user has exceeded his join quota."},
    {40, "Open file failed"},
    {41, "Cannot read file"},
    {42, "Cannot copy file"},
    {43, "Fetch distinguish name failed"},
    {44, "Bind to domain failed"},
    {45, "Credentials not found"},
    {46, "Credentials has expired."},
    {47, "SAM (pre-Win 2K) user names must be 20 characters or less"},
    {48, "SAM (pre-Win 2K) computer names must be 15 characters or less"},
    {49, "Network not ready"},
    {50,
     "Invalid server name is encountered, which could be due to the supplied name is an IP address or is not an FQDN "
     "name or the server is neither a Global Catalog nor a writable domain controller."},
    {52, "User not found in zone"},
    {53, "Group not found in zone"},
    {54, "Cannot find a read-write domain controller"},
    {55, "Kerberos Policy Error (FAST Not Supported)"},
    {56,
     "Principal's TGT revoked by Domain Controller, while getting service ticket, this could be due to machine is "
     "located in RODC site. "},
    {57, "The SPN violates Active Directory contraint."},
    {58, "Unable to connect to domain controller."},
    {59, "Operation is in progress."},
    {60, "IO exception."},
};

constexpr MessageRow TOOL_ROWS[] = {
    {156, "Failed to get FQDN from ip"},
    {157, "Invalid server port"},
    {158, "No credential data available"},
    {159, "Failed to get credential data"},
    {160, "Failed to set credential data"},
    {161, "Failed to clear credential data"},
    {162, "Connection test failed"},
    {163, "No proxy server available"},
    {164, "Proxy authtype configuration invalid"},
};

const MessageTable commonMessages = messageTable(COMMON_ROWS);
const MessageTable toolMessages = messageTable(TOOL_ROWS);

}  // namespace

std::string resultMessage(int code) {
  std::string unknown = "Unknown error <" + itoa(code, 10) + ">";
  // Zero and what lies below the first error consult no table: "Success" is never reported as an error.
  if (code < result::MiscError) return unknown;
  const MessageTable& table = code > LAST_COMMON ? toolMessages : commonMessages;
  const auto row = table.find(code);
  return row == table.end() ? unknown : row->second;
}
