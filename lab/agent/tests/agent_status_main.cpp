// Prints the local agent's status as the family's commands tell it.
#include <iostream>

#include "cli/cli_common.h"

int main() {
  std::cout << agentStatusText() << "\n";
  return 0;
}
