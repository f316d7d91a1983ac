#include "cli/cli_ferrogate.h"

int main(int argc, char** argv) { return leaveWith(guardedMain(argc, argv)); }
